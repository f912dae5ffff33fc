// Connect, Disconnect and Close against real loopback sockets and a real epoll instance.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
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

using QUOLNET::CNetBufferMgr;
using QUOLNET::CTcpConnector;
using Peer = QUOLNET::CTcpConnectorTestPeer;
using QUOLNET::LOG_PRIORITY_ERROR;
using QUOLNET::LOG_PRIORITY_INFO;

class NoParser : public QUOLNET::IPackParser {
  public:
    int ParsePackLength(const char*, unsigned int) override { return 0; }
};

// What /proc shows for a registration of EPOLLIN|EPOLLOUT|EPOLLERR (13): the kernel adds
// EPOLLHUP to every registration itself. No EPOLLET bit. The exact mask passed to epoll_ctl
// is pinned by the fault-seam test.
const long kRegistered = EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP;

// Accepts and closes whatever the listener has completed, without waiting.
void DrainListener(int listen_fd) {
    for (;;) {
        pollfd p{listen_fd, POLLIN, 0};
        if (poll(&p, 1, 0) != 1) {
            return;
        }
        int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            return;
        }
        close(fd);
    }
}

class ConnectTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_epoll = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_GE(m_epoll, 0);
    }
    void TearDown() override {
        m_conn.reset();
        close(m_epoll);
        EXPECT_EQ(0u, m_pool.GetUsedCount());
    }

    // A connector initialised for dialling `url` with category `cat` (may be null).
    CTcpConnector& Make(const std::string& url, QUOLNET::LogCategory* cat, int epoll_fd) {
        m_conn.reset(new CTcpConnector(m_combine, sizeof(m_combine), m_cb_combine, sizeof(m_cb_combine),
                                       nullptr, &m_pool, 8, 8, nullptr, nullptr));
        m_conn->SetLogCat(cat);
        EXPECT_EQ(0, m_conn->Init(url.c_str(), &m_parser, epoll_fd, -1));
        return *m_conn;
    }
    CTcpConnector& Make(const std::string& url) { return Make(url, m_log.cat(), m_epoll); }

    CNetBufferMgr m_pool{64};
    NoParser m_parser;
    char m_combine[256];
    char m_cb_combine[256];
    int m_epoll = -1;
    qntest::LogCapture m_log;
    std::unique_ptr<CTcpConnector> m_conn;
};

TEST_F(ConnectTest, DialToListeningPortRegistersWithEpollAndSucceeds) {
    qntest::Listener l;
    ASSERT_GE(l.fd(), 0);
    CTcpConnector& c = Make(l.url());
    m_log.Clear();

    ASSERT_EQ(0, c.Connect()) << m_log.Dump();
    int st = c.GetStatus();
    EXPECT_TRUE(st == QUOLNET::CONNECTOR_STATUS_CONNECTING || st == QUOLNET::CONNECTOR_STATUS_CONNECTED)
        << st;
    int fd = c.GetSocket();
    ASSERT_TRUE(FdOpen(fd));
    EXPECT_TRUE(c.GetCloseSocket());

    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_INFO, "enter CTcpConnector::Connect(), url=" + l.url()));
    EXPECT_TRUE(
        m_log.Has(LOG_PRIORITY_INFO, Fmt("connect url(%s) successfully, m_status=%d", l.url().c_str(), st)))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Texts(LOG_PRIORITY_ERROR).empty()) << m_log.Dump();

    // Registered level-triggered for EPOLLIN|EPOLLOUT|EPOLLERR (13) with the connector as data.
    EXPECT_EQ(13, EPOLLIN | EPOLLOUT | EPOLLERR);
    EXPECT_EQ(kRegistered, qntest::RegisteredEvents(m_epoll, fd));
    unsigned int events = 0;
    void* data = nullptr;
    ASSERT_EQ(1, qntest::WaitEpoll(m_epoll, &events, &data, 5000));
    EXPECT_EQ(static_cast<void*>(&c), data);
    EXPECT_TRUE(events & EPOLLOUT) << events;
    // Level-triggered: the same readiness is reported again.
    ASSERT_EQ(1, qntest::WaitEpoll(m_epoll, &events, &data, 5000));
    EXPECT_EQ(static_cast<void*>(&c), data);

    // The peer sees a connection from the connector's socket.
    int server = l.Accept();
    ASSERT_GE(server, 0);
    sockaddr_in peer{}, local{};
    socklen_t len = sizeof(peer);
    ASSERT_EQ(0, getpeername(server, reinterpret_cast<sockaddr*>(&peer), &len));
    len = sizeof(local);
    ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len));
    EXPECT_EQ(local.sin_port, peer.sin_port);

    // TCP_NODELAY is on and the socket is non-blocking.
    int nodelay = 0;
    len = sizeof(nodelay);
    ASSERT_EQ(0, getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &len));
    EXPECT_NE(0, nodelay);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);

    c.SetEvent(EPOLLOUT);
    m_log.Clear();
    std::string dump = c.ToString();
    c.Disconnect(nullptr);
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_INFO, "enter CTcpConnector::Disconnect(), connector=" + dump))
        << m_log.Dump();
    EXPECT_TRUE(
        m_log.Has(LOG_PRIORITY_INFO, Fmt("enter CTcpConnector::Close(), url=%s, local_url=%s, socket=%d",
                                         l.url().c_str(), c.GetLocalURL(), fd)))
        << m_log.Dump();
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, c.GetStatus());
    EXPECT_EQ(-1, c.GetSocket());
    EXPECT_EQ(0u, c.GetEvent());
    EXPECT_EQ(-1, qntest::RegisteredEvents(m_epoll, fd));
    EXPECT_FALSE(FdOpen(fd));
    // The peer sees the close.
    char b;
    pollfd p{server, POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, 5000));
    EXPECT_EQ(0, recv(server, &b, 1, 0));
    close(server);
}

