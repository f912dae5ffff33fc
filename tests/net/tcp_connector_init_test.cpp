// Construction, Reset, Init (every result code and message), Fini and the small accessors.
#include <gtest/gtest.h>
#include <fcntl.h>
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

using namespace QUOLNET;
using Peer = QUOLNET::CTcpConnectorTestPeer;

// Seam: records the event mask of the last EPOLL_CTL_ADD and forwards every call.
unsigned int g_last_add_events = 0;
void* g_last_add_data = nullptr;

extern "C" int __real_epoll_ctl(int epfd, int op, int fd, struct epoll_event* event);
extern "C" int __wrap_epoll_ctl(int epfd, int op, int fd, struct epoll_event* event) {
    if (op == EPOLL_CTL_ADD && event != nullptr) {
        g_last_add_events = event->events;
        g_last_add_data = event->data.ptr;
    }
    return __real_epoll_ctl(epfd, op, fd, event);
}

namespace {

using qntest::FdOpen;
using qntest::Fmt;

class FixedParser : public IPackParser {
  public:
    int ParsePackLength(const char*, unsigned int) override { return 4; }
};

// The kernel adds EPOLLERR and EPOLLHUP to every registration, so the mask read back from
// /proc is the requested EPOLLIN|EPOLLOUT|EPOLLERR (13) plus EPOLLHUP. The mask the connector
// itself passed is pinned separately through the epoll_ctl seam below.
const long kRegisteredMask = EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP;

class InitTest : public ::testing::Test {
  protected:
    void SetUp() override {
        epfd = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_GE(epfd, 0);
        conn = Make(combine, sizeof(combine), &pool);
    }
    void TearDown() override {
        conn.reset();
        EXPECT_EQ(0u, pool.GetUsedCount());
        close(epfd);
    }
    std::unique_ptr<CTcpConnector> Make(char* cbuf, int cbuf_len, CNetBufferMgr* mgr) {
        std::unique_ptr<CTcpConnector> c(new CTcpConnector(cbuf, cbuf_len, cb_combine, sizeof(cb_combine),
                                                           last_err, mgr, 6, 7, nullptr, nullptr));
        c->SetLogCat(cap.cat());
        return c;
    }
    bool HasError(const std::string& text) { return cap.Has(LOG_PRIORITY_ERROR, text); }
    bool HasInfo(const std::string& text) { return cap.Has(LOG_PRIORITY_INFO, text); }

    qntest::LogCapture cap;
    CNetBufferMgr pool{16};
    FixedParser parser;
    char combine[1024];
    char cb_combine[1024];
    char last_err[256];
    int epfd = -1;
    std::unique_ptr<CTcpConnector> conn;
};

TEST_F(InitTest, ConstructorStoresAndResets) {
    CTcpConnector& c = *conn;
    EXPECT_EQ(combine, Peer::m_combine_buf(c));
    EXPECT_EQ(1024, Peer::m_combine_buf_len(c));
    EXPECT_EQ(cb_combine, Peer::m_cb_combine_buf(c));
    EXPECT_EQ(1024, Peer::m_cb_combine_buf_len(c));
    EXPECT_EQ(&pool, Peer::m_net_buf_mgr(c));
    EXPECT_EQ(6u, Peer::m_max_tx_buf_num(c));
    EXPECT_EQ(7u, Peer::m_max_rx_buf_num(c));
    EXPECT_EQ(6, c.GetMaxSendQCount());
    EXPECT_EQ(7, c.GetMaxRecvQCount());
    EXPECT_EQ(-1, Peer::EpollFd(c));
    EXPECT_EQ(-1, static_cast<int>(Peer::m_socket(c)));
    EXPECT_EQ(nullptr, Peer::m_parser(c));
    EXPECT_FALSE(Peer::m_bIPv6(c));
    EXPECT_EQ(0, Peer::m_ip(c));
    EXPECT_EQ(0, Peer::m_port(c));
    const unsigned char* addr = reinterpret_cast<const unsigned char*>(&Peer::m_addr6(c));
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(0, addr[i]);
    }
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, c.GetStatus());
    EXPECT_TRUE(Peer::m_close_socket(c));
    EXPECT_EQ(0u, c.GetEvent());
    EXPECT_EQ(-1, Peer::m_packet_head_idx(c));
    EXPECT_EQ(-1, Peer::m_packet_tail_idx(c));
    EXPECT_EQ(RECV_PACKET_HEAD_STATUS, Peer::m_rx_status(c));
    EXPECT_FALSE(c.IsWaitAllocBigBuffer());
    EXPECT_TRUE(Peer::m_rx_queue(c).IsEmpty());
    EXPECT_TRUE(Peer::m_tx_queue(c).IsEmpty());
    CTcpConnector bare(nullptr, 0, nullptr, 0, nullptr, nullptr, 0, 0, nullptr, nullptr);
    EXPECT_EQ(nullptr, Peer::m_log_cat(bare));
}

