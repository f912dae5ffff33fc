// CDialler: connect, connect timeout, redial with backoff.
#include "net/owner/dialler.h"

#include <errno.h>
#include <netinet/in.h>
#include <unistd.h>

#include <netdb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "net/connector_mgr.h"
#include "net/owner/owner_log.h"

namespace QUOLNET {

namespace {

// The socket set-up of each attempt (CTcpConnector::ConnectWith): the dial's SocketOptions,
// in place of the connector's process-wide buffer sizes, and what failed.
struct DialSetup {
    const SocketOptions* options;
    SocketSetupError error;
    bool unix_socket;  // no TCP options, no source address
};

int ApplyDialSetup(void* arg, int fd) {
    DialSetup* s = static_cast<DialSetup*>(arg);
    const SocketOptions& o = *s->options;
    bool ok = ApplyBufferSizes(fd, o, &s->error) == 0 &&
              (s->unix_socket || ApplyTcpOptions(fd, o, &s->error) == 0) &&
              (s->unix_socket || BindSourceAddress(fd, o, &s->error) == 0) &&
              RunSocketSetup(fd, o, &s->error) == 0;
    return ok ? 0 : -1;
}

bool IsNameChar(char ch) {
    return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '-' ||
           ch == '_' || ch == '.';
}

// A host name as ParseDialURL takes it (see there).
bool IsHostName(const std::string& name) {
    if (name.empty() || name.size() > 253 || name[0] == '.') {
        return false;
    }
    bool other_than_digits = false;
    for (size_t i = 0; i < name.size(); ++i) {
        char ch = name[i];
        if (!IsNameChar(ch) || (ch == '.' && i + 1 < name.size() && name[i + 1] == '.')) {
            return false;
        }
        if (!(ch >= '0' && ch <= '9') && ch != '.') {
            other_than_digits = true;
        }
    }
    return other_than_digits;
}

in_port_t PortOf(const struct sockaddr_storage& addr) {
    return addr.ss_family == AF_INET6 ? reinterpret_cast<const struct sockaddr_in6*>(&addr)->sin6_port
                                      : reinterpret_cast<const struct sockaddr_in*>(&addr)->sin_port;
}

}  // namespace

int CDialler::ParseDialURL(const char* url, DialTarget* out, std::string* why) {
    std::string reason;
    out->host.clear();
    out->port = 0;
    out->unix_socket = false;
    if (CTcpListener::IsUnixURL(url)) {
        struct sockaddr_un un;
        if (CTcpListener::ParseUnixURL(url, &un, &out->len, &reason) == 0) {
            memset(&out->addr, 0, sizeof(out->addr));
            memcpy(&out->addr, &un, sizeof(un));
            out->unix_socket = true;
            return 0;
        }
    } else if (CTcpListener::ParseURL(url, &out->addr, &out->len, &reason) == 0) {
        // Port 0 asks a listener for a free port; nothing can be dialled there.
        if (PortOf(out->addr) == 0) {
            reason = "port 0 cannot be dialled";
        } else {
            return 0;
        }
    } else if (url != nullptr && strncmp(url, "tcp://", 6) == 0 && url[6] != '[') {
        // Not numeric: a host name and a port?
        const char* host = url + 6;
        const char* colon = strrchr(host, ':');
        std::string name = colon != nullptr ? std::string(host, static_cast<size_t>(colon - host)) : "";
        if (colon != nullptr && IsHostName(name)) {
            const char* port_text = colon + 1;
            char* end = nullptr;
            errno = 0;
            long port = strtol(port_text, &end, 10);
            if (!(port_text[0] >= '0' && port_text[0] <= '9') || errno != 0 || *end != '\0' || port > 65535) {
                reason = "the port must be a number from 1 to 65535";
            } else if (port == 0) {
                reason = "port 0 cannot be dialled";
            } else {
                out->host = name;
                out->port = static_cast<uint16_t>(port);
                out->len = 0;
                return 0;
            }
        } else if (colon != nullptr && !name.empty() && reason.compare(0, 13, "not a numeric") == 0) {
            reason = "neither a numeric address nor a host name (letters, digits, '-', '_', '.')";
        }
    }
    if (why != nullptr) {
        *why = reason;
    }
    return -1;
}

ConnId CDialler::Dial(const char* url, const DialOptions& options, ConnId id) {
    DialTarget target;
    std::string why;
    if (ParseDialURL(url, &target, &why) != 0) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR, "invalid dial url(%s), %s",
                     url != nullptr ? url : "(null)", why.c_str());
        return 0;
    }
    const bool named = !target.host.empty();
    if (target.unix_socket && !options.socket.source_address.empty()) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR,
                     "invalid source address '%s' for %s: not for a unix socket",
                     options.socket.source_address.c_str(), url);
        return 0;
    }
    if (!target.unix_socket && !options.socket.source_address.empty()) {
        struct sockaddr_storage source;
        socklen_t source_len = 0;
        // A name's addresses are filtered by the source's family once they are known.
        if (ParseSourceAddress(options.socket.source_address, &source, &source_len, &why) != 0 ||
            (!named && source.ss_family != target.addr.ss_family)) {
            QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR, "invalid source address '%s' for %s: %s",
                         options.socket.source_address.c_str(), url,
                         why.empty() ? "not of the peer's address family" : why.c_str());
            return 0;
        }
    }
    if (named && m_mgr.GetEpollFd() < 0) {
        // What the connector's Init refuses for a numeric URL (the manager is not initialised).
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR, "CTcpConnector::Init() failed, url=%s", url);
        return 0;
    }
    OwnedConn* c = m_mgr.NewConn(url);
    c->dial = std::make_shared<const DialOptions>(options);
    c->context = options.context;
    if (named) {
        // The connector is bound to an address once the name is looked up (Retarget).
        c->dial_host = target.host;
        c->dial_port = target.port;
        m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
    } else if ((target.unix_socket ? c->connector->InitUnix(url, m_mgr.m_parser, m_mgr.GetEpollFd(), -1)
                                   : c->connector->Init(url, m_mgr.m_parser, m_mgr.GetEpollFd(), -1)) != 0) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR, "CTcpConnector::Init() failed, url=%s", url);
        delete c;
        return 0;
    }
    c->id = id;
    m_mgr.m_table.Add(c);
    id = c->id;
    StartConnect(c);
    return id;
}

