// Shared pieces of the example programs: the echo server's handler, the verifying echo
// client, argument helpers and signal handling. Header-only so that every example stays a
// single executable.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "net/connector_mgr.h"
#include "net/length_parser.h"

namespace echo {

using QUOLNET::CConnectorMgr;
using QUOLNET::CLengthPrefixParser;
using QUOLNET::ConnId;

// ---- signals ----

inline std::atomic<CConnectorMgr*>& SignalTargets(int i) {
    static std::atomic<CConnectorMgr*> targets[2];
    return targets[i];
}

inline void OnStopSignal(int) {
    for (int i = 0; i < 2; ++i) {
        CConnectorMgr* m = SignalTargets(i).load();
        if (m != nullptr) {
            m->Stop();  // async-signal-safe
        }
    }
}

// SIGINT and SIGTERM stop the given managers.
inline void StopOnSignals(CConnectorMgr* a, CConnectorMgr* b = nullptr) {
    SignalTargets(0).store(a);
    SignalTargets(1).store(b);
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

// ---- arguments ----

// Parses a non-negative integer; false when `text` is not one or exceeds `max`.
inline bool ParseCount(const char* text, long long max, long long* out) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < 0 || v > max) {
        return false;
    }
    *out = v;
    return true;
}

// Parses "1,100,65536" into payload sizes (each 0..max).
inline bool ParseSizes(const char* text, unsigned int max, std::vector<unsigned int>* out) {
    out->clear();
    std::string s = text != nullptr ? text : "";
    size_t pos = 0;
    while (pos <= s.size()) {
        size_t comma = s.find(',', pos);
        std::string item = s.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        long long v = 0;
        if (!ParseCount(item.c_str(), max, &v)) {
            return false;
        }
        out->push_back(static_cast<unsigned int>(v));
        if (comma == std::string::npos) {
            break;
        }
        pos = comma + 1;
    }
    return !out->empty();
}

// Exits with code 2 and a clear message when `url` is not a tcp:// URL we can use.
inline void RequireURL(const char* prog, const char* url) {
    struct sockaddr_storage addr;
    socklen_t len = 0;
    std::string why;
    if (QUOLNET::CTcpListener::ParseURL(url, &addr, &len, &why) != 0) {
        fprintf(stderr, "%s: invalid URL '%s': %s (expected tcp://a.b.c.d:port or tcp://[v6]:port)\n", prog,
                url != nullptr ? url : "", why.c_str());
        exit(2);
    }
}

inline int64_t NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// What a connection negotiated, for a log line: "TLSv1.3 TLS_AES_256_GCM_SHA384, peer
// CN=localhost, ALPN echo", or "plain TCP" without a stream layer. Loop thread.
inline std::string DescribeStream(CConnectorMgr* mgr, ConnId id) {
    QUOLNET::CTcpConnector* c = mgr->GetConnector(id);
    QUOLNET::IStreamIo* io = c != nullptr ? c->GetStreamIo() : nullptr;
    if (io == nullptr) {
        return "plain TCP";
    }
    std::string s = io->Describe();
    if (!io->PeerSubject().empty()) {
        s += ", peer " + io->PeerSubject();
    }
    if (!io->Alpn().empty()) {
        s += ", ALPN " + io->Alpn();
    }
    return s;
}

// ---- server ----

// Echoes every packet back unchanged. When a tick yields several packets for one
// connection the replies are corked and leave with one flush at the end of the tick.
class EchoServerHandler : public QUOLNET::IConnectorHandler {
  public:
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) override {
        // Several packets in one tick: cork the replies; the last one (more false) joins them
        // in Send, and the run leaves with one flush at the end of the tick.
        int ret = more ? mgr->SendCorked(id, data, len) : mgr->Send(id, data, len);
        if (ret == CConnectorMgr::kSendNoRoom) {
            // No room now: keeping the packet pauses the connection, and the manager resumes
            // it (this packet first) when there is room again.
            return false;
        }
        if (ret > 0) {
            ++m_packets;  // echoed; a refused reply (the connection ending, too large) is not
        }
        return true;
    }
    void OnConnected(CConnectorMgr*, ConnId, const char*, bool) override { ++m_connections; }

    long long Packets() const { return m_packets; }
    long long Connections() const { return m_connections; }

  protected:
    void CountPacket() { ++m_packets; }

  private:
    // Atomic: with several loops (echo_server --threads) the handler runs on each loop's thread.
    std::atomic<long long> m_packets{0};
    std::atomic<long long> m_connections{0};
};

// ---- client ----

