// CNetBufferMgr: the pool of NetBuffer blocks shared by all connectors of a process.
//
// The pool hands out at most `max_block_num` blocks at a time. Blocks are made on first
// demand and recycled: a released block goes to a free list and is handed out again; the
// memory is given back to the system only when the pool is destroyed, which must happen
// after every borrower has released its blocks (blocks still out at destruction are freed
// too, so a late Release would touch freed memory).
//
// Every block handed out (singly, in a chain or as a copy) is empty unless copied and has its
// node's pData pointing at itself. Receive blocks (is_rx) and copies carry the time they
// were handed out in m_tv (a copy's wait starts when it is made, not when the original's
// did); send blocks come with m_tv zero, because the send path stamps a block when it puts
// the first bytes in and would overwrite the pool's stamp anyway. Released blocks are
// handed out again last in, first out, so a steady load reuses blocks that are still cached.
//
// Send blocks and receive blocks come from the same pool. So that a flood of outgoing data
// cannot starve reading (and so stall every connection that waits for a reply),
// CanAllocateSendBuf keeps back a reserve of receive blocks: by default one eighth of the
// pool, at least one block when the pool has two or more (a one-block pool keeps none).
// Allocate itself does not apply the reserve; it is advice that IsSendBufEnough passes on
// to the application.
//
// The other way round, a pool may keep back `tx_reserve_blocks` from receiving (0 by
// default; the connector manager's own pool keeps a sixteenth): receive allocations
// (is_rx) are refused when no more than that many blocks are free, so that when reading has
// taken everything else the replies that would let received packets go can still reserve
// blocks, and the server cannot deadlock on its own pool.
//
// GetMinBigPacketLen (default 1 MiB): a receive that waits for the chain of a packet at
// least this long is flagged as waiting for a big buffer, and the update driver stops
// reading that socket until the owner retries (the kernel keeps the bytes meanwhile).
//
// A block released while it is not out (released twice, or not made by this pool) is
// refused loudly: it is not put on the free list again (which would hand it to two borrowers
// at once), the refusal is counted (GetDoubleReleaseCount) and logged at ERROR, once per
// occurrence, with the block's address ("release of a block that is not out refused,
// block=%p, uid=%d" to the pool's category: SetLogCat, by default a category of its own,
// "quolnet.pool", that writes ERROR and above to the process-wide log output), and in a build
// without NDEBUG it also fails an assert, unless SetAssertOnDoubleRelease(false) turned that
// off (tests that check the counting do so, so that they run in every build). A block is out
// from the moment it is handed to a borrower until its first release; a block kept by a
// thread cache, or backing a reservation, is not out, whichever thread releases it. What the
// pool cannot tell apart is a late second release after the block was handed out again: that
// one looks like the new borrower's release, with or without thread caches.
//
// The pool marks the state in each block's m_uid: the identifier plain (>= 0) while the block
// is out, with its sign bit set while it is free, kept by a thread cache or backing a
// reservation. Borrowers only ever see the plain identifier; logs print the plain one.
//
// All operations are thread-safe; one internal mutex guards the free list and counters.
//
// A thread may keep a few blocks for itself for a while (CThreadCache): while one is
// installed on the calling thread, that thread's releases of single blocks go into it and its
// single-block allocations and one-block reservations come out of it, without the pool's
// mutex. Its blocks stay counted as out (GetUsedCount, the peak and every limit see them as
// borrowed), so no limit is ever exceeded; the pool's free list does not see them until the
// cache gives them back, at the latest when it is destroyed. Only a block handed to the
// same thread while the cache was installed goes into it when released (it is known to be
// out); a block the cache keeps is not out, so a release of it, on any thread, is refused
// as a double release. A loop installs one for the length of one tick, so a burst of
// short-lived blocks (a receive block per ping-pong packet, the room reserved for each direct
// write) costs one pool round trip per tick instead of two per packet. While the pool is
// nearly exhausted (fewer than 2 * kThreadCacheBlocks blocks of room beyond both reserves, as
// last seen) a cache takes in nothing and hands out nothing, so the reserves keep their
// meaning.
//
// Reservations and thread caches: a reservation may be served from the store of the cache in
// effect (see CThreadCache). Its end belongs on the thread that made it, while that cache or
// a cache of the same pool nested in it is in effect, or after that cache has ended (a cache
// that ends with a reservation open hands it to the enclosing cache of the same pool, or to
// the pool, counts unchanged); reservations made with no cache in effect may end anywhere.
// A reservation ended elsewhere (on another thread, or while a cache of another pool hides
// the one that served it), or ended without having been made, is a thread cache misuse: the
// pool keeps its counts whole (the ending takes effect at once; the block that backed a
// reservation served from a store stays counted as kept by that cache until it ends, unless
// a reservation made meanwhile takes it over, whose ending may then be counted too; and a
// TakeReserved gets its blocks anyway, if need be above the limit until then), counts the
// event (GetCacheMisuseCount), logs it at ERROR once per occurrence ("thread cache misuse:
// ..."), and in a build without NDEBUG fails an assert unless SetAssertOnCacheMisuse(false).
// A cache destroyed on another thread than its own, or before a cache installed after it on
// its thread, is the same kind of misuse, and still gives everything back: out of order on
// its own thread it is unlinked and the thread's other caches keep working; its own thread's
// record of a cache destroyed elsewhere cannot be repaired, so that thread must not call any
// pool afterwards.
#pragma once

