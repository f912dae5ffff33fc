// CTlsContext: a side's TLS configuration and the sessions made from it.
#include "tls/tls_context.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "tls/tls_stream.h"

namespace QUOLNET {

namespace {

std::string TakeErrors() {
    std::string text;
    unsigned long e;
    char buf[256];
    while ((e = ERR_get_error()) != 0) {
        ERR_error_string_n(e, buf, sizeof(buf));
        if (!text.empty()) {
            text += "; ";
        }
        text += buf;
    }
    return text;
}

bool Failed(std::string* error, const std::string& what) {
    if (error != nullptr) {
        std::string why = TakeErrors();
        *error = why.empty() ? what : what + ": " + why;
    }
    return false;
}

int VersionOf(const std::string& v) {
    if (v == "1.2") {
        return TLS1_2_VERSION;
    }
    if (v == "1.3") {
        return TLS1_3_VERSION;
    }
    return 0;
}

// ALPN protocols in their wire form: each preceded by its length.
bool AlpnWire(const std::vector<std::string>& protocols, std::string* wire) {
    wire->clear();
    for (const std::string& p : protocols) {
        if (p.empty() || p.size() > 255) {
            return false;
        }
        wire->push_back(static_cast<char>(p.size()));
        *wire += p;
    }
    return true;
}

// The server's pick: the first of its own protocols that the client offers.
int SelectAlpn(SSL* ssl, const unsigned char** out, unsigned char* outlen, const unsigned char* in,
               unsigned int inlen, void* arg) {
    (void)ssl;
    const std::string* ours = static_cast<const std::string*>(arg);
    unsigned char* chosen = nullptr;
    if (SSL_select_next_proto(&chosen, outlen, reinterpret_cast<const unsigned char*>(ours->data()),
                              static_cast<unsigned int>(ours->size()), in, inlen) != OPENSSL_NPN_NEGOTIATED) {
        return SSL_TLSEXT_ERR_ALERT_FATAL;  // nothing in common: refused
    }
    *out = chosen;
    return SSL_TLSEXT_ERR_OK;
}

// A client's new session (TLS 1.3 tickets arrive after the handshake): kept as the one to
// offer on the next dial to the same host.
int KeepSession(SSL* ssl, SSL_SESSION* session) {
    CTlsStream* stream = static_cast<CTlsStream*>(SSL_get_app_data(ssl));
    if (stream == nullptr || stream->CacheKey().empty()) {
        return 0;
    }
    CTlsContext::Shared& shared = *stream->Shared();
    std::lock_guard<std::mutex> lock(shared.mutex);
    SSL_SESSION*& slot = shared.sessions[stream->CacheKey()];
    if (slot != nullptr) {
        SSL_SESSION_free(slot);
    }
    slot = session;
    return 1;  // the reference is ours
}

bool UsePem(SSL_CTX* ctx, const TlsOptions& o, std::string* error) {
    if (!o.cert_pem.empty()) {
        BIO* bio = BIO_new_mem_buf(o.cert_pem.data(), static_cast<int>(o.cert_pem.size()));
        X509* leaf = bio != nullptr ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr;
        bool ok = leaf != nullptr && SSL_CTX_use_certificate(ctx, leaf) == 1;
        X509_free(leaf);
        X509* extra = nullptr;
        while (ok && (extra = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) != nullptr) {
            ok = SSL_CTX_add0_chain_cert(ctx, extra) == 1;  // owned by the context now
        }
        ERR_clear_error();  // the end of the PEM text
        BIO_free(bio);
        if (!ok) {
            return Failed(error, "cannot use the certificate PEM");
        }
    } else if (!o.cert_file.empty() && SSL_CTX_use_certificate_chain_file(ctx, o.cert_file.c_str()) != 1) {
        return Failed(error, "cannot use the certificate file " + o.cert_file);
    }
    if (!o.key_pem.empty()) {
        BIO* bio = BIO_new_mem_buf(o.key_pem.data(), static_cast<int>(o.key_pem.size()));
        EVP_PKEY* key = bio != nullptr ? PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr) : nullptr;
        bool ok = key != nullptr && SSL_CTX_use_PrivateKey(ctx, key) == 1;
        EVP_PKEY_free(key);
        BIO_free(bio);
        if (!ok) {
            return Failed(error, "cannot use the key PEM");
        }
    } else if (!o.key_file.empty() &&
               SSL_CTX_use_PrivateKey_file(ctx, o.key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
        return Failed(error, "cannot use the key file " + o.key_file);
    }
    bool has_cert = !o.cert_pem.empty() || !o.cert_file.empty();
    bool has_key = !o.key_pem.empty() || !o.key_file.empty();
    if (has_cert != has_key) {
        return Failed(error, "a certificate needs its key, and a key its certificate");
    }
    if (has_cert && SSL_CTX_check_private_key(ctx) != 1) {
        return Failed(error, "the key does not match the certificate");
    }
    return true;
}

bool UseTrust(SSL_CTX* ctx, const TlsOptions& o, std::string* error) {
    if (!o.ca_file.empty() || !o.ca_path.empty()) {
        if (SSL_CTX_load_verify_locations(ctx, o.ca_file.empty() ? nullptr : o.ca_file.c_str(),
                                          o.ca_path.empty() ? nullptr : o.ca_path.c_str()) != 1) {
            return Failed(error, "cannot load the trusted CAs " + o.ca_file + o.ca_path);
        }
    }
    if (!o.ca_pem.empty()) {
        BIO* bio = BIO_new_mem_buf(o.ca_pem.data(), static_cast<int>(o.ca_pem.size()));
        X509_STORE* store = SSL_CTX_get_cert_store(ctx);
        int added = 0;
        X509* ca = nullptr;
        while (bio != nullptr && (ca = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) != nullptr) {
            if (X509_STORE_add_cert(store, ca) == 1) {
                ++added;
            }
            X509_free(ca);
        }
        ERR_clear_error();
        BIO_free(bio);
        if (added == 0) {
            return Failed(error, "no CA certificate in the CA PEM");
        }
    }
    if (o.ca_file.empty() && o.ca_path.empty() && o.ca_pem.empty() &&
        SSL_CTX_set_default_verify_paths(ctx) != 1) {
        return Failed(error, "cannot load the system's trusted CAs");
    }
    return true;
}

// A new SSL_CTX for `o`, or null with `error`. The server's ALPN list lives as long as it.
std::shared_ptr<SSL_CTX> MakeCtx(bool server, const TlsOptions& o, std::string* error) {
    ERR_clear_error();
    int min_v = VersionOf(o.min_version);
    int max_v = VersionOf(o.max_version);
    if (min_v == 0 || max_v == 0 || min_v > max_v) {
        Failed(error, "versions must be \"1.2\" or \"1.3\", the minimum not above the maximum");
        return nullptr;
    }
    std::string wire;
    if (!AlpnWire(o.alpn, &wire)) {
        Failed(error, "an ALPN protocol must have 1 to 255 bytes");
        return nullptr;
    }
    if (server && o.cert_pem.empty() && o.cert_file.empty()) {
        Failed(error, "a server needs a certificate and its key");
        return nullptr;
    }
    SSL_CTX* raw = SSL_CTX_new(server ? TLS_server_method() : TLS_client_method());
    if (raw == nullptr) {
        Failed(error, "SSL_CTX_new failed");
        return nullptr;
    }
    std::string* alpn = new std::string(wire);
    std::shared_ptr<SSL_CTX> ctx(raw, [alpn](SSL_CTX* c) {
        SSL_CTX_free(c);
        delete alpn;
    });
    SSL_CTX_set_min_proto_version(raw, min_v);
    SSL_CTX_set_max_proto_version(raw, max_v);
    SSL_CTX_set_options(
        raw, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | (o.session_tickets ? 0 : SSL_OP_NO_TICKET));
    // Partial writes and a moving buffer: the connector queues what a write did not take
    // and repeats it from its own blocks. Buffers go back while a connection is idle.
    SSL_CTX_set_mode(
        raw, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_read_ahead(raw, 1);
    if (!o.ciphers.empty() && SSL_CTX_set_cipher_list(raw, o.ciphers.c_str()) != 1) {
        Failed(error, "bad TLS 1.2 cipher list '" + o.ciphers + "'");
        return nullptr;
    }
    if (!o.ciphersuites.empty() && SSL_CTX_set_ciphersuites(raw, o.ciphersuites.c_str()) != 1) {
        Failed(error, "bad TLS 1.3 cipher suites '" + o.ciphersuites + "'");
        return nullptr;
    }
    if (!UsePem(raw, o, error)) {
        return nullptr;
    }
    bool verify = server ? o.client_cert != TlsOptions::ClientCert::kNone : o.verify_peer;
    if (verify && !UseTrust(raw, o, error)) {
        return nullptr;
    }
    if (server) {
        int mode = SSL_VERIFY_NONE;
        if (o.client_cert == TlsOptions::ClientCert::kRequest) {
            mode = SSL_VERIFY_PEER;
        } else if (o.client_cert == TlsOptions::ClientCert::kRequire) {
            mode = SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
        }
        SSL_CTX_set_verify(raw, mode, nullptr);
        static const unsigned char kSessionContext[] = "quolnet";
        SSL_CTX_set_session_id_context(raw, kSessionContext, sizeof(kSessionContext) - 1);
        // Resumption by tickets only (stateless): no per-session memory on the server.
        SSL_CTX_set_session_cache_mode(raw, SSL_SESS_CACHE_OFF);
        SSL_CTX_set_num_tickets(raw, o.session_tickets ? 1 : 0);
        if (!alpn->empty()) {
            SSL_CTX_set_alpn_select_cb(raw, SelectAlpn, alpn);
        }
        if (o.compact_records) {
            // The traffic secrets go to the session (never to a log): see tls_stream.h.
            SSL_CTX_set_keylog_callback(raw, CTlsStream::KeepKeyLogLine);
        }
    } else {
        SSL_CTX_set_verify(raw, o.verify_peer ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
        if (!alpn->empty() &&
            SSL_CTX_set_alpn_protos(raw, reinterpret_cast<const unsigned char*>(alpn->data()),
                                    static_cast<unsigned int>(alpn->size())) != 0) {
            Failed(error, "cannot set the ALPN protocols");
            return nullptr;
        }
        if (o.session_tickets) {
            SSL_CTX_set_session_cache_mode(raw, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
            SSL_CTX_sess_set_new_cb(raw, KeepSession);
        }
    }
    return ctx;
}

bool IsIpAddress(const std::string& host) {
    unsigned char buf[sizeof(struct in6_addr)];
    return inet_pton(AF_INET, host.c_str(), buf) == 1 || inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

}  // namespace

CTlsContext::CTlsContext(bool server) : m_server(server), m_shared(std::make_shared<Shared>()) {}

CTlsContext::~CTlsContext() = default;

std::shared_ptr<CTlsContext> CTlsContext::CreateServer(const TlsOptions& options, std::string* error) {
    std::shared_ptr<CTlsContext> context(new CTlsContext(true));
    if (!context->Reload(options, error)) {
        return nullptr;
    }
    return context;
}

std::shared_ptr<CTlsContext> CTlsContext::CreateClient(const TlsOptions& options, std::string* error) {
    std::shared_ptr<CTlsContext> context(new CTlsContext(false));
    if (!context->Reload(options, error)) {
        return nullptr;
    }
    return context;
}

bool CTlsContext::Reload(const TlsOptions& options, std::string* error) {
    std::shared_ptr<SSL_CTX> ctx = MakeCtx(m_server, options, error);
    if (ctx == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    m_shared->ctx = std::move(ctx);
    m_shared->options = options;
    return true;
}

std::unique_ptr<IStreamIo> CTlsContext::Create(bool server, const std::string& host) {
    if (server != m_server) {
        return nullptr;  // a server's context cannot dial, nor a client's accept
    }
    std::string name;
    SSL* ssl = nullptr;
    bool compact = false;
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        ssl = SSL_new(m_shared->ctx.get());  // holds its own reference to the context
        compact = server && m_shared->options.compact_records;
        if (ssl == nullptr) {
            ERR_clear_error();
            return nullptr;
        }
        if (!server) {
            const TlsOptions& o = m_shared->options;
            name = o.server_name.empty() ? host : o.server_name;
            bool ip = IsIpAddress(name);
            bool ok = true;
            if (!name.empty() && !ip) {
                ok = SSL_set_tlsext_host_name(ssl, name.c_str()) == 1;
            }
            if (ok && o.verify_peer && !name.empty()) {
                ok = ip ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str()) == 1
                        : SSL_set1_host(ssl, name.c_str()) == 1;
                SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
            }
            if (!ok) {
                ERR_clear_error();
                SSL_free(ssl);
                return nullptr;
            }
            if (o.session_tickets) {
                auto it = m_shared->sessions.find(name);
                if (it != m_shared->sessions.end()) {
                    SSL_set_session(ssl, it->second);
                }
            }
        }
    }
    return std::unique_ptr<IStreamIo>(
        new CTlsStream(ssl, server, m_shared, server ? std::string() : name, compact));
}

uint64_t CTlsContext::GetResumedCount() const {
    return m_shared->resumed.load(std::memory_order_relaxed);
}

}  // namespace QUOLNET
