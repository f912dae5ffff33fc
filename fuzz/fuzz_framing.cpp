// fuzz_framing: the receive path for real. Arbitrary bytes, written in pieces whose sizes
// come from the input into one end of a loopback TCP pair, are read by a CTcpConnector on
// the other end through Update (and Recv while it waits for a chain of blocks), framed by the
// connector's own code and taken out with Peek/Drop or through the receive callback.
//
// Every input runs twice: once with CLengthPrefixParser and once with CChaosParser, which
// answers with every kind of result a parser can give (negative values, 0 for ever, lengths
// past the maximum, lengths longer than the bytes, lengths shorter than what it looked at).
//
// Input:
//   byte 0: options. bits 0-1: consumption (drain after every step / drain one packet per
//           step / drain only at the end); bit 2: receive callback; bit 3: the callback keeps
//           (returns 0) packets whose first byte is odd; bit 4: end with a reset instead of a
//           normal close; bits 5-7: pool size and receive-block limit (small values run out).
//   then pieces: a byte L; L < 0xf0 writes the next L bytes; L >= 0xf0 writes
//           (L - 0xef) * 16 KiB of the byte that follows (long packets from short inputs).
//
// Checks: with the length parser and Peek/Drop, the packets delivered are the stream's
// packets in order (a prefix of them: the connection may end early on a malformed header or
// a limit); every packet handed out is readable over its whole length (AddressSanitizer);
// after Fini every pool block is back (a lost block aborts).
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "net/length_parser.h"
#include "net/net_buffer_mgr.h"
#include "net/tcp_connector.h"

using namespace QUOLNET;
using qnfuzz::Check;

namespace {

const size_t kMaxStreamBytes = 1u << 20;   // bytes written per run, at most
const int kCombineLen = (256 << 10) + 64;  // longest packet joined for Peek / the callback
const unsigned int kMaxPacketLen = 200u << 10;

// A parser that breaks every promise a parser may break. The first byte of the packet picks
// the answer and how many bytes (1..4) it needs first; the following bytes give a value.
// It depends on nothing but the packet's first bytes, so repeated calls agree.
class CChaosParser : public IPackParser {
  public:
    int ParsePackLength(const char* buf, unsigned int len) override {
        if (len < 1) {
            return 0;
        }
        const unsigned char* p = reinterpret_cast<const unsigned char*>(buf);
        unsigned int need = 1 + ((p[0] >> 3) & 3);
        if (len < need) {
            return 0;
        }
        uint32_t value = 0;
        for (unsigned int i = 1; i < need; ++i) {
            value = (value << 8) | p[i];
        }
        switch (p[0] & 7) {
            case 0:
                return -1;
            case 1:
                return INT_MIN;
            case 2:
                return -static_cast<int>(value & 0x7fffffff) - 1;
            case 3:
                return 0;  // never enough bytes
            case 4:
                return static_cast<int>(value & 0x7fffffff);  // may be 0 or less than `need`
            case 5:
                return static_cast<int>(0x7fffffffu - (value & 0xffff));  // far past any limit
            case 6:
                return static_cast<int>(65536 + (value & 0x3ffff));  // a chain of blocks
            default:
                return static_cast<int>((value & 0xffff) * 4 + 1);
        }
    }
};

// Reads every byte of a packet handed out, so that AddressSanitizer sees any that is not
// the connector's to give.
uint32_t Touch(const char* data, unsigned int len) {
    uint32_t sum = 0;
    for (unsigned int i = 0; i < len; ++i) {
        sum = sum * 31 + static_cast<unsigned char>(data[i]);
    }
    return sum;
}

struct Run {
    bool length_parser = true;
    bool check_order = false;  // compare with the reference packets
    bool keep_odd = false;     // the callback leaves packets with an odd first byte queued
    std::vector<std::string> reference;
    size_t delivered = 0;
    bool skipped = false;  // a packet could not be joined: order is no longer checked
    uint32_t sink = 0;
};

void Deliver(Run* run, const char* data, unsigned int len) {
    Check(len > 0, "a packet has bytes");
    run->sink += Touch(data, len);
    if (run->length_parser) {
        Check(len >= 4 && CLengthPrefixParser::ReadHeader(data) == len, "a packet's length is its header's");
    }
    if (run->check_order && !run->skipped) {
        Check(run->delivered < run->reference.size(), "no packet beyond the stream's");
        const std::string& want = run->reference[run->delivered];
        Check(want.size() == len && std::memcmp(want.data(), data, len) == 0,
              "packets arrive intact and in order");
    }
    ++run->delivered;
}

int OnPacket(const char*, const char* data, int len, void* arg) {
    Run* run = static_cast<Run*>(arg);
    Check(len > 0, "a callback packet has bytes");
    if (run->keep_odd && (static_cast<unsigned char>(data[0]) & 1)) {
        run->sink += Touch(data, static_cast<unsigned int>(len));
        return 0;  // queued for Peek
    }
    Deliver(run, data, static_cast<unsigned int>(len));
    return 1;
}

// Takes up to `max` packets out with Peek/Drop. A packet too long to join is dropped unseen.
void Drain(CTcpConnector& conn, Run* run, int max) {
    for (int i = 0; i < max; ++i) {
        const char* buf = nullptr;
        unsigned int len = 0;
        int r = conn.Peek(&buf, len, nullptr);
        if (r == 0 && buf == nullptr) {
            return;  // empty
        }
        if (r == 0) {
            Deliver(run, buf, len);
        } else {
            run->skipped = true;
        }
        Check(conn.Drop() == 0, "Drop after a Peek that found a packet");
    }
}

int Pending(int fd) {
    int n = 0;
    return fd >= 0 && ioctl(fd, FIONREAD, &n) == 0 ? n : 0;
}

// One tick as an owner runs it: the socket is readable, Update reads and frames; a connector
// waiting for a chain of blocks is retried with Recv.
void Tick(CTcpConnector& conn) {
    if (conn.GetStatus() == 0) {
        return;
    }
    int fd = conn.GetSocket();
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 0) == 1) {
        conn.SetEvent(static_cast<unsigned int>(p.revents & (POLLIN | POLLERR | POLLHUP)));
    }
    if (conn.IsWaitAllocBigBuffer()) {
        conn.Recv();
    } else {
        conn.Update();
    }
}

