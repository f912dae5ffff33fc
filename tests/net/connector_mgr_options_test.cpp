// CConnectorMgr's socket options per listener and per dial, read back with getsockopt on the
// accepted and the dialled descriptor (the loop runs on the test thread, so GetConnector is
// called on the loop thread); the buffer sizes a dial leaves to the kernel; the source
// address of a dial as the listener sees it; the setup function and its refusals; and the
// application's context on every handler call, across reconnects and across a move
// between the loops of a group (OnMoved).
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "net/connector_group.h"
#include "net/connector_mgr.h"
#include "support/log_capture.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

namespace {

using qntest::Packet;
using qntest::Pump;
using QUOLNET::AcceptRefusal;
using QUOLNET::CConnectorGroup;
using QUOLNET::CConnectorMgr;
using QUOLNET::CloseInfo;
using QUOLNET::CloseReason;
using QUOLNET::ConnectorGroupOptions;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;
using QUOLNET::DialOptions;
using QUOLNET::SocketOptions;

int GetInt(int fd, int level, int name) {
    int v = -1;
    socklen_t len = sizeof(v);
    if (getsockopt(fd, level, name, &v, &len) != 0) {
        return -1;
    }
    return v;
}

// What getsockopt reports for SO_SNDBUF / SO_RCVBUF set to `bytes` (the kernel doubles the
// figure and caps it): read from a fresh socket set the same way.
int KernelBufferFor(int name, int bytes) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(fd, SOL_SOCKET, name, &bytes, sizeof(bytes));
    int v = GetInt(fd, SOL_SOCKET, name);
    close(fd);
    return v;
}

std::string PeerAddress(int fd) {
    struct sockaddr_in a;
    socklen_t len = sizeof(a);
    char text[INET_ADDRSTRLEN] = {0};
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        return "";
    }
    inet_ntop(AF_INET, &a.sin_addr, text, sizeof(text));
    return text;
}

// Options every test reads back: all set, none at its default.
SocketOptions AllSet() {
    SocketOptions o;
    o.nodelay = true;
    o.keepalive = true;
    o.keepalive_idle_sec = 31;
    o.keepalive_interval_sec = 7;
    o.keepalive_count = 4;
    o.user_timeout_ms = 12345;
    o.send_buffer = 48 * 1024;
    o.recv_buffer = 40 * 1024;
    return o;
}

