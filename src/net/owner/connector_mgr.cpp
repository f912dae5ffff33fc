// CConnectorMgr: the facade over one loop's parts; set-up, the tick, sending and closing by
// id, and the registry of connections (adding, releasing descriptors, destroying).
#include "net/connector_mgr.h"
#include "net/connector_group.h"

#include <errno.h>
#include <unistd.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>

#include "net/owner/owner_log.h"
#include "net/owner/process_handover.h"

namespace QUOLNET {

// State of the default category's sink: the current second and what was written or dropped
// in it. Records may come from any thread (connectors log from senders), hence the mutex.
struct CConnectorMgr::LogLimiter {
    std::mutex mutex;
    int64_t second = 0;
    int lines = 0;
    uint64_t dropped = 0;
    std::atomic<bool> has_dropped{false};  // dropped > 0; read by the loop without the mutex

    static void Stamp(char* out, size_t len) {
        time_t t = time(nullptr);
        struct tm tm_buf;
        strftime(out, len, "%Y-%m-%d %H:%M:%S", localtime_r(&t, &tm_buf));
    }
    static void WriteDropped(const char* category, uint64_t count) {
        char stamp[32];
        Stamp(stamp, sizeof(stamp));
        fprintf(stderr, "%s WARN [%s] %llu log lines dropped (more than %d a second)\n", stamp, category,
                static_cast<unsigned long long>(count), kDefaultLogLinesPerSec);
    }

    // Says how many lines were dropped once their second is over (or at once with `now`
    // true), so that a storm that ends is still counted when nothing else is logged after it.
    void FlushDropped(const char* category, bool now) {
        uint64_t count = 0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (dropped == 0 || (!now && CEventLoop::NowMs() / 1000 == second)) {
                return;
            }
            count = dropped;
            dropped = 0;
            has_dropped.store(false, std::memory_order_relaxed);
        }
        WriteDropped(category, count);
    }

    static void Sink(const LogEntry& e, void* arg) {
        LogLimiter* self = static_cast<LogLimiter*>(arg);
        uint64_t dropped_before = 0;
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            int64_t now = CEventLoop::NowMs() / 1000;
            if (now != self->second) {
                self->second = now;
                self->lines = 0;
            }
            if (self->lines >= kDefaultLogLinesPerSec) {
                ++self->dropped;
                self->has_dropped.store(true, std::memory_order_relaxed);
                return;
            }
            ++self->lines;
            dropped_before = self->dropped;
            self->dropped = 0;
            self->has_dropped.store(false, std::memory_order_relaxed);
        }
        if (dropped_before > 0) {
            WriteDropped(e.category, dropped_before);
        }
        char stamp[32];
        Stamp(stamp, sizeof(stamp));
        fprintf(stderr, "%s %s [%s] %s:%d %s: %s\n", stamp, log_priority_name(e.priority), e.category, e.file,
                e.line, e.function, e.text);
    }
};

CConnectorMgr::CConnectorMgr(IConnectorHandler* handler, const ConnectorMgrOptions& options)
    : m_handler(handler),
      m_options(options),
      m_pool(nullptr),
      m_parser(nullptr),
      m_send_check(nullptr),
      m_initialised(false),
      m_acceptor(m_loop),
      m_dialler(*this),
      m_service(*this),
      m_limits(*this),
      m_admission(*this),
      m_delivering(nullptr),
      m_stop(false),
      m_stats_requested(false),
      m_next_stats_ms(0),
      m_group(nullptr),
      m_loop_index(0),
      m_reuse_port(false) {
    memset(m_last_err, 0, sizeof(m_last_err));
    m_acceptor.SetAdopt(
        [this](int fd, const std::string& peer, const std::shared_ptr<IStreamIoFactory>& stream) {
            AdoptAccepted(fd, peer, stream);
        });
    m_acceptor.SetGate(&m_admission);
    m_acceptor.SetOnRefused([this]() { m_stats.CountRefused(AcceptRefusal::kSocketSetup); });
}

CConnectorMgr::~CConnectorMgr() {
    m_dialler.StopResolver();  // no lookup result is posted from here on
    for (OwnedConn* c : m_table.SortedById()) {
        ConnId id = c->id;
        if (c->connector->GetStatus() != CONNECTOR_STATUS_DISCONNECTED) {
            c->connector->Disconnect(nullptr);
        }
        ReleaseFd(c);
        DestroyConn(c);
        m_stats.CountClose(CloseInfo());
        if (m_handler != nullptr) {
            HandlerScope scope(*this, c);  // in the graveyard: alive until the loop below
            m_handler->OnClosed(this, id, CloseInfo());
        }
    }
    for (OwnedConn* c : m_graveyard) {
        delete c;
    }
    m_graveyard.clear();
    m_acceptor.CloseAll();
    m_loop.Close();
    FlushDroppedLog(true);
}

