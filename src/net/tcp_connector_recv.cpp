// CTcpConnector: the receive path.
//
// Reading: Recv drains the socket into pooled receive blocks (m_rx_queue, newest block =
// m_rx_buffer at its tail) and runs a small state machine (m_rx_status) that remembers what
// the next read is for: a header, the body of a packet that fits in one block, the chain of
// blocks of a packet longer than one block, or parsing that could not finish.
//
// Framing: ParseNetBuffer asks the IPackParser for each packet's length, tracks the packet
// being assembled in m_rx_packet and, once it is complete, hands it to the receive callback
// or files it in the ring m_packet_info. A packet of at most 65536 bytes always lies whole in
// one block (one that would run past the end of its block is moved to a fresh block first),
// so Peek hands it out in place; a longer packet spans a chain of blocks and is joined, once,
// into a combine buffer.
//
// Releasing: Drop frees blocks lazily from the front of m_rx_queue, stopping at the first
// block still used by a queued packet, by the packet being assembled or by the read position.
// The current block itself goes back once nothing needs it (ReleaseIdleRxLocked, at the end
// of Recv and in the Drop that empties the ring), so an idle connection holds no block.
//
// The ring: its first kInlinePacketSlots packets live in the connector; framing moves it to
// ring storage of kPacketInfoSize slots (GrowPacketRing) before filing one more, and the
// Drop that empties the ring gives that storage back. Storage comes from a small
// process-wide cache, so a steady load never reaches the heap for it.
//
// Threads: Recv and everything it calls run on the update thread. Peek and Drop may run on
// one consumer thread. They meet under m_rx_mutex, which guards m_rx_queue, the ring indices
// and the rebinding of m_rx_packet.buffer and m_rx_buffer. The mutex is never held across a
// socket read, a payload copy of a whole packet or the receive callback. Bytes that the
// update thread writes into a block always lie past every byte of a filed packet, and the
// ring push (under the mutex) publishes a packet's bytes to the consumer.
//
// Choices made here:
// - The hex dump of the first received packet shows at most 128 bytes and never more than
//   the packet's first block holds, so it never reads past the block.
// - A big packet for the callback is joined into the callback's combine buffer only when it
//   fits (its length is at most the buffer's length); otherwise joining counts as failed and
//   the packet is filed in the ring for Peek, with the usual "CombinePacket() failed" error.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>

#include "net/tcp_connector.h"
#include "net/tcp_connector_log.h"

// Older C library headers lack the queued-bytes report of reads (Linux 4.18 and later).
#ifndef TCP_INQ
#define TCP_INQ 36
#endif
#ifndef TCP_CM_INQ
#define TCP_CM_INQ TCP_INQ
#endif

