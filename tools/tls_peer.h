// The client side of TLS for the tools (hostile_peer, scale_client), with OpenSSL directly:
// they are peers that speak only the wire format, so they do not use the library's TLS
// layer. Compiled in when OpenSSL 3 was found (QUOLNET_HAVE_TLS=1); without it a tool
// refuses its --tls flags.
#pragma once

#include <string>

#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#endif

namespace tools_tls {

// What the --tls flags asked for.
struct ClientTlsOptions {
    bool enabled = false;   // --tls (implied by the other two)
    std::string ca_file;    // --tls-ca FILE: trusted CAs (PEM); empty: the system's store
    bool insecure = false;  // --tls-insecure: verify nothing (for testing only)
};

#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS

inline bool Available() {
    return true;
}

// OpenSSL's last error as text ("" when none); empties the thread's error queue.
inline std::string ErrorText() {
    std::string text;
    unsigned long e;
    while ((e = ERR_get_error()) != 0) {
        char buf[256];
        ERR_error_string_n(e, buf, sizeof(buf));
        text = buf;  // the last one is the most specific
    }
    return text;
}

// A client context: TLS 1.2 and 1.3, the server verified against `o.ca_file` (or the
// system's CAs) unless `o.insecure`, no session reuse (every handshake is a full one), and
// OpenSSL's buffers released while a session is idle. Null with `error` set when it cannot be
// made. The caller owns it (SSL_CTX_free).
inline SSL_CTX* MakeClientContext(const ClientTlsOptions& o, std::string* error) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    if (ctx == nullptr) {
        *error = "SSL_CTX_new failed: " + ErrorText();
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(
        ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    if (o.insecure) {
        SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
        return ctx;
    }
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
    int ok = o.ca_file.empty() ? SSL_CTX_set_default_verify_paths(ctx)
                               : SSL_CTX_load_verify_locations(ctx, o.ca_file.c_str(), nullptr);
    if (ok != 1) {
        *error = "cannot load the CA certificates " +
                 (o.ca_file.empty() ? std::string("of the system") : o.ca_file) + ": " + ErrorText();
        SSL_CTX_free(ctx);
        return nullptr;
    }
    return ctx;
}

// A client session on the connected socket `fd`, checking that the certificate names
// `host` (an IP address is checked as one and not sent as SNI; a name is checked and sent)
// when the context verifies. Null when OpenSSL cannot make one. The caller owns it
// (SSL_free); the descriptor stays the caller's.
inline SSL* NewClientSession(SSL_CTX* ctx, int fd, const std::string& host) {
    SSL* ssl = SSL_new(ctx);
    if (ssl == nullptr) {
        return nullptr;
    }
    X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
    if (X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) != 1) {
        X509_VERIFY_PARAM_set1_host(param, host.c_str(), 0);
        SSL_set_tlsext_host_name(ssl, host.c_str());
    }
    if (SSL_set_fd(ssl, fd) != 1) {
        SSL_free(ssl);
        return nullptr;
    }
    SSL_set_connect_state(ssl);
    return ssl;
}

#else

inline bool Available() {
    return false;
}

#endif

}  // namespace tools_tls
