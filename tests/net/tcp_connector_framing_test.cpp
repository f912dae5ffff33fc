// Packet framing over real loopback sockets: boundaries, block moves, big packets, the ring's
// room, the first-packet dump and framing of whole streams cut into every kind of read.
//
// Packet sizes are total sizes (header included). Sizes from 4 up use the 4-byte big-endian
// length parser; sizes 1, 2 and 3 cannot carry that header, so they (with 4 and 100) are
// framed by a second run with the 1-byte length parser.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <thread>

#include "net/recv_harness.h"

namespace {

using qntest::HarnessOptions;
using qntest::MakeBytePacket;
using qntest::MakePacket;
using qntest::Peer;
using qntest::RecvHarness;
using QUOLNET::LOG_PRIORITY_DEBUG;
using QUOLNET::LOG_PRIORITY_ERROR;
using QUOLNET::LOG_PRIORITY_INFO;

TEST(TcpConnectorFraming, FullSizePacketAtOffsetZeroFitsInPlace) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(65536, 1);
    ASSERT_TRUE(h.Write(p));
    EXPECT_EQ(65536, h.RecvBytes(65536));
    ASSERT_EQ(1, h.c().GetPacketInfoCnt());
    auto& q = Peer::m_rx_queue(h.c());
    auto* first = static_cast<QUOLNET::NetBuffer*>(q.Head()->pData);
    const char* buf = nullptr;
    unsigned int len = 0;
    ASSERT_EQ(0, h.c().Peek(&buf, len, nullptr));
    EXPECT_EQ(first->m_buf, buf);  // handed out in place, in the block it was read into
    EXPECT_EQ(p, std::string(buf, len));
}

TEST(TcpConnectorFraming, FullSizePacketAtOffsetOneIsMovedToAFreshBlock) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    // A block in which one byte has already been consumed by an earlier packet.
    QUOLNET::NetBuffer* old_block = h.InstallReadBlock(1);
    ASSERT_NE(nullptr, old_block);

    std::string p = MakePacket(65536, 2);
    ASSERT_TRUE(h.Write(p.substr(0, 1000)));
    EXPECT_EQ(1000, h.RecvBytes(1000));
    QUOLNET::NetBuffer* fresh = Peer::m_rx_buffer(h.c());
    ASSERT_NE(old_block, fresh);
    EXPECT_EQ(1, old_block->m_write_pos);                // the old block keeps only what earlier packets own
    EXPECT_EQ(0, memcmp(fresh->m_buf, p.data(), 1000));  // the bytes so far, at offset 0
    EXPECT_EQ(1000, fresh->m_write_pos);
    EXPECT_EQ(1000, fresh->m_read_pos);
    EXPECT_EQ(0, Peer::m_rx_packet(h.c()).start_pos);
    EXPECT_EQ(fresh, Peer::m_rx_packet(h.c()).buffer);
    EXPECT_EQ(1000, Peer::m_rx_packet(h.c()).recv_len);
    EXPECT_EQ(QUOLNET::RECV_SINGLE_BUFFER_BODY_STATUS, Peer::m_rx_status(h.c()));

    ASSERT_TRUE(h.Write(p.substr(1000)));
    EXPECT_EQ(65536 - 1000, h.RecvBytes(65536 - 1000));
    const char* buf = nullptr;
    unsigned int len = 0;
    ASSERT_EQ(0, h.c().Peek(&buf, len, nullptr));
    EXPECT_EQ(fresh->m_buf, buf);
    EXPECT_EQ(p, std::string(buf, len));
    ASSERT_EQ(0, h.c().Drop());
    h.c().Fini();
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

