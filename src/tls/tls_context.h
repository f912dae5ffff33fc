// CTlsContext: TLS for quolnet's connections, over OpenSSL 3 (the quolnet::tls target).
//
// One context holds one side's configuration (a server's certificate, or a client's trust
// and checks) and makes a TLS session for every connection it is given to:
//
//   std::string error;
//   auto tls = CTlsContext::CreateServer(options, &error);   // null: `error` says why
//   SocketOptions socket;
//   socket.stream = tls;
//   mgr.Listen("tcp://0.0.0.0:8443", socket);                // or DialOptions::socket.stream
//
// Connections then carry TLS records; everything above (framing, queues, limits, Send from
// any thread, Close, the drain, Move) works as for plain TCP, with these differences:
//   - a connection counts as connected once its handshake is done: OnConnected comes then;
//     an accepted connection whose handshake fails or does not finish within
//     ConnectorMgrOptions::handshake_timeout_ms is closed without the handler hearing of it
//     (counted as handshake_failed, or as the handshake_timeout limit);
//   - a dial whose handshake fails (a certificate that does not verify, a wrong name) ends
//     the attempt with CloseReason::kHandshakeFailed and OpenSSL's message in CloseInfo::text;
//   - Close and the drain send a close_notify before the socket's sending side is shut
//     down; a peer that closes its socket without one ends with CloseReason::kTruncated;
//   - the handler reads what was negotiated from the session:
//     mgr->GetConnector(id)->GetStreamIo()->Alpn() / PeerSubject() / Describe().
//
// Defaults: TLS 1.2 and 1.3, OpenSSL's default cipher suites, peer verification on for
// clients (against the system's trusted CAs unless some are given, and the name dialled
// checked and sent as SNI), no client certificate asked by servers, renegotiation refused,
// session tickets on (resumption), OpenSSL's read and write buffers released while a
// connection is idle, a server's TLS 1.3 connections on compact records (compact_records).
//
// Threads: Create* and Reload from any thread; a context is shared by every connection
// made with it and by every loop of a group.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../common/export.h"
#include "../net/stream_io.h"

typedef struct ssl_ctx_st SSL_CTX;

namespace QUOLNET {

struct TlsOptions {
    // The certificate chain and its private key, as PEM files or as PEM text (the text
    // wins when both are set). Required for a server; a client sends them when the server
    // asks (mutual TLS).
    std::string cert_file;
    std::string key_file;
    std::string cert_pem;
    std::string key_pem;
    // Trusted CAs to verify the peer with: a PEM file, a directory of hashed PEM files, or
    // PEM text. None given: the system's default store.
    std::string ca_file;
    std::string ca_path;
    std::string ca_pem;
    // Client: verify the server's certificate (and its name). Server: see client_cert.
    bool verify_peer = true;
    // Server: ask for a client certificate (kRequest: verify one if sent; kRequire: refuse
    // the handshake without one).
    enum class ClientCert { kNone, kRequest, kRequire };
    ClientCert client_cert = ClientCert::kNone;
    // Client: the name to check the certificate against and to send as SNI; empty: the
    // host of the dialled URL (a name, or an IP address, which is then checked as one and
    // not sent as SNI).
    std::string server_name;
    // ALPN protocols in order of preference ("h2", "http/1.1"). A server picks the first of
    // its own list that the client offers, and refuses a client that offers only others.
    std::vector<std::string> alpn;
    // Versions allowed: "1.2" or "1.3".
    std::string min_version = "1.2";
    std::string max_version = "1.3";
    // OpenSSL cipher strings: TLS 1.2 suites (SSL_CTX_set_cipher_list) and TLS 1.3 suites
    // (SSL_CTX_set_ciphersuites); empty: OpenSSL's defaults.
    std::string ciphers;
    std::string ciphersuites;
    // Session resumption: tickets from a server, and a client's last session per host:port
    // offered again on its next dial.
    bool session_tickets = true;
    // Server: once a TLS 1.3 handshake is done, the connection leaves OpenSSL's SSL object
    // for this library's own compact record layer (AES-GCM and ChaCha20-Poly1305 suites):
    // an idle connection then holds about 3 KiB of TLS state instead of about 14.5 KiB.
    // Connections that cannot move (TLS 1.2, another suite) keep OpenSSL, as clients do.
    // See tls_stream.h. Off: every connection keeps OpenSSL's.
    bool compact_records = true;
};

class QUOLNET_EXPORT CTlsContext : public IStreamIoFactory {
  public:
    // A server's or a client's context; null with `error` filled when the options do not
    // make one (a missing file, a key that does not match its certificate, a bad version).
    static std::shared_ptr<CTlsContext> CreateServer(const TlsOptions& options, std::string* error);
    static std::shared_ptr<CTlsContext> CreateClient(const TlsOptions& options, std::string* error);
    ~CTlsContext() override;

    // Replaces the configuration (a renewed certificate, new CAs) for connections made from
    // now on; connections under way keep theirs. False, with `error`, leaves the old one.
    bool Reload(const TlsOptions& options, std::string* error);

    // IStreamIoFactory: a session for one connection (null when OpenSSL cannot make one).
    std::unique_ptr<IStreamIo> Create(bool server, const std::string& host) override;

    bool IsServer() const { return m_server; }
    // Handshakes that resumed a session, of those made with this context (any thread).
    uint64_t GetResumedCount() const;

    // The shared state of a context and its sessions (tls_stream.h); opaque here.
    struct Shared;

  private:
    explicit CTlsContext(bool server);

    const bool m_server;
    // The current SSL_CTX, the client's session cache and the counters; sessions keep it
    // alive after the context is gone.
    std::shared_ptr<Shared> m_shared;
};

}  // namespace QUOLNET
