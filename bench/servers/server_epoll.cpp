// bench_server_epoll: the hand-written reference, the practical limit for one thread.
//
// One level-triggered epoll loop; per readiness event at most one read and one write. A
// connection reads into its own buffer (64 KiB, grown to hold the longest packet seen), and
// writes every complete packet straight back from that buffer with a single write. When the
// socket does not take everything, the rest waits for EPOLLOUT and reading pauses until it is
// gone (so a connection never buffers more than one read's worth).
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "common/bench_net.h"

using namespace QUOLNET_BENCH;

namespace {

struct Conn {
    int fd = -1;
    std::vector<char> buf = std::vector<char>(64 * 1024);
    size_t len = 0;      // bytes held in buf
    size_t out_off = 0;  // start of unwritten echo bytes
    size_t out_end = 0;  // end of the echo bytes (complete packets); 0 when nothing pending
};

uint64_t g_packets = 0;
uint64_t g_bytes = 0;

// Length of the complete packets at the front of [p, p+n); grows `need` to the length of the
// first incomplete packet. Returns -1 on a malformed header.
long CompletePrefix(const char* p, size_t n, size_t& need) {
    size_t pos = 0;
    need = 0;
    while (n - pos >= kHeaderLen) {
        uint32_t len = ReadBe32(p + pos);
        if (len < kHeaderLen || len > kMaxPacketLen)
            return -1;
        if (n - pos < len) {
            need = len;
            break;
        }
        pos += len;
        ++g_packets;
        g_bytes += len;
    }
    return long(pos);
}

void Modify(int ep, Conn* c, uint32_t events) {
    epoll_event ev;
    ev.events = events;
    ev.data.ptr = c;
    epoll_ctl(ep, EPOLL_CTL_MOD, c->fd, &ev);
}

void CloseConn(int ep, Conn* c) {
    epoll_ctl(ep, EPOLL_CTL_DEL, c->fd, nullptr);
    close(c->fd);
    delete c;
}

// Shifts the incomplete tail to the front once the echo bytes are gone.
void Compact(Conn* c) {
    size_t used = c->out_end;
    if (used > 0) {
        std::memmove(c->buf.data(), c->buf.data() + used, c->len - used);
        c->len -= used;
    }
    c->out_off = c->out_end = 0;
}

// Returns false when the connection must be closed.
bool WritePending(int ep, Conn* c) {
    ssize_t w = write(c->fd, c->buf.data() + c->out_off, c->out_end - c->out_off);
    if (w < 0) {
        if (errno != EAGAIN && errno != EINTR)
            return false;
        w = 0;
    }
    c->out_off += size_t(w);
    if (c->out_off == c->out_end) {
        Compact(c);
        Modify(ep, c, EPOLLIN);
    } else {
        Modify(ep, c, EPOLLOUT);
    }
    return true;
}

bool OnReadable(int ep, Conn* c, bool sink) {
    if (c->len == c->buf.size())
        c->buf.resize(c->buf.size() * 2);
    ssize_t r = read(c->fd, c->buf.data() + c->len, c->buf.size() - c->len);
    if (r == 0)
        return false;
    if (r < 0)
        return errno == EAGAIN || errno == EINTR;
    c->len += size_t(r);
    size_t need = 0;
    long done = CompletePrefix(c->buf.data(), c->len, need);
    if (done < 0)
        return false;
    if (need > c->buf.size())
        c->buf.resize(need);
    if (done == 0)
        return true;
    c->out_off = 0;
    c->out_end = size_t(done);
    if (sink) {
        Compact(c);
        return true;
    }
    ssize_t w = write(c->fd, c->buf.data(), c->out_end);
    if (w < 0) {
        if (errno != EAGAIN && errno != EINTR)
            return false;
        w = 0;
    }
    c->out_off = size_t(w);
    if (c->out_off == c->out_end) {
        Compact(c);
    } else {
        Modify(ep, c, EPOLLOUT);  // pause reading until the echo is out
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    ServerOptions opt = ParseServerOptions(argc, argv, "bench_server_epoll");
    RaiseFdLimit();
    InstallStopHandlers();
    int lfd = OpenListener(opt.host, opt.port);
    int ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event lev;
    lev.events = EPOLLIN;
    lev.data.ptr = nullptr;
    epoll_ctl(ep, EPOLL_CTL_ADD, lfd, &lev);
    std::vector<epoll_event> evs(1024);
    while (!StopRequested()) {
        int n = epoll_wait(ep, evs.data(), int(evs.size()), -1);
        for (int i = 0; i < n; ++i) {
            Conn* c = static_cast<Conn*>(evs[size_t(i)].data.ptr);
            uint32_t e = evs[size_t(i)].events;
            if (c == nullptr) {
                for (;;) {
                    int fd = accept4(lfd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
                    if (fd < 0)
                        break;
                    SetNoDelay(fd);
                    Conn* nc = new Conn;
                    nc->fd = fd;
                    epoll_event ev;
                    ev.events = EPOLLIN;
                    ev.data.ptr = nc;
                    epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
                }
                continue;
            }
            bool ok = true;
            if (e & EPOLLOUT) {
                ok = WritePending(ep, c);
            } else if (e & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
                ok = OnReadable(ep, c, opt.sink);
            }
            if (!ok)
                CloseConn(ep, c);
        }
    }
    PrintServed(g_packets, g_bytes);
    return 0;
}
