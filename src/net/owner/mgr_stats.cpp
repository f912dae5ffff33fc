// CMgrStats: close counters by reason, the traffic of connections that are gone, the
// statistics table and the metrics snapshot.
#include "net/owner/mgr_stats.h"

#include <netdb.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "net/owner/metrics.h"

namespace QUOLNET {

const char* CloseReasonName(CloseReason reason) {
    switch (reason) {
        case CloseReason::kPeerClosed:
            return "peer_closed";
        case CloseReason::kReset:
            return "reset";
        case CloseReason::kIoError:
            return "io_error";
        case CloseReason::kFramingError:
            return "framing_error";
        case CloseReason::kClosedLocally:
            return "closed_locally";
        case CloseReason::kLimit:
            return "limit";
        case CloseReason::kDialRefused:
            return "dial_refused";
        case CloseReason::kDialTimeout:
            return "dial_timeout";
        case CloseReason::kDialResolveFailed:
            return "dial_resolve_failed";
        case CloseReason::kHandshakeFailed:
            return "handshake_failed";
        case CloseReason::kTruncated:
            return "truncated";
        case CloseReason::kHandedOver:
            return "handed_over";
    }
    return "unknown";
}

const char* CloseErrorText(const CloseInfo& info) {
    if (info.text != nullptr && info.text[0] != '\0') {
        return info.text;
    }
    if (info.error == 0) {
        return "-";
    }
    if (info.reason == CloseReason::kDialResolveFailed) {
        return gai_strerror(info.error);
    }
    thread_local char text[64];
    if (info.reason == CloseReason::kFramingError) {
        snprintf(text, sizeof(text), "parser code %d", info.error);
        return text;
    }
    return strerror_r(info.error, text, sizeof(text));
}

const char* CloseLimitName(CloseLimit limit) {
    switch (limit) {
        case CloseLimit::kNone:
            return "none";
        case CloseLimit::kSendStall:
            return "send_stall";
        case CloseLimit::kPacketDeadline:
            return "packet_deadline";
        case CloseLimit::kIdleTimeout:
            return "idle_timeout";
        case CloseLimit::kPoolPressure:
            return "pool_pressure";
        case CloseLimit::kPacketTooLong:
            return "packet_too_long";
        case CloseLimit::kRecvBlocks:
            return "recv_blocks";
        case CloseLimit::kIdleEvicted:
            return "idle_evicted";
        case CloseLimit::kHandshakeTimeout:
            return "handshake_timeout";
    }
    return "unknown";
}

const char* AcceptRefusalName(AcceptRefusal reason) {
    switch (reason) {
        case AcceptRefusal::kPerSource:
            return "per_source";
        case AcceptRefusal::kSocketSetup:
            return "socket_setup";
        case AcceptRefusal::kOverLimit:
            return "over_limit";
    }
    return "unknown";
}

void CMgrStats::CountClose(const CloseInfo& info) {
    ++m_close_cnt[static_cast<int>(info.reason)];
    if (info.reason == CloseReason::kLimit) {
        ++m_limit_cnt[static_cast<int>(info.limit)];
    }
}

uint64_t CMgrStats::GetCloseCount(CloseReason reason) const {
    int i = static_cast<int>(reason);
    return i >= 0 && i < kCloseReasonCount ? static_cast<uint64_t>(m_close_cnt[i]) : 0;
}

uint64_t CMgrStats::GetLimitCloseCount(CloseLimit limit) const {
    int i = static_cast<int>(limit);
    return i >= 0 && i < kCloseLimitCount ? static_cast<uint64_t>(m_limit_cnt[i]) : 0;
}

TrafficCounts CMgrStats::TrafficOf(CTcpConnector* k) {
    TrafficCounts t;
    t.bytes_sent = static_cast<uint64_t>(std::max<int64_t>(0, k->GetSentBytes()));
    t.bytes_received = static_cast<uint64_t>(std::max<int64_t>(0, k->GetRecvBytes()));
    t.packets_received = static_cast<uint64_t>(std::max<long>(0, k->GetRecvPacketCount()));
    t.packets_sent = static_cast<uint64_t>(std::max<int64_t>(0, k->GetSentPacketCount()));
    return t;
}

void CMgrStats::AddEnded(const TrafficCounts& t) {
    m_ended.bytes_sent += t.bytes_sent;
    m_ended.bytes_received += t.bytes_received;
    m_ended.packets_sent += t.packets_sent;
    m_ended.packets_received += t.packets_received;
}

void CMgrStats::AddArrived(const TrafficCounts& t) {
    m_arrived.bytes_sent += t.bytes_sent;
    m_arrived.bytes_received += t.bytes_received;
    m_arrived.packets_sent += t.packets_sent;
    m_arrived.packets_received += t.packets_received;
}

void CMgrStats::Snapshot(const CConnTable& table, MgrMetrics* out) const {
    for (int i = 0; i < kCloseReasonCount; ++i) {
        out->closes[i] = m_close_cnt[i];
    }
    for (int i = 0; i < kCloseLimitCount; ++i) {
        out->limit_closes[i] = m_limit_cnt[i];
    }
    for (int i = 0; i < kAcceptRefusalCount; ++i) {
        out->accept_refused[i] = m_refused_cnt[i];
    }
    out->send_too_large = m_too_large_cnt.load();
    out->pool_exhausted = m_pool_exhausted_cnt;
    TrafficCounts sum = m_ended;
    for (const auto& kv : table.ById()) {
        const OwnedConn* c = kv.second;
        // A dial in progress or waiting to redial is between sessions: the last one is in
        // m_ended already, and Connect clears the connector's counters for the next.
        if (c->dead || c->state == CONN_CONNECTING || c->state == CONN_WAIT_RETRY) {
            continue;
        }
        TrafficCounts t = TrafficOf(c->connector.get());
        sum.bytes_sent += t.bytes_sent;
        sum.bytes_received += t.bytes_received;
        sum.packets_sent += t.packets_sent;
        sum.packets_received += t.packets_received;
    }
    out->bytes_sent = sum.bytes_sent - m_arrived.bytes_sent;
    out->bytes_received = sum.bytes_received - m_arrived.bytes_received;
    out->packets_sent = sum.packets_sent - m_arrived.packets_sent;
    out->packets_received = sum.packets_received - m_arrived.packets_received;
}

std::string CMgrStats::FormatHeader(size_t conns, CNetBufferMgr* pool, unsigned int pool_free,
                                    int accept_pauses, uint64_t limit_pauses) const {
    char line[512];
    std::string out;
    snprintf(line, sizeof(line), "connections: %zu, pool blocks in use: %u (peak %u) of %u, free %u\n", conns,
             pool != nullptr ? pool->GetUsedCount() : 0u, pool != nullptr ? pool->GetPeakUsedCount() : 0u,
             pool != nullptr ? pool->GetMaxBlockNum() : 0u, pool != nullptr ? pool_free : 0u);
    out += line;
    out += "closed:";
    for (int i = 0; i < kCloseReasonCount; ++i) {
        snprintf(line, sizeof(line), " %s %llu", CloseReasonName(static_cast<CloseReason>(i)),
                 static_cast<unsigned long long>(m_close_cnt[i]));
        out += line;
    }
    out += "; limits:";
    for (int i = 1; i < kCloseLimitCount; ++i) {
        snprintf(line, sizeof(line), " %s %llu", CloseLimitName(static_cast<CloseLimit>(i)),
                 static_cast<unsigned long long>(m_limit_cnt[i]));
        out += line;
    }
    snprintf(line, sizeof(line), "; sends too large %llu; pool exhausted %llu; accept pauses %d",
             static_cast<unsigned long long>(m_too_large_cnt.load()),
             static_cast<unsigned long long>(m_pool_exhausted_cnt), accept_pauses);
    out += line;
    snprintf(line, sizeof(line), " (at the connection limit %llu); refused at accept:",
             static_cast<unsigned long long>(limit_pauses));
    out += line;
    for (int i = 0; i < kAcceptRefusalCount; ++i) {
        snprintf(line, sizeof(line), " %s %llu", AcceptRefusalName(static_cast<AcceptRefusal>(i)),
                 static_cast<unsigned long long>(m_refused_cnt[i]));
        out += line;
    }
    out += "\n";
    return out;
}

// Totals over every connection; `all` is cut down to the ten that hold the most blocks.
std::string CMgrStats::FormatTotals(std::vector<OwnedConn*>* all) {
    char line[512];
    std::string out;
    int64_t sent = 0;
    int64_t received = 0;
    uint64_t send_blocks = 0;
    uint64_t recv_blocks = 0;
    size_t established = 0;
    for (OwnedConn* c : *all) {
        CTcpConnector* k = c->connector.get();
        sent += k->GetSentBytes();
        received += k->GetRecvBytes();
        send_blocks += static_cast<uint64_t>(k->GetSendQCount());
        recv_blocks += static_cast<uint64_t>(k->GetRecvQCount());
        established += c->state == CONN_ESTABLISHED ? 1 : 0;
    }
    snprintf(line, sizeof(line),
             "totals: %zu established, bytes sent %lld, received %lld; blocks held for sending %llu, "
             "receiving %llu\n",
             established, static_cast<long long>(sent), static_cast<long long>(received),
             static_cast<unsigned long long>(send_blocks), static_cast<unsigned long long>(recv_blocks));
    out += line;
    auto held = [](const OwnedConn* c) {
        return c->connector->GetSendQCount() + c->connector->GetRecvQCount();
    };
    size_t top = std::min<size_t>(10, all->size());
    std::partial_sort(all->begin(), all->begin() + top, all->end(),
                      [&held](const OwnedConn* a, const OwnedConn* b) {
                          return held(a) != held(b) ? held(a) > held(b) : a->id < b->id;
                      });
    all->resize(top);
    snprintf(line, sizeof(line), "top %zu connections by blocks held (FormatStats(true) lists all):\n", top);
    out += line;
    return out;
}

std::string CMgrStats::Format(const CConnTable& table, CNetBufferMgr* pool, unsigned int pool_free,
                              int accept_pauses, bool full, uint64_t limit_pauses) const {
    std::vector<OwnedConn*> all = table.SortedById();
    std::string out = FormatHeader(all.size(), pool, pool_free, accept_pauses, limit_pauses);
    if (!full && all.size() > kStatsFullRows) {
        out += FormatTotals(&all);
    }
    char line[512];
    snprintf(line, sizeof(line), "\t\t%-10s%-30s%-30s%-8s%-8s%-8s%-8s%-8s%-8s%-8s%-8s%-30s\n", "accepted",
             "url", "local_url", "ring_mx", "ring_av", "txw_mx", "txw_av", "tx_full", "rxw_mx", "rxw_av",
             "rx_full", "tx_pkts|rx_pkts");
    out += line;
    for (OwnedConn* c : all) {
        int len = c->connector->PrintStat(line, sizeof(line));
        if (len > 0) {
            out += line;
            if (len >= static_cast<int>(sizeof(line))) {
                out += "\n";
            }
        }
    }
    return out;
}

}  // namespace QUOLNET
