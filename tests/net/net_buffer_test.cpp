// NetBuffer: layout, positions, limit and clipping of Put.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <vector>

#include "net/net_buffer.h"

using namespace QUOLNET;

namespace {

class NetBufferTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_storage.reset(new NetBuffer);
        m_storage->Clear();
    }
    NetBuffer& b() { return *m_storage; }
    std::unique_ptr<NetBuffer> m_storage;
};

TEST(NetBufferLayout, NodeIsFirstAndBlockIs64KiB) {
    EXPECT_EQ(0u, offsetof(NetBuffer, m_node));
    EXPECT_EQ(65536, NetBuffer::kBlockSize);
    EXPECT_EQ(65536u, sizeof(NetBuffer::m_buf));
    EXPECT_LT(offsetof(NetBuffer, m_uid), offsetof(NetBuffer, m_read_pos));
    EXPECT_LT(offsetof(NetBuffer, m_read_pos), offsetof(NetBuffer, m_write_pos));
    EXPECT_LT(offsetof(NetBuffer, m_write_pos), offsetof(NetBuffer, m_limit_pos));
    EXPECT_LT(offsetof(NetBuffer, m_limit_pos), offsetof(NetBuffer, m_is_rx_buf));
    EXPECT_LT(offsetof(NetBuffer, m_is_rx_buf), offsetof(NetBuffer, m_is_big_buf));
    EXPECT_LT(offsetof(NetBuffer, m_is_big_buf), offsetof(NetBuffer, m_tv));
    EXPECT_LT(offsetof(NetBuffer, m_tv), offsetof(NetBuffer, m_buf));
}

TEST_F(NetBufferTest, ClearMakesEmptyWholeBlock) {
    EXPECT_EQ(&b(), b().m_node.pData);
    EXPECT_EQ(static_cast<void*>(&b()), static_cast<void*>(&b().m_node));
    EXPECT_EQ(0, b().m_read_pos);
    EXPECT_EQ(0, b().m_write_pos);
    EXPECT_EQ(65536, b().m_limit_pos);
    EXPECT_EQ(65536, b().WriteRemaining());
    EXPECT_EQ(0, b().ReadRemaining());
    EXPECT_FALSE(b().HasReadRemaining());
    EXPECT_EQ(b().m_buf, b().ReadBuf());
}

TEST_F(NetBufferTest, PutAndReadPositions) {
    b().Put("hello", 5).Put(" world", 6);
    EXPECT_EQ(11, b().m_write_pos);
    EXPECT_EQ(11, b().ReadRemaining());
    EXPECT_TRUE(b().HasReadRemaining());
    EXPECT_EQ(65536 - 11, b().WriteRemaining());
    EXPECT_EQ(0, memcmp(b().ReadBuf(), "hello world", 11));
    b().AddReadPosition(6);
    EXPECT_EQ(6, b().m_read_pos);
    EXPECT_EQ(5, b().ReadRemaining());
    EXPECT_EQ(0, memcmp(b().ReadBuf(), "world", 5));
    b().AddReadPosition(5);
    EXPECT_FALSE(b().HasReadRemaining());
    EXPECT_EQ(b().m_buf + 11, b().ReadBuf());
}

TEST_F(NetBufferTest, AddWritePositionAfterDirectWrite) {
    memcpy(b().m_buf, "abc", 3);
    b().AddWritePosition(3);
    EXPECT_EQ(3, b().ReadRemaining());
    EXPECT_EQ('a', *b().ReadBuf());
}

TEST_F(NetBufferTest, SetLimitBoundsWriting) {
    b().SetLimit(100);
    EXPECT_EQ(100, b().m_limit_pos);
    EXPECT_EQ(100, b().WriteRemaining());
    b().Put("0123456789", 10);
    EXPECT_EQ(90, b().WriteRemaining());
    std::vector<char> fill(90, 'x');
    b().Put(fill.data(), 90);
    EXPECT_EQ(0, b().WriteRemaining());
    EXPECT_EQ(100, b().m_write_pos);
    EXPECT_LT(b().m_write_pos, 65536);
}

TEST_F(NetBufferTest, PutClipsAtTheLimit) {
    b().SetLimit(8);
    b().Put("0123456789", 10);
    EXPECT_EQ(8, b().m_write_pos);
    EXPECT_EQ(0, b().WriteRemaining());
    EXPECT_EQ(0, memcmp(b().m_buf, "01234567", 8));
    b().Put("zz", 2);  // nothing fits
    EXPECT_EQ(8, b().m_write_pos);
}

TEST_F(NetBufferTest, PutClipsAtTheBlockEnd) {
    std::vector<char> big(70000, 'q');
    b().Put(big.data(), static_cast<int>(big.size()));
    EXPECT_EQ(65536, b().m_write_pos);
    EXPECT_EQ(0, b().WriteRemaining());
    EXPECT_EQ(65536, b().ReadRemaining());
}

TEST_F(NetBufferTest, PutOfNothing) {
    b().Put("x", 0);
    b().Put("x", -3);
    EXPECT_EQ(0, b().m_write_pos);
}

}  // namespace