#include <atomic>
#include <vector>

#include "../common/export.h"
#include "../common/mutex.h"
#include "../log/log.h"
#include "bi_list.h"
#include "net_buffer.h"

namespace QUOLNET {

class QUOLNET_EXPORT CNetBufferMgr {
  public:
    static constexpr int kThreadCacheBlocks = 2;  // blocks a thread cache keeps at most

    // Installs a store of at most kThreadCacheBlocks blocks of `pool` for the calling thread
    // until destruction, which gives them back to the pool (one lock) and reinstalls the
    // cache that was installed before (caches nest; only the innermost is used, and only for
    // its own pool). Constructed and destroyed on the same thread, innermost first (another
    // order is a counted misuse, see above); not movable. `pool` must outlive the cache (the
    // cache gives its blocks back to it when destroyed).
    //
    // Reservations served from the store: at most one at a time per thread and pool (a direct
    // write reserves, writes, then ends its reservation). Further reservations made meanwhile
    // on the same thread go to the pool, and reservations end in the reverse order of their
    // making, as every caller in the library does. A cache made while a cache of the same pool
    // is installed takes over that one's reservation state and hands it back when it ends, so
    // a reservation may end under either. A cache that ends with the store's reservation
    // still open gives its block to the pool, which then backs that reservation like one of
    // its own: it ends (Unreserve, TakeReserved) with no cache or under any later one.
    class QUOLNET_EXPORT CThreadCache {
      public:
        explicit CThreadCache(CNetBufferMgr* pool);
        ~CThreadCache();
        CThreadCache(const CThreadCache&) = delete;
        CThreadCache& operator=(const CThreadCache&) = delete;

        // Blocks kept now (for tests and statistics), not counting one that backs a
        // reservation. Owning thread only.
        int Count() const { return m_count; }

      private:
        friend class CNetBufferMgr;
        static constexpr int kLentSlots = 8;
        // Records a block handed to this thread; ForgetLent(b) is true (and forgets it) when
        // `b` was recorded and not forgotten since. A record may outlive the loan (the block
        // was released on another thread): the release path checks that the block is still
        // out before keeping it.
        void NoteLent(NetBuffer* buf);
        bool ForgetLent(NetBuffer* buf);
        // Keep: stores `buf` (marked as not out) unless the store is full (false). Pop: the
        // last block stored, still marked as not out, or null.
        bool Keep(NetBuffer* buf);
        NetBuffer* Pop();

        // All members: owning thread only (the pool reads them on that thread).
        CNetBufferMgr* m_pool;
        CThreadCache* m_prev;
        NetBuffer* m_blocks[kThreadCacheBlocks];
        int m_count = 0;
        NetBuffer* m_reserved_block = nullptr;  // backs the reservation served from the store
        int m_pool_reservations = 0;            // made from the pool while that one is open
        NetBuffer* m_lent[kLentSlots] = {};     // blocks lent to this thread, not given back
        int m_lent_next = 0;
    };

    // A pool of at most `max_block_num` blocks at once; `rx_reserve_blocks` of them are kept
    // back from CanAllocateSendBuf (-1 selects one eighth of the pool, at least one).
    // `tx_reserve_blocks` are kept back from receive allocations (see above).
    explicit CNetBufferMgr(unsigned int max_block_num, int rx_reserve_blocks = -1,
                           int min_big_packet_len = 1 << 20, unsigned int tx_reserve_blocks = 0);
    ~CNetBufferMgr();
    CNetBufferMgr(const CNetBufferMgr&) = delete;
    CNetBufferMgr& operator=(const CNetBufferMgr&) = delete;

