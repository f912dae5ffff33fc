// CMgrStats: a manager's counters (connections ended by reason and by limit, connections
// refused at accept by reason, sends too large, pool exhaustion episodes) and the
// statistics table.
//
// Threads: the loop thread counts; any thread reads a counter (Relaxed: a reader may see a
// value a moment old). Format walks the connections and runs on the loop thread (or when
// the loop is not running).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "common/relaxed.h"
#include "net/connector_handler.h"
#include "net/net_buffer_mgr.h"
#include "net/owner/conn_table.h"

namespace QUOLNET {

// Why an accepted connection was closed at once, before the application saw it.
enum class AcceptRefusal : int {
    kPerSource = 0,  // its address already had max_connections_per_source connections
};
constexpr int kAcceptRefusalCount = 1;
// "per_source".
QUOLNET_EXPORT const char* AcceptRefusalName(AcceptRefusal reason);

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
};

}  // namespace QUOLNET