TEST_F(InitTest, ResetClearsPerConnectionStateOnly) {
    CTcpConnector& c = *conn;
    ASSERT_EQ(0, c.Init("tcp://1.2.3.4:80", &parser, epfd, -1));
    Peer::m_close_socket(c) = false;
    c.SetEvent(EPOLLIN | EPOLLOUT);
    strcpy(Peer::m_peer_url(c), "tcp://x");
    Peer::m_is_wait_alloc_big_buffer(c) = true;
    Peer::m_rx_status(c) = WAIT_PARSE_PACKET_STATUS;
    Peer::m_is_sending(c) = true;
    Peer::m_packet_head_idx(c) = 3;
    Peer::m_packet_tail_idx(c) = 4;
    Peer::Slot(c, 3).len = 5;
    long rings = CTcpConnector::GetPacketRingsInUse();
    ASSERT_TRUE(Peer::GrowPacketRing(c));  // the ring in ring storage, given back by Reset
    EXPECT_EQ(rings + 1, CTcpConnector::GetPacketRingsInUse());
    Peer::Slot(c, 999).len = 5;
    Peer::m_rx_packet(c).len = 9;
    Peer::m_status(c) = CONNECTOR_STATUS_CONNECTED;
    Peer::m_tx_buf_full_cnt(c) = 3;
    Peer::m_rx_buf_full_cnt(c) = 3;
    Peer::m_is_last_tx_full(c) = true;
    Peer::m_is_last_rx_full(c) = true;
    Peer::m_rx_packet_cnt(c) = 8;
    Peer::m_tx_packet_cnt(c) = 8;
    Peer::m_tx_max_wait_time(c) = 8;
    Peer::m_rx_avg_wait_time(c) = 8.0f;
    Peer::m_packet_info_max_cnt(c) = 8;
    Peer::m_wait_alloc_starttime(c) = 8;
    Peer::m_last_sample_time(c) = 0;
    Peer::m_is_accepted(c) = true;
    NetBuffer* b = pool.Allocate(true, false);
    Peer::m_rx_queue(c).Insert(&b->m_node);

    c.Reset();
    EXPECT_TRUE(Peer::m_close_socket(c));
    EXPECT_EQ(0u, c.GetEvent());
    EXPECT_STREQ("", Peer::m_peer_url(c));
    EXPECT_EQ(nullptr, Peer::m_packet_info(c));
    EXPECT_EQ(rings, CTcpConnector::GetPacketRingsInUse());
    EXPECT_EQ(0, Peer::Slot(c, 3).len);
    EXPECT_FALSE(c.IsWaitAllocBigBuffer());
    EXPECT_EQ(RECV_PACKET_HEAD_STATUS, Peer::m_rx_status(c));
    EXPECT_EQ(nullptr, Peer::m_rx_buffer(c));
    EXPECT_FALSE(Peer::m_is_sending(c));
    EXPECT_EQ(-1, Peer::m_packet_head_idx(c));
    EXPECT_EQ(-1, Peer::m_packet_tail_idx(c));
    EXPECT_EQ(0, Peer::m_rx_packet(c).len);
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, c.GetStatus());
    EXPECT_EQ(0, Peer::m_tx_buf_full_cnt(c));
    EXPECT_EQ(0, Peer::m_rx_buf_full_cnt(c));
    EXPECT_FALSE(Peer::m_is_last_tx_full(c));
    EXPECT_FALSE(Peer::m_is_last_rx_full(c));
    EXPECT_EQ(0, Peer::m_rx_packet_cnt(c));
    EXPECT_EQ(0, Peer::m_tx_packet_cnt(c));
    EXPECT_EQ(0, Peer::m_tx_max_wait_time(c));
    EXPECT_EQ(0.0f, Peer::m_rx_avg_wait_time(c));
    EXPECT_EQ(0, Peer::m_packet_info_max_cnt(c));
    EXPECT_EQ(0, Peer::m_wait_alloc_starttime(c));
    EXPECT_GE(Peer::m_last_sample_time(c), static_cast<int>(time(nullptr)) - 1);
    // Left alone:
    EXPECT_TRUE(Peer::m_is_accepted(c));
    EXPECT_EQ(&parser, Peer::m_parser(c));
    EXPECT_EQ(epfd, Peer::EpollFd(c));
    EXPECT_EQ(80, Peer::m_port(c));
    EXPECT_EQ(1u, Peer::m_rx_queue(c).Count());
    EXPECT_STREQ("tcp://1.2.3.4:80", c.GetURL());
}

