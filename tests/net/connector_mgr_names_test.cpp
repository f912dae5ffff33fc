// CConnectorMgr dialling host names: the lookup off the loop thread, every address tried in
// turn, a fresh lookup before each redial, a name that does not resolve, and the URL checks
// (a port above 65535 is malformed). Names come from /etc/hosts ("localhost"), from the
// reserved .invalid domain (never resolves), or from this file's stand-in for getaddrinfo
// (the link wraps it, see connector_mgr_names_test.wraps), which answers for names under
// ".test" with addresses of its choosing and passes every other name on.
#include "net/connector_mgr.h"
#include "net/connector_group.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

extern "C" int __real_getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                                  struct addrinfo** res);

namespace {

// What the stand-in answers. Guarded by g_fake_mutex (the resolver's worker thread reads it).
std::mutex g_fake_mutex;
std::map<std::string, int> g_lookups;  // lookups of each ".test" name
// "two.test": "::1" then "127.0.0.1" (the first refuses: only 127.0.0.1 listens).
// "moving.test": the i-th lookup gives 127.0.0.1 at g_moving_ports[i] (the last one after).
std::vector<int> g_moving_ports;
// "slow.test": 127.0.0.1 after g_slow_ms.
int g_slow_ms = 0;
// "ports.test": 127.0.0.1 at each of g_ports, in order.
std::vector<int> g_ports;

// A numeric lookup through the real function: a list freeaddrinfo can free.
struct addrinfo* Numeric(const char* host, const char* service) {
    struct addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    struct addrinfo* res = nullptr;
    return __real_getaddrinfo(host, service, &hints, &res) == 0 ? res : nullptr;
}

bool EndsWith(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

extern "C" int __wrap_getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                                  struct addrinfo** res) {
    std::string name = node != nullptr ? node : "";
    if (!EndsWith(name, ".test")) {
        return __real_getaddrinfo(node, service, hints, res);
    }
    int n = 0;
    int slow_ms = 0;
    std::string port = service != nullptr ? service : "0";
    {
        std::lock_guard<std::mutex> lock(g_fake_mutex);
        n = g_lookups[name]++;
        if (name == "moving.test" && !g_moving_ports.empty()) {
            port = std::to_string(g_moving_ports[std::min<size_t>(n, g_moving_ports.size() - 1)]);
        }
        slow_ms = g_slow_ms;
    }
    if (name == "two.test") {
        struct addrinfo* first = Numeric("::1", port.c_str());
        struct addrinfo* second = Numeric("127.0.0.1", port.c_str());
        if (first == nullptr) {
            *res = second;  // no IPv6 here at all: the test still sees the second address used
        } else {
            struct addrinfo* last = first;
            while (last->ai_next != nullptr) {
                last = last->ai_next;
            }
            last->ai_next = second;
            *res = first;
        }
        return *res != nullptr ? 0 : EAI_FAIL;
    }
    if (name == "ports.test") {
        std::vector<int> ports;
        {
            std::lock_guard<std::mutex> lock(g_fake_mutex);
            ports = g_ports;
        }
        struct addrinfo* head = nullptr;
        struct addrinfo** tail = &head;
        for (int p : ports) {
            *tail = Numeric("127.0.0.1", std::to_string(p).c_str());
            while (*tail != nullptr) {
                tail = &(*tail)->ai_next;
            }
        }
        *res = head;
        return head != nullptr ? 0 : EAI_NONAME;
    }
    if (name == "slow.test") {
        std::this_thread::sleep_for(std::chrono::milliseconds(slow_ms));
    }
    if (name == "moving.test" || name == "slow.test") {
        *res = Numeric("127.0.0.1", port.c_str());
        return *res != nullptr ? 0 : EAI_FAIL;
    }
    return EAI_NONAME;
}

namespace {

using QUOLNET::CConnectorMgr;
using QUOLNET::CloseInfo;
using QUOLNET::CloseReason;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;
using QUOLNET::DialOptions;

using qntest::Packet;
using qntest::Pump;

int LookupsOf(const std::string& name) {
    std::lock_guard<std::mutex> lock(g_fake_mutex);
    auto it = g_lookups.find(name);
    return it == g_lookups.end() ? 0 : it->second;
}

// Threads of this process (entries of /proc/self/task).
int CountThreads() {
    int n = 0;
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) {
        return -1;
    }
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            ++n;
        }
    }
    closedir(d);
    return n;
}

