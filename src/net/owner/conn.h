// OwnedConn: one connection of a CConnectorMgr and what the manager knows about it, and the
// connection's states.
//
// The states and every transition between them (CConnService::Service reads them all in
// one place; CDialler handles the two dialling states):
//
//   Dial ---> CONNECTING --connected--> ESTABLISHED --peer's end / Close--> DRAINING
//               |    ^                     |                                    |
//          failed|    |redial              |reset, error, limit,      idle sender; SHUT_WR
//               v    |                     |Abort, eviction                     v
//             WAIT_RETRY <--reconnect-- CLOSING <---------- peer's end ---- LINGER
//                                        (socket gone; offers what is left)
//
//   Shutdown takes ESTABLISHED to DRAINING as the peer's end does (reading stops, what
//   came is still offered, holds are honoured); its LINGER then reads and drops as Close's.
//   DRAINING ends ("idle sender") only when the ring is done, no reply is corked, no hold
//   is left (HoldOpen, after the peer's end) and the connector finds nothing being sent:
//   no thread holds its sending role, no push is under way, the queue is empty. That is
//   decided under the connector's send lock (ShutdownSendIfIdle), so a Send that returned
//   before it is on the wire whole, and one after it gets kSendClosing. A foreign Send or
//   ReleaseHold on a draining connection asks the loop to look again (Recheck), so a drain
//   that another thread finishes ends without a socket event.
//   Pausing (PauseReading, or a packet the handler refused) is not a state: an
//   ESTABLISHED, DRAINING or CLOSING connection with `app_paused` neither reads nor offers
//   packets until ResumeReading.
//
//   Accept --(stream layer)--> HANDSHAKE --done--> ESTABLISHED
//                                  |
//                                  | failed, garbage, handshake_timeout_ms, Abort, Shutdown
//                                  v
//                                gone (counted by reason; the handler was never told of it)
//   A dial with a stream layer stays CONNECTING through its handshake (its connect timeout
//   covers both), and a failed handshake ends the attempt as handshake_failed.
//
//   accepted connections without a stream layer start in ESTABLISHED; CLOSING ends in OnClosed (and a redial
//   for a dialled connection with reconnect), the record then goes to the graveyard. A connection that moves
//   to another loop of a group leaves ESTABLISHED on one manager and enters ESTABLISHED on the other with the
//   same id and all of its state (the application's context included); OnMoved tells the handler, on the new
//   loop's thread.
//
//   Hand-over to another process (OfferHandOver / TakeOver):
//     old: ESTABLISHED (no stream layer, OnHandOut agreed) --confirmed by the successor--> gone
//          (OnClosed: handed_over; descriptor closed here without shutdown). Not confirmed:
//          stays ESTABLISHED, served as before. Every other state stays and drains.
//     new: (received) --answer written--> ESTABLISHED, with the same id; OnHandIn, then served.
//
// Threads: the record belongs to its manager's loop thread, except `id` and `connector`,
// which other threads reach through the id map under CConnTable's lock, and the Relaxed
// fields, which foreign Sends set.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../../common/relaxed.h"
#include "../connector_handler.h"
#include "resolver.h"
#include "../socket_options.h"
#include "../tcp_connector.h"

namespace QUOLNET {

class CConnectorMgr;

// How a dialled connection behaves.
struct DialOptions {
    int connect_timeout_ms = 0;   // > 0: give up an attempt still in progress after this
    bool reconnect = false;       // redial after failures and after the connection ends
    int backoff_initial_ms = 50;  // first redial delay; doubled after every failure
    int backoff_max_ms = 2000;    // cap of the delay
    int max_attempts = 0;         // > 0: give up after this many failed attempts in a row
    // What the socket is set to for every attempt (net/socket_options.h). By default
    // TCP_NODELAY only: the kernel's buffer auto-tuning is left on (CTcpConnector's
    // process-wide m_socket_send_buff_size / m_socket_recv_buff_size do not apply here).
    SocketOptions socket;
    // The connection's context from the start (CConnectorMgr::SetContext), for a dial made
    // where SetContext cannot be called (CConnectorGroup::Dial from another thread).
    void* context = nullptr;
};

enum ConnState {
    CONN_CONNECTING = 1,  // a dial in progress
    CONN_ESTABLISHED = 2,
    CONN_WAIT_RETRY = 3,  // a dialled connection waiting for its next attempt
    CONN_CLOSING = 4,     // socket gone; offering what is left in the ring
    CONN_DRAINING = 5,    // no more reading: flushing replies and queued bytes
    CONN_LINGER = 6,      // sending side shut down; reading to the peer's end of stream
    CONN_HANDSHAKE = 7,   // accepted with a stream layer (TLS): its handshake is under way
};

// What other threads' Sends may do with a connection (OwnedConn::gate).
enum ConnGate { kGateClosed = 0, kGateOpen = 1, kGateClosing = 2 };

// Progress of a connection as the limit sweep last saw it; carried whole when the
// connection moves to another loop.
struct ConnProgress {
    int64_t tx_bytes_seen = 0;
    int64_t tx_progress_ms = 0;  // last time the send queue was empty or shrank
    int64_t rx_bytes_seen = 0;
    int64_t rx_progress_ms = 0;  // last time no packet was in progress or bytes came
    long rx_packets_seen = 0;
    int64_t partial_since_ms = 0;  // a packet in progress since then; 0: none
    int64_t active_ms = 0;         // last time a byte moved either way

