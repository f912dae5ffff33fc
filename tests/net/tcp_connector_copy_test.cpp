// Hand-over of a live connection between connector objects, and faults that end a connection.
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/net_buffer_mgr.h"
#include "net/tcp_connector.h"
#include "support/connector_peer.h"
#include "support/log_capture.h"
#include "support/net_helpers.h"
#include "support/test_parser.h"

namespace {

using QUOLNET::CNetBufferMgr;
using QUOLNET::CTcpConnector;
using QUOLNET::NetBuffer;
using Peer = QUOLNET::CTcpConnectorTestPeer;

const char* kUrl = "tcp://127.0.0.1:7001";
const int kCombineLen = 1 << 20;

struct Conn {
    std::vector<char> combine = std::vector<char>(kCombineLen);
    std::unique_ptr<CTcpConnector> c;
    Conn(CNetBufferMgr* pool, qntest::LogCapture* log, unsigned max_blocks = 64) {
        c.reset(new CTcpConnector(combine.data(), kCombineLen, combine.data(), kCombineLen, nullptr, pool,
                                  max_blocks, max_blocks, nullptr, nullptr));
        c->SetLogCat(log->cat());
    }
};

// Reads with Recv until `bytes` more bytes went through the connector (or it stops making
// progress for 5 s). Returns the bytes read.
long RecvBytes(CTcpConnector& c, int fd, long bytes) {
    long total = 0;
    while (total < bytes) {
        c.SetEvent(EPOLLIN);
        int r = c.Recv();
        if (r < 0) {
            return r;
        }
        total += r;
        if (r == 0) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 5000) != 1) {
                break;
            }
        }
    }
    return total;
}

std::vector<std::string> PeekAll(CTcpConnector& c) {
    std::vector<std::string> out;
    const char* buf = nullptr;
    unsigned int len = 0;
    while (c.Peek(&buf, len, nullptr) == 0 && buf != nullptr) {
        out.emplace_back(buf, len);
        c.Drop();
    }
    return out;
}

class CopyFromTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_ep = epoll_create1(EPOLL_CLOEXEC);
        m_ep2 = epoll_create1(EPOLL_CLOEXEC);
        ASSERT_TRUE(qntest::TcpPair(&m_client, &m_server));
    }
    void TearDown() override {
        if (m_client >= 0) {
            close(m_client);
        }
        close(m_ep);
        close(m_ep2);
    }
    // Binds the source to the accepted socket on the first epoll instance and the
    // destination to the same socket on the second, as a hand-over between two loops does.
    ::testing::AssertionResult BindPair(Conn& src, Conn& dst) {
        if (src.c->Init(kUrl, &m_parser, m_ep, m_server) != 0) {
            return ::testing::AssertionFailure() << "source Init failed";
        }
        if (dst.c->Init(kUrl, &m_parser, m_ep2, m_server) != 0) {
            return ::testing::AssertionFailure() << "destination Init failed";
        }
        return ::testing::AssertionSuccess();
    }
    int m_ep = -1, m_ep2 = -1, m_client = -1, m_server = -1;
    CNetBufferMgr m_pool{256};
    qntest::BigEndianLengthParser m_parser{kCombineLen};
    qntest::LogCapture m_log_src{QUOLNET::LOG_PRIORITY_INFO, "src"};
    qntest::LogCapture m_log_dst{QUOLNET::LOG_PRIORITY_INFO, "dst"};
};

TEST_F(CopyFromTest, OntoItselfReturnsMinusOneAndChangesNothing) {
    Conn a(&m_pool, &m_log_src);
    ASSERT_EQ(0, a.c->Init(kUrl, &m_parser, m_ep, m_server));
    m_log_src.Clear();
    EXPECT_EQ(-1, a.c->CopyFrom(*a.c));
    EXPECT_EQ(1u, m_log_src.Size());  // only the entry line
    EXPECT_TRUE(m_log_src.HasPrefix(QUOLNET::LOG_PRIORITY_INFO,
                                    "enter CTcpConnector::CopyFrom(), url=" + std::string(kUrl) +
                                        ", socket=" + std::to_string(m_server) +
                                        ", src_connector=CTcpConnector[this="));
    EXPECT_EQ(0u, a.c->GetEvent());
    a.c->Fini();
}