void ExpectAllSet(int fd) {
    EXPECT_EQ(1, GetInt(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(1, GetInt(fd, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(31, GetInt(fd, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(7, GetInt(fd, IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(4, GetInt(fd, IPPROTO_TCP, TCP_KEEPCNT));
    EXPECT_EQ(12345, GetInt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT));
    EXPECT_EQ(KernelBufferFor(SO_SNDBUF, 48 * 1024), GetInt(fd, SOL_SOCKET, SO_SNDBUF));
    EXPECT_EQ(KernelBufferFor(SO_RCVBUF, 40 * 1024), GetInt(fd, SOL_SOCKET, SO_RCVBUF));
}

// Records the events of a manager whose loop runs on the test thread.
class Recorder : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr*, ConnId id, const char* url, bool accepted) override {
        (accepted ? accepted_ids : dialled_ids).push_back(id);
        urls[id] = url;
    }
    bool OnPacket(CConnectorMgr*, ConnId, const char*, unsigned int, bool) override {
        ++packets;
        return true;
    }
    void OnClosed(CConnectorMgr*, ConnId id, const CloseInfo& info) override { closed[id] = info; }

    std::vector<ConnId> accepted_ids;
    std::vector<ConnId> dialled_ids;
    std::map<ConnId, std::string> urls;
    std::map<ConnId, CloseInfo> closed;
    int packets = 0;
};

ConnectorMgrOptions Quiet(qntest::LogCapture* log) {
    ConnectorMgrOptions o;
    o.log_cat = log->cat();
    return o;
}

TEST(ConnectorMgrOptionsTest, ListenerOptionsAreReadBackOnTheAcceptedSocket) {
    qntest::LogCapture log;
    Recorder h;
    CConnectorMgr mgr(&h, Quiet(&log));
    ASSERT_EQ(0, mgr.Init());
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0", AllSet()), 0);
    SocketOptions nagle;
    nagle.nodelay = false;
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0", nagle), 0);
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0"), 0);  // the defaults: TCP_NODELAY only

    int c1 = qntest::DialURL(mgr.GetListenURL(0));
    ASSERT_TRUE(Pump(mgr, [&]() { return h.accepted_ids.size() == 1; }));
    int c2 = qntest::DialURL(mgr.GetListenURL(1));
    ASSERT_TRUE(Pump(mgr, [&]() { return h.accepted_ids.size() == 2; }));
    int c3 = qntest::DialURL(mgr.GetListenURL(2));
    ASSERT_TRUE(Pump(mgr, [&]() { return h.accepted_ids.size() == 3; }));

    ExpectAllSet(mgr.GetConnector(h.accepted_ids[0])->GetSocket());

    int fd = mgr.GetConnector(h.accepted_ids[1])->GetSocket();
    EXPECT_EQ(0, GetInt(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(0, GetInt(fd, SOL_SOCKET, SO_KEEPALIVE));

    fd = mgr.GetConnector(h.accepted_ids[2])->GetSocket();
    EXPECT_EQ(1, GetInt(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(0, GetInt(fd, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(0, GetInt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT));
    EXPECT_EQ(0u, mgr.GetRefusedCount(AcceptRefusal::kSocketSetup));
    close(c1);
    close(c2);
    close(c3);
}

TEST(ConnectorMgrOptionsTest,
     DialOptionsAreReadBackOnTheDialledSocketAndTheSourceAddressIsSeenByTheListener) {
    qntest::LogCapture log;
    Recorder h;
    CConnectorMgr mgr(&h, Quiet(&log));
    ASSERT_EQ(0, mgr.Init());
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0"), 0);
    DialOptions d;
    d.socket = AllSet();
    d.socket.source_address = "127.0.0.2";
    ConnId id = mgr.Dial(mgr.GetListenURL(0).c_str(), d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.dialled_ids.size() == 1 && h.accepted_ids.size() == 1; }));
    int dialled = mgr.GetConnector(id)->GetSocket();
    ExpectAllSet(dialled);
    int accepted = mgr.GetConnector(h.accepted_ids[0])->GetSocket();
    EXPECT_EQ("127.0.0.2", PeerAddress(accepted));
    EXPECT_EQ(0u, h.urls[h.accepted_ids[0]].find("tcp://127.0.0.2:")) << h.urls[h.accepted_ids[0]];

    // The URL form, with port 0, and a second source.
    DialOptions d2;
    d2.socket.source_address = "tcp://127.0.0.3:0";
    ConnId id2 = mgr.Dial(mgr.GetListenURL(0).c_str(), d2);
    ASSERT_NE(0u, id2);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.dialled_ids.size() == 2 && h.accepted_ids.size() == 2; }));
    EXPECT_EQ("127.0.0.3", PeerAddress(mgr.GetConnector(h.accepted_ids[1])->GetSocket()));
    EXPECT_EQ(1, GetInt(mgr.GetConnector(id2)->GetSocket(), IPPROTO_TCP, TCP_NODELAY));
}

TEST(ConnectorMgrOptionsTest, DefaultDialsLeaveTheBufferSizesToTheKernel) {
    qntest::LogCapture log;
    Recorder h;
    CConnectorMgr mgr(&h, Quiet(&log));
    ASSERT_EQ(0, mgr.Init());
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0"), 0);
    ConnId id = mgr.Dial(mgr.GetListenURL(0).c_str());
    ASSERT_NE(0u, id);
    // A socket connected the same way with nothing set: what auto-tuning makes of it.
    int reference = qntest::DialURL(mgr.GetListenURL(0));
    ASSERT_GE(reference, 0);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.dialled_ids.size() == 1 && h.accepted_ids.size() == 2; }));
    int fd = mgr.GetConnector(id)->GetSocket();
    EXPECT_EQ(GetInt(reference, SOL_SOCKET, SO_SNDBUF), GetInt(fd, SOL_SOCKET, SO_SNDBUF));
    EXPECT_EQ(GetInt(reference, SOL_SOCKET, SO_RCVBUF), GetInt(fd, SOL_SOCKET, SO_RCVBUF));
    // Not the process-wide sizes a direct CTcpConnector::Connect applies.
    EXPECT_NE(KernelBufferFor(SO_RCVBUF, QUOLNET::CConnector::m_socket_recv_buff_size),
              GetInt(fd, SOL_SOCKET, SO_RCVBUF));
    EXPECT_EQ(1, GetInt(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(0, GetInt(fd, SOL_SOCKET, SO_KEEPALIVE));
    close(reference);
}

TEST(ConnectorMgrOptionsTest, TheSetupFunctionRunsOnTheDialledSocketBeforeConnect) {
    qntest::LogCapture log;
    Recorder h;
    CConnectorMgr mgr(&h, Quiet(&log));
    ASSERT_EQ(0, mgr.Init());
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0"), 0);
    int calls = 0;
    int seen_fd = -1;
    bool unconnected = false;
    DialOptions d;
    d.socket.setup = [&](int fd) {
        ++calls;
        seen_fd = fd;
        struct sockaddr_storage peer;
        socklen_t len = sizeof(peer);
        unconnected = getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0 && errno == ENOTCONN;
        int tos = 0x10;
        return setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof(tos));
    };
    ConnId id = mgr.Dial(mgr.GetListenURL(0).c_str(), d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.dialled_ids.size() == 1; }));
    int fd = mgr.GetConnector(id)->GetSocket();
    EXPECT_EQ(1, calls);
    EXPECT_EQ(fd, seen_fd);
    EXPECT_TRUE(unconnected);
    EXPECT_EQ(0x10, GetInt(fd, IPPROTO_IP, IP_TOS));
}

TEST(ConnectorMgrOptionsTest, ASetupRefusalFailsEachAttemptWithItsErrno) {
    qntest::LogCapture log;
    Recorder h;
    CConnectorMgr mgr(&h, Quiet(&log));
    ASSERT_EQ(0, mgr.Init());
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0"), 0);
    int fds_before = qntest::CountOpenFds();

    // A positive result is the errno; every attempt of a reconnecting dial asks again.
    int calls = 0;
    DialOptions d;
    d.reconnect = true;
    d.max_attempts = 3;
    d.backoff_initial_ms = 1;
    d.socket.setup = [&](int) {
        ++calls;
        return EACCES;
    };
    ConnId id = mgr.Dial(mgr.GetListenURL(0).c_str(), d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.closed.count(id) == 1; }));
    EXPECT_EQ(3, calls);
    EXPECT_EQ(CloseReason::kDialRefused, h.closed[id].reason);
    EXPECT_EQ(EACCES, h.closed[id].error);
    EXPECT_FALSE(h.closed[id].reconnecting);
    EXPECT_TRUE(h.dialled_ids.empty());

    // A negative result reports errno as the function left it.
    DialOptions d2;
    d2.socket.setup = [](int) {
        errno = EPERM;
        return -1;
    };
    ConnId id2 = mgr.Dial(mgr.GetListenURL(0).c_str(), d2);
    ASSERT_NE(0u, id2);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.closed.count(id2) == 1; }));
    EXPECT_EQ(CloseReason::kDialRefused, h.closed[id2].reason);
    EXPECT_EQ(EPERM, h.closed[id2].error);

    // Nothing reached the listener, and no descriptor is left behind.
    mgr.RunOnce(0);
    EXPECT_EQ(0u, mgr.GetAcceptCount());
    EXPECT_EQ(fds_before, qntest::CountOpenFds());
    EXPECT_EQ(1, log.CountPrefix(QUOLNET::LOG_PRIORITY_WARN,
                                 "connect attempt 1 to " + mgr.GetListenURL(0) +
                                     " failed: the setup function refused it (result 13), errno=13"))
        << log.Dump();
}

