// restart_client: keeps a length-prefixed echo server busy over many connections while the
// server is restarted underneath it, and reports what the clients saw: connections dropped or
// refused, every echoed byte checked, and how long the echoes paused. It plays the clients
// with raw non-blocking sockets and epoll, so it works against any server of the protocol and
// shares nothing with the library under test.
//
// Wire format: a 4-byte big-endian length that counts the whole packet, then the payload; the
// server echoes every packet unchanged. The payload of packet `seq` on connection `index` is a
// pseudo-random stream seeded by both, so a byte echoed on the wrong connection, twice, out of
// order or altered is caught where it arrives.
//
// Each connection keeps --depth packets in flight (started and not wholly echoed). Packets are
// written in pieces: a small one is now and then cut in two (its header included), a big one
// goes in pieces of up to 64 KiB, and after such a piece the connection waits for the next turn
// of the loop before writing on, so at any moment some packets are half-sent. A connection is
// never re-established: one that ends (end of stream, reset, error) is counted as dropped, a
// refused connect as refused.
//
// A pause is the time between two consecutive reads that brought echoed bytes while at least
// one wholly written packet was waiting for its echo (or from the moment such a packet was
// written, when none was waiting before). The longest pause of every connection, the longest
// of all and a timeline of 100 ms windows (the longest pause overlapping each window, with the
// run's start as a Unix time so a script can find its restarts in it) are reported. Under load
// a pause includes the time echoes queue behind each other, and the client's own turns: the
// longest turn of its loop is reported too (client_stall_max_ms).
//
// With --idle N, N more connections stay open and silent the whole run, as most of a real
// server's connections are; once sending stops each sends one 16-byte packet and must get its
// echo, so one that did not survive a restart is caught. They are left out of the pauses.
//
// With --slow-readers P, P of every 100 connections read slowly (a small receive buffer and at
// most kSlowReadPerWindow bytes per 100 ms window), so the server's replies back up in its send
// queue: a restart then has unsent replies to carry. Their pauses are their own doing and are
// left out of the pause figures (their bytes are checked like every other's).
//
// The run: connect (at most --connect-window connects in progress), send for --duration
// seconds (or until SIGINT/SIGTERM), then stop starting packets, finish the half-sent ones and
// wait (at most --drain-timeout seconds) for every echo, close, report. A second signal stops
// at once. Exit status: 0 when every connection opened, none dropped, every byte verified,
// every connection echoed at least one packet and nothing was left unechoed; 1 otherwise; 2 on
// bad arguments.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/bench_net.h"
#include "tool_args.h"

