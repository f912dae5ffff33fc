// Receive blocks, socket reads and the receive state machine, over a real loopback socket.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "net/recv_harness.h"

namespace {

using qntest::HarnessOptions;
using qntest::MakePacket;
using qntest::Peer;
using qntest::RecvHarness;
using QUOLNET::LOG_PRIORITY_DEBUG;
using QUOLNET::LOG_PRIORITY_ERROR;
using QUOLNET::LOG_PRIORITY_INFO;
using QUOLNET::LOG_PRIORITY_WARN;

// Writes packets of `size` bytes until exactly `bytes` bytes were sent (bytes % size == 0).
std::string Packets(int size, int bytes, uint32_t seed) {
    std::string s;
    for (int i = 0; i < bytes / size; ++i) {
        s += MakePacket(size, seed + static_cast<uint32_t>(i));
    }
    return s;
}

TEST(TcpConnectorRecv, WouldBlockClearsEpollinAndReturnsZero) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    h.c().SetEvent(EPOLLIN | EPOLLOUT);
    EXPECT_EQ(0, h.c().Recv());
    EXPECT_EQ(0u, h.c().GetEvent() & EPOLLIN);
    EXPECT_EQ(static_cast<unsigned>(EPOLLOUT), h.c().GetEvent());
    EXPECT_TRUE(
        h.log().Has(LOG_PRIORITY_DEBUG, "enter CTcpConnector::ReadSocket(), " + h.Who() + ", len=65536"));
}

TEST(TcpConnectorRecv, ReadOfZeroBytesEndsRecvWithTheTotal) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(100, 1);
    ASSERT_TRUE(h.Write(p.substr(0, 10)));
    ASSERT_TRUE(h.WaitReadable());
    EXPECT_EQ(10, h.RecvOnce());
    EXPECT_EQ(QUOLNET::RECV_SINGLE_BUFFER_BODY_STATUS, Peer::m_rx_status(h.c()));
    EXPECT_EQ(0u, h.c().GetEvent() & EPOLLIN);  // the loop ended on a would-block read
    ASSERT_TRUE(h.Write(p.substr(10)));
    EXPECT_EQ(90, h.RecvBytes(90));
    EXPECT_EQ(1, h.c().GetPacketInfoCnt());
}

TEST(TcpConnectorRecv, FullBlockYieldsZeroWithoutSystemCall) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    QUOLNET::NetBuffer* b = h.InstallReadBlock(65536);
    ASSERT_NE(nullptr, b);
    Peer::m_rx_status(h.c()) = QUOLNET::RECV_SINGLE_BUFFER_BODY_STATUS;

    ASSERT_TRUE(h.Write("abcd"));
    ASSERT_TRUE(h.WaitReadable());
    EXPECT_EQ(0, h.RecvOnce());
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_DEBUG,
                            "enter CTcpConnector::RecvToBuffer(), " + h.Who() + ", write_pos=65536"));
    EXPECT_EQ(0, h.log().CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::ReadSocket()"));
    EXPECT_NE(0u, h.c().GetEvent() & EPOLLIN);  // nothing was read, so nothing would-blocked
    char tmp[8];
    EXPECT_EQ(4, recv(h.c().GetSocket(), tmp, sizeof(tmp), MSG_PEEK));  // the bytes are still there
    h.c().Fini();
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

// Writes `bytes` from the peer and waits (up to 5 s) until the kernel holds them all unread on
// the connector's socket, so that one read can take them all.
bool WriteQueued(RecvHarness& h, const std::string& bytes) {
    if (!h.Write(bytes)) {
        return false;
    }
    for (int i = 0; i < 5000; ++i) {
        int queued = 0;
        if (ioctl(h.c().GetSocket(), FIONREAD, &queued) != 0) {
            return false;
        }
        if (queued >= static_cast<int>(bytes.size())) {
            return true;
        }
        struct pollfd p = {h.c().GetSocket(), POLLIN, 0};
        poll(&p, 1, 1);  // bytes already readable: wait a millisecond for the rest
    }
    return false;
}

int Reads(RecvHarness& h) {
    return h.log().CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::ReadSocket()");
}

// Makes the connector's next read one that follows a full read with the queued-bytes count
// on: a first 65536-byte packet fills its block exactly, learns nothing and is followed by a
// read that meets would-block; it turns the count on. The packet is drained and the log
// cleared.
void FillOneBlockFirst(RecvHarness& h) {
    std::string p = MakePacket(65536, 100);
    ASSERT_TRUE(WriteQueued(h, p));
    EXPECT_EQ(65536, h.RecvOnce());
    EXPECT_EQ(2, Reads(h)) << h.log().Dump();
    EXPECT_TRUE(Peer::ReadInqOn(h.c()));
    EXPECT_TRUE(Peer::m_rx_last_full(h.c()));
    EXPECT_EQ(std::vector<std::string>{p}, h.DrainAll());
    h.log().Clear();
}

TEST(TcpConnectorRecv, ShortReadIsTheOnlyReadOfItsReadiness) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(100, 1);
    ASSERT_TRUE(WriteQueued(h, p));
    EXPECT_EQ(100, h.RecvOnce());
    EXPECT_EQ(1, Reads(h));  // no second read to meet would-block
    EXPECT_EQ(0u, h.c().GetEvent() & EPOLLIN);
    EXPECT_FALSE(Peer::ReadInqOn(h.c()));  // nothing filled its room: no option set
    EXPECT_EQ(std::vector<std::string>{p}, h.DrainAll());
}

