// CConnectorMgr: the owner of many CTcpConnectors, driven by one epoll loop.
//
// The manager is a facade over the classes of src/net/owner/, one per concern: CEventLoop
// (epoll, wake-up, timers, posted work), CAcceptor (listeners, the descriptor-limit pause),
// CConnAdmission (the connection limit: idle connections closed for newcomers, the cap per
// source address), CDialler (connect timeout, reconnect with backoff, host names looked up
// by a CResolver thread), CConnService (the connection's state machine: delivery, pausing,
// half-close draining, linger, closing), CConnLimits (deadlines, pool-pressure shedding,
// room notification), CConnTable (the id map) and CMgrStats (counters by reason, the
// statistics table). Several managers, one per thread, form a CConnectorGroup
// (net/connector_group.h).
//
// One manager owns one epoll instance, one eventfd to wake its loop, its listeners and its
// connectors, and a block pool (its own, or one lent by the caller). Its loop thread (the
// thread that calls Run or RunOnce) does all connector work:
//   - waits on epoll, hands every event's bits to the connector's SetEvent, and calls Update
//     for each connector that has events or pending work;
//   - accepts connections on its listeners (accept4) into new connectors, and dials URLs
//     with an optional connect timeout and reconnect with exponential backoff;
//   - takes complete packets out with Peek/Drop and offers them to the application's
//     IConnectorHandler (or, with use_recv_callback, lets the connector's receive callback
//     hand them over while it frames them);
//   - runs timers, flushes corked sends once at the end of a tick, prints statistics.
//
// Delivery guarantees:
//   - Every packet that arrived before a connection ended is offered to OnPacket before
//     OnClosed is called and the connector is finalised (except after Abort or Close,
//     which stop delivery).
//   - A peer's end of stream (its shutdown(SHUT_WR) or close) stops reading only: every
//     packet already received is offered as usual, the connection stays writable, what the
//     handler sends in reply and what was already queued is flushed, and only then does the
//     manager shut down its own sending side, close the descriptor and call OnClosed
//     (kPeerClosed). The flush is bounded by send_stall_ms. A reset or a socket error
//     closes at once.
//   - Close(id) is graceful: delivery and reading stop, what Send already accepted is
//     flushed (bounded by send_stall_ms), the sending side is shut down, the peer's bytes
//     are read and discarded until its end of stream (at most kLingerMs), and then the
//     descriptor is closed, so the peer receives every byte followed by a normal end of
//     stream. Abort(id) closes at once.
//   - A packet the handler refuses pauses its connection (PauseReading) until the
//     application resumes it (ResumeReading, or room again after a kSendNoRoom): no
//     re-offer loop runs meanwhile.
//   - A ring that was full (1000 packets), or framing that stopped for want of a block,
//     resumes as soon as the application has taken packets, without new traffic: the
//     manager sets EPOLLIN and runs Update again for that connector.
//   - A drain (after the peer's end or Close) ends only when nothing is being sent: every
//     Send that returned the packet's length before is on the wire whole, followed by a
//     normal end of stream; a Send after it returns kSendClosing. Another thread's Send
//     that finishes a drain ends it without waiting for a socket event.
//   - A connector waiting for the next block of a big packet (IsWaitAllocBigBuffer) is
//     retried with its Recv() until the pool can supply it.
//   - A connection whose reading stopped with bytes still in the socket (any of the cases
//     above) has EPOLLIN taken out of its registration (CTcpConnector::PauseReading) and
//     is retried about every millisecond instead, so the level-triggered wait does not
//     spin on bytes nobody can take; reading resumes once the socket has been drained.
//
// Limits (ConnectorMgrOptions; every default protects a server started as it is). Each is
// enforced on the loop thread by one sweep over the connections every kSweepMs (sooner when
// a deadline is shorter), not by a timer per connection. Every close for a limit is logged
// once at WARN with its name and counted by name (GetLimitCloseCount, the statistics):
//   - max_send_blocks / max_recv_blocks: blocks one connection may hold each way;
//   - send_stall_ms: a send queue that has not shrunk for this long closes the connection
//     (a reader that takes nothing, or a flush at close that does not end);
//   - packet_deadline_ms: a packet started and not completed within this long (a peer that
//     announces a packet and trickles or withholds its bytes) closes the connection; a
//     connection between packets is not affected;
//   - idle_timeout_ms (default off): nothing read or written for this long;
//   - pool pressure: when the pool's free blocks fall below pool_reserve_blocks, the
//     connections that hold the most blocks while stalled (a send queue from which nothing
//     was written, or a packet in progress of which nothing arrived, for kPressureGraceMs)
//     are closed, largest first, until the reserve is back. A connection making progress
//     (writing or receiving) is never closed for pressure; a slow one that drags a packet
//     out is left to the packet deadline.
//
// Connection limit (CConnAdmission, net/owner/conn_admission.h). A manager holds at most
// max_connections connections; 0 (the default) derives it from the descriptor limit: the
// soft RLIMIT_NOFILE after Init has raised it, less fd_reserve (64) descriptors left to the
// application; in a CConnectorGroup that figure is divided evenly among the loops. At the
// limit, when a listener has connections waiting, the accepted connections idle the longest
// (nothing read or written for evict_idle_ms, nothing queued either way, not paused or held
// by the application) are closed at once to admit as many as wait (kLimit, idle_evicted),
// so a flood of idle connections cannot lock new clients out; the first eviction of an
// episode is logged at WARN. With none idle enough (or evict_idle_ms 0) the listener leaves
// epoll until a connection closes or kAcceptRetryMs passes (no spin). Optionally
// max_connections_per_source caps the connections from one address: more are refused at
// accept (counted by GetRefusedCount, logged once per episode). The pause at EMFILE stays
// as the last resort, logged once per episode.
//
// Threads and locks:
//   loop thread   everything not marked otherwise below;
//   any thread    Send, SendCorked, Close, Abort, Post, Stop, RequestStats, AddTimer,
//                 CancelTimer, IsConnected, GetConnectionCount, the Get...Count statistics;
//   CConnTable's lock (shared_mutex) the id map: taken shared by Send/SendCorked/IsConnected
//                 on other threads for the lookup and the whole connector call, exclusively
//                 by the loop thread when it adds or removes a connection, connects, closes
//                 a descriptor or moves a connection away. Send/SendCorked on the loop
//                 thread take no lock: only that thread changes the map or closes
//                 descriptors;
//   CEventLoop's mutexes: the mailbox of posted functions, and the timers.
// Stop() is async-signal-safe (an atomic store and a write to the eventfd).
#pragma once

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "../log/log.h"
#include "connector_handler.h"
#include "length_parser.h"
#include "net_buffer_mgr.h"
#include "owner/acceptor.h"
#include "owner/conn.h"
#include "owner/conn_admission.h"
#include "owner/conn_limits.h"
#include "owner/conn_service.h"
#include "owner/conn_table.h"
#include "owner/dialler.h"
#include "owner/event_loop.h"
#include "owner/metrics.h"
#include "owner/mgr_stats.h"
#include "tcp_connector.h"
#include "tcp_listener.h"