void CDialler::StartConnect(OwnedConn* c) {
    c->timer_id = 0;
    c->close_info_set = false;
    ++c->attempt;
    if (!c->dial_host.empty()) {
        Resolve(c);
        return;
    }
    if (!ConnectOnce(c)) {
        OnDialFailed(c);
        return;
    }
    if (c->dial->connect_timeout_ms > 0) {
        ConnId id = c->id;
        int attempt = c->attempt;
        c->timer_id = m_mgr.m_loop.AddTimer(c->dial->connect_timeout_ms, 0,
                                            [this, id, attempt]() { OnConnectTimeout(id, attempt); });
    }
}

namespace {

// The host part of a numeric "tcp://a.b.c.d:port" or "tcp://[v6]:port" URL, for the stream
// layer's checks when no name was dialled.
std::string HostOfUrl(const std::string& url) {
    size_t start = url.find("://");
    start = start == std::string::npos ? 0 : start + 3;
    size_t colon = url.rfind(':');
    std::string host =
        url.substr(start, colon == std::string::npos || colon < start ? std::string::npos : colon - start);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return host;
}

}  // namespace

bool CDialler::ConnectOnce(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    if (c->dial->socket.stream != nullptr) {
        // A new session for every attempt, checked against the name dialled.
        const std::string host = !c->dial_host.empty() ? c->dial_host : HostOfUrl(c->url);
        std::unique_ptr<IStreamIo> io = c->dial->socket.stream->Create(false, host);
        if (io == nullptr) {
            QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN,
                         "connect attempt %d to %s failed: the stream layer refused it", c->attempt,
                         c->url.c_str());
            m_mgr.m_service.SetCloseInfo(c, CloseReason::kHandshakeFailed, 0);
            m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
            return false;
        }
        k->SetStreamIo(std::move(io));
    }
    int ret = 0;
    int err = 0;
    DialSetup setup = {&c->dial->socket, SocketSetupError(), k->IsUnix()};
    {
        auto lock = m_mgr.m_table.Lock();
        ret = k->ConnectWith(&ApplyDialSetup, &setup);
        err = ret == CTcpConnector::kConnectSetupFailed ? setup.error.error : errno;
        int fd = k->GetSocket();
        if (ret == 0) {
            k->SetCloseSocket(false);
            c->fd = fd;
        } else if (((ret <= -4 && ret >= -8) || ret == CTcpConnector::kConnectSetupFailed) && fd >= 0 &&
                   k->GetStatus() == CONNECTOR_STATUS_DISCONNECTED) {
            // These failures leave the new descriptor open in the connector; it is ours to close.
            ::close(fd);
        }
    }
    if (ret != 0) {
        if (ret == CTcpConnector::kConnectSetupFailed) {
            QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN, "connect attempt %d to %s failed: %s, errno=%d",
                         c->attempt, c->url.c_str(), setup.error.step.c_str(), err);
        } else {
            QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN, "connect attempt %d to %s failed, ret=%d",
                         c->attempt, c->url.c_str(), ret);
        }
        m_mgr.m_service.SetCloseInfo(c, CloseReason::kDialRefused, err);
        m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
        return false;
    }
    m_mgr.m_service.SetState(c, CONN_CONNECTING);
    if (k->GetStatus() == CONNECTOR_STATUS_CONNECTED) {
        // Completed at once; Update reports it on the first tick through the same path.
        m_mgr.Queue(c);
    }
    return true;
}

