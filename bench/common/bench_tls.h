// TLS helpers shared by the TLS echo servers and the benchmark client (OpenSSL 3): the one
// protocol version and cipher suite every side is configured with, a self-signed certificate
// made in memory, and reading PEM files.
#pragma once

#include <string>

namespace QUOLNET_BENCH {

// Every TLS side of the benchmark allows TLS 1.3 only, with this one cipher suite, so the
// servers compared do the same cryptographic work per byte.
const char* const kTlsCipherSuite = "TLS_AES_128_GCM_SHA256";

// Makes a self-signed certificate for "localhost" (an ECDSA P-256 key, valid for a year) and
// its private key, both as PEM text. False, with `error` filled, when OpenSSL fails.
bool MakeSelfSigned(std::string* cert_pem, std::string* key_pem, std::string* error);

// Reads a whole file into `out`; false when it cannot be read.
bool ReadFileText(const std::string& path, std::string* out);

// The certificate and key a server runs with, from its flags: the files given with
// --tls-cert/--tls-key, or a self-signed pair (--tls). False, with `error`, when neither
// can be had.
bool LoadServerCredentials(const char* cert_file, const char* key_file, std::string* cert_pem,
                           std::string* key_pem, std::string* error);

// OpenSSL's queued errors as one line (and the queue cleared); "" when there are none.
std::string OpenSslErrors();

}  // namespace QUOLNET_BENCH