struct ClientConfig {
    std::string url;
    int conns = 4;
    long long packets = 1000;  // per connection; 0: until the duration ends
    double duration_sec = 0;   // > 0: stop sending after this long
    std::vector<unsigned int> sizes{1, 100, 1000, 65536, 200000};  // payload bytes
    int depth = 4;                                                 // packets in flight per connection
    bool progress = false;                                         // one-line progress on stdout
    unsigned int max_packet = CLengthPrefixParser::kDefaultMaxPacketLen;
    // A stream layer for every dial (a TLS client context, echo_tls.h); null: plain TCP.
    std::shared_ptr<QUOLNET::IStreamIoFactory> stream;
    // Print what the first connection negotiated once it is connected (prefixed with this
    // program name); null: print nothing.
    const char* describe_as = nullptr;
};

struct ClientSummary {
    long long packets = 0;  // verified echoes
    long long bytes = 0;    // verified echo bytes (headers included)
    long long errors = 0;   // mismatches, lost connections, failed sends
    double seconds = 0;
    double p50_ms = 0;
    double p99_ms = 0;
};

// Opens `conns` connections, keeps `depth` packets in flight on each and checks every echo
// byte for byte. Runs on the manager's loop thread; stops the manager when done.
class EchoClient : public QUOLNET::IConnectorHandler {
  public:
    explicit EchoClient(const ClientConfig& cfg) : m_cfg(cfg) {}

    // Dials every connection; call before running the manager.
    bool Start(CConnectorMgr* mgr) {
        m_mgr = mgr;
        m_start_us = NowUs();
        m_last_progress_us = m_start_us;
        QUOLNET::DialOptions dial;
        dial.connect_timeout_ms = 3000;  // with a stream layer, its handshake included
        dial.socket.stream = m_cfg.stream;
        for (int i = 0; i < m_cfg.conns; ++i) {
            ConnId id = mgr->Dial(m_cfg.url.c_str(), dial);
            if (id == 0) {
                return false;
            }
            m_conns[id].index = i;
        }
        return true;
    }

    void OnConnected(CConnectorMgr* mgr, ConnId id, const char*, bool) override {
        auto it = m_conns.find(id);
        if (it != m_conns.end()) {
            if (m_cfg.describe_as != nullptr && !m_described) {
                m_described = true;
                printf("%s: connected to %s: %s\n", m_cfg.describe_as, m_cfg.url.c_str(),
                       DescribeStream(mgr, id).c_str());
                fflush(stdout);
            }
            it->second.connected = true;
            Pump(id, it->second);
        }
    }

    bool OnPacket(CConnectorMgr*, ConnId id, const char* data, unsigned int len, bool) override {
        auto it = m_conns.find(id);
        if (it == m_conns.end()) {
            return true;
        }
        Conn& c = it->second;
        if (c.inflight.empty()) {
            Error("unexpected packet", id);
            return true;
        }
        Outstanding o = c.inflight.front();
        c.inflight.pop_front();
        if (len != o.total || !Verify(data, len, o.seed)) {
            Error("echo mismatch", id);
        } else {
            ++m_summary.packets;
            m_summary.bytes += len;
            m_rtt_us.push_back(static_cast<uint32_t>(std::min<int64_t>(NowUs() - o.sent_us, UINT32_MAX)));
        }
        ++c.received;
        Pump(id, c);
        return true;
    }

    void OnClosed(CConnectorMgr*, ConnId id, const QUOLNET::CloseInfo& info) override {
        auto it = m_conns.find(id);
        if (it == m_conns.end()) {
            return;
        }
        if (!it->second.done) {
            Error(it->second.connected ? "connection lost" : "cannot connect", id, &info);
        }
        m_conns.erase(it);
        CheckDone();
    }

    void OnWritable(CConnectorMgr*, ConnId id) override {
        auto it = m_conns.find(id);
        if (it != m_conns.end()) {
            Pump(id, it->second);
        }
    }

    void OnTick(CConnectorMgr*) override {
        if (SendingOver() && !m_finished) {
            PumpAll();  // connections idle since the duration ended are done now
        }
        if (m_cfg.progress) {
            int64_t now = NowUs();
            if (now - m_last_progress_us >= 200000) {
                m_last_progress_us = now;
                double sec = (now - m_start_us) / 1e6;
                printf("\r%6.1fs  %lld packets  %.1f MiB  %.1f MiB/s  errors %lld   ", sec, m_summary.packets,
                       m_summary.bytes / 1048576.0, sec > 0 ? m_summary.bytes / 1048576.0 / sec : 0.0,
                       m_summary.errors);
                fflush(stdout);
            }
        }
    }

    ClientSummary Summary() {
        ClientSummary s = m_summary;
        s.seconds = (m_end_us != 0 ? m_end_us : NowUs()) - m_start_us;
        s.seconds /= 1e6;
        if (!m_rtt_us.empty()) {
            std::vector<uint32_t> v = m_rtt_us;
            std::sort(v.begin(), v.end());
            s.p50_ms = v[v.size() / 2] / 1000.0;
            s.p99_ms = v[std::min(v.size() - 1, v.size() * 99 / 100)] / 1000.0;
        }
        return s;
    }

    bool Finished() const { return m_finished; }

