// CTcpConnector: one non-blocking TCP connection driven by its owner's epoll loop.
//
// A connector is either dialled out to a "tcp://host:port" or "tcp://[v6-host]:port" URL
// (Init with socket -1, then Connect) or wraps a socket that a listener accepted (Init with
// the socket); InitUnix does the same for a Unix-domain stream socket ("unix:///path",
// "unix://@name"), with the same framing and queues. The owner's thread waits on epoll,
// hands each event's bits to SetEvent and calls Update once per tick; Update completes
// dials, disconnects on errors, flushes the send queue and reads. Complete packets, cut by
// the application's IPackParser, wait in a ring of 1000 descriptors for Peek/Drop, or are
// pushed to the receive callback.
//
// Memory: receive and send bytes live in 64 KiB blocks borrowed from a shared CNetBufferMgr;
// the two combine buffers, the error-text buffer, the pool, the parser and the log category
// belong to the owner, which keeps them alive for the connector's lifetime. The connector
// frees none of them and returns every block it borrowed at Fini.
//
// An idle connection holds no pool block and no ring storage, so that a process can keep
// as many idle connections as it has descriptors:
// - Receive block. The current receive block (m_rx_buffer) goes back to the pool as soon as
//   nothing needs it: it holds no unread byte, no packet is half received (or being
//   delivered to the callback), and the ring is empty (so no packet waiting for, or handed
//   out by, Peek lies in it). That is checked at the end of every Recv and by the Drop that
//   takes the ring's last packet, whichever comes last; the next read takes a block again.
//   Both checks run under m_rx_mutex. Recv reads into m_rx_buffer and parses it without the
//   lock, so Drop, which may run on a consumer thread, releases the block only while no Recv
//   is under way (m_rx_reading, which Recv sets on entry and clears on exit under
//   m_rx_mutex); a Drop that meets a Recv leaves the release to that Recv's end. Cost: one
//   pool round trip per packet on a ping-pong load (the pool is last in, first out, so the
//   block comes back cache-warm). The receive wait statistics count the released block
//   like any block that Drop frees.
// - Packet ring. The ring keeps its capacity of kPacketInfoSize packets, but only
//   kInlinePacketSlots slots live in the connector. When more packets wait, framing takes
//   storage for the whole ring from a process-wide cache (the heap only when the cache is
//   empty) and the Drop that empties the ring gives it back (see GetPacketRingsInUse). A
//   connection that keeps a few packets in flight never touches the cache; one that
//   bursts pays one cache round trip per burst.
//
// Threads and locks:
//   m_mutex                  connection state: status, socket, epoll registration
//   m_rx_mutex               receive queue, ring indices, rebinding of m_rx_packet/m_rx_buffer
//                            (not taken with SetSingleThreadRecv(true): one thread does it all)
//   m_tx_mutex               send queue, the sending role, the send-starved time (the
//                            owner's cork block is filled without it: see SendToQCorked)
//   m_push_send_queue_mutex  whole PushSendQ calls
// Order: m_mutex before a queue mutex; m_push_send_queue_mutex before m_tx_mutex; never two
// of m_rx_mutex/m_tx_mutex at once. No mutex is held across send/recv or the callback.
// The owner's thread constructs, initialises, connects, updates and finalises; Send and
// SendToQ may be called from any thread; Peek/Drop may run on another thread than Update.
// Counters and statistics are read without locks and may be momentarily stale.
//
// Descriptor ownership: m_close_socket starts true and Reset (hence every Connect) sets it
// true again, so Close (through Disconnect, Update or Fini) closes the descriptor, whether
// dialled or accepted, exactly once. An owner that keeps the descriptor for itself (for
// example to hand it to another connector) clears the flag with SetCloseSocket(false) after
// Connect/Init and before the close, reads GetSocket() first and then closes it itself.
// One deliberate exception: when Connect fails with -4..-8 (socket options or epoll
// registration) the new descriptor stays open in GetSocket() with status 0, where Close does
// nothing; a later Connect or Fini forgets it. An owner that sees those codes closes
// GetSocket() itself.
//
// Writes: every send(2) passes MSG_NOSIGNAL, so a write to a connection the peer has reset
// fails with EPIPE instead of raising SIGPIPE; the library leaves the process's signal
// handling alone.
//
// The peer's end of stream: by default a read that returns end of stream ends the
// connection (Update disconnects). With SetKeepWritingAfterPeerClose(true) the connector
// instead stops reading for good and stays connected, so that replies still go out; see
// SetKeepWritingAfterPeerClose.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>
#include <sys/un.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../common/export.h"
#include "../common/mutex.h"
#include "../common/relaxed.h"
#include "../log/log.h"
#include "bi_list.h"
#include "net_buffer.h"
#include "net_buffer_mgr.h"
#include "net_connector.h"
#include "net_parser.h"
#include "poller.h"
#include "stream_io.h"

namespace QUOLNET {

// What the receive side waits for.
enum RECV_PACKET_STATUS : unsigned int {
    RECV_PACKET_HEAD_STATUS = 0,         // (the rest of) a packet header
    RECV_SINGLE_BUFFER_BODY_STATUS = 1,  // the body of a packet that fits in one block
    ALLOC_MULTI_BUFFER_BODY_STATUS = 2,  // the next block of a packet longer than one block
    RECV_MULTI_BUFFER_BODY_STATUS = 3,   // the body of a packet spanning a chain of blocks
    WAIT_PARSE_PACKET_STATUS = 4,        // bytes were read and must be parsed
};

// One received packet.
struct PacketInfo {
    NetBuffer* buffer;  // block in which the packet begins
    int start_pos;      // offset of its first byte in buffer->m_buf
    int len;            // total length from the parser; 0 while unknown
    int recv_len;       // bytes consumed from the receive blocks so far
};

// Writes the local address of `socket` into `url` as "tcp://a.b.c.d:port" or
// "tcp://[v6]:port" (`url` must hold 256 bytes). Returns 0, or -1 (logged to `log_cat`)
// when getsockname fails; `url` is then unchanged.
QUOLNET_EXPORT int GetLocalSocketName(bool ipv6, int socket, char* url, LogCategory* log_cat);

class QUOLNET_EXPORT CTcpConnector : public CConnector {
  public:
    static constexpr int kPacketInfoSize = 1000;  // slots in the packet ring

