// readme_example: the smallest echo server on CConnectorMgr (the code shown in README.md).
#include <signal.h>

#include <cstdio>
#include <cstring>

#include <quolnet/net/connector_mgr.h>

using namespace QUOLNET;

struct Session {  // what the application keeps per connection: its context
    unsigned long long packets = 0;
};

class Echo : public IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr* mgr, ConnId id, const char*, bool) override {
        mgr->SetContext(id, new Session);  // handed back in every call for this connection
    }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) override {
        // Several packets in one tick: cork the replies, they leave with one flush.
        int ret = more ? mgr->SendCorked(id, data, len) : mgr->Send(id, data, len);
        if (ret == CConnectorMgr::kSendNoRoom) {
            return false;  // no room: paused until there is room
        }
        ++static_cast<Session*>(mgr->CurrentContext())->packets;
        return true;
    }
    void OnClosed(CConnectorMgr* mgr, ConnId id, const CloseInfo& info) override {
        Session* s = static_cast<Session*>(mgr->GetContext(id));
        printf("connection %llu closed: %s after %llu packets\n", (unsigned long long)id,
               CloseReasonName(info.reason), s != nullptr ? s->packets : 0ULL);
        delete s;  // the last call for this connection
    }
};

CConnectorMgr* g_mgr = nullptr;
void OnSignal(int) {
    g_mgr->Shutdown(5000);  // drain: stop listening, finish every connection, then Run returns
}

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
    if (port < 0) {  // -1: a malformed URL; -2: cannot listen there
        fprintf(stderr, "readme_example: cannot listen on '%s'\n", url);
        return port == -1 ? 2 : 1;
    }
    printf("listening on %s\n", mgr.GetListenURL(0).c_str());
    if (argc > 2) {  // "readme_example URL once": one tick, for a smoke run
        mgr.RunOnce(0);
        return 0;
    }
    g_mgr = &mgr;
    signal(SIGTERM, OnSignal);  // Shutdown is async-signal-safe
    signal(SIGINT, OnSignal);
    return mgr.Run();  // until the drain is over (or mgr.Stop(): any thread, signal-safe)
}
