// TLS connections of a CConnectorMgr (quolnet::tls): echo in both delivery modes with packets
// up to 1 MiB, pipelined records, the negotiated details, certificate failures each with its
// reason and OpenSSL's message, mutual TLS, truncation, close_notify on Close, garbage and
// silence instead of a ClientHello, the handshake budget, and a TLS connection left to drain
// by a hand-over to another process. Certificates are made at test time (test_certs.h).
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "net/connector_mgr.h"
#include "support/log_capture.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"
#include "test_certs.h"
#include "tls_fixture.h"
#include "tls/tls_context.h"

namespace {

using QUOLNET::CConnectorMgr;
using QUOLNET::CloseInfo;
using QUOLNET::CloseLimit;
using QUOLNET::CloseReason;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;
using QUOLNET::CTlsContext;
using QUOLNET::DialOptions;
using QUOLNET::SocketOptions;
using QUOLNET::TlsOptions;

using qntest::Packet;
using qntest::Pump;

// Echoes on accepted connections; records what comes back on dialled ones.
class Recorder : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr* mgr, ConnId id, const char*, bool accepted) override {
        QUOLNET::IStreamIo* io = mgr->GetConnector(id)->GetStreamIo();
        if (accepted) {
            accepted_ids.insert(id);
            server_alpn = io != nullptr ? io->Alpn() : "";
            server_peer = io != nullptr ? io->PeerSubject() : "";
            server_describe = io != nullptr ? io->Describe() : "";
            return;
        }
        ++connects;
        client_describe = io != nullptr ? io->Describe() : "";
        client_peer = io != nullptr ? io->PeerSubject() : "";
    }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        if (accepted_ids.count(id) == 0) {
            received.emplace_back(data, len);
            return true;
        }
        int ret = mgr->Send(id, data, len);
        if (ret == CConnectorMgr::kSendNoRoom) {
            return false;
        }
        EXPECT_EQ(static_cast<int>(len), ret);
        return true;
    }
    void OnClosed(CConnectorMgr*, ConnId id, const CloseInfo& info) override {
        std::string text = QUOLNET::CloseErrorText(info);
        if (accepted_ids.erase(id) != 0) {
            accepted_closes.push_back(info);
            accepted_texts.push_back(text);
            return;
        }
        closes.push_back(info);
        texts.push_back(text);
    }

    std::set<ConnId> accepted_ids;
    int connects = 0;
    std::string server_alpn, server_peer, server_describe, client_describe, client_peer;
    std::vector<std::string> received;
    std::vector<CloseInfo> closes, accepted_closes;
    std::vector<std::string> texts, accepted_texts;
};

class TlsTest : public qntest::TlsMgrTest<Recorder> {
  protected:
    ConnId DialTls(const std::string& url, const TlsOptions& t) {
        std::string error;
        DialOptions d;
        d.connect_timeout_ms = 5000;
        d.socket.stream = CTlsContext::CreateClient(t, &error);
        EXPECT_NE(nullptr, d.socket.stream) << error;
        return Mgr().Dial(url.c_str(), d);
    }
    // Dials and waits for the handshake; the id (0 when it did not connect).
    ConnId Connect(const std::string& url, const TlsOptions& t) {
        int before = m_rec.connects;
        ConnId id = DialTls(url, t);
        bool ok = Pump(Mgr(), [&]() { return m_rec.connects > before || !m_rec.closes.empty(); });
        return ok && m_rec.connects > before ? id : 0;
    }
    // Dials and waits for the dial's end: its close.
    CloseInfo Refused(const std::string& url, const TlsOptions& t) {
        size_t before = m_rec.closes.size();
        DialTls(url, t);
        EXPECT_TRUE(Pump(Mgr(), [&]() { return m_rec.closes.size() > before; })) << m_log.Dump();
        return m_rec.closes.empty() ? CloseInfo() : m_rec.closes.back();
    }
};

class TlsEchoTest : public TlsTest, public ::testing::WithParamInterface<bool> {};

