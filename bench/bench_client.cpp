// bench_client: load generator for the length-prefixed echo protocol, independent of every
// server under test (raw non-blocking sockets and one level-triggered epoll loop, one thread).
//
// Packets: a 4-byte big-endian length counting the whole packet, an 8-byte sequence number
// and a per-connection byte pattern, so every echoed byte is checked against what was sent
// (a mismatch, a short packet or a closed connection aborts the run with exit code 1).
//
// Modes:
//   pingpong   each connection keeps one packet in flight and sends the next when the echo
//              of the previous one has fully arrived.
//   pipeline   each connection keeps --depth packets in flight.
//   stream     one-way: the client writes packets back to back as fast as the socket takes
//              them and reads nothing; the server must run with --sink (frame and discard).
//              The rate is the rate at which the server drains the connection (the socket
//              buffers are bounded), so it compares directly with a one-way iperf3 stream.
//   connect    connection rate: each of --conns slots connects, (with --tls) makes a full
//              handshake, sends one packet of --size bytes, waits for its whole echo and
//              closes with a reset, then starts over. A "packet" is one such connection.
//   resume     as connect, with TLS resumption: one untimed connection first receives the
//              server's session ticket, then every connection offers that session. The
//              output's "resumed" counts the handshakes that did resume (--tls only).
//
// TLS (--tls): OpenSSL, TLS 1.3 only with the one cipher suite kTlsCipherSuite, no
// certificate verification (a benchmark, not a client to trust). In the echo modes every
// connection's handshake is made while connecting, before the warm-up starts, so the timed
// loop carries application records only; the bytes are read and written through SSL_read and
// SSL_write instead of read and writev.
//
// Measurement: packets completed during the warm-up (--warmup seconds) are discarded; the
// following --duration seconds are measured. Packets/s and MiB/s count completed packets
// (echoed back for pingpong/pipeline, written for stream) and their whole length once.
// Round-trip times run from the moment a packet is queued to the arrival of its last echoed
// byte; p50/p99 come from a log-linear histogram (~3% resolution).
//
// Output: one JSON object on one line on stdout (or one CSV line with --csv; --csv-header
// prints the matching header line and exits). With --mark, the line "measuring" goes to
// stderr when the measured time begins (after the handshakes and the warm-up), so that a
// caller can sample the server's CPU time over the measured time alone.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "common/bench_net.h"
#ifdef QUOLNET_BENCH_TLS
#include <openssl/err.h>
#include <openssl/ssl.h>

#include "common/bench_tls.h"
#else
typedef struct ssl_st SSL;  // never made: --tls is refused without OpenSSL
#endif

using namespace QUOLNET_BENCH;

namespace {

const uint32_t kClientHeader = 12;  // 4-byte length + 8-byte sequence number
const int kMaxIov = 64;

// This process's CPU time so far, user + kernel, in ns.
uint64_t CpuNs() {
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return (uint64_t(ru.ru_utime.tv_sec) + uint64_t(ru.ru_stime.tv_sec)) * 1000000000ull +
           (uint64_t(ru.ru_utime.tv_usec) + uint64_t(ru.ru_stime.tv_usec)) * 1000ull;
}

uint64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000ull + uint64_t(ts.tv_nsec);
}

[[noreturn]] void Fail(const char* fmt, const char* what, long a, long b) {
    std::fprintf(stderr, "bench_client: ");
    std::fprintf(stderr, fmt, what, a, b);
    std::fprintf(stderr, "\n");
    std::exit(1);
}

// Log-linear latency histogram in nanoseconds: exact below 64, then 32 sub-buckets per power
// of two.
class CHistogram {
  public:
    CHistogram() : m_counts(64 + 58 * 32, 0), m_total(0) {}
    void Add(uint64_t v) {
        ++m_counts[Index(v)];
        ++m_total;
    }
    void Clear() {
        std::fill(m_counts.begin(), m_counts.end(), 0);
        m_total = 0;
    }
    // Value (ns, bucket midpoint) below which the fraction q of the samples lies; 0 if none.
    double Quantile(double q) const {
        if (m_total == 0)
            return 0;
        uint64_t want = static_cast<uint64_t>(q * double(m_total - 1)) + 1;
        uint64_t seen = 0;
        for (size_t i = 0; i < m_counts.size(); ++i) {
            seen += m_counts[i];
            if (seen >= want)
                return Mid(i);
        }
        return Mid(m_counts.size() - 1);
    }

  private:
    static size_t Index(uint64_t v) {
        if (v < 64)
            return size_t(v);
        int msb = 63 - __builtin_clzll(v);
        size_t idx = 64 + size_t(msb - 6) * 32 + size_t((v >> (msb - 5)) & 31);
        return idx < 64 + 58 * 32 ? idx : 64 + 58 * 32 - 1;
    }
    static double Mid(size_t i) {
        if (i < 64)
            return double(i);
        size_t msb = (i - 64) / 32 + 6;
        size_t sub = (i - 64) % 32;
        double lo = double((32 + sub) << (msb - 5));
        return lo + double(1ull << (msb - 5)) / 2;
    }
    std::vector<uint64_t> m_counts;
    uint64_t m_total;
};

