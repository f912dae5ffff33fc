// bench_server_quolnet: the echo server on quolnet's owner loop (CConnectorMgr), one thread,
// or with --threads N on N loops (CConnectorGroup: a listening socket per loop with
// SO_REUSEPORT, each loop its own pool).
//
//   --mode peek      (default) the manager takes each packet out of the connector's ring with
//                    Peek/Drop and offers it to the handler;
//   --mode callback  the connector's receive callback hands packets to the handler while it
//                    frames them (ConnectorMgrOptions::use_recv_callback).
//
// Replies: in peek mode, when the manager says more packets of the same connection are
// waiting in this tick, the echo is corked (SendCorked) and every corked connection is
// flushed once at the end of the tick; a lone packet is sent at once (Send, straight from the
// connector's block to the socket when it is writable). In callback mode `more` says that
// bytes after the packet were already read, and replies are corked the same way.
// A reply refused for lack of room leaves the packet in the ring, so a slow reader slows its
// own connection down through TCP.
//
//   --cork off       never cork: every reply is a direct Send (to measure what corking buys).
//   --cork all       cork every reply: each connection's replies leave with the end-of-tick
//                    flush, which on the io_uring back end is one call to the kernel for all.
//
// TLS (built when quolnet::tls is): --tls-cert FILE --tls-key FILE serves the same echo/sink
// over TLS 1.3 with that certificate, --tls with a self-signed one made in memory; the one
// cipher suite allowed is kTlsCipherSuite, as for every TLS side of the benchmark. The
// listener's SocketOptions::stream carries the TLS context; the handler is the same.
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/bench_net.h"
#include "net/connector_group.h"
#include "net/connector_mgr.h"
#ifdef QUOLNET_BENCH_TLS
#include "common/bench_tls.h"
#include "tls/tls_context.h"
#endif

using namespace QUOLNET_BENCH;

namespace {

QUOLNET::CConnectorMgr* g_mgr = nullptr;

void OnStopSignal(int) {
    if (g_mgr != nullptr)
        g_mgr->Stop();
}

class CEchoHandler : public QUOLNET::IConnectorHandler {
  public:
    CEchoHandler(bool sink, bool cork, bool cork_all) : m_sink(sink), m_cork(cork), m_cork_all(cork_all) {}
    CEchoHandler(const CEchoHandler&) = delete;
    CEchoHandler& operator=(const CEchoHandler&) = delete;

