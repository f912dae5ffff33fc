// End to end: a dialled and an accepted connector run against each other under a minimal
// owner built only from the public interface (one epoll instance, epoll_wait, SetEvent,
// Update, Peek/Drop, Send).
#include <errno.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/net_buffer_mgr.h"
#include "net/tcp_connector.h"
#include "support/log_capture.h"
#include "support/net_helpers.h"
#include "support/test_parser.h"

namespace {

using QUOLNET::CNetBufferMgr;
using QUOLNET::CTcpConnector;

const int kCombineLen = (1 << 20) + 64;

// One connector with the packets it must send and the packets it expects to receive.
struct Endpoint {
    std::vector<char> combine = std::vector<char>(kCombineLen);
    std::vector<char> cb_combine = std::vector<char>(kCombineLen);
    std::unique_ptr<CTcpConnector> conn;
    std::vector<std::string> to_send;
    size_t next_send = 0;
    std::vector<std::string> expected;
    size_t next_recv = 0;
    int mismatches = 0;
    int send_errors = 0;

    Endpoint(CNetBufferMgr* pool, qntest::LogCapture* log) {
        conn.reset(new CTcpConnector(combine.data(), kCombineLen, cb_combine.data(), kCombineLen, nullptr,
                                     pool, 64, 64, nullptr, nullptr));
        conn->SetLogCat(log->cat());
    }
    bool Done() const { return next_send == to_send.size() && next_recv == expected.size(); }
};

// The owner: waits on epoll, hands bits to SetEvent, updates, drains the ring, sends.
class MiniOwner {
  public:
    MiniOwner() : m_ep(epoll_create1(EPOLL_CLOEXEC)) {}
    ~MiniOwner() { close(m_ep); }
    int ep() const { return m_ep; }

    void Add(Endpoint* e) { m_eps.push_back(e); }

    void Tick(int timeout_ms) {
        epoll_event evs[16];
        int n = epoll_wait(m_ep, evs, 16, timeout_ms);
        for (int i = 0; i < n; ++i) {
            static_cast<CTcpConnector*>(evs[i].data.ptr)->SetEvent(evs[i].events);
        }
        for (Endpoint* e : m_eps) {
            e->conn->Update();
            // Framing stops while the ring is full: after draining, let it resume even when
            // the socket has nothing new to read.
            while (Drain(e) > 0 && e->conn->GetStatus() == QUOLNET::CONNECTOR_STATUS_CONNECTED) {
                e->conn->SetEvent(EPOLLIN);
                e->conn->Update();
            }
            SendSome(e);
        }
    }

    static int Drain(Endpoint* e) {
        int drained = 0;
        for (;;) {
            const char* buf = nullptr;
            unsigned int len = 0;
            if (e->conn->Peek(&buf, len, nullptr) != 0 || buf == nullptr) {
                return drained;
            }
            if (e->next_recv >= e->expected.size() || e->expected[e->next_recv].size() != len ||
                memcmp(e->expected[e->next_recv].data(), buf, len) != 0) {
                ++e->mismatches;
            }
            ++e->next_recv;
            e->conn->Drop();
            ++drained;
        }
    }

    static void SendSome(Endpoint* e) {
        while (e->next_send < e->to_send.size() &&
               e->conn->GetStatus() == QUOLNET::CONNECTOR_STATUS_CONNECTED) {
            const std::string& p = e->to_send[e->next_send];
            int r = e->conn->Send(p.data(), static_cast<unsigned int>(p.size()), nullptr);
            if (r == static_cast<int>(p.size())) {
                ++e->next_send;
            } else if (r == 0) {
                return;  // no room now; retry next tick
            } else {
                ++e->send_errors;
                return;
            }
        }
    }

