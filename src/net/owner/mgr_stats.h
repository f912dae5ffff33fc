// CMgrStats: a manager's counters (connections ended by reason and by limit, connections
// refused at accept by reason, sends too large, pool exhaustion episodes, the traffic of
// connections that are gone), the statistics table and the metrics snapshot.
//
// Threads: the loop thread counts; any thread reads a counter (Relaxed: a reader may see a
// value a moment old). Format and Snapshot walk the connections and run on the loop thread
// (or when the loop is not running).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "../../common/relaxed.h"
#include "../connector_handler.h"
#include "../net_buffer_mgr.h"
#include "conn_table.h"

namespace QUOLNET {

// Why an accepted connection was closed at once, before the application saw it.
enum class AcceptRefusal : int {
    kPerSource = 0,    // its address already had max_connections_per_source connections
    kSocketSetup = 1,  // the listener's SocketOptions failed on it, or their setup refused it
    // a group's loop 0 handed it to a loop at max_connections with none idle enough to close
    kOverLimit = 2,
};
constexpr int kAcceptRefusalCount = 3;
// "per_source", "socket_setup", "over_limit".
QUOLNET_EXPORT const char* AcceptRefusalName(AcceptRefusal reason);

struct MgrMetrics;

// Bytes and packets each way, of one connection or summed.
struct TrafficCounts {
    uint64_t bytes_sent = 0;
    uint64_t bytes_received = 0;
    uint64_t packets_sent = 0;
    uint64_t packets_received = 0;
};

class CMgrStats {
  public:
    static constexpr size_t kStatsFullRows = 64;  // more connections: Format summarises

    CMgrStats() : m_too_large_cnt(0) {}

    // Counts one ended connection by its reason (and its limit, for kLimit).
    void CountClose(const CloseInfo& info);
    void CountTooLarge() { ++m_too_large_cnt; }
    void CountPoolExhausted() { ++m_pool_exhausted_cnt; }
    void CountRefused(AcceptRefusal reason) { ++m_refused_cnt[static_cast<int>(reason)]; }
    uint64_t GetRefusedCount(AcceptRefusal reason) const {
        int i = static_cast<int>(reason);
        return i >= 0 && i < kAcceptRefusalCount ? static_cast<uint64_t>(m_refused_cnt[i]) : 0;
    }
    uint64_t GetCloseCount(CloseReason reason) const;
    uint64_t GetLimitCloseCount(CloseLimit limit) const;
    uint64_t GetTooLargeCount() const { return m_too_large_cnt; }
    uint64_t GetPoolExhaustedCount() const { return m_pool_exhausted_cnt; }

    // The traffic of connector `k` so far (its counters since its last Connect). Loop thread.
    static TrafficCounts TrafficOf(CTcpConnector* k);
    // A connection's traffic joins the running totals as it leaves the table's sums: when a
    // session ends (CConnService::FinishClose, before a reconnect resets the connector's
    // counters) and when the connection moves to another loop. Loop thread.
    void AddEnded(const TrafficCounts& t);
    // A connection arrived from another loop carrying `t`, already counted by that loop:
    // only what it carries from now on counts here. Loop thread.
    void AddArrived(const TrafficCounts& t);
    // Fills `out`'s close, limit, refusal, send and pool-exhaustion counters and its
    // traffic: the running totals plus the connections of `table` that are in a session
    // (established, draining, lingering or closing). The rest of `out` is the caller's.
    // Loop thread (or when the loop is not running).
    void Snapshot(const CConnTable& table, MgrMetrics* out) const;

    // The table: the pool and close-reason summary lines, then one CTcpConnector::PrintStat
    // row per connection (with more than kStatsFullRows and not `full`: totals, and the
    // rows of the ten that hold the most blocks).
    // `limit_pauses` counts the listener's pauses at the connection limit.
    std::string Format(const CConnTable& table, CNetBufferMgr* pool, unsigned int pool_free,
                       int accept_pauses, bool full, uint64_t limit_pauses = 0) const;

  private:
    std::string FormatHeader(size_t conns, CNetBufferMgr* pool, unsigned int pool_free, int accept_pauses,
                             uint64_t limit_pauses) const;
    static std::string FormatTotals(std::vector<OwnedConn*>* all);

    Relaxed<uint64_t> m_close_cnt[kCloseReasonCount];
    Relaxed<uint64_t> m_limit_cnt[kCloseLimitCount];
    std::atomic<uint64_t> m_too_large_cnt;  // any thread's Send counts
    Relaxed<uint64_t> m_pool_exhausted_cnt;
    Relaxed<uint64_t> m_refused_cnt[kAcceptRefusalCount];
    // Traffic of ended sessions and of connections moved away (added), and what connections
    // moved in had carried before (subtracted); unsigned arithmetic keeps the difference
    // exact. Loop thread only.
    TrafficCounts m_ended;
    TrafficCounts m_arrived;
};

}  // namespace QUOLNET
