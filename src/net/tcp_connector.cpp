// CTcpConnector: construction, initialisation, dialling, closing and the per-tick driver.
#include "net/tcp_connector.h"
#include "net/tcp_listener.h"

#include <errno.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cstring>

#include "net/tcp_connector_log.h"
#include "platform/sock.h"

namespace QUOLNET {

CTcpConnector::CTcpConnector(char* combine_buf, int combine_buf_len, char* cb_combine_buf,
                             int cb_combine_buf_len, char* last_err, CNetBufferMgr* net_buffer_mgr,
                             unsigned int max_send_buf_num, unsigned int max_recv_buf_num, RecvPkgCallback cb,
                             void* cb_para)
    : CConnector(last_err, cb, cb_para),
      m_parser(nullptr),
      m_events(0),
      m_combine_buf(combine_buf),
      m_combine_buf_len(combine_buf_len),
      m_cb_combine_buf(cb_combine_buf),
      m_cb_combine_buf_len(cb_combine_buf_len),
      m_socket(-1),
      m_close_socket(true),
      m_port(0),
      m_net_buf_mgr(net_buffer_mgr),
      m_max_tx_buf_num(max_send_buf_num),
      m_max_rx_buf_num(max_recv_buf_num),
      m_is_sending(false) {
    m_log_cat = nullptr;
    m_bIPv6 = false;
    memset(&m_addr6, 0, sizeof(m_addr6));
    memset(&m_addr_un, 0, sizeof(m_addr_un));
    memset(&m_ipv6, 0, sizeof(m_ipv6));
    m_ip = 0;
    Reset();
}

CTcpConnector::~CTcpConnector() {
    QN_LOG(m_log_cat, QN_INFO, "enter CTcpConnector::~CTcpConnector()");
    Fini();
}

void CTcpConnector::Reset() {
    m_close_socket = true;
    EndCork();
    m_events.store(0);
    memset(m_peer_url, 0, sizeof(m_peer_url));
    GivePacketRing(m_packet_info);
    m_packet_info = nullptr;
    memset(m_packet_info_inline, 0, sizeof(m_packet_info_inline));
    m_is_wait_alloc_big_buffer = false;
    m_rx_status = RECV_PACKET_HEAD_STATUS;
    m_rx_buffer = nullptr;
    m_is_sending.store(false);
    m_packet_head_idx = -1;
    m_packet_tail_idx = -1;
    memset(&m_rx_packet, 0, sizeof(m_rx_packet));
    m_status = CONNECTOR_STATUS_DISCONNECTED;
    m_packet_info_max_cnt = 0;
    m_packet_info_avg_cnt = 0.0f;
    struct timeval now;
    gettimeofday(&now, nullptr);
    m_last_sample_time = static_cast<int>(now.tv_sec);
    m_tx_max_wait_time = 0;
    m_tx_avg_wait_time = 0.0f;
    m_rx_max_wait_time = 0;
    m_rx_avg_wait_time = 0.0f;
    m_tx_buf_full_cnt = 0;
    m_rx_buf_full_cnt = 0;
    m_is_last_tx_full = false;
    m_is_last_rx_full = false;
    m_rx_packet_cnt = 0;
    m_tx_packet_cnt = 0;
    m_wait_alloc_starttime = 0;
    // Connection state of the half-close, progress and close-cause accessors. The
    // keep-writing setting is configuration and stays.
    m_peer_closed = false;
    m_tx_shut = false;
    m_tx_push_active = false;
    m_tx_bytes = 0;
    m_rx_bytes = 0;
    DropCarried();
    m_last_io_result = 0;
    m_last_errno = 0;
    m_read_errno = 0;
    m_write_errno = 0;
    m_rx_inq = kRxInqUntried;
    m_rx_last_full = false;
    // The stream layer is the next connection's (SetStreamIo) and stays; its progress flags
    // are this connection's.
    m_handshaking = false;
    m_handshake_wait = 0;
    m_rx_wants_write = false;
    m_tx_wants_read = false;
}

void CTcpConnector::SetStreamIo(std::unique_ptr<IStreamIo> io) {
    m_io = std::move(io);
}

int CTcpConnector::Retarget(const char* url, IPackParser* parser, int epoll) {
    if (m_is_accepted || GetStatus() != CONNECTOR_STATUS_DISCONNECTED || m_socket != -1) {
        QN_LOG(m_log_cat, QN_ERROR, "cannot retarget a connector in use, url=%s, m_status=%d", GetURL(),
               GetStatus());
        return -1;
    }
    m_bIPv6 = false;
    m_unix = false;
    return Init(url, parser, epoll, -1);
}

int CTcpConnector::Init(const char* url, IPackParser* parser, int epoll, int socket) {
    if (parser == nullptr || epoll == -1 || url == nullptr) {
        QN_LOG(m_log_cat, QN_ERROR, "invalid argument, url=%p, parser=%p, epoll=%d, socket=%d",
               static_cast<const void*>(url), static_cast<void*>(parser), epoll, socket);
        return -1;
    }
    QN_LOG(m_log_cat, QN_INFO, "enter CTcpConnector::Init(), url=%s, parser=%p, epoll=%d, socket=%d", url,
           static_cast<void*>(parser), epoll, socket);

    int ret = CConnector::Init(url, parser, epoll, socket);
    if (ret != 0) {
        QN_LOG(m_log_cat, QN_ERROR, "CConnector::Init() failed, ret=%d", ret);
        return ret;
    }

    if (strncmp(url, "tcp://[", 7) == 0) {
        m_bIPv6 = true;
        ret = ParseURLV6();
    } else {
        ret = m_bIPv6 ? ParseURLV6() : ParseURL();
    }
    if (ret != 0) {
        QN_LOG(m_log_cat, QN_ERROR, "m_bIPv6:%d, ParseURL() failed, ret=%d", m_bIPv6 ? 1 : 0, ret);
        return ret;
    }
    m_unix = false;
    return InitBound(parser, epoll, socket);
}

int CTcpConnector::InitUnix(const char* url, IPackParser* parser, int epoll, int socket) {
    if (parser == nullptr || epoll == -1 || url == nullptr) {
        QN_LOG(m_log_cat, QN_ERROR, "invalid argument, url=%p, parser=%p, epoll=%d, socket=%d",
               static_cast<const void*>(url), static_cast<void*>(parser), epoll, socket);
        return -1;
    }
    QN_LOG(m_log_cat, QN_INFO, "enter CTcpConnector::InitUnix(), url=%s, parser=%p, epoll=%d, socket=%d", url,
           static_cast<void*>(parser), epoll, socket);
    int ret = CConnector::Init(url, parser, epoll, socket);
    if (ret != 0) {
        QN_LOG(m_log_cat, QN_ERROR, "CConnector::Init() failed, ret=%d", ret);
        return ret;
    }
    std::string why;
    if (CTcpListener::ParseUnixURL(url, &m_addr_un, &m_addr_un_len, &why) != 0) {
        QN_LOG(m_log_cat, QN_ERROR, "parse url failed -- %s, url=%s", why.c_str(), url);
        return -2;
    }
    m_unix = true;
    m_bIPv6 = false;
    return InitBound(parser, epoll, socket);
}

int CTcpConnector::InitBound(IPackParser* parser, int epoll, int socket) {
    int ret = 0;
    if (m_net_buf_mgr == nullptr || m_combine_buf == nullptr || m_combine_buf_len == 0) {
        QN_LOG(m_log_cat, QN_ERROR,
               "invalid status, m_net_buf_mgr=%p, m_combine_buf=%p, m_combine_buf_len=%d",
               static_cast<void*>(m_net_buf_mgr), static_cast<void*>(m_combine_buf), m_combine_buf_len);
        return -1;
    }

    m_parser = parser;
    m_epoll_poller.SetEpollFd(epoll);

    if (socket < 0) {
        m_is_accepted = false;
        return 0;
    }

    ret = LocalSocketName(socket);
    if (ret != 0) {
        QN_LOG(m_log_cat, QN_ERROR, "GetLocalSocketName() failed, m_bIPv6:%d, socket=%d, ret=%d",
               m_bIPv6 ? 1 : 0, socket, ret);
        return ret;
    }
    QN_LOG(m_log_cat, QN_INFO, "socket(%d) > 0, accept a connect, url=%s, local_url=%s", socket, GetURL(),
           m_peer_url);

    if (m_io != nullptr) {
        // The layer's handshake comes first: the server waits for the peer's first flight.
        if (m_io->Attach(socket) != 0) {
            QN_LOG(m_log_cat, QN_ERROR, "the stream layer refused the socket, socket=%d, error=%s", socket,
                   m_io->LastError());
            return -1;
        }
        m_handshaking = true;
        m_handshake_wait = EPOLLIN;
    }
    const unsigned int events = EffectiveEventsLocked(EPOLLIN | EPOLLOUT | EPOLLERR);  // not shared yet
    if (m_poller->Add(socket, events, this) != 0) {
        QN_LOG(m_log_cat, QN_ERROR, "epoll_ctl() failed, errno=%d", errno);
        m_handshaking = false;
        return -1;
    }
    SetRegisteredEvents(events);

    m_is_accepted = true;
    m_status = m_handshaking ? CONNECTOR_STATUS_CONNECTING : CONNECTOR_STATUS_CONNECTED;
    m_socket = socket;
    m_rx_inq = kRxInqUntried;
    m_rx_last_full = false;
    return 0;
}

void CTcpConnector::Fini() {
    QN_LOG(
        m_log_cat, QN_INFO,
        "enter CTcpConnector::Fini(), local_url=%s, url=%s, socket=%d, m_rx_queue.cnt=%d, m_tx_queue.cnt=%d",
        GetLocalURL(), GetURL(), static_cast<int>(m_socket), static_cast<int>(m_rx_queue.Count()),
        static_cast<int>(m_tx_queue.Count()));
    if (m_socket != -1) {
        Close(nullptr);
        m_socket = -1;
    }
    m_io.reset();  // the session of a socket that is gone (or was given away with CopyFrom)
    PacketInfo* ring = nullptr;
    if (m_net_buf_mgr != nullptr) {
        {
            MaybeLocker locker = LockRx();
            m_net_buf_mgr->Release(m_rx_queue);
            // Packets whose blocks have gone back can no longer be handed out.
            m_packet_head_idx = -1;
            m_packet_tail_idx = -1;
            ring = m_packet_info;
            m_packet_info = nullptr;
        }
        {
            AutoLocker locker(&m_tx_mutex);
            m_net_buf_mgr->Release(m_tx_queue);
            EndCork();
        }
    }
    m_parser = nullptr;
    m_combine_buf = nullptr;
    m_net_buf_mgr = nullptr;
    GivePacketRing(ring);
    m_rx_buffer = nullptr;
    memset(&m_rx_packet, 0, sizeof(m_rx_packet));
    CConnector::Fini();
}

int CTcpConnector::LocalSocketName(int socket) {
    char url[256];  // GetLocalSocketName's contract; the text itself fits m_peer_url
    int ret = 0;
    if (m_unix) {
        struct sockaddr_un local;
        socklen_t local_len = sizeof(local);
        memset(&local, 0, sizeof(local));
        if (getsockname(socket, reinterpret_cast<struct sockaddr*>(&local), &local_len) == -1) {
            QN_LOG(m_log_cat, QN_ERROR, "getsockname() failed, socket=%d, errno=%d", socket, errno);
            return -1;
        }
        snprintf(url, sizeof(url), "%s", CTcpListener::FormatUnixURL(&local, local_len).c_str());
    } else {
        ret = GetLocalSocketName(m_bIPv6, socket, url, m_log_cat);
    }
    if (ret == 0) {
        size_t n = strnlen(url, sizeof(m_peer_url) - 1);
        memcpy(m_peer_url, url, n);
        m_peer_url[n] = '\0';
    }
    return ret;
}

void CTcpConnector::SetEvent(unsigned int events) {
    m_events.fetch_or(events);
}

unsigned int CTcpConnector::GetEvent() {
    return m_events.load();
}

void CTcpConnector::GetIPAndPort(int& ip, int& port) {
    ip = m_ip;
    port = m_port;
}

// Dials the parsed address. m_mutex is held from the status check to the end of the dial;
// m_rx_mutex and then m_tx_mutex are taken inside it one after the other (never together)
// to return the previous connection's blocks. Every failure after the socket exists goes
// through Close with m_mutex released (the mutex is not recursive). Failures -4..-8 (and an
// owner's set-up that fails, kConnectSetupFailed) happen in status 0, so Close leaves that
// descriptor open in m_socket with m_close_socket set;
// only a failed dial (-9) really closes it here. Each errno is read right after the call
// that failed, before any log argument is evaluated.
int CTcpConnector::Connect() {
    return ConnectWith(nullptr, nullptr);
}

int CTcpConnector::ConnectWith(ConnectSetupFn setup, void* setup_arg) {
    QN_LOG(m_log_cat, QN_INFO, "enter CTcpConnector::Connect(), url=%s", GetURL());

    int fail_code = 0;
    {
        AutoLocker locker(&m_mutex);
        if (m_status != CONNECTOR_STATUS_DISCONNECTED) {
            QN_LOG(m_log_cat, QN_ERROR, "connector is not disconnected, m_status=%d",
                   static_cast<int>(m_status));
            return -1;
        }
        if (m_is_accepted) {
            QN_LOG(m_log_cat, QN_ERROR, "the accepted connetion<socket:%d> cannot reconnect",
                   static_cast<int>(m_socket));
            return -2;
        }
        if (m_net_buf_mgr != nullptr) {
            {
                MaybeLocker rx_locker = LockRx();
                m_net_buf_mgr->Release(m_rx_queue);
            }
            {
                AutoLocker tx_locker(&m_tx_mutex);
                m_net_buf_mgr->Release(m_tx_queue);
                EndCork();
            }
        }
        Reset();

        m_socket = m_unix ? sock_open(AF_UNIX, SOCK_STREAM, 0)
                          : (m_bIPv6 ? sock_open(AF_INET6, SOCK_STREAM, 0) : sock_open_tcp());
        if (m_socket == -1) {
            int err = errno;
            QN_LOG(m_log_cat, QN_ERROR, "create tcp socket failed! url=%s, errno=%d", GetURL(), err);
            return -3;
        }

        int one = 1;
        if (sock_set_nonblock(m_socket, 1) != 0) {
            int err = errno;
            QN_LOG(m_log_cat, QN_ERROR, "set socket option -- nonblock failed! url=%s, errno=%d", GetURL(),
                   err);
            fail_code = -4;
        } else if (setup != nullptr && setup(setup_arg, m_socket) != 0) {
            QN_LOG(m_log_cat, QN_ERROR, "the owner's socket set-up refused the dial, url=%s", GetURL());
            fail_code = kConnectSetupFailed;
        } else if (setup == nullptr && !m_unix &&
                   setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &one, 4) != 0) {
            int err = errno;
            QN_LOG(m_log_cat, QN_ERROR, "set socket option -- no delay failed! url=%s, errno=%d", GetURL(),
                   err);
            fail_code = -5;
        } else if (setup == nullptr &&
                   sock_set_sendbuff(m_socket, CConnector::m_socket_send_buff_size) != 0) {
            int err = errno;
            QN_LOG(m_log_cat, QN_ERROR, "sock_set_sendbuff() failed! url=%s, size=%d, errno=%d", GetURL(),
                   CConnector::m_socket_send_buff_size, err);
            fail_code = -6;
        } else if (setup == nullptr &&
                   sock_set_recvbuff(m_socket, CConnector::m_socket_recv_buff_size) != 0) {
            int err = errno;
            QN_LOG(m_log_cat, QN_ERROR, "sock_set_recvbuff() failed! url=%s, size=%d, errno=%d", GetURL(),
                   CConnector::m_socket_recv_buff_size, err);
            fail_code = -7;
        } else {
            // Level-triggered, EPOLLOUT from the start: writability tells Update that a
            // non-blocking dial has finished.
            if (m_poller->Add(m_socket, EPOLLIN | EPOLLOUT | EPOLLERR, this) != 0) {
                int err = errno;
                QN_LOG(m_log_cat, QN_ERROR, "add socket into epoll failed! url=%s, errno=%d", GetURL(), err);
                fail_code = -8;
            } else {
                SetRegisteredEvents(EPOLLIN | EPOLLOUT | EPOLLERR);
            }
        }

        if (fail_code == 0) {
            int ret = m_unix
                          ? connect(m_socket, reinterpret_cast<struct sockaddr*>(&m_addr_un), m_addr_un_len)
                      : m_bIPv6 ? connect(m_socket, reinterpret_cast<struct sockaddr*>(&m_addr6), 28)
                                : connect(m_socket, reinterpret_cast<struct sockaddr*>(&m_addr), 16);
            if (ret == -1) {
                int err = errno;
                m_status = CONNECTOR_STATUS_CONNECTING;
                // A Unix-domain connect completes at once or not at all (EAGAIN: the
                // listener's queue is full).
                if (m_unix || (err != EAGAIN && err != EINPROGRESS)) {
                    QN_LOG(m_log_cat, QN_ERROR, "do connect failed! url=%s, errno=%d", GetURL(), err);
                    fail_code = -9;
                }
            } else {
                m_status = CONNECTOR_STATUS_CONNECTED;
                if (ret != 0) {
                    fail_code = ret;  // not a documented result of connect; handled as a failure
                } else if (m_unix) {
                    LocalSocketName(m_socket);  // the dial completed here, not in Update
                }
            }
        }
    }  // m_mutex released: Close takes it again

