// scale_client: opens many connections to a length-prefixed echo server and reports what
// holding them costs the server. It plays the clients of the protocol with raw non-blocking
// sockets and epoll, so it works against any server and shares nothing with the library.
//
// Wire format: a 4-byte big-endian length that counts the whole packet, then the payload;
// the server echoes every packet unchanged. Every echoed byte is checked against a pattern
// that depends on the connection and the round, so a packet echoed on the wrong connection
// or twice is caught.
//
// The connections are spread over --procs worker processes (each with its own descriptor
// limit, raised to the hard limit), round-robin over the --url targets and, for loopback
// IPv4 targets, over --sources source addresses 127.0.0.1 .. 127.0.0.K (one ephemeral port
// range per source and target). The parent drives the phases over pipes:
//
//   before       nothing open yet (baseline of the server's RSS, descriptors and pool)
//   connect      every worker dials its share, at most --connect-window in progress
//   ping-pong 1  one packet of --size bytes on every connection, echo verified
//   idle         nothing sent for --idle seconds
//   ping-pong 2  the same again on every connection still open
//   close        every connection closed (FIN, or RST with --close rst)
//
// Each phase ends when every connection is done or after --phase-timeout seconds; what is
// not done by then is reported as not served. With --server-pid the server's VmRSS and open
// descriptors are sampled after each phase (after connect and close, once the descriptor
// count settles); with --server-metrics FILE the pool use is read from the first JSON
// metrics the server writes to FILE after the phase (echo_server --metrics-file FILE
// --metrics-format json).
//
// With --tls every connection speaks TLS (OpenSSL directly, tls_peer.h): it counts as
// connected once its handshake is done, the ping-pongs go through the session, and the close
// sends a close_notify first (none with --close rst).
//
// Exit status: 0 when every connection connected and was served in both rounds, 1 when some
// were not (the report is printed either way) or the run could not start, 2 on bad arguments.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/bench_net.h"
#include "tool_args.h"
#include "tls_peer.h"

namespace {

using QUOLNET_BENCH::ReadBe32;
using QUOLNET_BENCH::WriteBe32;

const uint32_t kHeaderLen = 4;
const uint32_t kMaxSize = 1u << 20;

int64_t NowUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void SleepUs(int64_t us) {
    if (us <= 0) {
        return;
    }
    timespec ts;
    ts.tv_sec = us / 1000000;
    ts.tv_nsec = (us % 1000000) * 1000;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// ---- options ----

struct Target {
    std::string url;
    std::string host;  // the address as written in the URL (what a TLS certificate must name)
    sockaddr_storage addr;
    socklen_t len = 0;
    bool loopback_v4 = false;  // 127.0.0.0/8: connections may bind a 127.0.0.x source
};

struct Options {
    std::vector<Target> targets;
    long conns = 1000;
    int procs = 1;
    int sources = 1;
    uint32_t size = 1024;  // whole packet, header included
    double idle = 5;
    double phase_timeout = 60;
    int window = 1000;  // connects in progress per worker
    bool rst = false;
    long server_pid = 0;
    std::string metrics_file;
    bool json = false;
    tools_tls::ClientTlsOptions tls;
};

void Usage(FILE* out) {
    fprintf(out,
            "usage: scale_client [--url URL]... [--conns N] [--procs P] [--sources K] [--size BYTES]\n"
            "                    [--idle SECONDS] [--phase-timeout SECONDS] [--connect-window N]\n"
            "                    [--close fin|rst] [--server-pid PID] [--server-metrics FILE] [--json]\n"
            "                    [--tls [--tls-ca FILE | --tls-insecure]]\n"
            "  --url URL               echo server, tcp://a.b.c.d:port or tcp://[v6]:port; give it several\n"
            "                          times to spread the connections over several ports\n"
            "                          (default tcp://127.0.0.1:7000)\n"
            "  --conns N               connections in all (default 1000)\n"
            "  --procs P               worker processes sharing them (default 1); each raises its\n"
            "                          descriptor limit to the hard limit\n"
            "  --sources K             bind connections to loopback IPv4 targets round-robin to\n"
            "                          127.0.0.1 .. 127.0.0.K (default 1: no bind)\n"
            "  --size BYTES            ping-pong packet length, 4-byte header included (default 1024)\n"
            "  --idle SECONDS          pause between the two ping-pongs (default 5)\n"
            "  --phase-timeout SECONDS what a phase may take; connections not done by then count as\n"
            "                          not served (default 60)\n"
            "  --connect-window N      connects in progress per process (default 1000)\n"
            "  --close fin|rst         close with FIN (default) or with a reset (SO_LINGER 0)\n"
            "  --server-pid PID        sample the server's VmRSS and open descriptors at each phase\n"
            "  --server-metrics FILE   read the server's pool use (pool.blocks_in_use, of \"total\" with\n"
            "                          several loops) from the JSON metrics the server rewrites in FILE\n"
            "                          (echo_server --metrics-file FILE --metrics-format json)\n"
            "  --json                  print one JSON line on stdout (the table goes to stderr)\n"
            "  --tls                   speak TLS (echo_server --tls-cert FILE --tls-key FILE): a connection\n"
            "                          counts as connected once its handshake is done; verified against\n"
            "                          the system's CAs unless one of these is given (each implies --tls):\n"
            "  --tls-ca FILE           CA certificates (PEM) to verify the server with; the certificate\n"
            "                          must name the URL's address\n"
            "  --tls-insecure          FOR TESTING ONLY: do not verify the server's certificate\n"
            "Exit status: 0 when every connection was served in both rounds, 1 otherwise, 2 on bad\n"
            "arguments.\n");
}

// Parses "tcp://a.b.c.d:port" or "tcp://[v6]:port" (port 1..65535).
bool ParseURL(const char* url, Target* t) {
    std::string s = url;
    if (s.compare(0, 6, "tcp://") != 0) {
        return false;
    }
    s = s.substr(6);
    std::string host, port;
    if (!s.empty() && s[0] == '[') {
        size_t close = s.find(']');
        if (close == std::string::npos || close + 1 >= s.size() || s[close + 1] != ':') {
            return false;
        }
        host = s.substr(1, close - 1);
        port = s.substr(close + 2);
    } else {
        size_t colon = s.rfind(':');
        if (colon == std::string::npos) {
            return false;
        }
        host = s.substr(0, colon);
        port = s.substr(colon + 1);
    }
    long p = 0;
    if (!tools_args::ParseLong(port.c_str(), 1, 65535, &p)) {
        return false;
    }
    if (!tools_args::ParseAddress(host, static_cast<int>(p), &t->addr, &t->len)) {
        return false;
    }
    const sockaddr_in* v4 = reinterpret_cast<const sockaddr_in*>(&t->addr);
    t->loopback_v4 = t->addr.ss_family == AF_INET && (ntohl(v4->sin_addr.s_addr) >> 24) == 127;
    t->url = url;
    t->host = host;
    return true;
}

// Returns 0 and fills `opt`, 1 after --help, 2 on a bad argument (message printed).
int ParseOptions(int argc, char** argv, Options* opt) {
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        long n = 0;
        bool ok = v != nullptr;
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            Usage(stdout);
            return 1;
        } else if (strcmp(a, "--json") == 0) {
            opt->json = true;
            continue;
        } else if (strcmp(a, "--tls") == 0 || strcmp(a, "--tls-insecure") == 0) {
            opt->tls.enabled = true;
            opt->tls.insecure = opt->tls.insecure || strcmp(a, "--tls-insecure") == 0;
            continue;
        } else if (strcmp(a, "--tls-ca") == 0) {
            ok = ok && *v != '\0';
            if (ok) {
                opt->tls.ca_file = v;
                opt->tls.enabled = true;
            }
        } else if (strcmp(a, "--url") == 0) {
            Target t;
            ok = ok && ParseURL(v, &t);
            if (ok) {
                opt->targets.push_back(t);
            } else if (v != nullptr) {
                fprintf(stderr,
                        "scale_client: invalid URL '%s' (expected tcp://a.b.c.d:port or tcp://[v6]:port)\n",
                        v);
                return 2;
            }
        } else if (strcmp(a, "--conns") == 0) {
            ok = ok && tools_args::ParseLong(v, 1, 10000000, &opt->conns);
        } else if (strcmp(a, "--procs") == 0) {
            ok = ok && tools_args::ParseLong(v, 1, 256, &n);
            opt->procs = static_cast<int>(n);
        } else if (strcmp(a, "--sources") == 0) {
            ok = ok && tools_args::ParseLong(v, 1, 254, &n);
            opt->sources = static_cast<int>(n);
        } else if (strcmp(a, "--size") == 0) {
            ok = ok && tools_args::ParseLong(v, kHeaderLen, kMaxSize, &n);
            opt->size = static_cast<uint32_t>(n);
        } else if (strcmp(a, "--idle") == 0) {
            ok = ok && tools_args::ParseSeconds(v, 0, &opt->idle);
        } else if (strcmp(a, "--phase-timeout") == 0) {
            ok = ok && tools_args::ParseSeconds(v, 0.001, &opt->phase_timeout);
        } else if (strcmp(a, "--connect-window") == 0) {
            ok = ok && tools_args::ParseLong(v, 1, 1000000, &n);
            opt->window = static_cast<int>(n);
        } else if (strcmp(a, "--close") == 0) {
            ok = ok && (strcmp(v, "fin") == 0 || strcmp(v, "rst") == 0);
            opt->rst = ok && strcmp(v, "rst") == 0;
        } else if (strcmp(a, "--server-pid") == 0) {
            ok = ok && tools_args::ParseLong(v, 1, 0x7fffffff, &opt->server_pid);
        } else if (strcmp(a, "--server-metrics") == 0) {
            ok = ok && tools_args::ParseText(v, &opt->metrics_file);
        } else {
            ok = false;
        }
        if (!ok) {
            return tools_args::BadArgument("scale_client", a, v, Usage);
        }
        ++i;
    }
    if (opt->targets.empty()) {
        Target t;
        ParseURL("tcp://127.0.0.1:7000", &t);
        opt->targets.push_back(t);
    }
    if (opt->tls.enabled && !tools_tls::Available()) {
        fprintf(stderr, "scale_client: --tls: this build has no TLS (OpenSSL 3 was not found)\n");
        return 2;
    }
    if (opt->procs > opt->conns) {
        opt->procs = static_cast<int>(opt->conns);
    }
    return 0;
}

