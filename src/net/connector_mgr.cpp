// CConnectorMgr: epoll loop, accepting, dialling, delivery, closing, timers and statistics.
#include "net/connector_mgr.h"
#include "net/connector_mgr_log.h"

#include <errno.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace QUOLNET {

// State of the default category's sink: the current second and what was written or dropped
// in it. Records may come from any thread (connectors log from senders), hence the mutex.
struct CConnectorMgr::LogLimiter {
    std::mutex mutex;
    int64_t second = 0;
    int lines = 0;
    uint64_t dropped = 0;

    static void Sink(const LogEntry& e, void* arg) {
        LogLimiter* self = static_cast<LogLimiter*>(arg);
        uint64_t dropped_before = 0;
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            int64_t now = NowMs() / 1000;
            if (now != self->second) {
                self->second = now;
                self->lines = 0;
            }
            if (self->lines >= kDefaultLogLinesPerSec) {
                ++self->dropped;
                return;
            }
            ++self->lines;
            dropped_before = self->dropped;
            self->dropped = 0;
        }
        char stamp[32];
        time_t t = time(nullptr);
        struct tm tm_buf;
        strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", localtime_r(&t, &tm_buf));
        if (dropped_before > 0) {
            fprintf(stderr, "%s WARN [%s] %llu log lines dropped (more than %d a second)\n", stamp,
                    e.category, static_cast<unsigned long long>(dropped_before), kDefaultLogLinesPerSec);
        }
        fprintf(stderr, "%s %s [%s] %s:%d %s: %s\n", stamp, log_priority_name(e.priority), e.category, e.file,
                e.line, e.function, e.text);
    }
};

CConnectorMgr::CConnectorMgr(IConnectorHandler* handler, const ConnectorMgrOptions& options)
    : m_handler(handler),
      m_options(options),
      m_epoll(-1),
      m_wake_fd(-1),
      m_wake_tag(0),
      m_pool(nullptr),
      m_parser(nullptr),
      m_accept_retry_timer(0),
      m_accept_pause_cnt(0),
      m_next_id(0),
      m_delivering(nullptr),
      m_next_timer_id(0),
      m_running_timer(0),
      m_running_cancelled(false),
      m_stop(false),
      m_stats_requested(false),
      m_next_stats_ms(0),
      m_pool_reserve(0),
      m_next_sweep_ms(0),
      m_last_shed_ms(0),
      m_too_large_cnt(0),
      m_pool_exhausted(false) {
    m_initialised = false;
    memset(m_last_err, 0, sizeof(m_last_err));
}

CConnectorMgr::~CConnectorMgr() {
    std::vector<Conn*> all;
    for (auto& kv : m_by_id) {
        all.push_back(kv.second);
    }
    std::sort(all.begin(), all.end(), [](const Conn* a, const Conn* b) { return a->id < b->id; });
    for (Conn* c : all) {
        ConnId id = c->id;
        if (c->connector->GetStatus() != CONNECTOR_STATUS_DISCONNECTED) {
            c->connector->Disconnect(nullptr);
        }
        ReleaseFd(c);
        DestroyConn(c);
        ++m_close_cnt[static_cast<int>(CloseReason::kClosedLocally)];
        if (m_handler != nullptr) {
            m_handler->OnClosed(this, id, CloseInfo());
        }
    }
    for (Conn* c : m_graveyard) {
        delete c;
    }
    m_graveyard.clear();
    for (auto& l : m_listeners) {
        l->Close();
    }
    if (m_wake_fd >= 0) {
        ::close(m_wake_fd);
    }
    if (m_epoll >= 0) {
        ::close(m_epoll);
    }
}

int64_t CConnectorMgr::NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int CConnectorMgr::Init() {
    if (m_initialised) {
        return 0;
    }
    if (m_options.log_cat == nullptr) {
        m_default_log.reset(new (std::nothrow) LogCategory("quolnet", LOG_PRIORITY_WARN));
        m_log_limiter.reset(new (std::nothrow) LogLimiter());
        if (m_default_log != nullptr && m_log_limiter != nullptr) {
            log_set_sink(m_default_log.get(), &LogLimiter::Sink, m_log_limiter.get());
        }
        m_options.log_cat = m_default_log.get();  // null when even that failed: no logging
    }
    if (m_options.max_packet_len < 16) {
        m_options.max_packet_len = 16;
    }
    if (m_options.raise_fd_limit) {
        RaiseFdLimit();
    }
    // Everything made here is undone on failure, so a later Init starts afresh.
    auto fail = [this](const char* what) {
        int err = errno;
        QN_MGR_LOG(LOG_PRIORITY_ERROR, "Init: %s failed, errno=%d", what, err);
        if (m_wake_fd >= 0) {
            ::close(m_wake_fd);
            m_wake_fd = -1;
        }
        if (m_epoll >= 0) {
            ::close(m_epoll);
            m_epoll = -1;
        }
        m_pool = nullptr;
        m_own_pool.reset();
        m_parser = nullptr;
        m_own_parser.reset();
        m_combine_buf.reset();
        m_cb_combine_buf.reset();
        errno = err;
        return -1;
    };
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    if (m_epoll < 0) {
        return fail("epoll_create1()");
    }
    m_wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_wake_fd < 0) {
        return fail("eventfd()");
    }
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = EPOLLIN;
    ev.data.ptr = &m_wake_tag;
    if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_wake_fd, &ev) != 0) {
        return fail("epoll_ctl(ADD eventfd)");
    }
    if (m_options.pool != nullptr) {
        m_pool = m_options.pool;
    } else {
        m_own_pool.reset(new (std::nothrow) CNetBufferMgr(m_options.pool_blocks));
        m_pool = m_own_pool.get();
    }
    if (m_options.parser != nullptr) {
        m_parser = m_options.parser;
    } else {
        // The parser accepts any length; the connector refuses one over max_packet_len (the
        // combine buffers' size) itself, so that the close is counted as that limit rather
        // than as a malformed header.
        m_own_parser.reset(new (std::nothrow) CLengthPrefixParser(0x7fffffffu));
        m_parser = m_own_parser.get();
    }
    m_combine_buf.reset(new (std::nothrow) char[m_options.max_packet_len]);
    m_cb_combine_buf.reset(new (std::nothrow) char[m_options.max_packet_len]);
    if (m_pool == nullptr || m_parser == nullptr || m_combine_buf == nullptr || m_cb_combine_buf == nullptr) {
        errno = ENOMEM;
        return fail("allocating the pool, the parser or the combine buffers");
    }
    try {
        m_events.resize(m_options.max_events > 0 ? m_options.max_events : 256);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return fail("allocating the event array");
    }
    m_pool_reserve =
        m_options.pool_reserve_blocks != 0 ? m_options.pool_reserve_blocks : m_pool->GetMaxBlockNum() / 8;
    if (m_options.stats_interval_sec > 0) {
        m_next_stats_ms = NowMs() + m_options.stats_interval_sec * 1000LL;
    }
    m_initialised = true;
    return 0;
}

