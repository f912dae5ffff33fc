// Built against the installed package only: one manager listens on loopback, another dials
// it, and one packet goes there and back. Exits 0 when the echo arrived intact, after printing
// the version of the headers it was compiled with.
#include <cstdio>
#include <string>

#include <quolnet/common/version.h>
#include <quolnet/net/connector_mgr.h>

using namespace QUOLNET;

namespace {

class Echo : public IConnectorHandler {
  public:
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        return mgr->Send(id, data, len) != 0;
    }
};

class Client : public IConnectorHandler {
  public:
    explicit Client(const std::string& packet) : m_packet(packet) {}
    void OnConnected(CConnectorMgr* mgr, ConnId id, const char*, bool) override {
        mgr->Send(id, m_packet.data(), static_cast<unsigned int>(m_packet.size()));
    }
    bool OnPacket(CConnectorMgr*, ConnId, const char* data, unsigned int len, bool) override {
        m_echo.assign(data, len);
        return true;
    }
    const std::string& echo() const { return m_echo; }

  private:
    std::string m_packet;
    std::string m_echo;
};

}  // namespace

int main() {
    std::string packet(4, '\0');
    CLengthPrefixParser::WriteHeader(&packet[0], 4 + 5);
    packet += "hello";
    Echo echo;
    Client client(packet);
    CConnectorMgr server(&echo);
    CConnectorMgr dialer(&client);
    if (server.Init() != 0 || dialer.Init() != 0 || server.Listen("tcp://127.0.0.1:0") <= 0) {
        std::fprintf(stderr, "consumer: set-up failed\n");
        return 1;
    }
    if (dialer.Dial(server.GetListenURL(0).c_str()) == 0) {
        std::fprintf(stderr, "consumer: dial failed\n");
        return 1;
    }
    for (int i = 0; i < 1000 && client.echo().empty(); ++i) {  // bounded: about 10 s at most
        server.RunOnce(5);
        dialer.RunOnce(5);
    }
    if (client.echo() != packet) {
        std::fprintf(stderr, "consumer: no echo\n");
        return 1;
    }
    std::printf("consumer: echo received through the installed quolnet %s package\n", QUOLNET_VERSION_STRING);
    return 0;
}
