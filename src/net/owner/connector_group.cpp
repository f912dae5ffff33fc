// CConnectorGroup: N loops on N threads, listening with SO_REUSEPORT (or one acceptor that
// hands out), routing by id, and moving connections between loops.
#include "net/connector_group.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <future>
#include <new>

#include "net/owner/conn_mover.h"
#include "net/owner/owner_log.h"

namespace QUOLNET {

CConnectorGroup::CConnectorGroup(IConnectorHandler* handler, const ConnectorGroupOptions& options)
    : m_handler(handler),
      m_options(options),
      m_reuse_port_active(false),
      m_next_dial_loop(0),
      m_next_accept_loop(0),
      m_route_cnt(0),
      m_moves_done(0),
      m_moves_failed(0) {}

CConnectorGroup::~CConnectorGroup() {
    Stop();
    m_loops.clear();  // each closes its connections and descriptors
}

int CConnectorGroup::Init() {
    if (!m_loops.empty()) {
        return 0;
    }
    int n = m_options.threads > 0 ? m_options.threads : static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    n = std::max(1, std::min(n, kMaxLoops));
    ConnectorMgrOptions lo = m_options.loop;
    std::unique_ptr<CNetBufferMgr> shared;
    if (lo.pool == nullptr && !m_options.pool_per_loop) {
        shared.reset(new (std::nothrow) CNetBufferMgr(lo.pool_blocks, -1, 1 << 20,
                                                      CConnectorMgr::SendReserveFor(lo.pool_blocks)));
        lo.pool = shared.get();
    }
    if (lo.pool == nullptr) {
        lo.pool_blocks = std::max(64u, lo.pool_blocks / static_cast<unsigned int>(n));
    }
    for (int i = 0; i < n; ++i) {
        std::unique_ptr<CConnectorMgr> mgr(new (std::nothrow) CConnectorMgr(m_handler, lo));
        if (mgr == nullptr) {
            m_loops.clear();
            return -1;
        }
        mgr->JoinGroup(this, i);
        mgr->m_admission.JoinGroup(n, &m_sources);
        if (mgr->Init() != 0) {
            m_loops.clear();
            return -1;
        }
        m_loops.push_back(std::move(mgr));
    }
    if (shared != nullptr) {
        m_pools.push_back(std::move(shared));
    }
    return 0;
}

int CConnectorGroup::Listen(const char* url, int backlog) {
    return Listen(url, SocketOptions(), backlog);
}

int CConnectorGroup::Listen(const char* url, const SocketOptions& socket, int backlog) {
    if (m_loops.empty()) {
        return -2;
    }
    CConnectorMgr& first = *m_loops[0];
    if (socket.stream != nullptr) {
        for (auto& loop : m_loops) {
            loop->m_stream_layers_used = true;  // new connections' work is metered from now on
        }
    }
    size_t idx = first.m_acceptor.GetListenerCount();
    int port =
        m_options.reuse_port && m_loops.size() > 1 ? first.m_acceptor.Listen(url, backlog, true, socket) : -3;
    if (port == -3) {
        HandOutFromLoop0();
        return first.m_acceptor.Listen(url, backlog, false, socket);
    }
    if (port < 0) {
        return port;
    }
    int reuse = 0;
    socklen_t reuse_len = sizeof(reuse);
    if (getsockopt(first.m_acceptor.GetListenerFd(idx), SOL_SOCKET, SO_REUSEPORT, &reuse, &reuse_len) == 0 &&
        reuse == 0) {
        // A socket taken over from a process that listened alone: it cannot share its port.
        HandOutFromLoop0();
        return port;
    }
    std::string bound = first.m_acceptor.GetListenURL(idx);  // the port chosen for ":0"
    for (size_t i = 1; i < m_loops.size(); ++i) {
        int ret = m_loops[i]->m_acceptor.Listen(bound.c_str(), backlog, true, socket);
        if (ret < 0) {
            return ret;
        }
    }
    m_reuse_port_active = true;
    return port;
}

void CConnectorGroup::HandOutFromLoop0() {
    CConnectorMgr& first = *m_loops[0];
    first.m_acceptor.SetAdopt(
        [this](int fd, const std::string& peer, const std::shared_ptr<IStreamIoFactory>& stream) {
            Dispatch(fd, peer, stream);
        });
    first.m_acceptor.SetGate(nullptr);  // each receiving loop makes room for itself
    m_reuse_port_active = false;
}

std::string CConnectorGroup::GetListenURL() const {
    return m_loops.empty() ? std::string() : m_loops[0]->GetListenURL(0);
}

void CConnectorGroup::Dispatch(int fd, const std::string& peer,
                               const std::shared_ptr<IStreamIoFactory>& stream) {
    unsigned int turn = m_next_accept_loop.fetch_add(1) % static_cast<unsigned int>(m_loops.size());
    if (turn == 0) {
        if (m_loops[0]->m_admission.MakeRoomForHandOut()) {
            m_loops[0]->AdoptAccepted(fd, peer, stream);
        } else {
            ::close(fd);
        }
        return;
    }
    CConnectorMgr* to = m_loops[turn].get();
    to->Post([to, fd, peer, stream]() {
        if (to->m_admission.MakeRoomForHandOut()) {
            to->AdoptAccepted(fd, peer, stream);
        } else {
            ::close(fd);
        }
    });
}

int CConnectorGroup::Start() {
    if (!m_threads.empty() || m_loops.empty()) {
        return -1;
    }
    std::lock_guard<std::recursive_mutex> lock(m_run_mutex);  // metrics are taken by the loops from now on
    for (auto& loop : m_loops) {
        CConnectorMgr* mgr = loop.get();
        mgr->m_stop.store(false);
        m_threads.emplace_back([mgr]() { mgr->Run(); });
        m_loop_threads.push_back(m_threads.back().get_id());
    }
    m_running = true;
    return 0;
}

void CConnectorGroup::Shutdown(int timeout_ms) {
    for (auto& loop : m_loops) {
        loop->Shutdown(timeout_ms);
    }
    // Each loop's Run returns by itself once its drain is over.
    for (auto& t : m_threads) {
        if (t.joinable()) {
            t.join();
        }
    }
    m_threads.clear();
    Stop();
}

std::vector<ConnId> CConnectorGroup::ListConnections() {
    std::vector<ConnId> ids;
    for (auto& loop : m_loops) {
        std::vector<ConnId> part = loop->ListConnections();
        ids.insert(ids.end(), part.begin(), part.end());
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

uint64_t CConnectorGroup::GetShutdownDrainedCount() const {
    uint64_t n = 0;
    for (const auto& loop : m_loops) {
        n += loop->GetShutdownDrainedCount();
    }
    return n;
}

uint64_t CConnectorGroup::GetShutdownAbortedCount() const {
    uint64_t n = 0;
    for (const auto& loop : m_loops) {
        n += loop->GetShutdownAbortedCount();
    }
    return n;
}

void CConnectorGroup::Stop() {
    for (auto& loop : m_loops) {
        loop->Stop();
    }
    for (auto& t : m_threads) {
        if (t.joinable()) {
            t.join();
        }
    }
    m_threads.clear();
    // Metrics asked for from now on are taken in place; those already posted run below.
    std::lock_guard<std::recursive_mutex> lock(m_run_mutex);
    m_running = false;
    m_loop_threads.clear();
    // Work posted to a loop after it stopped (a connection handed out or moving in) is run
    // here, so that every descriptor ends up in exactly one loop's table and is closed once.
    for (bool again = true; again;) {
        again = false;
        for (auto& loop : m_loops) {
            if (loop->m_loop.HasPosted()) {
                loop->m_loop.MarkLoopThread();
                loop->m_loop.RunPosted();
                again = true;
            }
        }
    }
}

int CConnectorGroup::HomeLoop(ConnId id) const {
    uint64_t loop = id >> kLoopShift;
    return loop < m_loops.size() ? static_cast<int>(loop) : -1;
}

bool CConnectorGroup::FindRoute(ConnId id, Route* route) {
    if (m_route_cnt.load() == 0) {
        return false;
    }
    std::shared_lock<std::shared_mutex> lock(m_route_lock);
    auto it = m_routes.find(id);
    if (it == m_routes.end()) {
        return false;
    }
    *route = it->second;
    return true;
}

int CConnectorGroup::LoopOf(ConnId id) {
    Route r;
    return FindRoute(id, &r) ? r.loop : HomeLoop(id);
}

// A connection between loops: the packet joins its new connector's queue, behind what was
// copied there. `*in_transit` is false when the connection is not between loops.
int CConnectorGroup::SendInTransit(ConnId id, const char* buf, unsigned int len, bool* in_transit) {
    std::shared_lock<std::shared_mutex> lock(m_route_lock);
    auto it = m_routes.find(id);
    *in_transit = it != m_routes.end() && it->second.transit != nullptr;
    if (!*in_transit) {
        return CConnectorMgr::kSendUnknownId;
    }
    int ret = it->second.transit->SendToQ(buf, len, nullptr);
    if (ret == 0) {
        lock.unlock();
        std::unique_lock<std::shared_mutex> wlock(m_route_lock);
        auto again = m_routes.find(id);
        if (again != m_routes.end()) {
            again->second.want_room = true;
        }
        return CConnectorMgr::kSendNoRoom;
    }
    return ret > 0 ? ret : CConnectorMgr::kSendBadArgs;
}

// Each retry follows a move that happened meanwhile. A caller on a slow or preempted thread
// may see several moves in a row, so it retries (yielding) rather than report an id that
// only moved. An id that is really gone stops the loop at once: no route changed between the
// look-up and the miss. (Comparing the loop that missed with the id's loop after the miss is
// not enough: a connection may leave that loop and come back to it while a preempted caller
// is between the two.) `on_loop(mgr)` runs the operation on a loop and returns its result,
// `missed` when the id was not there; `in_transit(&result)` handles a connection between
// loops and returns whether it did (false: retry).
template <typename OnLoop, typename InTransit, typename Result>
Result CConnectorGroup::RouteWithRetry(ConnId id, Result missed, OnLoop on_loop, InTransit in_transit) {
    for (int attempt = 0; attempt < 256; ++attempt) {
        if (attempt >= 8) {
            std::this_thread::yield();
        }
        uint64_t epoch = m_route_epoch.load();
        Route r;
        bool routed = FindRoute(id, &r);
        if (routed && r.transit != nullptr) {
            Result ret = missed;
            if (in_transit(&ret)) {
                return ret;
            }
            continue;
        }
        int loop = routed ? r.loop : HomeLoop(id);
        if (loop < 0) {
            return missed;
        }
        Result ret = on_loop(m_loops[static_cast<size_t>(loop)].get());
        if (ret != missed || m_route_epoch.load() == epoch) {
            return ret;
        }
    }
    return missed;
}

int CConnectorGroup::SendRouted(ConnId id, const char* buf, unsigned int len, bool corked) {
    return RouteWithRetry(
        id, CConnectorMgr::kSendUnknownId,
        [&](CConnectorMgr* mgr) { return mgr->SendImpl(id, buf, len, corked, true); },
        [&](int* ret) {
            bool in_transit = false;
            *ret = SendInTransit(id, buf, len, &in_transit);
            return in_transit;
        });
}

int CConnectorGroup::Send(ConnId id, const char* buf, unsigned int len) {
    return SendRouted(id, buf, len, false);
}

int CConnectorGroup::SendCorked(ConnId id, const char* buf, unsigned int len) {
    return SendRouted(id, buf, len, true);
}

CConnectorMgr* CConnectorGroup::ServingLoop(ConnId id, int from_loop) {
    int loop = LoopOf(id);
    if (loop < 0 || loop == from_loop) {
        return nullptr;  // no such connection (any more)
    }
    return m_loops[static_cast<size_t>(loop)].get();
}

void CConnectorGroup::CloseRouted(ConnId id, bool graceful, int from_loop) {
    if (CConnectorMgr* mgr = ServingLoop(id, from_loop)) {
        mgr->Post([mgr, id, graceful]() { mgr->CloseNow(id, graceful); });
    }
}

void CConnectorGroup::PauseRouted(ConnId id, bool paused, int from_loop) {
    if (CConnectorMgr* mgr = ServingLoop(id, from_loop)) {
        mgr->Post([mgr, id, paused]() { mgr->SetPausedNow(id, paused); });
    }
}

void CConnectorGroup::PauseReading(ConnId id) {
    PauseRouted(id, true, -1);
}

void CConnectorGroup::ResumeReading(ConnId id) {
    PauseRouted(id, false, -1);
}

// A connection between loops is waited for: its count travels with it.
bool CConnectorGroup::HoldRouted(ConnId id, int delta) {
    return RouteWithRetry(
        id, false, [&](CConnectorMgr* mgr) { return mgr->AdjustHold(id, delta, true); },
        [](bool*) { return false; });
}

bool CConnectorGroup::HoldOpen(ConnId id) {
    return HoldRouted(id, 1);
}

void CConnectorGroup::ReleaseHold(ConnId id) {
    HoldRouted(id, -1);
}

void CConnectorGroup::Close(ConnId id) {
    CloseRouted(id, true, -1);
}

void CConnectorGroup::Abort(ConnId id) {
    CloseRouted(id, false, -1);
}

int CConnectorGroup::Move(ConnId id, int loop) {
    if (loop < 0 || loop >= GetLoopCount()) {
        return kMoveBadLoop;
    }
    int from = LoopOf(id);
    if (from < 0) {
        return kMoveUnknownId;
    }
    if (from == loop) {
        return 0;
    }
    CConnectorMgr* src = m_loops[static_cast<size_t>(from)].get();
    CConnectorMgr* dst = m_loops[static_cast<size_t>(loop)].get();
    src->Post([this, src, dst, id]() {
        if (CConnMover::MoveOut(*src, id, *dst)) {
            ++m_moves_done;
        } else {
            ++m_moves_failed;
        }
    });
    return 0;
}

void CConnectorGroup::SetTransit(OwnedConn* conn, CConnectorMgr* to) {
    std::unique_lock<std::shared_mutex> lock(m_route_lock);
    to->Post([to, conn]() { CConnMover::Adopt(*to, conn); });
    // The source loop's traffic counters keep what the connection carried there (its new
    // connector has the old one's counters); the target counts only what follows.
    auto old = m_routes.find(conn->id);
    int from = old != m_routes.end() ? old->second.loop : HomeLoop(conn->id);
    TrafficCounts carried = CMgrStats::TrafficOf(conn->connector.get());
    if (from >= 0) {
        m_loops[static_cast<size_t>(from)]->m_stats.AddEnded(carried);
    }
    Route& r = m_routes[conn->id];
    r.loop = to->GetLoopIndex();
    r.transit = conn->connector.get();
    r.want_room = false;
    r.carried = carried;
    m_route_cnt.store(m_routes.size());
    m_route_epoch.fetch_add(1);  // last: whoever sees it sees the route too
}

bool CConnectorGroup::Arrived(ConnId id, int loop) {
    std::unique_lock<std::shared_mutex> lock(m_route_lock);
    auto it = m_routes.find(id);
    if (it == m_routes.end()) {
        return false;
    }
    bool want_room = it->second.want_room;
    m_loops[static_cast<size_t>(loop)]->m_stats.AddArrived(it->second.carried);
    if (loop == HomeLoop(id)) {
        m_routes.erase(it);  // back home: the id names its loop again
        m_route_cnt.store(m_routes.size());
    } else {
        it->second.loop = loop;
        it->second.transit = nullptr;
        it->second.want_room = false;
    }
    m_route_epoch.fetch_add(1);  // last: whoever sees it sees the route too
    return want_room;
}

void CConnectorGroup::Forget(ConnId id) {
    if (m_route_cnt.load() == 0) {
        return;
    }
    std::unique_lock<std::shared_mutex> lock(m_route_lock);
    m_routes.erase(id);
    m_route_cnt.store(m_routes.size());
}

void CConnectorGroup::Post(int loop, std::function<void()> fn) {
    m_loops[static_cast<size_t>(loop)]->Post(std::move(fn));
}

uint64_t CConnectorGroup::AddTimer(int loop, int delay_ms, int interval_ms, std::function<void()> fn) {
    return m_loops[static_cast<size_t>(loop)]->AddTimer(delay_ms, interval_ms, std::move(fn));
}

void CConnectorGroup::CancelTimer(int loop, uint64_t timer_id) {
    m_loops[static_cast<size_t>(loop)]->CancelTimer(timer_id);
}

ConnId CConnectorGroup::Dial(const char* url, const DialOptions& options, int loop) {
    if (m_loops.empty() || loop >= GetLoopCount()) {
        return 0;
    }
    if (loop < 0) {
        loop = static_cast<int>(m_next_dial_loop.fetch_add(1) % static_cast<unsigned int>(m_loops.size()));
    }
    CConnectorMgr* mgr = m_loops[static_cast<size_t>(loop)].get();
    if (m_threads.empty() || mgr->OnLoopThread()) {
        return mgr->Dial(url, options);
    }
    // Checked here, as the loop's own Dial does, rather than after an id was handed out.
    DialTarget target;
    std::string why;
    if (CDialler::ParseDialURL(url, &target, &why) != 0) {
        QN_OWNER_LOG(mgr->LogCat(), LOG_PRIORITY_ERROR, "invalid dial url(%s), %s",
                     url != nullptr ? url : "(null)", why.c_str());
        return 0;
    }
    ConnId id = mgr->m_table.NextId();
    std::string u(url);
    mgr->Post([mgr, u, options, id]() { mgr->m_dialler.Dial(u.c_str(), options, id); });
    return id;
}

size_t CConnectorGroup::GetConnectionCount() {
    size_t n = 0;
    for (auto& loop : m_loops) {
        n += loop->GetConnectionCount();
    }
    return n;
}

uint64_t CConnectorGroup::GetCloseCount(CloseReason reason) const {
    uint64_t n = 0;
    for (auto& loop : m_loops) {
        n += loop->GetCloseCount(reason);
    }
    return n;
}

uint64_t CConnectorGroup::GetLimitCloseCount(CloseLimit limit) const {
    uint64_t n = 0;
    for (auto& loop : m_loops) {
        n += loop->GetLimitCloseCount(limit);
    }
    return n;
}

uint64_t CConnectorGroup::GetAcceptCount() const {
    uint64_t n = 0;
    for (auto& loop : m_loops) {
        n += loop->GetAcceptCount();
    }
    return n;
}

std::string CConnectorGroup::FormatStats() {
    std::string out;
    char line[256];
    for (size_t i = 0; i < m_loops.size(); ++i) {
        CConnectorMgr* m = m_loops[i].get();
        uint64_t closed = 0;
        for (int r = 0; r < kCloseReasonCount; ++r) {
            closed += m->GetCloseCount(static_cast<CloseReason>(r));
        }
        snprintf(line, sizeof(line),
                 "loop %zu: connections %zu, accepted %llu, closed %llu, pool in use %u\n", i,
                 m->GetConnectionCount(), static_cast<unsigned long long>(m->GetAcceptCount()),
                 static_cast<unsigned long long>(closed),
                 m->GetPool() != nullptr ? m->GetPool()->GetUsedCount() : 0u);
        out += line;
    }
    snprintf(line, sizeof(line),
             "group: %d loops (%s), connections %zu, accepted %llu, moves %llu (refused %llu)\n",
             GetLoopCount(), m_reuse_port_active ? "SO_REUSEPORT" : "one acceptor", GetConnectionCount(),
             static_cast<unsigned long long>(GetAcceptCount()),
             static_cast<unsigned long long>(GetMoveCount()),
             static_cast<unsigned long long>(GetMoveFailedCount()));
    out += line;
    return out;
}

std::string CConnectorGroup::FormatMetricsInPlace(MetricsFormat format) {
    std::vector<MgrMetrics> loops(m_loops.size());
    for (size_t i = 0; i < m_loops.size(); ++i) {
        m_loops[i]->SnapshotMetrics(&loops[i]);
    }
    return FormatGroupMetrics(loops, GetMoveCount(), GetMoveFailedCount(), format);
}

void CConnectorGroup::RequestMetrics(MetricsFormat format, std::function<void(const std::string&)> done) {
    std::unique_lock<std::recursive_mutex> lock(m_run_mutex);
    if (!m_running || m_loops.empty()) {
        std::string text = FormatMetricsInPlace(format);
        lock.unlock();
        done(text);
        return;
    }
    // Each loop fills its slot on its own thread; the last to finish formats and reports.
    struct Gather {
        std::mutex mutex;
        std::vector<MgrMetrics> loops;
        size_t left = 0;
        MetricsFormat format = MetricsFormat::kJson;
        std::function<void(const std::string&)> done;
    };
    auto gather = std::make_shared<Gather>();
    gather->loops.resize(m_loops.size());
    gather->left = m_loops.size();
    gather->format = format;
    gather->done = std::move(done);
    for (size_t i = 0; i < m_loops.size(); ++i) {
        CConnectorMgr* mgr = m_loops[i].get();
        mgr->Post([this, gather, mgr, i]() {
            MgrMetrics m;
            mgr->SnapshotMetrics(&m);
            bool last = false;
            {
                std::lock_guard<std::mutex> slot(gather->mutex);
                gather->loops[i] = m;
                last = --gather->left == 0;
            }
            if (last) {
                gather->done(
                    FormatGroupMetrics(gather->loops, GetMoveCount(), GetMoveFailedCount(), gather->format));
            }
        });
    }
}

std::string CConnectorGroup::FormatMetrics(MetricsFormat format) {
    std::promise<std::string> promise;
    std::future<std::string> text = promise.get_future();
    {
        std::unique_lock<std::recursive_mutex> lock(m_run_mutex);
        if (!m_running) {
            return FormatMetricsInPlace(format);
        }
        if (std::find(m_loop_threads.begin(), m_loop_threads.end(), std::this_thread::get_id()) !=
            m_loop_threads.end()) {
            return std::string();  // a loop thread: see RequestMetrics
        }
        RequestMetrics(format, [&promise](const std::string& t) { promise.set_value(t); });
    }
    return text.get();
}

}  // namespace QUOLNET