TEST(TcpConnectorRecv, FullReadEndsTheReadinessWhenTheKernelHasNothingMore) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    FillOneBlockFirst(h);
    std::string p = MakePacket(65536, 2);
    ASSERT_TRUE(WriteQueued(h, p));
    EXPECT_EQ(65536, h.RecvOnce());
    EXPECT_EQ(1, Reads(h)) << h.log().Dump();
    EXPECT_EQ(0u, h.c().GetEvent() & EPOLLIN);  // as after would-block: epoll reports more
    EXPECT_EQ(std::vector<std::string>{p}, h.DrainAll());
    h.c().Fini();
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

TEST(TcpConnectorRecv, FullReadWithMoreQueuedReadsOn) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    FillOneBlockFirst(h);
    std::string big = MakePacket(65536, 3);
    std::string small = MakePacket(100, 4);
    ASSERT_TRUE(WriteQueued(h, big + small));
    EXPECT_EQ(65636, h.RecvOnce());
    EXPECT_EQ(2, Reads(h)) << h.log().Dump();  // the full one, then the short one
    EXPECT_EQ(0u, h.c().GetEvent() & EPOLLIN);
    EXPECT_FALSE(Peer::m_rx_last_full(h.c()));  // the next read asks for no count
    EXPECT_EQ((std::vector<std::string>{big, small}), h.DrainAll());
}

TEST(TcpConnectorRecv, EndOfStreamRightAfterAFullReadIsSeen) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    FillOneBlockFirst(h);
    std::string p = MakePacket(65536, 5);
    ASSERT_TRUE(WriteQueued(h, p));
    ASSERT_EQ(0, shutdown(h.client(), SHUT_WR));
    struct pollfd pf = {h.c().GetSocket(), POLLRDHUP, 0};
    ASSERT_EQ(1, poll(&pf, 1, 5000));  // the end of stream has arrived too
    // The kernel counts the end of stream as a queued byte, so the read after the full one
    // is made and meets it.
    EXPECT_EQ(-10000, h.RecvOnce());
    EXPECT_EQ(2, Reads(h)) << h.log().Dump();
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_INFO, "socket is closed by peer! " + h.Who()));
    EXPECT_EQ(std::vector<std::string>{p}, h.DrainAll());
}