// A big packet's chain grows with its bytes (a deliberate change from taking the whole chain
// when the length is learnt): learning the length takes no block while the block being read
// has room; the wait for the next block starts when that block is full.
TEST(TcpConnectorFraming, BigPacketWaitsForItsNextBlockOnlyWhenItsBlockIsFull) {
    HarnessOptions o;
    o.pool_blocks = 1;  // the next block cannot be had, so the state stays visible
    o.min_big_packet_len = 65537;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(65537, 3);
    ASSERT_TRUE(h.Write(p.substr(0, 10)));
    EXPECT_EQ(10, h.RecvBytes(10));
    EXPECT_EQ(QUOLNET::RECV_MULTI_BUFFER_BODY_STATUS, Peer::m_rx_status(h.c()));
    EXPECT_EQ(65537, Peer::m_rx_packet(h.c()).len);
    EXPECT_FALSE(h.c().IsWaitAllocBigBuffer());
    EXPECT_EQ(1u, h.pool().GetUsedCount());

    time_t before = time(nullptr);
    ASSERT_TRUE(h.Write(p.substr(10, 65526)));  // fills the first block exactly
    EXPECT_EQ(65526, h.RecvBytes(65526));
    EXPECT_EQ(QUOLNET::ALLOC_MULTI_BUFFER_BODY_STATUS, Peer::m_rx_status(h.c()));
    EXPECT_GE(Peer::m_wait_alloc_starttime(h.c()), before);
    EXPECT_LE(Peer::m_wait_alloc_starttime(h.c()), time(nullptr));
    EXPECT_TRUE(h.c().IsWaitAllocBigBuffer());

    // Update leaves such a connector's socket alone.
    ASSERT_TRUE(h.Write(p.substr(65536)));
    ASSERT_TRUE(h.WaitReadable());
    h.log().Clear();
    h.c().SetEvent(EPOLLIN);
    h.c().Update();
    EXPECT_EQ(0, h.log().CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::Recv()"));
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_CONNECTED, h.c().GetStatus());
}

TEST(TcpConnectorFraming, SmallerBigPacketIsNotFlaggedAsWaitingForABigBuffer) {
    HarnessOptions o;
    o.pool_blocks = 1;
    RecvHarness h(o);  // threshold 1 MiB
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write(MakePacket(65537, 3).substr(0, 65536)));
    EXPECT_EQ(65536, h.RecvBytes(65536));
    EXPECT_EQ(QUOLNET::ALLOC_MULTI_BUFFER_BODY_STATUS, Peer::m_rx_status(h.c()));
    EXPECT_FALSE(h.c().IsWaitAllocBigBuffer());
}

TEST(TcpConnectorFraming, FullRingStopsParsingWithoutReadingTheLength) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string s;
    for (int i = 0; i < 1000; ++i) {
        s += MakePacket(8, static_cast<uint32_t>(i));
    }
    ASSERT_TRUE(h.Write(s));
    EXPECT_EQ(8000, h.RecvBytes(8000));
    ASSERT_EQ(1000, h.c().GetPacketInfoCnt());

    int calls = h.parser().m_calls.load();
    ASSERT_TRUE(h.Write(MakePacket(8, 1000)));
    ASSERT_TRUE(h.WaitReadable());
    EXPECT_EQ(0, h.RecvOnce());  // returns at once: nothing read, no length asked for
    EXPECT_EQ(calls, h.parser().m_calls.load());
    EXPECT_EQ(QUOLNET::WAIT_PARSE_PACKET_STATUS, Peer::m_rx_status(h.c()));
    EXPECT_EQ(1000, h.c().GetPacketInfoCnt());
    char tmp[16];
    EXPECT_EQ(8, recv(h.c().GetSocket(), tmp, sizeof(tmp), MSG_PEEK));  // still in the socket

    ASSERT_EQ(0, h.c().Drop());
    EXPECT_EQ(8, h.RecvOnce());
    EXPECT_EQ(1000, h.c().GetPacketInfoCnt());
    std::vector<std::string> got;
    EXPECT_EQ(1000, h.DrainRing(&got));
    EXPECT_EQ(MakePacket(8, 1000), got.back());
    EXPECT_EQ(MakePacket(8, 1), got.front());
}