    if (fail_code != 0) {
        m_close_socket = true;
        Close(nullptr);
        return fail_code;
    }
    QN_LOG(m_log_cat, QN_INFO, "connect url(%s) successfully, m_status=%d", GetURL(),
           static_cast<int>(m_status));
    return 0;
}

void CTcpConnector::Disconnect(LogCategory* log_cat) {
    LogCategory* cat = log_cat != nullptr ? log_cat : m_log_cat;
    QN_LOG(cat, QN_INFO, "enter CTcpConnector::Disconnect(), connector=%s", ToString());
    Close(log_cat);
}

// The only place where a socket leaves epoll and is closed. m_mutex is held for the whole
// body; the entry message is written before it is taken.
void CTcpConnector::Close(LogCategory* log_cat) {
    LogCategory* cat = log_cat != nullptr ? log_cat : m_log_cat;
    QN_LOG(cat, QN_INFO, "enter CTcpConnector::Close(), url=%s, local_url=%s, socket=%d", GetURL(),
           GetLocalURL(), static_cast<int>(m_socket));

    AutoLocker locker(&m_mutex);
    if (m_status == CONNECTOR_STATUS_DISCONNECTED) {
        return;
    }
    if (m_poller->Remove(m_socket) != 0) {
        int err = errno;
        QN_LOG(cat, QN_ERROR, "delete socket from epoll failed!, url=%s, m_socket=%d, errno=%d", GetURL(),
               static_cast<int>(m_socket), err);
    }
    if (m_close_socket) {
        if (sock_close(m_socket) != 0) {
            int err = errno;
            QN_LOG(cat, QN_ERROR, "sock_close() failed, url=%s, local_url=%s, m_socket=%d, errno=%d",
                   GetURL(), GetLocalURL(), static_cast<int>(m_socket), err);
        }
    }
    m_status = CONNECTOR_STATUS_DISCONNECTED;
    m_socket = -1;
    m_poller_reads = false;  // the poller dropped what it received with the registration
    m_poller_reads_asked = false;
    m_events.store(0);
    SetRegisteredEvents(0);
}

