// fuzz_url: the URL parsers on arbitrary text.
//
//   - CTcpConnector::Init with socket -1 (a connector to be dialled) runs ParseURL or
//     ParseURLV6 on the text, as an application's Dial does; GetIPAndPort and GetLocalURL
//     are read afterwards.
//   - CTcpListener::ParseURL, and for every address it accepts, FormatURL and a second parse
//     of the formatted URL, which must give the same address.
//
// Input: the URL text (made a NUL-terminated string; an embedded NUL ends it early, as it
// would for a C caller).
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "net/length_parser.h"
#include "net/net_buffer_mgr.h"
#include "net/tcp_connector.h"
#include "net/tcp_listener.h"

using namespace QUOLNET;
using qnfuzz::Check;

namespace {

void FuzzConnector(const char* url) {
    static CNetBufferMgr pool(4);
    static CLengthPrefixParser parser;
    static char combine[1024];
    static char cb_combine[1024];
    static char last_err[256];
    CTcpConnector conn(combine, sizeof(combine), cb_combine, sizeof(cb_combine), last_err, &pool, 4, 4,
                       nullptr, nullptr);
    (void)CTcpConnector::CheckURL(url);
    if (conn.Init(url, &parser, -1, -1) == 0) {
        int ip = 0;
        int port = 0;
        conn.GetIPAndPort(ip, port);
        Check(port > 0, "a parsed URL has a port");
        Check(std::strlen(conn.GetURL()) < 256, "the URL stays in its buffer");
    }
    (void)conn.GetLocalURL();
    conn.Fini();
}

void FuzzListener(const char* url) {
    struct sockaddr_storage addr;
    socklen_t len = 0;
    std::string why;
    if (CTcpListener::ParseURL(url, &addr, &len, &why) != 0) {
        Check(!why.empty(), "a refused URL has a reason");
        return;
    }
    Check(len > 0 && len <= sizeof(addr), "address length");
    Check(addr.ss_family == AF_INET || addr.ss_family == AF_INET6, "address family");
    std::string formatted = CTcpListener::FormatURL(reinterpret_cast<const struct sockaddr*>(&addr));
    Check(!formatted.empty(), "an accepted address formats");
    struct sockaddr_storage again;
    socklen_t again_len = 0;
    Check(CTcpListener::ParseURL(formatted.c_str(), &again, &again_len, nullptr) == 0,
          "a formatted URL parses");
    Check(again_len == len && std::memcmp(&again, &addr, len) == 0, "format and parse round-trip");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size heap copy with its terminator, so that reading past it is caught.
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    FuzzConnector(text.data());
    FuzzListener(text.data());
    return 0;
}