// ---- what a worker reports for one phase ----

struct PhaseResult {
    uint32_t ok = 0;        // connected / served / closed
    uint32_t timeout = 0;   // not done when the phase ended
    uint32_t closed = 0;    // the server closed or reset the connection
    uint32_t mismatch = 0;  // an echoed byte differed, or bytes nobody asked for arrived
    uint32_t refused = 0;   // connect refused
    uint32_t no_port = 0;   // no local address/port left (EADDRNOTAVAIL, EADDRINUSE)
    uint32_t no_fd = 0;     // descriptor limit (EMFILE, ENFILE)
    uint32_t other = 0;     // any other error, or a worker that died
    uint32_t tls = 0;       // the TLS handshake failed (the first failure of a worker is printed)
    uint32_t open = 0;      // connections open when the phase ended

    uint32_t Failed() const { return timeout + closed + mismatch + refused + no_port + no_fd + other + tls; }
    void Add(const PhaseResult& r) {
        ok += r.ok;
        timeout += r.timeout;
        closed += r.closed;
        mismatch += r.mismatch;
        refused += r.refused;
        no_port += r.no_port;
        no_fd += r.no_fd;
        other += r.other;
        tls += r.tls;
        open += r.open;
    }
};

// ---- the worker: one process, its share of the connections ----

class CWorker {
  public:
    CWorker(const Options& opt, uint32_t first, uint32_t count) : m_opt(opt), m_first(first), m_count(count) {
        m_conns.resize(count);
        m_tx.resize(opt.size);
        m_rx.resize(256 * 1024);
        m_events.resize(1024);
    }
    ~CWorker() {
        for (Conn& c : m_conns) {
            Drop(c);
        }
        if (m_ep >= 0) {
            close(m_ep);
        }
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
        SSL_CTX_free(m_ctx);
#endif
    }

    bool Init() {
        m_ep = epoll_create1(EPOLL_CLOEXEC);
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
        if (m_opt.tls.enabled) {
            std::string error;
            m_ctx = tools_tls::MakeClientContext(m_opt.tls, &error);
            if (m_ctx == nullptr) {
                fprintf(stderr, "scale_client: TLS: %s\n", error.c_str());
                return false;
            }
        }
#endif
        return m_ep >= 0;
    }

