// OwnedConn: one connection of a CConnectorMgr and what the manager knows about it, and the
// connection's states.
//
// The states and every transition between them (CConnService::Service reads them all in
// one place; CDialler handles the two dialling states):
//
//   Dial ---> CONNECTING --connected--> ESTABLISHED --peer's end / Close--> DRAINING
//               |    ^                     |                                    |
//          failed|    |redial              |reset, error, limit,   flushed; SHUT_WR
//               v    |                     |Abort                               v
//             WAIT_RETRY <--reconnect-- CLOSING <---------- peer's end ---- LINGER
//                                        (socket gone; offers what is left)
//
//   accepted connections start in ESTABLISHED; CLOSING ends in OnClosed (and a redial for
//   a dialled connection with reconnect), the record then goes to the graveyard.
//   A connection that moves to another loop of a group leaves ESTABLISHED on one manager
//   and enters ESTABLISHED on the other with the same id and all of its state.
//
// Threads: the record belongs to its manager's loop thread, except `id` and `connector`,
// which other threads reach through the id map under CConnTable's lock, and the Relaxed
// fields, which foreign Sends set.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/relaxed.h"
#include "net/connector_handler.h"
#include "net/tcp_connector.h"

namespace QUOLNET {

class CConnectorMgr;

// How a dialled connection behaves.
struct DialOptions {
    int connect_timeout_ms = 0;   // > 0: give up an attempt still in progress after this
    bool reconnect = false;       // redial after failures and after the connection ends
    int backoff_initial_ms = 50;  // first redial delay; doubled after every failure
    int backoff_max_ms = 2000;    // cap of the delay
    int max_attempts = 0;         // > 0: give up after this many failed attempts in a row
};

enum ConnState {
    CONN_CONNECTING = 1,  // a dial in progress
    CONN_ESTABLISHED = 2,
    CONN_WAIT_RETRY = 3,  // a dialled connection waiting for its next attempt
    CONN_CLOSING = 4,     // socket gone; offering what is left in the ring
    CONN_DRAINING = 5,    // no more reading: flushing replies and queued bytes
    CONN_LINGER = 6,      // sending side shut down; reading to the peer's end of stream
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
    DialOptions dial;
    ConnState state = CONN_CONNECTING;  // changed only by CConnService::SetState
    Relaxed<int> gate;                  // a ConnGate, set with `state`; read by any thread
    bool was_established = false;       // OnConnected was reported for the current socket
    bool close_requested = false;       // Abort(id) or a failed Send: close at once
    bool graceful = false;              // Close(id): drain, shut down, linger, close
    bool refused = false;               // the handler refused a packet; re-offer later
    bool in_work = false;               // already queued for this tick
    bool starved = false;               // in the manager's list of connections waiting for a block
    bool corked = false;                // in the manager's corked list
    bool too_large_logged = false;      // kSendTooLarge was logged for this connection
    Relaxed<bool> want_room;            // a Send returned kSendNoRoom; OnWritable is due
    int attempt = 0;                    // connect attempts since the last success
    int backoff_ms = 0;
    uint64_t timer_id = 0;      // retry or connect-timeout timer
    bool dead = false;          // finalised or moved away; freed at the end of the tick
    Relaxed<bool> send_failed;  // set by any thread when Send failed
    CloseInfo close_info;       // why it ends; the first cause recorded wins
    bool close_info_set = false;
    ConnProgress progress;         // what the limit sweep has seen (loop thread)
    int64_t linger_until_ms = 0;   // LINGER ends by then
    CConnectorMgr* mgr = nullptr;  // the manager whose loop serves it
};

}  // namespace QUOLNET
