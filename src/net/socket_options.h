// SocketOptions: what a connection's socket is set to, per listener (CConnectorMgr::Listen)
// and per dial (DialOptions::socket).
//
// Every field has a default that leaves the kernel's own behaviour alone, except `nodelay`
// (on, as the manager has always set it): in particular the buffer sizes stay 0, so the
// kernel keeps auto-tuning them (setting SO_SNDBUF or SO_RCVBUF turns auto-tuning off for
// that socket for good).
//
// Where each applies:
//   dialled socket   everything, after the socket is made and before connect(2), on the
//                    loop thread, again for every attempt of a reconnecting dial;
//   accepted socket  everything but `source_address`, right after accept4 on the loop
//                    thread; the buffer sizes are set on the listening socket instead
//                    (before listen(2)), so that the window scale offered in the handshake
//                    fits them, and the accepted sockets inherit them;
//   unix:// socket   the buffer sizes and `setup` only: the TCP options (`nodelay`,
//                    keepalive, `user_timeout_ms`) do not apply, and a dial with a
//                    `source_address` is refused.
// A failure of any step refuses the connection: a dial attempt fails (kDialRefused, with the
// errno; redialled when its options say so), an accepted descriptor is closed at once and
// counted (AcceptRefusal::kSocketSetup). The step and its errno are logged.
#pragma once

#include <sys/socket.h>

#include <functional>
#include <string>

#include "../common/export.h"
#include "stream_io.h"

namespace QUOLNET {

struct SocketOptions {
    bool nodelay = true;  // TCP_NODELAY; false leaves the kernel's default (Nagle on)
    // SO_KEEPALIVE with its three tunables (0: the system's net.ipv4.tcp_keepalive_* value).
    bool keepalive = false;
    int keepalive_idle_sec = 0;      // TCP_KEEPIDLE: idle time before the first probe
    int keepalive_interval_sec = 0;  // TCP_KEEPINTVL: between probes
    int keepalive_count = 0;         // TCP_KEEPCNT: unanswered probes before the reset
    // > 0: TCP_USER_TIMEOUT, how long written bytes may stay unacknowledged before the
    // connection fails (ETIMEDOUT); 0: the kernel's retransmission rules alone.
    unsigned int user_timeout_ms = 0;
    // > 0: SO_SNDBUF / SO_RCVBUF in bytes (the kernel doubles the figure for its own
    // bookkeeping and caps it at net.core.wmem_max / rmem_max); 0: left to auto-tuning.
    int send_buffer = 0;
    int recv_buffer = 0;
    // Dials only: the local address to connect from, "tcp://127.0.0.2:0" (a port, or 0 for
    // one picked at connect time) or a bare address ("127.0.0.2", "::1", "[::1]"). Its family
    // must be the peer's (for a host name, only the addresses of its family are dialled).
    // Empty: the kernel picks. Ignored by listeners.
    std::string source_address;
    // Called last with the descriptor (a dial: before connect(2); an accept: before the
    // connection is adopted and OnConnected), on the loop thread, to set anything else.
    // Returns 0 to go on. Anything else refuses the connection: a positive result is taken
    // as the errno to report, a negative one reports errno as the function left it. It must
    // not close the descriptor, and must not call the manager (for a dial it runs while the
    // manager holds its connection table's lock). Copied with the options; called from
    // every loop of a group, so it must be safe to call from several threads.
    std::function<int(int fd)> setup;
    // A layer for the connection's bytes (a TLS context: quolnet/tls/tls_context.h), made
    // for each accepted socket or dial attempt once the options above are applied; null:
    // plain bytes. The connection counts as connected (OnConnected) once the layer's
    // handshake is done: a listener's connections meet ConnectorMgrOptions's
    // handshake_timeout_ms, a dial's its connect timeout. Shared by every copy.
    std::shared_ptr<IStreamIoFactory> stream;
};

// Why applying SocketOptions failed: what went wrong, in words ("setsockopt(TCP_KEEPIDLE=30)
// failed", "bind(127.0.0.2) failed", "the setup function refused it (result 1)"), and the
// errno.
struct SocketSetupError {
    std::string step;
    int error = 0;
};

// The option steps, in the order ApplySocketOptions runs them. Each returns 0, or -1 with
// `err` filled (may be null). Any thread; they touch only `fd`.
//
// TCP_NODELAY (when on), keepalive and TCP_USER_TIMEOUT.
QUOLNET_EXPORT int ApplyTcpOptions(int fd, const SocketOptions& o, SocketSetupError* err);
// SO_SNDBUF / SO_RCVBUF when set (> 0).
QUOLNET_EXPORT int ApplyBufferSizes(int fd, const SocketOptions& o, SocketSetupError* err);
// Binds `fd` to `o.source_address` when set (IP_BIND_ADDRESS_NO_PORT first for port 0, so
// the port is chosen at connect time with the peer's address in view; kernels without it
// bind a port at once).
QUOLNET_EXPORT int BindSourceAddress(int fd, const SocketOptions& o, SocketSetupError* err);
// Calls `o.setup` when set (see there).
QUOLNET_EXPORT int RunSocketSetup(int fd, const SocketOptions& o, SocketSetupError* err);
// Parses `o.source_address` into `addr`/`len`. Returns 0 (also for an empty one, with *len
// 0), or -1 with a reason in `why` (may be null).
QUOLNET_EXPORT int ParseSourceAddress(const std::string& text, struct sockaddr_storage* addr, socklen_t* len,
                                      std::string* why);

}  // namespace QUOLNET
