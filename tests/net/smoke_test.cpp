// Smoke test: a connector can be built, initialised for dialling and finalised.
#include <gtest/gtest.h>

#include "net/tcp_connector.h"

namespace {

class NoParser : public QUOLNET::IPackParser {
  public:
    int ParsePackLength(const char*, unsigned int) override { return 0; }
};

TEST(Smoke, InitForDiallingAndFini) {
    QUOLNET::CNetBufferMgr pool(4);
    NoParser parser;
    char combine[128];
    QUOLNET::CTcpConnector c(combine, sizeof(combine), combine, sizeof(combine), nullptr, &pool, 2, 2,
                             nullptr, nullptr);
    EXPECT_EQ(0, c.Init("tcp://127.0.0.1:1", &parser, 0, -1));
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, c.GetStatus());
    c.Fini();
    EXPECT_EQ(0u, pool.GetUsedCount());
}

}  // namespace
