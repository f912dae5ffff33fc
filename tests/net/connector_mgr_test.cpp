// CConnectorMgr over loopback: many clients, reconnect with backoff, the descriptor limit,
// foreign-thread sends, slow draining of a burst, and a reply followed at once by a close.
// Every test ends with no pool block in use and no descriptor left open.
#include "net/connector_mgr.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <fcntl.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "echo_common.h"
#include "support/log_capture.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

namespace {

using QUOLNET::CConnectorMgr;
using QUOLNET::CLengthPrefixParser;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;

using qntest::ListenAndDial;
using qntest::Packet;
using qntest::Pump;
using qntest::SequencePackets;

// An echo server on its own thread.
class ServerThread {
  public:
    explicit ServerThread(QUOLNET::CNetBufferMgr* pool, const char* url = "tcp://127.0.0.1:0",
                          QUOLNET::LogCategory* cat = nullptr)
        : m_mgr(&m_handler, Options(pool, cat)) {
        m_ok = m_mgr.Init() == 0 && (m_port = m_mgr.Listen(url)) > 0;
    }
    ~ServerThread() { Stop(); }
    static ConnectorMgrOptions Options(QUOLNET::CNetBufferMgr* pool, QUOLNET::LogCategory* cat) {
        ConnectorMgrOptions o;
        o.pool = pool;
        o.log_cat = cat;
        return o;
    }
    void Start() {
        m_thread = std::thread([this]() { m_mgr.Run(); });
    }
    void Stop() {
        m_mgr.Stop();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    bool ok() const { return m_ok; }
    int port() const { return m_port; }
    std::string url() { return m_mgr.GetListenURL(0); }
    CConnectorMgr& mgr() { return m_mgr; }
    echo::EchoServerHandler& handler() { return m_handler; }

  private:
    echo::EchoServerHandler m_handler;
    CConnectorMgr m_mgr;
    std::thread m_thread;
    bool m_ok = false;
    int m_port = 0;
};

class ConnectorMgrTest : public ::testing::Test {
  protected:
    void SetUp() override { m_fds_before = qntest::CountOpenFds(); }
    void TearDown() override {
        EXPECT_EQ(0u, m_pool.GetUsedCount());
        EXPECT_EQ(m_fds_before, qntest::CountOpenFds());
    }
    // Default options on the fixture's pool.
    ConnectorMgrOptions PoolOptions() {
        ConnectorMgrOptions o;
        o.pool = &m_pool;
        return o;
    }
    QUOLNET::CNetBufferMgr m_pool{8192};
    int m_fds_before = 0;
};

TEST_F(ConnectorMgrTest, TwoHundredClientsEachExchangeAThousandVerifiedPackets) {
    ServerThread server(&m_pool);
    ASSERT_TRUE(server.ok());
    server.Start();

    echo::ClientConfig cfg;
    cfg.url = server.url();
    cfg.conns = 200;
    cfg.packets = 1000;
    cfg.sizes = {1, 60, 333};
    cfg.depth = 8;
    echo::EchoClient client(cfg);
    {
        CConnectorMgr mgr(&client, PoolOptions());
        ASSERT_EQ(0, mgr.Init());
        ASSERT_TRUE(client.Start(&mgr));
        mgr.AddTimer(60000, 0, [&mgr]() { mgr.Stop(); });  // bound
        mgr.Run();
        echo::ClientSummary s = client.Summary();
        EXPECT_TRUE(client.Finished());
        EXPECT_EQ(200000, s.packets);
        EXPECT_EQ(0, s.errors);
        EXPECT_EQ(200u, mgr.GetConnectionCount());
    }
    server.Stop();
    EXPECT_EQ(200000, server.handler().Packets());
}

TEST_F(ConnectorMgrTest, MultiBlockPacketsUpToOneMebibyteEchoIntact) {
    ServerThread server(&m_pool, "tcp://[::1]:0");
    ASSERT_TRUE(server.ok());
    server.Start();
    echo::ClientConfig cfg;
    cfg.url = server.url();
    cfg.conns = 3;
    cfg.packets = 12;
    cfg.sizes = {65532, 65533, 65536, 131072, 1048576, 1048576 + 1000, 7};
    echo::EchoClient client(cfg);
    {
        CConnectorMgr mgr(&client, PoolOptions());
        ASSERT_EQ(0, mgr.Init());
        ASSERT_TRUE(client.Start(&mgr));
        mgr.AddTimer(30000, 0, [&mgr]() { mgr.Stop(); });
        mgr.Run();
        echo::ClientSummary s = client.Summary();
        EXPECT_TRUE(client.Finished());
        EXPECT_EQ(36, s.packets);
        EXPECT_EQ(0, s.errors);
    }
}

// Records what a client connection saw.
class RecordingHandler : public QUOLNET::IConnectorHandler {
  public:
    bool OnPacket(CConnectorMgr*, ConnId, const char* data, unsigned int len, bool more) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        packets.emplace_back(data, len);
        mores.push_back(more);
        m_cv.notify_all();
        return true;
    }
    void OnConnected(CConnectorMgr*, ConnId, const char*, bool) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++connected;
        m_cv.notify_all();
    }
    void OnClosed(CConnectorMgr*, ConnId, const QUOLNET::CloseInfo& info) override {
        last_close = info;
        std::lock_guard<std::mutex> lock(m_mutex);
        ++closed;
        packets_at_close = packets.size();
        m_cv.notify_all();
    }
    // Waits (bounded) until pred() holds under the lock.
    template <typename P>
    bool WaitFor(P pred, int ms = 10000) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::milliseconds(ms), pred);
    }
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<std::string> packets;
    std::vector<bool> mores;  // OnPacket's `more`, one per packet
    int connected = 0;
    QUOLNET::CloseInfo last_close;
    int closed = 0;
    size_t packets_at_close = 0;
};