namespace QUOLNET {

class CConnectorGroup;
class CProcessHandOver;

// A hand-over to another process (CConnectorMgr::OfferHandOver, TakeOver).
struct HandOverOptions {
    int deadline_ms = 10000;  // the whole exchange, from the successor's hello to its last answer
    // Old side: the connections that stay (see OfferHandOver) drain this long at most, as
    // with Shutdown; then Run returns.
    int drain_ms = 30000;
    // Accept a peer process of another user. By default the peer must run with this
    // process's effective user id (SO_PEERCRED), besides the socket's owner-only mode.
    bool any_user = false;
};

// What a TakeOver brought in.
struct TakeOverResult {
    bool complete = false;      // the old process said it has handed over everything it will
    size_t listeners = 0;       // listening sockets received (taken by Listen on their URL)
    size_t connections = 0;     // connections taken over
    uint64_t unsent_bytes = 0;  // of those: queued output that came with them
    uint64_t unread_bytes = 0;  // received bytes not yet delivered that came with them
    uint64_t batch_bytes = 0;   // message bytes the connections came in (the above included)
    std::string error;          // why it ended early, "" when complete
};

// Settings of a manager. The defaults protect a server started as it is, with its own pool
// of 4096 blocks (256 MiB at most, taken as needed): one connection holds at most 80 blocks
// each way (5 MiB: a 4 MiB packet spans at most 65 blocks, and the rest leaves room for the
// smaller packets around it), so at full load each way a connection holds under 4% of the
// pool, and a peer that stalls while holding blocks is closed within 30 s, or at once when
// the pool runs short (see "Limits" above).
struct ConnectorMgrOptions {
    static const unsigned int kDefaultMaxPacketLen = 4u << 20;  // 4 MiB

