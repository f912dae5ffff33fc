// hostile_peer: plays hostile and careless peers against any server of the length-prefixed
// echo protocol and measures what that costs the server's honest clients.
//
// Protocol: every packet is a 4-byte big-endian length that counts the whole packet (header
// included), then the payload; the server echoes every packet back unchanged.
//
// The tool does not use the quolnet library: it is a peer, so it only speaks the wire format,
// with raw non-blocking sockets and one level-triggered epoll loop on one thread. Honest
// clients and attackers share that loop; attackers are opened in small batches per loop turn so
// that the ramp-up of a thousand connections never starves the honest measurement.
//
// A run has three phases:
//   before   honest clients only (ping-pong, one packet in flight each, every echoed byte
//            checked against what was sent);
//   attack   honest clients plus one attack;
//   after    honest clients only, every attacker closed at the start of the phase.
// The report gives honest echoes/s per phase and the ratio attack / mean(before, after), what
// the server did to the attackers (closed with EOF or reset, and when), bytes lost where the
// attack expects replies, and optionally the server's resident memory per phase.
//
// TLS (built when OpenSSL 3 is found, with OpenSSL directly: tls_peer.h): with --tls the honest
// clients speak TLS (a handshake before their first packet, then ping-pong through the
// session), and the tls-* attacks play peers of a TLS server: a ClientHello sent a few bytes
// at a time (tls-slow-handshake), silence after the connect (tls-silent), bytes that are not
// TLS (tls-garbage), and new full handshakes closed as soon as they are done
// (tls-handshake-flood).
//
// Exit codes: 0 the run completed; 1 the run could not be set up (honest clients cannot
// connect, no epoll) or an echo differed from what was sent; 2 a bad argument.
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
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "tls_peer.h"

namespace {

const uint32_t kHeaderLen = 4;
const uint32_t kMaxPacket = 0x7fffffffu;
const size_t kChunk = 64 * 1024;  // most bytes one send() or recv() moves

uint64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000ull + uint64_t(ts.tv_nsec);
}

void WriteBe32(unsigned char* b, uint32_t v) {
    b[0] = static_cast<unsigned char>(v >> 24);
    b[1] = static_cast<unsigned char>(v >> 16);
    b[2] = static_cast<unsigned char>(v >> 8);
    b[3] = static_cast<unsigned char>(v);
}

// ---- options ----

enum class Attack {
    kNone,
    kSilent,
    kTrickle,
    kNoRead,
    kReset,
    kHalfClose,
    kHalfCloseBurst,
    kIdle,
    kIdleFlood,
    kTlsSlowHandshake,
    kTlsSilent,
    kTlsGarbage,
    kTlsHandshakeFlood,
    kTlsHelloFlood
};

struct AttackInfo {
    const char* name;
    Attack attack;
    long long conns;     // default connection count
    long long size;      // default packet length (header included)
    double attack_secs;  // default attack phase length
};

const AttackInfo kAttacks[] = {
    {"none", Attack::kNone, 0, 0, 20},
    {"silent", Attack::kSilent, 16, 16ll << 20, 20},
    {"trickle", Attack::kTrickle, 1000, 1ll << 20, 70},
    {"noread", Attack::kNoRead, 32, 1024, 20},
    {"reset", Attack::kReset, 8, 1ll << 20, 20},
    {"halfclose", Attack::kHalfClose, 1000, 1024, 20},
    {"halfclose-burst", Attack::kHalfCloseBurst, 100, 1024, 20},
    {"idle", Attack::kIdle, 1000, 0, 20},
    {"idle-flood", Attack::kIdleFlood, 700, 0, 20},
    {"tls-slow-handshake", Attack::kTlsSlowHandshake, 1000, 0, 20},
    {"tls-silent", Attack::kTlsSilent, 1000, 0, 20},
    {"tls-garbage", Attack::kTlsGarbage, 100, 1024, 20},
    {"tls-handshake-flood", Attack::kTlsHandshakeFlood, 16, 0, 20},
    {"tls-hello-flood", Attack::kTlsHelloFlood, 16, 0, 20},
};

// The attacks against a TLS server: they need honest clients that speak TLS.
bool IsTlsAttack(Attack a) {
    return a == Attack::kTlsSlowHandshake || a == Attack::kTlsSilent || a == Attack::kTlsGarbage ||
           a == Attack::kTlsHandshakeFlood || a == Attack::kTlsHelloFlood;
}

struct Options {
    std::string url = "tcp://127.0.0.1:7000";
    sockaddr_storage addr{};
    socklen_t addr_len = 0;
    const AttackInfo* attack = nullptr;
    long long honest = 100;
    long long honest_size = 1024;
    double before = 5;
    double attack_secs = -1;  // < 0: the attack's default
    double after = 5;
    long long conns = -1;        // < 0: the attack's default
    long long size = -1;         // < 0: the attack's default
    long long interval_ms = -1;  // < 0: 1000 (trickle), 250 (tls-slow-handshake)
    long long step_bytes = 2;    // tls-slow-handshake: ClientHello bytes sent per interval
    long long resets = 1200;
    long long pipelined = 0;
    long long requests = -1;  // halfclose-burst: requests per client before SHUT_WR (< 0: 16)
    long long rcvbuf = 32 * 1024;
    long long batch = 64;
    long long server_pid = 0;
    long long sources = 8;            // idle-flood: source addresses 127.0.0.2 and up
    long long honest_reconnect = -1;  // < 0: the attack's default (idle-flood 100, others 0)
    long long reopen = 0;             // idle-flood: reopen every attacker the server closes
    bool json = false;
    tools_tls::ClientTlsOptions tls;
};

void Usage(FILE* out) {
    fprintf(
        out,
        "usage: hostile_peer --attack NAME [options]\n"
        "Runs honest ping-pong clients against a server of the length-prefixed echo protocol\n"
        "(4-byte big-endian length counting itself, then the payload; every packet echoed back)\n"
        "for a 'before' phase, then with one attack added, then 'after' with the attackers gone,\n"
        "and reports honest echoes/s per phase and the ratio attack / mean(before, after).\n"
        "\n"
        "  --url URL           server (default tcp://127.0.0.1:7000; tcp://a.b.c.d:port or tcp://[v6]:port)\n"
        "  --attack NAME       one of:\n"
        "      silent          --conns (16) connections each send a header announcing a --size\n"
        "                      (16 MiB) packet, then nothing\n"
        "      trickle         --conns (1000) connections announce --size (1 MiB) packets, then send\n"
        "                      one byte every --interval-ms (1000) each\n"
        "      noread          --conns (32) connections send --size (1 KiB) packets nonstop, never read\n"
        "      reset           --conns (8) connections at a time send one --size (1 MiB) packet and\n"
        "                      reset (SO_LINGER 0 + close) once its echo has started to arrive,\n"
        "                      until --resets (1200) resets are done; receive buffer --rcvbuf (32768)\n"
        "      halfclose       --conns (1000) clients send one --size (1 KiB) request, then\n"
        "                      shutdown(SHUT_WR), and count the reply bytes that arrive before EOF;\n"
        "                      with --pipelined N one connection sends N such packets, then SHUT_WR\n"
        "      halfclose-pipelined  the same as halfclose --pipelined 20000\n"
        "      halfclose-burst --conns (100) clients at a time each send --requests (16) --size (1 KiB)\n"
        "                      requests at once, then shutdown(SHUT_WR), and read to the end of\n"
        "                      stream; each client that ends is replaced by a new one. Counts the\n"
        "                      requests answered whole before the end, replies lost, torn replies\n"
        "                      (a partial packet at the end) and resets\n"
        "      idle            --conns (1000) connections connect and stay idle\n"
        "      idle-flood      --conns (700) idle connections from --sources (8) addresses 127.0.0.2,\n"
        "                      127.0.0.3, ... (IPv4 loopback targets), past the server's limit; with\n"
        "                      --reopen 1 each one the server closes is opened again at once; honest\n"
        "                      clients reconnect every --honest-reconnect (100) echoes, so they measure\n"
        "                      whether new clients are still admitted\n"
        "      none            no attack (a control run; with --tls, over TLS)\n"
        "    against a TLS server (the honest clients speak TLS; the connections each attack keeps\n"
        "    open are replaced as the server closes them):\n"
        "      tls-slow-handshake  --conns (1000) connections send a real ClientHello --step-bytes (2)\n"
        "                      bytes every --interval-ms (250), so one takes longer than a 10 s\n"
        "                      handshake deadline allows (the time is reported)\n"
        "      tls-silent      --conns (1000) connections connect and never send\n"
        "      tls-garbage     --conns (100) connections at a time each send --size (1 KiB) bytes\n"
        "                      that are not TLS (length-prefixed packets) and wait for the close\n"
        "      tls-handshake-flood  --conns (16) connections at a time each make a new full\n"
        "                      handshake and close as soon as it is done, as fast as the tool can\n"
        "      tls-hello-flood --conns (16) connections at a time each send the same recorded\n"
        "                      ClientHello and close once the server answers: the server does a\n"
        "                      key exchange and a signature for each, the tool no crypto at all\n"
        "  --honest N          honest connections (default 100)\n"
        "  --honest-size B     honest packet length, header included (default 1024)\n"
        "  --before S          seconds of the before phase (default 5)\n"
        "  --attack-secs S     seconds of the attack phase (default 20; trickle 70)\n"
        "  --after S           seconds of the after phase (default 5)\n"
        "  --conns N           attack connections (default per attack, above)\n"
        "  --size B            attack packet length, header included (default per attack, above)\n"
        "  --interval-ms MS    trickle: milliseconds between two bytes of one connection (1000);\n"
        "                      tls-slow-handshake: between two steps of one connection (250)\n"
        "  --step-bytes N      tls-slow-handshake: ClientHello bytes sent per step (2)\n"
        "  --resets N          reset: resets to do (1200)\n"
        "  --pipelined N       halfclose: one connection, N pipelined packets, then SHUT_WR\n"
        "  --requests K        halfclose-burst: requests each client sends before SHUT_WR (16)\n"
        "  --rcvbuf B          reset: receive buffer of the resetting connections (32768)\n"
        "  --batch N           attack connections opened per loop turn (64)\n"
        "  --sources N         idle-flood: source addresses the attackers bind to (8; 0: none)\n"
        "  --reopen 0|1        idle-flood: 1 reopens each attacker the server closes (0)\n"
        "  --honest-reconnect N  honest clients close and reconnect after every N echoes (0: never;\n"
        "                      default 100 for idle-flood, 0 otherwise)\n"
        "  --server-pid PID    sample the server's resident memory (/proc/PID/status) per phase\n"
        "  --json              print one JSON line on stdout (the summary goes to stderr)\n"
        "  --tls               the honest clients speak TLS (implied by the tls-* attacks); the\n"
        "                      server is verified against the system's CAs unless one of these\n"
        "                      is given (each implies --tls):\n"
        "  --tls-ca FILE       CA certificates (PEM) to verify the server with (its certificate\n"
        "                      must name the URL's address)\n"
        "  --tls-insecure      FOR TESTING ONLY: do not verify the server's certificate\n"
        "  --help              this text\n"
        "Exit status: 0 done, 1 set-up failure or an echo that differs from what was sent, 2 bad "
        "argument.\n");
}

