// Packet delivery: Peek, Drop, joining multi-block packets, receive wait statistics and the
// receive callback, over a real loopback socket.
#include <gtest/gtest.h>

#include "net/recv_harness.h"

namespace {

using qntest::HarnessOptions;
using qntest::MakePacket;
using qntest::Peer;
using qntest::RecvHarness;
using QUOLNET::LOG_PRIORITY_DEBUG;
using QUOLNET::LOG_PRIORITY_ERROR;
using QUOLNET::LOG_PRIORITY_TRACE;
using QUOLNET::NetBuffer;

std::string Ptr(const void* p) {
    char b[32];
    snprintf(b, sizeof(b), "%p", p);
    return b;
}

TEST(TcpConnectorDelivery, EmptyRing) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    const char* buf = "x";
    unsigned int len = 7;
    EXPECT_EQ(0, h.c().Peek(&buf, len, nullptr));
    EXPECT_EQ(nullptr, buf);
    EXPECT_EQ(0u, len);
    EXPECT_EQ(-1, h.c().Drop());
    EXPECT_TRUE(
        h.log().Has(LOG_PRIORITY_TRACE, "enter CTcpConnector::Peek(), " + h.Who() + ", buf=" + Ptr(&buf)));
    EXPECT_EQ(1u, h.log().Size());  // Drop writes nothing
}

TEST(TcpConnectorDelivery, PeekUsesTheGivenCategory) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    qntest::LogCapture other;
    ASSERT_TRUE(h.Write(MakePacket(10, 1)));
    EXPECT_EQ(10, h.RecvBytes(10));
    h.log().Clear();
    const char* buf = nullptr;
    unsigned int len = 0;
    EXPECT_EQ(0, h.c().Peek(&buf, len, other.cat()));
    EXPECT_EQ(0u, h.log().Size());
    EXPECT_EQ(2u, other.Size());
}

TEST(TcpConnectorDelivery, SinglePacketInPlaceLogsLengthZero) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(65536, 3);
    ASSERT_TRUE(h.Write(p));
    EXPECT_EQ(65536, h.RecvBytes(65536));
    h.log().Clear();
    const char* buf = nullptr;
    unsigned int len = 0;
    ASSERT_EQ(0, h.c().Peek(&buf, len, nullptr));
    EXPECT_EQ(65536u, len);
    EXPECT_EQ(Peer::Slot(h.c(), 0).buffer->m_buf, buf);  // no copy
    EXPECT_EQ(p, std::string(buf, len));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_DEBUG, "get a single packet, " + h.Who() + ", packet_len=0"));
}

TEST(TcpConnectorDelivery, MultiBlockPacketIsJoinedIntoTheCombineBuffer) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(65537, 4);
    ASSERT_TRUE(h.Write(p));
    EXPECT_EQ(65537, h.RecvBytes(65537));
    h.log().Clear();
    const char* buf = nullptr;
    unsigned int len = 0;
    ASSERT_EQ(0, h.c().Peek(&buf, len, nullptr));
    EXPECT_EQ(h.combine(), buf);
    EXPECT_EQ(p, std::string(buf, len));
    EXPECT_TRUE(
        h.log().Has(LOG_PRIORITY_DEBUG, "enter CTcpConnector::CombinePacket(), " + h.Who() + ", len=65537"));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_DEBUG, "get a multi packet, " + h.Who() + ", combine_len=65537"));
}

TEST(TcpConnectorDelivery, ExactMultipleIsJoinedWithoutLookingFurther) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    // Starts at offset 100, so 65436 bytes in the first block and exactly 2 x 65536 after it.
    std::string lead = MakePacket(100, 1);
    std::string p = MakePacket(65436 + 2 * 65536, 5);
    ASSERT_TRUE(h.Write(lead + p));
    EXPECT_EQ(static_cast<long>(lead.size() + p.size()),
              h.RecvBytes(static_cast<long>(lead.size() + p.size())));
    ASSERT_EQ(0, h.c().Drop());
    // Detach whatever follows the packet's last block, so a look further would fail.
    auto& q = Peer::m_rx_queue(h.c());
    NetBuffer* extra = nullptr;
    if (q.Count() == 4u) {
        extra = static_cast<NetBuffer*>(q.Tail()->pData);
        q.Remove(q.Tail());
        Peer::m_rx_buffer(h.c()) = nullptr;
        Peer::m_rx_packet(h.c()) = QUOLNET::PacketInfo{nullptr, 0, 0, 0};
        Peer::m_rx_status(h.c()) = QUOLNET::RECV_PACKET_HEAD_STATUS;
    }
    ASSERT_EQ(3u, q.Count());
    memset(h.combine(), 0x5a, p.size() + 16);
    const char* buf = nullptr;
    unsigned int len = 0;
    ASSERT_EQ(0, h.c().Peek(&buf, len, nullptr));
    EXPECT_EQ(p, std::string(buf, len));
    EXPECT_EQ(std::string(16, '\x5a'), std::string(h.combine() + p.size(), 16));
    EXPECT_EQ(0, h.log().CountPrefix(LOG_PRIORITY_ERROR, ""));
    h.pool().Release(&extra);
}