TEST(ConnectorMgrOptionsTest, AFailedOptionFailsTheDialWithTheStepAndItsErrno) {
    qntest::LogCapture log;
    Recorder h;
    CConnectorMgr mgr(&h, Quiet(&log));
    ASSERT_EQ(0, mgr.Init());
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0"), 0);
    DialOptions d;
    d.socket.keepalive = true;
    d.socket.keepalive_count = 1000;  // over the kernel's maximum (127): EINVAL
    ConnId id = mgr.Dial(mgr.GetListenURL(0).c_str(), d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.closed.count(id) == 1; }));
    EXPECT_EQ(CloseReason::kDialRefused, h.closed[id].reason);
    EXPECT_EQ(EINVAL, h.closed[id].error);
    EXPECT_EQ(1, log.CountPrefix(QUOLNET::LOG_PRIORITY_WARN,
                                 "connect attempt 1 to " + mgr.GetListenURL(0) +
                                     " failed: setsockopt(TCP_KEEPCNT=1000) failed, errno=22"))
        << log.Dump();

    // A source address that cannot be bound (not local) fails the same way.
    DialOptions d2;
    d2.socket.source_address = "192.0.2.1";
    ConnId id2 = mgr.Dial(mgr.GetListenURL(0).c_str(), d2);
    ASSERT_NE(0u, id2);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.closed.count(id2) == 1; }));
    EXPECT_EQ(CloseReason::kDialRefused, h.closed[id2].reason);
    EXPECT_EQ(EADDRNOTAVAIL, h.closed[id2].error);

    // A malformed source address, or one of the other family, is refused by Dial itself.
    DialOptions bad;
    bad.socket.source_address = "not-an-address";
    EXPECT_EQ(0u, mgr.Dial(mgr.GetListenURL(0).c_str(), bad));
    bad.socket.source_address = "::1";
    EXPECT_EQ(0u, mgr.Dial(mgr.GetListenURL(0).c_str(), bad));
    EXPECT_EQ(0u, mgr.GetAcceptCount());
}