    CNetBufferMgr* pool = nullptr;    // lent pool (not owned); null: the manager makes one
    unsigned int pool_blocks = 4096;  // blocks of the manager's own pool (made on demand)
    IPackParser* parser = nullptr;    // lent parser; null: a CLengthPrefixParser
    // Checks every packet given to Send/SendCorked: one that does not parse to exactly its
    // length is refused with kSendBadArgs (logged once per connection), so a stream never
    // goes out of step. Null: the length-prefix framing's own check when `parser` is null
    // too; no check when the application framing is its own (a protocol's replies may look
    // different from its requests). Lent, not owned; called from any sending thread.
    IPackParser* send_parser = nullptr;
    unsigned int max_packet_len = kDefaultMaxPacketLen;  // also sizes the combine buffers
    unsigned int max_send_blocks = 80;                   // per connection send queue limit
    unsigned int max_recv_blocks = 80;                   // per connection receive limit
    int send_stall_ms = 30000;             // > 0: close a connection whose send queue has not shrunk
    int packet_deadline_ms = 30000;        // > 0: close a connection whose packet is not completed
    int idle_timeout_ms = 0;               // > 0: close a connection with no traffic for this long
    unsigned int pool_reserve_blocks = 0;  // shed stalled holders below this many free
                                           // blocks; 0: an eighth of the pool
    bool use_recv_callback = false;        // framing hands packets to OnPacket directly
    LogCategory* log_cat = nullptr;        // the manager's logging; null: WARN+ to stderr
    // The connectors' own step-by-step records (their internal failures, shortages and
    // traces, in the connector's words). Null: none. The manager reports what matters to an
    // operator itself, one line each in log_cat: every close for a limit (WARN, with the
    // limit's name), every framing error (WARN) and every socket error (INFO) that ends a
    // connection. Point it at log_cat (or another category) to debug a connection.
    LogCategory* connector_log_cat = nullptr;
    int stats_interval_sec = 0;  // > 0: print the statistics table that often
    FILE* stats_out = nullptr;   // where periodic/requested tables go (null: stdout)
    int max_events = 256;        // epoll events taken per wait
    // How the loop waits for its sockets: epoll (the default) or io_uring (see IoBackend;
    // which one runs is logged at Init and told by GetIoBackendName).
    IoBackend io_backend = IoBackend::kDefault;
    bool raise_fd_limit = true;  // Init raises the soft descriptor limit to the hard one
    // Connections the manager holds at most (see "Connection limit" above); 0: the soft
    // descriptor limit less fd_reserve (divided among a group's loops).
    unsigned int max_connections = 0;
    unsigned int fd_reserve = 64;                 // descriptors kept for the application (derived limit)
    int evict_idle_ms = 5000;                     // > 0: at the limit, close connections idle this long
    unsigned int max_connections_per_source = 0;  // > 0: refuse more from one address at accept
    // Accepted connections with a stream layer (SocketOptions::stream, TLS): a handshake not
    // done within this many ms is closed (limit handshake_timeout); 0: no deadline.
    int handshake_timeout_ms = 10000;
    // Handshake steps one loop tick makes at most; the rest wait for the next tick, so a
    // flood of new handshakes cannot starve the established connections. 0: no bound.
    unsigned int handshakes_per_tick = 64;
    // The share (percent of the loop's busy time) that new connections with a stream layer
    // (the accept, the TLS session, every handshake step: a full TLS handshake is a key
    // exchange and a signature, far more than a packet) may take while established
    // connections have work too: a flood of new handshakes then slows down, not the
    // connections already served. Time the loop would otherwise spend waiting for events
    // is theirs besides, and a loop whose established connections have had nothing to do
    // for 100 ms does not hold them back at all. A connection counts as established for
    // this 100 ms after its handshake: before, its first exchanges are part of the new
    // connections' load (a client that connects, asks once and leaves is not held back by
    // its own traffic). 0 or 100: no bound.
    unsigned int handshake_cpu_share = 30;
};

class QUOLNET_EXPORT CConnectorMgr {
  public:
    static constexpr int kAcceptRetryMs = CAcceptor::kAcceptRetryMs;  // retry of a paused listener
    static constexpr int kRefusedRetryMs = 1;                  // retry of work carried over to the next tick
    static constexpr int kBigWaitRetryMs = 5;                  // retry of connectors waiting for a big block
    static constexpr int kSweepMs = CConnLimits::kSweepMs;     // limit sweep period (at most)
    static constexpr int kLingerMs = CConnService::kLingerMs;  // reading to the peer's end after Close
    static constexpr int kPressureGraceMs = CConnLimits::kPressureGraceMs;  // stalled this long: a candidate
    static constexpr int kDefaultBacklog = 65535;  // the kernel caps it at net.core.somaxconn
    static constexpr size_t kStatsFullRows = CMgrStats::kStatsFullRows;  // more: FormatStats summarises
    static constexpr int kDefaultLogLinesPerSec = 20;                    // the default stderr logging's cap

    // Results of Send and SendCorked besides the packet's length (success).
    static constexpr int kSendNoRoom = 0;         // no room now; OnWritable tells when there is
    static constexpr int kSendUnknownId = -1;     // no such connection (or it has ended)
    static constexpr int kSendNotConnected = -2;  // a dial still in progress or waiting to redial
    static constexpr int kSendTooLarge = -3;      // can never fit: over the queue limit or the pool
    static constexpr int kSendClosing = -4;       // Close was called; nothing more is accepted
    static constexpr int kSendFailed = -5;        // the write failed; the connection is closing
    static constexpr int kSendBadArgs = -6;       // null buffer, zero length, or not one whole packet

    // Blocks the manager's own pool keeps back from reading for replies: a sixteenth, at
    // least one in a pool of two or more (see CNetBufferMgr's tx_reserve_blocks).
    static unsigned int SendReserveFor(unsigned int pool_blocks) {
        return pool_blocks >= 16 ? pool_blocks / 16 : (pool_blocks >= 2 ? 1 : 0);
    }

    // `handler` (not owned) receives the connections' events; it must outlive the manager.
    CConnectorMgr(IConnectorHandler* handler, const ConnectorMgrOptions& options = ConnectorMgrOptions());
    // Closes every connection (without offering further packets) and every descriptor.
    ~CConnectorMgr();
    CConnectorMgr(const CConnectorMgr&) = delete;
    CConnectorMgr& operator=(const CConnectorMgr&) = delete;

