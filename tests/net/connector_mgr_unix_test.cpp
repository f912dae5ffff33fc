// CConnectorMgr over Unix-domain sockets: unix:///path and unix://@name listened on and
// dialled with echo, a stale socket file replaced, a live one and a plain file left alone,
// malformed URLs, a refused dial, and the TCP limits applying as they are.
#include "net/connector_mgr.h"
#include "net/connector_group.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

namespace {

using QUOLNET::CConnectorMgr;
using QUOLNET::CloseInfo;
using QUOLNET::CloseLimit;
using QUOLNET::CloseReason;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;
using QUOLNET::DialOptions;

using qntest::Packet;
using qntest::Pump;

// Echoes what its listeners accept; records what happens to what it dialled.
class Recorder : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr* mgr, ConnId id, const char* url, bool accepted) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (accepted) {
            accepted_ids.insert(id);
            accepted_urls.push_back(url);
            return;
        }
        ++connects;
        urls.push_back(url);
        QUOLNET::CTcpConnector* k = mgr->GetConnector(id);
        local_urls.push_back(k != nullptr ? k->GetLocalURL() : "");
    }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        bool echo = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            echo = accepted_ids.count(id) != 0;
            if (!echo) {
                received.emplace_back(data, len);
            }
        }
        if (echo) {
            int ret = mgr->Send(id, data, len);
            if (ret == CConnectorMgr::kSendNoRoom) {
                return false;  // a peer that does not read: paused until there is room
            }
            if (ret != CConnectorMgr::kSendClosing) {  // what is left after a limit closed it
                EXPECT_EQ(static_cast<int>(len), ret);
            }
        }
        return true;
    }
    void OnClosed(CConnectorMgr*, ConnId id, const CloseInfo& info) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (accepted_ids.erase(id) != 0) {
            accepted_closes.push_back(info);
            return;
        }
        closes.push_back(info);
    }

    // Guards the members below when a group's loops share the recorder; a manager on the
    // test's thread reads them directly.
    std::mutex mutex;
    std::set<ConnId> accepted_ids;
    std::vector<std::string> accepted_urls;
    std::vector<CloseInfo> accepted_closes;
    int connects = 0;
    std::vector<std::string> urls;
    std::vector<std::string> local_urls;
    std::vector<std::string> received;
    std::vector<CloseInfo> closes;
};

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

class UnixTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_fds_before = qntest::CountOpenFds();
        char dir[] = "/tmp/quolnet-unix-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir));
        m_dir = dir;
    }
    void TearDown() override {
        m_mgr.reset();
        EXPECT_EQ(0u, m_pool.GetUsedCount());
        EXPECT_EQ(m_fds_before, qntest::CountOpenFds());
        for (const std::string& f : m_files) {
            unlink(f.c_str());
        }
        rmdir(m_dir.c_str());
    }
    CConnectorMgr& Mgr() {
        if (m_mgr == nullptr) {
            ConnectorMgrOptions o = m_options;
            o.pool = &m_pool;
            o.log_cat = m_log.cat();
            o.max_packet_len = 64 * 1024;
            m_mgr.reset(new CConnectorMgr(&m_rec, o));
            EXPECT_EQ(0, m_mgr->Init());
        }
        return *m_mgr;
    }
    std::string Path(const char* name) {
        std::string p = m_dir + "/" + name;
        m_files.push_back(p);
        return p;
    }
    void Echo(ConnId id, const std::string& payload) {
        std::string p = Packet(payload);
        size_t before = m_rec.received.size();
        ASSERT_EQ(static_cast<int>(p.size()), Mgr().Send(id, p.data(), static_cast<unsigned int>(p.size())));
        ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.received.size() > before; })) << m_log.Dump();
        EXPECT_EQ(p, m_rec.received.back());
    }
    // Dials `url` and pumps until it is connected; the id.
    ConnId DialAndWait(const std::string& url) {
        ConnId id = Mgr().Dial(url.c_str());
        EXPECT_NE(0u, id) << m_log.Dump();
        int before = m_rec.connects;
        EXPECT_TRUE(Pump(Mgr(), [&]() { return m_rec.connects > before && !m_rec.accepted_ids.empty(); }))
            << m_log.Dump();
        return id;
    }

    ConnectorMgrOptions m_options;  // what Mgr() starts from (pool, log and packet size are set)
    QUOLNET::CNetBufferMgr m_pool{256};
    qntest::LogCapture m_log{QUOLNET::LOG_PRIORITY_INFO};
    Recorder m_rec;
    std::unique_ptr<CConnectorMgr> m_mgr;
    std::string m_dir;
    std::vector<std::string> m_files;
    int m_fds_before = 0;
};