namespace QUOLNET {

namespace {

// Microseconds from `from` to `to`, in 32-bit two's-complement arithmetic: the difference
// wraps for waits longer than about 35 minutes, exactly as a plain 32-bit int computation
// would, but without signed overflow (the arithmetic runs unsigned, then is converted).
int WaitMicros(const struct timeval& from, const struct timeval& to) {
    uint32_t sec = static_cast<uint32_t>(static_cast<int64_t>(to.tv_sec) - static_cast<int64_t>(from.tv_sec));
    uint32_t wait = sec * 1000000u - static_cast<uint32_t>(from.tv_usec) + static_cast<uint32_t>(to.tv_usec);
    return static_cast<int>(static_cast<int32_t>(wait));
}

NetBuffer* NextBlock(NetBuffer* buffer) {
    LIST_NODE* next = buffer->m_node.pNext;
    return next == nullptr ? nullptr : static_cast<NetBuffer*>(next->pData);
}

// Ring storages given back and kept for reuse, shared by every connector of the process.
struct PacketRingCache {
    Mutex mutex;
    PacketInfo* cached[CTcpConnector::kPacketRingCacheMax];  // guarded by mutex
    long cached_cnt = 0;                                     // guarded by mutex
    std::atomic<long> in_use{0};                             // held by connectors
};

PacketRingCache& RingCache() {
    // Made on first use and never destroyed, so that a connector with static storage
    // duration may still give its ring back while the process exits.
    static PacketRingCache* cache = new PacketRingCache;
    return *cache;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Ring storage
// ---------------------------------------------------------------------------------------

PacketInfo* CTcpConnector::TakePacketRing() {
    PacketRingCache& cache = RingCache();
    PacketInfo* ring = nullptr;
    {
        AutoLocker locker(&cache.mutex);
        if (cache.cached_cnt > 0) {
            ring = cache.cached[--cache.cached_cnt];
        }
    }
    if (ring == nullptr) {
        ring = new (std::nothrow) PacketInfo[kPacketInfoSize];
        if (ring == nullptr) {
            return nullptr;
        }
    }
    cache.in_use.fetch_add(1, std::memory_order_relaxed);
    return ring;
}

void CTcpConnector::GivePacketRing(PacketInfo* ring) {
    if (ring == nullptr) {
        return;
    }
    PacketRingCache& cache = RingCache();
    cache.in_use.fetch_sub(1, std::memory_order_relaxed);
    {
        AutoLocker locker(&cache.mutex);
        if (cache.cached_cnt < kPacketRingCacheMax) {
            cache.cached[cache.cached_cnt++] = ring;
            return;
        }
    }
    delete[] ring;
}

long CTcpConnector::GetPacketRingsInUse() {
    return RingCache().in_use.load(std::memory_order_relaxed);
}

long CTcpConnector::GetPacketRingsCached() {
    PacketRingCache& cache = RingCache();
    AutoLocker locker(&cache.mutex);
    return cache.cached_cnt;
}

bool CTcpConnector::GrowPacketRing() {
    PacketInfo* ring = TakePacketRing();
    if (ring == nullptr) {
        return false;
    }
    {
        MaybeLocker locker = LockRx();
        if (m_packet_info == nullptr && m_packet_head_idx != -1) {
            // Live slots keep their indices. The consumer may be reading the head's inline
            // slot without the lock (Peek): it is copied, not changed, and the inline slots
            // are written again only after the ring has emptied.
            for (int idx = m_packet_head_idx;; idx = idx + 1 == kPacketInfoSize ? 0 : idx + 1) {
                ring[idx] = m_packet_info_inline[idx % kInlinePacketSlots];
                if (idx == m_packet_tail_idx) {
                    break;
                }
            }
            m_packet_info = ring;
            ring = nullptr;
        }
    }
    GivePacketRing(ring);  // the consumer emptied the ring meanwhile: not needed after all
    return true;
}

// ---------------------------------------------------------------------------------------
// Receive blocks and socket reads
// ---------------------------------------------------------------------------------------

void CTcpConnector::AddRecvQueue(CBidirList& list) {
    MaybeLocker locker = LockRx();
    m_rx_queue.Merge(list, false);
}

// Whether the connection holds m_max_rx_buf_num receive blocks already; the first refusal of
// a run of shortages is counted and logged. Caller holds m_rx_mutex.
bool CTcpConnector::AtRecvCapLocked() {
    if (m_rx_queue.Count() < m_max_rx_buf_num) {
        return false;
    }
    if (!m_is_last_rx_full) {
        m_is_last_rx_full = true;
        ++m_rx_buf_full_cnt;
        QN_LOG(m_log_cat, QN_WARN,
               "allocate recv buffer failed, url=%s, local_url=%s, m_rx_queue.cnt(%d) >= "
               "m_max_rx_buf_num(%d)",
               GetURL(), GetLocalURL(), static_cast<int>(m_rx_queue.Count()),
               static_cast<int>(m_max_rx_buf_num));
    }
    return true;
}

NetBuffer* CTcpConnector::AllocateRecvBufferNoLock() {
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::AllocateRecvBufferNoLock(), url=%s, local_url=%s",
           GetURL(), GetLocalURL());
    if (AtRecvCapLocked()) {
        return nullptr;
    }
    NetBuffer* buffer = m_net_buf_mgr->Allocate(true, false);
    if (buffer == nullptr) {
        if (!m_is_last_rx_full) {
            m_is_last_rx_full = true;
            ++m_rx_buf_full_cnt;
            QN_LOG(m_log_cat, QN_WARN, "allocate recv buffer failed, url=%s, local_url=%s", GetURL(),
                   GetLocalURL());
        }
        return nullptr;
    }
    m_is_last_rx_full = false;
    // The block's wait counts from the pool's stamp (a receive block comes stamped with the
    // time it was handed out), so no second clock read here.
    m_rx_queue.Insert(&buffer->m_node);
    return buffer;
}

int CTcpConnector::RecvToBuffer(NetBuffer* buffer) {
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::RecvToBuffer(), url=%s, local_url=%s, write_pos=%d",
           GetURL(), GetLocalURL(), buffer->m_write_pos);
    if (buffer->m_write_pos > 65535) {
        return 0;
    }
    int room = buffer->WriteRemaining();
    int inq = -1;  // bytes queued after the read; -1: not asked or not told
    bool ask_inq = m_rx_last_full && m_rx_inq == kRxInqOn;
    int cnt = ReadSocket(buffer->m_buf + buffer->m_write_pos, room, ask_inq ? &inq : nullptr);
    if (cnt >= 1) {
        buffer->AddWritePosition(cnt);
        m_rx_bytes += cnt;
        m_rx_last_full = cnt == room;
        if (cnt < room || inq == 0) {
            // Drained for now: no read that would only meet would-block (see Recv).
            m_rx_drained = true;
            m_events.fetch_and(~static_cast<unsigned int>(EPOLLIN));
        } else if (m_rx_inq == kRxInqUntried) {
            EnableReadInq();
        }
    }
    return cnt;
}

void CTcpConnector::EnableReadInq() {
    int one = 1;
    if (setsockopt(m_socket, IPPROTO_TCP, TCP_INQ, &one, sizeof(one)) == 0) {
        m_rx_inq = kRxInqOn;
        return;
    }
    // Not TCP (a socketpair handed over by a test or an owner) or a kernel without TCP_INQ:
    // full reads keep being followed by one more read, as they always may.
    m_rx_inq = kRxInqUnsupported;
    QN_LOG(m_log_cat, QN_DEBUG, "TCP_INQ not available, url=%s, local_url=%s, errno=%d", GetURL(),
           GetLocalURL(), errno);
}

int CTcpConnector::ReadSocket(void* buf, int len, int* inq) {
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::ReadSocket(), url=%s, local_url=%s, len=%d", GetURL(),
           GetLocalURL(), len);
    if (m_io != nullptr || !m_rx_carry.empty()) {
        // Bytes carried over from another process come before the socket's.
        return m_rx_carry.empty() ? ReadStream(buf, len) : ReadCarried(buf, len);
    }
    if (!m_poller_reads_asked) {
        m_poller_reads_asked = true;  // a poller that receives for the socket does from now on
        m_poller_reads = m_poller->StartReceive(m_socket);
    }
    // The poller's own receive, or the socket's (an epoll loop's poller reads the socket).
    ssize_t cnt = m_poller->Receive(m_socket, buf, static_cast<size_t>(len), inq);
    if (cnt < 0) {
        int err = errno;
        if (err == EAGAIN) {
            m_events.fetch_and(~static_cast<unsigned int>(EPOLLIN));
            return 0;
        }
        m_read_errno = err;
        QN_LOG(m_log_cat, QN_ERROR, "recv data from socket failed! url=%s, local_url=%s, errno=%d", GetURL(),
               GetLocalURL(), err);
        return kIoFailed;
    }
    if (cnt == 0) {
        QN_LOG(m_log_cat, QN_INFO, "socket is closed by peer! url=%s, local_url=%s", GetURL(), GetLocalURL());
        return kPeerClosed;
    }
    return static_cast<int>(cnt);
}