bool CConnectorMgr::OnLoopThread() const {
    return m_loop_thread.load() == std::this_thread::get_id();
}

int CConnectorMgr::Listen(const char* url, int backlog) {
    std::unique_ptr<CTcpListener> l(new CTcpListener());
    int ret = l->Open(url, backlog, m_options.log_cat);
    if (ret != 0) {
        return ret;
    }
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = EPOLLIN;
    ev.data.ptr = l.get();
    if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, l->GetFd(), &ev) != 0) {
        QN_MGR_LOG(LOG_PRIORITY_ERROR, "epoll_ctl(ADD listener) failed, url=%s, errno=%d", url, errno);
        return -2;
    }
    int port = l->GetPort();
    m_listeners.push_back(std::move(l));
    m_listener_paused.push_back(false);
    return port;
}

std::string CConnectorMgr::GetListenURL(size_t i) const {
    return i < m_listeners.size() ? m_listeners[i]->GetURL() : std::string();
}

CConnectorMgr::Conn* CConnectorMgr::NewConn(const char* url) {
    Conn* c = new Conn();
    c->mgr = this;
    c->url = url;
    c->connector.reset(new CTcpConnector(
        m_combine_buf.get(), static_cast<int>(m_options.max_packet_len), m_cb_combine_buf.get(),
        static_cast<int>(m_options.max_packet_len), m_last_err, m_pool, m_options.max_send_blocks,
        m_options.max_recv_blocks, m_options.use_recv_callback ? &CConnectorMgr::RecvCallback : nullptr, c));
    c->connector->SetLogCat(m_options.log_cat);
    // The peer's end of stream stops reading only; replies are flushed before the close.
    c->connector->SetKeepWritingAfterPeerClose(true);
    return c;
}

int CConnectorMgr::AddConn(Conn* c) {
    std::unique_lock<std::shared_mutex> lock(m_conn_lock);
    c->id = ++m_next_id;
    m_by_id[c->id] = c;
    m_by_connector[c->connector.get()] = c;
    return 0;
}

ConnId CConnectorMgr::Dial(const char* url, const DialOptions& options) {
    struct sockaddr_storage addr;
    socklen_t len = 0;
    std::string why;
    if (CTcpListener::ParseURL(url, &addr, &len, &why) != 0) {
        QN_MGR_LOG(LOG_PRIORITY_ERROR, "invalid dial url(%s), %s", url != nullptr ? url : "(null)",
                   why.c_str());
        return 0;
    }
    Conn* c = NewConn(url);
    c->dial = options;
    if (c->connector->Init(url, m_parser, m_epoll, -1) != 0) {
        QN_MGR_LOG(LOG_PRIORITY_ERROR, "CTcpConnector::Init() failed, url=%s", url);
        delete c;
        return 0;
    }
    AddConn(c);
    ConnId id = c->id;
    StartConnect(c);
    return id;
}

void CConnectorMgr::StartConnect(Conn* c) {
    CTcpConnector* k = c->connector.get();
    c->timer_id = 0;
    c->close_info_set = false;
    ++c->attempt;
    int ret = 0;
    {
        std::unique_lock<std::shared_mutex> lock(m_conn_lock);
        ret = k->Connect();
        int fd = k->GetSocket();
        if (ret == 0) {
            k->SetCloseSocket(false);
            c->fd = fd;
        } else if (ret <= -4 && ret >= -8 && fd >= 0 && k->GetStatus() == CONNECTOR_STATUS_DISCONNECTED) {
            // These failures leave the new descriptor open in the connector; it is ours to close.
            ::close(fd);
        }
    }
    if (ret != 0) {
        int err = errno;
        QN_MGR_LOG(LOG_PRIORITY_WARN, "connect attempt %d to %s failed, ret=%d", c->attempt, c->url.c_str(),
                   ret);
        SetCloseInfo(c, CloseReason::kDialRefused, err);
        SetState(c, CONN_WAIT_RETRY);
        OnDialFailed(c);
        return;
    }
    SetState(c, CONN_CONNECTING);
    if (k->GetStatus() == CONNECTOR_STATUS_CONNECTED) {
        // Completed at once; Update reports it on the first tick through the same path.
        Queue(c);
    }
    if (c->dial.connect_timeout_ms > 0) {
        ConnId id = c->id;
        int attempt = c->attempt;
        c->timer_id = AddTimer(c->dial.connect_timeout_ms, 0, [this, id, attempt]() {
            auto it = m_by_id.find(id);
            if (it == m_by_id.end()) {
                return;
            }
            Conn* conn = it->second;
            if (conn->state != CONN_CONNECTING || conn->attempt != attempt) {
                return;
            }
            conn->timer_id = 0;
            QN_MGR_LOG(LOG_PRIORITY_WARN, "connect to %s timed out after %d ms", conn->url.c_str(),
                       conn->dial.connect_timeout_ms);
            {
                std::unique_lock<std::shared_mutex> lock(m_conn_lock);
                conn->connector->Disconnect(nullptr);
            }
            ReleaseFd(conn);
            SetCloseInfo(conn, CloseReason::kDialTimeout, ETIMEDOUT);
            SetState(conn, CONN_WAIT_RETRY);
            OnDialFailed(conn);
        });
    }
}

