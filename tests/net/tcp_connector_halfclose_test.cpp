// The peer's end of stream with and without SetKeepWritingAfterPeerClose, the close cause that
// Update records (GetLastIoResult / GetLastErrno), the progress accessors and HasPartialPacket.
// All on real loopback connections driven through Update as an owner would.
#include <errno.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/tcp_connector.h"
#include "recv_harness.h"

namespace {

using namespace qntest;
using QUOLNET::CONNECTOR_STATUS_CONNECTED;
using QUOLNET::CONNECTOR_STATUS_DISCONNECTED;
using QUOLNET::CTcpConnector;
using QUOLNET::LOG_PRIORITY_DEBUG;

// Runs Update on every readiness report until `done` holds or 200 reports went by.
template <typename Pred>
bool DriveUntil(RecvHarness& h, Pred done) {
    for (int i = 0; i < 200 && !done(); ++i) {
        unsigned int events = 0;
        void* data = nullptr;
        if (WaitEpoll(h.epoll(), &events, &data, 5000) != 1) {
            return done();
        }
        h.c().SetEvent(events);
        h.c().Update();
    }
    return done();
}

std::string Packets(int n, uint32_t len, uint32_t seed) {
    std::string s;
    for (int i = 0; i < n; ++i) {
        s += MakePacket(len, seed + static_cast<uint32_t>(i));
    }
    return s;
}

int RecvCalls(RecvHarness& h) {
    return h.log().CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::Recv()");
}

TEST(HalfClose, KeepWritingKeepsThePacketsStopsReadingAndStillSends) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    EXPECT_FALSE(h.c().GetKeepWritingAfterPeerClose());
    h.c().SetKeepWritingAfterPeerClose(true);
    std::string sent = Packets(3, 100, 1) + Packets(1, 70000, 9);  // a big one among them
    ASSERT_TRUE(h.Write(sent));
    ASSERT_EQ(0, shutdown(h.client(), SHUT_WR));

    ASSERT_TRUE(DriveUntil(h, [&] { return h.c().IsPeerClosed(); }));
    EXPECT_EQ(CONNECTOR_STATUS_CONNECTED, h.c().GetStatus());
    EXPECT_EQ(0, h.c().GetLastIoResult());
    EXPECT_EQ(0, h.c().GetLastErrno());
    EXPECT_EQ(static_cast<int64_t>(sent.size()), h.c().GetRecvBytes());
    EXPECT_EQ(4, h.c().GetRecvPacketCount());
    EXPECT_FALSE(h.c().HasPartialPacket());
    // Reading is over: out of m_events and out of the registration.
    EXPECT_EQ(0u, h.c().GetEvent() & EPOLLIN);
    long reg = RegisteredEvents(h.epoll(), h.c().GetSocket());
    ASSERT_GE(reg, 0);
    EXPECT_EQ(0, reg & EPOLLIN);

    // Every packet read before the end of stream waits in the ring, byte for byte.
    std::vector<std::string> got = h.DrainAll();
    ASSERT_EQ(4u, got.size());
    EXPECT_EQ(sent, got[0] + got[1] + got[2] + got[3]);

    // No more reading, whatever the owner reports.
    int calls = RecvCalls(h);
    int reads = h.log().CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::ReadSocket()");
    h.c().SetEvent(EPOLLIN);
    h.c().Update();
    EXPECT_EQ(calls, RecvCalls(h));
    EXPECT_EQ(0, h.c().Recv());  // a direct call reads nothing either
    EXPECT_EQ(calls + 1, RecvCalls(h));
    EXPECT_EQ(reads, h.log().CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::ReadSocket()"));

    // Replies still go out: a direct write and a queued one flushed on EPOLLOUT.
    std::string reply1 = MakePacket(50, 77), reply2 = MakePacket(200000, 78);
    h.c().SetEvent(EPOLLOUT);
    ASSERT_EQ(static_cast<int>(reply1.size()), h.c().Send(reply1.data(), reply1.size(), nullptr));
    ASSERT_EQ(static_cast<int>(reply2.size()), h.c().SendToQ(reply2.data(), reply2.size(), nullptr));
    std::string back(reply1.size() + reply2.size(), '\0');
    size_t have = 0;
    for (int i = 0; i < 1000 && have < back.size(); ++i) {
        h.c().SetEvent(EPOLLOUT);
        h.c().Update();
        ASSERT_EQ(CONNECTOR_STATUS_CONNECTED, h.c().GetStatus());
        ssize_t n = recv(h.client(), &back[have], back.size() - have, MSG_DONTWAIT);
        if (n > 0) {
            have += static_cast<size_t>(n);
        } else {
            struct pollfd p = {h.client(), POLLIN, 0};
            poll(&p, 1, 100);
        }
    }
    EXPECT_EQ(reply1 + reply2, back);
    EXPECT_EQ(static_cast<int64_t>(back.size()), h.c().GetSentBytes());
    EXPECT_EQ(calls + 1, RecvCalls(h));

    h.c().Fini();
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

TEST(HalfClose, OffTheEndOfStreamDisconnectsAsBefore) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write(MakePacket(10, 1)));
    ASSERT_EQ(0, shutdown(h.client(), SHUT_WR));
    ASSERT_TRUE(DriveUntil(h, [&] { return h.c().GetStatus() == CONNECTOR_STATUS_DISCONNECTED; }));
    EXPECT_TRUE(h.c().IsPeerClosed());
    EXPECT_EQ(CTcpConnector::kPeerClosed, h.c().GetLastIoResult());
    EXPECT_EQ(-10000, CTcpConnector::kPeerClosed);
    EXPECT_EQ(0, h.c().GetLastErrno());
    EXPECT_EQ(1u, h.DrainAll().size());
}