TEST_F(ConnectorMgrTest, DialRetriesWithBackoffAndConnectsOnceTheServerStarts) {
    int port = qntest::UnusedPort();
    std::string url = "tcp://127.0.0.1:" + std::to_string(port);
    qntest::LogCapture log(QUOLNET::LOG_PRIORITY_INFO, "mgr");
    RecordingHandler h;
    ConnectorMgrOptions o;
    o.pool = &m_pool;
    o.log_cat = log.cat();
    {
        CConnectorMgr client(&h, o);
        ASSERT_EQ(0, client.Init());
        QUOLNET::DialOptions d;
        d.reconnect = true;
        d.backoff_initial_ms = 10;
        d.backoff_max_ms = 80;
        d.connect_timeout_ms = 1000;
        ConnId id = client.Dial(url.c_str(), d);
        ASSERT_NE(0u, id);
        // Let at least three attempts fail while nothing listens.
        for (int i = 0;
             i < 2000 && log.CountPrefix(QUOLNET::LOG_PRIORITY_INFO, "dial " + url + " failed") < 3; ++i) {
            client.RunOnce(50);
        }
        ASSERT_GE(log.CountPrefix(QUOLNET::LOG_PRIORITY_INFO, "dial " + url + " failed"), 3) << log.Dump();
        EXPECT_TRUE(
            log.Has(QUOLNET::LOG_PRIORITY_INFO, "dial " + url + " failed (attempt 1), retrying in 10 ms"));
        EXPECT_TRUE(
            log.Has(QUOLNET::LOG_PRIORITY_INFO, "dial " + url + " failed (attempt 2), retrying in 20 ms"));
        EXPECT_TRUE(
            log.Has(QUOLNET::LOG_PRIORITY_INFO, "dial " + url + " failed (attempt 3), retrying in 40 ms"));
        EXPECT_EQ(0, h.connected);

        ServerThread server(&m_pool, url.c_str());
        ASSERT_TRUE(server.ok());
        server.Start();
        for (int i = 0; i < 400 && h.connected == 0; ++i) {
            client.RunOnce(25);
        }
        ASSERT_EQ(1, h.connected);
        std::string p = Packet("hello");
        ASSERT_EQ(static_cast<int>(p.size()), client.Send(id, p.data(), static_cast<unsigned int>(p.size())));
        for (int i = 0; i < 400 && h.packets.empty(); ++i) {
            client.RunOnce(25);
        }
        ASSERT_EQ(1u, h.packets.size());
        EXPECT_EQ(p, h.packets[0]);
        server.Stop();
    }
}