    // ---- result codes (the values are part of the interface) ----
    // Recv, ReadSocket, RecvToBuffer: the peer ended its stream (recv returned 0).
    static constexpr int kPeerClosed = -10000;
    // A socket call failed (recv, send, or the epoll_ctl of a flush); Recv also returns it
    // when the chain of a big packet is broken. The errno is kept for GetLastErrno.
    static constexpr int kIoFailed = -1;
    // Send: not connected, or a null buffer / zero length. SendToQ: a null buffer / zero
    // length.
    static constexpr int kSendInvalid = -1;
    // Send, SendToQ: refused for lack of room (queue limit or pool); try again later.
    static constexpr int kSendNoRoom = 0;
    // Send, SendToQ: the owner has shut the sending side down (ShutdownSendIfIdle); nothing
    // of the packet was written or queued.
    static constexpr int kSendShutDown = -2;
    // Update (GetLastIoResult): the stream layer's handshake failed; the layer's errno and
    // message are kept (GetLastErrno, GetStreamIo()->LastError()).
    static constexpr int kHandshakeFailed = -10001;
    // Recv, ReadSocket: the stream ended without the layer's own end of stream (a TLS peer
    // that closed its socket without a close_notify): what came may be cut short. Ends the
    // connection in either end-of-stream mode.
    static constexpr int kStreamTruncated = -10002;
    // ParseNetBuffer (hence Recv): the parser reported a malformed header, or the ring
    // overflowed.
    static constexpr int kParseMalformed = -1;
    // ParseNetBuffer: the packet is longer than the combine buffer.
    static constexpr int kParseTooLong = -2;
    // ParseNetBuffer: the packet could never be received under this connection's block cap:
    // the blocks it needs from where it starts exceed m_max_rx_buf_num (logged ERROR
    // "packet_len(%d) needs %d blocks > m_max_rx_buf_num(%d), url=%s, local_url=%s").
    // Checked when the length is learnt, after the combine-buffer check; nothing is
    // consumed. An addition to the codes above, made so that such a packet is refused at
    // once instead of stalling the connection at the cap for ever.
    static constexpr int kParseOverRxCap = -3;

    // `combine_buf` (length `combine_buf_len`) joins multi-block packets for Peek and bounds
    // the longest packet accepted; `cb_combine_buf` does the same for the callback. Blocks
    // come from `net_buffer_mgr`, at most `max_send_buf_num` queued for sending and
    // `max_recv_buf_num` held for receiving. All pointers stay owned by the caller.
    CTcpConnector(char* combine_buf, int combine_buf_len, char* cb_combine_buf, int cb_combine_buf_len,
                  char* last_err, CNetBufferMgr* net_buffer_mgr, unsigned int max_send_buf_num,
                  unsigned int max_recv_buf_num, RecvPkgCallback cb, void* cb_para);
    // Calls Fini(); never throws.
    ~CTcpConnector() override;

    // ---- lifecycle (owner's thread) ----

    // Binds the connector to `url`. socket < 0: a connector to be dialled with Connect.
    // socket >= 0: an accepted connection, registered with `epoll` (EPOLLIN|EPOLLOUT|EPOLLERR,
    // level-triggered, data.ptr = this) and connected at once. Returns 0, -1 for bad
    // arguments / set-up / a failed registration (the socket is then neither stored nor
    // closed), or the failing step's code.
    int Init(const char* url, IPackParser* parser, int epoll, int socket) override;
    // Registers the socket with `poller` (not owned; it must outlive the registration)
    // instead of the epoll instance Init is given; null goes back to that. Before Init.
    void SetPoller(IPoller* poller) { m_poller = poller != nullptr ? poller : &m_epoll_poller; }
    // Init for a Unix-domain stream socket: "unix:///path" or "unix://@name" (parsed by
    // CTcpListener::ParseUnixURL; a malformed URL is -2). socket < 0: a connector to be
    // dialled with ConnectWith (a refused or busy listener fails the dial at once, -9);
    // socket >= 0: an accepted (or moved) connection, as Init. The framing, queues, limits
    // and statistics are those of TCP; no TCP option is set (Connect skips TCP_NODELAY and
    // the process-wide buffer sizes apply as for TCP). Owner's thread.
    int InitUnix(const char* url, IPackParser* parser, int epoll, int socket);
    // Whether the connector was bound by InitUnix.
    bool IsUnix() const { return m_unix; }
    // Binds a dialling connector that is not connected (status 0, never accepted) to
    // another numeric URL for its next Connect: Init with `socket` -1, except that the
    // address family is chosen again from `url` ("tcp://[...]" IPv6, otherwise IPv4)
    // where Init keeps an IPv6 connector's family. Returns Init's result, or -1 for a
    // connector that is connected, dialling or accepted. Owner's thread, with no other
    // thread using the connector.
    int Retarget(const char* url, IPackParser* parser, int epoll);
    // Closes the socket (if any) and returns every block of both queues to the pool. The
    // connector cannot carry traffic afterwards.
    void Fini() override;
    // Clears per-connection state (ring, receive state, statistics, events). Takes no lock.
    void Reset();
    // One tick: completes a dial, disconnects on error/hang-up, flushes on EPOLLOUT, reads
    // on EPOLLIN. Owner's thread only.
    void Update() override;
    // ORs epoll readiness bits into m_events.
    void SetEvent(unsigned int events) override;
    unsigned int GetEvent() override;
    // Big packets (longer than one block) are received into a chain of blocks that grows
    // with the bytes: the next block is taken only when the one being read is full and the
    // packet still lacks bytes, so a connection never holds more than one block beyond what
    // its received bytes need (a peer cannot reserve memory it does not send). Blocks count
    // against m_max_rx_buf_num; a block refused by that cap or by the pool is a shortage
    // (WARN once per run of shortages, counted in the statistics) and is retried.
    // IsWaitAllocBigBuffer: such a retry is pending for a packet of at least the pool's
    // GetMinBigPacketLen(). Update does not read such a connector; its owner calls Recv
    // again (for example once blocks have gone back to the pool, or on its next tick).
    // Update logs ERROR "m_wait_alloc_starttime > 300s, ..." on each tick while a wait for
    // a next block has lasted more than 300 seconds, and does nothing else.
    bool IsWaitAllocBigBuffer() { return m_is_wait_alloc_big_buffer; }
    // Bytes already read from the socket beyond the last packet framed (the unread rest of
    // the current receive block). Update thread only. Called from the receive callback, a
    // nonzero value means more data follows the packet being delivered, so the next packet
    // is likely to be delivered in the same call; an owner can cork its replies on it.
    // Takes m_rx_mutex (the block may be given back by a consumer thread's Drop).
    int GetUnframedLen();

