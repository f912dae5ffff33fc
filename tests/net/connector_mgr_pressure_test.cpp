// CConnectorMgr at its connection limit: idle connections closed, longest idle first, to
// admit new clients (counted, logged once per episode); a listener that pauses without
// spinning when none is idle long enough; the cap per source address; the limit derived
// from the descriptor limit.
// Every test ends with no pool block in use and no descriptor left open.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "net/connector_group.h"
#include "net/connector_mgr.h"
#include "support/log_capture.h"
#include "support/loop_thread.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

namespace {

using qntest::Packet;
using QUOLNET::AcceptRefusal;
using QUOLNET::CConnectorMgr;
using QUOLNET::CloseInfo;
using QUOLNET::CloseLimit;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;

// Echoes every packet; counts loop iterations (OnTick) and records closes by limit.
class CountingEcho : public QUOLNET::IConnectorHandler {
  public:
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) override {
        int ret = more ? mgr->SendCorked(id, data, len) : mgr->Send(id, data, len);
        return ret != CConnectorMgr::kSendNoRoom;
    }
    void OnClosed(CConnectorMgr*, ConnId, const CloseInfo& info) override {
        if (info.limit == CloseLimit::kIdleEvicted) {
            ++evicted;
        }
    }
    void OnTick(CConnectorMgr*) override { ++ticks; }

    std::atomic<long> ticks{0};
    std::atomic<int> evicted{0};
};
using qntest::LoopThread;

// A blocking connection to the manager's listener from source address `source` (the kernel
// completes it whether or not the server accepts). The descriptor, or -1.
int DialFrom(CConnectorMgr& mgr, const char* source = "127.0.0.1") {
    struct sockaddr_storage ss;
    socklen_t len = 0;
    if (QUOLNET::CTcpListener::ParseURL(mgr.GetListenURL(0).c_str(), &ss, &len, nullptr) != 0) {
        return -1;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_in local;
    memset(&local, 0, sizeof(local));
    local.sin_family = AF_INET;
    inet_pton(AF_INET, source, &local.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0 ||
        connect(fd, reinterpret_cast<sockaddr*>(&ss), len) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool Echo(int fd, const std::string& payload) {
    std::string p = Packet(payload);
    std::string back(p.size(), '\0');
    return qntest::WriteAll(fd, p.data(), p.size()) && qntest::ReadExactly(fd, &back[0], back.size()) &&
           back == p;
}

// Whether the server ended the connection (end of stream or reset) within `timeout_ms`.
bool ServerClosed(int fd, int timeout_ms = 10000) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) {
        return false;
    }
    char c;
    return recv(fd, &c, 1, MSG_DONTWAIT) <= 0;
}

// Whether nothing arrives on `fd` within `ms`.
bool Silent(int fd, int ms) {
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, ms) == 0;
}

class ConnectorMgrPressureTest : public ::testing::Test {
  protected:
    void SetUp() override { m_fds_before = qntest::CountOpenFds(); }
    void TearDown() override {
        for (int fd : m_clients) {
            close(fd);
        }
        EXPECT_EQ(0u, m_pool.GetUsedCount());
        EXPECT_EQ(m_fds_before, qntest::CountOpenFds());
    }
    ConnectorMgrOptions Options() {
        ConnectorMgrOptions o;
        o.pool = &m_pool;
        o.log_cat = m_cap.cat();
        return o;
    }
    int Count(int priority, const std::string& text) const {
        int n = 0;
        for (const std::string& t : m_cap.Texts(priority)) {
            n += t == text ? 1 : 0;
        }
        return n;
    }
    // Opens `n` idle connections (they send nothing) and waits until the server holds
    // `expect` connections.
    bool FillIdle(LoopThread& loop, int n, size_t expect, const char* source = "127.0.0.1") {
        for (int i = 0; i < n; ++i) {
            int fd = DialFrom(loop.mgr(), source);
            if (fd < 0) {
                return false;
            }
            m_idle.push_back(fd);
            m_clients.push_back(fd);
        }
        return qntest::Eventually([&]() { return loop.mgr().GetConnectionCount() == expect; });
    }
    int Client(CConnectorMgr& mgr, const char* source = "127.0.0.1") {
        int fd = DialFrom(mgr, source);
        if (fd >= 0) {
            m_clients.push_back(fd);
        }
        return fd;
    }
    void CloseClient(int fd) {
        close(fd);
        for (int& c : m_clients) {
            if (c == fd) {
                c = m_clients.back();
                m_clients.pop_back();
                break;
            }
        }
    }