TEST(HalfClose, AResetAfterTheEndOfStreamStillDisconnects) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    h.c().SetKeepWritingAfterPeerClose(true);
    ASSERT_EQ(0, shutdown(h.client(), SHUT_WR));
    ASSERT_TRUE(DriveUntil(h, [&] { return h.c().IsPeerClosed(); }));
    ASSERT_EQ(CONNECTOR_STATUS_CONNECTED, h.c().GetStatus());
    h.AbortClient();
    ASSERT_TRUE(DriveUntil(h, [&] { return h.c().GetStatus() == CONNECTOR_STATUS_DISCONNECTED; }));
    EXPECT_EQ(0, h.c().GetLastIoResult());
    // SO_ERROR behind EPOLLERR: a reset met after the peer's FIN reads as EPIPE.
    int err = h.c().GetLastErrno();
    EXPECT_TRUE(err == EPIPE || err == ECONNRESET) << err;
}

TEST(CloseCause, FailedReadKeepsItsErrno) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    h.c().SetKeepWritingAfterPeerClose(true);  // a reset is not an end of stream
    h.AbortClient();
    ASSERT_TRUE(h.WaitReadable());
    h.c().SetEvent(EPOLLIN);  // readable only: the read itself meets the reset
    h.c().Update();
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, h.c().GetStatus());
    EXPECT_EQ(CTcpConnector::kIoFailed, h.c().GetLastIoResult());
    EXPECT_EQ(ECONNRESET, h.c().GetLastErrno());
    EXPECT_FALSE(h.c().IsPeerClosed());
}

TEST(CloseCause, MalformedHeaderHasNoErrno) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write(std::string("\0\0\0\1", 4)));  // length 1 < 4: malformed
    ASSERT_TRUE(DriveUntil(h, [&] { return h.c().GetStatus() == CONNECTOR_STATUS_DISCONNECTED; }));
    EXPECT_EQ(CTcpConnector::kParseMalformed, h.c().GetLastIoResult());
    EXPECT_EQ(0, h.c().GetLastErrno());
}

TEST(CloseCause, FailedFlushToAResetPeerKeepsItsErrnoAndRaisesNoSignal) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    h.AbortClient();
    // Wait for the reset to arrive, without letting Update see it as EPOLLERR.
    ASSERT_TRUE(h.WaitReadable());
    std::string p = MakePacket(100, 3);
    ASSERT_EQ(100, h.c().SendToQ(p.data(), p.size(), nullptr));
    h.c().SetEvent(EPOLLOUT);  // writable only: the flush itself meets the reset
    h.c().Update();
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, h.c().GetStatus());
    EXPECT_EQ(CTcpConnector::kIoFailed, h.c().GetLastIoResult());
    int err = h.c().GetLastErrno();
    EXPECT_TRUE(err == EPIPE || err == ECONNRESET) << err;
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

TEST(CloseCause, WritesToAClosedPeerFailWithEpipeNotSigpipe) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    h.AbortClient();
    ASSERT_TRUE(h.WaitReadable());
    // The first write reports the reset, the next ones EPIPE; SIGPIPE (fatal here, the
    // process keeps its default action) is never raised.
    for (int i = 0; i < 3; ++i) {
        h.c().SetEvent(EPOLLOUT);
        EXPECT_EQ(CTcpConnector::kIoFailed, h.c().Send("abcd", 4, nullptr));
    }
    EXPECT_TRUE(
        h.log().HasPrefix(QUOLNET::LOG_PRIORITY_ERROR,
                          Fmt("send data to server failed, %s, send_len=4, err=%d", h.Who().c_str(), EPIPE)));
}

