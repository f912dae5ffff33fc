// TLS connections under other threads: a key update mid-stream, a connection moved between
// a group's loops while a foreign thread sends on it, and Close while other threads send.
// Every echo must come back whole and in order; a closed connection must end with every
// accepted byte and then a close_notify (a clean end), never a truncation.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "net/connector_group.h"
#include "net/connector_mgr.h"
#include "support/log_capture.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"
#include "test_certs.h"
#include "tls/tls_context.h"
#include "tls/tls_stream.h"

namespace {

using QUOLNET::CConnectorGroup;
using QUOLNET::CConnectorMgr;
using QUOLNET::CloseInfo;
using QUOLNET::CloseReason;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;
using QUOLNET::CTlsContext;
using QUOLNET::DialOptions;
using QUOLNET::SocketOptions;
using QUOLNET::TlsOptions;

// A packet whose payload is a 4-byte sequence number followed by `size` filler bytes.
std::string SeqPacket(uint32_t seq, size_t size) {
    std::string payload(4 + size, static_cast<char>('a' + seq % 26));
    memcpy(&payload[0], &seq, 4);
    return qntest::Packet(payload);
}

uint32_t SeqOf(const char* data) {
    uint32_t seq;
    memcpy(&seq, data + 4, 4);
    return seq;
}

struct Certs {
    qntest::Pem ca = qntest::MakeCa("quolnet test CA");
    qntest::Pem server = qntest::MakeLeaf(ca, "localhost", {"localhost", "127.0.0.1"});
    std::shared_ptr<CTlsContext> Server() {
        TlsOptions t;
        t.cert_pem = server.cert;
        t.key_pem = server.key;
        std::string error;
        auto c = CTlsContext::CreateServer(t, &error);
        EXPECT_NE(nullptr, c) << error;
        return c;
    }
    std::shared_ptr<CTlsContext> Client() {
        TlsOptions t;
        t.ca_pem = ca.cert;
        std::string error;
        auto c = CTlsContext::CreateClient(t, &error);
        EXPECT_NE(nullptr, c) << error;
        return c;
    }
};

// Server side: echoes every packet (pausing when there is no room) and keeps its ids.
class EchoServer : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr*, ConnId id, const char*, bool) override {
        std::lock_guard<std::mutex> lock(mutex);
        ids.push_back(id);
    }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        int ret = mgr->Send(id, data, len);
        if (ret == CConnectorMgr::kSendNoRoom) {
            return false;
        }
        return true;
    }
    void OnClosed(CConnectorMgr*, ConnId, const CloseInfo& info) override {
        std::lock_guard<std::mutex> lock(mutex);
        closes.push_back(info);
    }
    std::mutex mutex;
    std::vector<ConnId> ids;
    std::vector<CloseInfo> closes;
};

// Client side: checks that the sequence numbers of each kind come back in order.
class Checker : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr*, ConnId, const char*, bool) override { connected = true; }
    bool OnPacket(CConnectorMgr*, ConnId, const char* data, unsigned int len, bool) override {
        uint32_t seq = SeqOf(data);
        if (seq != next) {
            ADD_FAILURE() << "echo " << seq << " came where " << next << " was due (len " << len << ")";
        }
        next = seq + 1;
        received.store(next);
        return true;
    }
    void OnClosed(CConnectorMgr*, ConnId, const CloseInfo& info) override {
        std::lock_guard<std::mutex> lock(mutex);
        closes.push_back(info);
        closed = true;
    }
    std::atomic<bool> connected{false};
    std::atomic<bool> closed{false};
    uint32_t next = 0;
    std::atomic<uint32_t> received{0};
    std::mutex mutex;
    std::vector<CloseInfo> closes;
};

ConnectorMgrOptions Opts(qntest::LogCapture& log) {
    ConnectorMgrOptions o;
    o.log_cat = log.cat();
    o.pool_blocks = 512;
    o.max_send_blocks = 64;
    o.max_recv_blocks = 64;
    return o;
}

TEST(TlsConcurrency, KeyUpdatesMidStreamBothWays) {
    Certs certs;
    qntest::LogCapture log;
    EchoServer server_h;
    Checker client_h;
    CConnectorMgr mgr(&server_h, Opts(log));  // one manager plays both ends
    ASSERT_EQ(0, mgr.Init());
    SocketOptions s;
    s.stream = certs.Server();
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0", s), 0);
    // The client's packets go to a second handler through a second manager on this thread.
    CConnectorMgr client(&client_h, Opts(log));
    ASSERT_EQ(0, client.Init());
    DialOptions d;
    d.socket.stream = certs.Client();
    ConnId id = client.Dial(mgr.GetListenURL(0).c_str(), d);
    auto pump = [&](auto done) {
        for (int i = 0; i < 2000 && !done(); ++i) {
            mgr.RunOnce(1);
            client.RunOnce(1);
        }
        return done();
    };
    ASSERT_TRUE(pump([&]() { return client_h.connected.load() && !server_h.ids.empty(); })) << log.Dump();
    uint32_t sent = 0;
    for (int round = 0; round < 6; ++round) {
        // Alternately the client and the server ask for new keys, then traffic goes on.
        QUOLNET::IStreamIo* io = round % 2 == 0 ? client.GetConnector(id)->GetStreamIo()
                                                : mgr.GetConnector(server_h.ids[0])->GetStreamIo();
        ASSERT_TRUE(static_cast<QUOLNET::CTlsStream*>(io)->UpdateKeys());
        for (int i = 0; i < 20; ++i, ++sent) {
            std::string p = SeqPacket(sent, i % 5 == 0 ? 20000 : 30);
            ASSERT_EQ(static_cast<int>(p.size()),
                      client.Send(id, p.data(), static_cast<unsigned int>(p.size())));
        }
        ASSERT_TRUE(pump([&]() { return client_h.received.load() == sent; })) << log.Dump();
    }
    EXPECT_TRUE(client_h.closes.empty());
    EXPECT_TRUE(server_h.closes.empty());
}