TEST_F(UnixTest, PathListensDialsAndEchoes) {
    std::string path = Path("app.sock");
    std::string url = "unix://" + path;
    ASSERT_EQ(0, Mgr().Listen(url.c_str()));
    EXPECT_EQ(url, Mgr().GetListenURL(0));
    EXPECT_TRUE(Exists(path));
    ConnId id = DialAndWait(url);
    ASSERT_EQ(1, m_rec.connects);
    EXPECT_EQ(url, m_rec.urls[0]);
    EXPECT_EQ("unix://", m_rec.local_urls[0]);  // the dialling side is unnamed
    ASSERT_EQ(1u, m_rec.accepted_urls.size());
    EXPECT_EQ(url, m_rec.accepted_urls[0]);  // accepted ones are named by the listener
    Echo(id, "over a unix socket");
    Echo(id, std::string(20000, 'u'));  // several blocks
    EXPECT_EQ(0u, Mgr().GetResolveCount());
    std::string stats = Mgr().FormatStats(true);
    EXPECT_NE(std::string::npos, stats.find("unix:///tmp/quolnet-unix-")) << stats;  // a row per connection
    EXPECT_NE(std::string::npos, stats.find("2|2")) << stats;
    m_mgr.reset();
    EXPECT_FALSE(Exists(path));  // the listener removed its file
}

TEST_F(UnixTest, AbstractNameListensDialsAndEchoes) {
    std::string url = "unix://@quolnet-test-" + std::to_string(getpid());
    ASSERT_EQ(0, Mgr().Listen(url.c_str()));
    EXPECT_EQ(url, Mgr().GetListenURL(0));
    ConnId id = DialAndWait(url);
    EXPECT_EQ(url, m_rec.urls[0]);
    Echo(id, "abstract");
    // A second listener on the same name is refused by the kernel.
    EXPECT_EQ(-2, Mgr().Listen(url.c_str()));
}

TEST_F(UnixTest, StaleSocketFileIsReplaced) {
    std::string path = Path("stale.sock");
    {
        // A server that died: its socket file stays, nothing listens behind it.
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un a;
        memset(&a, 0, sizeof(a));
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof(a.sun_path), "%s", path.c_str());
        ASSERT_EQ(0, bind(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof(a)));
        ASSERT_EQ(0, listen(fd, 1));
        close(fd);
    }
    ASSERT_TRUE(Exists(path));
    std::string url = "unix://" + path;
    ASSERT_EQ(0, Mgr().Listen(url.c_str())) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(QUOLNET::LOG_PRIORITY_INFO,
                          "replaced the stale socket file of " + url + " (no server behind it)"))
        << m_log.Dump();
    ConnId id = DialAndWait(url);
    Echo(id, "after the stale file");
}