int CTcpConnector::ReadStream(void* buf, int len) {
    char* out = static_cast<char*>(buf);
    int total = 0;
    for (;;) {
        int n = m_io->Read(out + total, len - total);
        if (n > 0) {
            total += n;
            if (total == len || !m_io->HasBufferedInput()) {
                return total;  // short: nothing waits in the layer, the socket is read for now
            }
            continue;
        }
        if (n == IStreamIo::kWantRead || n == IStreamIo::kWantWrite) {
            if (n == IStreamIo::kWantWrite) {
                // The layer must send before it reads on (a TLS key update's answer): keep
                // write readiness registered; Update reads again when it comes.
                m_rx_wants_write = true;
                AutoLocker locker(&m_tx_mutex);
                if (SetRegisteredEventsLocked(m_registered_events | EPOLLOUT) != 0) {
                    m_read_errno = errno;
                    return kIoFailed;
                }
            }
            if (total == 0) {
                m_events.fetch_and(~static_cast<unsigned int>(EPOLLIN));
            }
            return total;
        }
        if (total > 0) {
            return total;  // the bytes first; the layer repeats its end on the next read
        }
        if (n == IStreamIo::kEnd) {
            QN_LOG(m_log_cat, QN_INFO, "socket is closed by peer! url=%s, local_url=%s", GetURL(),
                   GetLocalURL());
            return kPeerClosed;
        }
        if (n == IStreamIo::kTruncated) {
            QN_LOG(m_log_cat, QN_INFO, "stream truncated by peer: %s, url=%s, local_url=%s",
                   m_io->LastError(), GetURL(), GetLocalURL());
            return kStreamTruncated;
        }
        // A layer's own failure (a bad record) has no errno: EPROTO names it.
        m_read_errno = m_io->LastErrno() != 0 ? m_io->LastErrno() : EPROTO;
        QN_LOG(m_log_cat, QN_ERROR, "read from the stream layer failed: %s, url=%s, local_url=%s, errno=%d",
               m_io->LastError(), GetURL(), GetLocalURL(), m_read_errno);
        return kIoFailed;
    }
}

// ---------------------------------------------------------------------------------------
// Receive state machine
// ---------------------------------------------------------------------------------------

int CTcpConnector::Recv() {
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::Recv(), url=%s, local_url=%s, m_rx_status=%d", GetURL(),
           GetLocalURL(), static_cast<int>(m_rx_status));
    {
        MaybeLocker locker = LockRx();
        m_rx_reading = true;
    }
    int ret = RecvLoop();
    MaybeLocker locker = LockRx();
    m_rx_reading = false;
    ReleaseIdleRxLocked();
    return ret;
}