    QUOLNET::CNetBufferMgr m_pool{1024};
    qntest::LogCapture m_cap{QUOLNET::LOG_PRIORITY_INFO, "pressure"};
    std::vector<int> m_clients;  // closed by TearDown
    std::vector<int> m_idle;     // the idle ones, in the order they connected
    int m_fds_before = 0;
};

const char kEvictWarn[] =
    "connection limit reached (20 connections): closing the connections idle longest to admit new ones";

// At the limit, new clients are admitted and served while the longest idle connections are
// closed for them, one each, oldest first; the first eviction of an episode is logged once.
TEST_F(ConnectorMgrPressureTest, IdleConnectionsAreEvictedToAdmitNewClients) {
    CountingEcho h;
    ConnectorMgrOptions o = Options();
    o.max_connections = 20;
    o.evict_idle_ms = 150;
    LoopThread loop(&h, o);
    ASSERT_TRUE(loop.ok());
    ASSERT_EQ(20u, loop.mgr().GetMaxConnections());
    ASSERT_TRUE(FillIdle(loop, 20, 20));

    for (int i = 0; i < 4; ++i) {
        int fd = Client(loop.mgr());
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(Echo(fd, "new client " + std::to_string(i))) << m_cap.Dump();
        // The one idle the longest made room: the earliest of the idle connections left.
        EXPECT_TRUE(ServerClosed(m_idle[static_cast<size_t>(i)])) << i;
        EXPECT_EQ(static_cast<uint64_t>(i + 1), loop.mgr().GetLimitCloseCount(CloseLimit::kIdleEvicted));
        EXPECT_EQ(20u, loop.mgr().GetConnectionCount());
    }
    // The others stay open: one eviction per newcomer.
    for (size_t i = 4; i < m_idle.size(); ++i) {
        EXPECT_TRUE(Silent(m_idle[i], 0)) << i;
    }
    EXPECT_EQ(1, Count(QUOLNET::LOG_PRIORITY_WARN, kEvictWarn)) << m_cap.Dump();
    EXPECT_EQ(4, h.evicted.load());
    EXPECT_EQ(4u, loop.mgr().GetCloseCount(QUOLNET::CloseReason::kLimit));
    EXPECT_EQ(24u, loop.mgr().GetAcceptCount());
    loop.Stop();
    std::string stats = loop.mgr().FormatStats();
    EXPECT_NE(std::string::npos, stats.find(" idle_evicted 4")) << stats;
}