    static void PrintSummary(const ClientSummary& s, FILE* out) {
        fprintf(out,
                "summary: %lld packets, %lld bytes in %.2f s, %.1f MiB/s, %.0f packets/s, round trip p50 "
                "%.3f ms, "
                "p99 %.3f ms, errors %lld\n",
                s.packets, s.bytes, s.seconds, s.seconds > 0 ? s.bytes / 1048576.0 / s.seconds : 0.0,
                s.seconds > 0 ? s.packets / s.seconds : 0.0, s.p50_ms, s.p99_ms, s.errors);
    }

  private:
    struct Outstanding {
        unsigned int total;
        uint32_t seed;
        int64_t sent_us;
    };
    struct Conn {
        int index = 0;
        bool connected = false;
        bool done = false;
        long long sent = 0;
        long long received = 0;
        std::deque<Outstanding> inflight;
        std::vector<char> blocked;  // a built packet the pool could not take yet
        uint32_t blocked_seed = 0;
    };

    static uint8_t Byte(uint32_t seed, uint32_t i) {
        return static_cast<uint8_t>((seed >> (i & 15)) + i * 131u + (i >> 9));
    }
    static void Fill(char* p, unsigned int total, uint32_t seed) {
        CLengthPrefixParser::WriteHeader(p, total);
        for (uint32_t i = 4; i < total; ++i) {
            p[i] = static_cast<char>(Byte(seed, i));
        }
    }
    static bool Verify(const char* p, unsigned int total, uint32_t seed) {
        if (CLengthPrefixParser::ReadHeader(p) != total) {
            return false;
        }
        for (uint32_t i = 4; i < total; ++i) {
            if (static_cast<uint8_t>(p[i]) != Byte(seed, i)) {
                return false;
            }
        }
        return true;
    }

    bool SendingOver() const {
        return m_cfg.duration_sec > 0 &&
               NowUs() - m_start_us >= static_cast<int64_t>(m_cfg.duration_sec * 1e6);
    }

    void Pump(ConnId id, Conn& c) {
        if (!c.connected || c.done) {
            return;
        }
        bool over = SendingOver();
        while (!over && static_cast<int>(c.inflight.size()) < m_cfg.depth &&
               (m_cfg.packets == 0 || c.sent < m_cfg.packets)) {
            if (c.blocked.empty()) {
                unsigned int payload = m_cfg.sizes[(c.index + c.sent) % m_cfg.sizes.size()];
                unsigned int total = std::min(payload + 4, m_cfg.max_packet);
                c.blocked_seed = static_cast<uint32_t>(c.index * 2654435761u + c.sent * 40503u + 1);
                c.blocked.resize(total);
                Fill(c.blocked.data(), total, c.blocked_seed);
            }
            unsigned int total = static_cast<unsigned int>(c.blocked.size());
            int64_t now = NowUs();
            int ret = m_mgr->Send(id, c.blocked.data(), total);
            if (ret == CConnectorMgr::kSendNoRoom) {
                return;  // no room now; OnWritable resumes this connection
            }
            if (ret < 0) {
                Error("send failed", id);
                c.done = true;
                m_mgr->Close(id);
                return;
            }
            c.inflight.push_back(Outstanding{total, c.blocked_seed, now});
            c.blocked.clear();
            ++c.sent;
        }
        if (c.inflight.empty() && (over || (m_cfg.packets != 0 && c.sent >= m_cfg.packets))) {
            c.done = true;
            CheckDone();
        }
    }

    void PumpAll() {
        for (auto& kv : m_conns) {
            Pump(kv.first, kv.second);
        }
        CheckDone();
    }

    void CheckDone() {
        if (m_finished) {
            return;
        }
        for (auto& kv : m_conns) {
            if (!kv.second.done) {
                return;
            }
        }
        m_finished = true;
        m_end_us = NowUs();
        if (m_cfg.progress) {
            printf("\n");
        }
        m_mgr->Stop();
    }

    void Error(const char* what, ConnId id, const QUOLNET::CloseInfo* info = nullptr) {
        ++m_summary.errors;
        if (m_summary.errors <= 10) {
            fprintf(stderr, "error: %s on connection %llu%s%s (%s)\n", what,
                    static_cast<unsigned long long>(id), info != nullptr ? ": " : "",
                    info != nullptr ? QUOLNET::CloseReasonName(info->reason) : "",
                    info != nullptr ? QUOLNET::CloseErrorText(*info) : "-");
        }
    }

    ClientConfig m_cfg;
    CConnectorMgr* m_mgr = nullptr;
    std::unordered_map<ConnId, Conn> m_conns;
    ClientSummary m_summary;
    std::vector<uint32_t> m_rtt_us;
    int64_t m_start_us = 0;
    int64_t m_end_us = 0;
    int64_t m_last_progress_us = 0;
    bool m_finished = false;
    bool m_described = false;  // the first connection's protocol was printed
};

}  // namespace echo