void CDialler::Resolve(OwnedConn* c) {
    m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
    c->resolving = true;
    c->dial_addrs.clear();
    c->dial_next = 0;
    const ConnId id = c->id;
    const uint64_t step = ++c->dial_step;
    const int timeout_ms = c->dial->connect_timeout_ms;
    c->dial_deadline_ms = timeout_ms > 0 ? CEventLoop::NowMs() + timeout_ms : 0;
    if (timeout_ms > 0) {
        c->timer_id =
            m_mgr.m_loop.AddTimer(timeout_ms, 0, [this, id, step]() { OnResolveTimeout(id, step); });
    }
    m_resolve_cnt.fetch_add(1, std::memory_order_relaxed);
    bool queued = m_resolver.Resolve(c->dial_host, c->dial_port,
                                     [this, id, step](const std::shared_ptr<const ResolveResult>& r) {
                                         // The worker's thread: the result goes to the loop.
                                         m_mgr.Post([this, id, step, r]() { OnResolved(id, step, *r); });
                                     });
    if (!queued) {
        ResolveResult failed;
        failed.error = EAI_SYSTEM;
        failed.message = "the resolver thread could not be started";
        OnResolved(id, step, failed);
    }
}

void CDialler::OnResolved(ConnId id, uint64_t step, const ResolveResult& result) {
    OwnedConn* c = m_mgr.m_table.Find(id);
    if (c == nullptr || c->dead || !c->resolving || c->dial_step != step) {
        return;  // ended, timed out, or closed meanwhile
    }
    c->resolving = false;
    if (c->timer_id != 0) {
        m_mgr.m_loop.CancelTimer(c->timer_id);
        c->timer_id = 0;
    }
    // With a source address only the addresses of its family can be dialled.
    int family = AF_UNSPEC;
    if (!c->dial->socket.source_address.empty()) {
        struct sockaddr_storage source;
        socklen_t source_len = 0;
        std::string why;
        if (ParseSourceAddress(c->dial->socket.source_address, &source, &source_len, &why) == 0) {
            family = source.ss_family;
        }
    }
    for (const ResolvedAddr& a : result.addrs) {
        if (family == AF_UNSPEC || a.addr.ss_family == family) {
            c->dial_addrs.push_back(a);
        }
    }
    if (result.error != 0 || c->dial_addrs.empty()) {
        if (!c->resolve_fail_logged) {
            c->resolve_fail_logged = true;
            QN_OWNER_LOG(
                m_mgr.LogCat(), LOG_PRIORITY_WARN, "cannot resolve '%s' for %s: %s", c->dial_host.c_str(),
                c->url.c_str(),
                result.error != 0 ? result.message.c_str() : "no address of the source address's family");
        }
        m_mgr.m_service.SetCloseInfo(c, CloseReason::kDialResolveFailed, result.error);
        OnDialFailed(c);
        return;
    }
    c->resolve_fail_logged = false;
    c->dial_next = 0;
    TryNextAddress(c);
}

