// CUringPoller: level-triggered readiness over io_uring's one-shot polls (see uring_poller.h).
#include "net/owner/uring_poller.h"

#include <errno.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#if __has_include(<linux/io_uring.h>)
#include <linux/io_uring.h>
#endif

// The interface as of Linux 5.11 (wait timeouts) is needed to build the back end; the later
// set-up flags have fixed values in the kernel's ABI and are tried at run time.
#if defined(__NR_io_uring_setup) && defined(IORING_ENTER_EXT_ARG)
#define QUOLNET_URING_BUILT 1
#ifndef IORING_SETUP_COOP_TASKRUN
#define IORING_SETUP_COOP_TASKRUN (1U << 8)
#endif
#ifndef IORING_SETUP_TASKRUN_FLAG
#define IORING_SETUP_TASKRUN_FLAG (1U << 9)
#endif
#ifndef IORING_SETUP_SINGLE_ISSUER
#define IORING_SETUP_SINGLE_ISSUER (1U << 12)
#endif
#ifndef IORING_SETUP_DEFER_TASKRUN
#define IORING_SETUP_DEFER_TASKRUN (1U << 13)
#endif
#else
#define QUOLNET_URING_BUILT 0
#endif

namespace QUOLNET {

#if QUOLNET_URING_BUILT

namespace {

constexpr unsigned kCqEntries = 65536;    // every registration's completion fits, with room
constexpr uint64_t kWithdrawTag = ~0ull;  // user_data of POLL_REMOVE: its completion is dropped
constexpr uint32_t kPollBits = EPOLLIN | EPOLLPRI | EPOLLOUT | EPOLLERR | EPOLLHUP | EPOLLRDHUP;

uint64_t Tag(int fd, uint32_t gen) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(fd)) << 32) | gen;
}

unsigned LoadAcquire(const unsigned* p) {
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}

void StoreRelease(unsigned* p, unsigned v) {
    __atomic_store_n(p, v, __ATOMIC_RELEASE);
}

}  // namespace

CUringPoller::CUringPoller() {}

CUringPoller::~CUringPoller() {
    CloseRing();
}

void CUringPoller::CloseRing() {
    if (m_sqes != nullptr) {
        munmap(m_sqes, m_sqes_len);
        m_sqes = nullptr;
    }
    if (m_cq_map != nullptr && m_cq_map != m_sq_map) {
        munmap(m_cq_map, m_cq_map_len);
    }
    m_cq_map = nullptr;
    if (m_sq_map != nullptr) {
        munmap(m_sq_map, m_sq_map_len);
        m_sq_map = nullptr;
    }
    if (m_ring >= 0) {
        ::close(m_ring);
        m_ring = -1;
    }
}