    PhaseResult Connect();
    PhaseResult PingPong(uint32_t round);
    PhaseResult Close();

  private:
    struct Conn {
        int fd = -1;
        SSL* ssl = nullptr;  // with --tls: the session (owned)
        bool connecting = false;
        bool handshaking = false;  // --tls: connected, the handshake under way
        bool in_epoll = false;     // connect phase: registered in the epoll set
        bool want_out = false;
        uint32_t tx_target = 0;  // rounds queued for sending
        uint32_t tx_round = 0;   // rounds fully written
        uint32_t tx_off = 0;     // bytes of round tx_round + 1 written
        uint32_t rx_round = 0;   // rounds whose echo fully arrived
        uint32_t rx_off = 0;     // bytes of round rx_round + 1 received
    };

    // The byte at offset `off` of the packet of round `round` on global connection `index`.
    uint8_t PatternByte(uint32_t index, uint32_t round, uint32_t off) const {
        if (off < kHeaderLen) {
            return static_cast<uint8_t>(m_opt.size >> (8 * (kHeaderLen - 1 - off)));
        }
        uint32_t seed = index * 2654435761u ^ (round * 40503u + 0x9e37u);
        return static_cast<uint8_t>((seed >> (off & 15)) + off * 131u + (off >> 9));
    }
    uint32_t Index(const Conn& c) const {
        return m_first + static_cast<uint32_t>(&c - m_conns.data());
    }

    void StartConnect(Conn& c, PhaseResult* r);
    // The TCP connect of `c` (counted in m_pending) is done: with TLS its handshake starts,
    // else it counts as connected.
    void Established(Conn& c, PhaseResult* r);
    // One step of `c`'s handshake: done (counted as connected), waiting for readiness, or
    // failed (counted under `tls`, dropped).
    void StepHandshake(Conn& c, PhaseResult* r);
    // send / recv through the session when there is one: the count (> 0), 0 for the peer's
    // end (recv), or -1 with errno set (EAGAIN when the session waits for the socket,
    // ECONNRESET when it failed).
    ssize_t SendBytes(Conn& c, const void* buf, size_t len);
    ssize_t RecvBytes(Conn& c, void* buf, size_t len);
    void CountError(int err, PhaseResult* r);
    void SetEvents(Conn& c, uint32_t events, bool add);
    void Drop(Conn& c);
    // Returns false when the connection failed (counted in `r` for `round`, then dropped).
    bool Flush(Conn& c, uint32_t round, PhaseResult* r);
    bool Read(Conn& c, uint32_t round, PhaseResult* r);
    bool ReadOnce(Conn& c, uint32_t round, PhaseResult* r);  // one recv; m_more: it returned bytes
    void Fail(Conn& c, uint32_t round, uint32_t PhaseResult::*what, PhaseResult* r);

    const Options& m_opt;
    uint32_t m_first;
    uint32_t m_count;
    int m_ep = -1;
    std::vector<Conn> m_conns;
    std::vector<unsigned char> m_tx;
    std::vector<unsigned char> m_rx;
    std::vector<epoll_event> m_events;
    uint32_t m_pending = 0;       // connections not yet done in the current phase
    SSL_CTX* m_ctx = nullptr;     // with --tls: the client context (owned)
    bool m_tls_reported = false;  // the first handshake failure was printed
    bool m_more = false;          // the last ReadOnce took bytes (a session may hold more)
};

void CWorker::CountError(int err, PhaseResult* r) {
    switch (err) {
        case ECONNREFUSED:
            ++r->refused;
            break;
        case EADDRNOTAVAIL:
        case EADDRINUSE:
            ++r->no_port;
            break;
        case EMFILE:
        case ENFILE:
            ++r->no_fd;
            break;
        case ETIMEDOUT:
            ++r->timeout;
            break;
        case ECONNRESET:
        case EPIPE:
            ++r->closed;
            break;
        default:
            ++r->other;
            break;
    }
}

void CWorker::SetEvents(Conn& c, uint32_t events, bool add) {
    epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = events;
    ev.data.u32 = static_cast<uint32_t>(&c - m_conns.data());
    epoll_ctl(m_ep, add ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, c.fd, &ev);
}

void CWorker::Drop(Conn& c) {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    if (c.ssl != nullptr) {
        SSL_free(c.ssl);
        c.ssl = nullptr;
    }
#endif
    c.handshaking = false;
    c.in_epoll = false;
    if (c.fd >= 0) {
        close(c.fd);  // also leaves the epoll set
        c.fd = -1;
    }
    c.connecting = false;
}

void CWorker::StartConnect(Conn& c, PhaseResult* r) {
    uint32_t index = Index(c);
    const Target& t = m_opt.targets[index % m_opt.targets.size()];
    int fd = socket(t.addr.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        CountError(errno, r);
        return;
    }
    if (m_opt.sources > 1 && t.loopback_v4) {
        // The port is picked at connect time for the whole 4-tuple, so every source address
        // brings a full ephemeral port range per target.
        int one = 1;
        setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof(one));
        uint32_t source = (index / static_cast<uint32_t>(m_opt.targets.size())) % uint32_t(m_opt.sources);
        sockaddr_in src;
        memset(&src, 0, sizeof(src));
        src.sin_family = AF_INET;
        src.sin_addr.s_addr = htonl((127u << 24) | (source + 1));
        if (bind(fd, reinterpret_cast<sockaddr*>(&src), sizeof(src)) != 0) {
            CountError(errno, r);
            close(fd);
            return;
        }
    }
    c.fd = fd;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&t.addr), t.len) == 0) {
        ++m_pending;
        Established(c, r);
        return;
    }
    if (errno != EINPROGRESS) {
        CountError(errno, r);
        Drop(c);
        return;
    }
    c.connecting = true;
    c.in_epoll = true;
    SetEvents(c, EPOLLOUT, true);
    ++m_pending;
}