TEST(TcpConnectorDelivery, JoinFailsWhenAPacketBlockIsMissing) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    NetBuffer* lone = h.pool().Allocate(true, false);
    ASSERT_NE(nullptr, lone);
    Peer::m_rx_queue(h.c()).Insert(&lone->m_node);
    Peer::Slot(h.c(), 0) = QUOLNET::PacketInfo{lone, 10, 200000, 200000};
    Peer::m_packet_head_idx(h.c()) = 0;
    Peer::m_packet_tail_idx(h.c()) = 0;
    const char* buf = nullptr;
    unsigned int len = 0;
    EXPECT_EQ(-1, h.c().Peek(&buf, len, nullptr));
    EXPECT_EQ(nullptr, buf);
    EXPECT_EQ(0u, len);
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR, "unexpected exception, next node is null, " + h.Who() +
                                                    ", buffer(" + Ptr(lone) + "), packet_len=200000"));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_DEBUG,
                            "CombinePacket() failed, " + h.Who() + ", combine_len=200000, ret=-1"));
    EXPECT_EQ(0, h.c().Drop());  // the owner may drop it
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

// The first Drop frees nothing (the next packet shares the block); the second empties the
// ring, and the block being read into, drained, goes back too: the connection is idle.
TEST(TcpConnectorDelivery, TwoPacketsSharingTheReadBlockFreeItOnlyWithTheLast) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write(MakePacket(100, 1) + MakePacket(100, 2)));
    EXPECT_EQ(200, h.RecvBytes(200));
    EXPECT_EQ(0, h.c().Drop());
    EXPECT_EQ(1u, h.pool().GetUsedCount());
    EXPECT_EQ(0, h.c().Drop());
    EXPECT_EQ(0u, h.pool().GetUsedCount());
    EXPECT_EQ(0, h.c().GetRecvQCount());
    EXPECT_EQ(nullptr, Peer::m_rx_buffer(h.c()));
    EXPECT_EQ(-1, Peer::m_packet_head_idx(h.c()));
    EXPECT_EQ(-1, Peer::m_packet_tail_idx(h.c()));
}

TEST(TcpConnectorDelivery, SecondDropFreesTheSharedBlock) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write(MakePacket(32768, 1) + MakePacket(32768, 2) + MakePacket(50, 3)));
    EXPECT_EQ(65586, h.RecvBytes(65586));
    ASSERT_EQ(3, h.c().GetPacketInfoCnt());
    EXPECT_EQ(2u, h.pool().GetUsedCount());
    EXPECT_EQ(0, h.c().Drop());
    EXPECT_EQ(2u, h.pool().GetUsedCount());  // the next packet shares the front block
    EXPECT_EQ(0, h.c().Drop());
    EXPECT_EQ(1u, h.pool().GetUsedCount());  // freed
    EXPECT_EQ(1, h.c().GetRecvQCount());
    EXPECT_EQ(0, h.c().Drop());
    EXPECT_EQ(-1, Peer::m_packet_head_idx(h.c()));
    EXPECT_EQ(-1, Peer::m_packet_tail_idx(h.c()));
    EXPECT_EQ(-1, h.c().Drop());
}

// A packet queued in a block whose wait stamp is given, then dropped.
class WaitStatsTest : public ::testing::Test {
  protected:
    void DropBlockStamped(const struct timeval& tv) {
        ASSERT_TRUE(h.ok());
        ASSERT_TRUE(h.Write(MakePacket(65536, 1) + MakePacket(10, 2)));
        ASSERT_EQ(65546, h.RecvBytes(65546));
        auto* front = static_cast<NetBuffer*>(Peer::m_rx_queue(h.c()).Head()->pData);
        front->m_tv = tv;
        ASSERT_EQ(0, h.c().Drop());
        ASSERT_EQ(1u, Peer::m_rx_queue(h.c()).Count());  // the stamped block was freed
    }
    RecvHarness h;
};

