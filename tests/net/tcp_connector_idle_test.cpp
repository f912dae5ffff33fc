// An idle connection holds no receive block and no ring storage: the block goes back to the
// pool once its packets are taken (Peek/Drop or the receive callback) and nothing is half
// received, while the connection stays connected and receives again on its next packet; ring
// storage is taken only past the inline slots and given back when the ring empties.
#include <sys/socket.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "recv_harness.h"

namespace {

using qntest::HarnessOptions;
using qntest::MakePacket;
using qntest::Peer;
using qntest::RecvHarness;
using QUOLNET::CONNECTOR_STATUS_CONNECTED;
using QUOLNET::CTcpConnector;

// The connection is idle: no block, no ring storage of its own, still connected.
void ExpectIdle(RecvHarness& h) {
    EXPECT_EQ(0u, h.pool().GetUsedCount());
    EXPECT_EQ(0, h.c().GetRecvQCount());
    EXPECT_EQ(nullptr, Peer::m_rx_buffer(h.c()));
    EXPECT_EQ(nullptr, Peer::m_packet_info(h.c()));
    EXPECT_EQ(0, h.c().GetPacketInfoCnt());
    EXPECT_EQ(CONNECTOR_STATUS_CONNECTED, h.c().GetStatus());
    EXPECT_FALSE(h.c().HasPartialPacket());
    EXPECT_EQ(0, h.c().GetUnframedLen());
}

TEST(TcpConnectorIdle, PeekDropModeGivesTheBlockBackWithTheLastDrop) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    for (uint32_t round = 0; round < 3; ++round) {
        std::string p = MakePacket(1024, round);
        ASSERT_TRUE(h.Write(p));
        ASSERT_EQ(1024, h.RecvBytes(1024));
        EXPECT_EQ(1u, h.pool().GetUsedCount());  // the packet waits in its block
        std::vector<std::string> got = h.DrainAll();
        ASSERT_EQ(1u, got.size());
        EXPECT_EQ(p, got[0]);
        ExpectIdle(h);
    }
    EXPECT_EQ(3, h.c().GetRecvPacketCount());
}

TEST(TcpConnectorIdle, PacketsInTheRingKeepTheirBlockUntilTheLastIsDropped) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string wire = MakePacket(100, 1) + MakePacket(200, 2) + MakePacket(300, 3);
    ASSERT_TRUE(h.Write(wire));
    ASSERT_EQ(600, h.RecvBytes(600));
    ASSERT_EQ(3, h.c().GetPacketInfoCnt());
    ASSERT_EQ(0, h.c().Drop());
    ASSERT_EQ(0, h.c().Drop());
    EXPECT_EQ(1u, h.pool().GetUsedCount());  // the third packet still lies in it
    const char* buf = nullptr;
    unsigned int len = 0;
    ASSERT_EQ(0, h.c().Peek(&buf, len, nullptr));
    EXPECT_EQ(MakePacket(300, 3), std::string(buf, len));  // in place, still intact
    ASSERT_EQ(0, h.c().Drop());
    ExpectIdle(h);
}

TEST(TcpConnectorIdle, PacketsSpreadOverBlocksFreeEachBlockAsItsLastPacketGoes) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    // The third packet does not fit after the first two and is moved to a second block.
    std::string wire = MakePacket(30000, 1) + MakePacket(30000, 2) + MakePacket(30000, 3);
    ASSERT_TRUE(h.Write(wire));
    ASSERT_EQ(90000, h.RecvBytes(90000));
    ASSERT_EQ(3, h.c().GetPacketInfoCnt());
    EXPECT_EQ(2u, h.pool().GetUsedCount());
    ASSERT_EQ(0, h.c().Drop());
    EXPECT_EQ(2u, h.pool().GetUsedCount());
    ASSERT_EQ(0, h.c().Drop());
    EXPECT_EQ(1u, h.pool().GetUsedCount());
    ASSERT_EQ(0, h.c().Drop());
    ExpectIdle(h);
}

TEST(TcpConnectorIdle, AHalfReceivedPacketKeepsItsBlock) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(1000, 7);
    ASSERT_TRUE(h.Write(p.substr(0, 2)));  // half a header
    ASSERT_EQ(2, h.RecvBytes(2));
    EXPECT_EQ(1u, h.pool().GetUsedCount());
    EXPECT_TRUE(h.c().HasPartialPacket());
    ASSERT_TRUE(h.Write(p.substr(2, 498)));  // half the packet
    ASSERT_EQ(498, h.RecvBytes(498));
    EXPECT_EQ(1u, h.pool().GetUsedCount());
    EXPECT_TRUE(h.c().HasPartialPacket());
    ASSERT_TRUE(h.Write(p.substr(500)));
    ASSERT_EQ(500, h.RecvBytes(500));
    std::vector<std::string> got = h.DrainAll();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(p, got[0]);
    ExpectIdle(h);
}

