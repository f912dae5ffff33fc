// Direct send and flushing on a real loopback pair: partial writes and would-block come from
// small kernel buffers and a peer that does not read.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include "tcp_connector_send_fixture.h"

namespace {

using namespace qntest;
using QUOLNET::LOG_PRIORITY_DEBUG;
using QUOLNET::LOG_PRIORITY_ERROR;
using QUOLNET::LOG_PRIORITY_INFO;

TEST(Send, FirstPacketIsDumpedUntilOneIsCounted) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    std::string pkt = Pattern(300);
    r.c().SetEvent(EPOLLOUT);
    ASSERT_EQ(300, r.c().Send(pkt.data(), 300, nullptr));
    EXPECT_EQ(1, r.log.CountPrefix(LOG_PRIORITY_INFO,
                                   "dump first send pkg, len=300, connector=CTcpConnector[this="));
    char hex[4096];
    QUOLNET::log_format_hex(pkt.data(), 128, hex, sizeof(hex));
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_INFO, hex));
    r.log.Clear();
    ASSERT_EQ(300, r.c().Send(pkt.data(), 300, nullptr));
    EXPECT_EQ(0, r.log.CountPrefix(LOG_PRIORITY_INFO, "dump first send pkg"));
    EXPECT_EQ(pkt + pkt, r.ReadPeer(600));
}

TEST(Send, ShortFirstPacketDumpsItsLengthAndRefusedCallsDumpAgain) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(-1, r.c().Send(nullptr, 0, nullptr));  // not counted, still dumped
    EXPECT_EQ(1, r.log.CountPrefix(LOG_PRIORITY_INFO, "dump first send pkg, len=0, connector="));
    std::string pkt = Pattern(40);
    r.c().SetEvent(EPOLLOUT);
    ASSERT_EQ(40, r.c().Send(pkt.data(), 40, nullptr));
    EXPECT_EQ(1, r.log.CountPrefix(LOG_PRIORITY_INFO, "dump first send pkg, len=40, connector="));
    char hex[4096];
    QUOLNET::log_format_hex(pkt.data(), 40, hex, sizeof(hex));
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_INFO, hex));
    EXPECT_EQ(pkt, r.ReadPeer(40));
}

TEST(Send, StatusIsCheckedBeforeArguments) {
    QUOLNET::CNetBufferMgr pool(4);
    NullParser parser;
    LogCapture log;
    char combine[64];
    QUOLNET::CTcpConnector c(combine, sizeof(combine), combine, sizeof(combine), nullptr, &pool, 4, 4,
                             nullptr, nullptr);
    c.SetLogCat(log.cat());
    ASSERT_EQ(0, c.Init("tcp://127.0.0.1:1", &parser, 0, -1));
    EXPECT_EQ(-1, c.Send(nullptr, 0, nullptr));
    EXPECT_TRUE(log.Has(LOG_PRIORITY_ERROR, "invalid status(0)"));
    EXPECT_EQ(0, log.CountPrefix(LOG_PRIORITY_ERROR, "invalid argument"));
}

TEST(Send, InvalidArgumentWhenConnected) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(-1, r.c().Send(nullptr, 7, nullptr));
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_ERROR,
                          Fmt("invalid argument, url=%s, local_url=%s, buf=%p, len=7", r.Url().c_str(),
                              r.LocalUrl().c_str(), static_cast<void*>(nullptr))));
    EXPECT_EQ(0, Peer::m_tx_packet_cnt(r.c()));
}