    // Creates the epoll instance, the eventfd, the pool and the combine buffers. Returns 0,
    // or -1 (logged; errno kept where a call failed) with everything it made undone, so a
    // later call may try again; 0 at once when already initialised. Never throws.
    int Init();

    // Listens on `url` ("tcp://127.0.0.1:0", "tcp://[::1]:9000", ...). Returns the bound port
    // (the one chosen when the URL asks for port 0), -1 for a malformed URL, -2 when the
    // socket cannot listen. Loop thread (or before Run).
    // A Unix-domain socket: "unix:///run/app.sock" (a file) or "unix://@name" (the abstract
    // namespace); the result is then 0. A socket file left by a dead server is replaced (a
    // connect to it is refused); one with a live server behind it, or a path that is not a
    // socket, is -2 (logged). The file is removed when the listener closes. Its connections
    // have the framing, limits and statistics of TCP ones, without the TCP options
    // (TCP_NODELAY, keepalive); OnConnected names them by the listener's URL, and
    // max_connections_per_source does not count them (their peers are unnamed).
    int Listen(const char* url, int backlog = kDefaultBacklog);
    // The same, with what every accepted socket is set to (net/socket_options.h; the buffer
    // sizes on the listening socket, which the accepted ones inherit). A connection whose
    // options fail, or whose `setup` refuses it, is closed before OnConnected and counted
    // (GetRefusedCount(AcceptRefusal::kSocketSetup)).
    int Listen(const char* url, const SocketOptions& socket, int backlog = kDefaultBacklog);
    // The bound URL of the i-th listener ("" when there is none).
    std::string GetListenURL(size_t i) const;

    // Dials `url`. Returns the connection's id, or 0 for a malformed URL (a port of 0 or
    // above 65535 included) or a failed set-up. The connection is reported by OnConnected
    // once established. Loop thread (or before Run); other threads use Post (or
    // CConnectorGroup::Dial).
    // `url` may name a Unix-domain socket ("unix:///run/app.sock", "unix://@name"); a dial
    // to it completes or fails at once (no TCP option is set; a source address is refused).
    // The host may be a name ("tcp://localhost:5432", "tcp://db.internal:5432"): it is
    // looked up before every attempt, redials included, on a worker thread of the manager's
    // (started by the first such dial), never on the loop, and the addresses are tried in
    // getaddrinfo's order (IPv6 and IPv4 as it sorts them) within the connect timeout, which
    // counts from the start of the lookup. A name that does not resolve ends the attempt
    // with kDialResolveFailed (the resolver's message logged once). OnConnected and OnClosed
    // are given `url` as it was dialled. A numeric URL takes none of these steps.
    ConnId Dial(const char* url, const DialOptions& options = DialOptions());

    // Sends one whole packet. Any thread. On the loop thread, a packet for a connection
    // that already has replies corked in this tick joins them (it leaves with the same
    // flush, in order), so `more ? SendCorked : Send` sends a whole run with one write.
    // Returns len, or one of the kSend... results: kSendNoRoom (try again after
    // OnWritable), kSendUnknownId, kSendNotConnected, kSendTooLarge (logged once per
    // connection and counted), kSendClosing, kSendFailed (the loop closes the connection),
    // kSendBadArgs (also for a buffer that does not frame as exactly one packet of `len`
    // bytes, see ConnectorMgrOptions::send_parser). After the peer's end of stream a
    // connection still accepts replies until its drain ends (see HoldOpen).
    // In a group, an id served by another loop of the group is sent through that loop.
    int Send(ConnId id, const char* buf, unsigned int len);
    // Queues one whole packet; on the loop thread, the loop flushes each corked connection
    // once at the end of the tick. From another thread the packet leaves when the socket
    // reports writability (queueing onto an empty queue asks for that). Results as Send.
    int SendCorked(ConnId id, const char* buf, unsigned int len);
    // Ends a connection gracefully (no reconnect): stops delivery and reading, flushes what
    // Send accepted, shuts down the sending side and closes once the peer has ended its
    // stream (see above); OnClosed follows with kClosedLocally. A dial in progress or
    // waiting to redial ends at once. Any thread (posted to the loop).
    void Close(ConnId id);
    // Ends a connection at once: queued bytes are dropped, no further packets are offered.
    // OnClosed follows with kClosedLocally. Any thread (posted to the loop).
    void Abort(ConnId id);
    // Flow control by the application. PauseReading stops reading `id` and offering its
    // packets to OnPacket: its socket leaves the epoll read set, so a paused connection
    // costs nothing per tick, and TCP slows the peer down once the kernel's buffers fill.
    // A packet the handler refuses (OnPacket returns false) pauses its connection the same
    // way, with that packet first in line. ResumeReading offers the waiting packets again
    // (the refused one first) and reads on. While paused a connection is exempt from
    // packet_deadline, idle_timeout and pool-pressure shedding: the stall is the
    // application's, not the peer's (the blocks it holds stay capped by max_recv_blocks and
    // count in the statistics; send_stall_ms still applies to what it sends). Pausing a
    // paused connection, or resuming a running one, does nothing. Any thread (posted to the
    // loop when called elsewhere); an unknown id is ignored.
    void PauseReading(ConnId id);
    void ResumeReading(ConnId id);
    // Replies still owed after the peer's end of stream. By default a connection whose peer
    // has ended its stream is shut down as soon as its queued replies are out; an
    // application that answers later (from a worker thread) calls HoldOpen(id) when it
    // takes a request and ReleaseHold(id) after its Send of the reply. While holds remain,
    // the drain after the peer's end waits for them, bounded by send_stall_ms (counted from
    // the last byte written; the close is then kLimit, send_stall). Close(id) ends the
    // connection whatever its holds; Abort too. HoldOpen returns false (and holds nothing)
    // for an unknown id or a connection that no longer accepts Sends. Any thread; each
    // successful HoldOpen is matched by one ReleaseHold.
    bool HoldOpen(ConnId id);
    void ReleaseHold(ConnId id);
    // Runs `fn` on the loop thread at the next tick. Any thread.
    void Post(std::function<void()> fn);

