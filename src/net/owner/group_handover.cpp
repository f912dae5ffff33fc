// A group's hand-over to another process: the old group's loops parked while loop 0 runs
// the exchange and each loop sends its own connections in turn; the new group's placement
// of what it takes over (see process_handover.h for the exchange itself).
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>

#include "net/connector_group.h"
#include "net/owner/owner_log.h"
#include "net/owner/process_handover.h"

namespace QUOLNET {

// Loop 0 and the parked loops meet here. Every field is guarded by `mutex`.
struct CProcessHandOver::Parking {
    std::mutex mutex;
    std::condition_variable cv;
    int parked = 0;          // loops waiting
    int turn = -1;           // the loop sending its connections now (-1: none)
    bool turn_done = false;  // it has: its results below
    bool over = false;       // the exchange has ended, completed when `success`
    bool success = false;
    int drain_ms = 0;
    // The turn's socket and deadline, and its results.
    int peer = -1;
    int64_t deadline = 0;
    bool ok = true;
    Tally tally;
    std::string why;
};

// ---- the old group ---------------------------------------------------------------------

// Runs on the thread of loop `index` (this manager): waits until the exchange is over, sending this loop's
// connections when loop 0 gives it the turn, then finishes the hand-over here too or goes
// on serving. The wait has no deadline of its own: loop 0 ends every exchange (its I/O is
// bounded by the exchange's deadline) and says so.
void CProcessHandOver::Park(const std::shared_ptr<Parking>& st, int index) {
    std::unique_lock<std::mutex> lock(st->mutex);
    if (st->over) {
        return;  // too late: the exchange ended without this loop
    }
    ++st->parked;
    st->cv.notify_all();
    for (;;) {
        st->cv.wait(lock, [&]() { return st->over || st->turn == index; });
        if (st->over) {
            break;
        }
        int peer = st->peer;
        int64_t deadline = st->deadline;
        lock.unlock();
        Tally tally;
        std::string why;
        bool ok = SendConnections(peer, deadline, &tally, &why);
        lock.lock();
        st->ok = ok;
        st->tally = tally;
        st->why = why;
        st->turn = -1;
        st->turn_done = true;
        st->cv.notify_all();
    }
    bool success = st->success;
    int drain_ms = st->drain_ms;
    lock.unlock();
    if (success) {
        Finish(drain_ms);
    }
}

bool CProcessHandOver::ParkLoops(int64_t deadline, std::string* why) {
    CConnectorGroup& group = *m_mgr.m_group;
    auto st = std::make_shared<Parking>();
    st->drain_ms = m_options.drain_ms;
    m_parking = st;
    const int others = group.GetLoopCount() - 1;
    for (int i = 1; i <= others; ++i) {
        CConnectorMgr* loop = group.GetLoop(i);
        loop->Post([st, loop, i]() {
            if (loop->m_handover == nullptr) {
                loop->m_handover.reset(new CProcessHandOver(*loop));
            }
            loop->m_handover->Park(st, i);
        });
    }
    std::unique_lock<std::mutex> lock(st->mutex);
    int64_t left = std::max<int64_t>(0, deadline - CEventLoop::NowMs());
    if (!st->cv.wait_for(lock, std::chrono::milliseconds(left), [&]() { return st->parked == others; })) {
        *why = std::to_string(others - st->parked) + " of the group's loops did not stop in time";
        return false;
    }
    return true;
}

bool CProcessHandOver::SendEachLoop(int peer, int64_t deadline, Tally* tally, std::string* error) {
    if (!SendConnections(peer, deadline, tally, error)) {
        return false;
    }
    const std::shared_ptr<Parking>& st = m_parking;
    for (int i = 1; i < m_mgr.m_group->GetLoopCount(); ++i) {
        std::unique_lock<std::mutex> lock(st->mutex);
        st->peer = peer;
        st->deadline = deadline;
        st->turn_done = false;
        st->turn = i;
        st->cv.notify_all();
        // Not bounded here: the loop's own I/O is, and the socket is its alone until it ends.
        st->cv.wait(lock, [&]() { return st->turn_done; });
        tally->Add(st->tally);
        if (!st->ok) {
            *error = st->why;
            return false;
        }
    }
    return true;
}

void CProcessHandOver::EndParking(bool success) {
    if (m_parking == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_parking->mutex);
        m_parking->over = true;
        m_parking->success = success;
        m_parking->cv.notify_all();
    }
    m_parking.reset();
}