    // Payload bytes of one block: 65536.
    int GetBlockSize() const { return NetBuffer::kBlockSize; }

    // One empty block flagged with is_rx / is_big, or null when the pool is exhausted.
    NetBuffer* Allocate(bool is_rx, bool is_big);

    // Appends ceil(len / block size) empty blocks to `list` (none for len <= 0), all or
    // nothing: on failure returns false and leaves `list` as it was. Receive chains
    // (is_rx) are flagged as big-packet blocks.
    bool Allocate(int len, CBidirList& list, bool is_rx);

    // Reservations, for a writer that may need blocks only after it has written: Reserve
    // counts ceil(len / block size) blocks as out (used, and in the peak) under the limit of
    // Allocate(len, list, false), without handing any over, and makes sure that many free
    // blocks exist for it, so that TakeReserved cannot fail. All or nothing: false changes
    // no count. Each successful Reserve(len) is ended by exactly one Unreserve(len) (the
    // blocks were not needed) or TakeReserved(len, list) (appends that many empty send
    // blocks to `list`, which are then released like any others). Free blocks that back a
    // reservation are not counted by GetFreeCount and not handed to anyone else. Where a
    // reservation may end when a thread cache served it: see CThreadCache; an ending the
    // pool cannot match is a counted misuse that leaves the counts whole (see above).
    bool Reserve(int len);
    void Unreserve(int len);
    void TakeReserved(int len, CBidirList& list);

    // Returns one block (null is ignored) and sets *buf to null.
    void Release(NetBuffer** buf);

    // Returns every block linked in `list` and leaves `list` empty.
    void Release(CBidirList& list);

    // Appends to `to` new blocks holding the same bytes, positions and flags as the blocks
    // of `from`, in the same order; each copy is stamped with the time of the copy. All or
    // nothing: false leaves `to` unchanged. `from` and `to` must be different lists.
    bool Copy(const CBidirList& from, CBidirList& to);

    int GetMinBigPacketLen() const { return m_min_big_packet_len; }

    // Whether len bytes of outgoing data (ceil(len / block size) blocks, none for len <= 0)
    // could be given blocks now without eating into the receive reserve:
    // used + needed + reserve <= max_block_num.
    bool CanAllocateSendBuf(int len);

    // Accounting, for owners and tests that prove nothing leaked.
    unsigned int GetMaxBlockNum() const { return m_max_block_num; }
    unsigned int GetUsedCount();      // blocks handed out and not yet released
    unsigned int GetFreeCount();      // blocks made and waiting for reuse
    unsigned int GetPeakUsedCount();  // most blocks out at once since construction
    int GetRxReserveBlocks() const { return m_rx_reserve_blocks; }
    unsigned int GetTxReserveBlocks() const { return m_tx_reserve_blocks; }

    // Releases refused because the block was not out (see above). Any thread.
    unsigned long GetDoubleReleaseCount();
    // Where refusals are logged; null selects the pool's own category. Set before use.
    void SetLogCat(LogCategory* cat) { m_log_cat = cat; }
    // Whether a refusal also fails an assert in builds without NDEBUG (default true).
    void SetAssertOnDoubleRelease(bool on) { m_assert_on_double_release = on; }
    // Thread cache misuses the pool repaired (see above): reservations ended where the pool
    // could not match them, caches destroyed out of order or on another thread. Any thread.
    unsigned long GetCacheMisuseCount();
    // Whether a misuse also fails an assert in builds without NDEBUG (default true). Set
    // before use.
    void SetAssertOnCacheMisuse(bool on) { m_assert_on_cache_misuse = on; }

