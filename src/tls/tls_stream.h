// CTlsStream: one connection's TLS session, the stream layer a CTlsContext makes for it.
//
// OpenSSL reads and writes the socket itself, through a socket BIO of this library's own
// that passes MSG_NOSIGNAL (a reset peer fails a write with EPIPE, never SIGPIPE) and reads
// ahead, so one recv takes as many records as the socket holds. SSL objects are not safe
// for concurrent use, while the connector reads on its loop thread and writes on whichever
// thread holds its sending role: every call on the session takes m_mutex for the length of
// one non-blocking OpenSSL call.
//
// Compact records (TlsOptions::compact_records, on by default): a server's TLS 1.3
// connection leaves OpenSSL once its handshake is done. The session learns the two
// application traffic secrets from OpenSSL's key log callback and counts the records that
// passed under them (the server's session tickets) with the message callback; it reads no
// further ahead than the handshake's last record, so no application record waits inside
// OpenSSL. When the handshake ends with TLS 1.3, a suite the record layer knows
// (AES-128-GCM, AES-256-GCM, ChaCha20-Poly1305), both secrets, nothing buffered and no
// record beyond the tickets, the connection goes on with a CTlsRecords (tls_records.h) and
// the SSL object is freed: an idle connection's TLS state is then about 3 KiB (this object,
// the record layer and its two AEAD contexts) instead of about 14.5 KiB. Otherwise it keeps
// the SSL object (and reads ahead again), as clients and TLS 1.2 connections always do.
// The secrets are never logged; the session wipes its copies once the record layer has
// taken them (the layer keeps the current ones for key updates and wipes them at the end).
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

class CTlsRecords;

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
    // server or with tickets off). `compact`: a server's session that moves to compact
    // records after a TLS 1.3 handshake when it can (its context logs keys, see above).
    CTlsStream(SSL* ssl, bool server, std::shared_ptr<CTlsContext::Shared> shared, std::string cache_key,
               bool compact = false);
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

    // Whether the connection runs on compact records (the SSL object is gone). Any thread.
    bool IsCompact() const;
    // Heap bytes the compact record layer holds for pending input and output (0 when idle
    // or not compact), for the tests. Any thread.
    size_t CompactHeldBytes() const;

    // OpenSSL's key log callback of a server context with compact records: keeps the
    // application traffic secrets of the session `ssl` belongs to. Runs inside an OpenSSL
    // call on that session, so under its m_mutex.
    static void KeepKeyLogLine(const SSL* ssl, const char* line);

    const std::string& CacheKey() const { return m_cache_key; }
    const std::shared_ptr<CTlsContext::Shared>& Shared() const { return m_shared; }

  private:
    // What a session that may go compact learns during its handshake (see the top).
    struct Switch;

    // Maps a failed OpenSSL call's result to kWantRead / kWantWrite / kEnd / kTruncated /
    // kFailed, recording the failure's errno and text. Caller holds m_mutex.
    int Fail(int ret, bool reading);
    // OpenSSL's message callback of a session that may go compact: counts records and
    // handshake messages. Runs inside an OpenSSL call on the session, under m_mutex.
    static void OnMessage(int write_p, int version, int content_type, const void* buf, size_t len, SSL* ssl,
                          void* arg);
    // Right after the handshake: moves to compact records when it is sound, else keeps
    // OpenSSL for good. Caller holds m_mutex.
    void SwitchToRecords();
    // Copies a compact failure's errno and text (caller holds m_mutex); returns `r`.
    int TakeRecordsResult(int r);

    SSL* m_ssl;  // null once the connection is on compact records
    const bool m_server;
    std::shared_ptr<CTlsContext::Shared> m_shared;
    const std::string m_cache_key;
    mutable std::mutex m_mutex;  // every OpenSSL call on m_ssl
    int m_fd = -1;
    int m_errno = 0;      // of the last failure (guarded by m_mutex)
    std::string m_error;  // its text (guarded by m_mutex)
    int m_read_end = 0;   // a final Read result (kEnd, kTruncated, kFailed), repeated after
    bool m_shut = false;  // ShutdownWrite ran
    // Guarded by m_mutex: the handshake's findings (only while a switch may come), then the
    // compact record layer and what the session negotiated, kept when OpenSSL's went.
    std::unique_ptr<Switch> m_switch;
    std::unique_ptr<CTlsRecords> m_records;
    const char* m_cipher_name = nullptr;  // OpenSSL's static name of the suite
    bool m_resumed = false;
    std::string m_alpn;
    std::string m_peer_subject;
};

}  // namespace QUOLNET
