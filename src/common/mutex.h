// Mutex, AutoLocker and MaybeLocker: the process-local lock types that guard connector state.
//
// Mutex wraps one pthread mutex with default attributes (not recursive). AutoLocker holds
// a Mutex for the lifetime of a scope, so every return and every exception path releases it.
// MaybeLocker does the same only when asked to: for state that is shared between threads in
// some configurations and confined to one thread in others (the caller knows which).
#pragma once

#include <pthread.h>

namespace QUOLNET {

class Mutex {
  public:
    Mutex() { pthread_mutex_init(&m_mutex, nullptr); }
    ~Mutex() { pthread_mutex_destroy(&m_mutex); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Blocks until the calling thread holds the mutex.
    void Lock() { pthread_mutex_lock(&m_mutex); }
    // Releases a mutex held by the calling thread.
    void UnLock() { pthread_mutex_unlock(&m_mutex); }

    pthread_mutex_t m_mutex;
};

class AutoLocker {
  public:
    // Locks `mutex` now; the destructor unlocks it. `mutex` must outlive the locker.
    explicit AutoLocker(Mutex* mutex) : m_mutex(mutex) { m_mutex->Lock(); }
    ~AutoLocker() { m_mutex->UnLock(); }
    AutoLocker(const AutoLocker&) = delete;
    AutoLocker& operator=(const AutoLocker&) = delete;

  private:
    Mutex* m_mutex;
};

class MaybeLocker {
  public:
    // Locks `mutex` now when `take` is true; the destructor unlocks what was locked.
    MaybeLocker(Mutex* mutex, bool take) : m_mutex(take ? mutex : nullptr) {
        if (m_mutex != nullptr) {
            m_mutex->Lock();
        }
    }
    ~MaybeLocker() {
        if (m_mutex != nullptr) {
            m_mutex->UnLock();
        }
    }
    MaybeLocker(const MaybeLocker&) = delete;
    MaybeLocker& operator=(const MaybeLocker&) = delete;

  private:
    Mutex* m_mutex;
};

}  // namespace QUOLNET
