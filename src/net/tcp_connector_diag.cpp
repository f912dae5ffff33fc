// CTcpConnector: the one-line dump, the statistics row and the gauges.
#include <cstdio>
#include <cstring>

#include "net/tcp_connector.h"

namespace QUOLNET {

int CTcpConnector::GetPacketInfoCnt() {
    MaybeLocker locker = LockRx();
    return PacketCountLocked();
}

int CTcpConnector::GetSendQCount() {
    return static_cast<int>(m_tx_queue.Count());
}

int CTcpConnector::GetRecvQCount() {
    return static_cast<int>(m_rx_queue.Count());
}

// 100 - count*100/limit in unsigned arithmetic; an over-full queue yields a negative rate.
// The limit must not be 0.
int CTcpConnector::GetSendBuffLeftRate() {
    unsigned int used = m_tx_queue.Count() * 100u / m_max_tx_buf_num;
    return static_cast<int>(100u - used);
}

int CTcpConnector::GetRecvBuffLeftRate() {
    unsigned int used = m_rx_queue.Count() * 100u / m_max_rx_buf_num;
    return static_cast<int>(100u - used);
}

namespace {

// ToString's text, one per thread rather than one per connector: a connector is mostly idle,
// and 512 bytes in each would be a good part of an idle connection's memory.
thread_local char t_to_string[512];

}  // namespace

const char* CTcpConnector::ToString() {
    // The block description is limited to 64 bytes on purpose: it keeps the line short, and
    // a typical description is cut near its end.
    char rx_buffer_text[64];
    if (m_rx_buffer == nullptr) {
        snprintf(rx_buffer_text, sizeof(rx_buffer_text), "(null)");
    } else {
        snprintf(rx_buffer_text, sizeof(rx_buffer_text),
                 "this=%p, m_read_pos=%d, m_write_pos=%d, m_limit_pos=%d, m_is_big_buf=%d",
                 static_cast<void*>(m_rx_buffer), m_rx_buffer->m_read_pos, m_rx_buffer->m_write_pos,
                 m_rx_buffer->m_limit_pos, m_rx_buffer->m_is_big_buf);
    }
    int idx = GetIdx();
    const char* url = GetURL();
    const char* local_url = GetLocalURL();
    unsigned int events = GetEvent();
    int tx_cnt = GetSendQCount();
    int rx_cnt = GetRecvQCount();
    snprintf(t_to_string, sizeof(t_to_string),
             "CTcpConnector[this=%p, idx=%d, url=%s, local_url=%s, m_events=%d, m_parser=%p, m_socket=%d, "
             "m_tx_queue.cnt=%d, m_rx_queue.cnt=%d, m_close_socket=%d, m_packet_head_idx=%d, "
             "m_packet_tail_idx=%d, m_rx_packet[buffer=%p, start_pos=%d, len=%d, recv_len=%d], "
             "m_rx_buffer[%s], m_is_wait_alloc_big_buffer=%d, m_tx_packet_cnt=%lu, m_rx_packet_cnt=%lu]",
             static_cast<void*>(this), idx, url, local_url, static_cast<int>(events),
             static_cast<void*>(m_parser), static_cast<int>(m_socket), tx_cnt, rx_cnt, m_close_socket ? 1 : 0,
             m_packet_head_idx, m_packet_tail_idx, static_cast<void*>(m_rx_packet.buffer),
             m_rx_packet.start_pos, m_rx_packet.len, m_rx_packet.recv_len, rx_buffer_text,
             m_is_wait_alloc_big_buffer ? 1 : 0, static_cast<unsigned long>(m_tx_packet_cnt.load()),
             static_cast<unsigned long>(m_rx_packet_cnt.load()));
    return t_to_string;
}

int CTcpConnector::PrintStat(char* buf, int len) {
    char packets[32];
    memset(packets, 0, sizeof(packets));
    snprintf(packets, sizeof(packets), "%lu|%lu", static_cast<unsigned long>(m_tx_packet_cnt.load()),
             static_cast<unsigned long>(m_rx_packet_cnt.load()));
    int avg_cnt = static_cast<int>(m_packet_info_avg_cnt.load());
    int tx_avg = static_cast<int>(m_tx_avg_wait_time.load());
    int rx_avg = static_cast<int>(m_rx_avg_wait_time.load());
    return snprintf(buf, len < 0 ? 0 : static_cast<size_t>(len),
                    "\t\t%-10s%-30.29s%-30.29s%-8d%-8d%-8d%-8d%-8d%-8d%-8d%-8d%-30s\n",
                    IsAccptedConnector() ? "true" : "false", GetURL(), GetLocalURL(),
                    m_packet_info_max_cnt.load(), avg_cnt, m_tx_max_wait_time.load() / 1000, tx_avg / 1000,
                    m_tx_buf_full_cnt.load(), m_rx_max_wait_time.load() / 1000, rx_avg / 1000,
                    m_rx_buf_full_cnt.load(), packets);
}

}  // namespace QUOLNET
