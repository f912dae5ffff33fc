// CEventLoop: epoll, the eventfd wake-up, timers and posted work.
#include "net/owner/event_loop.h"

#include <errno.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace QUOLNET {

CEventLoop::CEventLoop()
    : m_epoll(-1),
      m_wake_fd(-1),
      m_wake_tag(0),
      m_next_timer_id(0),
      m_running_timer(0),
      m_running_cancelled(false) {}

CEventLoop::~CEventLoop() {
    Close();
}

int64_t CEventLoop::NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int CEventLoop::Open(int max_events, const char** what) {
    auto fail = [this, what](const char* call) {
        int err = errno;
        Close();
        *what = call;
        errno = err;
        return -1;
    };
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    if (m_epoll < 0) {
        return fail("epoll_create1()");
    }
    m_epoll_poller.SetEpollFd(m_epoll);
    m_wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_wake_fd < 0) {
        return fail("eventfd()");
    }
    if (m_poller->Add(m_wake_fd, EPOLLIN, &m_wake_tag) != 0) {
        return fail("epoll_ctl(ADD eventfd)");
    }
    try {
        m_events.resize(max_events > 0 ? static_cast<size_t>(max_events) : 256);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return fail("allocating the event array");
    }
    return 0;
}

void CEventLoop::Close() {
    m_poller = &m_epoll_poller;
    m_uring.reset();
    if (m_wake_fd >= 0) {
        ::close(m_wake_fd);
        m_wake_fd = -1;
    }
    if (m_epoll >= 0) {
        ::close(m_epoll);
        m_epoll = -1;
    }
}

int CEventLoop::UseIoUring(std::string* why) {
    std::unique_ptr<CUringPoller> uring(new (std::nothrow) CUringPoller());
    if (uring == nullptr) {
        *why = "out of memory";
        return -1;
    }
    if (uring->Open(4096, why) != 0) {
        return -1;
    }
    uring->SetWake([this]() { Wake(); });
    uring->SetLoopThreadCheck([this]() { return OnLoopThread(); });
    if (m_wake_fd >= 0) {
        m_epoll_poller.Remove(m_wake_fd);
        if (uring->Add(m_wake_fd, EPOLLIN, &m_wake_tag) != 0) {
            *why = std::string("registering the wake-up: ") + strerror(errno);
            m_epoll_poller.Add(m_wake_fd, EPOLLIN, &m_wake_tag);
            return -1;
        }
    }
    m_uring = std::move(uring);
    m_poller = m_uring.get();
    return 0;
}

int CEventLoop::Wait(int timeout_ms) {
    int n = m_uring != nullptr
                ? m_uring->Wait(m_events.data(), static_cast<int>(m_events.size()), timeout_ms)
                : epoll_wait(m_epoll, m_events.data(), static_cast<int>(m_events.size()), timeout_ms);
    if (n < 0 && errno == EINTR) {
        return 0;
    }
    return n;
}

void CEventLoop::ConsumeWake() {
    uint64_t v;
    ssize_t r = read(m_wake_fd, &v, sizeof(v));
    (void)r;
}

void CEventLoop::Wake() {
    if (m_wake_fd >= 0) {
        uint64_t one = 1;
        ssize_t r = write(m_wake_fd, &one, sizeof(one));
        (void)r;
    }
}

void CEventLoop::Post(std::function<void()> fn) {
    {
        std::lock_guard<std::mutex> lock(m_post_mutex);
        m_posted.push_back(std::move(fn));
    }
    Wake();
}

bool CEventLoop::HasPosted() {
    std::lock_guard<std::mutex> lock(m_post_mutex);
    return !m_posted.empty();
}

void CEventLoop::RunPosted() {
    std::vector<std::function<void()>> posted;
    {
        std::lock_guard<std::mutex> lock(m_post_mutex);
        posted.swap(m_posted);
    }
    for (auto& fn : posted) {
        fn();
    }
}

uint64_t CEventLoop::AddTimer(int delay_ms, int interval_ms, std::function<void()> fn) {
    uint64_t id;
    {
        std::lock_guard<std::mutex> lock(m_timer_mutex);
        id = ++m_next_timer_id;
        Timer t;
        t.id = id;
        t.interval_ms = interval_ms;
        t.fn = std::move(fn);
        m_timers.emplace(NowMs() + std::max(0, delay_ms), std::move(t));
    }
    if (!OnLoopThread()) {
        Wake();
    }
    return id;
}

void CEventLoop::CancelTimer(uint64_t timer_id) {
    std::lock_guard<std::mutex> lock(m_timer_mutex);
    if (timer_id == m_running_timer) {
        m_running_cancelled = true;
    }
    for (auto it = m_timers.begin(); it != m_timers.end(); ++it) {
        if (it->second.id == timer_id) {
            m_timers.erase(it);
            return;
        }
    }
}

void CEventLoop::RunTimers() {
    int64_t now = NowMs();
    for (;;) {
        Timer t;
        {
            std::lock_guard<std::mutex> lock(m_timer_mutex);
            if (m_timers.empty() || m_timers.begin()->first > now) {
                return;
            }
            t = std::move(m_timers.begin()->second);
            m_timers.erase(m_timers.begin());
            m_running_timer = t.id;
            m_running_cancelled = false;
        }
        t.fn();
        std::lock_guard<std::mutex> lock(m_timer_mutex);
        if (t.interval_ms > 0 && !m_running_cancelled) {
            int64_t due = NowMs() + t.interval_ms;
            m_timers.emplace(due, std::move(t));
        }
        m_running_timer = 0;
    }
}

int64_t CEventLoop::NextTimerDue() {
    std::lock_guard<std::mutex> lock(m_timer_mutex);
    return m_timers.empty() ? -1 : m_timers.begin()->first;
}

}  // namespace QUOLNET