    // One loop iteration: waits up to `timeout_ms` (-1: until something happens) and does
    // all the work due. Returns the number of epoll events handled, or -1 when epoll fails.
    // For the work of the iteration the loop thread keeps up to two of the pool's blocks for
    // reuse (CNetBufferMgr::CThreadCache); they count as used meanwhile and are back in the
    // pool when RunOnce returns.
    int RunOnce(int timeout_ms);
    // Loops until Stop(). Returns 0, or -1 when epoll fails.
    int Run();
    // Makes Run return soon. Any thread; async-signal-safe.
    void Stop();

    // ---- stopping a server without dropping anyone ----

    // Closes every listener: no new connection is accepted (connections still in a
    // listener's queue are refused by the kernel; a successor process that listens on the
    // same port with SO_REUSEPORT takes the new ones). Established connections go on.
    // Loop thread (or before Run); from another thread use Shutdown or Post.
    void StopListening();
    // The ids of the connections the manager holds now (dials in progress and waiting
    // ones included; accepted connections whose stream layer's handshake is under way are
    // not the application's yet and are left out), in ascending order. Any thread.
    std::vector<ConnId> ListConnections();
    // Drains the server and then makes Run return: stops listening, ends every connection
    // gracefully and aborts what is left `timeout_ms` after the call is taken up.
    // Gracefully means: reading stops, the packets already received are still offered to
    // OnPacket, their replies (and replies held open with HoldOpen) are flushed, every Send
    // that returned its length reaches the peer whole, the sending side is shut down and the
    // peer's end of stream is awaited (LINGER); OnClosed reports kClosedLocally. Dials in
    // progress or waiting to redial end at once, and nothing reconnects. At the deadline
    // the connections still open are aborted (their queued bytes dropped). Run returns once
    // no connection is left. A second call changes nothing. Any thread; async-signal-safe
    // (an atomic store and a write to the eventfd), so a SIGTERM handler may call it.
    void Shutdown(int timeout_ms);
    bool IsShuttingDown() const { return m_shutdown_requested_ms.load() >= 0; }
    // After Shutdown: connections it ended gracefully, and those aborted at its deadline.
    // Any thread.
    uint64_t GetShutdownDrainedCount() const { return m_shutdown_drained.load(); }
    uint64_t GetShutdownAbortedCount() const { return m_shutdown_aborted.load(); }
    bool IsStopping() const { return m_stop.load(); }

    // Timers run on the loop thread. `delay_ms` until the first run, then every
    // `interval_ms` (0: once). Returns an id for CancelTimer. Any thread.
    uint64_t AddTimer(int delay_ms, int interval_ms, std::function<void()> fn);
    void CancelTimer(uint64_t timer_id);

    // The statistics table: the pool and close-reason summary lines, then one
    // CTcpConnector::PrintStat row per connection. With more than kStatsFullRows connections
    // and `full` false, the rows are replaced by totals over all connections and the rows of
    // the ten that hold the most blocks. Loop thread (or when the loop is not running).
    std::string FormatStats(bool full = false);
    void PrintStats(FILE* out, bool full = false);
    // Asks the loop to print the table to the configured output at its next tick. Any thread.
    void RequestStats();

    // Metrics in machine-readable form (JSON or the Prometheus text format; the keys, names
    // and meanings are listed in net/owner/metrics.h). Counters never go down: the traffic
    // of a connection that ends or moves to another loop joins running totals as it
    // leaves, and no work is added per packet.
    // SnapshotMetrics fills `out` with the figures now; it walks the connections for their
    // bytes and packets, so it runs on the loop thread (or when the loop is not running),
    // as does FormatMetrics, which formats that snapshot.
    void SnapshotMetrics(MgrMetrics* out);
    std::string FormatMetrics(MetricsFormat format);
    // Any thread: takes the snapshot on the loop thread at its next tick and calls `done`
    // there with the text. Nothing is called if the loop never runs again.
    void RequestMetrics(MetricsFormat format, std::function<void(const std::string&)> done);