TEST(TcpConnectorIdle, ABigPacketsChainGoesBackWithItsDrop) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(200000, 9);  // four blocks
    ASSERT_TRUE(h.Write(p));
    ASSERT_EQ(200000, h.RecvBytes(200000));
    EXPECT_GE(h.pool().GetUsedCount(), 4u);  // and the block the next read went to
    EXPECT_LE(h.pool().GetUsedCount(), 5u);
    std::vector<std::string> got = h.DrainAll();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(p, got[0]);
    ExpectIdle(h);
}

struct Taker {
    std::vector<std::string> got;
    int ret = 1;  // what the callback answers: 1 takes the packet, 0 leaves it in the ring
};

int Take(const char*, const char* data, int len, void* arg) {
    Taker* t = static_cast<Taker*>(arg);
    t->got.emplace_back(data, static_cast<size_t>(len));
    return t->ret;
}

TEST(TcpConnectorIdle, CallbackModeHoldsNoBlockOnceTheCallbackTookThePackets) {
    Taker taker;
    RecvHarness h(HarnessOptions::Callback(&Take, &taker));
    ASSERT_TRUE(h.ok());
    std::vector<std::string> sent;
    for (uint32_t round = 0; round < 3; ++round) {
        sent.push_back(MakePacket(512, round));
        ASSERT_TRUE(h.Write(sent.back()));
        ASSERT_EQ(512, h.RecvBytes(512));
        ExpectIdle(h);
    }
    // Two in one read, then a big packet joined for the callback.
    sent.push_back(MakePacket(100, 10));
    sent.push_back(MakePacket(100, 11));
    ASSERT_TRUE(h.Write(sent[3] + sent[4]));
    ASSERT_EQ(200, h.RecvBytes(200));
    ExpectIdle(h);
    sent.push_back(MakePacket(150000, 12));
    ASSERT_TRUE(h.Write(sent.back()));
    ASSERT_EQ(150000, h.RecvBytes(150000));
    ExpectIdle(h);
    EXPECT_EQ(sent, taker.got);
}

TEST(TcpConnectorIdle, APacketTheCallbackLeavesKeepsItsBlockUntilDropped) {
    Taker taker;
    taker.ret = 0;
    RecvHarness h(HarnessOptions::Callback(&Take, &taker));
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(300, 4);
    ASSERT_TRUE(h.Write(p));
    ASSERT_EQ(300, h.RecvBytes(300));
    ASSERT_EQ(1, h.c().GetPacketInfoCnt());
    EXPECT_EQ(1u, h.pool().GetUsedCount());
    std::vector<std::string> got = h.DrainAll();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(p, got[0]);
    ExpectIdle(h);
}

// The callback takes the ring's packet from inside Recv (Peek/Drop while Recv reads): that
// Drop must leave the block alone, and the end of Recv gives it back.
struct DropInside {
    RecvHarness* h = nullptr;
    int calls = 0;
    unsigned int used_after_drop = 99;
    std::string dropped;
};

int DropFromTheCallback(const char*, const char*, int, void* arg) {
    DropInside* d = static_cast<DropInside*>(arg);
    if (++d->calls == 1) {
        return 0;  // the first packet goes to the ring
    }
    const char* buf = nullptr;
    unsigned int len = 0;
    if (d->h->c().Peek(&buf, len, nullptr) == 0 && buf != nullptr) {
        d->dropped.assign(buf, len);
        d->h->c().Drop();
    }
    d->used_after_drop = d->h->pool().GetUsedCount();
    return 1;
}

TEST(TcpConnectorIdle, ADropDuringRecvLeavesTheReleaseToTheEndOfRecv) {
    DropInside d;
    RecvHarness h(HarnessOptions::Callback(&DropFromTheCallback, &d));
    ASSERT_TRUE(h.ok());
    d.h = &h;
    std::string first = MakePacket(64, 1);
    ASSERT_TRUE(h.Write(first + MakePacket(64, 2)));
    ASSERT_EQ(128, h.RecvBytes(128));
    EXPECT_EQ(2, d.calls);
    EXPECT_EQ(first, d.dropped);
    EXPECT_EQ(1u, d.used_after_drop);  // Recv was still reading into the block
    ExpectIdle(h);
}

TEST(TcpConnectorIdle, ADropMeetingARecvUnderWayLeavesTheBlock) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write(MakePacket(64, 1)));
    ASSERT_EQ(64, h.RecvBytes(64));
    Peer::m_rx_reading(h.c()) = true;  // as if the update thread were inside Recv
    ASSERT_EQ(0, h.c().Drop());
    EXPECT_EQ(1u, h.pool().GetUsedCount());
    Peer::m_rx_reading(h.c()) = false;
    EXPECT_EQ(0, h.RecvOnce());  // nothing to read; its end gives the block back
    ExpectIdle(h);
}

