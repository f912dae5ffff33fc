// CLengthPrefixParser: the framing shared by the example programs and tests.
//
// A packet is a 4-byte big-endian length followed by the payload; the length counts the
// whole packet, its own 4 bytes included, so the smallest packet (an empty payload) is 4
// bytes long. A length below 4 or above the configured maximum cannot start a valid packet
// and yields a negative result, which makes the connector drop the connection.
//
// The parser keeps no per-connection state, so one instance may serve every connector of
// an owner (and several threads at once).
#pragma once

#include <cstdint>

#include "net_parser.h"

namespace QUOLNET {

class QUOLNET_EXPORT CLengthPrefixParser : public IPackParser {
  public:
    static const unsigned int kHeaderLen = 4;
    static const unsigned int kDefaultMaxPacketLen = 16u << 20;  // 16 MiB

    // Packets longer than `max_packet_len` bytes (header included) are malformed. Values
    // below the header length or above INT32_MAX are clamped into that range.
    explicit CLengthPrefixParser(unsigned int max_packet_len = kDefaultMaxPacketLen)
        : m_max_packet_len(Clamp(max_packet_len)) {}
    CLengthPrefixParser(const CLengthPrefixParser&) = delete;
    CLengthPrefixParser& operator=(const CLengthPrefixParser&) = delete;

    // The packet's total length once 4 bytes are at hand, 0 before, -1 for a length
    // below 4 or above the maximum.
    int ParsePackLength(const char* buf, unsigned int len) override {
        if (len < kHeaderLen) {
            return 0;
        }
        uint32_t total = ReadHeader(buf);
        if (total < kHeaderLen || total > m_max_packet_len) {
            return -1;
        }
        return static_cast<int>(total);
    }

    unsigned int GetMaxPacketLen() const { return m_max_packet_len; }

    // Writes the header of a packet of `total_len` bytes (header included) into buf[0..3].
    static void WriteHeader(char* buf, uint32_t total_len) {
        unsigned char* p = reinterpret_cast<unsigned char*>(buf);
        p[0] = static_cast<unsigned char>(total_len >> 24);
        p[1] = static_cast<unsigned char>(total_len >> 16);
        p[2] = static_cast<unsigned char>(total_len >> 8);
        p[3] = static_cast<unsigned char>(total_len);
    }

    // Reads the header at buf[0..3].
    static uint32_t ReadHeader(const char* buf) {
        const unsigned char* p = reinterpret_cast<const unsigned char*>(buf);
        return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
               (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
    }

  private:
    static unsigned int Clamp(unsigned int v) {
        if (v < kHeaderLen) {
            return kHeaderLen;
        }
        return v > 0x7fffffffu ? 0x7fffffffu : v;
    }

    const unsigned int m_max_packet_len;
};

}  // namespace QUOLNET
