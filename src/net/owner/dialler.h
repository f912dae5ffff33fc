// CDialler: a manager's dialled connections in their two dialling states, CONNECTING and
// WAIT_RETRY (see the diagram in conn.h): the connect, its timeout, and the redial with
// exponential backoff.
//
// Threads: the loop thread calls everything (Dial also before the loop runs). The timers it
// sets run on the loop thread. It takes the manager's table lock exclusively around
// Connect and Disconnect, which change the descriptor other threads' Sends may use.
#pragma once

#include "net/owner/conn.h"

namespace QUOLNET {

class CDialler {
  public:
    explicit CDialler(CConnectorMgr& mgr) : m_mgr(mgr) {}

    // Dials `url` under `id` (0: a new id). Returns the id, or 0 for a malformed URL or a
    // failed set-up (logged).
    ConnId Dial(const char* url, const DialOptions& options, ConnId id);
    // CONNECTING, after the connector's Update: reports an established connection
    // (OnConnected) and returns true; returns false while the dial is in progress or when
    // it failed (then handled: redial or OnClosed).
    bool CheckConnect(OwnedConn* c);
    // Close or Abort during a dial: the attempt ends and the connection is reported closed.
    void Abandon(OwnedConn* c);
    // A dial failed (or a WAIT_RETRY connection was closed): redials when the options say
    // so, otherwise ends the connection with OnClosed.
    void OnDialFailed(OwnedConn* c);
    // Waits the backoff delay in WAIT_RETRY, then dials again.
    void ScheduleRetry(OwnedConn* c);

  private:
    void StartConnect(OwnedConn* c);
    void OnConnectTimeout(ConnId id, int attempt);

    CConnectorMgr& m_mgr;
};

}  // namespace QUOLNET