// Wakes a waiter when the manager logs that accepting was paused.
struct PauseWatch {
    static void Sink(const QUOLNET::LogEntry& e, void* arg) {
        PauseWatch* w = static_cast<PauseWatch*>(arg);
        if (strncmp(e.text, "accept paused", 13) == 0) {
            std::lock_guard<std::mutex> lock(w->mutex);
            ++w->paused;
            w->cv.notify_all();
        }
    }
    std::mutex mutex;
    std::condition_variable cv;
    int paused = 0;
};

bool Echo(int fd, const std::string& payload) {
    std::string p = Packet(payload);
    std::string back(p.size(), '\0');
    return qntest::WriteAll(fd, p.data(), p.size()) && qntest::ReadExactly(fd, &back[0], back.size()) &&
           back == p;
}

TEST_F(ConnectorMgrTest, AtTheDescriptorLimitServesExistingConnectionsAndAcceptsAgainLater) {
    PauseWatch watch;
    QUOLNET::LogCategory cat("limit", QUOLNET::LOG_PRIORITY_WARN);
    QUOLNET::log_set_sink(&cat, &PauseWatch::Sink, &watch);
    ServerThread server(&m_pool, "tcp://127.0.0.1:0", &cat);
    ASSERT_TRUE(server.ok());
    server.Start();
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(server.port()));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int clients[3];
    for (int& fd : clients) {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(fd, 0);
    }
    // One connection is served before the limit is lowered (this also lets sanitizer builds
    // warm their type caches, which need a descriptor of their own).
    ASSERT_EQ(0, connect(clients[0], reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    EXPECT_TRUE(Echo(clients[0], "first"));
    // Fill every gap below the highest open descriptor, then allow exactly one more.
    std::vector<int> fillers;
    int highest = 0;
    for (int fd = 0; fd < 65536; ++fd) {
        if (fcntl(fd, F_GETFD) != -1) {
            highest = fd;
        }
    }
    for (;;) {
        int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        if (fd > highest) {
            close(fd);
            break;
        }
        fillers.push_back(fd);
    }
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    struct rlimit low = saved;
    low.rlim_cur = static_cast<rlim_t>(highest + 1 + 1);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));

    ASSERT_EQ(0, connect(clients[1], reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    EXPECT_TRUE(Echo(clients[1], "second"));
    // The third connection completes in the kernel, but the server has no descriptor left.
    ASSERT_EQ(0, connect(clients[2], reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    {
        std::unique_lock<std::mutex> lock(watch.mutex);
        ASSERT_TRUE(
            watch.cv.wait_for(lock, std::chrono::seconds(10), [&watch]() { return watch.paused > 0; }));
    }
    std::string p = Packet("third");
    ASSERT_TRUE(qntest::WriteAll(clients[2], p.data(), p.size()));
    // Established connections keep being served meanwhile.
    EXPECT_TRUE(Echo(clients[1], "still served"));
    EXPECT_TRUE(Echo(clients[0], "still served too"));
    // Freeing a descriptor lets the waiting connection in.
    close(clients[0]);
    std::string back(p.size(), '\0');
    EXPECT_TRUE(qntest::ReadExactly(clients[2], &back[0], back.size()));
    EXPECT_EQ(p, back);
    EXPECT_GE(server.mgr().GetAcceptPauseCount(), 1);
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    EXPECT_TRUE(Echo(clients[1], "after"));
    close(clients[1]);
    close(clients[2]);
    for (int fd : fillers) {
        close(fd);
    }
    server.Stop();
}

// Send and SendCorked from four threads other than the loop's, while the loop itself corks
// packets onto the same connection from a timer (after the first of a tick those are copied
// into the loop's cork block without the send lock, while the foreign threads' packets queue
// behind it and their flushes stop in front of it). A corked packet from a foreign thread never
// touches the loop's list of corked connections: it leaves when the socket reports
// writability (queueing onto an empty send queue asks epoll for that).
class ForeignSendTest : public ConnectorMgrTest, public ::testing::WithParamInterface<bool> {};

TEST_P(ForeignSendTest, SendsFromFourForeignThreadsArriveIntact) {
    const bool corked = GetParam();
    ServerThread server(&m_pool);
    ASSERT_TRUE(server.ok());
    server.Start();
    RecordingHandler h;
    {
        CConnectorMgr client(&h, PoolOptions());
        ASSERT_EQ(0, client.Init());
        ConnId id = client.Dial(server.url().c_str());
        ASSERT_NE(0u, id);
        std::thread loop([&client]() { client.Run(); });
        ASSERT_TRUE(h.WaitFor([&h]() { return h.connected == 1; }));
        const int kThreads = 4;
        const int kPerThread = 500;
        auto make = [](int t, int i) {
            std::string payload = std::to_string(t) + ":" + std::to_string(i) + ":";
            payload.append(static_cast<size_t>(1 + (i * 37) % 3000), static_cast<char>('a' + (i + t) % 26));
            return Packet(payload);
        };
        // The loop's own sender is number kThreads: a few corked packets on every tick.
        int loop_sent = 0;  // loop thread only
        client.AddTimer(0, 1, [&]() {
            for (int k = 0; k < 5 && loop_sent < kPerThread; ++k) {
                std::string p = make(kThreads, loop_sent);
                if (client.SendCorked(id, p.data(), static_cast<unsigned int>(p.size())) <= 0) {
                    break;  // no room now: the next tick retries
                }
                ++loop_sent;
            }
        });
        std::vector<std::thread> senders;
        for (int t = 0; t < kThreads; ++t) {
            senders.emplace_back([&client, id, t, corked, &make]() {
                for (int i = 0; i < kPerThread; ++i) {
                    std::string p = make(t, i);
                    int ret;
                    while ((ret = corked
                                      ? client.SendCorked(id, p.data(), static_cast<unsigned int>(p.size()))
                                      : client.Send(id, p.data(), static_cast<unsigned int>(p.size()))) ==
                           0) {
                        std::this_thread::yield();  // no room now: retry
                    }
                    ASSERT_EQ(static_cast<int>(p.size()), ret);
                }
            });
        }
        for (auto& s : senders) {
            s.join();
        }
        ASSERT_TRUE(h.WaitFor([&h]() { return h.packets.size() == (kThreads + 1) * kPerThread; }));
        int next[kThreads + 1] = {0, 0, 0, 0, 0};
        for (const std::string& p : h.packets) {
            int t = 0, i = 0;
            ASSERT_EQ(2, sscanf(p.c_str() + 4, "%d:%d:", &t, &i));
            ASSERT_TRUE(t >= 0 && t <= kThreads);
            EXPECT_EQ(next[t], i);  // each sender's packets in its own order
            next[t] = i + 1;
            EXPECT_EQ(make(t, i), p);
        }
        client.Stop();
        loop.join();
    }
    server.Stop();
}

INSTANTIATE_TEST_SUITE_P(DirectAndCorked, ForeignSendTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& param) {
                             return std::string(param.param ? "Corked" : "Direct");
                         });

// Takes the numbered packets of SequencePackets and checks them and their order. Refuses
// every packet while `accept` is false, and more than `per_tick` in one tick when that is
// set (a slow application, which has the connection it paused resumed at the next tick);
// replies "done" once `done_at` packets were taken.
class SequenceHandler : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr*, ConnId conn_id, const char*, bool) override { id = conn_id; }
    bool OnPacket(CConnectorMgr* mgr, ConnId conn, const char* data, unsigned int len, bool) override {
        if (!accept || (per_tick > 0 && taken_this_tick >= per_tick)) {
            if (per_tick > 0) {
                mgr->Post([mgr, conn]() { mgr->ResumeReading(conn); });  // more next tick
            }
            return false;
        }
        ++taken_this_tick;
        if (len != 12 || CLengthPrefixParser::ReadHeader(data) != 12 ||
            CLengthPrefixParser::ReadHeader(data + 4) != static_cast<uint32_t>(count)) {
            ++bad;
        }
        if (++count == done_at) {
            std::string done = Packet("done");
            mgr->Send(conn, done.data(), static_cast<unsigned int>(done.size()));
        }
        return true;
    }
    void OnTick(CConnectorMgr*) override { taken_this_tick = 0; }
    bool accept = true;
    int per_tick = 0;  // 0: no limit
    int done_at = 0;   // 0: no reply
    ConnId id = 0;
    int taken_this_tick = 0;
    int count = 0;
    int bad = 0;
};