TEST_F(CopyFromTest, DifferentSocketIsRefusedAndFlagged) {
    Conn a(&m_pool, &m_log_src);
    Conn b(&m_pool, &m_log_dst);
    ASSERT_EQ(0, a.c->Init(kUrl, &m_parser, m_ep, m_server));
    ASSERT_EQ(0, b.c->Init(kUrl, &m_parser, m_ep, -1));
    EXPECT_EQ(-2, b.c->CopyFrom(*a.c));
    EXPECT_TRUE(m_log_dst.Has(
        QUOLNET::LOG_PRIORITY_ERROR,
        "cannot copy to a connector holding a different socket, this=-1, that=" + std::to_string(m_server)));
    EXPECT_EQ(static_cast<unsigned>(EPOLLERR), b.c->GetEvent() & EPOLLERR);
    a.c->Fini();
    b.c->Fini();
    EXPECT_EQ(0u, m_pool.GetUsedCount());
}

TEST_F(CopyFromTest, NonEmptyDestinationIsRefusedAndFlagged) {
    Conn a(&m_pool, &m_log_src);
    Conn b(&m_pool, &m_log_dst);
    ASSERT_TRUE(BindPair(a, b));
    ASSERT_EQ(5, b.c->SendToQ("hello", 5, nullptr));  // one queued send block
    EXPECT_EQ(-3, b.c->CopyFrom(*a.c));
    EXPECT_TRUE(m_log_dst.Has(QUOLNET::LOG_PRIORITY_ERROR,
                              "cannot copy to a non-empty connector, m_tx_queue(1), m_rx_queu(0)"))
        << m_log_dst.Dump();
    EXPECT_EQ(static_cast<unsigned>(EPOLLERR), b.c->GetEvent() & EPOLLERR);
    b.c->SetCloseSocket(false);
    b.c->Fini();
    a.c->Fini();
    EXPECT_EQ(0u, m_pool.GetUsedCount());
}

TEST_F(CopyFromTest, PoolExhaustionFailsTheQueueCopies) {
    CNetBufferMgr small_pool(3, 0);
    Conn a(&small_pool, &m_log_src);
    Conn b(&small_pool, &m_log_dst);
    ASSERT_TRUE(BindPair(a, b));
    std::string big(65536 * 2, 'x');
    ASSERT_EQ(static_cast<int>(big.size()), a.c->SendToQ(big.data(), big.size(), nullptr));  // 2 blocks
    EXPECT_EQ(-4, b.c->CopyFrom(*a.c));
    EXPECT_TRUE(m_log_dst.Has(QUOLNET::LOG_PRIORITY_ERROR, "failed to copy send queue, send count=2"));
    EXPECT_EQ(0, b.c->GetSendQCount());
    b.c->SetCloseSocket(false);
    b.c->Fini();
    a.c->Fini();  // frees the 2 send blocks and closes the pair's server socket
    close(m_client);

    // Receive side: the source holds 2 receive blocks, 1 is free in the pool.
    Conn c(&small_pool, &m_log_dst);
    ASSERT_TRUE(qntest::TcpPair(&m_client, &m_server));
    Conn d(&small_pool, &m_log_src);
    ASSERT_TRUE(BindPair(d, c));
    std::string p = qntest::MakePacket(65536 + 100, 3);
    ASSERT_TRUE(qntest::WriteAll(m_client, p.data(), 65536 + 50));
    ASSERT_GT(RecvBytes(*d.c, m_server, 65536 + 50), 0);
    ASSERT_EQ(2, d.c->GetRecvQCount());
    EXPECT_EQ(-5, c.c->CopyFrom(*d.c));
    EXPECT_TRUE(m_log_dst.Has(QUOLNET::LOG_PRIORITY_ERROR, "failed to copy recv queue, recv count=2"));
    c.c->SetCloseSocket(false);
    c.c->Fini();
    d.c->Fini();
    EXPECT_EQ(0u, small_pool.GetUsedCount());
}

