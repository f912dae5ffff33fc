// The receive thread frames while a consumer thread peeks and drops: every packet is seen
// exactly once, in order, byte for byte. Meant to run under ThreadSanitizer as well.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "net/recv_harness.h"

namespace {

using qntest::HarnessOptions;
using qntest::RecvHarness;
using QUOLNET::CTcpConnector;

const int kPackets = 100000;

// Packet `seq`: length header, seq, then bytes derived from seq. Mostly small packets, with
// a multi-block packet now and then.
int SizeOf(uint32_t seq) {
    return seq % 997 == 5 ? 70000 + static_cast<int>(seq % 3) : 8 + static_cast<int>(seq * 37 % 200);
}

std::string Build(uint32_t seq) {
    int size = SizeOf(seq);
    std::string p(static_cast<size_t>(size), '\0');
    uint32_t be = htonl(static_cast<uint32_t>(size));
    memcpy(&p[0], &be, 4);
    memcpy(&p[4], &seq, 4);
    for (int i = 8; i < size; ++i) {
        p[static_cast<size_t>(i)] = static_cast<char>((seq + static_cast<uint32_t>(i)) & 0xff);
    }
    return p;
}

bool Check(const char* buf, unsigned int len, uint32_t seq) {
    if (len != static_cast<unsigned int>(SizeOf(seq))) {
        return false;
    }
    uint32_t got_seq;
    memcpy(&got_seq, buf + 4, 4);
    if (got_seq != seq) {
        return false;
    }
    for (unsigned int i = 8; i < len; ++i) {
        if (buf[i] != static_cast<char>((seq + i) & 0xff)) {
            return false;
        }
    }
    return true;
}

TEST(TcpConnectorRecvThreads, ConsumerSeesEveryPacketExactlyOnce) {
    HarnessOptions o;
    o.pool_blocks = 48;
    o.max_rx_buf_num = 24;  // small enough that the receive limit is met now and then
    o.with_log = false;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    std::atomic<bool> stop{false};
    std::atomic<int> consumed{0};
    std::atomic<int> bad_seq{-1};

    std::thread writer([&] {
        std::string batch;
        for (uint32_t seq = 0; seq < static_cast<uint32_t>(kPackets) && !stop.load(); ++seq) {
            batch += Build(seq);
            if (batch.size() > 32768 || seq + 1 == static_cast<uint32_t>(kPackets)) {
                if (!qntest::WriteAll(h.client(), batch.data(), batch.size(), 30000)) {
                    return;
                }
                batch.clear();
            }
        }
    });

    std::thread consumer([&] {
        uint32_t next = 0;
        while (next < static_cast<uint32_t>(kPackets) && !stop.load()) {
            const char* buf = nullptr;
            unsigned int len = 0;
            if (h.c().Peek(&buf, len, nullptr) != 0 || buf == nullptr) {
                std::this_thread::yield();
                continue;
            }
            if (!Check(buf, len, next)) {
                bad_seq.store(static_cast<int>(next));
                stop.store(true);
                return;
            }
            h.c().Drop();
            ++next;
            consumed.store(static_cast<int>(next));
        }
    });

    // The receive thread: this one.
    int error = 0;
    while (consumed.load() < kPackets && !stop.load()) {
        if (std::chrono::steady_clock::now() > deadline) {
            break;
        }
        h.WaitReadable(5);
        int r = h.RecvOnce();
        if (r < 0) {
            error = r;
            break;
        }
    }
    stop.store(true);
    writer.join();
    consumer.join();

    EXPECT_EQ(0, error);
    EXPECT_EQ(-1, bad_seq.load());
    EXPECT_EQ(kPackets, consumed.load());
    EXPECT_EQ(0, h.c().GetPacketInfoCnt());
    EXPECT_EQ(-1, h.c().Drop());
    EXPECT_EQ(static_cast<unsigned>(h.c().GetRecvQCount()), h.pool().GetUsedCount());
    h.c().Fini();
    EXPECT_EQ(0u, h.pool().GetUsedCount());
}

// One packet at a time, so that the ring empties after each: the receive block goes back to
// the pool now in the consumer's Drop, now at the end of a Recv (when the Drop met it), and a
// burst now and then moves the ring to ring storage and back. Nothing is lost, and the
// connection ends idle.
TEST(TcpConnectorRecvThreads, IdleReleaseBetweenTheReceiveAndConsumerThreads) {
    HarnessOptions o;
    o.pool_blocks = 16;
    o.with_log = false;
    RecvHarness h(o);
    ASSERT_TRUE(h.ok());
    const int kRounds = 3000;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    std::atomic<int> consumed{0};
    std::atomic<bool> stop{false};
    std::atomic<int> bad_seq{-1};

    std::thread consumer([&] {
        uint32_t next = 0;
        while (next < static_cast<uint32_t>(kRounds) * 2 && !stop.load()) {
            const char* buf = nullptr;
            unsigned int len = 0;
            if (h.c().Peek(&buf, len, nullptr) != 0 || buf == nullptr) {
                std::this_thread::yield();
                continue;
            }
            if (len != static_cast<unsigned int>(SizeOf(next)) || memcmp(buf + 4, &next, 4) != 0) {
                bad_seq.store(static_cast<int>(next));
                stop.store(true);
                return;
            }
            h.c().Drop();
            ++next;
            consumed.store(static_cast<int>(next));
        }
    });

    int error = 0;
    uint32_t seq = 0;
    for (int round = 0; round < kRounds && !stop.load() && error == 0; ++round) {
        // Mostly one packet; every tenth round a burst of eight (past the inline slots).
        int burst = round % 10 == 9 ? 8 : 1;
        std::string wire;
        for (int k = 0; k < burst; ++k) {
            wire += Build(seq++);
        }
        if (!qntest::WriteAll(h.client(), wire.data(), wire.size(), 30000)) {
            error = -1;
            break;
        }
        while (consumed.load() < static_cast<int>(seq) && !stop.load()) {
            if (std::chrono::steady_clock::now() > deadline) {
                error = -2;
                break;
            }
            h.WaitReadable(1);
            int r = h.RecvOnce();
            if (r < 0) {
                error = r;
                break;
            }
        }
    }
    stop.store(true);
    consumer.join();
    EXPECT_EQ(0, error);
    EXPECT_EQ(-1, bad_seq.load());
    EXPECT_EQ(static_cast<int>(seq), consumed.load());
    EXPECT_EQ(0, h.RecvOnce());  // the last Drop may have met a Recv: this one's end releases
    EXPECT_EQ(0u, h.pool().GetUsedCount());
    EXPECT_EQ(0, CTcpConnector::GetPacketRingsInUse());
}

}  // namespace