// An episode ends once the count has stayed below the limit; the next one is logged again.
TEST_F(ConnectorMgrPressureTest, EvictionIsLoggedOncePerEpisode) {
    CountingEcho h;
    ConnectorMgrOptions o = Options();
    o.max_connections = 20;
    o.evict_idle_ms = 100;
    LoopThread loop(&h, o);
    ASSERT_TRUE(loop.ok());
    ASSERT_TRUE(FillIdle(loop, 20, 20));
    std::vector<int> fresh;
    for (int i = 0; i < 3; ++i) {
        fresh.push_back(Client(loop.mgr()));
        ASSERT_TRUE(Echo(fresh.back(), "first episode")) << m_cap.Dump();
    }
    EXPECT_EQ(1, Count(QUOLNET::LOG_PRIORITY_WARN, kEvictWarn)) << m_cap.Dump();
    // Below the limit (17 of 20) for a second: the episode ends.
    for (int fd : fresh) {
        CloseClient(fd);
    }
    const std::string ended =
        "connection count below the limit again (17 of 20): 3 idle connections closed in "
        "the episode";
    ASSERT_TRUE(qntest::Eventually([&]() { return m_cap.Has(QUOLNET::LOG_PRIORITY_INFO, ended); }))
        << m_cap.Dump();
    // Full again, and a newcomer: a new episode, logged once more.
    ASSERT_TRUE(FillIdle(loop, 3, 20));
    int fd = Client(loop.mgr());
    ASSERT_TRUE(Echo(fd, "second episode")) << m_cap.Dump();
    EXPECT_EQ(2, Count(QUOLNET::LOG_PRIORITY_WARN, kEvictWarn)) << m_cap.Dump();
    EXPECT_EQ(4u, loop.mgr().GetLimitCloseCount(CloseLimit::kIdleEvicted));
}

// Connections not idle long enough are kept: the listener leaves epoll and is retried (a
// timer, a close) rather than polled, and the newcomer is admitted once a connection closes.
TEST_F(ConnectorMgrPressureTest, NoneIdleEnoughPausesTheListenerWithoutSpinning) {
    CountingEcho h;
    ConnectorMgrOptions o = Options();
    o.max_connections = 20;
    o.evict_idle_ms = 60000;
    LoopThread loop(&h, o);
    ASSERT_TRUE(loop.ok());
    ASSERT_TRUE(FillIdle(loop, 20, 20));
    int fd = Client(loop.mgr());
    ASSERT_GE(fd, 0);
    std::string p = Packet("waiting");
    ASSERT_TRUE(qntest::WriteAll(fd, p.data(), p.size()));
    ASSERT_TRUE(qntest::Eventually([&]() { return loop.mgr().GetLimitPauseCount() >= 1; }));
    // Over 600 ms the loop wakes for its sweeps and the retry timer only: a spinning
    // listener would run thousands of iterations.
    long ticks_before = h.ticks.load();
    uint64_t pauses_before = loop.mgr().GetLimitPauseCount();
    EXPECT_TRUE(Silent(fd, 600));
    EXPECT_LT(h.ticks.load() - ticks_before, 60);
    EXPECT_LE(loop.mgr().GetLimitPauseCount() - pauses_before, 8u);
    EXPECT_EQ(20u, loop.mgr().GetAcceptCount());
    EXPECT_EQ(0u, loop.mgr().GetLimitCloseCount(CloseLimit::kIdleEvicted));
    const std::string url = loop.mgr().GetListenURL(0);
    EXPECT_EQ(
        1,
        Count(QUOLNET::LOG_PRIORITY_WARN,
              "connection limit reached (20 connections), none idle for 60000 ms: accept paused, url=" + url))
        << m_cap.Dump();
    // A connection that closes makes room: the waiting client is admitted and served.
    CloseClient(m_idle[0]);
    std::string back(p.size(), '\0');
    ASSERT_TRUE(qntest::ReadExactly(fd, &back[0], back.size()));
    EXPECT_EQ(p, back);
    EXPECT_EQ(20u, loop.mgr().GetConnectionCount());
    EXPECT_EQ(0u, loop.mgr().GetLimitCloseCount(CloseLimit::kIdleEvicted));
    EXPECT_EQ(0, loop.mgr().GetAcceptPauseCount());  // never short of descriptors
}