// One manager that both echoes what its listener accepts and records what happens to the
// connections it dialled.
class Recorder : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr* mgr, ConnId id, const char* url, bool accepted) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (accepted) {
            m_accepted.insert(id);
            m_last_accepted = id;
            return;
        }
        ++m_connects;
        m_urls.push_back(url);
        QUOLNET::CTcpConnector* k = mgr->GetConnector(id);
        m_connector_urls.push_back(k != nullptr ? k->GetURL() : "");
    }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        bool echo = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            echo = m_accepted.count(id) != 0;
            if (!echo) {
                m_received.emplace_back(data, len);
            }
        }
        if (echo) {
            EXPECT_EQ(static_cast<int>(len), mgr->Send(id, data, len));
        }
        return true;
    }
    void OnClosed(CConnectorMgr*, ConnId id, const CloseInfo& info) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_accepted.erase(id) != 0) {
            return;
        }
        m_closes.push_back(info);
    }

    int Connects() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_connects;
    }
    std::vector<CloseInfo> Closes() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_closes;
    }
    std::vector<std::string> Received() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }
    std::vector<std::string> Urls() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_urls;
    }
    std::vector<std::string> ConnectorUrls() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_connector_urls;
    }
    ConnId LastAccepted() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_last_accepted;
    }

  private:
    std::mutex m_mutex;
    std::set<ConnId> m_accepted;
    ConnId m_last_accepted = 0;
    int m_connects = 0;
    std::vector<std::string> m_urls;
    std::vector<std::string> m_connector_urls;
    std::vector<std::string> m_received;
    std::vector<CloseInfo> m_closes;
};

class NamesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        {
            std::lock_guard<std::mutex> lock(g_fake_mutex);
            g_lookups.clear();
            g_moving_ports.clear();
            g_ports.clear();
            g_slow_ms = 0;
        }
        m_fds_before = qntest::CountOpenFds();
    }
    void TearDown() override {
        m_mgr.reset();
        EXPECT_EQ(0u, m_pool.GetUsedCount());
        EXPECT_EQ(m_fds_before, qntest::CountOpenFds());
    }
    CConnectorMgr& Mgr() {
        if (m_mgr == nullptr) {
            ConnectorMgrOptions o;
            o.pool = &m_pool;
            o.log_cat = m_log.cat();
            m_mgr.reset(new CConnectorMgr(&m_rec, o));
            EXPECT_EQ(0, m_mgr->Init());
        }
        return *m_mgr;
    }
    // Listens on 127.0.0.1 (only); the port.
    int Listen() { return Mgr().Listen("tcp://127.0.0.1:0"); }
    // Sends one packet on `id` and pumps until it comes back.
    void Echo(ConnId id, const std::string& payload) {
        std::string p = Packet(payload);
        size_t before = m_rec.Received().size();
        ASSERT_EQ(static_cast<int>(p.size()), Mgr().Send(id, p.data(), static_cast<unsigned int>(p.size())));
        ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.Received().size() > before; }));
        EXPECT_EQ(p, m_rec.Received().back());
    }

    QUOLNET::CNetBufferMgr m_pool{256};
    qntest::LogCapture m_log{QUOLNET::LOG_PRIORITY_INFO};
    Recorder m_rec;
    std::unique_ptr<CConnectorMgr> m_mgr;
    int m_fds_before = 0;
};