TEST_F(ConnectorMgrTest, BurstOfFiveThousandPacketsIsFullyDeliveredToASlowApplication) {
    SequenceHandler h;
    h.per_tick = 7;
    h.done_at = 5000;
    {
        CConnectorMgr server(&h, PoolOptions());
        int fd = ListenAndDial(server);
        ASSERT_GE(fd, 0);
        std::thread loop([&server]() { server.Run(); });
        std::string burst = SequencePackets(5000);
        ASSERT_TRUE(qntest::WriteAll(fd, burst.data(), burst.size()));
        std::string done = Packet("done");
        std::string back(done.size(), '\0');
        EXPECT_TRUE(qntest::ReadExactly(fd, &back[0], back.size(), 20000));
        EXPECT_EQ(done, back);
        server.Stop();
        loop.join();
        EXPECT_EQ(5000, h.count);
        EXPECT_EQ(0, h.bad);
        close(fd);
    }
}

TEST_F(ConnectorMgrTest, AReplyFollowedAtOnceByACloseIsDeliveredBeforeTheClose) {
    qntest::Listener peer;
    RecordingHandler h;
    {
        CConnectorMgr client(&h, PoolOptions());
        ASSERT_EQ(0, client.Init());
        ASSERT_NE(0u, client.Dial(peer.url().c_str()));
        for (int i = 0; i < 400 && h.connected == 0; ++i) {
            client.RunOnce(25);
        }
        ASSERT_EQ(1, h.connected);
        int fd = peer.Accept(true);
        ASSERT_GE(fd, 0);
        std::string replies = Packet("reply one") + Packet(std::string(70000, 'x')) + Packet("last reply");
        ASSERT_TRUE(qntest::WriteAll(fd, replies.data(), replies.size()));
        close(fd);
        for (int i = 0; i < 400 && h.closed == 0; ++i) {
            client.RunOnce(25);
        }
        ASSERT_EQ(1, h.closed);
        ASSERT_EQ(3u, h.packets.size());
        EXPECT_EQ(3u, h.packets_at_close);
        EXPECT_EQ(Packet("reply one"), h.packets[0]);
        EXPECT_EQ(Packet(std::string(70000, 'x')), h.packets[1]);
        EXPECT_EQ(Packet("last reply"), h.packets[2]);
        EXPECT_EQ(0u, client.GetConnectionCount());
    }
    peer.Close();
}

