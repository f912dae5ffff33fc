// URL parsing (IPv4 and IPv6), the scheme check and the local address text.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "net/tcp_connector.h"
#include "support/connector_peer.h"
#include "support/log_capture.h"
#include "support/net_helpers.h"

using namespace QUOLNET;
using Peer = QUOLNET::CTcpConnectorTestPeer;

namespace {

class UrlTest : public ::testing::Test {
  protected:
    UrlTest()
        : pool(4),
          conn(combine, sizeof(combine), cb_combine, sizeof(cb_combine), last_err, &pool, 4, 4, nullptr,
               nullptr) {
        conn.SetLogCat(cap.cat());
    }
    // Places `url` in the connector's URL field the way Init does.
    void SetUrl(const char* url) {
        memset(Peer::m_url(conn), 0, sizeof(Peer::m_url(conn)));
        strcpy(Peer::m_url(conn), url);
    }
    int Parse(const char* url) {
        SetUrl(url);
        cap.Clear();
        return conn.ParseURL();
    }
    int ParseV6(const char* url) {
        SetUrl(url);
        cap.Clear();
        return conn.ParseURLV6();
    }
    bool HasError(const std::string& text) { return cap.Has(LOG_PRIORITY_ERROR, text); }

    qntest::LogCapture cap;
    CNetBufferMgr pool;
    char combine[256];
    char cb_combine[256];
    char last_err[256];
    CTcpConnector conn;
};

TEST_F(UrlTest, IPv4Valid) {
    EXPECT_EQ(0, Parse("tcp://1.2.3.4:80"));
    EXPECT_TRUE(cap.Has(LOG_PRIORITY_INFO, "enter CTcpConnector::ParseURL(), url=tcp://1.2.3.4:80"))
        << cap.Dump();
    EXPECT_EQ(1u, cap.Size()) << cap.Dump();
    const sockaddr_in& a = Peer::m_addr(conn);
    EXPECT_EQ(AF_INET, a.sin_family);
    EXPECT_EQ(htons(80), a.sin_port);
    EXPECT_EQ(80, Peer::m_port(conn));
    EXPECT_EQ(inet_addr("1.2.3.4"), a.sin_addr.s_addr);
    EXPECT_EQ(static_cast<int>(inet_addr("1.2.3.4")), Peer::m_ip(conn));
    int ip = 0;
    int port = 0;
    conn.GetIPAndPort(ip, port);
    EXPECT_EQ(static_cast<int>(inet_addr("1.2.3.4")), ip);
    EXPECT_EQ(80, port);
    EXPECT_STREQ("tcp://1.2.3.4:80", conn.GetURL());
}

TEST_F(UrlTest, IPv4NoPort) {
    EXPECT_EQ(-1, Parse("tcp://1.2.3.4"));
    EXPECT_TRUE(HasError("parse url failed -- no port in url, url=tcp://1.2.3.4")) << cap.Dump();
}

TEST_F(UrlTest, IPv4BadAddressLeavesUrlCut) {
    EXPECT_EQ(-2, Parse("tcp://abc:80"));
    EXPECT_TRUE(HasError("parse url failed -- aton(ip), url=tcp://abc, ret=0")) << cap.Dump();
    EXPECT_STREQ("tcp://abc", conn.GetURL());
}

TEST_F(UrlTest, IPv4BadPort) {
    EXPECT_EQ(-3, Parse("tcp://1.2.3.4:0"));
    EXPECT_TRUE(HasError("parse url failed -- atoi(port), url=tcp://1.2.3.4:0, ret=0")) << cap.Dump();
    EXPECT_EQ(-3, Parse("tcp://1.2.3.4:-5"));
    EXPECT_TRUE(HasError("parse url failed -- atoi(port), url=tcp://1.2.3.4:-5, ret=-5")) << cap.Dump();
    EXPECT_EQ(-3, Parse("tcp://1.2.3.4:"));
    EXPECT_EQ(-3, Parse("tcp://1.2.3.4:x"));
    EXPECT_STREQ("tcp://1.2.3.4:x", conn.GetURL());  // the ':' is put back
}

TEST_F(UrlTest, IPv4TrailingCharactersIgnored) {
    EXPECT_EQ(0, Parse("tcp://1.2.3.4:80abc"));
    EXPECT_EQ(80, Peer::m_port(conn));
    EXPECT_EQ(htons(80), Peer::m_addr(conn).sin_port);
}

TEST_F(UrlTest, IPv4PortAbove65535IsRefused) {
    // Not cut to its low 16 bits (70000 would dial 4464): refused, the earlier address kept.
    ASSERT_EQ(0, Parse("tcp://1.2.3.4:80"));
    EXPECT_EQ(-3, Parse("tcp://1.2.3.4:70000"));
    EXPECT_EQ(-3, Parse("tcp://1.2.3.4:65536"));
    EXPECT_EQ(-3, Parse("tcp://1.2.3.4:4294967376"));
    EXPECT_EQ(80, Peer::m_port(conn));
    EXPECT_EQ(htons(80), Peer::m_addr(conn).sin_port);
    EXPECT_EQ(0, Parse("tcp://1.2.3.4:65535"));
    EXPECT_EQ(65535, Peer::m_port(conn));
}

TEST_F(UrlTest, SchemeIsSkippedNotCompared) {
    EXPECT_EQ(0, Parse("udp://1.2.3.4:80"));
    EXPECT_EQ(AF_INET, Peer::m_addr(conn).sin_family);
    EXPECT_EQ(htons(80), Peer::m_addr(conn).sin_port);
    EXPECT_EQ(80, Peer::m_port(conn));
    EXPECT_EQ(static_cast<int>(inet_addr("1.2.3.4")), Peer::m_ip(conn));
    EXPECT_FALSE(CTcpConnector::CheckURL("udp://1.2.3.4:80"));
    EXPECT_TRUE(CTcpConnector::CheckURL("tcp://1.2.3.4:80"));
}

TEST_F(UrlTest, FailedParseKeepsEarlierAddress) {
    ASSERT_EQ(0, Parse("tcp://1.2.3.4:80"));
    EXPECT_EQ(-2, Parse("tcp://9.9.9.300:81"));
    EXPECT_EQ(-3, Parse("tcp://5.6.7.8:0"));
    EXPECT_EQ(80, Peer::m_port(conn));
    EXPECT_EQ(htons(80), Peer::m_addr(conn).sin_port);
    EXPECT_EQ(inet_addr("1.2.3.4"), Peer::m_addr(conn).sin_addr.s_addr);
    EXPECT_EQ(static_cast<int>(inet_addr("1.2.3.4")), Peer::m_ip(conn));
}

TEST_F(UrlTest, ShortTextNeverReadsPastItsEnd) {
    // A long URL first, so that stale bytes sit behind the short one.
    SetUrl("tcp://[::1]:8080");
    Peer::m_url(conn)[4] = '\0';  // "tcp:" followed by stale bytes
    cap.Clear();
    EXPECT_EQ(-1, conn.ParseURL());
    EXPECT_TRUE(HasError("parse url failed -- no port in url, url=tcp:")) << cap.Dump();
    cap.Clear();
    EXPECT_EQ(-1, conn.ParseURLV6());
    EXPECT_TRUE(HasError("parse url failed -- no [ipv6] in url, url=tcp:")) << cap.Dump();
}

TEST_F(UrlTest, IPv6Valid) {
    EXPECT_EQ(0, ParseV6("tcp://[::1]:8080"));
    EXPECT_TRUE(cap.Has(LOG_PRIORITY_INFO, "enter CTcpConnector::ParseURLV6(), url=tcp://[::1]:8080"))
        << cap.Dump();
    EXPECT_EQ(1u, cap.Size()) << cap.Dump();
    const sockaddr_in6& a = Peer::m_addr6(conn);
    EXPECT_EQ(AF_INET6, a.sin6_family);
    EXPECT_EQ(htons(8080), a.sin6_port);
    EXPECT_EQ(8080, Peer::m_port(conn));
    EXPECT_EQ(0, memcmp(&in6addr_loopback, &a.sin6_addr, 16));
    EXPECT_EQ(0, memcmp(&in6addr_loopback, &Peer::m_ipv6(conn), 16));
    int ip = 0;
    int port = 0;
    conn.GetIPAndPort(ip, port);
    int first4 = 0;
    memcpy(&first4, &in6addr_loopback, 4);
    EXPECT_EQ(first4, ip);
    EXPECT_EQ(8080, port);
}

TEST_F(UrlTest, IPv6NoPortSeparator) {
    EXPECT_EQ(-1, ParseV6("tcp://[::1]8080"));
    EXPECT_TRUE(HasError("parse url failed -- no port in url, url=tcp://[::1]8080")) << cap.Dump();
    EXPECT_STREQ("tcp://[::1]8080", conn.GetURL());
}

TEST_F(UrlTest, IPv6NoClosingBracket) {
    EXPECT_EQ(-1, ParseV6("tcp://[::1:8080"));
    EXPECT_TRUE(HasError("parse url failed -- no [ipv6] in url, url=tcp://[::1:8080")) << cap.Dump();
}

TEST_F(UrlTest, IPv6BadAddressLeavesUrlCut) {
    EXPECT_EQ(-2, ParseV6("tcp://[zz::q]:80"));
    EXPECT_TRUE(HasError("parse url failed -- inet_pton(ip), url=tcp://[zz::q, ret=0")) << cap.Dump();
    EXPECT_STREQ("tcp://[zz::q", conn.GetURL());
}

TEST_F(UrlTest, IPv6BadPort) {
    EXPECT_EQ(-3, ParseV6("tcp://[::1]:0"));
    EXPECT_TRUE(HasError("parse url failed -- atoi(port), url=tcp://[::1]:0, ret=0")) << cap.Dump();
    EXPECT_EQ(-3, ParseV6("tcp://[::1]:-7"));
    EXPECT_TRUE(HasError("parse url failed -- atoi(port), url=tcp://[::1]:-7, ret=-7")) << cap.Dump();
}

TEST_F(UrlTest, IPv6PortAbove65535IsRefused) {
    ASSERT_EQ(0, ParseV6("tcp://[::1]:8080"));
    EXPECT_EQ(-3, ParseV6("tcp://[fe80::2]:70000x"));
    EXPECT_EQ(-3, ParseV6("tcp://[fe80::2]:65536"));
    EXPECT_EQ(8080, Peer::m_port(conn));
    EXPECT_EQ(htons(8080), Peer::m_addr6(conn).sin6_port);
    EXPECT_EQ(0, ParseV6("tcp://[fe80::2]:65535"));
    EXPECT_EQ(65535, Peer::m_port(conn));
}

TEST_F(UrlTest, IPv6FailedParseKeepsEarlierAddress) {
    ASSERT_EQ(0, ParseV6("tcp://[::1]:8080"));
    EXPECT_EQ(-3, ParseV6("tcp://[fe80::2]:0"));
    EXPECT_EQ(8080, Peer::m_port(conn));
    EXPECT_EQ(0, memcmp(&in6addr_loopback, &Peer::m_ipv6(conn), 16));
}

TEST(CheckURL, Prefix) {
    EXPECT_FALSE(CTcpConnector::CheckURL(nullptr));
    EXPECT_FALSE(CTcpConnector::CheckURL(""));
    EXPECT_FALSE(CTcpConnector::CheckURL("tcp:/"));
    EXPECT_FALSE(CTcpConnector::CheckURL("TCP://1.2.3.4:80"));
    EXPECT_TRUE(CTcpConnector::CheckURL("tcp://"));
    EXPECT_TRUE(CTcpConnector::CheckURL("tcp://[::1]:80"));
}

TEST(GetLocalSocketName, IPv4) {
    int client = -1;
    int server = -1;
    ASSERT_TRUE(qntest::TcpPair(&client, &server));
    sockaddr_in a{};
    socklen_t len = sizeof(a);
    ASSERT_EQ(0, getsockname(server, reinterpret_cast<sockaddr*>(&a), &len));
    char url[256];
    qntest::LogCapture cap;
    EXPECT_EQ(0, GetLocalSocketName(false, server, url, cap.cat()));
    EXPECT_EQ("tcp://127.0.0.1:" + std::to_string(ntohs(a.sin_port)), std::string(url));
    EXPECT_EQ(0u, cap.Size());
    close(client);
    close(server);
}

TEST(GetLocalSocketName, IPv6) {
    int client = -1;
    int server = -1;
    if (!qntest::TcpPair(&client, &server, true)) {
        GTEST_SKIP() << "no IPv6 loopback on this machine";
    }
    sockaddr_in6 a{};
    socklen_t len = sizeof(a);
    ASSERT_EQ(0, getsockname(client, reinterpret_cast<sockaddr*>(&a), &len));
    char url[256];
    EXPECT_EQ(0, GetLocalSocketName(true, client, url, nullptr));
    EXPECT_EQ("tcp://[::1]:" + std::to_string(ntohs(a.sin6_port)), std::string(url));
    close(client);
    close(server);
}

TEST(GetLocalSocketName, FailureLeavesUrlAndLogs) {
    qntest::LogCapture cap;
    char url[256] = "unchanged";
    EXPECT_EQ(-1, GetLocalSocketName(false, 1000000, url, cap.cat()));
    EXPECT_STREQ("unchanged", url);
    EXPECT_TRUE(cap.Has(LOG_PRIORITY_ERROR, "getsockname() failed, socket=1000000, errno=9")) << cap.Dump();
    int p[2];
    ASSERT_EQ(0, pipe(p));
    cap.Clear();
    EXPECT_EQ(-1, GetLocalSocketName(true, p[0], url, cap.cat()));
    EXPECT_STREQ("unchanged", url);
    EXPECT_TRUE(
        cap.Has(LOG_PRIORITY_ERROR, "getsockname() failed, socket=" + std::to_string(p[0]) + ", errno=88"))
        << cap.Dump();
    EXPECT_EQ(-1, GetLocalSocketName(false, p[0], url, nullptr));  // no category: silent
    close(p[0]);
    close(p[1]);
}

TEST_F(UrlTest, GetLocalURLIsTheLocalAddressText) {
    EXPECT_STREQ("", conn.GetLocalURL());
    strcpy(Peer::m_peer_url(conn), "tcp://127.0.0.1:1234");
    EXPECT_STREQ("tcp://127.0.0.1:1234", conn.GetLocalURL());
}

}  // namespace