void CTcpConnector::Update() {
    unsigned int events = m_events.load();
    if (m_status == CONNECTOR_STATUS_CONNECTING && !m_handshaking &&
        (events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) == EPOLLOUT) {
        if (LocalSocketName(m_socket) == -1) {
            QN_LOG(m_log_cat, QN_ERROR,
                   "GetLocalSocketName() failed, m_bIPv6:%d, url=%s, m_socket=%d, ret=%d", m_bIPv6 ? 1 : 0,
                   GetURL(), static_cast<int>(m_socket), -1);
        }
        QN_LOG(m_log_cat, QN_INFO, "connect to %s successfully, local_url=%s, m_socket=%d", GetURL(),
               GetLocalURL(), static_cast<int>(m_socket));
        if (m_io == nullptr) {
            m_status = CONNECTOR_STATUS_CONNECTED;
        } else if (m_io->Attach(m_socket) != 0) {
            m_events.fetch_or(EPOLLERR);  // ends below as a failed dial
        } else {
            m_handshaking = true;  // the client speaks first
            m_handshake_wait = EPOLLOUT;
        }
    }
    events = m_events.load();
    if (m_handshaking && (events & (EPOLLERR | EPOLLHUP)) == 0 && (events & (EPOLLIN | EPOLLOUT)) != 0) {
        StepHandshake();
        if (m_status == CONNECTOR_STATUS_DISCONNECTED) {
            return;
        }
    }

    events = m_events.load();
    if (events & (EPOLLERR | EPOLLHUP)) {
        QN_LOG(m_log_cat, QN_INFO, "m_events=%d, prepare disconnect, url=%s, local_url=%s, m_socket=%d",
               static_cast<int>(events), GetURL(), GetLocalURL(), static_cast<int>(m_socket));
        if (m_status != CONNECTOR_STATUS_DISCONNECTED && m_socket >= 0) {
            // The cause, read while the descriptor is still open: ECONNREFUSED for a refused
            // dial, ECONNRESET for a reset, 0 for a plain hang-up.
            int so_error = 0;
            socklen_t so_len = sizeof(so_error);
            if (getsockopt(m_socket, SOL_SOCKET, SO_ERROR, &so_error, &so_len) != 0) {
                so_error = errno;
            }
            m_last_io_result = 0;
            m_last_errno = so_error;
        }
        Disconnect(nullptr);
    }

    if (m_rx_status == ALLOC_MULTI_BUFFER_BODY_STATUS) {
        struct timeval now;
        gettimeofday(&now, nullptr);
        if (static_cast<int64_t>(now.tv_sec) - static_cast<int64_t>(m_wait_alloc_starttime) > 300) {
            QN_LOG(m_log_cat, QN_ERROR, "m_wait_alloc_starttime > 300s, disconnect it, url=%s, local_url=%s",
                   GetURL(), GetLocalURL());
        }
    }

    if (m_status != CONNECTOR_STATUS_CONNECTED) {
        return;
    }
    // A side of the stream layer that waited for the other readiness goes on with it.
    if (m_rx_wants_write && (m_events.load() & EPOLLOUT)) {
        m_rx_wants_write = false;
        m_events.fetch_or(EPOLLIN);
    }
    if (m_tx_wants_read && (m_events.load() & EPOLLIN)) {
        m_tx_wants_read = false;
        m_events.fetch_or(EPOLLOUT);
    }
    if (m_events.load() & EPOLLOUT) {
        int ret = Send();
        if (ret < 0) {
            QN_LOG(m_log_cat, QN_ERROR, "Send() failed, url=%s, local_url=%s, ret=%d", GetURL(),
                   GetLocalURL(), ret);
            m_last_io_result = ret;
            m_last_errno = m_write_errno.load();
            Disconnect(nullptr);
            return;
        }
    }
    // After the peer's end of stream (kept writable) the receive side is over: an owner's
    // SetEvent(EPOLLIN) does not bring reading back.
    bool reading_over = m_peer_closed && m_keep_writing_after_peer_close;
    if ((m_events.load() & EPOLLIN) && !m_is_wait_alloc_big_buffer && !reading_over) {
        int ret = Recv();
        if (ret >= 0) {
            return;
        }
        if (ret == kPeerClosed) {
            if (m_keep_writing_after_peer_close) {
                return;  // Recv stopped reading; the connection stays up for the replies
            }
            m_last_io_result = ret;
            m_last_errno = 0;
            Disconnect(nullptr);
            return;
        }
        QN_LOG(m_log_cat, QN_ERROR, "Recv() failed, url=%s, local_url=%s, ret=%d", GetURL(), GetLocalURL(),
               ret);
        m_last_io_result = ret;
        m_last_errno = m_read_errno;
        Disconnect(nullptr);
    }
}

