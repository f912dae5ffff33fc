// Test certificates with OpenSSL's API: P-256 keys, SHA-256 signatures.
#include "test_certs.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace qntest {

namespace {

std::string KeyPem(EVP_PKEY* key) {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
    char* data = nullptr;
    long n = BIO_get_mem_data(bio, &data);
    std::string out(data, static_cast<size_t>(n));
    BIO_free(bio);
    return out;
}

std::string CertPem(X509* cert) {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(bio, cert);
    char* data = nullptr;
    long n = BIO_get_mem_data(bio, &data);
    std::string out(data, static_cast<size_t>(n));
    BIO_free(bio);
    return out;
}

EVP_PKEY* ReadKey(const std::string& pem) {
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    return key;
}

X509* ReadCert(const std::string& pem) {
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    return cert;
}

void AddExt(X509* cert, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
    if (ext == nullptr) {
        throw std::runtime_error("bad extension " + value);
    }
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

Pem Make(const Pem* ca, const std::string& cn, const std::vector<std::string>& names, bool expired,
         bool client) {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    X509_set_version(cert, 2);
    static long serial = 1;
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial++);
    long day = 24 * 3600;
    X509_gmtime_adj(X509_getm_notBefore(cert), expired ? -20 * day : -day);
    X509_gmtime_adj(X509_getm_notAfter(cert), expired ? -10 * day : 10 * day);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("quolnet tests"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn.c_str()),
                               -1, -1, 0);
    X509* issuer = cert;
    EVP_PKEY* signer = key;
    if (ca != nullptr) {
        issuer = ReadCert(ca->cert);
        signer = ReadKey(ca->key);
        X509_set_issuer_name(cert, X509_get_subject_name(issuer));
    } else {
        X509_set_issuer_name(cert, name);
    }
    if (ca == nullptr) {
        AddExt(cert, issuer, NID_basic_constraints, "critical,CA:TRUE");
        AddExt(cert, issuer, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        AddExt(cert, issuer, NID_basic_constraints, "critical,CA:FALSE");
        AddExt(cert, issuer, NID_ext_key_usage, client ? "clientAuth" : "serverAuth");
        std::string san;
        for (const std::string& n : names) {
            unsigned char buf[16];
            bool ip = inet_pton(AF_INET, n.c_str(), buf) == 1 || inet_pton(AF_INET6, n.c_str(), buf) == 1;
            san += (san.empty() ? "" : ",") + std::string(ip ? "IP:" : "DNS:") + n;
        }
        if (!san.empty()) {
            AddExt(cert, issuer, NID_subject_alt_name, san);
        }
    }
    X509_sign(cert, signer, EVP_sha256());
    Pem out{CertPem(cert), KeyPem(key)};
    if (ca != nullptr) {
        X509_free(issuer);
        EVP_PKEY_free(signer);
    }
    X509_free(cert);
    EVP_PKEY_free(key);
    return out;
}

}  // namespace

Pem MakeCa(const std::string& cn) {
    return Make(nullptr, cn, {}, false, false);
}

Pem MakeLeaf(const Pem& ca, const std::string& cn, const std::vector<std::string>& names, bool expired,
             bool client) {
    return Make(&ca, cn, names, expired, client);
}

}  // namespace qntest
