// The owner's cork block: corked packets (SendToQCorked) that follow the first one of a burst
// go into the queue's last block without the send mutex, until the owner's flush (Send()).
// Other threads' packets queue behind it, a flush by another role holder stops in front of it,
// and a packet another thread queued before a corked one is never overtaken by it. On a real
// loopback pair, epoll instance and pool; "another thread" is played by the test's own thread
// through the paths another thread takes (SendToQ, Send(buf)).
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include "tcp_connector_send_fixture.h"

namespace {

using namespace qntest;
using QUOLNET::LOG_PRIORITY_DEBUG;

// Runs `fn` on another thread while the test holds the connector's send mutex: true when it
// finished within five seconds, that is, when it took no send mutex.
template <typename Fn>
bool FinishesWithTheSendMutexHeld(SendRig& r, Fn fn) {
    QUOLNET::Mutex& tx = Peer::m_tx_mutex(r.c());
    tx.Lock();
    auto done = std::async(std::launch::async, fn);
    bool finished = done.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    tx.UnLock();
    done.wait();
    return finished;
}

std::string PeerHasNothing(SendRig& r) {
    char byte;
    ssize_t n = recv(r.peer, &byte, 1, MSG_DONTWAIT);
    return n < 0 && errno == EAGAIN ? "" : "the peer got bytes";
}

TEST(Cork, CorkedPacketsAfterTheFirstGoInWithoutTheSendMutex) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQCorked("abc", 3));  // the first takes the lock and sets the cork
    ASSERT_EQ(r.Tail(), Peer::m_tx_cork_block(r.c()));

    int ret = 0;
    EXPECT_TRUE(FinishesWithTheSendMutexHeld(r, [&r, &ret]() { ret = r.c().SendToQCorked("defg", 4); }));
    EXPECT_EQ(4, ret);
    EXPECT_EQ(1u, r.QCount());
    EXPECT_EQ("abcdefg", r.Queued());
    EXPECT_EQ(2, Peer::m_tx_packet_cnt(r.c()));
    // The same trace as a packet copied into the last block under the lock.
    EXPECT_TRUE(
        r.log.Has(LOG_PRIORITY_DEBUG, Fmt("enter CTcpConnector::SendToQ(), url=%s, local_url=%s, len=4",
                                          r.Url().c_str(), r.LocalUrl().c_str())));
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_DEBUG,
                          Fmt("enter CTcpConnector::PushSendQ(), url=%s, local_url=%s, len=4, list_size=0",
                              r.Url().c_str(), r.LocalUrl().c_str())));

    // The owner's flush ends the cork and sends the block.
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(7, r.c().Send());
    EXPECT_EQ(nullptr, Peer::m_tx_cork_block(r.c()));
    EXPECT_EQ("abcdefg", r.ReadPeer(7));
}

TEST(Cork, APacketThatDoesNotFitTheCorkMovesItToTheNewLastBlock) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    std::string first = Pattern(65536 - 10);
    ASSERT_EQ(static_cast<int>(first.size()), r.c().SendToQCorked(first.data(), first.size()));
    QUOLNET::NetBuffer* old_cork = Peer::m_tx_cork_block(r.c());
    std::string second = Pattern(100);
    ASSERT_EQ(100, r.c().SendToQCorked(second.data(), second.size()));
    EXPECT_EQ(2u, r.QCount());
    EXPECT_NE(old_cork, Peer::m_tx_cork_block(r.c()));
    EXPECT_EQ(r.Tail(), Peer::m_tx_cork_block(r.c()));
    EXPECT_EQ(first + second, r.Queued());
}

