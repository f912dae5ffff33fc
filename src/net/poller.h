// IPoller: where a connector and its owner register sockets with the owner's event loop:
// readiness, level-triggered (a socket that stays readable is reported again at every wait),
// each registration reported with the pointer given for it. CEpollPoller, over an epoll
// instance, is what a connector uses unless its owner gives it another (SetPoller).
//
// Threads: Add and Remove on the owner's thread (or before its loop runs); Modify on any
// thread (a Send on another thread asks for EPOLLOUT while the loop waits), as epoll_ctl
// allows.
#pragma once

#include <sys/epoll.h>

#include <cstdint>
#include <cstring>

namespace QUOLNET {

// How a manager's loop waits for its sockets (ConnectorMgrOptions::io_backend).
enum class IoBackend {
    kDefault,  // epoll, unless the environment variable QUOLNET_IO_BACKEND names another
    kEpoll,    // epoll_wait
    kIoUring,  // io_uring (Init fails when the kernel does not offer it)
    kAuto,     // io_uring where the kernel offers it (not disabled or filtered), else epoll
};

class IPoller {
  public:
    virtual ~IPoller() {}
    // Starts watching `fd` for `events` (EPOLLIN, EPOLLOUT, EPOLLERR, EPOLLRDHUP), reported
    // with `ptr`. 0, or -1 with errno set.
    virtual int Add(int fd, uint32_t events, void* ptr) = 0;
    // Watches `fd` for `events` from now on. 0, or -1 with errno set.
    virtual int Modify(int fd, uint32_t events, void* ptr) = 0;
    // Stops watching `fd`; before the descriptor is closed. 0, or -1 with errno set.
    virtual int Remove(int fd) = 0;
};

// Registrations in an epoll instance (not owned).
class CEpollPoller : public IPoller {
  public:
    explicit CEpollPoller(int epoll = -1) : m_epoll(epoll) {}
    void SetEpollFd(int epoll) { m_epoll = epoll; }
    int GetEpollFd() const { return m_epoll; }
    int Add(int fd, uint32_t events, void* ptr) override { return Control(EPOLL_CTL_ADD, fd, events, ptr); }
    int Modify(int fd, uint32_t events, void* ptr) override {
        return Control(EPOLL_CTL_MOD, fd, events, ptr);
    }
    int Remove(int fd) override { return Control(EPOLL_CTL_DEL, fd, 0, nullptr); }

  private:
    int Control(int op, int fd, uint32_t events, void* ptr) {
        struct epoll_event ev;
        memset(&ev, 0, sizeof(ev));
        ev.events = events;
        ev.data.ptr = ptr;
        return epoll_ctl(m_epoll, op, fd, &ev);
    }

    int m_epoll;
};

}  // namespace QUOLNET
