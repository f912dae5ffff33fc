// Connect's failures that a healthy loopback cannot produce, provoked through link-time seams
// (see tcp_connector_connect_faults_test.wraps): a socket that cannot be created, socket
// options that fail, a dial that fails hard or returns something unexpected. The seams also
// record what the connector passed (TCP_NODELAY value and size, buffer sizes, the epoll
// registration, the address length) and count calls into the logging library.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "net/tcp_connector.h"
#include "support/connector_peer.h"
#include "support/log_capture.h"
#include "support/net_helpers.h"

namespace {

using qntest::FdOpen;
using qntest::Fmt;

// Armed faults and what the seams saw. Tests run on one thread.
struct Seams {
    int socket_errno = 0;       // nonzero: socket() fails with it
    int nonblock_errno = 0;     // nonzero: sock_set_nonblock fails with it
    int nodelay_errno = 0;      // nonzero: setsockopt(TCP_NODELAY) fails with it
    int sendbuff_errno = 0;     // nonzero: sock_set_sendbuff fails with it
    int recvbuff_errno = 0;     // nonzero: sock_set_recvbuff fails with it
    bool connect_fake = false;  // true: connect() returns connect_result with connect_errno
    int connect_result = 0;
    int connect_errno = 0;

    int last_socket_domain = -1;
    int nodelay_value = -1;
    socklen_t nodelay_len = 0;
    int sendbuff_size = -1;
    int recvbuff_size = -1;
    socklen_t connect_len = 0;
    int connect_family = -1;
    int add_op = -1;
    int add_fd = -1;
    unsigned int add_events = 0;
    void* add_ptr = nullptr;
    int log_can_write_calls = 0;
};
Seams g_seams;

}  // namespace

extern "C" {
int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    g_seams.last_socket_domain = domain;
    if (g_seams.socket_errno != 0) {
        errno = g_seams.socket_errno;
        return -1;
    }
    return __real_socket(domain, type, protocol);
}

int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t len);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t len) {
    if (level == IPPROTO_TCP && name == TCP_NODELAY) {
        g_seams.nodelay_len = len;
        g_seams.nodelay_value = len == sizeof(int) ? *static_cast<const int*>(value) : -1;
        if (g_seams.nodelay_errno != 0) {
            errno = g_seams.nodelay_errno;
            return -1;
        }
    }
    return __real_setsockopt(fd, level, name, value, len);
}

int __real_connect(int fd, const struct sockaddr* addr, socklen_t len);
int __wrap_connect(int fd, const struct sockaddr* addr, socklen_t len) {
    g_seams.connect_len = len;
    g_seams.connect_family = addr != nullptr ? addr->sa_family : -1;
    if (g_seams.connect_fake) {
        errno = g_seams.connect_errno;
        return g_seams.connect_result;
    }
    return __real_connect(fd, addr, len);
}

int __real_epoll_ctl(int epfd, int op, int fd, struct epoll_event* event);
int __wrap_epoll_ctl(int epfd, int op, int fd, struct epoll_event* event) {
    if (op == EPOLL_CTL_ADD && event != nullptr) {
        g_seams.add_op = op;
        g_seams.add_fd = fd;
        g_seams.add_events = event->events;
        g_seams.add_ptr = event->data.ptr;
    }
    return __real_epoll_ctl(epfd, op, fd, event);
}

// QUOLNET::sock_set_nonblock(int, int)
int __real__ZN7QUOLNET17sock_set_nonblockEii(int socket, int on);
int __wrap__ZN7QUOLNET17sock_set_nonblockEii(int socket, int on) {
    if (g_seams.nonblock_errno != 0) {
        errno = g_seams.nonblock_errno;
        return -1;
    }
    return __real__ZN7QUOLNET17sock_set_nonblockEii(socket, on);
}

// QUOLNET::sock_set_sendbuff(int, int)
int __real__ZN7QUOLNET17sock_set_sendbuffEii(int socket, int size);
int __wrap__ZN7QUOLNET17sock_set_sendbuffEii(int socket, int size) {
    g_seams.sendbuff_size = size;
    if (g_seams.sendbuff_errno != 0) {
        errno = g_seams.sendbuff_errno;
        return -1;
    }
    return __real__ZN7QUOLNET17sock_set_sendbuffEii(socket, size);
}

