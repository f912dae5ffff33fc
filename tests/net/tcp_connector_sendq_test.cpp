// The send queue: SendToQ, PushSendQ (through SendToQ), the admission tests and the epoll
// registration that follows the queue, on a real loopback pair, epoll instance and pool.
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "tcp_connector_send_fixture.h"

namespace {

using namespace qntest;
using QUOLNET::LOG_PRIORITY_DEBUG;
using QUOLNET::LOG_PRIORITY_ERROR;
using QUOLNET::LOG_PRIORITY_WARN;

TEST(SendQ, InvalidArgumentsReturnMinusOneAndAreCounted) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(-1, r.c().SendToQ(nullptr, 5, nullptr));
    EXPECT_EQ(1, Peer::m_tx_packet_cnt(r.c()));
    // The packet fills the local_url slot (a null one reads "(null)"), the local URL's
    // address the buf slot.
    EXPECT_TRUE(
        r.log.Has(LOG_PRIORITY_ERROR, Fmt("invalid argument, url=%s, local_url=(null), buf=%p, len=5",
                                          r.Url().c_str(), static_cast<const void*>(r.c().GetLocalURL()))))
        << r.log.Dump();

    // A zero length with a buffer that is not NUL-terminated: its (zero) valid bytes are
    // shown, nothing is read past them (ASan would report an over-read).
    std::unique_ptr<char[]> raw(new char[4]);
    memset(raw.get(), 'Z', 4);
    r.log.Clear();
    EXPECT_EQ(-1, r.c().SendToQ(raw.get(), 0, nullptr));
    EXPECT_EQ(2, Peer::m_tx_packet_cnt(r.c()));
    EXPECT_TRUE(
        r.log.Has(LOG_PRIORITY_ERROR, Fmt("invalid argument, url=%s, local_url=, buf=%p, len=0",
                                          r.Url().c_str(), static_cast<const void*>(r.c().GetLocalURL()))))
        << r.log.Dump();
    EXPECT_EQ(0u, r.QCount());
}

TEST(SendQ, QueueLimitCountsWholeBlocksEqualIsAllowed) {
    SendRig r(64, 4);
    ASSERT_TRUE(r.ok);
    std::string three = Pattern(3 * 65536);
    ASSERT_EQ(static_cast<int>(three.size()), r.c().SendToQ(three.data(), three.size(), nullptr));
    ASSERT_EQ(3u, r.QCount());

    std::string big = Pattern(65537);
    EXPECT_EQ(0, r.c().SendToQ(big.data(), 65537, nullptr));
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_DEBUG, Fmt("exceed max tx buf cnt, url=%s, local_url=%s, len=65537",
                                                  r.Url().c_str(), r.LocalUrl().c_str())));
    EXPECT_EQ(0, Peer::m_send_buf_full_tv(r.c()).tv_sec);  // the limit does not mark starvation
    EXPECT_EQ(3u, r.QCount());

    EXPECT_EQ(65536, r.c().SendToQ(big.data(), 65536, nullptr));
    EXPECT_EQ(4u, r.QCount());
    EXPECT_EQ(three + big.substr(0, 65536), r.Queued());
}

TEST(SendQ, RefusalsCountOncePerEpisode) {
    SendRig r(2, 16);  // the pool holds two blocks
    ASSERT_TRUE(r.ok);
    std::string big = Pattern(3 * 65536);
    const std::string warn = Fmt("allocate send buffer failed, url=%s, local_url=%s, len=%d", r.Url().c_str(),
                                 r.LocalUrl().c_str(), static_cast<int>(big.size()));
    EXPECT_EQ(0, r.c().SendToQ(big.data(), big.size(), nullptr));
    EXPECT_EQ(0, r.c().SendToQ(big.data(), big.size(), nullptr));
    EXPECT_EQ(1, Peer::m_tx_buf_full_cnt(r.c()));
    EXPECT_TRUE(Peer::m_is_last_tx_full(r.c()));
    EXPECT_EQ(1, r.log.CountPrefix(LOG_PRIORITY_WARN, warn));

    EXPECT_EQ(10, r.c().SendToQ("0123456789", 10, nullptr));
    EXPECT_FALSE(Peer::m_is_last_tx_full(r.c()));

    EXPECT_EQ(0, r.c().SendToQ(big.data(), big.size(), nullptr));
    EXPECT_EQ(2, Peer::m_tx_buf_full_cnt(r.c()));
    EXPECT_EQ(2, r.log.CountPrefix(LOG_PRIORITY_WARN, warn));
    EXPECT_EQ(0u, r.pool.GetUsedCount() - r.QCount());  // refused reservations were not kept
}

