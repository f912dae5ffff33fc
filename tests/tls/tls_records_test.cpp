// Compact TLS records (TlsOptions::compact_records): a server's TLS 1.3 connection leaves
// OpenSSL after its handshake and goes on with the library's own record layer. Which
// connections move (and which keep OpenSSL), every TLS 1.3 suite with key updates both ways,
// a record trickling in one byte per segment, corrupt records each failing with its reason,
// a record cut by the end of the stream, a full socket (only the record it cut is held),
// and the heap an idle connection costs.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "net/connector_mgr.h"
#include "support/log_capture.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"
#include "test_certs.h"
#include "tls_fixture.h"
#include "tls/tls_context.h"
#include "tls/tls_records.h"
#include "tls/tls_stream.h"

namespace {

using QUOLNET::CConnectorMgr;
using QUOLNET::CloseInfo;
using QUOLNET::CloseReason;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;
using QUOLNET::CTlsContext;
using QUOLNET::CTlsStream;
using QUOLNET::DialOptions;
using QUOLNET::IStreamIo;
using QUOLNET::SocketOptions;
using QUOLNET::TlsOptions;

using qntest::Packet;
using qntest::Pump;

// The longest record a peer may send: header, 2^14 bytes, 256 of expansion.
const size_t kMaxRecord = 5 + 16384 + 256;

CTlsStream* TlsOf(CConnectorMgr& mgr, ConnId id) {
    QUOLNET::CTcpConnector* k = mgr.GetConnector(id);
    return k != nullptr ? static_cast<CTlsStream*>(k->GetStreamIo()) : nullptr;
}

// Echoes on accepted connections; records what comes back on dialled ones.
class Recorder : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr* mgr, ConnId id, const char*, bool accepted) override {
        IStreamIo* io = mgr->GetConnector(id)->GetStreamIo();
        if (accepted) {
            accepted_ids.insert(id);
            last_accepted = id;
            server_describe = io != nullptr ? io->Describe() : "";
            server_alpn = io != nullptr ? io->Alpn() : "";
            server_peer = io != nullptr ? io->PeerSubject() : "";
            return;
        }
        ++connects;
    }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        if (accepted_ids.count(id) == 0) {
            received.emplace_back(data, len);
            return true;
        }
        if (!echo) {
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
    }

    bool echo = true;
    std::set<ConnId> accepted_ids;
    ConnId last_accepted = 0;
    int connects = 0;
    std::string server_describe, server_alpn, server_peer;
    std::vector<std::string> received;
    std::vector<CloseInfo> closes, accepted_closes;
    std::vector<std::string> accepted_texts;
};

// A TLS client of this test's own between a socketpair and a TCP connection to the
// listener: the test moves the client's bytes to the server itself (whole, in pieces, or
// edited) and the server's back.
class Relay {
  public:
    explicit Relay(int tcp) : m_tcp(tcp) {
        int sv[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv));
        m_client = sv[0];
        m_relay = sv[1];
        fcntl(m_tcp, F_SETFL, fcntl(m_tcp, F_GETFL) | O_NONBLOCK);
    }
    ~Relay() {
        m_tls.reset();
        close(m_client);
        close(m_relay);
        if (m_tcp >= 0) {
            close(m_tcp);
        }
    }
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    bool Start(CTlsContext& client) {
        m_tls = client.Create(false, "localhost");
        return m_tls != nullptr && m_tls->Attach(m_client) == 0;
    }
    IStreamIo& Tls() { return *m_tls; }
    int Tcp() const { return m_tcp; }
    // Takes what the client wrote into Pending().
    void Fill() {
        char buf[65536];
        ssize_t n;
        while ((n = read(m_relay, buf, sizeof(buf))) > 0) {
            m_up.append(buf, static_cast<size_t>(n));
        }
    }
    std::string& Pending() { return m_up; }
    // Sends up to `limit` pending bytes (all when 0) to the server; the count sent.
    size_t Flush(size_t limit = 0) {
        size_t want = limit == 0 ? m_up.size() : std::min(limit, m_up.size());
        ssize_t n = want > 0 ? send(m_tcp, m_up.data(), want, MSG_NOSIGNAL) : 0;
        if (n > 0) {
            m_up.erase(0, static_cast<size_t>(n));
        }
        return n > 0 ? static_cast<size_t>(n) : 0;
    }
    // Moves what the server sent to the client's socket.
    void Down() {
        char buf[65536];
        ssize_t n;
        while ((n = read(m_tcp, buf, sizeof(buf))) > 0) {
            m_down.append(buf, static_cast<size_t>(n));
        }
        while (!m_down.empty()) {
            ssize_t w = write(m_relay, m_down.data(), m_down.size());
            if (w <= 0) {
                break;
            }
            m_down.erase(0, static_cast<size_t>(w));
        }
    }

  private:
    int m_tcp;
    int m_client = -1;
    int m_relay = -1;
    std::unique_ptr<IStreamIo> m_tls;
    std::string m_up, m_down;
};