[[noreturn]] void BadArg(const char* fmt, const char* what) {
    fprintf(stderr, "hostile_peer: ");
    fprintf(stderr, fmt, what);
    fprintf(stderr, " (see --help)\n");
    exit(2);
}

bool ParseInt(const char* text, long long lo, long long hi, long long* out) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) {
        return false;
    }
    *out = v;
    return true;
}

bool ParseSecs(const char* text, double* out) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    double v = strtod(text, &end);
    if (errno != 0 || *end != '\0' || !(v >= 0) || v > 86400) {
        return false;
    }
    *out = v;
    return true;
}

// Parses tcp://a.b.c.d:port and tcp://[v6]:port (numeric addresses only, port 1..65535).
bool ParseURL(const std::string& url, sockaddr_storage* addr, socklen_t* len) {
    const std::string scheme = "tcp://";
    if (url.compare(0, scheme.size(), scheme) != 0) {
        return false;
    }
    std::string rest = url.substr(scheme.size());
    std::string host;
    std::string port;
    bool v6 = false;
    if (!rest.empty() && rest[0] == '[') {
        size_t close = rest.find(']');
        if (close == std::string::npos || close + 1 >= rest.size() || rest[close + 1] != ':') {
            return false;
        }
        host = rest.substr(1, close - 1);
        port = rest.substr(close + 2);
        v6 = true;
    } else {
        size_t colon = rest.rfind(':');
        if (colon == std::string::npos) {
            return false;
        }
        host = rest.substr(0, colon);
        port = rest.substr(colon + 1);
    }
    long long p = 0;
    if (!ParseInt(port.c_str(), 1, 65535, &p)) {
        return false;
    }
    memset(addr, 0, sizeof(*addr));
    if (v6) {
        sockaddr_in6* a = reinterpret_cast<sockaddr_in6*>(addr);
        a->sin6_family = AF_INET6;
        a->sin6_port = htons(static_cast<uint16_t>(p));
        if (inet_pton(AF_INET6, host.c_str(), &a->sin6_addr) != 1) {
            return false;
        }
        *len = sizeof(sockaddr_in6);
    } else {
        sockaddr_in* a = reinterpret_cast<sockaddr_in*>(addr);
        a->sin_family = AF_INET;
        a->sin_port = htons(static_cast<uint16_t>(p));
        if (inet_pton(AF_INET, host.c_str(), &a->sin_addr) != 1) {
            return false;
        }
        *len = sizeof(sockaddr_in);
    }
    return true;
}

Options ParseArgs(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            Usage(stdout);
            exit(0);
        }
        if (a == "--json") {
            o.json = true;
            continue;
        }
        if (a == "--tls" || a == "--tls-insecure") {
            o.tls.enabled = true;
            o.tls.insecure = o.tls.insecure || a == "--tls-insecure";
            continue;
        }
        if (i + 1 >= argc) {
            BadArg("bad argument '%s' (missing value?)", a.c_str());
        }
        const char* v = argv[++i];
        bool ok = true;
        if (a == "--url") {
            o.url = v;
        } else if (a == "--attack") {
            std::string name = v;
            if (name == "halfclose-pipelined") {
                name = "halfclose";
                if (o.pipelined == 0) {
                    o.pipelined = 20000;
                }
            }
            for (const AttackInfo& info : kAttacks) {
                if (name == info.name) {
                    o.attack = &info;
                }
            }
            if (o.attack == nullptr) {
                BadArg("unknown attack '%s'", v);
            }
        } else if (a == "--honest") {
            ok = ParseInt(v, 0, 100000, &o.honest);
        } else if (a == "--honest-size") {
            ok = ParseInt(v, kHeaderLen, 16 << 20, &o.honest_size);
        } else if (a == "--before") {
            ok = ParseSecs(v, &o.before);
        } else if (a == "--attack-secs") {
            ok = ParseSecs(v, &o.attack_secs) && o.attack_secs > 0;
        } else if (a == "--after") {
            ok = ParseSecs(v, &o.after);
        } else if (a == "--conns") {
            ok = ParseInt(v, 0, 1000000, &o.conns);
        } else if (a == "--size") {
            ok = ParseInt(v, kHeaderLen, kMaxPacket, &o.size);
        } else if (a == "--interval-ms") {
            ok = ParseInt(v, 1, 3600000, &o.interval_ms);
        } else if (a == "--step-bytes") {
            ok = ParseInt(v, 1, 65536, &o.step_bytes);
        } else if (a == "--tls-ca") {
            ok = *v != '\0';
            o.tls.ca_file = v;
            o.tls.enabled = true;
        } else if (a == "--resets") {
            ok = ParseInt(v, 0, 100000000, &o.resets);
        } else if (a == "--pipelined") {
            ok = ParseInt(v, 1, 100000000, &o.pipelined);
        } else if (a == "--requests") {
            ok = ParseInt(v, 1, 1000000, &o.requests);
        } else if (a == "--rcvbuf") {
            ok = ParseInt(v, 0, 1 << 30, &o.rcvbuf);
        } else if (a == "--batch") {
            ok = ParseInt(v, 1, 100000, &o.batch);
        } else if (a == "--sources") {
            ok = ParseInt(v, 0, 250, &o.sources);
        } else if (a == "--reopen") {
            ok = ParseInt(v, 0, 1, &o.reopen);
        } else if (a == "--honest-reconnect") {
            ok = ParseInt(v, 0, 1000000000, &o.honest_reconnect);
        } else if (a == "--server-pid") {
            ok = ParseInt(v, 1, 0x7fffffff, &o.server_pid);
        } else {
            BadArg("unknown argument '%s'", a.c_str());
        }
        if (!ok) {
            fprintf(stderr, "hostile_peer: bad value '%s' for %s (see --help)\n", v, a.c_str());
            exit(2);
        }
    }
    if (o.attack == nullptr) {
        BadArg("%s", "missing --attack NAME");
    }
    if (!ParseURL(o.url, &o.addr, &o.addr_len)) {
        fprintf(
            stderr,
            "hostile_peer: invalid URL '%s' (expected tcp://a.b.c.d:port or tcp://[v6]:port) (see --help)\n",
            o.url.c_str());
        exit(2);
    }
    if (IsTlsAttack(o.attack->attack)) {
        o.tls.enabled = true;
    } else if (o.tls.enabled && o.attack->attack != Attack::kNone) {
        BadArg("%s", "--tls goes with the tls-* attacks and none (the other attacks speak plain TCP)");
    }
    if (o.tls.enabled && !tools_tls::Available()) {
        BadArg("%s", "this build has no TLS (OpenSSL 3 was not found)");
    }
    if (o.interval_ms < 0) {
        o.interval_ms = o.attack->attack == Attack::kTlsSlowHandshake ? 250 : 1000;
    }
    if (o.pipelined > 0 && o.attack->attack != Attack::kHalfClose) {
        BadArg("%s", "--pipelined only applies to --attack halfclose");
    }
    if (o.requests > 0 && o.attack->attack != Attack::kHalfCloseBurst) {
        BadArg("%s", "--requests only applies to --attack halfclose-burst");
    }
    if (o.requests < 0) {
        o.requests = 16;
    }
    if (o.attack_secs < 0) {
        o.attack_secs = o.attack->attack_secs;
    }
    if (o.honest_reconnect < 0) {
        o.honest_reconnect = o.attack->attack == Attack::kIdleFlood ? 100 : 0;
    }
    if (o.conns < 0) {
        o.conns = o.pipelined > 0 ? 1 : o.attack->conns;
    }
    if (o.size < 0) {
        o.size = o.attack->size > 0 ? o.attack->size : 1024;
    }
    if (o.server_pid > 0) {
        std::string path = "/proc/" + std::to_string(o.server_pid) + "/status";
        FILE* f = fopen(path.c_str(), "r");
        if (f == nullptr) {
            BadArg("cannot read %s", path.c_str());
        }
        fclose(f);
    }
    return o;
}

