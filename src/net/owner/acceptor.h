// CAcceptor: a manager's listening sockets, accepting into new connections, the admission
// gate at the connection limit, and the pause at the descriptor limit.
//
// Admission: before each accept the acceptor asks its gate (CConnAdmission) how many more
// connections the manager may hold. At the limit it reads how many connections wait in the
// listener's queue and asks the gate to make room for that many (within the accept batch);
// the gate closes connections idle the longest. When the gate can make no room the listener
// leaves the epoll set (so the level-triggered wait does not spin on a backlog it may not
// take) and is retried as below.
//
// When accept4 fails for want of descriptors (EMFILE, ENFILE) or kernel memory, the
// listener pauses the same way: the last resort, for descriptors the application itself
// holds. A paused listener comes back when a connection releases its descriptor (Resume,
// called by the manager) or after kAcceptRetryMs, whichever is first. Every pause is
// counted; the descriptor pause is logged once per episode, which ends when the listener's
// queue has been drained (accept would block) again.
//
// Threads: the loop thread (or any thread before the loop runs) calls everything, except
// GetPauseCount and GetAcceptCount, which any thread reads. The adopt function and the gate
// run on the loop thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "../../common/relaxed.h"
#include "../../log/log.h"
#include "event_loop.h"
#include "../tcp_listener.h"

namespace QUOLNET {

class CAcceptor {
  public:
    static constexpr int kAcceptRetryMs = 200;  // retry of a paused listener
    static constexpr int kAcceptBatch = 256;    // accepts per readiness report and listener

    // What the acceptor asks before it takes connections. Loop thread.
    class IGate {
      public:
        virtual ~IGate() {}
        // Connections that may be accepted now without closing any (0 at the limit).
        virtual int Room() = 0;
        // At the limit, with `waiting` connections in a listener's queue: makes room for up
        // to that many (closing others). Returns the room made; 0 pauses the listener.
        virtual int MakeRoom(int waiting) = 0;
        // The listener at `url` paused because MakeRoom made none.
        virtual void OnFull(const std::string& url) = 0;
    };

    // `adopt` takes each accepted descriptor (non-blocking, close-on-exec, the listener's
    // SocketOptions applied) and the peer's URL, and owns the descriptor from then on.
    // `stream` is the listener's SocketOptions::stream (null: plain bytes).
    typedef std::function<void(int fd, const std::string& peer,
                               const std::shared_ptr<IStreamIoFactory>& stream)>
        AdoptFn;
    // Told of each connection a listener's SocketOptions refused (already closed).
    typedef std::function<void()> RefusedFn;

    explicit CAcceptor(CEventLoop& loop)
        : m_loop(loop), m_log_cat(nullptr), m_gate(nullptr), m_retry_timer(0), m_fd_episode(false) {}
    void SetLogCat(LogCategory* cat) { m_log_cat = cat; }
    void SetAdopt(AdoptFn adopt) { m_adopt = std::move(adopt); }
    void SetOnRefused(RefusedFn refused) { m_refused = std::move(refused); }
    // The admission gate (not owned); null admits everything.
    void SetGate(IGate* gate) { m_gate = gate; }

    // Listens on `url` (SO_REUSEPORT when `reuse_port`) and adds the listener to the loop's
    // epoll; every accepted socket is set to `socket` (CTcpListener::SetSocketOptions).
    // Returns the bound port, -1 for a malformed URL, -2 when the socket cannot listen, -3
    // when SO_REUSEPORT was asked for and refused.
    int Listen(const char* url, int backlog, bool reuse_port, const SocketOptions& socket = SocketOptions());
    std::string GetListenURL(size_t i) const;
    // Listener `i`'s descriptor, or -1.
    int GetListenerFd(size_t i) const;
    size_t GetListenerCount() const { return m_listeners.size(); }
    // The index of the listener whose epoll data is `ptr`, or -1.
    int Find(const void* ptr) const;
    // Accepts what the listener holds (at most kAcceptBatch) unless it is paused.
    void AcceptReady(size_t idx);
    // Puts paused listeners back into the epoll set.
    void Resume();
    // Takes listener `idx` out of the epoll set for about `ms` (or until Resume), without
    // counting a pause: the owner's budget for new connections is spent for now, and a
    // readable listener left in the level-triggered set would wake every wait meanwhile.
    void PauseFor(size_t idx, int ms) { Pause(idx, ms); }
    void CloseAll();

    // Hand-over between processes.
    // A listening socket received from the previous process, kept until a Listen on its URL
    // (CTcpListener::CanonicalURL) takes it instead of binding anew: the same socket, so
    // nothing in its queue is lost. A Listen takes every inherited socket on its address
    // (one per loop of a group that listened with SO_REUSEPORT), each a listener of its own.
    void AddInherited(const std::string& url, int fd) { m_inherited.emplace_back(url, fd); }
    // Closes the inherited sockets no Listen took (WARN each: connections in their queues
    // are refused); how many.
    int CloseUnclaimed();
    bool HasInherited() const { return !m_inherited.empty(); }
    // Each open listener's URL and descriptor (still this acceptor's).
    std::vector<std::pair<std::string, int>> ListenerFds() const;
    // Takes every listener out of the epoll set and closes its descriptor without removing
    // a unix:// listener's file: the successor serves the sockets now.
    void ReleaseAll();
    // Pauses at the descriptor limit, and at the connection limit with no room made.
    int GetPauseCount() const { return m_pause_cnt; }
    uint64_t GetLimitPauseCount() const { return m_limit_pause_cnt; }
    uint64_t GetAcceptCount() const { return m_accept_cnt; }

    // Raises the soft descriptor limit to the hard one (logged when it changes or cannot).
    static void RaiseFdLimit(LogCategory* cat);
    // Connections waiting in the queue of listening socket `fd` (TCP_INFO), or -1 when the
    // kernel does not say.
    static int QueuedCount(int fd);

  private:
    // Adds an open listener to the epoll set and the list. Its port, or -2.
    int AddListener(std::unique_ptr<CTcpListener> l, const char* url);
    // Takes listener `idx` out of the epoll set until Resume; arms the retry timer (unless
    // one is armed already).
    void Pause(size_t idx, int retry_ms = kAcceptRetryMs);
    void PauseForDescriptors(size_t idx);

    CEventLoop& m_loop;
    LogCategory* m_log_cat;
    AdoptFn m_adopt;
    RefusedFn m_refused;
    IGate* m_gate;
    std::vector<std::unique_ptr<CTcpListener>> m_listeners;
    std::vector<bool> m_paused;
    std::vector<std::pair<std::string, int>> m_inherited;  // URL, descriptor (see AddInherited)
    uint64_t m_retry_timer;
    bool m_fd_episode;                    // paused for descriptors since the queue last drained
    Relaxed<int> m_pause_cnt;             // descriptor pauses; written by the loop thread, read by any
    Relaxed<uint64_t> m_limit_pause_cnt;  // connection-limit pauses; likewise
    Relaxed<uint64_t> m_accept_cnt;       // descriptors accepted; written by the loop thread
};

}  // namespace QUOLNET