TEST_P(TlsEchoTest, EchoesPacketsUpToOneMebibyteAndPipelinedOnes) {
    m_options.use_recv_callback = GetParam();
    m_options.max_packet_len = 2u << 20;
    m_options.max_recv_blocks = 40;
    m_options.max_send_blocks = 40;
    std::string url = ListenTls(ServerOptions());
    ConnId id = Connect(url, ClientOptions());
    ASSERT_NE(0u, id) << m_log.Dump();
    EXPECT_EQ(0u, m_rec.client_describe.find("TLSv1.3")) << m_rec.client_describe;
    EXPECT_NE(std::string::npos, m_rec.client_peer.find("CN=localhost")) << m_rec.client_peer;

    std::vector<std::string> sent;
    for (size_t size : {1u, 100u, 16380u, 16400u, 70000u, (1u << 20) - 4}) {
        sent.push_back(Packet(std::string(size, static_cast<char>('a' + sent.size()))));
    }
    for (int i = 0; i < 100; ++i) {  // small ones back to back: many records per read
        sent.push_back(Packet("pipelined " + std::to_string(i)));
    }
    for (const std::string& p : sent) {
        int ret = CConnectorMgr::kSendNoRoom;
        for (int tick = 0; tick < 400 && ret == CConnectorMgr::kSendNoRoom; ++tick) {
            ret = Mgr().Send(id, p.data(), static_cast<unsigned int>(p.size()));
            if (ret == CConnectorMgr::kSendNoRoom) {
                Mgr().RunOnce(25);  // the queue drains as the peer reads
            }
        }
        ASSERT_EQ(static_cast<int>(p.size()), ret) << m_log.Dump();
    }
    ASSERT_TRUE(Pump(
        Mgr(), [&]() { return m_rec.received.size() == sent.size(); }, 2000))
        << m_rec.received.size() << " of " << sent.size() << " came back\n"
        << m_log.Dump();
    EXPECT_EQ(sent, m_rec.received);
}

INSTANTIATE_TEST_SUITE_P(DeliveryModes, TlsEchoTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& p) {
                             return p.param ? "Callback" : "Peek";
                         });

TEST_F(TlsTest, NegotiatesAlpnAndTellsTheHandler) {
    TlsOptions s = ServerOptions();
    s.alpn = {"h2", "echo/1"};
    TlsOptions c = ClientOptions();
    c.alpn = {"echo/1"};
    ConnId id = Connect(ListenTls(s), c);
    ASSERT_NE(0u, id) << m_log.Dump();
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.accepted_ids.empty(); }));  // the server finishes last
    EXPECT_EQ("echo/1", m_rec.server_alpn);
    EXPECT_EQ("echo/1", Mgr().GetConnector(id)->GetStreamIo()->Alpn());
}

TEST_F(TlsTest, UnknownCaFailsTheDialWithItsReasonAndMessage) {
    std::string url = ListenTls(ServerOptions());
    TlsOptions c;
    c.ca_pem = qntest::MakeCa("another CA").cert;
    CloseInfo info = Refused(url, c);
    EXPECT_EQ(CloseReason::kHandshakeFailed, info.reason);
    EXPECT_NE(std::string::npos, m_rec.texts.back().find("certificate verify failed")) << m_rec.texts.back();
    EXPECT_TRUE(Pump(Mgr(), [&]() { return Mgr().GetCloseCount(CloseReason::kHandshakeFailed) == 2; }))
        << "the server's side counts its failed handshake too";
    EXPECT_EQ(0, m_rec.connects);
    EXPECT_TRUE(m_rec.accepted_closes.empty()) << "the handler never heard of the accepted one";
}

TEST_F(TlsTest, WrongHostNameFailsTheDial) {
    TlsOptions s;
    qntest::Pem other = qntest::MakeLeaf(*s_ca, "other.example", {"other.example"});
    s.cert_pem = other.cert;
    s.key_pem = other.key;
    CloseInfo info = Refused(ListenTls(s), ClientOptions());
    EXPECT_EQ(CloseReason::kHandshakeFailed, info.reason);
    EXPECT_NE(std::string::npos, m_rec.texts.back().find("IP address mismatch")) << m_rec.texts.back();
}