void CConnectorMgr::OnDialFailed(Conn* c) {
    bool retry = c->dial.reconnect && !c->close_requested && !c->graceful && !m_stop.load() &&
                 (c->dial.max_attempts <= 0 || c->attempt < c->dial.max_attempts);
    if (retry) {
        c->close_info_set = false;
        ScheduleRetry(c);
        return;
    }
    if (c->close_requested || c->graceful) {
        SetCloseInfo(c, CloseReason::kClosedLocally, 0);
    }
    SetCloseInfo(c, CloseReason::kDialRefused, 0);  // when nothing more precise was recorded
    ConnId id = c->id;
    CloseInfo info = c->close_info;
    DestroyConn(c);
    ++m_close_cnt[static_cast<int>(info.reason)];
    if (m_handler != nullptr) {
        m_handler->OnClosed(this, id, info);
    }
}

void CConnectorMgr::ScheduleRetry(Conn* c) {
    SetState(c, CONN_WAIT_RETRY);
    int delay = c->backoff_ms > 0 ? c->backoff_ms : std::max(1, c->dial.backoff_initial_ms);
    c->backoff_ms = std::min(delay * 2, std::max(delay, c->dial.backoff_max_ms));
    QN_MGR_LOG(LOG_PRIORITY_INFO, "dial %s failed (attempt %d), retrying in %d ms", c->url.c_str(),
               c->attempt, delay);
    ConnId id = c->id;
    c->timer_id = AddTimer(delay, 0, [this, id]() {
        auto it = m_by_id.find(id);
        if (it == m_by_id.end() || it->second->state != CONN_WAIT_RETRY || it->second->dead) {
            return;
        }
        StartConnect(it->second);
    });
}

void CConnectorMgr::Queue(Conn* c) {
    if (!c->in_work && !c->dead) {
        c->in_work = true;
        m_work.push_back(c);
    }
}

int CConnectorMgr::RecvCallback(const char* url, const char* data, int len, void* arg) {
    (void)url;
    Conn* c = static_cast<Conn*>(arg);
    CConnectorMgr* mgr = c->mgr;
    if (c->close_requested || c->graceful) {
        return 1;  // delivery has ended: the packet is dropped
    }
    // Keep arrival order: while packets wait in the ring, later ones queue behind them.
    if (c->refused || c->connector->GetPacketInfoCnt() > 0 || mgr->m_handler == nullptr) {
        return 0;
    }
    mgr->m_delivering = c;
    bool more = c->connector->GetUnframedLen() > 0;
    bool taken = mgr->m_handler->OnPacket(mgr, c->id, data, static_cast<unsigned int>(len), more);
    mgr->m_delivering = nullptr;
    if (taken) {
        return 1;
    }
    c->refused = true;
    return 0;
}

int CConnectorMgr::Deliver(Conn* c) {
    CTcpConnector* k = c->connector.get();
    c->refused = false;
    int n = 0;
    // Only framing adds packets, and it runs on this thread outside Deliver; so the count
    // taken once here only falls, by one per Drop, while the handler is offered packets.
    int left = k->GetPacketInfoCnt();
    while (!c->close_requested && !c->graceful && left > 0) {
        const char* buf = nullptr;
        unsigned int len = 0;
        int ret = k->Peek(&buf, len, nullptr);
        if (ret != 0) {
            QN_MGR_LOG(LOG_PRIORITY_ERROR, "Peek() failed, url=%s, ret=%d; closing", c->url.c_str(), ret);
            SetCloseInfo(c, CloseReason::kFramingError, ret);
            c->close_requested = true;
            break;
        }
        if (buf == nullptr) {
            break;
        }
        bool more = left > 1;
        m_delivering = c;
        bool taken = m_handler != nullptr && m_handler->OnPacket(this, c->id, buf, len, more);
        m_delivering = nullptr;
        if (!taken) {
            c->refused = true;
            break;
        }
        k->Drop();
        --left;
        ++n;
    }
    return n;
}

void CConnectorMgr::DropRing(Conn* c) {
    CTcpConnector* k = c->connector.get();
    for (int left = k->GetPacketInfoCnt(); left > 0; --left) {
        k->Drop();
    }
}

void CConnectorMgr::RetryBigWait(Conn* c) {
    CTcpConnector* k = c->connector.get();
    int ret = k->Recv();
    if (ret == CTcpConnector::kPeerClosed) {
        if (!k->IsPeerClosed()) {
            k->Disconnect(nullptr);
        }  // otherwise reading has stopped and the replies are flushed (ServiceEstablished)
    } else if (ret < 0) {
        QN_MGR_LOG(LOG_PRIORITY_ERROR, "Recv() failed, url=%s, ret=%d", c->url.c_str(), ret);
        k->Disconnect(nullptr);
    }
}

void CConnectorMgr::SetState(Conn* c, ConnState state) {
    c->state = state;
    switch (state) {
        case CONN_ESTABLISHED:
        case CONN_DRAINING:
            // After the peer's end of stream replies are still welcome; after Close not.
            c->gate = c->graceful || c->close_requested ? kGateClosing : kGateOpen;
            break;
        case CONN_LINGER:
        case CONN_CLOSING:
            c->gate = kGateClosing;
            break;
        default:
            c->gate = kGateClosed;
            break;
    }
}

