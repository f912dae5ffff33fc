// CDialler: connect, connect timeout, redial with backoff.
#include "net/owner/dialler.h"

#include <errno.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>

#include "net/connector_mgr.h"
#include "net/owner/owner_log.h"

namespace QUOLNET {

namespace {

// The socket set-up of each attempt (CTcpConnector::ConnectWith): the dial's SocketOptions,
// in place of the connector's process-wide buffer sizes, and what failed.
struct DialSetup {
    const SocketOptions* options;
    SocketSetupError error;
};

int ApplyDialSetup(void* arg, int fd) {
    DialSetup* s = static_cast<DialSetup*>(arg);
    const SocketOptions& o = *s->options;
    bool ok = ApplyBufferSizes(fd, o, &s->error) == 0 && ApplyTcpOptions(fd, o, &s->error) == 0 &&
              BindSourceAddress(fd, o, &s->error) == 0 && RunSocketSetup(fd, o, &s->error) == 0;
    return ok ? 0 : -1;
}

}  // namespace

ConnId CDialler::Dial(const char* url, const DialOptions& options, ConnId id) {
    struct sockaddr_storage addr;
    socklen_t len = 0;
    std::string why;
    if (CTcpListener::ParseURL(url, &addr, &len, &why) != 0) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR, "invalid dial url(%s), %s",
                     url != nullptr ? url : "(null)", why.c_str());
        return 0;
    }
    // Port 0 asks a listener for a free port; nothing can be dialled there. Refused here with
    // one line rather than by the connector's set-up.
    const in_port_t port = addr.ss_family == AF_INET6
                               ? reinterpret_cast<const struct sockaddr_in6*>(&addr)->sin6_port
                               : reinterpret_cast<const struct sockaddr_in*>(&addr)->sin_port;
    if (port == 0) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR, "invalid dial url(%s), port 0 cannot be dialled",
                     url);
        return 0;
    }
    if (!options.socket.source_address.empty()) {
        struct sockaddr_storage source;
        socklen_t source_len = 0;
        if (ParseSourceAddress(options.socket.source_address, &source, &source_len, &why) != 0 ||
            source.ss_family != addr.ss_family) {
            QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR, "invalid source address '%s' for %s: %s",
                         options.socket.source_address.c_str(), url,
                         why.empty() ? "not of the peer's address family" : why.c_str());
            return 0;
        }
    }
    OwnedConn* c = m_mgr.NewConn(url);
    c->dial = std::make_shared<const DialOptions>(options);
    c->context = options.context;
    if (c->connector->Init(url, m_mgr.m_parser, m_mgr.GetEpollFd(), -1) != 0) {
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
    CTcpConnector* k = c->connector.get();
    c->timer_id = 0;
    c->close_info_set = false;
    ++c->attempt;
    int ret = 0;
    int err = 0;
    DialSetup setup = {&c->dial->socket, SocketSetupError()};
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
        OnDialFailed(c);
        return;
    }
    m_mgr.m_service.SetState(c, CONN_CONNECTING);
    if (k->GetStatus() == CONNECTOR_STATUS_CONNECTED) {
        // Completed at once; Update reports it on the first tick through the same path.
        m_mgr.Queue(c);
    }
    if (c->dial->connect_timeout_ms > 0) {
        ConnId id = c->id;
        int attempt = c->attempt;
        c->timer_id = m_mgr.m_loop.AddTimer(c->dial->connect_timeout_ms, 0,
                                            [this, id, attempt]() { OnConnectTimeout(id, attempt); });
    }
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
    if (status == CONNECTOR_STATUS_DISCONNECTED) {
        m_mgr.ReleaseFd(c);
        m_mgr.m_service.SetCloseInfo(c, CloseReason::kDialRefused, k->GetLastErrno());
        m_mgr.m_service.SetState(c, CONN_WAIT_RETRY);
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