struct Options {
    std::string host = "127.0.0.1";
    int port = 9000;
    std::string mode = "pingpong";
    std::string label = "server";
    uint32_t size = 64;
    int conns = 1;
    int depth = 1;
    double warmup = 0.5;
    double duration = 2.0;
    bool csv = false;
    bool tls = false;
    bool mark = false;  // print "measuring" on stderr when the measured time begins
};

bool ConnectMode(const Options& opt) {
    return opt.mode == "connect" || opt.mode == "resume";
}

struct Conn {
    int fd = -1;
    uint32_t pat_off = 0;   // this connection's offset into the shared pattern
    bool want_out = false;  // EPOLLOUT registered
    // send side
    uint64_t send_seq = 0;  // sequence number of the packet being written
    uint64_t queued = 0;    // packets queued and not fully written (including the current one)
    uint32_t send_off = 0;  // bytes of the current packet already written
    // receive side
    uint64_t recv_seq = 0;        // sequence number expected next
    uint64_t seq_at_measure = 0;  // recv_seq when the measured time began
    uint32_t recv_pos = 0;        // bytes of the current packet received
    unsigned char recv_hdr[kClientHeader];
    std::vector<uint64_t> stamps;  // ring of queue times, indexed by seq % depth
    SSL* ssl = nullptr;            // --tls: the connection's session (owned)
    // connect/resume modes: where the slot's current connection is
    enum class Phase { kConnecting, kHandshaking, kEchoing } phase = Phase::kConnecting;
    uint64_t started = 0;  // when its connect began
};

class CClient {
  public:
    explicit CClient(const Options& opt)
        : m_opt(opt), m_ep(-1), m_done(0), m_bytes_per_pkt(opt.size), m_measuring(false) {
        m_pattern.resize(opt.size + 256);
        for (size_t i = 0; i < m_pattern.size(); ++i)
            m_pattern[i] = static_cast<unsigned char>(i * 131 + (i >> 8) * 7 + 1);
        m_rbuf.resize(256 * 1024);
    }

    void Run();

  private:
    void Connect();
    void Queue(Conn& c, uint64_t now);
    void Flush(Conn& c);
    void FlushTls(Conn& c);
    void Advance(Conn& c, uint64_t written);
    // Copies up to `cap` of the bytes still to be written on `c` (from the current packet's
    // send_off on) into m_out; returns the count.
    size_t BuildOut(const Conn& c, size_t cap);
    void OnReadableTls(Conn& c, uint64_t now);
    // connect/resume modes
    void RunConnect();
    void StartSlot(Conn& c, uint64_t now);
    void StepSlot(Conn& c, uint64_t now, uint32_t events);
    void EndSlot(Conn& c);
    void Watch(Conn& c, uint32_t events, int op);
    void PrimeSession();
    // TLS
    void InitTls();
    SSL* NewSsl(int fd);
    void OnReadable(Conn& c, uint64_t now);
    void SetWantOut(Conn& c, bool on);
    void Consume(Conn& c, const unsigned char* p, size_t n, uint64_t now);
    void Report(double secs, uint64_t packets);

    Options m_opt;
    int m_ep;
    std::vector<Conn> m_conns;
    std::vector<unsigned char> m_pattern;
    std::vector<unsigned char> m_rbuf;
    uint64_t m_done;  // packets completed since start
    uint64_t m_bytes_per_pkt;
    bool m_measuring;
    uint64_t m_cpu0 = 0;  // the client's own CPU time (user + kernel, ns) when measuring began
    CHistogram m_hist;
    std::vector<unsigned char> m_out;  // --tls: plaintext of the next SSL_write
    sockaddr_in m_addr;
    uint64_t m_handshakes = 0;  // TLS handshakes completed (connect/resume modes)
    uint64_t m_resumed = 0;     // of which resumed a session
    uint64_t m_stalled = 0;     // echo modes: connections that completed no packet while measured
#ifdef QUOLNET_BENCH_TLS
    SSL_CTX* m_tls_ctx = nullptr;
#endif
};

// Closes `fd` with a reset: no TIME_WAIT left behind, so back-to-back runs (and the
// connection-rate modes) never run short of ports.
void CloseReset(int fd) {
    linger lg;
    lg.l_onoff = 1;
    lg.l_linger = 0;
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    close(fd);
}

#ifdef QUOLNET_BENCH_TLS
// The session the resume mode offers on every connection: the one with the ticket the server
// sent on the untimed first connection (owned). The client context has no session cache, so
// OpenSSL never marks it as used up (with a client cache it offers a TLS 1.3 ticket once).
SSL_SESSION* g_session = nullptr;

[[noreturn]] void FailTls(const char* what, long conn, int ret) {
    std::fprintf(stderr, "bench_client: %s failed (conn %ld, SSL error %d, errno %d): %s\n", what, conn, ret,
                 errno, OpenSslErrors().c_str());
    std::exit(1);
}