int CUringPoller::Open(unsigned int entries, std::string* why) {
    // Completions' work runs only when the loop asks for events (DEFER_TASKRUN), never in the
    // middle of its own work; that needs one submitting thread, the loop's, so the ring
    // starts disabled and the loop's first Wait enables it (kernels before 6.1: without).
    const unsigned common = IORING_SETUP_CQSIZE | IORING_SETUP_CLAMP;
    const unsigned tries[] = {
        common | IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN | IORING_SETUP_R_DISABLED,
        common | IORING_SETUP_COOP_TASKRUN | IORING_SETUP_TASKRUN_FLAG, common};
    // Where the rings' memory is locked memory (kernels before 5.12) a smaller ring may be
    // had: the completion ring overflows into the kernel's list then (FEAT_NODROP).
    const unsigned sizes[][2] = {{entries, kCqEntries}, {std::min(entries, 256u), 4096u}};
    struct io_uring_params p;
    int ring = -1;
    for (const auto& size : sizes) {
        for (unsigned flags : tries) {
            memset(&p, 0, sizeof(p));
            p.flags = flags;
            p.cq_entries = size[1];
            ring = static_cast<int>(syscall(__NR_io_uring_setup, size[0], &p));
            if (ring >= 0 || errno != EINVAL) {
                break;
            }
        }
        if (ring >= 0 || errno != ENOMEM) {
            break;
        }
    }
    if (ring < 0) {
        *why = std::string("io_uring_setup: ") + strerror(errno) +
               (errno == EPERM || errno == ENOSYS ? " (io_uring disabled or filtered here)" : "");
        return -1;
    }
    m_ring = ring;
    m_disabled = (p.flags & IORING_SETUP_R_DISABLED) != 0;
    m_single_issuer = (p.flags & IORING_SETUP_SINGLE_ISSUER) != 0;
    m_entries = entries;
    const uint32_t need = IORING_FEAT_SINGLE_MMAP | IORING_FEAT_NODROP | IORING_FEAT_EXT_ARG;
    if ((p.features & need) != need) {
        *why =
            "the kernel's io_uring lacks features this back end needs (single mmap, no drop, wait timeouts)";
        CloseRing();
        errno = ENOSYS;
        return -1;
    }
    m_sq_map_len = p.sq_off.array + p.sq_entries * sizeof(unsigned);
    m_cq_map_len = p.cq_off.cqes + p.cq_entries * sizeof(struct io_uring_cqe);
    m_sq_map_len = std::max(m_sq_map_len, m_cq_map_len);  // one mapping holds both rings
    void* sq = mmap(nullptr, m_sq_map_len, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, ring,
                    IORING_OFF_SQ_RING);
    if (sq == MAP_FAILED) {
        *why = std::string("mapping the io_uring rings: ") + strerror(errno);
        CloseRing();
        return -1;
    }
    m_sq_map = sq;
    m_cq_map = sq;
    m_sqes_len = p.sq_entries * sizeof(struct io_uring_sqe);
    void* sqes =
        mmap(nullptr, m_sqes_len, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, ring, IORING_OFF_SQES);
    if (sqes == MAP_FAILED) {
        *why = std::string("mapping the io_uring entries: ") + strerror(errno);
        CloseRing();
        return -1;
    }
    m_sqes = static_cast<io_uring_sqe*>(sqes);
    char* base = static_cast<char*>(sq);
    m_sq_head = reinterpret_cast<unsigned*>(base + p.sq_off.head);
    m_sq_tail = reinterpret_cast<unsigned*>(base + p.sq_off.tail);
    m_sq_mask = *reinterpret_cast<unsigned*>(base + p.sq_off.ring_mask);
    m_sq_entries = *reinterpret_cast<unsigned*>(base + p.sq_off.ring_entries);
    m_sq_array = reinterpret_cast<unsigned*>(base + p.sq_off.array);
    m_cq_head = reinterpret_cast<unsigned*>(base + p.cq_off.head);
    m_cq_tail = reinterpret_cast<unsigned*>(base + p.cq_off.tail);
    m_cq_mask = *reinterpret_cast<unsigned*>(base + p.cq_off.ring_mask);
    m_cqes = reinterpret_cast<io_uring_cqe*>(base + p.cq_off.cqes);
    return 0;
}

bool CUringPoller::Available(std::string* why) {
    static std::once_flag once;
    static bool available = false;
    static std::string reason;
    std::call_once(once, []() {
        CUringPoller probe;
        available = probe.Open(8, &reason) == 0;
    });
    if (!available && why != nullptr) {
        *why = reason;
    }
    return available;
}

CUringPoller::Reg& CUringPoller::RegOf(int fd) {
    if (static_cast<size_t>(fd) >= m_regs.size()) {
        m_regs.resize(std::max<size_t>(static_cast<size_t>(fd) + 1, m_regs.size() * 2));
    }
    return m_regs[static_cast<size_t>(fd)];
}

void CUringPoller::MarkDirty(int fd, Reg& r) {
    if (!r.dirty) {
        r.dirty = true;
        m_dirty.push_back(fd);
    }
}

int CUringPoller::Add(int fd, uint32_t events, void* ptr) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    Reg& r = RegOf(fd);
    if (r.active) {
        errno = EEXIST;
        return -1;
    }
    r.active = true;
    r.ptr = ptr;
    r.events = events;
    ++r.gen;
    MarkDirty(fd, r);
    return 0;
}

int CUringPoller::Modify(int fd, uint32_t events, void* ptr) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (fd < 0 || static_cast<size_t>(fd) >= m_regs.size() || !m_regs[static_cast<size_t>(fd)].active) {
            errno = ENOENT;
            return -1;
        }
        Reg& r = m_regs[static_cast<size_t>(fd)];
        if (r.events == events && r.ptr == ptr) {
            return 0;
        }
        r.events = events;
        r.ptr = ptr;
        ++r.gen;
        MarkDirty(fd, r);
        wake = m_wake && !(m_on_loop && m_on_loop());
    }
    if (wake) {
        m_wake();  // the loop may be asleep with the old mask armed
    }
    return 0;
}