TEST_F(InitTest, InvalidArguments) {
    CTcpConnector& c = *conn;
    EXPECT_EQ(-1, c.Init(nullptr, &parser, epfd, -1));
    EXPECT_TRUE(HasError(Fmt("invalid argument, url=%p, parser=%p, epoll=%d, socket=%d", nullptr,
                             static_cast<void*>(&parser), epfd, -1)))
        << cap.Dump();
    cap.Clear();
    const char* url = "tcp://1.2.3.4:80";
    EXPECT_EQ(-1, c.Init(url, nullptr, epfd, 7));
    EXPECT_TRUE(HasError(Fmt("invalid argument, url=%p, parser=%p, epoll=%d, socket=%d",
                             static_cast<const void*>(url), nullptr, epfd, 7)))
        << cap.Dump();
    EXPECT_EQ(1u, cap.Size());
}

TEST_F(InitTest, EpollMinusOneFailsBeforeAnyOtherStep) {
    CTcpConnector& c = *conn;
    const char* url = "tcp://1.2.3.4:80";
    EXPECT_EQ(-1, c.Init(url, &parser, -1, -1));
    EXPECT_TRUE(HasError(Fmt("invalid argument, url=%p, parser=%p, epoll=%d, socket=%d",
                             static_cast<const void*>(url), static_cast<void*>(&parser), -1, -1)))
        << cap.Dump();
    EXPECT_EQ(1u, cap.Size()) << cap.Dump();  // no "enter" line
    EXPECT_STREQ("", c.GetURL());
    EXPECT_EQ(0, Peer::m_port(c));
    EXPECT_EQ(nullptr, Peer::m_parser(c));
}

TEST_F(InitTest, OtherNegativeEpollPasses) {
    CTcpConnector& c = *conn;
    EXPECT_EQ(0, c.Init("tcp://1.2.3.4:80", &parser, -5, -1));
    EXPECT_EQ(-5, Peer::EpollFd(c));
}

TEST_F(InitTest, DialledSuccess) {
    CTcpConnector& c = *conn;
    EXPECT_EQ(0, c.Init("tcp://1.2.3.4:80", &parser, epfd, -1));
    EXPECT_TRUE(
        HasInfo(Fmt("enter CTcpConnector::Init(), url=tcp://1.2.3.4:80, parser=%p, epoll=%d, socket=-1",
                    static_cast<void*>(&parser), epfd)))
        << cap.Dump();
    EXPECT_TRUE(HasInfo("enter CTcpConnector::ParseURL(), url=tcp://1.2.3.4:80"));
    EXPECT_TRUE(cap.Texts(LOG_PRIORITY_ERROR).empty()) << cap.Dump();
    EXPECT_EQ(&parser, Peer::m_parser(c));
    EXPECT_EQ(epfd, Peer::EpollFd(c));
    EXPECT_FALSE(c.IsAccptedConnector());
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, c.GetStatus());
    EXPECT_EQ(-1, static_cast<int>(Peer::m_socket(c)));
    EXPECT_FALSE(c.IsIPv6());
    EXPECT_STREQ("tcp://1.2.3.4:80", c.GetURL());
    EXPECT_EQ(80, Peer::m_port(c));
}