    // ---- a stream layer (a TLS session) ----

    // Puts `io` between this connection's bytes and its socket (see net/stream_io.h), for
    // the next connection only: before Init with an accepted socket, or before Connect /
    // ConnectWith of a dial (a redial needs a new layer; a failed or ended connection keeps
    // the old one until then). The connection is CONNECTING until the layer's handshake
    // completes: a dial once connect(2) and the handshake are done, an accepted socket from
    // Init on. Null removes the layer. Owner's thread, while the connector carries no
    // traffic; a move (CopyFrom) takes the layer along with the socket.
    void SetStreamIo(std::unique_ptr<IStreamIo> io);
    // The layer, or null. Owner's thread (the layer's accessors: see net/stream_io.h).
    IStreamIo* GetStreamIo() const { return m_io.get(); }
    // Whether the layer's handshake is under way (the connector is CONNECTING meanwhile).
    bool IsHandshaking() const { return m_handshaking; }

    // ---- the peer's end of stream ----

    // Off (the default): a read that returns end of stream makes Update disconnect, as for
    // any failure. On: Update does not disconnect then. The connector records the peer's
    // close (IsPeerClosed), keeps every packet already framed in the ring (and has already
    // offered each to the receive callback), stops reading for good (EPOLLIN leaves the
    // socket's epoll registration and m_events; neither Update nor Recv reads again, and an
    // owner's SetEvent(EPOLLIN) does not resume reading) and stays connected: Send, SendToQ
    // and the flush on EPOLLOUT work as before, so replies still reach the peer. Bytes of a
    // packet left incomplete by the close are never framed. A reset or an error (EPOLLERR,
    // EPOLLHUP, a failed recv or send) still disconnects at once. Ending the connection
    // afterwards is the owner's job: typically it waits for the send queue to drain
    // (GetSendQCount() == 0), shuts down its sending side and closes.
    // A configuration, not connection state: Reset (so Connect) keeps it, CopyFrom copies it.
    // Owner's thread, before the connection carries traffic.
    void SetKeepWritingAfterPeerClose(bool on) { m_keep_writing_after_peer_close = on; }
    bool GetKeepWritingAfterPeerClose() const { return m_keep_writing_after_peer_close; }
    // True once a read returned the peer's end of stream on this connection (in either mode).
    // Reset clears it; CopyFrom copies it. Any thread (relaxed read).
    bool IsPeerClosed() const { return m_peer_closed; }

    // ---- progress, for the owner's deadlines (owner's thread; no lock) ----

    // Bytes written to the socket by this connection, by direct writes and queue flushes
    // together. Reset clears it, CopyFrom copies it. A relaxed read of a counter that the
    // holder of the sending role advances after each send(2) that took bytes.
    int64_t GetSentBytes() const { return m_tx_bytes; }
    // Bytes read from the socket by this connection. Reset clears it, CopyFrom copies it.
    int64_t GetRecvBytes() const { return m_rx_bytes; }
    // Whether bytes of a packet that is not yet complete have been read: the packet's length
    // is known and not all of its bytes are here (a big packet's chain in progress included,
    // and a packet waiting for a block to be moved into), or bytes that do not yet make a
    // whole header (or that the parser calls malformed) wait unframed. False when nothing
    // is read beyond whole packets: in particular when whole packets wait unframed only
    // because the ring is full, or when only a block is lacking for the next read. Those
    // waiting packets are checked with the parser, one call per packet (only while the
    // ring is or just was full), so the answer does not depend on when framing last ran.
    // Update thread only; takes m_rx_mutex (see GetUnframedLen).
    bool HasPartialPacket();
    // Complete packets received on this connection (the counter behind the first-packet
    // dump). Reset clears it, CopyFrom copies it.
    long GetRecvPacketCount() const { return m_rx_packet_cnt; }
    // Packets offered to Send and SendToQ on this connection (the count behind the first-send
    // dump and the statistics row's sent column: refused offers included). Reset clears it,
    // CopyFrom copies it. Any thread (relaxed read).
    int64_t GetSentPacketCount() const { return m_tx_packet_cnt; }

    // ---- why Update ended the connection ----

    // The result that made Update disconnect: the negative result of Recv or Send() (for
    // example kIoFailed, kParseMalformed, kParseTooLong), kPeerClosed for the peer's end of
    // stream, or 0 when Update has not ended the connection or ended it for EPOLLERR /
    // EPOLLHUP. Reset clears it.
    int GetLastIoResult() const { return m_last_io_result; }
    // The errno that goes with it: of the failing recv or send (or of the flush's
    // epoll_ctl), the socket's pending error (SO_ERROR) when EPOLLERR or EPOLLHUP ended the
    // connection (0 for a hang-up without an error), or 0 (end of stream, framing errors,
    // not ended by Update). Reset clears it. A send error comes from whichever thread last
    // failed a write on this connection.
    int GetLastErrno() const { return m_last_errno; }
    // The errno of the last failed write on this connection, by any thread (a direct Send
    // included, which Update does not see), or 0. Reset clears it. Any thread.
    int GetLastWriteErrno() const { return m_write_errno; }
    // Whether the last attempt to take a receive block was refused (the pool was empty or
    // the connection was at m_max_rx_buf_num) and none has been taken since. Any thread.
    bool IsRecvStarved() const { return m_is_last_rx_full; }
    void GetIPAndPort(int& ip, int& port) override;
    // Dials the parsed URL without blocking, registering the socket with epoll first
    // (EPOLLIN|EPOLLOUT|EPOLLERR, level-triggered, data.ptr = this). Returns 0 with status 1
    // (dial in progress) or 2 (connected); -1 not disconnected; -2 accepted connection;
    // -3 no socket; -4 non-blocking mode, -5 TCP_NODELAY, -6/-7 kernel buffer sizes, -8 epoll
    // registration failed (descriptor left open, see above); -9 the dial failed (closed).
    // Owner's thread.
    int Connect() override;
    // The socket set-up of a dial, for owners that set their sockets up themselves: called
    // with the new descriptor (already non-blocking), before the epoll registration and
    // connect(2). Returns 0 to go on.
    typedef int (*ConnectSetupFn)(void* arg, int fd);
    static constexpr int kConnectSetupFailed = -10;
    // Connect, with `setup(arg, fd)` in place of Connect's own TCP_NODELAY and kernel buffer
    // sizes (m_socket_send_buff_size / m_socket_recv_buff_size are not applied), so that it
    // may leave the buffers to the kernel's auto-tuning, bind a source address or set any
    // option. A nonzero result of `setup` fails with kConnectSetupFailed, the descriptor left
    // open as for -4..-8 (errno is the setup's to report). A null `setup` is Connect itself.
    // Owner's thread.
    int ConnectWith(ConnectSetupFn setup, void* arg);
    // Logs and closes (see Close).
    void Disconnect(LogCategory* log_cat) override;
    // Removes the socket from epoll, closes it when m_close_socket is set, and sets status 0,
    // socket -1, events 0. Does nothing in status 0. A null category selects m_log_cat.
    void Close(LogCategory* log_cat);
    // Whether Close closes the descriptor (default true).
    void SetCloseSocket(bool close_socket) { m_close_socket = close_socket; }
    bool GetCloseSocket() const { return m_close_socket; }
    int GetSocket() const { return m_socket; }
    // Moves the live state of `that` (same socket) into this fresh connector. 0, or -1..-8,
    // or -9 when more than kInlinePacketSlots packets wait and no memory could be had for
    // this connector's ring (ERROR "cannot take packet ring storage, packets=%d").
    // Neither connector may be in use by another thread.
    int CopyFrom(CTcpConnector& that);

