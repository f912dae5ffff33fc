// CTcpListener: listening socket, accept4 and tcp:// URL helpers.
#include "net/tcp_listener.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
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

bool CTcpListener::IsUnixURL(const char* url) {
    return url != nullptr && strncmp(url, "unix://", 7) == 0;
}

int CTcpListener::ParseUnixURL(const char* url, struct sockaddr_un* addr, socklen_t* len, std::string* why) {
    auto fail = [why](const char* reason) {
        if (why != nullptr) {
            *why = reason;
        }
        return -1;
    };
    if (!IsUnixURL(url)) {
        return fail("the URL must start with unix://");
    }
    const char* path = url + 7;
    const bool abstract = *path == '@';
    const char* name = abstract ? path + 1 : path;
    size_t n = strlen(name);
    if (n == 0) {
        return fail(abstract ? "empty abstract socket name after unix://@"
                             : "empty socket path after unix://");
    }
    // A path needs its terminator in sun_path; an abstract name its leading NUL.
    if (n + 1 > sizeof(addr->sun_path)) {
        return fail("the socket path is too long (at most 107 bytes)");
    }
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    if (abstract) {
        memcpy(addr->sun_path + 1, name, n);
        *len = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + n);
    } else {
        memcpy(addr->sun_path, name, n);
        *len = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + n + 1);
    }
    return 0;
}

std::string CTcpListener::FormatUnixURL(const struct sockaddr_un* addr, socklen_t len) {
    const size_t base = offsetof(struct sockaddr_un, sun_path);
    if (addr->sun_family != AF_UNIX || len <= base) {
        return "unix://";
    }
    size_t n = std::min(static_cast<size_t>(len) - base, sizeof(addr->sun_path));
    if (addr->sun_path[0] == '\0') {
        return "unix://@" + std::string(addr->sun_path + 1, n - 1);
    }
    return "unix://" + std::string(addr->sun_path, strnlen(addr->sun_path, n));
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

int CTcpListener::OpenUnix(const char* url, int backlog, bool reuse_port) {
    struct sockaddr_un addr;
    socklen_t len = 0;
    std::string why;
    if (ParseUnixURL(url, &addr, &len, &why) != 0) {
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "invalid listen url(%s), %s", url, why.c_str());
        return -1;
    }
    if (reuse_port) {
        m_last_errno = EOPNOTSUPP;  // one listening socket per path or name
        return -3;
    }
    const bool abstract = addr.sun_path[0] == '\0';
    if (!abstract) {
        struct stat st;
        if (lstat(addr.sun_path, &st) == 0) {
            if (!S_ISSOCK(st.st_mode)) {
                m_last_errno = EEXIST;
                QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR,
                                "cannot listen on %s: the path exists and is not a socket", url);
                return -2;
            }
            // A socket file: stale when nothing answers behind it (a server that died).
            int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            int err = 0;
            if (probe < 0 || connect(probe, reinterpret_cast<struct sockaddr*>(&addr), len) == 0) {
                err = probe < 0 ? errno : 0;
            } else {
                err = errno;
            }
            if (probe >= 0) {
                ::close(probe);
            }
            if (err != ECONNREFUSED) {
                m_last_errno = err == 0 || err == EAGAIN ? EADDRINUSE : err;
                if (err == 0 || err == EAGAIN) {
                    QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR,
                                    "cannot listen on %s: a live server is listening there", url);
                } else {
                    QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR,
                                    "cannot listen on %s: the socket file is in the way and a connect to it "
                                    "failed with errno=%d (not removed)",
                                    url, err);
                }
                return -2;
            }
            if (unlink(addr.sun_path) != 0 && errno != ENOENT) {
                m_last_errno = errno;
                QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "cannot remove the stale socket %s, errno=%d",
                                url, m_last_errno);
                return -2;
            }
            QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_INFO,
                            "replaced the stale socket file of %s (no server behind it)", url);
        }
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        m_last_errno = errno;
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "socket() failed, url=%s, errno=%d", url,
                        m_last_errno);
        return -2;
    }
    SocketSetupError err;
    if (ApplyBufferSizes(fd, m_options, &err) != 0) {
        m_last_errno = err.error;
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "%s, url=%s, errno=%d", err.step.c_str(), url,
                        m_last_errno);
        ::close(fd);
        return -2;
    }
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), len) != 0) {
        m_last_errno = errno;
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "bind() failed, url=%s, errno=%d", url, m_last_errno);
        ::close(fd);
        return -2;
    }
    if (listen(fd, backlog) != 0) {
        m_last_errno = errno;
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "listen() failed, url=%s, errno=%d", url,
                        m_last_errno);
        ::close(fd);
        if (!abstract) {
            unlink(addr.sun_path);
        }
        return -2;
    }
    m_fd = fd;
    m_unix = true;
    m_unix_path = abstract ? std::string() : std::string(addr.sun_path);
    m_url = FormatUnixURL(&addr, len);
    m_port = 0;
    QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_INFO, "listening on %s, fd=%d", m_url.c_str(), m_fd);
    return 0;
}

