// CConnectorMgr: the owner of many CTcpConnectors, driven by one epoll loop.
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
//   - A ring that was full (1000 packets), or framing that stopped for want of a block,
//     resumes as soon as the application has taken packets, without new traffic: the
//     manager sets EPOLLIN and runs Update again for that connector.
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
// Threads and locks:
//   loop thread   everything not marked otherwise below;
//   any thread    Send, SendCorked, Close, Abort, Post, Stop, RequestStats, AddTimer,
//                 CancelTimer, IsConnected, GetConnectionCount, the Get...Count statistics;
//   m_conn_lock   (shared_mutex) the id map: taken shared by Send/SendCorked/IsConnected on
//                 other threads for the lookup and the whole connector call, exclusively by
//                 the loop thread when it adds or removes a connection, connects, or closes
//                 a descriptor. Send/SendCorked on the loop thread take no lock: only that
//                 thread changes the map or closes descriptors;
//   m_post_mutex  the mailbox of posted functions; m_timer_mutex the timers.
// Stop() is async-signal-safe (an atomic store and a write to the eventfd).
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "common/relaxed.h"
#include "log/log.h"
#include "net/connector_handler.h"
#include "net/length_parser.h"
#include "net/net_buffer_mgr.h"
#include "net/tcp_connector.h"
#include "net/tcp_listener.h"

namespace QUOLNET {

// Settings of a manager. The defaults protect a server started as it is, with its own pool
// of 4096 blocks (256 MiB at most, taken as needed): one connection holds at most 80 blocks
// each way (5 MiB: a 4 MiB packet spans at most 65 blocks, and the rest leaves room for the
// smaller packets around it), so at full load each way a connection holds under 4% of the
// pool, and a peer that stalls while holding blocks is closed within 30 s, or at once when
// the pool runs short (see "Limits" above).
struct ConnectorMgrOptions {
    static const unsigned int kDefaultMaxPacketLen = 4u << 20;  // 4 MiB

    CNetBufferMgr* pool = nullptr;                       // lent pool (not owned); null: the manager makes one
    unsigned int pool_blocks = 4096;                     // blocks of the manager's own pool (made on demand)
    IPackParser* parser = nullptr;                       // lent parser; null: a CLengthPrefixParser
    unsigned int max_packet_len = kDefaultMaxPacketLen;  // also sizes the combine buffers
    unsigned int max_send_blocks = 80;                   // per connection send queue limit
    unsigned int max_recv_blocks = 80;                   // per connection receive limit
    int send_stall_ms = 30000;             // > 0: close a connection whose send queue has not shrunk
    int packet_deadline_ms = 30000;        // > 0: close a connection whose packet is not completed
    int idle_timeout_ms = 0;               // > 0: close a connection with no traffic for this long
    unsigned int pool_reserve_blocks = 0;  // shed stalled holders below this many free
                                           // blocks; 0: an eighth of the pool
    bool use_recv_callback = false;        // framing hands packets to OnPacket directly
    LogCategory* log_cat = nullptr;        // manager and connector logging; null: WARN+ to stderr
    int stats_interval_sec = 0;            // > 0: print the statistics table that often
    FILE* stats_out = nullptr;             // where periodic/requested tables go (null: stdout)
    int max_events = 256;                  // epoll events taken per wait
    bool raise_fd_limit = true;            // Init raises the soft descriptor limit to the hard one
};

// How a dialled connection behaves.
struct DialOptions {
    int connect_timeout_ms = 0;   // > 0: give up an attempt still in progress after this
    bool reconnect = false;       // redial after failures and after the connection ends
    int backoff_initial_ms = 50;  // first redial delay; doubled after every failure
    int backoff_max_ms = 2000;    // cap of the delay
    int max_attempts = 0;         // > 0: give up after this many failed attempts in a row
};

class QUOLNET_EXPORT CConnectorMgr {
  public:
    static constexpr int kAcceptRetryMs = 200;     // retry of a listener paused at the fd limit
    static constexpr int kRefusedRetryMs = 1;      // re-offer of packets the handler refused
    static constexpr int kBigWaitRetryMs = 5;      // retry of connectors waiting for a big block
    static constexpr int kSweepMs = 250;           // period of the limit sweep (at most)
    static constexpr int kLingerMs = 2000;         // reading to the peer's end after Close
    static constexpr int kPressureGraceMs = 1000;  // stalled this long: a pressure candidate
    static constexpr int kDefaultBacklog = 65535;  // the kernel caps it at net.core.somaxconn
    static constexpr size_t kStatsFullRows = 64;
    static constexpr int kDefaultLogLinesPerSec = 20;  // more connections: FormatStats summarises