TEST_F(WaitStatsTest, BlockStampedInTheFutureWaitsZero) {
    Peer::m_tx_avg_wait_time(h.c()) = 10000.0f;
    Peer::m_rx_avg_wait_time(h.c()) = 123.0f;
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    tv.tv_sec += 100;
    DropBlockStamped(tv);
    EXPECT_EQ(0, static_cast<int>(Peer::m_rx_max_wait_time(h.c())));
    // The receive average is fed by the send average: (0 + 9999 * 10000) / 10000.
    EXPECT_FLOAT_EQ(9999.0f, static_cast<float>(Peer::m_rx_avg_wait_time(h.c())));
}

TEST_F(WaitStatsTest, AverageFollowsTheSendAverage) {
    Peer::m_tx_avg_wait_time(h.c()) = 0.0f;
    Peer::m_rx_avg_wait_time(h.c()) = 5000000.0f;  // ignored by the formula
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    tv.tv_sec -= 2;
    DropBlockStamped(tv);
    int wait = Peer::m_rx_max_wait_time(h.c());
    EXPECT_GE(wait, 2000000);
    EXPECT_LT(wait, 12000000);
    EXPECT_FLOAT_EQ(static_cast<float>(wait / 10000.0), static_cast<float>(Peer::m_rx_avg_wait_time(h.c())));
}

TEST_F(WaitStatsTest, LongWaitsWrapIn32Bits) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    tv.tv_sec -= 4800;  // 4.8e9 us wraps to 505032704 us
    DropBlockStamped(tv);
    int wait = Peer::m_rx_max_wait_time(h.c());
    EXPECT_GE(wait, 505032704);
    EXPECT_LT(wait, 505032704 + 10000000);
}

TEST_F(WaitStatsTest, WrapToNegativeCountsAsZero) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    tv.tv_sec -= 3600;  // 3.6e9 us reads as a negative 32-bit value
    DropBlockStamped(tv);
    EXPECT_EQ(0, static_cast<int>(Peer::m_rx_max_wait_time(h.c())));
}

// ---- the receive callback ----

struct CbState {
    std::vector<std::string> got;
    std::vector<const char*> data;
    int keep_every = 0;  // return 0 (queue it) for every n-th packet; 0: consume all
};

int Record(const char* url, const char* data, int len, void* arg) {
    auto* s = static_cast<CbState*>(arg);
    EXPECT_STREQ("tcp://127.0.0.1:9", url);
    s->got.emplace_back(data, static_cast<size_t>(len));
    s->data.push_back(data);
    return (s->keep_every != 0 && s->got.size() % static_cast<size_t>(s->keep_every) == 0) ? 0 : 1;
}

TEST(TcpConnectorCallback, ConsumedPacketsReleaseTheirBlocksAtOnce) {
    CbState st;
    RecvHarness h(HarnessOptions::Callback(&Record, &st));
    ASSERT_TRUE(h.ok());
    std::string p1 = MakePacket(40000, 1), p2 = MakePacket(40000, 2);
    ASSERT_TRUE(h.Write(p1 + p2));
    EXPECT_EQ(80000, h.RecvBytes(80000));
    ASSERT_EQ(2u, st.got.size());
    EXPECT_EQ(p1, st.got[0]);
    EXPECT_EQ(p2, st.got[1]);
    EXPECT_EQ(0, h.c().GetPacketInfoCnt());
    EXPECT_LE(h.pool().GetUsedCount(), 1u);
    EXPECT_EQ(static_cast<unsigned>(h.c().GetRecvQCount()), h.pool().GetUsedCount());
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_DEBUG, "enter CTcpConnector::ReleaseCallBackPacket(), " + h.Who()));
}

TEST(TcpConnectorCallback, BigPacketIsJoinedIntoTheCallbackBuffer) {
    CbState st;
    RecvHarness h(HarnessOptions::Callback(&Record, &st));
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(200000, 7);
    ASSERT_TRUE(h.Write(p));
    EXPECT_EQ(200000, h.RecvBytes(200000));
    ASSERT_EQ(1u, st.got.size());
    EXPECT_EQ(h.cb_combine(), st.data[0]);
    EXPECT_EQ(p, st.got[0]);
    EXPECT_LE(h.pool().GetUsedCount(), 1u);
}

