// CUringPoller: the loop's readiness and receives through io_uring instead of epoll (the
// io_uring back end), over the kernel's raw interface: no library beyond the kernel headers.
//
// Readiness keeps epoll's level-triggered contract (IPoller): a registered socket that stays
// ready is reported at every wait. Each registration has at most one poll in the ring. It is
// one-shot as a rule: a completion reports the socket once and the poll is armed again at
// the next Wait, which finds the socket ready again at once if it still is. A receiving
// registration read by its socket (bulk mode, a dry buffer ring) that asks for input only
// keeps a multishot poll instead: arming it and every wake-up mark it readable, it is
// reported at every wait while so, and Receive clears the mark when a read drains the
// socket: would-block, or the kernel's count of what stays queued (TCP_INQ, which counts
// the end of stream) at 0. A short read is not drained: it stops at the end of stream.
//
// Receives (StartReceive): the socket's input comes by one multishot receive into buffers
// the loop provides (a buffer ring of kBufCount x kBufSize, owned here). Each completion's
// chunk waits on the registration's list until the connector reads it (Receive); EPOLLIN
// is reported at every wait while a chunk, the end of stream or an error waits, so the
// contract stays level-triggered and no poll is needed for input.
//
//   per registration:   poll (mask without EPOLLIN while receiving)   receive state
//                                                                       kOff --arm--> kArmed
//   Wait: what changed is armed or withdrawn,                          kArmed --paused, full,
//   one enter submits and waits; completions                             stopped--> kCancelling
//   become chunks and events; events go out                            kArmed/kCancelling --last
//   once per registration                                                completion--> kOff
//
// Back-pressure: a registration holding kMaxPending unread bytes or kMaxChunks chunks, or
// paused (no EPOLLIN), has its receive cancelled, so the socket's own buffer and window
// push back on the peer. When the buffer ring runs dry the receive ends (ENOBUFS); the
// registration then waits by a readiness poll and Receive reads the socket itself
// (nothing is in flight then) until buffers come back.
//
// Bulk: a connection whose receives bring kBulkChunk bytes or more (kBulkRun in a row: big
// packets, a stream, deep pipelines) is read the way epoll's are, a readiness poll and
// recv(2) into the connector's own block, which saves the copy out of the buffers and the
// small reads; kBulkExitRun reads in a row shorter than kBulkExit bring it back to the
// ring's receive (one short read ends every big packet: that is not enough).
//
// A poll or a receive holds the socket's file: Remove withdraws both before it returns, and
// StopReceive collects what the receive took, so a close or a hand-over right after loses
// nothing and leaves nothing behind.
//
// Sends (SendBatch): the owner's end-of-tick flush hands every connection's queued block to
// the ring at once; one enter writes them all (MSG_DONTWAIT: each completes as it is
// issued), and the results are collected before SendBatch returns, so the blocks are the
// connections' again.
//
// Threads: Wait, Add, Remove, StartReceive, Receive and StopReceive on the loop's thread (or
// before the loop runs); Modify on any thread. m_mutex guards the table, the lists, the
// buffers and the submission ring; Wait does not hold it while it sleeps in the kernel. A
// Modify from another thread wakes the loop (`wake`), as epoll_ctl would.
#pragma once

#include <sys/epoll.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../poller.h"

struct io_uring_sqe;
struct io_uring_cqe;

namespace QUOLNET {

class CUringPoller : public IPoller {
  public:
    CUringPoller();
    ~CUringPoller() override;
    CUringPoller(const CUringPoller&) = delete;
    CUringPoller& operator=(const CUringPoller&) = delete;

    // Sets up the ring. 0, or -1 with `*why` saying what the kernel lacks or refused
    // (io_uring disabled or filtered, a feature missing); nothing is left open then.
    int Open(unsigned int entries, std::string* why);
    // Called by Modify on a thread other than the loop's, to end its wait.
    void SetWake(std::function<void()> wake) { m_wake = std::move(wake); }
    // The loop's thread: Modify calls from it need no wake-up.
    void SetLoopThreadCheck(std::function<bool()> on_loop) { m_on_loop = std::move(on_loop); }