TEST_F(CopyFromTest, EmptyRingCopiesQueuesAndReceivePointersWithoutAWalk) {
    Conn a(&m_pool, &m_log_src);
    Conn b(&m_pool, &m_log_dst);
    ASSERT_TRUE(BindPair(a, b));
    std::string p = qntest::MakePacket(1000, 5);
    ASSERT_TRUE(qntest::WriteAll(m_client, p.data(), 500));  // half a packet
    ASSERT_EQ(500, RecvBytes(*a.c, m_server, 500));
    ASSERT_EQ(0, a.c->GetPacketInfoCnt());
    ASSERT_EQ(0, b.c->CopyFrom(*a.c));
    NetBuffer* src_block = Peer::m_rx_buffer(*a.c);
    NetBuffer* dst_block = Peer::m_rx_buffer(*b.c);
    ASSERT_NE(nullptr, dst_block);
    EXPECT_NE(src_block, dst_block);
    EXPECT_EQ(dst_block, Peer::m_rx_packet(*b.c).buffer);
    EXPECT_EQ(src_block->m_write_pos, dst_block->m_write_pos);
    EXPECT_EQ(-1, Peer::m_packet_head_idx(*b.c));
    a.c->SetCloseSocket(false);
    a.c->Fini();
    // The rest of the packet arrives at the destination.
    ASSERT_TRUE(qntest::WriteAll(m_client, p.data() + 500, 500));
    ASSERT_EQ(500, RecvBytes(*b.c, m_server, 500));
    std::vector<std::string> got = PeekAll(*b.c);
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(p, got[0]);
    b.c->Fini();
    EXPECT_EQ(0u, m_pool.GetUsedCount());
}

TEST_F(CopyFromTest, BlocksMissingFromTheQueueGiveMinusSixSevenEight) {
    for (int which = 6; which <= 8; ++which) {
        Conn a(&m_pool, &m_log_src);
        Conn b(&m_pool, &m_log_dst);
        ASSERT_EQ(0, a.c->Init(kUrl, &m_parser, m_ep, -1));
        ASSERT_EQ(0, b.c->Init(kUrl, &m_parser, m_ep, -1));
        NetBuffer* stray = m_pool.Allocate(true, false);  // a block in no queue of the source
        if (which == 6) {
            Peer::m_packet_head_idx(*a.c) = 0;
            Peer::m_packet_tail_idx(*a.c) = 0;
            Peer::Slot(*a.c, 0).buffer = stray;
        } else if (which == 7) {
            Peer::m_rx_buffer(*a.c) = stray;
        } else {
            Peer::m_rx_packet(*a.c).buffer = stray;
        }
        m_log_dst.Clear();
        EXPECT_EQ(-which, b.c->CopyFrom(*a.c));
        EXPECT_TRUE(
            m_log_dst.Has(QUOLNET::LOG_PRIORITY_ERROR, "unexpected error, src_node=(nil), dst_node=(nil)"))
            << m_log_dst.Dump();
        EXPECT_EQ(0u, b.c->GetEvent() & EPOLLERR);
        Peer::m_packet_head_idx(*a.c) = Peer::m_packet_tail_idx(*a.c) = -1;
        Peer::m_rx_buffer(*a.c) = nullptr;
        Peer::m_rx_packet(*a.c).buffer = nullptr;
        Peer::m_rx_buffer(*b.c) = nullptr;
        Peer::m_rx_packet(*b.c).buffer = nullptr;
        m_pool.Release(&stray);
        a.c->Fini();
        b.c->Fini();
    }
    EXPECT_EQ(0u, m_pool.GetUsedCount());
}

