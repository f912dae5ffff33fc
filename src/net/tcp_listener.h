// CTcpListener: a non-blocking listening TCP socket for "tcp://a.b.c.d:port" and
// "tcp://[v6]:port" URLs, used by CConnectorMgr to accept connections.
//
// The listener only owns its own descriptor. Accepted descriptors are handed to the caller
// (non-blocking, close-on-exec, with the listener's SocketOptions applied: by default
// TCP_NODELAY set), who owns them from then on. A port of 0 binds a free port;
// GetPort()/GetURL() report the one the kernel chose.
//
// Threads: not thread-safe; the owner's loop thread opens, accepts and closes.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>

#include "common/export.h"
#include "log/log.h"
#include "net/socket_options.h"

namespace QUOLNET {

class QUOLNET_EXPORT CTcpListener {
  public:
    // Results of Accept() other than a descriptor.
    enum {
        ACCEPT_WOULD_BLOCK = -1,  // nothing pending
        ACCEPT_FD_LIMIT = -2,     // out of descriptors (EMFILE, ENFILE) or kernel memory
        ACCEPT_TRANSIENT = -3,    // the pending connection failed (e.g. aborted); try again
        ACCEPT_REFUSED = -4,      // the socket options or their setup function refused it (closed)
    };

    CTcpListener();
    // Closes the descriptor if still open.
    ~CTcpListener();
    CTcpListener(const CTcpListener&) = delete;
    CTcpListener& operator=(const CTcpListener&) = delete;

    // Binds and listens on `url` with SO_REUSEADDR (and SO_REUSEPORT when `reuse_port`, so
    // that several listeners, one per loop, share the port and the kernel spreads the
    // connections over them). Returns 0, -1 for a malformed URL, -2 when the socket cannot
    // be made, bound or put to listen, -3 when SO_REUSEPORT is refused (errno kept in
    // GetLastErrno()).
    // The buffer sizes of the options set with SetSocketOptions are set on the listening
    // socket here (a failure is -2).
    int Open(const char* url, int backlog, LogCategory* log_cat, bool reuse_port = false);
    // What every accepted socket is set to (see net/socket_options.h); the defaults set
    // TCP_NODELAY only. Before Open; `source_address` is not used.
    void SetSocketOptions(const SocketOptions& options) { m_options = options; }
    const SocketOptions& GetSocketOptions() const { return m_options; }
    // Accepts one pending connection. Returns the new descriptor, or one of the ACCEPT_*
    // codes. `peer_url` (may be null) receives the peer's address as a tcp:// URL. A
    // connection whose options fail (or whose setup function refuses it) is closed and
    // reported as ACCEPT_REFUSED, with the errno in GetLastErrno(); the first such refusal
    // of the listener is logged (WARN for a failed option, INFO for the setup function's
    // choice), and every one is counted (GetRefusedCount).
    int Accept(std::string* peer_url);
    // Closes the listening descriptor (idempotent).
    void Close();

    int GetFd() const { return m_fd; }
    int GetPort() const { return m_port; }
    // The bound address as a URL, with the actual port.
    const std::string& GetURL() const { return m_url; }
    int GetLastErrno() const { return m_last_errno; }
    // Connections refused by their socket options (ACCEPT_REFUSED) since Open.
    uint64_t GetRefusedCount() const { return m_refused_cnt; }

    // Parses "tcp://a.b.c.d:port" or "tcp://[v6]:port" (numeric addresses, port 0..65535)
    // into `addr`/`len`. Returns 0, or -1 with a reason in `why` (may be null).
    static int ParseURL(const char* url, struct sockaddr_storage* addr, socklen_t* len, std::string* why);
    // The tcp:// URL of a socket address (IPv4 or IPv6); "" for other families.
    static std::string FormatURL(const struct sockaddr* addr);

  private:
    int m_fd;
    int m_port;
    int m_last_errno;
    std::string m_url;
    LogCategory* m_log_cat;
    SocketOptions m_options;
    uint64_t m_refused_cnt;
};

}  // namespace QUOLNET
