// Helpers shared by the fuzz targets: a byte reader over the fuzzer's input, a loopback TCP
// pair, and a check that aborts (a finding for libFuzzer) with a message.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "net/length_parser.h"

namespace qnfuzz {

// Aborts with `what` when `ok` is false. Used for the properties a target checks itself.
inline void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "fuzz check failed: %s\n", what);
        std::abort();
    }
}

// Takes bytes and numbers off the front of the input; past the end every read yields 0.
class Reader {
  public:
    Reader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool empty() const { return m_pos >= m_size; }
    size_t remaining() const { return m_size - m_pos; }
    uint8_t Byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    uint32_t U32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) {
            v = (v << 8) | Byte();
        }
        return v;
    }
    // Up to `n` bytes (fewer at the end of the input).
    std::string Bytes(size_t n) {
        size_t take = n < remaining() ? n : remaining();
        std::string s(reinterpret_cast<const char*>(m_data + m_pos), take);
        m_pos += take;
        return s;
    }
    std::string Rest() { return Bytes(remaining()); }

  private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

// connect(2) on a blocking socket that a signal may interrupt (libFuzzer's -timeout raises
// SIGALRM every second): an interrupted connect goes on in the kernel, so wait for it to
// finish and read its result. True when connected; false with errno set otherwise.
inline bool ConnectThroughSignals(int fd, const struct sockaddr_in& to) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) == 0) {
        return true;
    }
    if (errno != EINTR) {
        return false;
    }
    struct pollfd p = {fd, POLLOUT, 0};
    int n;
    do {
        n = poll(&p, 1, 5000);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
        errno = n == 0 ? ETIMEDOUT : errno;
        return false;
    }
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
        return false;
    }
    errno = err;
    return err == 0;
}

// A connected loopback TCP pair: `*client` (blocking) and `*server` (non-blocking, as a
// listener hands it to a connector). The listener (on 127.0.0.1) is made once per process and
// kept. Each client binds its own source address in 127.1.0.0/16 (the port chosen at
// connect): a client that closes first leaves its end in TIME_WAIT for a minute, and a
// fuzzer making hundreds of pairs a second would otherwise run out of ports for the one
// address pair. Returns false when any step fails.
inline bool TcpPair(int* client, int* server) {
    static int listener = -1;
    static struct sockaddr_in addr;
    static uint32_t next_source = 0;
    if (listener < 0) {
        listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(listener, 16) != 0 ||
            getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            return false;
        }
    }
    *client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (*client < 0) {
        return false;
    }
    struct sockaddr_in source = {};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr = htonl(0x7f010000u | (next_source++ & 0xffffu));  // 127.1.x.y
    int one = 1;
    setsockopt(*client, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof(one));
    if (bind(*client, reinterpret_cast<sockaddr*>(&source), sizeof(source)) != 0 ||
        !ConnectThroughSignals(*client, addr)) {
        std::fprintf(stderr, "loopback pair: bind/connect: %s\n", std::strerror(errno));
        close(*client);
        return false;
    }
    do {
        *server = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    } while (*server < 0 && errno == EINTR);
    if (*server < 0) {
        close(*client);
        return false;
    }
    return true;
}

// The packets a well-behaved length-prefix stream holds, in order, up to the first
// malformed header or one longer than `max_len` (the connector closes there).
inline std::vector<std::string> ReferencePackets(const std::string& stream, unsigned int max_len) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (stream.size() - pos >= 4) {
        uint32_t total = QUOLNET::CLengthPrefixParser::ReadHeader(stream.data() + pos);
        if (total < 4 || total > max_len || stream.size() - pos < total) {
            break;
        }
        out.emplace_back(stream, pos, total);
        pos += total;
    }
    return out;
}

}  // namespace qnfuzz