TEST(Send, NotKnownWritableMeansQueuedNeverWritten) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(0u, r.c().GetEvent() & EPOLLOUT);
    EXPECT_EQ(5, r.c().Send("hello", 5, nullptr));
    EXPECT_EQ("hello", r.Queued());
    EXPECT_EQ(0, r.log.CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::WriteSocket()"));
    EXPECT_EQ(1, r.log.CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::SendToQ()"));
    struct pollfd p = {r.peer, POLLIN, 0};
    EXPECT_EQ(0, poll(&p, 1, 50));  // nothing reached the peer
}

TEST(Send, PartialWriteQueuesTheRestAndRearmsWritability) {
    SendRig r(64, 32);
    ASSERT_TRUE(r.ok);
    SetSmallBuffers(r.fd, 4096, 0);
    EXPECT_EQ(0, r.c().Send());  // disarm: the queue is empty
    ASSERT_EQ(kDisarmedMask, r.Registered());

    std::string pkt = Pattern(256 * 1024, 3);
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(static_cast<int>(pkt.size()), r.c().Send(pkt.data(), pkt.size(), nullptr));
    std::string queued = r.Queued();
    ASSERT_GT(queued.size(), 0u);
    ASSERT_LT(queued.size(), pkt.size());
    size_t taken = pkt.size() - queued.size();
    EXPECT_EQ(pkt.substr(taken), queued);
    EXPECT_EQ(0u, r.c().GetEvent() & EPOLLOUT);
    EXPECT_EQ(kArmedMask, r.Registered());
    EXPECT_EQ(1, Peer::m_tx_packet_cnt(r.c()));
    EXPECT_EQ(r.QCount(), r.pool.GetUsedCount());  // unneeded reserved blocks went back

    std::string got;
    ASSERT_TRUE(DrainAll(r, &got, pkt.size()));
    EXPECT_EQ(pkt, got);
    EXPECT_EQ(kDisarmedMask, r.Registered());
    EXPECT_EQ(0u, r.pool.GetUsedCount());
}

TEST(Send, HalfWrittenBlockStaysAtTheHead) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    SetSmallBuffers(r.fd, 4096, 0);
    std::string pkt = Pattern(100000, 5);
    ASSERT_EQ(100000, r.c().SendToQ(pkt.data(), pkt.size(), nullptr));
    QUOLNET::NetBuffer* head = r.Head();
    r.c().SetEvent(EPOLLOUT);
    int n = r.c().Send();
    ASSERT_GT(n, 0);
    ASSERT_LT(n, 65536);
    EXPECT_EQ(head, r.Head());
    EXPECT_EQ(n, head->m_read_pos);
    EXPECT_EQ(2u, r.QCount());
    EXPECT_EQ(kArmedMask, r.Registered());
    EXPECT_EQ(pkt.substr(static_cast<size_t>(n)), r.Queued());

    std::string got;
    ASSERT_TRUE(DrainAll(r, &got, pkt.size()));
    EXPECT_EQ(pkt, got);
}

TEST(Send, DrainingTheLastBlockDisarmsAndReturnsBytesWritten) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(10, r.c().SendToQ("0123456789", 10, nullptr));
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(10, r.c().Send());
    EXPECT_EQ(kDisarmedMask, r.Registered());
    EXPECT_EQ("0123456789", r.ReadPeer(10));
    EXPECT_EQ(0u, r.pool.GetUsedCount());
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_DEBUG, Fmt("enter CTcpConnector::Sending(), url=%s, local_url=%s",
                                                  r.Url().c_str(), r.LocalUrl().c_str())));
}

TEST(Send, QueuedBytesAreFlushedBeforeADirectWrite) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQ("abc", 3, nullptr));
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(3, r.c().Send("def", 3, nullptr));
    EXPECT_EQ(0u, r.QCount());
    EXPECT_EQ("abcdef", r.ReadPeer(6));
}

