// An interleaving of a group's foreign Send with moves that cannot be produced on demand: the
// sender is stopped, through a wrap of the loop's send entry (CConnectorMgr::SendImpl, called
// by the group from another object file), just before it asks a loop for the connection and
// again just after the loop said it has no such connection. The loops, the moves and the
// sockets stay real.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "net/connector_group.h"
#include "support/mgr_helpers.h"
#include "support/thread_stops.h"
#include "support/net_helpers.h"

using QUOLNET::CConnectorGroup;
using QUOLNET::CConnectorMgr;
using QUOLNET::ConnId;

extern "C" {
// CConnectorMgr::SendImpl(ConnId, const char*, unsigned int, bool, bool), by its symbol;
// `self` is the object the member function is called on.
int __real__ZN7QUOLNET13CConnectorMgr8SendImplEmPKcjbb(CConnectorMgr* self, ConnId id, const char* buf,
                                                       unsigned int len, bool corked, bool routed);
int __wrap__ZN7QUOLNET13CConnectorMgr8SendImplEmPKcjbb(CConnectorMgr* self, ConnId id, const char* buf,
                                                       unsigned int len, bool corked, bool routed);
}

namespace {

// Stop 1: before the sender's first call reaches the loop; stop 2: after it returned, with
// its result in g_first_result.
qntest::CThreadStops g_stops;
std::atomic<int> g_first_result{0};

}  // namespace

extern "C" int __wrap__ZN7QUOLNET13CConnectorMgr8SendImplEmPKcjbb(CConnectorMgr* self, ConnId id,
                                                                  const char* buf, unsigned int len,
                                                                  bool corked, bool routed) {
    if (!g_stops.Wanted()) {
        return __real__ZN7QUOLNET13CConnectorMgr8SendImplEmPKcjbb(self, id, buf, len, corked, routed);
    }
    g_stops.Reach(1, false);
    int ret = __real__ZN7QUOLNET13CConnectorMgr8SendImplEmPKcjbb(self, id, buf, len, corked, routed);
    g_first_result = ret;
    g_stops.Reach(2, true);
    return ret;
}

namespace {

class CEchoHandler : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr*, ConnId id, const char*, bool) override { m_id = id; }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        return mgr->Send(id, data, len) == static_cast<int>(len);
    }
    std::atomic<ConnId> m_id{0};
};

// Regression: a foreign Send reported kSendUnknownId for a live connection (seen once in CI).
// The sender asked loop A, the connection's loop at the look-up; the connection had just
// moved to B, so A missed; and by the time the sender asked where the id lived, it had come
// back to A, which read as "gone for good". A miss is final only if no route changed since
// the look-up, so this sender looks again and reaches A.
TEST(ConnectorGroupSeamTest, AMissOnALoopTheConnectionLeftAndCameBackToIsNotFinal) {
    CEchoHandler handler;
    QUOLNET::ConnectorGroupOptions o;
    o.threads = 2;
    CConnectorGroup group(&handler, o);
    ASSERT_EQ(0, group.Init());
    ASSERT_GT(group.Listen("tcp://127.0.0.1:0"), 0);
    ASSERT_EQ(0, group.Start());
    int fd = qntest::DialURL(group.GetListenURL());
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, fcntl(fd, F_SETFL, O_NONBLOCK));  // reads below are bounded
    ASSERT_TRUE(qntest::Eventually([&] { return handler.m_id.load() != 0; }));
    ConnId id = handler.m_id.load();
    int a = group.LoopOf(id);
    ASSERT_GE(a, 0);
    int b = 1 - a;

    std::string packet = qntest::Packet("from a foreign thread");
    int sent = 0;
    std::thread sender([&] {
        g_stops.Arm(pthread_self());
        sent = group.Send(id, packet.data(), static_cast<unsigned int>(packet.size()));
    });
    ASSERT_TRUE(g_stops.WaitReached(1));  // the sender is about to ask loop a

    ASSERT_EQ(0, group.Move(id, b));
    ASSERT_TRUE(qntest::Eventually([&] { return group.GetMoveCount() == 1 && group.LoopOf(id) == b; }));
    g_stops.Open(1);
    ASSERT_TRUE(g_stops.WaitReached(2));  // loop a has answered
    EXPECT_EQ(CConnectorMgr::kSendUnknownId, g_first_result.load());

    ASSERT_EQ(0, group.Move(id, a));
    ASSERT_TRUE(qntest::Eventually([&] { return group.GetMoveCount() == 2 && group.LoopOf(id) == a; }));
    g_stops.Open(2);
    sender.join();

    EXPECT_EQ(static_cast<int>(packet.size()), sent);
    if (sent == static_cast<int>(packet.size())) {
        std::string got(packet.size(), '\0');
        EXPECT_TRUE(qntest::ReadExactly(fd, &got[0], got.size()));
        EXPECT_EQ(packet, got);
    }
    EXPECT_EQ(0u, group.GetMoveFailedCount());
    close(fd);
    group.Stop();
}

}  // namespace
