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
//     OnClosed is called and the connector is finalised. A peer that shuts down only its
//     sending side ends the connection (end of stream is a close for a connector).
//   - A ring that was full (1000 packets), or framing that stopped for want of a block,
//     resumes as soon as the application has taken packets, without new traffic: the
//     manager sets EPOLLIN and runs Update again for that connector.
//   - A connector waiting for the chain of a big packet (IsWaitAllocBigBuffer) is retried
//     with its Recv() on every tick until the pool can supply the blocks.
//   - A connection whose reading stopped with bytes still in the socket (any of the cases
//     above) has EPOLLIN taken out of its registration (CTcpConnector::PauseReading) and
//     is retried about every millisecond instead, so the level-triggered wait does not
//     spin on bytes nobody can take; reading resumes once the socket has been drained.
//
// Descriptors: the manager owns every descriptor it accepts or dials. Connectors run with
// SetCloseSocket(false), so neither Update's Disconnect nor Fini closes a descriptor behind
// the manager's back; the manager closes each one exactly once, under m_conn_lock held
// exclusively, so a Send on another thread can never write into a reused descriptor.
// When accept4 runs out of descriptors (EMFILE/ENFILE) the listener is paused (removed from
// the wait set) and resumed when a connection of this manager closes or after
// kAcceptRetryMs, whichever comes first; established connections are served meanwhile.
//
// SIGPIPE: connectors call send() without flags, so a write to a connection the peer has
// reset would raise SIGPIPE and kill the process. The constructor therefore sets SIGPIPE to
// SIG_IGN for the whole process; writes then fail with EPIPE and the connection is closed.
//
// Threads and locks:
//   loop thread   everything not marked otherwise below;
//   any thread    Send, SendCorked, Close, Post, Stop, RequestStats, AddTimer, CancelTimer,
//                 IsConnected, GetConnectionCount;
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

// Settings of a manager; the defaults suit the example programs.
struct ConnectorMgrOptions {
    CNetBufferMgr* pool = nullptr;    // lent pool (not owned); null: the manager makes one
    unsigned int pool_blocks = 4096;  // blocks of the manager's own pool (made on demand)
    IPackParser* parser = nullptr;    // lent parser; null: a CLengthPrefixParser
    unsigned int max_packet_len =
        CLengthPrefixParser::kDefaultMaxPacketLen;  // also sizes the combine buffers
    unsigned int max_send_blocks = 256;             // per connector send queue limit
    unsigned int max_recv_blocks = 256;             // per connector receive limit
    bool use_recv_callback = false;                 // framing hands packets to OnPacket directly
    LogCategory* log_cat = nullptr;                 // manager and connector logging; null: none
    int stats_interval_sec = 0;                     // > 0: print the statistics table that often
    FILE* stats_out = nullptr;                      // where periodic/requested tables go (null: stdout)
    int max_events = 256;                           // epoll events taken per wait
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
    static const int kAcceptRetryMs = 200;  // retry of a listener paused at the fd limit
    static const int kRefusedRetryMs = 1;   // re-offer of packets the handler refused
    static const int kBigWaitRetryMs = 5;   // retry of connectors waiting for a big block chain

    // `handler` (not owned) receives the connections' events; it must outlive the manager.
    // Ignores SIGPIPE for the process (see above).
    CConnectorMgr(IConnectorHandler* handler, const ConnectorMgrOptions& options = ConnectorMgrOptions());
    // Closes every connection (without offering further packets) and every descriptor.
    ~CConnectorMgr();
    CConnectorMgr(const CConnectorMgr&) = delete;
    CConnectorMgr& operator=(const CConnectorMgr&) = delete;

    // Creates the epoll instance, the eventfd and the pool. Returns 0 or -1 (errno kept).
    int Init();

    // Listens on `url` ("tcp://127.0.0.1:0", "tcp://[::1]:9000", ...). Returns the bound port
    // (the one chosen when the URL asks for port 0), -1 for a malformed URL, -2 when the
    // socket cannot listen. Loop thread (or before Run).
    int Listen(const char* url, int backlog = 1024);
    // The bound URL of the i-th listener ("" when there is none).
    std::string GetListenURL(size_t i) const;

    // Dials `url`. Returns the connection's id, or 0 for a malformed URL or a failed set-up.
    // The connection is reported by OnConnected once established. Loop thread (or before
    // Run); other threads use Post.
    ConnId Dial(const char* url, const DialOptions& options = DialOptions());

    // Sends one whole packet. Any thread. On the loop thread, a packet for a connection
    // that already has replies corked in this tick joins them (it leaves with the same
    // flush, in order), so `more ? SendCorked : Send` sends a whole run with one write.
    // Returns len, 0 when there is no room now (try later), -1 when the id is unknown or
    // the connection is not established, or another negative code when the write failed
    // (the connection is then closed by the loop).
    int Send(ConnId id, const char* buf, unsigned int len);
    // Queues one whole packet; on the loop thread, the loop flushes each corked connection
    // once at the end of the tick. From another thread the packet leaves when the socket
    // reports writability (queueing onto an empty queue asks for that). Results as Send.
    int SendCorked(ConnId id, const char* buf, unsigned int len);
    // Ends a connection (no reconnect); queued packets already received are still offered.
    // Any thread (posted to the loop).
    void Close(ConnId id);
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

    // The statistics table: a header line, then one CTcpConnector::PrintStat row per
    // connector. Loop thread (or when the loop is not running).
    std::string FormatStats();
    void PrintStats(FILE* out);
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

  private:
    enum ConnState {
        CONN_CONNECTING = 1,  // a dial in progress
        CONN_ESTABLISHED = 2,
        CONN_WAIT_RETRY = 3,  // a dialled connection waiting for its next attempt
        CONN_CLOSING = 4,     // socket gone; offering what is left in the ring
    };

    // One connection and what the manager knows about it. Loop thread only, except `id`
    // and `connector`, which other threads reach through m_by_id under m_conn_lock.
    struct Conn {
        ConnId id = 0;
        std::unique_ptr<CTcpConnector> connector;
        int fd = -1;  // the descriptor the manager owns; -1 when none
        bool accepted = false;
        std::string url;
        DialOptions dial;
        ConnState state = CONN_CONNECTING;
        bool was_established = false;  // OnConnected was reported for the current socket
        bool close_requested = false;  // Close(id) or a failed foreign Send
        bool refused = false;          // the handler refused a packet; re-offer later
        bool in_work = false;          // already queued for this tick
        bool corked = false;           // in m_corked
        int attempt = 0;               // connect attempts since the last success
        int backoff_ms = 0;
        uint64_t timer_id = 0;      // retry or connect-timeout timer
        bool dead = false;          // finalised; freed at the end of the tick
        Relaxed<bool> send_failed;  // set by any thread when Send failed
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
    void ServiceConn(Conn* conn);
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
    void CloseNow(ConnId id);
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
    std::unique_ptr<char[]> m_combine_buf;     // Peek joins multi-block packets here (loop thread)
    std::unique_ptr<char[]> m_cb_combine_buf;  // framing joins them here for the callback
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
};

}  // namespace QUOLNET