int CUringPoller::Remove(int fd) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (fd < 0 || static_cast<size_t>(fd) >= m_regs.size() || !m_regs[static_cast<size_t>(fd)].active) {
        errno = ENOENT;
        return -1;
    }
    Reg& r = m_regs[static_cast<size_t>(fd)];
    r.active = false;
    r.ptr = nullptr;
    ++r.gen;
    if (r.armed) {
        // Withdrawn now, not at the next wait: the poll holds the socket's file, and the
        // caller is about to close it.
        io_uring_sqe* sqe = NextSqe();
        if (sqe != nullptr) {
            const uint64_t withdrawn = Tag(fd, r.armed_gen);
            sqe->opcode = IORING_OP_POLL_REMOVE;
            sqe->fd = -1;
            sqe->addr = withdrawn;
            sqe->user_data = kWithdrawTag;
            r.armed = false;
            // The poll lets the file go when it completes (cancelled), which the kernel may
            // leave to the next request for events: asked for here until its completion is
            // in the ring (bounded; on another thread than the ring's, the enter fails).
            for (int i = 0; i < 64 && !Completed(withdrawn); ++i) {
                int ret = Enter(i == 0 ? EnterMode::kPoll : EnterMode::kWait, 1);
                if (ret < 0 && errno != ETIME && errno != EINTR && errno != EBUSY) {
                    break;
                }
            }
        } else {
            MarkDirty(fd, r);  // withdrawn at the next wait
        }
    }
    return 0;
}

bool CUringPoller::Completed(uint64_t tag) const {
    unsigned tail = LoadAcquire(m_cq_tail);
    for (unsigned head = *m_cq_head; head != tail; ++head) {
        if (m_cqes[head & m_cq_mask].user_data == tag) {
            return true;
        }
    }
    return false;
}

io_uring_sqe* CUringPoller::NextSqe() {
    unsigned tail = *m_sq_tail;
    if (tail - LoadAcquire(m_sq_head) >= m_sq_entries) {
        Enter(EnterMode::kSubmit, 0);  // full: what is queued goes now
        if (tail - LoadAcquire(m_sq_head) >= m_sq_entries) {
            return nullptr;
        }
    }
    unsigned idx = tail & m_sq_mask;
    io_uring_sqe* sqe = &m_sqes[idx];
    memset(sqe, 0, sizeof(*sqe));
    m_sq_array[idx] = idx;
    StoreRelease(m_sq_tail, tail + 1);
    ++m_queued;
    return sqe;
}

int CUringPoller::Enter(EnterMode mode, int timeout_ms) {
    if (m_disabled) {
        errno = EBADFD;
        return -1;  // not the loop's thread yet: what is queued goes with its first Wait
    }
    unsigned submit = m_queued;
    unsigned flags = mode == EnterMode::kSubmit ? 0u : static_cast<unsigned>(IORING_ENTER_GETEVENTS);
    struct io_uring_getevents_arg arg;
    struct __kernel_timespec ts;
    memset(&arg, 0, sizeof(arg));
    const bool wait = mode == EnterMode::kWait;
    if (wait) {
        flags |= IORING_ENTER_EXT_ARG;
        arg.sigmask_sz = _NSIG / 8;
        if (timeout_ms >= 0) {
            ts.tv_sec = timeout_ms / 1000;
            ts.tv_nsec = static_cast<long long>(timeout_ms % 1000) * 1000000;
            arg.ts = reinterpret_cast<uint64_t>(&ts);
        }
    }
    // kPoll asks for events without waiting: the completions' deferred work runs, and
    // whatever is ready is posted.
    int ret = static_cast<int>(syscall(__NR_io_uring_enter, m_ring, submit, wait ? 1u : 0u, flags,
                                       wait ? &arg : nullptr, wait ? sizeof(arg) : 0));
    if (ret >= 0) {
        m_queued -= std::min(m_queued, static_cast<unsigned>(ret));
    }
    return ret;
}

void CUringPoller::ArmDirty() {
    // Taken out of m_dirty first: what cannot be armed now is marked dirty again, into it.
    m_arming.clear();
    m_arming.swap(m_dirty);
    for (int fd : m_arming) {
        Reg& r = m_regs[static_cast<size_t>(fd)];
        r.dirty = false;
        if (r.armed && r.armed_gen != r.gen) {
            io_uring_sqe* sqe = NextSqe();  // the armed poll asks for what no longer holds
            if (sqe == nullptr) {
                MarkDirty(fd, r);
                continue;
            }
            sqe->opcode = IORING_OP_POLL_REMOVE;
            sqe->fd = -1;
            sqe->addr = Tag(fd, r.armed_gen);
            sqe->user_data = kWithdrawTag;
            r.armed = false;
        }
        if (r.active && !r.armed && (r.events & kPollBits) != 0) {
            io_uring_sqe* sqe = NextSqe();
            if (sqe == nullptr) {
                MarkDirty(fd, r);
                continue;
            }
            sqe->opcode = IORING_OP_POLL_ADD;
            sqe->fd = fd;
            sqe->poll32_events = (r.events & kPollBits) | EPOLLERR | EPOLLHUP;
            sqe->user_data = Tag(fd, r.gen);
            r.armed = true;
            r.armed_gen = r.gen;
        }
    }
}