TEST_F(TlsTest, ExpiredCertificateFailsTheDial) {
    TlsOptions s;
    qntest::Pem old = qntest::MakeLeaf(*s_ca, "localhost", {"127.0.0.1"}, true);
    s.cert_pem = old.cert;
    s.key_pem = old.key;
    CloseInfo info = Refused(ListenTls(s), ClientOptions());
    EXPECT_EQ(CloseReason::kHandshakeFailed, info.reason);
    EXPECT_NE(std::string::npos, m_rec.texts.back().find("expired")) << m_rec.texts.back();
}

TEST_F(TlsTest, MutualTlsChecksTheClientCertificate) {
    TlsOptions s = ServerOptions();
    s.client_cert = TlsOptions::ClientCert::kRequire;
    s.ca_pem = s_ca->cert;
    std::string url = ListenTls(s);

    TlsOptions c = ClientOptions();
    qntest::Pem client = qntest::MakeLeaf(*s_ca, "client one", {}, false, true);
    c.cert_pem = client.cert;
    c.key_pem = client.key;
    ConnId id = Connect(url, c);
    ASSERT_NE(0u, id) << m_log.Dump();
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.accepted_ids.empty(); }));
    EXPECT_NE(std::string::npos, m_rec.server_peer.find("CN=client one")) << m_rec.server_peer;

    // Without a certificate the server refuses the handshake and counts it.
    DialTls(url, ClientOptions());
    EXPECT_TRUE(Pump(Mgr(), [&]() { return Mgr().GetCloseCount(CloseReason::kHandshakeFailed) >= 1; }))
        << m_log.Dump();
}

TEST_F(TlsTest, PeerClosingWithoutCloseNotifyIsTruncation) {
    ConnId id = Connect(ListenTls(ServerOptions()), ClientOptions());
    ASSERT_NE(0u, id) << m_log.Dump();
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.accepted_ids.empty(); }));
    // The client's socket ends its stream under the session: a FIN without a close_notify.
    ASSERT_EQ(0, shutdown(Mgr().GetConnector(id)->GetSocket(), SHUT_WR));
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.accepted_closes.empty(); })) << m_log.Dump();
    EXPECT_EQ(CloseReason::kTruncated, m_rec.accepted_closes[0].reason);
    EXPECT_NE(std::string::npos, m_rec.accepted_texts[0].find("close_notify")) << m_rec.accepted_texts[0];
    EXPECT_EQ(1u, Mgr().GetCloseCount(CloseReason::kTruncated));
}

TEST_F(TlsTest, CloseSendsCloseNotifyAfterEveryByte) {
    ConnId id = Connect(ListenTls(ServerOptions()), ClientOptions());
    ASSERT_NE(0u, id) << m_log.Dump();
    std::string p = Packet(std::string(200000, 'z'));
    ASSERT_EQ(static_cast<int>(p.size()), Mgr().Send(id, p.data(), static_cast<unsigned int>(p.size())));
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.received.size() == 1; })) << m_log.Dump();
    Mgr().Close(id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.accepted_closes.empty() && !m_rec.closes.empty(); }))
        << m_log.Dump();
    EXPECT_EQ(CloseReason::kPeerClosed, m_rec.accepted_closes[0].reason) << "a clean end, not truncation";
    EXPECT_EQ(CloseReason::kClosedLocally, m_rec.closes[0].reason);
    EXPECT_EQ(0u, Mgr().GetCloseCount(CloseReason::kTruncated));
}

