// CTcpConnector: URL parsing and the local address text.
#include <arpa/inet.h>
#include <errno.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "net/tcp_connector.h"
#include "net/tcp_connector_log.h"

namespace QUOLNET {

int CTcpConnector::ParseURL() {
    QN_LOG(m_log_cat, QN_INFO, "enter CTcpConnector::ParseURL(), url=%s", GetURL());

    // The six characters of the scheme are skipped, not compared (a shorter text is searched
    // from its end, so nothing beyond the terminator is read).
    size_t url_len = strlen(m_url);
    char* colon = strchr(m_url + (url_len < 6 ? url_len : 6), ':');
    if (colon == nullptr) {
        QN_LOG(m_log_cat, QN_ERROR, "parse url failed -- no port in url, url=%s", GetURL());
        return -1;
    }
    *colon = '\0';
    struct in_addr addr;
    if (inet_aton(GetURL() + 6, &addr) == 0) {
        // m_url deliberately stays cut at the host on this path.
        QN_LOG(m_log_cat, QN_ERROR, "parse url failed -- aton(ip), url=%s, ret=%d", GetURL(), 0);
        return -2;
    }
    *colon = ':';
    // Read as a long and range-checked, so that 65536 and above are refused rather than
    // cut to their low 16 bits.
    long wide = strtol(colon + 1, nullptr, 10);
    int port = wide > 65535 ? -1 : static_cast<int>(wide);
    if (port <= 0) {
        QN_LOG(m_log_cat, QN_ERROR, "parse url failed -- atoi(port), url=%s, ret=%d", GetURL(), port);
        return -3;
    }
    m_addr.sin_addr = addr;
    m_addr.sin_port = htons(static_cast<uint16_t>(port));
    m_addr.sin_family = AF_INET;
    m_port = port;
    memcpy(&m_ip, &addr, sizeof(m_ip));
    return 0;
}

int CTcpConnector::ParseURLV6() {
    QN_LOG(m_log_cat, QN_INFO, "enter CTcpConnector::ParseURLV6(), url=%s", GetURL());

    // "tcp://[" is skipped, not compared (a shorter text is searched from its end).
    size_t url_len = strlen(m_url);
    char* bracket = strchr(m_url + (url_len < 7 ? url_len : 7), ']');
    if (bracket == nullptr) {
        QN_LOG(m_log_cat, QN_ERROR, "parse url failed -- no [ipv6] in url, url=%s", GetURL());
        return -1;
    }
    *bracket = '\0';
    struct in6_addr addr;
    if (inet_pton(AF_INET6, m_url + (url_len < 7 ? url_len : 7), &addr) != 1) {
        // m_url deliberately stays cut at the address on this path.
        QN_LOG(m_log_cat, QN_ERROR, "parse url failed -- inet_pton(ip), url=%s, ret=%d", GetURL(), 0);
        return -2;
    }
    *bracket = ']';
    if (bracket[1] != ':') {
        QN_LOG(m_log_cat, QN_ERROR, "parse url failed -- no port in url, url=%s", GetURL());
        return -1;
    }
    long wide = strtol(bracket + 2, nullptr, 10);
    int port = wide > 65535 ? -1 : static_cast<int>(wide);
    if (port <= 0) {
        QN_LOG(m_log_cat, QN_ERROR, "parse url failed -- atoi(port), url=%s, ret=%d", GetURL(), port);
        return -3;
    }
    m_port = port;
    m_addr6.sin6_port = htons(static_cast<uint16_t>(port));
    m_addr6.sin6_family = AF_INET6;
    m_addr6.sin6_addr = addr;
    memcpy(&m_ipv6, &addr, sizeof(m_ipv6));
    return 0;
}

bool CTcpConnector::CheckURL(const char* url) {
    return url != nullptr && strncmp(url, "tcp://", 6) == 0;
}

const char* CTcpConnector::GetLocalURL() {
    return m_peer_url;
}

int GetLocalSocketName(bool ipv6, int socket, char* url, LogCategory* log_cat) {
    if (ipv6) {
        struct sockaddr_in6 local_addr;
        socklen_t local_addr_len = sizeof(local_addr);
        memset(&local_addr, 0, sizeof(local_addr));
        if (getsockname(socket, reinterpret_cast<struct sockaddr*>(&local_addr), &local_addr_len) == -1) {
            QN_LOG(log_cat, QN_ERROR, "getsockname() failed, socket=%d, errno=%d", socket, errno);
            return -1;
        }
        char text[47];
        memset(text, 0, sizeof(text));
        inet_ntop(AF_INET6, &local_addr.sin6_addr, text, sizeof(text));
        snprintf(url, 256, "tcp://[%s]:%d", text, ntohs(local_addr.sin6_port));
    } else {
        struct sockaddr_in local_addr;
        socklen_t local_addr_len = sizeof(local_addr);
        memset(&local_addr, 0, sizeof(local_addr));
        if (getsockname(socket, reinterpret_cast<struct sockaddr*>(&local_addr), &local_addr_len) == -1) {
            QN_LOG(log_cat, QN_ERROR, "getsockname() failed, socket=%d, errno=%d", socket, errno);
            return -1;
        }
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &local_addr.sin_addr, text, sizeof(text));  // inet_ntoa, thread-safe
        snprintf(url, 256, "tcp://%s:%d", text, ntohs(local_addr.sin_port));
    }
    return 0;
}

}  // namespace QUOLNET