// Every transition of a connection starts here; see the diagram in the header.
void CConnectorMgr::ServiceConn(Conn* c) {
    CTcpConnector* k = c->connector.get();
    if (c->dead) {
        return;
    }
    switch (c->state) {
        case CONN_WAIT_RETRY:
            if (c->close_requested || c->graceful) {
                OnDialFailed(c);  // reported as closed locally
            }
            return;
        case CONN_CLOSING:
            Deliver(c);
            if (c->close_requested || k->GetPacketInfoCnt() == 0) {
                FinishClose(c);
            } else if (c->refused) {
                m_pending.push_back(c);
            }
            return;
        case CONN_DRAINING:
        case CONN_LINGER:
            ServiceDraining(c);
            return;
        case CONN_CONNECTING:
            if (c->close_requested || c->graceful) {
                {
                    std::unique_lock<std::shared_mutex> lock(m_conn_lock);
                    k->Disconnect(nullptr);
                }
                ReleaseFd(c);
                SetState(c, CONN_WAIT_RETRY);
                OnDialFailed(c);
                return;
            }
            break;
        case CONN_ESTABLISHED:
            break;
    }

    if (k->GetStatus() == CONNECTOR_STATUS_CONNECTED && k->IsWaitAllocBigBuffer()) {
        RetryBigWait(c);
    }
    k->Update();
    if (c->state == CONN_CONNECTING) {
        int status = k->GetStatus();
        if (status == CONNECTOR_STATUS_CONNECTING) {
            return;
        }
        if (c->timer_id != 0) {
            CancelTimer(c->timer_id);
            c->timer_id = 0;
        }
        if (status == CONNECTOR_STATUS_DISCONNECTED) {
            ReleaseFd(c);
            SetCloseInfo(c, CloseReason::kDialRefused, k->GetLastErrno());
            SetState(c, CONN_WAIT_RETRY);
            OnDialFailed(c);
            return;
        }
        SetState(c, CONN_ESTABLISHED);
        c->was_established = true;
        c->attempt = 0;
        c->backoff_ms = 0;
        c->tx_progress_ms = c->rx_progress_ms = c->active_ms = NowMs();
        if (m_handler != nullptr) {
            m_handler->OnConnected(this, c->id, c->url.c_str(), false);
        }
    }
    ServiceEstablished(c);
}

// An established connection after its Update: offers what framing produced, and decides
// whether it closes, drains or pauses its reading.
void CConnectorMgr::ServiceEstablished(Conn* c) {
    CTcpConnector* k = c->connector.get();
    // Offer what framing produced; when reading stopped with bytes still to take (ring full,
    // no block, a big packet's next block), run the receive side again once packets are gone.
    bool round_limit = false;  // still making progress: come back next tick, do not pause
    for (int rounds = 0;; ++rounds) {
        int n = Deliver(c);
        if (c->refused || n == 0 || k->GetStatus() != CONNECTOR_STATUS_CONNECTED) {
            break;
        }
        if (rounds >= 16) {
            round_limit = true;
            m_pending.push_back(c);
            break;
        }
        if (k->IsWaitAllocBigBuffer()) {
            RetryBigWait(c);
        } else if (k->GetEvent() & EPOLLIN) {
            k->SetEvent(EPOLLIN);
            k->Update();
        } else {
            break;
        }
    }
    if (k->GetStatus() != CONNECTOR_STATUS_CONNECTED || c->close_requested || c->send_failed) {
        BeginClose(c);
        return;
    }
    if (c->graceful || k->IsPeerClosed()) {
        EnterDraining(c);
        return;
    }
    // EPOLLIN still set without the round limit means reading stopped before the socket ran
    // dry and cannot go on now (a full ring behind a refusing handler, no block, a big
    // packet's next block). The level-triggered wait would report those bytes on every tick
    // and spin, so EPOLLIN leaves the registration and the connection is retried from the
    // pending list instead; reading resumes once a read reaches would-block again.
    bool stalled = !round_limit && (k->GetEvent() & EPOLLIN) != 0;
    k->PauseReading(stalled);  // a failed change is applied with the next registration
    if (c->refused || k->IsWaitAllocBigBuffer() || stalled) {
        m_pending.push_back(c);
    }
}

void CConnectorMgr::EnterDraining(Conn* c) {
    if (c->graceful) {
        SetCloseInfo(c, CloseReason::kClosedLocally, 0);
        c->refused = false;
    } else {
        SetCloseInfo(c, CloseReason::kPeerClosed, 0);
    }
    if (c->tx_progress_ms == 0 || c->connector->GetSendQCount() == 0) {
        c->tx_progress_ms = NowMs();  // the flush's stall deadline counts from here
    }
    SetState(c, CONN_DRAINING);
    c->connector->PauseReading(false);  // a graceful close reads (and drops) to the end
    ServiceDraining(c);
}

// DRAINING: reading has stopped (the peer ended its stream) or is dropped (Close); what is
// queued is flushed by Update on writability, and once nothing is left the sending side is
// shut down. LINGER: after Close, the peer's bytes are read and dropped until its end of
// stream, so that closing the descriptor cannot turn into a reset that destroys what we
// sent. The flush is bounded by send_stall_ms and the linger by kLingerMs (both by Sweep).
void CConnectorMgr::ServiceDraining(Conn* c) {
    CTcpConnector* k = c->connector.get();
    if (!c->close_requested && !c->send_failed) {
        k->Update();
    }
    if (k->GetStatus() != CONNECTOR_STATUS_CONNECTED || c->close_requested || c->send_failed) {
        // A reset or an error now means replies were lost: that, not the drain's reason, is
        // what the application hears. A hang-up (both directions shut) is the drain's
        // ordinary end and keeps its reason.
        int ret = k->GetLastIoResult();
        bool benign = k->GetLastErrno() == 0 && (ret == 0 || ret == CTcpConnector::kPeerClosed);
        if (!c->close_requested && !benign) {
            c->close_info_set = false;
        }
        BeginClose(c);
        return;
    }
    if (c->graceful) {
        DropRing(c);
    } else {
        Deliver(c);
        if (c->refused) {
            m_pending.push_back(c);
        }
    }
    if (c->state == CONN_DRAINING) {
        bool ring_done = c->graceful || (k->GetPacketInfoCnt() == 0 && !c->refused);
        if (!ring_done || c->corked || k->GetSendQCount() != 0) {
            return;  // writability, the corked flush or the re-offer brings it back
        }
        ::shutdown(c->fd, SHUT_WR);
        if (k->IsPeerClosed()) {
            BeginClose(c);
            return;
        }
        SetState(c, CONN_LINGER);
        c->linger_until_ms = NowMs() + kLingerMs;
    }
    if (k->IsPeerClosed()) {
        BeginClose(c);
    }
}