// ---- byte streams ----

// The bytes a peer sends: back-to-back packets of one length, each a header holding that
// length and a payload drawn from a fixed pseudo-random sequence at an offset that depends on
// the peer's key and the packet's index, so an echo from the wrong connection or of the wrong
// packet differs from what was sent.
class CStream {
  public:
    static const uint32_t kPeriod = 4093;  // prime, so offsets do not line up with packet lengths

    CStream() : m_bytes(kPeriod + kChunk) {
        for (size_t i = 0; i < m_bytes.size(); ++i) {
            size_t j = i % kPeriod;
            m_bytes[i] = static_cast<unsigned char>(j * 131 + (j >> 8) * 7 + 1);
        }
    }

    // Writes bytes [off, off + n) of the stream of `pkt`-byte packets keyed by `key` to `out`.
    void Fill(uint32_t key, uint32_t pkt, uint64_t off, unsigned char* out, size_t n) const {
        while (n > 0) {
            uint64_t seq = off / pkt;
            uint32_t within = uint32_t(off % pkt);
            size_t take;
            if (within < kHeaderLen) {
                unsigned char hdr[kHeaderLen];
                WriteBe32(hdr, pkt);
                take = std::min<size_t>(kHeaderLen - within, n);
                memcpy(out, hdr + within, take);
            } else {
                take = std::min<size_t>(std::min<uint64_t>(pkt - within, n), kChunk);
                size_t start = size_t((uint64_t(within) + uint64_t(key) * 7 + seq * 13) % kPeriod);
                memcpy(out, m_bytes.data() + start, take);
            }
            out += take;
            off += take;
            n -= take;
        }
    }

    // True when `in` holds exactly bytes [off, off + n) of that stream.
    bool Check(uint32_t key, uint32_t pkt, uint64_t off, const unsigned char* in, size_t n) {
        m_scratch.resize(n);
        Fill(key, pkt, off, m_scratch.data(), n);
        return memcmp(m_scratch.data(), in, n) == 0;
    }

  private:
    std::vector<unsigned char> m_bytes;
    std::vector<unsigned char> m_scratch;
};

// ---- peers ----

enum class Role { kHonest, kAttacker };
enum class End { kOpen, kEof, kReset, kConnectFailed, kOurs };
enum Phase { kBefore = 0, kAttackPhase = 1, kAfter = 2, kPhases = 3 };
const char* const kPhaseNames[kPhases] = {"before", "attack", "after"};

struct Peer {
    int fd = -1;
    SSL* ssl = nullptr;        // a TLS honest client or handshake-flood attacker: its session (owned)
    bool handshaking = false;  // connected, the TLS handshake under way (still `connecting`)
    Role role = Role::kHonest;
    bool connecting = true;
    End end = End::kOpen;
    uint32_t key = 0;
    uint32_t pkt = 0;        // packet length of the stream it sends
    uint32_t events = 0;     // epoll events registered
    uint64_t sent = 0;       // stream bytes written
    uint64_t limit = 0;      // stream bytes it may have written by now
    uint64_t total = 0;      // halfclose: stream bytes to send, then SHUT_WR
    uint64_t recvd = 0;      // bytes received (echoes)
    uint64_t queued_ns = 0;  // honest: when the packet in flight was queued
    bool shut_wr = false;
    double closed_at = 0;  // seconds since the attack began, when the server closed it
    long long echoes[kPhases] = {0, 0, 0};
    size_t slot = 0;            // honest: its place in m_honest (kept across reconnects)
    long long conn_echoes = 0;  // honest: echoes on this connection
};

struct PhaseStats {
    double secs = 0;
    long long echoes = 0;
    long long honest_closed = 0;  // honest connections the server closed during the phase
    long long starved = 0;        // honest connections with no echo in the phase
    std::vector<uint32_t> rtt_us;
    uint64_t max_wait_ns = 0;  // longest an honest client waited for an echo within the phase
    long long rss_max_kib = -1;
    long long rss_last_kib = -1;
    double Rate() const { return secs > 0 ? double(echoes) / secs : 0; }
};

struct AttackStats {
    long long opened = 0;          // sockets created (connects started)
    long long connected = 0;       // connects that completed
    long long connect_failed = 0;  // refused, timed out, or no descriptor/port left
    int first_connect_errno = 0;
    long long closed_eof = 0;  // the server closed with FIN
    long long closed_rst = 0;  // the server reset (or a write failed)
    std::vector<double> close_times;
    long long still_open = 0;        // connected and not closed by the server at the end of the attack
    long long still_connecting = 0;  // connect never completed by the end of the attack
    long long unexpected_bytes = 0;  // bytes the server sent where no reply was due
    long long resets_done = 0;
    // halfclose
    long long hc_clients = 0;  // clients that saw EOF or a reset
    long long hc_full = 0;     // ... with their whole reply
    long long hc_partial = 0;  // ... with part of it
    long long hc_none = 0;     // ... with nothing
    long long hc_sent_bytes = 0;
    long long hc_recv_bytes = 0;
    long long hc_bytes_lost = 0;  // expected minus received, over the clients that ended
    long long trickle_bytes = 0;
    // halfclose-burst, over the clients that saw the end of stream (or a reset)
    long long hb_clients = 0;    // clients that ended
    long long hb_requests = 0;   // whole requests they sent
    long long hb_answered = 0;   // replies that arrived whole before the end
    long long hb_torn = 0;       // clients whose stream ended inside a reply
    long long hb_resets = 0;     // clients the server reset
    long long hb_short = 0;      // clients that got fewer replies than they sent requests
    long long hb_in_flight = 0;  // clients still open at the end of the attack (not counted above)
    // idle-flood
    long long reopened = 0;               // attackers opened again after the server closed one
    long long honest_reconnects = 0;      // honest connections replaced after --honest-reconnect echoes
    long long honest_connect_failed = 0;  // honest reconnects that failed (the client is lost)
    // TLS
    long long tls_handshakes = 0;     // tls-handshake-flood: handshakes completed
    long long tls_failed = 0;         // attackers' handshakes that failed
    long long tls_hello_bytes = 0;    // tls-slow-handshake: ClientHello bytes sent
    long long tls_hello_done = 0;     // ... connections that sent their whole ClientHello
    long long tls_garbage_bytes = 0;  // tls-garbage: bytes sent
    long long tls_server_bytes = 0;   // tls-*: bytes the server sent the attackers (alerts, its hello)
};

class CHostilePeer {
  public:
    explicit CHostilePeer(const Options& opt) : m_opt(opt), m_rbuf(kChunk), m_wbuf(kChunk) {}
    ~CHostilePeer() {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
        for (Peer& p : m_peers) {
            SSL_free(p.ssl);
        }
        SSL_CTX_free(m_ctx);
#endif
    }
    int Run();

  private:
    Attack Kind() const {
        return m_opt.attack->attack;
    }
    double SinceAttack(uint64_t now) const {
        return double(now - m_attack_start_ns) / 1e9;
    }

    size_t Open(Role role);
    void SetEvents(Peer& p, uint32_t events);
    void OnEvent(size_t idx, uint32_t events, uint64_t now);
    void OnConnected(size_t idx, uint64_t now);
    void Pump(Peer& p, uint64_t now);
    void Drain(size_t idx, uint64_t now);
    void Consume(Peer& p, const unsigned char* data, size_t n, uint64_t now);
    void ServerClosed(Peer& p, End how, uint64_t now);
    void Reset(Peer& p);
    void CloseFd(Peer& p);
    void Reconnect(Peer& p, uint64_t now);
    void BindSource(int fd);
    void Ramp(uint64_t now);
    void Trickle(uint64_t now);
    void EndAttack(uint64_t now);
    void SampleRss();
    bool WantMoreAttackers() const;
    void Report();
    // TLS: whether `p` makes a handshake; set-up of the context (and the slow ClientHello);
    // one handshake step once the TCP connect is done; send and recv through the session.
    bool UsesTls(const Peer& p) const {
        return p.role == Role::kHonest ? m_opt.tls.enabled : Kind() == Attack::kTlsHandshakeFlood;
    }
    bool InitTls();
    void StepHandshake(size_t idx, uint64_t now);
    ssize_t SendBytes(Peer& p, const void* buf, size_t n);
    ssize_t RecvBytes(Peer& p, void* buf, size_t n);

