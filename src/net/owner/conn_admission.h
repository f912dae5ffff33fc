// CConnAdmission: how many connections a manager holds, and what it does at that limit.
//
// The limit (ConnectorMgrOptions::max_connections) counts every connection in the manager's
// table, accepted or dialled. 0 derives it from the descriptor limit: the soft
// RLIMIT_NOFILE as Init leaves it (after raising it to the hard one) less fd_reserve
// descriptors kept for the application (files, pipes, dialled backends, the loop's own
// epoll and eventfd); in a CConnectorGroup that figure is divided evenly among the loops,
// since each loop holds its own connections. A server at its limit is never short of a
// descriptor for accept4, so the flood that would otherwise stop it at EMFILE meets this
// limit first.
//
// At the limit, when a listener has connections waiting (CAcceptor asks MakeRoom with the
// count in its queue), the accepted connections idle the longest are closed to admit them:
// nothing read or written for at least evict_idle_ms, nothing queued to send, no packet
// waiting for the application, not paused by it, no reply held open. Each closes at once
// (its descriptor closed; an idle connection has nothing to flush) with kLimit and
// CloseLimit::kIdleEvicted, counted with the other limits. Dialled connections are the
// application's own and never chosen. When no connection qualifies (or evict_idle_ms is 0)
// the listener pauses until a connection closes or CAcceptor::kAcceptRetryMs passes.
//
// Episodes: the first eviction, and the first pause with none to evict, are each logged
// once at WARN; the episode ends (INFO, with the evictions it took) once the count has
// stayed below the limit for kQuietMs, as the limit sweep sees it (Observe).
//
// Per source (max_connections_per_source, 0: off): a connection from an address that
// already has that many is refused at accept (its descriptor closed at once), counted
// (CMgrStats, AcceptRefusal::kPerSource) and logged once per episode; an episode ends when
// no connection has been refused for kQuietMs. The loops of a group share one count per
// address (CSourceCounts), so the cap holds for the process.
//
// Threads: the loop thread calls everything but GetLimit (any thread, after Init) and
// CSourceCounts, whose mutex guards its map.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "acceptor.h"
#include "conn.h"

namespace QUOLNET {

// Connections per source address, shared by the loops of a group (or one manager's own).
class CSourceCounts {
  public:
    // Counts one more connection from `source` unless `cap` are counted already; false then.
    bool Add(const std::string& source, unsigned int cap);
    void Remove(const std::string& source);
    unsigned int Count(const std::string& source);
    // The address part of a peer URL: "tcp://10.0.0.1:5000" -> "10.0.0.1", "tcp://[::1]:5" ->
    // "[::1]".
    static std::string SourceOf(const std::string& peer_url);

  private:
    std::mutex m_mutex;
    std::unordered_map<std::string, unsigned int> m_counts;  // guarded by m_mutex
};

class CConnAdmission : public CAcceptor::IGate {
  public:
    static constexpr int kQuietMs = 1000;  // below the limit (no refusal) this long: episode over

    explicit CConnAdmission(CConnectorMgr& mgr);

    // A loop of a group of `loops`: the derived limit is shared among them, and `sources`
    // (the group's, not owned) counts connections per address across them. Before Init.
    void JoinGroup(int loops, CSourceCounts* sources);
    // Sets the limit from the options; after the descriptor limit was raised.
    void Init();
    unsigned int GetLimit() const { return m_limit; }
    // The derived limit: the soft descriptor limit less `fd_reserve` (half of it when that
    // leaves less than the reserve), divided among `loops`; at least 1.
    static unsigned int DerivedLimit(unsigned int fd_reserve, int loops);

    // CAcceptor::IGate.
    int Room() override;
    int MakeRoom(int waiting) override;
    void OnFull(const std::string& url) override;

    // A connection handed to this loop by another loop's acceptor (a group without
    // SO_REUSEPORT): makes room for it when at the limit, as MakeRoom(1) does. False when
    // none could be made: the caller refuses the connection (closes it at once), counted
    // as AcceptRefusal::kOverLimit and logged once while refusals go on, since the
    // acceptor of another loop cannot pause for this one.
    bool MakeRoomForHandOut();

    // Per-source cap, for an accepted connection from `peer` (its URL): true when admitted
    // (and counted until SourceReleased), false when refused (counted and logged).
    bool AdmitSource(const std::string& peer);
    void SourceReleased(const std::string& peer);

    // Called by the limit sweep: ends an episode once the count stayed below the limit.
    void Observe(int64_t now);

  private:
    bool Evictable(const OwnedConn* c) const;
    void Evict(OwnedConn* c);
    void StartEpisode(int64_t now);

    CConnectorMgr& m_mgr;
    unsigned int m_limit;  // set by Init; 0 before
    int m_loops;
    CSourceCounts m_own_sources;
    CSourceCounts* m_sources;  // m_own_sources, or the group's
    bool m_episode;            // at the limit: from the first eviction or full pause
    bool m_evict_logged;
    bool m_full_logged;
    int64_t m_below_since;             // the count was first seen below the limit then; 0: not below
    uint64_t m_episode_evictions;      // evictions in the current episode
    int64_t m_last_refusal_ms;         // the last per-source refusal (0: none)
    int64_t m_last_over_limit_ms = 0;  // the last hand-out refused at the limit (0: none)
    std::vector<std::pair<int64_t, OwnedConn*>> m_candidates;  // MakeRoom's scratch (active_ms, conn)
};

}  // namespace QUOLNET