namespace {

const uint32_t kHeaderLen = 4;
const uint32_t kMaxPacketLen = 16u << 20;
const uint32_t kSmallPacket = 4096;    // up to this, a packet is written whole or in two
const uint32_t kMaxPiece = 64 * 1024;  // the longest piece of a big packet
// What one connection may do per turn of the loop, small enough that a turn over every
// connection stays short (the client's own delay would count in the pauses it measures).
const size_t kIoChunk = 64 * 1024;             // one send or recv at most
const size_t kPassBudget = 128 * 1024;         // bytes one connection writes per turn
const uint32_t kIdlePing = 16;                 // an idle connection's one packet
const size_t kSlowReadPerWindow = 256 * 1024;  // what a slow reader reads per 100 ms window
const int kSlowRcvBuf = 8192;                  // a slow reader's receive buffer
const int kReadsPerEvent = 2;                  // recv calls per readiness (level-triggered: it comes back)
const int64_t kWindowUs = 100 * 1000;          // the timeline's window
const int64_t kConnectTimeoutUs = 5000000;
const uint64_t kGolden = 0x9E3779B97F4A7C15ull;

volatile sig_atomic_t g_signals = 0;

void OnSignal(int) {
    if (g_signals < 2) {
        g_signals = g_signals + 1;
    }
}

int64_t NowUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t UnixMs() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// splitmix64's output function: a well-mixed 64-bit value of `x`.
uint64_t Mix(uint64_t x) {
    x += kGolden;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// ---- the packets ----

struct SizeChoice {
    uint32_t size = 0;    // whole packet, header included
    uint32_t weight = 0;  // relative frequency
};

// The seed of packet `seq` on connection `index`: its size, its pieces and its bytes follow.
uint64_t PacketSeed(uint32_t index, uint64_t seq) {
    return Mix((uint64_t(index) << 40) ^ seq ^ 0x5EED0000000000ull);
}

// Writes bytes [off, off + len) of the packet of `seed` and `size` to `out`: the big-endian
// length, then the pseudo-random payload (byte i is byte i % 8 of Mix(seed + (i / 8) * golden)),
// so any range can be made or checked on its own.
void FillPacket(uint64_t seed, uint32_t size, uint32_t off, uint32_t len, unsigned char* out) {
    const uint32_t end = off + len;
    uint32_t i = off;
    for (; i < end && i < kHeaderLen; ++i) {
        *out++ = static_cast<unsigned char>(size >> (8 * (kHeaderLen - 1 - i)));
    }
    while (i < end) {
        const uint64_t word = Mix(seed + uint64_t(i >> 3) * kGolden);
        if ((i & 7u) == 0 && end - i >= 8) {
            // A whole word: its bytes in little-endian order.
            for (int b = 0; b < 8; ++b) {
                out[b] = static_cast<unsigned char>(word >> (8 * b));
            }
            out += 8;
            i += 8;
            continue;
        }
        const uint32_t stop = std::min(end, (i | 7u) + 1);
        for (; i < stop; ++i) {
            *out++ = static_cast<unsigned char>(word >> ((i & 7u) * 8));
        }
    }
}

// ---- options ----

struct Options {
    std::string host = "127.0.0.1";
    int port = 7000;
    sockaddr_storage addr;
    socklen_t addr_len = 0;
    long conns = 1000;
    int depth = 4;
    std::vector<SizeChoice> sizes;
    double duration = 10;
    int window = 200;
    double drain = 5;
    std::string report;
    bool quiet = false;
    int slow_readers = 0;  // of every 100 connections
    long idle = 0;         // silent connections besides the `conns` busy ones
};

const char* kDefaultSizes = "16,64,512,4096,65536,1048576";

void Usage(FILE* out) {
    fprintf(out,
            "usage: restart_client [--host ADDR] [--port N] [--conns N] [--depth K] [--sizes LIST]\n"
            "                      [--duration SECONDS] [--connect-window N] [--drain-timeout SECONDS]\n"
            "                      [--idle N] [--slow-readers PERCENT] [--report FILE] [--quiet]\n"
            "Keeps an echo server of the length-prefixed protocol busy while it is restarted: opens N\n"
            "connections, never re-establishes one, keeps K packets in flight on each with half-sent\n"
            "packets at any moment, checks every echoed byte, and measures how long echoes paused.\n"
            "  --host ADDR               server address, IPv4 or IPv6 literal (default 127.0.0.1)\n"
            "  --port N                  server port (default 7000)\n"
            "  --conns N                 connections (default 1000)\n"
            "  --depth K                 packets in flight per connection (default 4)\n"
            "  --sizes LIST              packet sizes in bytes, 4-byte header included, comma-separated,\n"
            "                            each 4..%u, optionally SIZE:WEIGHT; without weights the\n"
            "                            smallest is the most frequent, each next one half as frequent\n"
            "                            (default %s)\n"
            "  --duration SECONDS        how long to send (default 10); SIGINT or SIGTERM ends it early,\n"
            "                            a second signal stops at once\n"
            "  --connect-window N        connects in progress at once (default 200)\n"
            "  --drain-timeout SECONDS   after sending, how long to wait for the outstanding echoes\n"
            "                            (default 5)\n"
            "  --idle N                  N more connections that stay silent until sending stops, then\n"
            "                            send one 16-byte packet each and await its echo (default 0)\n"
            "  --slow-readers PERCENT    that many of every 100 connections read slowly (256 KiB per\n"
            "                            100 ms, a small receive buffer): the server's replies to them\n"
            "                            queue up; their pauses are left out of the figures (default 0)\n"
            "  --report FILE             also write the JSON report to FILE\n"
            "  --quiet                   no progress or summary on stderr\n"
            "Prints one JSON line on stdout at the end: connections opened, refused, dropped, packets\n"
            "and bytes verified, verification errors, the longest pause, the 99th percentile of the\n"
            "connections' longest pauses and a timeline of the longest pause in each 100 ms window.\n"
            "Exit status: 0 when every connection opened, none was dropped, every byte was verified,\n"
            "every connection echoed a packet and nothing was left unechoed; 1 otherwise; 2 on bad\n"
            "arguments.\n",
            kMaxPacketLen, kDefaultSizes);
}

// Parses "16,64:3,4096" into sizes and weights (sorted by size); items without a weight get
// 2^(n-1-rank) among the unweighted ones, so the smallest is the most frequent.
bool ParseSizes(const char* text, std::vector<SizeChoice>* out) {
    out->clear();
    if (text == nullptr) {
        return false;
    }
    std::vector<bool> weighted;
    std::string s = text;
    size_t pos = 0;
    while (pos <= s.size()) {
        size_t comma = s.find(',', pos);
        std::string item = s.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        size_t colon = item.find(':');
        long size = 0;
        long weight = 0;
        if (!tools_args::ParseLong(item.substr(0, colon).c_str(), kHeaderLen, kMaxPacketLen, &size)) {
            return false;
        }
        if (colon != std::string::npos &&
            !tools_args::ParseLong(item.substr(colon + 1).c_str(), 1, 1000000, &weight)) {
            return false;
        }
        SizeChoice c;
        c.size = static_cast<uint32_t>(size);
        c.weight = static_cast<uint32_t>(weight);
        out->push_back(c);
        if (comma == std::string::npos) {
            break;
        }
        pos = comma + 1;
    }
    if (out->empty() || out->size() > 24) {
        return false;
    }
    std::stable_sort(out->begin(), out->end(),
                     [](const SizeChoice& a, const SizeChoice& b) { return a.size < b.size; });
    size_t unweighted = 0;
    for (const SizeChoice& c : *out) {
        unweighted += c.weight == 0 ? 1 : 0;
    }
    for (SizeChoice& c : *out) {
        if (c.weight == 0) {
            c.weight = 1u << --unweighted;
        }
    }
    return true;
}

bool ParseHost(const std::string& host, int port, Options* opt) {
    return tools_args::ParseAddress(host, port, &opt->addr, &opt->addr_len);
}

// Returns 0 and fills `opt`, 1 after --help, 2 on a bad argument (message and usage printed).
int ParseOptions(int argc, char** argv, Options* opt) {
    std::string sizes = kDefaultSizes;
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        long n = 0;
        bool ok = v != nullptr;
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            Usage(stdout);
            return 1;
        } else if (strcmp(a, "--quiet") == 0) {
            opt->quiet = true;
            continue;
        } else if (strcmp(a, "--host") == 0) {
            ok = ok && tools_args::ParseText(v, &opt->host);
        } else if (strcmp(a, "--port") == 0) {
            ok = ok && tools_args::ParseLong(v, 1, 65535, &n);
            opt->port = static_cast<int>(n);
        } else if (strcmp(a, "--conns") == 0) {
            ok = ok && tools_args::ParseLong(v, 1, 1000000, &opt->conns);
        } else if (strcmp(a, "--depth") == 0) {
            ok = ok && tools_args::ParseLong(v, 1, 1024, &n);
            opt->depth = static_cast<int>(n);
        } else if (strcmp(a, "--sizes") == 0) {
            ok = ok && ParseSizes(v, &opt->sizes);
            if (ok) {
                sizes = v;
            }
        } else if (strcmp(a, "--duration") == 0) {
            ok = ok && tools_args::ParseSeconds(v, 0.01, &opt->duration);
        } else if (strcmp(a, "--connect-window") == 0) {
            ok = ok && tools_args::ParseLong(v, 1, 1000000, &n);
            opt->window = static_cast<int>(n);
        } else if (strcmp(a, "--drain-timeout") == 0) {
            ok = ok && tools_args::ParseSeconds(v, 0.01, &opt->drain);
        } else if (strcmp(a, "--idle") == 0) {
            ok = ok && tools_args::ParseLong(v, 0, 1000000, &opt->idle);
        } else if (strcmp(a, "--slow-readers") == 0) {
            ok = ok && tools_args::ParseLong(v, 0, 100, &n);
            opt->slow_readers = static_cast<int>(n);
        } else if (strcmp(a, "--report") == 0) {
            ok = ok && tools_args::ParseText(v, &opt->report);
        } else {
            ok = false;
        }
        if (!ok) {
            return tools_args::BadArgument("restart_client", a, v, Usage);
        }
        ++i;
    }
    if (opt->sizes.empty()) {
        ParseSizes(sizes.c_str(), &opt->sizes);
    }
    if (!ParseHost(opt->host, opt->port, opt)) {
        fprintf(stderr, "restart_client: --host '%s' is not an IPv4 or IPv6 address\n", opt->host.c_str());
        Usage(stderr);
        return 2;
    }
    return 0;
}

