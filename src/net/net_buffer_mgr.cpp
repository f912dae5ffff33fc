#include "net/net_buffer_mgr.h"

#include <sys/time.h>

#include <cassert>
#include <climits>
#include <cstdio>
#include <new>

namespace QUOLNET {

namespace {

// The pool's own category: ERROR and above, to the process-wide output (stderr by default).
LogCategory g_pool_log_cat("quolnet.pool", LOG_PRIORITY_ERROR);

// Blocks that hold `len` bytes (len > 0).
unsigned int BlocksFor(int len) {
    return static_cast<unsigned int>((static_cast<long long>(len) + NetBuffer::kBlockSize - 1) /
                                     NetBuffer::kBlockSize);
}

// The innermost thread cache installed on this thread. Initial-exec: one load from the
// thread pointer, no call, on the paths that run per packet.
__attribute__((tls_model("initial-exec"))) thread_local CNetBufferMgr::CThreadCache* t_cache = nullptr;

// A block's state in its m_uid (see the header): the identifier plain while the block is
// out, with the sign bit set while it is not.
inline int BlockId(const NetBuffer* buf) {
    return buf->m_uid & INT_MAX;
}
inline void MarkOut(NetBuffer* buf) {
    buf->m_uid &= INT_MAX;
}
inline void MarkNotOut(NetBuffer* buf) {
    buf->m_uid |= INT_MIN;
}
inline bool IsOut(const NetBuffer* buf) {
    return buf->m_uid >= 0;
}

}  // namespace

CNetBufferMgr::CThreadCache::CThreadCache(CNetBufferMgr* pool) : m_pool(pool), m_prev(t_cache) {
    // The enclosing cache of the same pool lends this one its reservation state until this
    // one ends (EndCache hands it back), so that a reservation opened under either ends
    // under either.
    for (CThreadCache* c = m_prev; pool != nullptr && c != nullptr; c = c->m_prev) {
        if (c->m_pool == pool) {
            m_reserved_block = c->m_reserved_block;
            m_pool_reservations = c->m_pool_reservations;
            c->m_reserved_block = nullptr;
            c->m_pool_reservations = 0;
            break;
        }
    }
    t_cache = this;
}

CNetBufferMgr::CThreadCache::~CThreadCache() {
    bool misplaced = t_cache != this;
    bool own_thread = !misplaced;
    if (own_thread) {
        t_cache = m_prev;
    } else {
        // Destroyed before a cache installed after it: unlink it so that the thread's
        // chain stays sound. Not found: destroyed on another thread, whose chain is not ours
        // to touch.
        for (CThreadCache* c = t_cache; c != nullptr; c = c->m_prev) {
            if (c->m_prev == this) {
                c->m_prev = m_prev;
                own_thread = true;
                break;
            }
        }
    }
    if (m_pool == nullptr) {
        return;
    }
    CThreadCache* heir = nullptr;
    for (CThreadCache* c = own_thread ? m_prev : nullptr; c != nullptr; c = c->m_prev) {
        if (c->m_pool == m_pool) {
            heir = c;
            break;
        }
    }
    m_pool->EndCache(this, heir, misplaced);
}

void CNetBufferMgr::CThreadCache::NoteLent(NetBuffer* buf) {
    m_lent[m_lent_next] = buf;  // the oldest is forgotten: its release takes the pool's way
    m_lent_next = (m_lent_next + 1) % kLentSlots;
}

bool CNetBufferMgr::CThreadCache::ForgetLent(NetBuffer* buf) {
    for (NetBuffer*& slot : m_lent) {
        if (slot == buf) {
            slot = nullptr;
            return true;
        }
    }
    return false;
}

bool CNetBufferMgr::CThreadCache::Keep(NetBuffer* buf) {
    if (m_count == kThreadCacheBlocks) {
        return false;
    }
    MarkNotOut(buf);  // a release of it, on any thread, is now refused
    m_blocks[m_count++] = buf;
    return true;
}

NetBuffer* CNetBufferMgr::CThreadCache::Pop() {
    return m_count > 0 ? m_blocks[--m_count] : nullptr;
}

CNetBufferMgr::CThreadCache* CNetBufferMgr::LocalCache() {
    CThreadCache* cache = t_cache;
    return cache != nullptr && cache->m_pool == this ? cache : nullptr;
}

bool CNetBufferMgr::RoomyForCaches() const {
    unsigned long long kept_back =
        static_cast<unsigned long long>(m_used_hint.load(std::memory_order_relaxed)) +
        static_cast<unsigned long long>(m_rx_reserve_blocks) + m_tx_reserve_blocks + 2 * kThreadCacheBlocks;
    return kept_back <= m_max_block_num;
}

void CNetBufferMgr::EndCache(CThreadCache* cache, CThreadCache* heir, bool misplaced) {
    NetBuffer* reserved = cache->m_reserved_block;
    cache->m_reserved_block = nullptr;
    if (heir != nullptr) {
        // The heir lent its state to this cache (or to one nested in it) when that was made,
        // so it holds no reservation block of its own now.
        heir->m_pool_reservations += cache->m_pool_reservations;
        if (heir->m_reserved_block == nullptr) {
            heir->m_reserved_block = reserved;
            reserved = nullptr;
        }
    }
    cache->m_pool_reservations = 0;  // without an heir, the pool's reservations end through the pool
    if (cache->m_count == 0 && reserved == nullptr && !misplaced) {
        return;
    }
    {
        AutoLocker locker(&m_mutex);
        while (NetBuffer* buf = cache->Pop()) {
            PutFreeLocked(buf);  // counted as used since it was cached
        }
        if (reserved != nullptr) {
            if (m_reserve_debt > 0) {
                // The pool owes for a reservation ended through it that it did not back:
                // this block pays (it stands for that one, not for a reservation still open).
                --m_reserve_debt;
                PutFreeLocked(reserved);
            } else {
                // Still open: the pool backs it from now on, with this block; m_used already
                // counts it.
                PushFreeLocked(reserved);
                ++m_reserved;
            }
        }
        if (misplaced) {
            ++m_cache_misuse_cnt;
        }
    }
    if (misplaced) {
        ReportCacheMisuse("a thread cache was destroyed out of order or on another thread", cache, 0);
    }
}

CNetBufferMgr::CNetBufferMgr(unsigned int max_block_num, int rx_reserve_blocks, int min_big_packet_len,
                             unsigned int tx_reserve_blocks)
    : m_max_block_num(max_block_num),
      m_rx_reserve_blocks(
          rx_reserve_blocks >= 0
              ? rx_reserve_blocks
              : (max_block_num / 8 > 0 ? static_cast<int>(max_block_num / 8) : (max_block_num > 1 ? 1 : 0))),
      m_tx_reserve_blocks(tx_reserve_blocks < max_block_num ? tx_reserve_blocks : 0),
      m_min_big_packet_len(min_big_packet_len),
      m_used(0),
      m_peak_used(0) {}

CNetBufferMgr::~CNetBufferMgr() {
    for (NetBuffer* b : m_all) {
        delete b;
    }
}

bool CNetBufferMgr::HasRoomLocked(unsigned int limit, unsigned int need) const {
    return m_used <= limit && limit - m_used >= need;  // m_used may stand above a lower limit
}

NetBuffer* CNetBufferMgr::MakeBlockLocked() {
    NetBuffer* buf = new (std::nothrow) NetBuffer;
    if (buf == nullptr) {
        return nullptr;
    }
    buf->m_uid = static_cast<int>(m_all.size());  // its index in m_all
    MarkNotOut(buf);
    m_all.push_back(buf);
    return buf;
}

NetBuffer* CNetBufferMgr::PopFreeLocked(bool for_reservation) {
    NetBuffer* buf = nullptr;
    // The last m_reserved free blocks back reservations: only their holders take them.
    if (for_reservation || m_free.Count() > m_reserved) {
        LIST_NODE* node = m_free.RemoveHead();
        buf = node != nullptr ? static_cast<NetBuffer*>(node->pData) : nullptr;
    }
    if (buf == nullptr) {
        buf = MakeBlockLocked();
        if (buf == nullptr) {
            return nullptr;
        }
    }
    MarkOut(buf);
    buf->Clear();
    return buf;
}

NetBuffer* CNetBufferMgr::TakeLocked(bool is_rx, bool is_big, const struct timeval* now) {
    NetBuffer* buf = PopFreeLocked(false);
    if (buf == nullptr) {
        return nullptr;
    }
    buf->m_is_rx_buf = is_rx ? 1 : 0;
    buf->m_is_big_buf = is_big ? 1 : 0;
    if (now != nullptr) {
        buf->m_tv = *now;
    }
    ++m_used;
    if (m_used > m_peak_used) {
        m_peak_used = m_used;
    }
    NoteUsedLocked();
    return buf;
}

bool CNetBufferMgr::GiveBackLocked(NetBuffer* buf) {
    if (!IsOut(buf) || static_cast<size_t>(buf->m_uid) >= m_all.size() ||
        m_all[static_cast<size_t>(buf->m_uid)] != buf) {
        ++m_double_release_cnt;
        // Free, kept by a thread cache, backing a reservation, or not ours: linking it again
        // would hand it to two borrowers at once.
        return false;
    }
    PutFreeLocked(buf);
    return true;
}

void CNetBufferMgr::PushFreeLocked(NetBuffer* buf) {
    MarkNotOut(buf);
    buf->m_node.pData = buf;
    // Last in, first out: the block handed out next is the one whose memory is still warm in
    // the cache, so a steady load cycles through a few blocks instead of the whole pool.
    m_free.InsertHead(&buf->m_node);
}

void CNetBufferMgr::PutFreeLocked(NetBuffer* buf) {
    PushFreeLocked(buf);
    --m_used;
    NoteUsedLocked();
}

unsigned int CNetBufferMgr::EndPoolReservationLocked(unsigned int need) {
    unsigned int backed = need < m_reserved ? need : m_reserved;
    m_reserved -= backed;
    unsigned int unmatched = need - backed;
    if (unmatched > 0) {
        m_reserve_debt += unmatched;
        ++m_cache_misuse_cnt;
    }
    return unmatched;
}

void CNetBufferMgr::ReportDoubleRelease(NetBuffer* buf) {
    LogCategory* cat = m_log_cat != nullptr ? m_log_cat : &g_pool_log_cat;
    if (log_can_write(cat, LOG_PRIORITY_ERROR, 0, 0) != 0) {
        LogLocation loc = {"src/net/net_buffer_mgr", __LINE__, __func__, nullptr};
        LogRecord rec = {LOG_PRIORITY_ERROR, nullptr, 0, &loc, 0, 0, 0, 0, 0};
        log_write(cat, &rec, "release of a block that is not out refused, block=%p, uid=%d",
                  static_cast<void*>(buf), BlockId(buf));
    }
#ifndef NDEBUG
    assert(!m_assert_on_double_release && "a pool block was released twice");
#endif
}

void CNetBufferMgr::ReportCacheMisuse(const char* what, const void* cache, unsigned int blocks) {
    LogCategory* cat = m_log_cat != nullptr ? m_log_cat : &g_pool_log_cat;
    if (log_can_write(cat, LOG_PRIORITY_ERROR, 0, 0) != 0) {
        LogLocation loc = {"src/net/net_buffer_mgr", __LINE__, __func__, nullptr};
        LogRecord rec = {LOG_PRIORITY_ERROR, nullptr, 0, &loc, 0, 0, 0, 0, 0};
        log_write(cat, &rec, "thread cache misuse: %s, cache=%p, blocks=%u; counts kept whole", what, cache,
                  blocks);
    }
#ifndef NDEBUG
    assert(!m_assert_on_cache_misuse && "a pool's thread cache was misused");
#endif
}

unsigned long CNetBufferMgr::GetDoubleReleaseCount() {
    AutoLocker locker(&m_mutex);
    return m_double_release_cnt;
}

unsigned long CNetBufferMgr::GetCacheMisuseCount() {
    AutoLocker locker(&m_mutex);
    return m_cache_misuse_cnt;
}

NetBuffer* CNetBufferMgr::Allocate(bool is_rx, bool is_big) {
    struct timeval now;
    if (is_rx) {
        gettimeofday(&now, nullptr);
    }
    CThreadCache* cache = LocalCache();
    if (cache != nullptr && cache->m_count > 0 && RoomyForCaches()) {
        NetBuffer* buf = cache->Pop();  // counted as out already: no limit moves
        MarkOut(buf);
        buf->Clear();
        buf->m_is_rx_buf = is_rx ? 1 : 0;
        buf->m_is_big_buf = is_big ? 1 : 0;
        if (is_rx) {
            buf->m_tv = now;
        }
        cache->NoteLent(buf);
        return buf;
    }
    AutoLocker locker(&m_mutex);
    if (m_used >= m_max_block_num || (is_rx && m_used >= m_max_block_num - m_tx_reserve_blocks)) {
        return nullptr;
    }
    NetBuffer* buf = TakeLocked(is_rx, is_big, is_rx ? &now : nullptr);
    if (buf != nullptr && cache != nullptr && cache->m_count == 0 && RoomyForCaches()) {
        // One more for the cache while the lock is held: the reply's reservation, or the
        // next connection's receive block in this tick, then needs no lock of its own.
        NetBuffer* spare = TakeLocked(false, false, nullptr);
        if (spare != nullptr) {
            cache->Keep(spare);  // the cache is empty: it takes it
        }
    }
    if (buf != nullptr && cache != nullptr) {
        cache->NoteLent(buf);
    }
    return buf;
}

bool CNetBufferMgr::Allocate(int len, CBidirList& list, bool is_rx) {
    if (len <= 0) {
        return true;
    }
    unsigned int need = BlocksFor(len);
    struct timeval now;
    if (is_rx) {
        gettimeofday(&now, nullptr);
    }
    CBidirList got;
    AutoLocker locker(&m_mutex);
    unsigned int limit = is_rx ? m_max_block_num - m_tx_reserve_blocks : m_max_block_num;
    if (!HasRoomLocked(limit, need)) {
        return false;
    }
    for (unsigned int i = 0; i < need; ++i) {
        NetBuffer* b = TakeLocked(is_rx, is_rx, is_rx ? &now : nullptr);
        if (b == nullptr) {  // out of memory: undo
            while (LIST_NODE* n = got.RemoveHead()) {
                GiveBackLocked(static_cast<NetBuffer*>(n->pData));
            }
            return false;
        }
        got.Insert(&b->m_node);
    }
    list.Merge(got, false);
    return true;
}

bool CNetBufferMgr::Reserve(int len) {
    if (len <= 0) {
        return true;
    }
    unsigned int need = BlocksFor(len);
    CThreadCache* cache = LocalCache();
    if (cache != nullptr && need == 1 && cache->m_reserved_block == nullptr && cache->m_count > 0 &&
        RoomyForCaches()) {
        cache->m_reserved_block = cache->Pop();  // a real block backs it
        return true;
    }
    if (!ReserveFromPool(need)) {
        return false;
    }
    if (cache != nullptr && cache->m_reserved_block != nullptr) {
        ++cache->m_pool_reservations;  // made while the cache's is open: it ends first
    }
    return true;
}

bool CNetBufferMgr::ReserveFromPool(unsigned int need) {
    AutoLocker locker(&m_mutex);
    if (!HasRoomLocked(m_max_block_num, need)) {
        return false;
    }
    // Back the reservation with free blocks now, so that taking it later cannot fail.
    while (m_free.Count() < m_reserved + need) {
        NetBuffer* buf = MakeBlockLocked();
        if (buf == nullptr) {
            return false;  // out of memory: the blocks made so far wait on the free list
        }
        PushFreeLocked(buf);
    }
    m_reserved += need;
    m_used += need;
    if (m_used > m_peak_used) {
        m_peak_used = m_used;
    }
    // While a debt is owed, a store's block that stands for no reservation is counted as
    // used: the new reservation takes it over instead of a free block (see m_reserve_debt).
    unsigned int settled = m_reserve_debt < m_reserved ? m_reserve_debt : m_reserved;
    m_reserve_debt -= settled;
    m_reserved -= settled;
    m_used -= settled;
    NoteUsedLocked();
    return true;
}

// Which reservation ends: the pool's ones made while the store's was open end first (the
// reverse order of making), then the store's (one block), then the pool's.
NetBuffer* CNetBufferMgr::EndCachedReservation(CThreadCache* cache, unsigned int need) {
    if (cache == nullptr) {
        return nullptr;
    }
    if (cache->m_pool_reservations > 0) {
        --cache->m_pool_reservations;
        return nullptr;
    }
    if (need != 1) {
        return nullptr;  // not the store's: that one is a single block
    }
    NetBuffer* buf = cache->m_reserved_block;
    cache->m_reserved_block = nullptr;
    return buf;
}

void CNetBufferMgr::Unreserve(int len) {
    if (len <= 0) {
        return;
    }
    unsigned int need = BlocksFor(len);
    CThreadCache* cache = LocalCache();
    if (NetBuffer* buf = EndCachedReservation(cache, need)) {
        if (!cache->Keep(buf)) {
            AutoLocker locker(&m_mutex);
            PutFreeLocked(buf);
        }
        return;
    }
    unsigned int unmatched = 0;
    {
        AutoLocker locker(&m_mutex);
        unmatched = EndPoolReservationLocked(need);
        // The blocks the pool backed are free for anyone now; an unmatched block stays
        // counted, as kept by the cache whose reservation it stood for, until that cache ends.
        m_used -= need - unmatched;
        NoteUsedLocked();
    }
    if (unmatched > 0) {
        ReportCacheMisuse(
            "a reservation ended that the pool does not back (ended away from the cache that served it, "
            "or never made)",
            cache, unmatched);
    }
}

void CNetBufferMgr::TakeReserved(int len, CBidirList& list) {
    if (len <= 0) {
        return;
    }
    unsigned int need = BlocksFor(len);
    CThreadCache* cache = LocalCache();
    if (NetBuffer* buf = EndCachedReservation(cache, need)) {
        MarkOut(buf);
        buf->Clear();  // an empty send block, as the pool hands them out
        list.Insert(&buf->m_node);
        return;
    }
    unsigned int unmatched = 0;
    {
        AutoLocker locker(&m_mutex);
        unsigned int backed = need < m_reserved ? need : m_reserved;
        for (unsigned int i = 0; i < backed; ++i) {
            list.Insert(&PopFreeLocked(true)->m_node);  // backed since Reserve: never null
        }
        unmatched = EndPoolReservationLocked(need);  // m_used already counts the backed ones
        // Unmatched: the block that stood for it stays with its cache until that cache ends,
        // so these come on top, beyond the limit if need be (null only without memory).
        for (unsigned int i = 0; i < unmatched; ++i) {
            NetBuffer* buf = PopFreeLocked(false);
            if (buf == nullptr) {
                break;
            }
            list.Insert(&buf->m_node);
            if (++m_used > m_peak_used) {
                m_peak_used = m_used;
            }
        }
        NoteUsedLocked();
    }
    if (unmatched > 0) {
        ReportCacheMisuse(
            "a reservation taken that the pool does not back (taken away from the cache that served it, "
            "or never made)",
            cache, unmatched);
    }
}

void CNetBufferMgr::Release(NetBuffer** buf) {
    if (buf == nullptr || *buf == nullptr) {
        return;
    }
    NetBuffer* b = *buf;
    *buf = nullptr;
    CThreadCache* cache = LocalCache();
    // Only a block this thread borrowed while the cache was installed may go into it, and only
    // while it is still out: released since (here or on another thread), it is free or kept
    // and this release is a second one. Any other release takes the pool's checks below.
    if (cache != nullptr && cache->ForgetLent(b)) {
        if (!IsOut(b)) {
            {
                AutoLocker locker(&m_mutex);
                ++m_double_release_cnt;
            }
            ReportDoubleRelease(b);
            return;
        }
        if (RoomyForCaches() && cache->Keep(b)) {
            return;
        }
    }
    bool ok = false;
    {
        AutoLocker locker(&m_mutex);
        ok = GiveBackLocked(b);
    }
    if (!ok) {
        ReportDoubleRelease(b);
    }
}

void CNetBufferMgr::Release(CBidirList& list) {
    std::vector<NetBuffer*> refused;
    CThreadCache* cache = LocalCache();
    {
        AutoLocker locker(&m_mutex);
        while (LIST_NODE* n = list.RemoveHead()) {
            NetBuffer* b = static_cast<NetBuffer*>(n->pData);
            if (cache != nullptr) {
                cache->ForgetLent(b);
            }
            if (!GiveBackLocked(b)) {  // refuses blocks kept by any thread's cache too
                refused.push_back(b);
            }
        }
    }
    for (NetBuffer* b : refused) {
        ReportDoubleRelease(b);
    }
}

bool CNetBufferMgr::Copy(const CBidirList& from, CBidirList& to) {
    CBidirList got;
    struct timeval now;
    gettimeofday(&now, nullptr);
    {
        AutoLocker locker(&m_mutex);
        unsigned int need = from.Count();
        if (!HasRoomLocked(m_max_block_num, need)) {
            return false;
        }
        for (LIST_NODE* n = from.Head(); n != nullptr; n = n->pNext) {
            NetBuffer* b = TakeLocked(false, false, &now);
            if (b == nullptr) {
                while (LIST_NODE* g = got.RemoveHead()) {
                    GiveBackLocked(static_cast<NetBuffer*>(g->pData));
                }
                return false;
            }
            got.Insert(&b->m_node);
        }
    }
    // Copy contents outside the pool lock; the new blocks belong to nobody else yet.
    LIST_NODE* dst = got.Head();
    for (LIST_NODE* n = from.Head(); n != nullptr; n = n->pNext, dst = dst->pNext) {
        const NetBuffer* s = static_cast<const NetBuffer*>(n->pData);
        NetBuffer* d = static_cast<NetBuffer*>(dst->pData);
        d->m_read_pos = s->m_read_pos;
        d->m_write_pos = s->m_write_pos;
        d->m_limit_pos = s->m_limit_pos;
        d->m_is_rx_buf = s->m_is_rx_buf;
        d->m_is_big_buf = s->m_is_big_buf;
        // d->m_tv keeps the time of this copy (set by TakeLocked): the copy is a new block.
        memcpy(d->m_buf, s->m_buf, s->m_write_pos);
    }
    to.Merge(got, false);
    return true;
}

bool CNetBufferMgr::CanAllocateSendBuf(int len) {
    long long need = len <= 0 ? 0 : (static_cast<long long>(len) + GetBlockSize() - 1) / GetBlockSize();
    AutoLocker locker(&m_mutex);
    long long room = static_cast<long long>(m_max_block_num) - m_rx_reserve_blocks - m_used;
    return need <= room;
}

unsigned int CNetBufferMgr::GetUsedCount() {
    AutoLocker locker(&m_mutex);
    return m_used;
}

unsigned int CNetBufferMgr::GetFreeCount() {
    AutoLocker locker(&m_mutex);
    return m_free.Count() - m_reserved;  // blocks backing reservations are not waiting for reuse
}

unsigned int CNetBufferMgr::GetPeakUsedCount() {
    AutoLocker locker(&m_mutex);
    return m_peak_used;
}

}  // namespace QUOLNET