class TlsRecordsTest : public qntest::TlsMgrTest<Recorder> {
  protected:
    // Dials with TLS and waits until both ends are connected; the dialled id (0: failed).
    ConnId Connect(const std::string& url, const TlsOptions& t) {
        std::string error;
        DialOptions d;
        d.connect_timeout_ms = 5000;
        d.socket.stream = CTlsContext::CreateClient(t, &error);
        EXPECT_NE(nullptr, d.socket.stream) << error;
        int before = m_rec.connects;
        size_t accepted = m_rec.accepted_ids.size();
        ConnId id = Mgr().Dial(url.c_str(), d);
        bool ok = Pump(Mgr(), [&]() {
            return (m_rec.connects > before && m_rec.accepted_ids.size() > accepted) || !m_rec.closes.empty();
        });
        return ok && m_rec.connects > before ? id : 0;
    }
    // Sends every packet (waiting while the queue is full) and waits for every echo.
    void EchoAll(ConnId id, const std::vector<std::string>& packets) {
        size_t before = m_rec.received.size();
        for (const std::string& p : packets) {
            int ret = CConnectorMgr::kSendNoRoom;
            for (int tick = 0; tick < 400 && ret == CConnectorMgr::kSendNoRoom; ++tick) {
                ret = Mgr().Send(id, p.data(), static_cast<unsigned int>(p.size()));
                if (ret == CConnectorMgr::kSendNoRoom) {
                    Mgr().RunOnce(25);
                }
            }
            ASSERT_EQ(static_cast<int>(p.size()), ret) << m_log.Dump();
        }
        ASSERT_TRUE(Pump(
            Mgr(), [&]() { return m_rec.received.size() == before + packets.size(); }, 2000))
            << m_log.Dump();
        std::vector<std::string> got(m_rec.received.begin() + static_cast<long>(before),
                                     m_rec.received.end());
        EXPECT_EQ(packets, got);
    }
    // A raw TLS client through a Relay to the listener, its handshake done (null: failed).
    // `rcvbuf`: the receive buffer of its TCP socket, set before it connects (0: the default).
    // `with_finished`: application bytes the client writes as soon as its handshake is done,
    // sent in one segment with its Finished.
    std::unique_ptr<Relay> RawClient(const TlsOptions& t = ClientOptions(), int rcvbuf = 0,
                                     const std::string& with_finished = std::string()) {
        std::string error;
        auto client = CTlsContext::CreateClient(t, &error);
        EXPECT_NE(nullptr, client) << error;
        int fd = -1;
        if (rcvbuf == 0) {
            fd = qntest::DialListener(Mgr());
        } else {
            struct sockaddr_storage ss;
            socklen_t len = 0;
            EXPECT_EQ(0, QUOLNET::CTcpListener::ParseURL(Mgr().GetListenURL(0).c_str(), &ss, &len, nullptr));
            fd = socket(ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
            EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&ss), len));
        }
        std::unique_ptr<Relay> relay(new Relay(fd));
        if (client == nullptr || !relay->Start(*client)) {
            return nullptr;
        }
        size_t accepted = m_rec.accepted_ids.size();
        for (int i = 0; i < 2000; ++i) {
            int r = relay->Tls().Handshake();
            if (r == IStreamIo::kFailed) {
                ADD_FAILURE() << relay->Tls().LastError();
                return nullptr;
            }
            if (r == 0 && !with_finished.empty() && relay->Pending().empty()) {
                relay->Fill();  // the Finished
                WriteThrough(*relay, with_finished);
            }
            relay->Fill();
            relay->Flush();
            Mgr().RunOnce(1);
            relay->Down();
            if (r == 0 && m_rec.accepted_ids.size() > accepted) {
                return relay;
            }
        }
        ADD_FAILURE() << "no handshake\n" << m_log.Dump();
        return nullptr;
    }
    // Reads `want` application bytes through the relay's client (pumping the manager).
    std::string ReadThrough(Relay& relay, size_t want) {
        std::string got;
        std::vector<char> buf(1 << 16);
        for (int i = 0; i < 20000 && got.size() < want; ++i) {
            Mgr().RunOnce(got.empty() ? 1 : 0);
            relay.Down();
            int n;
            while ((n = relay.Tls().Read(buf.data(), static_cast<int>(buf.size()))) > 0) {
                got.append(buf.data(), static_cast<size_t>(n));
            }
            if (n != IStreamIo::kWantRead && n != IStreamIo::kWantWrite) {
                break;
            }
        }
        return got;
    }
    // Writes `bytes` through the relay's client into Pending() (not sent yet).
    static void WriteThrough(Relay& relay, const std::string& bytes) {
        size_t off = 0;
        while (off < bytes.size()) {
            int n = relay.Tls().Write(bytes.data() + off, static_cast<int>(bytes.size() - off));
            ASSERT_GT(n, 0) << relay.Tls().LastError();
            off += static_cast<size_t>(n);
            relay.Fill();
        }
    }
};