// The handler pattern `more ? SendCorked : Send`: the last reply of a run is sent with Send,
// which joins the replies corked before it instead of flushing them and writing again, so
// the whole run is still queued when the handler returns and leaves with one flush.
class CorkingEcho : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr*, ConnId conn_id, const char*, bool) override { id = conn_id; }
    bool OnPacket(CConnectorMgr* mgr, ConnId conn, const char* data, unsigned int len, bool more) override {
        int ret = more ? mgr->SendCorked(conn, data, len) : mgr->Send(conn, data, len);
        queued_after.push_back(mgr->GetConnector(conn)->GetSendQCount());
        return ret != 0;
    }
    ConnId id = 0;
    std::vector<int> queued_after;  // send queue blocks after each reply
};

TEST_F(ConnectorMgrTest, TheLastReplyOfACorkedRunJoinsTheCork) {
    CorkingEcho h;
    {
        CConnectorMgr server(&h, PoolOptions());
        int fd = ListenAndDial(server);
        ASSERT_GE(fd, 0);
        Pump(server, [&]() { return h.id != 0; });
        ASSERT_NE(0u, h.id);
        // One lone packet first: it is written at once (nothing is queued after it).
        std::string lone = Packet("lone");
        ASSERT_TRUE(qntest::WriteAll(fd, lone.data(), lone.size()));
        Pump(server, [&]() { return h.queued_after.size() >= 1; });
        std::string got(lone.size(), '\0');
        ASSERT_TRUE(qntest::ReadExactly(fd, &got[0], got.size()));
        EXPECT_EQ(lone, got);
        std::string three = Packet("one") + Packet("two") + Packet("three");
        ASSERT_TRUE(qntest::WriteAll(fd, three.data(), three.size()));
        Pump(server, [&]() { return h.queued_after.size() >= 4; });
        ASSERT_EQ(4u, h.queued_after.size());
        // The lone packet's direct write left nothing queued (a block is at most queued while
        // the run is corked); the last reply of the run left all three in one queued block.
        EXPECT_EQ((std::vector<int>{0, 1, 1, 1}), h.queued_after);
        got.assign(three.size(), '\0');
        ASSERT_TRUE(qntest::ReadExactly(fd, &got[0], got.size()));
        EXPECT_EQ(three, got);  // in order, after the end-of-tick flush
        close(fd);
    }
}

