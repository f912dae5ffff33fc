// The one-line dump, the statistics row and the gauges of a connector, compared with exact
// texts. Queues are filled with real pool blocks through the test peer and returned after.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "net/tcp_connector.h"
#include "support/connector_peer.h"

namespace {

using QUOLNET::CNetBufferMgr;
using QUOLNET::CTcpConnector;
using QUOLNET::NetBuffer;
using Peer = QUOLNET::CTcpConnectorTestPeer;

class NoParser : public QUOLNET::IPackParser {
  public:
    int ParsePackLength(const char*, unsigned int) override { return 0; }
};

std::string Ptr(const void* p) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%p", p);
    return buf;
}

// Left-justified in `width` columns (never cut).
std::string Pad(const std::string& s, size_t width) {
    return s.size() >= width ? s : s + std::string(width - s.size(), ' ');
}

// One statistics row built column by column.
std::string Row(const std::string& accepted, const std::string& url, const std::string& local_url,
                const std::vector<int>& numbers, const std::string& packets) {
    std::string row =
        "\t\t" + Pad(accepted, 10) + Pad(url.substr(0, 29), 30) + Pad(local_url.substr(0, 29), 30);
    for (int n : numbers) {
        row += Pad(std::to_string(n), 8);
    }
    return row + Pad(packets, 30) + "\n";
}

class DiagTest : public ::testing::Test {
  protected:
    CTcpConnector& Make(unsigned int max_tx = 100, unsigned int max_rx = 100) {
        m_conn.reset(new CTcpConnector(m_combine, sizeof(m_combine), m_combine, sizeof(m_combine), nullptr,
                                       &m_pool, max_tx, max_rx, nullptr, nullptr));
        return *m_conn;
    }
    void Fill(QUOLNET::CBidirList& list, int n, bool rx) {
        for (int i = 0; i < n; ++i) {
            NetBuffer* b = m_pool.Allocate(rx, false);
            ASSERT_NE(nullptr, b);
            list.Insert(&b->m_node);
        }
    }
    void TearDown() override {
        if (m_conn) {
            m_pool.Release(Peer::m_tx_queue(*m_conn));
            m_pool.Release(Peer::m_rx_queue(*m_conn));
            m_conn.reset();
        }
        EXPECT_EQ(0u, m_pool.GetUsedCount());
    }

    CNetBufferMgr m_pool{256};
    NoParser m_parser;
    char m_combine[256];
    std::unique_ptr<CTcpConnector> m_conn;
};

TEST_F(DiagTest, FreshConnectorDump) {
    CTcpConnector& c = Make();
    EXPECT_EQ(0, c.GetPacketInfoCnt());
    const char* text = c.ToString();
    // The text lives in the calling thread's buffer, not in the connector.
    EXPECT_EQ(static_cast<const void*>(text), static_cast<const void*>(c.ToString()));
    std::string expected = "CTcpConnector[this=" + Ptr(&c) +
                           ", idx=-1, url=, local_url=, m_events=0, m_parser=" + Ptr(nullptr) +
                           ", m_socket=-1, m_tx_queue.cnt=0, m_rx_queue.cnt=0, m_close_socket=1, "
                           "m_packet_head_idx=-1, m_packet_tail_idx=-1, m_rx_packet[buffer=" +
                           Ptr(nullptr) +
                           ", start_pos=0, len=0, recv_len=0], m_rx_buffer[(null)], "
                           "m_is_wait_alloc_big_buffer=0, m_tx_packet_cnt=0, m_rx_packet_cnt=0]";
    EXPECT_EQ(expected, text);
    // The connector's address is printed as a hexadecimal pointer.
    EXPECT_EQ(0, strncmp(text, "CTcpConnector[this=0x", 21)) << text;
}

TEST_F(DiagTest, PopulatedDumpShowsEveryField) {
    CTcpConnector& c = Make();
    ASSERT_EQ(0, c.Init("tcp://127.0.0.1:8080", &m_parser, 0, -1));
    c.SetIdx(42);
    strcpy(Peer::m_peer_url(c), "tcp://127.0.0.1:40000");
    c.SetEvent(5);
    Peer::m_socket(c) = 77;
    Fill(Peer::m_tx_queue(c), 3, false);
    Fill(Peer::m_rx_queue(c), 2, true);
    c.SetCloseSocket(false);
    Peer::m_packet_head_idx(c) = 990;
    Peer::m_packet_tail_idx(c) = 9;
    NetBuffer* block = static_cast<NetBuffer*>(Peer::m_rx_queue(c).Head()->pData);
    Peer::m_rx_packet(c) = QUOLNET::PacketInfo{block, 12, 300, 100};
    Peer::m_is_wait_alloc_big_buffer(c) = true;
    Peer::m_tx_packet_cnt(c) = 1099511627776LL;
    Peer::m_rx_packet_cnt(c) = 9;
    std::string expected = "CTcpConnector[this=" + Ptr(&c) +
                           ", idx=42, url=tcp://127.0.0.1:8080, local_url=tcp://127.0.0.1:40000, m_events=5, "
                           "m_parser=" +
                           Ptr(&m_parser) +
                           ", m_socket=77, m_tx_queue.cnt=3, m_rx_queue.cnt=2, m_close_socket=0, "
                           "m_packet_head_idx=990, m_packet_tail_idx=9, m_rx_packet[buffer=" +
                           Ptr(block) +
                           ", start_pos=12, len=300, recv_len=100], m_rx_buffer[(null)], "
                           "m_is_wait_alloc_big_buffer=1, m_tx_packet_cnt=1099511627776, m_rx_packet_cnt=9]";
    EXPECT_EQ(expected, c.ToString());
    Peer::m_rx_packet(c) = QUOLNET::PacketInfo{nullptr, 0, 0, 0};
    Peer::m_socket(c) = -1;
}

