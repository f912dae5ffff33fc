// IConnectorHandler: what an application tells CConnectorMgr to do with its connections.
//
// Every method runs on the manager's loop thread (the thread inside Run/RunOnce), with no
// manager lock held, so a handler may call any method of the manager, Send and Close
// included. Connections are named by ConnId, a number never reused within one manager.
//
// Per-connection context: the application attaches a pointer (or a small value cast to
// one) to a connection with CConnectorMgr::SetContext (or DialOptions::context), and any
// method below that names a connection reads it back with mgr->CurrentContext(), without a
// lookup. It stays with the connection across reconnects and moves, and OnClosed still
// sees it (when not `reconnecting`, the last time: the place to free it).
#pragma once

#include <cstdint>
#include <string>

#include "../common/export.h"

namespace QUOLNET {

class CConnectorMgr;

typedef uint64_t ConnId;  // 0 is never a valid id

// Why a connection ended (CloseInfo::reason).
enum class CloseReason : int {
    kPeerClosed = 0,     // the peer ended its stream; what we had to send was sent first
    kReset = 1,          // the peer reset the connection (ECONNRESET, EPIPE); `error` holds errno
    kIoError = 2,        // another socket error; `error` holds errno
    kFramingError = 3,   // the parser refused the peer's bytes; `error` holds its code
    kClosedLocally = 4,  // Close or Abort by the application, or the manager's destruction
    kLimit = 5,          // a limit of ConnectorMgrOptions; `limit` names it
    kDialRefused = 6,    // a dial was given up after failing; `error` holds errno (0 if unknown)
    kDialTimeout = 7,    // a dial was given up after its connect timeout
    // A dial by host name was given up because the name did not resolve; `error` holds
    // getaddrinfo's EAI_... code (negative; 0 when no address of a usable family came back)
    kDialResolveFailed = 8,
    // The stream layer's handshake (TLS) failed or was refused, certificate verification
    // included; `error` holds errno (0 for the layer's own failure), `text` its message
    kHandshakeFailed = 9,
    // The peer's stream ended without the layer's own end (a TLS peer closed its socket
    // without a close_notify): what came may have been cut short; `text` says more
    kTruncated = 10,
    // The connection went on in another process (CConnectorMgr::OfferHandOver): the peer
    // saw nothing; this process holds nothing of it any more
    kHandedOver = 11,
};
constexpr int kCloseReasonCount = 12;

// Which limit closed a connection (CloseInfo::limit when the reason is kLimit).
enum class CloseLimit : int {
    kNone = 0,
    kSendStall = 1,         // the send queue did not shrink for send_stall_ms
    kPacketDeadline = 2,    // a packet was started and not completed within packet_deadline_ms
    kIdleTimeout = 3,       // nothing read or written for idle_timeout_ms
    kPoolPressure = 4,      // shed while stalled, holding the most blocks, when the pool ran short
    kPacketTooLong = 5,     // a packet announced longer than max_packet_len
    kRecvBlocks = 6,        // a packet that could never fit under max_recv_blocks
    kIdleEvicted = 7,       // idle the longest when max_connections was reached and others waited
    kHandshakeTimeout = 8,  // a stream layer's handshake (TLS) not done within handshake_timeout_ms
};
constexpr int kCloseLimitCount = 9;

// Short stable names for logs and statistics ("peer_closed", "send_stall", ...).
QUOLNET_EXPORT const char* CloseReasonName(CloseReason reason);
QUOLNET_EXPORT const char* CloseLimitName(CloseLimit limit);

// What OnClosed is told about the end of a connection.
struct CloseInfo {
    CloseReason reason = CloseReason::kClosedLocally;
    int error = 0;                         // errno, or the parser's code for kFramingError
    CloseLimit limit = CloseLimit::kNone;  // for kLimit
    bool reconnecting = false;             // a dialled connection that redials (same id)
    // The stream layer's message (TLS: OpenSSL's, with the verification result) for a
    // failed handshake, a truncated stream or the layer's I/O error, else null. Valid during
    // the OnClosed call only.
    const char* text = nullptr;
};

// `info.error` as text for a message: `info.text` when the stream layer gave one, the
// resolver's message for kDialResolveFailed, the errno's for the socket reasons, "parser
// code N" for kFramingError, "-" when there is none.
// The text is static, or kept in a buffer of the calling thread until its next call. Any
// thread.
QUOLNET_EXPORT const char* CloseErrorText(const CloseInfo& info);

class QUOLNET_EXPORT IConnectorHandler {
  public:
    virtual ~IConnectorHandler() {}

