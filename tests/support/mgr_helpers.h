// Helpers for tests that drive a CConnectorMgr over loopback: packet builders, a dial of the
// manager's own listener, and a bounded pump of its loop.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "net/connector_mgr.h"
#include "net/length_parser.h"

namespace qntest {

// Builds one length-prefixed packet whose payload is `payload`.
inline std::string Packet(const std::string& payload) {
    std::string p(4, '\0');
    QUOLNET::CLengthPrefixParser::WriteHeader(&p[0], static_cast<uint32_t>(payload.size() + 4));
    return p + payload;
}

// `n` packets of 12 bytes: the header, the sequence number i, and ~i.
inline std::string SequencePackets(uint32_t n) {
    std::string out;
    for (uint32_t i = 0; i < n; ++i) {
        char p[12];
        QUOLNET::CLengthPrefixParser::WriteHeader(p, 12);
        QUOLNET::CLengthPrefixParser::WriteHeader(p + 4, i);
        QUOLNET::CLengthPrefixParser::WriteHeader(p + 8, ~i);
        out.append(p, 12);
    }
    return out;
}

// Dials a listener's URL ("tcp://127.0.0.1:9000") with a blocking socket (the kernel
// completes the connection without the server's loop). The client descriptor, or -1.
inline int DialURL(const std::string& url) {
    struct sockaddr_storage ss;
    socklen_t len = 0;
    if (QUOLNET::CTcpListener::ParseURL(url.c_str(), &ss, &len, nullptr) != 0) {
        return -1;
    }
    int fd = socket(ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&ss), len) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

// Dials the manager's first listener (DialURL). The client descriptor, or -1.
inline int DialListener(QUOLNET::CConnectorMgr& mgr) {
    return DialURL(mgr.GetListenURL(0));
}

// Initialises `mgr`, listens on an ephemeral loopback port and dials it (DialListener).
// The client descriptor, or -1.
inline int ListenAndDial(QUOLNET::CConnectorMgr& mgr) {
    if (mgr.Init() != 0 || mgr.Listen("tcp://127.0.0.1:0") <= 0) {
        return -1;
    }
    return DialListener(mgr);
}

// Runs the loop on this thread until done() holds (at most `ticks` ticks of up to 25 ms
// each); returns done().
template <typename Done>
bool Pump(QUOLNET::CConnectorMgr& mgr, Done done, int ticks = 400) {
    for (int i = 0; i < ticks && !done(); ++i) {
        mgr.RunOnce(25);
    }
    return done();
}

}  // namespace qntest