    bool IsConnected(ConnId id);
    size_t GetConnectionCount();
    CNetBufferMgr* GetPool() { return m_pool; }
    int GetEpollFd() const { return m_loop.GetEpollFd(); }
    // The connector behind `id`, or null. Loop thread only; valid until the id closes. Its
    // receive side (Peek, Drop and the rest) is set single-threaded (SetSingleThreadRecv) and
    // must be used on the loop thread; Send and SendToQ keep their any-thread contract.
    CTcpConnector* GetConnector(ConnId id);

    // The application's context of a connection: a pointer (or a small value cast to one)
    // that the manager carries and never reads, frees or copies anywhere but with the
    // connection. SetContext attaches it (false for an unknown id); it stays through
    // reconnects under the same id and moves to another loop of a group, and OnClosed still
    // sees it (when not `reconnecting`, for the last time: the place to free it). A dialled
    // connection may start with one (DialOptions::context). Loop thread serving `id` (inside
    // a handler call, `mgr` is that loop).
    bool SetContext(ConnId id, void* ctx);
    // The context of `id`, or null (unknown id, or none set). Loop thread serving `id`.
    void* GetContext(ConnId id);
    // The context of the connection the handler call in progress is about (OnConnected,
    // OnPacket, OnWritable, OnClosed, OnMoved), read without a lookup; null outside those
    // calls or when none was set. Loop thread.
    void* CurrentContext() const {
        const OwnedConn* c = m_cb_conn != nullptr ? m_cb_conn : m_delivering;
        return c != nullptr ? c->context : nullptr;
    }
    // Number of times a listener was paused at the descriptor limit. Any thread.
    int GetAcceptPauseCount() const { return m_acceptor.GetPauseCount(); }
    // Number of times a listener was paused at max_connections with none idle enough to
    // close. Any thread.
    uint64_t GetLimitPauseCount() const { return m_acceptor.GetLimitPauseCount(); }
    // The connection limit in force (max_connections, or the figure derived from the
    // descriptor limit); 0 before Init. Any thread after Init.
    unsigned int GetMaxConnections() const { return m_admission.GetLimit(); }
    // Connections closed at accept for `reason` (max_connections_per_source, the listener's
    // socket options). Any thread.
    uint64_t GetRefusedCount(AcceptRefusal reason) const { return m_stats.GetRefusedCount(reason); }
    // Descriptors accepted by this manager's listeners. Any thread.
    uint64_t GetAcceptCount() const { return m_acceptor.GetAcceptCount(); }
    // Connections ended for `reason`, and for limit `limit`, since Init. Any thread.
    uint64_t GetCloseCount(CloseReason reason) const { return m_stats.GetCloseCount(reason); }
    uint64_t GetLimitCloseCount(CloseLimit limit) const { return m_stats.GetLimitCloseCount(limit); }
    // Host-name lookups the dials started (one per attempt of a dial by name). Any thread.
    uint64_t GetResolveCount() const { return m_dialler.GetResolveCount(); }
    // Sends refused with kSendTooLarge. Any thread.
    uint64_t GetTooLargeCount() const { return m_stats.GetTooLargeCount(); }
    // Times the pool ran out of blocks (each logged once at WARN). Any thread.
    uint64_t GetPoolExhaustedCount() const { return m_stats.GetPoolExhaustedCount(); }
    // ---- Restart without dropping anyone: hand-over to another process ----
    //
    // The running process offers (OfferHandOver); a new one, started by the operator, takes
    // over (TakeOver): the same listening sockets, so nothing in their queues is lost, then
    // each live connection with its id, its descriptor, the bytes it owes either way (queued
    // output, received packets not yet delivered, a half-received packet) and the
    // application's state for it (OnHandOut -> OnHandIn), so the peer sees a pause, nothing
    // else. What moves: ESTABLISHED connections without a stream layer, accepted or dialled
    // (a dialled one's reconnect setting stays behind: the new process dials what it needs).
    // What stays and drains in the old process: TLS connections (their session lives in this
    // process's OpenSSL), handshakes, dials in progress, connections closing, and those
    // OnHandOut keeps. A CConnectorGroup offers and takes over for all its loops (see
    // connector_group.h); its loops' own calls return -3 (offer) and -1 (take over).
    //
    // Offers the hand-over on the Unix socket `path` (created with owner-only permissions;
    // removed when the offer ends). A successor that connects is checked (same effective
    // user unless options.any_user; the same wire version) and refused with a reason
    // otherwise (WARN "hand-over refused: ..."), the offer staying open. This process serves
    // on while the successor makes ready the pool blocks the connections' bytes will need
    // (it is told how many); once the successor says it is ready, the exchange runs on the
    // loop thread in one go, serving nothing else meanwhile (the pause the peers see): the
    // listeners go (this process accepts no more), then the connections in batches. All of
    // it is bounded by options.deadline_ms from the successor's arrival. A connection is this process's until
    // the successor confirms it and the successor's from then on: OnClosed reports kHandedOver here. If the
    // exchange fails midway (the successor dies, refuses, or the deadline passes), everything not confirmed
    // stays here and is served as before, listeners included (WARN "hand-over to pid N failed after M of K
    // connections: ..."). After a complete exchange the listeners are closed here (the successor has them)
    // and what stayed drains as with Shutdown(options.drain_ms): Run returns when none is left. Returns 0, -1
    // when the socket cannot be made (errno kept, ERROR logged), -2 when an offer is open already, -3 in a
    // group. Loop thread, or before Run.
    int OfferHandOver(const char* path, const HandOverOptions& options = HandOverOptions());
    // Whether an offer is open (waiting for a successor), and whether a hand-over has been
    // completed (the process has passed on what it could; what stayed drains). Any thread.
    bool IsOfferingHandOver() const { return m_handover_offering.load(); }
    bool IsHandedOver() const { return m_handed_over.load(); }
    // Takes over from the process offering on `path`: connects (retrying until the
    // deadline while nothing offers there yet), checks the peer like the offer does, and
    // takes what comes: the process state (OnHandInProcess), the listeners (kept for
    // Listen: call Listen with each URL the old process listened on, after TakeOver; the
    // ones no Listen takes are closed at the first RunOnce), then the connections (each
    // reported with OnHandIn, its packets offered once Run runs). Blocks until the old
    // process says it is done, or fails. Returns 0 when complete; -1 otherwise, with
    // `result->error` saying why (what was confirmed before stays this manager's). Before
    // Run, on the thread that will run the loop; after Init.
    int TakeOver(const char* path, const HandOverOptions& options, TakeOverResult* result);