void CClient::InitTls() {
    m_tls_ctx = SSL_CTX_new(TLS_client_method());
    if (m_tls_ctx == nullptr || SSL_CTX_set_min_proto_version(m_tls_ctx, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set_max_proto_version(m_tls_ctx, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set_ciphersuites(m_tls_ctx, kTlsCipherSuite) != 1)
        FailTls("SSL_CTX set-up", 0, 0);
    SSL_CTX_set_verify(m_tls_ctx, SSL_VERIFY_NONE, nullptr);
    // A write returns once a record is out; a retried write may come from a rebuilt buffer.
    SSL_CTX_set_mode(m_tls_ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(m_tls_ctx, 1);
    SSL_CTX_set_session_cache_mode(m_tls_ctx, SSL_SESS_CACHE_OFF);
}

SSL* CClient::NewSsl(int fd) {
    SSL* ssl = SSL_new(m_tls_ctx);
    if (ssl == nullptr || SSL_set_fd(ssl, fd) != 1)
        FailTls("SSL_new", 0, 0);
    if (m_opt.mode == "resume" && g_session != nullptr && SSL_set_session(ssl, g_session) != 1)
        FailTls("SSL_set_session", 0, 0);
    return ssl;
}
#else
void CClient::InitTls() {
    Fail("%s: built without OpenSSL (%ld %ld)", "--tls", 0, 0);
}
SSL* CClient::NewSsl(int) {
    return nullptr;
}
#endif

void CClient::Connect() {
    sockaddr_in addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(m_opt.port));
    if (inet_pton(AF_INET, m_opt.host.c_str(), &addr.sin_addr) != 1)
        Fail("bad host %s %ld %ld", m_opt.host.c_str(), 0, 0);
    m_addr = addr;
    m_conns.resize(size_t(m_opt.conns));
    for (int i = 0; i < m_opt.conns; ++i) {
        Conn& c = m_conns[size_t(i)];
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            Fail("%s: socket failed (conn %ld, errno %ld)", "connect", i, errno);
        // Blocking connect keeps the set-up simple; loopback handshakes finish at once.
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
            Fail("%s: connect failed (conn %ld, errno %ld)", "connect", i, errno);
        SetNoDelay(fd);
#ifdef QUOLNET_BENCH_TLS
        if (m_opt.tls) {
            // Blocking handshake, before the timed loop.
            c.ssl = NewSsl(fd);
            int ret = SSL_connect(c.ssl);
            if (ret != 1)
                FailTls("SSL_connect", i, SSL_get_error(c.ssl, ret));
        }
#endif
        int fl = 1;
        if (ioctl(fd, FIONBIO, &fl) != 0)
            Fail("%s: FIONBIO failed (%ld %ld)", "connect", i, errno);
        c.fd = fd;
        c.pat_off = uint32_t(i % 256);
        c.stamps.assign(size_t(m_opt.depth), 0);
        epoll_event ev;
        ev.events = m_opt.mode == "stream" ? EPOLLOUT : EPOLLIN;
        ev.data.u64 = uint64_t(i);
        c.want_out = m_opt.mode == "stream";
        if (epoll_ctl(m_ep, EPOLL_CTL_ADD, fd, &ev) != 0)
            Fail("%s: epoll_ctl (%ld %ld)", "connect", i, errno);
    }
}

void CClient::SetWantOut(Conn& c, bool on) {
    if (c.want_out == on)
        return;
    epoll_event ev;
    ev.events = (m_opt.mode == "stream" ? 0u : unsigned(EPOLLIN)) | (on ? unsigned(EPOLLOUT) : 0u);
    ev.data.u64 = uint64_t(&c - m_conns.data());
    if (epoll_ctl(m_ep, EPOLL_CTL_MOD, c.fd, &ev) != 0)
        Fail("%s: epoll_ctl MOD (%ld %ld)", "send", 0, errno);
    c.want_out = on;
}

// Queues one more packet on `c` and stamps it.
void CClient::Queue(Conn& c, uint64_t now) {
    uint64_t seq = c.send_seq + c.queued;
    c.stamps[size_t(seq % uint64_t(m_opt.depth))] = now;
    ++c.queued;
}

// Writes as much of the queued packets as the socket takes (one writev).
void CClient::Flush(Conn& c) {
    if (c.queued == 0)
        return;
    if (c.ssl != nullptr) {
        FlushTls(c);
        return;
    }
    const uint32_t size = m_opt.size;
    unsigned char hdrs[kMaxIov / 2][kClientHeader];
    iovec iov[kMaxIov];
    int n = 0;
    uint32_t off = c.send_off;
    for (uint64_t k = 0; k < c.queued && n + 2 <= kMaxIov; ++k) {
        unsigned char* h = hdrs[n / 2];
        WriteBe32(h, size);
        uint64_t seq = c.send_seq + k;
        std::memcpy(h + 4, &seq, 8);
        if (off < kClientHeader) {
            iov[n].iov_base = h + off;
            iov[n].iov_len = kClientHeader - off;
            ++n;
            off = kClientHeader;
        }
        iov[n].iov_base = m_pattern.data() + c.pat_off + (off - kClientHeader);
        iov[n].iov_len = size - off;
        ++n;
        off = 0;
    }
    ssize_t w = writev(c.fd, iov, n);
    if (w < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
            SetWantOut(c, true);
            return;
        }
        Fail("%s: writev failed (conn %ld, errno %ld)", "send", long(&c - m_conns.data()), errno);
    }
    Advance(c, uint64_t(w));
    if (m_opt.mode != "stream")
        SetWantOut(c, c.queued > 0);
}

// Counts `written` bytes of the queued packets as sent.
void CClient::Advance(Conn& c, uint64_t written) {
    const uint32_t size = m_opt.size;
    uint64_t left = written;
    while (left > 0) {
        uint64_t rest = size - c.send_off;
        if (left >= rest) {
            left -= rest;
            c.send_off = 0;
            ++c.send_seq;
            --c.queued;
            if (m_opt.mode == "stream")
                ++m_done;
        } else {
            c.send_off += uint32_t(left);
            left = 0;
        }
    }
}

size_t CClient::BuildOut(const Conn& c, size_t cap) {
    const uint32_t size = m_opt.size;
    m_out.resize(cap);
    size_t n = 0;
    uint32_t off = c.send_off;
    for (uint64_t k = 0; k < c.queued && n < cap; ++k) {
        unsigned char h[kClientHeader];
        WriteBe32(h, size);
        uint64_t seq = c.send_seq + k;
        std::memcpy(h + 4, &seq, 8);
        if (off < kClientHeader) {
            size_t take = std::min<size_t>(kClientHeader - off, cap - n);
            std::memcpy(m_out.data() + n, h + off, take);
            n += take;
            off = kClientHeader;
        }
        size_t take = std::min<size_t>(size - off, cap - n);
        std::memcpy(m_out.data() + n, m_pattern.data() + c.pat_off + (off - kClientHeader), take);
        n += take;
        off = 0;
    }
    return n;
}

// Writes the queued packets through the TLS session until they are all out or the socket is
// full. A write that could not go out is repeated from a rebuilt buffer that starts with the
// same bytes (and is no shorter), as OpenSSL requires.
void CClient::FlushTls(Conn& c) {
#ifdef QUOLNET_BENCH_TLS
    const size_t kCap = 64 * 1024;
    while (c.queued > 0) {
        size_t n = BuildOut(c, kCap);
        size_t pos = 0;
        while (pos < n) {
            int w = SSL_write(c.ssl, m_out.data() + pos, int(n - pos));
            if (w > 0) {
                Advance(c, uint64_t(w));
                pos += size_t(w);
                continue;
            }
            int err = SSL_get_error(c.ssl, w);
            if (err == SSL_ERROR_WANT_WRITE) {
                SetWantOut(c, true);
                return;
            }
            if (err == SSL_ERROR_WANT_READ)
                return;  // the next readable event flushes again
            FailTls("SSL_write", long(&c - m_conns.data()), err);
        }
    }
    if (m_opt.mode != "stream")
        SetWantOut(c, false);
#else
    (void)c;
#endif
}

// Checks received bytes against what was sent and completes packets.
void CClient::Consume(Conn& c, const unsigned char* p, size_t n, uint64_t now) {
    const uint32_t size = m_opt.size;
    long idx = long(&c - m_conns.data());
    while (n > 0) {
        if (c.recv_pos < kClientHeader) {
            size_t take = std::min<size_t>(kClientHeader - c.recv_pos, n);
            std::memcpy(c.recv_hdr + c.recv_pos, p, take);
            c.recv_pos += uint32_t(take);
            p += take;
            n -= take;
            if (c.recv_pos == kClientHeader) {
                uint32_t len = ReadBe32(c.recv_hdr);
                uint64_t seq;
                std::memcpy(&seq, c.recv_hdr + 4, 8);
                if (len != size)
                    Fail("%s: echoed length %ld, expected %ld", "verify", long(len), long(size));
                if (seq != c.recv_seq)
                    Fail("%s: echoed sequence %ld, expected %ld", "verify", long(seq), long(c.recv_seq));
            }
        } else {
            size_t take = std::min<size_t>(size - c.recv_pos, n);
            if (std::memcmp(p, m_pattern.data() + c.pat_off + (c.recv_pos - kClientHeader), take) != 0)
                Fail("%s: echoed payload differs (conn %ld, packet %ld)", "verify", idx, long(c.recv_seq));
            c.recv_pos += uint32_t(take);
            p += take;
            n -= take;
        }
        if (c.recv_pos == size) {
            if (c.recv_seq >= c.send_seq)
                Fail("%s: echo of a packet not yet sent (conn %ld, packet %ld)", "verify", idx,
                     long(c.recv_seq));
            uint64_t sent = c.stamps[size_t(c.recv_seq % uint64_t(m_opt.depth))];
            if (m_measuring)
                m_hist.Add(now - sent);
            ++m_done;
            ++c.recv_seq;
            c.recv_pos = 0;
            Queue(c, now);
        }
    }
}

void CClient::OnReadable(Conn& c, uint64_t now) {
    if (c.ssl != nullptr) {
        OnReadableTls(c, now);
        return;
    }
    ssize_t r = read(c.fd, m_rbuf.data(), m_rbuf.size());
    if (r > 0) {
        Consume(c, m_rbuf.data(), size_t(r), now);
        // With EPOLLOUT armed the socket is full: the writable event flushes.
        if (c.queued > 0 && !c.want_out)
            Flush(c);
        return;
    }
    if (r == 0)
        Fail("%s: server closed connection %ld (%ld)", "recv", long(&c - m_conns.data()), 0);
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
        return;
    Fail("%s: read failed (conn %ld, errno %ld)", "recv", long(&c - m_conns.data()), errno);
}

// Reads what the session has: records already taken from the socket (read-ahead) are read
// too, so none waits for a readiness event that will not come.
void CClient::OnReadableTls(Conn& c, uint64_t now) {
#ifdef QUOLNET_BENCH_TLS
    long idx = long(&c - m_conns.data());
    do {
        int r = SSL_read(c.ssl, m_rbuf.data(), int(m_rbuf.size()));
        if (r > 0) {
            Consume(c, m_rbuf.data(), size_t(r), now);
            continue;
        }
        int err = SSL_get_error(c.ssl, r);
        if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE)
            break;
        if (err == SSL_ERROR_ZERO_RETURN)
            Fail("%s: server closed connection %ld (%ld)", "recv", idx, 0);
        FailTls("SSL_read", idx, err);
    } while (SSL_has_pending(c.ssl));
    if (c.queued > 0 && !c.want_out)
        Flush(c);
#else
    (void)c;
    (void)now;
#endif
}