TEST(TcpConnectorRecv, WithoutTheQueuedCountAFullReadIsFollowedByAnother) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    Peer::DenyReadInq(h.c());  // as on a socket that is not TCP, or an older kernel
    for (uint32_t seed : {6u, 7u}) {
        std::string p = MakePacket(65536, seed);
        ASSERT_TRUE(WriteQueued(h, p));
        EXPECT_EQ(65536, h.RecvOnce());
        EXPECT_EQ(2, Reads(h)) << "seed=" << seed;  // the full read, then one that meets would-block
        EXPECT_EQ(0u, h.c().GetEvent() & EPOLLIN);
        EXPECT_EQ(std::vector<std::string>{p}, h.DrainAll());
        h.log().Clear();
    }
    EXPECT_FALSE(Peer::ReadInqOn(h.c()));
}

TEST(TcpConnectorRecv, PeerCloseGivesMinus10000) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    ASSERT_EQ(0, shutdown(h.client(), SHUT_WR));
    ASSERT_TRUE(h.WaitReadable());
    EXPECT_EQ(-10000, h.RecvOnce());
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_INFO, "socket is closed by peer! " + h.Who()));
    EXPECT_EQ(0, h.log().CountPrefix(LOG_PRIORITY_ERROR, ""));
}

TEST(TcpConnectorRecv, ResetByPeerIsAnError) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write("xy"));
    h.AbortClient();
    ASSERT_TRUE(h.WaitReadable());
    // The queued bytes are read first; the reset then fails the next read in the same call.
    int r = 0;
    for (int i = 0; i < 10 && r >= 0; ++i) {
        ASSERT_TRUE(h.WaitReadable());
        r = h.RecvOnce();
    }
    EXPECT_EQ(-1, r);
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR, "recv data from socket failed! " + h.Who() + ", errno=104"))
        << h.log().Dump();
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR, "recv data failed! " + h.Who() + ", recv_cnt=-1"));
}

TEST(TcpConnectorRecv, ReceiveLimitWarnsOnceAndResumesWhenBlocksReturn) {
    HarnessOptions o;
    o.max_rx_buf_num = 2;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    // Two full blocks of queued 4096-byte packets, nothing dropped.
    ASSERT_TRUE(h.Write(Packets(4096, 131072, 1)));
    EXPECT_EQ(131072, h.RecvBytes(131072));
    EXPECT_EQ(32, h.c().GetPacketInfoCnt());
    EXPECT_EQ(2, h.c().GetRecvQCount());

    ASSERT_TRUE(h.Write(MakePacket(100, 99)));
    ASSERT_TRUE(h.WaitReadable());
    const std::string warn =
        "allocate recv buffer failed, " + h.Who() + ", m_rx_queue.cnt(2) >= m_max_rx_buf_num(2)";
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(0, h.RecvOnce());  // stops without error
    }
    EXPECT_EQ(1, h.log().CountPrefix(LOG_PRIORITY_WARN, "allocate recv buffer failed"));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_WARN, warn));
    EXPECT_EQ(1, static_cast<int>(Peer::m_rx_buf_full_cnt(h.c())));
    EXPECT_TRUE(static_cast<bool>(Peer::m_is_last_rx_full(h.c())));

    // Consuming the first block's 16 packets returns it; reading resumes.
    std::vector<std::string> got;
    for (int i = 0; i < 16; ++i) {
        const char* buf = nullptr;
        unsigned int len = 0;
        ASSERT_EQ(0, h.c().Peek(&buf, len, nullptr));
        got.emplace_back(buf, len);
        ASSERT_EQ(0, h.c().Drop());
    }
    EXPECT_EQ(1, h.c().GetRecvQCount());
    EXPECT_EQ(100, h.RecvOnce());
    EXPECT_FALSE(static_cast<bool>(Peer::m_is_last_rx_full(h.c())));
    EXPECT_EQ(17, h.c().GetPacketInfoCnt());
    h.DrainRing(&got);
    ASSERT_EQ(33u, got.size());
    EXPECT_EQ(MakePacket(100, 99), got.back());
}

