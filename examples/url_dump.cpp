// url_dump: parses the tcp:// URLs given on the command line (or a few samples) with a
// dialling connector and prints each result and the connector's one-line dump.
#include <cstdio>
#include <cstring>

#include "log/log.h"
#include "net/net_buffer_mgr.h"
#include "net/tcp_connector.h"

namespace {

class FourByteParser : public QUOLNET::IPackParser {
public:
    int ParsePackLength(const char* buf, unsigned int len) override {
        if (len < 4) {
            return 0;
        }
        const unsigned char* p = reinterpret_cast<const unsigned char*>(buf);
        return static_cast<int>((p[0] << 24) | (p[1] << 16) | (p[2] << 8) | p[3]);
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        printf("usage: url_dump [tcp://URL ...]\nParses each URL and prints the connector's dump.\n");
        return 0;
    }
    const char* samples[] = {"tcp://127.0.0.1:8080", "tcp://[::1]:9000", "tcp://1.2.3.4", "tcp://abc:80"};
    int n = argc > 1 ? argc - 1 : 4;
    QUOLNET::LogCategory cat("url_dump", QUOLNET::LOG_PRIORITY_ERROR);
    QUOLNET::CNetBufferMgr pool(16);
    FourByteParser parser;
    static char combine[1 << 20];
    int failures = 0;
    for (int i = 0; i < n; ++i) {
        const char* url = argc > 1 ? argv[i + 1] : samples[i];
        QUOLNET::CTcpConnector c(combine, sizeof(combine), combine, sizeof(combine), nullptr, &pool, 8, 8, nullptr,
                                 nullptr);
        c.SetLogCat(&cat);
        int ret = c.Init(url, &parser, 0, -1);
        int ip = 0, port = 0;
        c.GetIPAndPort(ip, port);
        printf("%-28s check=%d init=%d port=%d\n  %s\n", url, QUOLNET::CTcpConnector::CheckURL(url) ? 1 : 0, ret,
               port, c.ToString());
        if (ret != 0) {
            ++failures;
        }
    }
    return argc > 1 && failures > 0 ? 1 : 0;
}
