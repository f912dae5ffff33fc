// SocketOptions: the option steps shared by listeners and dials.
#include "net/socket_options.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cstdio>
#include <cstring>

#include "net/tcp_listener.h"

namespace QUOLNET {

namespace {

// setsockopt of one int; on failure fills `err` with "setsockopt(NAME=value) failed" and errno.
int SetInt(int fd, int level, int name, const char* label, int value, SocketSetupError* err) {
    if (setsockopt(fd, level, name, &value, sizeof(value)) == 0) {
        return 0;
    }
    int e = errno;
    if (err != nullptr) {
        char step[96];
        snprintf(step, sizeof(step), "setsockopt(%s=%d) failed", label, value);
        err->step = step;
        err->error = e;
    }
    return -1;
}

}  // namespace

int ApplyTcpOptions(int fd, const SocketOptions& o, SocketSetupError* err) {
    if (o.nodelay && SetInt(fd, IPPROTO_TCP, TCP_NODELAY, "TCP_NODELAY", 1, err) != 0) {
        return -1;
    }
    if (o.keepalive) {
        if (SetInt(fd, SOL_SOCKET, SO_KEEPALIVE, "SO_KEEPALIVE", 1, err) != 0) {
            return -1;
        }
        if (o.keepalive_idle_sec > 0 &&
            SetInt(fd, IPPROTO_TCP, TCP_KEEPIDLE, "TCP_KEEPIDLE", o.keepalive_idle_sec, err) != 0) {
            return -1;
        }
        if (o.keepalive_interval_sec > 0 &&
            SetInt(fd, IPPROTO_TCP, TCP_KEEPINTVL, "TCP_KEEPINTVL", o.keepalive_interval_sec, err) != 0) {
            return -1;
        }
        if (o.keepalive_count > 0 &&
            SetInt(fd, IPPROTO_TCP, TCP_KEEPCNT, "TCP_KEEPCNT", o.keepalive_count, err) != 0) {
            return -1;
        }
    }
    if (o.user_timeout_ms > 0 && SetInt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, "TCP_USER_TIMEOUT",
                                        static_cast<int>(o.user_timeout_ms), err) != 0) {
        return -1;
    }
    return 0;
}

int ApplyBufferSizes(int fd, const SocketOptions& o, SocketSetupError* err) {
    if (o.send_buffer > 0 && SetInt(fd, SOL_SOCKET, SO_SNDBUF, "SO_SNDBUF", o.send_buffer, err) != 0) {
        return -1;
    }
    if (o.recv_buffer > 0 && SetInt(fd, SOL_SOCKET, SO_RCVBUF, "SO_RCVBUF", o.recv_buffer, err) != 0) {
        return -1;
    }
    return 0;
}

int ParseSourceAddress(const std::string& text, struct sockaddr_storage* addr, socklen_t* len,
                       std::string* why) {
    *len = 0;
    if (text.empty()) {
        return 0;
    }
    std::string url;
    if (text.compare(0, 6, "tcp://") == 0) {
        url = text;
    } else if (text[0] == '[') {
        url = "tcp://" + text + ":0";
    } else if (text.find(':') != std::string::npos) {
        url = "tcp://[" + text + "]:0";  // a bare IPv6 address
    } else {
        url = "tcp://" + text + ":0";
    }
    return CTcpListener::ParseURL(url.c_str(), addr, len, why);
}

int BindSourceAddress(int fd, const SocketOptions& o, SocketSetupError* err) {
    if (o.source_address.empty()) {
        return 0;
    }
    struct sockaddr_storage addr;
    socklen_t len = 0;
    std::string why;
    if (ParseSourceAddress(o.source_address, &addr, &len, &why) != 0) {
        if (err != nullptr) {
            err->step = "source address '" + o.source_address + "': " + why;
            err->error = EINVAL;
        }
        return -1;
    }
    bool any_port = addr.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port == 0
                                               : reinterpret_cast<sockaddr_in*>(&addr)->sin_port == 0;
#ifdef IP_BIND_ADDRESS_NO_PORT
    if (any_port) {
        // Leaves the port to connect(2), which can then reuse a port towards other peers; an
        // older kernel refuses the option and binds a port at once, which works too.
        int one = 1;
        setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof(one));
    }
#else
    (void)any_port;
#endif
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), len) != 0) {
        int e = errno;
        if (err != nullptr) {
            err->step = "bind(" + o.source_address + ") failed";
            err->error = e;
        }
        return -1;
    }
    return 0;
}

int RunSocketSetup(int fd, const SocketOptions& o, SocketSetupError* err) {
    if (!o.setup) {
        return 0;
    }
    errno = 0;
    int ret = o.setup(fd);
    if (ret == 0) {
        return 0;
    }
    int e = ret > 0 ? ret : errno;
    if (err != nullptr) {
        char step[64];
        snprintf(step, sizeof(step), "the setup function refused it (result %d)", ret);
        err->step = step;
        err->error = e;
    }
    return -1;
}

}  // namespace QUOLNET
