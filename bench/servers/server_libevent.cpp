// bench_server_libevent: the echo server written the way libevent's documentation shows it:
// an evconnlistener accepts, each connection is a socket bufferevent, and the read callback
// moves every complete packet from the input evbuffer to the output evbuffer
// (evbuffer_remove_buffer, no copy of the payload). One event_base, one thread. A high output watermark
// pauses reading while a slow peer has more than 4 MiB pending.
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "common/bench_net.h"

using namespace QUOLNET_BENCH;

namespace {

const size_t kOutputHighWater = 4u << 20;

struct Server {
    event_base* base = nullptr;
    bool sink = false;
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

void OnEvent(bufferevent* bev, short events, void*) {
    if (events & (BEV_EVENT_EOF | BEV_EVENT_ERROR))
        bufferevent_free(bev);
}

void OnRead(bufferevent* bev, void* arg);

void OnWriteResume(bufferevent* bev, void* arg) {
    bufferevent_enable(bev, EV_READ);
    bufferevent_setcb(bev, OnRead, nullptr, OnEvent, arg);
    OnRead(bev, arg);
}

void OnRead(bufferevent* bev, void* arg) {
    Server* s = static_cast<Server*>(arg);
    evbuffer* in = bufferevent_get_input(bev);
    evbuffer* out = bufferevent_get_output(bev);
    for (;;) {
        size_t avail = evbuffer_get_length(in);
        if (avail < kHeaderLen)
            break;
        unsigned char hdr[kHeaderLen];
        evbuffer_copyout(in, hdr, kHeaderLen);
        uint32_t len = ReadBe32(hdr);
        if (len < kHeaderLen || len > kMaxPacketLen) {
            bufferevent_free(bev);
            return;
        }
        if (avail < len)
            break;
        ++s->packets;
        s->bytes += len;
        if (s->sink) {
            evbuffer_drain(in, len);
        } else {
            evbuffer_remove_buffer(in, out, len);
        }
    }
    if (!s->sink && evbuffer_get_length(out) > kOutputHighWater) {
        bufferevent_disable(bev, EV_READ);
        bufferevent_setcb(bev, OnRead, OnWriteResume, OnEvent, arg);
    }
}

void OnAccept(evconnlistener*, evutil_socket_t fd, sockaddr*, int, void* arg) {
    Server* s = static_cast<Server*>(arg);
    SetNoDelay(fd);
    bufferevent* bev = bufferevent_socket_new(s->base, fd, BEV_OPT_CLOSE_ON_FREE);
    if (bev == nullptr)
        return;
    // The documented knobs for bigger single reads and writes (64 KiB, like the other
    // servers). libevent 2.1's evbuffer_read still reads at most 4 KiB per call.
    bufferevent_set_max_single_read(bev, 64 * 1024);
    bufferevent_set_max_single_write(bev, 64 * 1024);
    bufferevent_setcb(bev, OnRead, nullptr, OnEvent, s);
    bufferevent_enable(bev, EV_READ | EV_WRITE);
}

void OnSignal(evutil_socket_t, short, void* arg) {
    event_base_loopbreak(static_cast<event_base*>(arg));
}

}  // namespace

int main(int argc, char** argv) {
    ServerOptions opt = ParseServerOptions(argc, argv, "bench_server_libevent");
    RaiseFdLimit();
    std::signal(SIGPIPE, SIG_IGN);
    Server s;
    s.sink = opt.sink;
    s.base = event_base_new();
    int lfd = OpenListener(opt.host, opt.port);
    // Backlog 0: the socket already listens (with a 4096 backlog); -1 would listen again with 128.
    evconnlistener* lst =
        evconnlistener_new(s.base, OnAccept, &s, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_REUSEABLE, 0, lfd);
    event* sigint = evsignal_new(s.base, SIGINT, OnSignal, s.base);
    event* sigterm = evsignal_new(s.base, SIGTERM, OnSignal, s.base);
    event_add(sigint, nullptr);
    event_add(sigterm, nullptr);
    event_base_dispatch(s.base);
    PrintServed(s.packets, s.bytes);
    event_free(sigint);
    event_free(sigterm);
    evconnlistener_free(lst);
    event_base_free(s.base);
    return 0;
}
