// CConnectorMgr's tick (RunOnce: wait, events, posted work, accepts, timers, the limits,
// corked flushes) and sending by id from any thread.
#include <errno.h>

#include <algorithm>

#include "net/connector_mgr.h"
#include "net/connector_group.h"
#include "net/owner/owner_log.h"

namespace QUOLNET {

// How long the wait may last: until the next timer, sweep, statistics or retry is due.
int CConnectorMgr::ComputeWait(int timeout_ms) {
    int64_t now = CEventLoop::NowMs();
    int wait = timeout_ms;
    auto bound = [&wait](int64_t ms) {
        int v = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(ms, 1 << 30)));
        if (wait < 0 || v < wait) {
            wait = v;
        }
    };
    int64_t due = m_loop.NextTimerDue();
    if (due >= 0) {
        bound(due - now);
    }
    if (m_loop.HasPosted()) {
        bound(0);
    }
    if (!m_pending.empty() || (!m_starved.empty() && RecvBlocksFree() > 0)) {
        bound(kRefusedRetryMs);
    }
    if (!m_handshakes.empty()) {
        bound(m_service.HandshakeWaitMs());  // handshakes waiting for the budget
    }
    if (m_table.Size() != 0) {
        bound(m_limits.NextSweepMs() - now);
    }
    if (m_limits.HasWantRoom()) {
        bound(10);  // room may come back from the pool, which raises no event
    }
    if (m_next_stats_ms > 0) {
        bound(m_next_stats_ms - now);
    }
    if (m_stop.load() || m_stats_requested.load() || !m_corked.empty()) {
        bound(0);
    }
    if (m_shutting_down) {
        // The last connection may have ended in this tick (drained, or aborted at the
        // deadline): the next tick's RunShutdown then stops the loop, without a wait between.
        bound(m_table.Size() == 0 ? 0 : m_shutdown_deadline_ms - now);
    } else if (m_shutdown_requested_ms.load() >= 0) {
        bound(0);
    }
    return wait;
}

// Hands each event to its connector (or notes a readable listener), and queues the
// connections for this tick's work.
void CConnectorMgr::HandleEvents(int n, std::vector<size_t>* readable) {
    for (int i = 0; i < n; ++i) {
        const epoll_event& ev = m_loop.Event(i);
        void* ptr = ev.data.ptr;
        if (m_loop.IsWakeEvent(ptr)) {
            m_loop.ConsumeWake();
            continue;
        }
        int listener = m_acceptor.Find(ptr);
        if (listener >= 0) {
            readable->push_back(static_cast<size_t>(listener));
            continue;
        }
        // An unknown pointer is a connection moving in from another loop whose adoption is
        // posted; its readiness is reported again once it is adopted (level-triggered).
        OwnedConn* c = m_table.FindByConnector(ptr);
        if (c != nullptr) {
            c->connector->SetEvent(ev.events);
            Queue(c);
        }
    }
    TakeRechecks();
    std::vector<OwnedConn*> pending;
    pending.swap(m_pending);
    for (OwnedConn* c : pending) {
        Queue(c);
    }
    ResumeStarved();
}

// Blocks a read may still take: the pool's free blocks less those it keeps for sending.
unsigned int CConnectorMgr::RecvBlocksFree() const {
    unsigned int free_blocks = m_limits.PoolFree();
    unsigned int kept = m_pool->GetTxReserveBlocks();
    return free_blocks > kept ? free_blocks - kept : 0;
}

void CConnectorMgr::Starve(OwnedConn* c) {
    if (!c->starved) {
        c->starved = true;
        m_starved.push_back(c);
    }
}

// Retries the connections that wait for a block, oldest first, as many as the pool has free
// blocks (each read takes one), so an empty pool costs nothing per tick.
void CConnectorMgr::ResumeStarved() {
    size_t n = std::min<size_t>(m_starved.size(), RecvBlocksFree());
    if (n == 0) {
        return;
    }
    for (size_t i = 0; i < n; ++i) {
        OwnedConn* c = m_starved[i];
        c->starved = false;
        if (!c->dead) {
            Queue(c);
        }
    }
    m_starved.erase(m_starved.begin(), m_starved.begin() + static_cast<std::ptrdiff_t>(n));
}