void CClient::Report(double secs, uint64_t packets) {
    double pps = secs > 0 ? double(packets) / secs : 0;
    double mib = pps * double(m_bytes_per_pkt) / (1024.0 * 1024.0);
    double p50 = m_hist.Quantile(0.50) / 1000.0;
    double p99 = m_hist.Quantile(0.99) / 1000.0;
    // The client's share of one CPU over the measured time: near 100 the client, not the
    // server, may be what limits the rate.
    double cpu_pct = secs > 0 ? double(CpuNs() - m_cpu0) / 1e9 / secs * 100.0 : 0;
    if (m_opt.csv) {
        std::printf("%s,%s,%u,%d,%d,%.3f,%llu,%.1f,%.3f,%.2f,%.2f,%llu\n", m_opt.label.c_str(),
                    m_opt.mode.c_str(), m_opt.size, m_opt.conns, m_opt.depth, secs,
                    static_cast<unsigned long long>(packets), pps, mib, p50, p99,
                    static_cast<unsigned long long>(m_done));
    } else {
        std::printf(
            "{\"server\":\"%s\",\"mode\":\"%s\",\"size\":%u,\"conns\":%d,\"depth\":%d,"
            "\"seconds\":%.3f,\"packets\":%llu,\"pps\":%.1f,\"mib_s\":%.3f,\"p50_us\":%.2f,"
            "\"p99_us\":%.2f,\"total_packets\":%llu,\"tls\":%s,\"handshakes\":%llu,\"resumed\":%llu,"
            "\"client_cpu_pct\":%.1f,\"stalled_conns\":%llu}\n",
            m_opt.label.c_str(), m_opt.mode.c_str(), m_opt.size, m_opt.conns, m_opt.depth, secs,
            static_cast<unsigned long long>(packets), pps, mib, p50, p99,
            static_cast<unsigned long long>(m_done), m_opt.tls ? "true" : "false",
            static_cast<unsigned long long>(m_handshakes), static_cast<unsigned long long>(m_resumed),
            cpu_pct, static_cast<unsigned long long>(m_stalled));
    }
    std::fflush(stdout);
}

