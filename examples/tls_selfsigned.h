// A throwaway certificate authority and a server certificate it signs, made in memory with
// OpenSSL's API, so that a program can run TLS over loopback with no files (demo --tls).
// Nothing here is meant for a real deployment: the key never leaves the process and the
// certificates are valid for a day.
#pragma once

#include <string>

namespace echo {

struct SelfSignedTls {
    std::string ca_cert;      // the CA's certificate (PEM): what a client trusts
    std::string server_cert;  // the server's certificate (PEM), signed by the CA
    std::string server_key;   // its private key (PEM)
};

// Makes a P-256 CA named "quolnet demo CA" and a certificate it signs for "localhost",
// 127.0.0.1 and ::1, both valid from an hour ago for a day. True with `out` filled; false
// with `error` set when OpenSSL fails (nothing is left allocated either way).
bool MakeSelfSignedTls(SelfSignedTls* out, std::string* error);

}  // namespace echo
