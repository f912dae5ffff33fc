// readme_example: the smallest echo server on CConnectorMgr (the code shown in README.md).
#include <cstdio>

#include "net/connector_mgr.h"

using namespace QUOLNET;

class Echo : public IConnectorHandler {
  public:
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) override {
        // Several packets in one tick: cork the replies, they leave with one flush.
        int ret = more ? mgr->SendCorked(id, data, len) : mgr->Send(id, data, len);
        return ret != 0;  // 0: no room now, offer the packet again shortly
    }
    void OnClosed(CConnectorMgr*, ConnId id, bool) override {
        printf("connection %llu closed\n", (unsigned long long)id);
    }
};

int main(int argc, char** argv) {
    Echo echo;
    ConnectorMgrOptions options;  // own pool, 4-byte big-endian length prefix framing
    options.stats_interval_sec = 10;
    CConnectorMgr mgr(&echo, options);
    int port = mgr.Init() == 0 ? mgr.Listen(argc > 1 ? argv[1] : "tcp://127.0.0.1:0") : -1;
    if (port < 0) {
        return 1;
    }
    printf("listening on %s\n", mgr.GetListenURL(0).c_str());
    if (argc > 2) {  // "readme_example URL once": one tick, for a smoke run
        mgr.RunOnce(0);
        return 0;
    }
    return mgr.Run();  // until mgr.Stop() (any thread, signal-safe)
}
