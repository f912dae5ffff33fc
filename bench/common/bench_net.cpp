#include "bench_net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace QUOLNET_BENCH {

namespace {
volatile sig_atomic_t g_stop = 0;

void OnStop(int) {
    g_stop = 1;
}

void PrintUsage(FILE* out, const char* prog) {
    std::fprintf(
        out,
        "usage: %s [--host 127.0.0.1] [--port 9000] [--sink] [--mode NAME] [--cork on|off] [--threads N]\n"
        "  --host ADDR   IPv4 address to listen on (default 127.0.0.1)\n"
        "  --port PORT   port to listen on, 0..65535 (default 9000; 0 picks a free one)\n"
        "  --sink        frame and discard packets instead of echoing them\n"
        "  --mode NAME   server variant (bench_server_quolnet: peek or callback)\n"
        "  --cork on|off bench_server_quolnet: cork replies of one tick (default on)\n"
        "  --threads N   bench_server_quolnet: event loops, 1..256 (default 1)\n"
        "  --tls         TLS servers: serve TLS 1.3 with a self-signed certificate made in memory\n"
        "  --tls-cert FILE --tls-key FILE\n"
        "                TLS servers: serve TLS 1.3 with this PEM certificate chain and key\n"
        "  --handshake-share PCT\n"
        "                bench_server_quolnet: share of the loop's time handshakes may take while\n"
        "                established connections have work, 0..100 (default: the library's)\n"
        "Exit status 2 on a bad argument.\n",
        prog);
}

[[noreturn]] void BadArgument(const char* prog, const char* arg) {
    std::fprintf(stderr, "%s: bad argument '%s'\n", prog, arg);
    PrintUsage(stderr, prog);
    std::exit(2);
}
}  // namespace

bool ParsePort(const char* text, int* port) {
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (*text == '\0' || errno != 0 || *end != '\0' || v < 0 || v > 65535) {
        return false;
    }
    *port = static_cast<int>(v);
    return true;
}

bool ValidIPv4(const char* text) {
    in_addr a;
    return inet_pton(AF_INET, text, &a) == 1;
}

ServerOptions ParseServerOptions(int argc, char** argv, const char* prog, bool allow_tls) {
    ServerOptions opt;
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (!std::strcmp(a, "--help") || !std::strcmp(a, "-h")) {
            PrintUsage(stdout, prog);
            std::exit(0);
        } else if (!std::strcmp(a, "--sink")) {
            opt.sink = true;
        } else if (!std::strcmp(a, "--host") && v != nullptr && ValidIPv4(v)) {
            opt.host = argv[++i];
        } else if (!std::strcmp(a, "--port") && v != nullptr && ParsePort(v, &opt.port)) {
            ++i;
        } else if (!std::strcmp(a, "--mode") && v != nullptr) {
            opt.mode = argv[++i];
        } else if (!std::strcmp(a, "--threads") && v != nullptr && std::atoi(v) >= 1 && std::atoi(v) <= 256) {
            opt.threads = std::atoi(argv[++i]);
        } else if (!std::strcmp(a, "--cork") && v != nullptr) {
            opt.cork = argv[++i];
        } else if (allow_tls && !std::strcmp(a, "--handshake-share") && v != nullptr && std::atoi(v) >= 0 &&
                   std::atoi(v) <= 100) {
            opt.handshake_share = std::atoi(argv[++i]);
        } else if (allow_tls && !std::strcmp(a, "--tls")) {
            opt.tls = true;
        } else if (allow_tls && !std::strcmp(a, "--tls-cert") && v != nullptr) {
            opt.tls = true;
            opt.tls_cert = argv[++i];
        } else if (allow_tls && !std::strcmp(a, "--tls-key") && v != nullptr) {
            opt.tls = true;
            opt.tls_key = argv[++i];
        } else {
            BadArgument(prog, a);
        }
    }
    return opt;
}

int OpenListener(const char* host, int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        std::perror("socket");
        std::exit(1);
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host, &addr.sin_addr) != 1) {
        std::fprintf(stderr, "bad host %s\n", host);
        std::exit(2);
    }
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 4096) != 0) {
        std::fprintf(stderr, "listen %s:%d: %s\n", host, port, std::strerror(errno));
        std::exit(1);
    }
    return fd;
}

void RaiseFdLimit() {
    rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
}

void SetNoDelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

void InstallStopHandlers() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnStop;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool StopRequested() {
    return g_stop != 0;
}

void PrintServed(uint64_t packets, uint64_t bytes) {
    std::fprintf(stderr, "served packets=%llu bytes=%llu\n", static_cast<unsigned long long>(packets),
                 static_cast<unsigned long long>(bytes));
}

}  // namespace QUOLNET_BENCH