int CTcpConnector::RecvLoop() {
    m_read_errno = 0;
    if (m_peer_closed && m_keep_writing_after_peer_close) {
        return 0;  // reading stopped for good at the peer's end of stream
    }
    int total_recv_cnt = 0;
    m_rx_drained = false;
    for (;;) {
        if (m_rx_drained && m_rx_status != WAIT_PARSE_PACKET_STATUS) {
            return total_recv_cnt;  // the socket had no more; framing is done
        }
        if (m_rx_status == ALLOC_MULTI_BUFFER_BODY_STATUS) {
            if (!TakeNextBigPacketBlock()) {
                return total_recv_cnt;  // the state stays; retried on the next call
            }
            m_rx_status = RECV_MULTI_BUFFER_BODY_STATUS;
            continue;
        }

        if (m_rx_status != WAIT_PARSE_PACKET_STATUS) {
            int recv_cnt = 0;
            if (m_rx_status == RECV_PACKET_HEAD_STATUS) {
                recv_cnt = RecvPacketHead();
            } else if (m_rx_status == RECV_SINGLE_BUFFER_BODY_STATUS) {
                recv_cnt = RecvSingleBufferBody();
            } else {
                recv_cnt = RecvMultiBufferBody();
            }
            if (recv_cnt == 0) {
                return total_recv_cnt;
            }
            if (recv_cnt == kPeerClosed) {
                // Everything read before the end of stream has been framed: framing ran
                // after every read and only asked for more bytes.
                m_peer_closed = true;
                if (m_keep_writing_after_peer_close) {
                    StopReadingAtPeerClose();
                }
                return kPeerClosed;
            }
            if (recv_cnt < 0) {
                QN_LOG(m_log_cat, QN_ERROR, "recv data failed! url=%s, local_url=%s, recv_cnt=%d", GetURL(),
                       GetLocalURL(), recv_cnt);
                return recv_cnt;
            }
            total_recv_cnt += recv_cnt;
            m_rx_status = WAIT_PARSE_PACKET_STATUS;
        }

        int ret = ParseNetBuffer();
        if (ret < 0) {
            QN_LOG(m_log_cat, QN_ERROR, "ParseNetBuffer() failed, url=%s, local_url=%s, ret=%d", GetURL(),
                   GetLocalURL(), ret);
            return ret;
        }
        if (m_rx_status == WAIT_PARSE_PACKET_STATUS) {
            if (m_rx_drained) {
                // Framing stopped with bytes in hand (a full ring, no block to move a packet
                // into): the socket being drained must not hide them, so the owner still sees
                // EPOLLIN and comes back once packets are taken.
                m_events.fetch_or(EPOLLIN);
            }
            return total_recv_cnt;
        }
    }
}

// A big packet's chain grows with its bytes: its next block is taken only when the block
// being read is full and the packet still lacks bytes, so the connection holds at most one
// block more than its received bytes need. Every byte in the chain belongs to the packet
// (reads stop at its end), so m_rx_packet.recv_len, brought up to date by framing before it
// asked for this block, is what the chain holds and need_len what it still lacks.
bool CTcpConnector::TakeNextBigPacketBlock() {
    int need_len = m_rx_packet.len - m_rx_packet.recv_len;
    NetBuffer* block = nullptr;
    {
        MaybeLocker locker = LockRx();
        if (!AtRecvCapLocked()) {
            block = m_net_buf_mgr->Allocate(true, true);
            if (block == nullptr) {
                if (!m_is_last_rx_full) {
                    m_is_last_rx_full = true;
                    ++m_rx_buf_full_cnt;
                    QN_LOG(m_log_cat, QN_WARN,
                           "allocate recv buffer failed, url=%s, local_url=%s, need_len=%d", GetURL(),
                           GetLocalURL(), need_len);
                }
            } else {
                m_is_last_rx_full = false;
                if (need_len < NetBuffer::kBlockSize) {
                    block->SetLimit(need_len);  // reads stop exactly at the packet's end
                }
                m_rx_queue.Insert(&block->m_node);
                m_rx_buffer = block;  // Drop reads it under the mutex to know where to stop
            }
        }
    }
    if (block == nullptr) {
        if (m_rx_packet.len >= m_net_buf_mgr->GetMinBigPacketLen()) {
            m_is_wait_alloc_big_buffer = true;
        }
        return false;
    }
    m_is_wait_alloc_big_buffer = false;
    return true;
}

int CTcpConnector::RecvPacketHead() {
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::RecvPacketHead(), url=%s, local_url=%s", GetURL(),
           GetLocalURL());
    {
        MaybeLocker locker = LockRx();
        if (m_rx_buffer == nullptr) {
            NetBuffer* buffer = AllocateRecvBufferNoLock();
            if (buffer == nullptr) {
                return 0;
            }
            m_rx_buffer = buffer;
            m_rx_packet.buffer = buffer;
            m_rx_packet.start_pos = 0;
        } else if (m_rx_buffer->WriteRemaining() == 0) {
            NetBuffer* buffer = AllocateRecvBufferNoLock();
            if (buffer == nullptr) {
                return 0;
            }
            if (m_rx_buffer->HasReadRemaining()) {
                // The start of a header sits at the very end of the full block: carry it over.
                buffer->Put(m_rx_buffer->ReadBuf(), m_rx_buffer->ReadRemaining());
                m_rx_buffer->m_write_pos = m_rx_buffer->m_read_pos;
            }
            m_rx_buffer = buffer;
            m_rx_packet.buffer = buffer;
            m_rx_packet.start_pos = buffer->m_read_pos;
        }
    }
    return RecvToBuffer(m_rx_buffer);
}

int CTcpConnector::RecvSingleBufferBody() {
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::RecvSingleBufferBody(), url=%s, local_url=%s", GetURL(),
           GetLocalURL());
    return RecvToBuffer(m_rx_buffer);
}

int CTcpConnector::RecvMultiBufferBody() {
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::RecvMultiBufferBody(), url=%s, local_url=%s", GetURL(),
           GetLocalURL());
    if (m_rx_buffer->WriteRemaining() == 0) {
        NetBuffer* next = NextBlock(m_rx_buffer);
        if (next == nullptr) {
            QN_LOG(m_log_cat, QN_ERROR,
                   "unexpected exception, url=%s, local_url=%s, big_packet_len=%d, recv_queue_cnt=%d",
                   GetURL(), GetLocalURL(), m_rx_packet.len, static_cast<int>(m_rx_queue.Count()));
            return kIoFailed;
        }
        // Drop, on a consumer thread, reads m_rx_buffer under the mutex to know where to stop.
        MaybeLocker locker = LockRx();
        m_rx_buffer = next;
    }
    return RecvToBuffer(m_rx_buffer);
}