TEST_F(DiagTest, LongReceiveBlockDescriptionIsCutAt63CharactersAndTheLineGoesOn) {
    CTcpConnector& c = Make();
    NetBuffer* block = m_pool.Allocate(true, false);
    ASSERT_NE(nullptr, block);
    block->m_read_pos = 100;
    block->m_write_pos = 2000;
    block->m_limit_pos = 65536;
    block->m_is_big_buf = 1;
    Peer::m_rx_buffer(c) = block;

    std::string full =
        "this=" + Ptr(block) + ", m_read_pos=100, m_write_pos=2000, m_limit_pos=65536, m_is_big_buf=1";
    ASSERT_GT(full.size(), 63u);
    std::string cut = full.substr(0, 63);
    std::string text = c.ToString();
    std::string expected = "CTcpConnector[this=" + Ptr(&c) +
                           ", idx=-1, url=, local_url=, m_events=0, m_parser=" + Ptr(nullptr) +
                           ", m_socket=-1, m_tx_queue.cnt=0, m_rx_queue.cnt=0, m_close_socket=1, "
                           "m_packet_head_idx=-1, m_packet_tail_idx=-1, m_rx_packet[buffer=" +
                           Ptr(nullptr) + ", start_pos=0, len=0, recv_len=0], m_rx_buffer[" + cut +
                           "], m_is_wait_alloc_big_buffer=0, m_tx_packet_cnt=0, m_rx_packet_cnt=0]";
    EXPECT_EQ(expected, text);
    EXPECT_EQ(std::string::npos, text.find("m_is_big_buf=1"));
    EXPECT_NE(std::string::npos, cut.find("m_write_pos=2000, "));  // cut past the write position
    EXPECT_EQ(std::string::npos, cut.find("m_is_big_buf"));

    Peer::m_rx_buffer(c) = nullptr;
    m_pool.Release(&block);
}

TEST_F(DiagTest, RingCounts) {
    CTcpConnector& c = Make();
    struct {
        int head, tail, count;
    } cases[] = {{-1, -1, 0}, {990, 9, 20}, {5, 5, 1}, {0, 999, 1000}, {999, 0, 2}, {3, 7, 5}};
    for (const auto& k : cases) {
        Peer::m_packet_head_idx(c) = k.head;
        Peer::m_packet_tail_idx(c) = k.tail;
        EXPECT_EQ(k.count, c.GetPacketInfoCnt()) << k.head << "/" << k.tail;
    }
}

TEST_F(DiagTest, QueueCountsLimitsAndLeftRates) {
    CTcpConnector& c = Make(100, 100);
    EXPECT_EQ(100, c.GetMaxSendQCount());
    EXPECT_EQ(100, c.GetMaxRecvQCount());
    EXPECT_EQ(100, c.GetSendBuffLeftRate());
    EXPECT_EQ(100, c.GetRecvBuffLeftRate());

    Fill(Peer::m_tx_queue(c), 80, false);
    EXPECT_EQ(80, c.GetSendQCount());
    EXPECT_EQ(20, c.GetSendBuffLeftRate());
    EXPECT_EQ(100, c.GetRecvBuffLeftRate());
    Fill(Peer::m_rx_queue(c), 80, true);
    EXPECT_EQ(80, c.GetRecvQCount());
    EXPECT_EQ(20, c.GetRecvBuffLeftRate());

    // Over-full: 150 blocks against a limit of 100.
    Fill(Peer::m_tx_queue(c), 70, false);
    EXPECT_EQ(150, c.GetSendQCount());
    EXPECT_EQ(-50, c.GetSendBuffLeftRate());
    m_pool.Release(Peer::m_tx_queue(c));
    m_pool.Release(Peer::m_rx_queue(c));

    // 4 blocks against a limit of 3, both directions; 1 of 3 truncates to 34.
    CTcpConnector& d = Make(3, 3);
    EXPECT_EQ(3, d.GetMaxSendQCount());
    EXPECT_EQ(3, d.GetMaxRecvQCount());
    Fill(Peer::m_tx_queue(d), 4, false);
    Fill(Peer::m_rx_queue(d), 1, true);
    EXPECT_EQ(-33, d.GetSendBuffLeftRate());
    EXPECT_EQ(67, d.GetRecvBuffLeftRate());
    Fill(Peer::m_rx_queue(d), 3, true);
    EXPECT_EQ(-33, d.GetRecvBuffLeftRate());
}

