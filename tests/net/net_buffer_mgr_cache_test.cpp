// CNetBufferMgr thread caches at their edges: reservations that outlive the cache that served
// them or end under another one, blocks released on another thread than the one whose cache
// keeps them, caches ended out of order, and many threads at once. Each test ends by proving
// that the pool lost no block and hands none out twice.
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "net/net_buffer_mgr.h"
#include "support/log_capture.h"

using namespace QUOLNET;

namespace {

const char kMisusePrefix[] = "thread cache misuse: ";
const char kRefusedPrefix[] = "release of a block that is not out refused, block=";

// Runs `f` on a thread of its own and waits for it: the steps before and after are ordered
// with it, so a test can play two threads one step at a time.
void OnAnotherThread(const std::function<void()>& f) {
    std::thread t(f);
    t.join();
}

// The blocks made are exactly the ones counted as used plus the ones waiting, never more than
// the limit, and the peak covers them (every block made was counted out at once).
void Validate(CNetBufferMgr& pool, unsigned int expect_used) {
    unsigned int used = pool.GetUsedCount();
    unsigned int free_cnt = pool.GetFreeCount();
    EXPECT_EQ(expect_used, used);
    EXPECT_LE(used + free_cnt, pool.GetMaxBlockNum());
    EXPECT_EQ(pool.GetPeakUsedCount(), used + free_cnt);
}

// Called with no cache of `pool` in effect and nothing out: every block of the pool can be
// had, each once, and no more; afterwards all are free again. A block lost to the counts, or
// one linked twice, fails here.
void ExpectWholePool(CNetBufferMgr& pool) {
    Validate(pool, 0);
    std::set<NetBuffer*> got;
    for (unsigned int i = 0; i < pool.GetMaxBlockNum(); ++i) {
        NetBuffer* b = pool.Allocate(false, false);
        ASSERT_NE(nullptr, b) << "block " << i;
        EXPECT_TRUE(got.insert(b).second) << "handed out twice: " << static_cast<void*>(b);
    }
    EXPECT_EQ(nullptr, pool.Allocate(false, false));
    for (NetBuffer* b : got) {
        NetBuffer* p = b;
        pool.Release(&p);
    }
    Validate(pool, 0);
    EXPECT_EQ(pool.GetMaxBlockNum(), pool.GetFreeCount());
}

// Under `cache`: lends one block and takes it back, so that the cache keeps two blocks (the
// spare taken with the first miss and the one released) and its next reservation is served
// from its store.
void Warm(CNetBufferMgr& pool, const CNetBufferMgr::CThreadCache& cache) {
    NetBuffer* b = pool.Allocate(true, false);
    ASSERT_NE(nullptr, b);
    pool.Release(&b);
    ASSERT_EQ(2, cache.Count());
}

// ---- reservations ----

// A cache that ends with the reservation it served still open hands the block to the pool,
// which backs the reservation from then on: it ends exactly, with no cache or under a new one.
TEST(NetBufferMgrCacheReserve, AReservationOpenWhenTheCacheEndsPassesToThePool) {
    CNetBufferMgr pool(16, 0);
    for (int way = 0; way < 3; ++way) {
        {
            CNetBufferMgr::CThreadCache cache(&pool);
            Warm(pool, cache);
            ASSERT_TRUE(pool.Reserve(100));  // from the store
            EXPECT_EQ(1, cache.Count());
            Validate(pool, 2);
        }
        Validate(pool, 1);                   // the reservation, backed by a free block
        EXPECT_EQ(1u, pool.GetFreeCount());  // the backing block is not free for others
        if (way == 0) {
            pool.Unreserve(100);
        } else if (way == 1) {
            CBidirList list;
            pool.TakeReserved(100, list);
            ASSERT_EQ(1u, list.Count());
            Validate(pool, 1);
            pool.Release(list);
        } else {
            CNetBufferMgr::CThreadCache later(&pool);
            pool.Unreserve(100);  // a new cache has no store reservation: the pool's ends
            EXPECT_EQ(0, later.Count());
        }
        Validate(pool, 0);
    }
    EXPECT_EQ(0ul, pool.GetCacheMisuseCount());
    EXPECT_EQ(0ul, pool.GetDoubleReleaseCount());
    ExpectWholePool(pool);
}

// A cache of the same pool nested in the one that served a reservation takes the reservation
// over, and hands it back when it ends: the reservation ends exactly under either.
TEST(NetBufferMgrCacheReserve, AReservationEndsUnderANestedCacheOfTheSamePool) {
    CNetBufferMgr pool(16, 0);
    {
        CNetBufferMgr::CThreadCache outer(&pool);
        Warm(pool, outer);
        ASSERT_TRUE(pool.Reserve(100));  // from the outer store
        Validate(pool, 2);
        {
            CNetBufferMgr::CThreadCache inner(&pool);
            pool.Unreserve(100);  // the outer's reservation: its block goes into the inner store
            EXPECT_EQ(1, inner.Count());
            Validate(pool, 2);
        }
        Validate(pool, 1);               // the inner cache gave its block back
        ASSERT_TRUE(pool.Reserve(100));  // from the outer store again
        {
            CNetBufferMgr::CThreadCache inner(&pool);
            CBidirList list;
            pool.TakeReserved(100, list);  // the outer's, handed over
            ASSERT_EQ(1u, list.Count());
            Validate(pool, 1);
            pool.Release(list);
            Validate(pool, 0);

            Warm(pool, inner);
            ASSERT_TRUE(pool.Reserve(200));  // from the inner store, left open
            Validate(pool, 2);
        }
        Validate(pool, 1);  // the inner's kept block went back; the reservation is the outer's now
        EXPECT_EQ(0, outer.Count());
        pool.Unreserve(200);  // ends it: its block goes into the outer store
        EXPECT_EQ(1, outer.Count());
        Validate(pool, 1);
    }
    Validate(pool, 0);
    EXPECT_EQ(0ul, pool.GetCacheMisuseCount());
    ExpectWholePool(pool);
}

// A reservation served from a store and ended on another thread (under that thread's cache of
// the same pool, or under none) is a misuse: counted, logged, and repaired. The ending takes
// effect at once; the store's block stays counted as kept until its cache ends.
TEST(NetBufferMgrCacheReserve, AReservationEndedOnAnotherThreadIsCountedAndRepaired) {
    CNetBufferMgr pool(16, 0);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    pool.SetAssertOnCacheMisuse(false);
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        Warm(pool, cache);
        ASSERT_TRUE(pool.Reserve(100));  // from the store
        OnAnotherThread([&pool] {
            CNetBufferMgr::CThreadCache theirs(&pool);
            pool.Unreserve(100);
            EXPECT_EQ(0, theirs.Count());
        });
        EXPECT_EQ(1ul, pool.GetCacheMisuseCount());
        Validate(pool, 2);  // one kept, one that backed the ended reservation
    }
    Validate(pool, 0);
    EXPECT_EQ(1, log.CountPrefix(LOG_PRIORITY_ERROR, kMisusePrefix)) << log.Dump();
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        Warm(pool, cache);
        ASSERT_TRUE(pool.Reserve(100));
        OnAnotherThread([&pool] {
            CBidirList list;
            pool.TakeReserved(100, list);  // no cache here: the blocks come anyway
            ASSERT_EQ(1u, list.Count());
            NetBuffer* b = static_cast<NetBuffer*>(list.Head()->pData);
            EXPECT_EQ(0, b->m_write_pos);
            EXPECT_EQ(0, b->m_is_rx_buf);
            Validate(pool, 3);
            pool.Release(list);
        });
        EXPECT_EQ(2ul, pool.GetCacheMisuseCount());
        Validate(pool, 2);
    }
    Validate(pool, 0);
    EXPECT_EQ(2, log.CountPrefix(LOG_PRIORITY_ERROR, kMisusePrefix)) << log.Dump();
    EXPECT_EQ(0ul, pool.GetDoubleReleaseCount());
    ExpectWholePool(pool);
}