TEST(TcpConnectorCallback, BigPacketTooLongForTheCallbackBufferGoesToTheRing) {
    CbState st;
    HarnessOptions o = HarnessOptions::Callback(&Record, &st);
    o.cb_combine_len = 100000;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(100001, 8);
    ASSERT_TRUE(h.Write(p));
    EXPECT_EQ(100001, h.RecvBytes(100001));
    EXPECT_EQ(0u, st.got.size());
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR,
                            "CombinePacket() failed, " + h.Who() + ", m_rx_packet.len=100001, ret=-1"));
    EXPECT_EQ(std::vector<std::string>{p}, h.DrainAll());
}

TEST(TcpConnectorCallback, QueuedAndConsumedPacketsMixed) {
    CbState st;
    st.keep_every = 3;
    HarnessOptions o = HarnessOptions::Callback(&Record, &st);
    o.with_log = false;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    std::vector<std::string> sent;
    std::string stream;
    const int sizes[] = {100, 30000, 70000, 65536, 5, 200000, 131072, 40000, 64000, 9};
    for (int round = 0; round < 3; ++round) {
        for (int s : sizes) {
            sent.push_back(MakePacket(s, static_cast<uint32_t>(sent.size())));
            stream += sent.back();
        }
    }
    std::vector<std::string> queued;
    for (size_t off = 0; off < stream.size(); off += 5000) {
        std::string chunk = stream.substr(off, 5000);
        ASSERT_TRUE(h.Write(chunk));
        ASSERT_EQ(static_cast<long>(chunk.size()), h.RecvBytes(static_cast<long>(chunk.size())));
        if (off % 20000 == 0) {
            h.DrainRing(&queued);
        }
    }
    h.DrainRing(&queued);
    ASSERT_EQ(sent.size(), st.got.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_TRUE(sent[i] == st.got[i]) << i;
    }
    std::vector<std::string> expect_queued;
    for (size_t i = 2; i < sent.size(); i += 3) {
        expect_queued.push_back(sent[i]);
    }
    ASSERT_EQ(expect_queued.size(), queued.size());
    for (size_t i = 0; i < queued.size(); ++i) {
        EXPECT_TRUE(expect_queued[i] == queued[i]) << i;
    }
    EXPECT_LE(h.c().GetRecvQCount(), 1);
    EXPECT_EQ(static_cast<unsigned>(h.c().GetRecvQCount()), h.pool().GetUsedCount());
}

// With the ring empty, the blocks in front of the delivered packet's block are released; a
// packet whose block is not in the receive queue at all (a corrupted state) empties the queue
// and ends with an error, leaving the packet's description as it was.
TEST(TcpConnectorCallback, ReleaseWithThePacketsBlockMissingEmptiesTheQueueAndLogs) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    NetBuffer* a = h.pool().Allocate(true, false);
    NetBuffer* b = h.pool().Allocate(true, false);
    NetBuffer* stray = h.pool().Allocate(true, false);
    ASSERT_TRUE(a != nullptr && b != nullptr && stray != nullptr);
    Peer::m_rx_queue(h.c()).Insert(&a->m_node);
    Peer::m_rx_queue(h.c()).Insert(&b->m_node);
    Peer::m_rx_packet(h.c()).buffer = stray;  // not in the queue
    Peer::m_rx_packet(h.c()).start_pos = 10;
    Peer::m_rx_packet(h.c()).len = 20;
    ASSERT_EQ(-1, Peer::m_packet_head_idx(h.c()));
    ASSERT_EQ(3u, h.pool().GetUsedCount());
    Peer::ReleaseCallBackPacket(h.c());
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_DEBUG, "enter CTcpConnector::ReleaseCallBackPacket(), " + h.Who()));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR, "unexpected error, del_first_node=NULL, " + h.Who()))
        << h.log().Dump();
    EXPECT_EQ(0u, Peer::m_rx_queue(h.c()).Count());
    EXPECT_EQ(1u, h.pool().GetUsedCount());  // a and b went back; the stray block is ours
    EXPECT_EQ(stray, Peer::m_rx_packet(h.c()).buffer);
    EXPECT_EQ(10, Peer::m_rx_packet(h.c()).start_pos);
    EXPECT_EQ(20, Peer::m_rx_packet(h.c()).len);
    memset(&Peer::m_rx_packet(h.c()), 0, sizeof(Peer::m_rx_packet(h.c())));
    h.pool().Release(&stray);
}

}  // namespace
