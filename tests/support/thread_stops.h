// CThreadStops: numbered stops for one thread inside a --wrap seam, so that a test can hold
// that thread at exact points of a library call while it changes the world around it.
//
//   test thread                          stopped thread (in the wrapper)
//   Reset(); Arm(who) ............... who: if (Wanted()) Reach(1, last=false) -- waits
//   WaitReached(1) -> true                        |
//   ... rearrange ...                             |
//   Open(1) --------------------------------------+  runs on
//   WaitReached(2) -> true          <--- Reach(2, last=true) -- disarms, waits
//   Open(2) --------------------------------------+  runs on; later calls pass
//
// Every wait is bounded (20 s), so a broken interleaving fails the test instead of hanging it.
#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace qntest {

class CThreadStops {
  public:
    // Disarmed, nothing reached or opened.
    void Reset() {
        std::lock_guard<std::mutex> l(m_mu);
        m_armed = false;
        m_reached = 0;
        m_opened = 0;
    }
    // Stops `who` from now on.
    void Arm(pthread_t who) {
        std::lock_guard<std::mutex> l(m_mu);
        m_who = who;
        m_armed = true;
    }
    // Whether the calling thread is the armed one.
    bool Wanted() {
        std::lock_guard<std::mutex> l(m_mu);
        return m_armed && pthread_equal(m_who, pthread_self());
    }
    // Called by the stopped thread: reports reaching stop `n` and waits until the test opens
    // it. At the `last` stop it disarms first, so that its later calls pass.
    void Reach(int n, bool last) {
        std::unique_lock<std::mutex> l(m_mu);
        if (last) {
            m_armed = false;
        }
        m_reached = n;
        m_cv.notify_all();
        m_cv.wait_for(l, std::chrono::seconds(20), [&] { return m_opened >= n; });
    }
    // Called by the test: true once stop `n` was reached, false after 20 s.
    bool WaitReached(int n) {
        std::unique_lock<std::mutex> l(m_mu);
        return m_cv.wait_for(l, std::chrono::seconds(20), [&] { return m_reached >= n; });
    }
    // Called by the test: lets the thread go on from stop `n`.
    void Open(int n) {
        std::lock_guard<std::mutex> l(m_mu);
        m_opened = n;
        m_cv.notify_all();
    }

  private:
    std::mutex m_mu;
    std::condition_variable m_cv;
    pthread_t m_who{};     // guarded by m_mu
    bool m_armed = false;  // guarded by m_mu
    int m_reached = 0;     // guarded by m_mu
    int m_opened = 0;      // guarded by m_mu
};

}  // namespace qntest
