// CConnector: the base's getters, Init/Fini bodies, the send-starved time and the slots a
// TCP connector leaves to the base.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstring>
#include <string>

#include "net/tcp_connector.h"
#include "support/connector_peer.h"
#include "support/log_capture.h"

using namespace QUOLNET;
using Peer = QUOLNET::CTcpConnectorTestPeer;

namespace {

class FixedParser : public IPackParser {
  public:
    int ParsePackLength(const char*, unsigned int) override { return 4; }
};

int Callback(const char*, const char*, int, void*) {
    return 1;
}

class ConnectorBaseTest : public ::testing::Test {
  protected:
    ConnectorBaseTest()
        : pool(8),
          tcp(combine, sizeof(combine), combine, sizeof(combine), last_err, &pool, 4, 4, &Callback, &arg),
          base(tcp) {}

    CNetBufferMgr pool;
    char combine[256];
    char last_err[256];
    int arg = 0;
    FixedParser parser;
    CTcpConnector tcp;
    CConnector& base;  // every call below goes through the base's virtual table
};

TEST(ConnectorStatus, Values) {
    EXPECT_EQ(0, CONNECTOR_STATUS_DISCONNECTED);
    EXPECT_EQ(1, CONNECTOR_STATUS_CONNECTING);
    EXPECT_EQ(2, CONNECTOR_STATUS_CONNECTED);
}

TEST_F(ConnectorBaseTest, FreshState) {
    EXPECT_EQ(-1, base.GetIdx());
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, base.GetStatus());
    EXPECT_FALSE(base.IsAccptedConnector());
    EXPECT_FALSE(base.IsIPv6());
    EXPECT_STREQ("", base.GetURL());
    EXPECT_STREQ("", base.GetLocalURL());
    EXPECT_EQ(&Callback, Peer::m_recv_callback(tcp));
    EXPECT_EQ(&arg, Peer::m_callback_arg(tcp));
    EXPECT_EQ(nullptr, Peer::m_log_cat(tcp));
    EXPECT_EQ(0, Peer::m_send_buf_full_tv(tcp).tv_sec);
    EXPECT_EQ(0, Peer::m_send_buf_full_tv(tcp).tv_usec);
}

TEST_F(ConnectorBaseTest, IdxAndNodes) {
    base.SetIdx(42);
    EXPECT_EQ(42, base.GetIdx());
    LIST_NODE* node = base.GetNode();
    LIST_NODE* alloc = base.GetAllocNode();
    ASSERT_NE(nullptr, node);
    ASSERT_NE(nullptr, alloc);
    EXPECT_NE(node, alloc);
    EXPECT_EQ(node, base.GetNode());  // stable addresses
    EXPECT_EQ(&base, node->pData);
    EXPECT_EQ(&base, alloc->pData);
    EXPECT_EQ(nullptr, node->pNext);
    EXPECT_EQ(nullptr, node->pPrev);
    // An owner can list the connector by either node.
    CBidirList owned;
    CBidirList allocated;
    EXPECT_TRUE(owned.Insert(node));
    EXPECT_TRUE(allocated.Insert(alloc));
    EXPECT_EQ(&base, owned.Head()->pData);
    owned.Reset();
    allocated.Reset();
}

TEST_F(ConnectorBaseTest, SetLogCat) {
    qntest::LogCapture cap;
    base.SetLogCat(cap.cat());
    EXPECT_EQ(cap.cat(), Peer::m_log_cat(tcp));
    base.SetLogCat(nullptr);
    EXPECT_EQ(nullptr, Peer::m_log_cat(tcp));
}

TEST_F(ConnectorBaseTest, GettersAfterInit) {
    ASSERT_EQ(0, base.Init("tcp://[::1]:9000", &parser, 3, -1));
    EXPECT_TRUE(base.IsIPv6());
    EXPECT_STREQ("tcp://[::1]:9000", base.GetURL());
    EXPECT_FALSE(base.IsAccptedConnector());
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, base.GetStatus());
    Peer::m_status(tcp) = CONNECTOR_STATUS_CONNECTING;
    EXPECT_EQ(CONNECTOR_STATUS_CONNECTING, base.GetStatus());
    Peer::m_is_accepted(tcp) = true;
    EXPECT_TRUE(base.IsAccptedConnector());
    Peer::m_status(tcp) = CONNECTOR_STATUS_DISCONNECTED;
}

