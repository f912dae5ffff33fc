// CTcpConnector: the send path.
//
// Producers (any thread) call Send(buf, ...) or SendToQ; the owner's thread calls Send() when
// epoll reports the socket writable. Bytes that cannot be written at once wait in m_tx_queue,
// a chain of pool blocks, oldest first.
//
// The sending role (m_is_sending) is a try-lock taken under m_tx_mutex: its holder is the only
// thread that calls send(2), either for a direct write of a caller's packet or for a flush of
// the queue. Nobody waits for the role; a producer that cannot take it queues its packet.
//
// Guarantee: a packet is never interleaved with another on the wire. Three rules keep it so
// when several threads send at once:
//   - a direct write starts only when nothing is queued and no PushSendQ holds the queue's
//     detached tail (m_tx_tail_detached), both tested under m_tx_mutex: otherwise the write
//     could land inside a packet whose start has already been sent;
//   - the unsent rest of a direct write is queued ahead of everything queued while the write
//     was in progress (those packets are whole and not one byte of them has been sent);
//   - the role is given back only after that rest is queued, so no flush can send later
//     packets before it;
//   - the owner's cork block (m_tx_cork_block), which the owner's thread fills without the
//     lock between its first corked packet and its flush, is never sent, topped up or
//     written past by anyone else: a flush stops in front of it, other packets start a block
//     behind it, and a direct write finds the queue non-empty. A packet queued behind it
//     marks the cork overtaken, so the owner's next corked packet follows that packet.
// Apart from these, the decisions, results and messages follow the step order of each
// function below.
//
// Locks: m_push_send_queue_mutex before m_tx_mutex. m_tx_mutex is held only for list surgery,
// the role, the epoll registration and the starved-since time, never across send(2) or a
// payload copy. The owner's corked packets after the first of a burst and its flush of an
// idle connection take no lock at all.
#include <errno.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdint>

#include "net/tcp_connector.h"
#include "net/tcp_connector_log.h"

