// The hand-over's messages between two processes over a Unix stream socket.
//
//   message: | magic "QNHO" | type u16 | reserved u16 | length u32 | payload (length bytes) |
//
// all integers little-endian. Descriptors travel as SCM_RIGHTS on the message's first byte
// (so the receiver's first recvmsg, which reads the 12-byte header, takes them), at most
// kMaxFds per message. Every call is bounded by an absolute deadline (CEventLoop::NowMs):
// the socket is non-blocking and waits go through poll.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace QUOLNET {

namespace handover {

constexpr uint32_t kWireVersion = 1;
constexpr size_t kMaxFds = 200;  // below the kernel's 253 per message
constexpr uint32_t kMaxPayload = 1u << 30;

enum MsgType : uint16_t {
    kHello = 1,      // new -> old: version
    kWelcome = 2,    // old -> new: version, pid, highest id, deadline, blocks in use
    kRefuse = 3,     // either way: why (text); the exchange ends
    kProcess = 4,    // old -> new: the application's blob for the whole process
    kListeners = 5,  // old -> new: each listener's URL; the descriptors
    kConns = 6,      // old -> new: a batch of connections; their descriptors
    kAck = 7,        // new -> old: the ids (of kConns) or count (of kListeners) taken
    kDone = 8,       // old -> new: nothing more; totals
    kDoneAck = 9,    // new -> old
    kReady = 10,     // new -> old: made ready (its pool warmed); the old process stops serving now
};

struct Msg {
    uint16_t type = 0;
    std::string payload;
    std::vector<int> fds;  // owned by the receiver (close-on-exec)
};

// Sends one message. False with `*error` set on failure or at the deadline.
bool Send(int fd, uint16_t type, const std::string& payload, const std::vector<int>& fds, int64_t deadline_ms,
          std::string* error);
// Receives one message. False with `*error` set (the peer's end of stream says "the peer
// closed the hand-over socket") on failure or at the deadline; descriptors that came with
// a failed message are closed.
bool Recv(int fd, Msg* out, int64_t deadline_ms, std::string* error);
// The peer's user and process (SO_PEERCRED). False when the kernel does not say.
bool PeerCredentials(int fd, uint32_t* uid, int32_t* pid);

// Builds a payload.
class CWriter {
  public:
    void U8(uint8_t v) { m_out.push_back(static_cast<char>(v)); }
    void U32(uint32_t v);
    void U64(uint64_t v);
    void I64(int64_t v) { U64(static_cast<uint64_t>(v)); }
    void Bytes(const std::string& s);
    // One byte string made of `pieces` in order (pointer, length).
    void Bytes(const std::vector<std::pair<const char*, size_t>>& pieces);
    // Empties the output, keeping its memory for the next message.
    void Clear() { m_out.clear(); }
    void Reserve(size_t n) { m_out.reserve(n); }
    // Overwrites the U32 written at offset `at` (a count known only once the items are in).
    void SetU32(size_t at, uint32_t v);
    std::string& Out() { return m_out; }

  private:
    std::string m_out;
};

// Reads a payload; once a read runs past the end every later one fails too (Ok() false).
class CReader {
  public:
    explicit CReader(const std::string& in) : m_in(in) {}
    uint8_t U8();
    uint32_t U32();
    uint64_t U64();
    int64_t I64() { return static_cast<int64_t>(U64()); }
    std::string Bytes();
    // A byte string left where it is in the payload: (pointer, length), valid as long as
    // the payload.
    std::pair<const char*, size_t> BytesView();
    bool Ok() const { return m_ok; }
    bool AtEnd() const { return m_pos == m_in.size(); }

  private:
    bool Need(size_t n);
    const std::string& m_in;
    size_t m_pos = 0;
    bool m_ok = true;
};

}  // namespace handover

}  // namespace QUOLNET
