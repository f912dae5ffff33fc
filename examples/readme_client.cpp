// readme_client (shown in README.md): 1000 verified echoes of 1 B .. 100 KiB, then a graceful close.
#include <cstdio>
#include <cstring>
#include <string>

#include <quolnet/net/connector_mgr.h>
#include <quolnet/net/length_parser.h>

using namespace QUOLNET;

struct CEchoClient : IConnectorHandler {
    static const int kPackets = 1000;
    int m_sent = 0, m_echoed = 0, m_bad = 0, m_waits = 0;
    bool m_ok = false;

    void OnConnected(CConnectorMgr* mgr, ConnId id, const char*, bool) override { Pump(mgr, id); }
    void OnWritable(CConnectorMgr* mgr, ConnId id) override { Pump(mgr, id); }  // room again
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        std::string want = Packet(m_echoed++);
        m_bad += want.size() != len || memcmp(want.data(), data, len) != 0;
        if (m_echoed == kPackets) {
            mgr->Close(id);  // graceful: flushes what Send accepted, then awaits the peer's end
        }
        return true;  // consumed
    }
    void OnClosed(CConnectorMgr* mgr, ConnId, const CloseInfo& info) override {
        printf("%d echoes verified, %d bad, %d waits for room, reason %s (%s)\n", m_echoed - m_bad, m_bad,
               m_waits, CloseReasonName(info.reason), CloseErrorText(info));
        m_ok = m_echoed == kPackets && m_bad == 0 && info.reason == CloseReason::kClosedLocally;
        mgr->Stop();
    }
    static std::string Packet(int i) {  // a 4-byte length header, then 1 B .. 100 KiB of payload
        std::string p(4 + 1 + (i * 7919u) % 102400, '\0');
        CLengthPrefixParser::WriteHeader(&p[0], static_cast<unsigned int>(p.size()));
        for (size_t k = 4; k < p.size(); ++k) {
            p[k] = static_cast<char>(i * 31 + k);
        }
        return p;
    }
    void Pump(CConnectorMgr* mgr, ConnId id) {
        for (; m_sent < kPackets; ++m_sent) {
            std::string p = Packet(m_sent);  // Send copies what it cannot write at once
            int ret = mgr->Send(id, p.data(), static_cast<unsigned int>(p.size()));
            if (ret <= 0) {  // kSendNoRoom: OnWritable calls Pump again; kSendFailed: OnClosed follows
                m_waits += ret == CConnectorMgr::kSendNoRoom;
                return;
            }
        }
    }
};

int main(int argc, char** argv) {
    if (argc != 2 || strcmp(argv[1], "--help") == 0) {
        fprintf(argc == 2 ? stdout : stderr, "usage: readme_client tcp://HOST:PORT  (an echo server)\n");
        return argc == 2 ? 0 : 2;
    }
    CEchoClient client;
    CConnectorMgr mgr(&client);  // default options: every limit on, WARN and above to stderr
    if (mgr.Init() != 0) {
        return 1;
    }
    if (mgr.Dial(argv[1]) == 0) {  // 0: a malformed URL (or a failed set-up)
        fprintf(stderr, "readme_client: bad URL '%s'\n", argv[1]);
        return 2;
    }
    mgr.Run();  // until OnClosed calls Stop
    return client.m_ok ? 0 : 1;
}