    Options m_opt;
    int m_ep = -1;
    CStream m_stream;
    std::deque<Peer> m_peers;  // never shrinks: an epoll event names a peer by its index
    std::vector<size_t> m_attackers;
    std::vector<unsigned char> m_rbuf;
    std::vector<unsigned char> m_wbuf;
    std::deque<std::pair<uint64_t, size_t>> m_trickle;  // (when, peer), in time order
    Phase m_phase = kBefore;
    uint64_t m_attack_start_ns = 0;
    uint64_t m_phase_start_ns = 0;
    std::vector<size_t> m_honest;
    uint64_t m_next_rss_ns = 0;
    long long m_connecting_attackers = 0;
    long long m_live_attackers = 0;  // opened and not ended
    long long m_next_source = 0;     // idle-flood: the source address of the next attacker
    long long m_echo_errors = 0;
    bool m_fd_exhausted = false;
    bool m_honest_started = false;
    PhaseStats m_phases[kPhases];
    AttackStats m_a;
    SSL_CTX* m_ctx = nullptr;            // with TLS: the client context (owned)
    std::vector<unsigned char> m_hello;  // tls-slow-handshake: the ClientHello's bytes
    std::string m_tls_error;             // the first failed handshake of an honest client
    std::string m_host;                  // the server's address as text, what its certificate names
};

bool CHostilePeer::InitTls() {
    if (!m_opt.tls.enabled) {
        return true;
    }
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    std::string error;
    m_ctx = tools_tls::MakeClientContext(m_opt.tls, &error);
    if (m_ctx == nullptr) {
        fprintf(stderr, "hostile_peer: TLS: %s\n", error.c_str());
        return false;
    }
    char text[INET6_ADDRSTRLEN] = "";
    const void* where =
        m_opt.addr.ss_family == AF_INET6
            ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(&m_opt.addr)->sin6_addr)
            : static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(&m_opt.addr)->sin_addr);
    inet_ntop(m_opt.addr.ss_family, where, text, sizeof(text));
    m_host = text;
    if (Kind() == Attack::kTlsSlowHandshake || Kind() == Attack::kTlsHelloFlood) {
        // The ClientHello this context sends, taken from a session over memory buffers.
        SSL* ssl = SSL_new(m_ctx);
        BIO* rd = BIO_new(BIO_s_mem());
        BIO* wr = BIO_new(BIO_s_mem());
        if (ssl != nullptr && rd != nullptr && wr != nullptr) {
            SSL_set_bio(ssl, rd, wr);  // the session owns both from here
            rd = wr = nullptr;
            SSL_set_connect_state(ssl);
            SSL_do_handshake(ssl);  // writes the hello, then waits for the server's reply
            char* data = nullptr;
            long n = BIO_get_mem_data(SSL_get_wbio(ssl), &data);
            if (n > 0) {
                m_hello.assign(data, data + n);
            }
        }
        BIO_free(rd);
        BIO_free(wr);
        SSL_free(ssl);
        tools_tls::ErrorText();
        if (m_hello.empty()) {
            fprintf(stderr, "hostile_peer: TLS: cannot make a ClientHello\n");
            return false;
        }
    }
    return true;
#else
    return false;
#endif
}

void CHostilePeer::StepHandshake(size_t idx, uint64_t now) {
    Peer& p = m_peers[idx];
    std::string text = "this build has no TLS";
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    if (p.ssl == nullptr) {
        p.ssl = tools_tls::NewClientSession(m_ctx, p.fd, m_host);
        p.handshaking = p.ssl != nullptr;
    }
    if (p.ssl != nullptr) {
        int rc = SSL_do_handshake(p.ssl);
        if (rc == 1) {
            p.handshaking = false;
            OnConnected(idx, now);
            return;
        }
        int e = SSL_get_error(p.ssl, rc);
        if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
            SetEvents(p, e == SSL_ERROR_WANT_READ ? uint32_t(EPOLLIN) : uint32_t(EPOLLOUT));
            return;
        }
    }
    text = tools_tls::ErrorText();
    if (text.empty()) {
        text = "the server closed the connection during the handshake";
    }
#endif
    if (p.role == Role::kHonest) {
        m_a.first_connect_errno = EPROTO;
        if (m_tls_error.empty()) {
            m_tls_error = text;
        }
    } else {
        ++m_a.tls_failed;
    }
    p.end = End::kConnectFailed;
    CloseFd(p);
}

ssize_t CHostilePeer::SendBytes(Peer& p, const void* buf, size_t n) {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    if (p.ssl != nullptr) {
        int w = SSL_write(p.ssl, buf, int(n));
        if (w > 0) {
            return w;
        }
        int e = SSL_get_error(p.ssl, w);
        ERR_clear_error();
        errno = e == SSL_ERROR_WANT_WRITE || e == SSL_ERROR_WANT_READ ? EAGAIN : ECONNRESET;
        return -1;
    }
#endif
    return send(p.fd, buf, n, MSG_NOSIGNAL);
}

ssize_t CHostilePeer::RecvBytes(Peer& p, void* buf, size_t n) {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    if (p.ssl != nullptr) {
        int r = SSL_read(p.ssl, buf, int(n));
        if (r > 0) {
            return r;
        }
        int e = SSL_get_error(p.ssl, r);
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
    return recv(p.fd, buf, n, 0);
}

size_t CHostilePeer::Open(Role role) {
    Peer p;
    p.role = role;
    p.key = uint32_t(m_peers.size());
    int fd = socket(m_opt.addr.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE) {
            m_fd_exhausted = true;
        }
        p.end = End::kConnectFailed;
        m_peers.push_back(p);
        if (m_a.first_connect_errno == 0) {
            m_a.first_connect_errno = errno;
        }
        return m_peers.size() - 1;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    if (role == Role::kAttacker && Kind() == Attack::kReset && m_opt.rcvbuf > 0) {
        // A small window keeps the server's echo of the big packet under way when we reset.
        int rcv = int(m_opt.rcvbuf);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcv, sizeof(rcv));
    }
    if (role == Role::kAttacker && Kind() == Attack::kIdleFlood) {
        BindSource(fd);
    }
    p.fd = fd;
    m_peers.push_back(p);
    size_t idx = m_peers.size() - 1;
    int rc = connect(fd, reinterpret_cast<const sockaddr*>(&m_opt.addr), m_opt.addr_len);
    if (rc != 0 && errno != EINPROGRESS) {
        Peer& q = m_peers[idx];
        if (m_a.first_connect_errno == 0 || role == Role::kHonest) {
            m_a.first_connect_errno = errno;
        }
        close(fd);
        q.fd = -1;
        q.end = End::kConnectFailed;
        return idx;
    }
    epoll_event ev{};
    ev.events = EPOLLOUT;
    ev.data.u64 = idx;
    epoll_ctl(m_ep, EPOLL_CTL_ADD, fd, &ev);
    m_peers[idx].events = EPOLLOUT;
    return idx;
}

void CHostilePeer::SetEvents(Peer& p, uint32_t events) {
    if (p.fd < 0 || p.events == events) {
        return;
    }
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = p.key;  // a peer's key is its index in m_peers
    epoll_ctl(m_ep, EPOLL_CTL_MOD, p.fd, &ev);
    p.events = events;
}

void CHostilePeer::CloseFd(Peer& p) {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    if (p.ssl != nullptr) {
        SSL_free(p.ssl);
        p.ssl = nullptr;
    }
#endif
    p.handshaking = false;
    if (p.fd >= 0) {
        close(p.fd);
        p.fd = -1;
    }
    if (p.role == Role::kAttacker) {
        if (p.connecting) {
            --m_connecting_attackers;
        }
        --m_live_attackers;
    }
}

// Records that the server ended an attacker or an honest connection, and closes our side.
void CHostilePeer::ServerClosed(Peer& p, End how, uint64_t now) {
    p.end = how;
    if (p.role == Role::kHonest) {
        ++m_phases[m_phase].honest_closed;
    } else {
        p.closed_at = SinceAttack(now);
        m_a.close_times.push_back(p.closed_at);
        if (how == End::kEof) {
            ++m_a.closed_eof;
        } else {
            ++m_a.closed_rst;
        }
        if (Kind() == Attack::kHalfCloseBurst) {
            // Every request must be answered whole, in order (Consume checks each byte),
            // before the server's end of stream.
            long long requests = (long long)(p.sent / p.pkt);
            long long answered = std::min((long long)(p.recvd / p.pkt), requests);
            ++m_a.hb_clients;
            m_a.hb_requests += requests;
            m_a.hb_answered += answered;
            m_a.hb_torn += p.recvd % p.pkt != 0 ? 1 : 0;
            m_a.hb_resets += how == End::kReset ? 1 : 0;
            m_a.hb_short += answered < requests ? 1 : 0;
        }
        if (Kind() == Attack::kHalfClose) {
            ++m_a.hc_clients;
            m_a.hc_sent_bytes += (long long)p.sent;
            m_a.hc_recv_bytes += (long long)p.recvd;
            m_a.hc_bytes_lost += (long long)(p.sent - std::min(p.recvd, p.sent));
            if (p.recvd >= p.total) {
                ++m_a.hc_full;
            } else if (p.recvd > 0) {
                ++m_a.hc_partial;
            } else {
                ++m_a.hc_none;
            }
        }
    }
    CloseFd(p);
}

