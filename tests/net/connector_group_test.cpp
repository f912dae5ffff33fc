// CConnectorGroup over loopback: four loops on this machine's cores serve 400 connections
// with verified echoes (with SO_REUSEPORT and with the one-acceptor hand-out), connections
// moved between loops a thousand times while traffic runs both ways keep every byte in
// order, and stopping the group closes every descriptor once.
#include "net/connector_group.h"

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

namespace {

using QUOLNET::CConnectorGroup;
using QUOLNET::CConnectorMgr;
using QUOLNET::CLengthPrefixParser;
using QUOLNET::CloseInfo;
using QUOLNET::ConnectorGroupOptions;
using QUOLNET::ConnId;

// A packet: header, tag ('E' echoed by the server, 'F' sent by a foreign thread), 4-byte
// sequence number, then `fill` bytes of (seq + i) & 0xff.
std::string MakePacket(char tag, uint32_t seq, size_t fill) {
    std::string p(9 + fill, '\0');
    CLengthPrefixParser::WriteHeader(&p[0], static_cast<uint32_t>(p.size()));
    p[4] = tag;
    CLengthPrefixParser::WriteHeader(&p[5], seq);
    for (size_t i = 0; i < fill; ++i) {
        p[9 + i] = static_cast<char>((seq + i) & 0xff);
    }
    return p;
}

// Checks a packet's fill; returns its sequence number, or -1 when damaged.
int64_t CheckPacket(const char* data, size_t len, char* tag) {
    if (len < 9) {
        return -1;
    }
    *tag = data[4];
    uint32_t seq = CLengthPrefixParser::ReadHeader(data + 5);
    for (size_t i = 9; i < len; ++i) {
        if (data[i] != static_cast<char>((seq + i - 9) & 0xff)) {
            return -1;
        }
    }
    return seq;
}

// Every loop's events: echoes, checks the order of what arrives per connection, refuses
// every 7th packet once (so that packets wait in the ring), and counts closes per id.
class GroupHandler : public QUOLNET::IConnectorHandler {
  public:
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) override {
        char tag = 0;
        int64_t seq = CheckPacket(data, len, &tag);
        State* st = Get(id);
        if (seq < 0 || seq != st->next) {
            ++m_disorder;
        }
        if (m_refuse_some && seq % 7 == 0 && st->refused != seq) {
            st->refused = seq;
            mgr->Post([mgr, id]() { mgr->ResumeReading(id); });  // offered again next tick
            return false;
        }
        int ret = more ? mgr->SendCorked(id, data, len) : mgr->Send(id, data, len);
        if (ret == 0) {
            return false;
        }
        if (ret < 0) {
            ++m_send_errors;
        }
        st->next = seq + 1;
        ++m_packets;
        return true;
    }
    void OnConnected(CConnectorMgr*, ConnId id, const char* url, bool) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ids.push_back(id);
        m_urls[url] = id;
    }
    // The id of the connection whose peer is `url`, or 0.
    ConnId IdOf(const std::string& url) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_urls.find(url);
        return it == m_urls.end() ? 0 : it->second;
    }
    void OnClosed(CConnectorMgr*, ConnId id, const CloseInfo&) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_closed[id];
    }
    std::vector<ConnId> Ids() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ids;
    }
    std::map<ConnId, int> Closed() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_closed;
    }

    bool m_refuse_some = false;
    std::atomic<long> m_packets{0};
    std::atomic<long> m_disorder{0};
    std::atomic<long> m_send_errors{0};

  private:
    struct State {
        int64_t next = 0;
        int64_t refused = -1;
    };
    // A connection is served by one loop at a time, and a move hands it over through the
    // loops' locks, so its State needs no lock of its own; the map does.
    State* Get(ConnId id) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return &m_state[id];
    }
    std::mutex m_mutex;
    std::map<ConnId, State> m_state;
    std::map<std::string, ConnId> m_urls;  // peer URL -> id
    std::vector<ConnId> m_ids;
    std::map<ConnId, int> m_closed;
};

ConnectorGroupOptions Options(int threads, bool reuse_port) {
    ConnectorGroupOptions o;
    o.threads = threads;
    o.reuse_port = reuse_port;
    return o;
}

