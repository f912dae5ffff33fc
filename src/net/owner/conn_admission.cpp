// CConnAdmission: the connection limit, closing the connections idle the longest to admit
// waiting ones, and the per-source cap.
#include "net/owner/conn_admission.h"

#include <sys/resource.h>

#include <algorithm>
#include <climits>

#include "net/connector_mgr.h"
#include "net/owner/owner_log.h"

namespace QUOLNET {

bool CSourceCounts::Add(const std::string& source, unsigned int cap) {
    std::lock_guard<std::mutex> lock(m_mutex);
    unsigned int& n = m_counts[source];
    if (n >= cap) {
        if (n == 0) {
            m_counts.erase(source);
        }
        return false;
    }
    ++n;
    return true;
}

void CSourceCounts::Remove(const std::string& source) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_counts.find(source);
    if (it != m_counts.end() && --it->second == 0) {
        m_counts.erase(it);
    }
}

unsigned int CSourceCounts::Count(const std::string& source) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_counts.find(source);
    return it != m_counts.end() ? it->second : 0;
}

std::string CSourceCounts::SourceOf(const std::string& peer_url) {
    static const std::string kScheme = "tcp://";
    size_t from = peer_url.compare(0, kScheme.size(), kScheme) == 0 ? kScheme.size() : 0;
    size_t colon = peer_url.rfind(':');
    if (colon == std::string::npos || colon < from) {
        return peer_url.substr(from);
    }
    return peer_url.substr(from, colon - from);
}

CConnAdmission::CConnAdmission(CConnectorMgr& mgr)
    : m_mgr(mgr),
      m_limit(0),
      m_loops(1),
      m_sources(&m_own_sources),
      m_episode(false),
      m_evict_logged(false),
      m_full_logged(false),
      m_below_since(0),
      m_episode_evictions(0),
      m_last_refusal_ms(0) {}

void CConnAdmission::JoinGroup(int loops, CSourceCounts* sources) {
    m_loops = std::max(1, loops);
    if (sources != nullptr) {
        m_sources = sources;
    }
}

unsigned int CConnAdmission::DerivedLimit(unsigned int fd_reserve, int loops) {
    struct rlimit rl;
    uint64_t soft = 1024;  // the usual default, should getrlimit fail
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0) {
        soft = rl.rlim_cur == RLIM_INFINITY ? static_cast<uint64_t>(INT_MAX)
                                            : static_cast<uint64_t>(rl.rlim_cur);
    }
    soft = std::min<uint64_t>(soft, INT_MAX);
    uint64_t figure = soft > 2ull * fd_reserve ? soft - fd_reserve : soft / 2;
    figure /= static_cast<uint64_t>(std::max(1, loops));
    return static_cast<unsigned int>(std::max<uint64_t>(1, figure));
}

void CConnAdmission::Init() {
    const ConnectorMgrOptions& o = m_mgr.m_options;
    m_limit = o.max_connections != 0 ? o.max_connections : DerivedLimit(o.fd_reserve, m_loops);
}

int CConnAdmission::Room() {
    size_t n = m_mgr.m_table.Size();
    return n < m_limit ? static_cast<int>(std::min<size_t>(m_limit - n, INT_MAX)) : 0;
}

// A connection that may be closed for a newcomer: accepted, established, and holding
// nothing of the application's or the peer's that a close would lose.
bool CConnAdmission::Evictable(const OwnedConn* c) const {
    CTcpConnector* k = c->connector.get();
    return c->accepted && !c->dead && c->state == CONN_ESTABLISHED && !c->graceful && !c->close_requested &&
           !c->refused && !c->app_paused && !c->corked && !c->send_failed && c->holds.load() == 0 &&
           c != m_mgr.m_delivering && k->GetStatus() == CONNECTOR_STATUS_CONNECTED &&
           k->GetSendQCount() == 0 && k->GetPacketInfoCnt() == 0;
}

void CConnAdmission::Evict(OwnedConn* c) {
    QN_OWNER_LOG(
        m_mgr.LogCat(), LOG_PRIORITY_DEBUG, "closing connection %llu, url=%s: %s limit (idle %lld ms)",
        static_cast<unsigned long long>(c->id), c->url.c_str(), CloseLimitName(CloseLimit::kIdleEvicted),
        static_cast<long long>(CEventLoop::NowMs() - c->progress.active_ms));
    c->close_info_set = false;  // the limit is why it ends, whatever was recorded before
    m_mgr.m_service.SetCloseInfo(c, CloseReason::kLimit, 0, CloseLimit::kIdleEvicted);
    m_mgr.m_service.BeginClose(c);
}

void CConnAdmission::StartEpisode(int64_t now) {
    (void)now;
    if (!m_episode) {
        m_episode = true;
        m_evict_logged = false;
        m_full_logged = false;
        m_episode_evictions = 0;
    }
    m_below_since = 0;
}