TEST(TcpConnectorFraming, OnlyTheFirstPacketIsDumped) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string p1 = MakePacket(200, 1);
    std::string p2 = MakePacket(300, 2);
    ASSERT_TRUE(h.Write(p1 + p2));
    EXPECT_EQ(500, h.RecvBytes(500));
    EXPECT_EQ(1, h.log().CountPrefix(LOG_PRIORITY_INFO, "dump first recv pkg, len="));
    EXPECT_EQ(
        1, h.log().CountPrefix(LOG_PRIORITY_INFO, "dump first recv pkg, len=200, connector=CTcpConnector["));
    std::vector<qntest::CapturedLog> hex;
    for (const auto& e : h.log().Entries()) {
        if (e.is_hex) {
            hex.push_back(e);
        }
    }
    ASSERT_EQ(1u, hex.size());
    EXPECT_EQ(LOG_PRIORITY_INFO, hex[0].priority);
    char expect[4096];
    QUOLNET::log_format_hex(p1.data(), 128, expect, sizeof(expect));
    EXPECT_EQ(std::string(expect), hex[0].text);
    EXPECT_TRUE(
        h.log().Has(LOG_PRIORITY_DEBUG, "recv a complete packet, " + h.Who() + ", m_rx_packet.len=300"));
    EXPECT_EQ(2, static_cast<long>(Peer::m_rx_packet_cnt(h.c())));
}

TEST(TcpConnectorFraming, ShortFirstPacketIsDumpedWhole) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(6, 1);
    ASSERT_TRUE(h.Write(p));
    EXPECT_EQ(6, h.RecvBytes(6));
    char expect[512];
    QUOLNET::log_format_hex(p.data(), 6, expect, sizeof(expect));
    bool found = false;
    for (const auto& e : h.log().Entries()) {
        found = found || (e.is_hex && e.text == expect);
    }
    EXPECT_TRUE(found) << h.log().Dump();
}

int KeepNothing(const char*, const char*, int, void* arg) {
    ++*static_cast<int*>(arg);
    return 0;
}

TEST(TcpConnectorFraming, CallbackReturningZeroLeavesThePacketInTheRing) {
    int calls = 0;
    RecvHarness h(HarnessOptions::Callback(&KeepNothing, &calls));
    ASSERT_TRUE(h.ok());
    std::string p = MakePacket(40, 4);
    ASSERT_TRUE(h.Write(p));
    EXPECT_EQ(40, h.RecvBytes(40));
    EXPECT_EQ(1, calls);
    EXPECT_EQ(std::vector<std::string>{p}, h.DrainAll());
}

struct UnframedProbe {
    QUOLNET::CTcpConnector* c = nullptr;
    std::vector<int> seen;  // GetUnframedLen() at each callback
};

int RecordUnframed(const char*, const char*, int, void* arg) {
    UnframedProbe* probe = static_cast<UnframedProbe*>(arg);
    probe->seen.push_back(probe->c->GetUnframedLen());
    return 1;
}

TEST(TcpConnectorFraming, UnframedLenInTheCallbackCountsTheBytesAfterThePacket) {
    UnframedProbe probe;
    RecvHarness h(HarnessOptions::Callback(&RecordUnframed, &probe));
    ASSERT_TRUE(h.ok());
    probe.c = &h.c();
    EXPECT_EQ(0, h.c().GetUnframedLen());  // no block yet
    // Two whole packets and the first 5 bytes of a third, read in one go.
    std::string third = MakePacket(30, 3);
    ASSERT_TRUE(h.Write(MakePacket(20, 1) + MakePacket(10, 2) + third.substr(0, 5)));
    EXPECT_EQ(35, h.RecvBytes(35));
    EXPECT_EQ((std::vector<int>{15, 5}), probe.seen);
    EXPECT_EQ(0, h.c().GetUnframedLen());  // the partial packet's bytes are framed as received
    ASSERT_TRUE(h.Write(third.substr(5)));
    EXPECT_EQ(25, h.RecvBytes(25));
    EXPECT_EQ((std::vector<int>{15, 5, 0}), probe.seen);  // the last packet: nothing follows
}