TEST_F(InitTest, BaseInitFailureIsPassedOn) {
    std::string url = "tcp://1.2.3.4:" + std::string(300, '8');
    EXPECT_EQ(-1, conn->Init(url.c_str(), &parser, epfd, -1));
    EXPECT_TRUE(HasError("CConnector::Init() failed, ret=-1")) << cap.Dump();
    EXPECT_STREQ("", conn->GetURL());
}

TEST_F(InitTest, ParseURLFailuresArePassedOn) {
    struct Case {
        const char* url;
        int ret;
        int ipv6;
    };
    const Case cases[] = {
        {"tcp://1.2.3.4", -1, 0},  {"tcp://abc:80", -2, 0},  {"tcp://1.2.3.4:0", -3, 0},
        {"tcp://[::1:80", -1, 1},  {"tcp://[::1]80", -1, 1}, {"tcp://[::g]:80", -2, 1},
        {"tcp://[::1]:-1", -3, 1},
    };
    for (const Case& k : cases) {
        auto c = Make(combine, sizeof(combine), &pool);
        cap.Clear();
        EXPECT_EQ(k.ret, c->Init(k.url, &parser, epfd, -1)) << k.url;
        EXPECT_TRUE(HasError(Fmt("m_bIPv6:%d, ParseURL() failed, ret=%d", k.ipv6, k.ret))) << cap.Dump();
        EXPECT_EQ(k.ipv6 != 0, c->IsIPv6());
        EXPECT_EQ(nullptr, Peer::m_parser(*c));  // step 6 not reached
    }
}

TEST_F(InitTest, BracketUrlSwitchesToIPv6Parser) {
    CTcpConnector& c = *conn;
    ASSERT_FALSE(c.IsIPv6());
    EXPECT_EQ(0, c.Init("tcp://[::1]:8080", &parser, epfd, -1));
    EXPECT_TRUE(c.IsIPv6());
    EXPECT_TRUE(HasInfo("enter CTcpConnector::ParseURLV6(), url=tcp://[::1]:8080")) << cap.Dump();
    EXPECT_EQ(0, cap.CountPrefix(LOG_PRIORITY_INFO, "enter CTcpConnector::ParseURL()"));
    EXPECT_EQ(AF_INET6, Peer::m_addr6(c).sin6_family);
    EXPECT_EQ(8080, Peer::m_port(c));
}

TEST_F(InitTest, IPv6FlagSelectsIPv6ParserForAnyUrl) {
    CTcpConnector& c = *conn;
    Peer::m_bIPv6(c) = true;
    EXPECT_EQ(-1, c.Init("tcp://1.2.3.4:80", &parser, epfd, -1));
    EXPECT_TRUE(HasError("parse url failed -- no [ipv6] in url, url=tcp://1.2.3.4:80")) << cap.Dump();
    EXPECT_TRUE(HasError("m_bIPv6:1, ParseURL() failed, ret=-1")) << cap.Dump();
}

TEST_F(InitTest, ZeroCombineLengthFailsAfterUrlParsed) {
    auto c = Make(combine, 0, &pool);
    EXPECT_EQ(-1, c->Init("tcp://1.2.3.4:80", &parser, epfd, -1));
    EXPECT_TRUE(HasError(Fmt("invalid status, m_net_buf_mgr=%p, m_combine_buf=%p, m_combine_buf_len=%d",
                             static_cast<void*>(&pool), static_cast<void*>(combine), 0)))
        << cap.Dump();
    EXPECT_EQ(80, Peer::m_port(*c));  // the URL was parsed
    EXPECT_EQ(nullptr, Peer::m_parser(*c));
    EXPECT_EQ(-1, Peer::EpollFd(*c));
}