// ---- JSON ----

// Builds one JSON object, field by field, in the order given.
class CJson {
  public:
    // `value` is written as it is: a number, true/false, or an array or object already made.
    void Raw(const char* key, const std::string& value) {
        m_text += m_text.size() > 1 ? ",\"" : "\"";
        m_text += key;
        m_text += "\":";
        m_text += value;
    }
    void Num(const char* key, uint64_t value) { Raw(key, std::to_string(value)); }
    void Ms(const char* key, int64_t us) { Raw(key, Fixed(us / 1000.0, 1)); }
    // A string, escaped; null when empty.
    void Text(const char* key, const std::string& text) {
        if (text.empty()) {
            Raw(key, "null");
            return;
        }
        std::string quoted = "\"";
        for (char ch : text) {
            if (ch == '"' || ch == '\\') {
                quoted.push_back('\\');
            }
            if (static_cast<unsigned char>(ch) >= 0x20) {
                quoted.push_back(ch);
            }
        }
        Raw(key, quoted + "\"");
    }
    std::string Done() const { return m_text + "}"; }

    static std::string Fixed(double v, int digits) {
        char buf[64];
        snprintf(buf, sizeof(buf), "%.*f", digits, v);
        return buf;
    }

  private:
    std::string m_text = "{";
};

// ---- the client ----

// The longest pause overlapping each window, the packets verified and the connections dropped
// in it, from the start of the run.
class CTimeline {
  public:
    explicit CTimeline(int64_t start_us) : m_start_us(start_us) {}

    // A pause from `from_us` to `to_us` (monotonic): every window it overlaps keeps the longest.
    void AddPause(int64_t from_us, int64_t to_us) {
        const int64_t len = to_us - from_us;
        if (len <= 0) {
            return;
        }
        const size_t last = Window(to_us - 1);
        for (size_t w = Window(from_us); w <= last; ++w) {
            m_pause_us[w] = std::max(m_pause_us[w], len);
        }
    }
    void AddPacket(int64_t at_us) { ++m_packets[Window(at_us)]; }
    void AddDrop(int64_t at_us) { ++m_drops[Window(at_us)]; }
    // The longest pause overlapping [from_us, to_us).
    int64_t LongestPause(int64_t from_us, int64_t to_us) {
        int64_t longest = 0;
        const size_t last = Window(std::max(from_us, to_us - 1));
        for (size_t w = Window(from_us); w <= last; ++w) {
            longest = std::max(longest, m_pause_us[w]);
        }
        return longest;
    }
    // Extends the timeline to cover `at_us`, so the report ends where the run did.
    void Cover(int64_t at_us) { Window(at_us); }

    // The three timelines as JSON arrays, one entry per window from the start of the run.
    void AddJson(CJson* json) const {
        std::string pauses = "[";
        std::string packets = "[";
        std::string drops = "[";
        for (size_t w = 0; w < m_pause_us.size(); ++w) {
            const char* sep = w > 0 ? "," : "";
            pauses += sep + CJson::Fixed(m_pause_us[w] / 1000.0, 1);
            packets += sep + std::to_string(m_packets[w]);
            drops += sep + std::to_string(m_drops[w]);
        }
        json->Raw("timeline_pause_ms", pauses + "]");
        json->Raw("timeline_packets", packets + "]");
        json->Raw("timeline_drops", drops + "]");
    }

  private:
    // The window of `at_us`, the vectors grown to hold it.
    size_t Window(int64_t at_us) {
        const size_t w = at_us <= m_start_us ? 0 : static_cast<size_t>((at_us - m_start_us) / kWindowUs);
        if (w >= m_pause_us.size()) {
            m_pause_us.resize(w + 1, 0);
            m_packets.resize(w + 1, 0);
            m_drops.resize(w + 1, 0);
        }
        return w;
    }

    int64_t m_start_us;
    std::vector<int64_t> m_pause_us;
    std::vector<uint64_t> m_packets;
    std::vector<uint32_t> m_drops;
};

class CRestartClient {
  public:
    explicit CRestartClient(const Options& opt);
    ~CRestartClient();

    // Runs the whole test and prints the report. Returns the exit status (0 or 1).
    int Run();

  private:
    enum class State { kIdle, kConnecting, kOpen, kDropped, kFailed, kClosed };

    struct Packet {
        uint64_t seed;
        uint32_t size;
    };

    struct Conn {
        int fd = -1;
        State state = State::kIdle;
        int64_t connect_start_us = 0;
        uint64_t started = 0;      // packets started, the next one's sequence number
        uint64_t echoed = 0;       // packets wholly echoed (and verified)
        std::vector<Packet> ring;  // packets started and not wholly echoed, oldest at `head`
        size_t head = 0;
        size_t count = 0;
        bool tx_busy = false;       // the newest packet is not wholly written
        bool tx_split = false;      // the newest packet waited half-sent for a turn
        uint32_t tx_off = 0;        // bytes of the newest packet written
        uint32_t rx_off = 0;        // bytes of the oldest packet echoed
        uint32_t written = 0;       // wholly written packets waiting for their echo
        int64_t wait_since_us = 0;  // with written > 0: when the current pause began
        int64_t max_pause_us = 0;
        bool out_armed = false;  // EPOLLOUT is in the interest set
        bool deferred = false;   // on m_deferred: writes on at the next turn
        bool slow = false;       // a slow reader (--slow-readers)
        bool idle = false;       // silent until sending stops (--idle), then one packet
        bool pinged = false;     // an idle one has started its packet
        bool in_paused = false;  // a slow reader that has read its window's share: no EPOLLIN
        size_t read_left = 0;    // what a slow reader may still read in this window
    };

