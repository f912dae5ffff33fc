// CConnMover: the hand-over of a live connection between two loops of a group.
#include "net/owner/conn_mover.h"

#include "net/connector_group.h"
#include "net/owner/owner_log.h"

namespace QUOLNET {

bool CConnMover::Movable(const OwnedConn* c) {
    if (c == nullptr) {
        return false;
    }
    const CTcpConnector* k = c->connector.get();
    return !c->dead && c->state == CONN_ESTABLISHED && !c->graceful && !c->close_requested &&
           !c->send_failed && c->fd >= 0 && k->GetStatus() == CONNECTOR_STATUS_CONNECTED &&
           !k->IsPeerClosed();
}

// A new record for `to` on the same descriptor, registered with `to`'s epoll; its connector
// is still empty. Null when the connector cannot be initialised.
OwnedConn* CConnMover::MakeCopy(CConnectorMgr& from, OwnedConn* c, CConnectorMgr& to) {
    OwnedConn* n = to.NewConn(c->url.c_str());
    int init = CTcpListener::IsUnixURL(c->url.c_str())
                   ? n->connector->InitUnix(c->url.c_str(), to.m_parser, to.GetEpollFd(), c->fd)
                   : n->connector->Init(c->url.c_str(), to.m_parser, to.GetEpollFd(), c->fd);
    if (init != 0) {
        QN_OWNER_LOG(from.LogCat(), LOG_PRIORITY_ERROR, "move of %llu: CTcpConnector::Init() failed, fd=%d",
                     static_cast<unsigned long long>(c->id), c->fd);
        n->connector->SetCloseSocket(false);
        delete n;
        return nullptr;
    }
    n->connector->SetCloseSocket(false);
    n->id = c->id;
    n->fd = c->fd;
    n->accepted = c->accepted;
    n->dial = c->dial;            // shared and never changed: the old record may go on its own thread
    n->dial_host = c->dial_host;  // a reconnect on the new loop looks the name up again
    n->dial_port = c->dial_port;
    n->context = c->context;
    n->moved_from = &from;
    n->was_established = c->was_established;
    n->refused = c->refused;
    n->app_paused = c->app_paused;
    n->paused_for_room = c->paused_for_room;
    n->too_large_logged = c->too_large_logged;
    n->want_room = c->want_room.load();
    n->progress = c->progress;
    n->state = CONN_ESTABLISHED;
    n->gate = kGateOpen;
    return n;
}

bool CConnMover::MoveOut(CConnectorMgr& from, ConnId id, CConnectorMgr& to) {
    OwnedConn* c = from.m_table.Find(id);
    if (!Movable(c)) {
        return false;
    }
    CTcpConnector* k = c->connector.get();
    if (c->corked) {
        c->corked = false;  // its entry in the corked list is skipped once the record is dead
        if (k->Send() < 0) {
            c->send_failed = true;
            from.Queue(c);
            return false;
        }
    }
    OwnedConn* n = MakeCopy(from, c, to);
    if (n == nullptr) {
        return false;
    }
    {
        auto lock = from.m_table.Lock();
        // Other threads change the hold count under the table lock held shared, so it is
        // exact here.
        n->holds.store(c->holds.load());
        int ret = n->connector->CopyFrom(*k);
        if (ret != 0) {
            QN_OWNER_LOG(from.LogCat(), LOG_PRIORITY_WARN, "move of %llu refused: CopyFrom() returned %d",
                         static_cast<unsigned long long>(id), ret);
            n->connector->Fini();  // leaves the target's epoll; the descriptor stays open
            delete n;
            return false;
        }
        k->Disconnect(nullptr);  // leaves this loop's epoll; SetCloseSocket(false): fd stays
        from.m_table.RemoveLocked(c);
        c->fd = -1;
        from.m_group->SetTransit(n, &to);  // posts the adoption to `to`
    }
    k->Fini();
    c->dead = true;
    from.m_graveyard.push_back(c);
    return true;
}

void CConnMover::Adopt(CConnectorMgr& to, OwnedConn* n) {
    to.m_table.Add(n);
    bool want_room = to.m_group->Arrived(n->id, to.GetLoopIndex());
    to.m_service.SetState(n, CONN_ESTABLISHED);
    if (want_room || n->want_room) {
        n->want_room = true;
        to.m_limits.WantRoom(n->id, true);
    }
    // The readiness seen by the old connector is not carried over, and the socket may have
    // been drained while bytes wait unframed in the block (framing stopped at a full ring)
    // or queued bytes wait for writability: the first tick on this loop tries both, and
    // level-triggered epoll reports the rest.
    n->connector->SetEvent(n->app_paused ? EPOLLOUT : EPOLLIN | EPOLLOUT);
    if (n->app_paused) {
        n->connector->PauseReading(true);  // the application's pause travels with it
    }
    to.Queue(n);
    // Before the first offer on this loop: the handler may move what it keeps per loop.
    CConnectorMgr* from = n->moved_from;
    n->moved_from = nullptr;
    if (to.m_handler != nullptr) {
        CConnectorMgr::HandlerScope scope(to, n);
        to.m_handler->OnMoved(from, &to, n->id);
    }
}

}  // namespace QUOLNET
