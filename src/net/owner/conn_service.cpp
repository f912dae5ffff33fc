// CConnService: the connection state machine, delivery, draining, linger and closing.
#include "net/owner/conn_service.h"

#include <errno.h>
#include <algorithm>
#include <sys/socket.h>
#include <time.h>

#include "net/connector_mgr.h"
#include "net/owner/owner_log.h"

namespace QUOLNET {

void CConnService::SetState(OwnedConn* c, ConnState state) {
    c->state = state;
    c->draining.store(state == CONN_DRAINING);  // before the drain's first look (EndDrain)
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

// Every transition of a connection starts here; see the diagram in conn.h.
void CConnService::Service(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    if (c->dead) {
        return;
    }
    switch (c->state) {
        case CONN_WAIT_RETRY:
            if (c->close_requested || c->graceful) {
                m_mgr.m_dialler.OnDialFailed(c);  // reported as closed locally
            }
            return;
        case CONN_CLOSING:
            ServiceClosing(c);
            return;
        case CONN_DRAINING:
        case CONN_LINGER:
            ++m_mgr.m_tick_other_work;
            ServiceDraining(c);
            return;
        case CONN_CONNECTING:
            if (c->close_requested || c->graceful) {
                m_mgr.m_dialler.Abandon(c);
                return;
            }
            k->Update();
            if (m_mgr.m_dialler.CheckConnect(c)) {
                ServiceEstablished(c);
            }
            return;
        case CONN_HANDSHAKE:
            ServiceHandshake(c);
            return;
        case CONN_ESTABLISHED:
            if (c->settled_ns <= m_mgr.m_tick_start_ns) {
                ++m_mgr.m_tick_other_work;  // not just out of a handshake: see RefillHandshakeCredit
            }
            if (k->GetStatus() == CONNECTOR_STATUS_CONNECTED && k->IsWaitAllocBigBuffer()) {
                RetryBigWait(c);
            }
            k->Update();
            ServiceEstablished(c);
            return;
    }
}

int64_t CConnService::NowNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void CConnService::ServiceHandshake(OwnedConn* c) {
    if (!c->handshake_queued) {
        c->handshake_queued = true;
        m_mgr.m_handshakes.push_back(c);
    }
}

void CConnService::RefillHandshakeCredit() {
    const unsigned int share = m_mgr.m_options.handshake_cpu_share;
    int64_t& credit = m_mgr.m_handshake_credit_ns;
    if (share == 0 || share >= 100) {
        credit = INT64_MAX / 2;  // unmetered
        return;
    }
    const int64_t burst = static_cast<int64_t>(kHandshakeBurstMs) * 1000000 * share / 100;
    const int64_t now = NowNs();
    if (m_mgr.m_tick_other_work != 0) {
        m_mgr.m_other_work_ns = now;
    }
    if (now - m_mgr.m_other_work_ns > static_cast<int64_t>(kHandshakeIdleMs) * 1000000) {
        credit = burst;  // no established connection has wanted the loop for a while
    } else if (m_mgr.m_handshake_phase_end_ns != 0) {
        // Since the last tick's handshake work: the time the loop waited for events is
        // free for handshakes; of the time established connections took in this tick,
        // handshakes get share / (100 - share) as much.
        int64_t idle = m_mgr.m_tick_start_ns - m_mgr.m_handshake_phase_end_ns;
        int64_t other = now - m_mgr.m_tick_start_ns - m_mgr.m_tick_metered_ns;
        int64_t gained = std::max<int64_t>(idle, 0) + std::max<int64_t>(other, 0) * share / (100 - share);
        credit = std::min(burst, credit + gained);
    }
}

int CConnService::HandshakeWaitMs() const {
    const unsigned int share = m_mgr.m_options.handshake_cpu_share;
    int64_t credit = m_mgr.m_handshake_credit_ns;
    if (share == 0 || share >= 100 || credit > 0) {
        return 0;
    }
    return static_cast<int>(std::min<int64_t>(-credit * 100 / share / 1000000 + 1, 50));
}

void CConnService::RunHandshakes() {
    if (m_mgr.m_handshakes.empty()) {
        return;
    }
    std::vector<OwnedConn*>& list = m_mgr.m_handshakes_run;  // both keep their capacity
    list.clear();
    list.swap(m_mgr.m_handshakes);
    const unsigned int share = m_mgr.m_options.handshake_cpu_share;
    const bool metered = share > 0 && share < 100 && m_mgr.m_tick_start_ns != 0;
    int64_t& credit = m_mgr.m_handshake_credit_ns;
    const unsigned int budget = m_mgr.m_options.handshakes_per_tick;
    for (OwnedConn* c : list) {
        c->handshake_queued = false;
        if (c->dead || c->state != CONN_HANDSHAKE) {
            continue;
        }
        bool closing = c->close_requested || c->graceful || c->shutdown_drain;
        if (!closing && ((budget > 0 && m_mgr.m_handshake_steps >= budget) || (metered && credit <= 0))) {
            // Waits for a later tick's handshake work, with its readiness out of the epoll
            // set meanwhile: a level-triggered socket left in it would wake every wait.
            c->handshake_queued = true;
            if (!c->handshake_paused) {
                c->handshake_paused = true;
                c->connector->PauseReading(true);
            }
            m_mgr.m_handshakes.push_back(c);
            continue;
        }
        if (c->handshake_paused) {
            c->handshake_paused = false;
            c->connector->PauseReading(false);
        }
        ++m_mgr.m_handshake_steps;
        int64_t start = metered ? NowNs() : 0;
        StepHandshake(c);
        if (metered) {
            int64_t spent = NowNs() - start;
            credit -= spent;
            m_mgr.m_tick_metered_ns += spent;
        }
    }
}

void CConnService::StepHandshake(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    if (c->close_requested || c->graceful || c->shutdown_drain) {
        SetCloseInfo(c, CloseReason::kClosedLocally, 0);
        BeginClose(c);
        return;
    }
    k->Update();
    int status = k->GetStatus();
    if (status == CONNECTOR_STATUS_CONNECTING) {
        return;  // waits for the readiness the handshake asked for
    }
    if (status == CONNECTOR_STATUS_DISCONNECTED) {
        BeginClose(c);
        return;
    }
    SetState(c, CONN_ESTABLISHED);
    c->was_established = true;
    c->handshake_deadline_ms = 0;
    c->settled_ns = NowNs() + static_cast<int64_t>(kHandshakeIdleMs) * 1000000;
    c->progress.Start(CEventLoop::NowMs());
    if (m_mgr.m_handler != nullptr) {
        CConnectorMgr::HandlerScope scope(m_mgr, c);
        m_mgr.m_handler->OnConnected(&m_mgr, c->id, c->url.c_str(), true);
    }
    if (!c->dead && c->state == CONN_ESTABLISHED) {
        ServiceEstablished(c);  // bytes that came with the handshake's last flight
    }
}

// Offers what framing produced; when reading stopped with bytes still to take (ring full,
// no block, a big packet's next block), runs the receive side again once packets are gone.
// Returns true when the round limit was met (still making progress: come back next tick).
bool CConnService::DeliverAndRead(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    for (int rounds = 0;; ++rounds) {
        int n = Deliver(c);
        if (c->app_paused || n == 0 || k->GetStatus() != CONNECTOR_STATUS_CONNECTED) {
            return false;
        }
        if (rounds >= 16) {
            m_mgr.Retry(c);
            return true;
        }
        if (k->IsWaitAllocBigBuffer()) {
            RetryBigWait(c);
        } else if (k->GetEvent() & EPOLLIN) {
            k->SetEvent(EPOLLIN);
            k->Update();
        } else {
            return false;
        }
    }
}

// ESTABLISHED after its Update: offers packets, then stays, closes, drains or pauses.
void CConnService::ServiceEstablished(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    bool round_limit = DeliverAndRead(c);
    if (k->GetStatus() != CONNECTOR_STATUS_CONNECTED || c->close_requested || c->send_failed) {
        BeginClose(c);
        return;
    }
    if (c->graceful || k->IsPeerClosed() || c->shutdown_drain) {
        EnterDraining(c);
        return;
    }
    if (c->app_paused) {
        // The application paused it (or refused a packet): nothing is read or offered, and
        // nothing is retried, until ResumeReading queues it again.
        k->PauseReading(true);
        return;
    }
    // EPOLLIN still set without the round limit means reading stopped before the socket ran
    // dry and cannot go on now (no block, a big packet's next block). The level-triggered
    // wait would report those bytes on every tick and spin, so EPOLLIN leaves the
    // registration and the connection is retried from the pending list instead; reading
    // resumes once a read reaches would-block again.
    bool stalled = !round_limit && (k->GetEvent() & EPOLLIN) != 0;
    k->PauseReading(stalled);  // a failed change is applied with the next registration
    if (stalled && !k->IsWaitAllocBigBuffer() && k->IsRecvStarved()) {
        // No block for the next read: polling it every tick would spin while the pool is
        // empty; it waits for blocks instead (a reset is still reported by epoll).
        m_mgr.Starve(c);
    } else if (k->IsWaitAllocBigBuffer() || stalled) {
        m_mgr.Retry(c);
    }
}

// ESTABLISHED -> DRAINING, after the peer's end of stream or Close.
void CConnService::EnterDraining(OwnedConn* c) {
    if (c->graceful) {
        SetCloseInfo(c, CloseReason::kClosedLocally, 0);
        c->refused = false;
    } else if (c->shutdown_drain && !c->connector->IsPeerClosed()) {
        SetCloseInfo(c, CloseReason::kClosedLocally, 0);
    } else {
        SetCloseInfo(c, CloseReason::kPeerClosed, 0);
    }
    if (c->progress.tx_progress_ms == 0 || c->connector->GetSendQCount() == 0) {
        c->progress.tx_progress_ms = CEventLoop::NowMs();  // the flush's stall deadline counts from here
    }
    SetState(c, CONN_DRAINING);
    // A graceful close reads (and drops) to the end; a shutdown reads no new requests until
    // its LINGER, so that its drain cannot be fed for ever.
    c->connector->PauseReading(c->shutdown_drain && !c->graceful);
    ServiceDraining(c);
}

// DRAINING: reading has stopped (the peer ended its stream) or is dropped (Close); what is
// queued is flushed by Update on writability, and once nothing is left the sending side is
// shut down. LINGER: after Close, the peer's bytes are read and dropped until its end of
// stream, so that closing the descriptor cannot turn into a reset that destroys what we
// sent. The flush is bounded by send_stall_ms and the linger by kLingerMs (both by Sweep).
void CConnService::ServiceDraining(OwnedConn* c) {
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
    if (c->graceful || c->state == CONN_LINGER) {
        DropRing(c);  // after Close, or read in LINGER after a shutdown's drain
    } else {
        Deliver(c);  // a refusal pauses it: ResumeReading brings it back
    }
    if (c->state == CONN_DRAINING) {
        EndDrain(c);
    } else if (k->IsPeerClosed()) {
        BeginClose(c);  // LINGER met the peer's end of stream
    }
}

// DRAINING -> LINGER (or CLOSING) once the ring is done, no reply is owed and nothing is
// being sent. What brings a drain that cannot end yet back here: writability (a queue the
// loop flushes), the corked flush, ResumeReading (a paused ring), ReleaseHold and the end
// of a foreign Send (Recheck), or the sweep's send-stall deadline.
void CConnService::EndDrain(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    bool ring_done = c->graceful || k->GetPacketInfoCnt() == 0;
    if (!ring_done || c->corked) {
        return;
    }
    if (!c->graceful && c->holds.load() > 0) {
        return;  // the application still owes replies (HoldOpen)
    }
    // Decided under the connector's send lock: a sender at work (its role, a push, a queue)
    // keeps the side open, and none can start once it is shut. A failed shutdown(2) (the
    // peer has reset) is left to the reads and writes that follow to report.
    if (k->ShutdownSendIfIdle() == 0) {
        return;
    }
    if (k->IsPeerClosed()) {
        BeginClose(c);
        return;
    }
    SetState(c, CONN_LINGER);
    c->linger_until_ms = CEventLoop::NowMs() + kLingerMs;
    if (c->shutdown_drain) {
        c->connector->PauseReading(false);  // LINGER reads (and drops) to the peer's end
    }
}

void CConnService::BeginClose(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    if (c->close_requested) {
        SetCloseInfo(c, CloseReason::kClosedLocally, 0);  // Abort, after a Close or not
    }
    SetCloseInfoFromConnector(c);
    if (k->GetStatus() != CONNECTOR_STATUS_DISCONNECTED) {
        k->Disconnect(nullptr);
    }
    m_mgr.ReleaseFd(c);
    if (c->timer_id != 0) {
        m_mgr.m_loop.CancelTimer(c->timer_id);
        c->timer_id = 0;
    }
    if (c->paused_for_room) {
        // Paused until room comes back, which it never will now: what is left is offered
        // (a reply the handler tries meets kSendClosing).
        c->app_paused = false;
        c->paused_for_room = false;
    }
    SetState(c, CONN_CLOSING);
    ServiceClosing(c);
}

// CLOSING: the socket is gone; what is left in the ring is offered, then FinishClose.
void CConnService::ServiceClosing(OwnedConn* c) {
    Deliver(c);
    if (c->close_requested || c->graceful || c->connector->GetPacketInfoCnt() == 0) {
        FinishClose(c);
    }  // else the handler refused a packet: ResumeReading offers it again
}

// CLOSING -> gone (OnClosed), or -> WAIT_RETRY for a dialled connection that reconnects.
void CConnService::FinishClose(OwnedConn* c) {
    bool reconnect = !c->accepted && c->dial->reconnect && !c->close_requested && !c->graceful &&
                     !m_mgr.m_stop.load() && !m_mgr.m_shutting_down;
    ConnId id = c->id;
    // An accepted connection the handler never heard of (its handshake did not complete)
    // ends without OnClosed; it is counted and logged like any other.
    bool report = c->was_established || (!reconnect && !c->accepted);
    SetCloseInfoFromConnector(c);
    CloseInfo info = c->close_info;
    info.reconnecting = reconnect;
    info.text = c->close_text.empty() ? nullptr : c->close_text.c_str();
    m_mgr.m_stats.CountClose(info);
    // The session's traffic joins the running totals (a reconnect resets the counters).
    m_mgr.m_stats.AddEnded(CMgrStats::TrafficOf(c->connector.get()));
    if (c->shutdown_drain && !c->close_requested) {
        ++m_mgr.m_shutdown_drained;  // ended by the shutdown's drain, not at its deadline
    }
    LogEnd(c, info);
    c->was_established = false;
    c->refused = false;
    c->send_failed = false;
    c->close_info_set = false;
    if (reconnect) {
        m_mgr.m_dialler.ScheduleRetry(c);
    } else {
        m_mgr.DestroyConn(c);
    }
    if (report && m_mgr.m_handler != nullptr) {
        CConnectorMgr::HandlerScope scope(m_mgr, c);  // in the graveyard until the tick ends
        m_mgr.m_handler->OnClosed(&m_mgr, id, info);
    }
}

// One line for an end an operator should hear of and that nothing else has logged: a peer
// whose bytes the parser refused (WARN), a socket error or a reset (INFO). Limits are logged
// where they are decided, ordinary ends not at all.
void CConnService::LogEnd(const OwnedConn* c, const CloseInfo& info) {
    unsigned long long id = static_cast<unsigned long long>(c->id);
    if (info.reason == CloseReason::kFramingError) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN,
                     "closing connection %llu, url=%s: %s (parser code %d)", id, c->url.c_str(),
                     CloseReasonName(info.reason), info.error);
    } else if (info.reason == CloseReason::kIoError || info.reason == CloseReason::kReset) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_INFO, "connection %llu ended, url=%s: %s (errno %d)", id,
                     c->url.c_str(), CloseReasonName(info.reason), info.error);
    } else if (info.reason == CloseReason::kHandshakeFailed || info.reason == CloseReason::kTruncated) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_INFO, "connection %llu ended, url=%s: %s (%s)", id,
                     c->url.c_str(), CloseReasonName(info.reason), CloseErrorText(info));
    }
}