TEST_F(TlsRecordsTest, ServerConnectionRunsOnCompactRecordsAfterTheHandshake) {
    TlsOptions s = ServerOptions();
    s.alpn = {"echo/1"};
    s.client_cert = TlsOptions::ClientCert::kRequire;
    s.ca_pem = s_ca->cert;
    TlsOptions c = ClientOptions();
    c.alpn = {"echo/1"};
    qntest::Pem client = qntest::MakeLeaf(*s_ca, "client one", {}, false, true);
    c.cert_pem = client.cert;
    c.key_pem = client.key;
    ConnId id = Connect(ListenTls(s), c);
    ASSERT_NE(0u, id) << m_log.Dump();
    CTlsStream* server = TlsOf(Mgr(), m_rec.last_accepted);
    ASSERT_NE(nullptr, server);
    EXPECT_TRUE(server->IsCompact());
    EXPECT_FALSE(TlsOf(Mgr(), id)->IsCompact()) << "a client keeps OpenSSL";
    // What was negotiated reads the same after OpenSSL's session is gone.
    EXPECT_EQ(0u, server->Describe().find("TLSv1.3 TLS_")) << server->Describe();
    EXPECT_EQ(TlsOf(Mgr(), id)->Describe(), server->Describe());
    EXPECT_EQ("echo/1", server->Alpn());
    EXPECT_NE(std::string::npos, server->PeerSubject().find("CN=client one")) << server->PeerSubject();
    EXPECT_EQ(m_rec.server_describe, server->Describe());
    EchoAll(id, {Packet("one"), Packet(std::string(40000, 'x'))});
    EXPECT_EQ(0u, server->CompactHeldBytes()) << "nothing held once idle";
}

TEST_F(TlsRecordsTest, RecordsThatCameWithTheClientsFinishedAreRead) {
    ListenTls(ServerOptions());
    std::string first = Packet("sent with the Finished") + Packet(std::string(30000, 'e'));
    std::unique_ptr<Relay> relay = RawClient(ClientOptions(), 0, first);
    ASSERT_NE(nullptr, relay);
    EXPECT_TRUE(TlsOf(Mgr(), m_rec.last_accepted)->IsCompact())
        << "OpenSSL read no further than the Finished: the records wait in the socket";
    EXPECT_EQ(first, ReadThrough(*relay, first.size())) << m_log.Dump();
}