// The source has packets in its ring, a packet half assembled across blocks and bytes in its
// send queue. The destination, on another epoll instance, takes over the same socket; the source
// is released; every packet arrives once in both directions.
TEST_F(CopyFromTest, HandOverMidStreamLosesNothing) {
    Conn a(&m_pool, &m_log_src);
    Conn b(&m_pool, &m_log_dst);
    ASSERT_EQ(0, a.c->Init(kUrl, &m_parser, m_ep, m_server));

    std::vector<std::string> inbound;
    std::string wire;
    for (int i = 0; i < 20; ++i) {
        inbound.push_back(qntest::MakePacket(100 + 37 * i, 100 + i));
        wire += inbound.back();
    }
    inbound.push_back(qntest::MakePacket(200000, 999));  // spans four blocks
    wire += inbound.back();
    long first_part = static_cast<long>(wire.size()) - 120000;  // the big packet only half there
    ASSERT_TRUE(qntest::WriteAll(m_client, wire.data(), first_part));
    ASSERT_EQ(first_part, RecvBytes(*a.c, m_server, first_part));
    ASSERT_EQ(20, a.c->GetPacketInfoCnt());
    ASSERT_EQ(QUOLNET::RECV_MULTI_BUFFER_BODY_STATUS, Peer::m_rx_status(*a.c));

    std::vector<std::string> outbound;
    std::string out_wire;
    for (int i = 0; i < 5; ++i) {
        outbound.push_back(qntest::MakePacket(30000 + i, 500 + i));
        out_wire += outbound.back();
        ASSERT_EQ(static_cast<int>(outbound.back().size()),
                  a.c->SendToQ(outbound.back().data(), outbound.back().size(), nullptr));
    }
    ASSERT_GT(a.c->GetSendQCount(), 0);

    ASSERT_EQ(0, b.c->Init(kUrl, &m_parser, m_ep2, m_server));
    m_log_dst.Clear();
    const long rings = CTcpConnector::GetPacketRingsInUse();  // the source's: 20 packets wait
    ASSERT_EQ(0, b.c->CopyFrom(*a.c)) << m_log_dst.Dump();
    EXPECT_EQ(20, b.c->GetPacketInfoCnt());
    EXPECT_EQ(rings + 1, CTcpConnector::GetPacketRingsInUse());  // a ring of its own
    EXPECT_EQ(a.c->GetSendQCount(), b.c->GetSendQCount());
    EXPECT_EQ(a.c->GetRecvQCount(), b.c->GetRecvQCount());
    a.c->SetCloseSocket(false);  // the destination keeps the descriptor
    a.c->Fini();

    // Scribble over recycled blocks so that any pointer left into the source's blocks shows.
    std::vector<NetBuffer*> scratch;
    while (NetBuffer* blk = m_pool.Allocate(true, false)) {
        memset(blk->m_buf, 0xEE, sizeof(blk->m_buf));
        scratch.push_back(blk);
        if (scratch.size() > 64) {
            break;
        }
    }
    for (NetBuffer*& blk : scratch) {
        m_pool.Release(&blk);
    }

    ASSERT_TRUE(qntest::WriteAll(m_client, wire.data() + first_part, wire.size() - first_part));
    ASSERT_EQ(static_cast<long>(wire.size()) - first_part,
              RecvBytes(*b.c, m_server, wire.size() - first_part));
    std::vector<std::string> got = PeekAll(*b.c);
    ASSERT_EQ(inbound.size(), got.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(inbound[i], got[i]) << "packet " << i;
    }

    // The copied send queue drains on writability and reaches the peer intact.
    std::string received(out_wire.size(), '\0');
    for (int i = 0; i < 1000 && b.c->GetSendQCount() > 0; ++i) {
        b.c->SetEvent(EPOLLOUT);
        ASSERT_GE(b.c->Send(), 0);
    }
    ASSERT_TRUE(qntest::ReadExactly(m_client, &received[0], received.size()));
    EXPECT_EQ(out_wire, received);
    b.c->Fini();
    EXPECT_EQ(0u, m_pool.GetUsedCount());
    EXPECT_EQ(0, CTcpConnector::GetPacketRingsInUse());
}