  private:
    int m_ep;
    std::vector<Endpoint*> m_eps;
};

std::vector<std::string> MakeTraffic(int count, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<std::string> out;
    out.reserve(count);
    for (int i = 0; i < count; ++i) {
        uint32_t payload;
        int pick = static_cast<int>(rng() % 100);
        if (i == 0) {
            payload = 1 << 20;  // one packet of the largest size, early
        } else if (pick == 0) {
            payload = 1 + rng() % (1 << 20);
        } else if (pick < 5) {
            payload = 4096 + rng() % 131072;
        } else {
            payload = 1 + rng() % 4096;
        }
        if (i == 1) {
            payload = 1;
        }
        out.push_back(qntest::MakePacket(payload + 4, seed * 100000u + static_cast<uint32_t>(i)));
    }
    return out;
}

class EndToEnd : public ::testing::TestWithParam<bool> {};

TEST_P(EndToEnd, DialledAndAcceptedExchangeTenThousandPacketsEachWay) {
    const bool ipv6 = GetParam();
    const int fds_before = qntest::CountOpenFds();
    CNetBufferMgr pool(512);
    qntest::BigEndianLengthParser parser(kCombineLen);
    qntest::LogCapture log_a(QUOLNET::LOG_PRIORITY_INFO, "dialled");
    qntest::LogCapture log_b(QUOLNET::LOG_PRIORITY_INFO, "accepted");
    {
        MiniOwner owner;
        qntest::Listener listener(ipv6);
        ASSERT_GE(listener.fd(), 0);

        Endpoint a(&pool, &log_a);
        Endpoint b(&pool, &log_b);
        ASSERT_EQ(0, a.conn->Init(listener.url().c_str(), &parser, owner.ep(), -1));
        ASSERT_EQ(0, a.conn->Connect());
        int fd = listener.Accept();
        ASSERT_GE(fd, 0);
        ASSERT_EQ(0, b.conn->Init(listener.url().c_str(), &parser, owner.ep(), fd));
        EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_CONNECTED, b.conn->GetStatus());

        a.to_send = MakeTraffic(10000, 1);
        b.to_send = MakeTraffic(10000, 2);
        a.expected = b.to_send;
        b.expected = a.to_send;
        owner.Add(&a);
        owner.Add(&b);

        for (int ticks = 0; ticks < 2000000 && !(a.Done() && b.Done()); ++ticks) {
            owner.Tick(1000);
            ASSERT_EQ(0, a.mismatches + b.mismatches);
            ASSERT_EQ(0, a.send_errors + b.send_errors);
            ASSERT_EQ(QUOLNET::CONNECTOR_STATUS_CONNECTED, a.conn->GetStatus()) << log_a.Dump();
            ASSERT_EQ(QUOLNET::CONNECTOR_STATUS_CONNECTED, b.conn->GetStatus()) << log_b.Dump();
        }
        EXPECT_TRUE(a.Done());
        EXPECT_TRUE(b.Done());
        EXPECT_TRUE(log_a.Has(QUOLNET::LOG_PRIORITY_INFO,
                              "connect to " + listener.url() +
                                  " successfully, local_url=" + std::string(a.conn->GetLocalURL()) +
                                  ", m_socket=" + std::to_string(a.conn->GetSocket())))
            << log_a.Dump();

        // The accepted side closes; the dialled side sees the end of the stream and disconnects
        // without an ERROR message.
        b.conn->Fini();
        for (int ticks = 0; ticks < 1000 && a.conn->GetStatus() != QUOLNET::CONNECTOR_STATUS_DISCONNECTED;
             ++ticks) {
            owner.Tick(1000);
        }
        EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, a.conn->GetStatus());
        EXPECT_TRUE(log_a.HasPrefix(QUOLNET::LOG_PRIORITY_INFO, "socket is closed by peer!")) << log_a.Dump();
        EXPECT_TRUE(log_a.Texts(QUOLNET::LOG_PRIORITY_ERROR).empty()) << log_a.Dump();
        EXPECT_TRUE(log_b.Texts(QUOLNET::LOG_PRIORITY_ERROR).empty()) << log_b.Dump();
        a.conn->Fini();
        EXPECT_EQ(0u, pool.GetUsedCount());
    }
    EXPECT_EQ(fds_before, qntest::CountOpenFds());
}

TEST_P(EndToEnd, DialToClosedPortEndsDisconnected) {
    const bool ipv6 = GetParam();
    const int fds_before = qntest::CountOpenFds();
    CNetBufferMgr pool(8);
    qntest::BigEndianLengthParser parser;
    qntest::LogCapture log;
    {
        MiniOwner owner;
        Endpoint a(&pool, &log);
        std::string url = ipv6 ? "tcp://[::1]:" + std::to_string(qntest::UnusedPort(true))
                               : "tcp://127.0.0.1:" + std::to_string(qntest::UnusedPort(false));
        ASSERT_EQ(0, a.conn->Init(url.c_str(), &parser, owner.ep(), -1));
        int ret = a.conn->Connect();
        if (ret == 0) {
            // The refusal arrives as an error event; Update disconnects.
            owner.Add(&a);
            for (int ticks = 0; ticks < 100 && a.conn->GetStatus() != QUOLNET::CONNECTOR_STATUS_DISCONNECTED;
                 ++ticks) {
                owner.Tick(1000);
            }
            EXPECT_TRUE(log.HasPrefix(QUOLNET::LOG_PRIORITY_INFO, "m_events=")) << log.Dump();
            EXPECT_FALSE(log.HasPrefix(QUOLNET::LOG_PRIORITY_INFO, "connect to ")) << log.Dump();
        } else {
            EXPECT_EQ(-9, ret);
            EXPECT_TRUE(log.HasPrefix(QUOLNET::LOG_PRIORITY_ERROR, "do connect failed! url=" + url));
        }
        EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, a.conn->GetStatus());
        EXPECT_EQ(-1, a.conn->GetSocket());
        a.conn->Fini();
        EXPECT_EQ(0u, pool.GetUsedCount());
    }
    EXPECT_EQ(fds_before, qntest::CountOpenFds());
}

std::string FamilyName(const ::testing::TestParamInfo<bool>& p) {
    return p.param ? "IPv6" : "IPv4";
}

INSTANTIATE_TEST_SUITE_P(IPv4AndIPv6, EndToEnd, ::testing::Values(false, true), FamilyName);

}  // namespace
