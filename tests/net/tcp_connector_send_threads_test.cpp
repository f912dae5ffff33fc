// Byte-stream integrity under load: four producers send framed packets through Send and
// SendToQ while the owner's thread flushes on writability and a peer thread reads, at times
// slowly. Every accepted packet must arrive exactly once, whole and in per-thread order.
// QUOLNET_SEND_STRESS_PACKETS overrides the packets per producer (default 20000).
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "tcp_connector_send_fixture.h"

namespace {

using namespace qntest;

const int kProducers = 4;

int PacketsPerProducer() {
    const char* env = getenv("QUOLNET_SEND_STRESS_PACKETS");
    return env != nullptr ? atoi(env) : 20000;
}

// Packet: 4-byte big-endian total length, 1-byte producer id, 4-byte big-endian sequence,
// then a body whose bytes derive from (id, seq).
std::string MakePacket(int id, uint32_t seq, size_t len) {
    std::string p(len, '\0');
    p[0] = static_cast<char>(len >> 24);
    p[1] = static_cast<char>(len >> 16);
    p[2] = static_cast<char>(len >> 8);
    p[3] = static_cast<char>(len);
    p[4] = static_cast<char>(id);
    p[5] = static_cast<char>(seq >> 24);
    p[6] = static_cast<char>(seq >> 16);
    p[7] = static_cast<char>(seq >> 8);
    p[8] = static_cast<char>(seq);
    for (size_t i = 9; i < len; ++i) {
        p[i] = static_cast<char>((i * 31 + seq * 7 + static_cast<uint32_t>(id)) & 0xff);
    }
    return p;
}

uint32_t Be32(const unsigned char* b) {
    return (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | uint32_t(b[3]);
}

TEST(SendThreads, EveryPacketArrivesOnceWholeAndInOrder) {
    const int per_producer = PacketsPerProducer();
    // No logging: the first-packet dump's one-line description is not meant for racing senders.
    SendRig r(256, 64, -1, QUOLNET::LOG_PRIORITY_ERROR);
    ASSERT_TRUE(r.ok);
    r.c().SetLogCat(nullptr);
    SetSmallBuffers(r.fd, 65536, 0);
    SetSmallBuffers(r.peer, 0, 65536);

    std::atomic<int> producers_done{0};
    std::atomic<long> refusals{0};
    std::atomic<bool> failed{false};
    std::atomic<bool> reader_done{false};
    std::string reader_error;
    long received = 0;

    std::thread reader([&] {
        std::vector<unsigned char> stream;
        std::vector<uint32_t> next_seq(kProducers, 0);
        std::vector<unsigned char> buf(256 * 1024);
        std::mt19937 rng(7);
        size_t pos = 0;
        long expected = static_cast<long>(kProducers) * per_producer;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(240);
        while (received < expected && !failed.load()) {
            if (std::chrono::steady_clock::now() > deadline) {
                reader_error = "time-out";
                failed = true;
                break;
            }
            struct pollfd p = {r.peer, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) {
                continue;
            }
            // Now and then read only a little, so that the sender's buffers fill up.
            size_t want = rng() % 16 == 0 ? 512 : buf.size();
            ssize_t n = recv(r.peer, buf.data(), want, 0);
            if (n <= 0) {
                reader_error = "peer closed";
                failed = true;
                break;
            }
            stream.insert(stream.end(), buf.begin(), buf.begin() + n);
            while (stream.size() - pos >= 9) {
                uint32_t len = Be32(&stream[pos]);
                if (len < 9 || len > 300 * 1024) {
                    reader_error = "bad frame length";
                    failed = true;
                    break;
                }
                if (stream.size() - pos < len) {
                    break;
                }
                int id = stream[pos + 4];
                uint32_t seq = Be32(&stream[pos + 5]);
                if (id >= kProducers || seq != next_seq[id]) {
                    reader_error = "out of order: id " + std::to_string(id) + " seq " + std::to_string(seq);
                    failed = true;
                    break;
                }
                std::string expect = MakePacket(id, seq, len);
                if (memcmp(expect.data(), &stream[pos], len) != 0) {
                    reader_error = "corrupt packet";
                    failed = true;
                    break;
                }
                ++next_seq[id];
                ++received;
                pos += len;
            }
            if (pos > (1 << 20)) {
                stream.erase(stream.begin(), stream.begin() + static_cast<long>(pos));
                pos = 0;
            }
        }
        reader_done = true;
    });

    std::vector<std::thread> producers;
    for (int id = 0; id < kProducers; ++id) {
        producers.emplace_back([&, id] {
            std::mt19937 rng(static_cast<unsigned>(id + 1));
            for (int seq = 0; seq < per_producer && !failed.load(); ++seq) {
                size_t len = rng() % 100 == 0 ? 9 + rng() % (200 * 1024 - 9) : 9 + rng() % (4096 - 9);
                std::string pkt = MakePacket(id, static_cast<uint32_t>(seq), len);
                bool use_queue = rng() % 2 == 0;
                for (;;) {
                    int ret = use_queue ? r.c().SendToQ(pkt.data(), pkt.size(), nullptr)
                                        : r.c().Send(pkt.data(), pkt.size(), nullptr);
                    if (ret == static_cast<int>(len)) {
                        break;
                    }
                    if (ret != 0) {
                        failed = true;
                        return;
                    }
                    // Refused: only the queue limit or the pool do that, and both count a
                    // full episode.
                    if (Peer::m_tx_buf_full_cnt(r.c()) == 0) {
                        failed = true;
                        return;
                    }
                    ++refusals;
                    std::this_thread::yield();
                    if (failed.load()) {
                        return;
                    }
                }
            }
            ++producers_done;
        });
    }

    // The owner's loop.
    while (!reader_done.load() && !failed.load()) {
        unsigned int events = 0;
        void* data = nullptr;
        if (WaitEpoll(r.epfd, &events, &data, 10) > 0) {
            r.c().SetEvent(events);
            if ((events & EPOLLOUT) && r.c().Send() < 0) {
                failed = true;
            }
        }
    }
    for (auto& t : producers) {
        t.join();
    }
    reader.join();
    EXPECT_FALSE(failed.load()) << reader_error;
    EXPECT_EQ(kProducers, producers_done.load());
    EXPECT_EQ(static_cast<long>(kProducers) * per_producer, received);
    EXPECT_EQ(0u, r.QCount());
    EXPECT_EQ(0u, r.pool.GetUsedCount());
    RecordProperty("refusals", static_cast<int>(refusals.load()));
}

}  // namespace