void CConnectorMgr::BeginClose(Conn* c) {
    CTcpConnector* k = c->connector.get();
    if (c->close_requested && !c->graceful) {
        SetCloseInfo(c, CloseReason::kClosedLocally, 0);
    }
    SetCloseInfoFromConnector(c);
    if (k->GetStatus() != CONNECTOR_STATUS_DISCONNECTED) {
        k->Disconnect(nullptr);
    }
    ReleaseFd(c);
    if (c->timer_id != 0) {
        CancelTimer(c->timer_id);
        c->timer_id = 0;
    }
    SetState(c, CONN_CLOSING);
    Deliver(c);
    if (c->close_requested || c->graceful || k->GetPacketInfoCnt() == 0) {
        FinishClose(c);
    } else {
        m_pending.push_back(c);
    }
}

void CConnectorMgr::FinishClose(Conn* c) {
    bool reconnect =
        !c->accepted && c->dial.reconnect && !c->close_requested && !c->graceful && !m_stop.load();
    ConnId id = c->id;
    bool report = c->was_established || !reconnect;
    SetCloseInfoFromConnector(c);
    CloseInfo info = c->close_info;
    info.reconnecting = reconnect;
    ++m_close_cnt[static_cast<int>(info.reason)];
    if (info.reason == CloseReason::kLimit) {
        ++m_limit_cnt[static_cast<int>(info.limit)];
    }
    c->was_established = false;
    c->refused = false;
    c->send_failed = false;
    c->close_info_set = false;
    if (reconnect) {
        ScheduleRetry(c);
    } else {
        DestroyConn(c);
    }
    if (report && m_handler != nullptr) {
        m_handler->OnClosed(this, id, info);
    }
}

void CConnectorMgr::SetCloseInfo(Conn* c, CloseReason reason, int error, CloseLimit limit) {
    if (c->close_info_set) {
        return;
    }
    c->close_info_set = true;
    c->close_info = CloseInfo();
    c->close_info.reason = reason;
    c->close_info.error = error;
    c->close_info.limit = limit;
}

// Reads the cause the connector recorded when it disconnected (or when a write failed).
void CConnectorMgr::SetCloseInfoFromConnector(Conn* c) {
    if (c->close_info_set) {
        return;
    }
    CTcpConnector* k = c->connector.get();
    int ret = k->GetLastIoResult();
    int err = k->GetLastErrno();
    if (err == 0 && ret == 0 && c->send_failed) {
        err = k->GetLastWriteErrno();  // a Send of the application failed, not Update
    }
    if (err == ECONNRESET || err == EPIPE) {
        SetCloseInfo(c, CloseReason::kReset, err);
    } else if (err != 0) {
        SetCloseInfo(c, CloseReason::kIoError, err);
    } else if (ret == 0 || ret == CTcpConnector::kPeerClosed) {
        SetCloseInfo(c, CloseReason::kPeerClosed, 0);
    } else if (ret == CTcpConnector::kParseTooLong) {
        SetCloseInfo(c, CloseReason::kLimit, ret, CloseLimit::kPacketTooLong);
    } else if (ret == CTcpConnector::kParseOverRxCap) {
        SetCloseInfo(c, CloseReason::kLimit, ret, CloseLimit::kRecvBlocks);
    } else {
        SetCloseInfo(c, CloseReason::kFramingError, ret);
    }
}

void CConnectorMgr::ReleaseFd(Conn* c) {
    bool released = false;
    {
        std::unique_lock<std::shared_mutex> lock(m_conn_lock);
        if (c->fd >= 0) {
            ::close(c->fd);
            c->fd = -1;
            released = true;
        }
    }
    if (released) {
        ResumeListeners();
    }
}

void CConnectorMgr::DestroyConn(Conn* c) {
    if (c->dead) {
        return;
    }
    if (c->timer_id != 0) {
        CancelTimer(c->timer_id);
        c->timer_id = 0;
    }
    {
        std::unique_lock<std::shared_mutex> lock(m_conn_lock);
        m_by_id.erase(c->id);
        m_by_connector.erase(c->connector.get());
        c->connector->Fini();
    }
    c->dead = true;
    m_graveyard.push_back(c);
}

void CConnectorMgr::AcceptAll(size_t idx) {
    CTcpListener* l = m_listeners[idx].get();
    for (int i = 0; i < 256; ++i) {
        std::string peer;
        int fd = l->Accept(&peer);
        if (fd == CTcpListener::ACCEPT_WOULD_BLOCK) {
            return;
        }
        if (fd == CTcpListener::ACCEPT_FD_LIMIT) {
            PauseListener(idx);
            return;
        }
        if (fd < 0) {
            continue;
        }
        Conn* c = NewConn(peer.c_str());
        c->accepted = true;
        if (c->connector->Init(peer.c_str(), m_parser, m_epoll, fd) != 0) {
            QN_MGR_LOG(LOG_PRIORITY_ERROR,
                       "CTcpConnector::Init() failed for an accepted socket, url=%s, fd=%d", peer.c_str(),
                       fd);
            ::close(fd);
            delete c;
            continue;
        }
        c->connector->SetCloseSocket(false);
        c->fd = fd;
        SetState(c, CONN_ESTABLISHED);
        c->was_established = true;
        c->tx_progress_ms = c->rx_progress_ms = c->active_ms = NowMs();
        AddConn(c);
        if (m_handler != nullptr) {
            m_handler->OnConnected(this, c->id, c->url.c_str(), true);
        }
    }
}

