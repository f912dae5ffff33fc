// test_peer: a loopback peer for the example programs' tests. Prints the port it holds on its
// first line, then:
//   test_peer reset N  accepts one connection on 127.0.0.1, reads N whole packets (4-byte
//                      big-endian length counting itself, then the payload) without answering,
//                      so the dialler has sent everything and waits for replies, then resets
//                      the connection (SO_LINGER 0) and exits 0;
//   test_peer closed   binds 127.0.0.1 without listening, so a dial to the port is refused,
//                      and holds the port for 20 s (or until it is killed).
// Every wait is bounded (20 s); exit 1 when one runs out or a call fails.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool WaitReadable(int fd) {
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 20000) == 1;
}

}  // namespace

int main(int argc, char** argv) {
    bool reset = argc == 3 && strcmp(argv[1], "reset") == 0;
    long packets = reset ? strtol(argv[2], nullptr, 10) : 0;
    if (!(reset && packets > 0) && !(argc == 2 && strcmp(argv[1], "closed") == 0)) {
        fprintf(stderr, "usage: test_peer reset PACKETS | test_peer closed\n");
        return 2;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        (reset && listen(fd, 1) != 0) || getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        perror("test_peer");
        return 1;
    }
    printf("%d\n", ntohs(addr.sin_port));
    fflush(stdout);
    if (!reset) {
        poll(nullptr, 0, 20000);
        return 0;
    }
    int conn = WaitReadable(fd) ? accept(fd, nullptr, nullptr) : -1;
    // Counts whole packets: `header` collects a length, `left` is what remains of a body.
    unsigned char header[4];
    size_t have = 0;
    unsigned long left = 0;
    char buf[65536];
    while (conn >= 0 && packets > 0) {
        ssize_t n = WaitReadable(conn) ? recv(conn, buf, sizeof(buf), 0) : -1;
        if (n <= 0) {
            fprintf(stderr, "test_peer: the connection ended or went quiet with %ld packets to come\n",
                    packets);
            return 1;
        }
        for (ssize_t i = 0; i < n && packets > 0;) {
            if (left == 0) {
                header[have++] = static_cast<unsigned char>(buf[i++]);
                if (have == 4) {
                    left = (static_cast<unsigned long>(header[0]) << 24 | header[1] << 16 | header[2] << 8 |
                            header[3]) -
                           4;
                    have = 0;
                    packets -= left == 0;
                }
            } else {
                size_t take = std::min<size_t>(left, static_cast<size_t>(n - i));
                i += static_cast<ssize_t>(take);
                left -= take;
                packets -= left == 0;
            }
        }
    }
    if (conn < 0) {
        fprintf(stderr, "test_peer: no connection within 20 s\n");
        return 1;
    }
    struct linger lg = {1, 0};
    setsockopt(conn, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    close(conn);  // SO_LINGER 0: the dialler gets a reset
    close(fd);
    return 0;
}
