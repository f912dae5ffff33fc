// echo_server: listens on a tcp:// URL and echoes every length-prefixed packet back.
#include <cstdio>
#include <cstring>

#include "echo_common.h"

namespace {

void Usage(FILE* out) {
    fprintf(
        out,
        "usage: echo_server [--listen URL] [--stats SECONDS] [--max-packet BYTES]\n"
        "  --listen URL        where to listen (default tcp://127.0.0.1:7000; port 0 picks a free port)\n"
        "  --stats SECONDS     print the connector statistics table every SECONDS (default 0: only at exit)\n"
        "  --max-packet BYTES  longest packet accepted, 4-byte header included (default %u)\n"
        "Packets are a 4-byte big-endian length (counting itself) followed by the payload.\n"
        "Stops on SIGINT or SIGTERM and prints the statistics table.\n",
        QUOLNET::CLengthPrefixParser::kDefaultMaxPacketLen);
}

}  // namespace

int main(int argc, char** argv) {
    const char* url = "tcp://127.0.0.1:7000";
    long long stats = 0;
    long long max_packet = QUOLNET::CLengthPrefixParser::kDefaultMaxPacketLen;
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            Usage(stdout);
            return 0;
        } else if (strcmp(a, "--listen") == 0 && v != nullptr) {
            url = v;
            ++i;
        } else if (strcmp(a, "--stats") == 0 && v != nullptr && echo::ParseCount(v, 86400, &stats)) {
            ++i;
        } else if (strcmp(a, "--max-packet") == 0 && v != nullptr &&
                   echo::ParseCount(v, 0x7fffffff, &max_packet) && max_packet >= 4) {
            ++i;
        } else {
            fprintf(stderr, "echo_server: bad argument '%s'\n", a);
            Usage(stderr);
            return 2;
        }
    }
    echo::RequireURL("echo_server", url);

    echo::EchoServerHandler handler;
    QUOLNET::ConnectorMgrOptions options;
    options.stats_interval_sec = static_cast<int>(stats);
    options.max_packet_len = static_cast<unsigned int>(max_packet);
    QUOLNET::CConnectorMgr mgr(&handler, options);
    if (mgr.Init() != 0) {
        fprintf(stderr, "echo_server: cannot set up the event loop\n");
        return 1;
    }
    int port = mgr.Listen(url);
    if (port < 0) {
        fprintf(stderr, "echo_server: cannot listen on %s: %s\n", url, strerror(errno));
        return 1;
    }
    printf("echo_server listening on %s\n", mgr.GetListenURL(0).c_str());
    fflush(stdout);
    echo::StopOnSignals(&mgr);
    int ret = mgr.Run();
    printf("echo_server: %lld connections, %lld packets echoed\n", handler.Connections(), handler.Packets());
    mgr.PrintStats(stdout);
    return ret == 0 ? 0 : 1;
}