void CConnectorMgr::PauseListener(size_t idx) {
    if (m_listener_paused[idx]) {
        return;
    }
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.data.ptr = m_listeners[idx].get();
    epoll_ctl(m_epoll, EPOLL_CTL_MOD, m_listeners[idx]->GetFd(), &ev);
    m_listener_paused[idx] = true;
    ++m_accept_pause_cnt;
    QN_MGR_LOG(LOG_PRIORITY_WARN, "accept paused, out of descriptors, url=%s, errno=%d",
               m_listeners[idx]->GetURL().c_str(), m_listeners[idx]->GetLastErrno());
    if (m_accept_retry_timer == 0) {
        m_accept_retry_timer = AddTimer(kAcceptRetryMs, 0, [this]() {
            m_accept_retry_timer = 0;
            ResumeListeners();
        });
    }
}

void CConnectorMgr::ResumeListeners() {
    for (size_t i = 0; i < m_listeners.size(); ++i) {
        if (!m_listener_paused[i]) {
            continue;
        }
        struct epoll_event ev;
        memset(&ev, 0, sizeof(ev));
        ev.events = EPOLLIN;
        ev.data.ptr = m_listeners[i].get();
        epoll_ctl(m_epoll, EPOLL_CTL_MOD, m_listeners[i]->GetFd(), &ev);
        m_listener_paused[i] = false;
        QN_MGR_LOG(LOG_PRIORITY_INFO, "accept resumed, url=%s", m_listeners[i]->GetURL().c_str());
    }
}

int CConnectorMgr::SendImpl(ConnId id, const char* buf, unsigned int len, bool corked) {
    if (buf == nullptr || len == 0) {
        return kSendBadArgs;
    }
    // The loop thread is the only one that adds or removes connections and closes
    // descriptors, so on it the map and the descriptor need no lock, and a reply to the
    // packet being offered (the common case) skips the lookup too. Other threads hold the
    // lock shared for the lookup and the whole connector call.
    const bool on_loop = OnLoopThread();
    std::shared_lock<std::shared_mutex> lock(m_conn_lock, std::defer_lock);
    if (!on_loop) {
        lock.lock();
    }
    Conn* c = on_loop ? m_delivering : nullptr;
    if (c == nullptr || c->id != id) {
        auto it = m_by_id.find(id);
        if (it == m_by_id.end()) {
            return kSendUnknownId;
        }
        c = it->second;
    }
    int gate = c->gate;
    if (gate != kGateOpen) {
        return gate == kGateClosed ? kSendNotConnected : kSendClosing;
    }
    CTcpConnector* k = c->connector.get();
    if (k->GetStatus() != CONNECTOR_STATUS_CONNECTED || c->fd < 0 || c->send_failed) {
        return kSendClosing;
    }
    // A packet over the queue limit, or over what the pool lends to senders, can never be
    // accepted: say so instead of "no room" for ever.
    uint64_t block = static_cast<uint64_t>(m_pool->GetBlockSize());
    uint64_t pool_room =
        static_cast<uint64_t>(m_pool->GetMaxBlockNum() - m_pool->GetMaxBlockNum() / 8) * block;
    if (len > static_cast<uint64_t>(m_options.max_send_blocks) * block || len > pool_room) {
        ++m_too_large_cnt;
        if (on_loop && !c->too_large_logged) {
            c->too_large_logged = true;
            QN_MGR_LOG(LOG_PRIORITY_WARN,
                       "send refused, packet of %u bytes can never fit the send queue (%u blocks), id=%llu, "
                       "url=%s",
                       len, m_options.max_send_blocks, static_cast<unsigned long long>(id), c->url.c_str());
        }
        return kSendTooLarge;
    }
    // A direct send behind replies corked in this tick would first have to flush them and
    // then write again; it joins them instead and leaves with the same flush.
    corked = corked || (on_loop && c->corked);
    int ret = corked ? k->SendToQ(buf, len, nullptr) : k->Send(buf, len, nullptr);
    if (ret < 0) {
        c->send_failed = true;
        if (on_loop) {
            Queue(c);
        } else {
            lock.unlock();
            Wake();  // the loop closes the connection
        }
        return kSendFailed;
    }
    if (ret == 0) {
        if (!c->want_room) {
            c->want_room = true;
            if (on_loop) {
                m_want_room.push_back(id);
            } else {
                std::lock_guard<std::mutex> room_lock(m_want_room_mutex);
                m_want_room_foreign.push_back(id);
            }
        }
        return kSendNoRoom;
    }
    if (on_loop && corked && !c->corked) {
        // Only the loop's own corked packets join its flush list; one queued by another
        // thread leaves when the socket reports writability (queueing onto an empty send
        // queue asks epoll for that).
        c->corked = true;
        m_corked.push_back(c);
    }
    return ret;
}

int CConnectorMgr::Send(ConnId id, const char* buf, unsigned int len) {
    return SendImpl(id, buf, len, false);
}

int CConnectorMgr::SendCorked(ConnId id, const char* buf, unsigned int len) {
    return SendImpl(id, buf, len, true);
}

void CConnectorMgr::CloseNow(ConnId id, bool graceful) {
    auto it = m_by_id.find(id);
    if (it == m_by_id.end()) {
        return;
    }
    Conn* c = it->second;
    if (graceful) {
        c->graceful = true;
    } else {
        c->close_requested = true;
    }
    SetState(c, c->state);  // nothing more is accepted from here on
    Queue(c);
}

void CConnectorMgr::Close(ConnId id) {
    if (OnLoopThread()) {
        CloseNow(id, true);
        return;
    }
    Post([this, id]() { CloseNow(id, true); });
}

void CConnectorMgr::Abort(ConnId id) {
    if (OnLoopThread()) {
        CloseNow(id, false);
        return;
    }
    Post([this, id]() { CloseNow(id, false); });
}

void CConnectorMgr::Post(std::function<void()> fn) {
    {
        std::lock_guard<std::mutex> lock(m_post_mutex);
        m_posted.push_back(std::move(fn));
    }
    Wake();
}

