// CConnService: the state machine of a manager's connections (see the diagram in conn.h)
// and what each state does: delivery of packets to the handler, pausing reading when
// nobody can take the bytes, draining after the peer's end of stream or Close, the linger,
// and closing with its reason.
//
// Service() is the one place every transition starts from: the manager calls it for each
// connection with events or pending work. The dialling states are delegated to CDialler;
// closes for a limit come from CConnLimits through BeginClose.
//
// Delivery: Deliver offers the ring's packets in order and stops when the handler refuses
// one (the connection is then paused until ResumeReading) or when delivery has ended
// (Close, Abort). In callback
// mode RecvCallback offers packets while the connector frames them, and keeps arrival
// order by queueing behind anything already waiting in the ring.
//
// Threads: the loop thread only; the handler's callbacks run on it with no lock held. The
// table lock is taken exclusively (through the manager) around descriptor changes.
#pragma once

#include "conn.h"

namespace QUOLNET {

class CConnService {
  public:
    static constexpr int kLingerMs = 2000;  // reading to the peer's end after Close
    // The most handshake work (at handshake_cpu_share of it) a loop does at once.
    static constexpr int kHandshakeBurstMs = 20;
    // No established connection had work for this long: handshakes are not held back.
    // A connection out of its handshake counts as established work after this long too.
    static constexpr int kHandshakeIdleMs = 100;

    explicit CConnService(CConnectorMgr& mgr) : m_mgr(mgr) {}

    // Runs one connection's state for this tick.
    void Service(OwnedConn* c);
    // Changes the state and what other threads' Sends may do (the gate).
    void SetState(OwnedConn* c, ConnState state);
    // -> CLOSING: the socket goes; what is left in the ring is still offered (unless
    // delivery has ended), then FinishClose.
    void BeginClose(OwnedConn* c);
    // Records why the connection ends; the first cause recorded wins.
    void SetCloseInfo(OwnedConn* c, CloseReason reason, int error, CloseLimit limit = CloseLimit::kNone);
    // The end of a connection whose socket is gone (closed, or handed to another process):
    // counted by its reason, logged if it should be, then destroyed (or redialled) and
    // reported with OnClosed.
    void FinishClose(OwnedConn* c);

    // The connector's receive callback (use_recv_callback); `arg` is the OwnedConn.
    static int RecvCallback(const char* url, const char* data, int len, void* arg);
    // The tick's handshake work, last in the tick: as many queued handshake steps as
    // handshakes_per_tick and handshake_cpu_share allow (the share is taken of the time the
    // tick gave the other connections; a tick that gave them none is not held to it); the
    // rest wait for the next tick.
    void RunHandshakes();
    // Adds what handshake_cpu_share allows of the time this tick gave the established
    // connections (the full burst after a tick that gave them none). Once a stream layer
    // is in use, at the end of every tick.
    void RefillHandshakeCredit();
    // How long handshakes waiting for the budget make the loop wait at most: 0 while there
    // is credit, else about the time the share takes to pay the debt back.
    int HandshakeWaitMs() const;
    static int64_t NowNs();

  private:
    void ServiceEstablished(OwnedConn* c);
    // HANDSHAKE: queued for the tick's handshake work (RunHandshakes).
    void ServiceHandshake(OwnedConn* c);
    // One step of the stream layer's handshake, then ESTABLISHED and OnConnected, or the end
    // of a connection the handler never saw.
    void StepHandshake(OwnedConn* c);
    bool DeliverAndRead(OwnedConn* c);
    void EnterDraining(OwnedConn* c);
    void ServiceDraining(OwnedConn* c);
    void EndDrain(OwnedConn* c);
    void ServiceClosing(OwnedConn* c);
    int Deliver(OwnedConn* c);
    void DropRing(OwnedConn* c);
    void RetryBigWait(OwnedConn* c);
    void SetCloseInfoFromConnector(OwnedConn* c);
    void LogEnd(const OwnedConn* c, const CloseInfo& info);

    CConnectorMgr& m_mgr;
};

}  // namespace QUOLNET
