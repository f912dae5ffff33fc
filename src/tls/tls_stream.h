// CTlsStream: one connection's TLS session, the stream layer a CTlsContext makes for it.
//
// OpenSSL reads and writes the socket itself, through a socket BIO of this library's own
// that passes MSG_NOSIGNAL (a reset peer fails a write with EPIPE, never SIGPIPE) and reads
// ahead, so one recv takes as many records as the socket holds. SSL objects are not safe
// for concurrent use, while the connector reads on its loop thread and writes on whichever
// thread holds its sending role: every call on the session takes m_mutex for the length of
// one non-blocking OpenSSL call.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "../net/stream_io.h"
#include "tls_context.h"

typedef struct ssl_st SSL;
typedef struct ssl_session_st SSL_SESSION;

namespace QUOLNET {

// What a context shares with the sessions it made: they may outlive it.
struct CTlsContext::Shared {
    Shared() = default;
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    ~Shared();

    std::mutex mutex;                              // guards ctx, options and sessions
    std::shared_ptr<SSL_CTX> ctx;                  // the configuration new sessions are made from
    TlsOptions options;                            // what made it
    std::map<std::string, SSL_SESSION*> sessions;  // client: the last session per host (owned)
    std::atomic<uint64_t> resumed{0};              // handshakes that resumed a session
};

class CTlsStream : public IStreamIo {
  public:
    // `ssl` is owned from here on; `shared` is its context's state (the client's session
    // cache and the counters); `cache_key` names the peer for the session cache ("" for a
    // server or with tickets off).
    CTlsStream(SSL* ssl, bool server, std::shared_ptr<CTlsContext::Shared> shared, std::string cache_key);
    ~CTlsStream() override;

    int Attach(int fd) override;
    int Handshake() override;
    int Read(void* buf, int len) override;
    bool HasBufferedInput() override;
    int Write(const void* buf, int len) override;
    int ShutdownWrite() override;
    int LastErrno() const override { return m_errno; }
    const char* LastError() const override { return m_error.c_str(); }
    std::string Describe() const override;
    std::string Alpn() const override;
    std::string PeerSubject() const override;

    // Asks for new traffic keys both ways (a TLS 1.3 key update that requests the peer's
    // too); the message goes out with the next write. False before TLS 1.3 or the
    // handshake's end. Any thread.
    bool UpdateKeys();

    const std::string& CacheKey() const { return m_cache_key; }
    const std::shared_ptr<CTlsContext::Shared>& Shared() const { return m_shared; }

  private:
    // Maps a failed OpenSSL call's result to kWantRead / kWantWrite / kEnd / kTruncated /
    // kFailed, recording the failure's errno and text. Caller holds m_mutex.
    int Fail(int ret, bool reading);

    SSL* m_ssl;
    const bool m_server;
    std::shared_ptr<CTlsContext::Shared> m_shared;
    const std::string m_cache_key;
    mutable std::mutex m_mutex;  // every OpenSSL call on m_ssl
    int m_fd = -1;
    int m_errno = 0;      // of the last failure (guarded by m_mutex)
    std::string m_error;  // its text (guarded by m_mutex)
    int m_read_end = 0;   // a final Read result (kEnd, kTruncated, kFailed), repeated after
    bool m_shut = false;  // ShutdownWrite ran
};

}  // namespace QUOLNET
