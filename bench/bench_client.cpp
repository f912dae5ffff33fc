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
//
// Measurement: packets completed during the warm-up (--warmup seconds) are discarded; the
// following --duration seconds are measured. Packets/s and MiB/s count completed packets
// (echoed back for pingpong/pipeline, written for stream) and their whole length once.
// Round-trip times run from the moment a packet is queued to the arrival of its last echoed
// byte; p50/p99 come from a log-linear histogram (~3% resolution).
//
// Output: one JSON object on one line on stdout (or one CSV line with --csv; --csv-header
// prints the matching header line and exits).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
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

using namespace QUOLNET_BENCH;

namespace {

const uint32_t kClientHeader = 12;  // 4-byte length + 8-byte sequence number
const int kMaxIov = 64;

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
};

struct Conn {
    int fd = -1;
    uint32_t pat_off = 0;   // this connection's offset into the shared pattern
    bool want_out = false;  // EPOLLOUT registered
    // send side
    uint64_t send_seq = 0;  // sequence number of the packet being written
    uint64_t queued = 0;    // packets queued and not fully written (including the current one)
    uint32_t send_off = 0;  // bytes of the current packet already written
    // receive side
    uint64_t recv_seq = 0;  // sequence number expected next
    uint32_t recv_pos = 0;  // bytes of the current packet received
    unsigned char recv_hdr[kClientHeader];
    std::vector<uint64_t> stamps;  // ring of queue times, indexed by seq % depth
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
    CHistogram m_hist;
};

void CClient::Connect() {
    sockaddr_in addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(m_opt.port));
    if (inet_pton(AF_INET, m_opt.host.c_str(), &addr.sin_addr) != 1)
        Fail("bad host %s %ld %ld", m_opt.host.c_str(), 0, 0);
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
    uint64_t left = uint64_t(w);
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
    if (m_opt.mode != "stream")
        SetWantOut(c, c.queued > 0);
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

void CClient::Report(double secs, uint64_t packets) {
    double pps = secs > 0 ? double(packets) / secs : 0;
    double mib = pps * double(m_bytes_per_pkt) / (1024.0 * 1024.0);
    double p50 = m_hist.Quantile(0.50) / 1000.0;
    double p99 = m_hist.Quantile(0.99) / 1000.0;
    if (m_opt.csv) {
        std::printf("%s,%s,%u,%d,%d,%.3f,%llu,%.1f,%.3f,%.2f,%.2f,%llu\n", m_opt.label.c_str(),
                    m_opt.mode.c_str(), m_opt.size, m_opt.conns, m_opt.depth, secs,
                    static_cast<unsigned long long>(packets), pps, mib, p50, p99,
                    static_cast<unsigned long long>(m_done));
    } else {
        std::printf(
            "{\"server\":\"%s\",\"mode\":\"%s\",\"size\":%u,\"conns\":%d,\"depth\":%d,"
            "\"seconds\":%.3f,\"packets\":%llu,\"pps\":%.1f,\"mib_s\":%.3f,\"p50_us\":%.2f,"
            "\"p99_us\":%.2f,\"total_packets\":%llu}\n",
            m_opt.label.c_str(), m_opt.mode.c_str(), m_opt.size, m_opt.conns, m_opt.depth, secs,
            static_cast<unsigned long long>(packets), pps, mib, p50, p99,
            static_cast<unsigned long long>(m_done));
    }
    std::fflush(stdout);
}

void CClient::Run() {
    m_ep = epoll_create1(EPOLL_CLOEXEC);
    if (m_ep < 0)
        Fail("%s: epoll_create1 (%ld %ld)", "init", 0, errno);
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
            m_hist.Clear();
            base = m_done;
            t0 = now;
        }
        if (now >= end) {
            Report(double(now - t0) / 1e9, m_done - base);
            break;
        }
    }
    // Close with a reset: no TIME_WAIT left behind, so back-to-back runs with 1000
    // connections never run short of ports.
    linger lg;
    lg.l_onoff = 1;
    lg.l_linger = 0;
    for (Conn& c : m_conns) {
        setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
        close(c.fd);
    }
    close(m_ep);
}

void PrintUsage(FILE* out) {
    std::fprintf(out,
                 "usage: bench_client [--host H] [--port P] [--mode pingpong|pipeline|stream]\n"
                 "                    [--size BYTES (>= 12, whole packet)] [--conns N] [--depth K]\n"
                 "                    [--warmup SECONDS] [--duration SECONDS] [--label NAME]\n"
                 "                    [--csv] [--csv-header]\n"
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
        } else if (a == "--csv-header") {
            std::printf(
                "server,mode,size,conns,depth,seconds,packets,pps,mib_s,p50_us,p99_us,total_packets\n");
            return 0;
        } else {
            BadArgument(a);
        }
    }
    if (opt.mode != "pingpong" && opt.mode != "pipeline" && opt.mode != "stream")
        BadArgument("--mode " + opt.mode);
    if (opt.mode == "pingpong")
        opt.depth = 1;
    if (opt.mode == "pipeline" && !depth_given)
        opt.depth = 16;
    if (opt.mode == "stream")
        opt.depth = 1;
    RaiseFdLimit();
    signal(SIGPIPE, SIG_IGN);
    CClient client(opt);
    client.Run();
    return 0;
}
