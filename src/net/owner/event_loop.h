// CEventLoop: one manager's epoll instance, the eventfd that wakes it, its timers and its
// mailbox of posted work.
//
// Threads and locks:
//   loop thread   Open, Close, Wait, ConsumeWake, RunTimers, RunPosted (the thread that
//                 called MarkLoopThread last, i.e. the one inside RunOnce);
//   any thread    Wake (async-signal-safe: one write to the eventfd), Post, HasPosted,
//                 AddTimer, CancelTimer, NextTimerDue, OnLoopThread;
//   m_post_mutex  the mailbox; m_timer_mutex the timers (never held while one runs, so a
//                 timer or posted function may add timers and post work).
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "../poller.h"
#include "uring_poller.h"

namespace QUOLNET {

class CEventLoop {
  public:
    CEventLoop();
    // Closes the eventfd and the epoll instance.
    ~CEventLoop();
    CEventLoop(const CEventLoop&) = delete;
    CEventLoop& operator=(const CEventLoop&) = delete;

    // Creates the epoll instance and the eventfd, and sizes the event array. Returns 0, or
    // -1 with errno set and `*what` naming the call that failed; nothing is left open then.
    int Open(int max_events, const char** what);
    // Waits through io_uring instead of epoll_wait from now on (before any registration).
    // 0, or -1 with `*why` saying why the kernel does not allow it (the loop is unchanged).
    int UseIoUring(std::string* why);
    bool UsesIoUring() const { return m_uring != nullptr; }
    void Close();
    int GetEpollFd() const { return m_epoll; }
    // Where the loop's sockets are registered (see poller.h).
    IPoller& Poller() { return *m_poller; }

    // Waits up to `timeout_ms` (-1: for ever). Returns the events taken (EINTR counts as
    // none), or -1 when epoll_wait fails (errno kept).
    int Wait(int timeout_ms);
    const epoll_event& Event(int i) const { return m_events[static_cast<size_t>(i)]; }
    // Whether an event's data is the eventfd's; ConsumeWake then resets the eventfd.
    bool IsWakeEvent(const void* ptr) const { return ptr == &m_wake_tag; }
    void ConsumeWake();
    void Wake();

    void Post(std::function<void()> fn);
    bool HasPosted();
    void RunPosted();

    // Timers: `delay_ms` until the first run, then every `interval_ms` (0: once).
    uint64_t AddTimer(int delay_ms, int interval_ms, std::function<void()> fn);
    void CancelTimer(uint64_t timer_id);
    void RunTimers();
    // The due time (NowMs) of the next timer, or -1 when there is none.
    int64_t NextTimerDue();

    void MarkLoopThread() { m_loop_thread.store(std::this_thread::get_id()); }
    bool OnLoopThread() const { return m_loop_thread.load() == std::this_thread::get_id(); }

    // Monotonic milliseconds.
    static int64_t NowMs();

  private:
    struct Timer {
        uint64_t id;
        int interval_ms;
        std::function<void()> fn;
    };

    int m_epoll;
    CEpollPoller m_epoll_poller;            // over m_epoll
    std::unique_ptr<CUringPoller> m_uring;  // the io_uring back end, when in use
    IPoller* m_poller = &m_epoll_poller;
    int m_wake_fd;
    char m_wake_tag;  // its address marks the eventfd's epoll events
    std::vector<epoll_event> m_events;
    std::atomic<std::thread::id> m_loop_thread;

    std::mutex m_post_mutex;
    std::vector<std::function<void()>> m_posted;  // guarded by m_post_mutex

    std::mutex m_timer_mutex;
    std::multimap<int64_t, Timer> m_timers;  // due time (ms) -> timer; guarded by m_timer_mutex
    uint64_t m_next_timer_id;                // guarded by m_timer_mutex
    uint64_t m_running_timer;                // guarded by m_timer_mutex
    bool m_running_cancelled;                // guarded by m_timer_mutex
};

}  // namespace QUOLNET