TEST_F(TlsRecordsTest, ResumedConnectionMovesToo) {
    std::string url = ListenTls(ServerOptions());
    std::string error;
    DialOptions d;
    d.socket.stream = CTlsContext::CreateClient(ClientOptions(), &error);
    ASSERT_NE(nullptr, d.socket.stream) << error;
    for (int i = 0; i < 2; ++i) {
        ConnId id = Mgr().Dial(url.c_str(), d);
        ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.connects == i + 1 && m_rec.accepted_ids.size() == 1; }))
            << m_log.Dump();
        CTlsStream* server = TlsOf(Mgr(), m_rec.last_accepted);
        EXPECT_TRUE(server->IsCompact());
        EXPECT_EQ(i == 1, server->Describe().find(" resumed") != std::string::npos) << server->Describe();
        EchoAll(id, {Packet("ticket " + std::to_string(i))});  // the ticket has been read
        Mgr().Close(id);
        ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.accepted_ids.empty(); }));
    }
}

TEST_F(TlsRecordsTest, ConnectionsThatCannotMoveKeepOpenSsl) {
    TlsOptions off = ServerOptions();
    off.compact_records = false;
    ConnId id = Connect(ListenTls(off), ClientOptions());
    ASSERT_NE(0u, id) << m_log.Dump();
    EXPECT_FALSE(TlsOf(Mgr(), m_rec.last_accepted)->IsCompact()) << "compact records off";
    EchoAll(id, {Packet("off")});

    TlsOptions tls12 = ClientOptions();
    tls12.max_version = "1.2";
    std::string error;
    SocketOptions s;
    s.stream = CTlsContext::CreateServer(ServerOptions(), &error);
    ASSERT_NE(nullptr, s.stream) << error;
    ASSERT_GT(Mgr().Listen("tcp://127.0.0.1:0", s), 0);
    id = Connect(Mgr().GetListenURL(1), tls12);
    ASSERT_NE(0u, id) << m_log.Dump();
    CTlsStream* server = TlsOf(Mgr(), m_rec.last_accepted);
    EXPECT_FALSE(server->IsCompact()) << "TLS 1.2 keeps OpenSSL";
    EXPECT_EQ(0u, server->Describe().find("TLSv1.2")) << server->Describe();
    EchoAll(id, {Packet("tls 1.2"), Packet(std::string(70000, 'y'))});
}

class TlsSuiteTest : public TlsRecordsTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(TlsSuiteTest, EchoesAndUpdatesKeysBothWays) {
    m_options.max_packet_len = 2u << 20;
    m_options.max_recv_blocks = 40;
    m_options.max_send_blocks = 40;
    TlsOptions s = ServerOptions();
    s.ciphersuites = GetParam();
    ConnId id = Connect(ListenTls(s), ClientOptions());
    ASSERT_NE(0u, id) << m_log.Dump();
    CTlsStream* server = TlsOf(Mgr(), m_rec.last_accepted);
    ASSERT_TRUE(server->IsCompact());
    EXPECT_EQ(std::string("TLSv1.3 ") + GetParam(), server->Describe());
    std::vector<std::string> packets;
    for (size_t size : {1u, 16379u, 16380u, 16381u, 32760u, 70000u, (1u << 20) - 4}) {
        packets.push_back(Packet(std::string(size, static_cast<char>('a' + packets.size()))));
    }
    for (int i = 0; i < 50; ++i) {
        packets.push_back(Packet("pipelined " + std::to_string(i)));
    }
    EchoAll(id, packets);
    for (int round = 0; round < 6; ++round) {
        // Alternately the server (compact) and the client (OpenSSL) ask for new keys.
        ASSERT_TRUE(round % 2 == 0 ? server->UpdateKeys() : TlsOf(Mgr(), id)->UpdateKeys());
        EchoAll(id, {Packet("round " + std::to_string(round)), Packet(std::string(20000, 'k'))});
    }
    EXPECT_TRUE(m_rec.accepted_closes.empty());
    // A clean end both ways: the client's close_notify, then the server's.
    Mgr().Close(id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.accepted_closes.empty(); })) << m_log.Dump();
    EXPECT_EQ(CloseReason::kPeerClosed, m_rec.accepted_closes[0].reason) << m_rec.accepted_texts[0];
}

