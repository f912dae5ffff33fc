// A connection in steady state allocates nothing per packet: neither the receive block (the
// pool recycles it), nor the packet ring (inline slots, or ring storage from the process-wide
// cache), nor anything on the send side. Checked with a global operator new that counts, in
// this test executable only, over 10,000 echoed packets after a warm-up.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "recv_harness.h"

#include "support/alloc_counter.h"

namespace {

using qntest::AllocationCount;
using qntest::HarnessOptions;
using qntest::MakePacket;
using qntest::RecvHarness;
using QUOLNET::CTcpConnector;

const int kWarmUp = 200;
const int kMeasured = 10000;

// Echoes every packet waiting in the ring with a direct Send. False on any failure.
bool EchoRing(CTcpConnector& c) {
    for (;;) {
        const char* buf = nullptr;
        unsigned int len = 0;
        if (c.Peek(&buf, len, nullptr) != 0) {
            return false;
        }
        if (buf == nullptr) {
            return true;
        }
        if (c.Send(buf, len, nullptr) != static_cast<int>(len)) {
            return false;
        }
        c.Drop();
    }
}

// One round: the peer sends `wire` (whole packets), the connector frames them on readable
// events and echoes each, the peer reads the echo back. False on any failure or mismatch.
bool Round(RecvHarness& h, const std::string& wire, char* echo, bool peek_drop) {
    if (!h.Write(wire)) {
        return false;
    }
    size_t echoed = 0;
    while (echoed < wire.size()) {
        struct pollfd p[2] = {{h.c().GetSocket(), POLLIN, 0}, {h.client(), POLLIN, 0}};
        if (poll(p, 2, 5000) <= 0) {
            return false;
        }
        if (p[0].revents & POLLIN) {
            h.c().SetEvent(EPOLLIN | EPOLLOUT);
            h.c().Update();
            if (peek_drop && !EchoRing(h.c())) {
                return false;
            }
        }
        if (p[1].revents & POLLIN) {
            ssize_t n = recv(h.client(), echo + echoed, wire.size() - echoed, MSG_DONTWAIT);
            if (n <= 0) {
                return false;
            }
            echoed += static_cast<size_t>(n);
        }
    }
    return memcmp(echo, wire.data(), wire.size()) == 0;
}

int EchoFromCallback(const char*, const char* data, int len, void* arg) {
    CTcpConnector* c = *static_cast<CTcpConnector**>(arg);
    return c->Send(data, static_cast<unsigned int>(len), nullptr) == len ? 1 : 0;
}

// Runs warm-up and measured rounds (CountAllocations); returns the allocations counted in
// the measured ones.
long MeasureEcho(RecvHarness& h, const std::string& wire, bool peek_drop, int* failed_round) {
    std::vector<char> echo(wire.size());
    return qntest::CountAllocations(
        kWarmUp, kMeasured, [&] { return Round(h, wire, echo.data(), peek_drop); }, failed_round);
}

HarnessOptions Quiet() {
    HarnessOptions o;
    o.with_log = false;  // the log capture keeps texts, and would allocate
    return o;
}

// The counter is live: a zero below means no allocation, not a counter that never ran.
TEST(TcpConnectorNoAlloc, TheCounterSeesAllocations) {
    static std::vector<char>* volatile sink;  // keeps the compiler from eliding the pair
    AllocationCount count;
    sink = new std::vector<char>(100);
    long counted = count.Stop();
    delete sink;
    EXPECT_EQ(2, counted);  // the vector object and its elements
}

TEST(TcpConnectorNoAlloc, PeekDropPingPongAllocatesNothingPerPacket) {
    RecvHarness h(Quiet());
    ASSERT_TRUE(h.ok());
    int failed = 0;
    long allocations = MeasureEcho(h, MakePacket(64, 1), true, &failed);
    EXPECT_EQ(-1, failed);
    EXPECT_EQ(0, allocations);
    EXPECT_EQ(0u, h.pool().GetUsedCount());  // idle again
}

TEST(TcpConnectorNoAlloc, CallbackPingPongAllocatesNothingPerPacket) {
    CTcpConnector* self = nullptr;
    HarnessOptions o = Quiet();
    o.cb = &EchoFromCallback;
    o.cb_arg = &self;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    self = &h.c();
    int failed = 0;
    long allocations = MeasureEcho(h, MakePacket(64, 2), false, &failed);
    EXPECT_EQ(-1, failed);
    EXPECT_EQ(0, allocations);
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

// Two packets in flight stay in the inline slots; a burst of twenty moves the ring to ring
// storage, which comes from the cache after the warm-up and goes back when the ring empties.
TEST(TcpConnectorNoAlloc, PipelinedPacketsAllocateNothingPerPacket) {
    for (int in_flight : {2, 20}) {
        RecvHarness h(Quiet());
        ASSERT_TRUE(h.ok());
        // Several small replies per round: without TCP_NODELAY each round would wait for the
        // peer's delayed acknowledgement.
        int one = 1;
        ASSERT_EQ(0, setsockopt(h.c().GetSocket(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one)));
        ASSERT_EQ(0, setsockopt(h.client(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one)));
        std::string wire;
        for (int i = 0; i < in_flight; ++i) {
            wire += MakePacket(64 + static_cast<uint32_t>(i), static_cast<uint32_t>(i));
        }
        int failed = 0;
        long allocations = MeasureEcho(h, wire, true, &failed);
        EXPECT_EQ(-1, failed) << in_flight;
        EXPECT_EQ(0, allocations) << in_flight;
        EXPECT_EQ(0u, h.pool().GetUsedCount());
        EXPECT_EQ(0, CTcpConnector::GetPacketRingsInUse());
    }
}

}  // namespace