int CUringPoller::Reap(epoll_event* out, int max) {
    int n = 0;
    unsigned head = *m_cq_head;
    unsigned tail = LoadAcquire(m_cq_tail);
    while (head != tail && n < max) {
        const io_uring_cqe& cqe = m_cqes[head & m_cq_mask];
        ++head;
        if (cqe.user_data == kWithdrawTag) {
            continue;
        }
        int fd = static_cast<int>(cqe.user_data >> 32);
        uint32_t gen = static_cast<uint32_t>(cqe.user_data);
        if (static_cast<size_t>(fd) >= m_regs.size()) {
            continue;
        }
        Reg& r = m_regs[static_cast<size_t>(fd)];
        if (!r.armed || r.armed_gen != gen) {
            continue;  // withdrawn or replaced since
        }
        r.armed = false;
        MarkDirty(fd, r);  // armed again at the next wait: level-triggered
        if (!r.active) {
            continue;
        }
        if (gen != r.gen) {
            continue;  // the mask changed meanwhile: the new one is armed at the next wait
        }
        uint32_t revents = cqe.res >= 0 ? static_cast<uint32_t>(cqe.res) : static_cast<uint32_t>(EPOLLERR);
        out[n].events = revents;
        out[n].data.ptr = r.ptr;
        ++n;
    }
    StoreRelease(m_cq_head, head);
    return n;
}

int CUringPoller::Wait(epoll_event* out, int max, int timeout_ms) {
    int n = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_disabled && m_single_issuer && m_issuer != std::this_thread::get_id()) {
            // The loop runs on another thread now (RunOnce here, then Run there): a ring
            // answers only the thread that enabled it, so a new one takes over the same
            // registrations (readiness is found again when they are armed; nothing is lost).
            std::string why;
            CloseRing();
            m_queued = 0;
            if (Open(m_entries, &why) != 0) {
                errno = ENXIO;
                return -1;
            }
            for (size_t fd = 0; fd < m_regs.size(); ++fd) {
                m_regs[fd].armed = false;
                if (m_regs[fd].active) {
                    MarkDirty(static_cast<int>(fd), m_regs[fd]);
                }
            }
        }
        if (m_disabled) {
            // This thread submits from now on (the ring's one issuer).
            if (syscall(__NR_io_uring_register, m_ring, IORING_REGISTER_ENABLE_RINGS, nullptr, 0) != 0) {
                return -1;
            }
            m_disabled = false;
            m_issuer = std::this_thread::get_id();
        }
        ArmDirty();          // what changed, and what was reported last time (level-triggered)
        n = Reap(out, max);  // left over from the last wait: reported now, armed next time
    }
    int ret = Enter(n == 0 && timeout_ms != 0 ? EnterMode::kWait : EnterMode::kPoll, timeout_ms);
    if (ret < 0 && errno != ETIME && errno != EINTR && errno != EBUSY) {
        return n > 0 ? n : -1;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    return n + Reap(out + n, max - n);
}

#else  // !QUOLNET_URING_BUILT: the kernel headers this was built with have no io_uring

CUringPoller::CUringPoller() {}
CUringPoller::~CUringPoller() {}

int CUringPoller::Open(unsigned int, std::string* why) {
    *why = "built without io_uring (the kernel headers lack it)";
    errno = ENOSYS;
    return -1;
}

bool CUringPoller::Available(std::string* why) {
    if (why != nullptr) {
        *why = "built without io_uring (the kernel headers lack it)";
    }
    return false;
}

int CUringPoller::Add(int, uint32_t, void*) {
    errno = ENOSYS;
    return -1;
}

int CUringPoller::Modify(int, uint32_t, void*) {
    errno = ENOSYS;
    return -1;
}

int CUringPoller::Remove(int) {
    errno = ENOSYS;
    return -1;
}

int CUringPoller::Wait(epoll_event*, int, int) {
    errno = ENOSYS;
    return -1;
}

#endif  // QUOLNET_URING_BUILT

}  // namespace QUOLNET