INSTANTIATE_TEST_SUITE_P(Suites, TlsSuiteTest,
                         ::testing::Values("TLS_AES_128_GCM_SHA256", "TLS_AES_256_GCM_SHA384",
                                           "TLS_CHACHA20_POLY1305_SHA256"),
                         [](const ::testing::TestParamInfo<const char*>& p) {
                             std::string name = p.param;
                             return name.substr(4, name.find('_', 4) - 4) + std::to_string(p.index);
                         });

TEST_F(TlsRecordsTest, RecordsTricklingInOneByteAtATimeAreReassembled) {
    ListenTls(ServerOptions());
    std::unique_ptr<Relay> relay = RawClient();
    ASSERT_NE(nullptr, relay);
    ASSERT_TRUE(TlsOf(Mgr(), m_rec.last_accepted)->IsCompact());
    int server_fd = Mgr().GetConnector(m_rec.last_accepted)->GetSocket();
    int one = 1;
    setsockopt(relay->Tcp(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    // A full record, one cut short, and small ones: every byte is a segment of its own that
    // the server reads before the next is sent.
    std::string stream =
        Packet(std::string(16380, 'f')) + Packet(std::string(700, 'g')) + Packet("h") + Packet("i");
    WriteThrough(*relay, stream);
    size_t records = relay->Pending().size();
    while (!relay->Pending().empty()) {
        ASSERT_EQ(1u, relay->Flush(1));
        int queued = 1;
        for (int i = 0; i < 200 && queued > 0; ++i) {
            Mgr().RunOnce(i == 0 ? 0 : 1);
            ASSERT_EQ(0, ioctl(server_fd, FIONREAD, &queued));
        }
        ASSERT_EQ(0, queued) << "the server did not read the byte";
    }
    EXPECT_GT(records, stream.size());
    EXPECT_EQ(stream, ReadThrough(*relay, stream.size())) << m_log.Dump();
    EXPECT_TRUE(m_rec.accepted_closes.empty());
}

struct Corruption {
    const char* name;
    size_t offset;  // the byte of the first record changed (its header is bytes 0..4)
    uint8_t value;  // XORed into it
    const char* reason;
};

void PrintTo(const Corruption& c, std::ostream* os) {
    *os << c.name;
}

class TlsCorruptTest : public TlsRecordsTest, public ::testing::WithParamInterface<Corruption> {};

TEST_P(TlsCorruptTest, CorruptRecordFailsWithItsReason) {
    ListenTls(ServerOptions());
    std::unique_ptr<Relay> relay = RawClient();
    ASSERT_NE(nullptr, relay);
    ASSERT_TRUE(TlsOf(Mgr(), m_rec.last_accepted)->IsCompact());
    std::string first = Packet(std::string(300, 'c'));
    WriteThrough(*relay, first);
    ASSERT_GT(relay->Pending().size(), GetParam().offset);
    relay->Pending()[GetParam().offset] =
        static_cast<char>(relay->Pending()[GetParam().offset] ^ GetParam().value);
    relay->Flush();
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.accepted_closes.empty(); })) << m_log.Dump();
    EXPECT_EQ(0u, m_rec.received.size());
    EXPECT_NE(std::string::npos, m_rec.accepted_texts[0].find(GetParam().reason)) << m_rec.accepted_texts[0];
    EXPECT_NE(CloseReason::kPeerClosed, m_rec.accepted_closes[0].reason);
    if (GetParam().offset >= 5) {
        // The client hears why: a fatal alert under the record keys.
        std::string got = ReadThrough(*relay, 1);
        EXPECT_TRUE(got.empty());
        EXPECT_NE(std::string::npos, std::string(relay->Tls().LastError()).find("bad record mac"))
            << relay->Tls().LastError();
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, TlsCorruptTest,
                         ::testing::Values(Corruption{"Ciphertext", 40, 0x01, "bad record mac"},
                                           Corruption{"Tag", 300, 0x80, "bad record mac"},
                                           Corruption{"HeaderLength", 4, 0x01, "bad record mac"},
                                           Corruption{"Version", 2, 0x02, "wrong version number"},
                                           Corruption{"TooLong", 3, 0x70, "encrypted length too long"},
                                           Corruption{"Type", 0, 0x01, "unexpected record type"}),
                         [](const ::testing::TestParamInfo<Corruption>& p) { return p.param.name; });