TEST(CloseCause, RefusedDialGivesEconnrefusedAndConnectClearsIt) {
    QUOLNET::CNetBufferMgr pool(8);
    std::vector<char> combine(1 << 16);
    CTcpConnector c(combine.data(), static_cast<int>(combine.size()), combine.data(),
                    static_cast<int>(combine.size()), nullptr, &pool, 4, 4, nullptr, nullptr);
    BigEndianLengthParser parser;
    int ep = epoll_create1(0);
    ASSERT_GE(ep, 0);
    std::string url = "tcp://127.0.0.1:" + std::to_string(UnusedPort());
    ASSERT_EQ(0, c.Init(url.c_str(), &parser, ep, -1));
    ASSERT_EQ(0, c.Connect());
    for (int i = 0; i < 100 && c.GetStatus() != CONNECTOR_STATUS_DISCONNECTED; ++i) {
        unsigned int events = 0;
        void* data = nullptr;
        ASSERT_EQ(1, WaitEpoll(ep, &events, &data, 5000));
        c.SetEvent(events);
        c.Update();
    }
    EXPECT_EQ(CONNECTOR_STATUS_DISCONNECTED, c.GetStatus());
    EXPECT_EQ(0, c.GetLastIoResult());
    EXPECT_EQ(ECONNREFUSED, c.GetLastErrno());
    ASSERT_EQ(0, c.Connect());  // Reset clears the cause of the previous connection
    EXPECT_EQ(0, c.GetLastErrno());
    EXPECT_EQ(0, c.GetLastIoResult());
    EXPECT_FALSE(c.IsPeerClosed());
    c.Fini();
    close(ep);
}

TEST(Progress, HasPartialPacketFollowsTheBytesNotTheFramingState) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    EXPECT_FALSE(h.c().HasPartialPacket());
    std::string a = MakePacket(10, 1);
    ASSERT_TRUE(h.Write(a.substr(0, 2)));  // half a header
    ASSERT_EQ(2, h.RecvBytes(2));
    EXPECT_TRUE(h.c().HasPartialPacket());
    ASSERT_TRUE(h.Write(a.substr(2, 4)));  // the length is known, the body is not all here
    ASSERT_EQ(4, h.RecvBytes(4));
    EXPECT_TRUE(h.c().HasPartialPacket());
    ASSERT_TRUE(h.Write(a.substr(6)));
    ASSERT_EQ(4, h.RecvBytes(4));
    EXPECT_FALSE(h.c().HasPartialPacket());  // whole, in the ring
    EXPECT_EQ(1, h.c().GetRecvPacketCount());
    EXPECT_EQ(10, h.c().GetRecvBytes());
    h.DrainAll();

    // Fill the ring: the 1000 packets are framed, 5 more wait unframed, whole.
    std::string many = Packets(CTcpConnector::kPacketInfoSize + 5, 8, 100);
    ASSERT_TRUE(h.Write(many));
    long total = 0;
    for (int i = 0; i < 100 && total < static_cast<long>(many.size()) && h.WaitReadable(); ++i) {
        total += h.RecvOnce();
    }
    ASSERT_EQ(static_cast<long>(many.size()), total);  // one segment on loopback: one read
    ASSERT_EQ(CTcpConnector::kPacketInfoSize, h.c().GetPacketInfoCnt());
    EXPECT_EQ(40, h.c().GetUnframedLen());
    EXPECT_FALSE(h.c().HasPartialPacket());
    // Room in the ring again, framing has not run yet: still whole packets only.
    for (int i = 0; i < 6; ++i) {
        const char* buf = nullptr;
        unsigned int len = 0;
        ASSERT_EQ(0, h.c().Peek(&buf, len, nullptr));
        ASSERT_EQ(0, h.c().Drop());
    }
    EXPECT_FALSE(h.c().HasPartialPacket());
    // One header byte behind them: framing files the 5, the byte starts a partial packet.
    ASSERT_TRUE(h.Write(std::string(1, '\0')));
    ASSERT_TRUE(h.WaitReadable());
    ASSERT_EQ(1, h.RecvOnce());
    EXPECT_EQ(CTcpConnector::kPacketInfoSize - 1, h.c().GetPacketInfoCnt());
    EXPECT_TRUE(h.c().HasPartialPacket());
}

TEST(Progress, ABigPacketInProgressIsPartial) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string big = MakePacket(200000, 5);
    ASSERT_TRUE(h.Write(big.substr(0, 100000)));
    ASSERT_EQ(100000, h.RecvBytes(100000));
    EXPECT_TRUE(h.c().HasPartialPacket());
    ASSERT_TRUE(h.Write(big.substr(100000)));
    ASSERT_EQ(100000, h.RecvBytes(100000));
    EXPECT_FALSE(h.c().HasPartialPacket());
    std::vector<std::string> got = h.DrainAll();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(big, got[0]);
}

}  // namespace