TEST(ConnectorMgrOptionsTest, AcceptedConnectionsRefusedByTheirOptionsAreClosedCountedAndLoggedOnce) {
    qntest::LogCapture log;
    Recorder h;
    CConnectorMgr mgr(&h, Quiet(&log));
    ASSERT_EQ(0, mgr.Init());
    int calls = 0;
    SocketOptions chooser;
    chooser.setup = [&](int fd) {
        ++calls;
        return GetInt(fd, IPPROTO_TCP, TCP_NODELAY) == 1 && calls == 1 ? EPERM : 0;  // the first one
    };
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0", chooser), 0);
    SocketOptions failing;
    failing.keepalive = true;
    failing.keepalive_count = 1000;
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0", failing), 0);

    int c1 = qntest::DialURL(mgr.GetListenURL(0));
    ASSERT_GE(c1, 0);
    ASSERT_TRUE(Pump(mgr, [&]() { return mgr.GetRefusedCount(AcceptRefusal::kSocketSetup) == 1; }));
    char byte;
    EXPECT_EQ(0, recv(c1, &byte, 1, 0));  // closed at once: the end of stream
    int c2 = qntest::DialURL(mgr.GetListenURL(0));
    ASSERT_TRUE(Pump(mgr, [&]() { return h.accepted_ids.size() == 1; }));
    EXPECT_EQ(2, calls);

    int c3 = qntest::DialURL(mgr.GetListenURL(1));
    int c4 = qntest::DialURL(mgr.GetListenURL(1));
    ASSERT_TRUE(Pump(mgr, [&]() { return mgr.GetRefusedCount(AcceptRefusal::kSocketSetup) == 3; }));
    EXPECT_EQ(0, recv(c3, &byte, 1, 0));
    EXPECT_EQ(0, recv(c4, &byte, 1, 0));
    EXPECT_EQ(1u, h.accepted_ids.size());
    EXPECT_EQ(4u, mgr.GetAcceptCount());
    EXPECT_EQ(1u, mgr.GetConnectionCount());
    EXPECT_NE(std::string::npos, mgr.FormatStats().find("socket_setup 3")) << mgr.FormatStats();
    // One line per listener: INFO for the setup function's choice, WARN for a failed option.
    EXPECT_EQ(1, log.CountPrefix(QUOLNET::LOG_PRIORITY_INFO, "accepted connection from tcp://127.0.0.1:"))
        << log.Dump();
    ASSERT_EQ(1, log.CountPrefix(QUOLNET::LOG_PRIORITY_WARN, "accepted connection from tcp://127.0.0.1:"))
        << log.Dump();
    bool named = false;
    for (const std::string& t : log.Texts(QUOLNET::LOG_PRIORITY_WARN)) {
        named |= t.find("setsockopt(TCP_KEEPCNT=1000) failed, errno=22") != std::string::npos;
    }
    EXPECT_TRUE(named) << log.Dump();
    close(c1);
    close(c2);
    close(c3);
    close(c4);
}