TEST_F(UnixTest, LiveServerAndPlainFileAreLeftAlone) {
    std::string path = Path("live.sock");
    std::string url = "unix://" + path;
    ASSERT_EQ(0, Mgr().Listen(url.c_str()));
    qntest::LogCapture other_log(QUOLNET::LOG_PRIORITY_INFO);
    Recorder other_rec;
    ConnectorMgrOptions o;
    o.pool = &m_pool;
    o.log_cat = other_log.cat();
    {
        CConnectorMgr other(&other_rec, o);
        ASSERT_EQ(0, other.Init());
        EXPECT_EQ(-2, other.Listen(url.c_str()));
        EXPECT_TRUE(other_log.HasPrefix(QUOLNET::LOG_PRIORITY_ERROR,
                                        "cannot listen on " + url + ": a live server is listening there"))
            << other_log.Dump();
        // A file that is not a socket is never removed.
        std::string plain = Path("plain.txt");
        FILE* f = fopen(plain.c_str(), "w");
        ASSERT_NE(nullptr, f);
        fputs("keep me", f);
        fclose(f);
        EXPECT_EQ(-2, other.Listen(("unix://" + plain).c_str()));
        EXPECT_TRUE(other_log.Has(QUOLNET::LOG_PRIORITY_ERROR, "cannot listen on unix://" + plain +
                                                                   ": the path exists and is not a socket"))
            << other_log.Dump();
        EXPECT_TRUE(Exists(plain));
    }
    // The live server is untouched: its file is there and it still accepts.
    EXPECT_TRUE(Exists(path));
    ConnId id = DialAndWait(url);
    Echo(id, "still serving");
}

TEST_F(UnixTest, MalformedUrlsAreRefused) {
    std::string too_long = "unix:///" + std::string(200, 'x');
    const char* bad[] = {"unix://", "unix://@", too_long.c_str()};
    for (const char* url : bad) {
        EXPECT_EQ(-1, Mgr().Listen(url)) << url;
        EXPECT_EQ(0u, Mgr().Dial(url)) << url;
    }
    DialOptions d;
    d.socket.source_address = "127.0.0.1";
    EXPECT_EQ(0u, Mgr().Dial(("unix://" + Path("x.sock")).c_str(), d));
    EXPECT_EQ(0u, Mgr().GetConnectionCount());
    // The connector's tcp:// checks are unchanged.
    EXPECT_FALSE(QUOLNET::CTcpConnector::CheckURL("unix:///tmp/x.sock"));
}

TEST_F(UnixTest, DialToNothingIsRefusedAtOnce) {
    std::string url = "unix://" + Path("nobody.sock");
    DialOptions d;
    d.reconnect = true;
    d.max_attempts = 2;
    d.backoff_initial_ms = 1;
    ConnId id = Mgr().Dial(url.c_str(), d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.closes.empty(); })) << m_log.Dump();
    EXPECT_EQ(CloseReason::kDialRefused, m_rec.closes[0].reason);
    EXPECT_EQ(ENOENT, m_rec.closes[0].error);
    EXPECT_FALSE(m_rec.closes[0].reconnecting);
}

TEST_F(UnixTest, TheLimitsOfTcpApply) {
    std::string path = Path("limits.sock");
    std::string url = "unix://" + path;
    ASSERT_EQ(0, Mgr().Listen(url.c_str()));
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un a;
    memset(&a, 0, sizeof(a));
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof(a.sun_path), "%s", path.c_str());
    ASSERT_EQ(0, connect(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof(a)));
    // A packet announced longer than max_packet_len (64 KiB here).
    char header[4];
    QUOLNET::CLengthPrefixParser::WriteHeader(header, 1u << 20);
    ASSERT_TRUE(qntest::WriteAll(fd, header, sizeof(header)));
    ASSERT_TRUE(Pump(Mgr(), [&]() { return !m_rec.accepted_closes.empty(); })) << m_log.Dump();
    EXPECT_EQ(CloseReason::kLimit, m_rec.accepted_closes[0].reason);
    EXPECT_EQ(CloseLimit::kPacketTooLong, m_rec.accepted_closes[0].limit);
    EXPECT_EQ(1u, Mgr().GetLimitCloseCount(CloseLimit::kPacketTooLong));
    close(fd);
}