// A big packet's chain grows with its bytes: a source that waits for the next block of its
// packet hands over in that state, and the destination takes the block and completes the packet.
// The keep-writing and single-thread-receive settings and the progress counters travel with
// the connection.
TEST_F(CopyFromTest, HandOverWhileABigPacketWaitsForItsNextBlock) {
    Conn a(&m_pool, &m_log_src);
    Conn b(&m_pool, &m_log_dst);
    ASSERT_TRUE(BindPair(a, b));
    a.c->SetKeepWritingAfterPeerClose(true);
    a.c->SetSingleThreadRecv(true);
    std::string big = qntest::MakePacket(200000, 42);
    ASSERT_TRUE(qntest::WriteAll(m_client, big.data(), 65536));  // exactly the first block
    std::vector<NetBuffer*> held;  // the pool runs dry, so the wait for the next block shows
    while (NetBuffer* blk = m_pool.Allocate(false, false)) {
        held.push_back(blk);
    }
    m_pool.Release(&held.back());
    held.pop_back();
    ASSERT_EQ(65536, RecvBytes(*a.c, m_server, 65536));
    ASSERT_EQ(QUOLNET::ALLOC_MULTI_BUFFER_BODY_STATUS, Peer::m_rx_status(*a.c));
    EXPECT_EQ(1, a.c->GetRecvQCount());
    EXPECT_TRUE(a.c->HasPartialPacket());
    for (NetBuffer*& blk : held) {
        m_pool.Release(&blk);
    }

    ASSERT_EQ(0, b.c->CopyFrom(*a.c)) << m_log_dst.Dump();
    EXPECT_TRUE(b.c->GetKeepWritingAfterPeerClose());
    EXPECT_TRUE(b.c->GetSingleThreadRecv());
    EXPECT_EQ(65536, b.c->GetRecvBytes());
    EXPECT_EQ(QUOLNET::ALLOC_MULTI_BUFFER_BODY_STATUS, Peer::m_rx_status(*b.c));
    a.c->SetCloseSocket(false);  // the destination keeps the descriptor
    a.c->Fini();

    ASSERT_TRUE(qntest::WriteAll(m_client, big.data() + 65536, big.size() - 65536));
    ASSERT_EQ(static_cast<long>(big.size()) - 65536, RecvBytes(*b.c, m_server, big.size() - 65536));
    std::vector<std::string> got = PeekAll(*b.c);
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(big, got[0]);
    EXPECT_EQ(static_cast<int64_t>(big.size()), b.c->GetRecvBytes());
    b.c->Fini();
    EXPECT_EQ(0u, m_pool.GetUsedCount());
}

// Faults end the connection through Update with the fault's message, and Fini returns every block.
class FaultTest : public CopyFromTest {};

TEST_F(FaultTest, PeerResetMidPacketDisconnects) {
    Conn a(&m_pool, &m_log_src);
    ASSERT_EQ(0, a.c->Init(kUrl, &m_parser, m_ep, m_server));
    std::string p = qntest::MakePacket(100000, 1);
    ASSERT_TRUE(qntest::WriteAll(m_client, p.data(), 70000));
    ASSERT_EQ(70000, RecvBytes(*a.c, m_server, 70000));
    struct linger lg = {1, 0};
    setsockopt(m_client, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    close(m_client);
    m_client = -1;
    for (int i = 0; i < 100 && a.c->GetStatus() != QUOLNET::CONNECTOR_STATUS_DISCONNECTED; ++i) {
        epoll_event ev;
        if (epoll_wait(m_ep, &ev, 1, 1000) == 1) {
            a.c->SetEvent(ev.events);
        }
        a.c->Update();
    }
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, a.c->GetStatus());
    EXPECT_TRUE(
        m_log_src.HasPrefix(QUOLNET::LOG_PRIORITY_INFO, "enter CTcpConnector::Disconnect(), connector="))
        << m_log_src.Dump();
    bool reported = m_log_src.HasPrefix(QUOLNET::LOG_PRIORITY_INFO, "m_events=") ||
                    m_log_src.HasPrefix(QUOLNET::LOG_PRIORITY_ERROR, "Recv() failed, url=");
    EXPECT_TRUE(reported) << m_log_src.Dump();
    a.c->Fini();
    EXPECT_EQ(0u, m_pool.GetUsedCount());
}