void CWorker::Established(Conn& c, PhaseResult* r) {
    c.connecting = false;
    QUOLNET_BENCH::SetNoDelay(c.fd);
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    if (m_ctx != nullptr) {
        const Target& t = m_opt.targets[Index(c) % m_opt.targets.size()];
        c.ssl = tools_tls::NewClientSession(m_ctx, c.fd, t.host);
        if (c.ssl == nullptr) {
            ++r->other;
            --m_pending;
            Drop(c);
            return;
        }
        c.handshaking = true;
        StepHandshake(c, r);
        return;
    }
#endif
    if (c.in_epoll) {
        // Out of the epoll set until a ping-pong needs it: an idle worker watches nothing.
        epoll_ctl(m_ep, EPOLL_CTL_DEL, c.fd, nullptr);
        c.in_epoll = false;
    }
    --m_pending;
    ++r->ok;
}

void CWorker::StepHandshake(Conn& c, PhaseResult* r) {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    int rc = SSL_do_handshake(c.ssl);
    if (rc == 1) {
        c.handshaking = false;
        if (c.in_epoll) {
            epoll_ctl(m_ep, EPOLL_CTL_DEL, c.fd, nullptr);
            c.in_epoll = false;
        }
        --m_pending;
        ++r->ok;
        return;
    }
    int e = SSL_get_error(c.ssl, rc);
    if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
        SetEvents(c, e == SSL_ERROR_WANT_READ ? EPOLLIN : EPOLLOUT, !c.in_epoll);
        c.in_epoll = true;
        return;
    }
    std::string text = tools_tls::ErrorText();
    if (!m_tls_reported) {
        m_tls_reported = true;
        fprintf(stderr, "scale_client: TLS handshake failed: %s\n",
                text.empty() ? "the server closed the connection" : text.c_str());
    }
    ++r->tls;
#else
    ++r->other;
#endif
    --m_pending;
    Drop(c);
}

ssize_t CWorker::SendBytes(Conn& c, const void* buf, size_t len) {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    if (c.ssl != nullptr) {
        int n = SSL_write(c.ssl, buf, static_cast<int>(len));
        if (n > 0) {
            return n;
        }
        int e = SSL_get_error(c.ssl, n);
        ERR_clear_error();
        errno = e == SSL_ERROR_WANT_WRITE || e == SSL_ERROR_WANT_READ ? EAGAIN : ECONNRESET;
        return -1;
    }
#endif
    return send(c.fd, buf, len, MSG_NOSIGNAL);
}

ssize_t CWorker::RecvBytes(Conn& c, void* buf, size_t len) {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    if (c.ssl != nullptr) {
        int n = SSL_read(c.ssl, buf, static_cast<int>(len));
        if (n > 0) {
            return n;
        }
        int e = SSL_get_error(c.ssl, n);
        ERR_clear_error();
        if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
            errno = EAGAIN;
            return -1;
        }
        if (e == SSL_ERROR_ZERO_RETURN || (e == SSL_ERROR_SYSCALL && errno == 0)) {
            return 0;  // close_notify, or the socket's end without one
        }
        errno = ECONNRESET;
        return -1;
    }
#endif
    return recv(c.fd, buf, len, 0);
}

PhaseResult CWorker::Connect() {
    PhaseResult r;
    const int64_t deadline = NowUs() + static_cast<int64_t>(m_opt.phase_timeout * 1e6);
    uint32_t next = 0;
    m_pending = 0;
    for (;;) {
        while (next < m_count && m_pending < uint32_t(m_opt.window)) {
            StartConnect(m_conns[next++], &r);
        }
        int64_t now = NowUs();
        if ((next == m_count && m_pending == 0) || now >= deadline) {
            break;
        }
        int wait_ms = static_cast<int>(std::min<int64_t>(100, (deadline - now + 999) / 1000));
        int n = epoll_wait(m_ep, m_events.data(), static_cast<int>(m_events.size()), wait_ms);
        for (int i = 0; i < n; ++i) {
            Conn& c = m_conns[m_events[i].data.u32];
            if (c.handshaking) {
                StepHandshake(c, &r);
                continue;
            }
            if (!c.connecting) {
                continue;
            }
            int err = 0;
            socklen_t len = sizeof(err);
            if (getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
                err = errno;
            }
            if (err != 0) {
                --m_pending;
                CountError(err, &r);
                Drop(c);
                continue;
            }
            Established(c, &r);
        }
    }
    for (Conn& c : m_conns) {
        if (c.connecting || c.handshaking) {
            ++r.timeout;
            Drop(c);
        }
    }
    r.timeout += m_count - next;
    for (const Conn& c : m_conns) {
        r.open += c.fd >= 0 ? 1 : 0;
    }
    return r;
}

void CWorker::Fail(Conn& c, uint32_t round, uint32_t PhaseResult::*what, PhaseResult* r) {
    if (c.rx_round < round) {
        ++(r->*what);
        --m_pending;
    }
    Drop(c);
}

bool CWorker::Flush(Conn& c, uint32_t round, PhaseResult* r) {
    while (c.tx_round < c.tx_target) {
        uint32_t k = c.tx_round + 1;
        uint32_t index = Index(c);
        for (uint32_t off = c.tx_off; off < m_opt.size; ++off) {
            m_tx[off] = PatternByte(index, k, off);
        }
        ssize_t w = SendBytes(c, m_tx.data() + c.tx_off, m_opt.size - c.tx_off);
        if (w < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
                if (!c.want_out) {
                    c.want_out = true;
                    SetEvents(c, EPOLLIN | EPOLLOUT, false);
                }
                return true;
            }
            Fail(c, round, errno == ECONNRESET || errno == EPIPE ? &PhaseResult::closed : &PhaseResult::other,
                 r);
            return false;
        }
        c.tx_off += static_cast<uint32_t>(w);
        if (c.tx_off == m_opt.size) {
            c.tx_off = 0;
            ++c.tx_round;
        }
    }
    if (c.want_out) {
        c.want_out = false;
        SetEvents(c, EPOLLIN, false);
    }
    return true;
}

bool CWorker::Read(Conn& c, uint32_t round, PhaseResult* r) {
    // A session may hold decrypted bytes that the socket's readiness no longer announces:
    // it is read until it waits for the socket. A plain socket is read once per event.
    do {
        if (!ReadOnce(c, round, r)) {
            return false;
        }
    } while (c.ssl != nullptr && m_more);
    return true;
}