TEST_F(TlsTest, GarbageInsteadOfAClientHelloClosesAtOnce) {
    ListenTls(ServerOptions());
    int fd = qntest::DialListener(Mgr());
    ASSERT_GE(fd, 0);
    const char kHttp[] = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
    ASSERT_TRUE(qntest::WriteAll(fd, kHttp, sizeof(kHttp) - 1));
    ASSERT_TRUE(Pump(Mgr(), [&]() { return Mgr().GetCloseCount(CloseReason::kHandshakeFailed) == 1; }))
        << m_log.Dump();
    close(fd);
    EXPECT_EQ(0u, m_rec.accepted_ids.size());
    EXPECT_TRUE(Mgr().ListConnections().empty());
}

TEST_F(TlsTest, SilentHandshakeEndsAtItsDeadline) {
    m_options.handshake_timeout_ms = 150;
    ListenTls(ServerOptions());
    int fd = qntest::DialListener(Mgr());
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return Mgr().GetLimitCloseCount(CloseLimit::kHandshakeTimeout) == 1; }))
        << m_log.Dump();
    int end = -1;
    qntest::ReadToEnd(fd, &end, 2000);
    EXPECT_NE(ETIMEDOUT, end) << "the socket was closed";
    close(fd);
    EXPECT_EQ(1, m_log.CountPrefix(QUOLNET::LOG_PRIORITY_WARN, "closing connection ")) << m_log.Dump();
}

}  // namespace

namespace {

// Regression: a dial waiting for the server's first flight stayed registered for write
// readiness (only the bookkeeping of the mask was narrowed), so every tick woke up to retry
// the handshake with a read that met would-block: a busy loop that also starved the reply.
TEST_F(TlsTest, AHandshakeWaitingForThePeerIsRegisteredForReadingOnly) {
    qntest::Listener peer;  // accepts and never answers the ClientHello
    ConnId id = DialTls("tcp://127.0.0.1:" + std::to_string(peer.port()), ClientOptions());
    ASSERT_NE(0u, id);
    int fd = peer.Accept();
    ASSERT_GE(fd, 0);
    std::string hello;
    ASSERT_TRUE(Pump(Mgr(), [&]() {
        char buf[512];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n > 0) {
            hello.append(buf, static_cast<size_t>(n));
        }
        return hello.size() >= 5;
    }));
    EXPECT_EQ(0x16, hello[0]) << "a TLS handshake record (the ClientHello)";
    for (int i = 0; i < 5; ++i) {
        Mgr().RunOnce(5);
    }
    QUOLNET::CTcpConnector* k = Mgr().GetConnector(id);
    ASSERT_NE(nullptr, k);
    EXPECT_TRUE(k->IsHandshaking());
    EXPECT_EQ(0, Mgr().RunOnce(0)) << "nothing to do: no wake-up for writability";
    if (std::string(Mgr().GetIoBackendName()) == "epoll") {  // the epoll set itself can be read
        long events = qntest::RegisteredEvents(Mgr().GetEpollFd(), k->GetSocket());
        EXPECT_NE(0, events & EPOLLIN);
        EXPECT_EQ(0, events & EPOLLOUT) << "registered " << events;
    }
    close(fd);
}

}  // namespace

namespace {

TEST_F(TlsTest, ASecondDialResumesTheSessionFromItsTicket) {
    std::string url = ListenTls(ServerOptions());
    std::string error;
    auto client = CTlsContext::CreateClient(ClientOptions(), &error);
    ASSERT_NE(nullptr, client) << error;
    DialOptions d;
    d.socket.stream = client;
    for (int i = 0; i < 2; ++i) {
        ConnId id = Mgr().Dial(url.c_str(), d);
        ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.connects == i + 1; })) << m_log.Dump();
        // The ticket comes after the handshake: one echo makes sure it has been read.
        std::string p = Packet("ticket");
        ASSERT_EQ(static_cast<int>(p.size()), Mgr().Send(id, p.data(), static_cast<unsigned int>(p.size())));
        ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.received.size() == static_cast<size_t>(i + 1); }));
        Mgr().Close(id);
        ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.closes.size() == static_cast<size_t>(i + 1); }));
    }
    EXPECT_EQ(1u, client->GetResumedCount());
    EXPECT_NE(std::string::npos, m_rec.client_describe.find("resumed")) << m_rec.client_describe;
}