void CConnectorMgr::RunTick(const std::vector<size_t>& readable) {
    m_handshake_steps = 0;
    m_tick_other_work = 0;
    m_tick_start_ns = m_stream_layers_used ? CConnService::NowNs() : 0;
    m_tick_metered_ns = 0;
    m_loop.RunPosted();
    RunShutdown(CEventLoop::NowMs());
    DrainWork();
    for (size_t idx : readable) {
        if (m_tick_start_ns == 0) {
            m_acceptor.AcceptReady(idx);
        } else if (m_handshake_credit_ns > 0) {
            // New connections (a TLS session each) share the handshakes' budget.
            int64_t start = CConnService::NowNs();
            m_acceptor.AcceptReady(idx);
            int64_t spent = CConnService::NowNs() - start;
            m_handshake_credit_ns -= spent;
            m_tick_metered_ns += spent;
        } else {
            // Spent: the listener waits about as long as the share takes to pay the debt back.
            unsigned int share = m_options.handshake_cpu_share;
            int64_t ms = share > 0 && share < 100 ? -m_handshake_credit_ns * 100 / share / 1000000 + 1 : 1;
            m_acceptor.PauseFor(idx, static_cast<int>(std::min<int64_t>(ms, 50)));
        }
    }
    FlushCorked();
    DrainWork();
    m_loop.RunTimers();
    DrainWork();
    if (m_handler != nullptr) {
        m_handler->OnTick(this);
    }
    m_loop.RunPosted();
    DrainWork();
    FlushCorked();
    DrainWork();
    if (m_tick_start_ns != 0) {
        m_service.RefillHandshakeCredit();
    }
    m_service.RunHandshakes();
    if (m_tick_start_ns != 0) {
        m_handshake_phase_end_ns = CConnService::NowNs();
    }
    DrainWork();

    int64_t now = CEventLoop::NowMs();
    m_limits.Sweep(now);
    m_limits.WatchPool();
    m_limits.RelievePressure(now);
    DrainWork();
    m_limits.NotifyRoom();
    DrainWork();
    // Corked replies are not armed for writability (SendToQCorked): none may outlive the
    // tick. Work done by a flush can cork more; a last one left is flushed at once by the
    // next tick, whose wait is then zero.
    for (int i = 0; i < 4 && !m_corked.empty(); ++i) {
        FlushCorked();
        DrainWork();
    }
}

// Statistics when due, and the graveyard.
void CConnectorMgr::EndTick() {
    int64_t now = CEventLoop::NowMs();
    bool periodic = m_next_stats_ms > 0 && now >= m_next_stats_ms;
    if (periodic) {
        m_next_stats_ms = now + m_options.stats_interval_sec * 1000LL;
    }
    if (periodic || m_stats_requested.exchange(false)) {
        PrintStats(m_options.stats_out != nullptr ? m_options.stats_out : stdout);
    }
    FlushDroppedLog(false);
    if (!m_graveyard.empty()) {
        // No list may keep a record past its deletion: a connection corked in the tick's
        // last flush round and then destroyed is still listed in m_corked.
        m_corked.erase(std::remove_if(m_corked.begin(), m_corked.end(), [](OwnedConn* c) { return c->dead; }),
                       m_corked.end());
        m_pending.erase(
            std::remove_if(m_pending.begin(), m_pending.end(), [](OwnedConn* c) { return c->dead; }),
            m_pending.end());
        m_starved.erase(
            std::remove_if(m_starved.begin(), m_starved.end(), [](OwnedConn* c) { return c->dead; }),
            m_starved.end());
        m_handshakes.erase(
            std::remove_if(m_handshakes.begin(), m_handshakes.end(), [](OwnedConn* c) { return c->dead; }),
            m_handshakes.end());
        for (OwnedConn* c : m_graveyard) {
            delete c;
        }
        m_graveyard.clear();
    }
    // A connection may be listed twice when several paths carried it over.
    std::sort(m_pending.begin(), m_pending.end());
    m_pending.erase(std::unique(m_pending.begin(), m_pending.end()), m_pending.end());
}

