// The send path under every answer send(2) can give, through the link-time seam on send: a
// short write, would-block, EINTR and EPIPE, each injected at every step of a fixed scenario.
// Whatever happens, the peer receives a prefix of the packets' byte stream (whole packets in
// order, nothing duplicated or skipped, at most the start of the packet whose write failed),
// everything once no fault breaks the connection, and no pool block is lost.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <atomic>
#include <string>
#include <vector>

#include "tcp_connector_send_fixture.h"

extern "C" {
ssize_t __real_send(int fd, const void* buf, size_t len, int flags);
}

namespace {

enum Answer { kReal = 0, kShort, kWouldBlock, kEintr, kEpipe };
const char* const kAnswerNames[] = {"real", "short", "would-block", "EINTR", "EPIPE"};

const int kPlanSize = 256;
std::atomic<int> g_target_fd{-1};    // only this descriptor's sends are counted and answered
std::atomic<int> g_calls{0};         // sends made on it since the last ResetPlan
std::atomic<int> g_plan[kPlanSize];  // the answer for each call by index (kReal when unset)

void ResetPlan(int fd) {
    for (auto& a : g_plan) {
        a.store(kReal);
    }
    g_calls = 0;
    g_target_fd = fd;
}

}  // namespace

extern "C" ssize_t __wrap_send(int fd, const void* buf, size_t len, int flags) {
    if (fd != g_target_fd.load()) {
        return __real_send(fd, buf, len, flags);
    }
    int idx = g_calls.fetch_add(1);
    int answer = idx < kPlanSize ? g_plan[idx].load() : kReal;
    switch (answer) {
        case kShort:
            // Half of it (one byte stays a one-byte write: it cannot be shorter).
            return __real_send(fd, buf, len > 1 ? len / 2 : len, flags);
        case kWouldBlock:
            errno = EAGAIN;
            return -1;
        case kEintr:
            errno = EINTR;
            return -1;
        case kEpipe:
            errno = EPIPE;
            return -1;
        default:
            return __real_send(fd, buf, len, flags);
    }
}