void CTcpConnector::StepHandshake() {
    int ret = m_io->Handshake();
    if (ret == 0) {
        m_handshaking = false;
        m_handshake_wait = 0;
        m_status = CONNECTOR_STATUS_CONNECTED;
        QN_LOG(m_log_cat, QN_INFO, "handshake with %s done: %s, local_url=%s", GetURL(),
               m_io->Describe().c_str(), GetLocalURL());
        {
            AutoLocker locker(&m_tx_mutex);
            SetRegisteredEventsLocked(EPOLLIN | EPOLLOUT | EPOLLERR);  // a failure shows on the next one
        }
        // Bytes may have come with the handshake's last flight, and a queue may wait.
        m_events.fetch_or(EPOLLIN | EPOLLOUT);
        return;
    }
    if (ret == IStreamIo::kWantRead || ret == IStreamIo::kWantWrite) {
        m_handshake_wait = ret == IStreamIo::kWantRead ? EPOLLIN : EPOLLOUT;
        m_events.fetch_and(~static_cast<unsigned int>(EPOLLIN | EPOLLOUT));
        AutoLocker locker(&m_tx_mutex);
        if (SetRegisteredEventsLocked(EPOLLIN | EPOLLOUT | EPOLLERR) != 0) {  // narrowed to what it waits for
            m_last_io_result = kIoFailed;
            m_last_errno = errno;
            m_events.fetch_or(EPOLLERR);  // Update's next look ends the connection
        }
        return;
    }
    m_last_io_result = kHandshakeFailed;
    m_last_errno = m_io->LastErrno();
    QN_LOG(m_log_cat, QN_INFO, "handshake with %s failed: %s, local_url=%s", GetURL(), m_io->LastError(),
           GetLocalURL());
    Disconnect(nullptr);
}

