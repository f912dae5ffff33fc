#include "support/net_helpers.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace qntest {

bool FdOpen(int fd) {
    return fd >= 0 && fcntl(fd, F_GETFD) != -1;
}

int CountOpenFds() {
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr) {
        return -1;
    }
    int n = 0;
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            ++n;
        }
    }
    closedir(d);
    return n - 1;  // the directory stream's own descriptor
}

static int BindLoopback(bool ipv6, int port) {
    int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    int rc;
    if (ipv6) {
        sockaddr_in6 a{};
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_loopback;
        a.sin6_port = htons(static_cast<uint16_t>(port));
        rc = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    } else {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(port));
        rc = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    }
    if (rc != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

static int PortOf(int fd) {
    sockaddr_storage ss{};
    socklen_t len = sizeof(ss);
    getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len);
    if (ss.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port);
    }
    return ntohs(reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

Listener::Listener(bool ipv6, int backlog) : m_ipv6(ipv6), m_fd(BindLoopback(ipv6, 0)), m_port(0) {
    if (m_fd >= 0) {
        listen(m_fd, backlog);
        m_port = PortOf(m_fd);
    }
}

Listener::~Listener() {
    Close();
}

void Listener::Close() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

std::string Listener::url() const {
    char buf[64];
    if (m_ipv6) {
        snprintf(buf, sizeof(buf), "tcp://[::1]:%d", m_port);
    } else {
        snprintf(buf, sizeof(buf), "tcp://127.0.0.1:%d", m_port);
    }
    return buf;
}

int Listener::Accept(bool blocking) {
    pollfd p{m_fd, POLLIN, 0};
    if (poll(&p, 1, 10000) != 1) {
        return -1;
    }
    int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC | (blocking ? 0 : SOCK_NONBLOCK));
    return fd;
}

int UnusedPort(bool ipv6) {
    int fd = BindLoopback(ipv6, 0);
    int port = PortOf(fd);
    close(fd);
    return port;
}

int DialBlocking(const Listener& l) {
    int fd =
        socket(l.url().find('[') != std::string::npos ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int rc;
    if (l.url().find('[') != std::string::npos) {
        sockaddr_in6 a{};
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_loopback;
        a.sin6_port = htons(static_cast<uint16_t>(l.port()));
        rc = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    } else {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(l.port()));
        rc = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    }
    if (rc != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool TcpPair(int* client, int* server, bool ipv6, bool nonblocking) {
    Listener l(ipv6);
    if (l.fd() < 0) {
        return false;
    }
    int c = DialBlocking(l);
    if (c < 0) {
        return false;
    }
    int s = l.Accept(!nonblocking);
    if (s < 0) {
        close(c);
        return false;
    }
    if (nonblocking) {
        fcntl(c, F_SETFL, fcntl(c, F_GETFL) | O_NONBLOCK);
    }
    *client = c;
    *server = s;
    return true;
}

void SetSmallBuffers(int fd, int sndbuf, int rcvbuf) {
    if (sndbuf > 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof(sndbuf));
    }
    if (rcvbuf > 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    }
}

bool WriteAll(int fd, const void* buf, size_t len, int timeout_ms) {
    const char* p = static_cast<const char*>(buf);
    while (len > 0) {
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd pf{fd, POLLOUT, 0};
            if (poll(&pf, 1, timeout_ms) <= 0) {
                return false;
            }
            continue;
        }
        return false;
    }
    return true;
}

bool ReadExactly(int fd, void* buf, size_t len, int timeout_ms) {
    char* p = static_cast<char*>(buf);
    while (len > 0) {
        ssize_t n = recv(fd, p, len, 0);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd pf{fd, POLLIN, 0};
            if (poll(&pf, 1, timeout_ms) <= 0) {
                return false;
            }
            continue;
        }
        return false;
    }
    return true;
}

int WaitEpoll(int epfd, unsigned int* events, void** data, int timeout_ms) {
    epoll_event ev{};
    int n = epoll_wait(epfd, &ev, 1, timeout_ms);
    if (n == 1) {
        if (events) {
            *events = ev.events;
        }
        if (data) {
            *data = ev.data.ptr;
        }
    }
    return n < 0 ? 0 : n;
}

long RegisteredEvents(int epfd, int fd) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/fdinfo/%d", epfd);
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        // tfd:        5 events:       19 data: ...
        if (line.compare(0, 4, "tfd:") != 0) {
            continue;
        }
        std::istringstream is(line);
        std::string tag, ev_tag;
        int tfd = -1;
        std::string events_hex;
        is >> tag >> tfd >> ev_tag >> events_hex;
        if (tfd == fd) {
            return strtol(events_hex.c_str(), nullptr, 16);
        }
    }
    return -1;
}

std::string ReadToEnd(int fd, int* end, int timeout_ms) {
    std::string got;
    std::vector<char> buf(1 << 16);
    for (;;) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) <= 0) {
            *end = ETIMEDOUT;
            return got;
        }
        ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n == 0) {
            *end = 0;
            return got;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            *end = errno;
            return got;
        }
        got.append(buf.data(), static_cast<size_t>(n));
    }
}

}  // namespace qntest