void CConnectorMgr::Wake() {
    if (m_wake_fd >= 0) {
        uint64_t one = 1;
        ssize_t r = write(m_wake_fd, &one, sizeof(one));
        (void)r;
    }
}

void CConnectorMgr::Stop() {
    m_stop.store(true);
    Wake();
}

void CConnectorMgr::RequestStats() {
    m_stats_requested.store(true);
    Wake();
}

uint64_t CConnectorMgr::AddTimer(int delay_ms, int interval_ms, std::function<void()> fn) {
    uint64_t id;
    {
        std::lock_guard<std::mutex> lock(m_timer_mutex);
        id = ++m_next_timer_id;
        Timer t;
        t.id = id;
        t.interval_ms = interval_ms;
        t.fn = std::move(fn);
        m_timers.emplace(NowMs() + std::max(0, delay_ms), std::move(t));
    }
    if (!OnLoopThread()) {
        Wake();
    }
    return id;
}

void CConnectorMgr::CancelTimer(uint64_t timer_id) {
    std::lock_guard<std::mutex> lock(m_timer_mutex);
    if (timer_id == m_running_timer) {
        m_running_cancelled = true;
    }
    for (auto it = m_timers.begin(); it != m_timers.end(); ++it) {
        if (it->second.id == timer_id) {
            m_timers.erase(it);
            return;
        }
    }
}

void CConnectorMgr::RunTimers() {
    int64_t now = NowMs();
    for (;;) {
        Timer t;
        {
            std::lock_guard<std::mutex> lock(m_timer_mutex);
            if (m_timers.empty() || m_timers.begin()->first > now) {
                return;
            }
            t = std::move(m_timers.begin()->second);
            m_timers.erase(m_timers.begin());
            m_running_timer = t.id;
            m_running_cancelled = false;
        }
        t.fn();
        std::lock_guard<std::mutex> lock(m_timer_mutex);
        if (t.interval_ms > 0 && !m_running_cancelled) {
            int64_t due = NowMs() + t.interval_ms;
            m_timers.emplace(due, std::move(t));
        }
        m_running_timer = 0;
    }
}

void CConnectorMgr::RunPosted() {
    std::vector<std::function<void()>> posted;
    {
        std::lock_guard<std::mutex> lock(m_post_mutex);
        posted.swap(m_posted);
    }
    for (auto& fn : posted) {
        fn();
    }
}

void CConnectorMgr::FlushCorked() {
    std::vector<Conn*> corked;
    corked.swap(m_corked);
    for (Conn* c : corked) {
        c->corked = false;
        if (c->dead || c->connector->GetStatus() != CONNECTOR_STATUS_CONNECTED) {
            continue;
        }
        int ret = c->connector->Send();
        if (ret < 0) {
            c->send_failed = true;
            Queue(c);
        } else if (c->state == CONN_DRAINING) {
            Queue(c);  // its flush may be complete now
        }
    }
}

void CConnectorMgr::DrainWork() {
    for (size_t i = 0; i < m_work.size(); ++i) {
        Conn* c = m_work[i];
        c->in_work = false;
        ServiceConn(c);
    }
    m_work.clear();
}

int CConnectorMgr::RunOnce(int timeout_ms) {
    m_loop_thread.store(std::this_thread::get_id());
    int64_t now = NowMs();
    int wait = timeout_ms;
    auto bound = [&wait](int64_t ms) {
        int v = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(ms, 1 << 30)));
        if (wait < 0 || v < wait) {
            wait = v;
        }
    };
    {
        std::lock_guard<std::mutex> lock(m_timer_mutex);
        if (!m_timers.empty()) {
            bound(m_timers.begin()->first - now);
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_post_mutex);
        if (!m_posted.empty()) {
            bound(0);
        }
    }
    if (!m_pending.empty()) {
        bound(kRefusedRetryMs);
    }
    if (!m_by_id.empty()) {
        bound(m_next_sweep_ms - now);
    }
    if (!m_want_room.empty()) {
        bound(10);  // room may come back from the pool, which raises no event
    }
    if (m_next_stats_ms > 0) {
        bound(m_next_stats_ms - now);
    }
    if (m_stop.load() || m_stats_requested.load()) {
        bound(0);
    }

    int n = epoll_wait(m_epoll, m_events.data(), static_cast<int>(m_events.size()), wait);
    if (n < 0) {
        if (errno != EINTR) {
            QN_MGR_LOG(LOG_PRIORITY_ERROR, "epoll_wait() failed, errno=%d", errno);
            return -1;
        }
        n = 0;
    }
    std::vector<size_t> readable;
    for (int i = 0; i < n; ++i) {
        void* ptr = m_events[i].data.ptr;
        if (ptr == &m_wake_tag) {
            uint64_t v;
            ssize_t r = read(m_wake_fd, &v, sizeof(v));
            (void)r;
            continue;
        }
        bool is_listener = false;
        for (size_t j = 0; j < m_listeners.size(); ++j) {
            if (m_listeners[j].get() == ptr) {
                readable.push_back(j);
                is_listener = true;
                break;
            }
        }
        if (is_listener) {
            continue;
        }
        auto it = m_by_connector.find(static_cast<CTcpConnector*>(ptr));
        if (it != m_by_connector.end()) {
            it->second->connector->SetEvent(m_events[i].events);
            Queue(it->second);
        }
    }
    std::vector<Conn*> pending;
    pending.swap(m_pending);
    for (Conn* c : pending) {
        Queue(c);
    }
    RunPosted();
    DrainWork();
    for (size_t idx : readable) {
        if (!m_listener_paused[idx]) {
            AcceptAll(idx);
        }
    }
    FlushCorked();
    DrainWork();
    RunTimers();
    DrainWork();
    if (m_handler != nullptr) {
        m_handler->OnTick(this);
    }
    RunPosted();
    DrainWork();
    FlushCorked();
    DrainWork();

    now = NowMs();
    Sweep(now);
    WatchPool();
    RelievePressure(now);
    DrainWork();
    NotifyRoom();
    DrainWork();
    FlushCorked();
    DrainWork();

    bool periodic = m_next_stats_ms > 0 && now >= m_next_stats_ms;
    if (periodic) {
        m_next_stats_ms = now + m_options.stats_interval_sec * 1000LL;
    }
    if (periodic || m_stats_requested.exchange(false)) {
        PrintStats(m_options.stats_out != nullptr ? m_options.stats_out : stdout);
    }

    if (!m_graveyard.empty()) {
        m_pending.erase(std::remove_if(m_pending.begin(), m_pending.end(), [](Conn* c) { return c->dead; }),
                        m_pending.end());
        for (Conn* c : m_graveyard) {
            delete c;
        }
        m_graveyard.clear();
    }
    // A connection may be listed twice when several paths carried it over.
    std::sort(m_pending.begin(), m_pending.end());
    m_pending.erase(std::unique(m_pending.begin(), m_pending.end()), m_pending.end());
    return n;
}

