// CTcpListener: listening socket, accept4 and tcp:// URL helpers.
#include "net/tcp_listener.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace QUOLNET {

#define QN_LISTENER_LOG(cat, prio, ...)                                                  \
    do {                                                                                 \
        LogCategory* qn_cat_ = (cat);                                                    \
        if (qn_cat_ != nullptr && log_can_write(qn_cat_, (prio), 0, 0) != 0) {           \
            LogLocation qn_loc_ = {"src/net/tcp_listener", __LINE__, __func__, nullptr}; \
            LogRecord qn_rec_ = {(prio), nullptr, 0, &qn_loc_, 0, 0, 0, 0, 0};           \
            log_write(qn_cat_, &qn_rec_, __VA_ARGS__);                                   \
        }                                                                                \
    } while (0)

CTcpListener::CTcpListener() : m_fd(-1), m_port(0), m_last_errno(0), m_log_cat(nullptr), m_refused_cnt(0) {}

CTcpListener::~CTcpListener() {
    Close();
}

int CTcpListener::ParseURL(const char* url, struct sockaddr_storage* addr, socklen_t* len, std::string* why) {
    auto fail = [why](const char* reason) {
        if (why != nullptr) {
            *why = reason;
        }
        return -1;
    };
    if (url == nullptr || strncmp(url, "tcp://", 6) != 0) {
        return fail("the URL must start with tcp://");
    }
    const char* host = url + 6;
    std::string host_text;
    const char* port_text = nullptr;
    bool v6 = false;
    if (*host == '[') {
        const char* close = strchr(host, ']');
        if (close == nullptr) {
            return fail("missing ']' after the IPv6 address");
        }
        host_text.assign(host + 1, close - host - 1);
        if (close[1] != ':') {
            return fail("missing ':port' after the address");
        }
        port_text = close + 2;
        v6 = true;
    } else {
        const char* colon = strrchr(host, ':');
        if (colon == nullptr) {
            return fail("missing ':port' after the address");
        }
        host_text.assign(host, colon - host);
        port_text = colon + 1;
    }
    if (*port_text == '\0') {
        return fail("empty port");
    }
    char* end = nullptr;
    errno = 0;
    long port = strtol(port_text, &end, 10);
    if (errno != 0 || *end != '\0' || port < 0 || port > 65535 ||
        !(port_text[0] >= '0' && port_text[0] <= '9')) {
        return fail("the port must be a number from 0 to 65535");
    }
    memset(addr, 0, sizeof(*addr));
    if (v6) {
        struct sockaddr_in6* a6 = reinterpret_cast<struct sockaddr_in6*>(addr);
        a6->sin6_family = AF_INET6;
        a6->sin6_port = htons(static_cast<uint16_t>(port));
        if (inet_pton(AF_INET6, host_text.c_str(), &a6->sin6_addr) != 1) {
            return fail("not a numeric IPv6 address");
        }
        *len = sizeof(*a6);
    } else {
        struct sockaddr_in* a4 = reinterpret_cast<struct sockaddr_in*>(addr);
        a4->sin_family = AF_INET;
        a4->sin_port = htons(static_cast<uint16_t>(port));
        if (inet_pton(AF_INET, host_text.c_str(), &a4->sin_addr) != 1) {
            return fail("not a numeric IPv4 address (a.b.c.d), use tcp://[addr]:port for IPv6");
        }
        *len = sizeof(*a4);
    }
    return 0;
}

std::string CTcpListener::FormatURL(const struct sockaddr* addr) {
    char text[INET6_ADDRSTRLEN] = {0};
    char url[128];
    if (addr->sa_family == AF_INET) {
        const struct sockaddr_in* a4 = reinterpret_cast<const struct sockaddr_in*>(addr);
        inet_ntop(AF_INET, &a4->sin_addr, text, sizeof(text));
        snprintf(url, sizeof(url), "tcp://%s:%d", text, ntohs(a4->sin_port));
        return url;
    }
    if (addr->sa_family == AF_INET6) {
        const struct sockaddr_in6* a6 = reinterpret_cast<const struct sockaddr_in6*>(addr);
        inet_ntop(AF_INET6, &a6->sin6_addr, text, sizeof(text));
        snprintf(url, sizeof(url), "tcp://[%s]:%d", text, ntohs(a6->sin6_port));
        return url;
    }
    return "";
}