TEST_F(InitTest, MissingPoolOrCombineBufferFails) {
    auto no_pool = Make(combine, sizeof(combine), nullptr);
    EXPECT_EQ(-1, no_pool->Init("tcp://1.2.3.4:80", &parser, epfd, -1));
    EXPECT_TRUE(HasError(Fmt("invalid status, m_net_buf_mgr=%p, m_combine_buf=%p, m_combine_buf_len=%d",
                             nullptr, static_cast<void*>(combine), 1024)))
        << cap.Dump();
    cap.Clear();
    auto no_buf = Make(nullptr, 64, &pool);
    EXPECT_EQ(-1, no_buf->Init("tcp://1.2.3.4:80", &parser, epfd, -1));
    EXPECT_TRUE(HasError(Fmt("invalid status, m_net_buf_mgr=%p, m_combine_buf=%p, m_combine_buf_len=%d",
                             static_cast<void*>(&pool), nullptr, 64)))
        << cap.Dump();
}

TEST_F(InitTest, AcceptedSocketIsRegisteredAndConnected) {
    int client = -1;
    int server = -1;
    ASSERT_TRUE(qntest::TcpPair(&client, &server));
    CTcpConnector& c = *conn;
    ASSERT_EQ(0, c.Init("tcp://127.0.0.1:80", &parser, epfd, server)) << cap.Dump();
    EXPECT_EQ(CONNECTOR_STATUS_CONNECTED, c.GetStatus());
    EXPECT_TRUE(c.IsAccptedConnector());
    EXPECT_EQ(server, static_cast<int>(Peer::m_socket(c)));
    EXPECT_EQ(kRegisteredMask, qntest::RegisteredEvents(epfd, server));
    EXPECT_EQ(13u, g_last_add_events);
    sockaddr_in a{};
    socklen_t len = sizeof(a);
    ASSERT_EQ(0, getsockname(server, reinterpret_cast<sockaddr*>(&a), &len));
    std::string local = "tcp://127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    EXPECT_EQ(local, c.GetLocalURL());
    EXPECT_TRUE(HasInfo(
        Fmt("socket(%d) > 0, accept a connect, url=tcp://127.0.0.1:80, local_url=%s", server, local.c_str())))
        << cap.Dump();
    // The registration carries the connector itself.
    unsigned int events = 0;
    void* data = nullptr;
    ASSERT_EQ(1, qntest::WaitEpoll(epfd, &events, &data, 5000));
    EXPECT_EQ(&c, data);
    EXPECT_EQ(&c, g_last_add_data);
    EXPECT_NE(0u, events & EPOLLOUT);

    conn.reset();  // Fini closes the accepted descriptor
    EXPECT_FALSE(FdOpen(server));
    close(client);
}

TEST_F(InitTest, AcceptedIPv6Socket) {
    int client = -1;
    int server = -1;
    if (!qntest::TcpPair(&client, &server, true)) {
        GTEST_SKIP() << "no IPv6 loopback on this machine";
    }
    CTcpConnector& c = *conn;
    ASSERT_EQ(0, c.Init("tcp://[::1]:80", &parser, epfd, server)) << cap.Dump();
    EXPECT_EQ(CONNECTOR_STATUS_CONNECTED, c.GetStatus());
    EXPECT_EQ(0, strncmp("tcp://[::1]:", c.GetLocalURL(), 12)) << c.GetLocalURL();
    EXPECT_EQ(kRegisteredMask, qntest::RegisteredEvents(epfd, server));
    EXPECT_EQ(13u, g_last_add_events);
    conn.reset();
    close(client);
}