    // "epoll" or "io_uring": how the loop waits (after Init). Any thread.
    const char* GetIoBackendName() const { return m_loop.UsesIoUring() ? "io_uring" : "epoll"; }
    // In a group: the group and this loop's index; null and 0 for a manager on its own.
    CConnectorGroup* GetGroup() const { return m_group; }
    int GetLoopIndex() const { return m_loop_index; }

  private:
    friend class CAcceptor;
    friend class CDialler;
    friend class CConnService;
    friend class CConnLimits;
    friend class CConnectorGroup;
    friend class CConnMover;
    friend class CConnAdmission;
    friend class CProcessHandOver;

    LogCategory* LogCat() const { return m_options.log_cat; }
    // Init's choice of back end (ConnectorMgrOptions::io_backend); 0, or -1 (logged).
    int ChooseIoBackend();
    // Names `c` as the connection of the handler calls made during its life (CurrentContext).
    class HandlerScope {
      public:
        HandlerScope(CConnectorMgr& mgr, OwnedConn* c) : m_mgr(mgr), m_saved(mgr.m_cb_conn) {
            mgr.m_cb_conn = c;
        }
        ~HandlerScope() { m_mgr.m_cb_conn = m_saved; }
        HandlerScope(const HandlerScope&) = delete;
        HandlerScope& operator=(const HandlerScope&) = delete;

      private:
        CConnectorMgr& m_mgr;
        OwnedConn* m_saved;
    };
    int InitResources();
    OwnedConn* NewConn(const char* url);
    void AdoptAccepted(int fd, const std::string& peer, const std::shared_ptr<IStreamIoFactory>& stream);
    void Queue(OwnedConn* conn);
    void Retry(OwnedConn* conn) { m_pending.push_back(conn); }
    // Parks a connection whose reading waits for a pool block: it is retried only when the
    // pool has blocks again, a few per free block, not every tick (see ResumeStarved).
    void Starve(OwnedConn* conn);
    void ResumeStarved();
    unsigned int RecvBlocksFree() const;
    void ReleaseFd(OwnedConn* conn);
    void DestroyConn(OwnedConn* conn);
    void CloseNow(ConnId id, bool graceful);
    // PauseReading/ResumeReading on the loop thread.
    void SetPausedNow(ConnId id, bool paused);
    // HoldOpen (+1) and ReleaseHold (-1); `routed` as for SendImpl. Any thread.
    bool AdjustHold(ConnId id, int delta, bool routed);
    // Asks the loop to service a draining connection again (a foreign sender or hold may
    // have finished its drain). On the loop thread it is queued at once; from another
    // thread its id is handed over and the loop woken. The caller holds CConnTable's lock
    // shared when it is not the loop thread.
    void Recheck(OwnedConn* conn, bool on_loop);
    // Queues the connections other threads asked to recheck. Loop thread.
    void TakeRechecks();
    // Whether `buf` frames as exactly one packet of `len` bytes (the send check); logs a
    // refusal once per connection.
    bool SendFramesWhole(OwnedConn* conn, const char* buf, unsigned int len);
    int SendImpl(ConnId id, const char* buf, unsigned int len, bool corked, bool routed);
    int SendTo(OwnedConn* conn, const char* buf, unsigned int len, bool corked, bool on_loop,
               std::shared_lock<std::shared_mutex>* lock);
    bool RefuseTooLarge(OwnedConn* conn, unsigned int len, bool on_loop);
    int ComputeWait(int timeout_ms);
    void HandleEvents(int n, std::vector<size_t>* readable);
    void RunTick(const std::vector<size_t>& readable);
    void EndTick();
    void FlushCorked();
    // What FlushCorked does with a connection after its flush returned `ret`.
    void FlushedCorked(OwnedConn* c, int ret);
    void DrainWork();
    // Shutdown's work on the loop thread: begins the drain once asked, aborts what is left at
    // the deadline, and stops the loop when no connection is left.
    void RunShutdown(int64_t now);
    // The default logging's count of dropped lines, once their second is over (`now`: at
    // once). Loop thread, or the destructor.
    void FlushDroppedLog(bool now);
    bool OnLoopThread() const { return m_loop.OnLoopThread(); }

