// Stopping a server without dropping anyone: StopListening, ListConnections and Shutdown,
// for one manager and for a group, with traffic in flight.
//
// The peers are raw non-blocking sockets driven by one epoll on the test thread: each sends
// numbered packets and reads to the end of stream. What each peer receives must be whole
// echoes of what it sent, in order, every byte the server accepted for it, then a normal end
// of stream.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "net/connector_group.h"
#include "net/connector_mgr.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

namespace {

using QUOLNET::CConnectorGroup;
using QUOLNET::CConnectorMgr;
using QUOLNET::CloseInfo;
using QUOLNET::CloseReason;
using QUOLNET::ConnectorGroupOptions;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;

// Echoes every packet and counts, per connection, the bytes its Sends accepted.
class CountingEcho : public QUOLNET::IConnectorHandler {
  public:
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) override {
        int ret = more ? mgr->SendCorked(id, data, len) : mgr->Send(id, data, len);
        if (ret == CConnectorMgr::kSendNoRoom) {
            return false;
        }
        if (ret > 0) {
            std::lock_guard<std::mutex> lock(mutex);
            accepted[id] += ret;
        }
        return true;
    }
    void OnConnected(CConnectorMgr*, ConnId id, const char* url, bool) override {
        std::lock_guard<std::mutex> lock(mutex);
        peer_of[url] = id;
        ++connected;
    }
    void OnClosed(CConnectorMgr*, ConnId id, const CloseInfo& info) override {
        std::lock_guard<std::mutex> lock(mutex);
        closed[id] = info;
    }
    std::mutex mutex;
    std::map<ConnId, long> accepted;
    std::map<std::string, ConnId> peer_of;  // the peer's URL as the server sees it
    std::map<ConnId, CloseInfo> closed;
    std::atomic<int> connected{0};
};

// 8-byte packets numbered per connection: header and sequence number.
std::string Numbered(uint32_t seq) {
    std::string p(8, '\0');
    QUOLNET::CLengthPrefixParser::WriteHeader(&p[0], 8);
    memcpy(&p[4], &seq, 4);
    return p;
}

struct Peer {
    int fd = -1;
    std::string url;  // "tcp://127.0.0.1:PORT" of this end
    uint32_t sent = 0;
    std::string out;  // bytes written and not yet taken by the socket
    std::string got;
    bool eof = false;
    int error = 0;
};

// Dials `n` non-blocking peers to `url`.
std::vector<Peer> DialPeers(const std::string& url, int n) {
    std::vector<Peer> peers;
    for (int i = 0; i < n; ++i) {
        Peer p;
        p.fd = qntest::DialURL(url);
        if (p.fd < 0) {
            break;
        }
        struct sockaddr_in a;
        socklen_t len = sizeof(a);
        getsockname(p.fd, reinterpret_cast<struct sockaddr*>(&a), &len);
        p.url = "tcp://127.0.0.1:" + std::to_string(ntohs(a.sin_port));
        int flags = fcntl(p.fd, F_GETFL);
        fcntl(p.fd, F_SETFL, flags | O_NONBLOCK);
        peers.push_back(p);
    }
    return peers;
}