TEST_F(TlsTest, ReloadServesTheNewCertificateToNewConnectionsOnly) {
    std::string error;
    auto server = CTlsContext::CreateServer(ServerOptions(), &error);
    ASSERT_NE(nullptr, server) << error;
    SocketOptions s;
    s.stream = server;
    ASSERT_GT(Mgr().Listen("tcp://127.0.0.1:0", s), 0);
    std::string url = Mgr().GetListenURL(0);
    ConnId first = Connect(url, ClientOptions());
    ASSERT_NE(0u, first);
    EXPECT_NE(std::string::npos, m_rec.client_peer.find("CN=localhost"));

    TlsOptions renewed;
    qntest::Pem next = qntest::MakeLeaf(*s_ca, "renewed", {"127.0.0.1"});
    renewed.cert_pem = next.cert;
    renewed.key_pem = next.key;
    ASSERT_TRUE(server->Reload(renewed, &error)) << error;
    TlsOptions broken;
    broken.cert_pem = next.cert;  // no key: refused, the renewed one stays
    EXPECT_FALSE(server->Reload(broken, &error));
    EXPECT_FALSE(error.empty());

    TlsOptions c = ClientOptions();
    c.session_tickets = false;
    ConnId second = Connect(url, c);
    ASSERT_NE(0u, second) << m_log.Dump();
    EXPECT_NE(std::string::npos, m_rec.client_peer.find("CN=renewed")) << m_rec.client_peer;
    // The first connection goes on with its session.
    std::string p = Packet("still here");
    ASSERT_EQ(static_cast<int>(p.size()), Mgr().Send(first, p.data(), static_cast<unsigned int>(p.size())));
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.received.size() == 1; }));
}

TEST_F(TlsTest, BadOptionsAreRefusedWithAReason) {
    std::string error;
    TlsOptions t;
    EXPECT_EQ(nullptr, CTlsContext::CreateServer(t, &error)) << "a server needs a certificate";
    EXPECT_NE(std::string::npos, error.find("certificate")) << error;
    t = ServerOptions();
    t.min_version = "1.1";
    EXPECT_EQ(nullptr, CTlsContext::CreateServer(t, &error));
    t = ServerOptions();
    t.key_pem = qntest::MakeCa("another").key;
    EXPECT_EQ(nullptr, CTlsContext::CreateServer(t, &error));
    EXPECT_NE(std::string::npos, error.find("key")) << error;
    t = ClientOptions();
    t.cert_file = "/nonexistent/cert.pem";
    t.key_file = "/nonexistent/key.pem";
    EXPECT_EQ(nullptr, CTlsContext::CreateClient(t, &error));
    EXPECT_NE(std::string::npos, error.find("/nonexistent/cert.pem")) << error;
    t = ClientOptions();
    t.alpn = {std::string(300, 'x')};
    EXPECT_EQ(nullptr, CTlsContext::CreateClient(t, &error));
}

}  // namespace