    // Results of Send and SendCorked besides the packet's length (success).
    static constexpr int kSendNoRoom = 0;         // no room now; OnWritable tells when there is
    static constexpr int kSendUnknownId = -1;     // no such connection (or it has ended)
    static constexpr int kSendNotConnected = -2;  // a dial still in progress or waiting to redial
    static constexpr int kSendTooLarge = -3;      // can never fit: over the queue limit or the pool
    static constexpr int kSendClosing = -4;       // Close was called; nothing more is accepted
    static constexpr int kSendFailed = -5;        // the write failed; the connection is closing
    static constexpr int kSendBadArgs = -6;       // null buffer or zero length

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
    int Listen(const char* url, int backlog = kDefaultBacklog);
    // The bound URL of the i-th listener ("" when there is none).
    std::string GetListenURL(size_t i) const;

    // Dials `url`. Returns the connection's id, or 0 for a malformed URL or a failed set-up.
    // The connection is reported by OnConnected once established. Loop thread (or before
    // Run); other threads use Post.
    ConnId Dial(const char* url, const DialOptions& options = DialOptions());

    // Sends one whole packet. Any thread. On the loop thread, a packet for a connection
    // that already has replies corked in this tick joins them (it leaves with the same
    // flush, in order), so `more ? SendCorked : Send` sends a whole run with one write.
    // Returns len, or one of the kSend... results: kSendNoRoom (try again after
    // OnWritable), kSendUnknownId, kSendNotConnected, kSendTooLarge (logged once per
    // connection and counted), kSendClosing, kSendFailed (the loop closes the connection),
    // kSendBadArgs. After the peer's end of stream a connection still accepts replies.
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
    // Runs `fn` on the loop thread at the next tick. Any thread.
    void Post(std::function<void()> fn);

    // One loop iteration: waits up to `timeout_ms` (-1: until something happens) and does
    // all the work due. Returns the number of epoll events handled, or -1 when epoll fails.
    int RunOnce(int timeout_ms);
    // Loops until Stop(). Returns 0, or -1 when epoll fails.
    int Run();
    // Makes Run return soon. Any thread; async-signal-safe.
    void Stop();
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

    bool IsConnected(ConnId id);
    size_t GetConnectionCount();
    CNetBufferMgr* GetPool() { return m_pool; }
    int GetEpollFd() const { return m_epoll; }
    // The connector behind `id`, or null. Loop thread only; valid until the id closes.
    CTcpConnector* GetConnector(ConnId id);
    // Number of times a listener was paused at the descriptor limit. Any thread.
    int GetAcceptPauseCount() const { return m_accept_pause_cnt; }
    // Connections ended for `reason`, and for limit `limit`, since Init. Any thread.
    uint64_t GetCloseCount(CloseReason reason) const;
    uint64_t GetLimitCloseCount(CloseLimit limit) const;
    // Sends refused with kSendTooLarge. Any thread.
    uint64_t GetTooLargeCount() const { return m_too_large_cnt; }
    // Times the pool ran out of blocks (each logged once at WARN). Any thread.
    uint64_t GetPoolExhaustedCount() const { return m_pool_exhausted_cnt; }

