// CTcpConnector: the send path (placeholder until the send path lands).
#include "net/tcp_connector.h"
#include "net/tcp_connector_log.h"

namespace QUOLNET {

int CTcpConnector::Send(const char* /*buf*/, unsigned int /*len*/, LogCategory* log_cat) {
    QN_LOG(log_cat ? log_cat : m_log_cat, QN_ERROR, "CTcpConnector::Send() is not available in this build, url=%s",
           GetURL());
    return -1;
}

int CTcpConnector::Send() {
    QN_LOG(m_log_cat, QN_ERROR, "CTcpConnector::Send() is not available in this build, url=%s", GetURL());
    return -1;
}

bool CTcpConnector::IsSendBufEnough(unsigned int /*len*/) { return false; }

int CTcpConnector::SendToQ(const char* /*buf*/, unsigned int /*len*/, LogCategory* log_cat) {
    QN_LOG(log_cat ? log_cat : m_log_cat, QN_ERROR,
           "CTcpConnector::SendToQ() is not available in this build, url=%s", GetURL());
    return -1;
}

int CTcpConnector::GetConstantSendBufFullMS() { return 0; }

}  // namespace QUOLNET
