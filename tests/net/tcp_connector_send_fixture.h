// Shared set-up for the send-path tests: a connector bound to the accepted end of a loopback
// TCP pair, registered with a real epoll instance, logging into a LogCapture.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "support/connector_peer.h"
#include "support/log_capture.h"
#include "support/net_helpers.h"

namespace qntest {

using Peer = QUOLNET::CTcpConnectorTestPeer;

// epoll_ctl always adds EPOLLERR|EPOLLHUP to a registration, and fdinfo shows them.
const long kArmedMask = EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP;
const long kDisarmedMask = EPOLLIN | EPOLLERR | EPOLLHUP;

class NullParser : public QUOLNET::IPackParser {
  public:
    int ParsePackLength(const char*, unsigned int) override { return 0; }
};

// One connector on the server end of a TcpPair; the test reads what it sends from `peer`.
struct SendRig {
    explicit SendRig(unsigned int pool_blocks = 64, unsigned int max_tx = 16, int rx_reserve = -1,
                     int low_threshold = QUOLNET::LOG_PRIORITY_TRACE)
        : pool(pool_blocks, rx_reserve), log(low_threshold) {
        combine.resize(1024);
        conn.reset(new QUOLNET::CTcpConnector(combine.data(), static_cast<int>(combine.size()),
                                              combine.data(), static_cast<int>(combine.size()), nullptr,
                                              &pool, max_tx, 4, nullptr, nullptr));
        epfd = epoll_create1(0);
        ok = epfd >= 0 && TcpPair(&peer, &fd);
        if (ok) {
            conn->SetLogCat(log.cat());
            ok = conn->Init("tcp://127.0.0.1:7000", &parser, epfd, fd) == 0;
        }
    }
    ~SendRig() {
        conn.reset();  // Fini closes fd
        if (peer >= 0) {
            close(peer);
        }
        if (epfd >= 0) {
            close(epfd);
        }
    }
    SendRig(const SendRig&) = delete;
    SendRig& operator=(const SendRig&) = delete;

    QUOLNET::CTcpConnector& c() { return *conn; }
    long Registered() { return RegisteredEvents(epfd, fd); }
    std::string Url() { return conn->GetURL(); }
    std::string LocalUrl() { return conn->GetLocalURL(); }
    unsigned int QCount() { return Peer::m_tx_queue(*conn).Count(); }
    QUOLNET::NetBuffer* Head() {
        QUOLNET::LIST_NODE* n = Peer::m_tx_queue(*conn).Head();
        return n ? static_cast<QUOLNET::NetBuffer*>(n->pData) : nullptr;
    }
    QUOLNET::NetBuffer* Tail() {
        QUOLNET::LIST_NODE* n = Peer::m_tx_queue(*conn).Tail();
        return n ? static_cast<QUOLNET::NetBuffer*>(n->pData) : nullptr;
    }
    // Bytes queued (unsent) in the send queue, in order.
    std::string Queued() {
        std::string out;
        for (QUOLNET::LIST_NODE* n = Peer::m_tx_queue(*conn).Head(); n != nullptr; n = n->pNext) {
            auto* b = static_cast<QUOLNET::NetBuffer*>(n->pData);
            out.append(b->ReadBuf(), b->ReadRemaining());
        }
        return out;
    }
    // Reads exactly n bytes from the peer.
    std::string ReadPeer(size_t n) {
        std::string s(n, '\0');
        if (!ReadExactly(peer, &s[0], n)) {
            s.clear();
        }
        return s;
    }
    // Fills the kernel buffers between connector and peer until the connector's socket
    // would block; returns the bytes written (the peer must read them before the payload).
    size_t FillSocket() {
        std::vector<char> junk(65536, 'j');
        size_t total = 0;
        for (;;) {
            ssize_t n = send(fd, junk.data(), junk.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n <= 0) {
                break;
            }
            total += static_cast<size_t>(n);
        }
        return total;
    }

    QUOLNET::CNetBufferMgr pool;
    LogCapture log;
    NullParser parser;
    std::vector<char> combine;
    std::unique_ptr<QUOLNET::CTcpConnector> conn;
    int epfd = -1;
    int fd = -1;
    int peer = -1;
    bool ok = false;
};

// The owner's loop: waits for writability and flushes until the queue is empty, while the
// peer's bytes are read into `got`. Returns false on a time-out or a failed flush.
inline bool DrainAll(SendRig& r, std::string* got, size_t expect_total) {
    SetSmallBuffers(r.fd, 1 << 20, 0);  // the peer resumes at full speed
    SetSmallBuffers(r.peer, 0, 1 << 20);
    std::vector<char> buf(1 << 20);
    for (int rounds = 0; rounds < 100000; ++rounds) {
        ssize_t n = recv(r.peer, buf.data(), buf.size(), MSG_DONTWAIT);
        if (n > 0) {
            got->append(buf.data(), static_cast<size_t>(n));
        }
        if (r.QCount() == 0 && got->size() >= expect_total) {
            return true;
        }
        unsigned int events = 0;
        void* data = nullptr;
        if (WaitEpoll(r.epfd, &events, &data, 0) > 0 && (events & EPOLLOUT)) {
            r.c().SetEvent(EPOLLOUT);
            if (r.c().Send() < 0) {
                return false;
            }
            continue;
        }
        struct pollfd p[2] = {{r.peer, POLLIN, 0}, {r.epfd, POLLIN, 0}};
        poll(p, 2, 100);
    }
    return false;
}

inline std::string Pattern(size_t n, unsigned seed = 1) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) {
        s[i] = static_cast<char>('a' + (i * 7 + seed) % 26);
    }
    return s;
}

}  // namespace qntest