  private:
    // The calling thread's cache for this pool, or null.
    CThreadCache* LocalCache();
    // Whether caches may take in and hand out blocks now: the pool has room beyond both
    // reserves for twice what caches keep, as last seen (m_used_hint). Any thread.
    bool RoomyForCaches() const;
    // Ends `cache` for the pool: gives back every block it keeps, and hands its reservation
    // state to `heir` (the enclosing cache of this pool on the same thread, or null) or,
    // without one, the block behind its open reservation to the pool, which backs the
    // reservation with it from then on (or, owing a debt, takes it back as merely kept).
    // `misplaced`: destroyed out of order or on another thread (counted and reported).
    // Called on the thread that destroys the cache; takes m_mutex only when it has a block
    // to give back or a misuse to count.
    void EndCache(CThreadCache* cache, CThreadCache* heir, bool misplaced);
    // Reserve's locked part: `need` blocks counted as out and backed by free blocks.
    bool ReserveFromPool(unsigned int need);
    // The block behind the reservation of `need` blocks that ends now (Unreserve,
    // TakeReserved) when it is the one `cache` serves from its store (the cache lets go of
    // it); null when it is the pool's (a pool reservation made meanwhile is counted off) or
    // `cache` is null.
    static NetBuffer* EndCachedReservation(CThreadCache* cache, unsigned int need);
    // Keeps m_used_hint in step with m_used. Caller holds m_mutex.
    void NoteUsedLocked() { m_used_hint.store(m_used, std::memory_order_relaxed); }
    // Takes a block from the free list or makes one; caller holds m_mutex and has checked
    // the limit.
    NetBuffer* TakeLocked(bool is_rx, bool is_big, const struct timeval* now);  // null now: m_tv zero
    // An empty block marked out, from the free list (leaving the blocks that back
    // reservations, unless `for_reservation`) or newly made; null when memory cannot be had.
    // Counts nothing. Caller holds m_mutex.
    NetBuffer* PopFreeLocked(bool for_reservation);
    // Whether `need` more blocks keep the blocks out within `limit`. Caller holds m_mutex.
    bool HasRoomLocked(unsigned int limit, unsigned int need) const;
    // A new block, not out and on no list; null when memory cannot be had. Caller holds
    // m_mutex.
    NetBuffer* MakeBlockLocked();
    // Puts a block released by a borrower back on the free list and returns true; refuses
    // (false, counted) a block that is not out or not this pool's. Caller holds m_mutex.
    bool GiveBackLocked(NetBuffer* buf);
    // Puts a block the pool counts as used (out, kept or backing a store's reservation) on
    // the free list, marked as not out; PutFreeLocked also counts it off m_used. Caller holds
    // m_mutex.
    void PushFreeLocked(NetBuffer* buf);
    void PutFreeLocked(NetBuffer* buf);
    // Ends `need` blocks of reservations through the pool: the ones its reservations back,
    // and for the rest (an ending the pool cannot match, counted as a misuse) a debt (see
    // m_reserve_debt). Returns the blocks the pool did not back. Caller holds m_mutex.
    unsigned int EndPoolReservationLocked(unsigned int need);
    // Logs a refused release (pool mutex not held) and asserts when asked to.
    void ReportDoubleRelease(NetBuffer* buf);
    // Logs a thread cache misuse (pool mutex not held; counted already) and asserts when
    // asked to.
    void ReportCacheMisuse(const char* what, const void* cache, unsigned int blocks);

    const unsigned int m_max_block_num;
    const int m_rx_reserve_blocks;
    const unsigned int m_tx_reserve_blocks;
    const int m_min_big_packet_len;

    Mutex m_mutex;
    CBidirList m_free;              // guarded by m_mutex
    std::vector<NetBuffer*> m_all;  // every block ever made, by identifier; guarded by m_mutex
    unsigned int m_used;            // guarded by m_mutex
    // m_used as last stored under m_mutex, read without it by thread caches.
    std::atomic<unsigned int> m_used_hint{0};
    unsigned int m_peak_used;     // guarded by m_mutex
    unsigned int m_reserved = 0;  // counted in m_used, each backed by a free block; guarded by m_mutex
    // Blocks of reservations that ended through the pool while none of its own backed them
    // (a misuse): as many blocks behind stores' reservations stand for no reservation now. A
    // cache that ends with one pays a block of the debt by giving it back instead of handing
    // it to the pool, and a pool reservation made meanwhile takes one over (it is backed by
    // that block instead of a free one), so the pool never both owes and backs: m_reserve_debt
    // == 0 || m_reserved == 0. Guarded by m_mutex.
    unsigned int m_reserve_debt = 0;
    unsigned long m_double_release_cnt = 0;  // guarded by m_mutex
    unsigned long m_cache_misuse_cnt = 0;    // guarded by m_mutex
    LogCategory* m_log_cat = nullptr;
    bool m_assert_on_double_release = true;
    bool m_assert_on_cache_misuse = true;
};

}  // namespace QUOLNET