TEST(Send, QueueWaitStatistics) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQ("abc", 3, nullptr));
    struct timeval now;
    gettimeofday(&now, nullptr);
    long usec = now.tv_usec - 2500;
    r.Head()->m_tv.tv_sec = usec < 0 ? now.tv_sec - 1 : now.tv_sec;
    r.Head()->m_tv.tv_usec = usec < 0 ? usec + 1000000 : usec;
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(3, r.c().Send());
    int cost = Peer::m_tx_max_wait_time(r.c());
    EXPECT_GE(cost, 2500);
    EXPECT_LT(cost, 2500 + 5000000);
    EXPECT_EQ(static_cast<float>(cost / 10000.0), static_cast<float>(Peer::m_tx_avg_wait_time(r.c())));

    // A stamp in the future gives a cost of 0: the maximum stays, the average decays.
    float avg = Peer::m_tx_avg_wait_time(r.c());
    ASSERT_EQ(3, r.c().SendToQ("def", 3, nullptr));
    r.Head()->m_tv.tv_sec = now.tv_sec + 100;
    EXPECT_EQ(3, r.c().Send());
    EXPECT_EQ(cost, Peer::m_tx_max_wait_time(r.c()));
    EXPECT_EQ(static_cast<float>(avg * 9999.0 / 10000.0),
              static_cast<float>(Peer::m_tx_avg_wait_time(r.c())));
    EXPECT_EQ("abcdef", r.ReadPeer(6));
}

// Regression (a deliberate change): blocks reserved for a failed direct write were never
// returned. They go back to the pool now; messages, result and counters are as before.
TEST(Send, FailedDirectWriteGivesItsReservedBlocksBack) {
    signal(SIGPIPE, SIG_IGN);
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(0, shutdown(r.fd, SHUT_WR));  // every send now fails with EPIPE
    std::string pkt = Pattern(70000);
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(-1, r.c().Send(pkt.data(), pkt.size(), nullptr));
    EXPECT_TRUE(
        r.log.Has(LOG_PRIORITY_ERROR, Fmt("send data to server failed, url=%s, local_url=%s, send_len=70000, "
                                          "err=%d",
                                          r.Url().c_str(), r.LocalUrl().c_str(), EPIPE)))
        << r.log.Dump();
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_ERROR,
                          Fmt("WriteSocket() failed, suggest to disconnect, url=%s, local_url=%s, len=70000, "
                              "left_cnt=70000, ret=-1",
                              r.Url().c_str(), r.LocalUrl().c_str())));
    EXPECT_EQ(0, Peer::m_tx_packet_cnt(r.c()));
    EXPECT_FALSE(Peer::m_is_sending(r.c()).load());
    EXPECT_EQ(0u, r.QCount());
    EXPECT_EQ(0u, r.pool.GetUsedCount());
    r.c().Fini();
    EXPECT_EQ(0u, r.pool.GetUsedCount());
}

// A peer that resets while a large direct write is under way: the write fails (ECONNRESET or
// EPIPE, whichever the kernel reports first) and the pool is back where it started.
TEST(Send, DirectWriteToAResetPeerGivesItsBlocksBack) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    std::string queued = Pattern(1000, 4);
    ASSERT_EQ(1000, r.c().SendToQ(queued.data(), queued.size(), nullptr));  // a block in use before
    unsigned int start = r.pool.GetUsedCount();
    struct linger lg = {1, 0};
    ASSERT_EQ(0, setsockopt(r.peer, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg)));
    close(r.peer);
    r.peer = -1;
    struct pollfd p = {r.fd, POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, 5000));  // the reset has arrived
    // Flush first (it fails and releases its block), then a direct write that must fail too.
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(-1, r.c().Send());
    start -= 1;
    std::string pkt = Pattern(200000, 5);
    for (int i = 0; i < 2; ++i) {
        r.c().SetEvent(EPOLLOUT);
        EXPECT_EQ(-1, r.c().Send(pkt.data(), pkt.size(), nullptr));
        EXPECT_EQ(start, r.pool.GetUsedCount());
    }
    EXPECT_TRUE(r.log.HasPrefix(LOG_PRIORITY_ERROR,
                                Fmt("send data to server failed, url=%s, local_url=%s, send_len=200000, err=",
                                    r.Url().c_str(), r.LocalUrl().c_str())));
    r.c().Fini();
    EXPECT_EQ(0u, r.pool.GetUsedCount());
}

