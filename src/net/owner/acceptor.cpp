// CAcceptor: listeners, accept4, the admission gate and the pauses at the limits.
#include "net/owner/acceptor.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "net/owner/owner_log.h"

namespace QUOLNET {

int CAcceptor::Listen(const char* url, int backlog, bool reuse_port, const SocketOptions& socket) {
    std::string canonical = m_inherited.empty() ? std::string() : CTcpListener::CanonicalURL(url);
    int port = -1;
    bool took = false;
    // Every inherited socket on this address is taken (a group that listened with
    // SO_REUSEPORT passes one per loop, each with its own queue): none is closed unread.
    for (size_t i = 0; i < m_inherited.size();) {
        if (canonical.empty() || m_inherited[i].first != canonical) {
            ++i;
            continue;
        }
        int fd = m_inherited[i].second;
        m_inherited.erase(m_inherited.begin() + static_cast<std::ptrdiff_t>(i));
        std::unique_ptr<CTcpListener> l(new CTcpListener());
        l->SetSocketOptions(socket);
        int ret = l->Inherit(fd, url, m_log_cat);
        if (ret != 0) {
            ::close(fd);
            continue;
        }
        ret = AddListener(std::move(l), url);
        if (ret < 0) {
            return ret;
        }
        if (!took) {
            port = ret;
            took = true;
        }
    }
    if (took) {
        return port;
    }
    std::unique_ptr<CTcpListener> l(new CTcpListener());
    l->SetSocketOptions(socket);
    int ret = l->Open(url, backlog, m_log_cat, reuse_port);
    if (ret != 0) {
        return ret;
    }
    return AddListener(std::move(l), url);
}

int CAcceptor::AddListener(std::unique_ptr<CTcpListener> l, const char* url) {
    if (m_loop.Poller().Add(l->GetFd(), EPOLLIN, l.get()) != 0) {
        QN_OWNER_LOG(m_log_cat, LOG_PRIORITY_ERROR, "epoll_ctl(ADD listener) failed, url=%s, errno=%d", url,
                     errno);
        return -2;
    }
    int port = l->GetPort();
    m_listeners.push_back(std::move(l));
    m_paused.push_back(false);
    return port;
}

std::string CAcceptor::GetListenURL(size_t i) const {
    return i < m_listeners.size() ? m_listeners[i]->GetURL() : std::string();
}

int CAcceptor::GetListenerFd(size_t i) const {
    return i < m_listeners.size() ? m_listeners[i]->GetFd() : -1;
}

int CAcceptor::Find(const void* ptr) const {
    for (size_t j = 0; j < m_listeners.size(); ++j) {
        if (m_listeners[j].get() == ptr) {
            return static_cast<int>(j);
        }
    }
    return -1;
}

void CAcceptor::AcceptReady(size_t idx) {
    if (m_paused[idx]) {
        return;
    }
    CTcpListener* l = m_listeners[idx].get();
    int allowed = m_gate != nullptr ? m_gate->Room() : kAcceptBatch;
    for (int i = 0; i < kAcceptBatch; ++i) {
        if (allowed <= 0) {
            // At the limit: room for what waits, no more (an unknown queue counts as one,
            // since the listener was reported readable).
            int waiting = QueuedCount(l->GetFd());
            if (waiting == 0) {
                return;
            }
            allowed = m_gate->MakeRoom(std::min(waiting < 0 ? 1 : waiting, kAcceptBatch - i));
            if (allowed <= 0) {
                ++m_limit_pause_cnt;
                Pause(idx);
                m_gate->OnFull(l->GetURL());
                return;
            }
        }
        std::string peer;
        int fd = l->Accept(&peer);
        if (fd == CTcpListener::ACCEPT_WOULD_BLOCK) {
            if (m_fd_episode) {
                m_fd_episode = false;
                QN_OWNER_LOG(m_log_cat, LOG_PRIORITY_INFO,
                             "accepting again, url=%s: the queue is drained (%d pauses for descriptors)",
                             l->GetURL().c_str(), static_cast<int>(m_pause_cnt));
            }
            return;
        }
        if (fd == CTcpListener::ACCEPT_FD_LIMIT) {
            PauseForDescriptors(idx);
            return;
        }
        if (fd == CTcpListener::ACCEPT_REFUSED) {
            ++m_accept_cnt;  // accepted, then closed: the listener logged the first one
            if (m_refused) {
                m_refused();
            }
            continue;
        }
        if (fd < 0) {
            continue;
        }
        ++m_accept_cnt;
        --allowed;
        m_adopt(fd, peer, l->GetSocketOptions().stream);
    }
}

// Connections in the accept queue: for a listening socket the kernel reports them in
// tcpi_unacked (and the backlog in tcpi_sacked).
int CAcceptor::QueuedCount(int fd) {
    struct tcp_info info;
    memset(&info, 0, sizeof(info));
    socklen_t len = sizeof(info);
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0 || info.tcpi_state != TCP_LISTEN) {
        return -1;
    }
    return static_cast<int>(std::min<uint32_t>(info.tcpi_unacked, 1u << 30));
}