// ---------------------------------------------------------------------------------------
// Framing
// ---------------------------------------------------------------------------------------

int CTcpConnector::ParseNetBuffer() {
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::ParseNetBuffer(), url=%s, local_url=%s", GetURL(),
           GetLocalURL());
    // Whole seconds are all framing needs (the rate sample and the start of a wait for a
    // block); time() reads them without the clock read that gettimeofday makes.
    time_t now = time(nullptr);

    for (;;) {
        // 1. Room in the ring. Past the inline slots the ring's storage is taken first, once
        //    bytes wait that may make one more packet (not after the last packet of a read).
        int packet_cnt = 0;
        bool need_ring = false;
        {
            MaybeLocker locker = LockRx();
            packet_cnt = PacketCountLocked();
            need_ring = packet_cnt >= kInlinePacketSlots && m_packet_info == nullptr;
        }
        if (packet_cnt == kPacketInfoSize) {
            return 0;
        }
        if (need_ring &&
            (m_rx_packet.len > 0 || (m_rx_buffer != nullptr && m_rx_buffer->HasReadRemaining())) &&
            !GrowPacketRing()) {
            return 0;  // no memory for the ring now: wait as for a full ring
        }

        // 2. One sample of the ring's fill per second: a one-minute sliding average, not
        //    clamped (a gap of more than a minute gives the old value a negative weight).
        if (m_last_sample_time != now) {
            int sec_cnt = static_cast<int>(now - m_last_sample_time);
            if (m_packet_info_max_cnt < packet_cnt) {
                m_packet_info_max_cnt = packet_cnt;
            }
            m_last_sample_time = static_cast<int>(now);
            // Products are formed in 64 bits so that a long gap cannot overflow an int.
            float old_weight = static_cast<float>(60 - static_cast<int64_t>(sec_cnt));
            float new_part = static_cast<float>(static_cast<int64_t>(packet_cnt) * sec_cnt);
            m_packet_info_avg_cnt = (old_weight * m_packet_info_avg_cnt + new_part) / 60.0f;
        }

        // 3. Nothing to parse.
        if (m_rx_buffer == nullptr) {
            m_rx_status = RECV_PACKET_HEAD_STATUS;
            return 0;
        }

        // 4. The packet's length.
        int read_remaining = m_rx_buffer->ReadRemaining();
        if (m_rx_packet.len == 0) {
            if (read_remaining < 1) {
                m_rx_status = RECV_PACKET_HEAD_STATUS;
                return 0;
            }
            int len =
                m_parser->ParsePackLength(m_rx_buffer->ReadBuf(), static_cast<unsigned int>(read_remaining));
            if (len < 0) {
                QN_LOG(m_log_cat, QN_ERROR,
                       "parse packet length failed! url=%s, local_url=%s, parse_len=%d, read_remaining=%d",
                       GetURL(), GetLocalURL(), len, read_remaining);
                return kParseMalformed;
            }
            if (len == 0) {
                m_rx_status = RECV_PACKET_HEAD_STATUS;
                return 0;
            }
            if (len > m_combine_buf_len) {
                QN_LOG(m_log_cat, QN_ERROR, "packet_len(%d) > m_combine_buf_len(%d), url=%s, local_url=%s",
                       len, m_combine_buf_len, GetURL(), GetLocalURL());
                return kParseTooLong;
            }
            // Blocks the packet needs from where it starts (a small packet is moved to a
            // fresh block if it does not fit in its own). Blocks held by earlier packets do
            // not count: they are given back as the consumer takes those packets.
            int64_t need_blocks = 1;
            if (len > 65536) {
                int64_t beyond = static_cast<int64_t>(len) - (65536 - m_rx_packet.start_pos);
                need_blocks += (beyond + 65535) / 65536;
            }
            if (need_blocks > static_cast<int64_t>(m_max_rx_buf_num)) {
                QN_LOG(m_log_cat, QN_ERROR,
                       "packet_len(%d) needs %d blocks > m_max_rx_buf_num(%d), url=%s, local_url=%s", len,
                       static_cast<int>(need_blocks), static_cast<int>(m_max_rx_buf_num), GetURL(),
                       GetLocalURL());
                return kParseOverRxCap;
            }
            m_rx_packet.len = len;
        }
        int len = m_rx_packet.len;

        // 5. A small packet that would run past the end of its block is moved (step 10).
        if (len <= 65536 && 65536 - m_rx_packet.start_pos < len) {
            MaybeLocker locker = LockRx();
            NetBuffer* buffer = AllocateRecvBufferNoLock();
            if (buffer == nullptr) {
                return 0;
            }
            buffer->Put(m_rx_buffer->ReadBuf(), m_rx_buffer->ReadRemaining());
            m_rx_buffer->m_write_pos = m_rx_buffer->m_read_pos;
            m_rx_packet.start_pos = 0;
            m_rx_packet.buffer = buffer;
            m_rx_packet.recv_len = buffer->ReadRemaining();
            buffer->AddReadPosition(m_rx_packet.recv_len);
            m_rx_buffer = buffer;
            m_rx_status = RECV_SINGLE_BUFFER_BODY_STATUS;
            return 0;
        }

        // 6. Not all of the packet is here yet.
        int tmp_len = len - m_rx_packet.recv_len;
        if (tmp_len > read_remaining) {
            m_rx_packet.recv_len += read_remaining;
            m_rx_buffer->AddReadPosition(read_remaining);
            if (len <= 65536) {
                m_rx_status = RECV_SINGLE_BUFFER_BODY_STATUS;
            } else if (m_rx_buffer->WriteRemaining() > 0) {
                m_rx_status = RECV_MULTI_BUFFER_BODY_STATUS;  // the block being read has room
            } else {
                // The block is full and the packet lacks bytes: its next block is taken now
                // (Recv does so at once), and the wait for it starts.
                m_wait_alloc_starttime = now;
                m_rx_status = ALLOC_MULTI_BUFFER_BODY_STATUS;
                if (len >= m_net_buf_mgr->GetMinBigPacketLen()) {
                    m_is_wait_alloc_big_buffer = true;
                }
            }
            return 0;
        }

        // 7. The packet is complete.
        m_rx_buffer->AddReadPosition(tmp_len);
        m_rx_packet.recv_len = len;
        if (len < 1) {
            continue;
        }

        // 8. Logging and counting.
        QN_LOG(m_log_cat, QN_DEBUG, "recv a complete packet, url=%s, local_url=%s, m_rx_packet.len=%d",
               GetURL(), GetLocalURL(), len);
        if (m_rx_packet_cnt == 0) {
            QN_LOG(m_log_cat, QN_INFO, "dump first recv pkg, len=%d, connector=%s", len, ToString());
            int in_block = 65536 - m_rx_packet.start_pos;
            QN_LOG_HEX(m_log_cat, m_rx_packet.buffer->m_buf + m_rx_packet.start_pos,
                       len < in_block ? len : in_block);
        }
        ++m_rx_packet_cnt;

        // 9. Delivery: to the callback, which may take the packet, else into the ring.
        bool file_it = true;
        if (m_recv_callback != nullptr) {
            const char* data = m_rx_packet.buffer->m_buf + m_rx_packet.start_pos;
            int ret = 0;
            if (len > 65536) {
                ret = (m_cb_combine_buf != nullptr && len <= m_cb_combine_buf_len)
                          ? CombinePacket(&m_rx_packet, m_cb_combine_buf, nullptr)
                          : -1;
                data = m_cb_combine_buf;
            }
            if (ret != 0) {
                QN_LOG(m_log_cat, QN_ERROR,
                       "CombinePacket() failed, url=%s, local_url=%s, m_rx_packet.len=%d, ret=%d", GetURL(),
                       GetLocalURL(), len, ret);
            } else {
                int cb_ret = m_recv_callback(GetURL(), data, len, m_callback_arg);
                if (cb_ret != 0) {
                    file_it = false;
                }
            }
        }

        MaybeLocker locker = LockRx();
        if (!file_it) {
            ReleaseCallBackPacket();
        } else if (m_packet_tail_idx == -1) {
            m_packet_head_idx = 0;
            m_packet_tail_idx = 0;
            PacketSlot(0) = m_rx_packet;
        } else {
            int next = m_packet_tail_idx + 1;
            if (next == kPacketInfoSize) {
                next = 0;
            }
            // The tail moves first; on overflow it is left advanced (the room test of step 1
            // keeps this branch unreachable).
            m_packet_tail_idx = next;
            if (next == m_packet_head_idx) {
                QN_LOG(m_log_cat, QN_ERROR,
                       "unexpected exception, m_packet_info full, url=%s, local_url=%s, head(%d)", GetURL(),
                       GetLocalURL(), m_packet_head_idx);
                return kParseMalformed;
            }
            PacketSlot(next) = m_rx_packet;
        }

        // Next packet starts where reading stands.
        memset(&m_rx_packet, 0, sizeof(m_rx_packet));
        if (m_rx_buffer != nullptr) {
            m_rx_packet.buffer = m_rx_buffer;
            m_rx_packet.start_pos = m_rx_buffer->m_read_pos;
        }
    }
}

