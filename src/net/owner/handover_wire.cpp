// The hand-over's messages: framing, descriptors and deadlines (see handover_wire.h).
#include "net/owner/handover_wire.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "net/owner/event_loop.h"

namespace QUOLNET {

namespace handover {

namespace {

constexpr char kMagic[4] = {'Q', 'N', 'H', 'O'};
constexpr size_t kHeader = 12;

void PutU32(char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<char>(v >> (8 * i));
    }
}

uint32_t GetU32(const char* p) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
        v |= static_cast<uint32_t>(static_cast<uint8_t>(p[i])) << (8 * i);
    }
    return v;
}

// Waits until `fd` is ready for `events` or the deadline passes. False at the deadline
// (error set) or on a poll failure.
bool WaitFor(int fd, short events, int64_t deadline_ms, std::string* error) {
    for (;;) {
        int64_t left = deadline_ms - CEventLoop::NowMs();
        if (left <= 0) {
            *error = "the hand-over's deadline passed";
            return false;
        }
        struct pollfd p;
        p.fd = fd;
        p.events = events;
        p.revents = 0;
        int n = poll(&p, 1, static_cast<int>(left > 1000 ? 1000 : left));
        if (n > 0) {
            return true;  // ready, or an error the next call reports
        }
        if (n < 0 && errno != EINTR) {
            *error = std::string("poll: ") + strerror(errno);
            return false;
        }
    }
}

// After `call` wrote nothing (-1): true to write again (interrupted, or writable again
// before the deadline), false with `*error` set.
bool WriteAgain(int fd, int64_t deadline_ms, const char* call, std::string* error) {
    if (errno == EINTR) {
        return true;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return WaitFor(fd, POLLOUT, deadline_ms, error);
    }
    *error = std::string(call) + ": " + strerror(errno);
    return false;
}

bool SendAll(int fd, const char* p, size_t len, int64_t deadline_ms, std::string* error) {
    while (len > 0) {
        ssize_t n = ::send(fd, p, len, MSG_NOSIGNAL);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
        } else if (!WriteAgain(fd, deadline_ms, "send", error)) {
            return false;
        }
    }
    return true;
}

// After `call` read nothing (`n` is 0 or -1): true to read again (interrupted, or readable
// again before the deadline), false with `*error` set.
bool ReadAgain(ssize_t n, int fd, int64_t deadline_ms, const char* call, std::string* error) {
    if (n == 0) {
        *error = "the peer closed the hand-over socket";
        return false;
    }
    if (errno == EINTR) {
        return true;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return WaitFor(fd, POLLIN, deadline_ms, error);
    }
    *error = std::string(call) + ": " + strerror(errno);
    return false;
}