// ---- the application's context ----

struct Session {
    ConnId id = 0;
    int events = 0;
};

// Checks the context on every call that names a connection: CurrentContext without a
// lookup, GetContext by id; counts the calls that saw the wrong one.
class ContextHandler : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr* mgr, ConnId id, const char*, bool accepted) override {
        if (accepted) {
            Session* s = new Session();
            s->id = id;
            EXPECT_EQ(nullptr, mgr->CurrentContext());
            EXPECT_TRUE(mgr->SetContext(id, s));
        }
        Check(mgr, id, "connected");
    }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        Check(mgr, id, "packet");
        if (echo) {
            mgr->Send(id, data, len);
        }
        return true;
    }
    void OnWritable(CConnectorMgr* mgr, ConnId id) override { Check(mgr, id, "writable"); }
    void OnClosed(CConnectorMgr* mgr, ConnId id, const CloseInfo& info) override {
        Check(mgr, id, info.reconnecting ? "closed_reconnecting" : "closed");
        Session* s = static_cast<Session*>(mgr->CurrentContext());
        if (!info.reconnecting && s != nullptr && s != dial_session) {
            delete s;  // the last call for this connection
        }
    }

    void Check(CConnectorMgr* mgr, ConnId id, const char* what) {
        Session* s = static_cast<Session*>(mgr->CurrentContext());
        ++seen[what];
        if (s == nullptr || s->id != id || mgr->GetContext(id) != s) {
            ++wrong[what];
            return;
        }
        ++s->events;
    }

    bool echo = true;
    Session* dial_session = nullptr;
    std::map<std::string, int> seen;
    std::map<std::string, int> wrong;
};

TEST(ConnectorMgrContextTest, EveryCallbackOfAnAcceptedConnectionGetsItsContext) {
    qntest::LogCapture log;
    ContextHandler h;
    CConnectorMgr mgr(&h, Quiet(&log));
    int client = qntest::ListenAndDial(mgr);
    ASSERT_GE(client, 0);
    std::string p = Packet("hello");
    ASSERT_TRUE(qntest::WriteAll(client, p.data(), p.size()));
    ASSERT_TRUE(Pump(mgr, [&]() { return h.seen["packet"] == 1; }));
    std::string echo(p.size(), '\0');
    ASSERT_TRUE(qntest::ReadExactly(client, &echo[0], echo.size()));
    EXPECT_EQ(p, echo);
    EXPECT_EQ(nullptr, mgr.CurrentContext());  // outside a handler call
    EXPECT_FALSE(mgr.SetContext(12345, &h));   // unknown id
    EXPECT_EQ(nullptr, mgr.GetContext(12345));
    close(client);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.seen["closed"] == 1; }));
    EXPECT_EQ(1, h.seen["connected"]);
    EXPECT_TRUE(h.wrong.empty());
}

