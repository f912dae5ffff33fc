// IPoller: where a connector and its owner register sockets with the owner's event loop:
// readiness, level-triggered (a socket that stays readable is reported again at every wait),
// each registration reported with the pointer given for it. CEpollPoller, over an epoll
// instance, is what a connector uses unless its owner gives it another (SetPoller).
//
// Threads: Add and Remove on the owner's thread (or before its loop runs); Modify on any
// thread (a Send on another thread asks for EPOLLOUT while the loop waits), as epoll_ctl
// allows.
#pragma once

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace QUOLNET {

// How a manager's loop waits for its sockets (ConnectorMgrOptions::io_backend).
enum class IoBackend {
    kDefault,  // epoll, unless the environment variable QUOLNET_IO_BACKEND names another
    kEpoll,    // epoll_wait
    kIoUring,  // io_uring (Init fails when the kernel does not offer it)
    kAuto,     // io_uring where the kernel offers it (not disabled or filtered), else epoll
};

// One write of a batch (IPoller::SendBatch): `len` bytes at `buf` on `fd`.
struct SendOp {
    int fd;
    const void* buf;
    size_t len;
};

class IPoller {
  public:
    virtual ~IPoller() {}
    // Starts watching `fd` for `events` (EPOLLIN, EPOLLOUT, EPOLLERR, EPOLLRDHUP), reported
    // with `ptr`. 0, or -1 with errno set.
    virtual int Add(int fd, uint32_t events, void* ptr) = 0;
    // Watches `fd` for `events` from now on. 0, or -1 with errno set.
    virtual int Modify(int fd, uint32_t events, void* ptr) = 0;
    // Stops watching `fd`; before the descriptor is closed. Bytes the poller received for
    // it and nobody read are dropped. 0, or -1 with errno set.
    virtual int Remove(int fd) = 0;

    // Receives by the poller. A poller that takes a socket's input off the socket itself
    // (io_uring's multishot receive into the loop's buffers) says so here, and from then
    // on the registration's bytes are read with Receive, never with recv(2) on the socket
    // (they would come out of order). False: reading stays recv(2), nothing changes (epoll).
    // Loop thread, on a registered descriptor.
    virtual bool StartReceive(int fd) {
        (void)fd;
        return false;
    }
    // Up to `len` bytes received for `fd`, in order: the count, 0 at the peer's end of
    // stream, or -1 with errno set (EAGAIN: nothing now; EPOLLIN is reported again when
    // there is). When `inq` is not null and bytes came, *inq is set to what is still queued
    // behind them if that is known (0: nothing now, so no read need follow), and left alone
    // otherwise; asking costs nothing more than the read (a socket with TCP_INQ on tells it
    // with the read's result). Loop thread.
    virtual ssize_t Receive(int fd, void* buf, size_t len, int* inq) { return SocketRecv(fd, buf, len, inq); }
    // Ends the poller's receives for `fd` (the registration stays), waiting until the
    // kernel takes no more bytes for it, and appends to `*left` what was received and not
    // read: those bytes come before anything read from the socket afterwards. Loop thread.
    virtual void StopReceive(int fd, std::string* left) {
        (void)fd;
        (void)left;
    }
    // Writes every op of `ops`, each as send(2) with MSG_DONTWAIT | MSG_NOSIGNAL would, and
    // stores its result in results[i]: the bytes taken, or -errno (-EAGAIN: none). Returns
    // when every write is over: the memory may be reused then. A poller that can hand the
    // kernel the whole batch at once (io_uring: one enter) does; this one writes in turn.
    // Loop thread.
    virtual void SendBatch(const SendOp* ops, size_t n, int* results) {
        for (size_t i = 0; i < n; ++i) {
            ssize_t r = send(ops[i].fd, ops[i].buf, ops[i].len, MSG_DONTWAIT | MSG_NOSIGNAL);
            results[i] = r >= 0 ? static_cast<int>(r) : -errno;
        }
    }

    // recv(2) on `fd`; with `inq` not null, recvmsg(2) instead, and *inq set from the
    // TCP_CM_INQ message a socket with TCP_INQ on adds (left alone without one). Any thread.
    static ssize_t SocketRecv(int fd, void* buf, size_t len, int* inq) {
        if (inq == nullptr) {
            return recv(fd, buf, len, 0);
        }
        struct iovec iov;
        iov.iov_base = buf;
        iov.iov_len = len;
        union {
            char space[CMSG_SPACE(sizeof(int))];
            struct cmsghdr align;
        } control;
        struct msghdr msg;
        memset(&msg, 0, sizeof(msg));
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control.space;
        msg.msg_controllen = sizeof(control.space);
        ssize_t cnt = recvmsg(fd, &msg, 0);
        if (cnt > 0) {
            for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
                if (c->cmsg_level == IPPROTO_TCP && c->cmsg_type == TCP_CM_INQ) {
                    memcpy(inq, CMSG_DATA(c), sizeof(int));
                }
            }
        }
        return cnt;
    }
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
