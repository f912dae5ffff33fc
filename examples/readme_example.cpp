// readme_example: the smallest echo server on CConnectorMgr (the code shown in README.md).
#include <cstdio>
#include <cstring>

#include "net/connector_mgr.h"

using namespace QUOLNET;

class Echo : public IConnectorHandler {
  public:
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) override {
        // Several packets in one tick: cork the replies, they leave with one flush.
        int ret = more ? mgr->SendCorked(id, data, len) : mgr->Send(id, data, len);
        return ret != CConnectorMgr::kSendNoRoom;  // no room: paused until there is room
    }
    void OnClosed(CConnectorMgr*, ConnId id, const CloseInfo& info) override {
        printf("connection %llu closed: %s\n", (unsigned long long)id, CloseReasonName(info.reason));
    }
};

int main(int argc, char** argv) {
    const char* url = argc > 1 ? argv[1] : "tcp://127.0.0.1:0";
    if (strcmp(url, "--help") == 0 || strcmp(url, "-h") == 0) {
        printf("usage: readme_example [URL [once]]  (default URL tcp://127.0.0.1:0)\n");
        return 0;
    }
    Echo echo;
    ConnectorMgrOptions options;  // own pool, 4-byte big-endian length prefix framing
    options.stats_interval_sec = 10;
    CConnectorMgr mgr(&echo, options);
    if (mgr.Init() != 0) {
        return 1;
    }
    int port = mgr.Listen(url);
    if (port < 0) {  // -1: not a tcp:// URL; -2: cannot listen there
        fprintf(stderr, "readme_example: cannot listen on '%s'\n", url);
        return port == -1 ? 2 : 1;
    }
    printf("listening on %s\n", mgr.GetListenURL(0).c_str());
    if (argc > 2) {  // "readme_example URL once": one tick, for a smoke run
        mgr.RunOnce(0);
        return 0;
    }
    return mgr.Run();  // until mgr.Stop() (any thread, signal-safe)
}
