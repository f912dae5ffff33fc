// CTcpConnectorTestPeer: white-box access to a connector's private state for the library's
// own tests (the connector names this class as a friend). Each field accessor returns a
// reference; two private operations can be called directly.
#pragma once

#include "net/tcp_connector.h"

namespace QUOLNET {

class CTcpConnectorTestPeer {
  public:
#define QN_PEER_FIELD(name)               \
    static auto& name(CTcpConnector& c) { \
        return c.name;                    \
    }
    QN_PEER_FIELD(m_parser)
    QN_PEER_FIELD(m_events)
    QN_PEER_FIELD(m_combine_buf)
    QN_PEER_FIELD(m_combine_buf_len)
    QN_PEER_FIELD(m_cb_combine_buf)
    QN_PEER_FIELD(m_cb_combine_buf_len)
    QN_PEER_FIELD(m_socket)
    QN_PEER_FIELD(m_close_socket)
    QN_PEER_FIELD(m_addr)
    QN_PEER_FIELD(m_addr6)
    QN_PEER_FIELD(m_ip)
    QN_PEER_FIELD(m_ipv6)
    QN_PEER_FIELD(m_port)
    QN_PEER_FIELD(m_peer_url)
    QN_PEER_FIELD(m_tx_queue)
    QN_PEER_FIELD(m_rx_queue)
    QN_PEER_FIELD(m_net_buf_mgr)
    QN_PEER_FIELD(m_max_tx_buf_num)
    QN_PEER_FIELD(m_max_rx_buf_num)
    QN_PEER_FIELD(m_tx_mutex)
    QN_PEER_FIELD(m_push_send_queue_mutex)
    QN_PEER_FIELD(m_rx_mutex)
    QN_PEER_FIELD(m_mutex)
    QN_PEER_FIELD(m_rx_status)
    QN_PEER_FIELD(m_rx_buffer)
    QN_PEER_FIELD(m_rx_packet)
    QN_PEER_FIELD(m_packet_info)
    QN_PEER_FIELD(m_packet_info_inline)
    QN_PEER_FIELD(m_rx_reading)
    QN_PEER_FIELD(m_packet_head_idx)
    QN_PEER_FIELD(m_packet_tail_idx)
    QN_PEER_FIELD(m_is_wait_alloc_big_buffer)
    QN_PEER_FIELD(m_wait_alloc_starttime)
    QN_PEER_FIELD(m_last_sample_time)
    QN_PEER_FIELD(m_packet_info_max_cnt)
    QN_PEER_FIELD(m_packet_info_avg_cnt)
    QN_PEER_FIELD(m_tx_max_wait_time)
    QN_PEER_FIELD(m_tx_avg_wait_time)
    QN_PEER_FIELD(m_rx_max_wait_time)
    QN_PEER_FIELD(m_rx_avg_wait_time)
    QN_PEER_FIELD(m_tx_buf_full_cnt)
    QN_PEER_FIELD(m_rx_buf_full_cnt)
    QN_PEER_FIELD(m_is_last_tx_full)
    QN_PEER_FIELD(m_is_last_rx_full)
    QN_PEER_FIELD(m_rx_packet_cnt)
    QN_PEER_FIELD(m_tx_packet_cnt)
    QN_PEER_FIELD(m_is_sending)
    QN_PEER_FIELD(m_registered_events)
    QN_PEER_FIELD(m_tx_tail_detached)
    QN_PEER_FIELD(m_tx_cork_block)
    QN_PEER_FIELD(m_tx_cork_overtaken)
    QN_PEER_FIELD(m_read_paused)
    QN_PEER_FIELD(m_rx_inq)
    QN_PEER_FIELD(m_rx_last_full)
    // base fields
    QN_PEER_FIELD(m_status)
    QN_PEER_FIELD(m_url)
    QN_PEER_FIELD(m_is_accepted)
    QN_PEER_FIELD(m_log_cat)
    QN_PEER_FIELD(m_bIPv6)
    QN_PEER_FIELD(m_send_buf_full_tv)
    QN_PEER_FIELD(m_recv_callback)
    QN_PEER_FIELD(m_callback_arg)
#undef QN_PEER_FIELD

    // The epoll instance Init was given (-1 before).
    static int EpollFd(CTcpConnector& c) {
        return c.m_epoll_poller.GetEpollFd();
    }
    // Whether reads may ask the kernel for the bytes still queued (TCP_INQ).
    static bool ReadInqOn(CTcpConnector& c) {
        return c.m_rx_inq == CTcpConnector::kRxInqOn;
    }
    // As on a socket or kernel without that count.
    static void DenyReadInq(CTcpConnector& c) {
        c.m_rx_inq = CTcpConnector::kRxInqUnsupported;
    }

    // Private operations, for the paths that only a corrupted state reaches.
    static void PushSendQ(CTcpConnector& c, const char* buf, int len, CBidirList& list) {
        c.PushSendQ(buf, len, list, nullptr);
    }
    static void ReleaseCallBackPacket(CTcpConnector& c) {
        c.ReleaseCallBackPacket();
    }
    // The ring slot of index `idx`, wherever it lives now (inline or ring storage).
    static PacketInfo& Slot(CTcpConnector& c, int idx) {
        return c.PacketSlot(idx);
    }
    // Moves the ring to ring storage as framing does past the inline slots (the ring must
    // hold a packet). False when no storage could be had.
    static bool GrowPacketRing(CTcpConnector& c) {
        return c.GrowPacketRing();
    }
};

}  // namespace QUOLNET