bool CWorker::ReadOnce(Conn& c, uint32_t round, PhaseResult* r) {
    m_more = false;
    ssize_t n = RecvBytes(c, m_rx.data(), m_rx.size());
    if (n == 0) {
        Fail(c, round, &PhaseResult::closed, r);
        return false;
    }
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
            return true;
        }
        Fail(c, round, errno == ECONNRESET ? &PhaseResult::closed : &PhaseResult::other, r);
        return false;
    }
    uint32_t index = Index(c);
    for (ssize_t i = 0; i < n; ++i) {
        // An echo can only follow a packet that was written whole.
        if (c.rx_round >= c.tx_round || m_rx[i] != PatternByte(index, c.rx_round + 1, c.rx_off)) {
            Fail(c, round, &PhaseResult::mismatch, r);
            return false;
        }
        if (++c.rx_off == m_opt.size) {
            c.rx_off = 0;
            if (++c.rx_round == round) {
                ++r->ok;
                --m_pending;
            }
        }
    }
    m_more = true;
    return true;
}

PhaseResult CWorker::PingPong(uint32_t round) {
    PhaseResult r;
    const int64_t deadline = NowUs() + static_cast<int64_t>(m_opt.phase_timeout * 1e6);
    m_pending = 0;
    for (Conn& c : m_conns) {
        if (c.fd < 0) {
            continue;
        }
        c.tx_target = round;
        c.want_out = false;
        SetEvents(c, EPOLLIN, true);
        if (c.rx_round < round) {
            ++m_pending;
        }
        Flush(c, round, &r);
    }
    while (m_pending > 0) {
        int64_t now = NowUs();
        if (now >= deadline) {
            break;
        }
        int wait_ms = static_cast<int>(std::min<int64_t>(100, (deadline - now + 999) / 1000));
        int n = epoll_wait(m_ep, m_events.data(), static_cast<int>(m_events.size()), wait_ms);
        for (int i = 0; i < n; ++i) {
            Conn& c = m_conns[m_events[i].data.u32];
            if (c.fd < 0) {
                continue;
            }
            uint32_t ev = m_events[i].events;
            if ((ev & (EPOLLIN | EPOLLERR | EPOLLHUP)) && !Read(c, round, &r)) {
                continue;
            }
            if ((ev & EPOLLOUT) && c.fd >= 0) {
                Flush(c, round, &r);
            }
        }
    }
    r.timeout = m_pending;
    for (Conn& c : m_conns) {
        if (c.fd >= 0) {
            epoll_ctl(m_ep, EPOLL_CTL_DEL, c.fd, nullptr);
            ++r.open;
        }
    }
    return r;
}

PhaseResult CWorker::Close() {
    PhaseResult r;
    linger lg;
    lg.l_onoff = 1;
    lg.l_linger = 0;
    for (Conn& c : m_conns) {
        if (c.fd < 0) {
            continue;
        }
        if (m_opt.rst) {
            setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
        }
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
        if (c.ssl != nullptr && !m_opt.rst) {
            SSL_shutdown(c.ssl);  // the close_notify, if the socket takes it now
            ERR_clear_error();
        }
#endif
        Drop(c);
        ++r.ok;
    }
    return r;
}

// Commands from the parent, one byte each; every one is answered with one PhaseResult.
const char kCmdConnect = 'C';
const char kCmdRound1 = '1';
const char kCmdRound2 = '2';
const char kCmdClose = 'X';

bool WriteAll(int fd, const void* p, size_t n) {
    const char* b = static_cast<const char*>(p);
    while (n > 0) {
        ssize_t w = write(fd, b, n);
        if (w < 0 && errno == EINTR) {
            continue;
        }
        if (w <= 0) {
            return false;
        }
        b += w;
        n -= size_t(w);
    }
    return true;
}

[[noreturn]] void WorkerMain(const Options& opt, uint32_t first, uint32_t count, int cmd_fd, int res_fd) {
    CWorker worker(opt, first, count);
    if (!worker.Init()) {
        _exit(1);
    }
    for (;;) {
        char cmd = 0;
        ssize_t n = read(cmd_fd, &cmd, 1);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            _exit(0);  // the parent is gone: the connections close with the process
        }
        PhaseResult r;
        if (cmd == kCmdConnect) {
            r = worker.Connect();
        } else if (cmd == kCmdRound1) {
            r = worker.PingPong(1);
        } else if (cmd == kCmdRound2) {
            r = worker.PingPong(2);
        } else {
            r = worker.Close();
        }
        if (!WriteAll(res_fd, &r, sizeof(r))) {
            _exit(1);
        }
        if (cmd == kCmdClose) {
            _exit(0);
        }
    }
}

// ---- the parent: workers, phases, server samples, report ----

struct Worker {
    pid_t pid = -1;
    int cmd_fd = -1;
    int res_fd = -1;
    uint32_t count = 0;
    bool alive = true;
};

// What the server looked like at one moment; a field is -1 when it was not sampled.
struct Sample {
    long rss_kib = -1;
    long fds = -1;
    long pool = -1;
    bool pool_fresh = false;  // the pool line was written after the phase ended
};

struct PhaseRow {
    explicit PhaseRow(const char* n) : name(n) {}
    const char* name;
    bool has_result = false;
    PhaseResult result;
    double seconds = -1;
    Sample sample;
};

long ReadRssKib(long pid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%ld/status", pid);
    FILE* f = fopen(path, "r");
    if (f == nullptr) {
        return -1;
    }
    char line[256];
    long kib = -1;
    while (fgets(line, sizeof(line), f) != nullptr) {
        if (strncmp(line, "VmRSS:", 6) == 0) {
            kib = strtol(line + 6, nullptr, 10);
            break;
        }
    }
    fclose(f);
    return kib;
}

// TcpExt ListenOverflows of this network namespace (every listener, not only the server's):
// handshakes dropped because an accept queue was full. -1 when unreadable.
long ReadListenOverflows() {
    FILE* f = fopen("/proc/net/netstat", "r");
    if (f == nullptr) {
        return -1;
    }
    // Two lines per group: the names, then the values in the same order.
    char names[8192], values[8192];
    long result = -1;
    while (result < 0 && fgets(names, sizeof(names), f) != nullptr &&
           fgets(values, sizeof(values), f) != nullptr) {
        if (strncmp(names, "TcpExt:", 7) != 0) {
            continue;
        }
        char* np = nullptr;
        char* vp = nullptr;
        char* n = strtok_r(names, " \n", &np);
        char* v = strtok_r(values, " \n", &vp);
        while (n != nullptr && v != nullptr) {
            if (strcmp(n, "ListenOverflows") == 0) {
                result = strtol(v, nullptr, 10);
                break;
            }
            n = strtok_r(nullptr, " \n", &np);
            v = strtok_r(nullptr, " \n", &vp);
        }
    }
    fclose(f);
    return result;
}

