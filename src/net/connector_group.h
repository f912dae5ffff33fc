// CConnectorGroup: N event loops (CConnectorMgr), one per thread, serving one application.
//
// Each loop is a whole CConnectorMgr: its own epoll, eventfd, timers, posted work, id map,
// combine buffers and, by default, its own block pool. A connection lives on one loop at a
// time, and that loop's thread does all of its work; the handler is called on the thread
// of the loop that serves the connection, so one handler object is called from N threads
// at once and must be safe for that (or keep its state per loop: the `mgr` argument names
// the loop, GetLoopIndex() its index).
//
// Accepting: Listen opens one listening socket per loop on the same address with
// SO_REUSEPORT, and the kernel spreads new connections over them. Where the option is
// missing or refused (or reuse_port is false), loop 0 alone listens and hands the
// connections it accepts to the loops in turn (round-robin).
// Connection limit: loop.max_connections applies to each loop; its default (0) derives the
// process's figure from the descriptor limit and divides it evenly among the loops. Each
// loop's own listener evicts its own idle connections at its limit (see connector_mgr.h);
// with one acceptor handing out, the receiving loop makes room as the connection arrives.
// loop.max_connections_per_source is counted across all loops (one count per address).
// Dialling: Dial places a connection on the loop the application names, or round-robin.
// Ids are unique across the group: the top bits hold the index of the loop that made the
// connection (kLoopShift). Send, SendCorked, Close and Abort take an id from any thread
// and reach the loop serving it, even after a Move.
//
// Move(id, loop) hands a live, established connection to another loop: the connector's
// whole state (send queue, receive blocks, the ring of received packets, a half-received
// packet) is copied into a new connector on the target loop with CTcpConnector::CopyFrom,
// the descriptor leaves the old loop's epoll and joins the new one's, and the id stays.
// No byte is lost, duplicated or reordered either way; the handler sees no close, and is
// told by OnMoved on the new loop's thread (the connection's context travels with it). Sends
// made while the connection is between loops are queued on its new connector in the order
// they were made. A connection that is dialling, draining, closing or lingering is not
// moved (counted in GetMoveFailedCount).
//
// Threads and locks:
//   any thread    Dial, Send, SendCorked, Close, Abort, Move, Post, AddTimer, CancelTimer,
//                 Stop, RequestMetrics, and the Get... statistics;
//   set-up        Init, Listen, Start (before the loops run; one thread).
//   m_route_lock  (shared_mutex) the routes of moved connections: taken shared by every
//                 routed call while the group has moved a connection, exclusively by a
//                 loop thread when a connection leaves or arrives. A loop thread may take
//                 it while holding its own table lock (the move's hand-over), never the
//                 other way round.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "connector_mgr.h"

namespace QUOLNET {

struct ConnectorGroupOptions {
    int threads = 0;            // loops, one thread each; 0: one per online CPU
    bool reuse_port = true;     // a listening socket per loop; false or refused: loop 0 hands out
    bool pool_per_loop = true;  // each loop its own pool of loop.pool_blocks / threads blocks;
                                // false: one pool of loop.pool_blocks shared by every loop
    ConnectorMgrOptions loop;   // each loop's settings (a pool lent in loop.pool is shared)
};

class QUOLNET_EXPORT CConnectorGroup {
  public:
    static constexpr int kLoopShift = 48;  // an id's loop index sits above this bit
    static constexpr int kMaxLoops = 256;
    // Results of Move besides 0 (the move is under way).
    static constexpr int kMoveUnknownId = -1;
    static constexpr int kMoveBadLoop = -2;

    // `handler` (not owned) receives every loop's events; it must outlive the group.
    CConnectorGroup(IConnectorHandler* handler,
                    const ConnectorGroupOptions& options = ConnectorGroupOptions());
    // Stops the loops and closes every connection and descriptor.
    ~CConnectorGroup();
    CConnectorGroup(const CConnectorGroup&) = delete;
    CConnectorGroup& operator=(const CConnectorGroup&) = delete;