    // What a connection owes either way, as bytes, for a connector in another process to
    // go on from (ExportCarry, ImportCarry); the socket travels apart. The bytes are
    // pieces of memory, in order, not copies: a hand-over of many connections moves
    // hundreds of megabytes, and every copy is part of the pause the peers see.
    typedef std::pair<const char*, size_t> Piece;
    struct Carry {
        std::vector<Piece> unsent;  // queued output not yet written (a packet partly written
                                    // goes on from the first byte the peer has not had)
        std::vector<Piece> unread;  // received bytes not yet delivered: the packets waiting in
                                    // the ring, the half-received packet, the bytes not framed yet
        // ImportCarry: owns the memory `unread` points into; the connector keeps it until
        // it has read those bytes. Unused by ExportCarry.
        std::shared_ptr<const void> keep;
        int64_t rx_bytes = 0;    // bytes received before `unread`
        int64_t tx_bytes = 0;    // bytes written
        int64_t rx_packets = 0;  // packets delivered (not those in `unread`)
        int64_t tx_packets = 0;
        static size_t Size(const std::vector<Piece>& pieces);
    };
    // Fills `out` from this connector. It changes nothing but this: bytes a poller received
    // for the socket and nobody read are taken back first (TakeBackReceived), so that they
    // are owed too and the socket is read with recv(2) from then on. Its pieces point into this
    // connector's blocks and stay valid until it next reads, sends or is finished. 0, or -1
    // when the receive blocks do not hold what the ring and the half-received packet point
    // at (ERROR "cannot export received bytes, ..."; never expected). Owner's thread, while
    // no other thread is in Send, Peek or Drop of this connector (the owner holds them off
    // until it is done with the pieces).
    int ExportCarry(Carry* out);
    // Takes `in` into this connector, initialised on the peer's socket and not read or
    // sent on yet: the unsent bytes are copied into pool blocks and queued (past the
    // send-queue limit if need be: they were accepted once), and the unread bytes, left
    // where they are (`in.keep` keeps them), are read before anything of the socket,
    // framed again into the same packets. 0, or -1 when the pool has no block for the
    // unsent bytes (nothing is queued then). Owner's thread, before the connector is
    // updated.
    int ImportCarry(Carry&& in);

    // ---- URLs ----
    int ParseURL() override;
    int ParseURLV6() override;
    // True when `url` is not null and starts with "tcp://".
    static bool CheckURL(const char* url);
    const char* GetLocalURL() override;

    // ---- receive path ----

    // Reads and frames what the socket holds. Returns bytes read (>= 0), kPeerClosed when
    // the peer ended its stream, or another negative code on failure. Update calls it; an
    // owner calls it directly to retry a connector that IsWaitAllocBigBuffer() (Update skips
    // those). With SetKeepWritingAfterPeerClose(true), the read that meets the end of
    // stream also stops reading for good (see there) and still returns kPeerClosed; an owner
    // that calls Recv itself then keeps the connection (IsPeerClosed() is true); later calls
    // return 0 without reading.
    //
    // One read per readiness: a read that fills less than the room it was given means the
    // socket is drained for now, so Recv frames what it got and returns without the further
    // read that would only meet would-block; EPOLLIN leaves m_events as on would-block, and
    // level-triggered epoll reports the socket again when more bytes (or the end of stream)
    // arrive. A read that fills its room is followed by another, unless the kernel said with
    // that read that nothing more is queued: after a connection's first full read, the reads
    // that follow a full one ask for that count (TCP_INQ, one setsockopt per connection, on
    // TCP sockets of kernels that have it), so a packet that ends exactly at the end of its
    // room costs no read that only meets would-block either.
    int Recv();
    // Off (the default): Peek and Drop may run on one consumer thread other than the update
    // thread, and the receive state they share with framing is guarded by m_rx_mutex. On:
    // the caller promises that Peek, Drop, GetPacketInfoCnt and every other receive-side
    // call run on the update thread (an owner whose loop both reads and consumes, as
    // CConnectorMgr does), and the receive side takes no lock at all. The send side is not
    // affected. A configuration: Reset keeps it, CopyFrom copies it. Owner's thread, while
    // no other thread uses the connector's receive side.
    void SetSingleThreadRecv(bool on) { m_single_thread_recv = on; }
    bool GetSingleThreadRecv() const { return m_single_thread_recv; }
    // The oldest packet, in place (<= 65536 bytes) or joined into the combine buffer. Valid
    // until the next Drop (or the next Peek of a multi-block packet). Ring consumer thread.
    int Peek(const char** buf, unsigned int& len, LogCategory* log_cat) override;
    // Retires the oldest packet and frees the blocks no packet uses. 0, or -1 when empty.
    int Drop() override;

    // ---- send path ----
    //
    // Guarantee: the bytes of one packet are contiguous on the wire; a packet accepted by
    // Send or SendToQ is never interleaved with another, whatever threads send at once.
    // Packets sent by different threads at the same time have no defined order among
    // themselves; packets sent by one thread leave in the order of its calls.
    //
    // Write readiness follows the queue: PushSendQ registers EPOLLIN|EPOLLOUT|EPOLLERR when
    // the queue goes from empty to non-empty, Sending registers EPOLLIN|EPOLLERR when it
    // drains it; a registration equal to the last one made is skipped. While the owner has
    // paused reading (PauseReading), both masks are registered without EPOLLIN.

