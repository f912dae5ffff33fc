// The socket layer: thin wrappers over the POSIX socket calls that the connectors use.
// A socket is an int descriptor; -1 means none. Every function sets errno on failure.
#pragma once

#include "../common/export.h"

namespace QUOLNET {

// Opens an IPv4 TCP stream socket (close-on-exec). Returns the descriptor, or -1.
QUOLNET_EXPORT int sock_open_tcp();

// Opens a socket of the given kind (close-on-exec added). Returns the descriptor, or -1.
QUOLNET_EXPORT int sock_open(int domain, int type, int protocol);

// Sets (on != 0) or clears O_NONBLOCK. Returns 0, or -1 on failure.
QUOLNET_EXPORT int sock_set_nonblock(int socket, int on);

// Sets SO_SNDBUF / SO_RCVBUF to `size` bytes (the kernel doubles and clamps the value).
// Returns 0, or -1 on failure.
QUOLNET_EXPORT int sock_set_sendbuff(int socket, int size);
QUOLNET_EXPORT int sock_set_recvbuff(int socket, int size);

// Closes the descriptor. Returns 0, or -1 on failure (EBADF for a descriptor not open).
QUOLNET_EXPORT int sock_close(int socket);

}  // namespace QUOLNET