    // Makes the loops (and the pools). Returns 0 or -1 (logged). Never throws.
    int Init();
    // Listens on `url` (see above). Returns the bound port, or the CConnectorMgr::Listen
    // codes. Before Start. A unix:// URL is listened on by loop 0, which hands the
    // connections out (one socket per path); the result is then 0.
    int Listen(const char* url, int backlog = CConnectorMgr::kDefaultBacklog);
    // The same, with what every accepted socket is set to, on every loop (see
    // CConnectorMgr::Listen).
    int Listen(const char* url, const SocketOptions& socket, int backlog = CConnectorMgr::kDefaultBacklog);
    std::string GetListenURL() const;
    // Whether every loop has its own listening socket (SO_REUSEPORT) for the last Listen.
    bool IsReusePort() const { return m_reuse_port_active; }
    // Runs each loop on a thread of its own. Returns 0, or -1 when already running.
    int Start();
    // Stops the loops and waits for their threads. Any thread but a loop's; idempotent.
    void Stop();
    // Drains every loop as CConnectorMgr::Shutdown(timeout_ms) does, waits for the loops to
    // finish (at most about `timeout_ms` plus the last aborts) and then stops them as Stop.
    // Any thread but a loop's.
    void Shutdown(int timeout_ms);
    // Every loop's connection ids, in ascending order. Any thread.
    std::vector<ConnId> ListConnections();
    // Sums over the loops of CConnectorMgr's shutdown counts. Any thread.
    uint64_t GetShutdownDrainedCount() const;
    uint64_t GetShutdownAbortedCount() const;

    // Dials `url` on loop `loop` (-1: round-robin). Returns the id, or 0 (see
    // CConnectorMgr::Dial). Any thread.
    ConnId Dial(const char* url, const DialOptions& options = DialOptions(), int loop = -1);
    // As CConnectorMgr's, for a connection on any loop. Any thread.
    int Send(ConnId id, const char* buf, unsigned int len);
    int SendCorked(ConnId id, const char* buf, unsigned int len);
    void Close(ConnId id);
    void Abort(ConnId id);
    void PauseReading(ConnId id);
    void ResumeReading(ConnId id);
    bool HoldOpen(ConnId id);
    void ReleaseHold(ConnId id);
    // Moves connection `id` to loop `loop` (see above). Returns 0 when the move is under
    // way (or `id` is there already), kMoveUnknownId, kMoveBadLoop. Any thread.
    int Move(ConnId id, int loop);

    void Post(int loop, std::function<void()> fn);
    uint64_t AddTimer(int loop, int delay_ms, int interval_ms, std::function<void()> fn);
    void CancelTimer(int loop, uint64_t timer_id);

    // ---- Restart without dropping anyone (see CConnectorMgr::OfferHandOver) ----
    //
    // The same as a manager's, for every loop at once. The exchange runs on loop 0's thread
    // while the other loops wait (the pause their peers see); each loop's connections go
    // from its own thread, so OnHandOut and OnClosed come on the thread of the loop serving
    // the connection, as always. After a complete exchange every loop releases its
    // listeners and drains what stayed; each loop's Run returns when it has, and Shutdown
    // (or Stop) then joins them. Connections still on their way between loops at that
    // moment (a Move, or one handed out by loop 0) stay and drain.
    // Returns as CConnectorMgr::OfferHandOver. Any thread: from a loop other than 0 the
    // offer is posted to loop 0 and 0 returned (a failure is logged).
    int OfferHandOver(const char* path, const HandOverOptions& options = HandOverOptions());
    bool IsOfferingHandOver() const;
    bool IsHandedOver() const;
    // Takes over from a process offering on `path` (a group of any number of loops, or a
    // manager): after Init, before Listen and Start, on one thread. Each connection joins
    // the loop its id names when this group has that loop, else the loops in turn (its id
    // stays and reaches it, as a moved connection's does); OnHandIn comes on this thread.
    // The listening sockets wait for Listen on their URL: with SO_REUSEPORT each loop takes
    // one of the old sockets (a loop takes several when the old group had more loops; the
    // loops beyond open their own on the port). A socket the old process listened on alone
    // (no SO_REUSEPORT) cannot share its port: loop 0 takes it and hands out. Returns as
    // CConnectorMgr::TakeOver.
    int TakeOver(const char* path, const HandOverOptions& options, TakeOverResult* result);

    int GetLoopCount() const { return static_cast<int>(m_loops.size()); }
    CConnectorMgr* GetLoop(int i) { return m_loops[static_cast<size_t>(i)].get(); }
    // The loop serving `id` now (-1 when `id` names no loop of the group).
    int LoopOf(ConnId id);