// getaddrinfo on a name under .invalid, bounded: whether it answered (with a failure) within
// a few seconds. A sandbox that sends such lookups to an unreachable DNS server could hang.
bool InvalidFailsQuickly() {
    auto answer = std::make_shared<std::promise<int>>();
    std::future<int> f = answer->get_future();
    std::thread([answer]() {
        struct addrinfo* res = nullptr;
        int ret = getaddrinfo("quolnet-nothing.invalid", "80", nullptr, &res);
        if (ret == 0) {
            freeaddrinfo(res);
        }
        answer->set_value(ret);
    }).detach();
    return f.wait_for(std::chrono::seconds(5)) == std::future_status::ready && f.get() != 0;
}

TEST_F(NamesTest, LocalhostDialsAndEchoes) {
    int port = Listen();
    ASSERT_GT(port, 0);
    std::string url = "tcp://localhost:" + std::to_string(port);
    ConnId id = Mgr().Dial(url.c_str());
    ASSERT_NE(0u, id);
    EXPECT_FALSE(Mgr().IsConnected(id));  // the lookup is under way on the resolver's thread
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.Connects() == 1; })) << m_log.Dump();
    EXPECT_EQ(url, m_rec.Urls()[0]);  // the URL as dialled
    // The connector dials a numeric address made from the lookup. localhost may give ::1
    // first, which refuses here (only 127.0.0.1 listens) and is followed by the next address.
    EXPECT_EQ("tcp://127.0.0.1:" + std::to_string(port), m_rec.ConnectorUrls()[0]);
    EXPECT_EQ(1u, Mgr().GetResolveCount());
    Echo(id, "hello by name");
    Echo(id, std::string(5000, 'x'));
}

TEST_F(NamesTest, NameThatDoesNotResolveEndsWithItsOwnReason) {
    if (!InvalidFailsQuickly()) {
        GTEST_SKIP() << "getaddrinfo on a .invalid name did not fail within 5 s here (a resolver "
                        "that waits for an unreachable DNS server); the failure path is covered "
                        "by UnknownTestNameEndsWithItsOwnReason";
    }
    DialOptions d;
    d.reconnect = true;
    d.max_attempts = 3;
    d.backoff_initial_ms = 1;
    d.backoff_max_ms = 2;
    ConnId id = Mgr().Dial("tcp://quolnet-nothing.invalid:80", d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(
        Mgr(), [&]() { return !m_rec.Closes().empty(); }, 800))
        << m_log.Dump();
    ASSERT_EQ(1u, m_rec.Closes().size());  // reported once, when given up
    CloseInfo info = m_rec.Closes()[0];
    EXPECT_EQ(CloseReason::kDialResolveFailed, info.reason);
    EXPECT_NE(0, info.error);  // getaddrinfo's code
    EXPECT_FALSE(info.reconnecting);
    EXPECT_EQ(0, m_rec.Connects());
    EXPECT_EQ(3u, Mgr().GetResolveCount());  // looked up before every attempt
    EXPECT_EQ(1u, Mgr().GetCloseCount(CloseReason::kDialResolveFailed));
    EXPECT_STREQ("dial_resolve_failed", QUOLNET::CloseReasonName(CloseReason::kDialResolveFailed));
    // The resolver's message, logged once for the three failures.
    EXPECT_EQ(1, m_log.CountPrefix(
                     QUOLNET::LOG_PRIORITY_WARN,
                     "cannot resolve 'quolnet-nothing.invalid' for tcp://quolnet-nothing.invalid:80: "))
        << m_log.Dump();
    EXPECT_EQ(0u, Mgr().GetConnectionCount());
}

TEST_F(NamesTest, UnknownTestNameEndsWithItsOwnReason) {
    ConnId id = Mgr().Dial("tcp://unknown.test:80");
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.Closes().empty(); })) << m_log.Dump();
    EXPECT_EQ(CloseReason::kDialResolveFailed, m_rec.Closes()[0].reason);
    EXPECT_EQ(EAI_NONAME, m_rec.Closes()[0].error);
    std::string expected =
        std::string("cannot resolve 'unknown.test' for tcp://unknown.test:80: ") + gai_strerror(EAI_NONAME);
    EXPECT_TRUE(m_log.Has(QUOLNET::LOG_PRIORITY_WARN, expected)) << m_log.Dump();
    EXPECT_EQ(1, LookupsOf("unknown.test"));
}