void CDialler::TryNextAddress(OwnedConn* c) {
    const ConnId id = c->id;
    while (c->dial_next < c->dial_addrs.size()) {
        const size_t index = c->dial_next++;
        const std::string numeric =
            CTcpListener::FormatURL(reinterpret_cast<const struct sockaddr*>(&c->dial_addrs[index].addr));
        c->close_info_set = false;  // the last address's failure is the one reported
        int ret = 0;
        {
            auto lock = m_mgr.m_table.Lock();
            ret = c->connector->Retarget(numeric.c_str(), m_mgr.m_parser, m_mgr.GetEpollFd());
        }
        if (ret != 0) {
            QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN, "dial %s: cannot use address %s, ret=%d",
                         c->url.c_str(), numeric.c_str(), ret);
            m_mgr.m_service.SetCloseInfo(c, CloseReason::kDialRefused, 0);
            m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
            continue;
        }
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_INFO, "dialling %s at %s (address %zu of %zu)",
                     c->url.c_str(), numeric.c_str(), index + 1, c->dial_addrs.size());
        if (!ConnectOnce(c)) {
            continue;  // failed at once: the next address
        }
        const uint64_t step = ++c->dial_step;
        if (c->dial_deadline_ms > 0) {
            // An equal share of what is left of the timeout for this address and each after it.
            int64_t left = std::max<int64_t>(1, c->dial_deadline_ms - CEventLoop::NowMs());
            int64_t share = std::max<int64_t>(1, left / static_cast<int64_t>(c->dial_addrs.size() - index));
            c->timer_id = m_mgr.m_loop.AddTimer(static_cast<int>(share), 0,
                                                [this, id, step]() { OnAddressTimeout(id, step); });
        }
        return;
    }
    OnDialFailed(c);  // every address failed at once; the last failure is reported
}

void CDialler::OnResolveTimeout(ConnId id, uint64_t step) {
    OwnedConn* c = m_mgr.m_table.Find(id);
    if (c == nullptr || c->dead || !c->resolving || c->dial_step != step) {
        return;
    }
    c->timer_id = 0;
    c->resolving = false;  // its result, when it comes, is dropped
    QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN, "looking up '%s' for %s took longer than %d ms",
                 c->dial_host.c_str(), c->url.c_str(), c->dial->connect_timeout_ms);
    m_mgr.m_service.SetCloseInfo(c, CloseReason::kDialTimeout, ETIMEDOUT);
    OnDialFailed(c);
}

void CDialler::OnAddressTimeout(ConnId id, uint64_t step) {
    OwnedConn* c = m_mgr.m_table.Find(id);
    if (c == nullptr || c->dead || c->state != CONN_CONNECTING || c->dial_step != step) {
        return;
    }
    c->timer_id = 0;
    {
        auto lock = m_mgr.m_table.Lock();
        c->connector->Disconnect(nullptr);
    }
    m_mgr.ReleaseFd(c);
    m_mgr.m_service.SetCloseInfo(c, CloseReason::kDialTimeout, ETIMEDOUT);
    m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
    if (c->dial_next < c->dial_addrs.size() && CEventLoop::NowMs() < c->dial_deadline_ms) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_INFO,
                     "dial %s: no answer from %s in its share of the timeout, trying the next address",
                     c->url.c_str(), c->connector->GetURL());
        TryNextAddress(c);
        return;
    }
    QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN, "connect to %s timed out after %d ms", c->url.c_str(),
                 c->dial->connect_timeout_ms);
    OnDialFailed(c);
}

void CDialler::OnConnectTimeout(ConnId id, int attempt) {
    OwnedConn* c = m_mgr.m_table.Find(id);
    if (c == nullptr || c->state != CONN_CONNECTING || c->attempt != attempt) {
        return;
    }
    c->timer_id = 0;
    QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN, "connect to %s timed out after %d ms", c->url.c_str(),
                 c->dial->connect_timeout_ms);
    {
        auto lock = m_mgr.m_table.Lock();
        c->connector->Disconnect(nullptr);
    }
    m_mgr.ReleaseFd(c);
    m_mgr.m_service.SetCloseInfo(c, CloseReason::kDialTimeout, ETIMEDOUT);
    m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
    OnDialFailed(c);
}