    int Add(int fd, uint32_t events, void* ptr) override;
    int Modify(int fd, uint32_t events, void* ptr) override;
    int Remove(int fd) override;
    bool StartReceive(int fd) override;
    ssize_t Receive(int fd, void* buf, size_t len, int* inq) override;
    void StopReceive(int fd, std::string* left) override;
    // One SEND per op, all submitted by one enter; non-blocking writes complete as they are
    // issued, so they are collected at once (waited for, should one not be).
    void SendBatch(const SendOp* ops, size_t n, int* results) override;

    // Arms what changed, waits up to `timeout_ms` (-1: for ever, 0: not at all) for events,
    // and fills `out` (at most `max`). Returns how many, or -1 with errno set.
    int Wait(epoll_event* out, int max, int timeout_ms);

    // Whether this ring receives for sockets (StartReceive can say yes): the kernel took the
    // buffer ring (Linux 5.19) and the headers had multishot receive (6.0).
    bool Receives() const { return m_receives; }
    // Provided buffers the kernel may fill now (the others hold unread chunks). Loop thread.
    unsigned BuffersFree() const { return m_bufs_in_ring; }

    // Whether this kernel offers what the poller needs (probed once per process).
    static bool Available(std::string* why);

    static constexpr unsigned kBufCount = 256;        // provided buffers per loop
    static constexpr unsigned kBufSize = 16 * 1024;   // bytes each
    static constexpr size_t kMaxPending = 64 * 1024;  // unread bytes before the receive stops
    static constexpr unsigned kMaxChunks = 4;         // or unread chunks (a trickle of tiny
                                                      // segments must not take every buffer)
    static constexpr unsigned kBulkChunk = 8192;      // a receive this big counts for bulk
    static constexpr unsigned kBulkRun = 2;           // and this many in a row: bulk mode
    static constexpr size_t kBulkExit = 4096;         // reads this short, kBulkExitRun in a
    static constexpr unsigned kBulkExitRun = 8;       // row, end bulk mode

  private:
    enum RecvState : uint8_t { kOff, kArmed, kCancelling };
    struct Reg {
        void* ptr = nullptr;
        uint32_t events = 0;
        bool active = false;    // registered
        bool armed = false;     // a poll (tag kPoll/poll_seq, mask armed_mask) is in the ring
        bool dirty = false;     // on m_dirty
        bool ready = false;     // on m_ready
        bool on_input = false;  // on m_input
        bool receives = false;  // StartReceive: input comes by the ring's receive
        bool eof = false;       // the receive met the end of stream (after the chunks)
        RecvState recv = kOff;
        uint32_t poll_seq = 0;  // the armed poll's number; other completions are stale
        uint32_t recv_seq = 0;  // the receive's number, as for polls
        uint32_t armed_mask = 0;
        uint32_t revents = 0;   // readiness reaped and not yet reported
        int err = 0;            // the receive's failure (errno), after the chunks
        int head = -1;          // chunks received and unread: buffer ids, oldest first,
        int tail = -1;          //   linked through m_bufs[].next
        size_t pending = 0;     // their unread bytes
        unsigned chunks = 0;    // and how many
        unsigned full_run = 0;  // receives in a row of kBulkChunk bytes or more, or in
                                // bulk mode reads in a row shorter than kBulkExit
        bool bulk = false;      // bulk mode: the socket read by recv(2) straight into the
                                // connector's block, after a readiness poll
        bool multi = false;     // the armed poll is multishot: it stays, one completion a
                                // wake-up (a receiving registration read through Receive)
        bool readable = false;  // the multishot poll saw input that no read has drained yet:
                                // reported again at every wait (level-triggered)
        bool inq_on = false;    // TCP_INQ is on: reads by the socket learn what stays queued
    };
    struct Buf {
        int next = -1;     // the next chunk of the same registration
        uint32_t len = 0;  // bytes the receive put in
        uint32_t off = 0;  // bytes already read
    };

