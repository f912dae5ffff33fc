// Fault sweep of the receive path: a fixed sequence of packets whose lengths sit around the block
// size is sent in two writes split at a chosen byte offset, and read through the real path
// (Recv, framing, moves, the growing chain, Peek/Drop or the callback). For every split: every
// packet arrives once, whole and in order, and no pool block stays out after Fini.
//
// Which offsets: a split matters where it falls relative to a packet's header, a packet's end
// and a block's end. Block ends fall at multiples of 65536 from the start of the block a packet
// was moved to or began in, which is always a packet start or offset 0 of the stream. So the
// sweep takes every offset within kNear bytes of every packet start and of every packet start
// plus a multiple of 65536, and every kStep-th offset in between (kStep prime, so the coarse
// offsets fall at all phases of a block). Two streams keep each run near 200 KiB.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "recv_harness.h"

namespace {

using namespace qntest;

// A framing that has packets of every length from 1 byte: a first byte of 1..127 is the
// packet's whole length; a first byte of 0x80 is followed by a 4-byte big-endian total length
// (at least 5); anything else is malformed.
class CVarParser : public QUOLNET::IPackParser {
  public:
    int ParsePackLength(const char* buf, unsigned int len) override {
        if (len < 1) {
            return 0;
        }
        unsigned char b = static_cast<unsigned char>(buf[0]);
        if (b >= 1 && b < 0x80) {
            return b;
        }
        if (b != 0x80) {
            return -1;
        }
        if (len < 5) {
            return 0;
        }
        uint32_t v;
        memcpy(&v, buf + 1, 4);
        v = ntohl(v);
        return v < 5 ? -1 : static_cast<int>(v);
    }
};

std::string VarPacket(int len, uint32_t seed) {
    std::string p(static_cast<size_t>(len), '\0');
    int body = 1;
    if (len < 128) {
        p[0] = static_cast<char>(len);
    } else {
        p[0] = static_cast<char>(0x80);
        uint32_t v = htonl(static_cast<uint32_t>(len));
        memcpy(&p[1], &v, 4);
        body = 5;
    }
    for (int i = body; i < len; ++i) {
        p[static_cast<size_t>(i)] = static_cast<char>((seed * 131u + static_cast<uint32_t>(i) * 7u) & 0xff);
    }
    return p;
}

const int kNear = 12;   // every offset this close to a boundary
const int kStep = 499;  // elsewhere, every kStep-th offset

std::vector<size_t> SplitPoints(const std::vector<int>& lens) {
    size_t total = 0;
    for (int l : lens) {
        total += static_cast<size_t>(l);
    }
    std::set<size_t> pts;
    for (size_t s = 1; s < total; s += kStep) {
        pts.insert(s);
    }
    size_t start = 0;
    for (int l : lens) {
        for (size_t anchor = start; anchor <= total; anchor += 65536) {
            for (long d = -kNear; d <= kNear; ++d) {
                long s = static_cast<long>(anchor) + d;
                if (s > 0 && s < static_cast<long>(total)) {
                    pts.insert(static_cast<size_t>(s));
                }
            }
        }
        start += static_cast<size_t>(l);
    }
    return std::vector<size_t>(pts.begin(), pts.end());
}

enum Mode { kPeek, kCallbackTakes, kCallbackDeclinesSome };

struct Sink {
    std::vector<std::string> seen;  // every packet the callback was offered, in order
    int calls = 0;
};

int TakeAll(const char*, const char* data, int len, void* arg) {
    static_cast<Sink*>(arg)->seen.emplace_back(data, static_cast<size_t>(len));
    return 1;
}

int DeclineEveryThird(const char*, const char* data, int len, void* arg) {
    Sink* s = static_cast<Sink*>(arg);
    s->seen.emplace_back(data, static_cast<size_t>(len));
    return (s->calls++ % 3 == 1) ? 0 : 1;  // declined packets wait in the ring for Peek
}

// Reads exactly `bytes` more bytes through Recv; false on an error or a stall.
bool ReadThrough(RecvHarness& h, long bytes) {
    long got = 0;
    for (int i = 0; i < 10000 && got < bytes; ++i) {
        if (!h.WaitReadable(5000)) {
            return false;
        }
        int r = h.RecvOnce();
        if (r < 0) {
            return false;
        }
        got += r;
    }
    return got == bytes;
}

void Sweep(const std::vector<int>& lens, Mode mode) {
    std::vector<std::string> packets;
    std::string stream;
    for (size_t i = 0; i < lens.size(); ++i) {
        packets.push_back(VarPacket(lens[i], static_cast<uint32_t>(i + 1)));
        stream += packets.back();
    }
    CVarParser parser;
    std::vector<size_t> splits = SplitPoints(lens);
    ASSERT_GT(splits.size(), 100u);
    for (size_t split : splits) {
        SCOPED_TRACE("split at " + std::to_string(split) + " of " + std::to_string(stream.size()));
        Sink sink;
        HarnessOptions o;
        if (mode == kCallbackTakes) {
            o = HarnessOptions::Callback(&TakeAll, &sink);
        } else if (mode == kCallbackDeclinesSome) {
            o = HarnessOptions::Callback(&DeclineEveryThird, &sink);
        }
        o.with_log = false;
        o.parser = &parser;
        o.max_rx_buf_num = 16;
        RecvHarness h(o);
        ASSERT_TRUE(h.ok());
        std::vector<std::string> ring;
        ASSERT_TRUE(h.Write(stream.substr(0, split)));
        ASSERT_TRUE(ReadThrough(h, static_cast<long>(split)));
        h.DrainRing(&ring);  // Drop frees blocks while a packet may be half assembled
        ASSERT_TRUE(h.Write(stream.substr(split)));
        ASSERT_TRUE(ReadThrough(h, static_cast<long>(stream.size() - split)));
        h.DrainRing(&ring);
        EXPECT_FALSE(h.c().HasPartialPacket());
        EXPECT_EQ(static_cast<long>(packets.size()), h.c().GetRecvPacketCount());
        if (mode == kPeek) {
            ASSERT_EQ(packets.size(), ring.size());
            for (size_t i = 0; i < packets.size(); ++i) {
                ASSERT_TRUE(packets[i] == ring[i]) << "packet " << i;
            }
        } else {
            ASSERT_EQ(packets.size(), sink.seen.size());
            std::vector<std::string> declined;
            for (size_t i = 0; i < packets.size(); ++i) {
                ASSERT_TRUE(packets[i] == sink.seen[i]) << "packet " << i;
                if (mode == kCallbackDeclinesSome && i % 3 == 1) {
                    declined.push_back(packets[i]);
                }
            }
            ASSERT_EQ(declined.size(), ring.size());
            for (size_t i = 0; i < ring.size(); ++i) {
                ASSERT_TRUE(declined[i] == ring[i]) << "declined packet " << i;
            }
        }
        h.c().Fini();
        ASSERT_EQ(0u, h.pool().GetUsedCount());
        ASSERT_EQ(0ul, h.pool().GetDoubleReleaseCount());
    }
}

// 1, 4, 65535, 65536, 65537 and packets that make the big ones straddle block ends.
const std::vector<int> kAroundOneBlock = {1, 4, 65535, 3, 65536, 100, 65537, 2, 127, 128, 1000};
// 131072, 131073 (two blocks and a byte) and their neighbours.
const std::vector<int> kAroundTwoBlocks = {131072, 5, 131073, 1, 65530};

TEST(RecvSweep, EverySplitAroundOneBlockPeek) {
    Sweep(kAroundOneBlock, kPeek);
}
TEST(RecvSweep, EverySplitAroundOneBlockCallback) {
    Sweep(kAroundOneBlock, kCallbackTakes);
}
TEST(RecvSweep, EverySplitAroundOneBlockCallbackDecliningSome) {
    Sweep(kAroundOneBlock, kCallbackDeclinesSome);
}
TEST(RecvSweep, EverySplitAroundTwoBlocksPeek) {
    Sweep(kAroundTwoBlocks, kPeek);
}
TEST(RecvSweep, EverySplitAroundTwoBlocksCallback) {
    Sweep(kAroundTwoBlocks, kCallbackTakes);
}
TEST(RecvSweep, EverySplitAroundTwoBlocksCallbackDecliningSome) {
    Sweep(kAroundTwoBlocks, kCallbackDeclinesSome);
}

}  // namespace