TEST_F(NamesTest, FirstAddressRefusedFallsBackToTheNext) {
    int port = Listen();
    ASSERT_GT(port, 0);
    DialOptions d;
    d.connect_timeout_ms = 5000;  // shared between the addresses; the refusal comes at once
    std::string url = "tcp://two.test:" + std::to_string(port);
    ConnId id = Mgr().Dial(url.c_str(), d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.Connects() == 1 || !m_rec.Closes().empty(); }))
        << m_log.Dump();
    ASSERT_EQ(1, m_rec.Connects()) << m_log.Dump();
    EXPECT_EQ(url, m_rec.Urls()[0]);
    EXPECT_EQ("tcp://127.0.0.1:" + std::to_string(port), m_rec.ConnectorUrls()[0]);
    EXPECT_EQ(1, LookupsOf("two.test"));
    EXPECT_TRUE(m_log.HasPrefix(QUOLNET::LOG_PRIORITY_INFO, "dialling " + url + " at tcp://[::1]:" +
                                                                std::to_string(port) + " (address 1 of 2)"))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Has(QUOLNET::LOG_PRIORITY_INFO, "dialling " + url + " at tcp://127.0.0.1:" +
                                                          std::to_string(port) + " (address 2 of 2)"))
        << m_log.Dump();
    Echo(id, "second address");
}

// A listener whose accept queue is full: further connects get no answer (the kernel drops
// their SYNs). Fills `held` with the connections that fill it; returns the port, or 0 when
// connects here are answered whatever the queue.
int SilentPort(qntest::Listener& l, std::vector<int>* held) {
    struct sockaddr_in a;
    memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(l.port()));
    for (int i = 0; i < 16; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        held->push_back(fd);
        if (connect(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof(a)) == 0) {
            continue;
        }
        struct pollfd p = {fd, POLLOUT, 0};
        if (poll(&p, 1, 200) == 0) {
            return l.port();  // this one hangs: so will the manager's
        }
    }
    return 0;
}

TEST_F(NamesTest, AddressThatDoesNotAnswerLeavesTimeForTheNext) {
    qntest::Listener full(false, 0);
    std::vector<int> held;
    int silent = SilentPort(full, &held);
    if (silent == 0) {
        for (int fd : held) {
            close(fd);
        }
        GTEST_SKIP() << "connects to a listener with a full accept queue are answered here";
    }
    int port = Listen();
    ASSERT_GT(port, 0);
    {
        std::lock_guard<std::mutex> lock(g_fake_mutex);
        g_ports = {silent, port};
    }
    DialOptions d;
    d.connect_timeout_ms = 1000;  // half of it for the silent address, the rest for the next
    auto start = std::chrono::steady_clock::now();
    ConnId id = Mgr().Dial("tcp://ports.test:1", d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.Connects() == 1 || !m_rec.Closes().empty(); }))
        << m_log.Dump();
    auto took = std::chrono::steady_clock::now() - start;
    ASSERT_EQ(1, m_rec.Connects()) << m_log.Dump();
    EXPECT_GE(took, std::chrono::milliseconds(450));
    EXPECT_LT(took, std::chrono::milliseconds(1000));
    EXPECT_TRUE(
        m_log.Has(QUOLNET::LOG_PRIORITY_INFO,
                  "dial tcp://ports.test:1: no answer from tcp://127.0.0.1:" + std::to_string(silent) +
                      " in its share of the timeout, trying the next address"))
        << m_log.Dump();
    Echo(id, "the second one answered");

    // Only the silent address: the dial times out as a whole.
    {
        std::lock_guard<std::mutex> lock(g_fake_mutex);
        g_ports = {silent};
    }
    d.connect_timeout_ms = 100;
    ConnId lone = Mgr().Dial("tcp://ports.test:1", d);
    ASSERT_NE(0u, lone);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.Closes().empty(); })) << m_log.Dump();
    EXPECT_EQ(CloseReason::kDialTimeout, m_rec.Closes()[0].reason);
    EXPECT_TRUE(m_log.Has(QUOLNET::LOG_PRIORITY_WARN, "connect to tcp://ports.test:1 timed out after 100 ms"))
        << m_log.Dump();
    for (int fd : held) {
        close(fd);
    }
}

