// Faults and interleavings that cannot be produced on demand: send failing with EINTR, a
// fixed clock for the wait statistics, and a second thread that sends while the first one
// is inside send (or holds the queue's detached tail). The socket work itself stays real.
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "support/thread_stops.h"
#include "tcp_connector_send_fixture.h"

extern "C" {
ssize_t __real_send(int fd, const void* buf, size_t len, int flags);
int __real_gettimeofday(struct timeval* tv, void* tz);
}

namespace {

std::atomic<int> g_eintr_count{0};      // sends still to fail with EINTR
std::atomic<int> g_send_calls{0};       // every send(2) the connector made
std::atomic<int> g_send_flags_or{0};    // the flags of all of them, OR-ed
std::atomic<int> g_send_flags_and{~0};  // and AND-ed

// One-stop gates: the armed thread waits at stop 1 until the test opens it.
qntest::CThreadStops g_send_gate;  // stops a thread on entry to send
qntest::CThreadStops
    g_tail_gate;  // stops a thread that reads the clock while its push holds the detached tail
QUOLNET::CTcpConnector* g_tail_conn = nullptr;

std::atomic<bool> g_clock_fixed{false};
struct timeval g_fixed_tv;

}  // namespace

extern "C" ssize_t __wrap_send(int fd, const void* buf, size_t len, int flags) {
    g_send_calls.fetch_add(1);
    g_send_flags_or.fetch_or(flags);
    g_send_flags_and.fetch_and(flags);
    if (g_eintr_count.load() > 0) {
        g_eintr_count.fetch_sub(1);
        errno = EINTR;
        return -1;
    }
    if (g_send_gate.Wanted()) {
        g_send_gate.Reach(1, true);
    }
    return __real_send(fd, buf, len, flags);
}

extern "C" int __wrap_gettimeofday(struct timeval* tv, void* tz) {
    if (g_clock_fixed.load()) {
        *tv = g_fixed_tv;
        return 0;
    }
    // Only the gated thread reads the flag here, and only it writes it (under m_tx_mutex).
    if (g_tail_conn != nullptr && g_tail_gate.Wanted() &&
        QUOLNET::CTcpConnectorTestPeer::m_tx_tail_detached(*g_tail_conn)) {
        g_tail_gate.Reach(1, true);
    }
    return __real_gettimeofday(tv, tz);
}

namespace {

using namespace qntest;
using QUOLNET::LOG_PRIORITY_DEBUG;
using QUOLNET::LOG_PRIORITY_ERROR;

void Shrink(SendRig& r) {
    SetSmallBuffers(r.fd, 4096, 0);
}

// Every write passes MSG_NOSIGNAL and nothing else, so that a reset peer gives EPIPE
// instead of a process-wide SIGPIPE: the direct write, its queued rest and a flush.
TEST(SendSeam, EveryWritePassesMsgNosignalOnly) {
    SendRig r(64, 32);
    ASSERT_TRUE(r.ok);
    Shrink(r);
    g_send_calls = 0;
    g_send_flags_or = 0;
    g_send_flags_and = ~0;
    std::string p = Pattern(300000, 11), q = Pattern(1000, 12);
    r.c().SetEvent(EPOLLOUT);
    ASSERT_EQ(300000, r.c().Send(p.data(), p.size(), nullptr));  // partly written, rest queued
    ASSERT_EQ(1000, r.c().SendToQ(q.data(), q.size(), nullptr));
    std::string got;
    ASSERT_TRUE(DrainAll(r, &got, p.size() + q.size()));
    EXPECT_EQ(p + q, got);
    EXPECT_GE(g_send_calls.load(), 2);
    EXPECT_EQ(MSG_NOSIGNAL, g_send_flags_or.load());
    EXPECT_EQ(MSG_NOSIGNAL, g_send_flags_and.load());
}

TEST(SendSeam, EintrFromADirectWriteIsAFailure) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    r.c().SetEvent(EPOLLOUT);
    g_eintr_count = 1;
    EXPECT_EQ(-1, r.c().Send("abc", 3, nullptr));
    EXPECT_EQ(0, g_eintr_count.load());
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_ERROR,
                          Fmt("send data to server failed, url=%s, local_url=%s, send_len=3, err=%d",
                              r.Url().c_str(), r.LocalUrl().c_str(), EINTR)));
    EXPECT_TRUE(
        r.log.Has(LOG_PRIORITY_ERROR,
                  Fmt("WriteSocket() failed, suggest to disconnect, url=%s, local_url=%s, len=3, left_cnt=3, "
                      "ret=-1",
                      r.Url().c_str(), r.LocalUrl().c_str())));
    EXPECT_EQ(1, r.log.CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::WriteSocket()"));  // not retried
}