namespace {

// Walks `src` and `dst` side by side from *src_node / *dst_node until the source node's
// block is `target`. On success *src_node / *dst_node stand on the matching pair and the
// destination's block is returned; on failure null is returned and the nodes reached are
// left in *src_node / *dst_node for the message.
NetBuffer* FindMatchingBlock(LIST_NODE** src_node, LIST_NODE** dst_node, const NetBuffer* target) {
    while (*src_node != nullptr && *dst_node != nullptr) {
        if ((*src_node)->pData == target) {
            return static_cast<NetBuffer*>((*dst_node)->pData);
        }
        *src_node = (*src_node)->pNext;
        *dst_node = (*dst_node)->pNext;
    }
    return nullptr;
}

}  // namespace

int CTcpConnector::CopyFrom(CTcpConnector& that) {
    QN_LOG(m_log_cat, QN_INFO, "enter CTcpConnector::CopyFrom(), url=%s, socket=%d, src_connector=%s",
           GetURL(), static_cast<int>(m_socket), that.ToString());
    if (&that == this) {
        return -1;
    }
    if (m_socket != that.m_socket) {
        QN_LOG(m_log_cat, QN_ERROR, "cannot copy to a connector holding a different socket, this=%d, that=%d",
               static_cast<int>(m_socket), static_cast<int>(that.m_socket));
        m_events.fetch_or(EPOLLERR);
        return -2;
    }
    that.TakeBackReceived();  // bytes the old loop's poller took off the socket come along
    if (m_tx_queue.Count() != 0 || m_rx_queue.Count() != 0) {
        QN_LOG(m_log_cat, QN_ERROR, "cannot copy to a non-empty connector, m_tx_queue(%d), m_rx_queu(%d)",
               static_cast<int>(m_tx_queue.Count()), static_cast<int>(m_rx_queue.Count()));
        m_events.fetch_or(EPOLLERR);
        return -3;
    }
    if (!m_net_buf_mgr->Copy(that.m_tx_queue, m_tx_queue)) {
        QN_LOG(m_log_cat, QN_ERROR, "failed to copy send queue, send count=%d",
               static_cast<int>(that.m_tx_queue.Count()));
        m_events.fetch_or(EPOLLERR);
        return -4;
    }
    if (!m_net_buf_mgr->Copy(that.m_rx_queue, m_rx_queue)) {
        QN_LOG(m_log_cat, QN_ERROR, "failed to copy recv queue, recv count=%d",
               static_cast<int>(that.m_rx_queue.Count()));
        m_events.fetch_or(EPOLLERR);
        return -5;
    }

    // Ring, indices and receive pointers as they stand: they still point into the source's
    // blocks until rewritten below. Only the waiting packets are copied, into ring storage
    // when the inline slots cannot hold them.
    int n = that.GetPacketInfoCnt();
    if (n > kInlinePacketSlots) {
        GivePacketRing(m_packet_info);
        m_packet_info = TakePacketRing();
        if (m_packet_info == nullptr) {
            QN_LOG(m_log_cat, QN_ERROR, "cannot take packet ring storage, packets=%d", n);
            m_events.fetch_or(EPOLLERR);
            return -9;
        }
    }
    m_packet_head_idx = that.m_packet_head_idx;
    m_packet_tail_idx = that.m_packet_tail_idx;
    for (int i = 0, idx = m_packet_head_idx; i < n; ++i, idx = idx + 1 == kPacketInfoSize ? 0 : idx + 1) {
        PacketSlot(idx) = that.PacketSlot(idx);
    }
    m_rx_packet = that.m_rx_packet;
    m_rx_buffer = that.m_rx_buffer;

    // Packets lie in queue order, so one side-by-side walk serves the whole ring.
    if (m_packet_head_idx != -1) {
        LIST_NODE* src_node = that.m_rx_queue.Head();
        LIST_NODE* dst_node = m_rx_queue.Head();
        int idx = m_packet_head_idx;
        for (int i = 0; i < n; ++i) {
            NetBuffer* dst = FindMatchingBlock(&src_node, &dst_node, PacketSlot(idx).buffer);
            if (dst == nullptr) {
                QN_LOG(m_log_cat, QN_ERROR, "unexpected error, src_node=%p, dst_node=%p",
                       static_cast<void*>(src_node), static_cast<void*>(dst_node));
                return -6;
            }
            PacketSlot(idx).buffer = dst;
            idx = idx + 1 == kPacketInfoSize ? 0 : idx + 1;
        }
    }
    // m_rx_buffer and m_rx_packet.buffer: each found by a fresh walk from the heads.
    NetBuffer** pointers[2] = {&m_rx_buffer, &m_rx_packet.buffer};
    for (int k = 0; k < 2; ++k) {
        if (*pointers[k] == nullptr) {
            continue;
        }
        LIST_NODE* src_node = that.m_rx_queue.Head();
        LIST_NODE* dst_node = m_rx_queue.Head();
        NetBuffer* dst = FindMatchingBlock(&src_node, &dst_node, *pointers[k]);
        if (dst == nullptr) {
            QN_LOG(m_log_cat, QN_ERROR, "unexpected error, src_node=%p, dst_node=%p",
                   static_cast<void*>(src_node), static_cast<void*>(dst_node));
            return k == 0 ? -7 : -8;
        }
        *pointers[k] = dst;
    }

    m_rx_packet_cnt = that.m_rx_packet_cnt.load();
    m_tx_packet_cnt = that.m_tx_packet_cnt.load();
    m_wait_alloc_starttime = that.m_wait_alloc_starttime;
    m_rx_status = that.m_rx_status;
    m_is_wait_alloc_big_buffer = that.m_is_wait_alloc_big_buffer;
    memcpy(m_peer_url, that.m_peer_url, sizeof(m_peer_url));
    m_tx_bytes = that.m_tx_bytes.load();
    m_rx_bytes = that.m_rx_bytes.load();
    m_keep_writing_after_peer_close = that.m_keep_writing_after_peer_close;
    m_single_thread_recv = that.m_single_thread_recv;
    m_rx_inq = that.m_rx_inq;  // the option lives on the shared descriptor
    m_rx_last_full = that.m_rx_last_full;
    m_tx_shut = that.m_tx_shut.load();
    // The stream layer's session belongs to the socket and goes with it.
    m_io = std::move(that.m_io);
    m_rx_carry = std::move(that.m_rx_carry);  // carried bytes not read yet go first here too
    m_rx_carry_idx = that.m_rx_carry_idx;
    m_rx_carry_pos = that.m_rx_carry_pos;
    m_rx_carry_keep = std::move(that.m_rx_carry_keep);
    that.DropCarried();
    m_handshaking = that.m_handshaking.load();
    m_handshake_wait = that.m_handshake_wait.load();
    m_rx_wants_write = that.m_rx_wants_write.load();
    m_tx_wants_read = that.m_tx_wants_read.load();
    SetEvent(that.GetEvent());
    if (that.m_peer_closed) {
        m_peer_closed = true;
        if (m_keep_writing_after_peer_close) {
            StopReadingAtPeerClose();  // this registration must not report the ended stream
        }
    }
    return 0;
}

}  // namespace QUOLNET
