// How long the loop waits around the end of a drain, seen through a wrap of epoll_wait (the
// wait's timeout cannot be observed otherwise without timing the test). The sockets, the loop
// and the drain stay real.
//
// Regression: once the last connection of a drain ended (its peer's end read, or aborted at
// the deadline), the loop went back to epoll_wait with the drain's deadline, or Run's second,
// as its timeout before it noticed that nothing was left: Run returned up to a second late,
// and a process handing over to a successor exited that much later.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include <gtest/gtest.h>

#include "net/connector_mgr.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

namespace {
std::atomic<int> g_last_timeout{-2};  // the timeout of the loop's last epoll_wait
}  // namespace

extern "C" {
int __real_epoll_wait(int epfd, struct epoll_event* events, int maxevents, int timeout);
int __wrap_epoll_wait(int epfd, struct epoll_event* events, int maxevents, int timeout) {
    g_last_timeout.store(timeout);
    return __real_epoll_wait(epfd, events, maxevents, timeout);
}
}

namespace {

using QUOLNET::CConnectorMgr;
using QUOLNET::ConnId;

class Quiet : public QUOLNET::IConnectorHandler {
  public:
    bool OnPacket(CConnectorMgr*, ConnId, const char*, unsigned int, bool) override { return true; }
};

TEST(ConnectorMgrShutdownWait, TheTickAfterTheLastConnectionEndsStopsWithoutWaiting) {
    Quiet h;
    QUOLNET::ConnectorMgrOptions o;
    o.log_cat = nullptr;
    CConnectorMgr server(&h, o);
    int fd = qntest::ListenAndDial(server);
    ASSERT_GE(fd, 0);
    if (std::string(server.GetIoBackendName()) != "epoll") {
        close(fd);
        GTEST_SKIP() << "the wait is seen through epoll_wait";
    }
    ASSERT_TRUE(qntest::Pump(server, [&]() { return server.GetConnectionCount() == 1; }));
    server.Shutdown(60000);
    // The peer reads to the end of stream the drain sends, then closes.
    bool ended = false;
    for (int i = 0; i < 500 && !ended; ++i) {
        server.RunOnce(10);
        char c;
        ended = recv(fd, &c, 1, MSG_DONTWAIT) == 0;
    }
    ASSERT_TRUE(ended);
    close(fd);
    ASSERT_TRUE(qntest::Pump(server, [&]() { return server.GetConnectionCount() == 0; }));
    if (!server.IsStopping()) {
        server.RunOnce(5000);
        EXPECT_EQ(0, g_last_timeout.load()) << "nothing left to drain: no wait";
    }
    EXPECT_TRUE(server.IsStopping());
}

}  // namespace