void CConnectorMgr::FlushDroppedLog(bool now) {
    if (m_log_limiter != nullptr && m_log_limiter->has_dropped.load(std::memory_order_relaxed)) {
        m_log_limiter->FlushDropped(m_default_log->m_name, now);
    }
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
        CAcceptor::RaiseFdLimit(LogCat());
    }
    m_acceptor.SetLogCat(LogCat());
    m_admission.Init();  // after the raise: the derived limit reads the soft descriptor limit
    if (InitResources() != 0) {
        return -1;
    }
    m_limits.Init(m_options.pool_reserve_blocks != 0 ? m_options.pool_reserve_blocks
                                                     : m_pool->GetMaxBlockNum() / 8);
    uint64_t block = static_cast<uint64_t>(m_pool->GetBlockSize());
    m_send_len_limit =
        std::min(static_cast<uint64_t>(m_options.max_send_blocks) * block,
                 static_cast<uint64_t>(m_pool->GetMaxBlockNum() - m_pool->GetMaxBlockNum() / 8) * block);
    if (m_options.stats_interval_sec > 0) {
        m_next_stats_ms = CEventLoop::NowMs() + m_options.stats_interval_sec * 1000LL;
    }
    m_initialised = true;
    return 0;
}

// The loop's descriptors, the pool, the parser and the combine buffers. Everything made here
// is undone on failure, so a later Init starts afresh.
int CConnectorMgr::InitResources() {
    const char* what = nullptr;
    if (m_loop.Open(m_options.max_events, &what) != 0) {
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_ERROR, "Init: %s failed, errno=%d", what, errno);
        return -1;
    }
    if (ChooseIoBackend() != 0) {
        return -1;
    }
    if (m_options.pool != nullptr) {
        m_pool = m_options.pool;
    } else {
        m_own_pool.reset(new (std::nothrow) CNetBufferMgr(m_options.pool_blocks, -1, 1 << 20,
                                                          SendReserveFor(m_options.pool_blocks)));
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
    // Sends are checked against the framing when the application names an outgoing
    // parser, or when the framing is the manager's own length prefix (requests and replies
    // then share it); a custom receive parser alone says nothing about replies.
    m_send_check = m_options.send_parser != nullptr ? m_options.send_parser
                   : m_options.parser == nullptr    ? m_parser
                                                    : nullptr;
    m_combine_buf.reset(new (std::nothrow) char[m_options.max_packet_len]);
    m_cb_combine_buf.reset(new (std::nothrow) char[m_options.max_packet_len]);
    if (m_pool == nullptr || m_parser == nullptr || m_combine_buf == nullptr || m_cb_combine_buf == nullptr) {
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_ERROR,
                     "Init: allocating the pool, the parser or the combine buffers failed, errno=%d", ENOMEM);
        m_loop.Close();
        m_pool = nullptr;
        m_own_pool.reset();
        m_parser = nullptr;
        m_own_parser.reset();
        m_send_check = nullptr;
        m_combine_buf.reset();
        m_cb_combine_buf.reset();
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int CConnectorMgr::Listen(const char* url, int backlog) {
    return m_acceptor.Listen(url, backlog, m_reuse_port);
}

int CConnectorMgr::Listen(const char* url, const SocketOptions& socket, int backlog) {
    if (socket.stream != nullptr) {
        m_stream_layers_used = true;  // new connections' work is metered from now on
    }
    return m_acceptor.Listen(url, backlog, m_reuse_port, socket);
}

std::string CConnectorMgr::GetListenURL(size_t i) const {
    return m_acceptor.GetListenURL(i);
}

ConnId CConnectorMgr::Dial(const char* url, const DialOptions& options) {
    return m_dialler.Dial(url, options, 0);
}

int CConnectorMgr::ChooseIoBackend() {
    IoBackend backend = m_options.io_backend;
    if (backend == IoBackend::kDefault) {
        const char* env = getenv("QUOLNET_IO_BACKEND");
        std::string name = env != nullptr ? env : "";
        backend = name == "io_uring" ? IoBackend::kIoUring
                  : name == "auto"   ? IoBackend::kAuto
                                     : IoBackend::kEpoll;
        if (!name.empty() && name != "io_uring" && name != "auto" && name != "epoll") {
            QN_OWNER_LOG(LogCat(), LOG_PRIORITY_WARN,
                         "QUOLNET_IO_BACKEND=%s is none of epoll, io_uring, auto: using epoll", name.c_str());
        }
    }
    if (backend == IoBackend::kEpoll) {
        return 0;
    }
    std::string why;
    if (m_loop.UseIoUring(&why) == 0) {
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_INFO, "io back end: io_uring");
        return 0;
    }
    if (backend == IoBackend::kIoUring) {
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_ERROR, "Init: the io_uring back end is unavailable: %s",
                     why.c_str());
        return -1;
    }
    static std::atomic<bool> told{false};  // once per process, however many loops
    if (!told.exchange(true)) {
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_WARN, "io_uring unavailable (%s): using epoll", why.c_str());
    }
    return 0;
}

