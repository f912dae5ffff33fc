// Many connections on one small pool: 1000 connectors on one epoll instance share a pool of
// 64 blocks. Each connection sends one packet, the loop frames it (Update, then Peek/Drop or
// the receive callback) and echoes it with Send; every connection is served, and between the
// rounds, with all 1000 connected and idle, no block is in use.
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/net_buffer_mgr.h"
#include "net/tcp_connector.h"
#include "support/test_parser.h"

namespace {

using QUOLNET::CNetBufferMgr;
using QUOLNET::CONNECTOR_STATUS_CONNECTED;
using QUOLNET::CTcpConnector;

const int kConnections = 1000;
const unsigned int kPoolBlocks = 64;
const int kPacketLen = 64;
const int kCombineLen = 4096;

// Raises the soft descriptor limit towards the hard one; true when `need` fit.
bool EnsureDescriptors(rlim_t need) {
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0) {
        return false;
    }
    if (rl.rlim_cur >= need) {
        return true;
    }
    if (rl.rlim_max != RLIM_INFINITY && rl.rlim_max < need) {
        return false;
    }
    rl.rlim_cur = need;
    return setrlimit(RLIMIT_NOFILE, &rl) == 0;
}

struct Conn {
    std::unique_ptr<CTcpConnector> c;
    int client = -1;
    int served = 0;  // packets echoed to this connection
};

int EchoFromCallback(const char*, const char* data, int len, void* arg) {
    Conn* conn = static_cast<Conn*>(arg);
    if (conn->c->Send(data, static_cast<unsigned int>(len), nullptr) != len) {
        return 0;  // left in the ring: the test sees it unserved
    }
    ++conn->served;
    return 1;
}

class ScaleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!EnsureDescriptors(2 * kConnections + 64)) {
            GTEST_SKIP() << "needs " << 2 * kConnections + 64 << " descriptors";
        }
        m_epoll = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_GE(m_epoll, 0);
        m_conns.resize(kConnections);
        for (int i = 0; i < kConnections; ++i) {
            Conn& k = m_conns[static_cast<size_t>(i)];
            bool callback = i % 2 == 1;  // half in each delivery mode
            k.c.reset(new CTcpConnector(m_combine, kCombineLen, m_combine, kCombineLen, m_err, &m_pool, 8, 8,
                                        callback ? &EchoFromCallback : nullptr, callback ? &k : nullptr));
            int sv[2];
            ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv));
            k.client = sv[0];
            k.c->SetIdx(i);  // the event's connector leads back to its record
            ASSERT_EQ(0, k.c->Init("tcp://127.0.0.1:1", &m_parser, m_epoll, sv[1]));
        }
    }
    void TearDown() override {
        for (Conn& k : m_conns) {
            if (k.c) {
                k.c->Fini();
            }
            if (k.client >= 0) {
                close(k.client);
            }
        }
        m_conns.clear();
        if (m_epoll >= 0) {
            close(m_epoll);
        }
        EXPECT_EQ(0u, m_pool.GetUsedCount());
    }

    static std::string Packet(int i, int round) {
        return qntest::MakePacket(kPacketLen, static_cast<uint32_t>(i * 7 + round));
    }

    // Every client sends one packet; the loop serves until each got its echo back. Returns
    // the number of connections whose echo arrived intact.
    int Round(int round) {
        for (int i = 0; i < kConnections; ++i) {
            std::string p = Packet(i, round);
            if (write(m_conns[static_cast<size_t>(i)].client, p.data(), p.size()) != kPacketLen) {
                return -1;
            }
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        int served = 0;
        struct epoll_event events[256];
        while (served < kConnections && std::chrono::steady_clock::now() < deadline) {
            int n = epoll_wait(m_epoll, events, 256, 1000);
            for (int e = 0; e < n; ++e) {
                CTcpConnector* c = static_cast<CTcpConnector*>(events[e].data.ptr);
                Conn& k = m_conns[static_cast<size_t>(c->GetIdx())];
                int before = k.served;
                c->SetEvent(events[e].events);
                c->Update();
                const char* buf = nullptr;
                unsigned int len = 0;
                while (c->Peek(&buf, len, nullptr) == 0 && buf != nullptr) {
                    if (c->Send(buf, len, nullptr) != static_cast<int>(len)) {
                        break;
                    }
                    c->Drop();
                    ++k.served;
                }
                served += k.served - before;
            }
        }
        int intact = 0;
        for (int i = 0; i < kConnections; ++i) {
            char echo[kPacketLen];
            ssize_t r = read(m_conns[static_cast<size_t>(i)].client, echo, sizeof(echo));
            if (r == kPacketLen && memcmp(echo, Packet(i, round).data(), kPacketLen) == 0) {
                ++intact;
            }
        }
        return intact;
    }

    CNetBufferMgr m_pool{kPoolBlocks};
    qntest::BigEndianLengthParser m_parser{kCombineLen};
    char m_combine[kCombineLen];
    char m_err[256] = {};
    int m_epoll = -1;
    std::vector<Conn> m_conns;
};

TEST_F(ScaleTest, AThousandConnectionsPingPongOnSixtyFourBlocks) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(kConnections, Round(round)) << "round " << round;
        // All connected and idle: no block, no ring storage.
        EXPECT_EQ(0u, m_pool.GetUsedCount()) << "round " << round;
        EXPECT_EQ(0, CTcpConnector::GetPacketRingsInUse());
        int connected = 0;
        for (Conn& k : m_conns) {
            connected += k.c->GetStatus() == CONNECTOR_STATUS_CONNECTED ? 1 : 0;
            EXPECT_EQ(round + 1, k.served);
        }
        EXPECT_EQ(kConnections, connected);
    }
    // A connection holds a block only while it is being served.
    EXPECT_LE(m_pool.GetPeakUsedCount(), 2u);
}

}  // namespace