void ServeFourHundred(bool reuse_port) {
    GroupHandler handler;
    {
        CConnectorGroup group(&handler, Options(4, reuse_port));
        ASSERT_EQ(group.Init(), 0);
        ASSERT_GT(group.Listen("tcp://127.0.0.1:0"), 0);
        ASSERT_EQ(group.Start(), 0);
        const int kConns = 400;
        const int kPackets = 10;
        std::vector<int> fds;
        for (int i = 0; i < kConns; ++i) {
            int fd = qntest::DialURL(group.GetListenURL());
            ASSERT_GE(fd, 0);
            fds.push_back(fd);
        }
        for (int fd : fds) {
            std::string out;
            for (int s = 0; s < kPackets; ++s) {
                out += MakePacket('E', static_cast<uint32_t>(s), static_cast<size_t>(s * 37 % 700));
            }
            ASSERT_TRUE(qntest::WriteAll(fd, out.data(), out.size()));
        }
        for (int fd : fds) {
            for (int s = 0; s < kPackets; ++s) {
                std::string want =
                    MakePacket('E', static_cast<uint32_t>(s), static_cast<size_t>(s * 37 % 700));
                std::string got(want.size(), '\0');
                ASSERT_TRUE(qntest::ReadExactly(fd, &got[0], got.size()));
                ASSERT_EQ(got, want);
            }
            close(fd);
        }
        EXPECT_EQ(handler.m_packets.load(), kConns * kPackets);
        EXPECT_EQ(handler.m_disorder.load(), 0);
        EXPECT_EQ(group.IsReusePort(), reuse_port);
        EXPECT_EQ(group.GetAcceptCount(), static_cast<uint64_t>(kConns));
        int loops_used = 0;
        for (ConnId id : handler.Ids()) {
            (void)id;
        }
        std::set<int> homes;
        for (ConnId id : handler.Ids()) {
            homes.insert(static_cast<int>(id >> CConnectorGroup::kLoopShift));
        }
        loops_used = static_cast<int>(homes.size());
        EXPECT_EQ(loops_used, 4) << group.FormatStats();
        group.Stop();
    }
    EXPECT_EQ(handler.Closed().size(), 400u);
}

TEST(ConnectorGroupTest, FourLoopsServeFourHundredConnectionsWithVerifiedEchoesReusePort) {
    ServeFourHundred(true);
}

TEST(ConnectorGroupTest, FourLoopsServeFourHundredConnectionsHandedOutByOneAcceptor) {
    ServeFourHundred(false);
}

// The client side of the move test: for each connection, writes 'E' packets in chunks cut
// at arbitrary points (so the server often holds half a packet) and reads what comes back,
// checking the 'E' and 'F' streams each in order.
struct ClientConn {
    int fd = -1;
    std::string out;  // bytes still to write
    size_t out_pos = 0;
    uint32_t sent = 0;  // 'E' packets written
    std::string in;
    uint32_t echoes = 0;
    uint32_t foreign = 0;
    bool damaged = false;
};

void ReadPackets(ClientConn* c) {
    char buf[65536];
    for (;;) {
        ssize_t n = recv(c->fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n <= 0) {
            return;
        }
        c->in.append(buf, static_cast<size_t>(n));
        size_t pos = 0;
        while (c->in.size() - pos >= 4) {
            uint32_t len = CLengthPrefixParser::ReadHeader(c->in.data() + pos);
            if (c->in.size() - pos < len) {
                break;
            }
            char tag = 0;
            int64_t seq = CheckPacket(c->in.data() + pos, len, &tag);
            uint32_t* counter = tag == 'E' ? &c->echoes : &c->foreign;
            if (seq != static_cast<int64_t>(*counter)) {
                c->damaged = true;
            }
            ++*counter;
            pos += len;
        }
        c->in.erase(0, pos);
    }
}

