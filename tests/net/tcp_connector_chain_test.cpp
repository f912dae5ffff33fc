// A big packet's chain grows with its bytes: a connection holds at most one block more than its
// received bytes need, the per-connection block cap applies to the chain, and a packet that could
// never fit under the cap is refused when its length is learnt.
#include <sys/epoll.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/tcp_connector.h"
#include "recv_harness.h"

namespace {

using namespace qntest;
using QUOLNET::CTcpConnector;
using QUOLNET::LOG_PRIORITY_ERROR;
using QUOLNET::LOG_PRIORITY_WARN;

const int kBig = 16 << 20;  // 16 MiB

long BlocksFor(long bytes) {
    return (bytes + 65535) / 65536;
}

struct Collected {
    std::vector<std::string> packets;
};

int Collect(const char*, const char* data, int len, void* arg) {
    static_cast<Collected*>(arg)->packets.emplace_back(data, static_cast<size_t>(len));
    return 1;
}

HarnessOptions BigOptions(bool callback, Collected* sink) {
    HarnessOptions o = callback ? HarnessOptions::Callback(&Collect, sink) : HarnessOptions();
    o.pool_blocks = 300;
    o.max_rx_buf_num = 300;
    o.combine_len = kBig + 1024;
    o.cb_combine_len = kBig + 1024;
    o.with_log = false;  // 16 MiB of per-read trace lines would only slow the test down
    return o;
}

// A peer announces a 16 MiB packet and then says nothing: the connection holds one block
// (two once that block is full). When the bytes do come, block by block, the chain never runs
// more than one block ahead of them, and the packet arrives whole, in Peek and callback modes.
TEST(BigPacketChain, SilentAnnouncerHoldsAtMostTwoBlocksAndThePacketStillArrivesWhole) {
    for (bool callback : {false, true}) {
        SCOPED_TRACE(callback ? "callback" : "peek");
        Collected sink;
        RecvHarness h(BigOptions(callback, &sink));
        ASSERT_TRUE(h.ok());
        std::string big = MakePacket(kBig, 77);

        ASSERT_TRUE(h.Write(big.substr(0, 4)));  // the header alone
        ASSERT_EQ(4, h.RecvBytes(4));
        EXPECT_LE(h.pool().GetUsedCount(), 2u);
        EXPECT_EQ(1u, h.pool().GetUsedCount());
        EXPECT_TRUE(h.c().HasPartialPacket());
        EXPECT_FALSE(h.c().IsWaitAllocBigBuffer());

        ASSERT_TRUE(h.Write(big.substr(4, 65532)));  // the first block full, then silence
        ASSERT_EQ(65532, h.RecvBytes(65532));
        EXPECT_EQ(2u, h.pool().GetUsedCount());  // the one block ahead
        EXPECT_EQ(2u, h.pool().GetPeakUsedCount());

        // The rest, in pieces that do not line up with blocks; after every read the chain is
        // at most one block ahead of the bytes.
        size_t pos = 65536;
        const size_t kStep = 100003;
        while (pos < big.size()) {
            size_t n = std::min(kStep, big.size() - pos);
            ASSERT_TRUE(h.Write(big.substr(pos, n)));
            long got = 0;
            while (got < static_cast<long>(n)) {
                ASSERT_TRUE(h.WaitReadable());
                int r = h.RecvOnce();
                ASSERT_GE(r, 0);
                got += r;
                long received = static_cast<long>(pos) + got;
                if (received < kBig) {
                    ASSERT_LE(static_cast<long>(h.pool().GetUsedCount()), BlocksFor(received) + 1)
                        << "after " << received << " bytes";
                }
            }
            pos += n;
        }
        EXPECT_LE(static_cast<long>(h.pool().GetPeakUsedCount()), BlocksFor(kBig) + 1);
        EXPECT_EQ(static_cast<int64_t>(kBig), h.c().GetRecvBytes());
        std::vector<std::string> got = callback ? sink.packets : h.DrainAll();
        ASSERT_EQ(1u, got.size());
        EXPECT_TRUE(got[0] == big);
        h.c().Fini();
        EXPECT_EQ(0u, h.pool().GetUsedCount());
    }
}

// The length decides: a packet needing more blocks than the cap, counted from where it starts,
// is refused at once with -3, before a byte of its body is taken.
TEST(BigPacketChain, PacketThatCanNeverFitUnderTheCapIsRefusedWhenItsLengthIsLearnt) {
    HarnessOptions o;
    o.max_rx_buf_num = 4;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    // From offset 0, 4 * 65536 bytes need exactly 4 blocks: accepted.
    std::string fits = MakePacket(4 * 65536, 1);
    ASSERT_TRUE(h.Write(fits));
    ASSERT_EQ(static_cast<long>(fits.size()), h.RecvBytes(static_cast<long>(fits.size())));
    EXPECT_EQ(std::vector<std::string>{fits}, h.DrainAll());

    // A 100-byte packet, then one that would fit from offset 0 but needs a fifth block from
    // offset 100.
    std::string small = MakePacket(100, 2);
    std::string too_big = MakePacket(4 * 65536 - 99, 3);
    h.log().Clear();
    ASSERT_TRUE(h.Write(small + too_big.substr(0, 4)));
    ASSERT_TRUE(h.WaitReadable());
    EXPECT_EQ(CTcpConnector::kParseOverRxCap, h.RecvOnce());
    EXPECT_EQ(-3, CTcpConnector::kParseOverRxCap);
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR,
                            "packet_len(262045) needs 5 blocks > m_max_rx_buf_num(4), " + h.Who()));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR, "ParseNetBuffer() failed, " + h.Who() + ", ret=-3"));
    EXPECT_EQ(std::vector<std::string>{small}, h.DrainAll());

    // Through Update, the connection ends with that cause.
    h.c().SetEvent(EPOLLIN);
    h.c().Update();
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, h.c().GetStatus());
    EXPECT_EQ(CTcpConnector::kParseOverRxCap, h.c().GetLastIoResult());
}