long CountFds(long pid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%ld/fd", pid);
    DIR* d = opendir(path);
    if (d == nullptr) {
        return -1;
    }
    long n = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            ++n;
        }
    }
    closedir(d);
    return n;
}

// The pool's blocks in use from the server's JSON metrics: the object's own "pool", or with
// several loops the "pool" of "total". -1 when `text` is not a whole object or lacks it.
long PoolInUse(const std::string& text) {
    size_t last = text.find_last_not_of(" \t\r\n");
    if (text.empty() || text[0] != '{' || last == std::string::npos || text[last] != '}') {
        return -1;
    }
    size_t from = text.find("\"total\":");
    size_t pool = text.find("\"pool\":{", from == std::string::npos ? 0 : from);
    const char* key = "\"blocks_in_use\":";
    size_t at = pool == std::string::npos ? pool : text.find(key, pool);
    if (at == std::string::npos) {
        return -1;
    }
    const char* num = text.c_str() + at + strlen(key);
    char* end = nullptr;
    long v = strtol(num, &end, 10);
    return end == num || v < 0 ? -1 : v;
}

// Follows the server's metrics file, which the server replaces whole at every interval
// (written beside it and renamed): a poll that finds a new file reads its pool figure.
class CMetricsFollower {
  public:
    explicit CMetricsFollower(const std::string& path) : m_path(path) {}

    // True when the file was replaced since the last call that found one, and the new one
    // carried a pool figure.
    bool Poll() {
        FILE* f = fopen(m_path.c_str(), "r");
        if (f == nullptr) {
            return false;
        }
        struct stat fst;
        if (fstat(fileno(f), &fst) != 0 ||
            (fst.st_ino == m_ino && fst.st_dev == m_dev && fst.st_mtim.tv_sec == m_mtime.tv_sec &&
             fst.st_mtim.tv_nsec == m_mtime.tv_nsec && fst.st_size == m_size)) {
            fclose(f);
            return false;
        }
        std::string text;
        char buf[65536];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), f)) > 0) {
            text.append(buf, n);
        }
        fclose(f);
        long pool = PoolInUse(text);
        if (pool < 0) {
            return false;  // not metrics (yet): looked at again at the next call
        }
        m_ino = fst.st_ino;
        m_dev = fst.st_dev;
        m_mtime = fst.st_mtim;
        m_size = fst.st_size;
        m_pool = pool;
        return true;
    }

    long Pool() const { return m_pool; }

  private:
    std::string m_path;
    ino_t m_ino = 0;
    dev_t m_dev = 0;
    struct timespec m_mtime = {0, 0};
    off_t m_size = -1;
    long m_pool = -1;
};

class CParent {
  public:
    explicit CParent(const Options& opt) : m_opt(opt), m_metrics(opt.metrics_file) {}
    int Run();

  private:
    bool StartWorkers();
    // Sends `cmd` to every live worker and sums their answers; a worker that dies or does
    // not answer in time counts all its connections under `other`.
    PhaseResult RunPhase(char cmd, double* seconds);
    // Waits until the server's descriptor count reaches `target` or stops moving for five
    // seconds (bounded by the phase timeout): a handshake whose last ACK met a full accept
    // queue is completed by the server's SYN-ACK retransmits 1, 3 and 7 s later (or by the
    // first data the client sends).
    void SettleFds(long target);
    Sample TakeSample();
    void Report(FILE* out, const std::vector<PhaseRow>& rows, uint32_t connected) const;
    void ReportJson(FILE* out, const std::vector<PhaseRow>& rows, uint32_t connected, bool all) const;

    const Options& m_opt;
    std::vector<Worker> m_workers;
    CMetricsFollower m_metrics;
    long m_listen_overflows = -1;  // during the connect phase, namespace-wide
};

bool CParent::StartWorkers() {
    uint32_t first = 0;
    for (int p = 0; p < m_opt.procs; ++p) {
        Worker w;
        w.count = static_cast<uint32_t>(m_opt.conns * (p + 1) / m_opt.procs) - first;
        int cmd[2], res[2];
        if (pipe2(cmd, O_CLOEXEC) != 0 || pipe2(res, O_CLOEXEC) != 0) {
            perror("scale_client: pipe");
            return false;
        }
        fflush(nullptr);
        pid_t pid = fork();
        if (pid < 0) {
            perror("scale_client: fork");
            return false;
        }
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() == 1) {
                _exit(1);
            }
            // Only this worker's own pipe ends stay open, so each sees end of file when the
            // parent goes away.
            for (const Worker& o : m_workers) {
                close(o.cmd_fd);
                close(o.res_fd);
            }
            close(cmd[1]);
            close(res[0]);
            WorkerMain(m_opt, first, w.count, cmd[0], res[1]);
        }
        close(cmd[0]);
        close(res[1]);
        w.pid = pid;
        w.cmd_fd = cmd[1];
        w.res_fd = res[0];
        m_workers.push_back(w);
        first += w.count;
    }
    return true;
}

