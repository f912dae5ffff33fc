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

// Two stops for one thread: before its first call reaches the loop, and after that call
// returned. The test opens each in turn; every wait is bounded.
class TwoStops {
  public:
    void Arm(pthread_t who) {
        std::lock_guard<std::mutex> l(m_mu);
        m_who = who;
        m_armed = true;
    }
    bool Wanted() {
        std::lock_guard<std::mutex> l(m_mu);
        return m_armed && pthread_equal(m_who, pthread_self());
    }
    // Called by the stopped thread: reports reaching stop `n` (1 or 2) and waits until it is
    // opened.
    void Reach(int n, int result) {
        std::unique_lock<std::mutex> l(m_mu);
        if (n == 2) {
            m_armed = false;  // later calls of this thread pass
            m_first_result = result;
        }
        m_reached = n;
        m_cv.notify_all();
        m_cv.wait_for(l, std::chrono::seconds(20), [&] { return m_opened >= n; });
    }
    bool WaitReached(int n) {
        std::unique_lock<std::mutex> l(m_mu);
        return m_cv.wait_for(l, std::chrono::seconds(20), [&] { return m_reached >= n; });
    }
    void Open(int n) {
        std::lock_guard<std::mutex> l(m_mu);
        m_opened = n;
        m_cv.notify_all();
    }
    int FirstResult() {
        std::lock_guard<std::mutex> l(m_mu);
        return m_first_result;
    }

  private:
    std::mutex m_mu;
    std::condition_variable m_cv;
    pthread_t m_who{};
    bool m_armed = false;
    int m_reached = 0;
    int m_opened = 0;
    int m_first_result = 0;
};

TwoStops g_stops;

}  // namespace

extern "C" int __wrap__ZN7QUOLNET13CConnectorMgr8SendImplEmPKcjbb(CConnectorMgr* self, ConnId id,
                                                                  const char* buf, unsigned int len,
                                                                  bool corked, bool routed) {
    if (!g_stops.Wanted()) {
        return __real__ZN7QUOLNET13CConnectorMgr8SendImplEmPKcjbb(self, id, buf, len, corked, routed);
    }
    g_stops.Reach(1, 0);
    int ret = __real__ZN7QUOLNET13CConnectorMgr8SendImplEmPKcjbb(self, id, buf, len, corked, routed);
    g_stops.Reach(2, ret);
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
    EXPECT_EQ(CConnectorMgr::kSendUnknownId, g_stops.FirstResult());

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