namespace {

// Regression: in callback mode, a packet that came in the same segment as the client's
// Finished was framed inside the handshake step and offered before OnConnected; a reply
// from OnPacket then met kSendNotConnected and was lost.
TEST_F(TlsTest, APacketThatComesWithTheHandshakeIsOfferedAfterOnConnected) {
    struct Order : QUOLNET::IConnectorHandler {
        void OnConnected(CConnectorMgr* mgr, ConnId id, const char*, bool accepted) override {
            if (accepted) {
                server_ids.insert(id);
                return;
            }
            // The client sends at once: its bytes follow its Finished closely.
            std::string p = Packet("right after the handshake");
            sent = mgr->Send(id, p.data(), static_cast<unsigned int>(p.size()));
            client = id;
        }
        bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
            if (id == client) {
                echoed.emplace_back(data, len);
                return true;
            }
            if (server_ids.count(id) == 0) {
                ++before_connected;
            }
            replies.push_back(mgr->Send(id, data, len));
            return true;
        }
        std::set<ConnId> server_ids;
        ConnId client = 0;
        int sent = 0;
        int before_connected = 0;
        std::vector<int> replies;
        std::vector<std::string> echoed;
    } order;
    for (bool callback : {true, false}) {
        order = Order();
        ConnectorMgrOptions o;
        o.pool = &m_pool;
        o.log_cat = m_log.cat();
        o.use_recv_callback = callback;
        CConnectorMgr mgr(&order, o);
        ASSERT_EQ(0, mgr.Init());
        std::string error;
        SocketOptions s;
        s.stream = CTlsContext::CreateServer(ServerOptions(), &error);
        ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0", s), 0);
        DialOptions d;
        d.socket.stream = CTlsContext::CreateClient(ClientOptions(), &error);
        ASSERT_NE(0u, mgr.Dial(mgr.GetListenURL(0).c_str(), d));
        ASSERT_TRUE(Pump(mgr, [&]() { return !order.echoed.empty(); })) << m_log.Dump();
        EXPECT_GT(order.sent, 0);
        EXPECT_EQ(0, order.before_connected) << (callback ? "callback" : "peek");
        ASSERT_EQ(1u, order.replies.size());
        EXPECT_GT(order.replies[0], 0);
    }
}

}  // namespace

namespace {

// Counts the handshakes completed (OnConnected, either side) in each tick.
class TickCounter : public Recorder {
  public:
    void OnConnected(CConnectorMgr* mgr, ConnId id, const char* url, bool accepted) override {
        Recorder::OnConnected(mgr, id, url, accepted);
        ++this_tick;
        ++total;
    }
    void OnTick(CConnectorMgr*) override {
        most = std::max(most, this_tick);
        this_tick = 0;
    }
    int this_tick = 0;
    int most = 0;
    int total = 0;
};

TEST_F(TlsTest, HandshakeStepsPerTickAreBounded) {
    m_options.handshakes_per_tick = 1;
    TickCounter counter;
    ConnectorMgrOptions o = m_options;
    o.pool = &m_pool;
    o.log_cat = m_log.cat();
    m_mgr.reset(new CConnectorMgr(&counter, o));
    ASSERT_EQ(0, m_mgr->Init());
    std::string url = ListenTls(ServerOptions());
    const int kDials = 8;
    for (int i = 0; i < kDials; ++i) {
        ASSERT_NE(0u, DialTls(url, ClientOptions()));
    }
    ASSERT_TRUE(Pump(Mgr(), [&]() { return counter.total == 2 * kDials; })) << m_log.Dump();
    counter.OnTick(m_mgr.get());
    EXPECT_EQ(1, counter.most) << "one handshake step a tick completes at most one handshake";
    EXPECT_EQ(static_cast<size_t>(kDials), counter.accepted_ids.size());
    m_mgr.reset();  // before the handler goes
}

}  // namespace

namespace {

// Echoes every packet; for the servers that run on threads of their own below.
class ThreadEcho : public QUOLNET::IConnectorHandler {
  public:
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        return mgr->Send(id, data, len) != CConnectorMgr::kSendNoRoom;
    }
};