// Another thread's packet never goes into the owner's cork block: it starts a block of its own
// behind it, and the owner's next corked packet follows it (taking the lock once to move the
// cork), so the order the two threads agreed on is what the peer reads.
TEST(Cork, AnotherThreadsPacketQueuesBehindTheCorkAndIsNotOvertaken) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQCorked("abc", 3));
    QUOLNET::NetBuffer* cork = Peer::m_tx_cork_block(r.c());
    ASSERT_EQ(3, r.c().SendToQ("XYZ", 3, nullptr));  // another thread's way in
    EXPECT_EQ(2u, r.QCount());
    EXPECT_EQ(3, cork->m_write_pos);  // the cork block kept only the owner's bytes
    EXPECT_TRUE(Peer::m_tx_cork_overtaken(r.c()));

    ASSERT_EQ(3, r.c().SendToQCorked("def", 3));
    EXPECT_EQ("abcXYZdef", r.Queued());
    EXPECT_EQ(r.Tail(), Peer::m_tx_cork_block(r.c()));
    EXPECT_FALSE(Peer::m_tx_cork_overtaken(r.c()));

    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(9, r.c().Send());
    EXPECT_EQ("abcXYZdef", r.ReadPeer(9));
}

// A direct Send from another thread finds the queue non-empty, flushes, and its flush stops in
// front of the cork block (the owner may still be writing it): nothing reaches the peer ahead
// of the owner's flush, and then everything does, in order.
TEST(Cork, AnotherThreadsFlushStopsInFrontOfTheCork) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQCorked("abc", 3));
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(3, r.c().Send("123", 3, nullptr));
    EXPECT_EQ("abc123", r.Queued());
    EXPECT_EQ("", PeerHasNothing(r));
    EXPECT_FALSE(Peer::m_is_sending(r.c()).load());

    EXPECT_EQ(6, r.c().Send());
    EXPECT_EQ("abc123", r.ReadPeer(6));
    EXPECT_EQ(0u, r.QCount());
}

// A writable connection with nothing to flush is the common tick: the flush returns without
// taking the send mutex.
TEST(Cork, AnIdleFlushTakesNoLock) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    r.c().SetEvent(EPOLLOUT);
    ASSERT_EQ(0, r.c().Send());  // disarms writability
    ASSERT_EQ(kDisarmedMask, r.Registered());
    int ret = -5;
    EXPECT_TRUE(FinishesWithTheSendMutexHeld(r, [&r, &ret]() { ret = r.c().Send(); }));
    EXPECT_EQ(0, ret);
    // With something queued it does take the lock (and sends).
    ASSERT_EQ(2, r.c().SendToQ("hi", 2, nullptr));
    EXPECT_EQ(2, r.c().Send());
    EXPECT_EQ("hi", r.ReadPeer(2));
}

// Fini returns the cork block with the queue and leaves no cork behind.
TEST(Cork, FiniReturnsTheCorkBlock) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQCorked("abc", 3));
    ASSERT_EQ(1u, r.pool.GetUsedCount());
    r.c().Fini();
    r.fd = -1;  // Fini closed it
    EXPECT_EQ(nullptr, Peer::m_tx_cork_block(r.c()));
    EXPECT_EQ(0u, r.pool.GetUsedCount());
}

// Wire format of the stress test below: total length (4 bytes), sender ('O' owner, 'F'
// foreign), sequence number (4), the last foreign sequence number whose Send had returned
// when the owner began this packet (4; -1 for none, owner packets only), then filler bytes
// derived from the sequence number.
std::string StressPacket(char sender, int seq, int foreign_seen) {
    int len = 13 + (seq * 131) % 3000;
    std::string p(static_cast<size_t>(len), '\0');
    memcpy(&p[0], &len, 4);
    p[4] = sender;
    memcpy(&p[5], &seq, 4);
    memcpy(&p[9], &foreign_seen, 4);
    for (int i = 13; i < len; ++i) {
        p[static_cast<size_t>(i)] = static_cast<char>((seq + i) & 0x7f);
    }
    return p;
}