OwnedConn* CConnectorMgr::NewConn(const char* url) {
    OwnedConn* c = new OwnedConn();
    c->mgr = this;
    c->url = url;
    c->connector.reset(new CTcpConnector(
        m_combine_buf.get(), static_cast<int>(m_options.max_packet_len), m_cb_combine_buf.get(),
        static_cast<int>(m_options.max_packet_len), m_last_err, m_pool, m_options.max_send_blocks,
        m_options.max_recv_blocks, m_options.use_recv_callback ? &CConnService::RecvCallback : nullptr, c));
    c->connector->SetLogCat(m_options.connector_log_cat);
    // The peer's end of stream stops reading only; replies are flushed before the close.
    c->connector->SetKeepWritingAfterPeerClose(true);
    // The loop thread both reads and consumes (connectors are handed out on the loop thread
    // only), so the receive side needs no lock.
    c->connector->SetSingleThreadRecv(true);
    c->connector->SetPoller(&m_loop.Poller());  // the loop's way of watching sockets
    return c;
}

void CConnectorMgr::AdoptAccepted(int fd, const std::string& peer,
                                  const std::shared_ptr<IStreamIoFactory>& stream) {
    if (!m_admission.AdmitSource(peer)) {
        ::close(fd);  // over max_connections_per_source: counted and logged by the admission
        return;
    }
    OwnedConn* c = NewConn(peer.c_str());
    c->accepted = true;
    if (stream != nullptr) {
        std::unique_ptr<IStreamIo> io = stream->Create(true, std::string());
        if (io == nullptr) {
            QN_OWNER_LOG(LogCat(), LOG_PRIORITY_ERROR, "the stream layer refused an accepted socket, url=%s",
                         peer.c_str());
            ::close(fd);
            m_admission.SourceReleased(peer);
            delete c;
            m_stats.CountRefused(AcceptRefusal::kSocketSetup);
            return;
        }
        c->connector->SetStreamIo(std::move(io));
        m_stream_layers_used = true;
    }
    int init = CTcpListener::IsUnixURL(peer.c_str())
                   ? c->connector->InitUnix(peer.c_str(), m_parser, GetEpollFd(), fd)
                   : c->connector->Init(peer.c_str(), m_parser, GetEpollFd(), fd);
    if (init != 0) {
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_ERROR,
                     "CTcpConnector::Init() failed for an accepted socket, url=%s, fd=%d", peer.c_str(), fd);
        ::close(fd);
        m_admission.SourceReleased(peer);
        delete c;
        return;
    }
    c->connector->SetCloseSocket(false);
    c->fd = fd;
    c->progress.Start(CEventLoop::NowMs());
    if (c->connector->IsHandshaking()) {
        // Not the application's yet: it hears of the connection once the handshake is done.
        m_service.SetState(c, CONN_HANDSHAKE);
        if (m_options.handshake_timeout_ms > 0) {
            c->handshake_deadline_ms = CEventLoop::NowMs() + m_options.handshake_timeout_ms;
        }
        m_table.Add(c);
        return;
    }
    m_service.SetState(c, CONN_ESTABLISHED);
    c->was_established = true;
    m_table.Add(c);
    if (m_handler != nullptr) {
        HandlerScope scope(*this, c);
        m_handler->OnConnected(this, c->id, c->url.c_str(), true);
    }
}

void CConnectorMgr::Queue(OwnedConn* c) {
    if (!c->in_work && !c->dead) {
        c->in_work = true;
        m_work.push_back(c);
    }
}

void CConnectorMgr::ReleaseFd(OwnedConn* c) {
    bool released = false;
    {
        auto lock = m_table.Lock();
        if (c->fd >= 0) {
            ::close(c->fd);
            c->fd = -1;
            released = true;
        }
    }
    if (released) {
        if (c->accepted) {
            m_admission.SourceReleased(c->url);  // counted per source from AdoptAccepted on
        }
        m_acceptor.Resume();
    }
}