    // Sums over the loops. Any thread.
    size_t GetConnectionCount();
    uint64_t GetCloseCount(CloseReason reason) const;
    uint64_t GetLimitCloseCount(CloseLimit limit) const;
    uint64_t GetAcceptCount() const;
    uint64_t GetMoveCount() const { return m_moves_done.load(); }
    uint64_t GetMoveFailedCount() const { return m_moves_failed.load(); }
    // One line per loop (connections, accepted, closed) and the totals. Any thread.
    std::string FormatStats();
    // Every loop's metrics (the formats of net/owner/metrics.h: each family once, a sample
    // per loop labelled loop="i", then the group's moves; in JSON a "loops" array, a
    // "total" object and the moves). Each loop takes its snapshot on its own thread.
    // RequestMetrics: any thread, loop threads included; `done` is called once with the
    // text, on the thread of the loop that reports last (on the calling thread when the
    // loops are not running: before Start, after Stop).
    void RequestMetrics(MetricsFormat format, std::function<void(const std::string&)> done);
    // FormatMetrics: the same, waited for. Any thread but the group's loop threads, which
    // use RequestMetrics (a loop that waited for the others could wait for one waiting for
    // it): there it returns "". Before Start and after Stop it reads the loops in place.
    std::string FormatMetrics(MetricsFormat format);

  private:
    friend class CConnectorMgr;
    friend class CConnMover;
    friend class CProcessHandOver;

    struct Route {
        int loop;                // the loop serving the connection (or receiving it)
        CTcpConnector* transit;  // non-null while the connection is between loops
        bool want_room;          // a Send in transit was refused for want of room
        TrafficCounts carried;   // the traffic it had when it left its last loop
    };

    // Loop 0 alone accepts, handing the connections out round-robin (Dispatch).
    void HandOutFromLoop0();
    int HomeLoop(ConnId id) const;
    // Finds the route of `id`; false when it has never moved.
    bool FindRoute(ConnId id, Route* route);
    // Runs an operation on the loop serving `id`, following moves (see the .cpp).
    template <typename OnLoop, typename InTransit, typename Result>
    Result RouteWithRetry(ConnId id, Result missed, OnLoop on_loop, InTransit in_transit);
    // The loop serving `id` unless that is `from_loop`, or null.
    CConnectorMgr* ServingLoop(ConnId id, int from_loop);
    int SendRouted(ConnId id, const char* buf, unsigned int len, bool corked);
    int SendInTransit(ConnId id, const char* buf, unsigned int len, bool* in_transit);
    void CloseRouted(ConnId id, bool graceful, int from_loop);
    void PauseRouted(ConnId id, bool paused, int from_loop);
    // HoldOpen (+1) or ReleaseHold (-1) on whichever loop serves `id`, following moves.
    bool HoldRouted(ConnId id, int delta);
    // A loop destroyed connection `id`: its route goes.
    void Forget(ConnId id);
    // Connection `id`, taken over from another process, is served by `loop`, which its id
    // does not name. Before Start.
    void AddAdoptedRoute(ConnId id, int loop);
    // The move's two halves, on the loop threads (see CConnMover).
    void SetTransit(OwnedConn* conn, CConnectorMgr* to);
    bool Arrived(ConnId id, int loop);
    void Dispatch(int fd, const std::string& peer, const std::shared_ptr<IStreamIoFactory>& stream);
    // Every loop's snapshot taken on the calling thread. The loops are not running.
    std::string FormatMetricsInPlace(MetricsFormat format);

    IConnectorHandler* m_handler;
    ConnectorGroupOptions m_options;
    std::vector<std::unique_ptr<CNetBufferMgr>> m_pools;
    CSourceCounts m_sources;  // connections per address, for every loop (outlives them)
    std::vector<std::unique_ptr<CConnectorMgr>> m_loops;
    std::vector<std::thread> m_threads;
    bool m_reuse_port_active;
    std::atomic<unsigned int> m_next_dial_loop;
    std::atomic<unsigned int> m_next_accept_loop;  // the hand-out's turn (loop 0's thread)

    std::shared_mutex m_route_lock;
    std::unordered_map<ConnId, Route> m_routes;  // guarded by m_route_lock
    std::atomic<size_t> m_route_cnt;             // m_routes.size(), read without the lock
    // Advanced (last, under m_route_lock) by every change of a route: a connection leaving a
    // loop or arriving at one. A sender that missed an id on a loop looks again only if it
    // moved; read without the lock.
    std::atomic<uint64_t> m_route_epoch{0};
    std::atomic<uint64_t> m_moves_done;
    std::atomic<uint64_t> m_moves_failed;
    // Whether the loops run on their threads (Start to Stop), and those threads' ids; guarded
    // by m_run_mutex, which Stop holds while it runs the work posted to stopped loops, so
    // that metrics are taken either by the loops or in place, never both at once. Recursive:
    // that work may ask for metrics itself.
    std::recursive_mutex m_run_mutex;
    bool m_running = false;
    std::vector<std::thread::id> m_loop_threads;
};

}  // namespace QUOLNET