TEST_F(InitTest, LocalNameFailureIsPassedOn) {
    int p[2];
    ASSERT_EQ(0, pipe(p));
    CTcpConnector& c = *conn;
    EXPECT_EQ(-1, c.Init("tcp://1.2.3.4:80", &parser, epfd, p[0]));
    EXPECT_TRUE(HasError(Fmt("getsockname() failed, socket=%d, errno=88", p[0]))) << cap.Dump();
    EXPECT_TRUE(HasError(Fmt("GetLocalSocketName() failed, m_bIPv6:0, socket=%d, ret=-1", p[0])))
        << cap.Dump();
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, c.GetStatus());
    EXPECT_EQ(-1, static_cast<int>(Peer::m_socket(c)));
    EXPECT_TRUE(FdOpen(p[0]));
    close(p[0]);
    close(p[1]);
}

TEST_F(InitTest, EpollRegistrationFailureNeitherStoresNorCloses) {
    int client = -1;
    int server = -1;
    ASSERT_TRUE(qntest::TcpPair(&client, &server));
    int p[2];
    ASSERT_EQ(0, pipe(p));
    CTcpConnector& c = *conn;
    EXPECT_EQ(-1, c.Init("tcp://127.0.0.1:80", &parser, p[0], server));
    EXPECT_TRUE(HasError("epoll_ctl() failed, errno=22")) << cap.Dump();
    EXPECT_EQ(-1, static_cast<int>(Peer::m_socket(c)));
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, c.GetStatus());
    EXPECT_FALSE(c.IsAccptedConnector());
    EXPECT_EQ(p[0], Peer::EpollFd(c));  // set before the registration was tried
    conn.reset();
    EXPECT_TRUE(FdOpen(server));  // neither closed by Init nor by Fini
    close(server);
    close(client);
    close(p[0]);
    close(p[1]);
}

TEST_F(InitTest, SocketZeroTakesTheAcceptedPath) {
    int client = -1;
    int server = -1;
    ASSERT_TRUE(qntest::TcpPair(&client, &server));
    int saved = dup(0);  // -1 when the test runs without a standard input
    ASSERT_EQ(0, dup2(server, 0));
    close(server);
    int ret = -100;
    int status = -1;
    long mask = -1;
    unsigned int add_events = 0;
    {
        auto c = Make(combine, sizeof(combine), &pool);
        ret = c->Init("tcp://127.0.0.1:80", &parser, epfd, 0);
        status = c->GetStatus();
        mask = qntest::RegisteredEvents(epfd, 0);
        add_events = g_last_add_events;
        c->SetCloseSocket(false);  // fd 0 is restored below, not closed by Fini
        c->Fini();
    }
    if (saved >= 0) {
        dup2(saved, 0);
        close(saved);
    } else {
        close(0);
    }
    close(client);
    EXPECT_EQ(0, ret) << cap.Dump();
    EXPECT_EQ(CONNECTOR_STATUS_CONNECTED, status);
    EXPECT_EQ(kRegisteredMask, mask);
    EXPECT_EQ(13u, add_events);
    EXPECT_EQ(1,
              cap.CountPrefix(LOG_PRIORITY_INFO, "socket(0) > 0, accept a connect, url=tcp://127.0.0.1:80"))
        << cap.Dump();
}

TEST_F(InitTest, SetEventOrsBits) {
    CTcpConnector& c = *conn;
    c.SetEvent(1);
    c.SetEvent(4);
    EXPECT_EQ(5u, c.GetEvent());
    c.SetEvent(1);
    EXPECT_EQ(5u, c.GetEvent());
}