// On its own thread, while a cache of another pool hides the one that served it, a
// reservation ends with no cache of its pool in effect: the same repair.
TEST(NetBufferMgrCacheReserve, AReservationEndedWhileAnotherPoolsCacheHidesItsOwn) {
    CNetBufferMgr pool(16, 0);
    CNetBufferMgr other(16, 0);
    pool.SetAssertOnCacheMisuse(false);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        Warm(pool, cache);
        ASSERT_TRUE(pool.Reserve(100));
        {
            CNetBufferMgr::CThreadCache hiding(&other);
            pool.Unreserve(100);
        }
        EXPECT_EQ(1ul, pool.GetCacheMisuseCount());
        EXPECT_EQ(1, cache.Count());
        Validate(pool, 2);
        Validate(other, 0);
    }
    Validate(pool, 0);
    EXPECT_EQ(0ul, other.GetCacheMisuseCount());
    EXPECT_EQ(1, log.CountPrefix(LOG_PRIORITY_ERROR, kMisusePrefix)) << log.Dump();
    ExpectWholePool(pool);
    ExpectWholePool(other);
}

// The pool's reservations and a store's are alike to the counts: a store's reservation ended
// elsewhere first uses up what the pool backs, and the pool reservation, ended by its owner,
// then finds one block unbacked. Counted once; counts whole at the end.
TEST(NetBufferMgrCacheReserve, AnEndingElsewhereWhilePoolReservationsAreOpen) {
    CNetBufferMgr pool(16, 0);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    pool.SetAssertOnCacheMisuse(false);
    ASSERT_TRUE(pool.Reserve(2 * 65536));  // the pool's, two blocks, no cache
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        Warm(pool, cache);
        ASSERT_TRUE(pool.Reserve(100));  // the store's
        Validate(pool, 4);
        OnAnotherThread([&pool] { pool.Unreserve(100); });  // ends the store's: the pool backs one
        EXPECT_EQ(0ul, pool.GetCacheMisuseCount());         // not to be told apart yet
        Validate(pool, 3);
        pool.Unreserve(2 * 65536);  // two blocks: the pool's, backed by one block only now
        EXPECT_EQ(1ul, pool.GetCacheMisuseCount());
        Validate(pool, 2);  // the kept block and the store's, which stands for nothing now
    }
    Validate(pool, 0);
    // A debt the cache paid leaves nothing behind: the next reservations end exactly.
    ASSERT_TRUE(pool.Reserve(100));
    pool.Unreserve(100);
    EXPECT_EQ(1ul, pool.GetCacheMisuseCount());
    ExpectWholePool(pool);
}

