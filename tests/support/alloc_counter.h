// A global operator new that counts, for the tests that assert a path allocates nothing.
//
// Include this header from exactly one source file of a test executable: it defines the
// replaceable allocation functions (which must not be inline), so they replace the library's
// for that executable alone. Counting is off until an AllocationCount lives.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>

namespace qntest {

inline std::atomic<bool> g_counting{false};
inline std::atomic<long> g_allocations{0};

inline void* CountedAlloc(size_t size) {
    if (g_counting.load(std::memory_order_relaxed)) {
        g_allocations.fetch_add(1, std::memory_order_relaxed);
    }
    return std::malloc(size == 0 ? 1 : size);
}

// Counts the allocations made while it lives (or until Stop).
class AllocationCount {
  public:
    AllocationCount() {
        g_allocations.store(0);
        g_counting.store(true);
    }
    ~AllocationCount() { g_counting.store(false); }
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;
    long Stop() {
        g_counting.store(false);
        return g_allocations.load();
    }
};

// Runs `warm_up` rounds uncounted, then counts the allocations of at least `measured` more
// rounds, going on until `at_least` has passed too (for periodic work to run among them).
// `round()` returns false on a failure: the count of the measured rounds run so far is
// returned with *failed_round set to the failing round's index (or -1 when a warm-up round
// failed); *failed_round is -1 when every round passed.
template <typename Round>
long CountAllocations(int warm_up, int measured, Round round, int* failed_round,
                      std::chrono::milliseconds at_least = std::chrono::milliseconds(0)) {
    *failed_round = -1;
    for (int i = 0; i < warm_up; ++i) {
        if (!round()) {
            *failed_round = i;
            return -1;
        }
    }
    auto until = std::chrono::steady_clock::now() + at_least;
    AllocationCount count;
    for (int i = 0; i < measured || std::chrono::steady_clock::now() < until; ++i) {
        if (!round()) {
            *failed_round = warm_up + i;
            break;
        }
    }
    return count.Stop();
}

}  // namespace qntest

// The replacements below pair malloc with free by design; GCC cannot see that the two
// replaced operators match and warns at every delete.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(size_t size) {
    void* p = qntest::CountedAlloc(size);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}
void* operator new[](size_t size) {
    return operator new(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return qntest::CountedAlloc(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return qntest::CountedAlloc(size);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}