// A connection making progress is never chosen, however long it has been open.
TEST_F(ConnectorMgrPressureTest, ActiveConnectionsAreNotEvicted) {
    CountingEcho h;
    ConnectorMgrOptions o = Options();
    o.max_connections = 20;
    o.evict_idle_ms = 150;
    LoopThread loop(&h, o);
    ASSERT_TRUE(loop.ok());
    // The oldest connection keeps talking; the 19 after it are idle.
    int busy = Client(loop.mgr());
    ASSERT_TRUE(Echo(busy, "busy"));
    ASSERT_TRUE(FillIdle(loop, 19, 20));
    std::atomic<bool> stop{false};
    std::atomic<int> busy_failures{0};
    std::thread talker([&]() {
        while (!stop.load()) {
            if (!Echo(busy, "still busy")) {
                ++busy_failures;
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    for (int i = 0; i < 3; ++i) {
        int fd = Client(loop.mgr());
        EXPECT_TRUE(Echo(fd, "newcomer")) << m_cap.Dump();
        EXPECT_TRUE(ServerClosed(m_idle[static_cast<size_t>(i)])) << i;
    }
    stop = true;
    talker.join();
    EXPECT_EQ(0, busy_failures.load());
    EXPECT_TRUE(Echo(busy, "kept"));
    EXPECT_EQ(3u, loop.mgr().GetLimitCloseCount(CloseLimit::kIdleEvicted));
}

// Over max_connections_per_source, a connection is closed at accept (counted, logged once
// per episode); other addresses are unaffected, and a closed one frees its place.
TEST_F(ConnectorMgrPressureTest, PerSourceCapRefusesAtAccept) {
    CountingEcho h;
    ConnectorMgrOptions o = Options();
    o.max_connections_per_source = 3;
    LoopThread loop(&h, o);
    ASSERT_TRUE(loop.ok());
    std::vector<int> first;
    for (int i = 0; i < 3; ++i) {
        first.push_back(Client(loop.mgr(), "127.0.0.2"));
        ASSERT_TRUE(Echo(first.back(), "within the cap"));
    }
    for (int i = 0; i < 2; ++i) {
        int over = Client(loop.mgr(), "127.0.0.2");
        ASSERT_GE(over, 0);
        EXPECT_TRUE(ServerClosed(over));
        CloseClient(over);
    }
    EXPECT_EQ(2u, loop.mgr().GetRefusedCount(AcceptRefusal::kPerSource));
    EXPECT_EQ(1, Count(QUOLNET::LOG_PRIORITY_WARN,
                       "connections from 127.0.0.2 over max_connections_per_source (3): refused at accept "
                       "(logged once while refusals go on)"))
        << m_cap.Dump();
    int other = Client(loop.mgr(), "127.0.0.3");
    EXPECT_TRUE(Echo(other, "another address"));
    CloseClient(first[0]);
    ASSERT_TRUE(qntest::Eventually([&]() { return loop.mgr().GetConnectionCount() == 3; }));
    int again = Client(loop.mgr(), "127.0.0.2");
    EXPECT_TRUE(Echo(again, "a place came free"));
    EXPECT_EQ(2u, loop.mgr().GetRefusedCount(AcceptRefusal::kPerSource));
    loop.Stop();
    std::string stats = loop.mgr().FormatStats();
    EXPECT_NE(std::string::npos, stats.find("refused at accept: per_source 2")) << stats;
}

// The default limit is the soft descriptor limit (as Init leaves it) less fd_reserve, shared
// evenly among a group's loops. Checked in a child process, whose descriptor limit it lowers.
TEST(ConnectorMgrPressureDefaults, LimitDerivesFromTheDescriptorLimit) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        struct rlimit rl;
        rl.rlim_cur = 300;
        rl.rlim_max = 300;
        if (setrlimit(RLIMIT_NOFILE, &rl) != 0) {
            _exit(10);
        }
        QUOLNET::LogCategory quiet("quiet", QUOLNET::LOG_PRIORITY_ERROR);
        CountingEcho h;
        ConnectorMgrOptions o;
        o.pool_blocks = 64;
        o.log_cat = &quiet;
        {
            CConnectorMgr mgr(&h, o);
            if (mgr.GetMaxConnections() != 0 || mgr.Init() != 0) {
                _exit(11);
            }
            if (mgr.GetMaxConnections() != 300 - 64) {
                _exit(12);
            }
        }
        {
            ConnectorMgrOptions r = o;
            r.fd_reserve = 100;
            CConnectorMgr mgr(&h, r);
            if (mgr.Init() != 0 || mgr.GetMaxConnections() != 200) {
                _exit(13);
            }
        }
        {
            ConnectorMgrOptions e = o;
            e.max_connections = 7;
            CConnectorMgr mgr(&h, e);
            if (mgr.Init() != 0 || mgr.GetMaxConnections() != 7) {
                _exit(14);
            }
        }
        {
            QUOLNET::ConnectorGroupOptions go;
            go.threads = 2;
            go.loop = o;
            QUOLNET::CConnectorGroup group(&h, go);
            if (group.Init() != 0 || group.GetLoop(0)->GetMaxConnections() != (300 - 64) / 2 ||
                group.GetLoop(1)->GetMaxConnections() != (300 - 64) / 2) {
                _exit(15);
            }
        }
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

// Regression: in a group without SO_REUSEPORT, loop 0 accepts for every loop and hands the
// connections out; a loop at max_connections with none idle enough to close adopted them
// anyway, over its limit. Now they are refused (closed at once), counted and logged once.
TEST(ConnectorGroupLimit, HandedOutConnectionsOverTheLimitAreRefused) {
    qntest::LogCapture log;
    struct Counter : QUOLNET::IConnectorHandler {
        void OnConnected(CConnectorMgr*, ConnId, const char*, bool) override { ++connected; }
        bool OnPacket(CConnectorMgr*, ConnId, const char*, unsigned int, bool) override { return true; }
        std::atomic<int> connected{0};
    } h;
    QUOLNET::ConnectorGroupOptions go;
    go.threads = 2;
    go.reuse_port = false;
    go.loop.log_cat = log.cat();
    go.loop.max_connections = 2;  // per loop
    go.loop.evict_idle_ms = 0;    // nothing may be evicted
    go.loop.pool_blocks = 64;
    QUOLNET::CConnectorGroup group(&h, go);
    ASSERT_EQ(0, group.Init());
    ASSERT_GT(group.Listen("tcp://127.0.0.1:0"), 0);
    ASSERT_EQ(0, group.Start());
    std::vector<int> clients;
    for (int i = 0; i < 6; ++i) {
        int fd = qntest::DialURL(group.GetListenURL());
        ASSERT_GE(fd, 0);
        clients.push_back(fd);
        // One at a time, so that the round-robin turns alternate between the loops.
        ASSERT_TRUE(qntest::Eventually([&]() {
            return h.connected.load() +
                       static_cast<int>(group.GetLoop(0)->GetRefusedCount(AcceptRefusal::kOverLimit) +
                                        group.GetLoop(1)->GetRefusedCount(AcceptRefusal::kOverLimit)) ==
                   i + 1;
        }));
    }
    EXPECT_EQ(4, h.connected.load());
    EXPECT_EQ(1u, group.GetLoop(0)->GetRefusedCount(AcceptRefusal::kOverLimit));
    EXPECT_EQ(1u, group.GetLoop(1)->GetRefusedCount(AcceptRefusal::kOverLimit));
    int ended = 0;
    for (int fd : clients) {
        int end = -1;
        qntest::ReadToEnd(fd, &end, 200);
        if (end == 0 || end == ECONNRESET) {
            ++ended;  // a refused one: closed at once
        }
        close(fd);
    }
    EXPECT_EQ(2, ended);
    group.Stop();
    EXPECT_EQ(2, log.CountPrefix(QUOLNET::LOG_PRIORITY_WARN, "connection limit reached and none idle enough"))
        << log.Dump();
}

}  // namespace