bool CDialler::CheckConnect(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    int status = k->GetStatus();
    if (status == CONNECTOR_STATUS_CONNECTING) {
        return false;
    }
    if (c->timer_id != 0) {
        m_mgr.m_loop.CancelTimer(c->timer_id);
        c->timer_id = 0;
    }
    if (status == CONNECTOR_STATUS_DISCONNECTED && k->GetLastIoResult() == CTcpConnector::kHandshakeFailed) {
        // Connected, but the stream layer's handshake failed (a certificate that does not
        // verify, say): no other address would do better.
        m_mgr.ReleaseFd(c);
        m_mgr.m_service.SetCloseInfo(c, CloseReason::kHandshakeFailed, k->GetLastErrno());
        if (k->GetStreamIo() != nullptr) {
            c->close_text = k->GetStreamIo()->LastError();
        }
        m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN, "dial %s: handshake failed: %s", c->url.c_str(),
                     c->close_text.c_str());
        OnDialFailed(c);
        return false;
    }
    if (status == CONNECTOR_STATUS_DISCONNECTED) {
        m_mgr.ReleaseFd(c);
        m_mgr.m_service.SetCloseInfo(c, CloseReason::kDialRefused, k->GetLastErrno());
        m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
        if (c->dial_next < c->dial_addrs.size()) {
            QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_INFO,
                         "dial %s: %s failed, errno=%d, trying the next address", c->url.c_str(), k->GetURL(),
                         k->GetLastErrno());
            TryNextAddress(c);  // a name's next address
            return false;
        }
        OnDialFailed(c);
        return false;
    }
    m_mgr.m_service.SetState(c, CONN_ESTABLISHED);
    c->was_established = true;
    c->attempt = 0;
    c->backoff_ms = 0;
    c->progress.Start(CEventLoop::NowMs());
    if (m_mgr.m_handler != nullptr) {
        CConnectorMgr::HandlerScope scope(m_mgr, c);
        m_mgr.m_handler->OnConnected(&m_mgr, c->id, c->url.c_str(), false);
    }
    return true;
}

void CDialler::Abandon(OwnedConn* c) {
    {
        auto lock = m_mgr.m_table.Lock();
        c->connector->Disconnect(nullptr);
    }
    m_mgr.ReleaseFd(c);
    m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
    OnDialFailed(c);
}

void CDialler::OnDialFailed(OwnedConn* c) {
    bool retry = c->dial->reconnect && !c->close_requested && !c->graceful && !m_mgr.m_stop.load() &&
                 !m_mgr.m_shutting_down && (c->dial->max_attempts <= 0 || c->attempt < c->dial->max_attempts);
    if (retry) {
        c->close_info_set = false;
        ScheduleRetry(c);
        return;
    }
    if (c->close_requested || c->graceful) {
        m_mgr.m_service.SetCloseInfo(c, CloseReason::kClosedLocally, 0);
    }
    m_mgr.m_service.SetCloseInfo(c, CloseReason::kDialRefused, 0);  // when nothing more precise was recorded
    ConnId id = c->id;
    CloseInfo info = c->close_info;
    info.text = c->close_text.empty() ? nullptr : c->close_text.c_str();
    m_mgr.DestroyConn(c);
    m_mgr.m_stats.CountClose(info);
    if (m_mgr.m_handler != nullptr) {
        CConnectorMgr::HandlerScope scope(m_mgr, c);  // in the graveyard until the tick ends
        m_mgr.m_handler->OnClosed(&m_mgr, id, info);
    }
}

void CDialler::ScheduleRetry(OwnedConn* c) {
    m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
    int delay = c->backoff_ms > 0 ? c->backoff_ms : std::max(1, c->dial->backoff_initial_ms);
    c->backoff_ms = std::min(delay * 2, std::max(delay, c->dial->backoff_max_ms));
    QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_INFO, "dial %s failed (attempt %d), retrying in %d ms",
                 c->url.c_str(), c->attempt, delay);
    ConnId id = c->id;
    c->timer_id = m_mgr.m_loop.AddTimer(delay, 0, [this, id]() {
        OwnedConn* conn = m_mgr.m_table.Find(id);
        if (conn == nullptr || conn->state != CONN_WAIT_RETRY || conn->dead) {
            return;
        }
        StartConnect(conn);
    });
}

}  // namespace QUOLNET
