// CTcpConnector: the receive path (placeholder until the receive path lands).
#include "net/tcp_connector.h"
#include "net/tcp_connector_log.h"

namespace QUOLNET {

int CTcpConnector::Recv() {
    QN_LOG(m_log_cat, QN_ERROR, "CTcpConnector::Recv() is not available in this build, url=%s", GetURL());
    return -1;
}

int CTcpConnector::Peek(const char** buf, unsigned int& len, LogCategory* log_cat) {
    if (buf != nullptr) {
        *buf = nullptr;
    }
    len = 0;
    QN_LOG(log_cat ? log_cat : m_log_cat, QN_ERROR, "CTcpConnector::Peek() is not available in this build, url=%s",
           GetURL());
    return -1;
}

int CTcpConnector::Drop() {
    QN_LOG(m_log_cat, QN_ERROR, "CTcpConnector::Drop() is not available in this build, url=%s", GetURL());
    return -1;
}

}  // namespace QUOLNET