int CTcpListener::Open(const char* url, int backlog, LogCategory* log_cat, bool reuse_port) {
    Close();
    m_log_cat = log_cat;
    m_refused_cnt = 0;
    struct sockaddr_storage addr;
    socklen_t len = 0;
    std::string why;
    if (ParseURL(url, &addr, &len, &why) != 0) {
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "invalid listen url(%s), %s",
                        url != nullptr ? url : "(null)", why.c_str());
        return -1;
    }
    int fd = socket(addr.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        m_last_errno = errno;
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "socket() failed, url=%s, errno=%d", url,
                        m_last_errno);
        return -2;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (reuse_port && setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one)) != 0) {
        m_last_errno = errno;
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_WARN, "setsockopt(SO_REUSEPORT) failed, url=%s, errno=%d",
                        url, m_last_errno);
        ::close(fd);
        return -3;
    }
    if (addr.ss_family == AF_INET6) {
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof(one));
    }
    // Accepted sockets inherit the buffer sizes, and the receive buffer sizes the window
    // scale that the handshake offers: so they are set here, before listen(2).
    SocketSetupError err;
    if (ApplyBufferSizes(fd, m_options, &err) != 0) {
        m_last_errno = err.error;
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "%s, url=%s, errno=%d", err.step.c_str(), url,
                        m_last_errno);
        ::close(fd);
        return -2;
    }
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), len) != 0 || listen(fd, backlog) != 0) {
        m_last_errno = errno;
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "bind()/listen() failed, url=%s, errno=%d", url,
                        m_last_errno);
        ::close(fd);
        return -2;
    }
    struct sockaddr_storage bound;
    socklen_t bound_len = sizeof(bound);
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&bound), &bound_len);
    m_url = FormatURL(reinterpret_cast<struct sockaddr*>(&bound));
    m_port = bound.ss_family == AF_INET6 ? ntohs(reinterpret_cast<struct sockaddr_in6*>(&bound)->sin6_port)
                                         : ntohs(reinterpret_cast<struct sockaddr_in*>(&bound)->sin_port);
    m_fd = fd;
    QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_INFO, "listening on %s, fd=%d", m_url.c_str(), m_fd);
    return 0;
}

int CTcpListener::Accept(std::string* peer_url) {
    struct sockaddr_storage peer;
    socklen_t peer_len = sizeof(peer);
    int fd =
        accept4(m_fd, reinterpret_cast<struct sockaddr*>(&peer), &peer_len, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        m_last_errno = errno;
        switch (m_last_errno) {
            case EAGAIN:
                return ACCEPT_WOULD_BLOCK;
            case EMFILE:
            case ENFILE:
            case ENOBUFS:
            case ENOMEM:
                return ACCEPT_FD_LIMIT;
            default:
                return ACCEPT_TRANSIENT;
        }
    }
    SocketSetupError err;
    int ret = ApplyTcpOptions(fd, m_options, &err);
    bool chosen = false;  // refused by the application's setup function, not by a failure
    if (ret == 0) {
        ret = RunSocketSetup(fd, m_options, &err);
        chosen = ret != 0;
    }
    if (ret != 0) {
        ::close(fd);
        m_last_errno = err.error;
        if (m_refused_cnt++ == 0) {
            QN_LISTENER_LOG(m_log_cat, chosen ? LOG_PRIORITY_INFO : LOG_PRIORITY_WARN,
                            "accepted connection from %s refused on %s: %s, errno=%d (logged once per "
                            "listener; every one is counted)",
                            FormatURL(reinterpret_cast<struct sockaddr*>(&peer)).c_str(), m_url.c_str(),
                            err.step.c_str(), m_last_errno);
        }
        return ACCEPT_REFUSED;
    }
    if (peer_url != nullptr) {
        *peer_url = FormatURL(reinterpret_cast<struct sockaddr*>(&peer));
    }
    return fd;
}

void CTcpListener::Close() {
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

}  // namespace QUOLNET