// `more` tells the handler that another packet of the connection follows in this tick: with
// Peek/Drop, a packet already framed behind it; with the receive callback, bytes already read
// behind it. Three packets written at once are offered as more, more, last in both modes.
class MoreFlagTest : public ConnectorMgrTest, public ::testing::WithParamInterface<bool> {};

TEST_P(MoreFlagTest, ThreePacketsReadTogetherAreOfferedAsMoreMoreLast) {
    RecordingHandler h;
    ConnectorMgrOptions o;
    o.pool = &m_pool;
    o.use_recv_callback = GetParam();
    {
        CConnectorMgr server(&h, o);
        int fd = ListenAndDial(server);
        ASSERT_GE(fd, 0);
        Pump(server, [&]() { return h.connected != 0; });
        ASSERT_EQ(1, h.connected);
        std::string three = Packet("one") + Packet("two") + Packet("three");
        ASSERT_TRUE(qntest::WriteAll(fd, three.data(), three.size()));
        Pump(server, [&]() { return h.packets.size() >= 3; });
        ASSERT_EQ(3u, h.packets.size());
        EXPECT_EQ(Packet("three"), h.packets[2]);
        EXPECT_EQ((std::vector<bool>{true, true, false}), h.mores);
        close(fd);
    }
}

INSTANTIATE_TEST_SUITE_P(PeekAndCallback, MoreFlagTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& param) {
                             return std::string(param.param ? "Callback" : "Peek");
                         });

// Regression: while the application refused packets and the ring was full, the socket stayed
// readable and the level-triggered wait returned at once on every tick: the loop spun at
// full CPU until the application took packets again. Reading is now paused (EPOLLIN out of
// the registration), the wait finds nothing ready, and reading resumes with the packets.
TEST_F(ConnectorMgrTest, AFullRingPausesReadingInsteadOfSpinning) {
    SequenceHandler h;
    h.accept = false;
    {
        CConnectorMgr server(&h, PoolOptions());
        int fd = ListenAndDial(server);
        ASSERT_GE(fd, 0);
        Pump(server, [&]() { return h.id != 0; });
        ASSERT_NE(0u, h.id);
        QUOLNET::CTcpConnector* k = server.GetConnector(h.id);
        ASSERT_NE(nullptr, k);
        // The loop is the only thread that reads and consumes a managed connection, so the
        // receive side takes no lock (sending keeps its any-thread contract).
        EXPECT_TRUE(k->GetSingleThreadRecv());

        const int kPackets = 1500;  // more than the ring's 1000
        std::string stream = SequencePackets(kPackets);
        ASSERT_TRUE(qntest::WriteAll(fd, stream.data(), stream.size()));
        Pump(server, [&]() { return k->IsReadingPaused(); });
        ASSERT_TRUE(k->IsReadingPaused());
        EXPECT_EQ(1000, k->GetPacketInfoCnt());
        const bool epoll = std::string(server.GetIoBackendName()) == "epoll";  // the set can be read
        if (epoll) {
            EXPECT_EQ(0, qntest::RegisteredEvents(server.GetEpollFd(), k->GetSocket()) & EPOLLIN);
        }
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(0, server.RunOnce(0)) << "tick " << i;  // nothing ready: no spin
        }
        EXPECT_EQ(0, h.count);

        h.accept = true;
        server.ResumeReading(h.id);  // the refusal paused it: nothing is offered until then
        Pump(server, [&]() { return h.count >= kPackets; });
        EXPECT_EQ(kPackets, h.count);
        EXPECT_EQ(0, h.bad);
        EXPECT_FALSE(k->IsReadingPaused());
        if (epoll) {
            EXPECT_NE(0, qntest::RegisteredEvents(server.GetEpollFd(), k->GetSocket()) & EPOLLIN);
        }
        close(fd);
    }
}