TEST_F(DiagTest, FreshConnectorStatRow) {
    CTcpConnector& c = Make();
    char buf[512];
    int n = c.PrintStat(buf, sizeof(buf));
    std::string expected = "\t\tfalse     " + std::string(60, ' ') +
                           "0       0       0       0       0       0       0       0       "
                           "0|0                           \n";
    EXPECT_EQ(expected, buf);
    EXPECT_EQ(static_cast<int>(expected.size()), n);
}

TEST_F(DiagTest, StatRowColumns) {
    CTcpConnector& c = Make();
    const std::string url = "tcp://[2001:db8:85a3::8a2e:370:7334]:808";
    ASSERT_EQ(40u, url.size());
    ASSERT_EQ(0, c.Init(url.c_str(), &m_parser, 0, -1));
    strcpy(Peer::m_peer_url(c), "tcp://[::1]:40000");
    Peer::m_packet_info_max_cnt(c) = 7;
    Peer::m_packet_info_avg_cnt(c) = 3.9f;
    Peer::m_tx_max_wait_time(c) = 999;
    Peer::m_tx_avg_wait_time(c) = 2500.7f;
    Peer::m_tx_buf_full_cnt(c) = 4;
    Peer::m_rx_max_wait_time(c) = -1999;
    Peer::m_rx_avg_wait_time(c) = 12345.6f;
    Peer::m_rx_buf_full_cnt(c) = 5;
    Peer::m_tx_packet_cnt(c) = 11;
    Peer::m_rx_packet_cnt(c) = 22;

    char buf[512];
    int n = c.PrintStat(buf, sizeof(buf));
    std::string expected = Row("false", url, "tcp://[::1]:40000", {7, 3, 0, 2, 4, -1, 12, 5}, "11|22");
    EXPECT_EQ(expected, buf);
    EXPECT_EQ(static_cast<int>(expected.size()), n);
    // The URL column: its first 29 characters and one blank.
    EXPECT_NE(std::string::npos,
              std::string(buf).find("\t\tfalse     tcp://[2001:db8:85a3::8a2e:37 tcp://[::1]"));

    Peer::m_is_accepted(c) = true;
    n = c.PrintStat(buf, sizeof(buf));
    expected = Row("true", url, "tcp://[::1]:40000", {7, 3, 0, 2, 4, -1, 12, 5}, "11|22");
    EXPECT_EQ(expected, buf);
    EXPECT_EQ(static_cast<int>(expected.size()), n);
}

TEST_F(DiagTest, StatRowIntoASmallBufferIsCutTerminatedAndReportsTheFullLength) {
    CTcpConnector& c = Make();
    char full[512];
    int full_len = c.PrintStat(full, sizeof(full));
    ASSERT_GT(full_len, 40);
    char buf[64];
    memset(buf, 'x', sizeof(buf));
    int n = c.PrintStat(buf, 40);
    EXPECT_EQ(full_len, n);
    EXPECT_EQ(std::string(full, 39), std::string(buf));
    EXPECT_EQ('\0', buf[39]);
    for (size_t i = 40; i < sizeof(buf); ++i) {
        EXPECT_EQ('x', buf[i]) << i;
    }
}

// Identity comes through the virtual getters, so a derived connector's overrides show.
class NamedConnector : public CTcpConnector {
  public:
    using CTcpConnector::CTcpConnector;
    const char* GetURL() const override { return "tcp://named:1"; }
    const char* GetLocalURL() override { return "tcp://local:2"; }
    int GetIdx() const override { return 9; }
    bool IsAccptedConnector() override { return true; }
};

TEST_F(DiagTest, DumpAndRowUseTheVirtualGetters) {
    NamedConnector c(m_combine, sizeof(m_combine), m_combine, sizeof(m_combine), nullptr, &m_pool, 10, 10,
                     nullptr, nullptr);
    std::string text = c.ToString();
    EXPECT_EQ(0u, text.find("CTcpConnector[this=" + Ptr(&c) +
                            ", idx=9, url=tcp://named:1, local_url=tcp://local:2, "
                            "m_events=0, "))
        << text;
    char buf[512];
    c.PrintStat(buf, sizeof(buf));
    EXPECT_EQ(Row("true", "tcp://named:1", "tcp://local:2", {0, 0, 0, 0, 0, 0, 0, 0}, "0|0"), buf);
}

}  // namespace