// Aborts the connection: SO_LINGER 0 makes close() send a reset and drop what is queued.
void CHostilePeer::Reset(Peer& p) {
    linger lg{};
    lg.l_onoff = 1;
    lg.l_linger = 0;
    setsockopt(p.fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    p.end = End::kOurs;
    ++m_a.resets_done;
    CloseFd(p);
}

// An honest client that has done its --honest-reconnect echoes closes its connection and
// opens a new one in the same place; its counts carry over. The first packet on the new
// connection is queued at once, so the time the server takes to accept it counts as that
// echo's wait.
void CHostilePeer::Reconnect(Peer& p, uint64_t now) {
    size_t slot = p.slot;
    long long echoes[kPhases];
    std::copy(p.echoes, p.echoes + kPhases, echoes);
    p.end = End::kOurs;
    CloseFd(p);
    size_t idx = Open(Role::kHonest);  // m_peers is a deque: `p` stays valid, but is done with
    Peer& q = m_peers[idx];
    q.slot = slot;
    std::copy(echoes, echoes + kPhases, q.echoes);
    q.queued_ns = now;
    m_honest[slot] = idx;
    ++m_a.honest_reconnects;
    if (q.end == End::kConnectFailed) {
        ++m_a.honest_connect_failed;
    }
}

// Binds an attacker to the next of --sources loopback addresses (127.0.0.2 and up), leaving
// the port to connect (IP_BIND_ADDRESS_NO_PORT), so every address has the whole port range.
void CHostilePeer::BindSource(int fd) {
    if (m_opt.sources <= 0 || m_opt.addr.ss_family != AF_INET) {
        return;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof(one));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(0x7f000002u + uint32_t(m_next_source++ % m_opt.sources));
    bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local));
}

void CHostilePeer::OnConnected(size_t idx, uint64_t now) {
    Peer& p = m_peers[idx];
    p.connecting = false;
    uint32_t rd = EPOLLIN | EPOLLRDHUP;
    if (p.role == Role::kHonest) {
        p.pkt = uint32_t(m_opt.honest_size);
        p.limit = m_honest_started ? p.pkt : 0;  // the first packet waits for the before phase
        if (p.queued_ns == 0) {
            p.queued_ns = now;  // a reconnect's wait counts from its connect
        }
        SetEvents(p, rd);
        Pump(p, now);
        return;
    }
    --m_connecting_attackers;
    ++m_a.connected;
    p.pkt = uint32_t(m_opt.size);
    switch (Kind()) {
        case Attack::kSilent:
            p.limit = kHeaderLen;
            break;
        case Attack::kTrickle:
            p.limit = kHeaderLen;
            m_trickle.emplace_back(now + uint64_t(m_opt.interval_ms) * 1000000ull, idx);
            break;
        case Attack::kNoRead:
            p.limit = UINT64_MAX;
            rd = EPOLLRDHUP;  // never read: only learn of the server's close
            break;
        case Attack::kReset:
            p.limit = p.pkt;
            break;
        case Attack::kHalfCloseBurst:
            p.total = uint64_t(m_opt.requests) * p.pkt;  // Pump shuts down the sending side after
            p.limit = p.total;
            break;
        case Attack::kHalfClose: {
            uint64_t count = m_opt.pipelined > 0 ? uint64_t(m_opt.pipelined) : 1;
            p.total = count * p.pkt;
            p.limit = p.total;
            break;
        }
        case Attack::kTlsSlowHandshake:
            p.pkt = uint32_t(m_hello.size());
            p.limit = std::min<uint64_t>(uint64_t(m_opt.step_bytes), p.pkt);
            m_trickle.emplace_back(now + uint64_t(m_opt.interval_ms) * 1000000ull, idx);
            break;
        case Attack::kTlsGarbage:
            p.limit = p.pkt;  // the echo protocol's packets: no TLS record starts with 0x00
            break;
        case Attack::kTlsHelloFlood:
            p.pkt = uint32_t(m_hello.size());  // the same hello at once: the server does the work
            p.limit = p.pkt;
            break;
        case Attack::kTlsHandshakeFlood:
            ++m_a.tls_handshakes;  // done: close at once (no close_notify)
            p.end = End::kOurs;
            CloseFd(p);
            return;
        case Attack::kTlsSilent:
        case Attack::kIdle:
        case Attack::kIdleFlood:
        case Attack::kNone:
            break;
    }
    SetEvents(p, rd);
    Pump(p, now);
}

// Writes what the peer may send by now, as far as the socket takes it.
void CHostilePeer::Pump(Peer& p, uint64_t now) {
    while (p.fd >= 0 && p.sent < p.limit) {
        size_t n = size_t(std::min<uint64_t>(p.limit - p.sent, kChunk));
        if (p.role == Role::kAttacker &&
            (Kind() == Attack::kTlsSlowHandshake || Kind() == Attack::kTlsHelloFlood)) {
            memcpy(m_wbuf.data(), m_hello.data() + p.sent, n);
        } else {
            m_stream.Fill(p.key, p.pkt, p.sent, m_wbuf.data(), n);
        }
        ssize_t w = SendBytes(p, m_wbuf.data(), n);
        if (w < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
                break;
            }
            ServerClosed(p, End::kReset, now);
            return;
        }
        p.sent += uint64_t(w);
        if (p.role == Role::kAttacker) {
            m_a.tls_hello_bytes += Kind() == Attack::kTlsSlowHandshake ? w : 0;
            m_a.tls_hello_done += Kind() == Attack::kTlsSlowHandshake && p.sent == p.pkt ? 1 : 0;
            m_a.tls_garbage_bytes += Kind() == Attack::kTlsGarbage ? w : 0;
        }
        // A nonstop sender writes one chunk per turn, so it cannot monopolise the loop.
        if (p.limit == UINT64_MAX) {
            break;
        }
    }
    if (p.fd < 0) {
        return;
    }
    uint32_t base = p.events & ~uint32_t(EPOLLOUT);
    SetEvents(p, p.sent < p.limit ? base | EPOLLOUT : base);
    if (p.total > 0 && p.sent == p.total && !p.shut_wr) {
        shutdown(p.fd, SHUT_WR);
        p.shut_wr = true;
    }
}

void CHostilePeer::Consume(Peer& p, const unsigned char* data, size_t n, uint64_t now) {
    if (p.role == Role::kHonest) {
        if (p.recvd + n > p.sent || !m_stream.Check(p.key, p.pkt, p.recvd, data, n)) {
            if (++m_echo_errors <= 5) {
                fprintf(stderr,
                        "hostile_peer: honest connection %u: echo differs from what was sent at byte %llu\n",
                        p.key, (unsigned long long)p.recvd);
            }
            p.end = End::kOurs;
            CloseFd(p);
            return;
        }
        p.recvd += n;
        if (p.recvd == p.limit) {  // the echo of the packet in flight is complete
            PhaseStats& ps = m_phases[m_phase];
            ++ps.echoes;
            ++p.echoes[m_phase];
            ps.rtt_us.push_back(uint32_t(std::min<uint64_t>((now - p.queued_ns) / 1000, UINT32_MAX)));
            ps.max_wait_ns = std::max(ps.max_wait_ns, now - std::max(p.queued_ns, m_phase_start_ns));
            if (m_opt.honest_reconnect > 0 && ++p.conn_echoes >= m_opt.honest_reconnect) {
                Reconnect(p, now);
                return;
            }
            p.limit += p.pkt;
            p.queued_ns = now;
            Pump(p, now);
        }
        return;
    }
    switch (Kind()) {
        case Attack::kReset:
        case Attack::kHalfClose:
        case Attack::kHalfCloseBurst:
            if (p.recvd + n > p.sent || !m_stream.Check(p.key, p.pkt, p.recvd, data, n)) {
                if (++m_echo_errors <= 5) {
                    fprintf(stderr, "hostile_peer: attack connection %u: echo differs from what was sent\n",
                            p.key);
                }
            }
            p.recvd += n;
            if (Kind() == Attack::kReset) {
                Reset(p);  // the echo is under way: abort it
            }
            break;
        case Attack::kTlsHelloFlood:
            // The server's reply to the hello: its key exchange and signature are done; the
            // attacker, which did none, goes and a new one comes.
            m_a.tls_server_bytes += (long long)n;
            ++m_a.tls_handshakes;
            p.end = End::kOurs;
            CloseFd(p);
            return;
        case Attack::kTlsSlowHandshake:
        case Attack::kTlsSilent:
        case Attack::kTlsGarbage:
        case Attack::kTlsHandshakeFlood:
            m_a.tls_server_bytes += (long long)n;  // an alert, or the server's reply to a whole hello
            break;
        default:
            m_a.unexpected_bytes += (long long)n;
            break;
    }
}

void CHostilePeer::Drain(size_t idx, uint64_t now) {
    // A TLS session may hold decrypted bytes that the socket's readiness no longer announces:
    // it is read until it waits for the socket.
    for (int i = 0; i < 8 || m_peers[idx].ssl != nullptr; ++i) {
        Peer& p = m_peers[idx];
        if (p.fd < 0) {
            return;
        }
        ssize_t r = RecvBytes(p, m_rbuf.data(), m_rbuf.size());
        if (r > 0) {
            Consume(p, m_rbuf.data(), size_t(r), now);
            continue;
        }
        if (r == 0) {
            ServerClosed(p, End::kEof, now);
            return;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
            return;
        }
        ServerClosed(p, End::kReset, now);
        return;
    }
}

