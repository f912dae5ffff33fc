// bench_micro: Google Benchmark micro-benchmarks of the connector's hot paths, through its
// public interface only: a real loopback TCP pair, a real epoll instance and a real pool. The
// peer's writes that feed a receive benchmark run with the timer paused, so the figures
// cover the connector's own work (its recv() calls included).
//
//   BM_FrameSmallPackets   Recv of one block holding many small packets, then Peek/Drop
//   BM_BigPacketChain      Recv of a 256 KiB packet over a chain of blocks, Peek (joined), Drop
//   BM_PeekDropInPlace     Peek/Drop of a full ring of small packets already framed
//   BM_PoolAllocRelease    CNetBufferMgr Allocate + Release, 1..4 threads on one pool
//   BM_PoolAllocReleaseCached  the same with each thread's cache renewed every 16 pairs
//   BM_DirectSend          Send of one packet straight to a writable socket
//   BM_PingPong            one 64 B request and its reply over a socketpair, through
//                          SetEvent/Update, Peek/Drop and a direct Send (the whole round trip,
//                          the peer's write and read included); the receive block is taken
//                          and given back on every packet, so this shows the cost of that
//   BM_PingPongCallback    the same with the packet taken by a receive callback
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "net/length_parser.h"
#include "net/net_buffer_mgr.h"
#include "net/tcp_connector.h"

