// fuzz_length_parser: CLengthPrefixParser::ParsePackLength on arbitrary bytes, with every
// length from 0 to the input's size and an arbitrary maximum packet length.
//
// Input: 4 bytes of maximum packet length (big-endian), then the bytes to parse.
// Properties: fewer than 4 bytes give 0; otherwise the result is -1 or the header's value,
// and a value is returned exactly when it lies in [4, max]; the result never depends on
// bytes past the header; WriteHeader/ReadHeader round-trip.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "net/length_parser.h"

using qnfuzz::Check;
using QUOLNET::CLengthPrefixParser;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qnfuzz::Reader in(data, size);
    uint32_t max_len = in.U32();
    std::string rest = in.Rest();
    // An exact-size heap copy, so that a read past `len` is caught by AddressSanitizer.
    std::vector<char> bytes(rest.begin(), rest.end());
    CLengthPrefixParser parser(max_len);
    unsigned int effective_max = parser.GetMaxPacketLen();
    Check(effective_max >= CLengthPrefixParser::kHeaderLen && effective_max <= 0x7fffffffu,
          "clamped maximum");
    for (size_t len = 0; len <= bytes.size(); ++len) {
        const char* buf = len == 0 ? nullptr : bytes.data();
        std::vector<char> exact(bytes.begin(), bytes.begin() + static_cast<long>(len));
        int r = parser.ParsePackLength(len == 0 ? buf : exact.data(), static_cast<unsigned int>(len));
        if (len < CLengthPrefixParser::kHeaderLen) {
            Check(r == 0, "0 before the header is complete");
            continue;
        }
        uint32_t header = CLengthPrefixParser::ReadHeader(exact.data());
        bool valid = header >= CLengthPrefixParser::kHeaderLen && header <= effective_max;
        Check(valid ? r == static_cast<int>(header) : r == -1, "result matches the header");
        if (len > CLengthPrefixParser::kHeaderLen) {
            break;  // longer inputs must give the same answer: checked once below
        }
    }
    if (bytes.size() >= CLengthPrefixParser::kHeaderLen) {
        int at_header = parser.ParsePackLength(bytes.data(), CLengthPrefixParser::kHeaderLen);
        int at_all = parser.ParsePackLength(bytes.data(), static_cast<unsigned int>(bytes.size()));
        Check(at_header == at_all, "bytes past the header change nothing");
        char out[4];
        CLengthPrefixParser::WriteHeader(out, CLengthPrefixParser::ReadHeader(bytes.data()));
        Check(std::memcmp(out, bytes.data(), 4) == 0, "WriteHeader/ReadHeader round-trip");
    }
    return 0;
}