    // Flow control for the owner. While reading is paused, the socket's epoll registration
    // leaves out EPOLLIN (the send side still arms and disarms EPOLLOUT), so a
    // level-triggered loop is not woken over and over for bytes this connector cannot take
    // now (a full ring, no receive block, a big packet waiting for its chain); the kernel
    // keeps them, and TCP slows the peer down. Resuming registers EPOLLIN again; bytes that
    // arrived meanwhile are reported at once. A new registration (Init, Connect) or Close
    // ends a pause. Any thread; takes m_tx_mutex. Returns 0, or -1 when epoll_ctl failed
    // (errno kept): the pause (or resume) is still recorded and reaches epoll with the
    // next change of the registration.
    int PauseReading(bool paused);
    bool IsReadingPaused();

    // Ends the sending side (shutdown(SHUT_WR)) if, and only if, nothing is being sent: no
    // thread holds the sending role, no push is copying a packet in (or holds the queue's
    // tail detached) and the queue is empty. The decision is taken and recorded under
    // m_tx_mutex, which every sender takes before it writes or queues, so from then on Send
    // and SendToQ return kSendShutDown without writing a byte: every packet whose Send
    // returned its length before the decision is on the wire whole, and none after it is
    // started. Returns 1 when the side is shut down (now or before), 0 when something is
    // still being sent (the caller tries again once that sender is done), -1 when
    // shutdown(2) failed (errno kept; the side counts as shut down all the same). Owner's
    // thread; the owner's corked packets must have been flushed first. Reset reopens it.
    int ShutdownSendIfIdle();
    // Whether ShutdownSendIfIdle shut the sending side down. Any thread (relaxed read).
    bool IsSendShutDown() const { return m_tx_shut; }

    // Writes one whole packet, straight from `buf` when the socket is known writable
    // (EPOLLOUT in m_events) and nothing is queued; what the socket does not take is
    // copied into pool blocks reserved before the write and queued ahead of anything else.
    // Otherwise the packet is queued (SendToQ). Any thread; no mutex is held across send.
    // Returns len, 0 when refused for lack of room (retry later), -1 for a wrong status or
    // bad arguments, or a negative code from the socket (the owner should disconnect; the
    // blocks reserved for that packet have gone back to the pool).
    // `log_cat` null selects the connector's category.
    int Send(const char* buf, unsigned int len, LogCategory* log_cat) override;
    // Flushes the send queue; the owner's thread calls it (through Update) on writability.
    // Returns the bytes written, 0 when another thread holds the sending role, or negative
    // when the connection is broken. With nothing queued and writability already off in the
    // registration it returns 0 at once, under one lock, without taking the role.
    int Send();
    // The owner's end-of-tick flush in two halves, so that a poller may write many
    // connections' blocks in one call to the kernel (IPoller::SendBatch). BeginBatchedFlush
    // takes the sending role and the first queued block and describes its bytes in `*op`;
    // false when there is nothing to write or this connector must flush by itself (a stream
    // layer, another thread holding the role): then Send() is the way. EndBatchedFlush
    // takes the write's result (bytes, or -errno as send(2) gives it), goes on with the rest
    // of the queue as Send() would, gives the role back and returns what Send() returns.
    // Owner's thread; between the two the connector is not flushed or finished.
    bool BeginBatchedFlush(SendOp* op);
    int EndBatchedFlush(int result);
    // Whether a packet of `len` bytes may be expected to be accepted now: connected, room
    // under m_max_tx_buf_num (whole blocks, unlocked count) and pool blocks to spare.
    bool IsSendBufEnough(unsigned int len) override;
    // Copies one whole packet into the send queue, or none of it. Any thread. Returns len,
    // 0 when refused (queue limit or pool), -1 for a null `buf` or a zero `len`.
    // A packet that fits in the room left in the queue's last block is copied there at once,
    // under one lock, before any block is asked of the pool (and so even when the pool has
    // none to spare); only a packet that needs fresh blocks reserves them first, tops up the
    // last block and then fills the new ones. The queue-limit check comes first either way.
    // While another thread holds the sending role, every packet takes the second way.
    // Queues like SendToQ, but does not ask epoll for writability when the queue was empty:
    // the caller flushes with Send() before its thread next waits (the owner's end-of-tick
    // flush of corked replies), and a flush that meets would-block or a partial write asks
    // for writability itself. A burst of corked replies thus costs no epoll_ctl at all when
    // the socket takes it. Owner's thread. Results as SendToQ.
    //
    // Between a corked packet and that flush the queue's last block is the owner's cork
    // block: the next corked packets that fit in its room are copied into it without any
    // lock (see m_tx_cork_block), so a burst of replies to one connection takes the send
    // mutex once, not once per packet. Another thread's packets queue behind the cork block,
    // never inside it and never onto the wire ahead of it, so the order the threads agreed
    // on is kept (a corked packet never goes ahead of a packet another thread queued before
    // it); a flush by another thread stops in front of it. Send() ends the cork.
    int SendToQCorked(const char* buf, unsigned int len);
    int SendToQ(const char* buf, unsigned int len, LogCategory* log_cat) override;
    // Milliseconds since the pool first refused SendToQ blocks in the current starvation
    // episode; 0 when the send side is not starved (answered without locking).
    int GetConstantSendBufFullMS() override;
    int GetMaxSendQCount() { return static_cast<int>(m_max_tx_buf_num); }
    int GetMaxRecvQCount() { return static_cast<int>(m_max_rx_buf_num); }

    // ---- diagnostics ----

    // One-line dump into a buffer of the calling thread (512 bytes, not one per connector, so
    // that an idle connection does not carry it); valid until the next ToString on the same
    // thread, whichever connector it describes.
    const char* ToString();
    // One statistics row into buf (at most len bytes); returns the row's full length.
    int PrintStat(char* buf, int len);
    int GetPacketInfoCnt();

    // ---- packet ring storage (process-wide; any thread) ----

    // Ring slots inside every connector; more waiting packets need ring storage.
    static constexpr int kInlinePacketSlots = 4;
    // Ring storage (kPacketInfoSize slots) held by connectors now, and kept for reuse. At most
    // kPacketRingCacheMax storages are kept; one given back beyond that goes to the heap.
    static constexpr int kPacketRingCacheMax = 32;
    static long GetPacketRingsInUse();
    static long GetPacketRingsCached();
    int GetSendQCount() override;
    int GetRecvQCount() override;
    int GetSendBuffLeftRate() override;
    int GetRecvBuffLeftRate() override;