// A TLS connection cannot move to another process (its session lives in this one's OpenSSL):
// at a hand-over it stays in the old manager and drains there. The reply to what the client
// sent comes, then a clean end (close_notify, not truncation), and the old manager's Run
// returns once it has ended; the plain connection and the listeners move, so the next TLS
// client reaches the new manager.
TEST_F(TlsTest, AHandOverLeavesATlsConnectionToDrainCleanly) {
    std::string path = "/tmp/quolnet-tls-handover-" + std::to_string(getpid()) + ".sock";
    ThreadEcho echo;
    QUOLNET::CNetBufferMgr old_pool(256);
    QUOLNET::CNetBufferMgr new_pool(256);
    ConnectorMgrOptions so;
    so.log_cat = m_log.cat();
    so.pool = &old_pool;
    CConnectorMgr old_mgr(&echo, so);
    ASSERT_EQ(0, old_mgr.Init());
    std::string error;
    SocketOptions tls;
    tls.stream = CTlsContext::CreateServer(ServerOptions(), &error);
    ASSERT_NE(nullptr, tls.stream) << error;
    ASSERT_GT(old_mgr.Listen("tcp://127.0.0.1:0", tls), 0);
    ASSERT_GT(old_mgr.Listen("tcp://127.0.0.1:0"), 0);
    std::string tls_url = old_mgr.GetListenURL(0);
    std::string plain_url = old_mgr.GetListenURL(1);
    std::thread old_thread([&]() { old_mgr.Run(); });

    ConnId id = Connect(tls_url, ClientOptions());
    ASSERT_NE(0u, id) << m_log.Dump();
    int plain = qntest::DialURL(plain_url);
    ASSERT_GE(plain, 0);
    std::string ping = Packet("plain");
    ASSERT_TRUE(qntest::WriteAll(plain, ping.data(), ping.size()));
    std::string back(ping.size(), '\0');
    ASSERT_TRUE(qntest::ReadExactly(plain, &back[0], back.size()));
    std::string last = Packet(std::string(100000, 'l'));  // on its way at the hand-over
    ASSERT_EQ(static_cast<int>(last.size()),
              Mgr().Send(id, last.data(), static_cast<unsigned int>(last.size())));
    Mgr().RunOnce(0);

    QUOLNET::HandOverOptions options;
    options.drain_ms = 5000;
    std::atomic<int> offered{1};
    old_mgr.Post([&]() { offered = old_mgr.OfferHandOver(path.c_str(), options); });
    so.pool = &new_pool;
    CConnectorMgr new_mgr(&echo, so);
    ASSERT_EQ(0, new_mgr.Init());
    QUOLNET::TakeOverResult result;
    ASSERT_EQ(0, new_mgr.TakeOver(path.c_str(), options, &result)) << result.error;
    EXPECT_EQ(0, offered.load());
    EXPECT_EQ(1u, result.connections) << "the plain one; the TLS one stays";
    EXPECT_EQ(2u, result.listeners);
    ASSERT_GT(new_mgr.Listen(tls_url.c_str(), tls), 0);
    ASSERT_GT(new_mgr.Listen(plain_url.c_str()), 0);
    std::thread new_thread([&]() { new_mgr.Run(); });

    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.closes.empty(); })) << m_log.Dump();
    ASSERT_EQ(1u, m_rec.received.size());
    EXPECT_TRUE(m_rec.received[0] == last) << "the reply came whole before the end";
    EXPECT_EQ(CloseReason::kPeerClosed, m_rec.closes[0].reason) << "a clean end, not truncation";
    old_thread.join();  // Run returns once the TLS connection has ended
    EXPECT_EQ(1u, old_mgr.GetCloseCount(CloseReason::kHandedOver));
    EXPECT_EQ(1u, old_mgr.GetShutdownDrainedCount());
    EXPECT_EQ(0u, old_mgr.GetShutdownAbortedCount());

    int connects = m_rec.connects;
    ConnId again = DialTls(tls_url, ClientOptions());
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.connects > connects || m_rec.closes.size() > 1; }));
    EXPECT_EQ(connects + 1, m_rec.connects) << "a new TLS client reaches the new manager" << m_log.Dump();
    EXPECT_EQ(1u, new_mgr.GetAcceptCount());
    ASSERT_TRUE(qntest::WriteAll(plain, ping.data(), ping.size()));
    ASSERT_TRUE(qntest::ReadExactly(plain, &back[0], back.size()));
    EXPECT_EQ(ping, back);
    close(plain);
    Mgr().Close(again);
    Pump(Mgr(), [&]() { return m_rec.closes.size() == 2; });
    new_mgr.Stop();
    new_thread.join();
}

}  // namespace