void CConnectorMgr::DestroyConn(OwnedConn* c) {
    if (c->dead) {
        return;
    }
    if (c->timer_id != 0) {
        m_loop.CancelTimer(c->timer_id);
        c->timer_id = 0;
    }
    {
        auto lock = m_table.Lock();
        m_table.RemoveLocked(c);
        c->connector->Fini();
    }
    c->dead = true;
    m_graveyard.push_back(c);
    if (m_group != nullptr) {
        m_group->Forget(c->id);
    }
}

void CConnectorMgr::CloseNow(ConnId id, bool graceful) {
    OwnedConn* c = m_table.Find(id);
    if (c == nullptr) {
        if (m_group != nullptr) {
            m_group->CloseRouted(id, graceful, m_loop_index);  // it moved to another loop
        }
        return;
    }
    if (graceful) {
        c->graceful = true;
    } else {
        c->close_requested = true;
    }
    m_service.SetState(c, c->state);  // nothing more is accepted from here on
    Queue(c);
}

void CConnectorMgr::JoinGroup(CConnectorGroup* group, int index) {
    m_group = group;
    m_loop_index = index;
    m_table.SetIdBase(static_cast<ConnId>(index) << CConnectorGroup::kLoopShift);
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

void CConnectorMgr::SetPausedNow(ConnId id, bool paused) {
    OwnedConn* c = m_table.Find(id);
    if (c == nullptr) {
        if (m_group != nullptr) {
            m_group->PauseRouted(id, paused, m_loop_index);  // it moved to another loop
        }
        return;
    }
    if (c->dead || c->app_paused == paused) {
        return;
    }
    c->app_paused = paused;
    c->paused_for_room = false;
    if (c->fd >= 0) {
        // A failed change is applied with the next change of the registration.
        c->connector->PauseReading(paused);
    }
    if (!paused) {
        // Bytes may wait in the socket since the pause, and packets in the ring: read and
        // offer at once (a read that finds nothing just meets would-block).
        c->refused = false;
        c->connector->SetEvent(EPOLLIN);
        Queue(c);
    }
}

void CConnectorMgr::PauseReading(ConnId id) {
    if (OnLoopThread()) {
        SetPausedNow(id, true);
        return;
    }
    Post([this, id]() { SetPausedNow(id, true); });
}

void CConnectorMgr::ResumeReading(ConnId id) {
    if (OnLoopThread()) {
        SetPausedNow(id, false);
        return;
    }
    Post([this, id]() { SetPausedNow(id, false); });
}

bool CConnectorMgr::AdjustHold(ConnId id, int delta, bool routed) {
    const bool on_loop = OnLoopThread();
    auto lock = m_table.LockShared(!on_loop);
    OwnedConn* c = m_table.Find(id);
    if (c == nullptr) {
        if (m_group == nullptr || routed) {
            return false;
        }
        if (lock.owns_lock()) {
            lock.unlock();
        }
        return m_group->HoldRouted(id, delta);  // served by another loop
    }
    if (delta > 0) {
        if (c->gate != kGateOpen) {
            return false;  // it no longer accepts replies: nothing to hold open for
        }
        c->holds.fetch_add(1);
        return true;
    }
    int left = c->holds.fetch_sub(1) - 1;
    if (left < 0) {
        c->holds.fetch_add(1);  // an unmatched release: ignored rather than counted below 0
        return false;
    }
    if (left == 0) {
        Recheck(c, on_loop);  // a drain may have waited for this reply
    }
    return true;
}

bool CConnectorMgr::HoldOpen(ConnId id) {
    return AdjustHold(id, 1, false);
}

void CConnectorMgr::ReleaseHold(ConnId id) {
    AdjustHold(id, -1, false);
}

void CConnectorMgr::Recheck(OwnedConn* c, bool on_loop) {
    if (!c->draining.load()) {
        return;
    }
    if (on_loop) {
        Queue(c);
        return;
    }
    if (c->recheck.exchange(true)) {
        return;  // already asked for; the loop clears the mark before it looks
    }
    {
        std::lock_guard<std::mutex> lock(m_recheck_mutex);
        m_recheck_foreign.push_back(c->id);
    }
    m_loop.Wake();
}

void CConnectorMgr::TakeRechecks() {
    std::vector<ConnId> ids;
    {
        std::lock_guard<std::mutex> lock(m_recheck_mutex);
        if (m_recheck_foreign.empty()) {
            return;
        }
        ids.swap(m_recheck_foreign);
    }
    for (ConnId id : ids) {
        OwnedConn* c = m_table.Find(id);
        if (c != nullptr) {
            c->recheck.store(false);  // before the look, so a later finish asks again
            Queue(c);
        }
    }
}

void CConnectorMgr::Post(std::function<void()> fn) {
    m_loop.Post(std::move(fn));
}

void CConnectorMgr::Stop() {
    m_stop.store(true);
    m_loop.Wake();
}

void CConnectorMgr::StopListening() {
    m_acceptor.CloseAll();
}

std::vector<ConnId> CConnectorMgr::ListConnections() {
    std::vector<ConnId> ids;
    auto lock = m_table.LockShared(!OnLoopThread());
    ids.reserve(m_table.Size());
    for (auto& kv : m_table.ById()) {
        if (kv.second->accepted && kv.second->gate == kGateClosed) {
            continue;  // a handshake under way: not the application's yet
        }
        ids.push_back(kv.first);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

void CConnectorMgr::Shutdown(int timeout_ms) {
    int expected = -1;
    m_shutdown_requested_ms.compare_exchange_strong(expected, timeout_ms < 0 ? 0 : timeout_ms);
    m_loop.Wake();
}

void CConnectorMgr::RequestStats() {
    m_stats_requested.store(true);
    m_loop.Wake();
}

uint64_t CConnectorMgr::AddTimer(int delay_ms, int interval_ms, std::function<void()> fn) {
    return m_loop.AddTimer(delay_ms, interval_ms, std::move(fn));
}

void CConnectorMgr::CancelTimer(uint64_t timer_id) {
    m_loop.CancelTimer(timer_id);
}

std::string CConnectorMgr::FormatStats(bool full) {
    return m_stats.Format(m_table, m_pool, m_pool != nullptr ? m_limits.PoolFree() : 0u,
                          GetAcceptPauseCount(), full, GetLimitPauseCount());
}

void CConnectorMgr::PrintStats(FILE* out, bool full) {
    std::string text = FormatStats(full);
    fputs(text.c_str(), out);
    fflush(out);
}

void CConnectorMgr::SnapshotMetrics(MgrMetrics* out) {
    *out = MgrMetrics();
    m_stats.Snapshot(m_table, out);
    out->connections = m_table.Size();
    out->max_connections = GetMaxConnections();
    out->accepts = GetAcceptCount();
    out->accept_pauses_fd = static_cast<uint64_t>(std::max(0, GetAcceptPauseCount()));
    out->accept_pauses_limit = GetLimitPauseCount();
    if (m_pool != nullptr) {
        out->pool_id = m_pool;
        out->pool_in_use = m_pool->GetUsedCount();
        out->pool_max = m_pool->GetMaxBlockNum();
        out->pool_free = out->pool_in_use < out->pool_max ? out->pool_max - out->pool_in_use : 0;
        out->pool_peak = m_pool->GetPeakUsedCount();
    }
}

std::string CConnectorMgr::FormatMetrics(MetricsFormat format) {
    MgrMetrics m;
    SnapshotMetrics(&m);
    return QUOLNET::FormatMetrics(m, format);
}

void CConnectorMgr::RequestMetrics(MetricsFormat format, std::function<void(const std::string&)> done) {
    Post([this, format, done]() { done(FormatMetrics(format)); });
}

bool CConnectorMgr::IsConnected(ConnId id) {
    auto lock = m_table.LockShared();
    OwnedConn* c = m_table.Find(id);
    return c != nullptr && c->connector->GetStatus() == CONNECTOR_STATUS_CONNECTED && c->fd >= 0;
}

size_t CConnectorMgr::GetConnectionCount() {
    auto lock = m_table.LockShared();
    return m_table.Size();
}

CTcpConnector* CConnectorMgr::GetConnector(ConnId id) {
    OwnedConn* c = m_table.Find(id);
    return c == nullptr ? nullptr : c->connector.get();
}

// The connection of the handler call in progress needs no lookup (the common case: a
// context attached in OnConnected or with the first packet).
bool CConnectorMgr::SetContext(ConnId id, void* ctx) {
    OwnedConn* c = m_cb_conn != nullptr && m_cb_conn->id == id         ? m_cb_conn
                   : m_delivering != nullptr && m_delivering->id == id ? m_delivering
                                                                       : m_table.Find(id);
    if (c == nullptr || c->dead) {
        return false;
    }
    c->context = ctx;
    return true;
}

void* CConnectorMgr::GetContext(ConnId id) {
    if (m_cb_conn != nullptr && m_cb_conn->id == id) {
        return m_cb_conn->context;  // OnClosed's connection is out of the table already
    }
    OwnedConn* c = m_table.Find(id);
    return c != nullptr && !c->dead ? c->context : nullptr;
}

}  // namespace QUOLNET