  private:
    // A connection's states. ServiceConn reads every transition in one place:
    //
    //   Dial ---> CONNECTING --connected--> ESTABLISHED --peer's end / Close--> DRAINING
    //               |    ^                     |                                    |
    //          failed|    |redial              |reset, error, limit,   flushed; SHUT_WR
    //               v    |                     |Abort                               v
    //             WAIT_RETRY <--reconnect-- CLOSING <---------- peer's end ---- LINGER
    //                                        (socket gone; offers what is left)
    enum ConnState {
        CONN_CONNECTING = 1,  // a dial in progress
        CONN_ESTABLISHED = 2,
        CONN_WAIT_RETRY = 3,  // a dialled connection waiting for its next attempt
        CONN_CLOSING = 4,     // socket gone; offering what is left in the ring
        CONN_DRAINING = 5,    // no more reading: flushing replies and queued bytes
        CONN_LINGER = 6,      // sending side shut down; reading to the peer's end of stream
    };

    // One connection and what the manager knows about it. Loop thread only, except `id`
    // and `connector`, which other threads reach through m_by_id under m_conn_lock, and
    // the Relaxed flags set by foreign Sends.
    struct Conn {
        ConnId id = 0;
        std::unique_ptr<CTcpConnector> connector;
        int fd = -1;  // the descriptor the manager owns; -1 when none
        bool accepted = false;
        std::string url;
        DialOptions dial;
        ConnState state = CONN_CONNECTING;  // changed only by SetState
        // What other threads' Sends may do: kGateClosed, kGateOpen or kGateClosing. Set
        // with `state` by SetState; read by any thread.
        Relaxed<int> gate;
        bool was_established = false;   // OnConnected was reported for the current socket
        bool close_requested = false;   // Abort(id) or a failed Send: close at once
        bool graceful = false;          // Close(id): drain, shut down, linger, close
        bool refused = false;           // the handler refused a packet; re-offer later
        bool in_work = false;           // already queued for this tick
        bool corked = false;            // in m_corked
        bool too_large_logged = false;  // kSendTooLarge was logged for this connection
        Relaxed<bool> want_room;        // a Send returned kSendNoRoom; OnWritable is due
        int attempt = 0;                // connect attempts since the last success
        int backoff_ms = 0;
        uint64_t timer_id = 0;      // retry or connect-timeout timer
        bool dead = false;          // finalised; freed at the end of the tick
        Relaxed<bool> send_failed;  // set by any thread when Send failed
        CloseInfo close_info;       // why it ends; the first cause recorded wins
        bool close_info_set = false;
        // Progress seen by the limit sweep (loop thread).
        int64_t tx_bytes_seen = 0;
        int64_t tx_progress_ms = 0;  // last time the send queue was empty or shrank
        int64_t rx_bytes_seen = 0;
        int64_t rx_progress_ms = 0;  // last time no packet was in progress or bytes came
        long rx_packets_seen = 0;
        int64_t partial_since_ms = 0;  // a packet in progress since then; 0: none
        int64_t active_ms = 0;         // last time a byte moved either way
        int64_t linger_until_ms = 0;   // LINGER ends by then
        CConnectorMgr* mgr = nullptr;
    };

    struct Timer {
        uint64_t id;
        int interval_ms;
        std::function<void()> fn;
    };

    static int64_t NowMs();
    static int RecvCallback(const char* url, const char* data, int len, void* arg);

    Conn* NewConn(const char* url);
    int AddConn(Conn* conn);
    void StartConnect(Conn* conn);
    void OnDialFailed(Conn* conn);
    void ScheduleRetry(Conn* conn);
    enum { kGateClosed = 0, kGateOpen = 1, kGateClosing = 2 };
    void SetState(Conn* conn, ConnState state);
    void ServiceConn(Conn* conn);
    void ServiceEstablished(Conn* conn);
    void ServiceDraining(Conn* conn);
    void EnterDraining(Conn* conn);
    void DropRing(Conn* conn);
    void SetCloseInfo(Conn* conn, CloseReason reason, int error, CloseLimit limit = CloseLimit::kNone);
    void SetCloseInfoFromConnector(Conn* conn);
    void CloseForLimit(Conn* conn, CloseLimit limit, const char* detail);
    void Sweep(int64_t now);
    void Track(Conn* conn, int64_t now);
    bool IsStalled(const Conn* conn, int64_t now) const;
    void RelievePressure(int64_t now);
    void NotifyRoom();
    unsigned int PoolFree() const;
    int SweepPeriodMs() const;
    int Deliver(Conn* conn);
    void RetryBigWait(Conn* conn);
    void BeginClose(Conn* conn);
    void FinishClose(Conn* conn);
    void ReleaseFd(Conn* conn);
    void DestroyConn(Conn* conn);
    void AcceptAll(size_t listener_idx);
    void PauseListener(size_t listener_idx);
    void ResumeListeners();
    void RunTimers();
    void RunPosted();
    void FlushCorked();
    void Wake();
    void DrainWork();
    void Queue(Conn* conn);
    int SendImpl(ConnId id, const char* buf, unsigned int len, bool corked);
    void CloseNow(ConnId id, bool graceful);
    bool OnLoopThread() const;

