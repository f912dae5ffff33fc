#include "net/net_connector.h"

#include <cstring>

namespace QUOLNET {

int CConnector::m_socket_send_buff_size = 256 * 1024;
int CConnector::m_socket_recv_buff_size = 256 * 1024;

CConnector::CConnector(char* last_err, RecvPkgCallback cb, void* cb_para)
    : m_idx(-1),
      m_status(CONNECTOR_STATUS_DISCONNECTED),
      m_last_err(last_err),
      m_is_accepted(false),
      m_log_cat(nullptr),
      m_bIPv6(false),
      m_recv_callback(cb),
      m_callback_arg(cb_para) {
    m_node.pPrev = m_node.pNext = nullptr;
    m_node.pData = this;
    m_alloc_node.pPrev = m_alloc_node.pNext = nullptr;
    m_alloc_node.pData = this;
    memset(m_url, 0, sizeof(m_url));
    m_send_buf_full_tv.tv_sec = 0;
    m_send_buf_full_tv.tv_usec = 0;
}

CConnector::~CConnector() {}

int CConnector::Init(const char* url, IPackParser* /*parser*/, int /*epoll*/, int /*socket*/) {
    if (url == nullptr) {
        return -1;
    }
    size_t n = strlen(url);
    if (n >= sizeof(m_url)) {
        return -1;
    }
    // Zero the rest too, so that nothing of an earlier URL stays behind the terminator.
    memset(m_url, 0, sizeof(m_url));
    memcpy(m_url, url, n);
    return 0;
}

void CConnector::Fini() {}

int CConnector::GetConstantSendBufFullMS() {
    long sec = __atomic_load_n(&m_send_buf_full_tv.tv_sec, __ATOMIC_RELAXED);
    long usec = __atomic_load_n(&m_send_buf_full_tv.tv_usec, __ATOMIC_RELAXED);
    if (sec == 0 && usec == 0) {
        return 0;
    }
    struct timeval now;
    gettimeofday(&now, nullptr);
    long long ms = (static_cast<long long>(now.tv_sec) - sec) * 1000 + (now.tv_usec - usec) / 1000;
    return ms < 0 ? 0 : static_cast<int>(ms);
}

}  // namespace QUOLNET
