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

[[noreturn]] void Usage(const char* prog) {
    std::fprintf(
        stderr,
        "usage: %s [--host 127.0.0.1] [--port 9000] [--sink] [--mode NAME] [--cork on|off] [--threads N]\n",
        prog);
    std::exit(2);
}
}  // namespace

ServerOptions ParseServerOptions(int argc, char** argv, const char* prog) {
    ServerOptions opt;
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        if (!std::strcmp(a, "--sink")) {
            opt.sink = true;
        } else if (!std::strcmp(a, "--host") && i + 1 < argc) {
            opt.host = argv[++i];
        } else if (!std::strcmp(a, "--port") && i + 1 < argc) {
            opt.port = std::atoi(argv[++i]);
        } else if (!std::strcmp(a, "--mode") && i + 1 < argc) {
            opt.mode = argv[++i];
        } else if (!std::strcmp(a, "--threads") && i + 1 < argc) {
            opt.threads = std::atoi(argv[++i]);
            if (opt.threads < 1 || opt.threads > 256) {
                Usage(prog);
            }
        } else if (!std::strcmp(a, "--cork") && i + 1 < argc) {
            opt.cork = argv[++i];
        } else {
            Usage(prog);
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