TEST_F(InitTest, FiniWithoutSocketReturnsQueues) {
    CTcpConnector& c = *conn;
    ASSERT_EQ(0, c.Init("tcp://1.2.3.4:80", &parser, epfd, -1));
    CBidirList rx;
    ASSERT_TRUE(pool.Allocate(2 * 65536, rx, true));
    Peer::m_rx_queue(c).Merge(rx, false);
    NetBuffer* tx = pool.Allocate(false, false);
    Peer::m_tx_queue(c).Insert(&tx->m_node);
    Peer::m_rx_buffer(c) = static_cast<NetBuffer*>(Peer::m_rx_queue(c).Tail()->pData);
    ASSERT_EQ(3u, pool.GetUsedCount());
    cap.Clear();
    c.Fini();
    EXPECT_TRUE(
        HasInfo("enter CTcpConnector::Fini(), local_url=, url=tcp://1.2.3.4:80, socket=-1, m_rx_queue.cnt=2, "
                "m_tx_queue.cnt=1"))
        << cap.Dump();
    EXPECT_EQ(0, cap.CountPrefix(LOG_PRIORITY_INFO, "enter CTcpConnector::Close()")) << cap.Dump();
    EXPECT_EQ(0u, pool.GetUsedCount());
    EXPECT_TRUE(Peer::m_rx_queue(c).IsEmpty());
    EXPECT_TRUE(Peer::m_tx_queue(c).IsEmpty());
    EXPECT_EQ(nullptr, Peer::m_parser(c));
    EXPECT_EQ(nullptr, Peer::m_combine_buf(c));
    EXPECT_EQ(nullptr, Peer::m_net_buf_mgr(c));
    EXPECT_EQ(nullptr, Peer::m_rx_buffer(c));
    // The connector cannot be initialised for traffic again.
    cap.Clear();
    EXPECT_EQ(-1, c.Init("tcp://1.2.3.4:80", &parser, epfd, -1));
    EXPECT_TRUE(HasError(Fmt("invalid status, m_net_buf_mgr=%p, m_combine_buf=%p, m_combine_buf_len=%d",
                             nullptr, nullptr, 1024)))
        << cap.Dump();
}

TEST_F(InitTest, FiniOfAcceptedSocketUnregistersAndCloses) {
    int client = -1;
    int server = -1;
    ASSERT_TRUE(qntest::TcpPair(&client, &server));
    CTcpConnector& c = *conn;
    ASSERT_EQ(0, c.Init("tcp://127.0.0.1:80", &parser, epfd, server));
    c.SetCloseSocket(false);
    c.Fini();
    EXPECT_EQ(-1, static_cast<int>(Peer::m_socket(c)));
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, c.GetStatus());
    EXPECT_EQ(-1, qntest::RegisteredEvents(epfd, server));
    EXPECT_TRUE(FdOpen(server));
    close(server);
    close(client);
}

TEST_F(InitTest, DestructorLogsAndFinalises) {
    NetBuffer* b = pool.Allocate(false, false);
    Peer::m_tx_queue(*conn).Insert(&b->m_node);
    conn.reset();
    EXPECT_TRUE(HasInfo("enter CTcpConnector::~CTcpConnector()")) << cap.Dump();
    EXPECT_EQ(1, cap.CountPrefix(LOG_PRIORITY_INFO, "enter CTcpConnector::Fini()")) << cap.Dump();
    EXPECT_EQ(0u, pool.GetUsedCount());
}

// Messages show the connector by the virtual GetURL, so a subclass's URL text appears.
class RenamedConnector : public CTcpConnector {
  public:
    using CTcpConnector::CTcpConnector;
    // Parsing reads the host through GetURL() too, so the text keeps a valid host.
    const char* GetURL() const override { return "tcp://127.0.0.1"; }
};

TEST_F(InitTest, MessagesUseTheVirtualUrl) {
    int client = -1;
    int server = -1;
    ASSERT_TRUE(qntest::TcpPair(&client, &server));
    RenamedConnector c(combine, sizeof(combine), cb_combine, sizeof(cb_combine), last_err, &pool, 4, 4,
                       nullptr, nullptr);
    c.SetLogCat(cap.cat());
    ASSERT_EQ(0, c.Init("tcp://127.0.0.1:80", &parser, epfd, server));
    EXPECT_EQ(
        1, cap.CountPrefix(LOG_PRIORITY_INFO,
                           Fmt("socket(%d) > 0, accept a connect, url=tcp://127.0.0.1, local_url=", server)))
        << cap.Dump();
    EXPECT_TRUE(HasInfo("enter CTcpConnector::ParseURL(), url=tcp://127.0.0.1")) << cap.Dump();
    c.Fini();
    close(client);
}

}  // namespace
