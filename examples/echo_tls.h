// TLS for the example programs: the --tls-* flags of echo_server, echo_client and demo made
// into a CTlsContext. Built with TLS only when the quolnet::tls target exists
// (QUOLNET_HAVE_TLS=1); otherwise every function reports that this build has none, so the
// flags still parse and fail with a clear message.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "net/connector_mgr.h"
#include "net/stream_io.h"

#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
#include "tls/tls_context.h"
#endif

namespace echo {

// What the --tls-* flags asked for. Any field set means TLS is wanted.
struct TlsFlags {
    bool enabled = false;                   // client: --tls (implied by the other client flags)
    std::string cert;                       // --tls-cert FILE: the chain to present (PEM)
    std::string key;                        // --tls-key FILE: its private key (PEM)
    std::string ca;                         // --tls-ca FILE: trusted CAs (PEM); none: the system store
    std::string name;                       // client: --tls-name NAME, checked and sent as SNI
    std::string alpn;                       // --tls-alpn LIST: comma-separated protocols, in preference order
    bool require_client_cert = false;       // server: --tls-require-client-cert
    bool insecure = false;                  // client: --tls-insecure, no verification (testing only)
    std::string ca_pem, cert_pem, key_pem;  // in-memory PEM (demo); wins over the files
};

inline bool HaveTls() {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    return true;
#else
    return false;
#endif
}

// "h2,http/1.1" as a list; empty items are dropped.
inline std::vector<std::string> SplitList(const std::string& text) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t comma = text.find(',', pos);
        std::string item = text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        if (!item.empty()) {
            out.push_back(item);
        }
        if (comma == std::string::npos) {
            break;
        }
        pos = comma + 1;
    }
    return out;
}

// The server's context for `f` (cert and key required), or null with `error` saying why:
// the context's own message (a missing file, a key that does not match), or that this build
// has no TLS. The caller owns the result and shares it with every listener.
inline std::shared_ptr<QUOLNET::IStreamIoFactory> MakeTlsServer(const TlsFlags& f, std::string* error) {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    QUOLNET::TlsOptions o;
    o.cert_file = f.cert;
    o.key_file = f.key;
    o.cert_pem = f.cert_pem;
    o.key_pem = f.key_pem;
    o.ca_file = f.ca;
    o.ca_pem = f.ca_pem;
    o.alpn = SplitList(f.alpn);
    if (f.require_client_cert) {
        o.client_cert = QUOLNET::TlsOptions::ClientCert::kRequire;
    }
    return QUOLNET::CTlsContext::CreateServer(o, error);
#else
    (void)f;
    *error = "this build has no TLS (OpenSSL 3 was not found when it was configured)";
    return nullptr;
#endif
}

// The client's context for `f`, or null with `error` (as MakeTlsServer). Without --tls-ca
// the server is verified against the system's CAs; --tls-insecure verifies nothing.
inline std::shared_ptr<QUOLNET::IStreamIoFactory> MakeTlsClient(const TlsFlags& f, std::string* error) {
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
    QUOLNET::TlsOptions o;
    o.cert_file = f.cert;
    o.key_file = f.key;
    o.cert_pem = f.cert_pem;
    o.key_pem = f.key_pem;
    o.ca_file = f.ca;
    o.ca_pem = f.ca_pem;
    o.server_name = f.name;
    o.alpn = SplitList(f.alpn);
    o.verify_peer = !f.insecure;
    return QUOLNET::CTlsContext::CreateClient(o, error);
#else
    (void)f;
    *error = "this build has no TLS (OpenSSL 3 was not found when it was configured)";
    return nullptr;
#endif
}

}  // namespace echo
