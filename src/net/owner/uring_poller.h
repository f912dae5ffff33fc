// CUringPoller: the loop's readiness through io_uring instead of epoll (the io_uring back
// end's first part), over the kernel's raw interface: no library beyond the kernel headers.
//
// The same contract as epoll's level-triggered set (IPoller): a registered socket that stays
// ready is reported at every wait. Each registration has at most one one-shot poll in the
// ring; a completion reports the socket once and the poll is armed again at the next Wait,
// which finds the socket ready again at once if it still is. Every poll armed or withdrawn in
// a tick goes to the kernel in the one io_uring_enter that also waits for the next events.
//
//   registration (by descriptor):  ptr, events, generation
//       Add / Modify / Remove  ->  table updated, descriptor marked dirty
//       Wait                   ->  dirty ones: stale poll withdrawn (POLL_REMOVE), new one
//                                  armed (POLL_ADD, user_data = descriptor and generation);
//                                  one enter submits them and waits; completions of the
//                                  current generation become events, older ones are dropped
//
// A poll holds the socket's file: Remove withdraws it before it returns (one enter, without
// waiting), so that a close right after ends the connection at once.
//
// Threads: Wait, Add and Remove on the loop's thread (or before the loop runs); Modify on
// any thread. m_mutex guards the table, the dirty list and the submission ring; Wait does
// not hold it while it sleeps in the kernel. A Modify from another thread wakes the loop
// (`wake`), as epoll_ctl would.
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

    // Arms what changed, waits up to `timeout_ms` (-1: for ever, 0: not at all) for events,
    // and fills `out` (at most `max`). Returns how many, or -1 with errno set.
    int Wait(epoll_event* out, int max, int timeout_ms);

    // Whether this kernel offers what the poller needs (probed once per process).
    static bool Available(std::string* why);

  private:
    struct Reg {
        void* ptr = nullptr;
        uint32_t events = 0;
        uint32_t gen = 0;     // bumped by every change; a completion of another is stale
        bool active = false;  // registered
        bool armed = false;   // a poll of generation `armed_gen` is in the ring
        bool dirty = false;   // on m_dirty
        uint32_t armed_gen = 0;
    };

    Reg& RegOf(int fd);
    void MarkDirty(int fd, Reg& r);
    // Next free submission entry (submitting what is queued when the ring is full); null
    // when the kernel refuses even that.
    io_uring_sqe* NextSqe();
    // io_uring_enter: submits what is queued; kPoll also collects what is ready, kWait
    // waits for one completion up to `timeout_ms` (-1: for ever). Returns as the system call.
    enum class EnterMode { kSubmit, kPoll, kWait };
    int Enter(EnterMode mode, int timeout_ms);
    void ArmDirty();
    // Whether a completion with `tag` waits in the completion ring (not consumed).
    bool Completed(uint64_t tag) const;
    int Reap(epoll_event* out, int max);
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

    std::mutex m_mutex;
    std::vector<Reg> m_regs;    // by descriptor; guarded by m_mutex
    std::vector<int> m_dirty;   // descriptors to arm or withdraw at the next Wait; guarded by m_mutex
    std::vector<int> m_arming;  // m_dirty's list while ArmDirty works through it (storage kept)
    std::function<void()> m_wake;
    std::function<bool()> m_on_loop;
};

}  // namespace QUOLNET