    uint32_t Index(const Conn& c) const { return static_cast<uint32_t>(&c - m_conns.data()); }
    Packet& Oldest(Conn& c) { return c.ring[c.head]; }
    Packet& Newest(Conn& c) { return c.ring[(c.head + c.count - 1) % c.ring.size()]; }
    double Seconds(int64_t at_us) const { return (at_us - m_start_us) / 1e6; }
    uint32_t ChooseSize(uint64_t seed) const;

    void StartConnects(int64_t now);
    void Connected(Conn& c, int64_t now);
    void ConnectFailed(Conn& c, int err, int64_t now);
    void CheckConnectTimeouts(int64_t now);
    // Sending stopped: connects in progress or not started count as failed.
    void GiveUpConnects(int64_t now);
    void ConnectsResolved(int64_t now);
    void OnEvent(Conn& c, uint32_t events);
    // Writes what `c` may write now: the rest of its half-sent packet, then new packets while
    // fewer than --depth are in flight (none once sending stopped). Stops at a full socket (and
    // waits for EPOLLOUT), at a piece after which the packet stays half-sent for a turn, or at
    // the per-turn budget (both on m_deferred).
    void Pump(Conn& c);
    void Receive(Conn& c);
    // Checks `n` echoed bytes against what was written; a mismatch fails the connection.
    void Echoed(Conn& c, const unsigned char* data, size_t n, int64_t now);
    void SetOut(Conn& c, bool on);
    // The interest set of `c` as its flags say (EPOLLIN unless paused, EPOLLOUT when armed).
    void Rearm(Conn& c);
    // A new window: every slow reader may read its share again.
    void RefillSlowReaders();
    void Defer(Conn& c);
    void RecordPause(Conn& c, int64_t from_us, int64_t to_us);
    // Ends `c` as dropped (it ended without our asking), describing why.
    void Drop(Conn& c, const char* why, int err, int64_t now);
    // Ends `c` after a verification error, described in `what`.
    void Fail(Conn& c, const std::string& what);
    void CloseFd(Conn& c);
    bool Drained() const;
    void Progress(int64_t now);

    // What the end of the run adds to the counters.
    struct Totals {
        uint64_t no_progress = 0;  // opened, and not one packet echoed
        uint64_t unfinished = 0;   // open at the end with packets not wholly echoed
        int64_t p50_us = 0;        // of the connections' longest pauses
        int64_t p99_us = 0;
        bool ok = false;
    };
    // Closes what is open, prints the report (and writes --report), returns the exit status.
    int Finish();
    std::string JsonReport(const Totals& t, int64_t end_us) const;

    const Options& m_opt;
    uint64_t m_total_weight = 0;
    int m_ep = -1;
    std::vector<Conn> m_conns;
    std::vector<uint32_t> m_deferred;
    std::vector<unsigned char> m_tx;
    std::vector<unsigned char> m_rx;
    std::vector<unsigned char> m_expect;
    std::vector<epoll_event> m_events;
    int64_t m_start_us = 0;
    int64_t m_start_unix_ms = 0;
    CTimeline m_timeline;
    bool m_sending = true;  // false once the duration ended or a signal came
    size_t m_next_connect = 0;
    size_t m_connecting = 0;
    size_t m_live = 0;  // connecting or open
    bool m_resolved = false;
    int64_t m_last_progress_us = 0;
    uint64_t m_progress_packets = 0;

    uint64_t m_opened = 0;
    uint64_t m_refused = 0;
    uint64_t m_connect_failed = 0;
    uint64_t m_dropped = 0;
    uint64_t m_dropped_eof = 0;
    uint64_t m_dropped_reset = 0;
    uint64_t m_dropped_error = 0;
    uint64_t m_verify_errors = 0;
    uint64_t m_packets_sent = 0;
    uint64_t m_bytes_sent = 0;
    uint64_t m_packets_split = 0;  // packets that waited half-sent for a turn of the loop
    uint64_t m_packets_verified = 0;
    uint64_t m_bytes_verified = 0;
    int64_t m_max_pause_us = 0;
    int64_t m_max_pause_at_us = 0;
    int64_t m_max_stall_us = 0;
    std::string m_first_connect_error;
    std::string m_first_drop;
    std::string m_first_verify_error;
};

CRestartClient::CRestartClient(const Options& opt)
    : m_opt(opt),
      m_conns(static_cast<size_t>(opt.conns + opt.idle)),
      m_tx(kIoChunk),
      m_rx(kIoChunk),
      m_expect(kIoChunk),
      m_events(1024),
      m_timeline(0) {
    for (const SizeChoice& c : opt.sizes) {
        m_total_weight += c.weight;
    }
    for (Conn& c : m_conns) {
        c.ring.resize(static_cast<size_t>(opt.depth));
    }
}

CRestartClient::~CRestartClient() {
    for (Conn& c : m_conns) {
        CloseFd(c);
    }
    if (m_ep >= 0) {
        close(m_ep);
    }
}

uint32_t CRestartClient::ChooseSize(uint64_t seed) const {
    uint64_t r = Mix(seed ^ 0x512E5ull) % m_total_weight;
    for (const SizeChoice& c : m_opt.sizes) {
        if (r < c.weight) {
            return c.size;
        }
        r -= c.weight;
    }
    return m_opt.sizes.back().size;
}

void CRestartClient::CloseFd(Conn& c) {
    if (c.fd >= 0) {
        close(c.fd);  // also leaves the epoll set
        c.fd = -1;
    }
}