// A store's reservation ended elsewhere, then a pool reservation made and ended under that
// cache, which ends the store's in its place: the pool neither keeps backing the one nor owes
// for the other once all is done.
TEST(NetBufferMgrCacheReserve, APoolReservationMadeWhileOwedTakesTheStoresBlockOver) {
    CNetBufferMgr pool(16, 0);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    pool.SetAssertOnCacheMisuse(false);
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        Warm(pool, cache);
        ASSERT_TRUE(pool.Reserve(100));                     // the store's
        OnAnotherThread([&pool] { pool.Unreserve(100); });  // owed: the store's block stands for nothing
        EXPECT_EQ(1ul, pool.GetCacheMisuseCount());
        OnAnotherThread([&pool] { ASSERT_TRUE(pool.Reserve(100)); });  // takes the store's block over
        Validate(pool, 2);
        pool.Unreserve(100);  // under the cache: the store's block goes back into the store
        EXPECT_EQ(2, cache.Count());
        Validate(pool, 2);
    }
    Validate(pool, 0);
    EXPECT_EQ(1ul, pool.GetCacheMisuseCount());
    ExpectWholePool(pool);
}

// Ending a reservation that was never made changes no count and hands nothing back twice.
TEST(NetBufferMgrCacheReserve, AnEndingThatWasNeverMadeIsCounted) {
    CNetBufferMgr pool(8, 0);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    pool.SetAssertOnCacheMisuse(false);
    pool.Unreserve(100);
    EXPECT_EQ(1ul, pool.GetCacheMisuseCount());
    Validate(pool, 0);
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        Warm(pool, cache);
        pool.Unreserve(70000);  // two blocks, none reserved
        EXPECT_EQ(2ul, pool.GetCacheMisuseCount());
        EXPECT_EQ(2, cache.Count());
        Validate(pool, 2);
    }
    Validate(pool, 0);
    EXPECT_EQ(2, log.CountPrefix(LOG_PRIORITY_ERROR, kMisusePrefix)) << log.Dump();
    ExpectWholePool(pool);
}