// Blocks of packets still in the ring count against the cap: the chain's next block at the
// cap is a shortage (WARN once, counted), retried once the consumer gives blocks back.
TEST(BigPacketChain, NextBlockAtTheCapIsAShortageUntilTheRingFrees) {
    HarnessOptions o;
    o.max_rx_buf_num = 4;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    std::string a = MakePacket(65536, 1);      // fills the first block exactly
    std::string b = MakePacket(4 * 65536, 2);  // needs 4 blocks of its own
    ASSERT_TRUE(h.Write(a + b));
    long want = static_cast<long>(a.size() + b.size());
    long got = 0;
    while (got < want && h.WaitReadable()) {
        int r = h.RecvOnce();
        ASSERT_GE(r, 0);
        if (r == 0) {
            break;  // stopped at the cap with bytes still in the socket
        }
        got += r;
    }
    EXPECT_LT(got, want);
    EXPECT_EQ(4, h.c().GetRecvQCount());
    EXPECT_EQ(QUOLNET::ALLOC_MULTI_BUFFER_BODY_STATUS, Peer::m_rx_status(h.c()));
    EXPECT_EQ(1, h.log().CountPrefix(LOG_PRIORITY_WARN, ""));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_WARN, "allocate recv buffer failed, " + h.Who() +
                                                   ", m_rx_queue.cnt(4) >= m_max_rx_buf_num(4)"));
    EXPECT_EQ(0, h.RecvOnce());  // still short: not logged or counted again
    EXPECT_EQ(1, static_cast<int>(Peer::m_rx_buf_full_cnt(h.c())));

    const char* buf = nullptr;
    unsigned int len = 0;
    ASSERT_EQ(0, h.c().Peek(&buf, len, nullptr));
    EXPECT_EQ(a, std::string(buf, len));
    ASSERT_EQ(0, h.c().Drop());  // a's block goes back
    got += h.RecvBytes(want - got);
    EXPECT_EQ(want, got);
    EXPECT_EQ(std::vector<std::string>{b}, h.DrainAll());
    h.c().Fini();
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

}  // namespace
