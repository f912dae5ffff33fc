// MakeSelfSignedTls: P-256 keys and SHA-256 signatures with OpenSSL 3's API.
#include "tls_selfsigned.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace echo {

namespace {

struct FreeKey {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct FreeCert {
    void operator()(X509* c) const { X509_free(c); }
};
struct FreeBio {
    void operator()(BIO* b) const { BIO_free(b); }
};
using Key = std::unique_ptr<EVP_PKEY, FreeKey>;
using Cert = std::unique_ptr<X509, FreeCert>;
using Bio = std::unique_ptr<BIO, FreeBio>;

// The text of a memory BIO written by `write`; empty when it failed.
template <typename F>
std::string ToPem(F write) {
    Bio bio(BIO_new(BIO_s_mem()));
    if (bio == nullptr || write(bio.get()) != 1) {
        return std::string();
    }
    char* data = nullptr;
    long n = BIO_get_mem_data(bio.get(), &data);
    return n > 0 ? std::string(data, static_cast<size_t>(n)) : std::string();
}

bool AddExt(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (ext == nullptr) {
        return false;
    }
    bool ok = X509_add_ext(cert, ext, -1) == 1;
    X509_EXTENSION_free(ext);
    return ok;
}

// A certificate for `cn` holding `key`'s public half, signed by `issuer_key` (and named
// after `issuer`; null: self-signed). Null when a step fails.
Cert MakeCert(EVP_PKEY* key, const char* cn, long serial, X509* issuer, EVP_PKEY* issuer_key) {
    Cert cert(X509_new());
    if (cert == nullptr) {
        return nullptr;
    }
    X509* c = cert.get();
    bool ok = X509_set_version(c, 2) == 1 && ASN1_INTEGER_set(X509_get_serialNumber(c), serial) == 1 &&
              X509_gmtime_adj(X509_getm_notBefore(c), -3600) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(c), 24 * 3600) != nullptr && X509_set_pubkey(c, key) == 1;
    X509_NAME* name = X509_get_subject_name(c);
    ok = ok &&
         X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                    reinterpret_cast<const unsigned char*>("quolnet demo"), -1, -1, 0) == 1 &&
         X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn), -1,
                                    -1, 0) == 1;
    X509* signer = issuer != nullptr ? issuer : c;
    ok = ok && X509_set_issuer_name(c, X509_get_subject_name(signer)) == 1;
    if (issuer == nullptr) {
        ok = ok && AddExt(c, signer, NID_basic_constraints, "critical,CA:TRUE") &&
             AddExt(c, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        ok = ok && AddExt(c, signer, NID_basic_constraints, "critical,CA:FALSE") &&
             AddExt(c, signer, NID_ext_key_usage, "serverAuth") &&
             AddExt(c, signer, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1");
    }
    ok = ok && X509_sign(c, issuer_key != nullptr ? issuer_key : key, EVP_sha256()) > 0;
    return ok ? std::move(cert) : nullptr;
}

}  // namespace

bool MakeSelfSignedTls(SelfSignedTls* out, std::string* error) {
    Key ca_key(EVP_EC_gen("P-256"));
    Key server_key(EVP_EC_gen("P-256"));
    Cert ca = ca_key != nullptr ? MakeCert(ca_key.get(), "quolnet demo CA", 1, nullptr, nullptr) : nullptr;
    Cert server = ca != nullptr && server_key != nullptr
                      ? MakeCert(server_key.get(), "localhost", 2, ca.get(), ca_key.get())
                      : nullptr;
    if (server != nullptr) {
        out->ca_cert = ToPem([&ca](BIO* b) { return PEM_write_bio_X509(b, ca.get()); });
        out->server_cert = ToPem([&server](BIO* b) { return PEM_write_bio_X509(b, server.get()); });
        out->server_key = ToPem([&server_key](BIO* b) {
            return PEM_write_bio_PrivateKey(b, server_key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        });
    }
    if (server == nullptr || out->ca_cert.empty() || out->server_cert.empty() || out->server_key.empty()) {
        char buf[256] = "unknown error";
        unsigned long e = ERR_get_error();
        if (e != 0) {
            ERR_error_string_n(e, buf, sizeof(buf));
        }
        ERR_clear_error();
        *error = std::string("cannot make the demo certificate: ") + buf;
        return false;
    }
    return true;
}

}  // namespace echo
