// A server on the manager's loop allocates nothing per packet in steady state: not the loop's
// tick (its event and work lists keep their capacity), not the corked replies and their
// end-of-tick flush, not delivery in either mode. Checked with a global operator new that
// counts, in this test executable only, over at least 10,000 echoed packets and two limit
// sweeps after a warm-up, with the loop and the client on this thread.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/connector_mgr.h"
#include "support/alloc_counter.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"
#include "support/test_parser.h"

namespace {

using QUOLNET::CConnectorMgr;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;

const int kWarmUp = 200;
const int kMeasured = 10000;

// Echoes every packet; a packet with more behind it is corked, the last of a run is sent, as
// a server that wants one write per run does.
class CEchoHandler : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr*, ConnId id, const char*, bool) override { m_id = id; }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) override {
        int ret = more ? mgr->SendCorked(id, data, len) : mgr->Send(id, data, len);
        return ret == static_cast<int>(len);
    }
    ConnId m_id = 0;
};

class MgrNoAllocTest : public ::testing::TestWithParam<bool> {
  protected:
    static ConnectorMgrOptions Options(bool callback) {
        ConnectorMgrOptions o;
        o.pool_blocks = 64;
        o.use_recv_callback = callback;
        return o;
    }

    MgrNoAllocTest() : m_mgr(&m_handler, Options(GetParam())) {}
    ~MgrNoAllocTest() override {
        if (m_client >= 0) {
            close(m_client);
        }
    }

    // Listens, dials with a non-blocking client and runs the loop until it has the connection.
    bool Connect() {
        m_client = qntest::ListenAndDial(m_mgr);
        if (m_client < 0 || fcntl(m_client, F_SETFL, O_NONBLOCK) != 0) {
            return false;
        }
        return qntest::Pump(m_mgr, [&] { return m_handler.m_id != 0; });
    }

    // The client sends `wire` (whole packets) and reads the echo back while the loop runs on
    // readiness of its epoll descriptor. False on a stall (5 s without progress), a failure
    // or a mismatch.
    bool Round(const std::string& wire) {
        if (!qntest::WriteAll(m_client, wire.data(), wire.size())) {
            return false;
        }
        size_t echoed = 0;
        // With epoll the loop's descriptor says when it has work; another back end is driven
        // by short waits of its own.
        const bool epoll = std::string(m_mgr.GetIoBackendName()) == "epoll";
        const int64_t give_up = QUOLNET::CEventLoop::NowMs() + 5000;
        while (echoed < wire.size()) {
            struct pollfd p[2] = {{m_mgr.GetEpollFd(), POLLIN, 0}, {m_client, POLLIN, 0}};
            if (!epoll) {
                if (m_mgr.RunOnce(1) < 0 || QUOLNET::CEventLoop::NowMs() > give_up) {
                    return false;
                }
                ssize_t n = recv(m_client, &m_echo[echoed], wire.size() - echoed, MSG_DONTWAIT);
                if (n > 0) {
                    echoed += static_cast<size_t>(n);
                } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
                    return false;
                }
                continue;
            }
            if (poll(p, 2, 5000) <= 0) {
                return false;
            }
            if (p[0].revents & POLLIN) {
                if (m_mgr.RunOnce(0) < 0) {
                    return false;
                }
            }
            if (p[1].revents & POLLIN) {
                ssize_t n = recv(m_client, &m_echo[echoed], wire.size() - echoed, MSG_DONTWAIT);
                if (n <= 0) {
                    return false;
                }
                echoed += static_cast<size_t>(n);
            }
        }
        return memcmp(m_echo.data(), wire.data(), wire.size()) == 0;
    }

    // Warm-up rounds, then measured ones (CountAllocations): at least kMeasured, and long
    // enough for the loop's periodic work (the limit sweep) to run twice among them.
    long Measure(const std::string& wire, int* failed_round) {
        m_echo.assign(wire.size(), '\0');
        return qntest::CountAllocations(
            kWarmUp, kMeasured, [&] { return Round(wire); }, failed_round,
            std::chrono::milliseconds(2 * CConnectorMgr::kSweepMs + 100));
    }

    CEchoHandler m_handler;
    CConnectorMgr m_mgr;
    int m_client = -1;
    std::vector<char> m_echo;
};

TEST_P(MgrNoAllocTest, PingPongAllocatesNothingPerPacket) {
    ASSERT_TRUE(Connect());
    int failed = 0;
    long allocations = Measure(qntest::Packet(std::string(60, 'p')), &failed);
    EXPECT_EQ(-1, failed);
    EXPECT_EQ(0, allocations);
}

// Sixteen packets in one write: all but the last are corked, and the end of the tick flushes
// them with the last one.
// Regression: the flush swapped the corked list with a fresh local vector, so the list lost
// its storage and every tick with a corked reply allocated it again (10,000 allocations over
// 10,000 runs).
TEST_P(MgrNoAllocTest, PipelinedRunsAllocateNothingPerPacket) {
    ASSERT_TRUE(Connect());
    std::string wire;
    for (int i = 0; i < 16; ++i) {
        wire += qntest::Packet(std::string(60, static_cast<char>('a' + i)));
    }
    int failed = 0;
    long allocations = Measure(wire, &failed);
    EXPECT_EQ(-1, failed);
    EXPECT_EQ(0, allocations);
}

INSTANTIATE_TEST_SUITE_P(PeekAndCallback, MgrNoAllocTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& param) {
                             return std::string(param.param ? "Callback" : "Peek");
                         });

}  // namespace