TEST_F(ConnectTest, Ipv6DialGoesToLoopback) {
    qntest::Listener l(true);
    if (l.fd() < 0) {
        GTEST_SKIP() << "no IPv6 loopback";
    }
    CTcpConnector& c = Make(l.url());
    ASSERT_EQ(0, c.Connect()) << m_log.Dump();
    int st = c.GetStatus();
    EXPECT_TRUE(st == 1 || st == 2);
    EXPECT_TRUE(
        m_log.Has(LOG_PRIORITY_INFO, Fmt("connect url(%s) successfully, m_status=%d", l.url().c_str(), st)));
    int fd = c.GetSocket();
    EXPECT_EQ(kRegistered, qntest::RegisteredEvents(m_epoll, fd));

    int server = l.Accept();
    ASSERT_GE(server, 0);
    sockaddr_in6 peer{}, dialled{};
    socklen_t len = sizeof(peer);
    ASSERT_EQ(0, getpeername(server, reinterpret_cast<sockaddr*>(&peer), &len));
    EXPECT_EQ(AF_INET6, peer.sin6_family);
    EXPECT_EQ(0, memcmp(&peer.sin6_addr, &in6addr_loopback, sizeof(in6_addr)));
    len = sizeof(dialled);
    ASSERT_EQ(0, getpeername(fd, reinterpret_cast<sockaddr*>(&dialled), &len));
    EXPECT_EQ(AF_INET6, dialled.sin6_family);
    EXPECT_EQ(0, memcmp(&dialled.sin6_addr, &in6addr_loopback, sizeof(in6_addr)));
    EXPECT_EQ(htons(static_cast<uint16_t>(l.port())), dialled.sin6_port);

    c.Close(nullptr);
    EXPECT_FALSE(FdOpen(fd));
    close(server);
}

TEST_F(ConnectTest, DialToClosedPortIsInProgressThenAnErrorEvent) {
    int port = qntest::UnusedPort();
    std::string url = Fmt("tcp://127.0.0.1:%d", port);
    CTcpConnector& c = Make(url);
    ASSERT_EQ(0, c.Connect()) << m_log.Dump();
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_CONNECTING, c.GetStatus());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_INFO, Fmt("connect url(%s) successfully, m_status=1", url.c_str())));
    int fd = c.GetSocket();

    unsigned int events = 0;
    void* data = nullptr;
    ASSERT_EQ(1, qntest::WaitEpoll(m_epoll, &events, &data, 5000));
    EXPECT_EQ(static_cast<void*>(&c), data);
    EXPECT_NE(0u, events & (EPOLLERR | EPOLLHUP)) << events;
    int soerr = 0;
    socklen_t len = sizeof(soerr);
    ASSERT_EQ(0, getsockopt(fd, SOL_SOCKET, SO_ERROR, &soerr, &len));
    EXPECT_EQ(ECONNREFUSED, soerr);

    c.SetEvent(events);
    EXPECT_NE(0u, c.GetEvent() & EPOLLERR);
    c.Disconnect(nullptr);
    EXPECT_EQ(0, c.GetStatus());
    EXPECT_EQ(-1, c.GetSocket());
    EXPECT_EQ(0u, c.GetEvent());
    EXPECT_FALSE(FdOpen(fd));
}