// A handler that takes every packet never sees reading paused, however much is waiting:
// rounds that end at the per-tick limit are still making progress.
TEST_F(ConnectorMgrTest, AFastHandlerIsNeverPaused) {
    SequenceHandler h;
    {
        CConnectorMgr server(&h, PoolOptions());
        int fd = ListenAndDial(server);
        ASSERT_GE(fd, 0);
        const int kPackets = 40000;  // 480 KB: more rounds of the 1000-packet ring than one tick takes
        std::string stream = SequencePackets(kPackets);
        std::thread writer([fd, &stream]() { qntest::WriteAll(fd, stream.data(), stream.size()); });
        int paused_ticks = 0;
        for (int i = 0; i < 4000 && h.count < kPackets; ++i) {
            server.RunOnce(25);
            QUOLNET::CTcpConnector* k = h.id != 0 ? server.GetConnector(h.id) : nullptr;
            paused_ticks += (k != nullptr && k->IsReadingPaused()) ? 1 : 0;
        }
        writer.join();
        EXPECT_EQ(kPackets, h.count);
        EXPECT_EQ(0, h.bad);
        EXPECT_EQ(0, paused_ticks);
        close(fd);
    }
}

TEST(LengthPrefixParser, ReadsTheLengthAndRefusesShortAndOverlongOnes) {
    CLengthPrefixParser parser(100);
    char b[4];
    EXPECT_EQ(0, parser.ParsePackLength(b, 3));
    CLengthPrefixParser::WriteHeader(b, 100);
    EXPECT_EQ(100, parser.ParsePackLength(b, 4));
    CLengthPrefixParser::WriteHeader(b, 101);
    EXPECT_LT(parser.ParsePackLength(b, 4), 0);
    CLengthPrefixParser::WriteHeader(b, 3);
    EXPECT_LT(parser.ParsePackLength(b, 4), 0);
    CLengthPrefixParser::WriteHeader(b, 4);
    EXPECT_EQ(4, parser.ParsePackLength(b, 4));
}

TEST(TcpListenerURL, RejectsMalformedURLs) {
    struct sockaddr_storage ss;
    socklen_t len = 0;
    EXPECT_EQ(0, QUOLNET::CTcpListener::ParseURL("tcp://127.0.0.1:0", &ss, &len, nullptr));
    EXPECT_EQ(0, QUOLNET::CTcpListener::ParseURL("tcp://[::1]:65535", &ss, &len, nullptr));
    EXPECT_EQ(-1, QUOLNET::CTcpListener::ParseURL("http://127.0.0.1:80", &ss, &len, nullptr));
    EXPECT_EQ(-1, QUOLNET::CTcpListener::ParseURL("tcp://127.0.0.1", &ss, &len, nullptr));
    EXPECT_EQ(-1, QUOLNET::CTcpListener::ParseURL("tcp://127.0.0.1:65536", &ss, &len, nullptr));
    EXPECT_EQ(-1, QUOLNET::CTcpListener::ParseURL("tcp://localhost:80", &ss, &len, nullptr));
    EXPECT_EQ(-1, QUOLNET::CTcpListener::ParseURL("tcp://[::1:80", &ss, &len, nullptr));
}

}  // namespace