// Drives the peers: each keeps four packets in flight (a new one for each echo that comes
// back, until `stop_sending`), reads what comes, and ends when it has read the end of
// stream (then closes) or an error. Returns when every peer has ended or `timeout_ms` has
// passed.
void DrivePeers(std::vector<Peer>& peers, const std::atomic<bool>& stop_sending, int timeout_ms) {
    int ep = epoll_create1(0);
    auto send_more = [&](Peer& p, int count) {
        for (int k = 0; k < count && !stop_sending.load(); ++k) {
            p.out += Numbered(p.sent++);
        }
        if (!p.out.empty()) {
            ssize_t w = send(p.fd, p.out.data(), p.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (w > 0) {
                p.out.erase(0, static_cast<size_t>(w));
            }
        }
    };
    for (size_t i = 0; i < peers.size(); ++i) {
        struct epoll_event ev;
        ev.events = EPOLLIN;
        ev.data.u64 = i;
        epoll_ctl(ep, EPOLL_CTL_ADD, peers[i].fd, &ev);
        send_more(peers[i], 4);
    }
    size_t open = peers.size();
    std::vector<struct epoll_event> evs(256);
    std::vector<char> buf(65536);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (open > 0 && std::chrono::steady_clock::now() < deadline) {
        int n = epoll_wait(ep, evs.data(), static_cast<int>(evs.size()), 20);
        for (int e = 0; e < n; ++e) {
            Peer& p = peers[evs[static_cast<size_t>(e)].data.u64];
            if (p.fd < 0) {
                continue;
            }
            ssize_t r = recv(p.fd, buf.data(), buf.size(), 0);
            if (r > 0) {
                size_t before = p.got.size() / 8;
                p.got.append(buf.data(), static_cast<size_t>(r));
                send_more(p, static_cast<int>(p.got.size() / 8 - before));
            } else if (r == 0 || (errno != EAGAIN && errno != EINTR)) {
                p.eof = r == 0;
                p.error = r == 0 ? 0 : errno;
                epoll_ctl(ep, EPOLL_CTL_DEL, p.fd, nullptr);
                close(p.fd);
                p.fd = -1;
                --open;
            }
        }
    }
    close(ep);
}

// What a peer got: whole echoes of 0, 1, 2, ... in order. Returns false (with `why`) if not.
bool WholeEchoes(const Peer& p, std::string* why) {
    if (p.got.size() % 8 != 0) {
        *why = p.url + ": a partial packet at the end";
        return false;
    }
    for (size_t i = 0; i < p.got.size() / 8; ++i) {
        if (p.got.compare(i * 8, 8, Numbered(static_cast<uint32_t>(i))) != 0) {
            *why = p.url + ": packet " + std::to_string(i) + " differs";
            return false;
        }
    }
    return true;
}

// Raises the soft descriptor limit; returns how many peers this test may open.
int PeersAllowed(int wanted) {
    struct rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
    return static_cast<int>(std::min<rlim_t>(static_cast<rlim_t>(wanted), (rl.rlim_cur - 256) / 2));
}

// 1000 connections in mid-traffic, Shutdown from another thread: every connection ends
// gracefully before the deadline, every peer gets every byte the server accepted for it as
// whole echoes, then a normal end of stream; Run returns by itself.
TEST(ConnectorMgrShutdown, ThousandConnectionsInMidTrafficAllDrainBeforeTheDeadline) {
    int n = PeersAllowed(1000);
    ASSERT_GE(n, 100);
    CountingEcho h;
    ConnectorMgrOptions o;
    o.log_cat = nullptr;
    CConnectorMgr server(&h, o);
    ASSERT_EQ(0, server.Init());
    ASSERT_GT(server.Listen("tcp://127.0.0.1:0"), 0);
    std::string url = server.GetListenURL(0);
    std::atomic<bool> run_returned{false};
    std::thread loop([&]() {
        server.Run();
        run_returned = true;
    });
    std::vector<Peer> peers = DialPeers(url, n);
    ASSERT_EQ(static_cast<size_t>(n), peers.size());
    ASSERT_TRUE(qntest::Eventually([&]() { return h.connected.load() == n; }));
    EXPECT_EQ(static_cast<size_t>(n), server.ListConnections().size());
    std::atomic<bool> stop_sending{false};
    auto started = std::chrono::steady_clock::now();
    std::thread stopper([&]() {
        // Let traffic flow for a moment, then drain with a generous deadline.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        server.Shutdown(10000);
    });
    DrivePeers(peers, stop_sending, 20000);
    stopper.join();
    loop.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_TRUE(run_returned.load());
    EXPECT_LT(secs, 12.0);
    EXPECT_EQ(static_cast<uint64_t>(n), server.GetShutdownDrainedCount());
    EXPECT_EQ(0u, server.GetShutdownAbortedCount());
    EXPECT_EQ(0u, server.GetConnectionCount());
    long echoed = 0;
    std::lock_guard<std::mutex> lock(h.mutex);
    for (const Peer& p : peers) {
        std::string why;
        EXPECT_TRUE(WholeEchoes(p, &why)) << why;
        EXPECT_TRUE(p.eof) << p.url << ": errno " << p.error;
        ConnId id = h.peer_of[p.url];
        EXPECT_EQ(h.accepted[id], static_cast<long>(p.got.size())) << p.url;
        EXPECT_EQ(CloseReason::kClosedLocally, h.closed[id].reason) << p.url;
        echoed += static_cast<long>(p.got.size() / 8);
    }
    EXPECT_GT(echoed, static_cast<long>(n));  // traffic was in flight
    // No listener is left: a new dial is refused.
    EXPECT_LT(qntest::DialURL(url), 0);
}

// A peer that never reads and never ends its stream cannot hold the shutdown past its
// deadline: it is aborted then, counted apart, and Run returns.
TEST(ConnectorMgrShutdown, APeerThatNeverEndsIsAbortedAtTheDeadline) {
    CountingEcho h;
    ConnectorMgrOptions o;
    o.log_cat = nullptr;
    CConnectorMgr server(&h, o);
    int stubborn = qntest::ListenAndDial(server);
    ASSERT_GE(stubborn, 0);
    int polite = qntest::DialListener(server);
    ASSERT_GE(polite, 0);
    ASSERT_TRUE(qntest::Pump(server, [&]() { return h.connected.load() == 2; }));
    server.Shutdown(300);
    // The polite peer reads to its end and closes; the stubborn one does nothing.
    std::thread reader([&]() {
        char c;
        while (recv(polite, &c, 1, 0) > 0) {
        }
        close(polite);
    });
    auto started = std::chrono::steady_clock::now();
    int ticks = 0;
    while (!server.IsStopping() && ticks < 2000) {
        server.RunOnce(50);
        ++ticks;
    }
    reader.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_TRUE(server.IsStopping());
    EXPECT_LT(secs, 3.0);
    EXPECT_EQ(1u, server.GetShutdownDrainedCount());
    EXPECT_EQ(1u, server.GetShutdownAbortedCount());
    EXPECT_EQ(0u, server.GetConnectionCount());
    close(stubborn);
}

// A group drains every loop; StopListening alone keeps the connections.
TEST(ConnectorGroupShutdown, EveryLoopDrains) {
    int n = PeersAllowed(200);
    CountingEcho h;
    ConnectorGroupOptions o;
    o.threads = 2;
    o.loop.log_cat = nullptr;
    CConnectorGroup group(&h, o);
    ASSERT_EQ(0, group.Init());
    ASSERT_GT(group.Listen("tcp://127.0.0.1:0"), 0);
    ASSERT_EQ(0, group.Start());
    std::vector<Peer> peers = DialPeers(group.GetListenURL(), n);
    ASSERT_EQ(static_cast<size_t>(n), peers.size());
    ASSERT_TRUE(qntest::Eventually([&]() { return h.connected.load() == n; }));
    EXPECT_EQ(static_cast<size_t>(n), group.ListConnections().size());
    std::atomic<bool> stop_sending{false};
    std::thread stopper([&]() {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        group.Shutdown(10000);
    });
    DrivePeers(peers, stop_sending, 20000);
    stopper.join();
    EXPECT_EQ(static_cast<uint64_t>(n), group.GetShutdownDrainedCount());
    EXPECT_EQ(0u, group.GetShutdownAbortedCount());
    for (const Peer& p : peers) {
        std::string why;
        EXPECT_TRUE(WholeEchoes(p, &why)) << why;
        EXPECT_TRUE(p.eof) << p.url;
    }
}

TEST(ConnectorMgrShutdown, StopListeningKeepsTheConnections) {
    CountingEcho h;
    ConnectorMgrOptions o;
    o.log_cat = nullptr;
    CConnectorMgr server(&h, o);
    int fd = qntest::ListenAndDial(server);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(qntest::Pump(server, [&]() { return h.connected.load() == 1; }));
    std::string url = server.GetListenURL(0);
    server.StopListening();
    EXPECT_LT(qntest::DialURL(url), 0);
    std::string ping = qntest::Packet("ping");
    ASSERT_TRUE(qntest::WriteAll(fd, ping.data(), ping.size()));
    std::string back(ping.size(), '\0');
    std::thread reader([&]() { EXPECT_TRUE(qntest::ReadExactly(fd, &back[0], back.size())); });
    ASSERT_TRUE(qntest::Pump(server, [&]() { return h.accepted.size() == 1; }));
    server.RunOnce(10);
    reader.join();
    EXPECT_EQ(ping, back);
    close(fd);
}

}  // namespace