int CTcpConnector::GetUnframedLen() {
    MaybeLocker locker = LockRx();
    return m_rx_buffer != nullptr ? m_rx_buffer->ReadRemaining() : 0;
}

bool CTcpConnector::HasPartialPacket() {
    MaybeLocker locker = LockRx();
    if (m_rx_packet.len > 0) {
        // The length is known; the packet is filed (and m_rx_packet cleared) once complete.
        return m_rx_packet.recv_len < m_rx_packet.len;
    }
    if (m_rx_buffer == nullptr || m_parser == nullptr) {
        return false;
    }
    // No length yet: the unread bytes of the current block are what framing has not looked
    // at. They are whole packets waiting for ring room, or the start of one. The packet
    // being framed always starts in m_rx_buffer while its length is unknown.
    const char* p = m_rx_buffer->ReadBuf();
    int left = m_rx_buffer->ReadRemaining();
    while (left > 0) {
        int len = m_parser->ParsePackLength(p, static_cast<unsigned int>(left));
        if (len <= 0 || len > left) {
            return true;  // an incomplete header or packet (or one framing will refuse)
        }
        p += len;
        left -= len;
    }
    return false;
}

// ---------------------------------------------------------------------------------------
// Delivery
// ---------------------------------------------------------------------------------------

int CTcpConnector::Peek(const char** buf, unsigned int& len, LogCategory* log_cat) {
    LogCategory* cat = log_cat != nullptr ? log_cat : m_log_cat;
    QN_LOG(cat, QN_TRACE, "enter CTcpConnector::Peek(), url=%s, local_url=%s, buf=%p", GetURL(),
           GetLocalURL(), static_cast<void*>(buf));
    *buf = nullptr;
    len = 0;
    PacketInfo* slot = nullptr;
    {
        MaybeLocker locker = LockRx();
        if (m_packet_head_idx != -1) {
            slot = &PacketSlot(m_packet_head_idx);
        }
    }
    if (slot == nullptr) {
        return 0;
    }
    // Only Drop, on this same thread, moves the head or gives the ring storage back, so the
    // slot stays put without the lock (a move of the ring to storage copies it).
    if (slot->len > 65536) {
        int ret = CombinePacket(slot, m_combine_buf, cat);
        if (ret != 0) {
            QN_LOG(cat, QN_DEBUG, "CombinePacket() failed, url=%s, local_url=%s, combine_len=%d, ret=%d",
                   GetURL(), GetLocalURL(), slot->len, ret);
            return ret;
        }
        *buf = m_combine_buf;
        len = static_cast<unsigned int>(slot->len);
        QN_LOG(cat, QN_DEBUG, "get a multi packet, url=%s, local_url=%s, combine_len=%d", GetURL(),
               GetLocalURL(), static_cast<int>(len));
        return 0;
    }
    // Logged before the output is filled: the length shown for a single packet is always 0.
    QN_LOG(cat, QN_DEBUG, "get a single packet, url=%s, local_url=%s, packet_len=%d", GetURL(), GetLocalURL(),
           static_cast<int>(len));
    *buf = slot->buffer->m_buf + slot->start_pos;
    len = static_cast<unsigned int>(slot->len);
    return 0;
}

