// The per-tick driver: dial completion, error and hang-up, the stuck big-block wait, and the
// order of sending and receiving.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "net/net_buffer_mgr.h"
#include "net/tcp_connector.h"
#include "support/connector_peer.h"
#include "support/log_capture.h"
#include "support/net_helpers.h"
#include "support/test_parser.h"

namespace {

using QUOLNET::CNetBufferMgr;
using QUOLNET::CTcpConnector;
using Peer = QUOLNET::CTcpConnectorTestPeer;

const char* kUrl = "tcp://127.0.0.1:7000";

class UpdateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_ep = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_TRUE(qntest::TcpPair(&m_client, &m_server));
        m_conn.reset(new CTcpConnector(m_combine, sizeof(m_combine), m_combine, sizeof(m_combine), nullptr,
                                       &m_pool, 8, 8, nullptr, nullptr));
        m_conn->SetLogCat(m_log.cat());
        ASSERT_EQ(0, m_conn->Init(kUrl, &m_parser, m_ep, m_server));
        m_log.Clear();
    }
    void TearDown() override {
        m_conn->Fini();
        m_conn.reset();
        EXPECT_EQ(0u, m_pool.GetUsedCount());
        close(m_client);
        close(m_ep);
    }

    int m_ep = -1;
    int m_client = -1;
    int m_server = -1;
    char m_combine[1 << 16];
    CNetBufferMgr m_pool{16};
    qntest::BigEndianLengthParser m_parser;
    qntest::LogCapture m_log{QUOLNET::LOG_PRIORITY_TRACE};
    std::unique_ptr<CTcpConnector> m_conn;
};

TEST_F(UpdateTest, ConnectingWithWritableOnlyBecomesConnectedAndFlushesInTheSameCall) {
    Peer::m_status(*m_conn) = QUOLNET::CONNECTOR_STATUS_CONNECTING;
    m_conn->SetEvent(EPOLLOUT);
    m_conn->Update();
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_CONNECTED, m_conn->GetStatus());
    std::string expected = std::string("connect to ") + kUrl +
                           " successfully, local_url=" + m_conn->GetLocalURL() +
                           ", m_socket=" + std::to_string(m_server);
    EXPECT_TRUE(m_log.Has(QUOLNET::LOG_PRIORITY_INFO, expected)) << m_log.Dump();
    // Send() ran: the empty queue switched write readiness off.
    EXPECT_TRUE(m_log.HasPrefix(QUOLNET::LOG_PRIORITY_DEBUG, "enter CTcpConnector::Sending()"))
        << m_log.Dump();
    EXPECT_EQ(EPOLLIN | EPOLLERR | EPOLLHUP,
              qntest::RegisteredEvents(m_ep, m_server));  // the kernel adds EPOLLHUP
}

TEST_F(UpdateTest, ConnectingWithWritableAndErrorDisconnectsWithoutTheConnectMessage) {
    Peer::m_status(*m_conn) = QUOLNET::CONNECTOR_STATUS_CONNECTING;
    m_conn->SetCloseSocket(false);  // the fixture's pair keeps the descriptor
    m_conn->SetEvent(EPOLLOUT | EPOLLERR);
    m_conn->Update();
    EXPECT_FALSE(m_log.HasPrefix(QUOLNET::LOG_PRIORITY_INFO, "connect to ")) << m_log.Dump();
    std::string expected = "m_events=12, prepare disconnect, url=" + std::string(kUrl) +
                           ", local_url=" + m_conn->GetLocalURL() + ", m_socket=" + std::to_string(m_server);
    EXPECT_TRUE(m_log.Has(QUOLNET::LOG_PRIORITY_INFO, expected)) << m_log.Dump();
    EXPECT_TRUE(m_log.HasPrefix(QUOLNET::LOG_PRIORITY_INFO, "enter CTcpConnector::Disconnect(), connector="));
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, m_conn->GetStatus());
    EXPECT_EQ(-1, qntest::RegisteredEvents(m_ep, m_server));
    close(m_server);
}

TEST_F(UpdateTest, HangUpWhileConnectedDisconnects) {
    m_conn->SetCloseSocket(false);
    m_conn->SetEvent(EPOLLHUP);
    m_conn->Update();
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, m_conn->GetStatus());
    EXPECT_TRUE(m_log.HasPrefix(QUOLNET::LOG_PRIORITY_INFO, "m_events=16, prepare disconnect, url="))
        << m_log.Dump();
    close(m_server);
}