TEST_F(NamesTest, SourceAddressKeepsToItsFamily) {
    int port = Listen();
    ASSERT_GT(port, 0);
    DialOptions d;
    d.socket.source_address = "127.0.0.1";  // so ::1, the first address, is not tried
    std::string url = "tcp://two.test:" + std::to_string(port);
    ConnId id = Mgr().Dial(url.c_str(), d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.Connects() == 1; })) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(QUOLNET::LOG_PRIORITY_INFO, "dialling " + url + " at tcp://127.0.0.1:" +
                                                          std::to_string(port) + " (address 1 of 1)"))
        << m_log.Dump();
    Echo(id, "from the source address");
}

TEST_F(NamesTest, NameBeforeInitIsRefused) {
    CConnectorMgr mgr(&m_rec);
    EXPECT_EQ(0u, mgr.Dial("tcp://localhost:80"));
    EXPECT_EQ(0u, mgr.GetResolveCount());
}

TEST_F(NamesTest, LocalhostInGetaddrinfosOrder) {
    // What this host's getaddrinfo gives for localhost, in order; every address is tried
    // until the one that listens (127.0.0.1) answers.
    struct addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = AI_NUMERICSERV;
    struct addrinfo* res = nullptr;
    ASSERT_EQ(0, getaddrinfo("localhost", "80", &hints, &res));
    std::vector<int> families;
    for (struct addrinfo* ai = res; ai != nullptr; ai = ai->ai_next) {
        families.push_back(ai->ai_family);
    }
    freeaddrinfo(res);
    int port = Listen();
    ASSERT_GT(port, 0);
    ConnId id = Mgr().Dial(("tcp://localhost:" + std::to_string(port)).c_str());
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.Connects() == 1; })) << m_log.Dump();
    int tried = m_log.CountPrefix(QUOLNET::LOG_PRIORITY_INFO, "dialling tcp://localhost:");
    size_t first_v4 = 0;
    while (first_v4 < families.size() && families[first_v4] != AF_INET) {
        ++first_v4;
    }
    ASSERT_LT(first_v4, families.size()) << "localhost has no IPv4 address here";
    // The IPv6 addresses before the first IPv4 one refused (or could not be dialled) first.
    EXPECT_EQ(static_cast<int>(first_v4) + 1, tried) << m_log.Dump();
    if (first_v4 == 0) {
        std::printf(
            "note: localhost gives 127.0.0.1 first here; FirstAddressRefusedFallsBackToTheNext covers "
            "the fallback\n");
    }
    Echo(id, "ordered");
}

TEST_F(NamesTest, RedialLooksTheNameUpAgain) {
    int port = Listen();
    ASSERT_GT(port, 0);
    {
        std::lock_guard<std::mutex> lock(g_fake_mutex);
        // First lookup: a port nobody listens on; the redial's lookup: the listener.
        g_moving_ports = {qntest::UnusedPort(), port};
    }
    DialOptions d;
    d.reconnect = true;
    d.backoff_initial_ms = 1;
    d.backoff_max_ms = 5;
    std::string url = "tcp://moving.test:1";
    ConnId id = Mgr().Dial(url.c_str(), d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.Connects() == 1; })) << m_log.Dump();
    EXPECT_EQ(2, LookupsOf("moving.test"));
    EXPECT_EQ(2u, Mgr().GetResolveCount());
    EXPECT_TRUE(m_rec.Closes().empty());  // a dial that never connected redials silently
    Echo(id, "after a redial");

    // The peer ends the connection: the reconnect looks the name up once more.
    ConnId server_side = m_rec.LastAccepted();
    ASSERT_NE(0u, server_side);
    Mgr().Abort(server_side);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.Connects() == 2; })) << m_log.Dump();
    EXPECT_EQ(3, LookupsOf("moving.test"));
    EXPECT_EQ(3u, Mgr().GetResolveCount());
    ASSERT_EQ(1u, m_rec.Closes().size());
    EXPECT_TRUE(m_rec.Closes()[0].reconnecting);
    Echo(id, "after a reconnect");
    Mgr().Abort(id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return Mgr().GetConnectionCount() == 0; }));
}