// QUOLNET::sock_set_recvbuff(int, int)
int __real__ZN7QUOLNET17sock_set_recvbuffEii(int socket, int size);
int __wrap__ZN7QUOLNET17sock_set_recvbuffEii(int socket, int size) {
    g_seams.recvbuff_size = size;
    if (g_seams.recvbuff_errno != 0) {
        errno = g_seams.recvbuff_errno;
        return -1;
    }
    return __real__ZN7QUOLNET17sock_set_recvbuffEii(socket, size);
}

// QUOLNET::log_can_write(LogCategory*, int, int, int)
int __real__ZN7QUOLNET13log_can_writeEPNS_11LogCategoryEiii(QUOLNET::LogCategory* cat, int priority, int r1,
                                                            int r2);
int __wrap__ZN7QUOLNET13log_can_writeEPNS_11LogCategoryEiii(QUOLNET::LogCategory* cat, int priority, int r1,
                                                            int r2) {
    ++g_seams.log_can_write_calls;
    return __real__ZN7QUOLNET13log_can_writeEPNS_11LogCategoryEiii(cat, priority, r1, r2);
}
}  // extern "C"

namespace {

using QUOLNET::CConnector;
using QUOLNET::CNetBufferMgr;
using QUOLNET::CTcpConnector;
using QUOLNET::LOG_PRIORITY_ERROR;
using QUOLNET::LOG_PRIORITY_INFO;

class NoParser : public QUOLNET::IPackParser {
  public:
    int ParsePackLength(const char*, unsigned int) override { return 0; }
};

class ConnectFaultsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        g_seams = Seams();
        m_send_size = CConnector::m_socket_send_buff_size;
        m_recv_size = CConnector::m_socket_recv_buff_size;
        m_epoll = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_GE(m_epoll, 0);
        ASSERT_GE(m_listener.fd(), 0);
        m_url = m_listener.url();
        m_conn.reset(new CTcpConnector(m_combine, sizeof(m_combine), m_combine, sizeof(m_combine), nullptr,
                                       &m_pool, 8, 8, nullptr, nullptr));
        m_conn->SetLogCat(m_log.cat());
        ASSERT_EQ(0, m_conn->Init(m_url.c_str(), &m_parser, m_epoll, -1));
        m_log.Clear();
    }
    void TearDown() override {
        g_seams = Seams();
        m_conn.reset();
        close(m_epoll);
        CConnector::m_socket_send_buff_size = m_send_size;
        CConnector::m_socket_recv_buff_size = m_recv_size;
    }

    // The state every failure -4..-8 leaves: status 0, an open descriptor still stored, the
    // close flag set; Close was entered but did nothing. The test then closes the descriptor.
    void ExpectOpenAndFlagged(int fds_before) {
        CTcpConnector& c = *m_conn;
        EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, c.GetStatus());
        EXPECT_TRUE(c.GetCloseSocket());
        int fd = c.GetSocket();
        EXPECT_TRUE(FdOpen(fd)) << fd;
        EXPECT_EQ(fds_before + 1, qntest::CountOpenFds());
        EXPECT_EQ(-1, qntest::RegisteredEvents(m_epoll, fd));
        EXPECT_TRUE(
            m_log.Has(LOG_PRIORITY_INFO,
                      Fmt("enter CTcpConnector::Close(), url=%s, local_url=, socket=%d", m_url.c_str(), fd)))
            << m_log.Dump();
        EXPECT_FALSE(m_log.HasPrefix(LOG_PRIORITY_INFO, "connect url("));
        close(fd);
    }

    CNetBufferMgr m_pool{8};
    NoParser m_parser;
    char m_combine[256];
    int m_epoll = -1;
    qntest::Listener m_listener;
    std::string m_url;
    qntest::LogCapture m_log;
    std::unique_ptr<CTcpConnector> m_conn;
    int m_send_size = 0;
    int m_recv_size = 0;
};