// ---- releases across threads ----

// A block a cache keeps is not out: released on another thread, with or without a cache of
// the same pool there, it is refused, and the cache still hands it to one borrower only.
TEST(NetBufferMgrCacheRelease, AKeptBlockReleasedOnAnotherThreadIsRefused) {
    CNetBufferMgr pool(16, 0);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    pool.SetAssertOnDoubleRelease(false);
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        NetBuffer* a = pool.Allocate(false, false);
        NetBuffer* kept = a;
        pool.Release(&a);
        ASSERT_EQ(2, cache.Count());
        OnAnotherThread([&pool, kept] {
            NetBuffer* b = kept;
            pool.Release(&b);
            EXPECT_EQ(nullptr, b);
        });
        EXPECT_EQ(1ul, pool.GetDoubleReleaseCount());
        OnAnotherThread([&pool, kept] {
            CNetBufferMgr::CThreadCache theirs(&pool);
            NetBuffer* b = kept;
            pool.Release(&b);
            CBidirList list;
            list.Insert(&kept->m_node);
            pool.Release(list);
            EXPECT_EQ(0, theirs.Count());
        });
        EXPECT_EQ(3ul, pool.GetDoubleReleaseCount());
        EXPECT_EQ(2, cache.Count());
        Validate(pool, 2);

        NetBuffer* mine = pool.Allocate(false, false);  // from the store
        EXPECT_EQ(kept, mine);
        std::set<NetBuffer*> theirs;
        OnAnotherThread([&pool, &theirs] {
            while (NetBuffer* b = pool.Allocate(false, false)) {
                theirs.insert(b);
            }
        });
        EXPECT_EQ(14u, theirs.size());  // 16 less the one lent here and the one kept
        EXPECT_EQ(0u, theirs.count(mine));
        for (NetBuffer* b : theirs) {
            NetBuffer* p = b;
            pool.Release(&p);
        }
        pool.Release(&mine);
    }
    EXPECT_EQ(3, log.CountPrefix(LOG_PRIORITY_ERROR, kRefusedPrefix)) << log.Dump();
    EXPECT_EQ(3ul, pool.GetDoubleReleaseCount());
    ExpectWholePool(pool);
}

// A block reserved from a store is not out either.
TEST(NetBufferMgrCacheRelease, ABlockBackingAStoreReservationReleasedElsewhereIsRefused) {
    CNetBufferMgr pool(16, 0);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    pool.SetAssertOnDoubleRelease(false);
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        NetBuffer* a = pool.Allocate(false, false);
        NetBuffer* last = a;
        pool.Release(&a);                // the last block stored: the one a reservation takes
        ASSERT_TRUE(pool.Reserve(100));  // from the store
        OnAnotherThread([&pool, last] {
            NetBuffer* b = last;
            pool.Release(&b);
        });
        EXPECT_EQ(1ul, pool.GetDoubleReleaseCount());
        CBidirList list;
        pool.TakeReserved(100, list);
        ASSERT_EQ(1u, list.Count());
        EXPECT_EQ(last, list.Head()->pData);
        Validate(pool, 2);
        pool.Release(list);
    }
    EXPECT_EQ(0ul, pool.GetCacheMisuseCount());
    ExpectWholePool(pool);
}