TEST(TcpConnectorRecv, PoolExhaustionWarnsOnceAndResumes) {
    HarnessOptions o;
    o.pool_blocks = 1;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    QUOLNET::NetBuffer* held = h.pool().Allocate(false, false);  // someone else holds the only block
    ASSERT_NE(nullptr, held);
    ASSERT_TRUE(h.Write(MakePacket(50, 7)));
    ASSERT_TRUE(h.WaitReadable());
    EXPECT_EQ(0, h.RecvOnce());
    EXPECT_EQ(0, h.RecvOnce());
    EXPECT_EQ(1, h.log().CountPrefix(LOG_PRIORITY_WARN, ""));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_WARN, "allocate recv buffer failed, " + h.Who()));
    EXPECT_EQ(0, h.log().CountPrefix(LOG_PRIORITY_ERROR, ""));
    h.pool().Release(&held);
    EXPECT_EQ(50, h.RecvOnce());
    std::vector<std::string> got;
    EXPECT_EQ(1, h.DrainRing(&got));
    EXPECT_EQ(MakePacket(50, 7), got[0]);
}

// The chain now grows block by block (a deliberate change): the shortage shows when the first
// block is full, not when the length is learnt; need_len is still what lies beyond that block.
TEST(TcpConnectorRecv, ChainAllocationFailureLogsOnceAndRetries) {
    HarnessOptions o;
    o.pool_blocks = 5;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    // Hold four blocks so that the block after the first cannot be had.
    QUOLNET::NetBuffer* held1 = h.pool().Allocate(false, false);
    QUOLNET::NetBuffer* held2 = h.pool().Allocate(false, false);
    QUOLNET::NetBuffer* held3 = h.pool().Allocate(false, false);
    QUOLNET::NetBuffer* held4 = h.pool().Allocate(false, false);
    std::string p = MakePacket(200000, 3);
    ASSERT_TRUE(h.Write(p.substr(0, 1000)));
    ASSERT_TRUE(h.WaitReadable());
    EXPECT_EQ(1000, h.RecvOnce());
    EXPECT_EQ(QUOLNET::RECV_MULTI_BUFFER_BODY_STATUS, Peer::m_rx_status(h.c()));
    ASSERT_TRUE(h.Write(p.substr(1000, 65536 - 1000)));
    EXPECT_EQ(65536 - 1000, h.RecvBytes(65536 - 1000));
    EXPECT_EQ(QUOLNET::ALLOC_MULTI_BUFFER_BODY_STATUS, Peer::m_rx_status(h.c()));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(0, h.RecvOnce());
        EXPECT_EQ(QUOLNET::ALLOC_MULTI_BUFFER_BODY_STATUS, Peer::m_rx_status(h.c()));
    }
    EXPECT_EQ(1, h.log().CountPrefix(LOG_PRIORITY_WARN, ""));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_WARN, "allocate recv buffer failed, " + h.Who() +
                                                   ", need_len=" + std::to_string(200000 - 65536)));
    EXPECT_EQ(1, static_cast<int>(Peer::m_rx_buf_full_cnt(h.c())));

    h.pool().Release(&held1);
    h.pool().Release(&held2);
    h.pool().Release(&held3);
    h.pool().Release(&held4);
    ASSERT_TRUE(h.Write(p.substr(65536)));
    EXPECT_EQ(static_cast<long>(p.size()) - 65536, h.RecvBytes(static_cast<long>(p.size()) - 65536));
    EXPECT_FALSE(static_cast<bool>(Peer::m_is_last_rx_full(h.c())));
    EXPECT_EQ(std::vector<std::string>{p}, h.DrainAll());
}

