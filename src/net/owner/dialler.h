// CDialler: a manager's dialled connections in their two dialling states, CONNECTING and
// WAIT_RETRY (see the diagram in conn.h): the connect, its timeout, and the redial with
// exponential backoff.
//
// Host names. A URL whose host is a name ("tcp://db.internal:5432") is looked up before
// every attempt, redials included, by the manager's CResolver (one worker thread, started
// by the first such dial), so the loop never blocks on it; the result comes back to the
// loop as posted work. Meanwhile the connection waits in WAIT_RETRY. The addresses are
// then tried in the order getaddrinfo gave them: one that fails at once or refuses is
// followed by the next, and with a connect timeout each address has an equal share of
// what is left of it, so one that does not answer leaves time for the others; the attempt
// fails when the last one does. The timeout counts from the start of the lookup. A lookup
// that fails ends the attempt with kDialResolveFailed (its message logged once, until a
// lookup succeeds again). The connector is given a numeric URL made from each address
// (CTcpConnector::Retarget); the connection's URL stays the one the application gave.
// A numeric URL goes straight to the connect, with none of this; so does a unix:// one
// (the connector's InitUnix; no TCP option is set, and the connect completes or fails at
// once).
//
// Threads: the loop thread calls everything (Dial also before the loop runs) except
// ParseDialURL (any thread) and GetResolveCount (any thread). The timers it sets and the
// lookups' results run on the loop thread. It takes the manager's table lock exclusively
// around Connect, Retarget and Disconnect, which change what other threads' Sends may use.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "conn.h"
#include "resolver.h"

namespace QUOLNET {

// What a dial URL names: a numeric address (`host` empty, `addr`/`len` set, port nonzero),
// a Unix-domain socket (`unix_socket`, `addr`/`len` a sockaddr_un), or a host name and a
// port (1 to 65535) to look up.
struct DialTarget {
    std::string host;
    uint16_t port = 0;
    bool unix_socket = false;
    struct sockaddr_storage addr;
    socklen_t len = 0;
};

class CDialler {
  public:
    explicit CDialler(CConnectorMgr& mgr) : m_mgr(mgr) {}

    // Splits a dial URL: "tcp://a.b.c.d:port", "tcp://[v6]:port", "tcp://name:port",
    // "unix:///path" or "unix://@name" (CTcpListener::ParseUnixURL). A name
    // is 1 to 253 characters of letters, digits, '-', '_' and '.', without empty labels, and
    // not made of digits and dots only (that is a malformed IPv4 address). Returns 0, or -1
    // with the reason in `why` (port 0 and ports above 65535 are malformed). Any thread.
    static int ParseDialURL(const char* url, DialTarget* out, std::string* why);

    // Dials `url` under `id` (0: a new id). Returns the id, or 0 for a malformed URL or a
    // failed set-up (logged).
    ConnId Dial(const char* url, const DialOptions& options, ConnId id);
    // CONNECTING, after the connector's Update: reports an established connection
    // (OnConnected) and returns true; returns false while the dial is in progress or when
    // it failed (then handled: the next address of a name, a redial, or OnClosed).
    bool CheckConnect(OwnedConn* c);
    // Close or Abort during a dial: the attempt ends and the connection is reported closed.
    void Abandon(OwnedConn* c);
    // A dial failed (or a WAIT_RETRY connection was closed): redials when the options say
    // so, otherwise ends the connection with OnClosed.
    void OnDialFailed(OwnedConn* c);
    // Waits the backoff delay in WAIT_RETRY, then dials again.
    void ScheduleRetry(OwnedConn* c);
    // Ends the lookups: none is started or reported after it returns (one in progress is
    // left to finish on its own). The manager's destructor calls it first.
    void StopResolver() { m_resolver.Stop(); }
    // Host-name lookups started (one per attempt of a dial by name). Any thread.
    uint64_t GetResolveCount() const { return m_resolve_cnt.load(std::memory_order_relaxed); }

  private:
    void StartConnect(OwnedConn* c);
    // The connector's dial to the address it is bound to. Returns true when the connect is
    // in progress (or done); false when it failed at once (logged, the close info recorded,
    // the connection in WAIT_RETRY).
    bool ConnectOnce(OwnedConn* c);
    void OnConnectTimeout(ConnId id, int attempt);
    // Names: the lookup, its result, the next address, and the two timeouts.
    void Resolve(OwnedConn* c);
    void OnResolved(ConnId id, uint64_t step, const ResolveResult& result);
    void TryNextAddress(OwnedConn* c);
    void OnResolveTimeout(ConnId id, uint64_t step);
    void OnAddressTimeout(ConnId id, uint64_t step);

    CConnectorMgr& m_mgr;
    CResolver m_resolver;
    std::atomic<uint64_t> m_resolve_cnt{0};
};

}  // namespace QUOLNET
