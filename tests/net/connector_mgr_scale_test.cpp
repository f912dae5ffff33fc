// A manager with a pool of 64 blocks serves 1000 connections that each ping-pong once: an
// idle connection holds no block, so the pool bounds the connections active at one moment,
// not the connections open.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "echo_common.h"
#include "net/connector_mgr.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

namespace {

using QUOLNET::CConnectorMgr;
using QUOLNET::ConnectorMgrOptions;

TEST(ConnectorMgrScale, APoolOf64BlocksServesAThousandConnectionsOncePerConnection) {
    const int kConns = 1000;
    int fds_before = qntest::CountOpenFds();
    QUOLNET::CNetBufferMgr pool(64, -1, 1 << 20, CConnectorMgr::SendReserveFor(64));
    echo::EchoServerHandler handler;
    ConnectorMgrOptions o;
    o.pool = &pool;
    {
        CConnectorMgr mgr(&handler, o);
        ASSERT_EQ(0, mgr.Init());
        ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0"), 0);
        std::thread loop([&]() { mgr.Run(); });
        std::vector<int> fds;
        for (int i = 0; i < kConns; ++i) {
            int fd = qntest::DialListener(mgr);
            ASSERT_GE(fd, 0);
            fds.push_back(fd);
        }
        // Every connection sends one packet before any reply is read, then reads its echo.
        std::vector<std::string> sent;
        for (int i = 0; i < kConns; ++i) {
            sent.push_back(qntest::Packet(std::string(1020, static_cast<char>('a' + i % 26))));
            ASSERT_TRUE(qntest::WriteAll(fds[i], sent[i].data(), sent[i].size()));
        }
        int served = 0;
        for (int i = 0; i < kConns; ++i) {
            std::string echo(sent[i].size(), '\0');
            if (qntest::ReadExactly(fds[i], &echo[0], echo.size()) && echo == sent[i]) {
                ++served;
            }
        }
        EXPECT_EQ(kConns, served);
        EXPECT_LE(pool.GetPeakUsedCount(), 64u);
        // Served and idle, still connected: once the loop has finished its tick (each
        // packet is dropped right after the handler echoed it), no block is held.
        mgr.Stop();
        loop.join();
        EXPECT_EQ(0u, pool.GetUsedCount());
        EXPECT_EQ(static_cast<size_t>(kConns), mgr.GetConnectionCount());
        for (int fd : fds) {
            close(fd);
        }
    }
    EXPECT_EQ(0u, pool.GetUsedCount());
    EXPECT_EQ(fds_before, qntest::CountOpenFds());
}

}  // namespace
