#include "bench_tls.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <fstream>
#include <memory>
#include <sstream>

namespace QUOLNET_BENCH {

namespace {

struct BioFree {
    void operator()(BIO* b) const { BIO_free(b); }
};
struct KeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};

// The bytes written to a memory BIO so far.
std::string BioText(BIO* bio) {
    char* data = nullptr;
    long n = BIO_get_mem_data(bio, &data);
    return n > 0 ? std::string(data, size_t(n)) : std::string();
}

bool Fail(std::string* error, const char* what) {
    if (error != nullptr)
        *error = std::string(what) + ": " + OpenSslErrors();
    return false;
}

}  // namespace

std::string OpenSslErrors() {
    std::string out;
    unsigned long e;
    while ((e = ERR_get_error()) != 0) {
        char buf[256];
        ERR_error_string_n(e, buf, sizeof(buf));
        if (!out.empty())
            out += "; ";
        out += buf;
    }
    return out;
}

bool MakeSelfSigned(std::string* cert_pem, std::string* key_pem, std::string* error) {
    std::unique_ptr<EVP_PKEY, KeyFree> key(EVP_EC_gen("P-256"));
    if (!key)
        return Fail(error, "EVP_EC_gen");
    std::unique_ptr<X509, X509Free> cert(X509_new());
    if (!cert)
        return Fail(error, "X509_new");
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 365L * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("localhost"),
                               -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    if (X509_set_pubkey(cert.get(), key.get()) != 1 || X509_sign(cert.get(), key.get(), EVP_sha256()) == 0)
        return Fail(error, "X509_sign");
    std::unique_ptr<BIO, BioFree> cbio(BIO_new(BIO_s_mem()));
    std::unique_ptr<BIO, BioFree> kbio(BIO_new(BIO_s_mem()));
    if (!cbio || !kbio || PEM_write_bio_X509(cbio.get(), cert.get()) != 1 ||
        PEM_write_bio_PrivateKey(kbio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
        return Fail(error, "PEM_write");
    *cert_pem = BioText(cbio.get());
    *key_pem = BioText(kbio.get());
    return true;
}

bool ReadFileText(const std::string& path, std::string* out) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream text;
    text << in.rdbuf();
    *out = text.str();
    return !in.bad();
}

bool LoadServerCredentials(const char* cert_file, const char* key_file, std::string* cert_pem,
                           std::string* key_pem, std::string* error) {
    if (cert_file == nullptr && key_file == nullptr)
        return MakeSelfSigned(cert_pem, key_pem, error);
    if (cert_file == nullptr || key_file == nullptr) {
        *error = "--tls-cert and --tls-key go together";
        return false;
    }
    if (!ReadFileText(cert_file, cert_pem)) {
        *error = std::string("cannot read ") + cert_file;
        return false;
    }
    if (!ReadFileText(key_file, key_pem)) {
        *error = std::string("cannot read ") + key_file;
        return false;
    }
    return true;
}

}  // namespace QUOLNET_BENCH