void CClient::Run() {
    m_ep = epoll_create1(EPOLL_CLOEXEC);
    if (m_ep < 0)
        Fail("%s: epoll_create1 (%ld %ld)", "init", 0, errno);
    if (m_opt.tls)
        InitTls();
    if (ConnectMode(m_opt)) {
        RunConnect();
        return;
    }
    Connect();
    const bool stream = m_opt.mode == "stream";
    uint64_t start = NowNs();
    if (!stream) {
        for (Conn& c : m_conns) {
            for (int k = 0; k < m_opt.depth; ++k)
                Queue(c, start);
            Flush(c);
        }
    }
    const uint64_t warm_end = start + uint64_t(m_opt.warmup * 1e9);
    const uint64_t end = warm_end + uint64_t(m_opt.duration * 1e9);
    uint64_t base = 0, t0 = start;
    std::vector<epoll_event> evs(1024);
    for (;;) {
        int n = epoll_wait(m_ep, evs.data(), int(evs.size()), 10);
        if (n < 0 && errno != EINTR)
            Fail("%s: epoll_wait (%ld %ld)", "loop", 0, errno);
        uint64_t now = NowNs();
        for (int i = 0; i < n; ++i) {
            Conn& c = m_conns[size_t(evs[size_t(i)].data.u64)];
            uint32_t e = evs[size_t(i)].events;
            if (stream) {
                if (e & (EPOLLERR | EPOLLHUP))
                    Fail("%s: connection %ld failed (%ld)", "send", long(&c - m_conns.data()), 0);
                // Keep the queue topped up so each writev carries many packets.
                while (c.queued < uint64_t(kMaxIov / 2))
                    Queue(c, now);
                Flush(c);
                continue;
            }
            if (e & (EPOLLIN | EPOLLERR | EPOLLHUP))
                OnReadable(c, now);
            if ((e & EPOLLOUT) && c.queued > 0)
                Flush(c);
        }
        if (!m_measuring && now >= warm_end) {
            m_measuring = true;
            m_cpu0 = CpuNs();
            if (m_opt.mark) {
                std::fprintf(stderr, "measuring\n");
                std::fflush(stderr);
            }
            m_hist.Clear();
            base = m_done;
            t0 = now;
            for (Conn& c : m_conns)
                c.seq_at_measure = c.recv_seq;
        }
        if (now >= end) {
            if (!stream) {
                for (const Conn& c : m_conns)
                    m_stalled += c.recv_seq == c.seq_at_measure ? 1 : 0;
            }
            Report(double(now - t0) / 1e9, m_done - base);
            break;
        }
    }
    for (Conn& c : m_conns)
        EndSlot(c);
    close(m_ep);
}