// A block lent under a cache and released on another thread is no longer the lender's: a
// second release on the lending thread is refused, and the cache does not keep it.
TEST(NetBufferMgrCacheRelease, ReleasedElsewhereThenAgainOnTheLendingThreadIsRefused) {
    CNetBufferMgr pool(16, 0);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    pool.SetAssertOnDoubleRelease(false);
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        NetBuffer* x = pool.Allocate(false, false);
        ASSERT_EQ(1, cache.Count());
        OnAnotherThread([&pool, x] {
            NetBuffer* b = x;
            pool.Release(&b);  // the borrower passed it on: a good release
        });
        EXPECT_EQ(0ul, pool.GetDoubleReleaseCount());
        Validate(pool, 1);
        NetBuffer* again = x;
        pool.Release(&again);  // the lending thread releases it too
        EXPECT_EQ(1ul, pool.GetDoubleReleaseCount());
        EXPECT_EQ(1, cache.Count());
        Validate(pool, 1);
    }
    EXPECT_EQ(1, log.CountPrefix(LOG_PRIORITY_ERROR, kRefusedPrefix)) << log.Dump();
    ExpectWholePool(pool);
}

// Released elsewhere and lent to the same thread again, the block is recorded as lent twice;
// it is kept once only, and its second release is refused.
TEST(NetBufferMgrCacheRelease, ABlockLentAgainAfterARemoteReleaseIsKeptOnce) {
    CNetBufferMgr pool(16, 0);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    pool.SetAssertOnDoubleRelease(false);
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        NetBuffer* x = pool.Allocate(false, false);  // a spare goes into the store
        OnAnotherThread([&pool, x] {
            NetBuffer* b = x;
            pool.Release(&b);  // x heads the pool's free list now
        });
        NetBuffer* spare = pool.Allocate(false, false);  // from the store
        ASSERT_EQ(0, cache.Count());
        NetBuffer* y = pool.Allocate(false, false);  // a miss: x again, and a new spare
        ASSERT_EQ(x, y);
        NetBuffer* y2 = y;
        pool.Release(&y);
        EXPECT_EQ(2, cache.Count());
        pool.Release(&y2);
        EXPECT_EQ(1ul, pool.GetDoubleReleaseCount());
        EXPECT_EQ(2, cache.Count());
        pool.Release(&spare);
        EXPECT_EQ(2, cache.Count());  // full: spare went to the pool
        Validate(pool, 2);
        NetBuffer* p = pool.Allocate(false, false);
        NetBuffer* q = pool.Allocate(false, false);
        EXPECT_NE(p, q);
        pool.Release(&p);
        pool.Release(&q);
    }
    ExpectWholePool(pool);
}

// Passing blocks between threads is no misuse: a block lent under a cache and released
// elsewhere, a block lent elsewhere and released under a cache, and one that went round
// (lent here, released there, lent there, released here) are all accepted once.
TEST(NetBufferMgrCacheRelease, BlocksPassedBetweenThreadsAreAcceptedOnce) {
    CNetBufferMgr pool(16, 0);
    {
        CNetBufferMgr::CThreadCache cache(&pool);
        NetBuffer* mine = pool.Allocate(false, false);
        NetBuffer* const mine_addr = mine;
        NetBuffer* theirs = nullptr;
        NetBuffer* round = nullptr;
        OnAnotherThread([&] {
            theirs = pool.Allocate(true, false);
            pool.Release(&mine);
            round = pool.Allocate(true, false);  // the block just released: it went round
        });
        ASSERT_EQ(mine_addr, round);
        pool.Release(&theirs);  // never lent here: to the pool
        pool.Release(&round);   // lent here once before, out again now: kept
        EXPECT_EQ(2, cache.Count());
        Validate(pool, 2);
    }
    EXPECT_EQ(0ul, pool.GetDoubleReleaseCount());
    EXPECT_EQ(0ul, pool.GetCacheMisuseCount());
    ExpectWholePool(pool);
}