    bool OnPacket(QUOLNET::CConnectorMgr* mgr, QUOLNET::ConnId id, const char* data, unsigned int len,
                  bool more) override {
        if (!m_sink) {
            // The last packet of a run (more false) joins the corked ones in Send.
            int ret =
                (m_cork && more) || m_cork_all ? mgr->SendCorked(id, data, len) : mgr->Send(id, data, len);
            if (ret == 0)
                return false;  // no room now: offered again shortly
            if (ret < 0) {
                // Refused for good (the packet is not echoed): counted, reported on exit.
                LoopCount* count = Mine();
                count->refused.store(count->refused.load(std::memory_order_relaxed) + 1,
                                     std::memory_order_relaxed);
                count->last_refusal.store(ret, std::memory_order_relaxed);
                return true;
            }
        }
        LoopCount* count = Mine();
        count->packets.store(count->packets.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        count->bytes.store(count->bytes.load(std::memory_order_relaxed) + len, std::memory_order_relaxed);
        return true;
    }

    // Echoes refused with an error over every loop, and the last error. Read after the loops
    // stopped.
    std::pair<uint64_t, int> Refused() {
        std::lock_guard<std::mutex> lock(m_counts_mutex);
        std::pair<uint64_t, int> out{0, 0};
        for (auto& c : m_counts) {
            out.first += c->refused.load(std::memory_order_relaxed);
            if (c->last_refusal.load(std::memory_order_relaxed) != 0)
                out.second = c->last_refusal.load(std::memory_order_relaxed);
        }
        return out;
    }

    // Totals over every loop: packets and bytes. Read after the loops stopped.
    std::pair<uint64_t, uint64_t> Totals() {
        std::lock_guard<std::mutex> lock(m_counts_mutex);
        std::pair<uint64_t, uint64_t> sum{0, 0};
        for (auto& c : m_counts) {
            sum.first += c->packets.load(std::memory_order_relaxed);
            sum.second += c->bytes.load(std::memory_order_relaxed);
        }
        return sum;
    }

  private:
    // One pair of counters per loop thread, written by that thread alone, so that counting
    // costs no locked instruction (the other servers count with plain integers too).
    struct alignas(64) LoopCount {
        std::atomic<uint64_t> packets{0};
        std::atomic<uint64_t> bytes{0};
        std::atomic<uint64_t> refused{0};  // echoes Send refused with an error
        std::atomic<int> last_refusal{0};  // the last such error (a kSend... result)
    };
    LoopCount* Mine() {
        thread_local LoopCount* t_count = nullptr;  // one handler per process
        if (t_count == nullptr) {
            std::lock_guard<std::mutex> lock(m_counts_mutex);
            m_counts.push_back(std::make_unique<LoopCount>());
            t_count = m_counts.back().get();
        }
        return t_count;
    }

    bool m_sink;
    bool m_cork;      // false: every reply is a direct Send
    bool m_cork_all;  // every reply is corked
    std::mutex m_counts_mutex;
    std::vector<std::unique_ptr<LoopCount>> m_counts;  // guarded by m_counts_mutex
};

int RunOne(CEchoHandler* handler, const QUOLNET::ConnectorMgrOptions& options, const std::string& url,
           const QUOLNET::SocketOptions& socket) {
    QUOLNET::CConnectorMgr mgr(handler, options);
    if (mgr.Init() != 0) {
        std::perror("bench_server_quolnet: Init");
        return 1;
    }
    if (mgr.Listen(url.c_str(), socket, 4096) < 0) {
        std::fprintf(stderr, "bench_server_quolnet: cannot listen on %s: %s\n", url.c_str(),
                     std::strerror(errno));
        return 1;
    }
    g_mgr = &mgr;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnStopSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    int ret = mgr.Run();
    g_mgr = nullptr;
    return ret == 0 ? 0 : 1;
}

// N loops on N threads; this thread waits for SIGINT/SIGTERM (blocked in every thread and
// taken with sigwait), then stops the group.
int RunGroup(CEchoHandler* handler, const QUOLNET::ConnectorMgrOptions& options, int threads,
             const std::string& url, const QUOLNET::SocketOptions& socket) {
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    QUOLNET::ConnectorGroupOptions go;
    go.threads = threads;
    go.loop = options;
    QUOLNET::CConnectorGroup group(handler, go);
    if (group.Init() != 0) {
        std::perror("bench_server_quolnet: Init");
        return 1;
    }
    if (group.Listen(url.c_str(), socket, 4096) < 0) {
        std::fprintf(stderr, "bench_server_quolnet: cannot listen on %s: %s\n", url.c_str(),
                     std::strerror(errno));
        return 1;
    }
    group.Start();
    int sig = 0;
    sigwait(&stop_signals, &sig);
    group.Stop();
    std::fprintf(stderr, "%s", group.FormatStats().c_str());
    return 0;
}
// The listener's socket options: plain TCP, or with --tls* a TLS 1.3 server context. False,
// with a message on stderr, when the TLS context cannot be made (or TLS is not built).
bool MakeSocketOptions(const ServerOptions& opt, QUOLNET::SocketOptions* socket) {
    if (!opt.tls)
        return true;
#ifdef QUOLNET_BENCH_TLS
    QUOLNET::TlsOptions tls;
    std::string error;
    if (!LoadServerCredentials(opt.tls_cert, opt.tls_key, &tls.cert_pem, &tls.key_pem, &error)) {
        std::fprintf(stderr, "bench_server_quolnet: %s\n", error.c_str());
        return false;
    }
    tls.min_version = "1.3";
    tls.max_version = "1.3";
    tls.ciphersuites = kTlsCipherSuite;
    std::shared_ptr<QUOLNET::CTlsContext> context = QUOLNET::CTlsContext::CreateServer(tls, &error);
    if (context == nullptr) {
        std::fprintf(stderr, "bench_server_quolnet: TLS: %s\n", error.c_str());
        return false;
    }
    socket->stream = context;
    return true;
#else
    (void)socket;
    std::fprintf(stderr, "bench_server_quolnet: built without quolnet::tls\n");
    return false;
#endif
}
}  // namespace

int main(int argc, char** argv) {
#ifdef QUOLNET_BENCH_TLS
    const bool allow_tls = true;
#else
    const bool allow_tls = false;
#endif
    ServerOptions opt = ParseServerOptions(argc, argv, "bench_server_quolnet", allow_tls);
    std::string mode = opt.mode ? opt.mode : "peek";
    if (mode != "peek" && mode != "callback") {
        std::fprintf(stderr, "bench_server_quolnet: --mode peek|callback\n");
        return 2;
    }
    RaiseFdLimit();
    std::string cork = opt.cork ? opt.cork : "on";
    if (cork != "on" && cork != "off" && cork != "all") {
        std::fprintf(stderr, "bench_server_quolnet: --cork on|off|all\n");
        return 2;
    }
    CEchoHandler handler(opt.sink, cork == "on", cork == "all");
    QUOLNET::ConnectorMgrOptions options;
    options.use_recv_callback = mode == "callback";
    options.pool_blocks = 16384;  // made on demand: 1000 connections x 256 KiB packets fit
    options.max_events = 1024;
    if (opt.handshake_share >= 0)
        options.handshake_cpu_share = static_cast<unsigned int>(opt.handshake_share);
    std::string url = std::string("tcp://") + opt.host + ":" + std::to_string(opt.port);
    QUOLNET::SocketOptions socket;
    if (!MakeSocketOptions(opt, &socket))
        return 1;
    int ret = opt.threads > 1 ? RunGroup(&handler, options, opt.threads, url, socket)
                              : RunOne(&handler, options, url, socket);
    std::pair<uint64_t, uint64_t> served = handler.Totals();
    PrintServed(served.first, served.second);
    std::pair<uint64_t, int> refused = handler.Refused();
    if (refused.first != 0)
        std::fprintf(stderr, "echoes refused by Send: %llu (last result %d)\n",
                     static_cast<unsigned long long>(refused.first), refused.second);
    return ret == 0 ? 0 : 1;
}
