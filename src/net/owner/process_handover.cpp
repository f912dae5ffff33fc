// CProcessHandOver: listeners and live connections passed to another process (see
// process_handover.h for the exchange and why each connection is all or nothing).
#include "net/owner/process_handover.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <unordered_set>

#include "net/connector_group.h"
#include "net/owner/conn_mover.h"
#include "net/owner/owner_log.h"

namespace QUOLNET {

using handover::CReader;
using handover::CWriter;
using handover::Msg;

namespace {

constexpr int kPollMs = 10;               // how often an open offer looks for a successor
constexpr size_t kBatchBytes = 8u << 20;  // a batch's payload, about
constexpr size_t kBatchesInFlight = 2;    // sent and not yet answered
constexpr int64_t kAckMarginMs = 100;     // the successor answers no later than this before the deadline
constexpr uint8_t kFlagAccepted = 1;
constexpr uint8_t kFlagPaused = 2;

bool FillAddr(const char* path, struct sockaddr_un* addr) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    if (path == nullptr || path[0] == '\0' || strlen(path) >= sizeof(addr->sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(addr->sun_path, path, strlen(path));
    return true;
}

void Refuse(int fd, const std::string& why, int64_t deadline) {
    CWriter w;
    w.Bytes(why);
    std::string ignored;
    handover::Send(fd, handover::kRefuse, w.Out(), {}, deadline, &ignored);
}

}  // namespace

CProcessHandOver::~CProcessHandOver() {
    EndParking(false);
    EndOffer();
}

bool CProcessHandOver::PeerAllowed(int fd, const HandOverOptions& options, std::string* why, int32_t* pid) {
    uint32_t uid = 0;
    *pid = 0;
    if (!handover::PeerCredentials(fd, &uid, pid)) {
        *why = "the peer's credentials are unknown (SO_PEERCRED failed)";
        return false;
    }
    if (!options.any_user && uid != geteuid()) {
        *why = "peer pid " + std::to_string(*pid) + " runs as user " + std::to_string(uid) + ", not " +
               std::to_string(geteuid());
        return false;
    }
    return true;
}

// ---- the old process --------------------------------------------------------------------

int CProcessHandOver::Offer(const char* path, const HandOverOptions& options) {
    if (m_offer_fd >= 0) {
        return -2;
    }
    struct sockaddr_un addr;
    int fd = -1;
    if (FillAddr(path, &addr)) {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    }
    bool bound = fd >= 0 && bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0;
    if (fd >= 0 && !bound && errno == EADDRINUSE) {
        // A file is in the way: replaced only when it is a socket nobody answers on.
        struct stat st;
        int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool stale = lstat(path, &st) == 0 && S_ISSOCK(st.st_mode) && probe >= 0 &&
                     connect(probe, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 &&
                     errno == ECONNREFUSED;
        if (probe >= 0) {
            ::close(probe);
        }
        errno = EADDRINUSE;
        bound = stale && unlink(path) == 0 &&
                bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0;
    }
    if (fd >= 0 && !bound) {
        int err = errno;
        ::close(fd);
        errno = err;
        fd = -1;
    }
    // Owner-only: the peer's credentials are checked besides.
    if (fd >= 0 && (chmod(path, S_IRUSR | S_IWUSR) != 0 || listen(fd, 4) != 0)) {
        int err = errno;
        ::close(fd);
        unlink(path);
        errno = err;
        fd = -1;
    }
    if (fd < 0) {
        int err = errno;
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_ERROR, "cannot offer a hand-over on %s, errno=%d",
                     path == nullptr ? "(null)" : path, err);
        errno = err;
        return -1;
    }
    m_offer_fd = fd;
    m_offer_path = path;
    m_options = options;
    m_mgr.m_handover_offering.store(true);
    m_timer = m_mgr.m_loop.AddTimer(kPollMs, kPollMs, [this]() { Poll(); });
    QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_INFO, "offering a hand-over on %s", path);
    return 0;
}

void CProcessHandOver::EndOffer() {
    if (m_peer >= 0) {
        ::close(m_peer);  // a successor that was getting ready
        m_peer = -1;
    }
    if (m_timer != 0) {
        m_mgr.m_loop.CancelTimer(m_timer);
        m_timer = 0;
    }
    if (m_offer_fd >= 0) {
        ::close(m_offer_fd);
        m_offer_fd = -1;
        unlink(m_offer_path.c_str());
    }
    m_mgr.m_handover_offering.store(false);
}

void CProcessHandOver::Poll() {
    if (m_offer_fd < 0) {
        return;
    }
    if (m_peer < 0) {
        int peer = accept4(m_offer_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (peer < 0) {
            return;
        }
        m_start_ms = CEventLoop::NowMs();
        m_deadline_ms = m_start_ms + m_options.deadline_ms;
        if (Greet(peer)) {
            m_peer = peer;  // served on while the successor gets ready
        } else {
            ::close(peer);
        }
        return;
    }
    // Waiting for the successor's kReady: this process serves as before meanwhile.
    struct pollfd p;
    p.fd = m_peer;
    p.events = POLLIN;
    p.revents = 0;
    bool readable = poll(&p, 1, 0) > 0;
    if (!readable && CEventLoop::NowMs() < m_deadline_ms) {
        return;
    }
    Msg m;
    std::string why;
    bool ready = readable && handover::Recv(m_peer, &m, m_deadline_ms, &why) && m.type == handover::kReady;
    bool done = false;
    if (!ready) {
        if (why.empty()) {
            why = readable ? "it did not say it was ready" : "it did not say it was ready in time";
        }
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN, "hand-over refused: pid %d: %s", m_peer_pid,
                     why.c_str());
    } else {
        done = Exchange(m_peer);
    }
    ::close(m_peer);
    m_peer = -1;
    if (done) {
        EndOffer();
        Finish(m_options.drain_ms);
    }
}

void CProcessHandOver::Finish(int drain_ms) {
    m_mgr.m_acceptor.ReleaseAll();  // the successor accepts on them now
    m_mgr.m_handed_over.store(true);
    m_mgr.Shutdown(drain_ms);  // what stayed drains; Run returns after it
}

bool CProcessHandOver::Greet(int peer) {
    LogCategory* cat = m_mgr.LogCat();
    const int64_t deadline = m_deadline_ms;
    std::string why;
    int32_t pid = 0;
    if (!PeerAllowed(peer, m_options, &why, &pid)) {
        Refuse(peer, why, deadline);
        QN_OWNER_LOG(cat, LOG_PRIORITY_WARN, "hand-over refused: %s", why.c_str());
        return false;
    }
    Msg m;
    if (!handover::Recv(peer, &m, deadline, &why) || m.type != handover::kHello) {
        if (why.empty()) {
            why = "the peer did not begin with a hello";
        }
        QN_OWNER_LOG(cat, LOG_PRIORITY_WARN, "hand-over refused: pid %d: %s", pid, why.c_str());
        return false;
    }
    {
        CReader r(m.payload);
        uint32_t version = r.U32();
        if (!r.Ok() || version != handover::kWireVersion) {
            why = "version " + std::to_string(version) + " is not spoken here (this process speaks " +
                  std::to_string(handover::kWireVersion) + ")";
            Refuse(peer, why, deadline);
            QN_OWNER_LOG(cat, LOG_PRIORITY_WARN, "hand-over refused: pid %d: %s", pid, why.c_str());
            return false;
        }
    }
    CWriter welcome;
    welcome.U32(handover::kWireVersion);
    welcome.U32(static_cast<uint32_t>(getpid()));
    welcome.U64(HighestId());
    welcome.I64(deadline);
    welcome.U64(BlocksInUse());  // what the successor makes ready before it says kReady
    if (!handover::Send(peer, handover::kWelcome, welcome.Out(), {}, deadline, &why)) {
        QN_OWNER_LOG(cat, LOG_PRIORITY_WARN, "hand-over refused: pid %d: %s", pid, why.c_str());
        return false;
    }
    m_peer_pid = pid;
    return true;
}

bool CProcessHandOver::Exchange(int peer) {
    LogCategory* cat = m_mgr.LogCat();
    const int64_t start = m_start_ms;
    const int64_t deadline = m_deadline_ms;
    const int32_t pid = m_peer_pid;
    std::string why;
    Msg m;
    // A group's other loops wait from here to the end (see EndParking).
    if (m_mgr.m_group != nullptr && !ParkLoops(deadline, &why)) {
        EndParking(false);
        Refuse(peer, why, deadline);
        QN_OWNER_LOG(cat, LOG_PRIORITY_WARN, "hand-over refused: pid %d: %s", pid, why.c_str());
        return false;
    }
    std::string state;
    if (m_mgr.m_handler != nullptr) {
        m_mgr.m_handler->OnHandOutProcess(&m_mgr, &state);
    }
    CWriter process;
    process.Bytes(state);
    std::vector<std::pair<std::string, int>> listeners = AllListeners();
    CWriter lw;
    std::vector<int> lfds;
    lw.U32(static_cast<uint32_t>(listeners.size()));
    for (const auto& l : listeners) {
        lw.Bytes(l.first);
        lfds.push_back(l.second);
    }
    Tally tally;
    bool ok = handover::Send(peer, handover::kProcess, process.Out(), {}, deadline, &why) &&
              handover::Send(peer, handover::kListeners, lw.Out(), lfds, deadline, &why) &&
              handover::Recv(peer, &m, deadline, &why);
    if (ok && m.type != handover::kAck) {
        why = "the successor did not take the listeners";
        ok = false;
    }
    if (ok) {
        ok = m_mgr.m_group != nullptr ? SendEachLoop(peer, deadline, &tally, &why)
                                      : SendConnections(peer, deadline, &tally, &why);
    }
    if (ok) {
        CWriter done;
        done.U64(tally.moved);
        ok = handover::Send(peer, handover::kDone, done.Out(), {}, deadline, &why) &&
             handover::Recv(peer, &m, deadline, &why);
        if (ok && m.type != handover::kDoneAck) {
            why = "the successor did not confirm the end";
            ok = false;
        }
    }
    if (!ok) {
        QN_OWNER_LOG(
            cat, LOG_PRIORITY_WARN,
            "hand-over to pid %d failed after %zu of %zu connections: %s; this process serves the rest", pid,
            tally.moved, tally.offered, why.c_str());
    } else {
        QN_OWNER_LOG(cat, LOG_PRIORITY_INFO,
                     "handed over %zu listeners and %zu of %zu connections to pid %d in %lld ms (%llu bytes, "
                     "%llu of them owed by the connections); %zu stay and drain",
                     listeners.size(), tally.moved, tally.offered, pid,
                     static_cast<long long>(CEventLoop::NowMs() - start),
                     static_cast<unsigned long long>(tally.bytes),
                     static_cast<unsigned long long>(tally.owed), tally.offered - tally.moved);
    }
    if (m_mgr.m_group != nullptr) {
        EndParking(ok);  // each other loop finishes as this one does (Poll)
    }
    return ok;
}

bool CProcessHandOver::SendConnections(int peer, int64_t deadline, Tally* tally, std::string* error) {
    m_mgr.FlushCorked();  // a corked reply is not in the queue the export reads
    struct Going {
        OwnedConn* conn;
        std::string state;
    };
    std::vector<Going> going;
    std::vector<OwnedConn*> all = m_mgr.m_table.SortedById();
    tally->offered += all.size();
    for (OwnedConn* c : all) {
        if (!CConnMover::Movable(c) || c->connector->GetStreamIo() != nullptr || c->corked) {
            continue;
        }
        std::string state;
        bool go = true;
        if (m_mgr.m_handler != nullptr) {
            CConnectorMgr::HandlerScope scope(m_mgr, c);
            go = m_mgr.m_handler->OnHandOut(&m_mgr, c->id, &state);
        }
        if (go) {
            going.push_back(Going{c, std::move(state)});
        }
    }
    std::vector<OwnedConn*> taken;
    bool ok = true;
    {
        // Held to the last answer: no other thread may queue bytes behind an export, or
        // touch the blocks an export's pieces point into.
        auto lock = m_mgr.m_table.Lock();
        std::deque<std::vector<OwnedConn*>> unanswered;  // batches sent, oldest first
        // What the successor's answer to the oldest batch names is its own from now on.
        auto answered = [&](const Msg& ack) {
            CReader r(ack.payload);
            uint32_t n = r.U32();
            std::unordered_set<ConnId> ids;
            for (uint32_t i = 0; i < n && r.Ok(); ++i) {
                ids.insert(r.U64());
            }
            for (OwnedConn* c : unanswered.front()) {
                if (ids.count(c->id) == 0) {
                    continue;  // the successor could not take it: served here as before
                }
                // Out of this loop's poller and out of reach of other threads' Sends (the
                // socket lives on in the successor's); no shutdown(2), which would end it.
                c->connector->SetCloseSocket(false);
                c->connector->Disconnect(nullptr);
                m_mgr.m_table.RemoveLocked(c);
                taken.push_back(c);
            }
            unanswered.pop_front();
        };
        CWriter w;
        w.Reserve(kBatchBytes + kBatchBytes / 4);  // one buffer for every batch
        size_t next = 0;
        Msg m;
        while (ok && (next < going.size() || !unanswered.empty())) {
            if (next < going.size() && unanswered.size() < kBatchesInFlight) {
                // The next batch goes out while the successor takes in the one before.
                std::vector<OwnedConn*> batch;
                std::vector<int> fds;
                w.Clear();
                w.U32(0);  // the count, filled in below
                for (; next < going.size() && fds.size() < handover::kMaxFds && w.Out().size() < kBatchBytes;
                     ++next) {
                    OwnedConn* c = going[next].conn;
                    if (!CConnMover::Movable(c)) {
                        continue;  // ended since (the handler closed it)
                    }
                    CTcpConnector::Carry carry;
                    if (c->connector->ExportCarry(&carry) != 0) {
                        continue;  // stays here
                    }
                    uint8_t flags = (c->accepted ? kFlagAccepted : 0) | (c->app_paused ? kFlagPaused : 0);
                    w.U64(c->id);
                    w.Bytes(c->url);
                    w.U8(flags);
                    w.I64(carry.rx_bytes);
                    w.I64(carry.tx_bytes);
                    w.I64(carry.rx_packets);
                    w.I64(carry.tx_packets);
                    w.Bytes(carry.unsent);
                    w.Bytes(carry.unread);
                    tally->owed +=
                        CTcpConnector::Carry::Size(carry.unsent) + CTcpConnector::Carry::Size(carry.unread);
                    w.Bytes(going[next].state);
                    fds.push_back(c->fd);
                    batch.push_back(c);
                }
                if (batch.empty()) {
                    continue;
                }
                w.SetU32(0, static_cast<uint32_t>(batch.size()));
                ok = handover::Send(peer, handover::kConns, w.Out(), fds, deadline, error);
                tally->bytes += w.Out().size();
                unanswered.push_back(std::move(batch));
                continue;
            }
            ok = handover::Recv(peer, &m, deadline, error);
            if (ok && m.type != handover::kAck) {
                *error = "the successor answered a batch with message type " + std::to_string(m.type);
                ok = false;
            }
            if (ok) {
                answered(m);
            }
        }
        if (!ok) {
            // No more answers may come in; those already written are still read.
            shutdown(peer, SHUT_RD);
            std::string ignored;
            while (!unanswered.empty() && handover::Recv(peer, &m, 0, &ignored) && m.type == handover::kAck) {
                answered(m);
            }
        }
    }
    for (OwnedConn* c : taken) {
        ++tally->moved;
        m_mgr.ReleaseFd(c);         // this process's descriptor; the successor has its own
        c->close_requested = true;  // ended here for good: a dialled one does not redial
        m_mgr.m_service.SetCloseInfo(c, CloseReason::kHandedOver, 0);
        m_mgr.m_service.FinishClose(c);  // counted, then OnClosed as any other end
    }
    return ok;
}

// ---- the new process --------------------------------------------------------------------

ConnId CProcessHandOver::Adopt(CReader& in, const std::shared_ptr<const std::string>& payload, int fd,
                               std::string* state, std::string* url, bool* accepted, CConnectorMgr** where,
                               TakeOverResult* result) {
    ConnId id = in.U64();
    *url = in.Bytes();
    uint8_t flags = in.U8();
    CTcpConnector::Carry carry;
    carry.rx_bytes = in.I64();
    carry.tx_bytes = in.I64();
    carry.rx_packets = in.I64();
    carry.tx_packets = in.I64();
    carry.unsent.push_back(in.BytesView());
    carry.unread.push_back(in.BytesView());
    carry.keep = payload;  // the received bytes are read from the message itself
    *state = in.Bytes();
    *accepted = (flags & kFlagAccepted) != 0;
    CConnectorGroup* group = m_mgr.m_group;
    int serving = group != nullptr ? group->LoopOf(id) : 0;  // -1: no loop here has it
    if (!in.Ok() || id == 0 ||
        (serving >= 0 && (group != nullptr ? *group->GetLoop(serving) : m_mgr).m_table.Find(id) != nullptr)) {
        ::close(fd);
        return 0;
    }
    CConnectorMgr& mgr = TargetFor(id);
    *where = &mgr;
    OwnedConn* c = mgr.NewConn(url->c_str());
    c->accepted = *accepted;
    int init = CTcpListener::IsUnixURL(url->c_str())
                   ? c->connector->InitUnix(url->c_str(), mgr.m_parser, mgr.GetEpollFd(), fd)
                   : c->connector->Init(url->c_str(), mgr.m_parser, mgr.GetEpollFd(), fd);
    size_t unsent = carry.unsent[0].second;
    size_t unread = carry.unread[0].second;
    if (init != 0 || c->connector->ImportCarry(std::move(carry)) != 0) {
        QN_OWNER_LOG(mgr.LogCat(), LOG_PRIORITY_ERROR, "cannot take over connection %llu, url=%s, fd=%d",
                     static_cast<unsigned long long>(id), url->c_str(), fd);
        c->connector->SetCloseSocket(false);
        c->connector->Fini();
        ::close(fd);
        delete c;
        return 0;
    }
    c->connector->SetCloseSocket(false);
    c->fd = fd;
    c->id = id;
    c->was_established = true;
    c->app_paused = (flags & kFlagPaused) != 0;
    c->progress.Start(CEventLoop::NowMs());
    if (c->accepted) {
        mgr.m_admission.AdmitSource(c->url);  // counted like an accepted one (over a limit or not)
    } else {
        DialOptions plain;
        plain.reconnect = false;
        c->dial = std::make_shared<const DialOptions>(plain);
    }
    mgr.m_service.SetState(c, CONN_ESTABLISHED);
    mgr.m_table.Add(c);
    if (group == nullptr || mgr.GetLoopIndex() == static_cast<int>(id >> CConnectorGroup::kLoopShift)) {
        mgr.m_table.SetIdBase(std::max(mgr.m_table.LastId(), id));  // this loop's ids go on above it
    } else {
        group->AddAdoptedRoute(id, mgr.GetLoopIndex());  // its id names no loop here
    }
    if (c->app_paused) {
        c->connector->PauseReading(true);
    }
    if (unsent + unread > 0 || c->app_paused) {
        // Owed bytes go at the first tick; an idle connection waits for its socket (the epoll
        // set reports what its kernel buffers hold already), so thousands of idle ones cost
        // that tick nothing.
        c->connector->SetEvent(c->app_paused ? EPOLLOUT : EPOLLIN | EPOLLOUT);
        mgr.Queue(c);
    }
    result->unsent_bytes += unsent;
    result->unread_bytes += unread;
    return id;
}

int CProcessHandOver::TakeOver(const char* path, const HandOverOptions& options, TakeOverResult* result) {
    LogCategory* cat = m_mgr.LogCat();
    *result = TakeOverResult();
    const int64_t start = CEventLoop::NowMs();
    int64_t deadline = start + options.deadline_ms;
    struct sockaddr_un addr;
    if (!FillAddr(path, &addr)) {
        result->error = "bad socket path";
        return -1;
    }
    int fd = -1;
    for (;;) {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0) {
            break;
        }
        int err = errno;
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
        if ((err != ENOENT && err != ECONNREFUSED) || CEventLoop::NowMs() >= deadline) {
            result->error = std::string("cannot reach the offer on ") + path + ": " + strerror(err);
            QN_OWNER_LOG(cat, LOG_PRIORITY_ERROR, "take-over failed: %s", result->error.c_str());
            return -1;
        }
        usleep(10000);  // nothing offers there yet
    }
    int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    std::string why;
    int32_t pid = 0;
    Msg m;
    CWriter hello;
    hello.U32(handover::kWireVersion);
    bool ok = PeerAllowed(fd, options, &why, &pid) &&
              handover::Send(fd, handover::kHello, hello.Out(), {}, deadline, &why) &&
              handover::Recv(fd, &m, deadline, &why);
    if (ok && m.type == handover::kRefuse) {
        CReader r(m.payload);
        why = "refused: " + r.Bytes();
        ok = false;
    } else if (ok && m.type == handover::kWelcome) {
        CReader r(m.payload);
        uint32_t version = r.U32();
        r.U32();  // the old process's pid (SO_PEERCRED gave it)
        ConnId highest = r.U64();
        if (m_mgr.m_group == nullptr) {
            m_mgr.m_table.SetIdBase(std::max(m_mgr.m_table.LastId(), highest));
        }  // a group's loops go on above the ids they adopt (Adopt)
        int64_t old_deadline = r.I64();
        uint64_t blocks = r.U64();
        if (!r.Ok() || version != handover::kWireVersion) {
            why = "the old process speaks version " + std::to_string(version);
            ok = false;
        }
        // Answers must reach the old process before its own deadline (the same clock).
        deadline = std::min(deadline, old_deadline - kAckMarginMs);
        if (ok) {
            // The old process serves on until kReady: the first touch of the blocks its bytes
            // will need is paid now, not in the pause its peers see.
            WarmPools(blocks);
            ok = handover::Send(fd, handover::kReady, std::string(), {}, deadline, &why);
        }
    } else if (ok) {
        why = "unexpected message";
        ok = false;
    }
    while (ok) {
        ok = handover::Recv(fd, &m, deadline, &why);
        if (!ok) {
            break;
        }
        // Shared: the connections of a batch read their received bytes from it (Adopt).
        auto payload = std::make_shared<const std::string>(std::move(m.payload));
        CReader r(*payload);
        if (m.type == handover::kProcess) {
            std::string state = r.Bytes();
            if (m_mgr.m_handler != nullptr) {
                m_mgr.m_handler->OnHandInProcess(&m_mgr, state);
            }
        } else if (m.type == handover::kListeners) {
            uint32_t n = r.U32();
            for (uint32_t i = 0; i < n && i < m.fds.size(); ++i) {
                KeepListener(r.Bytes(), m.fds[i]);
                ++result->listeners;
            }
            for (size_t i = n; i < m.fds.size(); ++i) {
                ::close(m.fds[i]);
            }
            CWriter ack;
            ack.U32(n);
            ok = handover::Send(fd, handover::kAck, ack.Out(), {}, deadline, &why);
        } else if (m.type == handover::kConns) {
            result->batch_bytes += payload->size();
            uint32_t n = r.U32();
            struct In {
                ConnId id = 0;
                CConnectorMgr* mgr = nullptr;
                std::string url;
                bool accepted;
                std::string state;
            };
            std::vector<In> in;
            CWriter ack;
            ack.U32(0);
            for (uint32_t i = 0; i < m.fds.size(); ++i) {
                In x;
                x.id = i < n ? Adopt(r, payload, m.fds[i], &x.state, &x.url, &x.accepted, &x.mgr, result) : 0;
                if (i >= n) {
                    ::close(m.fds[i]);
                }
                if (x.id != 0) {
                    ack.U64(x.id);
                    in.push_back(std::move(x));
                }
            }
            ack.SetU32(0, static_cast<uint32_t>(in.size()));
            // Ours once the answer is written whole (see process_handover.h); else the old
            // process keeps them and these copies go without touching the sockets.
            ok = CEventLoop::NowMs() < deadline &&
                 handover::Send(fd, handover::kAck, ack.Out(), {}, deadline, &why);
            if (!ok) {
                if (why.empty()) {
                    why = "the deadline passed";
                }
                for (const In& x : in) {
                    OwnedConn* c = x.mgr->m_table.Find(x.id);
                    if (c != nullptr) {
                        c->connector->Disconnect(nullptr);
                        x.mgr->ReleaseFd(c);
                        x.mgr->DestroyConn(c);
                    }
                }
                break;
            }
            result->connections += in.size();
            for (const In& x : in) {
                OwnedConn* c = x.mgr->m_table.Find(x.id);
                if (c != nullptr && x.mgr->m_handler != nullptr) {
                    CConnectorMgr::HandlerScope scope(*x.mgr, c);
                    x.mgr->m_handler->OnHandIn(x.mgr, x.id, x.url.c_str(), x.accepted, x.state);
                }
            }
        } else if (m.type == handover::kRefuse) {
            why = "refused: " + r.Bytes();  // the old process gave up (a loop did not stop)
            ok = false;
        } else if (m.type == handover::kDone) {
            ok = handover::Send(fd, handover::kDoneAck, std::string(), {}, deadline, &why);
            result->complete = ok;
            break;
        } else {
            for (int d : m.fds) {
                ::close(d);
            }
            why = "unexpected message";
            ok = false;
        }
    }
    ::close(fd);
    if (!result->complete) {
        result->error = why.empty() ? "the exchange ended early" : why;
        QN_OWNER_LOG(cat, LOG_PRIORITY_WARN,
                     "take-over from pid %d incomplete after %zu connections and %zu listeners: %s", pid,
                     result->connections, result->listeners, result->error.c_str());
        return -1;
    }
    QN_OWNER_LOG(
        cat, LOG_PRIORITY_INFO,
        "took over %zu listeners and %zu connections from pid %d in %lld ms (%llu bytes unsent, %llu "
        "unread)",
        result->listeners, result->connections, pid, static_cast<long long>(CEventLoop::NowMs() - start),
        static_cast<unsigned long long>(result->unsent_bytes),
        static_cast<unsigned long long>(result->unread_bytes));
    return 0;
}

// ---- the manager's entry points ---------------------------------------------------------

int CConnectorMgr::OfferHandOver(const char* path, const HandOverOptions& options) {
    if (m_group != nullptr) {
        return -3;  // the group offers for all its loops
    }
    if (m_handover == nullptr) {
        m_handover.reset(new CProcessHandOver(*this));
    }
    return m_handover->Offer(path, options);
}

int CConnectorMgr::TakeOver(const char* path, const HandOverOptions& options, TakeOverResult* result) {
    TakeOverResult ignored;
    if (result == nullptr) {
        result = &ignored;
    }
    if (m_group != nullptr) {
        result->error = "a group's loop: the group takes over";
        return -1;
    }
    if (m_handover == nullptr) {
        m_handover.reset(new CProcessHandOver(*this));
    }
    m_loop.MarkLoopThread();
    return m_handover->TakeOver(path, options, result);
}

}  // namespace QUOLNET