struct RingFiller {
    QUOLNET::CTcpConnector* c;
};

// Makes the ring look full behind framing's back, while no lock is held.
int FillRingBehindTheBack(const char*, const char*, int, void* arg) {
    QUOLNET::CTcpConnector& c = *static_cast<RingFiller*>(arg)->c;
    Peer::m_packet_head_idx(c) = 3;
    Peer::m_packet_tail_idx(c) = 2;
    return 0;
}

TEST(TcpConnectorFraming, RingOverflowAtPushLeavesTheTailAdvanced) {
    RingFiller filler{nullptr};
    RecvHarness h(HarnessOptions::Callback(&FillRingBehindTheBack, &filler));
    ASSERT_TRUE(h.ok());
    filler.c = &h.c();
    ASSERT_TRUE(h.Write(MakePacket(12, 1)));
    ASSERT_TRUE(h.WaitReadable());
    EXPECT_EQ(-1, h.RecvOnce());
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR,
                            "unexpected exception, m_packet_info full, " + h.Who() + ", head(3)"));
    EXPECT_TRUE(h.log().Has(LOG_PRIORITY_ERROR, "ParseNetBuffer() failed, " + h.Who() + ", ret=-1"));
    EXPECT_EQ(3, Peer::m_packet_tail_idx(h.c()));  // advanced onto the head and left there
    EXPECT_EQ(3, Peer::m_packet_head_idx(h.c()));
    Peer::m_packet_head_idx(h.c()) = -1;  // back to an empty ring before teardown
    Peer::m_packet_tail_idx(h.c()) = -1;
}

TEST(TcpConnectorFraming, RingFillIsSampledOncePerSecondWithAnUnclampedAverage) {
    RecvHarness h;
    ASSERT_TRUE(h.ok());
    ASSERT_TRUE(h.Write(MakePacket(8, 1) + MakePacket(8, 2) + MakePacket(8, 3)));
    EXPECT_EQ(24, h.RecvBytes(24));
    ASSERT_EQ(3, h.c().GetPacketInfoCnt());
    // The last sample 120 seconds ago: the old average gets the weight 60 - 120 = -60.
    Peer::m_last_sample_time(h.c()) = static_cast<int>(time(nullptr)) - 120;
    Peer::m_packet_info_avg_cnt(h.c()) = 2.0f;
    Peer::m_packet_info_max_cnt(h.c()) = 0;
    ASSERT_TRUE(h.Write(MakePacket(8, 4)));
    int now_before = static_cast<int>(time(nullptr));
    EXPECT_EQ(8, h.RecvBytes(8));
    int sec_cnt = Peer::m_last_sample_time(h.c()) - (now_before - 120);
    ASSERT_GE(sec_cnt, 120);
    ASSERT_LE(sec_cnt, 121);
    float expect = (static_cast<float>(60 - sec_cnt) * 2.0f + static_cast<float>(3 * sec_cnt)) / 60.0f;
    EXPECT_FLOAT_EQ(expect, static_cast<float>(Peer::m_packet_info_avg_cnt(h.c())));
    EXPECT_EQ(3, static_cast<int>(Peer::m_packet_info_max_cnt(h.c())));
}

// ---- whole streams in every kind of read ----

enum class Mode { kPeek, kCallback };

struct Collected {
    std::vector<std::string> packets;
};

int CollectAll(const char*, const char* data, int len, void* arg) {
    static_cast<Collected*>(arg)->packets.emplace_back(data, static_cast<size_t>(len));
    return 1;
}