namespace QUOLNET {

namespace {

const unsigned int kArmedEvents = EPOLLIN | EPOLLOUT | EPOLLERR;  // 13: report writability
const unsigned int kDisarmedEvents = EPOLLIN | EPOLLERR;          // 9: queue drained

// m_send_buf_full_tv is written under m_tx_mutex but its seconds field is also read without
// the lock (GetConstantSendBufFullMS, the base's measure); relaxed atomic accesses keep those
// reads well-defined.
long LoadTvSec(const struct timeval& tv) {
    return __atomic_load_n(&tv.tv_sec, __ATOMIC_RELAXED);
}

void StoreTv(struct timeval& tv, long sec, long usec) {
    __atomic_store_n(&tv.tv_sec, sec, __ATOMIC_RELAXED);
    __atomic_store_n(&tv.tv_usec, usec, __ATOMIC_RELAXED);
}

}  // namespace

bool CTcpConnector::IsExceedMaxTxBufCnt(int len) {
    int block_size = m_net_buf_mgr->GetBlockSize();
    // (len + block_size - 1) / block_size in wrapping 32-bit arithmetic.
    int sum = static_cast<int>(static_cast<unsigned int>(len) + static_cast<unsigned int>(block_size - 1));
    int blk_cnt = sum / block_size;
    return static_cast<unsigned int>(blk_cnt) + m_tx_queue.Count() > m_max_tx_buf_num;
}

bool CTcpConnector::RefuseOverQueueLimit(int len, LogCategory* cat) {
    if (!IsExceedMaxTxBufCnt(len)) {
        return false;
    }
    QN_LOG(cat, QN_DEBUG, "exceed max tx buf cnt, url=%s, local_url=%s, len=%d", GetURL(), GetLocalURL(),
           len);
    if (!m_is_last_tx_full) {
        m_is_last_tx_full = true;
        ++m_tx_buf_full_cnt;
    }
    return true;
}

bool CTcpConnector::IsSendBufEnough(unsigned int len) {
    if (m_status != CONNECTOR_STATUS_CONNECTED) {
        return false;
    }
    // Unsigned on purpose: a queue over its limit wraps to a huge room, and the pool decides.
    unsigned int room =
        (m_max_tx_buf_num - m_tx_queue.Count()) * static_cast<unsigned int>(m_net_buf_mgr->GetBlockSize());
    if (room < len) {
        return false;
    }
    return m_net_buf_mgr->CanAllocateSendBuf(static_cast<int>(len));
}

int CTcpConnector::SendToQ(const char* buf, unsigned int len, LogCategory* log_cat) {
    return SendToQImpl(buf, len, log_cat, true);
}

// SendToQ's first step, shared by its general way and the owner's cork: the entry trace and
// the count of offers (every offer counts, refused and rejected ones too).
inline void CTcpConnector::EnterSendToQ(LogCategory* cat, unsigned int len) {
    QN_LOG(cat, QN_DEBUG, "enter CTcpConnector::SendToQ(), url=%s, local_url=%s, len=%d", GetURL(),
           GetLocalURL(), static_cast<int>(len));
    ++m_tx_packet_cnt;
}

// Copies a packet into the room of a queued block (the queue's last block, or the owner's cork
// block), with the push's trace line and no block reserved for it.
inline void CTcpConnector::PutIntoQueuedBlock(NetBuffer* block, const char* buf, int len, LogCategory* cat) {
    QN_LOG(cat, QN_DEBUG, "enter CTcpConnector::PushSendQ(), url=%s, local_url=%s, len=%d, list_size=%d",
           GetURL(), GetLocalURL(), len, 0);
    block->Put(buf, len);  // the block keeps the time of its first bytes
}

// After a packet went in at the end of the queue, under m_tx_mutex: the owner's corked packet
// makes the last block its cork block; anyone else's packet, queued behind a cork, marks it
// overtaken so that the owner's next corked packet follows it.
void CTcpConnector::NoteQueuedAtTailLocked(bool owner_cork) {
    if (owner_cork) {
        LIST_NODE* tail = m_tx_queue.Tail();
        m_tx_cork_block = tail != nullptr ? static_cast<NetBuffer*>(tail->pData) : nullptr;
        m_tx_cork_overtaken = false;
    } else if (m_tx_cork_block != nullptr) {
        m_tx_cork_overtaken = true;
    }
}

void CTcpConnector::EndCork() {
    m_tx_cork_block = nullptr;
    m_tx_cork_overtaken = false;
}

// The owner's thread is the only writer of m_tx_cork_block and of the cork block's bytes, so
// a packet that fits in it goes in without the lock. Any other case (no cork yet, another
// thread's packet queued behind it, no room, the queue limit, a starved send side to be
// cleared under the lock, bad arguments) takes the general way, which sets up the cork at
// the queue's last block for the packets that follow.
int CTcpConnector::SendToQCorked(const char* buf, unsigned int len) {
    NetBuffer* cork = m_tx_cork_block;
    if (cork == nullptr || m_tx_cork_overtaken || buf == nullptr || len == 0 ||
        static_cast<unsigned int>(cork->WriteRemaining()) < len ||
        IsExceedMaxTxBufCnt(static_cast<int>(len)) || LoadTvSec(m_send_buf_full_tv) != 0) {
        return SendToQImpl(buf, len, nullptr, false);
    }
    EnterSendToQ(m_log_cat, len);
    PutIntoQueuedBlock(cork, buf, static_cast<int>(len), m_log_cat);
    m_is_last_tx_full = false;
    return static_cast<int>(len);
}

int CTcpConnector::SendToQImpl(const char* buf, unsigned int len, LogCategory* log_cat, bool arm) {
    LogCategory* cat = log_cat != nullptr ? log_cat : m_log_cat;
    EnterSendToQ(cat, len);

    if (buf == nullptr || len == 0) {
        // This message passes the packet where the local URL is expected and the local URL's
        // address where the buffer pointer is expected; that argument order is part of the
        // message. The packet is printed through %s, so it is shown as the text it would read
        // as within its `len` valid bytes: "(null)" for a null buffer and the empty string for
        // a zero length. The caller's bytes are never read, as they need not be NUL-terminated.
        const char* buf_text = buf == nullptr ? "(null)" : "";
        QN_LOG(cat, QN_ERROR, "invalid argument, url=%s, local_url=%s, buf=%p, len=%d", GetURL(), buf_text,
               static_cast<const void*>(GetLocalURL()), static_cast<int>(len));
        return kSendInvalid;
    }

    if (m_tx_shut) {
        return kSendShutDown;  // re-checked under the lock by the push below
    }
    if (RefuseOverQueueLimit(static_cast<int>(len), cat)) {
        return kSendNoRoom;
    }

    // After a shutdown the queue stays empty, so this finds no tail to top up.
    if (AppendToTail(buf, static_cast<int>(len), cat, !arm)) {
        m_is_last_tx_full = false;
        return static_cast<int>(len);
    }

    CBidirList buffer_list;
    if (!m_net_buf_mgr->Allocate(static_cast<int>(len), buffer_list, false)) {
        if (!m_is_last_tx_full) {
            m_is_last_tx_full = true;
            ++m_tx_buf_full_cnt;
            QN_LOG(cat, QN_WARN, "allocate send buffer failed, url=%s, local_url=%s, len=%d", GetURL(),
                   GetLocalURL(), static_cast<int>(len));
        }
        AutoLocker locker(&m_tx_mutex);
        if (LoadTvSec(m_send_buf_full_tv) == 0) {
            struct timeval now;
            gettimeofday(&now, nullptr);
            StoreTv(m_send_buf_full_tv, now.tv_sec, now.tv_usec);
        }
        return kSendNoRoom;
    }

    m_is_last_tx_full = false;
    bool queued = PushSendQ(buf, static_cast<int>(len), buffer_list, cat, false, arm);
    m_net_buf_mgr->Release(buffer_list);
    return queued ? static_cast<int>(len) : kSendShutDown;
}

bool CTcpConnector::AppendToTail(const char* buf, int len, LogCategory* cat, bool owner_cork) {
    AutoLocker locker(&m_tx_mutex);
    if (m_is_sending.load() || m_tx_tail_detached) {
        return false;
    }
    LIST_NODE* tail = m_tx_queue.Tail();
    if (tail == nullptr) {
        return false;
    }
    NetBuffer* block = static_cast<NetBuffer*>(tail->pData);
    if (block == m_tx_cork_block && !owner_cork) {
        return false;  // the owner fills it without the lock: this packet goes behind it
    }
    if (block->WriteRemaining() < len) {
        return false;
    }
    PutIntoQueuedBlock(block, buf, len, cat);
    NoteQueuedAtTailLocked(owner_cork);
    StoreTv(m_send_buf_full_tv, 0, 0);  // data went in: the send side is no longer starved
    return true;
}

unsigned int CTcpConnector::EffectiveEventsLocked(unsigned int events) const {
    if (m_handshaking) {
        // Only what the stream layer's handshake waits for, and nothing while the owner holds
        // the handshake back (PauseReading).
        return m_read_paused ? EPOLLERR : EPOLLERR | m_handshake_wait;
    }
    if (m_rx_wants_write) {
        events |= EPOLLOUT;  // the layer's read goes on once the socket is writable
    }
    if (m_tx_wants_read) {
        events |= EPOLLIN;  // the layer's write goes on once the socket is readable
    }
    if (m_read_paused || m_read_stopped) {
        events &= ~static_cast<unsigned int>(EPOLLIN);  // the owner paused reading, or it is over
    }
    return events;
}

int CTcpConnector::SetRegisteredEventsLocked(unsigned int events) {
    events = EffectiveEventsLocked(events);
    if (m_registered_events == events) {
        return 0;  // the registration already has this mask
    }
    if (m_poller->Modify(m_socket, events, this) != 0) {
        m_registered_events = 0;  // unknown now; the next change is tried for real
        return -1;
    }
    m_registered_events = events;
    return 0;
}

void CTcpConnector::SetRegisteredEvents(unsigned int events) {
    AutoLocker locker(&m_tx_mutex);
    m_registered_events = events;
    m_read_paused = false;  // a new registration (or none) starts with reading on
    m_read_stopped = false;
}

int CTcpConnector::ReapplyRegistrationLocked() {
    if (m_status == CONNECTOR_STATUS_DISCONNECTED || m_socket < 0) {
        return 0;  // nothing registered; the next registration starts with reading on
    }
    // Keep the write side as it is registered; when that is unknown (a failed change),
    // report writability: the flush disarms it again if nothing is queued.
    bool armed = m_registered_events == 0 || (m_registered_events & EPOLLOUT) != 0;
    return SetRegisteredEventsLocked(armed ? kArmedEvents : kDisarmedEvents);
}

int CTcpConnector::PauseReading(bool paused) {
    if (m_read_paused.load() == paused) {
        return 0;  // the common case, every tick: nothing changes, no lock (re-checked below)
    }
    AutoLocker locker(&m_tx_mutex);
    if (m_read_paused == paused) {
        return 0;
    }
    m_read_paused = paused;
    return ReapplyRegistrationLocked();
}

void CTcpConnector::StopReadingAtPeerClose() {
    m_peer_closed = true;
    AutoLocker locker(&m_tx_mutex);
    // The ended stream stays readable for a level-triggered epoll: it must leave the
    // registration, or the owner's loop would be woken for it on every wait.
    m_events.fetch_and(~static_cast<unsigned int>(EPOLLIN));
    if (m_read_stopped) {
        return;
    }
    m_read_stopped = true;
    if (ReapplyRegistrationLocked() != 0) {
        // Recorded all the same: the next change of the registration leaves EPOLLIN out.
        int err = errno;
        QN_LOG(m_log_cat, QN_ERROR, "epoll_ctl() failed, url=%s, local_url=%s, errno=%d", GetURL(),
               GetLocalURL(), err);
    }
}

bool CTcpConnector::IsReadingPaused() {
    AutoLocker locker(&m_tx_mutex);
    return m_read_paused;
}

bool CTcpConnector::PushSendQ(const char* buf, int len, CBidirList& list, LogCategory* log_cat, bool ahead,
                              bool arm) {
    LogCategory* cat = log_cat != nullptr ? log_cat : m_log_cat;
    QN_LOG(cat, QN_DEBUG, "enter CTcpConnector::PushSendQ(), url=%s, local_url=%s, len=%d, list_size=%d",
           GetURL(), GetLocalURL(), len, static_cast<int>(list.Count()));

    CBidirList push_list;
    AutoLocker push_locker(&m_push_send_queue_mutex);

    // Top up the old tail first, outside the queue, so that the flusher never reads a block
    // that is being written. Bytes queued ahead of the queue must not go into its tail: that
    // tail belongs to packets that follow them.
    bool skip_first = false;
    LIST_NODE* old_tail = nullptr;
    int old_tail_write_pos = 0;
    if (!ahead) {
        AutoLocker locker(&m_tx_mutex);
        if (m_tx_shut) {
            return false;  // the owner shut the sending side down: nothing may be started
        }
        // From here until the merge the packet counts as being sent (ShutdownSendIfIdle
        // waits for it). A push `ahead` needs no mark: its caller holds the sending role.
        m_tx_push_active = true;
        LIST_NODE* tail = m_tx_queue.Tail();
        if (tail != nullptr && arm && tail->pData == m_tx_cork_block) {
            tail = nullptr;  // the owner fills its cork block without the lock: start after it
        }
        if (tail != nullptr) {
            m_tx_queue.Remove(tail);
            list.InsertHead(tail);
            skip_first = true;
            m_tx_tail_detached = true;
            old_tail = tail;
            old_tail_write_pos = static_cast<NetBuffer*>(tail->pData)->m_write_pos;
        }
    }

    int copied_len = 0;
    while (copied_len < len) {
        LIST_NODE* node = list.RemoveHead();
        if (node == nullptr) {
            // Unreachable for callers that reserved enough blocks. The packet is not queued
            // at all: the blocks filled with its bytes go back to the pool, and the old tail,
            // cut back to the bytes it held before, returns to the end of the queue, so the
            // packets queued earlier stay whole and in order.
            QN_LOG(cat, QN_ERROR, "unexpected error, node=NULL, url=%s, local_url=%s, len=%d, list_size=%d",
                   GetURL(), GetLocalURL(), len, static_cast<int>(list.Count()));
            if (old_tail != nullptr) {
                push_list.Remove(old_tail);
                static_cast<NetBuffer*>(old_tail->pData)->m_write_pos = old_tail_write_pos;
            }
            m_net_buf_mgr->Release(push_list);
            AutoLocker locker(&m_tx_mutex);
            if (old_tail != nullptr) {
                if (m_tx_queue.IsEmpty() && SetRegisteredEventsLocked(kArmedEvents) != 0) {
                    int err = errno;
                    QN_LOG(cat, QN_ERROR, "epoll_ctl() failed, url=%s, local_url=%s, errno=%d", GetURL(),
                           GetLocalURL(), err);
                }
                m_tx_queue.Insert(old_tail);
            }
            m_tx_tail_detached = false;
            m_tx_push_active = false;
            return true;
        }
        NetBuffer* buffer = static_cast<NetBuffer*>(node->pData);
        if (!skip_first) {
            gettimeofday(&buffer->m_tv, nullptr);  // the old tail keeps the time of its first bytes
        }
        int last_write_pos = buffer->m_write_pos;
        buffer->Put(buf + copied_len, len - copied_len);
        copied_len += buffer->m_write_pos - last_write_pos;
        push_list.Insert(node);
        skip_first = false;
    }

    AutoLocker locker(&m_tx_mutex);
    if (arm && m_tx_queue.IsEmpty() && SetRegisteredEventsLocked(kArmedEvents) != 0) {
        int err = errno;
        QN_LOG(cat, QN_ERROR, "epoll_ctl() failed, url=%s, local_url=%s, errno=%d", GetURL(), GetLocalURL(),
               err);
    }
    m_tx_queue.Merge(push_list, ahead);
    m_tx_tail_detached = false;
    if (!ahead) {
        m_tx_push_active = false;
        NoteQueuedAtTailLocked(!arm);  // `arm` false: the owner's corked packet
    }
    StoreTv(m_send_buf_full_tv, 0, 0);  // data went in: the send side is no longer starved
    return true;
}

int CTcpConnector::Send(const char* buf, unsigned int len, LogCategory* log_cat) {
    LogCategory* cat = log_cat != nullptr ? log_cat : m_log_cat;
    QN_LOG(cat, QN_DEBUG, "enter CTcpConnector::Send(), url=%s, local_url=%s, len=%d", GetURL(),
           GetLocalURL(), static_cast<int>(len));

    // Dump every packet offered until one has been counted (before any check, so refused and
    // invalid calls are dumped too). A null buffer dumps no bytes.
    if (m_tx_packet_cnt == 0 && tcp_log::Wanted(cat, QN_INFO)) {
        QN_LOG(cat, QN_INFO, "dump first send pkg, len=%d, connector=%s", static_cast<int>(len), ToString());
        QN_LOG_HEX(cat, buf, buf != nullptr ? static_cast<int>(len) : 0);
    }

    if (m_status != CONNECTOR_STATUS_CONNECTED) {
        QN_LOG(cat, QN_ERROR, "invalid status(%d)", static_cast<int>(m_status));
        return kSendInvalid;
    }
    if (buf == nullptr || len == 0) {
        QN_LOG(cat, QN_ERROR, "invalid argument, url=%s, local_url=%s, buf=%p, len=%d", GetURL(),
               GetLocalURL(), static_cast<const void*>(buf), static_cast<int>(len));
        return kSendInvalid;
    }
    if (RefuseOverQueueLimit(static_cast<int>(len), cat)) {
        return kSendNoRoom;
    }

    // Take the role only for a socket known to be writable. Whether bytes are waiting is
    // decided under the same lock: queued blocks or a tail detached by a push in progress.
    bool acquire_succ = false;
    bool has_queued = false;
    if (!m_is_sending.load()) {
        AutoLocker locker(&m_tx_mutex);
        if (m_tx_shut) {
            return kSendShutDown;  // decided under this lock: no write may start after it
        }
        if (!m_is_sending.load() && (m_events.load() & EPOLLOUT) != 0) {
            m_is_sending.store(true);
            acquire_succ = true;
            has_queued = !m_tx_queue.IsEmpty() || m_tx_tail_detached;
        }
    }

    if (acquire_succ && has_queued) {
        // Flush first so that the new packet does not overtake queued bytes.
        int ret = Sending(cat);
        if (ret < 0) {
            m_is_sending.store(false);
            QN_LOG(cat, QN_ERROR, "Sending() failed, url=%s, local_url=%s, len=%d, ret=%d", GetURL(),
                   GetLocalURL(), static_cast<int>(len), ret);
            return ret;
        }
        {
            AutoLocker locker(&m_tx_mutex);
            has_queued = !m_tx_queue.IsEmpty() || m_tx_tail_detached;
        }
        if (has_queued) {
            m_is_sending.store(false);
            acquire_succ = false;
        }
    }

    if (!acquire_succ) {
        int ret = SendToQ(buf, len, cat);
        if (ret < 0) {
            QN_LOG(cat, QN_ERROR, "SendToQ() failed, url=%s, local_url=%s, len=%d, ret=%d", GetURL(),
                   GetLocalURL(), static_cast<int>(len), ret);
        }
        return ret;
    }

    // Reserve room for the whole packet before writing, so that whatever the socket does
    // not take can always be queued. Only a count changes: the blocks are taken only when
    // the socket takes less than all of the packet.
    if (!m_net_buf_mgr->Reserve(static_cast<int>(len))) {
        m_is_sending.store(false);
        if (!m_is_last_tx_full) {
            m_is_last_tx_full = true;
            ++m_tx_buf_full_cnt;
            QN_LOG(cat, QN_WARN, "allocate send buffer failed, url=%s, local_url=%s, len=%d", GetURL(),
                   GetLocalURL(), static_cast<int>(len));
        }
        return kSendNoRoom;
    }

    int total_send_cnt = 0;
    int ret = 0;
    while (total_send_cnt < static_cast<int>(len)) {
        ret = WriteSocket(buf + total_send_cnt, static_cast<int>(len) - total_send_cnt, cat);
        if (ret <= 0) {
            break;
        }
        total_send_cnt += ret;
    }

    if (ret < 0) {
        m_is_sending.store(false);
        QN_LOG(
            cat, QN_ERROR,
            "WriteSocket() failed, suggest to disconnect, url=%s, local_url=%s, len=%d, left_cnt=%d, ret=%d",
            GetURL(), GetLocalURL(), static_cast<int>(len), static_cast<int>(len) - total_send_cnt, ret);
        // The room reserved for the packet goes back to the pool; the packet is not counted
        // and the full flag is left as it was.
        m_net_buf_mgr->Unreserve(static_cast<int>(len));
        return ret;
    }

    const bool short_write = total_send_cnt < static_cast<int>(len);
    CBidirList buffer_list;
    if (short_write) {
        // The start of the packet is on the wire: its rest goes ahead of anything queued
        // meanwhile, and the role is kept until it is queued.
        m_net_buf_mgr->TakeReserved(static_cast<int>(len), buffer_list);
        PushSendQ(buf + total_send_cnt, static_cast<int>(len) - total_send_cnt, buffer_list, cat, true);
    }
    m_is_sending.store(false);

    ++m_tx_packet_cnt;
    if (short_write) {
        m_net_buf_mgr->Release(buffer_list);  // the blocks the rest did not need
    } else {
        m_net_buf_mgr->Unreserve(static_cast<int>(len));
    }
    m_is_last_tx_full = false;
    return static_cast<int>(len);
}

int CTcpConnector::ShutdownSendIfIdle() {
    int fd = -1;
    {
        AutoLocker locker(&m_tx_mutex);
        if (!m_tx_shut) {
            // A detached tail belongs to a push at the end of the queue, so m_tx_push_active
            // covers it; a push ahead of the queue runs under the sending role.
            if (m_is_sending.load() || m_tx_push_active || !m_tx_queue.IsEmpty()) {
                return 0;  // a sender is still at work: its packet must reach the wire whole
            }
            m_tx_shut = true;
            fd = m_socket;
        }
    }
    // No sender can start any more, so the descriptor's sending side may go outside the lock.
    if (fd >= 0 && m_io != nullptr) {
        if (m_io->ShutdownWrite() != 0) {  // the layer's end of stream, then SHUT_WR
            m_write_errno = m_io->LastErrno();
            return -1;
        }
    } else if (fd >= 0 && ::shutdown(fd, SHUT_WR) != 0) {
        m_write_errno = errno;
        return -1;
    }
    return 1;
}

bool CTcpConnector::NothingToFlush() const {
    return !m_is_sending.load() && m_tx_queue.IsEmpty() && !m_tx_tail_detached &&
           m_registered_events == EffectiveEventsLocked(kDisarmedEvents);
}

int CTcpConnector::Send() {
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::Send(), url=%s, local_url=%s", GetURL(), GetLocalURL());

    if (NothingToFlush()) {
        return 0;  // the common tick of a writable, idle connection: no lock taken
    }
    {
        AutoLocker locker(&m_tx_mutex);
        EndCork();  // the owner's flush ends its cork: the block may be sent
        if (m_is_sending.load()) {
            // Another thread holds the sending role. What is queued may have come from
            // SendToQCorked, unarmed: ask for writability so that it is not left behind.
            if (!m_tx_queue.IsEmpty() && SetRegisteredEventsLocked(kArmedEvents) != 0) {
                m_write_errno = errno;
                return kIoFailed;
            }
            return 0;
        }
        if (m_tx_queue.IsEmpty() && !m_tx_tail_detached &&
            m_registered_events == EffectiveEventsLocked(kDisarmedEvents)) {
            return 0;  // nothing to write and writability already off: what a flush would find
        }
        m_is_sending.store(true);
    }

    int ret = Sending(nullptr);
    m_is_sending.store(false);
    if (ret < 0) {
        QN_LOG(m_log_cat, QN_ERROR, "Sending() failed, url=%s, local_url=%s, ret=%d", GetURL(), GetLocalURL(),
               ret);
    }
    return ret;
}

int CTcpConnector::Sending(LogCategory* log_cat) {
    LogCategory* cat = log_cat != nullptr ? log_cat : m_log_cat;
    QN_LOG(m_log_cat, QN_DEBUG, "enter CTcpConnector::Sending(), url=%s, local_url=%s", GetURL(),
           GetLocalURL());

    int total_send_cnt = 0;
    for (;;) {
        LIST_NODE* node = nullptr;
        {
            AutoLocker locker(&m_tx_mutex);
            LIST_NODE* head = m_tx_queue.Head();
            if (head != nullptr && head->pData == m_tx_cork_block) {
                // The owner is still filling this block: it and whatever follows leave with
                // the owner's own flush, due before its thread next waits.
                return total_send_cnt;
            }
            node = m_tx_queue.RemoveHead();
            if (node == nullptr) {
                if (SetRegisteredEventsLocked(kDisarmedEvents) != 0) {
                    int err = errno;
                    m_write_errno = err;
                    QN_LOG(cat, QN_ERROR, "epoll_ctl() failed, url=%s, local_url=%s, errno=%d", GetURL(),
                           GetLocalURL(), err);
                    return kIoFailed;
                }
                return total_send_cnt;
            }
        }

        NetBuffer* buffer = static_cast<NetBuffer*>(node->pData);
        if (buffer->HasReadRemaining()) {
            int ret = WriteSocket(buffer->ReadBuf(), buffer->ReadRemaining(), m_log_cat);
            if (ret < 0) {
                m_net_buf_mgr->Release(&buffer);  // its unsent bytes are dropped
                QN_LOG(cat, QN_ERROR, "WriteSocket() failed, url=%s, local_url=%s, ret=%d", GetURL(),
                       GetLocalURL(), ret);
                return ret;
            }
            buffer->AddReadPosition(ret);
            total_send_cnt += ret;
        }

        if (SettleWrittenBlock(node, cat)) {
            return total_send_cnt;  // partial write or would-block
        }
    }
}

bool CTcpConnector::SettleWrittenBlock(LIST_NODE* node, LogCategory* cat) {
    NetBuffer* buffer = static_cast<NetBuffer*>(node->pData);
    if (buffer->HasReadRemaining()) {
        // Partial write or would-block: the block stays first, and write readiness is
        // armed (it already is unless the queue was filled by SendToQCorked).
        AutoLocker locker(&m_tx_mutex);
        m_tx_queue.InsertHead(node);
        if (SetRegisteredEventsLocked(kArmedEvents) != 0) {
            int err = errno;
            QN_LOG(cat, QN_ERROR, "epoll_ctl() failed, url=%s, local_url=%s, errno=%d", GetURL(),
                   GetLocalURL(), err);
        }
        return true;
    }

    // Queue wait of the block, from its first byte to its last being written, in
    // microseconds; 32-bit wrapping arithmetic (waits beyond about 35 minutes wrap).
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    uint32_t wrapped =
        static_cast<uint32_t>(static_cast<uint32_t>(tv.tv_sec - buffer->m_tv.tv_sec) * 1000000u) -
        static_cast<uint32_t>(buffer->m_tv.tv_usec) + static_cast<uint32_t>(tv.tv_usec);
    int cost = static_cast<int>(wrapped);
    if (cost < 0) {
        cost = 0;
    }
    if (cost > m_tx_max_wait_time) {
        m_tx_max_wait_time = cost;
    }
    m_tx_avg_wait_time =
        static_cast<float>((static_cast<double>(m_tx_avg_wait_time) * 9999.0 + cost) / 10000.0);
    m_net_buf_mgr->Release(&buffer);
    return false;
}

bool CTcpConnector::BeginBatchedFlush(SendOp* op) {
    if (m_io != nullptr || NothingToFlush()) {
        return false;
    }
    AutoLocker locker(&m_tx_mutex);
    EndCork();  // the owner's flush ends its cork: the block may be sent
    LIST_NODE* head = m_tx_queue.Head();
    if (m_is_sending.load() || head == nullptr || !static_cast<NetBuffer*>(head->pData)->HasReadRemaining()) {
        return false;  // Send() handles what is left (a role held elsewhere, an empty block)
    }
    m_is_sending.store(true);
    m_tx_flight = m_tx_queue.RemoveHead();  // as Sending holds the block it writes
    const NetBuffer* b = static_cast<const NetBuffer*>(m_tx_flight->pData);
    op->fd = m_socket;
    op->buf = b->ReadBuf();
    op->len = static_cast<size_t>(b->ReadRemaining());
    return true;
}

int CTcpConnector::EndBatchedFlush(int result) {
    LIST_NODE* node = m_tx_flight;
    m_tx_flight = nullptr;
    NetBuffer* buffer = static_cast<NetBuffer*>(node->pData);
    // The result read as WriteSocket reads send(2)'s, and a failure reported as Sending does.
    int ret =
        TookWrite(result < 0 ? -1 : result, result < 0 ? -result : 0, buffer->ReadRemaining(), m_log_cat);
    if (ret < 0) {
        m_net_buf_mgr->Release(&buffer);  // its unsent bytes are dropped
        QN_LOG(m_log_cat, QN_ERROR, "WriteSocket() failed, url=%s, local_url=%s, ret=%d", GetURL(),
               GetLocalURL(), ret);
        node = nullptr;
    } else {
        buffer->AddReadPosition(ret);
    }
    if (node != nullptr && !SettleWrittenBlock(node, m_log_cat)) {
        int more = Sending(nullptr);  // the rest of the queue, or writability turned off
        if (more < 0) {
            ret = more;
        } else {
            ret += more;
        }
    }
    m_is_sending.store(false);
    if (ret < 0) {
        QN_LOG(m_log_cat, QN_ERROR, "Sending() failed, url=%s, local_url=%s, ret=%d", GetURL(), GetLocalURL(),
               ret);
    }
    return ret;
}

int CTcpConnector::WriteSocket(const char* buf, int len, LogCategory* log_cat) {
    LogCategory* cat = log_cat != nullptr ? log_cat : m_log_cat;
    QN_LOG(cat, QN_DEBUG, "enter CTcpConnector::WriteSocket(), url=%s, local_url=%s, len=%d", GetURL(),
           GetLocalURL(), len);

    if (m_io != nullptr) {
        return WriteStream(buf, len, cat);
    }
    // MSG_NOSIGNAL: a reset peer makes this call fail with EPIPE instead of raising SIGPIPE.
    ssize_t cnt = send(m_socket, buf, static_cast<size_t>(len), MSG_NOSIGNAL);
    return TookWrite(cnt, cnt == -1 ? errno : 0, len, cat);
}

int CTcpConnector::TookWrite(ssize_t cnt, int err, int len, LogCategory* cat) {
    if (cnt != -1) {
        if (cnt > 0) {
            m_tx_bytes += cnt;  // only the holder of the sending role gets here
        }
        return static_cast<int>(cnt);
    }
    if (err == EAGAIN) {
        m_events.fetch_and(~static_cast<unsigned int>(EPOLLOUT));
        return 0;
    }
    m_write_errno = err;
    // EINTR included: the owner decides what to do with a connection whose write failed.
    QN_LOG(cat, QN_ERROR, "send data to server failed, url=%s, local_url=%s, send_len=%d, err=%d", GetURL(),
           GetLocalURL(), len, err);
    return kIoFailed;
}

int CTcpConnector::WriteStream(const char* buf, int len, LogCategory* cat) {
    int total = 0;
    while (total < len) {
        int n = m_io->Write(buf + total, len - total);
        if (n > 0) {
            total += n;
            continue;
        }
        if (n == IStreamIo::kWantWrite) {
            m_events.fetch_and(~static_cast<unsigned int>(EPOLLOUT));
            break;
        }
        if (n == IStreamIo::kWantRead) {
            // The layer must read before it writes on: the flush that queues the rest arms
            // the registration, which then keeps read readiness too (see Update).
            m_tx_wants_read = true;
            break;
        }
        m_write_errno = m_io->LastErrno() != 0 ? m_io->LastErrno() : EPROTO;
        QN_LOG(cat, QN_ERROR, "write to the stream layer failed: %s, url=%s, local_url=%s, send_len=%d",
               m_io->LastError(), GetURL(), GetLocalURL(), len);
        return kIoFailed;
    }
    if (total > 0) {
        m_tx_bytes += total;  // only the holder of the sending role gets here
    }
    return total;
}

int CTcpConnector::GetConstantSendBufFullMS() {
    if (LoadTvSec(m_send_buf_full_tv) == 0) {
        return 0;
    }
    AutoLocker locker(&m_tx_mutex);
    return CConnector::GetConstantSendBufFullMS();
}

}  // namespace QUOLNET