void CRestartClient::StartConnects(int64_t now) {
    while (m_sending && m_next_connect < m_conns.size() && m_connecting < static_cast<size_t>(m_opt.window)) {
        Conn& c = m_conns[m_next_connect++];
        c.connect_start_us = now;
        c.fd = socket(m_opt.addr.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (c.fd < 0) {
            ConnectFailed(c, errno, now);
            continue;
        }
        QUOLNET_BENCH::SetNoDelay(c.fd);
        c.idle = Index(c) >= static_cast<uint32_t>(m_opt.conns);
        c.slow = !c.idle && static_cast<int>(Index(c) % 100) < m_opt.slow_readers;
        if (c.slow) {
            c.read_left = kSlowReadPerWindow;
            setsockopt(c.fd, SOL_SOCKET, SO_RCVBUF, &kSlowRcvBuf,
                       sizeof(kSlowRcvBuf));  // before connect: the window
        }
        ++m_live;
        if (connect(c.fd, reinterpret_cast<const sockaddr*>(&m_opt.addr), m_opt.addr_len) == 0) {
            Connected(c, now);
            continue;
        }
        if (errno != EINPROGRESS) {
            ConnectFailed(c, errno, now);
            continue;
        }
        c.state = State::kConnecting;
        ++m_connecting;
        epoll_event ev;
        memset(&ev, 0, sizeof(ev));
        ev.events = EPOLLOUT;
        ev.data.u32 = Index(c);
        if (epoll_ctl(m_ep, EPOLL_CTL_ADD, c.fd, &ev) != 0) {
            ConnectFailed(c, errno, now);
        }
    }
    if (!m_resolved && m_next_connect == m_conns.size() && m_connecting == 0) {
        ConnectsResolved(now);
    }
}

void CRestartClient::Connected(Conn& c, int64_t now) {
    const bool registered = c.state == State::kConnecting;  // else connect() succeeded at once
    if (registered) {
        --m_connecting;
    }
    c.state = State::kOpen;
    ++m_opened;
    epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = EPOLLIN;
    ev.data.u32 = Index(c);
    if (epoll_ctl(m_ep, registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, c.fd, &ev) != 0) {
        Drop(c, "cannot watch the socket", errno, now);
        return;
    }
    Pump(c);
}

void CRestartClient::ConnectFailed(Conn& c, int err, int64_t now) {
    if (c.state == State::kConnecting) {
        --m_connecting;
    }
    if (c.fd >= 0) {
        --m_live;
    }
    CloseFd(c);
    c.state = State::kClosed;
    if (err == ECONNREFUSED) {
        ++m_refused;
    } else {
        ++m_connect_failed;
    }
    if (m_first_connect_error.empty()) {
        char buf[256];
        snprintf(buf, sizeof(buf), "connection %u at %.3f s: %s", Index(c), Seconds(now),
                 err == ETIMEDOUT   ? "connect timed out"
                 : err == ECANCELED ? "not connected when sending stopped"
                                    : strerror(err));
        m_first_connect_error = buf;
    }
}

void CRestartClient::CheckConnectTimeouts(int64_t now) {
    if (m_connecting == 0) {
        return;
    }
    for (Conn& c : m_conns) {
        if (c.state == State::kConnecting && now - c.connect_start_us >= kConnectTimeoutUs) {
            ConnectFailed(c, ETIMEDOUT, now);
        }
    }
}

void CRestartClient::GiveUpConnects(int64_t now) {
    for (Conn& c : m_conns) {
        if (c.state == State::kConnecting || c.state == State::kIdle) {
            ConnectFailed(c, ECANCELED, now);
        }
    }
    m_next_connect = m_conns.size();
    if (!m_resolved) {
        ConnectsResolved(now);
    }
}

void CRestartClient::ConnectsResolved(int64_t now) {
    m_resolved = true;
    if (!m_opt.quiet) {
        fprintf(stderr,
                "restart_client: connected %" PRIu64 " of %zu in %.3f s (refused %" PRIu64 ", failed %" PRIu64
                ")\n",
                m_opened, m_conns.size(), Seconds(now), m_refused, m_connect_failed);
    }
}

void CRestartClient::SetOut(Conn& c, bool on) {
    if (c.out_armed == on || c.state != State::kOpen) {
        return;
    }
    c.out_armed = on;
    Rearm(c);
}

void CRestartClient::Rearm(Conn& c) {
    epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = (c.in_paused ? 0u : static_cast<uint32_t>(EPOLLIN)) | (c.out_armed ? EPOLLOUT : 0u);
    ev.data.u32 = Index(c);
    epoll_ctl(m_ep, EPOLL_CTL_MOD, c.fd, &ev);
}

void CRestartClient::RefillSlowReaders() {
    for (Conn& c : m_conns) {
        if (!c.slow) {
            continue;
        }
        c.read_left = kSlowReadPerWindow;
        if (c.in_paused && c.state == State::kOpen) {
            c.in_paused = false;
            Rearm(c);
        }
    }
}

void CRestartClient::Defer(Conn& c) {
    SetOut(c, false);
    if (!c.deferred) {
        c.deferred = true;
        m_deferred.push_back(Index(c));
    }
}

void CRestartClient::Pump(Conn& c) {
    size_t budget = kPassBudget;
    while (c.state == State::kOpen) {
        if (!c.tx_busy) {
            const bool start = c.idle ? !m_sending && !c.pinged : m_sending && c.count < c.ring.size();
            if (!start) {
                break;
            }
            c.pinged = c.idle;
            const uint64_t seed = PacketSeed(Index(c), c.started++);
            c.ring[(c.head + c.count) % c.ring.size()] = Packet{seed, c.idle ? kIdlePing : ChooseSize(seed)};
            ++c.count;
            c.tx_busy = true;
            c.tx_split = false;
            c.tx_off = 0;
            ++m_packets_sent;
        }
        const Packet& p = Newest(c);
        // The next piece, and whether the packet then waits half-sent for the next turn: a
        // small packet is cut in two once in four (at any byte, its header included), a big
        // one goes in pieces of 1 B .. 64 KiB, every other one followed by a wait.
        const uint64_t h = Mix(p.seed ^ (uint64_t(c.tx_off) * 0xD1B54A32D192ED03ull));
        const uint32_t left = p.size - c.tx_off;
        uint32_t piece = left;
        bool wait = false;
        if (p.size <= kSmallPacket) {
            if (c.tx_off == 0 && p.size > 1 && (h & 3) == 0) {
                piece = 1 + static_cast<uint32_t>((h >> 8) % (p.size - 1));
                wait = true;
            }
        } else {
            piece = std::min(left, 1 + static_cast<uint32_t>((h >> 8) % kMaxPiece));
            wait = (h & 16) == 0;
        }
        piece = static_cast<uint32_t>(std::min<size_t>(piece, std::min(kIoChunk, budget)));
        FillPacket(p.seed, p.size, c.tx_off, piece, m_tx.data());
        ssize_t n = send(c.fd, m_tx.data(), piece, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                SetOut(c, true);
                return;
            }
            Drop(c, "send failed", errno, NowUs());
            return;
        }
        c.tx_off += static_cast<uint32_t>(n);
        m_bytes_sent += static_cast<uint64_t>(n);
        budget -= static_cast<size_t>(n);
        if (c.tx_off == p.size) {
            c.tx_busy = false;
            if (c.written++ == 0) {
                c.wait_since_us = NowUs();
            }
        }
        if (static_cast<uint32_t>(n) < piece) {
            SetOut(c, true);  // the socket took part of it: it is full
            return;
        }
        if ((wait && c.tx_busy) || budget == 0) {
            if (c.tx_busy && !c.tx_split) {
                c.tx_split = true;
                ++m_packets_split;
            }
            Defer(c);
            return;
        }
    }
    SetOut(c, false);
}

