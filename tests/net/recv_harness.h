// RecvHarness: a connector on the accepted end of a real loopback TCP pair, registered with a
// real epoll instance and a real pool, for the receive-path tests.
//
// The peer end (`client`) is written by the test; the connector owns the accepted end and
// closes it at Fini. Packets use a test framing chosen per harness:
//   - CBe32Parser: a 4-byte big-endian length that counts the header itself (total length);
//     a length below 4 is malformed (-1), and values of 2^31 and more come out negative.
//   - CByteParser: a 1-byte length that counts itself, so packets of 1..255 bytes in total
//     (a length byte of 0 is malformed).
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "net/tcp_connector.h"
#include "support/connector_peer.h"
#include "support/log_capture.h"
#include "support/net_helpers.h"
#include "support/test_parser.h"

namespace qntest {

using Peer = QUOLNET::CTcpConnectorTestPeer;

class CBe32Parser : public QUOLNET::IPackParser {
  public:
    int ParsePackLength(const char* buf, unsigned int len) override {
        m_calls.fetch_add(1, std::memory_order_relaxed);
        if (len < 4) {
            return 0;
        }
        uint32_t v;
        memcpy(&v, buf, 4);
        v = ntohl(v);
        if (v < 4) {
            return -1;
        }
        return static_cast<int>(static_cast<int32_t>(v));
    }
    std::atomic<int> m_calls{0};
};

class CByteParser : public QUOLNET::IPackParser {
  public:
    int ParsePackLength(const char* buf, unsigned int len) override {
        if (len < 1) {
            return 0;
        }
        unsigned char v = static_cast<unsigned char>(buf[0]);
        return v == 0 ? -1 : static_cast<int>(v);
    }
};

// Packets for CBe32Parser come from MakePacket (support/test_parser.h): the same framing.

// A packet of `total` (1..255) bytes for CByteParser.
inline std::string MakeBytePacket(int total, uint32_t seed) {
    std::string p(static_cast<size_t>(total), '\0');
    p[0] = static_cast<char>(total);
    for (int i = 1; i < total; ++i) {
        p[static_cast<size_t>(i)] = static_cast<char>((seed * 31u + static_cast<uint32_t>(i)) & 0xff);
    }
    return p;
}

struct HarnessOptions {
    unsigned int pool_blocks = 64;
    int min_big_packet_len = 1 << 20;
    unsigned int max_rx_buf_num = 64;
    int combine_len = (1 << 20) + 1024;
    int cb_combine_len = (1 << 20) + 1024;
    QUOLNET::RecvPkgCallback cb = nullptr;
    void* cb_arg = nullptr;
    bool with_log = true;
    bool byte_parser = false;
    QUOLNET::IPackParser* parser = nullptr;  // a test's own parser (it outlives the harness)

    // Defaults with a receive callback.
    static HarnessOptions Callback(QUOLNET::RecvPkgCallback fn, void* arg) {
        HarnessOptions o;
        o.cb = fn;
        o.cb_arg = arg;
        return o;
    }
};

class RecvHarness {
  public:
    explicit RecvHarness(const HarnessOptions& o = HarnessOptions())
        : m_opt(o),
          m_log(QUOLNET::LOG_PRIORITY_TRACE),
          m_pool(o.pool_blocks, -1, o.min_big_packet_len),
          m_combine(static_cast<size_t>(o.combine_len > 0 ? o.combine_len : 1)),
          m_cb_combine(static_cast<size_t>(o.cb_combine_len > 0 ? o.cb_combine_len : 1)) {
        m_conn.reset(new QUOLNET::CTcpConnector(m_combine.data(), o.combine_len, m_cb_combine.data(),
                                                o.cb_combine_len, m_err, &m_pool, 8, o.max_rx_buf_num, o.cb,
                                                o.cb_arg));
        if (o.with_log) {
            m_conn->SetLogCat(m_log.cat());
        }
        m_epoll = epoll_create1(0);
        int server = -1;
        m_ok = m_epoll >= 0 && TcpPair(&m_client, &server);
        QUOLNET::IPackParser* parser = o.byte_parser ? static_cast<QUOLNET::IPackParser*>(&m_byte_parser)
                                                     : static_cast<QUOLNET::IPackParser*>(&m_parser);
        if (o.parser != nullptr) {
            parser = o.parser;
        }
        m_ok = m_ok && m_conn->Init("tcp://127.0.0.1:9", parser, m_epoll, server) == 0;
        m_log.Clear();
    }
    ~RecvHarness() {
        m_conn.reset();
        if (m_client >= 0) {
            close(m_client);
        }
        if (m_epoll >= 0) {
            close(m_epoll);
        }
    }
    RecvHarness(const RecvHarness&) = delete;
    RecvHarness& operator=(const RecvHarness&) = delete;

