// CConnLimits: the sweep that enforces the send-stall, packet and idle deadlines and the
// linger's end, shedding under pool pressure, the pool watch and the room notification.
#include "net/owner/conn_limits.h"

#include <algorithm>

#include "net/connector_mgr.h"
#include "net/owner/owner_log.h"

namespace QUOLNET {

// A connection the limits look at: one with a socket (established, draining or lingering).
bool CConnLimits::HasSocket(const OwnedConn* c) {
    return !c->dead && (c->state == CONN_ESTABLISHED || c->state == CONN_DRAINING || c->state == CONN_LINGER);
}

unsigned int CConnLimits::PoolFree() const {
    unsigned int max = m_mgr.m_pool->GetMaxBlockNum();
    unsigned int used = m_mgr.m_pool->GetUsedCount();
    return used < max ? max - used : 0;
}

// The sweep runs often enough that each deadline is kept to within a quarter of itself,
// and at least every kSweepMs.
int CConnLimits::SweepPeriodMs() const {
    int period = kSweepMs;
    for (int d : {m_mgr.m_options.send_stall_ms, m_mgr.m_options.packet_deadline_ms,
                  m_mgr.m_options.idle_timeout_ms, m_mgr.m_options.handshake_timeout_ms}) {
        if (d > 0) {
            period = std::min(period, std::max(5, d / 4));
        }
    }
    return period;
}

bool CConnLimits::OwesReplies(const OwnedConn* c) {
    return c->state == CONN_DRAINING && !c->graceful && c->holds.load() > 0;
}

// Updates what the sweep knows of a connection's progress.
void CConnLimits::Track(OwnedConn* c, int64_t now) {
    CTcpConnector* k = c->connector.get();
    int64_t tx = k->GetSentBytes();
    int64_t rx = k->GetRecvBytes();
    long packets = k->GetRecvPacketCount();
    // An empty queue is progress, unless the application still owes replies to a peer that
    // has ended its stream: then the stall counts from the last byte written.
    bool owes = OwesReplies(c);
    if (tx != c->progress.tx_bytes_seen || (k->GetSendQCount() == 0 && !owes)) {
        c->progress.tx_progress_ms = now;
    }
    if (tx != c->progress.tx_bytes_seen || rx != c->progress.rx_bytes_seen) {
        c->progress.active_ms = now;
    }
    bool partial = k->HasPartialPacket();
    if (!partial || rx != c->progress.rx_bytes_seen) {
        c->progress.rx_progress_ms = now;
    }
    if (!partial) {
        c->progress.partial_since_ms = 0;
    } else if (c->progress.partial_since_ms == 0 || packets != c->progress.rx_packets_seen) {
        c->progress.partial_since_ms = now;  // a new packet has begun since the last look
    }
    c->progress.tx_bytes_seen = tx;
    c->progress.rx_bytes_seen = rx;
    c->progress.rx_packets_seen = packets;
}

bool CConnLimits::IsStalled(const OwnedConn* c, int64_t now) const {
    if (c->app_paused) {
        return false;  // the application's stall, not the peer's: never shed
    }
    bool tx_stalled =
        c->connector->GetSendQCount() > 0 && now - c->progress.tx_progress_ms >= kPressureGraceMs;
    bool rx_stalled =
        c->progress.partial_since_ms != 0 && now - c->progress.rx_progress_ms >= kPressureGraceMs;
    return tx_stalled || rx_stalled;
}

void CConnLimits::CloseForLimit(OwnedConn* c, CloseLimit limit, const char* detail) {
    QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN, "closing connection %llu, url=%s: %s limit (%s)",
                 static_cast<unsigned long long>(c->id), c->url.c_str(), CloseLimitName(limit), detail);
    c->close_info_set = false;  // the limit is why it ends, whatever was recorded before
    m_mgr.m_service.SetCloseInfo(c, CloseReason::kLimit, 0, limit);
    m_mgr.m_service.BeginClose(c);
}

void CConnLimits::Sweep(int64_t now) {
    if (now < m_next_sweep_ms) {
        return;
    }
    m_next_sweep_ms = now + SweepPeriodMs();
    struct Due {
        OwnedConn* conn;
        CloseLimit limit;  // kNone: a linger that ran out (an ordinary close)
        const char* detail;
    };
    std::vector<Due> due;
    for (auto& kv : m_mgr.m_table.ById()) {
        OwnedConn* c = kv.second;
        if (c->state == CONN_HANDSHAKE && !c->dead) {
            if (c->handshake_deadline_ms != 0 && now >= c->handshake_deadline_ms) {
                due.push_back(Due{c, CloseLimit::kHandshakeTimeout, "handshake not done"});
            }
            continue;  // no other limit applies before the handshake is done
        }
        if (!HasSocket(c)) {
            continue;
        }
        Track(c, now);
        CTcpConnector* k = c->connector.get();
        if (c->state == CONN_LINGER && now >= c->linger_until_ms) {
            due.push_back(Due{c, CloseLimit::kNone, ""});
        } else if (m_mgr.m_options.send_stall_ms > 0 && (k->GetSendQCount() > 0 || OwesReplies(c)) &&
                   now - c->progress.tx_progress_ms >= m_mgr.m_options.send_stall_ms) {
            due.push_back(Due{c, CloseLimit::kSendStall,
                              k->GetSendQCount() > 0 ? "send queue not shrinking" : "held replies not sent"});
        } else if (c->app_paused) {
            continue;  // paused by the application: no packet or idle deadline runs
        } else if (m_mgr.m_options.packet_deadline_ms > 0 && c->state == CONN_ESTABLISHED &&
                   c->progress.partial_since_ms != 0 &&
                   now - c->progress.partial_since_ms >= m_mgr.m_options.packet_deadline_ms) {
            due.push_back(Due{c, CloseLimit::kPacketDeadline, "packet not completed"});
        } else if (m_mgr.m_options.idle_timeout_ms > 0 && c->state == CONN_ESTABLISHED &&
                   now - c->progress.active_ms >= m_mgr.m_options.idle_timeout_ms) {
            due.push_back(Due{c, CloseLimit::kIdleTimeout, "no traffic"});
        }
    }
    // Closing changes m_by_id, so it waits until the walk is over.
    for (const Due& d : due) {
        if (d.conn->dead || d.conn->state == CONN_CLOSING) {
            continue;
        }
        if (d.limit == CloseLimit::kNone) {
            m_mgr.m_service.BeginClose(d.conn);  // the peer never ended its stream; its reason stays
        } else {
            CloseForLimit(d.conn, d.limit, d.detail);
        }
    }
    m_mgr.m_admission.Observe(now);  // ends a connection-limit episode once the count stays below
}