TEST(SendSeam, EintrFromAFlushIsAFailure) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQ("abc", 3, nullptr));
    r.c().SetEvent(EPOLLOUT);
    g_eintr_count = 1;
    EXPECT_EQ(-1, r.c().Send());
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_ERROR,
                          Fmt("send data to server failed, url=%s, local_url=%s, send_len=3, err=%d",
                              r.Url().c_str(), r.LocalUrl().c_str(), EINTR)));
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_ERROR, Fmt("Sending() failed, url=%s, local_url=%s, ret=-1",
                                                  r.Url().c_str(), r.LocalUrl().c_str())));
    EXPECT_EQ(0u, r.pool.GetUsedCount());
}

TEST(SendSeam, BlockThatWaited2500usGivesCost2500) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQ("abc", 3, nullptr));
    r.Head()->m_tv.tv_sec = 1000;
    r.Head()->m_tv.tv_usec = 999000;
    g_fixed_tv.tv_sec = 1001;
    g_fixed_tv.tv_usec = 1500;  // 2.5 ms later, across a second boundary
    r.c().SetEvent(EPOLLOUT);
    g_clock_fixed = true;
    int n = r.c().Send();
    g_clock_fixed = false;
    EXPECT_EQ(3, n);
    EXPECT_EQ(2500, Peer::m_tx_max_wait_time(r.c()));
    EXPECT_EQ(0.25f, Peer::m_tx_avg_wait_time(r.c()));
}

// Starts a direct Send of `p` on a thread of its own, which the send gate holds inside its
// socket write; the caller waits for it with WaitArrived, opens the gate and joins the
// thread. *ret receives Send's result.
std::thread StartHeldSend(SendRig& r, const std::string& p, int* ret) {
    r.c().SetEvent(EPOLLOUT);
    g_send_gate.Reset();
    return std::thread([&r, &p, ret] {
        g_send_gate.Arm(pthread_self());
        *ret = r.c().Send(p.data(), p.size(), nullptr);
    });
}

// Split 3: the rest of a partial direct write must go ahead of a packet that another thread
// queued while the write was in progress.
TEST(SendSeam, RestOfAPartialWriteGoesAheadOfPacketsQueuedDuringTheWrite) {
    SendRig r(64, 32);
    ASSERT_TRUE(r.ok);
    Shrink(r);
    std::string p = Pattern(300000, 1), q = Pattern(100, 2);
    int ra = 0;
    std::thread a = StartHeldSend(r, p, &ra);
    ASSERT_TRUE(g_send_gate.WaitReached(1));
    EXPECT_EQ(100, r.c().Send(q.data(), q.size(), nullptr));  // role busy: queued
    EXPECT_EQ(q, r.Queued());
    g_send_gate.Open(1);
    a.join();
    ASSERT_EQ(300000, ra);
    std::string queued = r.Queued();
    ASSERT_GT(queued.size(), q.size());
    EXPECT_EQ(p.substr(p.size() - (queued.size() - q.size())) + q, queued);
    std::string got;
    ASSERT_TRUE(DrainAll(r, &got, p.size() + q.size()));
    EXPECT_EQ(p + q, got);
}