TEST(SendQ, PoolRefusalMarksStarvationOnceAndAPushClearsIt) {
    SendRig r(2, 16);
    ASSERT_TRUE(r.ok);
    std::string big = Pattern(3 * 65536);
    EXPECT_EQ(0, r.c().GetConstantSendBufFullMS());
    EXPECT_EQ(0, r.c().SendToQ(big.data(), big.size(), nullptr));
    EXPECT_NE(0, Peer::m_send_buf_full_tv(r.c()).tv_sec);
    EXPECT_GE(r.c().GetConstantSendBufFullMS(), 0);

    struct timeval now;
    gettimeofday(&now, nullptr);
    Peer::m_send_buf_full_tv(r.c()).tv_sec = now.tv_sec - 2;  // starved for two seconds
    Peer::m_send_buf_full_tv(r.c()).tv_usec = now.tv_usec;
    EXPECT_EQ(0, r.c().SendToQ(big.data(), big.size(), nullptr));
    EXPECT_EQ(now.tv_sec - 2, Peer::m_send_buf_full_tv(r.c()).tv_sec);  // the first time is kept
    EXPECT_EQ(now.tv_usec, Peer::m_send_buf_full_tv(r.c()).tv_usec);
    int ms = r.c().GetConstantSendBufFullMS();
    EXPECT_GE(ms, 2000);
    EXPECT_LT(ms, 60000);

    EXPECT_EQ(1, r.c().SendToQ("x", 1, nullptr));
    EXPECT_EQ(0, Peer::m_send_buf_full_tv(r.c()).tv_sec);
    EXPECT_EQ(0, Peer::m_send_buf_full_tv(r.c()).tv_usec);
    EXPECT_EQ(0, r.c().GetConstantSendBufFullMS());
}

TEST(SendQ, GetConstantSendBufFullMSDoesNotLockWhenNotStarved) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    Peer::m_tx_mutex(r.c()).Lock();  // a call that locked would block until the unlock below
    auto result = std::async(std::launch::async, [&] { return r.c().GetConstantSendBufFullMS(); });
    bool ready = result.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    Peer::m_tx_mutex(r.c()).UnLock();
    EXPECT_TRUE(ready);
    EXPECT_EQ(0, result.get());
}

TEST(SendQ, SmallPacketTopsUpTheTailAndKeepsItsStamp) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    std::string first = Pattern(65536 - 100);
    ASSERT_EQ(static_cast<int>(first.size()), r.c().SendToQ(first.data(), first.size(), nullptr));
    ASSERT_EQ(1u, r.QCount());
    QUOLNET::NetBuffer* tail = r.Tail();
    tail->m_tv.tv_sec = 111;
    tail->m_tv.tv_usec = 222;

    EXPECT_EQ(10, r.c().SendToQ("0123456789", 10, nullptr));
    EXPECT_EQ(1u, r.QCount());
    EXPECT_EQ(tail, r.Tail());
    EXPECT_EQ(65536 - 90, tail->m_write_pos);
    EXPECT_EQ(111, tail->m_tv.tv_sec);
    EXPECT_EQ(222, tail->m_tv.tv_usec);
    EXPECT_EQ(1u, r.pool.GetUsedCount());  // no block was taken for it
    EXPECT_EQ(first + "0123456789", r.Queued());
    // A packet that fits the tail's room is copied there without reserving a block first.
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_DEBUG,
                          Fmt("enter CTcpConnector::PushSendQ(), url=%s, local_url=%s, len=10, list_size=0",
                              r.Url().c_str(), r.LocalUrl().c_str())));
}