std::vector<std::pair<std::string, int>> CProcessHandOver::AllListeners() const {
    if (m_mgr.m_group == nullptr) {
        return m_mgr.m_acceptor.ListenerFds();
    }
    std::vector<std::pair<std::string, int>> all;
    CConnectorGroup& group = *m_mgr.m_group;
    for (int i = 0; i < group.GetLoopCount(); ++i) {
        // The other loops are parked: their acceptors hold still.
        std::vector<std::pair<std::string, int>> part = group.GetLoop(i)->m_acceptor.ListenerFds();
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

ConnId CProcessHandOver::HighestId() const {
    if (m_mgr.m_group == nullptr) {
        return m_mgr.m_table.LastId();
    }
    ConnId highest = 0;
    for (int i = 0; i < m_mgr.m_group->GetLoopCount(); ++i) {
        highest = std::max(highest, m_mgr.m_group->GetLoop(i)->m_table.LastId());
    }
    return highest;
}

namespace {

// The pools of `mgr`, or of every loop of its group, each once.
std::vector<CNetBufferMgr*> PoolsOf(CConnectorMgr& mgr) {
    std::vector<CNetBufferMgr*> pools;
    CConnectorGroup* group = mgr.GetGroup();
    int n = group != nullptr ? group->GetLoopCount() : 1;
    for (int i = 0; i < n; ++i) {
        CNetBufferMgr* pool = group != nullptr ? group->GetLoop(i)->GetPool() : mgr.GetPool();
        if (pool != nullptr && std::find(pools.begin(), pools.end(), pool) == pools.end()) {
            pools.push_back(pool);
        }
    }
    return pools;
}

}  // namespace

uint64_t CProcessHandOver::BlocksInUse() const {
    uint64_t n = 0;
    for (CNetBufferMgr* pool : PoolsOf(m_mgr)) {
        n += pool->GetUsedCount();
    }
    return n;
}

void CProcessHandOver::WarmPools(uint64_t blocks) {
    std::vector<CNetBufferMgr*> pools = PoolsOf(m_mgr);
    if (pools.empty() || blocks == 0) {
        return;
    }
    const uint64_t each = blocks / pools.size() + 1;
    for (CNetBufferMgr* pool : pools) {
        uint64_t room = pool->GetMaxBlockNum() - std::min(pool->GetMaxBlockNum(), pool->GetUsedCount());
        uint64_t n = std::min(each, room);
        CBidirList warm;
        for (uint64_t i = 0; i < n; ++i) {
            NetBuffer* b = pool->Allocate(false, false);
            if (b == nullptr) {
                break;
            }
            for (int off = 0; off < NetBuffer::kBlockSize; off += 4096) {
                b->m_buf[off] = 0;  // the page's first touch
            }
            warm.Insert(&b->m_node);
        }
        pool->Release(warm);  // made, and kept by the pool for the bytes to come
    }
}

// ---- the new group, on the thread calling TakeOver (before Start) ------------------------

CConnectorMgr& CProcessHandOver::TargetFor(ConnId id) {
    CConnectorGroup* group = m_mgr.m_group;
    if (group == nullptr) {
        return m_mgr;
    }
    uint64_t home = id >> CConnectorGroup::kLoopShift;
    unsigned int n = static_cast<unsigned int>(group->GetLoopCount());
    if (home < n) {
        return *group->GetLoop(static_cast<int>(home));
    }
    return *group->GetLoop(static_cast<int>(m_next_loop++ % n));
}

void CProcessHandOver::KeepListener(const std::string& url, int fd) {
    CConnectorGroup* group = m_mgr.m_group;
    if (group == nullptr) {
        m_mgr.m_acceptor.AddInherited(url, fd);
        return;
    }
    // Each loop that will listen on the address takes its share (SO_REUSEPORT: a socket
    // each, the extra ones beside); one loop handing out takes them all.
    unsigned int nth = 0;
    for (auto& k : m_kept) {
        if (k.first == url) {
            nth = k.second++;
            break;
        }
    }
    if (nth == 0) {
        m_kept.emplace_back(url, 1u);
    }
    bool spread =
        group->m_options.reuse_port && group->GetLoopCount() > 1 && !CTcpListener::IsUnixURL(url.c_str());
    int loop = spread ? static_cast<int>(nth % static_cast<unsigned int>(group->GetLoopCount())) : 0;
    group->GetLoop(loop)->m_acceptor.AddInherited(url, fd);
}

// ---- the group's entry points ------------------------------------------------------------

int CConnectorGroup::OfferHandOver(const char* path, const HandOverOptions& options) {
    if (m_loops.empty()) {
        return -1;
    }
    CConnectorMgr* first = m_loops[0].get();
    std::string p = path != nullptr ? path : "";
    auto offer = [first, p, options]() {
        if (first->m_handover == nullptr) {
            first->m_handover.reset(new CProcessHandOver(*first));
        }
        return first->m_handover->Offer(p.c_str(), options);
    };
    if (m_threads.empty() || first->OnLoopThread()) {
        return offer();
    }
    for (auto& loop : m_loops) {
        if (loop->OnLoopThread()) {
            // Another loop's thread may not wait for loop 0 (it may be waiting for this one).
            first->Post([offer]() { offer(); });
            return 0;
        }
    }
    auto done = std::make_shared<std::promise<int>>();
    std::future<int> result = done->get_future();
    first->Post([offer, done]() { done->set_value(offer()); });
    return result.get();
}

bool CConnectorGroup::IsOfferingHandOver() const {
    return !m_loops.empty() && m_loops[0]->IsOfferingHandOver();
}

bool CConnectorGroup::IsHandedOver() const {
    return !m_loops.empty() && m_loops[0]->IsHandedOver();
}

int CConnectorGroup::TakeOver(const char* path, const HandOverOptions& options, TakeOverResult* result) {
    TakeOverResult ignored;
    if (result == nullptr) {
        result = &ignored;
    }
    if (m_loops.empty() || !m_threads.empty()) {
        result->error = m_loops.empty() ? "the group has no loops (Init)" : "the group runs already";
        return -1;
    }
    for (auto& loop : m_loops) {
        loop->m_loop.MarkLoopThread();  // this thread stands in for every loop until Start
    }
    CConnectorMgr* first = m_loops[0].get();
    if (first->m_handover == nullptr) {
        first->m_handover.reset(new CProcessHandOver(*first));
    }
    return first->m_handover->TakeOver(path, options, result);
}

void CConnectorGroup::AddAdoptedRoute(ConnId id, int loop) {
    std::unique_lock<std::shared_mutex> lock(m_route_lock);
    Route& r = m_routes[id];
    r.loop = loop;
    r.transit = nullptr;
    r.want_room = false;
    r.carried = TrafficCounts();
    m_route_cnt.store(m_routes.size());
    m_route_epoch.fetch_add(1);
}

}  // namespace QUOLNET