int CTcpConnector::Drop() {
    PacketInfo* spare_ring = nullptr;
    {
        MaybeLocker locker = LockRx();
        if (m_packet_head_idx == -1) {
            return -1;
        }
        memset(&PacketSlot(m_packet_head_idx), 0, sizeof(PacketInfo));
        if (m_packet_head_idx == m_packet_tail_idx) {
            m_packet_head_idx = -1;
            m_packet_tail_idx = -1;
            spare_ring = m_packet_info;  // empty: the inline slots serve again
            m_packet_info = nullptr;
        } else {
            ++m_packet_head_idx;
            if (m_packet_head_idx == kPacketInfoSize) {
                m_packet_head_idx = 0;
            }
        }

        // The clock is read once, when the first block is freed: most drops free nothing
        // (the next packet shares the block), and the time is used for nothing else.
        struct timeval now;
        bool have_now = false;
        NetBuffer* head_block = m_packet_head_idx != -1 ? PacketSlot(m_packet_head_idx).buffer : nullptr;
        for (;;) {
            LIST_NODE* front = m_rx_queue.Head();
            if (front == nullptr) {
                break;
            }
            NetBuffer* block = static_cast<NetBuffer*>(front->pData);
            if ((m_packet_head_idx != -1 && block == head_block) || block == m_rx_buffer ||
                block == m_rx_packet.buffer) {
                break;
            }
            ReleaseFrontRxBlockLocked(&now, &have_now);
        }
        if (m_packet_head_idx == -1) {
            ReleaseIdleRxLocked();
        }
    }
    if (spare_ring != nullptr) {  // most drops leave the ring in use: no call
        GivePacketRing(spare_ring);
    }
    return 0;
}

void CTcpConnector::ReleaseFrontRxBlockLocked(struct timeval* now, bool* have_now) {
    LIST_NODE* front = m_rx_queue.RemoveHead();
    NetBuffer* block = static_cast<NetBuffer*>(front->pData);
    if (!*have_now) {
        gettimeofday(now, nullptr);
        *have_now = true;
    }
    int wait = WaitMicros(block->m_tv, *now);
    if (wait < 0) {
        wait = 0;
    }
    if (m_rx_max_wait_time < wait) {
        m_rx_max_wait_time = wait;
    }
    // The previous average in this formula is the send side's: the receive average follows
    // the send average with a weight of 1/10000 per freed block.
    m_rx_avg_wait_time = static_cast<float>((wait + 9999.0 * m_tx_avg_wait_time) / 10000.0);
    m_net_buf_mgr->Release(&block);
}