// Streams `packets` to a connector in writes of `split` bytes (0: the whole stream from a
// writer thread) and checks what comes out.
void RunStream(const std::vector<std::string>& packets, size_t split, Mode mode, bool byte_parser) {
    Collected collected;
    HarnessOptions o;
    o.pool_blocks = 160;
    o.max_rx_buf_num = 160;
    o.with_log = false;
    o.byte_parser = byte_parser;
    if (mode == Mode::kCallback) {
        o.cb = &CollectAll;
        o.cb_arg = &collected;
    }
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    std::string stream;
    for (const auto& p : packets) {
        stream += p;
    }
    std::vector<std::string>& got = collected.packets;
    auto recv_some = [&](long want) {
        long total = 0;
        while (total < want) {
            ASSERT_TRUE(h.WaitReadable()) << "split " << split;
            int r = h.RecvOnce();
            ASSERT_GE(r, 0);
            total += r;
            if (mode == Mode::kPeek) {
                h.DrainRing(&got);
            }
        }
    };
    if (split == 0) {
        std::thread writer([&] { EXPECT_TRUE(h.Write(stream)); });
        recv_some(static_cast<long>(stream.size()));
        writer.join();
    } else {
        // Lock-step: each write is read before the next one is made.
        for (size_t off = 0; off < stream.size(); off += split) {
            std::string chunk = stream.substr(off, split);
            ASSERT_TRUE(h.Write(chunk));
            recv_some(static_cast<long>(chunk.size()));
        }
    }
    ASSERT_EQ(packets.size(), got.size()) << "split " << split;
    for (size_t i = 0; i < packets.size(); ++i) {
        ASSERT_EQ(packets[i].size(), got[i].size()) << "packet " << i << ", split " << split;
        ASSERT_TRUE(packets[i] == got[i]) << "packet " << i << ", split " << split;
    }
    EXPECT_EQ(0, h.c().GetPacketInfoCnt());
    // Nothing is held beyond the block kept for the next read.
    EXPECT_EQ(static_cast<unsigned>(h.c().GetRecvQCount()), h.pool().GetUsedCount());
    EXPECT_LE(h.c().GetRecvQCount(), 1);
    h.c().Fini();
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

std::vector<std::string> SizedPackets(const std::vector<int>& sizes, int rounds) {
    std::vector<std::string> v;
    uint32_t seed = 1;
    for (int r = 0; r < rounds; ++r) {
        for (int s : sizes) {
            v.push_back(MakePacket(s, seed++));
        }
        v.push_back(MakePacket(4 + r * 3, seed++));  // shifts the next round's offsets
    }
    return v;
}

const std::vector<int> kAllSizes = {4, 100, 65535, 65536, 65537, 131072, 131073, 300000, 1 << 20};

void RunAllSplits(Mode mode) {
    // One byte per read: the small sizes, both parsers.
    std::vector<std::string> tiny;
    uint32_t seed = 1;
    for (int r = 0; r < 3; ++r) {
        for (int s : {1, 2, 3, 4, 100}) {
            tiny.push_back(MakeBytePacket(s, seed++));
        }
    }
    RunStream(tiny, 1, mode, true);
    RunStream(tiny, 7, mode, true);
    RunStream(tiny, 0, mode, true);
    RunStream(SizedPackets({4, 5, 100, 7, 4}, 3), 1, mode, false);
    // Seven bytes per read: up to the block boundary sizes.
    RunStream(SizedPackets({4, 100, 65535, 65536, 65537}, 1), 7, mode, false);
    // Larger reads over every size.
    std::vector<std::string> all = SizedPackets(kAllSizes, 2);
    RunStream(all, 4096, mode, false);
    RunStream(all, 65536, mode, false);
    RunStream(all, 0, mode, false);
}

TEST(TcpConnectorFraming, StreamsOfEverySizeAndSplitThroughPeek) {
    RunAllSplits(Mode::kPeek);
}

TEST(TcpConnectorFraming, StreamsOfEverySizeAndSplitThroughTheCallback) {
    RunAllSplits(Mode::kCallback);
}

}  // namespace