TEST_F(FaultTest, MalformedLengthDisconnects) {
    Conn a(&m_pool, &m_log_src);
    ASSERT_EQ(0, a.c->Init(kUrl, &m_parser, m_ep, m_server));
    std::string good = qntest::MakePacket(64, 1);
    ASSERT_TRUE(qntest::WriteAll(m_client, good.data(), good.size()));
    ASSERT_TRUE(qntest::WriteAll(m_client, "\0\0\0\x02zz", 6));  // a length below its own header
    for (int i = 0; i < 100 && a.c->GetStatus() != QUOLNET::CONNECTOR_STATUS_DISCONNECTED; ++i) {
        pollfd p{m_server, POLLIN, 0};
        poll(&p, 1, 1000);
        a.c->SetEvent(EPOLLIN);
        a.c->Update();
    }
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, a.c->GetStatus());
    std::string local = a.c->GetLocalURL();
    EXPECT_TRUE(m_log_src.Has(QUOLNET::LOG_PRIORITY_ERROR,
                              "parse packet length failed! url=" + std::string(kUrl) +
                                  ", local_url=" + local + ", parse_len=-1, read_remaining=6"))
        << m_log_src.Dump();
    EXPECT_TRUE(m_log_src.Has(QUOLNET::LOG_PRIORITY_ERROR, "Recv() failed, url=" + std::string(kUrl) +
                                                               ", local_url=" + local + ", ret=-1"));
    a.c->Fini();
    EXPECT_EQ(0u, m_pool.GetUsedCount());
}

TEST_F(FaultTest, PacketOverTheJoiningBufferDisconnects) {
    Conn a(&m_pool, &m_log_src);
    qntest::BigEndianLengthParser lenient(kCombineLen * 2);
    ASSERT_EQ(0, a.c->Init(kUrl, &lenient, m_ep, m_server));
    std::string head = qntest::MakePacket(kCombineLen + 1, 1).substr(0, 16);
    ASSERT_TRUE(qntest::WriteAll(m_client, head.data(), head.size()));
    for (int i = 0; i < 100 && a.c->GetStatus() != QUOLNET::CONNECTOR_STATUS_DISCONNECTED; ++i) {
        pollfd p{m_server, POLLIN, 0};
        poll(&p, 1, 1000);
        a.c->SetEvent(EPOLLIN);
        a.c->Update();
    }
    EXPECT_EQ(QUOLNET::CONNECTOR_STATUS_DISCONNECTED, a.c->GetStatus());
    std::string local = a.c->GetLocalURL();
    EXPECT_TRUE(m_log_src.Has(QUOLNET::LOG_PRIORITY_ERROR,
                              "packet_len(" + std::to_string(kCombineLen + 1) + ") > m_combine_buf_len(" +
                                  std::to_string(kCombineLen) + "), url=" + kUrl + ", local_url=" + local))
        << m_log_src.Dump();
    EXPECT_TRUE(m_log_src.Has(QUOLNET::LOG_PRIORITY_ERROR, "Recv() failed, url=" + std::string(kUrl) +
                                                               ", local_url=" + local + ", ret=-2"));
    a.c->Fini();
    EXPECT_EQ(0u, m_pool.GetUsedCount());
}

}  // namespace
