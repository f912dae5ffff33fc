// CConnMover: moves a live connection from one loop of a group to another.
//
// MoveOut runs on the source loop's thread:
//   1. only an ESTABLISHED connection that is not closing moves; corked replies are
//      flushed first;
//   2. a new connector is made with the target loop's combine buffers, pool and parser,
//      and initialised on the same descriptor with the target's epoll (it joins the
//      target's epoll set; the target ignores its events until it adopts it);
//   3. under the source's table lock held exclusively (so no other thread is inside the
//      old connector's Send): CopyFrom copies the send queue, the receive blocks, the ring
//      and the half-received packet; the old connector leaves the source's epoll without
//      closing the descriptor; the connection leaves the source's table; and the group's
//      route says "in transit" with the new connector, so that Sends made from now on
//      queue there, in order, behind what was copied;
//   4. the adoption is posted to the target (before the route is published, under the
//      route lock, so that a Close routed to the target arrives after it); the old record
//      goes to the source's graveyard and its connector returns its blocks.
// Adopt runs on the target loop's thread: the connection joins the target's table, the
// route points at the target, the handler hears of it (OnMoved), and it is serviced in the
// same tick (packets already in its ring are offered; the descriptor's readiness arrives
// from the new epoll set). The application's context travels in the record (MakeCopy).
#pragma once

#include "conn.h"

namespace QUOLNET {

class CConnMover {
  public:
    // Returns true when the connection is on its way to `to`.
    static bool MoveOut(CConnectorMgr& from, ConnId id, CConnectorMgr& to);
    static void Adopt(CConnectorMgr& to, OwnedConn* conn);

    // An ESTABLISHED connection that is not closing, whose socket is open both ways.
    static bool Movable(const OwnedConn* c);

  private:
    static OwnedConn* MakeCopy(CConnectorMgr& from, OwnedConn* c, CConnectorMgr& to);
};

}  // namespace QUOLNET
