#include "platform/sock.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace QUOLNET {

int sock_open_tcp() {
    return sock_open(AF_INET, SOCK_STREAM, 0);
}

int sock_open(int domain, int type, int protocol) {
    int fd = socket(domain, type | SOCK_CLOEXEC, protocol);
    return fd < 0 ? -1 : fd;
}

int sock_set_nonblock(int socket, int on) {
    int flags = fcntl(socket, F_GETFL, 0);
    if (flags == -1) {
        return -1;
    }
    flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    return fcntl(socket, F_SETFL, flags) == -1 ? -1 : 0;
}

int sock_set_sendbuff(int socket, int size) {
    return setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) == 0 ? 0 : -1;
}

int sock_set_recvbuff(int socket, int size) {
    return setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) == 0 ? 0 : -1;
}

int sock_close(int socket) {
    return close(socket) == 0 ? 0 : -1;
}

}  // namespace QUOLNET