void CConnService::SetCloseInfo(OwnedConn* c, CloseReason reason, int error, CloseLimit limit) {
    if (c->close_info_set) {
        return;
    }
    c->close_info_set = true;
    c->close_info = CloseInfo();
    c->close_text.clear();
    c->close_info.reason = reason;
    c->close_info.error = error;
    c->close_info.limit = limit;
}

// Reads the cause the connector recorded when it disconnected (or when a write failed).
void CConnService::SetCloseInfoFromConnector(OwnedConn* c) {
    if (c->close_info_set) {
        return;
    }
    CTcpConnector* k = c->connector.get();
    int ret = k->GetLastIoResult();
    int err = k->GetLastErrno();
    if (err == 0 && ret == 0 && c->send_failed) {
        err = k->GetLastWriteErrno();  // a Send of the application failed, not Update
    }
    IStreamIo* io = k->GetStreamIo();
    if (ret == CTcpConnector::kHandshakeFailed) {
        SetCloseInfo(c, CloseReason::kHandshakeFailed, err);
    } else if (ret == CTcpConnector::kStreamTruncated) {
        SetCloseInfo(c, CloseReason::kTruncated, 0);
    } else if (err == ECONNRESET || err == EPIPE) {
        SetCloseInfo(c, CloseReason::kReset, err);
    } else if (err != 0) {
        SetCloseInfo(c, CloseReason::kIoError, err);
    } else if (ret == 0 || ret == CTcpConnector::kPeerClosed) {
        SetCloseInfo(c, CloseReason::kPeerClosed, 0);
    } else if (ret == CTcpConnector::kParseTooLong) {
        SetCloseInfo(c, CloseReason::kLimit, ret, CloseLimit::kPacketTooLong);
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN,
                     "closing connection %llu, url=%s: %s limit (a packet announced longer than %u bytes)",
                     static_cast<unsigned long long>(c->id), c->url.c_str(),
                     CloseLimitName(CloseLimit::kPacketTooLong), m_mgr.m_options.max_packet_len);
    } else if (ret == CTcpConnector::kParseOverRxCap) {
        SetCloseInfo(c, CloseReason::kLimit, ret, CloseLimit::kRecvBlocks);
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN,
                     "closing connection %llu, url=%s: %s limit (a packet that needs more than %u blocks)",
                     static_cast<unsigned long long>(c->id), c->url.c_str(),
                     CloseLimitName(CloseLimit::kRecvBlocks), m_mgr.m_options.max_recv_blocks);
    } else {
        SetCloseInfo(c, CloseReason::kFramingError, ret);
    }
    CloseReason reason = c->close_info.reason;
    if (io != nullptr && io->LastError()[0] != '\0' &&
        (reason == CloseReason::kHandshakeFailed || reason == CloseReason::kTruncated ||
         reason == CloseReason::kIoError || reason == CloseReason::kReset)) {
        c->close_text = io->LastError();
    }
}