void Pump(CTcpConnector& conn, Run* run, int mode) {
    for (int round = 0; round < 4 && conn.GetStatus() != 0; ++round) {
        Tick(conn);
        if (mode == 0) {
            Drain(conn, run, CTcpConnector::kPacketInfoSize);
        } else if (mode == 1) {
            Drain(conn, run, 1);
        }
        if (Pending(conn.GetSocket()) == 0) {
            return;
        }
    }
}

// Writes `bytes` to the peer end, pumping the connector whenever the socket is full. Gives up
// on the rest when the connector takes nothing for a while (a full ring it may not drain, a
// pool it cannot borrow from) or has closed. Returns whether every byte was written.
bool WriteAndPump(int client, CTcpConnector& conn, Run* run, int mode, const std::string& bytes) {
    size_t off = 0;
    int stalls = 0;
    while (off < bytes.size() && conn.GetStatus() != 0 && stalls < 8) {
        ssize_t n = send(client, bytes.data() + off, bytes.size() - off, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            off += static_cast<size_t>(n);
            stalls = 0;
        } else {
            ++stalls;
            if (stalls > 4) {
                Drain(conn, run, mode == 2 ? 0 : 1);
            }
        }
        Pump(conn, run, mode);
    }
    return off == bytes.size();
}

void RunOnce(const uint8_t* data, size_t size, bool length_parser) {
    qnfuzz::Reader in(data, size);
    uint8_t options = in.Byte();
    int mode = options & 3;
    if (mode == 3) {
        mode = 0;
    }
    bool callback = (options & 4) != 0;
    bool reset = (options & 16) != 0;
    unsigned int blocks = 2u + ((options >> 5) & 7) * 2;  // 2..16 blocks of 64 KiB

    Run run;
    run.length_parser = length_parser;
    run.check_order = length_parser && !callback;
    run.keep_odd = (options & 8) != 0;

    // The pieces are decoded first: the reference needs the whole stream.
    std::vector<std::string> pieces;
    std::string stream;
    while (!in.empty() && stream.size() < kMaxStreamBytes) {
        uint8_t l = in.Byte();
        std::string piece =
            l < 0xf0 ? in.Bytes(l) : std::string((l - 0xefu) * 16384u, static_cast<char>(in.Byte()));
        stream += piece;
        pieces.push_back(std::move(piece));
    }
    if (run.check_order) {
        run.reference = qnfuzz::ReferencePackets(stream, kMaxPacketLen);
    }

    CLengthPrefixParser length(kMaxPacketLen);
    CChaosParser chaos;
    CNetBufferMgr pool(blocks, -1, 128 << 10);
    std::vector<char> combine(kCombineLen);
    std::vector<char> cb_combine(kCombineLen);
    char last_err[256] = {0};
    int epoll = epoll_create1(EPOLL_CLOEXEC);
    int client = -1;
    int server = -1;
    Check(epoll >= 0 && qnfuzz::TcpPair(&client, &server), "loopback pair");
    {
        std::unique_ptr<CTcpConnector> conn(new CTcpConnector(combine.data(), kCombineLen, cb_combine.data(),
                                                              kCombineLen, last_err, &pool, 4, blocks,
                                                              callback ? OnPacket : nullptr, &run));
        IPackParser* parser = length_parser ? static_cast<IPackParser*>(&length) : &chaos;
        Check(conn->Init("tcp://127.0.0.1:9", parser, epoll, server) == 0, "Init with an accepted socket");

        for (const std::string& piece : pieces) {
            if (conn->GetStatus() == 0) {
                break;
            }
            if (!WriteAndPump(client, *conn, &run, mode, piece)) {
                break;  // what the peer wrote stays a prefix of the stream
            }
        }
        if (reset) {
            struct linger lg = {1, 0};
            setsockopt(client, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
        }
        close(client);
        // The end of the stream: the connector sees it (or the reset) and closes, possibly
        // after the ring has room again.
        for (int round = 0; round < 16 && conn->GetStatus() != 0; ++round) {
            Tick(*conn);
            Drain(*conn, &run, CTcpConnector::kPacketInfoSize);
        }
        Drain(*conn, &run, CTcpConnector::kPacketInfoSize);
        if (run.check_order && !run.skipped) {
            Check(run.delivered <= run.reference.size(), "no more packets than the stream held");
        }
        conn->Fini();
        Check(pool.GetUsedCount() == 0, "every pool block is back after Fini");
    }
    close(epoll);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RunOnce(data, size, true);
    RunOnce(data, size, false);
    return 0;
}