TEST_F(NamesTest, LookupSlowerThanTheConnectTimeoutIsATimeout) {
    {
        std::lock_guard<std::mutex> lock(g_fake_mutex);
        g_slow_ms = 400;
    }
    DialOptions d;
    d.connect_timeout_ms = 50;  // counts from the start of the lookup
    ConnId id = Mgr().Dial("tcp://slow.test:9", d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.Closes().empty(); })) << m_log.Dump();
    EXPECT_EQ(CloseReason::kDialTimeout, m_rec.Closes()[0].reason);
    EXPECT_TRUE(m_log.Has(QUOLNET::LOG_PRIORITY_WARN,
                          "looking up 'slow.test' for tcp://slow.test:9 took longer than 50 ms"))
        << m_log.Dump();
    // The late result is dropped; the manager goes away without waiting for the lookup.
    auto start = std::chrono::steady_clock::now();
    m_mgr.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST_F(NamesTest, CloseDuringTheLookupEndsTheDial) {
    {
        std::lock_guard<std::mutex> lock(g_fake_mutex);
        g_slow_ms = 100;
    }
    ConnId id = Mgr().Dial("tcp://slow.test:9");
    ASSERT_NE(0u, id);
    Mgr().Close(id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.Closes().empty(); }));
    EXPECT_EQ(CloseReason::kClosedLocally, m_rec.Closes()[0].reason);
    EXPECT_EQ(0u, Mgr().GetConnectionCount());
    // The result that comes later finds nothing to do.
    Pump(
        Mgr(), []() { return false; }, 8);
    EXPECT_EQ(0, m_rec.Connects());
    EXPECT_EQ(1u, m_rec.Closes().size());
}

TEST_F(NamesTest, NumericUrlsTakeNoLookupAndStartNoThread) {
    int port = Listen();
    ASSERT_GT(port, 0);
    int threads = CountThreads();
    ConnId id = Mgr().Dial(("tcp://127.0.0.1:" + std::to_string(port)).c_str());
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.Connects() == 1; }));
    EXPECT_EQ(0u, Mgr().GetResolveCount());
    EXPECT_EQ(threads, CountThreads());
    Echo(id, "numeric");
}