TEST_F(ConnectFaultsTest, SocketCreationFailureReturnsMinus3WithoutClose) {
    g_seams.socket_errno = EMFILE;
    int before = qntest::CountOpenFds();
    EXPECT_EQ(-3, m_conn->Connect());
    EXPECT_EQ(AF_INET, g_seams.last_socket_domain);
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR,
                          Fmt("create tcp socket failed! url=%s, errno=%d", m_url.c_str(), EMFILE)))
        << m_log.Dump();
    EXPECT_FALSE(m_log.HasPrefix(LOG_PRIORITY_INFO, "enter CTcpConnector::Close()"));
    EXPECT_EQ(-1, m_conn->GetSocket());
    EXPECT_EQ(0, m_conn->GetStatus());
    EXPECT_EQ(before, qntest::CountOpenFds());

    // Nothing is stuck: the next Connect works.
    g_seams.socket_errno = 0;
    EXPECT_EQ(0, m_conn->Connect());
    m_conn->Close(nullptr);
}

TEST_F(ConnectFaultsTest, Ipv6SocketCreationFailureReturnsMinus3) {
    qntest::Listener l6(true);
    if (l6.fd() < 0) {
        GTEST_SKIP() << "no IPv6 loopback";
    }
    std::string url = l6.url();
    ASSERT_EQ(0, m_conn->Init(url.c_str(), &m_parser, m_epoll, -1));
    m_log.Clear();
    g_seams.socket_errno = EACCES;
    EXPECT_EQ(-3, m_conn->Connect());
    EXPECT_EQ(AF_INET6, g_seams.last_socket_domain);
    EXPECT_TRUE(
        m_log.Has(LOG_PRIORITY_ERROR, Fmt("create tcp socket failed! url=%s, errno=%d", url.c_str(), EACCES)))
        << m_log.Dump();
    EXPECT_EQ(-1, m_conn->GetSocket());

    // Unarmed: an IPv6 dial of 28 address bytes.
    g_seams.socket_errno = 0;
    ASSERT_EQ(0, m_conn->Connect());
    EXPECT_EQ(AF_INET6, g_seams.last_socket_domain);
    EXPECT_EQ(28u, g_seams.connect_len);
    EXPECT_EQ(AF_INET6, g_seams.connect_family);
    m_conn->Close(nullptr);
}

TEST_F(ConnectFaultsTest, NonblockFailureReturnsMinus4AndLeavesTheSocketOpenAndFlagged) {
    g_seams.nonblock_errno = EINVAL;
    int before = qntest::CountOpenFds();
    EXPECT_EQ(-4, m_conn->Connect());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, Fmt("set socket option -- nonblock failed! url=%s, errno=%d",
                                                  m_url.c_str(), EINVAL)))
        << m_log.Dump();
    EXPECT_EQ(-1, g_seams.nodelay_value);  // stopped before TCP_NODELAY
    ExpectOpenAndFlagged(before);
}

TEST_F(ConnectFaultsTest, NoDelayFailureReturnsMinus5AndASecondConnectOverwritesTheSocket) {
    g_seams.nodelay_errno = ENOPROTOOPT;
    int before = qntest::CountOpenFds();
    EXPECT_EQ(-5, m_conn->Connect());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, Fmt("set socket option -- no delay failed! url=%s, errno=%d",
                                                  m_url.c_str(), ENOPROTOOPT)))
        << m_log.Dump();
    EXPECT_EQ(1, g_seams.nodelay_value);
    EXPECT_EQ(4u, g_seams.nodelay_len);
    EXPECT_EQ(-1, g_seams.sendbuff_size);  // stopped before the buffer sizes
    int first = m_conn->GetSocket();
    EXPECT_EQ(0, m_conn->GetStatus());
    EXPECT_TRUE(m_conn->GetCloseSocket());
    ASSERT_TRUE(FdOpen(first));
    EXPECT_EQ(before + 1, qntest::CountOpenFds());

    // A second Connect opens a new socket and forgets the first.
    g_seams.nodelay_errno = 0;
    m_log.Clear();
    ASSERT_EQ(0, m_conn->Connect()) << m_log.Dump();
    int second = m_conn->GetSocket();
    EXPECT_NE(first, second);
    EXPECT_TRUE(FdOpen(first));
    EXPECT_TRUE(FdOpen(second));
    EXPECT_EQ(before + 2, qntest::CountOpenFds());
    m_conn->Close(nullptr);
    EXPECT_FALSE(FdOpen(second));
    EXPECT_TRUE(FdOpen(first));
    close(first);  // the leaked descriptor is the owner's to close
    EXPECT_EQ(before, qntest::CountOpenFds());
}