// Frees a TLS session without a close_notify, marked as shut down so that OpenSSL keeps its
// session resumable (a session freed mid-connection is marked as not to be resumed).
void FreeSsl(SSL* ssl) {
#ifdef QUOLNET_BENCH_TLS
    SSL_set_shutdown(ssl, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
    SSL_free(ssl);
#else
    (void)ssl;
#endif
}

// Ends the slot's connection with a reset (its TLS session freed without a close_notify).
void CClient::EndSlot(Conn& c) {
    if (c.ssl != nullptr)
        FreeSsl(c.ssl);
    c.ssl = nullptr;
    if (c.fd >= 0)
        CloseReset(c.fd);
    c.fd = -1;
}

void CClient::Watch(Conn& c, uint32_t events, int op) {
    epoll_event ev;
    ev.events = events;
    ev.data.u64 = uint64_t(&c - m_conns.data());
    if (epoll_ctl(m_ep, op, c.fd, &ev) != 0)
        Fail("%s: epoll_ctl (%ld %ld)", "connect", long(&c - m_conns.data()), errno);
}

// Starts the slot's next connection: a non-blocking connect.
void CClient::StartSlot(Conn& c, uint64_t now) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        Fail("%s: socket failed (conn %ld, errno %ld)", "connect", long(&c - m_conns.data()), errno);
    SetNoDelay(fd);
    c.fd = fd;
    c.started = now;
    c.recv_pos = 0;
    // Its one packet: sequence 0, the same bytes on every slot (BuildOut puts them in m_out).
    c.send_seq = 0;
    c.send_off = 0;
    c.queued = 1;
    c.phase = Conn::Phase::kConnecting;
    int ret = connect(fd, reinterpret_cast<const sockaddr*>(&m_addr), sizeof(m_addr));
    if (ret != 0 && errno != EINPROGRESS)
        Fail("%s: connect failed (conn %ld, errno %ld)", "connect", long(&c - m_conns.data()), errno);
    Watch(c, EPOLLOUT, EPOLL_CTL_ADD);
}

// Moves the slot's connection on as far as it goes without waiting.
void CClient::StepSlot(Conn& c, uint64_t now, uint32_t events) {
    long idx = long(&c - m_conns.data());
    const uint32_t size = m_opt.size;
    if (c.phase == Conn::Phase::kConnecting) {
        int err = 0;
        socklen_t len = sizeof(err);
        getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &len);
        if (err != 0)
            Fail("%s: connect failed (conn %ld, errno %ld)", "connect", idx, err);
        if (!(events & EPOLLOUT))
            return;
        if (m_opt.tls) {
            c.ssl = NewSsl(c.fd);
            c.phase = Conn::Phase::kHandshaking;
        } else {
            // One packet: a fresh socket takes it whole.
            c.phase = Conn::Phase::kEchoing;
            BuildOut(c, size);
            if (write(c.fd, m_out.data(), size) != ssize_t(size))
                Fail("%s: short write (conn %ld, errno %ld)", "send", idx, errno);
            Watch(c, EPOLLIN, EPOLL_CTL_MOD);
            return;
        }
    }
