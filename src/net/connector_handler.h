// IConnectorHandler: what an application tells CConnectorMgr to do with its connections.
//
// Every method runs on the manager's loop thread (the thread inside Run/RunOnce), with no
// manager lock held, so a handler may call any method of the manager, Send and Close
// included. Connections are named by ConnId, a number never reused within one manager.
#pragma once

#include <cstdint>

#include "common/export.h"

namespace QUOLNET {

class CConnectorMgr;

typedef uint64_t ConnId;  // 0 is never a valid id

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
    // queued and pauses delivery on this connection; the manager offers it again on a later
    // tick (within about a millisecond). While packets wait, the connection stops reading
    // once its ring of 1000 packets is full, so the peer is slowed down by TCP.
    virtual bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) = 0;

    // The connection has ended; every packet that arrived before the end was offered first.
    // `reconnecting` is true for a dialled connection with reconnect enabled: the id stays
    // valid and OnConnected follows when a new connection is made. A dial that never
    // connected and is given up is reported here too (with reconnecting false).
    virtual void OnClosed(CConnectorMgr* mgr, ConnId id, bool reconnecting) {
        (void)mgr;
        (void)id;
        (void)reconnecting;
    }

    // Called once at the end of every loop iteration (after packets, accepts and timers).
    virtual void OnTick(CConnectorMgr* mgr) { (void)mgr; }
};

}  // namespace QUOLNET