void CRestartClient::Receive(Conn& c) {
    for (int r = 0; r < kReadsPerEvent && c.state == State::kOpen; ++r) {
        size_t want = m_rx.size();
        if (c.slow) {
            want = std::min(want, std::max<size_t>(c.read_left, 1));  // 1: an end of stream still shows
        }
        ssize_t n = recv(c.fd, m_rx.data(), want, 0);
        if (n > 0) {
            Echoed(c, m_rx.data(), static_cast<size_t>(n), NowUs());
            if (c.slow) {
                c.read_left -= std::min(c.read_left, static_cast<size_t>(n));
                if (c.read_left == 0 && c.state == State::kOpen) {
                    c.in_paused = true;  // until the next window
                    Rearm(c);
                    break;
                }
            }
            if (static_cast<size_t>(n) < want) {
                break;
            }
            continue;
        }
        if (n == 0) {
            Drop(c, "end of stream", 0, NowUs());
            return;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            Drop(c, "receive failed", errno, NowUs());
        }
        break;
    }
    // Room in the window: write on, unless a wait for EPOLLOUT or the next turn is pending.
    if (c.state == State::kOpen && !c.out_armed && !c.deferred) {
        Pump(c);
    }
}

void CRestartClient::Echoed(Conn& c, const unsigned char* data, size_t n, int64_t now) {
    if (c.written > 0) {
        RecordPause(c, c.wait_since_us, now);
    }
    while (n > 0) {
        if (c.count == 0) {
            char buf[256];
            snprintf(buf, sizeof(buf),
                     "connection %u at %.3f s: %zu bytes arrived after all %" PRIu64
                     " packets written were echoed",
                     Index(c), Seconds(now), n, c.started);
            Fail(c, buf);
            return;
        }
        Packet& p = Oldest(c);
        // Bytes of this packet written so far: all, unless it is the one being written.
        const uint32_t sent = (c.count == 1 && c.tx_busy) ? c.tx_off : p.size;
        const uint64_t seq = c.echoed;
        if (c.rx_off >= sent) {
            char buf[256];
            snprintf(buf, sizeof(buf),
                     "connection %u at %.3f s: packet %" PRIu64
                     " (%u bytes): byte %u arrived before it was sent",
                     Index(c), Seconds(now), seq, p.size, c.rx_off);
            Fail(c, buf);
            return;
        }
        const uint32_t take = static_cast<uint32_t>(std::min<size_t>(n, sent - c.rx_off));
        FillPacket(p.seed, p.size, c.rx_off, take, m_expect.data());
        if (memcmp(data, m_expect.data(), take) != 0) {
            uint32_t i = 0;
            while (data[i] == m_expect[i]) {
                ++i;
            }
            char buf[320];
            snprintf(buf, sizeof(buf),
                     "connection %u at %.3f s: packet %" PRIu64
                     " (%u bytes): byte %u is 0x%02x, expected 0x%02x",
                     Index(c), Seconds(now), seq, p.size, c.rx_off + i, data[i], m_expect[i]);
            Fail(c, buf);
            return;
        }
        c.rx_off += take;
        data += take;
        n -= take;
        m_bytes_verified += take;
        if (c.rx_off == p.size) {
            c.rx_off = 0;
            c.head = (c.head + 1) % c.ring.size();
            --c.count;
            --c.written;  // wholly echoed, so wholly written
            ++c.echoed;
            ++m_packets_verified;
            m_timeline.AddPacket(now);
        }
    }
    if (c.written > 0) {
        c.wait_since_us = now;
    }
}

void CRestartClient::RecordPause(Conn& c, int64_t from_us, int64_t to_us) {
    const int64_t len = to_us - from_us;
    if (len <= 0 || c.slow || c.idle) {
        return;  // a slow reader's pauses are its own; an idle one's wait is not a pause
    }
    c.max_pause_us = std::max(c.max_pause_us, len);
    if (len > m_max_pause_us) {
        m_max_pause_us = len;
        m_max_pause_at_us = from_us;
    }
    m_timeline.AddPause(from_us, to_us);
}

void CRestartClient::Drop(Conn& c, const char* why, int err, int64_t now) {
    if (c.written > 0) {
        RecordPause(c, c.wait_since_us, now);  // the pause it ended in
    }
    ++m_dropped;
    if (err == 0) {
        ++m_dropped_eof;
    } else if (err == ECONNRESET || err == EPIPE) {
        ++m_dropped_reset;
    } else {
        ++m_dropped_error;
    }
    m_timeline.AddDrop(now);
    if (m_first_drop.empty()) {
        char buf[320];
        snprintf(buf, sizeof(buf),
                 "connection %u at %.3f s: %s%s%s, %zu packets in flight (%u written wholly), %" PRIu64
                 " echoed before",
                 Index(c), Seconds(now), why, err != 0 ? ": " : "", err != 0 ? strerror(err) : "", c.count,
                 c.written, c.echoed);
        m_first_drop = buf;
    }
    c.state = State::kDropped;
    CloseFd(c);
    --m_live;
}