TEST(ConnectorMgrContextTest, ADialledConnectionKeepsItsContextOnEveryCallbackAndAcrossReconnects) {
    qntest::LogCapture log;
    ContextHandler h;
    ConnectorMgrOptions o = Quiet(&log);
    o.max_send_blocks = 2;  // kSendNoRoom soon, so that OnWritable follows
    CConnectorMgr mgr(&h, o);
    ASSERT_EQ(0, mgr.Init());
    qntest::Listener peer;  // a plain socket peer that reads when the test says so
    Session session;
    h.dial_session = &session;
    DialOptions d;
    d.context = &session;
    d.reconnect = true;
    d.backoff_initial_ms = 1;
    ConnId id = mgr.Dial(peer.url().c_str(), d);
    ASSERT_NE(0u, id);
    session.id = id;
    ASSERT_TRUE(Pump(mgr, [&]() { return h.seen["connected"] == 1; }));
    int fd = peer.Accept();
    ASSERT_GE(fd, 0);

    // Fill the kernel's buffers and the send queue, then read: OnWritable.
    std::string big = Packet(std::string(60000, 'x'));
    int sent = 0;
    for (int i = 0; i < 1000; ++i) {
        int ret = mgr.Send(id, big.data(), static_cast<unsigned int>(big.size()));
        if (ret == CConnectorMgr::kSendNoRoom) {
            break;
        }
        ASSERT_EQ(static_cast<int>(big.size()), ret);
        ++sent;
        mgr.RunOnce(0);
    }
    ASSERT_LT(sent, 1000);
    size_t want = static_cast<size_t>(sent) * big.size();
    size_t got = 0;
    std::vector<char> buf(1 << 16);
    ASSERT_TRUE(Pump(
        mgr,
        [&]() {
            ssize_t n;
            while ((n = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT)) > 0) {
                got += static_cast<size_t>(n);
            }
            return h.seen["writable"] == 1;
        },
        2000));

    // A packet from the peer, then its close: the dial reconnects under the same id.
    std::string p = Packet("ping");
    ASSERT_TRUE(qntest::WriteAll(fd, p.data(), p.size()));
    h.echo = false;
    ASSERT_TRUE(Pump(mgr, [&]() { return h.seen["packet"] == 1; }));
    close(fd);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.seen["connected"] == 2; }));
    EXPECT_EQ(1, h.seen["closed_reconnecting"]);
    EXPECT_EQ(&session, mgr.GetContext(id));
    fd = peer.Accept();
    ASSERT_GE(fd, 0);
    mgr.Abort(id);
    ASSERT_TRUE(Pump(mgr, [&]() { return h.seen["closed"] == 1; }));
    close(fd);
    EXPECT_TRUE(h.wrong.empty());
    EXPECT_EQ(6, session.events);  // connected x2, writable, packet, closed x2
    EXPECT_LE(got, want);
}