int CTcpListener::Open(const char* url, int backlog, LogCategory* log_cat, bool reuse_port) {
    Close();
    m_log_cat = log_cat;
    m_refused_cnt = 0;
    if (IsUnixURL(url)) {
        return OpenUnix(url, backlog, reuse_port);
    }
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
    int ret = m_unix ? 0 : ApplyTcpOptions(fd, m_options, &err);
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
        *peer_url = m_unix ? m_url : FormatURL(reinterpret_cast<struct sockaddr*>(&peer));
    }
    return fd;
}

int CTcpListener::Inherit(int fd, const char* url, LogCategory* log_cat) {
    m_log_cat = log_cat;
    int listening = 0;
    socklen_t optlen = sizeof(listening);
    struct sockaddr_storage bound;
    socklen_t bound_len = sizeof(bound);
    if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &optlen) != 0 || listening == 0 ||
        getsockname(fd, reinterpret_cast<struct sockaddr*>(&bound), &bound_len) != 0) {
        m_last_errno = listening == 0 ? EINVAL : errno;
        QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_ERROR,
                        "cannot take over %s: fd=%d is not listening, errno=%d", url, fd, m_last_errno);
        return -2;
    }
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) {
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
    if (bound.ss_family == AF_UNIX) {
        m_unix = true;
        m_url = FormatUnixURL(reinterpret_cast<struct sockaddr_un*>(&bound), bound_len);
        const char* path = reinterpret_cast<struct sockaddr_un*>(&bound)->sun_path;
        m_unix_path = bound_len > offsetof(struct sockaddr_un, sun_path) && path[0] != '\0' ? path : "";
        m_port = 0;
    } else {
        m_url = FormatURL(reinterpret_cast<struct sockaddr*>(&bound));
        m_port = bound.ss_family == AF_INET6
                     ? ntohs(reinterpret_cast<struct sockaddr_in6*>(&bound)->sin6_port)
                     : ntohs(reinterpret_cast<struct sockaddr_in*>(&bound)->sin_port);
    }
    m_fd = fd;
    QN_LISTENER_LOG(m_log_cat, LOG_PRIORITY_INFO, "listening on %s, fd=%d (taken over)", m_url.c_str(), m_fd);
    return 0;
}

void CTcpListener::Release() {
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
    m_unix = false;
    m_unix_path.clear();
}

std::string CTcpListener::CanonicalURL(const char* url) {
    if (IsUnixURL(url)) {
        return url;
    }
    struct sockaddr_storage addr;
    socklen_t len = 0;
    if (ParseURL(url, &addr, &len, nullptr) != 0) {
        return std::string();
    }
    return FormatURL(reinterpret_cast<struct sockaddr*>(&addr));
}

void CTcpListener::Close() {
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
        if (!m_unix_path.empty()) {
            unlink(m_unix_path.c_str());  // the file this listener bound
        }
    }
    m_unix = false;
    m_unix_path.clear();
}

}  // namespace QUOLNET
