// CTcpConnector: a connection's state as bytes, for a connector in another process that
// takes over the same socket (ExportCarry, ImportCarry).
//
// The receive side is exported as a stream, not as blocks: the bytes from the first packet
// still in the ring to the last byte read lie in the receive queue in order,
//
//   rx queue: [ delivered | ring head ... ] [ ... ] [ ... half packet | unframed ]
//                          ^ start                                          write_pos ^
//
// (every block after the first holds its bytes from offset 0: framing moves a packet that
// does not fit to the start of a fresh block and cuts the old block's write position back
// to what it keeps). The importing connector reads them again before its socket, so framing
// rebuilds the same packets with its own parser and blocks.
#include <sys/epoll.h>

#include "net/tcp_connector.h"
#include "net/tcp_connector_log.h"

namespace QUOLNET {

int CTcpConnector::ExportCarry(Carry* out) {
    out->unsent.clear();
    out->unread.clear();
    {
        AutoLocker locker(&m_tx_mutex);
        for (LIST_NODE* n = m_tx_queue.Head(); n != nullptr; n = n->pNext) {
            const NetBuffer* b = static_cast<const NetBuffer*>(n->pData);
            out->unsent.append(b->m_buf + b->m_read_pos, static_cast<size_t>(b->ReadRemaining()));
        }
    }
    int ring = 0;
    {
        MaybeLocker locker = LockRx();
        ring = PacketCountLocked();
        const NetBuffer* first = nullptr;
        int pos = 0;
        if (ring > 0) {
            const PacketInfo& head = PacketSlot(m_packet_head_idx);
            first = head.buffer;
            pos = head.start_pos;
        } else if (m_rx_packet.len > 0 && m_rx_packet.buffer != nullptr) {
            first = m_rx_packet.buffer;
            pos = m_rx_packet.start_pos;
        } else if (m_rx_buffer != nullptr) {
            first = m_rx_buffer;
            pos = m_rx_buffer->m_read_pos;
        }
        if (first != nullptr) {
            LIST_NODE* n = m_rx_queue.Head();
            while (n != nullptr && n->pData != first) {
                n = n->pNext;
            }
            if (n == nullptr || pos < 0 || pos > first->m_write_pos) {
                QN_LOG(m_log_cat, QN_ERROR,
                       "cannot export received bytes, url=%s, local_url=%s, block=%p, pos=%d, packets=%d",
                       GetURL(), GetLocalURL(), static_cast<const void*>(first), pos, ring);
                out->unsent.clear();
                return -1;
            }
            for (; n != nullptr; n = n->pNext) {
                const NetBuffer* b = static_cast<const NetBuffer*>(n->pData);
                out->unread.append(b->m_buf + pos, static_cast<size_t>(b->m_write_pos - pos));
                pos = 0;
            }
        }
    }
    // Bytes not yet taken from an earlier carry are still owed too.
    if (m_rx_carry_pos < m_rx_carry.size()) {
        out->unread.append(m_rx_carry, m_rx_carry_pos, std::string::npos);
    }
    out->rx_bytes = m_rx_bytes - static_cast<int64_t>(out->unread.size()) +
                    static_cast<int64_t>(m_rx_carry.size() - m_rx_carry_pos);
    out->tx_bytes = m_tx_bytes;
    out->rx_packets = m_rx_packet_cnt - ring;
    out->tx_packets = m_tx_packet_cnt;
    return 0;
}

int CTcpConnector::ImportCarry(Carry&& in) {
    CBidirList blocks;
    size_t off = 0;
    while (off < in.unsent.size()) {
        NetBuffer* b = m_net_buf_mgr->Allocate(false, false);
        if (b == nullptr) {
            m_net_buf_mgr->Release(blocks);
            QN_LOG(m_log_cat, QN_ERROR, "cannot import unsent bytes, url=%s, local_url=%s, len=%d", GetURL(),
                   GetLocalURL(), static_cast<int>(in.unsent.size()));
            return -1;
        }
        size_t n = std::min(in.unsent.size() - off, static_cast<size_t>(NetBuffer::kBlockSize));
        b->Put(in.unsent.data() + off, static_cast<int>(n));
        gettimeofday(&b->m_tv, nullptr);
        blocks.Insert(&b->m_node);
        off += n;
    }
    if (!blocks.IsEmpty()) {
        AutoLocker locker(&m_tx_mutex);
        while (LIST_NODE* n = blocks.RemoveHead()) {
            m_tx_queue.Insert(n);
        }
    }
    m_rx_bytes = in.rx_bytes;
    m_tx_bytes = in.tx_bytes;
    m_rx_packet_cnt = static_cast<long>(in.rx_packets);
    m_tx_packet_cnt = in.tx_packets;
    m_rx_carry = std::move(in.unread);
    m_rx_carry_pos = 0;
    m_events.fetch_or(m_rx_carry.empty() ? 0u : static_cast<unsigned int>(EPOLLIN));
    return 0;
}

int CTcpConnector::ReadCarried(void* buf, int len) {
    size_t n = std::min(m_rx_carry.size() - m_rx_carry_pos, static_cast<size_t>(len));
    memcpy(buf, m_rx_carry.data() + m_rx_carry_pos, n);
    m_rx_carry_pos += n;
    if (m_rx_carry_pos == m_rx_carry.size()) {
        std::string().swap(m_rx_carry);  // its memory too
        m_rx_carry_pos = 0;
    }
    return static_cast<int>(n);
}

}  // namespace QUOLNET