int CConnService::RecvCallback(const char* url, const char* data, int len, void* arg) {
    (void)url;
    OwnedConn* c = static_cast<OwnedConn*>(arg);
    CConnectorMgr* mgr = c->mgr;
    if (c->close_requested || c->graceful) {
        return 1;  // delivery has ended: the packet is dropped
    }
    // Keep arrival order: while packets wait in the ring, later ones queue behind them.
    // Packets framed before OnConnected (bytes that came with a TLS handshake's last flight,
    // or with a dial's completion) wait in the ring too, and are offered after it.
    if (c->app_paused || !c->was_established || c->connector->GetPacketInfoCnt() > 0 ||
        mgr->m_handler == nullptr) {
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
    c->app_paused = true;  // the packet waits in the ring for ResumeReading
    c->paused_for_room = c->want_room;
    c->connector->PauseReading(true);
    return 0;
}

int CConnService::Deliver(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    c->refused = false;
    int n = 0;
    // Only framing adds packets, and it runs on this thread outside Deliver; so the count
    // taken once here only falls, by one per Drop, while the handler is offered packets.
    int left = k->GetPacketInfoCnt();
    while (!c->close_requested && !c->graceful && !c->app_paused && left > 0) {
        const char* buf = nullptr;
        unsigned int len = 0;
        int ret = k->Peek(&buf, len, nullptr);
        if (ret != 0) {
            QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR, "Peek() failed, url=%s, ret=%d; closing",
                         c->url.c_str(), ret);
            SetCloseInfo(c, CloseReason::kFramingError, ret);
            c->close_requested = true;
            break;
        }
        if (buf == nullptr) {
            break;
        }
        m_mgr.m_delivering = c;
        IConnectorHandler* h = m_mgr.m_handler;
        bool taken = h != nullptr && h->OnPacket(&m_mgr, c->id, buf, len, left > 1);
        m_mgr.m_delivering = nullptr;
        if (!taken) {
            c->refused = true;
            c->app_paused = true;  // no re-offer until ResumeReading (or room, see below)
            // A handler that refuses because its reply found no room (kSendNoRoom) is resumed
            // when there is room again, just before OnWritable.
            c->paused_for_room = c->want_room;
            if (c->fd >= 0) {
                k->PauseReading(true);
            }
            break;
        }
        k->Drop();
        --left;
        ++n;
    }
    return n;
}

void CConnService::DropRing(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    for (int left = k->GetPacketInfoCnt(); left > 0; --left) {
        k->Drop();
    }
}

void CConnService::RetryBigWait(OwnedConn* c) {
    CTcpConnector* k = c->connector.get();
    int ret = k->Recv();
    if (ret == CTcpConnector::kPeerClosed) {
        if (!k->IsPeerClosed()) {
            k->Disconnect(nullptr);
        }  // otherwise reading has stopped and the replies are flushed (ServiceEstablished)
    } else if (ret < 0) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR, "Recv() failed, url=%s, ret=%d", c->url.c_str(),
                     ret);
        k->Disconnect(nullptr);
    }
}

}  // namespace QUOLNET