TEST(TlsConcurrency, MovedConnectionKeepsEveryByteInOrderWhileAnotherThreadSends) {
    Certs certs;
    qntest::LogCapture log;
    EchoServer server_h;
    QUOLNET::ConnectorGroupOptions go;
    go.threads = 2;
    go.loop = Opts(log);
    CConnectorGroup group(&server_h, go);
    ASSERT_EQ(0, group.Init());
    SocketOptions s;
    s.stream = certs.Server();
    ASSERT_GT(group.Listen("tcp://127.0.0.1:0", s), 0);
    ASSERT_EQ(0, group.Start());

    Checker client_h;
    CConnectorMgr client(&client_h, Opts(log));
    ASSERT_EQ(0, client.Init());
    DialOptions d;
    d.socket.stream = certs.Client();
    ConnId id = client.Dial(group.GetListenURL().c_str(), d);
    std::thread client_loop([&]() { client.Run(); });
    ASSERT_TRUE(qntest::Eventually([&]() {
        std::lock_guard<std::mutex> lock(server_h.mutex);
        return client_h.connected.load() && !server_h.ids.empty();
    }));
    ConnId server_id = server_h.ids[0];

    // The client's packets come from a thread of their own while this thread makes 100
    // moves, each awaited; then the sender stops and every echo must come back in order.
    std::atomic<bool> moving{true};
    std::atomic<uint32_t> sent{0};
    std::thread sender([&]() {
        for (uint32_t seq = 0; moving.load() || seq < 200;) {
            std::string p = SeqPacket(seq, seq % 97 == 0 ? 70000 : 60 + seq % 300);
            int ret = client.Send(id, p.data(), static_cast<unsigned int>(p.size()));
            if (ret > 0) {
                sent = ++seq;
            } else if (ret < 0) {
                ADD_FAILURE() << "Send returned " << ret;
                return;
            } else {
                std::this_thread::yield();
            }
        }
    });
    for (int moves = 0; moves < 100; ++moves) {
        uint64_t before = group.GetMoveCount();
        ASSERT_EQ(0, group.Move(server_id, 1 - group.LoopOf(server_id)));
        ASSERT_TRUE(qntest::Eventually([&]() { return group.GetMoveCount() > before; }));
    }
    moving = false;
    sender.join();
    EXPECT_TRUE(qntest::Eventually([&]() { return client_h.received.load() == sent.load(); }))
        << client_h.received.load() << " of " << sent.load() << "\n"
        << log.Dump();
    EXPECT_EQ(100u, group.GetMoveCount());
    client.Stop();
    client_loop.join();
    group.Stop();
    EXPECT_TRUE(client_h.closes.empty() || client_h.closes[0].reason == CloseReason::kClosedLocally);
}

TEST(TlsConcurrency, CloseWhileOtherThreadsSendEndsCleanlyAfterWholePackets) {
    Certs certs;
    for (int round = 0; round < 20; ++round) {
        qntest::LogCapture log;
        EchoServer server_h;
        CConnectorMgr server(&server_h, Opts(log));
        ASSERT_EQ(0, server.Init());
        SocketOptions s;
        s.stream = certs.Server();
        ASSERT_GT(server.Listen("tcp://127.0.0.1:0", s), 0);
        Checker client_h;
        CConnectorMgr client(&client_h, Opts(log));
        ASSERT_EQ(0, client.Init());
        DialOptions d;
        d.socket.stream = certs.Client();
        ASSERT_NE(0u, client.Dial(server.GetListenURL(0).c_str(), d));
        std::thread server_loop([&]() { server.Run(); });
        std::thread client_loop([&]() { client.Run(); });
        ASSERT_TRUE(qntest::Eventually([&]() {
            std::lock_guard<std::mutex> lock(server_h.mutex);
            return client_h.connected.load() && !server_h.ids.empty();
        }));
        ConnId server_id = server_h.ids[0];
        // Two server-side threads push numbered packets at the client, then one closes.
        std::atomic<uint32_t> next{0};
        std::atomic<bool> stop{false};
        std::mutex order;  // a packet's number and its Send go together, so numbers stay in order
        auto push = [&]() {
            while (!stop.load()) {
                std::lock_guard<std::mutex> lock(order);
                uint32_t seq = next.load();
                std::string p = SeqPacket(seq, seq % 13 == 0 ? 40000 : 100);
                int ret = server.Send(server_id, p.data(), static_cast<unsigned int>(p.size()));
                if (ret > 0) {
                    next = seq + 1;
                } else if (ret != CConnectorMgr::kSendNoRoom) {
                    return;  // closing: nothing more is accepted
                }
            }
        };
        std::thread a(push), b(push);
        ASSERT_TRUE(
            qntest::Eventually([&]() { return next.load() > 50u + static_cast<uint32_t>(round) * 10; }));
        server.Close(server_id);
        ASSERT_TRUE(qntest::Eventually([&]() { return client_h.closed.load(); })) << log.Dump();
        stop = true;
        a.join();
        b.join();
        // Every packet the server accepted reached the client whole, then a clean end.
        EXPECT_EQ(next.load(), client_h.received.load()) << "round " << round;
        ASSERT_EQ(1u, client_h.closes.size());
        EXPECT_EQ(CloseReason::kPeerClosed, client_h.closes[0].reason)
            << QUOLNET::CloseReasonName(client_h.closes[0].reason) << " in round " << round << "\n"
            << log.Dump();
        server.Stop();
        client.Stop();
        server_loop.join();
        client_loop.join();
    }
}

}  // namespace