TEST_F(UpdateTest, WaitingForABigBufferReadsNothingAndSaysNothing) {
    ASSERT_TRUE(qntest::WriteAll(m_client,
                                 "\0\0\0\x08"
                                 "abcd",
                                 8));
    Peer::m_is_wait_alloc_big_buffer(*m_conn) = true;
    m_conn->SetEvent(EPOLLIN);
    m_conn->Update();
    EXPECT_EQ(0u, m_log.Size()) << m_log.Dump();
    EXPECT_EQ(0, m_conn->GetRecvQCount());
    EXPECT_EQ(static_cast<unsigned>(EPOLLIN), m_conn->GetEvent());  // the bit stays for a later retry
    char buf[8];
    EXPECT_EQ(8, recv(m_server, buf, sizeof(buf), MSG_PEEK));  // the kernel still holds the bytes
    Peer::m_is_wait_alloc_big_buffer(*m_conn) = false;
}

// Runs Update with the big-block wait begun `age` seconds ago; retries when the clock's second
// changed during the call so that the age is exact. Returns whether the ERROR line appeared.
static bool StuckWaitMessageAfter(UpdateTest* t, CTcpConnector& c, qntest::LogCapture& log, int age) {
    (void)t;
    for (int attempt = 0; attempt < 5; ++attempt) {
        log.Clear();
        struct timeval before, after;
        gettimeofday(&before, nullptr);
        Peer::m_rx_status(c) = QUOLNET::ALLOC_MULTI_BUFFER_BODY_STATUS;
        Peer::m_wait_alloc_starttime(c) = before.tv_sec - age;
        c.Update();
        gettimeofday(&after, nullptr);
        if (after.tv_sec == before.tv_sec) {
            return log.HasPrefix(QUOLNET::LOG_PRIORITY_ERROR,
                                 "m_wait_alloc_starttime > 300s, disconnect it, url=");
        }
    }
    ADD_FAILURE() << "clock kept changing second";
    return false;
}

TEST_F(UpdateTest, StuckBigBlockWaitIsReportedAfterMoreThan300SecondsButNotDisconnected) {
    EXPECT_FALSE(StuckWaitMessageAfter(this, *m_conn, m_log, 300));
    EXPECT_TRUE(StuckWaitMessageAfter(this, *m_conn, m_log, 301));
    std::string expected = "m_wait_alloc_starttime > 300s, disconnect it, url=" + std::string(kUrl) +
                           ", local_url=" + m_conn->GetLocalURL();
    EXPECT_TRUE(m_log.Has(QUOLNET::LOG_PRIORITY_ERROR, expected)) << m_log.Dump();
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_CONNECTED, m_conn->GetStatus());
    // It repeats on every tick while the wait lasts.
    EXPECT_TRUE(StuckWaitMessageAfter(this, *m_conn, m_log, 400));
    Peer::m_rx_status(*m_conn) = QUOLNET::RECV_PACKET_HEAD_STATUS;
}

TEST_F(UpdateTest, PeerCloseDisconnectsWithoutAnErrorMessage) {
    close(m_client);
    m_client = -1;
    m_conn->SetEvent(EPOLLIN);
    m_conn->Update();
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, m_conn->GetStatus());
    EXPECT_TRUE(m_log.HasPrefix(QUOLNET::LOG_PRIORITY_INFO, "socket is closed by peer!")) << m_log.Dump();
    EXPECT_TRUE(m_log.Texts(QUOLNET::LOG_PRIORITY_ERROR).empty()) << m_log.Dump();
}

TEST_F(UpdateTest, DisconnectedConnectorNeitherSendsNorReads) {
    m_conn->Close(nullptr);  // closes the accepted descriptor (m_close_socket is true)
    m_log.Clear();
    m_conn->SetEvent(EPOLLIN | EPOLLOUT);
    m_conn->Update();
    EXPECT_EQ(0u, m_log.Size()) << m_log.Dump();
    EXPECT_EQ(0, m_conn->GetRecvQCount());
}

TEST_F(UpdateTest, ReadableConnectorReadsAndFramesInOneCall) {
    std::string p = qntest::MakePacket(100, 7);
    ASSERT_TRUE(qntest::WriteAll(m_client, p.data(), p.size()));
    char probe;
    for (int i = 0; i < 100 && recv(m_server, &probe, 1, MSG_PEEK) != 1; ++i) {
        unsigned ev;
        qntest::WaitEpoll(m_ep, &ev, nullptr, 100);
    }
    m_conn->SetEvent(EPOLLIN);
    m_conn->Update();
    const char* buf = nullptr;
    unsigned int len = 0;
    ASSERT_EQ(0, m_conn->Peek(&buf, len, nullptr));
    ASSERT_EQ(p.size(), len);
    EXPECT_EQ(0, memcmp(p.data(), buf, len));
    EXPECT_EQ(0, m_conn->Drop());
}

}  // namespace