void CAcceptor::Pause(size_t idx, int retry_ms) {
    if (m_paused[idx]) {
        return;
    }
    m_loop.Poller().Modify(m_listeners[idx]->GetFd(), 0, m_listeners[idx].get());
    m_paused[idx] = true;
    if (m_retry_timer == 0) {
        m_retry_timer = m_loop.AddTimer(retry_ms, 0, [this]() {
            m_retry_timer = 0;
            Resume();
        });
    }
}

// Out of descriptors: the connection limit leaves too few for what the application holds
// besides (or none is set). Logged once per episode; every pause is counted.
void CAcceptor::PauseForDescriptors(size_t idx) {
    if (m_paused[idx]) {
        return;
    }
    Pause(idx);
    ++m_pause_cnt;
    if (!m_fd_episode) {
        m_fd_episode = true;
        QN_OWNER_LOG(m_log_cat, LOG_PRIORITY_WARN,
                     "accept paused, out of descriptors, url=%s, errno=%d; retried when a connection closes "
                     "(logged once until the queue drains; %d pauses so far)",
                     m_listeners[idx]->GetURL().c_str(), m_listeners[idx]->GetLastErrno(),
                     static_cast<int>(m_pause_cnt));
    }
}

void CAcceptor::Resume() {
    for (size_t i = 0; i < m_listeners.size(); ++i) {
        if (!m_paused[i]) {
            continue;
        }
        m_loop.Poller().Modify(m_listeners[i]->GetFd(), EPOLLIN, m_listeners[i].get());
        m_paused[i] = false;
    }
}

int CAcceptor::CloseUnclaimed() {
    int n = 0;
    for (auto& u : m_inherited) {
        QN_OWNER_LOG(
            m_log_cat, LOG_PRIORITY_WARN,
            "taken-over listener %s closed: no Listen asked for it (connections in its queue are refused)",
            u.first.c_str());
        ::close(u.second);
        ++n;
    }
    m_inherited.clear();
    return n;
}

std::vector<std::pair<std::string, int>> CAcceptor::ListenerFds() const {
    std::vector<std::pair<std::string, int>> out;
    for (const auto& l : m_listeners) {
        if (l->GetFd() >= 0) {
            out.emplace_back(l->GetURL(), l->GetFd());
        }
    }
    return out;
}

void CAcceptor::ReleaseAll() {
    for (auto& l : m_listeners) {
        if (l->GetFd() >= 0) {
            m_loop.Poller().Remove(l->GetFd());
            l->Release();
        }
    }
}

void CAcceptor::CloseAll() {
    for (auto& l : m_listeners) {
        if (l->GetFd() >= 0) {
            m_loop.Poller().Remove(l->GetFd());  // before the close: a poller may hold the socket
        }
        l->Close();
    }
}

// A server that holds many connections needs descriptors: the soft limit goes up to the
// hard one, which an unprivileged process may do. Logged when it changes or cannot.
void CAcceptor::RaiseFdLimit(LogCategory* cat) {
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur >= rl.rlim_max) {
        return;
    }
    rlim_t before = rl.rlim_cur;
    rl.rlim_cur = rl.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &rl) != 0) {
        QN_OWNER_LOG(cat, LOG_PRIORITY_WARN, "cannot raise the descriptor limit from %llu to %llu, errno=%d",
                     static_cast<unsigned long long>(before), static_cast<unsigned long long>(rl.rlim_max),
                     errno);
        return;
    }
    QN_OWNER_LOG(cat, LOG_PRIORITY_INFO, "descriptor limit raised from %llu to %llu",
                 static_cast<unsigned long long>(before), static_cast<unsigned long long>(rl.rlim_max));
}

}  // namespace QUOLNET