TEST_F(TlsRecordsTest, StreamEndingInsideARecordIsTruncation) {
    ListenTls(ServerOptions());
    std::unique_ptr<Relay> relay = RawClient();
    ASSERT_NE(nullptr, relay);
    WriteThrough(*relay, Packet("whole") + Packet(std::string(5000, 'p')));
    size_t all_but_100 = relay->Pending().size() - 100;
    ASSERT_EQ(all_but_100, relay->Flush(all_but_100));
    ASSERT_EQ(0, shutdown(relay->Tcp(), SHUT_WR));
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.accepted_closes.empty(); })) << m_log.Dump();
    EXPECT_EQ(CloseReason::kTruncated, m_rec.accepted_closes[0].reason);
    EXPECT_NE(std::string::npos, m_rec.accepted_texts[0].find("close_notify")) << m_rec.accepted_texts[0];
}

TEST_F(TlsRecordsTest, AFullSocketHoldsOnlyTheRecordItCut) {
    m_options.max_send_blocks = 64;
    ListenTls(ServerOptions());
    std::unique_ptr<Relay> relay = RawClient(ClientOptions(), 8192);
    ASSERT_NE(nullptr, relay);
    ConnId server_id = m_rec.last_accepted;
    CTlsStream* server = TlsOf(Mgr(), server_id);
    ASSERT_TRUE(server->IsCompact());
    int sndbuf = 8192;
    setsockopt(Mgr().GetConnector(server_id)->GetSocket(), SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof(sndbuf));
    // The server sends far more than the sockets hold while the client reads nothing.
    std::string expected;
    for (int i = 0; i < 40; ++i) {
        std::string p = Packet(std::string(50000 + i, static_cast<char>('A' + i % 26)));
        ASSERT_EQ(static_cast<int>(p.size()),
                  Mgr().Send(server_id, p.data(), static_cast<unsigned int>(p.size())));
        expected += p;
    }
    size_t most = 0;
    for (int i = 0; i < 50; ++i) {
        Mgr().RunOnce(1);
        most = std::max(most, server->CompactHeldBytes());
    }
    EXPECT_GT(most, 0u) << "a record was cut by the full socket";
    EXPECT_LE(most, kMaxRecord);
    std::string got;
    std::vector<char> buf(1 << 16);
    for (int i = 0; i < 20000 && got.size() < expected.size(); ++i) {
        Mgr().RunOnce(1);
        relay->Down();
        int n;
        while ((n = relay->Tls().Read(buf.data(), static_cast<int>(buf.size()))) > 0) {
            got.append(buf.data(), static_cast<size_t>(n));
        }
        ASSERT_TRUE(n == IStreamIo::kWantRead || n == IStreamIo::kWantWrite) << relay->Tls().LastError();
        most = std::max(most, server->CompactHeldBytes());
    }
    EXPECT_LE(most, kMaxRecord);
    ASSERT_EQ(expected.size(), got.size()) << m_log.Dump();
    EXPECT_TRUE(expected == got);
    EXPECT_EQ(0u, server->CompactHeldBytes());
}

}  // namespace