    // A connection is established: `accepted` for one taken from a listener, otherwise a
    // dialled connection whose connect completed (again after each reconnect). `url` is the
    // peer's URL.
    virtual void OnConnected(CConnectorMgr* mgr, ConnId id, const char* url, bool accepted) {
        (void)mgr;
        (void)id;
        (void)url;
        (void)accepted;
    }

    // One whole packet (header included). `data` is valid only during the call. `more` is
    // true when further packets of this connection are already waiting (with
    // use_recv_callback: when bytes after this packet were already read, usually the next
    // packet, offered in the same tick), so replies can be corked
    // (CConnectorMgr::SendCorked) and leave with one flush at the end of the tick.
    // Return true when the packet is consumed; false leaves it (and the ones behind it)
    // queued and pauses the connection (CConnectorMgr::PauseReading): nothing more is read
    // or offered, at no cost per tick, until the application calls ResumeReading(id), which
    // offers this packet again first. A handler that returns false because its reply was
    // refused with kSendNoRoom needs to do nothing: the connection resumes by itself when
    // there is room again, just before OnWritable. While paused, the kernel's buffers fill
    // and TCP slows the peer down.
    virtual bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) = 0;

    // A Send or SendCorked on this connection returned CConnectorMgr::kSendNoRoom and there
    // is room again: the send queue is at most half full and the pool has blocks to spare.
    // Called once per refusal episode; the next refusal arms it again.
    virtual void OnWritable(CConnectorMgr* mgr, ConnId id) {
        (void)mgr;
        (void)id;
    }

    // The connection has ended; every packet that arrived before the end was offered first
    // (not after Abort or Close, which stop delivery). `info` says why. With
    // info.reconnecting (a dialled connection with reconnect enabled) the id stays valid and
    // OnConnected follows when a new connection is made. A dial that never connected and is
    // given up is reported here too (kDialRefused, kDialTimeout or kDialResolveFailed, not
    // reconnecting).
    virtual void OnClosed(CConnectorMgr* mgr, ConnId id, const CloseInfo& info) {
        (void)mgr;
        (void)id;
        (void)info;
    }

    // The connection moved from loop `from` to loop `to` of a CConnectorGroup (Move): called
    // on `to`'s thread once it serves the connection, before any packet that arrives there
    // is offered. The id and the context stayed (to->CurrentContext() gives it); only the
    // loop changed, so state kept per loop moves here. `from` names the old loop (its
    // GetLoopIndex); its thread is another's, so nothing else of it may be called here.
    virtual void OnMoved(CConnectorMgr* from, CConnectorMgr* to, ConnId id) {
        (void)from;
        (void)to;
        (void)id;
    }

    // Called once at the end of every loop iteration (after packets, accepts and timers).
    virtual void OnTick(CConnectorMgr* mgr) { (void)mgr; }

    // Hand-over to another process (CConnectorMgr::OfferHandOver, TakeOver).
    // In the old process, for each connection about to go: write what the application keeps
    // for it into `state` (any bytes; it reaches OnHandIn in the new process). Return false
    // to keep the connection here, where it drains (see OfferHandOver). After the new
    // process has taken it, OnClosed reports kHandedOver (the place to free the context).
    virtual bool OnHandOut(CConnectorMgr* mgr, ConnId id, std::string* state) {
        (void)mgr;
        (void)id;
        (void)state;
        return true;
    }
    // In the new process, for each connection taken over, with its id, peer URL, whether it
    // was accepted, and OnHandOut's `state`; packets it owes follow through OnPacket. Called
    // inside TakeOver, on its thread. The default reports it as a new connection
    // (OnConnected).
    virtual void OnHandIn(CConnectorMgr* mgr, ConnId id, const char* url, bool accepted,
                          const std::string& state) {
        (void)state;
        OnConnected(mgr, id, url, accepted);
    }
    // The application's state for the whole process: written in the old process before
    // any connection goes, read in the new one (inside TakeOver) before any OnHandIn.
    virtual void OnHandOutProcess(CConnectorMgr* mgr, std::string* state) {
        (void)mgr;
        (void)state;
    }
    virtual void OnHandInProcess(CConnectorMgr* mgr, const std::string& state) {
        (void)mgr;
        (void)state;
    }
};

}  // namespace QUOLNET