    IConnectorHandler* m_handler;
    ConnectorMgrOptions m_options;
    int m_epoll;
    int m_wake_fd;
    char m_wake_tag;  // its address marks the eventfd's epoll events
    CNetBufferMgr* m_pool;
    std::unique_ptr<CNetBufferMgr> m_own_pool;
    IPackParser* m_parser;
    std::unique_ptr<CLengthPrefixParser> m_own_parser;
    std::unique_ptr<char[]> m_combine_buf;       // Peek joins multi-block packets here (loop thread)
    std::unique_ptr<char[]> m_cb_combine_buf;    // framing joins them here for the callback
    std::unique_ptr<LogCategory> m_default_log;  // WARN+ to stderr when log_cat is null
    struct LogLimiter;
    std::unique_ptr<LogLimiter> m_log_limiter;  // the default category's sink state
    bool m_initialised;
    char m_last_err[256];

    std::vector<std::unique_ptr<CTcpListener>> m_listeners;
    std::vector<bool> m_listener_paused;
    uint64_t m_accept_retry_timer;
    Relaxed<int> m_accept_pause_cnt;  // written by the loop thread, read by any

    std::shared_mutex m_conn_lock;
    std::unordered_map<ConnId, Conn*> m_by_id;  // writes: loop thread under m_conn_lock exclusive
    std::unordered_map<CTcpConnector*, Conn*> m_by_connector;  // loop thread only
    ConnId m_next_id;
    Conn* m_delivering;  // the connection whose packet OnPacket is handling (loop thread)

    std::vector<Conn*> m_work;       // connections to service this tick (loop thread)
    std::vector<Conn*> m_pending;    // work carried over to the next tick (loop thread)
    std::vector<Conn*> m_corked;     // connections with corked sends this tick (loop thread)
    std::vector<Conn*> m_graveyard;  // finalised connections, freed at the end of the tick
    std::vector<epoll_event> m_events;

    std::mutex m_post_mutex;
    std::vector<std::function<void()>> m_posted;  // guarded by m_post_mutex

    std::mutex m_timer_mutex;
    std::multimap<int64_t, Timer> m_timers;  // due time (ms) -> timer; guarded by m_timer_mutex
    uint64_t m_next_timer_id;                // guarded by m_timer_mutex
    uint64_t m_running_timer;                // guarded by m_timer_mutex
    bool m_running_cancelled;                // guarded by m_timer_mutex

    std::atomic<bool> m_stop;
    std::atomic<bool> m_stats_requested;
    std::atomic<std::thread::id> m_loop_thread;
    int64_t m_next_stats_ms;

    // Limits (loop thread, except the counters, which any thread reads).
    unsigned int m_pool_reserve;  // free blocks below which stalled holders are shed
    int64_t m_next_sweep_ms;
    int64_t m_last_shed_ms;
    std::vector<ConnId> m_want_room;          // connections refused with kSendNoRoom (loop thread)
    std::mutex m_want_room_mutex;             // guards m_want_room_foreign
    std::vector<ConnId> m_want_room_foreign;  // refused on other threads
    Relaxed<uint64_t> m_close_cnt[kCloseReasonCount];
    Relaxed<uint64_t> m_limit_cnt[kCloseLimitCount];
    std::atomic<uint64_t> m_too_large_cnt;
    Relaxed<uint64_t> m_pool_exhausted_cnt;
    bool m_pool_exhausted;  // the pool is (or was lately) empty; logged once per episode
    void WatchPool();
    void RaiseFdLimit();
};

}  // namespace QUOLNET