void CConnLimits::RelievePressure(int64_t now) {
    if (m_pool_reserve == 0 || PoolFree() >= m_pool_reserve || now - m_last_shed_ms < kShedIntervalMs) {
        return;
    }
    m_last_shed_ms = now;
    std::vector<std::pair<unsigned int, OwnedConn*>> held;  // (blocks, connection)
    for (auto& kv : m_mgr.m_table.ById()) {
        OwnedConn* c = kv.second;
        if (!HasSocket(c)) {
            continue;
        }
        Track(c, now);
        if (!IsStalled(c, now)) {
            continue;  // making progress: never shed
        }
        unsigned int blocks =
            static_cast<unsigned int>(c->connector->GetSendQCount() + c->connector->GetRecvQCount());
        if (blocks > 0) {
            held.push_back(std::make_pair(blocks, c));
        }
    }
    std::sort(held.begin(), held.end(),
              [](const std::pair<unsigned int, OwnedConn*>& a, const std::pair<unsigned int, OwnedConn*>& b) {
                  return a.first != b.first ? a.first > b.first : a.second->id < b.second->id;
              });
    unsigned int free_blocks = PoolFree();
    for (auto& h : held) {
        if (free_blocks >= m_pool_reserve) {
            break;
        }
        CloseForLimit(h.second, CloseLimit::kPoolPressure, "pool short; stalled while holding blocks");
        free_blocks += h.first;
    }
}

// Logs once per episode that the pool has no block left, so that a server that stops
// serving more connections says why; the episode ends once the reserve is free again.
void CConnLimits::WatchPool() {
    unsigned int free_blocks = PoolFree();
    if (!m_pool_exhausted && free_blocks <= m_mgr.m_pool->GetTxReserveBlocks()) {
        m_pool_exhausted = true;
        m_mgr.m_stats.CountPoolExhausted();
        QN_OWNER_LOG(
            m_mgr.LogCat(), LOG_PRIORITY_WARN,
            "pool exhausted: %u of %u blocks in use by %zu connections; reads and sends wait for blocks "
            "(raise pool_blocks, or lower max_send_blocks/max_recv_blocks)",
            m_mgr.m_pool->GetUsedCount(), m_mgr.m_pool->GetMaxBlockNum(), m_mgr.m_table.Size());
    } else if (m_pool_exhausted && free_blocks >= std::max(1u, m_pool_reserve)) {
        m_pool_exhausted = false;
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_INFO, "pool has blocks again: %u free", free_blocks);
    }
}

// Tells the handler about connections that refused a Send for want of room and have room
// again: the send queue at most half full and blocks for it in the pool.
void CConnLimits::NotifyRoom() {
    {
        std::lock_guard<std::mutex> lock(m_want_room_mutex);
        if (!m_want_room_foreign.empty()) {
            m_want_room.insert(m_want_room.end(), m_want_room_foreign.begin(), m_want_room_foreign.end());
            m_want_room_foreign.clear();
        }
    }
    if (m_want_room.empty()) {
        return;
    }
    std::vector<ConnId> ready;
    size_t kept = 0;
    for (size_t i = 0; i < m_want_room.size(); ++i) {
        OwnedConn* c = m_mgr.m_table.Find(m_want_room[i]);
        if (c == nullptr || c->dead) {
            continue;
        }
        CTcpConnector* k = c->connector.get();
        if (c->gate != kGateOpen) {
            c->want_room = false;
            continue;
        }
        if (static_cast<unsigned int>(k->GetSendQCount()) * 2 <= m_mgr.m_options.max_send_blocks &&
            k->IsSendBufEnough(1)) {
            c->want_room = false;
            ready.push_back(c->id);
        } else {
            m_want_room[kept++] = m_want_room[i];
        }
    }
    m_want_room.resize(kept);
    for (ConnId id : ready) {
        OwnedConn* c = m_mgr.m_table.Find(id);
        if (c != nullptr && c->app_paused && c->paused_for_room) {
            m_mgr.SetPausedNow(id, false);  // it refused a packet for want of room: offer it again
        }
        if (m_mgr.m_handler != nullptr) {
            CConnectorMgr::HandlerScope scope(m_mgr, c);
            m_mgr.m_handler->OnWritable(&m_mgr, id);
        }
    }
}

void CConnLimits::WantRoom(ConnId id, bool on_loop) {
    if (on_loop) {
        m_want_room.push_back(id);
    } else {
        std::lock_guard<std::mutex> room_lock(m_want_room_mutex);
        m_want_room_foreign.push_back(id);
    }
}

}  // namespace QUOLNET