  private:
    friend class CTcpConnectorTestPeer;  // white-box access for the library's own tests

    // receive path
    void AddRecvQueue(CBidirList& list);
    NetBuffer* AllocateRecvBufferNoLock();
    bool AtRecvCapLocked();
    int RecvToBuffer(NetBuffer* buffer);
    // One read of at most `len` bytes into `buf`. Bytes read, 0 on would-block (EPOLLIN
    // cleared in m_events), kPeerClosed, or kIoFailed (errno in m_read_errno). With `inq`
    // not null the read also asks the kernel how many bytes stay queued after it and stores
    // that in *inq (left as it was when the kernel does not say).
    int ReadSocket(void* buf, int len, int* inq);
    // ReadSocket through the stream layer: fills `buf` from it while the layer holds more,
    // so that a short result still means the socket is drained for now.
    int ReadStream(void* buf, int len);
    // Up to `len` bytes of m_rx_carry (at least one is left): how many.
    int ReadCarried(void* buf, int len);
    // Forgets the carried bytes (and lets their memory go).
    void DropCarried();
    // Ends the poller's receives for this socket (when it was doing them) and puts what it
    // received and nobody read in front of m_rx_carry, so that the bytes go on with the
    // connection to another loop or process. Owner's (update) thread.
    void TakeBackReceived();
    // WriteSocket through the stream layer.
    int WriteStream(const char* buf, int len, LogCategory* log_cat);
    // One step of the layer's handshake (Update): CONNECTED once done, the registration
    // narrowed to what it waits for otherwise; a failure disconnects (kHandshakeFailed).
    void StepHandshake();
    // Asks the kernel to report, with each read that wants it, the bytes still queued after
    // it (TCP_INQ); remembers whether the socket can. Update thread.
    void EnableReadInq();
    int RecvPacketHead();
    int RecvSingleBufferBody();
    int RecvMultiBufferBody();
    // Takes the next block of the big packet being received (state
    // ALLOC_MULTI_BUFFER_BODY_STATUS) and makes it m_rx_buffer, limited to the packet's end.
    // False on a shortage (cap or pool), which is logged and counted once per run.
    bool TakeNextBigPacketBlock();
    int ParseNetBuffer();
    int CombinePacket(PacketInfo* info, char* out, LogCategory* log_cat);
    void ReleaseCallBackPacket();
    // The body of Recv; Recv brackets it with m_rx_reading and the idle release.
    int RecvLoop();
    // Gives the receive blocks back to the pool when nothing needs them (see the top of this
    // file); a no-op otherwise. Caller holds m_rx_mutex.
    void ReleaseIdleRxLocked();
    // Frees the front block of m_rx_queue, counting its wait in the receive statistics.
    // Caller holds m_rx_mutex; `now` is read once by the caller (`have_now` tells whether).
    void ReleaseFrontRxBlockLocked(struct timeval* now, bool* have_now);

    // The ring slot of index `idx` (0..kPacketInfoSize-1): in the ring storage when the
    // connector holds one, else in the inline slots. Caller holds m_rx_mutex, or is the
    // consumer reading the head slot (see Peek).
    PacketInfo& PacketSlot(int idx) {
        return m_packet_info != nullptr ? m_packet_info[idx] : m_packet_info_inline[idx % kInlinePacketSlots];
    }
    // Packets in the ring (the rule of GetPacketInfoCnt). Caller holds m_rx_mutex.
    int PacketCountLocked() const {
        if (m_packet_head_idx == -1) {
            return 0;
        }
        if (m_packet_head_idx > m_packet_tail_idx) {
            return m_packet_tail_idx - m_packet_head_idx + 1001;
        }
        return m_packet_tail_idx - m_packet_head_idx + 1;
    }
    // Moves the ring into ring storage once kInlinePacketSlots packets wait, so that framing
    // may file more. False when no storage could be had (framing then waits as for a full
    // ring). Update thread; takes m_rx_mutex.
    bool GrowPacketRing();
    // Ring storage: taken from the process-wide cache or the heap (null when the heap
    // refuses), and given back (null is ignored).
    static PacketInfo* TakePacketRing();
    static void GivePacketRing(PacketInfo* ring);