PhaseResult CParent::RunPhase(char cmd, double* seconds) {
    PhaseResult sum;
    int64_t start = NowUs();
    std::vector<bool> waiting(m_workers.size(), false);
    size_t left = 0;
    for (size_t i = 0; i < m_workers.size(); ++i) {
        Worker& w = m_workers[i];
        if (w.alive && WriteAll(w.cmd_fd, &cmd, 1)) {
            waiting[i] = true;
            ++left;
        } else {
            w.alive = false;
            sum.other += w.count;
        }
    }
    // The workers end their own phase at the phase timeout; the margin covers closing and
    // counting.
    const int64_t deadline = start + static_cast<int64_t>(m_opt.phase_timeout * 1e6) + 30 * 1000000LL;
    while (left > 0) {
        std::vector<pollfd> pfds;
        std::vector<size_t> which;
        for (size_t i = 0; i < m_workers.size(); ++i) {
            if (waiting[i]) {
                pfds.push_back(pollfd{m_workers[i].res_fd, POLLIN, 0});
                which.push_back(i);
            }
        }
        int64_t now = NowUs();
        if (now >= deadline) {
            break;
        }
        int n = poll(pfds.data(), pfds.size(), static_cast<int>((deadline - now + 999) / 1000));
        if (n < 0 && errno != EINTR) {
            break;
        }
        for (size_t k = 0; k < pfds.size() && n > 0; ++k) {
            if (pfds[k].revents == 0) {
                continue;
            }
            Worker& w = m_workers[which[k]];
            PhaseResult r;
            size_t got = 0;
            while (got < sizeof(r)) {
                ssize_t rd = read(w.res_fd, reinterpret_cast<char*>(&r) + got, sizeof(r) - got);
                if (rd < 0 && errno == EINTR) {
                    continue;
                }
                if (rd <= 0) {
                    break;
                }
                got += size_t(rd);
            }
            waiting[which[k]] = false;
            --left;
            if (got == sizeof(r)) {
                sum.Add(r);
            } else {
                w.alive = false;
                sum.other += w.count;
            }
        }
    }
    for (size_t i = 0; i < m_workers.size(); ++i) {
        if (waiting[i]) {
            fprintf(stderr, "scale_client: worker %d did not answer in time; stopping it\n",
                    int(m_workers[i].pid));
            kill(m_workers[i].pid, SIGKILL);
            m_workers[i].alive = false;
            sum.other += m_workers[i].count;
        }
    }
    *seconds = double(NowUs() - start) / 1e6;
    return sum;
}

void CParent::SettleFds(long target) {
    if (m_opt.server_pid <= 0) {
        return;
    }
    const int64_t deadline = NowUs() + static_cast<int64_t>(m_opt.phase_timeout * 1e6);
    long last = CountFds(m_opt.server_pid);
    int64_t last_change = NowUs();
    while (last >= 0 && last != target) {
        int64_t now = NowUs();
        if (now >= deadline || now - last_change >= 5000000) {
            return;
        }
        SleepUs(20000);
        long n = CountFds(m_opt.server_pid);
        if (n != last) {
            last = n;
            last_change = NowUs();
        }
    }
}

Sample CParent::TakeSample() {
    Sample s;
    if (m_opt.server_pid > 0) {
        s.rss_kib = ReadRssKib(m_opt.server_pid);
        s.fds = CountFds(m_opt.server_pid);
    }
    if (!m_opt.metrics_file.empty()) {
        // The file there now describes the server before this moment: take it in and wait
        // (bounded) for the next one.
        m_metrics.Poll();
        const int64_t deadline = NowUs() + 3000000;
        while (!(s.pool_fresh = m_metrics.Poll()) && NowUs() < deadline) {
            SleepUs(20000);
        }
        s.pool = m_metrics.Pool();
    }
    return s;
}

void PrintCell(FILE* out, long v, int width) {
    if (v < 0) {
        fprintf(out, " %*s", width, "-");
    } else {
        fprintf(out, " %*ld", width, v);
    }
}

long PerConn(const Sample& s, const Sample& before, uint32_t conns) {
    if (s.rss_kib < 0 || before.rss_kib < 0 || conns == 0) {
        return -1;
    }
    return (s.rss_kib - before.rss_kib) * 1024 / long(conns);
}

void CParent::Report(FILE* out, const std::vector<PhaseRow>& rows, uint32_t connected) const {
    fprintf(out, "scale_client: %ld connections to", m_opt.conns);
    for (const Target& t : m_opt.targets) {
        fprintf(out, " %s", t.url.c_str());
    }
    fprintf(out, " from %d process%s, %d source address%s, %u-byte packets, idle %g s%s\n", m_opt.procs,
            m_opt.procs == 1 ? "" : "es", m_opt.sources, m_opt.sources == 1 ? "" : "es", m_opt.size,
            m_opt.idle, m_opt.tls.enabled ? ", TLS" : "");
    fprintf(out, "%-12s %8s %8s %8s %8s %12s %11s %10s %11s\n", "phase", "seconds", "ok", "failed", "open",
            "server KiB", "RSS/conn B", "server fds", "pool blocks");
    const Sample& before = rows[0].sample;
    for (const PhaseRow& row : rows) {
        fprintf(out, "%-12s", row.name);
        if (row.seconds >= 0) {
            fprintf(out, " %8.3f", row.seconds);
        } else {
            fprintf(out, " %8s", "-");
        }
        PrintCell(out, row.has_result ? long(row.result.ok) : -1, 8);
        PrintCell(out, row.has_result ? long(row.result.Failed()) : -1, 8);
        PrintCell(out, row.has_result ? long(row.result.open) : -1, 8);
        PrintCell(out, row.sample.rss_kib, 12);
        PrintCell(out, &row == &rows[0] ? -1 : PerConn(row.sample, before, connected), 11);
        PrintCell(out, row.sample.fds, 10);
        PrintCell(out, row.sample.pool, 10);
        fprintf(out, "%s\n", row.sample.pool >= 0 && !row.sample.pool_fresh ? "?" : "");
    }
    for (const PhaseRow& row : rows) {
        const PhaseResult& r = row.result;
        if (!row.has_result || r.Failed() == 0) {
            continue;
        }
        fprintf(out, "%s failures:", row.name);
        struct {
            uint32_t n;
            const char* what;
        } parts[] = {{r.timeout, "not done within the phase timeout"},
                     {r.closed, "closed or reset by the server"},
                     {r.mismatch, "wrong echo"},
                     {r.refused, "refused"},
                     {r.no_port, "no local port"},
                     {r.no_fd, "descriptor limit"},
                     {r.other, "other errors"},
                     {r.tls, "TLS handshake failed"}};
        const char* sep = " ";
        for (const auto& p : parts) {
            if (p.n > 0) {
                fprintf(out, "%s%u %s", sep, p.n, p.what);
                sep = ", ";
            }
        }
        fprintf(out, "\n");
    }
    if (m_listen_overflows > 0) {
        fprintf(
            out,
            "connect: %ld handshakes met a full accept queue (TcpExt ListenOverflows, every listener of this "
            "network namespace); each is retried by a SYN or SYN-ACK retransmit 1 s later\n",
            m_listen_overflows);
    }
    if (m_opt.server_pid > 0) {
        fprintf(out,
                "RSS/conn: growth of the server's VmRSS since 'before', divided by the %u connections "
                "that connected\n",
                connected);
    }
    if (!m_opt.metrics_file.empty()) {
        fprintf(
            out, "pool blocks: from the first metrics the server wrote after the phase%s\n",
            std::any_of(rows.begin(), rows.end(),
                        [](const PhaseRow& row) { return row.sample.pool >= 0 && !row.sample.pool_fresh; })
                ? " ('?': no new metrics within 3 s, older figure)"
                : "");
    }
}