#ifdef QUOLNET_BENCH_TLS
    if (c.phase == Conn::Phase::kHandshaking) {
        int ret = SSL_connect(c.ssl);
        if (ret != 1) {
            int err = SSL_get_error(c.ssl, ret);
            if (err == SSL_ERROR_WANT_READ)
                Watch(c, EPOLLIN, EPOLL_CTL_MOD);
            else if (err == SSL_ERROR_WANT_WRITE)
                Watch(c, EPOLLOUT, EPOLL_CTL_MOD);
            else
                FailTls("SSL_connect", idx, err);
            return;
        }
        ++m_handshakes;
        if (SSL_session_reused(c.ssl))
            ++m_resumed;
        c.phase = Conn::Phase::kEchoing;
        BuildOut(c, size);
        int w = SSL_write(c.ssl, m_out.data(), int(size));
        if (w != int(size))
            FailTls("SSL_write", idx, SSL_get_error(c.ssl, w));
        Watch(c, EPOLLIN, EPOLL_CTL_MOD);
        return;
    }
#endif
    // kEchoing: read the echo (and, with TLS, the session ticket before it), checked against
    // m_out, which holds every slot's one packet.
    for (;;) {
        int r;
        if (c.ssl != nullptr) {
#ifdef QUOLNET_BENCH_TLS
            r = SSL_read(c.ssl, m_rbuf.data(), int(m_rbuf.size()));
            if (r <= 0) {
                int err = SSL_get_error(c.ssl, r);
                if (err == SSL_ERROR_WANT_READ)
                    return;
                FailTls("SSL_read", idx, err);
            }
#else
            r = -1;
#endif
        } else {
            r = int(read(c.fd, m_rbuf.data(), m_rbuf.size()));
            if (r == 0)
                Fail("%s: server closed connection %ld (%ld)", "recv", idx, 0);
            if (r < 0) {
                if (errno == EAGAIN || errno == EINTR)
                    return;
                Fail("%s: read failed (conn %ld, errno %ld)", "recv", idx, errno);
            }
        }
        if (c.recv_pos + uint32_t(r) > size ||
            std::memcmp(m_rbuf.data(), m_out.data() + c.recv_pos, size_t(r)))
            Fail("%s: echo differs (conn %ld, %ld bytes)", "verify", idx, r);
        c.recv_pos += uint32_t(r);
        if (c.recv_pos == size)
            break;
    }
    if (m_measuring)
        m_hist.Add(now - c.started);
    ++m_done;
    EndSlot(c);
    StartSlot(c, now);
}

// resume mode: one blocking connection whose echo comes after the server's session ticket,
// so that its session, kept in g_session, carries the ticket before the timed connections
// start.
void CClient::PrimeSession() {
#ifdef QUOLNET_BENCH_TLS
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&m_addr), sizeof(m_addr)) != 0)
        Fail("%s: connect failed (conn %ld, errno %ld)", "prime", 0, errno);
    timeval limit = {2, 0};  // a server that never answers fails the run
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    SSL* ssl = NewSsl(fd);
    int ret = SSL_connect(ssl);
    if (ret != 1)
        FailTls("SSL_connect", 0, SSL_get_error(ssl, ret));
    Conn probe;
    probe.queued = 1;
    BuildOut(probe, m_opt.size);
    if (SSL_write(ssl, m_out.data(), int(m_opt.size)) != int(m_opt.size))
        FailTls("SSL_write", 0, 0);
    uint32_t got = 0;
    while (got < m_opt.size) {
        int r = SSL_read(ssl, m_rbuf.data(), int(m_rbuf.size()));
        if (r <= 0)
            FailTls("SSL_read", 0, SSL_get_error(ssl, r));
        got += uint32_t(r);
    }
    g_session = SSL_get1_session(ssl);
    FreeSsl(ssl);
    CloseReset(fd);
    if (g_session == nullptr || !SSL_SESSION_is_resumable(g_session))
        Fail("%s: the server sent no session ticket (%ld %ld)", "resume", 0, 0);
#endif
}

void CClient::RunConnect() {
    std::memset(&m_addr, 0, sizeof(m_addr));
    m_addr.sin_family = AF_INET;
    m_addr.sin_port = htons(static_cast<uint16_t>(m_opt.port));
    if (inet_pton(AF_INET, m_opt.host.c_str(), &m_addr.sin_addr) != 1)
        Fail("bad host %s %ld %ld", m_opt.host.c_str(), 0, 0);
    if (m_opt.mode == "resume")
        PrimeSession();
    m_conns.resize(size_t(m_opt.conns));
    uint64_t start = NowNs();
    for (Conn& c : m_conns) {
        c.pat_off = 0;
        StartSlot(c, start);
    }
    const uint64_t warm_end = start + uint64_t(m_opt.warmup * 1e9);
    const uint64_t end = warm_end + uint64_t(m_opt.duration * 1e9);
    uint64_t base = 0, t0 = start;
    const uint64_t kStallNs = 1000000000ull;
    uint64_t next_check = start + kStallNs / 10;
    std::vector<epoll_event> evs(1024);
    for (;;) {
        int n = epoll_wait(m_ep, evs.data(), int(evs.size()), 10);
        if (n < 0 && errno != EINTR)
            Fail("%s: epoll_wait (%ld %ld)", "loop", 0, errno);
        uint64_t now = NowNs();
        for (int i = 0; i < n; ++i)
            StepSlot(m_conns[size_t(evs[size_t(i)].data.u64)], now, evs[size_t(i)].events);
        if (now >= next_check) {
            // A connection not done within kStallNs fails the run rather than idling it.
            for (Conn& c : m_conns) {
                if (now - c.started > kStallNs)
                    Fail("%s: connection %ld not done within 1 s (phase %ld)", "connect",
                         long(&c - m_conns.data()), long(c.phase));
            }
            next_check = now + kStallNs / 10;
        }
        if (!m_measuring && now >= warm_end) {
            m_measuring = true;
            m_cpu0 = CpuNs();
            if (m_opt.mark) {
                std::fprintf(stderr, "measuring\n");
                std::fflush(stderr);
            }
            m_hist.Clear();
            base = m_done;
            t0 = now;
        }
        if (now >= end) {
            Report(double(now - t0) / 1e9, m_done - base);
            break;
        }
    }
    for (Conn& c : m_conns)
        EndSlot(c);
    close(m_ep);
}