TEST(SendQ, APacketThatOverrunsTheTailReservesBlocksAndTopsUpTheTailFirst) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    std::string first = Pattern(65536 - 100);
    ASSERT_EQ(static_cast<int>(first.size()), r.c().SendToQ(first.data(), first.size(), nullptr));
    std::string second = Pattern(300);
    EXPECT_EQ(300, r.c().SendToQ(second.data(), second.size(), nullptr));
    EXPECT_EQ(2u, r.QCount());
    EXPECT_EQ(2u, r.pool.GetUsedCount());
    EXPECT_EQ(first + second, r.Queued());
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_DEBUG,
                          Fmt("enter CTcpConnector::PushSendQ(), url=%s, local_url=%s, len=300, list_size=1",
                              r.Url().c_str(), r.LocalUrl().c_str())));
}

// A small reply behind queued bytes needs no new block, so an exhausted pool does not refuse
// it: it goes into the room left in the queue's last block.
TEST(SendQ, APacketThatFitsTheTailIsAcceptedWithThePoolExhausted) {
    SendRig r(2, 16);  // the pool holds two blocks
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQ("abc", 3, nullptr));
    QUOLNET::CBidirList hold;
    ASSERT_TRUE(r.pool.Allocate(65536, hold, false));  // the pool's last block
    ASSERT_EQ(2u, r.pool.GetUsedCount());
    EXPECT_EQ(3, r.c().SendToQ("def", 3, nullptr));
    EXPECT_EQ("abcdef", r.Queued());
    EXPECT_FALSE(Peer::m_is_last_tx_full(r.c()));
    std::string big = Pattern(65536);
    EXPECT_EQ(0, r.c().SendToQ(big.data(), big.size(), nullptr));  // that one needs a block
    EXPECT_TRUE(Peer::m_is_last_tx_full(r.c()));
    r.pool.Release(hold);
}

// While another thread holds the sending role it may be writing the tail's bytes out, so a
// packet is never copied into the queued tail then: it takes the general path.
TEST(SendQ, NoCopyIntoTheTailWhileTheSendingRoleIsHeld) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(3, r.c().SendToQ("abc", 3, nullptr));
    Peer::m_is_sending(r.c()).store(true);
    EXPECT_EQ(3, r.c().SendToQ("def", 3, nullptr));
    Peer::m_is_sending(r.c()).store(false);
    EXPECT_EQ("abcdef", r.Queued());
    EXPECT_EQ(
        2, r.log.CountPrefix(LOG_PRIORITY_DEBUG,
                             Fmt("enter CTcpConnector::PushSendQ(), url=%s, local_url=%s, len=3, list_size=1",
                                 r.Url().c_str(), r.LocalUrl().c_str())));
}

TEST(SendQ, AppendingToAnEmptyQueueArmsWritabilityOncePerBurst) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(kArmedMask, r.Registered());  // Init registers EPOLLIN|EPOLLOUT|EPOLLERR
    EXPECT_EQ(0, r.c().Send());             // nothing queued: writability is switched off
    EXPECT_EQ(kDisarmedMask, r.Registered());

    EXPECT_EQ(3, r.c().SendToQ("abc", 3, nullptr));
    EXPECT_EQ(kArmedMask, r.Registered());

    // Behind the connector's back, switch writability off: a push onto a non-empty queue
    // must not touch the registration.
    struct epoll_event ev;
    ev.events = EPOLLIN | EPOLLERR;
    ev.data.ptr = &r.c();
    ASSERT_EQ(0, epoll_ctl(r.epfd, EPOLL_CTL_MOD, r.fd, &ev));
    EXPECT_EQ(3, r.c().SendToQ("def", 3, nullptr));
    EXPECT_EQ(kDisarmedMask, r.Registered());
}