void CRestartClient::Fail(Conn& c, const std::string& what) {
    ++m_verify_errors;
    if (m_first_verify_error.empty()) {
        m_first_verify_error = what;
    }
    c.state = State::kFailed;
    CloseFd(c);
    --m_live;
}

void CRestartClient::OnEvent(Conn& c, uint32_t events) {
    const int64_t now = NowUs();
    if (c.state == State::kConnecting) {
        int err = 0;
        socklen_t len = sizeof(err);
        if (getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
            err = errno;
        }
        if (err == 0 && (events & (EPOLLERR | EPOLLHUP)) == 0) {
            Connected(c, now);
        } else if (err != 0 || (events & (EPOLLERR | EPOLLHUP)) != 0) {
            ConnectFailed(c, err != 0 ? err : ECONNREFUSED, now);
        }
        return;
    }
    if (c.state != State::kOpen) {
        return;
    }
    if ((events & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) {
        Receive(c);
    }
    if (c.state == State::kOpen && (events & EPOLLOUT) != 0 && c.out_armed) {
        Pump(c);
    }
}

bool CRestartClient::Drained() const {
    for (const Conn& c : m_conns) {
        if (c.state == State::kOpen && c.count > 0) {
            return false;
        }
    }
    return true;
}

void CRestartClient::Progress(int64_t now) {
    if (m_opt.quiet || now - m_last_progress_us < 1000000) {
        return;
    }
    fprintf(stderr,
            "restart_client: %5.1f s: %" PRIu64 " open, %" PRIu64 " dropped, %" PRIu64
            " packets verified (%.0f/s), longest pause in the last second %.1f ms\n",
            Seconds(now), m_opened - m_dropped - m_verify_errors, m_dropped, m_packets_verified,
            (m_packets_verified - m_progress_packets) * 1e6 / double(now - m_last_progress_us),
            m_timeline.LongestPause(now - 1000000, now) / 1000.0);
    m_last_progress_us = now;
    m_progress_packets = m_packets_verified;
}

int CRestartClient::Run() {
    m_ep = epoll_create1(EPOLL_CLOEXEC);
    if (m_ep < 0) {
        fprintf(stderr, "restart_client: epoll_create1: %s\n", strerror(errno));
        return 1;
    }
    m_start_us = NowUs();
    m_start_unix_ms = UnixMs();
    m_timeline = CTimeline(m_start_us);
    m_last_progress_us = m_start_us;
    const int64_t send_end_us = m_start_us + static_cast<int64_t>(m_opt.duration * 1e6);
    int64_t drain_end_us = 0;
    int64_t last_tick_us = m_start_us;
    StartConnects(m_start_us);
    for (;;) {
        int64_t now = NowUs();
        if (m_sending && (now >= send_end_us || g_signals > 0)) {
            // Stop starting packets; the half-sent ones are finished and the echoes awaited.
            m_sending = false;
            drain_end_us = now + static_cast<int64_t>(m_opt.drain * 1e6);
            GiveUpConnects(now);
            for (Conn& c : m_conns) {
                if (c.idle && c.state == State::kOpen && !c.out_armed) {
                    Pump(c);  // its one packet: still served?
                }
            }
            if (!m_opt.quiet) {
                fprintf(stderr, "restart_client: %.1f s: sending stopped%s, waiting for the echoes\n",
                        Seconds(now), g_signals > 0 ? " by a signal" : "");
            }
        }
        if (!m_sending && (g_signals > 1 || now >= drain_end_us || Drained())) {
            break;
        }
        if (m_live == 0 && m_next_connect == m_conns.size()) {
            break;  // every connection ended: nothing left to watch
        }
        int timeout_ms = m_deferred.empty() ? 100 : 1;
        const int64_t until_us = m_sending ? send_end_us : drain_end_us;
        timeout_ms = static_cast<int>(
            std::max<int64_t>(0, std::min<int64_t>(timeout_ms, (until_us - now + 999) / 1000)));
        int n = epoll_wait(m_ep, m_events.data(), static_cast<int>(m_events.size()), timeout_ms);
        const int64_t busy_from_us = NowUs();
        if (n < 0 && errno != EINTR) {
            fprintf(stderr, "restart_client: epoll_wait: %s\n", strerror(errno));
            break;
        }
        for (int i = 0; i < n; ++i) {
            OnEvent(m_conns[m_events[i].data.u32], m_events[i].events);
        }
        if (!m_deferred.empty()) {
            std::vector<uint32_t> turn;
            turn.swap(m_deferred);
            for (uint32_t index : turn) {
                Conn& c = m_conns[index];
                c.deferred = false;
                if (c.state == State::kOpen && !c.out_armed) {
                    Pump(c);
                }
            }
        }
        now = NowUs();
        StartConnects(now);
        if (now - last_tick_us >= kWindowUs) {
            last_tick_us = now;
            RefillSlowReaders();
            CheckConnectTimeouts(now);
            StartConnects(now);
            Progress(now);
        }
        m_max_stall_us = std::max(m_max_stall_us, now - busy_from_us);
    }

    return Finish();
}

int CRestartClient::Finish() {
    // What is still waiting for its echo is unfinished (its pause recorded up to now); a
    // connection that echoed nothing made no progress.
    const int64_t end_us = NowUs();
    Totals t;
    std::vector<int64_t> pauses;
    for (Conn& c : m_conns) {
        if (c.state == State::kOpen && c.count > 0) {
            ++t.unfinished;
            if (c.written > 0) {
                RecordPause(c, c.wait_since_us, end_us);
            }
        }
        if (c.state == State::kOpen || c.state == State::kDropped || c.state == State::kFailed) {
            pauses.push_back(c.max_pause_us);
            t.no_progress += c.echoed == 0 ? 1 : 0;
        }
        if (c.state == State::kOpen) {
            CloseFd(c);
            c.state = State::kClosed;
        }
    }
    m_timeline.Cover(end_us);
    if (!pauses.empty()) {
        std::sort(pauses.begin(), pauses.end());
        t.p50_us = pauses[(pauses.size() - 1) / 2];
        t.p99_us = pauses[(pauses.size() * 99 + 99) / 100 - 1];
    }
    t.ok = m_opened == m_conns.size() && m_refused == 0 && m_connect_failed == 0 && m_dropped == 0 &&
           m_verify_errors == 0 && t.no_progress == 0 && t.unfinished == 0;
    const std::string json = JsonReport(t, end_us);
    printf("%s\n", json.c_str());
    fflush(stdout);
    bool report_ok = true;
    if (!m_opt.report.empty()) {
        // Written beside it and renamed: a reader sees the whole report or none.
        std::string tmp = m_opt.report + ".tmp";
        FILE* f = fopen(tmp.c_str(), "w");
        report_ok = f != nullptr;
        if (report_ok) {
            report_ok = fprintf(f, "%s\n", json.c_str()) > 0;
            report_ok = fclose(f) == 0 && report_ok;
            report_ok = report_ok && rename(tmp.c_str(), m_opt.report.c_str()) == 0;
        }
        if (!report_ok) {
            fprintf(stderr, "restart_client: cannot write the report %s: %s\n", m_opt.report.c_str(),
                    strerror(errno));
            remove(tmp.c_str());
        }
    }
    if (!m_opt.quiet) {
        fprintf(stderr,
                "restart_client: %zu connections: %" PRIu64 " opened, %" PRIu64 " refused, %" PRIu64
                " failed to connect, %" PRIu64 " dropped, %" PRIu64 " with no echo, %" PRIu64
                " unfinished; %" PRIu64 " packets (%.1f MiB) echoed and verified, %" PRIu64
                " verification errors; longest pause %.1f ms, p99 of the connections' longest pauses %.1f "
                "ms; %s\n",
                m_conns.size(), m_opened, m_refused, m_connect_failed, m_dropped, t.no_progress, t.unfinished,
                m_packets_verified, m_bytes_verified / 1048576.0, m_verify_errors, m_max_pause_us / 1000.0,
                t.p99_us / 1000.0, t.ok ? "OK" : "FAILED");
        const struct {
            const char* what;
            const std::string& text;
        } firsts[] = {{"connect error", m_first_connect_error},
                      {"drop", m_first_drop},
                      {"verification error", m_first_verify_error}};
        for (const auto& f : firsts) {
            if (!f.text.empty()) {
                fprintf(stderr, "restart_client: first %s: %s\n", f.what, f.text.c_str());
            }
        }
    }
    return t.ok && report_ok ? 0 : 1;
}

std::string CRestartClient::JsonReport(const Totals& t, int64_t end_us) const {
    CJson j;
    j.Text("tool", "restart_client");
    j.Text("host", m_opt.host);
    j.Num("port", static_cast<uint64_t>(m_opt.port));
    j.Num("conns", m_conns.size());
    j.Num("idle_conns", static_cast<uint64_t>(m_opt.idle));
    j.Num("depth", static_cast<uint64_t>(m_opt.depth));
    j.Num("slow_readers_percent", static_cast<uint64_t>(m_opt.slow_readers));
    std::string sizes = "[";
    std::string weights = "[";
    for (size_t i = 0; i < m_opt.sizes.size(); ++i) {
        sizes += (i > 0 ? "," : "") + std::to_string(m_opt.sizes[i].size);
        weights += (i > 0 ? "," : "") + std::to_string(m_opt.sizes[i].weight);
    }
    j.Raw("sizes", sizes + "]");
    j.Raw("weights", weights + "]");
    j.Raw("duration_s", CJson::Fixed(m_opt.duration, 3));
    j.Raw("seconds", CJson::Fixed(Seconds(end_us), 3));
    j.Raw("start_unix_ms", std::to_string(m_start_unix_ms));
    j.Num("opened", m_opened);
    j.Num("refused", m_refused);
    j.Num("connect_failed", m_connect_failed);
    j.Num("dropped", m_dropped);
    j.Num("dropped_eof", m_dropped_eof);
    j.Num("dropped_reset", m_dropped_reset);
    j.Num("dropped_error", m_dropped_error);
    j.Num("no_progress", t.no_progress);
    j.Num("unfinished", t.unfinished);
    j.Num("packets_sent", m_packets_sent);
    j.Num("bytes_sent", m_bytes_sent);
    j.Num("packets_split", m_packets_split);
    j.Num("packets_verified", m_packets_verified);
    j.Num("bytes_verified", m_bytes_verified);
    j.Num("verify_errors", m_verify_errors);
    j.Text("first_verify_error", m_first_verify_error);
    j.Text("first_drop", m_first_drop);
    j.Text("first_connect_error", m_first_connect_error);
    j.Ms("pause_max_ms", m_max_pause_us);
    j.Raw("pause_max_at_s", CJson::Fixed(m_max_pause_us > 0 ? Seconds(m_max_pause_at_us) : 0, 3));
    j.Ms("pause_p50_ms", t.p50_us);
    j.Ms("pause_p99_ms", t.p99_us);
    j.Ms("client_stall_max_ms", m_max_stall_us);
    j.Num("window_ms", static_cast<uint64_t>(kWindowUs / 1000));
    m_timeline.AddJson(&j);
    j.Raw("ok", t.ok ? "true" : "false");
    return j.Done();
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    int parsed = ParseOptions(argc, argv, &opt);
    if (parsed != 0) {
        return parsed == 1 ? 0 : 2;
    }
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    QUOLNET_BENCH::RaiseFdLimit();
    rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY &&
        long(rl.rlim_cur) < opt.conns + opt.idle + 16) {
        fprintf(stderr, "restart_client: warning: %ld connections but a descriptor limit of %ld\n",
                opt.conns + opt.idle, long(rl.rlim_cur));
    }
    CRestartClient client(opt);
    return client.Run();
}