void PrintUsage(FILE* out) {
    std::fprintf(out,
                 "usage: bench_client [--host H] [--port P]\n"
                 "                    [--mode pingpong|pipeline|stream|connect|resume]\n"
                 "                    [--size BYTES (>= 12, whole packet)] [--conns N] [--depth K]\n"
                 "                    [--warmup SECONDS] [--duration SECONDS] [--label NAME]\n"
                 "                    [--tls] [--mark] [--csv] [--csv-header]\n"
                 "Prints one JSON (or CSV) line. Exit status 1 when an echo does not match, 2 on a bad\n"
                 "argument.\n");
}

[[noreturn]] void BadArgument(const std::string& arg) {
    std::fprintf(stderr, "bench_client: bad argument '%s'\n", arg.c_str());
    PrintUsage(stderr);
    std::exit(2);
}

// Parses the whole of `text` as an integer in [lo, hi]; false when it is not one.
bool ParseInt(const char* text, long lo, long hi, long* out) {
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (*text == '\0' || errno != 0 || *end != '\0' || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

// Parses the whole of `text` as seconds in [lo, 86400] (fractions allowed).
bool ParseSeconds(const char* text, double lo, double* out) {
    char* end = nullptr;
    errno = 0;
    double v = std::strtod(text, &end);
    if (*text == '\0' || errno != 0 || *end != '\0' || !(v >= lo && v <= 86400))
        return false;
    *out = v;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    bool depth_given = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto next = [&]() -> const char* {
            if (i + 1 >= argc)
                BadArgument(a);
            return argv[++i];
        };
        long n = 0;
        if (a == "--help" || a == "-h") {
            PrintUsage(stdout);
            return 0;
        } else if (a == "--host") {
            opt.host = next();
            if (!ValidIPv4(opt.host.c_str()))
                BadArgument(a + " " + opt.host);
        } else if (a == "--port") {
            const char* v = next();
            if (!ParsePort(v, &opt.port) || opt.port == 0)
                BadArgument(a + " " + v);
        } else if (a == "--mode") {
            opt.mode = next();
        } else if (a == "--size") {
            const char* v = next();
            if (!ParseInt(v, kClientHeader, kMaxPacketLen, &n))
                BadArgument(a + " " + v);
            opt.size = uint32_t(n);
        } else if (a == "--conns" || a == "--depth") {
            const char* v = next();
            if (!ParseInt(v, 1, 1000000, &n))
                BadArgument(a + " " + v);
            (a == "--conns" ? opt.conns : opt.depth) = int(n);
            depth_given = depth_given || a == "--depth";
        } else if (a == "--warmup") {
            const char* v = next();
            if (!ParseSeconds(v, 0, &opt.warmup))
                BadArgument(a + " " + v);
        } else if (a == "--duration") {
            const char* v = next();
            if (!ParseSeconds(v, 0, &opt.duration) || opt.duration <= 0)
                BadArgument(a + " " + v);
        } else if (a == "--label") {
            opt.label = next();
        } else if (a == "--csv") {
            opt.csv = true;
        } else if (a == "--mark") {
            opt.mark = true;
        } else if (a == "--tls") {
#ifndef QUOLNET_BENCH_TLS
            BadArgument(a + " (built without OpenSSL)");
#endif
            opt.tls = true;
        } else if (a == "--csv-header") {
            std::printf(
                "server,mode,size,conns,depth,seconds,packets,pps,mib_s,p50_us,p99_us,total_packets\n");
            return 0;
        } else {
            BadArgument(a);
        }
    }
    if (opt.mode != "pingpong" && opt.mode != "pipeline" && opt.mode != "stream" && !ConnectMode(opt))
        BadArgument("--mode " + opt.mode);
    if (opt.mode == "resume" && !opt.tls)
        BadArgument("--mode resume (needs --tls)");
    if (opt.mode == "pingpong")
        opt.depth = 1;
    if (opt.mode == "pipeline" && !depth_given)
        opt.depth = 16;
    if (opt.mode == "stream" || ConnectMode(opt))
        opt.depth = 1;
    RaiseFdLimit();
    signal(SIGPIPE, SIG_IGN);
    CClient client(opt);
    client.Run();
    return 0;
}