bool RecvAll(int fd, char* p, size_t len, int64_t deadline_ms, std::string* error) {
    while (len > 0) {
        ssize_t n = ::recv(fd, p, len, 0);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
        } else if (!ReadAgain(n, fd, deadline_ms, "recv", error)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool Send(int fd, uint16_t type, const std::string& payload, const std::vector<int>& fds, int64_t deadline_ms,
          std::string* error) {
    if (fds.size() > kMaxFds || payload.size() > kMaxPayload) {
        *error = "message too large";
        return false;
    }
    char header[kHeader];
    memcpy(header, kMagic, 4);
    header[4] = static_cast<char>(type);
    header[5] = static_cast<char>(type >> 8);
    header[6] = header[7] = 0;
    PutU32(header + 8, static_cast<uint32_t>(payload.size()));
    // The first byte carries the descriptors; the rest of the message follows as a stream.
    std::vector<char> control(CMSG_SPACE(sizeof(int) * (fds.empty() ? 1 : fds.size())));
    struct iovec iov;
    iov.iov_base = header;
    iov.iov_len = 1;
    struct msghdr msg;
    memset(&msg, 0, sizeof(msg));
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    if (!fds.empty()) {
        msg.msg_control = control.data();
        msg.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        struct cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
    }
    while (sendmsg(fd, &msg, MSG_NOSIGNAL) != 1) {  // one byte, or nothing
        if (!WriteAgain(fd, deadline_ms, "sendmsg", error)) {
            return false;
        }
    }
    return SendAll(fd, header + 1, kHeader - 1, deadline_ms, error) &&
           SendAll(fd, payload.data(), payload.size(), deadline_ms, error);
}

bool Recv(int fd, Msg* out, int64_t deadline_ms, std::string* error) {
    out->type = 0;
    out->payload.clear();
    out->fds.clear();
    char header[kHeader];
    std::vector<char> control(CMSG_SPACE(sizeof(int) * kMaxFds));
    for (;;) {
        struct iovec iov;
        iov.iov_base = header;
        iov.iov_len = 1;
        struct msghdr msg;
        memset(&msg, 0, sizeof(msg));
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control.data();
        msg.msg_controllen = control.size();
        ssize_t n = recvmsg(fd, &msg, MSG_CMSG_CLOEXEC);
        if (n == 1) {
            for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
                if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
                    size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
                    const char* data = reinterpret_cast<const char*>(CMSG_DATA(c));
                    for (size_t i = 0; i < count; ++i) {
                        int d;
                        memcpy(&d, data + i * sizeof(int), sizeof(int));
                        out->fds.push_back(d);
                    }
                }
            }
            if ((msg.msg_flags & MSG_CTRUNC) != 0) {
                *error = "too many descriptors in one message";
                break;
            }
            uint32_t len = 0;
            if (!RecvAll(fd, header + 1, kHeader - 1, deadline_ms, error)) {
                break;
            }
            if (memcmp(header, kMagic, 4) != 0) {
                *error = "not a hand-over peer (bad magic)";
                break;
            }
            out->type = static_cast<uint16_t>(static_cast<uint8_t>(header[4]) |
                                              (static_cast<uint8_t>(header[5]) << 8));
            len = GetU32(header + 8);
            if (len > kMaxPayload) {
                *error = "message too large";
                break;
            }
            out->payload.resize(len);
            if (!RecvAll(fd, &out->payload[0], len, deadline_ms, error)) {
                break;
            }
            return true;
        }
        if (!ReadAgain(n, fd, deadline_ms, "recvmsg", error)) {
            return false;
        }
    }
    for (int d : out->fds) {
        ::close(d);
    }
    out->fds.clear();
    return false;
}

bool PeerCredentials(int fd, uint32_t* uid, int32_t* pid) {
    struct ucred cred;
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        return false;
    }
    *uid = cred.uid;
    *pid = cred.pid;
    return true;
}

void CWriter::U32(uint32_t v) {
    char b[4];
    PutU32(b, v);
    m_out.append(b, 4);
}

void CWriter::SetU32(size_t at, uint32_t v) {
    PutU32(&m_out[at], v);
}

void CWriter::U64(uint64_t v) {
    U32(static_cast<uint32_t>(v));
    U32(static_cast<uint32_t>(v >> 32));
}

void CWriter::Bytes(const std::string& s) {
    U64(s.size());
    m_out.append(s);
}

void CWriter::Bytes(const std::vector<std::pair<const char*, size_t>>& pieces) {
    size_t n = 0;
    for (const auto& p : pieces) {
        n += p.second;
    }
    U64(n);
    for (const auto& p : pieces) {
        m_out.append(p.first, p.second);
    }
}

bool CReader::Need(size_t n) {
    if (!m_ok || m_in.size() - m_pos < n) {
        m_ok = false;
        return false;
    }
    return true;
}

uint8_t CReader::U8() {
    return Need(1) ? static_cast<uint8_t>(m_in[m_pos++]) : 0;
}

uint32_t CReader::U32() {
    if (!Need(4)) {
        return 0;
    }
    uint32_t v = GetU32(m_in.data() + m_pos);
    m_pos += 4;
    return v;
}

uint64_t CReader::U64() {
    uint64_t lo = U32();
    uint64_t hi = U32();
    return lo | (hi << 32);
}

std::pair<const char*, size_t> CReader::BytesView() {
    uint64_t n = U64();
    if (!Need(n)) {
        return std::make_pair(nullptr, 0);
    }
    std::pair<const char*, size_t> v(m_in.data() + m_pos, n);
    m_pos += n;
    return v;
}

std::string CReader::Bytes() {
    uint64_t n = U64();
    if (!Need(n)) {
        return std::string();
    }
    std::string s = m_in.substr(m_pos, n);
    m_pos += n;
    return s;
}

}  // namespace handover

}  // namespace QUOLNET