void CHostilePeer::OnEvent(size_t idx, uint32_t events, uint64_t now) {
    Peer& p = m_peers[idx];
    if (p.fd < 0) {
        return;
    }
    if (p.handshaking) {
        StepHandshake(idx, now);
        return;
    }
    if (p.connecting) {
        int err = 0;
        socklen_t len = sizeof(err);
        getsockopt(p.fd, SOL_SOCKET, SO_ERROR, &err, &len);
        if (err != 0 || (events & (EPOLLERR | EPOLLHUP))) {
            if (p.role == Role::kHonest || m_a.first_connect_errno == 0) {
                m_a.first_connect_errno = err != 0 ? err : ECONNREFUSED;
            }
            if (p.role == Role::kAttacker) {
                ++m_a.connect_failed;
            }
            p.end = End::kConnectFailed;
            CloseFd(p);
            return;
        }
        if (UsesTls(p)) {
            StepHandshake(idx, now);
            return;
        }
        OnConnected(idx, now);
        return;
    }
    // Read before writing: a write that fails on a closed connection must not hide the replies
    // that arrived before the close.
    if (p.events & EPOLLIN) {
        if (events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) {
            Drain(idx, now);
        }
        if ((events & EPOLLOUT) && p.fd >= 0) {
            Pump(p, now);
        }
        return;
    }
    if (events & EPOLLOUT) {
        Pump(p, now);
        if (p.fd < 0) {
            return;
        }
    }
    // A peer that does not read learns of the close from RDHUP, HUP or ERR alone.
    if (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) {
        int err = 0;
        socklen_t len = sizeof(err);
        getsockopt(p.fd, SOL_SOCKET, SO_ERROR, &err, &len);
        ServerClosed(p, (err != 0 || (events & EPOLLERR)) ? End::kReset : End::kEof, now);
    }
}

bool CHostilePeer::WantMoreAttackers() const {
    if (m_fd_exhausted) {
        return false;
    }
    if ((Kind() == Attack::kIdleFlood && m_opt.reopen != 0) || Kind() == Attack::kHalfCloseBurst ||
        IsTlsAttack(Kind())) {
        return m_live_attackers < m_opt.conns;  // every one that ends is replaced
    }
    if (Kind() == Attack::kReset) {
        return m_live_attackers < m_opt.conns && m_a.resets_done + m_live_attackers < m_opt.resets;
    }
    return m_a.opened < m_opt.conns;
}

// Opens the next batch of attackers, keeping at most a few batches of connects in flight.
void CHostilePeer::Ramp(uint64_t now) {
    (void)now;
    if (Kind() == Attack::kNone) {
        return;
    }
    for (long long i = 0; i < m_opt.batch && m_connecting_attackers < 4 * m_opt.batch && WantMoreAttackers();
         ++i) {
        size_t idx = Open(Role::kAttacker);
        if (m_a.opened >= m_opt.conns) {
            ++m_a.reopened;
        }
        ++m_a.opened;
        if (m_peers[idx].end == End::kConnectFailed) {
            ++m_a.connect_failed;
            if (!m_fd_exhausted && Kind() != Attack::kReset) {
                continue;
            }
            break;
        }
        m_attackers.push_back(idx);
        ++m_connecting_attackers;
        ++m_live_attackers;
    }
}

void CHostilePeer::Trickle(uint64_t now) {
    while (!m_trickle.empty() && m_trickle.front().first <= now) {
        size_t idx = m_trickle.front().second;
        m_trickle.pop_front();
        Peer& p = m_peers[idx];
        if (p.fd < 0 || p.limit >= p.pkt) {
            continue;
        }
        if (Kind() == Attack::kTlsSlowHandshake) {
            p.limit = std::min<uint64_t>(p.limit + uint64_t(m_opt.step_bytes), p.pkt);
        } else {
            ++p.limit;
            ++m_a.trickle_bytes;
        }
        Pump(p, now);
        if (p.fd >= 0) {
            m_trickle.emplace_back(now + uint64_t(m_opt.interval_ms) * 1000000ull, idx);
        }
    }
}

// The attack phase is over: note what is still open, then close every attacker.
void CHostilePeer::EndAttack(uint64_t now) {
    (void)now;
    for (size_t idx : m_attackers) {
        Peer& p = m_peers[idx];
        if (p.fd < 0) {
            continue;
        }
        if (p.connecting) {
            ++m_a.still_connecting;
        } else {
            ++m_a.still_open;
            m_a.hb_in_flight += Kind() == Attack::kHalfCloseBurst ? 1 : 0;
            if (Kind() == Attack::kHalfClose) {
                m_a.hc_sent_bytes += (long long)p.sent;
                m_a.hc_recv_bytes += (long long)p.recvd;
            }
        }
        p.end = End::kOurs;
        CloseFd(p);
    }
    m_trickle.clear();
}

void CHostilePeer::SampleRss() {
    if (m_opt.server_pid <= 0) {
        return;
    }
    std::string path = "/proc/" + std::to_string(m_opt.server_pid) + "/status";
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) {
        return;
    }
    char line[256];
    long long kib = -1;
    while (fgets(line, sizeof(line), f) != nullptr) {
        if (strncmp(line, "VmRSS:", 6) == 0) {
            kib = atoll(line + 6);
            break;
        }
    }
    fclose(f);
    if (kib >= 0) {
        PhaseStats& ps = m_phases[m_phase];
        ps.rss_max_kib = std::max(ps.rss_max_kib, kib);
        ps.rss_last_kib = kib;
    }
}

int CHostilePeer::Run() {
    m_ep = epoll_create1(EPOLL_CLOEXEC);
    if (m_ep < 0) {
        perror("hostile_peer: epoll_create1");
        return 1;
    }
    if (!InitTls()) {
        return 1;
    }
    // Honest clients first: all of them must be connected before the clock starts.
    std::vector<size_t>& honest = m_honest;
    for (long long i = 0; i < m_opt.honest; ++i) {
        size_t idx = Open(Role::kHonest);
        if (m_peers[idx].end == End::kConnectFailed) {
            fprintf(stderr, "hostile_peer: cannot connect honest client to %s: %s\n", m_opt.url.c_str(),
                    strerror(m_a.first_connect_errno));
            return 1;
        }
        m_peers[idx].slot = honest.size();
        honest.push_back(idx);
    }
    std::vector<epoll_event> evs(1024);
    uint64_t deadline = NowNs() + 10ull * 1000000000ull;
    for (;;) {
        long long waiting = 0;
        for (size_t idx : honest) {
            const Peer& p = m_peers[idx];
            if (p.end == End::kConnectFailed) {
                fprintf(stderr, "hostile_peer: cannot connect honest client to %s: %s\n", m_opt.url.c_str(),
                        m_tls_error.empty() ? strerror(m_a.first_connect_errno) : m_tls_error.c_str());
                return 1;
            }
            waiting += p.connecting ? 1 : 0;
        }
        if (waiting == 0) {
            break;
        }
        uint64_t now = NowNs();
        if (now >= deadline) {
            fprintf(stderr, "hostile_peer: %lld honest clients still connecting to %s after 10 s\n", waiting,
                    m_opt.url.c_str());
            return 1;
        }
        // Until every honest client is connected nothing is sent (see OnConnected).
        int n = epoll_wait(m_ep, evs.data(), int(evs.size()), 50);
        for (int i = 0; i < n; ++i) {
            Peer& p = m_peers[evs[size_t(i)].data.u64];
            if (p.connecting) {
                OnEvent(size_t(evs[size_t(i)].data.u64), evs[size_t(i)].events, now);
            }
        }
    }
    fprintf(stderr, "hostile_peer: %lld honest clients connected to %s; before phase (%.1f s)\n",
            m_opt.honest, m_opt.url.c_str(), m_opt.before);
    uint64_t phase_start = NowNs();
    m_phase_start_ns = phase_start;
    m_honest_started = true;
    for (size_t idx : honest) {
        Peer& p = m_peers[idx];
        p.limit = p.pkt;
        p.queued_ns = phase_start;
        Pump(p, phase_start);
    }
    const double lengths[kPhases] = {m_opt.before, m_opt.attack_secs, m_opt.after};
    uint64_t phase_end = phase_start + uint64_t(lengths[kBefore] * 1e9);
    SampleRss();
    for (;;) {
        uint64_t now = NowNs();
        if (now >= phase_end) {
            m_phases[m_phase].secs = double(now - phase_start) / 1e9;
            // An echo still awaited when the phase ends counts as a wait up to now.
            for (size_t idx : honest) {
                const Peer& p = m_peers[idx];
                if (p.fd >= 0) {
                    uint64_t w = now - std::max(p.queued_ns, phase_start);
                    m_phases[m_phase].max_wait_ns = std::max(m_phases[m_phase].max_wait_ns, w);
                }
            }
            SampleRss();
            if (m_phase == kAttackPhase) {
                EndAttack(now);
            }
            if (m_phase == kAfter) {
                break;
            }
            m_phase = Phase(m_phase + 1);
            phase_start = now;
            m_phase_start_ns = now;
            phase_end = now + uint64_t(lengths[m_phase] * 1e9);
            if (m_phase == kAttackPhase) {
                m_attack_start_ns = now;
                fprintf(stderr, "hostile_peer: attack phase: %s (%.1f s)\n", m_opt.attack->name,
                        m_opt.attack_secs);
            } else {
                fprintf(stderr, "hostile_peer: after phase (%.1f s)\n", m_opt.after);
            }
            SampleRss();
            m_next_rss_ns = now + 250000000ull;
        }
        if (m_phase == kAttackPhase) {
            Ramp(now);
            Trickle(now);
        }
        if (now >= m_next_rss_ns) {
            SampleRss();
            m_next_rss_ns = now + 250000000ull;
        }
        uint64_t wake = std::min<uint64_t>(phase_end, now + 50000000ull);
        if (!m_trickle.empty()) {
            wake = std::min(wake, m_trickle.front().first);
        }
        int timeout_ms = int((std::max(wake, now) - now + 999999) / 1000000);
        if (m_phase == kAttackPhase && WantMoreAttackers()) {
            timeout_ms = std::min(timeout_ms, 1);
        }
        int n = epoll_wait(m_ep, evs.data(), int(evs.size()), timeout_ms);
        if (n < 0 && errno != EINTR) {
            perror("hostile_peer: epoll_wait");
            return 1;
        }
        now = NowNs();
        for (int i = 0; i < n; ++i) {
            OnEvent(size_t(evs[size_t(i)].data.u64), evs[size_t(i)].events, now);
        }
    }
    // Honest connections that got no echo in a phase.
    for (size_t idx : honest) {
        const Peer& p = m_peers[idx];
        for (int ph = 0; ph < kPhases; ++ph) {
            m_phases[ph].starved += p.echoes[ph] == 0 ? 1 : 0;
        }
    }
    Report();
    return m_echo_errors > 0 ? 1 : 0;
}