    // Group membership (set by CConnectorGroup before Init; see connector_group.h).
    void JoinGroup(CConnectorGroup* group, int index);

    IConnectorHandler* m_handler;
    ConnectorMgrOptions m_options;
    CNetBufferMgr* m_pool;
    std::unique_ptr<CNetBufferMgr> m_own_pool;
    // The longest packet a Send can ever queue: max_send_blocks blocks, and no more than the
    // pool lends to senders (all but an eighth). Set by Init; read by any sending thread.
    uint64_t m_send_len_limit = 0;
    IPackParser* m_parser;
    std::unique_ptr<CLengthPrefixParser> m_own_parser;
    IPackParser* m_send_check;                 // send_parser, the own parser, or null (no check); set by Init
    std::unique_ptr<char[]> m_combine_buf;     // Peek joins multi-block packets here (loop thread)
    std::unique_ptr<char[]> m_cb_combine_buf;  // framing joins them here for the callback
    std::unique_ptr<LogCategory> m_default_log;  // WARN+ to stderr when log_cat is null
    struct LogLimiter;
    std::unique_ptr<LogLimiter> m_log_limiter;  // the default category's sink state
    bool m_initialised;
    char m_last_err[256];

    CEventLoop m_loop;
    CAcceptor m_acceptor;
    CConnTable m_table;
    CDialler m_dialler;
    CConnService m_service;
    CConnLimits m_limits;
    CMgrStats m_stats;
    CConnAdmission m_admission;

    // The connection of the OnConnected, OnWritable, OnClosed or OnMoved call in progress
    // (HandlerScope), for CurrentContext. Loop thread.
    OwnedConn* m_cb_conn = nullptr;
    OwnedConn* m_delivering;             // the connection whose packet OnPacket is handling
    std::vector<OwnedConn*> m_work;      // connections to service this tick (loop thread)
    std::vector<OwnedConn*> m_starved;   // reading waits for a block, oldest first (loop thread)
    std::vector<OwnedConn*> m_pending;   // work carried over to the next tick (loop thread)
    unsigned int m_handshake_steps = 0;  // handshake steps made this tick (loop thread)
    // Handshake work waits for the end of the tick (CConnService::RunHandshakes), where the
    // time the tick gave the other connections is known: the connections waiting, the
    // handshake time the loop may still spend (ns; see handshake_cpu_share), when the tick
    // began (read only once a stream layer is in use), and the connections other than
    // handshakes serviced in it. Loop thread.
    std::vector<OwnedConn*> m_handshakes;
    std::vector<OwnedConn*> m_handshakes_run;  // the list RunHandshakes works through
    int64_t m_handshake_credit_ns = 0;
    int64_t m_tick_start_ns = 0;
    int64_t m_tick_metered_ns = 0;         // accepts and handshake steps of this tick
    int64_t m_handshake_phase_end_ns = 0;  // when the last tick's handshake work ended
    int64_t m_other_work_ns = 0;           // the last tick in which established connections had work
    unsigned int m_tick_other_work = 0;
    bool m_stream_layers_used = false;
    std::vector<OwnedConn*> m_corked;    // connections with corked sends this tick (loop thread)
    std::vector<OwnedConn*> m_flushing;  // the ones FlushCorked is sending (loop thread)
    // FlushCorked's batch for the poller (IPoller::SendBatch): each connection's first block,
    // and the results. Storage kept from tick to tick (loop thread).
    std::vector<OwnedConn*> m_batch_conns;
    std::vector<SendOp> m_batch_ops;
    std::vector<int> m_batch_results;
    std::vector<OwnedConn*> m_graveyard;  // finalised or moved away, freed at the end of the tick

    std::mutex m_recheck_mutex;             // guards m_recheck_foreign
    std::vector<ConnId> m_recheck_foreign;  // rechecks asked for by other threads

    std::atomic<int> m_shutdown_requested_ms{-1};  // Shutdown's timeout; -1: not asked
    // The hand-over to another process (loop thread), and its state for any thread.
    std::unique_ptr<CProcessHandOver> m_handover;
    std::atomic<bool> m_handover_offering{false};
    std::atomic<bool> m_handed_over{false};
    bool m_shutting_down = false;        // the drain has begun (loop thread)
    int64_t m_shutdown_deadline_ms = 0;  // (loop thread)
    std::atomic<uint64_t> m_shutdown_drained{0};
    std::atomic<uint64_t> m_shutdown_aborted{0};

    std::atomic<bool> m_stop;
    std::atomic<bool> m_stats_requested;
    int64_t m_next_stats_ms;

    CConnectorGroup* m_group;  // null on its own
    int m_loop_index;
    bool m_reuse_port;  // listeners share their port with the other loops' (SO_REUSEPORT)
};

}  // namespace QUOLNET