    bool ok() const { return m_ok; }
    QUOLNET::CTcpConnector& c() { return *m_conn; }
    QUOLNET::CNetBufferMgr& pool() { return m_pool; }
    LogCapture& log() { return m_log; }
    CBe32Parser& parser() { return m_parser; }
    int client() const { return m_client; }
    int epoll() const { return m_epoll; }
    char* combine() { return m_combine.data(); }
    char* cb_combine() { return m_cb_combine.data(); }
    // "url=..., local_url=..." as the connector writes it.
    std::string Who() {
        return std::string("url=") + m_conn->GetURL() + ", local_url=" + m_conn->GetLocalURL();
    }

    // Resets the connection from the peer's side (SO_LINGER 0, then close).
    void AbortClient() {
        struct linger lg = {1, 0};
        setsockopt(m_client, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
        close(m_client);
        m_client = -1;
    }

    bool Write(const std::string& bytes) { return WriteAll(m_client, bytes.data(), bytes.size()); }

    // Waits (up to timeout_ms) until the connector's socket is readable.
    bool WaitReadable(int timeout_ms = 5000) {
        struct pollfd p = {m_conn->GetSocket(), POLLIN, 0};
        return poll(&p, 1, timeout_ms) == 1;
    }

    // Marks the socket readable and runs one Recv.
    int RecvOnce() {
        m_conn->SetEvent(EPOLLIN);
        return m_conn->Recv();
    }

    // Waits for data and receives until `bytes` bytes were read in total or an error.
    // Returns the total, or the first negative result.
    long RecvBytes(long bytes, int timeout_ms = 5000) {
        long total = 0;
        while (total < bytes) {
            if (!WaitReadable(timeout_ms)) {
                return total;
            }
            int r = RecvOnce();
            if (r < 0) {
                return r;
            }
            total += r;
        }
        return total;
    }

    // Makes a fresh pool block, consumed up to `pos`, the block being read: appended to the
    // receive queue, with the next packet expected at `pos`. Null when the pool is empty.
    QUOLNET::NetBuffer* InstallReadBlock(int pos) {
        QUOLNET::NetBuffer* b = m_pool.Allocate(true, false);
        if (b != nullptr) {
            b->m_read_pos = b->m_write_pos = pos;
            Peer::m_rx_queue(*m_conn).Insert(&b->m_node);
            Peer::m_rx_buffer(*m_conn) = b;
            Peer::m_rx_packet(*m_conn) = QUOLNET::PacketInfo{b, pos, 0, 0};
        }
        return b;
    }

    // Peeks and drops every queued packet, appending copies to `out`.
    int DrainRing(std::vector<std::string>* out) {
        int n = 0;
        for (;;) {
            const char* buf = nullptr;
            unsigned int len = 0;
            int r = m_conn->Peek(&buf, len, nullptr);
            if (r != 0 || buf == nullptr) {
                return n;
            }
            out->emplace_back(buf, len);
            m_conn->Drop();
            ++n;
        }
    }

    // Peeks and drops every queued packet; copies of them, oldest first.
    std::vector<std::string> DrainAll() {
        std::vector<std::string> out;
        DrainRing(&out);
        return out;
    }

  private:
    HarnessOptions m_opt;
    LogCapture m_log;
    QUOLNET::CNetBufferMgr m_pool;
    std::vector<char> m_combine;
    std::vector<char> m_cb_combine;
    char m_err[256] = {0};
    CBe32Parser m_parser;
    CByteParser m_byte_parser;
    std::unique_ptr<QUOLNET::CTcpConnector> m_conn;
    int m_epoll = -1;
    int m_client = -1;
    bool m_ok = false;
};

}  // namespace qntest