// ---- report ----

double Quantile(std::vector<double> v, double q) {
    if (v.empty()) {
        return -1;
    }
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(q * double(v.size() - 1) + 0.5))];
}

double QuantileMs(std::vector<uint32_t>& v, double q) {
    if (v.empty()) {
        return -1;
    }
    size_t k = std::min(v.size() - 1, size_t(q * double(v.size() - 1) + 0.5));
    std::nth_element(v.begin(), v.begin() + long(k), v.end());
    return v[k] / 1000.0;
}

std::string Num(double v, const char* fmt = "%.3f") {
    if (v < 0) {
        return "null";
    }
    char buf[64];
    snprintf(buf, sizeof(buf), fmt, v);
    return buf;
}

void CHostilePeer::Report() {
    FILE* out = m_opt.json ? stderr : stdout;
    double before = m_phases[kBefore].Rate();
    double after = m_phases[kAfter].Rate();
    // The baseline is the mean of the honest phases that ran; a phase of 0 s does not count.
    int ran = (m_opt.before > 0 ? 1 : 0) + (m_opt.after > 0 ? 1 : 0);
    double base = ran > 0 ? ((m_opt.before > 0 ? before : 0) + (m_opt.after > 0 ? after : 0)) / ran : 0;
    double ratio = base > 0 ? m_phases[kAttackPhase].Rate() / base : -1;
    double p50[kPhases], p99[kPhases];
    for (int ph = 0; ph < kPhases; ++ph) {
        p50[ph] = QuantileMs(m_phases[ph].rtt_us, 0.50);
        p99[ph] = QuantileMs(m_phases[ph].rtt_us, 0.99);
    }
    double first = Quantile(m_a.close_times, 0);
    double median = Quantile(m_a.close_times, 0.5);
    double last = Quantile(m_a.close_times, 1);
    const bool halfclose = Kind() == Attack::kHalfClose;
    const char* attack_name = halfclose && m_opt.pipelined > 0 ? "halfclose-pipelined" : m_opt.attack->name;

    fprintf(out, "hostile_peer: attack %s against %s; %lld honest clients x %lld B ping-pong%s\n",
            attack_name, m_opt.url.c_str(), m_opt.honest, m_opt.honest_size,
            m_opt.tls.enabled ? " over TLS" : "");
    fprintf(out, "%-7s %7s %10s %11s %8s %8s %9s %8s %8s %14s\n", "phase", "secs", "echoes", "echoes/s",
            "p50 ms", "p99 ms", "max wait", "starved", "closed", "server RSS MiB");
    for (int ph = 0; ph < kPhases; ++ph) {
        const PhaseStats& ps = m_phases[ph];
        fprintf(out, "%-7s %7.2f %10lld %11.1f %8s %8s %9s %8lld %8lld %14s\n", kPhaseNames[ph], ps.secs,
                ps.echoes, ps.Rate(), Num(p50[ph]).c_str(), Num(p99[ph]).c_str(),
                Num(double(ps.max_wait_ns) / 1e6, "%.1f").c_str(), ps.starved, ps.honest_closed,
                ps.rss_max_kib >= 0 ? Num(ps.rss_max_kib / 1024.0, "%.1f").c_str() : "-");
    }
    fprintf(out, "ratio attack / mean(before, after): %s\n", Num(ratio).c_str());
    if (m_echo_errors > 0) {
        fprintf(out, "ECHO ERRORS: %lld echoes differed from what was sent\n", m_echo_errors);
    }
    if (Kind() != Attack::kNone) {
        fprintf(
            out,
            "attackers: %lld opened, %lld connected, %lld failed to connect%s%s; closed by the server: %zu "
            "(%lld EOF, %lld reset)",
            m_a.opened, m_a.connected, m_a.connect_failed, m_a.first_connect_errno != 0 ? " (first: " : "",
            m_a.first_connect_errno != 0 ? (std::string(strerror(m_a.first_connect_errno)) + ")").c_str()
                                         : "",
            m_a.close_times.size(), m_a.closed_eof, m_a.closed_rst);
        if (!m_a.close_times.empty()) {
            fprintf(out, " at %.2f s first, %.2f s median, %.2f s last after the attack began", first, median,
                    last);
        }
        fprintf(out, "; still open at the end of the attack: %lld", m_a.still_open);
        if (m_a.still_connecting > 0) {
            fprintf(out, " (and %lld never connected)", m_a.still_connecting);
        }
        fprintf(out, "\n");
        if (m_fd_exhausted) {
            fprintf(
                out,
                "note: this process ran out of descriptors; fewer attackers than asked for were opened\n");
        }
        if (m_a.unexpected_bytes > 0) {
            fprintf(out, "the server sent %lld bytes where no reply was due\n", m_a.unexpected_bytes);
        }
    }
    switch (Kind()) {
        case Attack::kSilent:
            fprintf(out, "silent: each announced a %lld-byte packet and sent its 4-byte header only\n",
                    m_opt.size);
            break;
        case Attack::kTrickle:
            fprintf(
                out,
                "trickle: %lld bytes trickled, one per connection every %lld ms, towards %lld-byte packets\n",
                m_a.trickle_bytes, m_opt.interval_ms, m_opt.size);
            break;
        case Attack::kReset:
            fprintf(out, "reset: %lld of %lld resets done (%lld-byte packets, %lld at a time)\n",
                    m_a.resets_done, m_opt.resets, m_opt.size, m_opt.conns);
            break;
        case Attack::kHalfClose:
            if (m_opt.pipelined > 0) {
                fprintf(
                    out,
                    "halfclose-pipelined: %lld of %lld x %lld-byte packets sent (%lld bytes), then SHUT_WR; "
                    "%lld packets (%lld bytes) echoed before the end; %lld bytes lost%s\n",
                    m_a.hc_sent_bytes / m_opt.size, m_opt.pipelined, m_opt.size, m_a.hc_sent_bytes,
                    m_a.hc_recv_bytes / m_opt.size, m_a.hc_recv_bytes, m_a.hc_bytes_lost,
                    m_a.still_open > 0 ? " (the connection was still open at the end of the attack)" : "");
            } else {
                fprintf(
                    out,
                    "halfclose: %lld clients sent one %lld-byte request then SHUT_WR; of the %lld that saw "
                    "the end: %lld got the full reply, %lld part of it, %lld nothing; %lld bytes lost\n",
                    m_a.connected, m_opt.size, m_a.hc_clients, m_a.hc_full, m_a.hc_partial, m_a.hc_none,
                    m_a.hc_bytes_lost);
            }
            break;
        case Attack::kHalfCloseBurst: {
            double secs = m_phases[kAttackPhase].secs;
            fprintf(
                out,
                "halfclose-burst: %lld clients ended (%lld at a time), each sent %lld x %lld-byte requests "
                "then SHUT_WR; requests answered whole before the end: %lld / %lld (%.2f%%), %.1f/s; "
                "replies lost %lld; clients short of replies %lld, torn %lld, reset %lld; %lld still "
                "open at the end of the attack\n",
                m_a.hb_clients, m_opt.conns, m_opt.requests, m_opt.size, m_a.hb_answered, m_a.hb_requests,
                m_a.hb_requests > 0 ? 100.0 * double(m_a.hb_answered) / double(m_a.hb_requests) : 0.0,
                secs > 0 ? double(m_a.hb_answered) / secs : 0.0, m_a.hb_requests - m_a.hb_answered,
                m_a.hb_short, m_a.hb_torn, m_a.hb_resets, m_a.hb_in_flight);
            break;
        }
        case Attack::kTlsSlowHandshake: {
            double whole =
                double(m_hello.size()) / double(m_opt.step_bytes) * double(m_opt.interval_ms) / 1000;
            fprintf(
                out,
                "tls-slow-handshake: a %zu-byte ClientHello, %lld bytes every %lld ms (%.1f s for a whole "
                "one); %lld bytes sent, %lld connections sent a whole one; the server sent %lld bytes\n",
                m_hello.size(), m_opt.step_bytes, m_opt.interval_ms, whole, m_a.tls_hello_bytes,
                m_a.tls_hello_done, m_a.tls_server_bytes);
            break;
        }
        case Attack::kTlsSilent:
            fprintf(out,
                    "tls-silent: %lld connections kept open sending nothing; the server sent %lld bytes\n",
                    m_opt.conns, m_a.tls_server_bytes);
            break;
        case Attack::kTlsGarbage:
            fprintf(out,
                    "tls-garbage: %lld connections (%lld at a time) sent %lld bytes that are not TLS; the "
                    "server sent %lld bytes back (alerts)\n",
                    m_a.connected, m_opt.conns, m_a.tls_garbage_bytes, m_a.tls_server_bytes);
            break;
        case Attack::kTlsHelloFlood: {
            double secs = m_phases[kAttackPhase].secs;
            fprintf(
                out,
                "tls-hello-flood: %lld hellos answered by the server (%.1f/s, %lld at a time), each closed "
                "at once\n",
                m_a.tls_handshakes, secs > 0 ? double(m_a.tls_handshakes) / secs : 0.0, m_opt.conns);
            break;
        }
        case Attack::kTlsHandshakeFlood: {
            double secs = m_phases[kAttackPhase].secs;
            fprintf(
                out,
                "tls-handshake-flood: %lld full handshakes completed (%.1f/s, %lld at a time), each closed "
                "at once; %lld failed\n",
                m_a.tls_handshakes, secs > 0 ? double(m_a.tls_handshakes) / secs : 0.0, m_opt.conns,
                m_a.tls_failed);
            break;
        }
        case Attack::kIdleFlood:
            fprintf(
                out,
                "idle-flood: %lld idle connections kept open from %lld source addresses, %lld reopened after "
                "the server closed them; honest clients reconnected %lld times (every %lld echoes; %lld "
                "reconnects failed)\n",
                m_opt.conns, m_opt.sources, m_a.reopened, m_a.honest_reconnects, m_opt.honest_reconnect,
                m_a.honest_connect_failed);
            break;
        default:
            break;
    }
    fflush(out);
    if (!m_opt.json) {
        return;
    }
    std::string j = "{\"attack\":\"";
    j += attack_name;
    j += "\",\"url\":\"" + m_opt.url + "\",\"honest\":" + std::to_string(m_opt.honest) +
         ",\"honest_size\":" + std::to_string(m_opt.honest_size);
    j += ",\"phases\":{";
    for (int ph = 0; ph < kPhases; ++ph) {
        const PhaseStats& ps = m_phases[ph];
        j += std::string(ph > 0 ? "," : "") + "\"" + kPhaseNames[ph] + "\":{\"secs\":" + Num(ps.secs) +
             ",\"echoes\":" + std::to_string(ps.echoes) + ",\"echoes_per_s\":" + Num(ps.Rate(), "%.1f") +
             ",\"p50_ms\":" + Num(p50[ph]) + ",\"p99_ms\":" + Num(p99[ph]) +
             ",\"max_wait_ms\":" + Num(double(ps.max_wait_ns) / 1e6) +
             ",\"starved\":" + std::to_string(ps.starved) +
             ",\"honest_closed\":" + std::to_string(ps.honest_closed) +
             ",\"rss_max_kib\":" + (ps.rss_max_kib >= 0 ? std::to_string(ps.rss_max_kib) : "null") +
             ",\"rss_last_kib\":" + (ps.rss_last_kib >= 0 ? std::to_string(ps.rss_last_kib) : "null") + "}";
    }
    j += "},\"tls\":" + std::string(m_opt.tls.enabled ? "true" : "false");
    j += ",\"ratio\":" + Num(ratio, "%.4f") + ",\"echo_errors\":" + std::to_string(m_echo_errors);
    j += ",\"attackers\":{\"conns\":" + std::to_string(m_opt.conns) +
         ",\"size\":" + std::to_string(m_opt.size) + ",\"opened\":" + std::to_string(m_a.opened) +
         ",\"connected\":" + std::to_string(m_a.connected) +
         ",\"connect_failed\":" + std::to_string(m_a.connect_failed) +
         ",\"closed_by_server\":" + std::to_string(m_a.close_times.size()) +
         ",\"closed_eof\":" + std::to_string(m_a.closed_eof) +
         ",\"closed_rst\":" + std::to_string(m_a.closed_rst) + ",\"close_first_s\":" + Num(first) +
         ",\"close_median_s\":" + Num(median) + ",\"close_last_s\":" + Num(last) +
         ",\"still_open\":" + std::to_string(m_a.still_open) +
         ",\"never_connected\":" + std::to_string(m_a.still_connecting) +
         ",\"unexpected_bytes\":" + std::to_string(m_a.unexpected_bytes) +
         ",\"fd_exhausted\":" + (m_fd_exhausted ? "true" : "false") + "}";
    switch (Kind()) {
        case Attack::kTrickle:
            j += ",\"trickle\":{\"bytes\":" + std::to_string(m_a.trickle_bytes) +
                 ",\"interval_ms\":" + std::to_string(m_opt.interval_ms) + "}";
            break;
        case Attack::kReset:
            j += ",\"reset\":{\"done\":" + std::to_string(m_a.resets_done) +
                 ",\"wanted\":" + std::to_string(m_opt.resets) + "}";
            break;
        case Attack::kHalfClose:
            j += ",\"halfclose\":{\"pipelined\":" + std::to_string(m_opt.pipelined) +
                 ",\"clients_ended\":" + std::to_string(m_a.hc_clients) +
                 ",\"full\":" + std::to_string(m_a.hc_full) +
                 ",\"partial\":" + std::to_string(m_a.hc_partial) +
                 ",\"none\":" + std::to_string(m_a.hc_none) +
                 ",\"bytes_sent\":" + std::to_string(m_a.hc_sent_bytes) +
                 ",\"bytes_received\":" + std::to_string(m_a.hc_recv_bytes) +
                 ",\"packets_received\":" + std::to_string(m_a.hc_recv_bytes / m_opt.size) +
                 ",\"bytes_lost\":" + std::to_string(m_a.hc_bytes_lost) + "}";
            break;
        case Attack::kHalfCloseBurst: {
            double secs = m_phases[kAttackPhase].secs;
            j += ",\"halfclose_burst\":{\"requests_per_client\":" + std::to_string(m_opt.requests) +
                 ",\"clients_ended\":" + std::to_string(m_a.hb_clients) +
                 ",\"requests\":" + std::to_string(m_a.hb_requests) +
                 ",\"answered\":" + std::to_string(m_a.hb_answered) +
                 ",\"lost\":" + std::to_string(m_a.hb_requests - m_a.hb_answered) +
                 ",\"answered_per_s\":" + Num(secs > 0 ? double(m_a.hb_answered) / secs : 0.0, "%.1f") +
                 ",\"clients_short\":" + std::to_string(m_a.hb_short) +
                 ",\"torn\":" + std::to_string(m_a.hb_torn) + ",\"resets\":" + std::to_string(m_a.hb_resets) +
                 ",\"in_flight_at_end\":" + std::to_string(m_a.hb_in_flight) + "}";
            break;
        }
        case Attack::kTlsSlowHandshake:
        case Attack::kTlsSilent:
        case Attack::kTlsGarbage:
        case Attack::kTlsHandshakeFlood:
        case Attack::kTlsHelloFlood: {
            double secs = m_phases[kAttackPhase].secs;
            j += ",\"tls_attack\":{\"hello_bytes\":" + std::to_string(m_hello.size()) +
                 ",\"step_bytes\":" + std::to_string(m_opt.step_bytes) +
                 ",\"interval_ms\":" + std::to_string(m_opt.interval_ms) +
                 ",\"hello_bytes_sent\":" + std::to_string(m_a.tls_hello_bytes) +
                 ",\"hello_whole\":" + std::to_string(m_a.tls_hello_done) +
                 ",\"garbage_bytes\":" + std::to_string(m_a.tls_garbage_bytes) +
                 ",\"server_bytes\":" + std::to_string(m_a.tls_server_bytes) +
                 ",\"handshakes\":" + std::to_string(m_a.tls_handshakes) +
                 ",\"handshakes_per_s\":" + Num(secs > 0 ? double(m_a.tls_handshakes) / secs : 0.0, "%.1f") +
                 ",\"failed\":" + std::to_string(m_a.tls_failed) + "}";
            break;
        }
        case Attack::kIdleFlood:
            j += ",\"idle_flood\":{\"sources\":" + std::to_string(m_opt.sources) +
                 ",\"reopened\":" + std::to_string(m_a.reopened) +
                 ",\"honest_reconnect\":" + std::to_string(m_opt.honest_reconnect) +
                 ",\"honest_reconnects\":" + std::to_string(m_a.honest_reconnects) +
                 ",\"honest_connect_failed\":" + std::to_string(m_a.honest_connect_failed) + "}";
            break;
        default:
            break;
    }
    j += "}";
    printf("%s\n", j.c_str());
    fflush(stdout);
}

// Attackers need far more descriptors than the usual soft limit of 1024.
void RaiseFdLimit() {
    rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options opt = ParseArgs(argc, argv);
    signal(SIGPIPE, SIG_IGN);
    RaiseFdLimit();
    CHostilePeer tool(opt);
    return tool.Run();
}