TEST_F(ConnectTest, ConnectWhileConnectingOrConnectedIsRefusedWithMinus1AndChangesNothing) {
    qntest::Listener l;
    CTcpConnector& c = Make(l.url());
    ASSERT_EQ(0, c.Connect());
    int st = c.GetStatus();
    int fd = c.GetSocket();
    c.SetEvent(EPOLLOUT);
    m_log.Clear();

    EXPECT_EQ(-1, c.Connect());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, Fmt("connector is not disconnected, m_status=%d", st)))
        << m_log.Dump();
    EXPECT_EQ(2u, m_log.Size()) << m_log.Dump();  // entry line and the refusal only
    EXPECT_EQ(st, c.GetStatus());
    EXPECT_EQ(fd, c.GetSocket());
    EXPECT_EQ(static_cast<unsigned>(EPOLLOUT), c.GetEvent());
    EXPECT_EQ(kRegistered, qntest::RegisteredEvents(m_epoll, fd));
    EXPECT_TRUE(FdOpen(fd));

    // Status 2 as well.
    Peer::m_status(c) = QUOLNET::CONNECTOR_STATUS_CONNECTED;
    m_log.Clear();
    EXPECT_EQ(-1, c.Connect());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, "connector is not disconnected, m_status=2"));
    EXPECT_EQ(fd, c.GetSocket());
    c.Close(nullptr);
    EXPECT_FALSE(FdOpen(fd));
}

TEST_F(ConnectTest, AcceptedConnectorCannotReconnectEvenInStatus0) {
    int client = -1, server = -1;
    ASSERT_TRUE(qntest::TcpPair(&client, &server));
    m_conn.reset(new CTcpConnector(m_combine, sizeof(m_combine), m_cb_combine, sizeof(m_cb_combine), nullptr,
                                   &m_pool, 8, 8, nullptr, nullptr));
    CTcpConnector& c = *m_conn;
    c.SetLogCat(m_log.cat());
    ASSERT_EQ(0, c.Init("tcp://127.0.0.1:1", &m_parser, m_epoll, server));
    ASSERT_EQ(2, c.GetStatus());

    // Connected: the status check comes first.
    m_log.Clear();
    EXPECT_EQ(-1, c.Connect());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, "connector is not disconnected, m_status=2"));

    // Status 0 with the socket still stored.
    Peer::m_status(c) = 0;
    m_log.Clear();
    EXPECT_EQ(-2, c.Connect());
    EXPECT_TRUE(
        m_log.Has(LOG_PRIORITY_ERROR, Fmt("the accepted connetion<socket:%d> cannot reconnect", server)))
        << m_log.Dump();
    EXPECT_EQ(server, c.GetSocket());
    EXPECT_EQ(kRegistered, qntest::RegisteredEvents(m_epoll, server));

    // Closed: still refused, no new socket.
    Peer::m_status(c) = 2;
    c.Close(nullptr);
    EXPECT_FALSE(FdOpen(server));
    m_log.Clear();
    int before = qntest::CountOpenFds();
    EXPECT_EQ(-2, c.Connect());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, "the accepted connetion<socket:-1> cannot reconnect"));
    EXPECT_EQ(-1, c.GetSocket());
    EXPECT_EQ(before, qntest::CountOpenFds());
    close(client);
}