TEST_F(NamesTest, PortAbove65535IsMalformed) {
    const char* bad[] = {
        "tcp://127.0.0.1:65536",
        "tcp://127.0.0.1:70000",
        "tcp://[::1]:99999",
        "tcp://localhost:65536",
        "tcp://localhost:4294967376",
        "tcp://localhost:0",
        "tcp://localhost:",
        "tcp://localhost:8x",
        "tcp://localhost",
        "tcp://bad name:80",
        "tcp://a..b:80",
        "tcp://.a:80",
        "tcp://1.2.3:80",
        "tcp://[localhost]:80",
        "udp://localhost:80",
        "tcp://:80",
    };
    for (const char* url : bad) {
        EXPECT_EQ(0u, Mgr().Dial(url)) << url;
    }
    EXPECT_EQ(0u, Mgr().GetResolveCount());
    EXPECT_EQ(0u, Mgr().GetConnectionCount());
    EXPECT_TRUE(
        m_log.Has(QUOLNET::LOG_PRIORITY_ERROR,
                  "invalid dial url(tcp://localhost:65536), the port must be a number from 1 to 65535"))
        << m_log.Dump();
    EXPECT_EQ(-1, Mgr().Listen("tcp://127.0.0.1:65536"));
    EXPECT_EQ(-1, Mgr().Listen("tcp://127.0.0.1:70000"));
    // The highest port is fine.
    QUOLNET::DialTarget t;
    std::string why;
    EXPECT_EQ(0, QUOLNET::CDialler::ParseDialURL("tcp://localhost:65535", &t, &why)) << why;
    EXPECT_EQ("localhost", t.host);
    EXPECT_EQ(65535, t.port);
    EXPECT_EQ(0, QUOLNET::CDialler::ParseDialURL("tcp://db-1.internal_x.:5432", &t, &why)) << why;
    EXPECT_EQ(0, QUOLNET::CDialler::ParseDialURL("tcp://127.0.0.1:65535", &t, &why)) << why;
    EXPECT_TRUE(t.host.empty());
}

TEST_F(NamesTest, ConnectorRefusesPortsAbove65535) {
    // The connector's own parser (a numeric URL): the low 16 bits are not kept.
    char combine[4096];
    char last_err[256] = {0};
    QUOLNET::CLengthPrefixParser parser;
    int epfd = Mgr().GetEpollFd();
    const char* bad[] = {"tcp://1.2.3.4:65536", "tcp://1.2.3.4:70000", "tcp://1.2.3.4:4294967376",
                         "tcp://[::1]:65536", "tcp://[::1]:131072"};
    for (const char* url : bad) {
        QUOLNET::CTcpConnector k(combine, sizeof(combine), nullptr, 0, last_err, &m_pool, 8, 8, nullptr,
                                 nullptr);
        EXPECT_EQ(-3, k.Init(url, &parser, epfd, -1)) << url;
    }
    QUOLNET::CTcpConnector k(combine, sizeof(combine), nullptr, 0, last_err, &m_pool, 8, 8, nullptr, nullptr);
    EXPECT_EQ(0, k.Init("tcp://1.2.3.4:65535", &parser, epfd, -1));
    // Retarget chooses the family again (Init alone keeps IPv6 once set).
    EXPECT_EQ(0, k.Retarget("tcp://[::1]:80", &parser, epfd));
    EXPECT_TRUE(k.IsIPv6());
    EXPECT_EQ(0, k.Retarget("tcp://127.0.0.1:80", &parser, epfd));
    EXPECT_FALSE(k.IsIPv6());
    EXPECT_STREQ("tcp://127.0.0.1:80", k.GetURL());
}

TEST_F(NamesTest, GroupDialsANameFromAnotherThread) {
    Recorder rec;
    QUOLNET::ConnectorGroupOptions o;
    o.threads = 2;
    o.loop.log_cat = m_log.cat();
    QUOLNET::CConnectorGroup group(&rec, o);
    ASSERT_EQ(0, group.Init());
    int port = group.Listen("tcp://127.0.0.1:0");
    ASSERT_GT(port, 0);
    ASSERT_EQ(0, group.Start());
    EXPECT_EQ(0u, group.Dial("tcp://localhost:65536"));
    std::string url = "tcp://localhost:" + std::to_string(port);
    ConnId id = group.Dial(url.c_str());
    ASSERT_NE(0u, id);
    ASSERT_TRUE(qntest::Eventually([&]() { return rec.Connects() == 1; })) << m_log.Dump();
    EXPECT_EQ(url, rec.Urls()[0]);
    std::string p = Packet("group by name");
    ASSERT_EQ(static_cast<int>(p.size()), group.Send(id, p.data(), static_cast<unsigned int>(p.size())));
    ASSERT_TRUE(qntest::Eventually([&]() { return !rec.Received().empty(); }));
    EXPECT_EQ(p, rec.Received()[0]);
    group.Stop();
}

}  // namespace