void CConnectorMgr::RunShutdown(int64_t now) {
    int timeout_ms = m_shutdown_requested_ms.load();
    if (timeout_ms < 0) {
        return;
    }
    if (!m_shutting_down) {
        m_shutting_down = true;
        m_shutdown_deadline_ms = now + timeout_ms;
        StopListening();
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_INFO, "shutting down: draining %zu connections within %d ms",
                     m_table.Size(), timeout_ms);
        for (OwnedConn* c : m_table.SortedById()) {
            if (c->state == CONN_ESTABLISHED) {
                c->shutdown_drain = true;  // ServiceEstablished takes it into DRAINING
                Queue(c);
            } else if (c->state == CONN_CONNECTING || c->state == CONN_WAIT_RETRY) {
                CloseNow(c->id, false);  // a dial has nothing to drain
            } else if (c->state == CONN_HANDSHAKE) {
                c->shutdown_drain = true;  // nothing to drain either: ServiceHandshake ends it
                Queue(c);
            }
        }
    } else if (now >= m_shutdown_deadline_ms && m_table.Size() != 0) {
        std::vector<OwnedConn*> left = m_table.SortedById();
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_WARN,
                     "shutdown deadline (%d ms) reached: aborting %zu connections still open", timeout_ms,
                     left.size());
        for (OwnedConn* c : left) {
            if (!c->dead && !c->close_requested) {
                ++m_shutdown_aborted;
                CloseNow(c->id, false);
            }
        }
        m_shutdown_deadline_ms = INT64_MAX;  // aborted once
    }
    if (m_table.Size() == 0 && !m_stop.load()) {  // (the graveyard was emptied by the last tick)
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_INFO, "shut down: %llu connections drained, %llu aborted",
                     static_cast<unsigned long long>(m_shutdown_drained.load()),
                     static_cast<unsigned long long>(m_shutdown_aborted.load()));
        m_stop.store(true);
    }
}

int CConnectorMgr::RunOnce(int timeout_ms) {
    m_loop.MarkLoopThread();
    if (m_acceptor.HasInherited()) {
        m_acceptor.CloseUnclaimed();  // taken over and no Listen asked for them: see TakeOver
    }
    int n = m_loop.Wait(ComputeWait(timeout_ms));
    if (n < 0) {
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_ERROR, "epoll_wait() failed, errno=%d", errno);
        return -1;
    }
    // The tick's short-lived blocks (a receive block per ping-pong packet, the room reserved
    // for each direct reply) cycle through this thread's cache instead of the pool's lock;
    // it gives back what it keeps when the tick ends.
    CNetBufferMgr::CThreadCache block_cache(m_pool);
    std::vector<size_t> readable;
    HandleEvents(n, &readable);
    RunTick(readable);
    EndTick();
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

// The connections corked so far are taken into m_flushing, and m_corked gets m_flushing's
// emptied storage back: both keep their capacity, so a steady load flushes without touching
// the heap, and a connection corked again while this runs is left for the next flush.
// Each connection's first block goes to the poller in one batch (on io_uring: one call to
// the kernel for all of them); what does not fit that shape flushes by itself.
void CConnectorMgr::FlushCorked() {
    m_flushing.clear();
    m_flushing.swap(m_corked);
    m_batch_conns.clear();
    m_batch_ops.clear();
    for (OwnedConn* c : m_flushing) {
        c->corked = false;
        if (c->dead || c->connector->GetStatus() != CONNECTOR_STATUS_CONNECTED) {
            continue;
        }
        SendOp op;
        if (m_loop.UsesIoUring() && c->connector->BeginBatchedFlush(&op)) {
            m_batch_conns.push_back(c);
            m_batch_ops.push_back(op);
            continue;
        }
        FlushedCorked(c, c->connector->Send());
    }
    if (!m_batch_ops.empty()) {
        m_batch_results.resize(m_batch_ops.size());
        m_loop.Poller().SendBatch(m_batch_ops.data(), m_batch_ops.size(), m_batch_results.data());
        for (size_t i = 0; i < m_batch_conns.size(); ++i) {
            OwnedConn* c = m_batch_conns[i];
            FlushedCorked(c, c->connector->EndBatchedFlush(m_batch_results[i]));
        }
    }
    m_flushing.clear();
}

void CConnectorMgr::FlushedCorked(OwnedConn* c, int ret) {
    if (ret < 0) {
        c->send_failed = true;
        Queue(c);
    } else if (c->state == CONN_DRAINING) {
        Queue(c);  // its flush may be complete now
    }
}

void CConnectorMgr::DrainWork() {
    for (size_t i = 0; i < m_work.size(); ++i) {
        OwnedConn* c = m_work[i];
        c->in_work = false;
        m_service.Service(c);
    }
    m_work.clear();
}