// Split 1: the sending role is kept until the rest is queued, so a flush in between cannot
// send the packet queued meanwhile first.
TEST(SendSeam, RoleIsKeptUntilTheRestIsQueued) {
    SendRig r(64, 32);
    ASSERT_TRUE(r.ok);
    Shrink(r);
    std::string p = Pattern(300000, 3), q = Pattern(100, 4);
    int ra = 0;
    std::thread a = StartHeldSend(r, p, &ra);
    ASSERT_TRUE(g_send_gate.WaitReached(1));
    EXPECT_EQ(100, r.c().Send(q.data(), q.size(), nullptr));
    ASSERT_EQ(1, r.log.CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::PushSendQ()"));
    // Hold the writer at the door of its rest's push, then try to flush as the owner would.
    Peer::m_push_send_queue_mutex(r.c()).Lock();
    g_send_gate.Open(1);
    bool at_push = Eventually(
        [&] { return r.log.CountPrefix(LOG_PRIORITY_DEBUG, "enter CTcpConnector::PushSendQ()") == 2; });
    EXPECT_TRUE(at_push);
    EXPECT_TRUE(Peer::m_is_sending(r.c()).load());
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(0, r.c().Send());  // the role is still held: nothing is flushed
    Peer::m_push_send_queue_mutex(r.c()).UnLock();
    a.join();
    ASSERT_EQ(300000, ra);
    EXPECT_FALSE(Peer::m_is_sending(r.c()).load());
    std::string got;
    ASSERT_TRUE(DrainAll(r, &got, p.size() + q.size()));
    EXPECT_EQ(p + q, got);
}

// Split 2: a push holding the detached tail (the rest of a partly sent packet) makes a
// direct write wait its turn, even though the queue looks empty.
TEST(SendSeam, DetachedTailBlocksADirectWrite) {
    SendRig r(64, 32);
    ASSERT_TRUE(r.ok);
    Shrink(r);
    std::string x = Pattern(60000, 5), y = Pattern(70000, 6), z = Pattern(50, 7);
    ASSERT_EQ(60000, r.c().SendToQ(x.data(), x.size(), nullptr));
    r.c().SetEvent(EPOLLOUT);
    int k = r.c().Send();  // partly sent: the rest stays as the queue's only block
    ASSERT_GT(k, 0);
    ASSERT_LT(k, 60000);
    ASSERT_EQ(1u, r.QCount());
    std::string got = r.ReadPeer(static_cast<size_t>(k));
    ASSERT_EQ(x.substr(0, static_cast<size_t>(k)), got);
    struct pollfd pw = {r.fd, POLLOUT, 0};
    ASSERT_EQ(1, poll(&pw, 1, 5000));  // writable again
    r.c().SetEvent(EPOLLOUT);

    g_tail_conn = &r.c();
    g_tail_gate.Reset();
    std::thread b([&] {
        g_tail_gate.Arm(pthread_self());
        EXPECT_EQ(70000, r.c().SendToQ(y.data(), y.size(), nullptr));
    });
    ASSERT_TRUE(g_tail_gate.WaitReached(1));
    EXPECT_EQ(0u, r.QCount());  // the queue looks empty: its tail is being topped up
    std::atomic<bool> c_done{false};
    std::thread c([&] {
        EXPECT_EQ(50, r.c().Send(z.data(), z.size(), nullptr));
        c_done = true;
    });
    // The third thread either writes (which would split x) or waits to queue behind b.
    bool settled = Eventually([&] {
        return c_done.load() ||
               r.log.CountPrefix(LOG_PRIORITY_DEBUG,
                                 Fmt("enter CTcpConnector::PushSendQ(), url=%s, local_url=%s, len=50,",
                                     r.Url().c_str(), r.LocalUrl().c_str())) == 1;
    });
    EXPECT_TRUE(settled);
    EXPECT_EQ(0u, r.QCount());
    g_tail_gate.Open(1);
    b.join();
    c.join();
    g_tail_conn = nullptr;
    ASSERT_TRUE(DrainAll(r, &got, x.size() + y.size() + z.size()));
    EXPECT_EQ(x + y + z, got);
}

}  // namespace
