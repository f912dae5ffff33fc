// echo_server: listens on a tcp:// URL and echoes every length-prefixed packet back.
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "echo_common.h"
#include "echo_tls.h"
#include "net/connector_group.h"

namespace {

void Usage(FILE* out) {
    QUOLNET::ConnectorMgrOptions d;
    fprintf(
        out,
        "usage: echo_server [--listen URL] [--stats SECONDS] [--stats-file PATH] [--metrics-file PATH] "
        "[--max-packet BYTES] "
        "[--threads N] [--workers N] [limits]\n"
        "                   [--tls-cert FILE --tls-key FILE [--tls-ca FILE] [--tls-require-client-cert]\n"
        "                   [--tls-alpn LIST] [--handshake-timeout-ms MS] [--handshake-cpu-share PCT]]\n"
        "                   [--handover PATH] [--takeover PATH]\n"
        "  --listen URL              where to listen (default tcp://127.0.0.1:7000; port 0 picks a free "
        "port)\n"
        "  --stats SECONDS           print the connector statistics table every SECONDS (default 0: only at "
        "exit)\n"
        "  --stats-interval SECONDS  same as --stats\n"
        "  --stats-file PATH         write the periodic table to PATH instead of stdout, replacing the file\n"
        "                            each time (written beside it and renamed, so readers see whole "
        "tables);\n"
        "                            the interval may then be fractional and defaults to 1 second\n"
        "  --metrics-file PATH       write the metrics (counters and gauges) to PATH every interval and at\n"
        "                            exit, replacing the file (written to PATH.tmp and renamed); in the\n"
        "                            Prometheus format, a node_exporter textfile collector reads a *.prom\n"
        "                            file in its directory\n"
        "  --metrics-interval SECONDS  seconds between metrics writes (default 1; fractions allowed)\n"
        "  --metrics-format FORMAT   prometheus (the text exposition format, default) or json\n"
        "  --max-packet BYTES        longest packet accepted, 4-byte header included (default %u)\n"
        "limits (defaults protect a server started as it is; 0 turns a deadline off):\n"
        "  --pool-blocks N           64 KiB blocks in the pool (default %u)\n"
        "  --pool-reserve N          shed stalled connections below N free blocks (default 0: pool/8)\n"
        "  --max-send-blocks N       blocks one connection may queue for sending (default %u)\n"
        "  --max-recv-blocks N       blocks one connection may hold for receiving (default %u)\n"
        "  --send-stall-ms MS        close a connection whose send queue has not shrunk (default %d)\n"
        "  --packet-deadline-ms MS   close a connection whose packet is not completed (default %d)\n"
        "  --idle-timeout-ms MS      close a connection with no traffic (default %d: off)\n"
        "  --max-connections N       connections held at most (default 0: the descriptor limit less %u);\n"
        "                            at the limit the ones idle longest make room for newcomers\n"
        "  --evict-idle-ms MS        at the limit, close connections idle this long (default %d; 0: never,\n"
        "                            newcomers wait for a close instead)\n"
        "  --max-per-source N        connections from one address at most; more are refused at accept\n"
        "                            (default 0: no cap)\n"
        "  --io-backend NAME         how the loops wait: epoll, io_uring or auto (default: epoll, or\n"
        "                            the environment's QUOLNET_IO_BACKEND)\n"
        "  --sndbuf BYTES            each accepted socket's kernel send buffer (SO_SNDBUF; default 0:\n"
        "                            the kernel's, auto-tuned); a small one keeps replies to slow\n"
        "                            readers in the server's own send queue\n"
        "  --threads N               event loops, one thread each (default 1); above 1 each loop listens\n"
        "                            with SO_REUSEPORT (or loop 0 hands connections out) and has its own\n"
        "                            pool of pool-blocks/N blocks\n"
        "  --workers N               reply from N worker threads instead of the loop (default 0): each\n"
        "                            packet is queued to its connection's worker and its connection held\n"
        "                            open for the reply (HoldOpen), so a client that half-closes after its\n"
        "                            requests still gets every reply; a full queue pauses the connection\n"
        "  --worker-queue N          packets each worker's queue holds before connections pause (default\n"
        "                            256, at least 1; and at most 16 MiB of them)\n"
        "TLS (the listener speaks TLS when a certificate is given; exit 2 when one cannot be used):\n"
        "  --tls-cert FILE           the server's certificate chain (PEM)\n"
        "  --tls-key FILE            its private key (PEM)\n"
        "  --tls-ca FILE             CA certificates (PEM) to verify client certificates with\n"
        "  --tls-require-client-cert refuse clients without a certificate that --tls-ca verifies\n"
        "                            (mutual TLS)\n"
        "  --tls-alpn LIST           application protocols, comma-separated, in order of preference;\n"
        "                            a client offering only others is refused\n"
        "  --handshake-timeout-ms MS close an accepted connection whose handshake is not done within\n"
        "                            MS (default %d; 0: no deadline); counted as handshake_timeout\n"
        "  --handshake-cpu-share PCT the share of the loop's time handshakes may take while\n"
        "                            established connections have work (default %u; 0: no bound)\n"
        "Packets are a 4-byte big-endian length (counting itself) followed by the payload.\n"
        "  --drain-ms MS             on SIGINT or SIGTERM, drain for at most MS (default 10000): stop\n"
        "                            listening, finish every connection gracefully, abort what is left\n"
        "                            at the deadline; a second signal stops at once\n"
        "  --handover PATH           on SIGUSR2, offer a hand-over on the Unix socket PATH: a new\n"
        "                            echo_server started with --takeover PATH takes the listener and\n"
        "                            every plain connection with the bytes it owes; this process then\n"
        "                            drains what stayed (TLS connections) and exits 0\n"
        "  --takeover PATH           start by taking over from the echo_server offering on PATH (the\n"
        "                            same --listen URL; any --threads on either side); without\n"
        "                            --workers, as --handover\n"
        "Prints how many connections were drained and aborted, and the statistics table, at exit.\n",
        QUOLNET::ConnectorMgrOptions::kDefaultMaxPacketLen, d.pool_blocks, d.max_send_blocks,
        d.max_recv_blocks, d.send_stall_ms, d.packet_deadline_ms, d.idle_timeout_ms, d.fd_reserve,
        d.evict_idle_ms, d.handshake_timeout_ms, d.handshake_cpu_share);
}

template <size_t N, typename F>
int IntFlagIndex(F (&flags)[N], const char* name) {
    for (size_t i = 0; i < N; ++i) {
        if (strcmp(flags[i].name, name) == 0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

// Parses a number of seconds (fractions allowed) in 0..86400.
bool ParseSeconds(const char* text, double* out) {
    char* end = nullptr;
    errno = 0;
    double v = strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(v >= 0 && v <= 86400)) {
        return false;
    }
    *out = v;
    return true;
}

// Replaces `path` with `text`: written to PATH.tmp and renamed over it, so a reader never
// sees half a file. A failure is reported once per `warned` flag (the files are rewritten
// every interval). The caller serialises writes of one file.
void ReplaceFile(const std::string& path, const std::string& text, const char* what, bool* warned) {
    std::string tmp = path + ".tmp";
    FILE* f = fopen(tmp.c_str(), "w");
    bool ok = f != nullptr;
    if (ok) {
        ok = fwrite(text.data(), 1, text.size(), f) == text.size();
        ok = fclose(f) == 0 && ok;
        ok = ok && rename(tmp.c_str(), path.c_str()) == 0;
    }
    if (!ok) {
        int err = errno;
        remove(tmp.c_str());
        if (!*warned) {
            *warned = true;
            fprintf(stderr, "echo_server: cannot write the %s file %s: %s\n", what, path.c_str(),
                    strerror(err));
        }
    }
}

// The current statistics table into `path`. Loop thread (FormatStats needs it).
void WriteStatsFile(QUOLNET::CConnectorMgr* mgr, const std::string& path) {
    static bool warned = false;
    ReplaceFile(path, mgr->FormatStats(), "statistics", &warned);
}

// --metrics-file PATH: the metrics, written every --metrics-interval seconds and at exit.
struct MetricsFileOptions {
    std::string path;  // empty: no metrics file
    double interval = 1;
    QUOLNET::MetricsFormat format = QUOLNET::MetricsFormat::kPrometheus;
};
MetricsFileOptions g_metrics;  // set by main before any loop runs

// Replaces g_metrics.path with `text`: written to PATH.tmp and renamed over it, so a reader
// (a textfile collector, scale_client) never sees half a file. Any thread; with a group the
// loop that reports last writes, so the writes are serialised.
void WriteMetricsFile(const std::string& text) {
    static std::mutex mutex;
    static bool warned = false;
    std::lock_guard<std::mutex> lock(mutex);
    ReplaceFile(g_metrics.path, text, "metrics", &warned);
}

int MetricsIntervalMs() {
    int ms = static_cast<int>(g_metrics.interval * 1000);
    return ms > 0 ? ms : 1;
}

// The metrics timer of a single loop: the snapshot is taken on the loop thread.
void StartMetricsFile(QUOLNET::CConnectorMgr* mgr) {
    if (!g_metrics.path.empty()) {
        mgr->AddTimer(0, MetricsIntervalMs(),
                      [mgr]() { WriteMetricsFile(mgr->FormatMetrics(g_metrics.format)); });
    }
}

// With --threads: loop 0's timer asks every loop for its snapshot; the last one writes.
void StartMetricsFile(QUOLNET::CConnectorGroup* group) {
    if (!g_metrics.path.empty()) {
        group->AddTimer(0, 0, MetricsIntervalMs(),
                        [group]() { group->RequestMetrics(g_metrics.format, &WriteMetricsFile); });
    }
}

// --workers N: the replies are made by a pool of worker threads, as a server whose work
// blocks or takes long would make them, instead of on the loop.
//
// A connection's packets all go to one worker (chosen by its id), so its replies leave in
// the order of its requests. OnPacket, on the loop thread, copies the packet into that
// worker's bounded queue and calls HoldOpen(id): a reply is now owed, so when the peer ends
// its stream (a client that sends its requests and then shuts down its sending side) the
// manager waits for the reply before it ends the connection. The worker sends the reply
// with Send from its own thread and then calls ReleaseHold(id). When the queue is full,
// OnPacket refuses the packet, which pauses the connection with that packet first in line;
// the worker resumes the connections it paused (ResumeReading) once its queue is back to
// half, so a flood waits in the kernel's buffers and TCP slows its senders down.
//
// With --threads the calls go to the group, which reaches the loop serving the id.
class WorkerEchoHandler : public echo::EchoServerHandler {
  public:
    static constexpr size_t kQueueBytes = 16u << 20;  // a worker's queue holds at most this (or one packet)
    static constexpr int kNoRoomGiveUpMs = 1000;      // kSendNoRoom for this long: the reader is gone

    WorkerEchoHandler(int workers, size_t queue_packets) : m_queue_packets(queue_packets) {
        for (int i = 0; i < workers; ++i) {
            m_workers.emplace_back(new Worker);
        }
    }
    ~WorkerEchoHandler() override { Stop(); }

    // Starts the threads; their calls go to `group` when it is given, else to `mgr`.
    void Start(QUOLNET::CConnectorMgr* mgr, QUOLNET::CConnectorGroup* group) {
        m_mgr = mgr;
        m_group = group;
        for (auto& w : m_workers) {
            Worker* worker = w.get();
            w->thread = std::thread([this, worker]() { Work(worker); });
        }
    }
    // Stops and joins the threads (each finishes the reply it is sending); the packets still
    // queued are dropped and their holds released. Before the manager or group goes.
    void Stop() {
        for (auto& w : m_workers) {
            std::lock_guard<std::mutex> lock(w->mutex);
            w->stop = true;
            w->ready.notify_one();
        }
        for (auto& w : m_workers) {
            if (w->thread.joinable()) {
                w->thread.join();
            }
            for (const Job& job : w->queue) {
                ++m_dropped;
                ReleaseHold(job.id);
            }
            w->queue.clear();
        }
    }

    bool OnPacket(QUOLNET::CConnectorMgr* mgr, QUOLNET::ConnId id, const char* data, unsigned int len,
                  bool) override {
        Worker& w = WorkerOf(id);
        {
            std::lock_guard<std::mutex> lock(w.mutex);
            if (!w.queue.empty() && (w.queue.size() >= m_queue_packets || w.bytes + len > kQueueBytes)) {
                w.paused.insert(id);
                ++m_pauses;
                return false;  // paused, this packet first; the worker resumes it when it has room
            }
        }
        // With several loops, another loop may fill the queue meanwhile: it may go over by a
        // packet per loop, which is harmless.
        if (!(m_group != nullptr ? m_group->HoldOpen(id) : mgr->HoldOpen(id))) {
            return true;  // it no longer accepts replies (Close was called): nothing to answer
        }
        {
            std::lock_guard<std::mutex> lock(w.mutex);
            w.queue.push_back(Job{id, std::vector<char>(data, data + len)});
            w.bytes += len;
        }
        w.ready.notify_one();
        return true;
    }

    void OnClosed(QUOLNET::CConnectorMgr*, QUOLNET::ConnId id, const QUOLNET::CloseInfo&) override {
        Worker& w = WorkerOf(id);
        std::lock_guard<std::mutex> lock(w.mutex);
        w.paused.erase(id);
    }

    long long Dropped() const { return m_dropped; }
    long long Pauses() const { return m_pauses; }

  private:
    struct Job {
        QUOLNET::ConnId id;
        std::vector<char> packet;
    };
    struct Worker {
        std::mutex mutex;  // guards the queue, its byte count, the paused set and stop
        std::condition_variable ready;
        std::deque<Job> queue;
        size_t bytes = 0;
        std::unordered_set<QUOLNET::ConnId> paused;  // connections refused for a full queue
        bool stop = false;
        std::thread thread;
    };

    Worker& WorkerOf(QUOLNET::ConnId id) {
        // Ids are sequential (and carry the loop index in their top bits in a group): mix them.
        uint64_t h = (id ^ (id >> 32)) * 0x9E3779B97F4A7C15ull;
        return *m_workers[(h >> 32) % m_workers.size()];
    }

    void Work(Worker* w) {
        for (;;) {
            Job job;
            std::vector<QUOLNET::ConnId> resume;
            {
                std::unique_lock<std::mutex> lock(w->mutex);
                w->ready.wait(lock, [w]() { return w->stop || !w->queue.empty(); });
                if (w->stop) {
                    return;
                }
                job = std::move(w->queue.front());
                w->queue.pop_front();
                w->bytes -= job.packet.size();
                if (!w->paused.empty() && w->queue.size() <= m_queue_packets / 2 &&
                    w->bytes <= kQueueBytes / 2) {
                    resume.assign(w->paused.begin(), w->paused.end());
                    w->paused.clear();
                }
            }
            for (QUOLNET::ConnId id : resume) {
                if (m_group != nullptr) {
                    m_group->ResumeReading(id);
                } else {
                    m_mgr->ResumeReading(id);
                }
            }
            Reply(*w, job);
            ReleaseHold(job.id);
        }
    }

    // Sends the echo. No room: tries again after a yield (then a millisecond's sleep) for up
    // to kNoRoomGiveUpMs, then closes the connection, whose stream would otherwise go on
    // without this reply. A connection that is closing or gone takes no reply.
    void Reply(Worker& w, const Job& job) {
        const unsigned int len = static_cast<unsigned int>(job.packet.size());
        const auto start = std::chrono::steady_clock::now();
        for (int attempt = 0;; ++attempt) {
            int ret = m_group != nullptr ? m_group->Send(job.id, job.packet.data(), len)
                                         : m_mgr->Send(job.id, job.packet.data(), len);
            if (ret == static_cast<int>(len)) {
                CountPacket();
                return;
            }
            if (ret != QUOLNET::CConnectorMgr::kSendNoRoom) {
                ++m_dropped;  // kSendClosing, kSendUnknownId, kSendFailed: the connection is ending
                return;
            }
            bool stopping;
            {
                std::lock_guard<std::mutex> lock(w.mutex);
                stopping = w.stop;
            }
            if (stopping ||
                std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(kNoRoomGiveUpMs)) {
                ++m_dropped;
                if (m_group != nullptr) {
                    m_group->Close(job.id);
                } else {
                    m_mgr->Close(job.id);
                }
                return;
            }
            if (attempt < 16) {
                std::this_thread::yield();
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    }

    void ReleaseHold(QUOLNET::ConnId id) {
        if (m_group != nullptr) {
            m_group->ReleaseHold(id);
        } else {
            m_mgr->ReleaseHold(id);
        }
    }

    const size_t m_queue_packets;
    std::vector<std::unique_ptr<Worker>> m_workers;
    QUOLNET::CConnectorMgr* m_mgr = nullptr;
    QUOLNET::CConnectorGroup* m_group = nullptr;
    std::atomic<long long> m_dropped{0};  // replies not sent (connection gone, or no room)
    std::atomic<long long> m_pauses{0};   // packets refused for a full queue
};

void PrintCounts(const echo::EchoServerHandler* handler, const WorkerEchoHandler* workers) {
    printf("echo_server: %lld connections, %lld packets echoed\n", handler->Connections(),
           handler->Packets());
    if (workers != nullptr) {
        printf(
            "echo_server: workers: %lld replies dropped (connection gone, or no room for %d ms), %lld "
            "packets refused for a full queue\n",
            workers->Dropped(), WorkerEchoHandler::kNoRoomGiveUpMs, workers->Pauses());
    }
}

}  // namespace

namespace {

// SIGINT/SIGTERM on one loop: the first drains (Shutdown, async-signal-safe), a second
// stops at once.
int g_drain_ms = 10000;
// With TLS: a line about the listener's TLS set-up, printed after the "listening" line.
std::string g_tls_banner;

void PrintTlsBanner() {
    if (!g_tls_banner.empty()) {
        printf("%s\n", g_tls_banner.c_str());
    }
}
std::atomic<QUOLNET::CConnectorMgr*> g_drain_mgr{nullptr};
std::atomic<int> g_drain_signals{0};

void OnDrainSignal(int) {
    QUOLNET::CConnectorMgr* mgr = g_drain_mgr.load();
    if (mgr == nullptr) {
        return;
    }
    if (g_drain_signals.fetch_add(1) == 0) {
        mgr->Shutdown(g_drain_ms);
    } else {
        mgr->Stop();
    }
}

void DrainOnSignals(QUOLNET::CConnectorMgr* mgr) {
    g_drain_mgr.store(mgr);
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnDrainSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

// --handover PATH: SIGUSR2 asks for the offer; the loop makes it (a timer looks for the
// request: OfferHandOver is for the loop thread, and a signal handler may only set a flag).
std::string g_handover_path;
std::atomic<bool> g_handover_requested{false};

void OnHandOverSignal(int) {
    g_handover_requested.store(true);
}

void OfferOnSignal(QUOLNET::CConnectorMgr* mgr) {
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnHandOverSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGUSR2, &sa, nullptr);
    mgr->AddTimer(0, 20, [mgr]() {
        if (g_handover_requested.exchange(false) && !mgr->IsOfferingHandOver() && !mgr->IsHandedOver()) {
            if (mgr->OfferHandOver(g_handover_path.c_str()) == 0) {
                printf("echo_server: offering a hand-over on %s\n", g_handover_path.c_str());
            } else {
                printf("echo_server: cannot offer a hand-over on %s: %s\n", g_handover_path.c_str(),
                       strerror(errno));
            }
            fflush(stdout);
        }
    });
}

// --takeover PATH: `take` runs the manager's or the group's TakeOver; what came is printed.
template <typename Take>
void TakeOverFrom(const char* path, Take take) {
    QUOLNET::TakeOverResult result;
    int64_t start = QUOLNET::CEventLoop::NowMs();
    if (take(path, &result) != 0) {
        fprintf(stderr, "echo_server: take-over from %s incomplete: %s\n", path, result.error.c_str());
    }
    printf(
        "echo_server took over %zu connections and %zu listeners from %s in %lld ms (%llu bytes unsent, "
        "%llu unread, %llu in all)\n",
        result.connections, result.listeners, path,
        static_cast<long long>(QUOLNET::CEventLoop::NowMs() - start),
        static_cast<unsigned long long>(result.unsent_bytes),
        static_cast<unsigned long long>(result.unread_bytes),
        static_cast<unsigned long long>(result.batch_bytes));
}

void PrintDrain(bool drained, uint64_t ok, uint64_t aborted) {
    if (drained) {
        printf("echo_server: drained %llu connections, aborted %llu at the deadline\n",
               static_cast<unsigned long long>(ok), static_cast<unsigned long long>(aborted));
    }
}

}  // namespace

// --threads N: N loops on N threads; this thread waits for SIGINT/SIGTERM (blocked in every
// thread and taken with sigtimedwait), then stops the group. With --handover it also takes
// SIGUSR2 (the offer) and ends when the group has handed over. `workers` (with --workers)
// is the handler too.
int RunGroup(echo::EchoServerHandler* handler, WorkerEchoHandler* workers,
             const QUOLNET::ConnectorMgrOptions& options, const QUOLNET::SocketOptions& socket, int threads,
             const char* url, const char* stats_file, double stats, const char* takeover_path) {
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    if (!g_handover_path.empty()) {
        sigaddset(&stop_signals, SIGUSR2);
    }
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    QUOLNET::ConnectorGroupOptions go;
    go.threads = threads;
    go.loop = options;
    go.loop.stats_interval_sec = 0;
    QUOLNET::CConnectorGroup group(handler, go);
    if (group.Init() != 0) {
        fprintf(stderr, "echo_server: cannot set up the event loops\n");
        return 1;
    }
    if (takeover_path != nullptr) {
        TakeOverFrom(takeover_path, [&group](const char* p, QUOLNET::TakeOverResult* r) {
            return group.TakeOver(p, QUOLNET::HandOverOptions(), r);
        });
    }
    if (group.Listen(url, socket) < 0) {
        fprintf(stderr, "echo_server: cannot listen on %s: %s\n", url, strerror(errno));
        return 1;
    }
    printf("echo_server listening on %s with %d loops (%s)\n", group.GetListenURL().c_str(), threads,
           group.IsReusePort() ? "SO_REUSEPORT" : "one acceptor");
    PrintTlsBanner();
    fflush(stdout);
    int ms = static_cast<int>(stats * 1000);
    if (ms > 0) {
        std::string path = stats_file != nullptr ? stats_file : "";
        group.AddTimer(0, ms, ms, [&group, path]() {
            std::string text = group.FormatStats();
            if (path.empty()) {
                fputs(text.c_str(), stdout);
                fflush(stdout);
            } else if (FILE* f = fopen(path.c_str(), "w")) {
                fputs(text.c_str(), f);
                fclose(f);
            }
        });
    }
    StartMetricsFile(&group);
    if (workers != nullptr) {
        workers->Start(nullptr, &group);
    }
    group.Start();
    for (;;) {
        struct timespec tick = {0, 20 * 1000 * 1000};
        int sig = sigtimedwait(&stop_signals, nullptr, &tick);
        if (sig == SIGUSR2) {
            if (!group.IsOfferingHandOver() && !group.IsHandedOver()) {
                if (group.OfferHandOver(g_handover_path.c_str()) == 0) {
                    printf("echo_server: offering a hand-over on %s\n", g_handover_path.c_str());
                } else {
                    printf("echo_server: cannot offer a hand-over on %s: %s\n", g_handover_path.c_str(),
                           strerror(errno));
                }
                fflush(stdout);
            }
        } else if (sig == SIGINT || sig == SIGTERM) {
            break;
        } else if (group.IsHandedOver()) {
            printf("echo_server: handed over to the new process on %s\n", g_handover_path.c_str());
            break;  // the loops drain what stayed; Shutdown waits for them
        }
    }
    group.Shutdown(g_drain_ms);  // returns once every loop has drained (or met the deadline)
    if (workers != nullptr) {
        workers->Stop();  // before the group goes: the workers call it
    }
    PrintDrain(true, group.GetShutdownDrainedCount(), group.GetShutdownAbortedCount());
    PrintCounts(handler, workers);
    fputs(group.FormatStats().c_str(), stdout);
    if (!g_metrics.path.empty()) {
        WriteMetricsFile(group.FormatMetrics(g_metrics.format));  // the loops have stopped: read in place
    }
    return 0;
}

int main(int argc, char** argv) {
    const char* url = "tcp://127.0.0.1:7000";
    double stats = 0;
    const char* stats_file = nullptr;
    const char* takeover_path = nullptr;
    QUOLNET::ConnectorMgrOptions options;
    long long max_packet = options.max_packet_len;
    // Integer options: flag, where it goes, largest value.
    struct IntFlag {
        const char* name;
        long long value;
        long long max;
    } flags[] = {
        {"--threads", 1, 256},
        {"--pool-blocks", options.pool_blocks, 1 << 24},
        {"--pool-reserve", options.pool_reserve_blocks, 1 << 24},
        {"--max-send-blocks", options.max_send_blocks, 1 << 24},
        {"--max-recv-blocks", options.max_recv_blocks, 1 << 24},
        {"--send-stall-ms", options.send_stall_ms, 1 << 30},
        {"--packet-deadline-ms", options.packet_deadline_ms, 1 << 30},
        {"--idle-timeout-ms", options.idle_timeout_ms, 1 << 30},
        {"--max-connections", options.max_connections, 1 << 30},
        {"--evict-idle-ms", options.evict_idle_ms, 1 << 30},
        {"--max-per-source", options.max_connections_per_source, 1 << 30},
        {"--workers", 0, 256},
        {"--worker-queue", 256, 1 << 20},
        {"--drain-ms", 10000, 1 << 30},
        {"--handshake-timeout-ms", options.handshake_timeout_ms, 1 << 30},
        {"--handshake-cpu-share", options.handshake_cpu_share, 100},
        {"--sndbuf", 0, 1 << 28},
    };
    echo::TlsFlags tls;
    // TLS flags that take a value, and where it goes.
    const struct {
        const char* name;
        std::string* field;
    } tls_values[] = {
        {"--tls-cert", &tls.cert}, {"--tls-key", &tls.key}, {"--tls-ca", &tls.ca}, {"--tls-alpn", &tls.alpn}};
    QUOLNET::IoBackend io_backend = QUOLNET::IoBackend::kDefault;
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        const int fi = IntFlagIndex(flags, a);
        const int ti = IntFlagIndex(tls_values, a);
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            Usage(stdout);
            return 0;
        } else if (strcmp(a, "--listen") == 0 && v != nullptr) {
            url = v;
            ++i;
        } else if ((strcmp(a, "--stats") == 0 || strcmp(a, "--stats-interval") == 0) && v != nullptr &&
                   ParseSeconds(v, &stats)) {
            ++i;
        } else if (strcmp(a, "--stats-file") == 0 && v != nullptr && *v != '\0') {
            stats_file = v;
            ++i;
        } else if (strcmp(a, "--metrics-file") == 0 && v != nullptr && *v != '\0') {
            g_metrics.path = v;
            ++i;
        } else if (strcmp(a, "--metrics-interval") == 0 && v != nullptr &&
                   ParseSeconds(v, &g_metrics.interval) && g_metrics.interval > 0) {
            ++i;
        } else if (strcmp(a, "--metrics-format") == 0 && v != nullptr &&
                   (strcmp(v, "prometheus") == 0 || strcmp(v, "json") == 0)) {
            g_metrics.format =
                strcmp(v, "json") == 0 ? QUOLNET::MetricsFormat::kJson : QUOLNET::MetricsFormat::kPrometheus;
            ++i;
        } else if (strcmp(a, "--max-packet") == 0 && v != nullptr &&
                   echo::ParseCount(v, 0x7fffffff, &max_packet) && max_packet >= 4) {
            ++i;
        } else if (fi >= 0 && v != nullptr && echo::ParseCount(v, flags[fi].max, &flags[fi].value)) {
            ++i;
        } else if (ti >= 0 && v != nullptr && *v != '\0') {
            *tls_values[ti].field = v;
            ++i;
        } else if (strcmp(a, "--handover") == 0 && v != nullptr && *v != '\0') {
            g_handover_path = v;
            ++i;
        } else if (strcmp(a, "--takeover") == 0 && v != nullptr && *v != '\0') {
            takeover_path = v;
            ++i;
        } else if (strcmp(a, "--io-backend") == 0 && v != nullptr &&
                   (strcmp(v, "epoll") == 0 || strcmp(v, "io_uring") == 0 || strcmp(v, "auto") == 0)) {
            io_backend = strcmp(v, "epoll") == 0      ? QUOLNET::IoBackend::kEpoll
                         : strcmp(v, "io_uring") == 0 ? QUOLNET::IoBackend::kIoUring
                                                      : QUOLNET::IoBackend::kAuto;
            ++i;
        } else if (strcmp(a, "--tls-require-client-cert") == 0) {
            tls.require_client_cert = true;
        } else {
            fprintf(stderr, "echo_server: bad argument '%s'\n", a);
            Usage(stderr);
            return 2;
        }
    }
    echo::RequireURL("echo_server", url);
    if (stats_file == nullptr && stats != static_cast<long long>(stats)) {
        fprintf(stderr, "echo_server: --stats takes whole seconds unless --stats-file is given\n");
        return 2;
    }

    // Values that would leave a server that cannot serve anyone.
    for (int must_be_positive : {0, 1, 3, 4, 12}) {
        if (flags[must_be_positive].value == 0) {
            fprintf(stderr, "echo_server: %s takes at least 1\n", flags[must_be_positive].name);
            Usage(stderr);
            return 2;
        }
    }
    if (flags[1].value < 2) {
        fprintf(stderr, "echo_server: --pool-blocks takes at least 2 (one block is kept back for replies)\n");
        Usage(stderr);
        return 2;
    }
    g_drain_ms = static_cast<int>(flags[13].value);
    QUOLNET::SocketOptions socket;
    socket.send_buffer = static_cast<int>(flags[16].value);
    if (!tls.cert.empty() || !tls.key.empty() || !tls.ca.empty() || !tls.alpn.empty() ||
        tls.require_client_cert) {
        if (tls.cert.empty() || tls.key.empty()) {
            fprintf(stderr, "echo_server: TLS needs both --tls-cert and --tls-key\n");
            return 2;
        }
        if (tls.require_client_cert && tls.ca.empty()) {
            fprintf(stderr,
                    "echo_server: --tls-require-client-cert needs --tls-ca (the CAs clients are verified "
                    "with)\n");
            return 2;
        }
        std::string error;
        socket.stream = echo::MakeTlsServer(tls, &error);
        if (socket.stream == nullptr) {
            fprintf(stderr, "echo_server: TLS: %s\n", error.c_str());
            return 2;
        }
        g_tls_banner = "echo_server: TLS with " + tls.cert +
                       (tls.require_client_cert ? ", client certificates required" : "") +
                       (tls.alpn.empty() ? "" : ", ALPN " + tls.alpn) + ", handshake deadline " +
                       std::to_string(flags[14].value) + " ms";
    }
    std::unique_ptr<echo::EchoServerHandler> handler;
    WorkerEchoHandler* workers = nullptr;
    if (flags[11].value > 0) {
        workers =
            new WorkerEchoHandler(static_cast<int>(flags[11].value), static_cast<size_t>(flags[12].value));
        handler.reset(workers);
    } else {
        handler.reset(new echo::EchoServerHandler);
    }
    options.pool_blocks = static_cast<unsigned int>(flags[1].value);
    options.pool_reserve_blocks = static_cast<unsigned int>(flags[2].value);
    options.max_send_blocks = static_cast<unsigned int>(flags[3].value);
    options.max_recv_blocks = static_cast<unsigned int>(flags[4].value);
    options.send_stall_ms = static_cast<int>(flags[5].value);
    options.packet_deadline_ms = static_cast<int>(flags[6].value);
    options.idle_timeout_ms = static_cast<int>(flags[7].value);
    options.max_connections = static_cast<unsigned int>(flags[8].value);
    options.evict_idle_ms = static_cast<int>(flags[9].value);
    options.max_connections_per_source = static_cast<unsigned int>(flags[10].value);
    options.stats_interval_sec = stats_file == nullptr ? static_cast<int>(stats) : 0;
    options.max_packet_len = static_cast<unsigned int>(max_packet);
    options.handshake_timeout_ms = static_cast<int>(flags[14].value);
    options.handshake_cpu_share = static_cast<unsigned int>(flags[15].value);
    options.io_backend = io_backend;
    if ((!g_handover_path.empty() || takeover_path != nullptr) && workers != nullptr) {
        // A worker's reply to a connection handed over meanwhile would find no one here.
        fprintf(stderr, "echo_server: --handover and --takeover reply from the loops, without --workers\n");
        return 2;
    }
    if (flags[0].value > 1) {
        return RunGroup(handler.get(), workers, options, socket, static_cast<int>(flags[0].value), url,
                        stats_file, stats, takeover_path);
    }
    QUOLNET::CConnectorMgr mgr(handler.get(), options);
    if (mgr.Init() != 0) {
        fprintf(stderr, "echo_server: cannot set up the event loop\n");
        return 1;
    }
    if (takeover_path != nullptr) {
        // Before Listen: the old process's listening socket is taken, not bound anew.
        TakeOverFrom(takeover_path, [&mgr](const char* p, QUOLNET::TakeOverResult* r) {
            return mgr.TakeOver(p, QUOLNET::HandOverOptions(), r);
        });
    }
    int port = mgr.Listen(url, socket);
    if (port < 0) {
        fprintf(stderr, "echo_server: cannot listen on %s: %s\n", url, strerror(errno));
        return 1;
    }
    printf("echo_server listening on %s\n", mgr.GetListenURL(0).c_str());
    PrintTlsBanner();
    fflush(stdout);
    if (stats_file != nullptr) {
        int ms = stats > 0 ? static_cast<int>(stats * 1000) : 1000;
        std::string path = stats_file;
        mgr.AddTimer(0, ms > 0 ? ms : 1, [&mgr, path]() { WriteStatsFile(&mgr, path); });
    }
    StartMetricsFile(&mgr);
    DrainOnSignals(&mgr);
    if (!g_handover_path.empty()) {
        OfferOnSignal(&mgr);
    }
    if (workers != nullptr) {
        workers->Start(&mgr, nullptr);
    }
    int ret = mgr.Run();
    if (mgr.IsHandedOver()) {
        printf("echo_server: handed over to the new process on %s\n", g_handover_path.c_str());
    }
    if (workers != nullptr) {
        workers->Stop();  // before the manager goes: the workers call it
    }
    PrintDrain(mgr.IsShuttingDown(), mgr.GetShutdownDrainedCount(), mgr.GetShutdownAbortedCount());
    PrintCounts(handler.get(), workers);
    mgr.PrintStats(stdout);
    if (!g_metrics.path.empty()) {
        WriteMetricsFile(mgr.FormatMetrics(g_metrics.format));  // the loop has stopped: read in place
    }
    return ret == 0 ? 0 : 1;
}