// ---- cache lifetime ----

// Destroyed before a cache installed after it, a cache is unlinked from its thread's chain:
// counted, and the thread's other caches keep working; afterwards no cache is in effect.
TEST(NetBufferMgrCacheLifetime, ACacheDestroyedOutOfOrderIsUnlinked) {
    CNetBufferMgr pool(16, 0);
    CNetBufferMgr other(16, 0);
    pool.SetAssertOnCacheMisuse(false);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    {
        std::optional<CNetBufferMgr::CThreadCache> first(std::in_place, &pool);
        Warm(pool, *first);
        ASSERT_TRUE(pool.Reserve(100));  // from the first store
        std::optional<CNetBufferMgr::CThreadCache> second(std::in_place, &other);
        std::optional<CNetBufferMgr::CThreadCache> third(std::in_place, &pool);  // takes the reservation
        first.reset();                                                           // out of order
        EXPECT_EQ(1ul, pool.GetCacheMisuseCount());
        Validate(pool, 1);  // the reservation's block, now with the third
        pool.Unreserve(100);
        EXPECT_EQ(1, third->Count());
        third.reset();
        Validate(pool, 0);
        NetBuffer* o = other.Allocate(true, false);  // the second serves `other` still
        other.Release(&o);
        EXPECT_EQ(2, second->Count());
        second.reset();
        Validate(other, 0);
    }
    NetBuffer* b = pool.Allocate(true, false);  // no cache in effect: straight back to the pool
    pool.Release(&b);
    Validate(pool, 0);
    EXPECT_EQ(1, log.CountPrefix(LOG_PRIORITY_ERROR, kMisusePrefix)) << log.Dump();
    EXPECT_EQ(0ul, other.GetCacheMisuseCount());
    ExpectWholePool(pool);
    ExpectWholePool(other);
}

// Destroyed on another thread, a cache still gives its blocks, and its open reservation, to
// the pool; the misuse is counted. (Its own thread ended before using any pool again.)
TEST(NetBufferMgrCacheLifetime, ACacheDestroyedOnAnotherThreadGivesEverythingBack) {
    CNetBufferMgr pool(16, 0);
    qntest::LogCapture log(LOG_PRIORITY_TRACE);
    pool.SetLogCat(log.cat());
    pool.SetAssertOnCacheMisuse(false);
    CNetBufferMgr::CThreadCache* cache = nullptr;
    OnAnotherThread([&pool, &cache] {
        cache = new CNetBufferMgr::CThreadCache(&pool);
        Warm(pool, *cache);
        ASSERT_TRUE(pool.Reserve(100));
    });
    ASSERT_NE(nullptr, cache);
    Validate(pool, 2);
    delete cache;
    EXPECT_EQ(1ul, pool.GetCacheMisuseCount());
    Validate(pool, 1);  // the reservation, which the pool backs now
    pool.Unreserve(100);
    EXPECT_EQ(1ul, pool.GetCacheMisuseCount());
    EXPECT_EQ(1, log.CountPrefix(LOG_PRIORITY_ERROR, kMisusePrefix)) << log.Dump();
    ExpectWholePool(pool);
}

// ---- many threads ----

// Holds each of `n` threads until all have arrived, so that their loops overlap.
class CStartGate {
  public:
    explicit CStartGate(int n) : m_left(n) {}
    void ArriveAndWait() {
        std::unique_lock<std::mutex> g(m_lock);
        if (--m_left == 0) {
            m_cv.notify_all();
        }
        m_cv.wait(g, [this] { return m_left == 0; });
    }

  private:
    std::mutex m_lock;
    std::condition_variable m_cv;
    int m_left;
};

// A queue of blocks between threads (a borrower passing blocks on), of at most 8 blocks.
class CHandOff {
  public:
    // False when full: the caller keeps `b`.
    bool Put(NetBuffer* b) {
        std::lock_guard<std::mutex> g(m_lock);
        if (m_blocks.size() >= 8) {
            return false;
        }
        m_blocks.push_back(b);
        return true;
    }
    NetBuffer* Take() {
        std::lock_guard<std::mutex> g(m_lock);
        if (m_blocks.empty()) {
            return nullptr;
        }
        NetBuffer* b = m_blocks.front();
        m_blocks.pop_front();
        return b;
    }

