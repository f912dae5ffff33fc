// Command-line values shared by the tools (restart_client, scale_client): whole numbers and
// seconds within bounds, and a literal IPv4 or IPv6 address with a port. Each returns false
// for anything else, leaving the output untouched, so a tool can say which argument was bad.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace tools_args {

// A decimal integer in [lo, hi], nothing after it.
inline bool ParseLong(const char* text, long lo, long hi, long* out) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) {
        return false;
    }
    *out = v;
    return true;
}

// Seconds, fractions allowed, in [lo, one day].
inline bool ParseSeconds(const char* text, double lo, double* out) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    double v = strtod(text, &end);
    if (errno != 0 || *end != '\0' || !(v >= lo && v <= 86400)) {
        return false;
    }
    *out = v;
    return true;
}

// `host` as an IPv4 or IPv6 literal (no name look-up) with `port`, into `addr` and `len`.
inline bool ParseAddress(const std::string& host, int port, sockaddr_storage* addr, socklen_t* len) {
    sockaddr_storage a;
    memset(&a, 0, sizeof(a));
    sockaddr_in* v4 = reinterpret_cast<sockaddr_in*>(&a);
    sockaddr_in6* v6 = reinterpret_cast<sockaddr_in6*>(&a);
    if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(port));
        *len = sizeof(sockaddr_in);
    } else if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        *len = sizeof(sockaddr_in6);
    } else {
        return false;
    }
    *addr = a;
    return true;
}

// A non-empty text.
inline bool ParseText(const char* text, std::string* out) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    *out = text;
    return true;
}

// Says on stderr which argument `prog` found bad (with its value, if any), then the usage;
// returns the exit status for it, 2.
inline int BadArgument(const char* prog, const char* arg, const char* value, void (*usage)(FILE*)) {
    fprintf(stderr, "%s: bad argument '%s'%s%s\n", prog, arg, value != nullptr ? " " : "",
            value != nullptr ? value : "");
    usage(stderr);
    return 2;
}

}  // namespace tools_args