// The group's handler is called from both loops at once: the event counts are atomic and
// the rest is written under a lock.
class MoveHandler : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr* mgr, ConnId id, const char*, bool) override {
        Session* s = new Session();
        s->id = id;
        mgr->SetContext(id, s);
        int fd = mgr->GetConnector(id)->GetSocket();  // on the loop thread
        std::lock_guard<std::mutex> lock(m_mutex);
        keepalive_idle = GetInt(fd, IPPROTO_TCP, TCP_KEEPIDLE);
        connected = id;
        m_cv.notify_all();
    }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        Session* s = static_cast<Session*>(mgr->CurrentContext());
        mgr->Send(id, data, len);
        std::lock_guard<std::mutex> lock(m_mutex);
        packet_loops.push_back(mgr->GetLoopIndex());
        good &= s != nullptr && s->id == id;
        m_cv.notify_all();
        return true;
    }
    void OnMoved(CConnectorMgr* from, CConnectorMgr* to, ConnId id) override {
        Session* s = static_cast<Session*>(to->CurrentContext());
        std::lock_guard<std::mutex> lock(m_mutex);
        moves.push_back(std::make_pair(from->GetLoopIndex(), to->GetLoopIndex()));
        good &= s != nullptr && s->id == id && to->GetContext(id) == s;
        m_cv.notify_all();
    }
    void OnClosed(CConnectorMgr* mgr, ConnId id, const CloseInfo&) override {
        Session* s = static_cast<Session*>(mgr->CurrentContext());
        std::lock_guard<std::mutex> lock(m_mutex);
        good &= s != nullptr && s->id == id;
        closed_loop = mgr->GetLoopIndex();
        delete s;
        m_cv.notify_all();
    }
    template <typename P>
    bool WaitFor(P pred) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::seconds(15), pred);
    }

    std::mutex m_mutex;
    std::condition_variable m_cv;
    ConnId connected = 0;
    int keepalive_idle = -1;
    std::vector<int> packet_loops;
    std::vector<std::pair<int, int>> moves;
    int closed_loop = -1;
    bool good = true;
};

TEST(ConnectorMgrContextTest, TheContextMovesWithTheConnectionAndOnMovedRunsOnTheNewLoop) {
    qntest::LogCapture log;
    MoveHandler h;
    ConnectorGroupOptions go;
    go.threads = 2;
    go.loop.log_cat = log.cat();
    CConnectorGroup group(&h, go);
    ASSERT_EQ(0, group.Init());
    SocketOptions so;  // every loop's listener sets them
    so.keepalive = true;
    so.keepalive_idle_sec = 77;
    ASSERT_GT(group.Listen("tcp://127.0.0.1:0", so), 0);
    ASSERT_EQ(0, group.Start());
    int client = qntest::DialURL(group.GetListenURL());
    ASSERT_GE(client, 0);
    ASSERT_TRUE(h.WaitFor([&]() { return h.connected != 0; }));
    ConnId id = h.connected;
    int home = group.LoopOf(id);
    ASSERT_GE(home, 0);

    std::string p = Packet("before");
    std::string echo(p.size(), '\0');
    ASSERT_TRUE(qntest::WriteAll(client, p.data(), p.size()));
    ASSERT_TRUE(qntest::ReadExactly(client, &echo[0], echo.size()));

    int there = 1 - home;
    ASSERT_EQ(0, group.Move(id, there));
    ASSERT_TRUE(h.WaitFor([&]() { return h.moves.size() == 1; }));
    p = Packet("after");
    echo.assign(p.size(), '\0');
    ASSERT_TRUE(qntest::WriteAll(client, p.data(), p.size()));
    ASSERT_TRUE(qntest::ReadExactly(client, &echo[0], echo.size()));
    EXPECT_EQ(p, echo);

    ASSERT_EQ(0, group.Move(id, home));  // and back
    ASSERT_TRUE(h.WaitFor([&]() { return h.moves.size() == 2; }));
    close(client);
    ASSERT_TRUE(h.WaitFor([&]() { return h.closed_loop >= 0; }));
    group.Stop();

    std::lock_guard<std::mutex> lock(h.m_mutex);
    EXPECT_TRUE(h.good);
    EXPECT_EQ(77, h.keepalive_idle);
    EXPECT_EQ(std::make_pair(home, there), h.moves[0]);
    EXPECT_EQ(std::make_pair(there, home), h.moves[1]);
    ASSERT_EQ(2u, h.packet_loops.size());
    EXPECT_EQ(home, h.packet_loops[0]);
    EXPECT_EQ(there, h.packet_loops[1]);
    EXPECT_EQ(home, h.closed_loop);
}

}  // namespace
