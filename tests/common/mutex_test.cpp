// Mutex and AutoLocker: mutual exclusion and release on every scope exit.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "common/mutex.h"
#include "common/relaxed.h"

using namespace QUOLNET;

namespace {

TEST(Mutex, LockAndUnlock) {
    Mutex m;
    m.Lock();
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&m.m_mutex));
    m.UnLock();
    EXPECT_EQ(0, pthread_mutex_trylock(&m.m_mutex));
    m.UnLock();
}

TEST(AutoLocker, HoldsForTheScope) {
    Mutex m;
    {
        AutoLocker locker(&m);
        EXPECT_EQ(EBUSY, pthread_mutex_trylock(&m.m_mutex));
    }
    EXPECT_EQ(0, pthread_mutex_trylock(&m.m_mutex));
    m.UnLock();
}

TEST(AutoLocker, ReleasesOnException) {
    Mutex m;
    try {
        AutoLocker locker(&m);
        throw std::runtime_error("boom");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(0, pthread_mutex_trylock(&m.m_mutex));
    m.UnLock();
}

int LockedReturn(Mutex* m, bool early) {
    AutoLocker locker(m);
    if (early) {
        return 1;
    }
    return 2;
}

TEST(AutoLocker, ReleasesOnEveryReturn) {
    Mutex m;
    EXPECT_EQ(1, LockedReturn(&m, true));
    EXPECT_EQ(2, LockedReturn(&m, false));
    EXPECT_EQ(0, pthread_mutex_trylock(&m.m_mutex));
    m.UnLock();
}

TEST(AutoLocker, ExcludesOtherThreads) {
    Mutex m;
    long counter = 0;  // guarded by m
    const int kThreads = 4;
    const int kRounds = 100000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                AutoLocker locker(&m);
                ++counter;
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(static_cast<long>(kThreads) * kRounds, counter);
}

TEST(Relaxed, BehavesAsPlainValue) {
    Relaxed<int> v;
    EXPECT_EQ(0, static_cast<int>(v));
    v = 5;
    ++v;
    v += 4;
    v -= 2;
    --v;
    EXPECT_EQ(7, v++);
    EXPECT_EQ(8, v.load());
    Relaxed<int> w(v);
    EXPECT_EQ(8, static_cast<int>(w));
}

}  // namespace