// Every block of m_rx_queue is spent when the ring is empty and nothing is half received
// in the current block (the last of the queue): earlier blocks hold only consumed packets
// and bytes carried over to a later block.
void CTcpConnector::ReleaseIdleRxLocked() {
    if (m_rx_reading || m_packet_head_idx != -1 || m_rx_buffer == nullptr) {
        return;
    }
    if (m_rx_status != RECV_PACKET_HEAD_STATUS || m_rx_packet.len != 0 || m_rx_buffer->HasReadRemaining()) {
        return;
    }
    struct timeval now;
    bool have_now = false;
    while (!m_rx_queue.IsEmpty()) {
        ReleaseFrontRxBlockLocked(&now, &have_now);
    }
    m_rx_buffer = nullptr;
    memset(&m_rx_packet, 0, sizeof(m_rx_packet));
}

int CTcpConnector::CombinePacket(PacketInfo* info, char* out, LogCategory* log_cat) {
    LogCategory* cat = log_cat != nullptr ? log_cat : m_log_cat;
    QN_LOG(cat, QN_DEBUG, "enter CTcpConnector::CombinePacket(), url=%s, local_url=%s, len=%d", GetURL(),
           GetLocalURL(), info->len);
    NetBuffer* buffer = info->buffer;
    int first = 65536 - info->start_pos;
    memcpy(out, buffer->m_buf + info->start_pos, static_cast<size_t>(first));
    int copied = first;
    int remaining = info->len - first;
    if (remaining < 1) {
        return 0;
    }
    for (;;) {
        NetBuffer* next = NextBlock(buffer);
        if (next == nullptr) {
            QN_LOG(cat, QN_ERROR,
                   "unexpected exception, next node is null, url=%s, local_url=%s, buffer(%p), packet_len=%d",
                   GetURL(), GetLocalURL(), static_cast<void*>(buffer), info->len);
            return -1;
        }
        if (remaining < 65536) {
            memcpy(out + copied, next->m_buf, static_cast<size_t>(remaining));
            return 0;
        }
        memcpy(out + copied, next->m_buf, 65536);
        copied += 65536;
        remaining -= 65536;
        if (remaining == 0) {
            return 0;
        }
        buffer = next;
    }
}

void CTcpConnector::ReleaseCallBackPacket() {
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::ReleaseCallBackPacket(), url=%s, local_url=%s",
           GetURL(), GetLocalURL());
    NetBuffer* block = nullptr;
    if (m_packet_head_idx != -1) {
        // Blocks before the packet hold queued packets and stay.
        if (m_rx_packet.start_pos != 0) {
            if (m_rx_packet.len <= 65536) {
                return;  // its only block is shared with queued packets
            }
            NetBuffer* first = m_rx_packet.buffer;
            first->m_write_pos = m_rx_packet.start_pos;
            first->m_read_pos = m_rx_packet.start_pos;
            m_rx_packet.len -= 65536 - m_rx_packet.start_pos;
            m_rx_packet.start_pos = 0;
            m_rx_packet.buffer = NextBlock(first);
            block = m_rx_packet.buffer;
        } else {
            if (m_rx_packet.buffer == nullptr) {
                return;
            }
            block = m_rx_packet.buffer;
        }
    } else {
        // Nothing queued: every block before the packet's first block is spent.
        for (;;) {
            LIST_NODE* front = m_rx_queue.Head();
            if (front == nullptr) {
                QN_LOG(m_log_cat, QN_ERROR, "unexpected error, del_first_node=NULL, url=%s, local_url=%s",
                       GetURL(), GetLocalURL());
                return;
            }
            if (front->pData == m_rx_packet.buffer) {
                break;
            }
            m_rx_queue.RemoveHead();
            NetBuffer* spent = static_cast<NetBuffer*>(front->pData);
            m_net_buf_mgr->Release(&spent);
        }
        m_rx_packet.len += m_rx_packet.start_pos;
        m_rx_packet.start_pos = 0;
        block = m_rx_packet.buffer;
        if (block == nullptr) {
            return;
        }
    }

    // Whole blocks of the packet go back to the pool.
    bool looped = false;
    while (m_rx_packet.len > 65535) {
        looped = true;
        NetBuffer* next = NextBlock(block);
        m_rx_packet.len -= 65536;
        m_rx_queue.Remove(&block->m_node);
        m_net_buf_mgr->Release(&block);
        block = next;
        if (block == nullptr) {
            break;
        }
    }
    if (looped && block == nullptr) {
        m_rx_buffer = nullptr;
        return;
    }

    // The block in which the packet ends: free it unless it already holds the next packet.
    if (m_rx_buffer->HasReadRemaining()) {
        return;
    }
    if (m_packet_head_idx == -1 && m_rx_queue.Count() == 1 && m_rx_queue.Head()->pData == m_rx_buffer) {
        // The connection's only block is read on from its start instead of being swapped for
        // a fresh one: the read that follows needs a block anyway, and the end of Recv gives
        // it back if nothing more comes.
        m_rx_buffer->m_read_pos = 0;
        m_rx_buffer->m_write_pos = 0;
        m_rx_buffer->m_limit_pos = NetBuffer::kBlockSize;
        m_rx_buffer->m_is_big_buf = 0;
        gettimeofday(&m_rx_buffer->m_tv, nullptr);
        return;
    }
    m_rx_queue.Remove(&block->m_node);
    m_net_buf_mgr->Release(&m_rx_buffer);
    LIST_NODE* tail = m_rx_queue.Tail();
    m_rx_buffer = tail == nullptr ? nullptr : static_cast<NetBuffer*>(tail->pData);
}

}  // namespace QUOLNET