// A packet over the queue limit, or over what the pool lends to senders, can never be
// accepted: say so instead of "no room" for ever.
bool CConnectorMgr::RefuseTooLarge(OwnedConn* c, unsigned int len, bool on_loop) {
    if (len <= m_send_len_limit) {
        return false;
    }
    m_stats.CountTooLarge();
    if (on_loop && !c->too_large_logged) {
        c->too_large_logged = true;
        QN_OWNER_LOG(
            LogCat(), LOG_PRIORITY_WARN,
            "send refused, packet of %u bytes can never fit the send queue (%u blocks), id=%llu, url=%s", len,
            m_options.max_send_blocks, static_cast<unsigned long long>(c->id), c->url.c_str());
    }
    return true;
}

// Sends on a connection found in this loop's table; a foreign caller holds `lock`.
int CConnectorMgr::SendTo(OwnedConn* c, const char* buf, unsigned int len, bool corked, bool on_loop,
                          std::shared_lock<std::shared_mutex>* lock) {
    int gate = c->gate;
    if (gate != kGateOpen) {
        return gate == kGateClosed ? kSendNotConnected : kSendClosing;
    }
    CTcpConnector* k = c->connector.get();
    if (k->GetStatus() != CONNECTOR_STATUS_CONNECTED || c->fd < 0 || c->send_failed) {
        return kSendClosing;
    }
    if (RefuseTooLarge(c, len, on_loop)) {
        return kSendTooLarge;
    }
    if (!SendFramesWhole(c, buf, len)) {
        return kSendBadArgs;
    }
    // A direct send behind replies corked in this tick would first have to flush them and
    // then write again; it joins them instead and leaves with the same flush.
    corked = corked || (on_loop && c->corked);
    // The loop's own corked packets leave with its end-of-tick flush, so they need not arm
    // writability; another thread's must.
    int ret = corked ? (on_loop ? k->SendToQCorked(buf, len) : k->SendToQ(buf, len, nullptr))
                     : k->Send(buf, len, nullptr);
    if (!on_loop) {
        Recheck(c, false);  // a drain may have waited for this sender to finish
    }
    if (ret == CTcpConnector::kSendShutDown) {
        return kSendClosing;  // the drain ended before this packet began: nothing of it left
    }
    if (ret < 0) {
        c->send_failed = true;
        if (on_loop) {
            Queue(c);
        } else {
            lock->unlock();
            m_loop.Wake();  // the loop closes the connection
        }
        return kSendFailed;
    }
    if (ret == 0) {
        if (!c->want_room) {
            c->want_room = true;
            m_limits.WantRoom(c->id, on_loop);
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

bool CConnectorMgr::SendFramesWhole(OwnedConn* c, const char* buf, unsigned int len) {
    if (m_send_check == nullptr) {
        return true;
    }
    int framed = m_send_check->ParsePackLength(buf, len);
    if (framed > 0 && static_cast<unsigned int>(framed) == len) {
        return true;
    }
    if (!c->bad_send_logged) {
        c->bad_send_logged = true;
        QN_OWNER_LOG(LogCat(), LOG_PRIORITY_WARN,
                     "send refused, a buffer of %u bytes is not one whole packet (its header says %d), "
                     "id=%llu, url=%s",
                     len, framed, static_cast<unsigned long long>(c->id), c->url.c_str());
    }
    return false;
}

int CConnectorMgr::SendImpl(ConnId id, const char* buf, unsigned int len, bool corked, bool routed) {
    if (buf == nullptr || len == 0) {
        return kSendBadArgs;
    }
    // The loop thread is the only one that adds or removes connections and closes
    // descriptors, so on it the map and the descriptor need no lock, and a reply to the
    // packet being offered (the common case) skips the lookup too. Other threads hold the
    // lock shared for the lookup and the whole connector call.
    const bool on_loop = OnLoopThread();
    if (on_loop) {
        OwnedConn* c = m_delivering;
        if (c != nullptr && c->id == id) {
            return SendTo(c, buf, len, corked, true, nullptr);  // the reply to the packet offered
        }
    }
    auto lock = m_table.LockShared(!on_loop);
    OwnedConn* c = m_table.Find(id);
    if (c == nullptr) {
        if (m_group == nullptr || routed) {
            return kSendUnknownId;
        }
        if (lock.owns_lock()) {
            lock.unlock();
        }
        return m_group->SendRouted(id, buf, len, corked);  // served by another loop
    }
    return SendTo(c, buf, len, corked, on_loop, &lock);
}

int CConnectorMgr::Send(ConnId id, const char* buf, unsigned int len) {
    return SendImpl(id, buf, len, false, false);
}

int CConnectorMgr::SendCorked(ConnId id, const char* buf, unsigned int len) {
    return SendImpl(id, buf, len, true, false);
}

}  // namespace QUOLNET
