// CAcceptor: a manager's listening sockets, accepting into new connections, and the pause
// at the descriptor limit.
//
// When accept4 fails for want of descriptors (EMFILE, ENFILE) or kernel memory, the
// listener leaves the epoll set (so the level-triggered wait does not spin on a backlog it
// cannot take) and comes back when a connection releases its descriptor (Resume, called by
// the manager) or after kAcceptRetryMs, whichever is first. Each pause is logged once and
// counted.
//
// Threads: the loop thread (or any thread before the loop runs) calls everything, except
// GetPauseCount, which any thread reads. The adopt function runs on the loop thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/relaxed.h"
#include "log/log.h"
#include "net/owner/event_loop.h"
#include "net/tcp_listener.h"

namespace QUOLNET {

class CAcceptor {
  public:
    static constexpr int kAcceptRetryMs = 200;  // retry of a listener paused at the fd limit
    static constexpr int kAcceptBatch = 256;    // accepts per readiness report and listener

    // `adopt` takes each accepted descriptor (non-blocking, close-on-exec, TCP_NODELAY) and
    // the peer's URL, and owns the descriptor from then on.
    typedef std::function<void(int fd, const std::string& peer)> AdoptFn;

    explicit CAcceptor(CEventLoop& loop) : m_loop(loop), m_log_cat(nullptr), m_retry_timer(0) {}
    void SetLogCat(LogCategory* cat) { m_log_cat = cat; }
    void SetAdopt(AdoptFn adopt) { m_adopt = std::move(adopt); }

    // Listens on `url` (SO_REUSEPORT when `reuse_port`) and adds the listener to the loop's
    // epoll. Returns the bound port, -1 for a malformed URL, -2 when the socket cannot
    // listen, -3 when SO_REUSEPORT was asked for and refused.
    int Listen(const char* url, int backlog, bool reuse_port);
    std::string GetListenURL(size_t i) const;
    size_t GetListenerCount() const { return m_listeners.size(); }
    // The index of the listener whose epoll data is `ptr`, or -1.
    int Find(const void* ptr) const;
    // Accepts what the listener holds (at most kAcceptBatch) unless it is paused.
    void AcceptReady(size_t idx);
    // Puts paused listeners back into the epoll set.
    void Resume();
    void CloseAll();
    int GetPauseCount() const { return m_pause_cnt; }
    uint64_t GetAcceptCount() const { return m_accept_cnt; }

    // Raises the soft descriptor limit to the hard one (logged when it changes or cannot).
    static void RaiseFdLimit(LogCategory* cat);

  private:
    void Pause(size_t idx);

    CEventLoop& m_loop;
    LogCategory* m_log_cat;
    AdoptFn m_adopt;
    std::vector<std::unique_ptr<CTcpListener>> m_listeners;
    std::vector<bool> m_paused;
    uint64_t m_retry_timer;
    Relaxed<int> m_pause_cnt;        // written by the loop thread, read by any
    Relaxed<uint64_t> m_accept_cnt;  // descriptors accepted; written by the loop thread
};

}  // namespace QUOLNET