TEST_F(ConnectTest, EpollRegistrationFailureReturnsMinus8AndLeavesTheSocketOpenAndFlagged) {
    qntest::Listener l;
    // -2 is accepted by Init but is no descriptor: epoll_ctl fails with EBADF.
    CTcpConnector& c = Make(l.url(), m_log.cat(), -2);
    m_log.Clear();
    int before = qntest::CountOpenFds();
    EXPECT_EQ(-8, c.Connect());
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR,
                          Fmt("add socket into epoll failed! url=%s, errno=%d", l.url().c_str(), EBADF)))
        << m_log.Dump();
    EXPECT_FALSE(m_log.HasPrefix(LOG_PRIORITY_INFO, "connect url("));
    // Close was entered but did nothing in status 0.
    EXPECT_TRUE(m_log.Has(
        LOG_PRIORITY_INFO,
        Fmt("enter CTcpConnector::Close(), url=%s, local_url=, socket=%d", l.url().c_str(), c.GetSocket())));
    EXPECT_EQ(0, c.GetStatus());
    EXPECT_TRUE(c.GetCloseSocket());
    int fd = c.GetSocket();
    ASSERT_TRUE(FdOpen(fd));
    EXPECT_EQ(before + 1, qntest::CountOpenFds());
    close(fd);  // the owner's job after -4..-8
}

TEST_F(ConnectTest, CloseInStatus0IsANoOpAndKeepsEvents) {
    CTcpConnector& c = Make("tcp://127.0.0.1:1");
    c.SetEvent(EPOLLIN | EPOLLERR);
    Peer::m_socket(c) = 12345;  // never touched in status 0
    m_log.Clear();
    c.Close(nullptr);
    EXPECT_EQ(static_cast<unsigned>(EPOLLIN | EPOLLERR), c.GetEvent());
    EXPECT_EQ(12345, c.GetSocket());
    EXPECT_EQ(0, c.GetStatus());
    EXPECT_TRUE(c.GetCloseSocket());
    ASSERT_EQ(1u, m_log.Size()) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_INFO,
                          "enter CTcpConnector::Close(), url=tcp://127.0.0.1:1, local_url=, socket=12345"));
    Peer::m_socket(c) = -1;
}

TEST_F(ConnectTest, CloseWithCloseSocketClearLeavesTheDescriptorOpen) {
    qntest::Listener l;
    CTcpConnector& c = Make(l.url());
    ASSERT_EQ(0, c.Connect());
    int fd = c.GetSocket();
    ASSERT_EQ(kRegistered, qntest::RegisteredEvents(m_epoll, fd));
    c.SetCloseSocket(false);
    c.SetEvent(EPOLLOUT);
    c.Close(nullptr);
    EXPECT_EQ(-1, qntest::RegisteredEvents(m_epoll, fd));
    EXPECT_EQ(-1, c.GetSocket());
    EXPECT_EQ(0, c.GetStatus());
    EXPECT_EQ(0u, c.GetEvent());
    EXPECT_FALSE(c.GetCloseSocket());
    EXPECT_TRUE(FdOpen(fd));
    EXPECT_TRUE(m_log.Texts(LOG_PRIORITY_ERROR).empty()) << m_log.Dump();
    // Still a live socket the owner may use.
    int nodelay = 0;
    socklen_t len = sizeof(nodelay);
    EXPECT_EQ(0, getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &len));
    close(fd);

    // The next Connect sets the flag again (Reset).
    ASSERT_EQ(0, c.Connect());
    EXPECT_TRUE(c.GetCloseSocket());
    fd = c.GetSocket();
    c.Close(nullptr);
    EXPECT_FALSE(FdOpen(fd));
}

TEST_F(ConnectTest, CloseWithoutAnyCategoryDoesAllItsWorkSilently) {
    qntest::Listener l;
    CTcpConnector& c = Make(l.url(), nullptr, m_epoll);
    ASSERT_EQ(0, c.Connect());
    int fd = c.GetSocket();
    c.SetEvent(EPOLLOUT | EPOLLIN);
    c.Close(nullptr);
    EXPECT_EQ(-1, qntest::RegisteredEvents(m_epoll, fd));
    EXPECT_EQ(-1, c.GetSocket());
    EXPECT_EQ(0, c.GetStatus());
    EXPECT_EQ(0u, c.GetEvent());
    EXPECT_FALSE(FdOpen(fd));
    EXPECT_EQ(0u, m_log.Size());
}