namespace {

using namespace qntest;

// Reads what the peer has now, without waiting.
void ReadAvailable(SendRig& r, std::string* got) {
    char buf[65536];
    for (;;) {
        ssize_t n = recv(r.peer, buf, sizeof(buf), MSG_DONTWAIT);
        if (n <= 0) {
            return;
        }
        got->append(buf, static_cast<size_t>(n));
    }
}

// One owner tick: when epoll reports the socket writable, flush as Update does. False when the
// flush failed (the owner would disconnect).
bool Tick(SendRig& r, int timeout_ms) {
    unsigned int events = 0;
    void* data = nullptr;
    if (WaitEpoll(r.epfd, &events, &data, timeout_ms) > 0 && (events & EPOLLOUT)) {
        r.c().SetEvent(EPOLLOUT);
        return r.c().Send() >= 0;
    }
    return true;
}

struct Outcome {
    bool failed = false;
    std::string offered;   // bytes of the packets accepted, plus the one whose write failed
    size_t accepted = 0;   // bytes of the packets accepted (Send/SendToQ returned len)
    std::string received;  // what reached the peer
};

// The scenario: packets around the block size, sent directly (with the socket reported
// writable) and queued, with owner ticks in between, then flushed to the end. Stops at the
// first failure, as an owner that disconnects would.
Outcome RunScenario(SendRig& r) {
    static const int kSizes[] = {100, 70000, 5, 140000, 3000, 65536, 1, 65537, 20};
    Outcome o;
    SetSmallBuffers(r.fd, 1 << 20, 0);
    SetSmallBuffers(r.peer, 0, 1 << 20);
    int i = 0;
    for (int size : kSizes) {
        if (!Tick(r, 0)) {
            o.failed = true;
            break;
        }
        std::string p = Pattern(static_cast<size_t>(size), static_cast<unsigned>(i));
        int ret = 0;
        if (i % 3 == 2) {
            ret = r.c().SendToQ(p.data(), p.size(), nullptr);
        } else {
            r.c().SetEvent(EPOLLOUT);  // as if epoll had just reported it
            ret = r.c().Send(p.data(), p.size(), nullptr);
        }
        ++i;
        if (ret < 0) {
            o.offered += p;
            o.failed = true;
            break;
        }
        EXPECT_EQ(static_cast<int>(p.size()), ret) << "packet " << i - 1;
        o.offered += p;
        o.accepted = o.offered.size();
        ReadAvailable(r, &o.received);
    }
    for (int rounds = 0; !o.failed && r.QCount() > 0 && rounds < 1000; ++rounds) {
        if (!Tick(r, 100)) {
            o.failed = true;
        }
        ReadAvailable(r, &o.received);
    }
    if (!o.failed) {
        EXPECT_EQ(0u, r.QCount());
    }
    r.c().Fini();  // closes the socket; the peer then reads to the end
    for (int rounds = 0; rounds < 1000; ++rounds) {
        struct pollfd p = {r.peer, POLLIN, 0};
        poll(&p, 1, 100);
        char buf[65536];
        ssize_t n = recv(r.peer, buf, sizeof(buf), MSG_DONTWAIT);
        if (n == 0) {
            break;
        }
        if (n > 0) {
            o.received.append(buf, static_cast<size_t>(n));
        }
    }
    return o;
}

TEST(SendFaults, EveryAnswerAtEveryStepLosesNothingAndLeaksNoBlock) {
    int clean_calls = 0;
    {
        SendRig r(64, 32);
        ASSERT_TRUE(r.ok);
        ResetPlan(r.fd);
        Outcome o = RunScenario(r);
        clean_calls = g_calls.load();
        g_target_fd = -1;
        ASSERT_FALSE(o.failed);
        ASSERT_EQ(o.offered, o.received);
        ASSERT_EQ(0u, r.pool.GetUsedCount());
    }
    ASSERT_GT(clean_calls, 5);
    ASSERT_LT(clean_calls + 4, kPlanSize);

    int runs = 0, failures = 0;
    for (int answer = kShort; answer <= kEpipe; ++answer) {
        // A few steps past the clean count: faults make the scenario take more calls.
        for (int step = 0; step < clean_calls + 4; ++step) {
            SCOPED_TRACE(std::string(kAnswerNames[answer]) + " at send #" + std::to_string(step));
            SendRig r(64, 32, -1, QUOLNET::LOG_PRIORITY_NULL);
            ASSERT_TRUE(r.ok);
            ResetPlan(r.fd);
            g_plan[step] = answer;
            Outcome o = RunScenario(r);
            g_target_fd = -1;
            ++runs;
            ASSERT_LE(o.received.size(), o.offered.size());
            ASSERT_TRUE(o.received == o.offered.substr(0, o.received.size()))
                << "not a prefix: " << o.received.size() << " bytes received";
            if (answer == kShort || answer == kWouldBlock) {
                EXPECT_FALSE(o.failed);  // the connection goes on and delivers everything
                EXPECT_EQ(o.offered.size(), o.received.size());
            } else if (step < g_calls.load()) {
                EXPECT_TRUE(o.failed);  // EINTR and EPIPE end the connection
                EXPECT_GE(o.received.size(), 0u);
                ++failures;
            }
            EXPECT_EQ(0u, r.pool.GetUsedCount()) << "a block was lost";
        }
    }
    EXPECT_EQ(4 * (clean_calls + 4), runs);
    EXPECT_GE(failures, 2 * clean_calls);
}

// A direct write whose socket takes part of the packet and then fails: the blocks reserved
// for the rest go back to the pool (they used to be lost: blocks reserved for a failed direct
// write were never returned).
TEST(SendFaults, FailedDirectWriteAfterAShortOneGivesItsBlocksBack) {
    SendRig r(64, 32);
    ASSERT_TRUE(r.ok);
    std::string before = Pattern(1000, 1);
    ASSERT_EQ(1000, r.c().SendToQ(before.data(), before.size(), nullptr));
    r.c().SetEvent(EPOLLOUT);
    ASSERT_EQ(1000, r.c().Send());  // drained: the direct path is open
    unsigned int start = r.pool.GetUsedCount();
    ResetPlan(r.fd);
    g_plan[0] = kShort;
    g_plan[1] = kEpipe;
    std::string pkt = Pattern(200000, 2);
    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(-1, r.c().Send(pkt.data(), pkt.size(), nullptr));
    g_target_fd = -1;
    EXPECT_EQ(2, g_calls.load());
    EXPECT_TRUE(
        r.log.Has(QUOLNET::LOG_PRIORITY_ERROR,
                  Fmt("WriteSocket() failed, suggest to disconnect, url=%s, local_url=%s, len=200000, "
                      "left_cnt=100000, ret=-1",
                      r.Url().c_str(), r.LocalUrl().c_str())));
    EXPECT_EQ(start, r.pool.GetUsedCount());
    EXPECT_EQ(0u, r.QCount());
    r.c().Fini();
    EXPECT_EQ(0u, r.pool.GetUsedCount());
}

}  // namespace