TEST(TcpConnectorIdle, AHalfClosedConnectionKeptWritableHoldsNoBlock) {
    for (int callback = 0; callback < 2; ++callback) {
        Taker taker;
        RecvHarness h(callback != 0 ? HarnessOptions::Callback(&Take, &taker) : HarnessOptions());
        ASSERT_TRUE(h.ok());
        h.c().SetKeepWritingAfterPeerClose(true);
        std::string p = MakePacket(700, 3);
        ASSERT_TRUE(h.Write(p));
        ASSERT_EQ(0, shutdown(h.client(), SHUT_WR));
        int r = 0;
        for (int i = 0; i < 100 && r != CTcpConnector::kPeerClosed; ++i) {
            ASSERT_TRUE(h.WaitReadable());
            r = h.RecvOnce();
            ASSERT_GE(r == CTcpConnector::kPeerClosed ? 0 : r, 0);
        }
        ASSERT_EQ(CTcpConnector::kPeerClosed, r);
        EXPECT_TRUE(h.c().IsPeerClosed());
        if (callback == 0) {
            EXPECT_EQ(1u, h.pool().GetUsedCount());
            std::vector<std::string> got = h.DrainAll();
            ASSERT_EQ(1u, got.size());
            EXPECT_EQ(p, got[0]);
        } else {
            ASSERT_EQ(1u, taker.got.size());
            EXPECT_EQ(p, taker.got[0]);
        }
        ExpectIdle(h);
        EXPECT_EQ(0, h.RecvOnce());  // reading has stopped for good; still no block
        ExpectIdle(h);
    }
}

TEST(TcpConnectorIdle, TheReleasedBlockCountsInTheReceiveWaitTimes) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write(MakePacket(64, 1)));
    ASSERT_EQ(64, h.RecvBytes(64));
    Peer::m_rx_max_wait_time(h.c()) = 0;
    Peer::m_rx_buffer(h.c())->m_tv.tv_sec -= 2;  // the block has waited two seconds more
    ASSERT_EQ(0, h.c().Drop());
    EXPECT_GE(Peer::m_rx_max_wait_time(h.c()), 2000000);
    EXPECT_LT(Peer::m_rx_max_wait_time(h.c()), 3000000);
    ExpectIdle(h);
}

TEST(TcpConnectorIdle, RingStorageIsTakenPastTheInlineSlotsAndGivenBackWhenEmpty) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    const long base = CTcpConnector::GetPacketRingsInUse();
    const int inline_slots = CTcpConnector::kInlinePacketSlots;
    std::vector<std::string> sent;
    std::string wire;
    for (int i = 0; i < inline_slots; ++i) {
        sent.push_back(MakePacket(50 + i, i));
        wire += sent.back();
    }
    ASSERT_TRUE(h.Write(wire));
    ASSERT_EQ(static_cast<long>(wire.size()), h.RecvBytes(wire.size()));
    ASSERT_EQ(inline_slots, h.c().GetPacketInfoCnt());
    EXPECT_EQ(base, CTcpConnector::GetPacketRingsInUse());  // the inline slots hold them
    EXPECT_EQ(nullptr, Peer::m_packet_info(h.c()));

    wire.clear();
    for (int i = inline_slots; i < 40; ++i) {
        sent.push_back(MakePacket(50 + i, i));
        wire += sent.back();
    }
    ASSERT_TRUE(h.Write(wire));
    ASSERT_EQ(static_cast<long>(wire.size()), h.RecvBytes(wire.size()));
    ASSERT_EQ(40, h.c().GetPacketInfoCnt());
    EXPECT_EQ(base + 1, CTcpConnector::GetPacketRingsInUse());
    EXPECT_NE(nullptr, Peer::m_packet_info(h.c()));
    EXPECT_EQ(sent, h.DrainAll());  // every packet, in order, across the move
    EXPECT_EQ(base, CTcpConnector::GetPacketRingsInUse());
    EXPECT_GE(CTcpConnector::GetPacketRingsCached(), 1);
    ExpectIdle(h);

    // A second burst reuses a cached ring; Fini gives back the ring of packets never taken.
    const long cached = CTcpConnector::GetPacketRingsCached();
    ASSERT_TRUE(h.Write(wire));
    ASSERT_EQ(static_cast<long>(wire.size()), h.RecvBytes(wire.size()));
    EXPECT_EQ(base + 1, CTcpConnector::GetPacketRingsInUse());
    EXPECT_EQ(cached - 1, CTcpConnector::GetPacketRingsCached());
    h.c().Fini();
    EXPECT_EQ(base, CTcpConnector::GetPacketRingsInUse());
    EXPECT_EQ(0, h.c().GetPacketInfoCnt());
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

// The consumer keeps a few packets waiting: the ring never leaves its inline slots, and a
// ring that grew and emptied is given back each time without touching the heap.
TEST(TcpConnectorIdle, AFewPacketsInFlightNeverTakeRingStorage) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    const long base = CTcpConnector::GetPacketRingsInUse();
    std::string two = MakePacket(64, 1) + MakePacket(64, 2);
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(h.Write(two));
        ASSERT_EQ(128, h.RecvBytes(128));
        EXPECT_EQ(base, CTcpConnector::GetPacketRingsInUse());
        ASSERT_EQ(2u, h.DrainAll().size());
    }
    ExpectIdle(h);
}

}  // namespace