TEST_F(ConnectorBaseTest, DataSizesAreZeroWhateverTheQueuesHold) {
    EXPECT_EQ(0, base.GetSendBuffDataSize());
    EXPECT_EQ(0, base.GetRecvBuffDataSize());
    CBidirList rx;
    ASSERT_TRUE(pool.Allocate(2 * 65536, rx, true));
    static_cast<NetBuffer*>(rx.Head()->pData)->Put("abcdef", 6);
    Peer::m_rx_queue(tcp).Merge(rx, false);
    NetBuffer* tx = pool.Allocate(false, false);
    tx->Put("xyz", 3);
    Peer::m_tx_queue(tcp).Insert(&tx->m_node);
    EXPECT_EQ(0, base.GetSendBuffDataSize());
    EXPECT_EQ(0, base.GetRecvBuffDataSize());
    EXPECT_EQ(0, tcp.GetSendBuffDataSize());
    EXPECT_EQ(0, tcp.GetRecvBuffDataSize());
    tcp.Fini();
    EXPECT_EQ(0u, pool.GetUsedCount());
}

// A minimal connector that keeps the base's Init and Fini, to pin their own contract.
class CBareConnector : public CConnector {
  public:
    CBareConnector() : CConnector(nullptr, nullptr, nullptr) {}
    void Update() override {}
    void SetEvent(unsigned int) override {}
    unsigned int GetEvent() override { return 0; }
    int ParseURL() override { return 0; }
    int GetSendQCount() override { return 0; }
    int GetRecvQCount() override { return 0; }
    int Connect() override { return 0; }
    void Disconnect(LogCategory*) override {}
    int Send(const char*, unsigned int, LogCategory*) override { return 0; }
    bool IsSendBufEnough(unsigned int) override { return false; }
    int SendToQ(const char*, unsigned int, LogCategory*) override { return 0; }
    int Peek(const char**, unsigned int&, LogCategory*) override { return -1; }
    int Drop() override { return -1; }
    int GetRecvBuffLeftRate() override { return 0; }
    int GetSendBuffLeftRate() override { return 0; }
    void GetIPAndPort(int& ip, int& port) override { ip = port = 0; }
    const char* GetLocalURL() override { return ""; }
    int ParseURLV6() override { return 0; }
    char* Url() { return m_url; }
    void SetSendBufFull(const timeval& tv) { m_send_buf_full_tv = tv; }
};

TEST(ConnectorBaseInit, CopiesUrl) {
    CBareConnector c;
    EXPECT_EQ(0, c.CConnector::Init("tcp://1.2.3.4:80", nullptr, -1, -1));
    EXPECT_STREQ("tcp://1.2.3.4:80", c.GetURL());
    // A shorter URL leaves nothing of the longer one behind its terminator.
    EXPECT_EQ(0, c.CConnector::Init("ab", nullptr, -1, -1));
    EXPECT_STREQ("ab", c.GetURL());
    for (int i = 2; i < 256; ++i) {
        ASSERT_EQ(0, c.Url()[i]) << i;
    }
    c.CConnector::Fini();
    EXPECT_STREQ("ab", c.GetURL());
}

TEST(ConnectorBaseInit, RejectsNullAndOverlongUrls) {
    CBareConnector c;
    ASSERT_EQ(0, c.CConnector::Init("tcp://1.2.3.4:80", nullptr, -1, -1));
    EXPECT_NE(0, c.CConnector::Init(nullptr, nullptr, -1, -1));
    std::string longest(255, 'a');
    EXPECT_EQ(0, c.CConnector::Init(longest.c_str(), nullptr, -1, -1));
    EXPECT_EQ(longest, c.GetURL());
    std::string too_long(256, 'b');
    EXPECT_NE(0, c.CConnector::Init(too_long.c_str(), nullptr, -1, -1));
    EXPECT_EQ(longest, c.GetURL());  // unchanged on failure
}

TEST(ConnectorBase, ConstantSendBufFullMS) {
    CBareConnector c;
    EXPECT_EQ(0, c.CConnector::GetConstantSendBufFullMS());
    timeval now;
    gettimeofday(&now, nullptr);
    timeval then = now;
    then.tv_sec -= 2;
    then.tv_usec = now.tv_usec;
    c.SetSendBufFull(then);
    int ms = c.CConnector::GetConstantSendBufFullMS();
    EXPECT_GE(ms, 2000);
    EXPECT_LT(ms, 60000);
}

TEST(ConnectorBase, KernelBufferSizeDefaults) {
    EXPECT_EQ(256 * 1024, CConnector::m_socket_send_buff_size);
    EXPECT_EQ(256 * 1024, CConnector::m_socket_recv_buff_size);
}

}  // namespace