namespace {

using QUOLNET::CLengthPrefixParser;
using QUOLNET::CNetBufferMgr;
using QUOLNET::CTcpConnector;
using QUOLNET::NetBuffer;

const int kSockBuf = 8 << 20;
// A copy, so that std::min does not need the library to define the static member.
const int kRingSlots = CTcpConnector::kPacketInfoSize;
const int kCombineLen = 1 << 20;

[[noreturn]] void Die(const char* what) {
    std::perror(what);
    std::abort();
}

// A connector wrapping the accepted end of a loopback TCP pair; `peer` is the dialled end
// (blocking). Owns both descriptors, the epoll instance, the pool and the lent buffers.
class CConnectorRig {
  public:
    CConnectorRig() : m_pool(4096), m_combine(kCombineLen), m_cb_combine(kCombineLen) {
        int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr;
        std::memset(&addr, 0, sizeof(addr));
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t alen = sizeof(addr);
        if (lfd < 0 || bind(lfd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(lfd, 4) != 0 || getsockname(lfd, reinterpret_cast<sockaddr*>(&addr), &alen) != 0)
            Die("listen");
        peer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        setsockopt(peer, SOL_SOCKET, SO_SNDBUF, &kSockBuf, sizeof(kSockBuf));
        setsockopt(peer, SOL_SOCKET, SO_RCVBUF, &kSockBuf, sizeof(kSockBuf));
        if (connect(peer, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
            Die("connect");
        int fd = accept4(lfd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            Die("accept");
        close(lfd);
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSockBuf, sizeof(kSockBuf));
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSockBuf, sizeof(kSockBuf));
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        m_epoll = epoll_create1(EPOLL_CLOEXEC);
        conn.reset(new CTcpConnector(m_combine.data(), kCombineLen, m_cb_combine.data(), kCombineLen,
                                     m_last_err, &m_pool, 1024, 1024, nullptr, nullptr));
        std::string url = "tcp://127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
        if (conn->Init(url.c_str(), &m_parser, m_epoll, fd) != 0)
            Die("Init");
    }
    ~CConnectorRig() {
        conn->Fini();
        conn.reset();
        close(peer);
        close(m_epoll);
    }
    CConnectorRig(const CConnectorRig&) = delete;
    CConnectorRig& operator=(const CConnectorRig&) = delete;

    // Writes all of buf from the peer (blocking).
    void PeerWrite(const char* buf, size_t len) {
        while (len > 0) {
            ssize_t w = write(peer, buf, len);
            if (w <= 0)
                Die("peer write");
            buf += w;
            len -= size_t(w);
        }
    }

    // Reads what the peer has received until `len` bytes are gone (blocking reads).
    void PeerDrain(size_t len) {
        static char sink[256 * 1024];
        while (len > 0) {
            ssize_t r = read(peer, sink, std::min(len, sizeof(sink)));
            if (r <= 0)
                Die("peer read");
            len -= size_t(r);
        }
    }

    // Calls Recv until `packets` packets wait in the ring (waits for the bytes with poll).
    void RecvPackets(int packets) {
        while (conn->GetPacketInfoCnt() < packets) {
            int r = conn->Recv();
            if (r < 0)
                Die("Recv");
            if (r == 0) {
                pollfd p = {conn->GetSocket(), POLLIN, 0};
                poll(&p, 1, 1000);
            }
        }
    }

    // Peeks and drops `packets` packets; returns the bytes seen.
    size_t PeekDrop(int packets) {
        size_t bytes = 0;
        for (int i = 0; i < packets; ++i) {
            const char* p = nullptr;
            unsigned int len = 0;
            if (conn->Peek(&p, len, nullptr) != 0)
                Die("Peek");
            benchmark::DoNotOptimize(p);
            bytes += len;
            if (conn->Drop() != 0)
                Die("Drop");
        }
        return bytes;
    }

    int peer = -1;
    std::unique_ptr<CTcpConnector> conn;

  private:
    CNetBufferMgr m_pool;
    CLengthPrefixParser m_parser;
    std::vector<char> m_combine;
    std::vector<char> m_cb_combine;
    char m_last_err[256] = {};
    int m_epoll = -1;
};

std::vector<char> MakePackets(int count, unsigned int size) {
    std::vector<char> out(size_t(count) * size);
    for (int i = 0; i < count; ++i) {
        char* p = out.data() + size_t(i) * size;
        CLengthPrefixParser::WriteHeader(p, size);
        std::memset(p + 4, 'a' + i % 26, size - 4);
    }
    return out;
}

void BM_FrameSmallPackets(benchmark::State& state) {
    const unsigned int size = unsigned(state.range(0));
    const int count = std::min<int>(kRingSlots, int(NetBuffer::kBlockSize / size));
    CConnectorRig rig;
    std::vector<char> bytes = MakePackets(count, size);
    for (auto _ : state) {
        state.PauseTiming();
        rig.PeerWrite(bytes.data(), bytes.size());
        state.ResumeTiming();
        rig.RecvPackets(count);
        rig.PeekDrop(count);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * count);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
}
BENCHMARK(BM_FrameSmallPackets)->Arg(64)->Arg(512);

void BM_BigPacketChain(benchmark::State& state) {
    const unsigned int size = unsigned(state.range(0));
    CConnectorRig rig;
    std::vector<char> bytes = MakePackets(1, size);
    for (auto _ : state) {
        state.PauseTiming();
        rig.PeerWrite(bytes.data(), bytes.size());
        state.ResumeTiming();
        rig.RecvPackets(1);
        rig.PeekDrop(1);
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
}
BENCHMARK(BM_BigPacketChain)->Arg(256 * 1024);

void BM_PeekDropInPlace(benchmark::State& state) {
    const unsigned int size = 64;
    const int count = kRingSlots;  // a full ring: 1000 x 64 B fit one block
    CConnectorRig rig;
    std::vector<char> bytes = MakePackets(count, size);
    for (auto _ : state) {
        state.PauseTiming();
        rig.PeerWrite(bytes.data(), bytes.size());
        rig.RecvPackets(count);
        state.ResumeTiming();
        benchmark::DoNotOptimize(rig.PeekDrop(count));
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * count);
}
BENCHMARK(BM_PeekDropInPlace);

CNetBufferMgr* g_shared_pool = nullptr;

std::atomic<int> g_pool_threads_done{0};  // threads of a pool benchmark past their last pair

// Allocate + Release pairs on one pool shared by the benchmark's threads. `renew` > 0: each
// thread works under a thread cache renewed every `renew` pairs, as a manager's loop renews
// its cache every tick (per `renew` pairs one locked take of the block and a spare, and one
// locked give-back).
void PoolPairs(benchmark::State& state, int renew) {
    if (state.thread_index() == 0)
        g_shared_pool = new CNetBufferMgr(1024);
    std::optional<CNetBufferMgr::CThreadCache> cache;
    int left = 0;
    // Google Benchmark starts the timed loop of all threads together, after this set-up.
    for (auto _ : state) {
        if (renew > 0 && left-- == 0) {
            cache.reset();
            cache.emplace(g_shared_pool);
            left = renew - 1;
        }
        NetBuffer* b = g_shared_pool->Allocate(true, false);
        benchmark::DoNotOptimize(b);
        g_shared_pool->Release(&b);
    }
    cache.reset();  // gives its blocks back: the pool must outlive every thread's cache
    state.SetItemsProcessed(int64_t(state.iterations()));
    g_pool_threads_done.fetch_add(1);
    if (state.thread_index() == 0) {
        while (g_pool_threads_done.load() < state.threads()) {
            std::this_thread::yield();
        }
        g_pool_threads_done.store(0);
        delete g_shared_pool;
        g_shared_pool = nullptr;
    }
}

void BM_PoolAllocRelease(benchmark::State& state) {
    PoolPairs(state, 0);
}
BENCHMARK(BM_PoolAllocRelease)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

void BM_PoolAllocReleaseCached(benchmark::State& state) {
    PoolPairs(state, 16);
}
BENCHMARK(BM_PoolAllocReleaseCached)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

void BM_DirectSend(benchmark::State& state) {
    const unsigned int size = unsigned(state.range(0));
    const int batch = 256;  // packets between drains of the peer (well inside the socket buffers)
    CConnectorRig rig;
    std::vector<char> pkt = MakePackets(1, size);
    rig.conn->SetEvent(EPOLLOUT);
    int since_drain = 0;
    for (auto _ : state) {
        if (rig.conn->Send(pkt.data(), size, nullptr) != int(size))
            Die("Send");
        if (++since_drain == batch) {
            state.PauseTiming();
            if (rig.conn->GetSendQCount() != 0)
                rig.conn->Send();  // nothing should be queued
            rig.PeerDrain(size_t(batch) * size);
            rig.conn->SetEvent(EPOLLOUT);
            since_drain = 0;
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.SetBytesProcessed(int64_t(state.iterations()) * size);
}
BENCHMARK(BM_DirectSend)->Arg(64)->Arg(1024)->Arg(16 * 1024);

// One connector over a socketpair (the accepted-connection path of Init), its reply sent
// straight back; `peer` is the blocking other end.
class CPairRig {
  public:
    explicit CPairRig(QUOLNET::RecvPkgCallback cb = nullptr, void* arg = nullptr)
        : m_pool(64), m_combine(kCombineLen), m_cb_combine(kCombineLen) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
            Die("socketpair");
        peer = sv[0];
        if (fcntl_nonblock(sv[1]) != 0)
            Die("fcntl");
        m_epoll = epoll_create1(EPOLL_CLOEXEC);
        conn.reset(new CTcpConnector(m_combine.data(), kCombineLen, m_cb_combine.data(), kCombineLen,
                                     m_last_err, &m_pool, 64, 64, cb, arg));
        if (conn->Init("tcp://127.0.0.1:1", &m_parser, m_epoll, sv[1]) != 0)
            Die("Init");
    }
    ~CPairRig() {
        conn->Fini();
        conn.reset();
        close(peer);
        close(m_epoll);
    }
    CPairRig(const CPairRig&) = delete;
    CPairRig& operator=(const CPairRig&) = delete;

    static int fcntl_nonblock(int fd) {
        int flags = fcntl(fd, F_GETFL, 0);
        return flags < 0 ? -1 : fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }

    // The peer's request, then one tick of the owner's loop, then the peer reads the reply.
    void RoundTrip(const char* pkt, unsigned int size, bool peek_drop) {
        if (write(peer, pkt, size) != ssize_t(size))
            Die("peer write");
        conn->SetEvent(EPOLLIN | EPOLLOUT);
        conn->Update();
        if (peek_drop) {
            const char* p = nullptr;
            unsigned int len = 0;
            if (conn->Peek(&p, len, nullptr) != 0 || p == nullptr)
                Die("Peek");
            if (conn->Send(p, len, nullptr) != int(len))
                Die("Send");
            conn->Drop();
        }
        char reply[256];
        size_t got = 0;
        while (got < size) {
            ssize_t r = read(peer, reply + got, sizeof(reply) - got);
            if (r <= 0)
                Die("peer read");
            got += size_t(r);
        }
    }

    int peer = -1;
    std::unique_ptr<CTcpConnector> conn;
    CNetBufferMgr m_pool;

  private:
    CLengthPrefixParser m_parser;
    std::vector<char> m_combine;
    std::vector<char> m_cb_combine;
    char m_last_err[256] = {};
    int m_epoll = -1;
};

void BM_PingPong(benchmark::State& state) {
    const unsigned int size = 64;
    CPairRig rig;
    std::vector<char> pkt = MakePackets(1, size);
    for (auto _ : state) {
        rig.RoundTrip(pkt.data(), size, true);
    }
    state.counters["blocks_idle"] = double(rig.m_pool.GetUsedCount());
    state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_PingPong);

// The callback replies from inside the receive path and takes the packet.
int EchoCallback(const char*, const char* data, int len, void* arg) {
    CTcpConnector* conn = *static_cast<CTcpConnector**>(arg);
    if (conn->Send(data, unsigned(len), nullptr) != len)
        Die("Send");
    return 1;
}

void BM_PingPongCallback(benchmark::State& state) {
    const unsigned int size = 64;
    CTcpConnector* self = nullptr;
    CPairRig rig(&EchoCallback, &self);
    self = rig.conn.get();
    std::vector<char> pkt = MakePackets(1, size);
    for (auto _ : state) {
        rig.RoundTrip(pkt.data(), size, false);
    }
    state.counters["blocks_idle"] = double(rig.m_pool.GetUsedCount());
    state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_PingPongCallback);

}  // namespace
