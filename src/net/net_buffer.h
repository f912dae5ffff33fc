// NetBuffer: one pooled block of 65536 payload bytes.
//
//   m_buf: | consumed | readable (ReadRemaining) | writable (WriteRemaining) | beyond limit |
//          0     m_read_pos               m_write_pos                  m_limit_pos      65536
//
// Invariant: 0 <= m_read_pos <= m_write_pos <= m_limit_pos <= 65536.
//
// Blocks are made and owned by CNetBufferMgr; whoever borrows one links it into exactly one
// queue through m_node (the first member, so a block's and its node's addresses coincide;
// m_node.pData points back at the block) and returns it with CNetBufferMgr::Release.
// A block is not thread-safe; the queue's mutex guards it.
#pragma once

#include <sys/time.h>

#include <cstring>

#include "bi_list.h"

namespace QUOLNET {

struct NetBuffer {
    static constexpr int kBlockSize = 65536;

    LIST_NODE m_node;
    int m_uid;            // pool's identifier of the block
    int m_read_pos;       // first byte not yet consumed
    int m_write_pos;      // just past the last byte written
    int m_limit_pos;      // nothing may be written at or beyond this offset
    int m_is_rx_buf;      // flag: the block serves the receive side
    int m_is_big_buf;     // flag: the block belongs to a big packet's chain
    struct timeval m_tv;  // when the block began to wait (receive: handed out; send: filled)
    char m_buf[kBlockSize];

    // Makes an empty whole block whose node points back at it.
    void Clear() {
        m_node.pPrev = m_node.pNext = nullptr;
        m_node.pData = this;
        m_read_pos = m_write_pos = 0;
        m_limit_pos = kBlockSize;
        m_is_rx_buf = m_is_big_buf = 0;
        m_tv.tv_sec = 0;
        m_tv.tv_usec = 0;
    }

    // Sets the write limit (0..65536); the last block of a big packet's chain stops there.
    void SetLimit(int limit) { m_limit_pos = limit; }
    // Bytes that may still be written.
    int WriteRemaining() const { return m_limit_pos - m_write_pos; }
    // Advances the write position after n bytes were written straight into m_buf.
    void AddWritePosition(int n) { m_write_pos += n; }
    // Copies as many of the `len` bytes at `data` as fit below the limit and advances the
    // write position by that count. Returns the block.
    NetBuffer& Put(const char* data, int len) {
        int n = len < WriteRemaining() ? len : WriteRemaining();
        if (n > 0) {
            memcpy(m_buf + m_write_pos, data, n);
            m_write_pos += n;
        }
        return *this;
    }
    // Bytes written but not yet consumed.
    int ReadRemaining() const { return m_write_pos - m_read_pos; }
    bool HasReadRemaining() const { return ReadRemaining() > 0; }
    void AddReadPosition(int n) { m_read_pos += n; }
    char* ReadBuf() const { return const_cast<char*>(m_buf) + m_read_pos; }
};

}  // namespace QUOLNET