TEST_F(ConnectTest, CloseUsesTheArgumentBeforeTheConnectorsCategory) {
    qntest::Listener l;
    CTcpConnector& c = Make(l.url(), nullptr, m_epoll);
    ASSERT_EQ(0, c.Connect());
    int fd = c.GetSocket();
    qntest::LogCapture other;
    c.Disconnect(other.cat());
    EXPECT_TRUE(other.HasPrefix(LOG_PRIORITY_INFO,
                                "enter CTcpConnector::Disconnect(), connector=CTcpConnector[this="));
    EXPECT_TRUE(
        other.Has(LOG_PRIORITY_INFO,
                  Fmt("enter CTcpConnector::Close(), url=%s, local_url=, socket=%d", l.url().c_str(), fd)))
        << other.Dump();
    EXPECT_FALSE(FdOpen(fd));
}

TEST_F(ConnectTest, CloseLogsEpollAndCloseFailuresAndStillResets) {
    CTcpConnector& c = Make("tcp://127.0.0.1:1");
    // A descriptor that was never registered: EPOLL_CTL_DEL fails with ENOENT, close works.
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    Peer::m_status(c) = QUOLNET::CONNECTOR_STATUS_CONNECTED;
    Peer::m_socket(c) = sv[0];
    m_log.Clear();
    c.Close(nullptr);
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, Fmt("delete socket from epoll failed!, url=tcp://127.0.0.1:1, "
                                                  "m_socket=%d, errno=%d",
                                                  sv[0], ENOENT)))
        << m_log.Dump();
    EXPECT_FALSE(m_log.HasPrefix(LOG_PRIORITY_ERROR, "sock_close() failed"));
    EXPECT_FALSE(FdOpen(sv[0]));
    EXPECT_EQ(-1, c.GetSocket());
    EXPECT_EQ(0, c.GetStatus());
    close(sv[1]);

    // No descriptor at all: both steps fail with EBADF; the state is reset anyway.
    Peer::m_status(c) = QUOLNET::CONNECTOR_STATUS_CONNECTING;
    Peer::m_socket(c) = 1000000;
    c.SetEvent(EPOLLERR);
    m_log.Clear();
    c.Close(nullptr);
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, Fmt("delete socket from epoll failed!, url=tcp://127.0.0.1:1, "
                                                  "m_socket=1000000, errno=%d",
                                                  EBADF)))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Has(LOG_PRIORITY_ERROR, Fmt("sock_close() failed, url=tcp://127.0.0.1:1, local_url=, "
                                                  "m_socket=1000000, errno=%d",
                                                  EBADF)))
        << m_log.Dump();
    EXPECT_EQ(-1, c.GetSocket());
    EXPECT_EQ(0, c.GetStatus());
    EXPECT_EQ(0u, c.GetEvent());
}

TEST_F(ConnectTest, ConnectReturnsThePreviousConnectionsBlocksAndResets) {
    qntest::Listener l;
    CTcpConnector& c = Make(l.url());
    Peer::m_rx_queue(c).Insert(&m_pool.Allocate(true, false)->m_node);
    Peer::m_tx_queue(c).Insert(&m_pool.Allocate(false, false)->m_node);
    Peer::m_packet_head_idx(c) = 3;
    Peer::m_packet_tail_idx(c) = 4;
    c.SetEvent(EPOLLIN);
    ASSERT_EQ(2u, m_pool.GetUsedCount());
    ASSERT_EQ(0, c.Connect());
    EXPECT_EQ(0u, m_pool.GetUsedCount());
    EXPECT_EQ(0, c.GetSendQCount());
    EXPECT_EQ(0, c.GetRecvQCount());
    EXPECT_EQ(0, c.GetPacketInfoCnt());
    EXPECT_EQ(0u, c.GetEvent());
    c.Close(nullptr);
}

TEST_F(ConnectTest, ThousandDialsAndClosesLeakNoDescriptor) {
    qntest::Listener l(false, 1024);
    ASSERT_GE(l.fd(), 0);
    CTcpConnector& c = Make(l.url(), nullptr, m_epoll);
    const int before = qntest::CountOpenFds();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(0, c.Connect()) << "iteration " << i;
        ASSERT_NE(0, c.GetStatus());
        if (i % 2 == 0) {
            c.Close(nullptr);
        } else {
            c.Disconnect(nullptr);
        }
        ASSERT_EQ(-1, c.GetSocket());
        DrainListener(l.fd());
    }
    EXPECT_EQ(before, qntest::CountOpenFds());
}

}  // namespace
