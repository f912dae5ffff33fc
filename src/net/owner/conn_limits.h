// CConnLimits: the limits a manager enforces on its connections (send stall, packet
// deadline, idle timeout, linger end, pool pressure), the pool-exhaustion watch, and the
// room notification (OnWritable) after a refused Send.
//
// Nothing here keeps a timer per connection. Sweep walks the connections once every
// SweepPeriodMs() and compares what each has moved since (bytes written, bytes read,
// packets completed) with what it holds; RelievePressure is a constant-time check of the
// pool on every tick that walks the connections only when the pool is short, at most once
// every kShedIntervalMs. A close for a limit is logged once at WARN with the limit's name
// and counted by name when the connection ends (CMgrStats).
//
// Threads: the loop thread calls everything except WantRoom, which any thread calls when
// its Send was refused for want of room; m_want_room_mutex guards what those threads add.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "conn.h"

namespace QUOLNET {

class CConnLimits {
  public:
    static constexpr int kSweepMs = 250;           // period of the limit sweep (at most)
    static constexpr int kPressureGraceMs = 1000;  // stalled this long: a pressure candidate
    static constexpr int kShedIntervalMs = 50;     // at most one pressure walk this often

    explicit CConnLimits(CConnectorMgr& mgr)
        : m_mgr(mgr), m_pool_reserve(0), m_next_sweep_ms(0), m_last_shed_ms(0), m_pool_exhausted(false) {}

    // Takes the reserve (blocks) below which stalled holders are shed.
    void Init(unsigned int pool_reserve) { m_pool_reserve = pool_reserve; }
    int64_t NextSweepMs() const { return m_next_sweep_ms; }
    bool HasWantRoom() const { return !m_want_room.empty(); }

    void Sweep(int64_t now);
    void RelievePressure(int64_t now);
    void WatchPool();
    void NotifyRoom();
    // A Send to `id` was refused for want of room; OnWritable follows once there is.
    void WantRoom(ConnId id, bool on_loop);
    static bool HasSocket(const OwnedConn* conn);
    // Brings what the sweep knows of a connection's progress up to date (CConnAdmission
    // does so for its candidates before it chooses the longest idle).
    void Track(OwnedConn* c, int64_t now);
    // A drain after the peer's end that waits for replies the application holds open.
    static bool OwesReplies(const OwnedConn* conn);
    unsigned int PoolFree() const;

  private:
    int SweepPeriodMs() const;
    bool IsStalled(const OwnedConn* c, int64_t now) const;
    void CloseForLimit(OwnedConn* c, CloseLimit limit, const char* detail);

    CConnectorMgr& m_mgr;
    unsigned int m_pool_reserve;  // free blocks below which stalled holders are shed
    int64_t m_next_sweep_ms;
    int64_t m_last_shed_ms;
    bool m_pool_exhausted;                    // the pool is (or was lately) empty; logged once per episode
    std::vector<ConnId> m_want_room;          // connections refused with kSendNoRoom (loop thread)
    std::mutex m_want_room_mutex;             // guards m_want_room_foreign
    std::vector<ConnId> m_want_room_foreign;  // refused on other threads
};

}  // namespace QUOLNET
