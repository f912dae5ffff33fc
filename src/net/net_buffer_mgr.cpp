#include "net/net_buffer_mgr.h"

#include <sys/time.h>

#include <cassert>
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

}  // namespace

CNetBufferMgr::CThreadCache::CThreadCache(CNetBufferMgr* pool) : m_pool(pool), m_prev(t_cache) {
    t_cache = this;
}

CNetBufferMgr::CThreadCache::~CThreadCache() {
    if (m_pool != nullptr) {
        m_pool->FlushCache(this);
    }
    t_cache = m_prev;
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
    m_blocks[m_count++] = buf;
    return true;
}

NetBuffer* CNetBufferMgr::CThreadCache::Pop() {
    return m_count > 0 ? m_blocks[--m_count] : nullptr;
}

bool CNetBufferMgr::CThreadCache::Holds(NetBuffer* buf) const {
    if (buf == m_reserved_block) {
        return true;
    }
    for (int i = 0; i < m_count; ++i) {
        if (m_blocks[i] == buf) {
            return true;
        }
    }
    return false;
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

void CNetBufferMgr::FlushCache(CThreadCache* cache) {
    if (cache->m_count == 0) {
        return;
    }
    AutoLocker locker(&m_mutex);
    while (NetBuffer* buf = cache->Pop()) {
        GiveBackLocked(buf);  // out since it was cached: accepted
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
    buf->m_uid = static_cast<int>(m_all.size());
    m_all.push_back(buf);
    m_out.push_back(0);
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
    m_out[static_cast<size_t>(buf->m_uid)] = 1;
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
    size_t uid = static_cast<size_t>(buf->m_uid);
    if (buf->m_uid < 0 || uid >= m_all.size() || m_all[uid] != buf || m_out[uid] == 0) {
        ++m_double_release_cnt;
        return false;  // already free (or not ours): linking it again would corrupt the free list
    }
    m_out[uid] = 0;
    buf->m_node.pData = buf;
    // Last in, first out: the block handed out next is the one whose memory is still warm in
    // the cache, so a steady load cycles through a few blocks instead of the whole pool.
    m_free.InsertHead(&buf->m_node);
    --m_used;
    NoteUsedLocked();
    return true;
}

void CNetBufferMgr::ReportDoubleRelease(NetBuffer* buf) {
    LogCategory* cat = m_log_cat != nullptr ? m_log_cat : &g_pool_log_cat;
    if (log_can_write(cat, LOG_PRIORITY_ERROR, 0, 0) != 0) {
        LogLocation loc = {"src/net/net_buffer_mgr", __LINE__, __func__, nullptr};
        LogRecord rec = {LOG_PRIORITY_ERROR, nullptr, 0, &loc, 0, 0, 0, 0, 0};
        log_write(cat, &rec, "release of a block that is not out refused, block=%p, uid=%d",
                  static_cast<void*>(buf), buf->m_uid);
    }
#ifndef NDEBUG
    assert(!m_assert_on_double_release && "a pool block was released twice");
#endif
}

unsigned long CNetBufferMgr::GetDoubleReleaseCount() {
    AutoLocker locker(&m_mutex);
    return m_double_release_cnt;
}

NetBuffer* CNetBufferMgr::Allocate(bool is_rx, bool is_big) {
    struct timeval now;
    if (is_rx) {
        gettimeofday(&now, nullptr);
    }
    CThreadCache* cache = LocalCache();
    if (cache != nullptr && cache->m_count > 0 && RoomyForCaches()) {
        NetBuffer* buf = cache->Pop();  // out already: no limit moves
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
        buf->m_node.pData = buf;
        m_free.InsertHead(&buf->m_node);
    }
    m_reserved += need;
    m_used += need;
    if (m_used > m_peak_used) {
        m_peak_used = m_used;
    }
    NoteUsedLocked();
    return true;
}

// Which reservation ends: the pool's ones made while the store's was open end first (the
// reverse order of making), then the store's, then the pool's.
NetBuffer* CNetBufferMgr::EndCachedReservation(CThreadCache* cache) {
    if (cache == nullptr) {
        return nullptr;
    }
    if (cache->m_pool_reservations > 0) {
        --cache->m_pool_reservations;
        return nullptr;
    }
    NetBuffer* buf = cache->m_reserved_block;
    cache->m_reserved_block = nullptr;
    return buf;
}

void CNetBufferMgr::Unreserve(int len) {
    if (len <= 0) {
        return;
    }
    CThreadCache* cache = LocalCache();
    if (NetBuffer* buf = EndCachedReservation(cache)) {
        if (!cache->Keep(buf)) {
            AutoLocker locker(&m_mutex);
            GiveBackLocked(buf);
        }
        return;
    }
    unsigned int need = BlocksFor(len);
    AutoLocker locker(&m_mutex);
    m_reserved -= need;
    m_used -= need;
    NoteUsedLocked();
}

void CNetBufferMgr::TakeReserved(int len, CBidirList& list) {
    if (len <= 0) {
        return;
    }
    if (NetBuffer* buf = EndCachedReservation(LocalCache())) {
        buf->Clear();  // an empty send block, as the pool hands them out
        list.Insert(&buf->m_node);
        return;
    }
    unsigned int need = BlocksFor(len);
    AutoLocker locker(&m_mutex);
    for (unsigned int i = 0; i < need; ++i) {
        list.Insert(&PopFreeLocked(true)->m_node);  // backed since Reserve: never null
    }
    m_reserved -= need;  // m_used already counts them
}

void CNetBufferMgr::Release(NetBuffer** buf) {
    if (buf == nullptr || *buf == nullptr) {
        return;
    }
    CThreadCache* cache = LocalCache();
    if (cache != nullptr) {
        // Only a block this thread borrowed while the cache was installed, and has not given
        // back since, may go into it: that one is known to be out. Any other release takes
        // the pool's checks below.
        if (cache->ForgetLent(*buf)) {
            if (RoomyForCaches() && cache->Keep(*buf)) {
                *buf = nullptr;
                return;
            }
        } else if (cache->Holds(*buf)) {
            {
                AutoLocker locker(&m_mutex);
                ++m_double_release_cnt;
            }
            ReportDoubleRelease(*buf);
            *buf = nullptr;
            return;
        }
    }
    bool ok = false;
    {
        AutoLocker locker(&m_mutex);
        ok = GiveBackLocked(*buf);
    }
    if (!ok) {
        ReportDoubleRelease(*buf);
    }
    *buf = nullptr;
}

void CNetBufferMgr::Release(CBidirList& list) {
    std::vector<NetBuffer*> refused;
    CThreadCache* cache = LocalCache();
    {
        AutoLocker locker(&m_mutex);
        while (LIST_NODE* n = list.RemoveHead()) {
            NetBuffer* b = static_cast<NetBuffer*>(n->pData);
            bool cached = false;
            if (cache != nullptr) {
                cache->ForgetLent(b);
                cached = cache->Holds(b);
                if (cached) {
                    ++m_double_release_cnt;  // the thread's cache keeps it: not out to anyone
                }
            }
            if (cached || !GiveBackLocked(b)) {
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