// Regression (seen once in CI): a foreign Send reported "unknown id" for a live connection.
// The sender missed the id on loop A because it had just moved away, was preempted, and by
// the time it asked where the id lived the connection had come back to A, which read as "gone
// for good". A miss now counts as final only if no route changed since the look-up. This
// test meets it only by chance; connector_group_seam_test forces the interleaving.
TEST(ConnectorGroupTest, MovedConnectionsKeepEveryByteInOrderBothWaysUnderLoad) {
    GroupHandler handler;
    handler.m_refuse_some = true;
    CConnectorGroup group(&handler, Options(4, true));
    ASSERT_EQ(group.Init(), 0);
    ASSERT_GT(group.Listen("tcp://127.0.0.1:0"), 0);
    ASSERT_EQ(group.Start(), 0);
    const int kConns = 4;
    std::vector<ClientConn> conns(kConns);
    for (auto& c : conns) {
        c.fd = qntest::DialURL(group.GetListenURL());
        ASSERT_GE(c.fd, 0);
    }
    std::vector<ConnId> ids;
    for (int i = 0; i < 2000 && ids.size() < static_cast<size_t>(kConns); ++i) {
        ids = handler.Ids();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(ids.size(), static_cast<size_t>(kConns));
    // ids[i] must be the connection of conns[i]: the loops accept in any order, so match
    // each client's local address with the peer URL the server saw.
    for (int i = 0; i < kConns; ++i) {
        sockaddr_in local;
        socklen_t len = sizeof(local);
        ASSERT_EQ(0,
                  getsockname(conns[static_cast<size_t>(i)].fd, reinterpret_cast<sockaddr*>(&local), &len));
        std::string url = "tcp://127.0.0.1:" + std::to_string(ntohs(local.sin_port));
        ids[static_cast<size_t>(i)] = handler.IdOf(url);
        ASSERT_NE(0u, ids[static_cast<size_t>(i)]) << url;
    }

    std::atomic<bool> moving_done{false};
    std::atomic<uint32_t> foreign_sent[kConns];
    for (auto& f : foreign_sent) {
        f = 0;
    }
    // A foreign thread sends 'F' packets to every connection while they move.
    std::thread foreign([&]() {
        while (!moving_done.load()) {
            for (int i = 0; i < kConns; ++i) {
                uint32_t seq = foreign_sent[i].load();
                std::string p = MakePacket('F', seq, seq % 11 == 0 ? 70000 : 200);
                int ret =
                    group.Send(ids[static_cast<size_t>(i)], p.data(), static_cast<unsigned int>(p.size()));
                if (ret > 0) {
                    foreign_sent[i] = seq + 1;
                } else if (ret < 0) {
                    ADD_FAILURE() << "foreign Send returned " << ret;
                    return;
                }
            }
            std::this_thread::yield();
        }
    });
    // The mover: 1000 moves, each awaited, round the loops.
    std::thread mover([&]() {
        uint64_t issued = 0;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (group.GetMoveCount() < 1000 && std::chrono::steady_clock::now() < deadline) {
            ConnId id = ids[issued % kConns];
            int to = (group.LoopOf(id) + 1 + static_cast<int>(issued / kConns) % 3) % 4;
            long packets_before = handler.m_packets.load();
            if (group.Move(id, to) == 0) {
                ++issued;
                while (group.GetMoveCount() + group.GetMoveFailedCount() < issued &&
                       std::chrono::steady_clock::now() < deadline) {
                    std::this_thread::yield();
                }
                // Traffic runs between two moves however fast or slow the build is: the next
                // move waits for a packet to have been delivered since this one began.
                while (handler.m_packets.load() == packets_before &&
                       std::chrono::steady_clock::now() < deadline) {
                    std::this_thread::yield();
                }
            }
        }
        moving_done = true;
    });
    // The client: writes while the moves run, then drains.
    uint32_t seq_base = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        bool sending = !moving_done.load();
        bool all_in = true;
        std::vector<pollfd> pfds;
        for (int i = 0; i < kConns; ++i) {
            ClientConn& c = conns[static_cast<size_t>(i)];
            if (sending && c.out_pos == c.out.size()) {
                c.out.clear();
                c.out_pos = 0;
                for (int k = 0; k < 8; ++k, ++c.sent) {
                    c.out += MakePacket('E', c.sent, c.sent % 97 == 0 ? 150000 : (seq_base++ * 13) % 900);
                }
            }
            all_in = all_in && c.out_pos == c.out.size() && c.echoes == c.sent &&
                     c.foreign == foreign_sent[i].load();
            pfds.push_back(
                pollfd{c.fd, static_cast<short>(POLLIN | (c.out_pos < c.out.size() ? POLLOUT : 0)), 0});
        }
        if (!sending && all_in) {
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            std::string detail = group.FormatStats();
            for (int i = 0; i < kConns; ++i) {
                const ClientConn& c = conns[static_cast<size_t>(i)];
                detail += "client " + std::to_string(i) + ": sent " + std::to_string(c.sent) + " echoes " +
                          std::to_string(c.echoes) + " foreign " + std::to_string(c.foreign) + " of " +
                          std::to_string(foreign_sent[i].load()) + " out " + std::to_string(c.out_pos) + "/" +
                          std::to_string(c.out.size()) + " in " + std::to_string(c.in.size()) + "\n";
            }
            for (int l = 0; l < group.GetLoopCount(); ++l) {
                group.GetLoop(l)->Post(
                    [&group, l]() { fprintf(stderr, "%s", group.GetLoop(l)->FormatStats(true).c_str()); });
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the loops print their tables
            FAIL() << detail;
        }
        poll(pfds.data(), pfds.size(), 100);
        for (int i = 0; i < kConns; ++i) {
            ClientConn& c = conns[static_cast<size_t>(i)];
            if (c.out_pos < c.out.size()) {
                size_t chunk = std::min<size_t>(c.out.size() - c.out_pos, 1 + (c.sent * 7919u) % 3000);
                ssize_t n = send(c.fd, c.out.data() + c.out_pos, chunk, MSG_DONTWAIT | MSG_NOSIGNAL);
                if (n > 0) {
                    c.out_pos += static_cast<size_t>(n);
                }
            }
            ReadPackets(&c);
        }
    }
    mover.join();
    foreign.join();
    uint32_t echoes = 0;
    uint32_t foreign_total = 0;
    for (auto& c : conns) {
        EXPECT_FALSE(c.damaged);
        echoes += c.echoes;
        foreign_total += c.foreign;
        close(c.fd);
    }
    EXPECT_GE(group.GetMoveCount(), 1000u) << group.FormatStats();
    EXPECT_EQ(handler.m_disorder.load(), 0);
    EXPECT_EQ(handler.m_send_errors.load(), 0);
    EXPECT_EQ(group.GetCloseCount(QUOLNET::CloseReason::kReset), 0u);
    EXPECT_GT(echoes, 1000u);
    EXPECT_GT(foreign_total, 100u);
    printf("moves %llu (refused %llu), echoes %u, foreign packets %u\n",
           static_cast<unsigned long long>(group.GetMoveCount()),
           static_cast<unsigned long long>(group.GetMoveFailedCount()), echoes, foreign_total);
    group.Stop();
}

TEST(ConnectorGroupTest, StoppingTheGroupClosesEveryDescriptorOnce) {
    int fds_before = qntest::CountOpenFds();
    GroupHandler handler;
    std::vector<int> clients;
    {
        CConnectorGroup group(&handler, Options(4, true));
        ASSERT_EQ(group.Init(), 0);
        ASSERT_GT(group.Listen("tcp://127.0.0.1:0"), 0);
        ASSERT_EQ(group.Start(), 0);
        for (int i = 0; i < 100; ++i) {
            int fd = qntest::DialURL(group.GetListenURL());
            ASSERT_GE(fd, 0);
            clients.push_back(fd);
        }
        std::vector<ConnId> ids;
        for (int i = 0; i < 5000 && ids.size() < 100; ++i) {
            ids = handler.Ids();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ASSERT_EQ(ids.size(), 100u);
        for (size_t i = 0; i < ids.size(); ++i) {
            group.Move(ids[i], static_cast<int>(i % 4));  // some still under way at Stop
        }
        group.Stop();
        std::map<ConnId, int> closed = handler.Closed();
        EXPECT_TRUE(closed.empty());
    }
    std::map<ConnId, int> closed = handler.Closed();
    EXPECT_EQ(closed.size(), 100u);
    for (auto& kv : closed) {
        EXPECT_EQ(kv.second, 1) << "id " << kv.first;
    }
    // Every client sees the end of its stream: the server's descriptor is closed.
    for (int fd : clients) {
        char b;
        EXPECT_EQ(recv(fd, &b, 1, 0), 0);
        close(fd);
    }
    EXPECT_EQ(qntest::CountOpenFds(), fds_before);
}

}  // namespace