TEST(TcpConnectorRecv, ExactMultipleOfBlockLeavesLastBlockUnlimited) {
    for (int extra : {0, 1}) {
        RecvHarness h;
        ASSERT_TRUE(h.ok());
        int len = 3 * 65536 + extra;  // begins at offset 0: 2 (or 3) more blocks
        std::string p = MakePacket(len, 5);
        ASSERT_TRUE(h.Write(p));
        EXPECT_EQ(len, h.RecvBytes(len));
        ASSERT_EQ(1, h.c().GetPacketInfoCnt());
        auto& q = Peer::m_rx_queue(h.c());
        // The packet's blocks, then the fresh block that a further read went into, unless the
        // kernel said with the read that ended the packet that nothing more was queued.
        const unsigned int blocks = extra == 0 ? 3u : 4u;
        ASSERT_TRUE(q.Count() == blocks || q.Count() == blocks + 1) << q.Count();
        EXPECT_EQ(Peer::m_rx_buffer(h.c()), q.Tail()->pData);
        auto* last =
            static_cast<QUOLNET::NetBuffer*>((q.Count() == blocks ? q.Tail() : q.Tail()->pPrev)->pData);
        EXPECT_EQ(extra == 0 ? 65536 : 1, last->m_limit_pos) << "extra=" << extra;
        EXPECT_EQ(std::vector<std::string>{p}, h.DrainAll());
    }
}

TEST(TcpConnectorRecv, HeaderSplitOverTwoReads) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(20, 9);
    ASSERT_TRUE(h.Write(p.substr(0, 2)));
    EXPECT_EQ(2, h.RecvBytes(2));
    EXPECT_EQ(QUOLNET::RECV_PACKET_HEAD_STATUS, Peer::m_rx_status(h.c()));
    EXPECT_EQ(0, Peer::m_rx_packet(h.c()).len);
    EXPECT_EQ(0, h.c().GetPacketInfoCnt());
    ASSERT_TRUE(h.Write(p.substr(2)));
    EXPECT_EQ(18, h.RecvBytes(18));
    EXPECT_EQ(std::vector<std::string>{p}, h.DrainAll());
}

TEST(TcpConnectorRecv, NegativeParserResultFailsWithMinus1) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string good = MakePacket(10, 1);
    std::string bad = "\xff\xff\xff\xf0zzzz";  // length 0xfffffff0 reads as -16
    ASSERT_TRUE(h.Write(good + bad));
    ASSERT_TRUE(h.WaitReadable());
    EXPECT_EQ(-1, h.RecvOnce());
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR,
                            "parse packet length failed! " + h.Who() + ", parse_len=-16, read_remaining=8"))
        << h.log().Dump();
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR, "ParseNetBuffer() failed, " + h.Who() + ", ret=-1"));
    EXPECT_EQ(1, h.c().GetPacketInfoCnt());  // the good packet before it is kept
    h.c().Fini();
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

TEST(TcpConnectorRecv, PacketLongerThanCombineBufferFailsWithMinus2) {
    HarnessOptions o;
    o.combine_len = 70000;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write(MakePacket(70001, 2).substr(0, 5000)));
    ASSERT_TRUE(h.WaitReadable());
    EXPECT_EQ(-2, h.RecvOnce());
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR, "packet_len(70001) > m_combine_buf_len(70000), " + h.Who()));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR, "ParseNetBuffer() failed, " + h.Who() + ", ret=-2"));
    EXPECT_EQ(QUOLNET::WAIT_PARSE_PACKET_STATUS, Peer::m_rx_status(h.c()));  // left as it was
    EXPECT_EQ(0, Peer::m_rx_packet(h.c()).len);                              // nothing consumed
    h.c().Fini();
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

TEST(TcpConnectorRecv, UpdateDisconnectsOnParseFailure) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write(std::string("\0\0\0\1", 4)));  // a length below the header's size
    ASSERT_TRUE(h.WaitReadable());
    h.c().SetEvent(EPOLLIN);
    h.c().Update();
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, h.c().GetStatus());
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR, "Recv() failed, " + h.Who() + ", ret=-1"));
}

}  // namespace