    // send path
    // Whether `len` more bytes in fresh blocks would take the queue over m_max_tx_buf_num.
    bool IsExceedMaxTxBufCnt(int len);
    // Copies `len` bytes into the blocks of `list` (reserved from the pool by the caller;
    // leftovers stay in `list` for the caller to release) and queues them: behind the queue
    // after topping up its tail, or, with `ahead`, before everything queued (the remainder
    // of a direct write, whose start is already on the wire). Caller-supplied blocks only;
    // never allocates. Should `list` hold too few blocks (no caller in the library lets it),
    // nothing of the packet is queued: its blocks go back to the pool and the queue's old
    // tail returns with only the bytes it held before (ERROR "unexpected error, node=NULL,
    // ...").
    // With `arm` false, a queue that was empty is not armed for writability: the caller has
    // promised a flush (SendToQCorked); the packet is then the owner's corked one, and the
    // queue's last block becomes its cork block.
    // Returns false, queueing nothing (the blocks stay in `list`), when a push at the end
    // of the queue meets a sending side the owner has shut down (ShutdownSendIfIdle).
    bool PushSendQ(const char* buf, int len, CBidirList& list, LogCategory* log_cat, bool ahead = false,
                   bool arm = true);
    int SendToQImpl(const char* buf, unsigned int len, LogCategory* log_cat, bool arm);
    // Copies a packet that fits in the room left in the queue's last block straight into
    // that block: one lock, no pool round trip. It does so only while no thread holds the
    // sending role (a flusher reads the tail's bytes outside the lock) and no push holds the
    // tail detached; the queue is not empty, so writability is already armed (or a flush is
    // promised). Takes m_tx_mutex; logs PushSendQ's DEBUG line with list_size=0. True when
    // the packet went in; false sends the caller the general way (PushSendQ).
    // `owner_cork`: the caller is the owner's SendToQCorked; the block then becomes its
    // cork block. Any other caller leaves a cork block alone (false).
    bool AppendToTail(const char* buf, int len, LogCategory* cat, bool owner_cork);
    // SendToQ's entry trace and count of the offer.
    void EnterSendToQ(LogCategory* cat, unsigned int len);
    // Copies `len` bytes into the room of queued `block`, with PushSendQ's trace line
    // (list_size=0). The caller owns the block's room: m_tx_mutex, or the owner's cork.
    void PutIntoQueuedBlock(NetBuffer* block, const char* buf, int len, LogCategory* cat);
    // After a packet went in at the end of the queue: the owner's corked one (`owner_cork`)
    // makes the last block the cork block; another one behind a cork marks it overtaken.
    // Caller holds m_tx_mutex.
    void NoteQueuedAtTailLocked(bool owner_cork);
    // No cork: the owner's next corked packet takes the locked way. Owner's thread, under
    // m_tx_mutex or while no other thread uses the connector (Reset).
    void EndCork();
    // Whether the owner's flush would find nothing to do: no role taken, nothing queued, no
    // tail detached and writability off. Read without m_tx_mutex, so a packet queued by
    // another thread at that moment may be missed; such a packet armed writability, so the
    // next tick flushes it. Owner's thread.
    bool NothingToFlush() const;
    // After a write of `node`'s block (Sending, EndBatchedFlush): a block with bytes left goes
    // back to the head of the queue and writability is armed (true); a block written whole
    // has its queue wait counted and goes back to the pool (false).
    bool SettleWrittenBlock(LIST_NODE* node, LogCategory* cat);
    // Writes queued blocks until the queue is empty, the socket would block or the owner's
    // cork block comes first. Caller holds the sending role. Bytes written, or negative.
    int Sending(LogCategory* log_cat);
    // One send(2). Bytes taken, 0 on would-block (EPOLLOUT cleared in m_events), -1 otherwise.
    int WriteSocket(const char* buf, int len, LogCategory* log_cat);
    // What a write of `len` bytes that returned `cnt` (-1: failed with `err`) means, as
    // WriteSocket returns it: the bytes counted, 0 on would-block, kIoFailed (logged).
    int TookWrite(ssize_t cnt, int err, int len, LogCategory* cat);
    // Sets the socket's epoll registration to `events` unless it already has that mask;
    // EPOLLIN is left out while reading is paused or stopped. Caller holds m_tx_mutex. 0, or
    // -1 with errno set by epoll_ctl.
    int SetRegisteredEventsLocked(unsigned int events);
    // `events` as SetRegisteredEventsLocked would register them (EPOLLIN left out while
    // reading is paused or stopped). Caller holds m_tx_mutex, or accepts a stale answer.
    unsigned int EffectiveEventsLocked(unsigned int events) const;
    // Registers the current mask again after the reading side changed (paused, resumed or
    // stopped), keeping the write side as it is registered. Caller holds m_tx_mutex. 0, or
    // -1 with errno set by epoll_ctl.
    int ReapplyRegistrationLocked();
    // The peer's end of stream with SetKeepWritingAfterPeerClose(true): records it and
    // stops reading for good. Update thread.
    void StopReadingAtPeerClose();
    // The queue-limit refusal shared by Send and SendToQ: when `len` more bytes in fresh
    // blocks would take the queue over m_max_tx_buf_num, logs the DEBUG line to `cat`, marks
    // the send side full (counted once per episode) and returns true.
    bool RefuseOverQueueLimit(int len, LogCategory* cat);
    // Init's steps after the URL: the buffers' check, the parser and epoll, and for an
    // accepted socket its registration. Returns as Init.
    int InitBound(IPackParser* parser, int epoll, int socket);
    // GetLocalSocketName into m_peer_url (unchanged on failure). 0, or -1.
    int LocalSocketName(int socket);
    // Records `events` as the socket's registration after Init/Connect registered it (or 0
    // after Close removed it). Takes m_tx_mutex; callers may hold m_mutex.
    void SetRegisteredEvents(unsigned int events);

    IPackParser* m_parser;
    // Where the socket is registered: the epoll instance Init was given, unless the owner
    // gave another poller (SetPoller). m_poller is not owned.
    CEpollPoller m_epoll_poller;
    IPoller* m_poller = &m_epoll_poller;
    std::atomic<unsigned int> m_events;  // set by the owner's thread, EPOLLOUT cleared by senders
    char* m_combine_buf;
    int m_combine_buf_len;
    char* m_cb_combine_buf;
    int m_cb_combine_buf_len;
    Relaxed<int> m_socket;  // written under m_mutex, read by sending threads
    bool m_close_socket;
    int m_port;
    CBidirList m_tx_queue;  // guarded by m_tx_mutex
    CBidirList m_rx_queue;  // guarded by m_rx_mutex
    CNetBufferMgr* m_net_buf_mgr;
    unsigned int m_max_tx_buf_num;
    unsigned int m_max_rx_buf_num;
    Mutex m_tx_mutex;
    Mutex m_push_send_queue_mutex;
    Mutex m_rx_mutex;
    // SetSingleThreadRecv: the receive side runs on the update thread alone and takes no lock.
    bool m_single_thread_recv = false;
    // Holds m_rx_mutex for the caller's scope, unless the receive side is single-threaded.
    // Every receive-side lock is taken through here.
    MaybeLocker LockRx() { return MaybeLocker(&m_rx_mutex, !m_single_thread_recv); }
    Mutex m_mutex;

    // receive state (update thread; rebinding under m_rx_mutex)
    RECV_PACKET_STATUS m_rx_status;
    NetBuffer* m_rx_buffer;
    PacketInfo m_rx_packet;
    int m_packet_head_idx;  // guarded by m_rx_mutex
    int m_packet_tail_idx;  // guarded by m_rx_mutex
    // Recv is under way on the update thread; Drop then leaves the idle release to it.
    // Guarded by m_rx_mutex.
    bool m_rx_reading = false;
    // The ring's storage while more than the inline slots are needed, else null. Guarded by
    // m_rx_mutex (taken by framing, given back by the Drop that empties the ring).
    PacketInfo* m_packet_info = nullptr;
    PacketInfo m_packet_info_inline[kInlinePacketSlots];  // the ring's slots otherwise
    bool m_is_wait_alloc_big_buffer;
    time_t m_wait_alloc_starttime;

    // statistics (plain, unlocked)
    int m_last_sample_time;
    Relaxed<int> m_packet_info_max_cnt;
    Relaxed<float> m_packet_info_avg_cnt;
    Relaxed<int> m_tx_max_wait_time;
    Relaxed<float> m_tx_avg_wait_time;
    Relaxed<int> m_rx_max_wait_time;
    Relaxed<float> m_rx_avg_wait_time;
    Relaxed<int> m_tx_buf_full_cnt;
    Relaxed<int> m_rx_buf_full_cnt;
    Relaxed<bool> m_is_last_tx_full;
    Relaxed<bool> m_is_last_rx_full;
    Relaxed<long> m_rx_packet_cnt;
    Relaxed<int64_t> m_tx_packet_cnt;

