// IStreamIo: the one place where a connection's bytes meet its socket, when something other
// than plain send(2)/recv(2) must carry them (a TLS session).
//
// A CTcpConnector without a stream layer reads and writes the socket itself. Given one
// (CTcpConnector::SetStreamIo), it reads application bytes from the layer, writes them to it
// and asks it to end the sending side; the layer alone calls recv/send on the descriptor.
// Everything above the layer stays as it is: framing, pool blocks, the packet ring, direct
// writes from the caller's memory (the layer encrypts from it), the send queue, the limits
// and the statistics, which count application bytes.
//
// A layer may need a handshake before application bytes flow: the connector then stays
// CONNECTING (a dial) or starts CONNECTING (an accepted socket) until Handshake says it is
// done, and registers for whatever readiness the handshake asked for.
//
// Threads: Handshake and Read run on the connection's update thread; Write runs on whichever
// thread holds the connector's sending role, possibly at the same time as a Read, and
// ShutdownWrite on the owner's thread once no sender is active. An implementation serialises
// what its own state needs. The accessors may be called from the update thread.
#pragma once

#include <memory>
#include <string>

#include "../common/export.h"

namespace QUOLNET {

class QUOLNET_EXPORT IStreamIo {
  public:
    // Results of Handshake, Read, Write and ShutdownWrite besides 0 (done) and byte counts.
    static constexpr int kWantRead = -1;   // no progress until the socket is readable
    static constexpr int kWantWrite = -2;  // no progress until the socket is writable
    static constexpr int kEnd = -3;        // Read: the peer ended its stream properly
    // Read: the transport ended without the layer's own end of stream (for TLS, the socket
    // was closed without a close_notify): what came may be cut short.
    static constexpr int kTruncated = -4;
    static constexpr int kFailed = -5;  // the layer or the socket failed: LastErrno, LastError

    IStreamIo() = default;
    IStreamIo(const IStreamIo&) = delete;
    IStreamIo& operator=(const IStreamIo&) = delete;
    virtual ~IStreamIo() = default;

    // Binds the layer to the connected (or accepted) descriptor, before the first Handshake.
    // The connector keeps owning the descriptor. 0, or kFailed.
    virtual int Attach(int fd) = 0;
    // One step of the handshake: 0 once it is complete (then application bytes may flow),
    // kWantRead / kWantWrite, or kFailed.
    virtual int Handshake() = 0;
    // Up to `len` application bytes into `buf`: the count (> 0), kWantRead / kWantWrite
    // when none can be had now, kEnd, kTruncated or kFailed.
    virtual int Read(void* buf, int len) = 0;
    // Whether bytes already taken from the socket wait inside the layer, so that the next
    // Read returns them without the socket becoming readable again.
    virtual bool HasBufferedInput() = 0;
    // Writes up to `len` bytes of `buf`: the count taken (> 0), kWantWrite / kWantRead when
    // none could be taken now, or kFailed. A call that returned kWantWrite / kWantRead must
    // be repeated with the same bytes first (they may sit at another address by then: the
    // connector queues what was not taken and flushes it from its blocks).
    virtual int Write(const void* buf, int len) = 0;
    // Ends the sending side properly (TLS: a close_notify), then shuts the socket's sending
    // side down. 0, or kFailed (the socket is shut down in either case).
    virtual int ShutdownWrite() = 0;

    // errno of the last kFailed, or 0 when the failure was the layer's own.
    virtual int LastErrno() const = 0;
    // The last failure as text ("" when none); valid until the next call on the layer.
    virtual const char* LastError() const = 0;
    // What was negotiated, for the statistics and the handler ("TLSv1.3 TLS_AES_128_GCM_SHA256").
    virtual std::string Describe() const = 0;
    // The application protocol the handshake agreed on (TLS: ALPN), "" when none.
    virtual std::string Alpn() const { return std::string(); }
    // The peer's identity, when it proved one (TLS: the certificate's subject), else "".
    virtual std::string PeerSubject() const { return std::string(); }
};

// Makes the layer of each new connection. The owner (CConnectorMgr) calls it on its loop
// thread, once for every accepted socket of a listener and once for every attempt of a dial;
// `server` tells which side this end plays and `host` is the name dialled (for a server, "").
// Null refuses the connection. Shared by every connection made with it, so it is thread-safe.
class QUOLNET_EXPORT IStreamIoFactory {
  public:
    IStreamIoFactory() = default;
    IStreamIoFactory(const IStreamIoFactory&) = delete;
    IStreamIoFactory& operator=(const IStreamIoFactory&) = delete;
    virtual ~IStreamIoFactory() = default;
    virtual std::unique_ptr<IStreamIo> Create(bool server, const std::string& host) = 0;
};

}  // namespace QUOLNET