// ---------------------------------------------------------------------------------------
// The heap of an idle connection
// ---------------------------------------------------------------------------------------

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool kPlainMalloc = false;  // the sanitizers' allocators keep their own books
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
const bool kPlainMalloc = false;
#else
const bool kPlainMalloc = true;
#endif
#else
const bool kPlainMalloc = true;
#endif

class Idle : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr*, ConnId, const char*, bool) override { ++connected; }
    bool OnPacket(CConnectorMgr*, ConnId, const char*, unsigned int, bool) override { return true; }
    void OnClosed(CConnectorMgr*, ConnId, const CloseInfo&) override { ++closed; }
    int connected = 0;
    int closed = 0;
};

size_t HeapInUse() {
    struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

// The heap one idle accepted connection costs a server manager: `warm` connections first
// (one-time allocations: OpenSSL's tables, this thread's buffers), then `n` more measured;
// a child process dials them, so that only the server allocates here. `server` null: plain
// TCP. -1 on a failure.
double HeapPerIdleConnection(std::shared_ptr<CTlsContext> server, std::shared_ptr<CTlsContext> client,
                             int warm, int n) {
    Idle h;
    ConnectorMgrOptions o;
    o.pool_blocks = 64;
    CConnectorMgr mgr(&h, o);
    if (mgr.Init() != 0) {
        return -1;
    }
    SocketOptions s;
    s.stream = server;
    if (mgr.Listen("tcp://127.0.0.1:0", s) <= 0) {
        return -1;
    }
    std::string url = mgr.GetListenURL(0);
    int to_child[2], to_parent[2];
    if (pipe(to_child) != 0 || pipe(to_parent) != 0) {
        return -1;
    }
    pid_t pid = fork();
    if (pid == 0) {
        // The client: dials in batches, reports, waits for the next step.
        close(to_child[1]);
        close(to_parent[0]);
        Idle ch;
        ConnectorMgrOptions co;
        co.pool_blocks = 64;
        CConnectorMgr* cm = new CConnectorMgr(&ch, co);  // never destroyed: _exit ends it all
        if (cm->Init() != 0) {
            _exit(1);
        }
        DialOptions d;
        d.connect_timeout_ms = 10000;
        d.socket.stream = client;
        for (int target : {warm, warm + n}) {
            while (ch.connected < target) {
                int batch = std::min(50, target - ch.connected);
                int goal = ch.connected + batch;
                for (int i = 0; i < batch; ++i) {
                    cm->Dial(url.c_str(), d);
                }
                for (int t = 0; t < 2000 && ch.connected < goal && ch.closed == 0; ++t) {
                    cm->RunOnce(5);
                }
                if (ch.closed != 0 || ch.connected < goal) {
                    _exit(2);
                }
            }
            for (int t = 0; t < 20; ++t) {
                cm->RunOnce(5);  // the tickets are read
            }
            char c = 'r';
            char go;
            if (write(to_parent[1], &c, 1) != 1 || read(to_child[0], &go, 1) != 1) {
                _exit(3);
            }
        }
        _exit(0);
    }
    close(to_child[0]);
    close(to_parent[1]);
    double result = -1;
    size_t before = 0;
    for (int step = 0; step < 2; ++step) {
        int target = step == 0 ? warm : warm + n;
        fcntl(to_parent[0], F_SETFL, O_NONBLOCK);
        char c;
        bool ready = false;
        for (int t = 0; t < 20000 && !ready; ++t) {
            mgr.RunOnce(1);
            ready = read(to_parent[0], &c, 1) == 1;
        }
        for (int t = 0; t < 50; ++t) {
            mgr.RunOnce(1);  // whatever is left of the handshakes
        }
        if (!ready || h.connected != target || h.closed != 0) {
            break;
        }
        if (step == 0) {
            before = HeapInUse();
        } else {
            result = (static_cast<double>(HeapInUse()) - static_cast<double>(before)) / n;
        }
        c = 'g';
        if (write(to_child[1], &c, 1) != 1) {
            break;
        }
    }
    close(to_child[1]);
    close(to_parent[0]);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return result;
}

// The heap of one compact record layer alone (its object and its two AEAD contexts).
double HeapPerRecordLayer(uint16_t suite) {
    uint8_t secret[48];
    memset(secret, 7, sizeof(secret));
    std::string error;
    QUOLNET::CTlsRecords::Create(-1, suite, secret, 0, secret, 0, &error);  // one-time fetches
    const int kLayers = 1000;
    std::vector<std::unique_ptr<QUOLNET::CTlsRecords>> layers;
    layers.reserve(kLayers);
    size_t before = HeapInUse();
    for (int i = 0; i < kLayers; ++i) {
        layers.push_back(QUOLNET::CTlsRecords::Create(-1, suite, secret, 0, secret, 0, &error));
        if (layers.back() == nullptr) {
            return -1;
        }
    }
    return (static_cast<double>(HeapInUse()) - static_cast<double>(before)) / kLayers;
}

TEST(TlsRecordsMemory, AnIdleCompactConnectionCostsAtMostEightKibibytes) {
    if (!kPlainMalloc) {
        GTEST_SKIP() << "heap figures need glibc's own allocator";
    }
    qntest::Pem ca = qntest::MakeCa("memory CA");
    qntest::Pem leaf = qntest::MakeLeaf(ca, "localhost", {"127.0.0.1"});
    TlsOptions s;
    s.cert_pem = leaf.cert;
    s.key_pem = leaf.key;
    TlsOptions off = s;
    off.compact_records = false;
    TlsOptions c;
    c.ca_pem = ca.cert;
    std::string error;
    auto client = CTlsContext::CreateClient(c, &error);
    auto compact = CTlsContext::CreateServer(s, &error);
    auto full = CTlsContext::CreateServer(off, &error);
    ASSERT_TRUE(client != nullptr && compact != nullptr && full != nullptr) << error;
    const int kWarm = 50;
    // QUOLNET_TLS_MEMORY_CONNECTIONS=2000 measures more of them (default 500).
    const char* env = getenv("QUOLNET_TLS_MEMORY_CONNECTIONS");
    const int kConnections = env != nullptr && atoi(env) > 0 ? atoi(env) : 500;
    double plain = HeapPerIdleConnection(nullptr, nullptr, kWarm, kConnections);
    double with_records = HeapPerIdleConnection(compact, client, kWarm, kConnections);
    double with_ssl = HeapPerIdleConnection(full, client, kWarm, kConnections);
    ASSERT_GT(plain, 0);
    ASSERT_GT(with_records, 0);
    ASSERT_GT(with_ssl, 0);
    std::printf(
        "heap per idle connection: plain TCP %.0f B; TLS on compact records %.0f B (TLS part %.0f B); "
        "TLS on OpenSSL %.0f B (TLS part %.0f B)\n",
        plain, with_records, with_records - plain, with_ssl, with_ssl - plain);
    double aes128 = HeapPerRecordLayer(QUOLNET::CTlsRecords::kAes128GcmSha256);
    double aes256 = HeapPerRecordLayer(QUOLNET::CTlsRecords::kAes256GcmSha384);
    double chacha = HeapPerRecordLayer(QUOLNET::CTlsRecords::kChacha20Poly1305Sha256);
    std::printf(
        "compact record layer alone: AES-128-GCM %.0f B, AES-256-GCM %.0f B, ChaCha20-Poly1305 %.0f B; "
        "the session object around it %zu B\n",
        aes128, aes256, chacha, sizeof(CTlsStream));
    EXPECT_GT(aes128, 0);
    EXPECT_GT(chacha, 0);
    RecordProperty("plain_bytes", static_cast<int>(plain));
    RecordProperty("compact_bytes", static_cast<int>(with_records));
    RecordProperty("openssl_bytes", static_cast<int>(with_ssl));
    EXPECT_LE(with_records, 8 * 1024.0);
    EXPECT_LT(with_records - plain, (with_ssl - plain) / 3) << "the SSL object is gone";
}

}  // namespace