TEST(Send, FailedFlushReleasesTheBlockAndReports) {
    signal(SIGPIPE, SIG_IGN);
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQ("abc", 3, nullptr));
    ASSERT_EQ(0, shutdown(r.fd, SHUT_WR));
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(-1, r.c().Send());
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_ERROR, Fmt("WriteSocket() failed, url=%s, local_url=%s, ret=-1",
                                                  r.Url().c_str(), r.LocalUrl().c_str())));
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_ERROR, Fmt("Sending() failed, url=%s, local_url=%s, ret=-1",
                                                  r.Url().c_str(), r.LocalUrl().c_str())));
    EXPECT_EQ(0u, r.pool.GetUsedCount());
    EXPECT_FALSE(Peer::m_is_sending(r.c()).load());
}

TEST(Send, FlushReturnsZeroWhileAnotherThreadHoldsTheRole) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQ("abc", 3, nullptr));
    Peer::m_is_sending(r.c()).store(true);
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(0, r.c().Send());
    EXPECT_EQ(3, r.c().Send("def", 3, nullptr));  // role busy: queued behind
    EXPECT_EQ("abcdef", r.Queued());
    Peer::m_is_sending(r.c()).store(false);
    EXPECT_EQ(6, r.c().Send());
    EXPECT_EQ("abcdef", r.ReadPeer(6));
}

// A peer that stops reading: the queue grows only to the block limit, the connector says so,
// and everything arrives once the peer reads again.
TEST(Send, StalledPeerBoundsTheQueueByItsLimit) {
    SendRig r(64, 4);
    ASSERT_TRUE(r.ok);
    SetSmallBuffers(r.fd, 4096, 0);
    std::string expect;
    r.c().SetEvent(EPOLLOUT);
    for (unsigned seq = 0; seq < 100000; ++seq) {
        std::string pkt = Pattern(1000, seq);
        int ret = r.c().Send(pkt.data(), pkt.size(), nullptr);
        ASSERT_LE(r.QCount(), 4u);
        if (ret == 0) {
            break;
        }
        ASSERT_EQ(1000, ret);
        expect += pkt;
    }
    EXPECT_EQ(4u, r.QCount());
    EXPECT_FALSE(r.c().IsSendBufEnough(1000));
    EXPECT_EQ(1, Peer::m_tx_buf_full_cnt(r.c()));
    EXPECT_EQ(0, r.c().GetConstantSendBufFullMS());  // the limit is not pool starvation

    std::string got;
    ASSERT_TRUE(DrainAll(r, &got, expect.size()));
    EXPECT_EQ(expect, got);
    EXPECT_TRUE(r.c().IsSendBufEnough(1000));
}

TEST(Send, StalledPeerWithASmallPoolReportsStarvation) {
    SendRig r(4, 64, 1);  // four blocks in the pool
    ASSERT_TRUE(r.ok);
    SetSmallBuffers(r.fd, 4096, 0);
    std::string expect;
    for (unsigned seq = 0; seq < 100000; ++seq) {
        std::string pkt = Pattern(3000, seq);
        int ret = r.c().SendToQ(pkt.data(), pkt.size(), nullptr);
        if (ret == 0) {
            break;
        }
        ASSERT_EQ(3000, ret);
        expect += pkt;
    }
    EXPECT_EQ(4u, r.QCount());
    EXPECT_FALSE(r.c().IsSendBufEnough(1));
    EXPECT_NE(0, Peer::m_send_buf_full_tv(r.c()).tv_sec);
    int ms = r.c().GetConstantSendBufFullMS();
    EXPECT_GE(ms, 0);
    EXPECT_LT(ms, 60000);

    std::string got;
    ASSERT_TRUE(DrainAll(r, &got, expect.size()));
    EXPECT_EQ(expect, got);
    EXPECT_EQ(0u, r.pool.GetUsedCount());
    EXPECT_EQ(5, r.c().SendToQ("again", 5, nullptr));  // a push ends the starvation
    EXPECT_EQ(0, r.c().GetConstantSendBufFullMS());
}

}  // namespace