// A unix peer (a blocking socket to `path`), or -1.
int DialPath(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un a;
    memset(&a, 0, sizeof(a));
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof(a.sun_path), "%s", path.c_str());
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof(a)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The hostile-peer defences hold over unix sockets as over TCP: a peer that withholds the
// rest of a packet meets the packet deadline, one that never reads its replies meets the
// send stall, and one that half-closes gets its replies, then a normal end.
TEST_F(UnixTest, TheDeadlinesOfTcpApply) {
    m_options.packet_deadline_ms = 200;
    m_options.send_stall_ms = 300;
    m_options.max_send_blocks = 4;
    std::string path = Path("deadlines.sock");
    ASSERT_EQ(0, Mgr().Listen(("unix://" + path).c_str()));

    int trickler = DialPath(path);
    ASSERT_GE(trickler, 0);
    ASSERT_TRUE(qntest::WriteAll(trickler, "\0\0", 2));  // half a header, then nothing
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.accepted_closes.size() == 1; })) << m_log.Dump();
    EXPECT_EQ(CloseLimit::kPacketDeadline, m_rec.accepted_closes[0].limit);
    close(trickler);

    int reader = DialPath(path);  // never reads
    ASSERT_GE(reader, 0);
    std::string chunk = Packet(std::string(16 * 1024, 'r'));
    size_t off = 0;
    for (int i = 0; i < 4000 && m_rec.accepted_closes.size() < 2; ++i) {
        ssize_t n = send(reader, chunk.data() + off, chunk.size() - off, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            off = (off + static_cast<size_t>(n)) % chunk.size();
        }
        Mgr().RunOnce(n > 0 ? 0 : 5);
    }
    ASSERT_EQ(2u, m_rec.accepted_closes.size()) << m_log.Dump();
    EXPECT_EQ(CloseLimit::kSendStall, m_rec.accepted_closes[1].limit);
    close(reader);

    int polite = DialPath(path);
    ASSERT_GE(polite, 0);
    std::string requests = Packet("one") + Packet("two");
    ASSERT_TRUE(qntest::WriteAll(polite, requests.data(), requests.size()));
    ASSERT_EQ(0, shutdown(polite, SHUT_WR));
    ASSERT_TRUE(Pump(Mgr(), [&]() { return m_rec.accepted_closes.size() == 3; })) << m_log.Dump();
    EXPECT_EQ(CloseReason::kPeerClosed, m_rec.accepted_closes[2].reason);
    std::string back(requests.size(), '\0');
    ASSERT_TRUE(qntest::ReadExactly(polite, &back[0], back.size()));
    EXPECT_EQ(requests, back);
    char c;
    EXPECT_EQ(0, recv(polite, &c, 1, 0));  // a normal end of stream
    close(polite);
}

TEST_F(UnixTest, GroupListensOnOneLoopAndHandsConnectionsOut) {
    std::string url = "unix://" + Path("group.sock");
    Recorder rec;
    QUOLNET::ConnectorGroupOptions o;
    o.threads = 2;
    o.loop.log_cat = m_log.cat();
    QUOLNET::CConnectorGroup group(&rec, o);
    ASSERT_EQ(0, group.Init());
    ASSERT_EQ(0, group.Listen(url.c_str())) << m_log.Dump();
    EXPECT_FALSE(group.IsReusePort());  // one socket per path: loop 0 hands the connections out
    ASSERT_EQ(0, group.Start());
    std::vector<ConnId> ids;
    for (int i = 0; i < 4; ++i) {
        ids.push_back(group.Dial(url.c_str()));
        ASSERT_NE(0u, ids.back());
    }
    auto locked = [&rec](auto fn) {
        std::lock_guard<std::mutex> lock(rec.mutex);
        return fn();
    };
    ASSERT_TRUE(qntest::Eventually([&]() { return locked([&]() { return rec.connects == 4; }); }));
    std::string p = Packet("group over unix");
    for (ConnId id : ids) {
        ASSERT_EQ(static_cast<int>(p.size()), group.Send(id, p.data(), static_cast<unsigned int>(p.size())));
    }
    ASSERT_TRUE(qntest::Eventually([&]() { return locked([&]() { return rec.received.size() == 4; }); }));
    group.Stop();
    for (const std::string& r : rec.received) {
        EXPECT_EQ(p, r);
    }
}

}  // namespace