int CConnectorMgr::Run() {
    while (!m_stop.load()) {
        if (RunOnce(1000) < 0) {
            return -1;
        }
    }
    return 0;
}

std::string CConnectorMgr::FormatStats(bool full) {
    std::vector<Conn*> all;
    all.reserve(m_by_id.size());
    for (auto& kv : m_by_id) {
        all.push_back(kv.second);
    }
    std::sort(all.begin(), all.end(), [](const Conn* a, const Conn* b) { return a->id < b->id; });
    char line[512];
    std::string out;
    snprintf(line, sizeof(line), "connections: %zu, pool blocks in use: %u (peak %u) of %u, free %u\n",
             all.size(), m_pool != nullptr ? m_pool->GetUsedCount() : 0u,
             m_pool != nullptr ? m_pool->GetPeakUsedCount() : 0u,
             m_pool != nullptr ? m_pool->GetMaxBlockNum() : 0u, m_pool != nullptr ? PoolFree() : 0u);
    out += line;
    out += "closed:";
    for (int i = 0; i < kCloseReasonCount; ++i) {
        snprintf(line, sizeof(line), " %s %llu", CloseReasonName(static_cast<CloseReason>(i)),
                 static_cast<unsigned long long>(m_close_cnt[i]));
        out += line;
    }
    out += "; limits:";
    for (int i = 1; i < kCloseLimitCount; ++i) {
        snprintf(line, sizeof(line), " %s %llu", CloseLimitName(static_cast<CloseLimit>(i)),
                 static_cast<unsigned long long>(m_limit_cnt[i]));
        out += line;
    }
    snprintf(line, sizeof(line), "; sends too large %llu; pool exhausted %llu; accept pauses %d\n",
             static_cast<unsigned long long>(m_too_large_cnt.load()),
             static_cast<unsigned long long>(m_pool_exhausted_cnt), static_cast<int>(m_accept_pause_cnt));
    out += line;
    bool summary = !full && all.size() > kStatsFullRows;
    if (summary) {
        // Totals over every connection, then only the ten that hold the most blocks.
        int64_t sent = 0;
        int64_t received = 0;
        uint64_t send_blocks = 0;
        uint64_t recv_blocks = 0;
        size_t established = 0;
        for (Conn* c : all) {
            CTcpConnector* k = c->connector.get();
            sent += k->GetSentBytes();
            received += k->GetRecvBytes();
            send_blocks += static_cast<uint64_t>(k->GetSendQCount());
            recv_blocks += static_cast<uint64_t>(k->GetRecvQCount());
            established += c->state == CONN_ESTABLISHED ? 1 : 0;
        }
        snprintf(line, sizeof(line),
                 "totals: %zu established, bytes sent %lld, received %lld; blocks held for sending %llu, "
                 "receiving %llu\n",
                 established, static_cast<long long>(sent), static_cast<long long>(received),
                 static_cast<unsigned long long>(send_blocks), static_cast<unsigned long long>(recv_blocks));
        out += line;
        auto held = [](const Conn* c) {
            return c->connector->GetSendQCount() + c->connector->GetRecvQCount();
        };
        size_t top = std::min<size_t>(10, all.size());
        std::partial_sort(all.begin(), all.begin() + top, all.end(), [&held](const Conn* a, const Conn* b) {
            return held(a) != held(b) ? held(a) > held(b) : a->id < b->id;
        });
        all.resize(top);
        snprintf(line, sizeof(line), "top %zu connections by blocks held (FormatStats(true) lists all):\n",
                 top);
        out += line;
    }
    snprintf(line, sizeof(line), "\t\t%-10s%-30s%-30s%-8s%-8s%-8s%-8s%-8s%-8s%-8s%-8s%-30s\n", "accepted",
             "url", "local_url", "ring_mx", "ring_av", "txw_mx", "txw_av", "tx_full", "rxw_mx", "rxw_av",
             "rx_full", "tx_pkts|rx_pkts");
    out += line;
    for (Conn* c : all) {
        int len = c->connector->PrintStat(line, sizeof(line));
        if (len > 0) {
            out += line;
            if (len >= static_cast<int>(sizeof(line))) {
                out += "\n";
            }
        }
    }
    return out;
}

void CConnectorMgr::PrintStats(FILE* out, bool full) {
    std::string text = FormatStats(full);
    fputs(text.c_str(), out);
    fflush(out);
}

bool CConnectorMgr::IsConnected(ConnId id) {
    std::shared_lock<std::shared_mutex> lock(m_conn_lock);
    auto it = m_by_id.find(id);
    return it != m_by_id.end() && it->second->connector->GetStatus() == CONNECTOR_STATUS_CONNECTED &&
           it->second->fd >= 0;
}

size_t CConnectorMgr::GetConnectionCount() {
    std::shared_lock<std::shared_mutex> lock(m_conn_lock);
    return m_by_id.size();
}

CTcpConnector* CConnectorMgr::GetConnector(ConnId id) {
    auto it = m_by_id.find(id);
    return it == m_by_id.end() ? nullptr : it->second->connector.get();
}

}  // namespace QUOLNET