// Walks the connections once: each candidate's progress is brought up to date first (the
// sweep's view may be a sweep period old), then the longest idle are closed, oldest first.
int CConnAdmission::MakeRoom(int waiting) {
    int room = Room();
    if (room > 0 || waiting <= 0) {
        return room;
    }
    int64_t now = CEventLoop::NowMs();
    StartEpisode(now);
    const int idle_ms = m_mgr.m_options.evict_idle_ms;
    if (idle_ms <= 0) {
        return 0;
    }
    m_candidates.clear();
    for (auto& kv : m_mgr.m_table.ById()) {
        OwnedConn* c = kv.second;
        if (!Evictable(c)) {
            continue;
        }
        m_mgr.m_limits.Track(c, now);
        if (now - c->progress.active_ms >= idle_ms) {
            m_candidates.push_back(std::make_pair(c->progress.active_ms, c));
        }
    }
    size_t n = std::min(m_candidates.size(), static_cast<size_t>(waiting));
    if (n == 0) {
        return 0;
    }
    std::partial_sort(m_candidates.begin(), m_candidates.begin() + static_cast<std::ptrdiff_t>(n),
                      m_candidates.end(),
                      [](const std::pair<int64_t, OwnedConn*>& a, const std::pair<int64_t, OwnedConn*>& b) {
                          return a.first != b.first ? a.first < b.first : a.second->id < b.second->id;
                      });
    if (!m_evict_logged) {
        m_evict_logged = true;
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN,
                     "connection limit reached (%zu connections): closing the connections idle longest to "
                     "admit new ones",
                     m_mgr.m_table.Size());
    }
    int evicted = 0;
    for (size_t i = 0; i < n; ++i) {
        OwnedConn* c = m_candidates[i].second;
        // A handler's OnClosed for an earlier one may have acted on this one.
        if (!Evictable(c)) {
            continue;
        }
        Evict(c);
        ++evicted;
        ++m_episode_evictions;
    }
    m_candidates.clear();
    return std::max(evicted, Room());
}

void CConnAdmission::OnFull(const std::string& url) {
    if (m_full_logged) {
        return;
    }
    m_full_logged = true;
    const int idle_ms = m_mgr.m_options.evict_idle_ms;
    if (idle_ms > 0) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN,
                     "connection limit reached (%zu connections), none idle for %d ms: accept paused, url=%s",
                     m_mgr.m_table.Size(), idle_ms, url.c_str());
    } else {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN,
                     "connection limit reached (%zu connections), eviction off: accept paused, url=%s",
                     m_mgr.m_table.Size(), url.c_str());
    }
}

bool CConnAdmission::MakeRoomForHandOut() {
    if (Room() > 0 || MakeRoom(1) > 0) {
        return true;
    }
    int64_t now = CEventLoop::NowMs();
    if (m_last_over_limit_ms == 0 || now - m_last_over_limit_ms >= kQuietMs) {
        QN_OWNER_LOG(m_mgr.LogCat(), LOG_PRIORITY_WARN,
                     "connection limit reached and none idle enough to close: handed-out connections are "
                     "refused at accept (logged once while refusals go on)");
    }
    m_last_over_limit_ms = now;
    m_mgr.m_stats.CountRefused(AcceptRefusal::kOverLimit);
    return false;
}

bool CConnAdmission::AdmitSource(const std::string& peer) {
    const unsigned int cap = m_mgr.m_options.max_connections_per_source;
    if (cap == 0 || CTcpListener::IsUnixURL(peer.c_str())) {
        return true;  // a unix socket's peers are unnamed: no source to count
    }
    std::string source = CSourceCounts::SourceOf(peer);
    if (m_sources->Add(source, cap)) {
        return true;
    }
    int64_t now = CEventLoop::NowMs();
    if (m_last_refusal_ms == 0 || now - m_last_refusal_ms >= kQuietMs) {
        QN_OWNER_LOG(
            m_mgr.LogCat(), LOG_PRIORITY_WARN,
            "connections from %s over max_connections_per_source (%u): refused at accept (logged once "
            "while refusals go on)",
            source.c_str(), cap);
    }
    m_last_refusal_ms = now;
    m_mgr.m_stats.CountRefused(AcceptRefusal::kPerSource);
    return false;
}

void CConnAdmission::SourceReleased(const std::string& peer) {
    if (m_mgr.m_options.max_connections_per_source != 0 && !CTcpListener::IsUnixURL(peer.c_str())) {
        m_sources->Remove(CSourceCounts::SourceOf(peer));
    }
}

void CConnAdmission::Observe(int64_t now) {
    if (!m_episode) {
        return;
    }
    size_t n = m_mgr.m_table.Size();
    if (n >= m_limit) {
        m_below_since = 0;
        return;
    }
    if (m_below_since == 0) {
        m_below_since = now;
        return;
    }
    if (now - m_below_since < kQuietMs) {
        return;
    }
    m_episode = false;
    m_below_since = 0;
    QN_OWNER_LOG(
        m_mgr.LogCat(), LOG_PRIORITY_INFO,
        "connection count below the limit again (%zu of %u): %llu idle connections closed in the episode", n,
        m_limit, static_cast<unsigned long long>(m_episode_evictions));
}

}  // namespace QUOLNET