    std::atomic<bool> m_is_sending;    // the sending role; taken under m_tx_mutex
    LIST_NODE* m_tx_flight = nullptr;  // BeginBatchedFlush's block, held by the role
    // The mask last registered with epoll for m_socket (0: none known). Written under
    // m_tx_mutex; Init and Connect set it on registration, Close resets it. The owner's
    // flush reads it without the lock first (NothingToFlush).
    Relaxed<unsigned int> m_registered_events{0};
    // A PushSendQ holds the queue's old tail outside the queue while it tops it up. Written
    // under m_tx_mutex. A direct write must not start while it is set: the detached tail may
    // hold the rest of a packet whose start is already on the wire.
    Relaxed<bool> m_tx_tail_detached{false};
    // A PushSendQ at the end of the queue is under way (from its first m_tx_mutex section to
    // its merge), detached tail or not: its packet is accepted but not yet in the queue.
    // Written under m_tx_mutex (pushes are serialised by m_push_send_queue_mutex).
    Relaxed<bool> m_tx_push_active{false};
    // The owner shut the sending side down (ShutdownSendIfIdle). Written under m_tx_mutex;
    // senders test it under m_tx_mutex before they write or queue. Reset clears it.
    Relaxed<bool> m_tx_shut{false};
    // Another thread queued a packet behind the cork block (m_tx_cork_block): the owner's
    // next corked packet must follow that one, so it takes the locked way, which moves the
    // cork to the new last block. Set under m_tx_mutex by that thread; cleared under it by
    // the owner. A packet whose Send returned before the owner's corked send began is thus
    // always ahead of it.
    Relaxed<bool> m_tx_cork_overtaken{false};
    // The owner paused reading: registrations leave out EPOLLIN. Written under m_tx_mutex;
    // PauseReading reads it first without the lock to skip a call that changes nothing.
    Relaxed<bool> m_read_paused{false};
    // Reading stopped for good at the peer's end of stream: registrations leave out EPOLLIN
    // whatever PauseReading says. Written under m_tx_mutex; a new registration clears it.
    Relaxed<bool> m_read_stopped{false};

    // Configuration (survives Reset): keep the connection writable after the peer's close.
    bool m_keep_writing_after_peer_close = false;
    Relaxed<bool> m_peer_closed;  // a read returned end of stream (update thread writes)
    // The owner's cork block: the last block of m_tx_queue, into which the owner's thread
    // copies corked packets without m_tx_mutex until its next Send(). Set and cleared by the
    // owner's thread under m_tx_mutex (SendToQCorked sets it, Send() and the queue's release
    // clear it); other threads read it only under m_tx_mutex and never touch the block's
    // bytes or positions while it is set: a flush stops in front of it, a push does not top
    // it up and a direct write finds the queue non-empty. The owner's thread reads it
    // without the lock (it is the only writer).
    NetBuffer* m_tx_cork_block = nullptr;
    // Progress counters (see GetSentBytes/GetRecvBytes). m_tx_bytes is advanced by the
    // holder of the sending role, m_rx_bytes by the update thread.
    Relaxed<int64_t> m_tx_bytes;
    Relaxed<int64_t> m_rx_bytes;
    // Received bytes carried over from another process (ImportCarry), read before the
    // socket: m_rx_carry_pos bytes of piece m_rx_carry_idx are the next; m_rx_carry_keep
    // owns their memory. Empty once read. Update thread.
    std::vector<Piece> m_rx_carry;
    size_t m_rx_carry_idx = 0;
    size_t m_rx_carry_pos = 0;
    std::shared_ptr<const void> m_rx_carry_keep;
    // The poller receives for this socket (IPoller::StartReceive said yes): what it took is
    // taken back when the socket leaves this loop (TakeBackReceived). Asked once per socket,
    // at its first read. Update thread.
    bool m_poller_reads = false;
    bool m_poller_reads_asked = false;
    // Close cause (see GetLastIoResult/GetLastErrno), written by Update.
    Relaxed<int> m_last_io_result;
    Relaxed<int> m_last_errno;
    // errno of the last failed recv (update thread; Recv clears it on entry) and of the last
    // failed send (any thread holding the sending role).
    int m_read_errno = 0;
    // The last read of this Recv came back short, or the kernel said it left nothing
    // queued: the socket is drained for now. Update thread only.
    bool m_rx_drained = false;
    // Whether reads may ask how many bytes stay queued after them (TCP_INQ): untried until
    // a read first fills its room, then on, or unsupported (not TCP, an old kernel). Reset
    // with every new descriptor. Update thread only.
    enum : uint8_t { kRxInqUntried, kRxInqOn, kRxInqUnsupported };
    uint8_t m_rx_inq = kRxInqUntried;
    // The last read filled its room, so the next one may well fill its room too and asks
    // for the queued-bytes count (a read that comes back short needs none). Update thread.
    bool m_rx_last_full = false;
    Relaxed<int> m_write_errno;

    // The stream layer (SetStreamIo), or null for plain socket calls. Set by the owner's
    // thread while no traffic flows; its calls are made as IStreamIo says.
    std::unique_ptr<IStreamIo> m_io;
    // The layer's handshake is under way, and the readiness it waits for (EPOLLIN or
    // EPOLLOUT). Update thread; registrations read them under m_tx_mutex.
    Relaxed<bool> m_handshaking{false};
    Relaxed<unsigned int> m_handshake_wait{0};
    // The layer cannot go on reading until the socket is writable (a read that must send,
    // as a TLS key update's answer), or writing until it is readable: the registration keeps
    // the other readiness, and Update retries the stalled side when it comes. Set by the
    // side that stalled; read by registrations under m_tx_mutex.
    Relaxed<bool> m_rx_wants_write{false};
    Relaxed<bool> m_tx_wants_read{false};

    // Rarely touched members come last.
    union {
        struct sockaddr_in m_addr;
        struct sockaddr_in6 m_addr6;
    };
    union {
        int m_ip;
        struct in6_addr m_ipv6;
    };
    // Local address text: "tcp://[" + at most 45 characters of an IPv6 address + "]:" + port
    // (a unix:// address is cut to fit).
    char m_peer_url[64];
    // A Unix-domain connector (InitUnix) and its peer's address.
    bool m_unix = false;
    socklen_t m_addr_un_len = 0;
    struct sockaddr_un m_addr_un;
};

}  // namespace QUOLNET