TEST_F(ConnectFaultsTest, SendBufferFailureReturnsMinus6WithTheConfiguredSize) {
    CConnector::m_socket_send_buff_size = 123456;
    g_seams.sendbuff_errno = ENOBUFS;
    int before = qntest::CountOpenFds();
    EXPECT_EQ(-6, m_conn->Connect());
    EXPECT_EQ(123456, g_seams.sendbuff_size);
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, Fmt("sock_set_sendbuff() failed! url=%s, size=123456, errno=%d",
                                                  m_url.c_str(), ENOBUFS)))
        << m_log.Dump();
    EXPECT_EQ(-1, g_seams.recvbuff_size);
    ExpectOpenAndFlagged(before);
}

TEST_F(ConnectFaultsTest, RecvBufferFailureReturnsMinus7WithTheConfiguredSize) {
    CConnector::m_socket_send_buff_size = 70000;
    CConnector::m_socket_recv_buff_size = 654321;
    g_seams.recvbuff_errno = EPERM;
    int before = qntest::CountOpenFds();
    EXPECT_EQ(-7, m_conn->Connect());
    EXPECT_EQ(70000, g_seams.sendbuff_size);
    EXPECT_EQ(654321, g_seams.recvbuff_size);
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, Fmt("sock_set_recvbuff() failed! url=%s, size=654321, errno=%d",
                                                  m_url.c_str(), EPERM)))
        << m_log.Dump();
    EXPECT_EQ(-1, g_seams.add_op);  // never registered
    ExpectOpenAndFlagged(before);
}

TEST_F(ConnectFaultsTest, EpollFailureReturnsMinus8AndLeavesTheSocketOpenAndFlagged) {
    ASSERT_EQ(0, m_conn->Init(m_url.c_str(), &m_parser, -7, -1));  // no such descriptor
    m_log.Clear();
    int before = qntest::CountOpenFds();
    EXPECT_EQ(-8, m_conn->Connect());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR,
                          Fmt("add socket into epoll failed! url=%s, errno=%d", m_url.c_str(), EBADF)))
        << m_log.Dump();
    EXPECT_EQ(0u, g_seams.connect_len);  // no dial
    ExpectOpenAndFlagged(before);
}

TEST_F(ConnectFaultsTest, RegistrationIsExactlyInOutErrLevelTriggeredWithTheConnector) {
    ASSERT_EQ(0, m_conn->Connect());
    EXPECT_EQ(EPOLL_CTL_ADD, g_seams.add_op);
    EXPECT_EQ(m_conn->GetSocket(), g_seams.add_fd);
    EXPECT_EQ(13u, g_seams.add_events);
    EXPECT_EQ(static_cast<void*>(m_conn.get()), g_seams.add_ptr);
    EXPECT_EQ(16u, g_seams.connect_len);
    EXPECT_EQ(AF_INET, g_seams.connect_family);
    EXPECT_EQ(CConnector::m_socket_send_buff_size, g_seams.sendbuff_size);
    EXPECT_EQ(CConnector::m_socket_recv_buff_size, g_seams.recvbuff_size);
    m_conn->Close(nullptr);
}

TEST_F(ConnectFaultsTest, HardDialErrorReturnsMinus9AndClosesTheSocket) {
    g_seams.connect_fake = true;
    g_seams.connect_result = -1;
    g_seams.connect_errno = ENETUNREACH;
    int before = qntest::CountOpenFds();
    EXPECT_EQ(-9, m_conn->Connect());
    EXPECT_TRUE(
        m_log.Has(LOG_PRIORITY_ERROR, Fmt("do connect failed! url=%s, errno=%d", m_url.c_str(), ENETUNREACH)))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Has(
        LOG_PRIORITY_INFO,
        Fmt("enter CTcpConnector::Close(), url=%s, local_url=, socket=%d", m_url.c_str(), g_seams.add_fd)))
        << m_log.Dump();
    EXPECT_FALSE(m_log.HasPrefix(LOG_PRIORITY_INFO, "connect url("));
    EXPECT_TRUE(m_log.Texts(LOG_PRIORITY_ERROR).size() == 1u) << m_log.Dump();
    EXPECT_EQ(0, m_conn->GetStatus());
    EXPECT_EQ(-1, m_conn->GetSocket());
    EXPECT_EQ(0u, m_conn->GetEvent());
    EXPECT_TRUE(m_conn->GetCloseSocket());
    EXPECT_FALSE(FdOpen(g_seams.add_fd));
    EXPECT_EQ(-1, qntest::RegisteredEvents(m_epoll, g_seams.add_fd));
    EXPECT_EQ(before, qntest::CountOpenFds());
}