// The owner corks bursts and flushes them while another thread sends directly on the same
// connector. The peer must read every packet whole, each sender's in its own order, and no
// owner packet ahead of a foreign packet whose Send had returned before the owner began it.
// Under ThreadSanitizer this also checks that the unlocked cork appends race with nothing.
TEST(Cork, OwnerBurstsAndAForeignSenderKeepOrderAndCausality) {
    SendRig r(512, 256, -1, QUOLNET::LOG_PRIORITY_ERROR);
    ASSERT_TRUE(r.ok);
    const int kOwner = 6000;
    const int kForeign = 3000;
    std::atomic<int> foreign_done{-1};
    std::atomic<bool> reader_ok{true};
    std::atomic<int> packets_read{0};
    std::string failure;  // written by the reader only, read after join

    std::thread reader([&]() {
        std::string buf;
        std::vector<char> chunk(1 << 16);
        int next_owner = 0;
        int next_foreign = 0;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (next_owner < kOwner || next_foreign < kForeign) {
            if (std::chrono::steady_clock::now() > deadline) {
                failure = "timed out";
                break;
            }
            struct pollfd pfd = {r.peer, POLLIN, 0};
            if (poll(&pfd, 1, 100) <= 0) {
                continue;
            }
            ssize_t n = recv(r.peer, chunk.data(), chunk.size(), 0);
            if (n <= 0) {
                failure = "peer read ended";
                break;
            }
            buf.append(chunk.data(), static_cast<size_t>(n));
            size_t off = 0;
            while (buf.size() - off >= 13) {
                int len = 0;
                memcpy(&len, buf.data() + off, 4);
                if (len < 13 || len > 4000) {
                    failure = "bad length";
                    break;
                }
                if (buf.size() - off < static_cast<size_t>(len)) {
                    break;
                }
                char sender = buf[off + 4];
                int seq = 0;
                int seen = 0;
                memcpy(&seq, buf.data() + off + 5, 4);
                memcpy(&seen, buf.data() + off + 9, 4);
                std::string expect = StressPacket(sender, seq, seen);
                if (buf.compare(off, static_cast<size_t>(len), expect) != 0) {
                    failure = "packet bytes differ";
                    break;
                }
                if (sender == 'O') {
                    if (seq != next_owner) {
                        failure = "owner packet out of order";
                        break;
                    }
                    if (seen >= next_foreign) {
                        failure = "owner packet overtook a foreign packet sent before it";
                        break;
                    }
                    ++next_owner;
                } else if (sender == 'F') {
                    if (seq != next_foreign) {
                        failure = "foreign packet out of order";
                        break;
                    }
                    ++next_foreign;
                } else {
                    failure = "bad sender";
                    break;
                }
                packets_read.fetch_add(1);
                off += static_cast<size_t>(len);
            }
            buf.erase(0, off);
            if (!failure.empty()) {
                break;
            }
        }
        reader_ok.store(failure.empty());
    });

    std::thread foreign([&]() {
        for (int i = 0; i < kForeign && reader_ok.load(); ++i) {
            std::string p = StressPacket('F', i, -1);
            int ret;
            while ((ret = r.c().Send(p.data(), static_cast<unsigned int>(p.size()), nullptr)) == 0) {
                std::this_thread::yield();  // no room now
            }
            ASSERT_EQ(static_cast<int>(p.size()), ret);
            foreign_done.store(i);
        }
    });

    // The owner: bursts of 1-7 corked packets, each followed by its flush.
    int seq = 0;
    while (seq < kOwner && reader_ok.load()) {
        int burst = 1 + seq % 7;
        for (int k = 0; k < burst && seq < kOwner; ++k) {
            std::string p = StressPacket('O', seq, foreign_done.load());
            int ret = r.c().SendToQCorked(p.data(), static_cast<unsigned int>(p.size()));
            if (ret == 0) {
                break;  // no room now: flush, then retry this one
            }
            ASSERT_EQ(static_cast<int>(p.size()), ret);
            ++seq;
        }
        r.c().SetEvent(EPOLLOUT);
        ASSERT_GE(r.c().Send(), 0);
    }
    foreign.join();
    // What is still queued leaves with the owner's flushes.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (reader_ok.load() && packets_read.load() < kOwner + kForeign &&
           std::chrono::steady_clock::now() < deadline) {
        r.c().SetEvent(EPOLLOUT);
        ASSERT_GE(r.c().Send(), 0);
        std::this_thread::yield();
    }
    reader.join();
    EXPECT_EQ("", failure);
    EXPECT_EQ(kOwner + kForeign, packets_read.load());
    EXPECT_EQ(0u, r.QCount());
}

}  // namespace
