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

#include <string>
#include <utility>

#include "net/tcp_connector.h"
#include "net/tcp_connector_log.h"

namespace QUOLNET {

size_t CTcpConnector::Carry::Size(const std::vector<Piece>& pieces) {
    size_t n = 0;
    for (const Piece& p : pieces) {
        n += p.second;
    }
    return n;
}

int CTcpConnector::ExportCarry(Carry* out) {
    TakeBackReceived();  // what the poller took off the socket goes too
    out->unsent.clear();
    out->unread.clear();
    out->keep.reset();
    {
        AutoLocker locker(&m_tx_mutex);
        for (LIST_NODE* n = m_tx_queue.Head(); n != nullptr; n = n->pNext) {
            const NetBuffer* b = static_cast<const NetBuffer*>(n->pData);
            if (b->ReadRemaining() > 0) {
                out->unsent.emplace_back(b->m_buf + b->m_read_pos, static_cast<size_t>(b->ReadRemaining()));
            }
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
                if (b->m_write_pos > pos) {
                    out->unread.emplace_back(b->m_buf + pos, static_cast<size_t>(b->m_write_pos - pos));
                }
                pos = 0;
            }
        }
    }
    // Bytes not yet taken from an earlier carry are still owed too.
    size_t carried = 0;
    for (size_t i = m_rx_carry_idx; i < m_rx_carry.size(); ++i) {
        size_t skip = i == m_rx_carry_idx ? m_rx_carry_pos : 0;
        out->unread.emplace_back(m_rx_carry[i].first + skip, m_rx_carry[i].second - skip);
        carried += m_rx_carry[i].second - skip;
    }
    out->rx_bytes =
        m_rx_bytes - static_cast<int64_t>(Carry::Size(out->unread)) + static_cast<int64_t>(carried);
    out->tx_bytes = m_tx_bytes;
    out->rx_packets = m_rx_packet_cnt - ring;
    out->tx_packets = m_tx_packet_cnt;
    return 0;
}

int CTcpConnector::ImportCarry(Carry&& in) {
    CBidirList blocks;
    NetBuffer* b = nullptr;  // the last block, filled up before the next is taken
    for (const Piece& p : in.unsent) {
        size_t off = 0;
        while (off < p.second) {
            if (b == nullptr || b->WriteRemaining() == 0) {
                b = m_net_buf_mgr->Allocate(false, false);
                if (b == nullptr) {
                    m_net_buf_mgr->Release(blocks);
                    QN_LOG(m_log_cat, QN_ERROR, "cannot import unsent bytes, url=%s, local_url=%s, len=%zu",
                           GetURL(), GetLocalURL(), Carry::Size(in.unsent));
                    return -1;
                }
                gettimeofday(&b->m_tv, nullptr);
                blocks.Insert(&b->m_node);
            }
            size_t n = std::min(p.second - off, static_cast<size_t>(b->WriteRemaining()));
            b->Put(p.first + off, static_cast<int>(n));
            off += n;
        }
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
    DropCarried();
    for (const Piece& p : in.unread) {
        if (p.second > 0) {
            m_rx_carry.push_back(p);
        }
    }
    if (!m_rx_carry.empty()) {
        m_rx_carry_keep = std::move(in.keep);
        m_events.fetch_or(static_cast<unsigned int>(EPOLLIN));
    }
    return 0;
}

int CTcpConnector::ReadCarried(void* buf, int len) {
    char* out = static_cast<char*>(buf);
    size_t got = 0;
    while (got < static_cast<size_t>(len) && m_rx_carry_idx < m_rx_carry.size()) {
        const Piece& p = m_rx_carry[m_rx_carry_idx];
        size_t n = std::min(p.second - m_rx_carry_pos, static_cast<size_t>(len) - got);
        memcpy(out + got, p.first + m_rx_carry_pos, n);
        got += n;
        m_rx_carry_pos += n;
        if (m_rx_carry_pos == p.second) {
            ++m_rx_carry_idx;
            m_rx_carry_pos = 0;
        }
    }
    if (m_rx_carry_idx == m_rx_carry.size()) {
        DropCarried();  // their memory goes too
    }
    return static_cast<int>(got);
}

void CTcpConnector::TakeBackReceived() {
    if (!m_poller_reads) {
        return;
    }
    m_poller_reads = false;  // asked already: the socket is read with recv(2) from now on
    // The bytes go into memory the carry keeps, with whatever an earlier carry still owes.
    auto keep = std::make_shared<std::pair<std::shared_ptr<const void>, std::string>>();
    m_poller->StopReceive(m_socket, &keep->second);
    if (keep->second.empty()) {
        return;
    }
    keep->first = std::move(m_rx_carry_keep);
    m_rx_carry.emplace_back(keep->second.data(), keep->second.size());
    m_rx_carry_keep = std::move(keep);
    m_events.fetch_or(static_cast<unsigned int>(EPOLLIN));
}

void CTcpConnector::DropCarried() {
    std::vector<Piece>().swap(m_rx_carry);
    m_rx_carry_idx = 0;
    m_rx_carry_pos = 0;
    m_rx_carry_keep.reset();
}

}  // namespace QUOLNET
