// CTcpListener: a non-blocking listening TCP socket for "tcp://a.b.c.d:port" and
// "tcp://[v6]:port" URLs, used by CConnectorMgr to accept connections; or a Unix-domain
// stream socket for "unix:///path/to.sock" (a file) and "unix://@name" (the abstract
// namespace, no file).
//
// A unix:// path that exists is taken over only when it is a stale socket: Open connects to
// it first, and ECONNREFUSED (no server behind it) has it unlinked and bound again; a
// server that answers (it sees the probe as a connection closed at once), or a file that is
// not a socket, fails Open (-2, logged). Close
// unlinks the file the listener bound. TCP options (TCP_NODELAY, keepalive) are not set on
// accepted unix sockets; the buffer sizes and the setup function are.
//
// The listener only owns its own descriptor. Accepted descriptors are handed to the caller
// (non-blocking, close-on-exec, with the listener's SocketOptions applied: by default
// TCP_NODELAY set), who owns them from then on. A port of 0 binds a free port;
// GetPort()/GetURL() report the one the kernel chose.
//
// Threads: not thread-safe; the owner's loop thread opens, accepts and closes.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>

#include "../common/export.h"
#include "../log/log.h"
#include "socket_options.h"

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
    // GetLastErrno()); a unix:// URL with `reuse_port` is -3 at once (one socket per path).
    // GetPort() is 0 for a unix:// listener.
    // The buffer sizes of the options set with SetSocketOptions are set on the listening
    // socket here (a failure is -2).
    int Open(const char* url, int backlog, LogCategory* log_cat, bool reuse_port = false);
    // What every accepted socket is set to (see net/socket_options.h); the defaults set
    // TCP_NODELAY only. Before Open; `source_address` is not used.
    void SetSocketOptions(const SocketOptions& options) { m_options = options; }
    const SocketOptions& GetSocketOptions() const { return m_options; }
    // Accepts one pending connection. Returns the new descriptor, or one of the ACCEPT_*
    // codes. `peer_url` (may be null) receives the peer's address as a tcp:// URL (for a
    // unix:// listener, the listener's URL: its peers are unnamed). A
    // connection whose options fail (or whose setup function refuses it) is closed and
    // reported as ACCEPT_REFUSED, with the errno in GetLastErrno(); the first such refusal
    // of the listener is logged (WARN for a failed option, INFO for the setup function's
    // choice), and every one is counted (GetRefusedCount).
    int Accept(std::string* peer_url);
    // Closes the listening descriptor (idempotent).
    void Close();
    // Takes `fd`, a socket already listening (handed over by another process), as this
    // listener's: its URL and port are read from it; a unix:// listener's file is `url`'s,
    // removed by Close as if bound here. Returns 0, or -2 when `fd` is not a listening
    // stream socket (errno kept in GetLastErrno(); `fd` is then not taken).
    int Inherit(int fd, const char* url, LogCategory* log_cat);
    // Closes the descriptor without removing a unix:// listener's file: the socket lives on
    // in the process it was handed to.
    void Release();
    // The URL a listener opened on `url` reports (GetURL), "" when `url` does not parse:
    // what an inherited listener is matched with.
    static std::string CanonicalURL(const char* url);

    int GetFd() const { return m_fd; }
    int GetPort() const { return m_port; }
    // The bound address as a URL, with the actual port.
    const std::string& GetURL() const { return m_url; }
    int GetLastErrno() const { return m_last_errno; }
    // Connections refused by their socket options (ACCEPT_REFUSED) since Open.
    uint64_t GetRefusedCount() const { return m_refused_cnt; }

    // Whether `url` starts with "unix://".
    static bool IsUnixURL(const char* url);
    // Parses "unix:///path" (or "unix://relative/path") and "unix://@name" into `addr`/`len`
    // (an abstract name starts with a NUL in sun_path). Returns 0, or -1 with a reason in
    // `why` (may be null): not unix://, empty, or too long for sun_path.
    static int ParseUnixURL(const char* url, struct sockaddr_un* addr, socklen_t* len, std::string* why);
    // The unix:// URL of a Unix-domain address of `len` bytes ("unix://" for an unnamed one).
    static std::string FormatUnixURL(const struct sockaddr_un* addr, socklen_t len);
    // Parses "tcp://a.b.c.d:port" or "tcp://[v6]:port" (numeric addresses, port 0..65535)
    // into `addr`/`len`. Returns 0, or -1 with a reason in `why` (may be null).
    static int ParseURL(const char* url, struct sockaddr_storage* addr, socklen_t* len, std::string* why);
    // The tcp:// URL of a socket address (IPv4 or IPv6); "" for other families.
    static std::string FormatURL(const struct sockaddr* addr);

  private:
    int OpenUnix(const char* url, int backlog, bool reuse_port);

    int m_fd;
    bool m_unix = false;      // a unix:// listener
    std::string m_unix_path;  // the file it bound ("" for an abstract name), unlinked by Close
    int m_port;
    int m_last_errno;
    std::string m_url;
    LogCategory* m_log_cat;
    SocketOptions m_options;
    uint64_t m_refused_cnt;
};

}  // namespace QUOLNET