  private:
    std::mutex m_lock;
    std::deque<NetBuffer*> m_blocks;
};

// Four threads under caches renewed now and then, each allocating and releasing singly and in
// chains, reserving from the store and from the pool (nested, ended in reverse order, some left
// open across a renewal, some under a nested cache of the same pool), and passing blocks to
// one another: no misuse, no refusal, and every block back at the end.
TEST(NetBufferMgrCacheStress, FourThreadsWithCachesAndReservations) {
    CNetBufferMgr pool(256, 0);
    const int kThreads = 4;
    const int kRounds = 20000;
    std::vector<CHandOff> hand_off(kThreads);
    std::vector<int> failures(kThreads, 0);
    CStartGate gate(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            gate.ArriveAndWait();
            std::optional<CNetBufferMgr::CThreadCache> cache;
            int open_len = 0;  // a reservation left open across a renewal
            for (int i = 0; i < kRounds; ++i) {
                if (i % 16 == 0) {
                    cache.reset();
                    cache.emplace(&pool);
                    if (open_len > 0) {
                        pool.Unreserve(open_len);
                        open_len = 0;
                    }
                }
                NetBuffer* b = pool.Allocate((i & 1) != 0, false);
                if (b == nullptr) {
                    ++failures[t];
                    continue;
                }
                b->Put("x", 1);
                if (i % 3 != 0 || !hand_off[(t + 1) % kThreads].Put(b)) {
                    pool.Release(&b);
                }
                while (NetBuffer* got = hand_off[t].Take()) {
                    pool.Release(&got);
                }
                int len = 1 + (i * 7919 + t) % 1000;
                if (!pool.Reserve(len)) {
                    ++failures[t];
                    continue;
                }
                int big = 65536 + len;  // two blocks, from the pool
                bool nested = pool.Reserve(big);
                if (i % 7 == 0) {
                    CNetBufferMgr::CThreadCache inner(&pool);  // the reservations pass to it and back
                    NetBuffer* c = pool.Allocate(false, false);
                    pool.Release(&c);
                    if (nested) {
                        pool.Unreserve(big);
                        nested = false;
                    }
                }
                if (nested) {
                    CBidirList two;
                    pool.TakeReserved(big, two);
                    if (two.Count() != 2) {
                        ++failures[t];
                    }
                    pool.Release(two);
                }
                if (i % 5 == 0 && open_len == 0) {
                    open_len = len;  // ended after the next renewal
                } else if (i % 2 == 0) {
                    CBidirList one;
                    pool.TakeReserved(len, one);
                    pool.Release(one);
                } else {
                    pool.Unreserve(len);
                }
                if (i % 11 == 0) {
                    CBidirList chain;
                    if (pool.Allocate(3 * 65536, chain, false)) {
                        pool.Release(chain);
                    }
                }
            }
            cache.reset();
            if (open_len > 0) {
                pool.Unreserve(open_len);
            }
        });
    }
    for (std::thread& th : threads) {
        th.join();
    }
    for (CHandOff& h : hand_off) {
        while (NetBuffer* b = h.Take()) {
            pool.Release(&b);
        }
    }
    for (int f : failures) {
        EXPECT_EQ(0, f);
    }
    EXPECT_EQ(0ul, pool.GetDoubleReleaseCount());
    EXPECT_EQ(0ul, pool.GetCacheMisuseCount());
    ExpectWholePool(pool);
}