TEST(SendQ, ARegistrationAlreadyInPlaceIsNotRepeated) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    // The connector registered 13 at Init; change it behind its back to observe calls.
    struct epoll_event ev;
    ev.events = EPOLLIN | EPOLLERR;
    ev.data.ptr = &r.c();
    ASSERT_EQ(0, epoll_ctl(r.epfd, EPOLL_CTL_MOD, r.fd, &ev));
    EXPECT_EQ(3, r.c().SendToQ("abc", 3, nullptr));  // empty queue, but 13 is already registered
    EXPECT_EQ(kDisarmedMask, r.Registered());

    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(3, r.c().Send());  // drains and registers 9
    EXPECT_EQ("abc", r.ReadPeer(3));
    EXPECT_EQ(EPOLLIN | EPOLLERR, static_cast<int>(Peer::m_registered_events(r.c())));
    ev.events = EPOLLIN | EPOLLOUT | EPOLLERR;
    ASSERT_EQ(0, epoll_ctl(r.epfd, EPOLL_CTL_MOD, r.fd, &ev));
    EXPECT_EQ(0, r.c().Send());  // 9 is already registered: no call
    EXPECT_EQ(kArmedMask, r.Registered());

    r.c().Close(nullptr);
    EXPECT_EQ(0u, Peer::m_registered_events(r.c()));
}

// While the owner has paused reading, the send side keeps arming and disarming writability
// but never registers EPOLLIN; resuming puts it back on the mask in place.
TEST(SendQ, PausedReadingLeavesEpollinOutOfEveryRegistration) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    const long kArmedNoIn = kArmedMask & ~static_cast<long>(EPOLLIN);
    const long kDisarmedNoIn = kDisarmedMask & ~static_cast<long>(EPOLLIN);
    EXPECT_EQ(kArmedMask, r.Registered());  // Init registered 13
    EXPECT_FALSE(r.c().IsReadingPaused());
    EXPECT_EQ(0, r.c().PauseReading(true));
    EXPECT_TRUE(r.c().IsReadingPaused());
    EXPECT_EQ(kArmedNoIn, r.Registered());
    EXPECT_EQ(0, r.c().PauseReading(true));  // already paused: nothing changes
    EXPECT_EQ(kArmedNoIn, r.Registered());

    r.c().SetEvent(EPOLLOUT);
    EXPECT_EQ(0, r.c().Send());  // nothing queued: writability off, reading still out
    EXPECT_EQ(kDisarmedNoIn, r.Registered());
    EXPECT_EQ(3, r.c().SendToQ("abc", 3, nullptr));  // the queue fills: writability on
    EXPECT_EQ(kArmedNoIn, r.Registered());
    EXPECT_EQ(3, r.c().Send());
    EXPECT_EQ("abc", r.ReadPeer(3));
    EXPECT_EQ(kDisarmedNoIn, r.Registered());

    EXPECT_EQ(0, r.c().PauseReading(false));
    EXPECT_FALSE(r.c().IsReadingPaused());
    EXPECT_EQ(kDisarmedMask, r.Registered());
    EXPECT_EQ(3, r.c().SendToQ("def", 3, nullptr));
    EXPECT_EQ(kArmedMask, r.Registered());

    // Close ends a pause: the next connection starts with reading on.
    EXPECT_EQ(0, r.c().PauseReading(true));
    r.c().Close(nullptr);
    EXPECT_FALSE(r.c().IsReadingPaused());
    EXPECT_EQ(0, r.c().PauseReading(true));  // no socket: only remembered, until a registration
    EXPECT_EQ(0u, Peer::m_registered_events(r.c()));
}

TEST(SendQ, EpollFailureWhileArmingIsLoggedAndThePushCompletes) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(0, r.c().Send());  // registration 9
    struct epoll_event ev;
    ASSERT_EQ(0, epoll_ctl(r.epfd, EPOLL_CTL_DEL, r.fd, &ev));  // MOD now fails with ENOENT
    EXPECT_EQ(3, r.c().SendToQ("abc", 3, nullptr));
    EXPECT_EQ("abc", r.Queued());
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_ERROR, Fmt("epoll_ctl() failed, url=%s, local_url=%s, errno=%d",
                                                  r.Url().c_str(), r.LocalUrl().c_str(), ENOENT)))
        << r.log.Dump();
}

