// Relaxed<T>: a plain value that several threads may read and write without a lock.
//
// Connector counters, statistics and flags are documented as "plain fields read without
// locks": a reader may see a slightly stale value and that is accepted. Storing them as
// relaxed atomics keeps that meaning (on x86-64 every access is an ordinary mov) while
// making the unlocked accesses well-defined, so ThreadSanitizer reports only real races.
// Read-modify-write operators (++, +=) are a load followed by a store, not one atomic step:
// two threads counting at once may lose an increment, exactly as with a plain field.
#pragma once

#include <atomic>

namespace QUOLNET {

template <typename T>
class Relaxed {
  public:
    Relaxed() : m_value(T()) {}
    Relaxed(T v) : m_value(v) {}  // NOLINT: implicit on purpose, it stands for a plain T
    Relaxed(const Relaxed& other) : m_value(other.load()) {}
    Relaxed& operator=(const Relaxed& other) {
        store(other.load());
        return *this;
    }
    Relaxed& operator=(T v) {
        store(v);
        return *this;
    }
    operator T() const { return load(); }  // NOLINT: implicit on purpose

    T load() const { return m_value.load(std::memory_order_relaxed); }
    void store(T v) { m_value.store(v, std::memory_order_relaxed); }

    Relaxed& operator++() {
        store(static_cast<T>(load() + 1));
        return *this;
    }
    T operator++(int) {
        T old = load();
        store(static_cast<T>(old + 1));
        return old;
    }
    Relaxed& operator--() {
        store(static_cast<T>(load() - 1));
        return *this;
    }
    Relaxed& operator+=(T v) {
        store(static_cast<T>(load() + v));
        return *this;
    }
    Relaxed& operator-=(T v) {
        store(static_cast<T>(load() - v));
        return *this;
    }

  private:
    std::atomic<T> m_value;
};

}  // namespace QUOLNET