// Four threads ending one another's reservations (each a misuse, repaired): first two of them
// end the other two's reservations served from their stores, while no pool reservation is
// open and with no store reservation of their own (so each ending is one the pool cannot
// match), then all at random. However the endings fall, the counts
// come back whole once every cache has ended.
TEST(NetBufferMgrCacheStress, FourThreadsEndingOneAnothersReservations) {
    CNetBufferMgr pool(256, 0);
    pool.SetAssertOnCacheMisuse(false);
    qntest::LogCapture log(LOG_PRIORITY_FATAL);  // the misuses are expected: keep them off stderr
    pool.SetLogCat(log.cat());
    const int kThreads = 4;
    const int kRounds = 20000;
    std::mutex lock;
    // Per thread: lengths of the reservations it made that wait for another thread to end them.
    std::vector<std::deque<int>> open(kThreads);
    auto push = [&](int t, int len) {
        std::lock_guard<std::mutex> g(lock);
        open[t].push_back(len);
    };
    auto pop = [&](int t) {
        std::lock_guard<std::mutex> g(lock);
        if (open[t].empty()) {
            return 0;
        }
        int len = open[t].front();
        open[t].pop_front();
        return len;
    };
    CStartGate reserved(kThreads);
    CStartGate ended(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::optional<CNetBufferMgr::CThreadCache> cache(std::in_place, &pool);
            NetBuffer* w = pool.Allocate(false, false);
            pool.Release(&w);
            if (t % 2 == 1 && pool.Reserve(100)) {  // from the store
                push(t, 100);
            }
            reserved.ArriveAndWait();
            if (t % 2 == 0) {
                if (int len = pop(t + 1)) {
                    pool.Unreserve(len);
                }
            }
            ended.ArriveAndWait();
            for (int i = 0; i < kRounds; ++i) {
                if (i % 8 == 0) {
                    cache.reset();
                    cache.emplace(&pool);
                    w = pool.Allocate(false, false);
                    pool.Release(&w);
                }
                int len = (i + t) % 4 == 0 ? 70000 : 1 + (i * 31 + t) % 5000;
                if (pool.Reserve(len)) {
                    push(t, len);
                }
                for (int k = (i + t) % 3 == 0 ? 2 : 1; k > 0; --k) {  // endings outpace reservations
                    int end_len = pop((t + 1 + i % (kThreads - 1)) % kThreads);  // another thread's
                    if (end_len == 0) {
                        break;
                    }
                    if ((i + k) % 2 == 0) {
                        pool.Unreserve(end_len);
                    } else {
                        CBidirList list;
                        pool.TakeReserved(end_len, list);
                        pool.Release(list);
                    }
                }
            }
        });
    }
    for (std::thread& th : threads) {
        th.join();
    }
    for (std::deque<int>& q : open) {
        for (int len : q) {
            pool.Unreserve(len);
        }
    }
    EXPECT_GE(pool.GetCacheMisuseCount(), static_cast<unsigned long>(kThreads / 2));
    EXPECT_EQ(0ul, pool.GetDoubleReleaseCount());
    ExpectWholePool(pool);
}

#ifndef NDEBUG
// In a build without NDEBUG a misuse fails an assert, as a double release does.
TEST(NetBufferMgrCacheDeathTest, AMisuseAssertsInADebugBuild) {
    EXPECT_DEATH(
        {
            CNetBufferMgr pool(16, 0);
            pool.SetLogCat(nullptr);
            pool.Unreserve(100);  // never reserved
        },
        "thread cache was misused");
    EXPECT_DEATH(
        {
            CNetBufferMgr pool(16, 0);
            std::optional<CNetBufferMgr::CThreadCache> first(std::in_place, &pool);
            std::optional<CNetBufferMgr::CThreadCache> second(std::in_place, &pool);
            first.reset();
        },
        "thread cache was misused");
    EXPECT_DEATH(
        {
            CNetBufferMgr pool(16, 0);
            CNetBufferMgr::CThreadCache cache(&pool);
            NetBuffer* a = pool.Allocate(false, false);
            NetBuffer* kept = a;
            pool.Release(&a);
            OnAnotherThread([&pool, kept] {
                NetBuffer* b = kept;
                pool.Release(&b);
            });
        },
        "released twice");
}
#endif

}  // namespace
