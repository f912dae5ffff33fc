// BigEndianLengthParser: the test protocol, a 4-byte big-endian length that counts itself.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "net/net_parser.h"

namespace qntest {

class BigEndianLengthParser : public QUOLNET::IPackParser {
  public:
    explicit BigEndianLengthParser(int max_len = 64 << 20) : m_max_len(max_len) {}
    int ParsePackLength(const char* buf, unsigned int len) override {
        if (len < 4) {
            return 0;
        }
        const unsigned char* p = reinterpret_cast<const unsigned char*>(buf);
        uint32_t v = (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
        if (v < 4 || v > static_cast<uint32_t>(m_max_len)) {
            return -1;
        }
        return static_cast<int>(v);
    }

  private:
    int m_max_len;
};

// A packet of `total` bytes (>= 4): the length header, then bytes derived from `seed`.
inline std::string MakePacket(uint32_t total, uint32_t seed) {
    std::string s(total, '\0');
    s[0] = static_cast<char>(total >> 24);
    s[1] = static_cast<char>(total >> 16);
    s[2] = static_cast<char>(total >> 8);
    s[3] = static_cast<char>(total);
    uint32_t x = seed * 2654435761u + 12345u;
    for (uint32_t i = 4; i < total; ++i) {
        x = x * 1103515245u + 12345u;
        s[i] = static_cast<char>(x >> 16);
    }
    return s;
}

}  // namespace qntest
