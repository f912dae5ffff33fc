// Small helpers shared by the benchmark client and the echo servers: the wire format, the
// listening socket, command-line flags and the file-descriptor limit.
//
// Wire format: every packet starts with a 4-byte big-endian length that counts the whole
// packet, header included (so the smallest packet is 4 bytes). Servers echo each complete
// packet unchanged, or, started with --sink, frame and discard it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace QUOLNET_BENCH {

const uint32_t kHeaderLen = 4;
// Longest packet a server accepts; anything longer is treated as a protocol error.
const uint32_t kMaxPacketLen = 16u << 20;

inline uint32_t ReadBe32(const void* p) {
    const unsigned char* b = static_cast<const unsigned char*>(p);
    return (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | uint32_t(b[3]);
}

inline void WriteBe32(void* p, uint32_t v) {
    unsigned char* b = static_cast<unsigned char*>(p);
    b[0] = static_cast<unsigned char>(v >> 24);
    b[1] = static_cast<unsigned char>(v >> 16);
    b[2] = static_cast<unsigned char>(v >> 8);
    b[3] = static_cast<unsigned char>(v);
}

// Options common to every echo server.
struct ServerOptions {
    const char* host = "127.0.0.1";
    int port = 9000;
    bool sink = false;           // frame and discard instead of echoing
    const char* mode = nullptr;  // server-specific variant (quolnet: peek | callback)
    const char* cork = nullptr;  // quolnet: on (default) | off
    int threads = 1;             // quolnet: event loops (CConnectorGroup when more than one)
    // TLS servers only: serve over TLS, with the certificate and key of these PEM files, or
    // with a self-signed pair made in memory when `tls` is set and no file is given.
    bool tls = false;
    const char* tls_cert = nullptr;
    const char* tls_key = nullptr;
    // bench_server_quolnet: ConnectorMgrOptions::handshake_cpu_share (-1: the library's default).
    int handshake_share = -1;
};

// Parses --host, --port, --sink, --mode, --cork and --threads, and with `allow_tls` also --tls,
// --tls-cert FILE and --tls-key FILE (either file sets `tls`). --help prints the usage on
// stdout and exits with 0; anything else it cannot use (an unknown flag, a TLS flag when
// `allow_tls` is false, a host that is not an IPv4 address, a port outside 0..65535) prints
// the usage on stderr and exits with 2.
ServerOptions ParseServerOptions(int argc, char** argv, const char* prog, bool allow_tls = false);

// Parses a port number 0..65535 (the whole text); false when it is not one.
bool ParsePort(const char* text, int* port);
// True when `text` is a dotted IPv4 address.
bool ValidIPv4(const char* text);

// Opens a non-blocking IPv4 listening socket bound to host:port with SO_REUSEADDR and a
// large backlog. Returns the descriptor; exits with a message on failure.
int OpenListener(const char* host, int port);

// Raises RLIMIT_NOFILE to its hard limit (1000 connections need more than the usual 1024).
void RaiseFdLimit();

// Sets TCP_NODELAY on a connected socket (best effort).
void SetNoDelay(int fd);

// Installs SIGINT/SIGTERM handlers that set the flag returned by StopRequested(), and
// ignores SIGPIPE.
void InstallStopHandlers();
bool StopRequested();

// Prints "served packets=N bytes=M" to stderr; every server calls it on exit.
void PrintServed(uint64_t packets, uint64_t bytes);

}  // namespace QUOLNET_BENCH