TEST_F(ConnectFaultsTest, EagainIsADialInProgress) {
    g_seams.connect_fake = true;
    g_seams.connect_result = -1;
    g_seams.connect_errno = EAGAIN;
    EXPECT_EQ(0, m_conn->Connect());
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_CONNECTING, m_conn->GetStatus());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_INFO, Fmt("connect url(%s) successfully, m_status=1", m_url.c_str())))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Texts(LOG_PRIORITY_ERROR).empty()) << m_log.Dump();
    m_conn->Close(nullptr);
}

TEST_F(ConnectFaultsTest, ImmediateDialSuccessIsStatus2) {
    g_seams.connect_fake = true;
    g_seams.connect_result = 0;
    EXPECT_EQ(0, m_conn->Connect());
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_CONNECTED, m_conn->GetStatus());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_INFO, Fmt("connect url(%s) successfully, m_status=2", m_url.c_str())))
        << m_log.Dump();
    int fd = m_conn->GetSocket();
    m_conn->Close(nullptr);
    EXPECT_FALSE(FdOpen(fd));
}

TEST_F(ConnectFaultsTest, UnexpectedDialResultIsReturnedAfterClosing) {
    g_seams.connect_fake = true;
    g_seams.connect_result = 7;
    int before = qntest::CountOpenFds();
    EXPECT_EQ(7, m_conn->Connect());
    EXPECT_EQ(0, m_conn->GetStatus());
    EXPECT_EQ(-1, m_conn->GetSocket());
    EXPECT_FALSE(FdOpen(g_seams.add_fd));
    EXPECT_FALSE(m_log.HasPrefix(LOG_PRIORITY_INFO, "connect url("));
    EXPECT_TRUE(m_log.HasPrefix(LOG_PRIORITY_INFO, "enter CTcpConnector::Close()"));
    EXPECT_EQ(before, qntest::CountOpenFds());
}

TEST_F(ConnectFaultsTest, WithoutACategoryConnectAndCloseNeverCallTheLoggingLibrary) {
    m_conn->SetLogCat(nullptr);
    g_seams.log_can_write_calls = 0;
    ASSERT_EQ(0, m_conn->Connect());
    int fd = m_conn->GetSocket();
    m_conn->SetEvent(EPOLLOUT);
    m_conn->Close(nullptr);
    EXPECT_EQ(0, g_seams.log_can_write_calls);
    EXPECT_EQ(0, m_conn->GetStatus());
    EXPECT_EQ(-1, m_conn->GetSocket());
    EXPECT_EQ(0u, m_conn->GetEvent());
    EXPECT_FALSE(FdOpen(fd));
    EXPECT_EQ(-1, qntest::RegisteredEvents(m_epoll, fd));
    EXPECT_EQ(0u, m_log.Size());

    // Also the failure path (-9 goes through Close) and Disconnect.
    g_seams.connect_fake = true;
    g_seams.connect_result = -1;
    g_seams.connect_errno = ECONNREFUSED;
    EXPECT_EQ(-9, m_conn->Connect());
    g_seams.connect_fake = false;
    ASSERT_EQ(0, m_conn->Connect());
    m_conn->Disconnect(nullptr);
    EXPECT_EQ(0, g_seams.log_can_write_calls);
    EXPECT_EQ(-1, m_conn->GetSocket());

    // The seam does see calls when there is a category.
    ASSERT_EQ(0, m_conn->Connect());
    m_conn->Close(m_log.cat());
    EXPECT_GT(g_seams.log_can_write_calls, 0);
}

}  // namespace