    Reg& RegOf(int fd);
    Reg* Find(int fd);
    void MarkDirty(int fd, Reg& r);
    void MarkReady(int fd, Reg& r);
    void MarkInput(int fd, Reg& r);
    static bool HasInput(const Reg& r) { return r.head != -1 || r.eof || r.err != 0; }
    // Input to report at every wait until read: chunks, the end or an error the receive met,
    // or a socket a multishot poll found readable and no read has drained since.
    static bool Unread(const Reg& r) { return r.receives && (HasInput(r) || r.readable); }
    // Next free submission entry (submitting what is queued when the ring is full); null
    // when the kernel refuses even that.
    io_uring_sqe* NextSqe();
    // NextSqe for an operation on `fd`'s registration; when null, the registration is marked
    // dirty, so the operation is made at the next wait.
    io_uring_sqe* SqeFor(int fd, Reg& r);
    // io_uring_enter: submits what is queued; kPoll also collects what is ready, kWait
    // waits for one completion up to `timeout_ms` (-1: for ever). Returns as the system call.
    enum class EnterMode { kSubmit, kPoll, kWait };
    int Enter(EnterMode mode, int timeout_ms);
    void ArmDirty();
    // Queue the withdrawal of `r`'s armed poll / the cancel of its receive; false (and `r`
    // marked dirty, to be done at the next wait) when the submission ring is full.
    bool WithdrawPoll(int fd, Reg& r);
    bool CancelReceive(int fd, Reg& r);
    void ArmReceive(int fd, Reg& r);
    void ArmPoll(int fd, Reg& r);
    // Every completion in the ring into the registrations' state (chunks, readiness).
    void ReapAll();
    void ReapRecv(const io_uring_cqe& cqe, int fd, uint32_t seq);
    // Readiness and input reported once per registration, at most `max`.
    int Emit(epoll_event* out, int max);
    // Enters until the completion tagged `tag` is reaped and `fd`'s receive is over
    // (bounded: 64 waits of 1 ms). True when both happened.
    bool Settle(int fd, uint64_t tag);
    // Drops `r`'s unread chunks, appending their bytes to `*left` when not null.
    void TakeChunks(Reg& r, std::string* left);
    void GiveBuffer(int bid);
    int SetUpBuffers();
    void CloseRing();

    int m_ring = -1;
    void* m_sq_map = nullptr;
    size_t m_sq_map_len = 0;
    void* m_cq_map = nullptr;  // m_sq_map when the kernel maps both rings at once
    size_t m_cq_map_len = 0;
    io_uring_sqe* m_sqes = nullptr;
    size_t m_sqes_len = 0;
    unsigned* m_sq_head = nullptr;
    unsigned* m_sq_tail = nullptr;
    unsigned m_sq_mask = 0;
    unsigned m_sq_entries = 0;
    unsigned* m_sq_array = nullptr;
    unsigned* m_cq_head = nullptr;
    unsigned* m_cq_tail = nullptr;
    unsigned m_cq_mask = 0;
    io_uring_cqe* m_cqes = nullptr;
    unsigned m_queued = 0;         // entries written and not yet submitted
    bool m_disabled = false;       // set up disabled, until the loop's first Wait enables it
    bool m_single_issuer = false;  // only the thread that enabled the ring may submit
    std::thread::id m_issuer;      // that thread
    unsigned m_entries = 0;        // as Open was asked

    // Provided buffers: kBufCount x kBufSize bytes at m_buf_mem, handed to the kernel
    // through the buffer ring at m_buf_ring (one per ring opened; old ones are unmapped
    // with the poller, the kernel may still read them while a closed ring winds down).
    bool m_receives = false;  // the kernel took the buffer ring: receives by the ring
    char* m_buf_mem = nullptr;
    void* m_buf_ring = nullptr;
    std::vector<void*> m_old_buf_rings;
    uint16_t m_buf_tail = 0;      // the buffer ring's tail, as last published
    unsigned m_bufs_in_ring = 0;  // buffers the kernel may fill
    std::vector<Buf> m_bufs;      // by buffer id

    std::mutex m_mutex;
    std::vector<Reg> m_regs;        // by descriptor; guarded by m_mutex
    std::vector<int> m_dirty;       // descriptors to arm or withdraw at the next Wait; guarded by m_mutex
    std::vector<int> m_arming;      // m_dirty's list while ArmDirty works through it (storage kept)
    std::vector<int> m_ready;       // descriptors with something to report; guarded by m_mutex
    std::vector<int> m_input;       // descriptors with unread input (reported at every wait)
    int* m_send_results = nullptr;  // SendBatch: where its completions go, and how many came
    size_t m_sends_done = 0;
    uint64_t m_awaited = 0;  // Settle: the tag it waits for, and whether it was reaped
    bool m_awaited_seen = false;
    std::function<void()> m_wake;
    std::function<bool()> m_on_loop;
};

}  // namespace QUOLNET