// A caller that reserved too few blocks (no caller in the library does) runs out of nodes
// while copying: the error names the packet. A deliberate change: the blocks filled so far were
// dropped, neither queued nor given back to the pool, and the old tail with them. Now nothing of
// the packet is queued, its block goes back to the pool, and the old tail returns to the queue
// with just the bytes it held, so the packets queued earlier still go out whole.
TEST(SendQ, PushWithTooFewReservedBlocksGivesItsBlocksBackAndKeepsTheQueue) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    std::string first = Pattern(100);
    ASSERT_EQ(100, r.c().SendToQ(first.data(), 100, nullptr));
    ASSERT_EQ(1u, r.QCount());
    ASSERT_EQ(1u, r.pool.GetUsedCount());
    QUOLNET::CBidirList list;
    ASSERT_TRUE(r.pool.Allocate(1, list, false));  // one block; the packet needs two more
    r.log.Clear();
    std::string big = Pattern(140000, 2);  // 65436 into the old tail, 65536 into the block, 9028 left
    Peer::PushSendQ(r.c(), big.data(), static_cast<int>(big.size()), list);
    EXPECT_TRUE(r.log.Has(LOG_PRIORITY_ERROR, Fmt("unexpected error, node=NULL, url=%s, local_url=%s, "
                                                  "len=140000, list_size=0",
                                                  r.Url().c_str(), r.LocalUrl().c_str())))
        << r.log.Dump();
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(1u, r.QCount());
    EXPECT_EQ(first, r.Queued());
    EXPECT_FALSE(Peer::m_tx_tail_detached(r.c()));  // a later push may use the queue again
    EXPECT_EQ(1u, r.pool.GetUsedCount());           // the filled block went back
    std::string next = Pattern(50, 3);
    EXPECT_EQ(50, r.c().SendToQ(next.data(), 50, nullptr));
    EXPECT_EQ(first + next, r.Queued());
    EXPECT_EQ(1u, r.pool.GetUsedCount());
    std::string got;
    ASSERT_TRUE(DrainAll(r, &got, first.size() + next.size()));
    EXPECT_EQ(first + next, got);
    EXPECT_EQ(0u, r.pool.GetUsedCount());
}

TEST(SendQ, IsSendBufEnoughUsesAWrappedRoomWhenOverTheLimit) {
    SendRig r(64, 16);
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.c().IsSendBufEnough(100));
    std::string three = Pattern(3 * 65536);
    ASSERT_EQ(static_cast<int>(three.size()), r.c().SendToQ(three.data(), three.size(), nullptr));
    Peer::m_max_tx_buf_num(r.c()) = 2;  // three blocks queued, limit two
    // room = (2 - 3) * 65536 in unsigned 32-bit = 4294901760
    EXPECT_TRUE(r.c().IsSendBufEnough(100));
    EXPECT_TRUE(r.c().IsSendBufEnough(4294901760u));
    EXPECT_FALSE(r.c().IsSendBufEnough(4294901761u));
    Peer::m_max_tx_buf_num(r.c()) = 3;  // room 0
    EXPECT_FALSE(r.c().IsSendBufEnough(1));
    EXPECT_TRUE(r.c().IsSendBufEnough(0));
    Peer::m_max_tx_buf_num(r.c()) = 16;
    Peer::m_status(r.c()) = QUOLNET::CONNECTOR_STATUS_CONNECTING;
    EXPECT_FALSE(r.c().IsSendBufEnough(1));
    Peer::m_status(r.c()) = QUOLNET::CONNECTOR_STATUS_CONNECTED;
}

TEST(SendQ, IsSendBufEnoughAsksThePool) {
    SendRig r(4, 16, 1);  // 4 blocks, one kept back for receiving
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.c().IsSendBufEnough(3 * 65536));
    EXPECT_FALSE(r.c().IsSendBufEnough(3 * 65536 + 1));
}

}  // namespace

// The same with an empty queue: no old tail, the filled block simply goes back.
TEST(SendQ, PushWithTooFewReservedBlocksIntoAnEmptyQueueGivesItsBlocksBack) {
    SendRig r;
    ASSERT_TRUE(r.ok);
    QUOLNET::CBidirList list;
    ASSERT_TRUE(r.pool.Allocate(1, list, false));
    std::string big = Pattern(70000, 2);
    Peer::PushSendQ(r.c(), big.data(), static_cast<int>(big.size()), list);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(0u, r.QCount());
    EXPECT_EQ(0u, r.pool.GetUsedCount());
}