void JsonNum(FILE* out, const char* key, long v) {
    if (v < 0) {
        fprintf(out, ",\"%s\":null", key);
    } else {
        fprintf(out, ",\"%s\":%ld", key, v);
    }
}

void JsonString(FILE* out, const std::string& s) {
    fputc('"', out);
    for (char ch : s) {
        if (ch == '"' || ch == '\\') {
            fputc('\\', out);
        }
        if (static_cast<unsigned char>(ch) >= 0x20) {
            fputc(ch, out);
        }
    }
    fputc('"', out);
}

void CParent::ReportJson(FILE* out, const std::vector<PhaseRow>& rows, uint32_t connected, bool all) const {
    fprintf(out, "{\"conns\":%ld,\"procs\":%d,\"sources\":%d,\"tls\":%s,\"urls\":[", m_opt.conns, m_opt.procs,
            m_opt.sources, m_opt.tls.enabled ? "true" : "false");
    for (size_t i = 0; i < m_opt.targets.size(); ++i) {
        if (i > 0) {
            fputc(',', out);
        }
        JsonString(out, m_opt.targets[i].url);
    }
    fprintf(out, "],\"size\":%u,\"idle_s\":%g,\"phase_timeout_s\":%g,\"connected\":%u", m_opt.size,
            m_opt.idle, m_opt.phase_timeout, connected);
    JsonNum(out, "listen_overflows", m_listen_overflows);
    fprintf(out, ",\"all_served\":%s,\"phases\":[", all ? "true" : "false");
    for (size_t i = 0; i < rows.size(); ++i) {
        const PhaseRow& row = rows[i];
        const PhaseResult& r = row.result;
        fprintf(out, "%s{\"phase\":\"%s\"", i > 0 ? "," : "", row.name);
        if (row.has_result) {
            fprintf(
                out,
                ",\"ok\":%u,\"failed\":%u,\"open\":%u,\"seconds\":%.3f,\"timeout\":%u,\"closed\":%u,"
                "\"mismatch\":%u,\"refused\":%u,\"no_port\":%u,\"no_fd\":%u,\"other\":%u,\"tls_failed\":%u",
                r.ok, r.Failed(), r.open, row.seconds, r.timeout, r.closed, r.mismatch, r.refused, r.no_port,
                r.no_fd, r.other, r.tls);
        } else if (row.seconds >= 0) {
            fprintf(out, ",\"seconds\":%.3f", row.seconds);
        }
        JsonNum(out, "rss_kib", row.sample.rss_kib);
        JsonNum(out, "rss_per_conn_b", i == 0 ? -1 : PerConn(row.sample, rows[0].sample, connected));
        JsonNum(out, "server_fds", row.sample.fds);
        JsonNum(out, "pool_blocks", row.sample.pool);
        if (row.sample.pool >= 0) {
            fprintf(out, ",\"pool_fresh\":%s", row.sample.pool_fresh ? "true" : "false");
        }
        fputc('}', out);
    }
    fprintf(out, "]}\n");
}

int CParent::Run() {
    std::vector<PhaseRow> rows;
    PhaseRow before("before");
    before.sample = TakeSample();
    rows.push_back(before);
    if (!StartWorkers()) {
        return 1;
    }

    PhaseRow connect("connect");
    long overflows_before = ReadListenOverflows();
    connect.result = RunPhase(kCmdConnect, &connect.seconds);
    connect.has_result = true;
    const uint32_t connected = connect.result.ok;
    if (before.sample.fds >= 0) {
        SettleFds(before.sample.fds + long(connected));
    }
    long overflows_after = ReadListenOverflows();
    if (overflows_before >= 0 && overflows_after >= overflows_before) {
        m_listen_overflows = overflows_after - overflows_before;
    }
    connect.sample = TakeSample();
    rows.push_back(connect);

    PhaseRow round1("ping-pong 1");
    round1.result = RunPhase(kCmdRound1, &round1.seconds);
    round1.has_result = true;
    round1.sample = TakeSample();
    rows.push_back(round1);

    PhaseRow idle("idle");
    int64_t idle_start = NowUs();
    SleepUs(static_cast<int64_t>(m_opt.idle * 1e6));
    idle.seconds = double(NowUs() - idle_start) / 1e6;
    idle.sample = TakeSample();
    rows.push_back(idle);

    PhaseRow round2("ping-pong 2");
    round2.result = RunPhase(kCmdRound2, &round2.seconds);
    round2.has_result = true;
    round2.sample = TakeSample();
    rows.push_back(round2);

    PhaseRow closing("close");
    closing.result = RunPhase(kCmdClose, &closing.seconds);
    closing.has_result = true;
    if (before.sample.fds >= 0) {
        SettleFds(before.sample.fds);
    }
    closing.sample = TakeSample();
    rows.push_back(closing);

    for (Worker& w : m_workers) {
        close(w.cmd_fd);
        close(w.res_fd);
        int status = 0;
        waitpid(w.pid, &status, 0);
    }

    bool all =
        connected == uint32_t(m_opt.conns) && round1.result.ok == connected && round2.result.ok == connected;
    Report(m_opt.json ? stderr : stdout, rows, connected);
    if (m_opt.json) {
        ReportJson(stdout, rows, connected, all);
    }
    fflush(stdout);
    return all ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    int parsed = ParseOptions(argc, argv, &opt);
    if (parsed != 0) {
        return parsed == 1 ? 0 : 2;
    }
    signal(SIGPIPE, SIG_IGN);
    QUOLNET_BENCH::RaiseFdLimit();
    rlimit rl;
    long share = (opt.conns + opt.procs - 1) / opt.procs;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY &&
        long(rl.rlim_cur) < share + 16) {
        fprintf(stderr,
                "scale_client: warning: %ld connections per process but a descriptor limit of %ld; use more "
                "--procs\n",
                share, long(rl.rlim_cur));
    }
    CParent parent(opt);
    return parent.Run();
}