    // A connection that starts carrying traffic now.
    void Start(int64_t now) { tx_progress_ms = rx_progress_ms = active_ms = now; }
};

struct OwnedConn {
    ConnId id = 0;
    std::unique_ptr<CTcpConnector> connector;
    int fd = -1;  // the descriptor the manager owns; -1 when none
    bool accepted = false;
    std::string url;
    // A dialled connection's options (null for an accepted one); shared, never changed, by
    // the records a move makes.
    std::shared_ptr<const DialOptions> dial;
    ConnState state = CONN_CONNECTING;  // changed only by CConnService::SetState
    Relaxed<int> gate;                  // a ConnGate, set with `state`; read by any thread
    bool was_established = false;       // OnConnected was reported for the current socket
    bool close_requested = false;       // Abort(id) or a failed Send: close at once
    bool graceful = false;              // Close(id): drain, shut down, linger, close
    bool shutdown_drain = false;        // Shutdown: stop reading, reply to what came, then as Close
    bool refused = false;               // the handler refused a packet in this offer
    bool app_paused = false;            // PauseReading or a refused packet: no reading, no offers
    bool paused_for_room = false;       // paused by a packet refused after a kSendNoRoom: room resumes it
    bool in_work = false;               // already queued for this tick
    bool starved = false;               // in the manager's list of connections waiting for a block
    bool corked = false;                // in the manager's corked list
    bool too_large_logged = false;      // kSendTooLarge was logged for this connection
    Relaxed<bool> bad_send_logged;      // a Send whose header disagreed with its length was logged
    Relaxed<bool> want_room;            // a Send returned kSendNoRoom; OnWritable is due
    int attempt = 0;                    // connect attempts since the last success
    int backoff_ms = 0;
    uint64_t timer_id = 0;  // retry or connect-timeout timer (or, for a name, the lookup's)
    // A dial by host name (CDialler): the name and port, looked up again before every
    // attempt (empty for a numeric URL, which has no such state); the addresses of the last
    // lookup and the index of the next one to try; when the attempt's connect timeout ends
    // (0: none); a counter that names the current step (the lookup or one address) for its
    // timer and its result; whether a lookup is under way (the connection is in WAIT_RETRY
    // meanwhile); and whether a failed lookup was logged since the last one that succeeded.
    std::string dial_host;
    uint16_t dial_port = 0;
    std::vector<ResolvedAddr> dial_addrs;
    size_t dial_next = 0;
    int64_t dial_deadline_ms = 0;
    uint64_t dial_step = 0;
    bool resolving = false;
    bool resolve_fail_logged = false;
    int64_t handshake_deadline_ms = 0;  // HANDSHAKE: closed at this time (0: never)
    bool handshake_queued = false;      // in the manager's list for a tick's handshake work
    bool handshake_paused = false;      // its readiness left epoll while it waits there
    int64_t settled_ns = 0;             // handshake done: counts as established work from then
    std::string close_text;             // the stream layer's message for CloseInfo::text
    bool dead = false;                  // finalised or moved away; freed at the end of the tick
    Relaxed<bool> send_failed;          // set by any thread when Send failed
    // Replies the application still owes after the peer's end of stream (HoldOpen minus
    // ReleaseHold); any thread, under CConnTable's lock shared (or on the loop thread).
    std::atomic<int> holds{0};
    // In DRAINING: a foreign Send or ReleaseHold asks the loop to look at the drain again.
    // Set by the loop before its first look; read by those threads after they are done.
    std::atomic<bool> draining{false};
    std::atomic<bool> recheck{false};  // a recheck is already asked for (deduplicates)
    CloseInfo close_info;              // why it ends; the first cause recorded wins
    bool close_info_set = false;
    ConnProgress progress;         // what the limit sweep has seen (loop thread)
    int64_t linger_until_ms = 0;   // LINGER ends by then
    CConnectorMgr* mgr = nullptr;  // the manager whose loop serves it
    // The application's context (CConnectorMgr::SetContext); the manager only carries it,
    // through reconnects and moves. Loop thread.
    void* context = nullptr;
    // Set by a move until the target loop has adopted the record (CConnMover): the loop
    // the connection came from, for OnMoved.
    CConnectorMgr* moved_from = nullptr;
};

}  // namespace QUOLNET
