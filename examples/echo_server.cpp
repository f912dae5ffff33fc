// echo_server: listens on a tcp:// URL and echoes every length-prefixed packet back.
#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "echo_common.h"
#include "net/connector_group.h"

namespace {

void Usage(FILE* out) {
    QUOLNET::ConnectorMgrOptions d;
    fprintf(
        out,
        "usage: echo_server [--listen URL] [--stats SECONDS] [--stats-file PATH] [--max-packet BYTES] "
        "[limits]\n"
        "  --listen URL              where to listen (default tcp://127.0.0.1:7000; port 0 picks a free "
        "port)\n"
        "  --stats SECONDS           print the connector statistics table every SECONDS (default 0: only at "
        "exit)\n"
        "  --stats-interval SECONDS  same as --stats\n"
        "  --stats-file PATH         write the periodic table to PATH instead of stdout, replacing the file\n"
        "                            each time (written beside it and renamed, so readers see whole "
        "tables);\n"
        "                            the interval may then be fractional and defaults to 1 second\n"
        "  --max-packet BYTES        longest packet accepted, 4-byte header included (default %u)\n"
        "limits (defaults protect a server started as it is; 0 turns a deadline off):\n"
        "  --pool-blocks N           64 KiB blocks in the pool (default %u)\n"
        "  --pool-reserve N          shed stalled connections below N free blocks (default 0: pool/8)\n"
        "  --max-send-blocks N       blocks one connection may queue for sending (default %u)\n"
        "  --max-recv-blocks N       blocks one connection may hold for receiving (default %u)\n"
        "  --send-stall-ms MS        close a connection whose send queue has not shrunk (default %d)\n"
        "  --packet-deadline-ms MS   close a connection whose packet is not completed (default %d)\n"
        "  --idle-timeout-ms MS      close a connection with no traffic (default %d: off)\n"
        "  --threads N               event loops, one thread each (default 1); above 1 each loop listens\n"
        "                            with SO_REUSEPORT (or loop 0 hands connections out) and has its own\n"
        "                            pool of pool-blocks/N blocks\n"
        "Packets are a 4-byte big-endian length (counting itself) followed by the payload.\n"
        "Stops on SIGINT or SIGTERM and prints the statistics table.\n",
        QUOLNET::ConnectorMgrOptions::kDefaultMaxPacketLen, d.pool_blocks, d.max_send_blocks,
        d.max_recv_blocks, d.send_stall_ms, d.packet_deadline_ms, d.idle_timeout_ms);
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

// Replaces `path` with the current statistics table: written to a sibling file first and
// renamed over it, so a reader never sees half a table. Loop thread (FormatStats needs it).
void WriteStatsFile(QUOLNET::CConnectorMgr* mgr, const std::string& path) {
    std::string tmp = path + ".tmp";
    static bool warned = false;
    FILE* f = fopen(tmp.c_str(), "w");
    bool ok = f != nullptr;
    if (ok) {
        std::string text = mgr->FormatStats();
        ok = fwrite(text.data(), 1, text.size(), f) == text.size();
        ok = fclose(f) == 0 && ok;
        ok = ok && rename(tmp.c_str(), path.c_str()) == 0;
    }
    if (!ok) {
        int err = errno;
        remove(tmp.c_str());
        if (!warned) {
            warned = true;  // once: the table is rewritten every interval
            fprintf(stderr, "echo_server: cannot write the statistics file %s: %s\n", path.c_str(),
                    strerror(err));
        }
    }
}

}  // namespace

// --threads N: N loops on N threads; this thread waits for SIGINT/SIGTERM (blocked in every
// thread and taken with sigwait), then stops the group.
int RunGroup(echo::EchoServerHandler* handler, const QUOLNET::ConnectorMgrOptions& options, int threads,
             const char* url, const char* stats_file, double stats) {
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
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
    if (group.Listen(url) < 0) {
        fprintf(stderr, "echo_server: cannot listen on %s: %s\n", url, strerror(errno));
        return 1;
    }
    printf("echo_server listening on %s with %d loops (%s)\n", group.GetListenURL().c_str(), threads,
           group.IsReusePort() ? "SO_REUSEPORT" : "one acceptor");
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
    group.Start();
    int sig = 0;
    sigwait(&stop_signals, &sig);
    group.Stop();
    printf("echo_server: %lld connections, %lld packets echoed\n", handler->Connections(),
           handler->Packets());
    fputs(group.FormatStats().c_str(), stdout);
    return 0;
}

int main(int argc, char** argv) {
    const char* url = "tcp://127.0.0.1:7000";
    double stats = 0;
    const char* stats_file = nullptr;
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
    };
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        const int fi = IntFlagIndex(flags, a);
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
        } else if (strcmp(a, "--max-packet") == 0 && v != nullptr &&
                   echo::ParseCount(v, 0x7fffffff, &max_packet) && max_packet >= 4) {
            ++i;
        } else if (fi >= 0 && v != nullptr && echo::ParseCount(v, flags[fi].max, &flags[fi].value)) {
            ++i;
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

    echo::EchoServerHandler handler;
    options.pool_blocks = static_cast<unsigned int>(flags[1].value);
    options.pool_reserve_blocks = static_cast<unsigned int>(flags[2].value);
    options.max_send_blocks = static_cast<unsigned int>(flags[3].value);
    options.max_recv_blocks = static_cast<unsigned int>(flags[4].value);
    options.send_stall_ms = static_cast<int>(flags[5].value);
    options.packet_deadline_ms = static_cast<int>(flags[6].value);
    options.idle_timeout_ms = static_cast<int>(flags[7].value);
    options.stats_interval_sec = stats_file == nullptr ? static_cast<int>(stats) : 0;
    options.max_packet_len = static_cast<unsigned int>(max_packet);
    if (flags[0].value > 1) {
        return RunGroup(&handler, options, static_cast<int>(flags[0].value), url, stats_file, stats);
    }
    QUOLNET::CConnectorMgr mgr(&handler, options);
    if (mgr.Init() != 0) {
        fprintf(stderr, "echo_server: cannot set up the event loop\n");
        return 1;
    }
    int port = mgr.Listen(url);
    if (port < 0) {
        fprintf(stderr, "echo_server: cannot listen on %s: %s\n", url, strerror(errno));
        return 1;
    }
    printf("echo_server listening on %s\n", mgr.GetListenURL(0).c_str());
    fflush(stdout);
    if (stats_file != nullptr) {
        int ms = stats > 0 ? static_cast<int>(stats * 1000) : 1000;
        std::string path = stats_file;
        mgr.AddTimer(0, ms > 0 ? ms : 1, [&mgr, path]() { WriteStatsFile(&mgr, path); });
    }
    echo::StopOnSignals(&mgr);
    int ret = mgr.Run();
    printf("echo_server: %lld connections, %lld packets echoed\n", handler.Connections(), handler.Packets());
    mgr.PrintStats(stdout);
    return ret == 0 ? 0 : 1;
}
