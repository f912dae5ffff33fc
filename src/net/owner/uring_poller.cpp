// CUringPoller: level-triggered readiness over io_uring's one-shot polls (see uring_poller.h).
#include "net/owner/uring_poller.h"

#include <errno.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
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
constexpr uint64_t kWithdrawTag = ~0ull;  // user_data of withdrawals: their completions are dropped
constexpr uint32_t kPollBits = EPOLLIN | EPOLLPRI | EPOLLOUT | EPOLLERR | EPOLLHUP | EPOLLRDHUP;
constexpr uint16_t kBufGroup = 0;                   // the buffer ring's group id
constexpr uint32_t kRecvKind = 1u << 31;            // in a tag's low word: a receive, not a poll
constexpr uint64_t kSendTag = 0xfffffffeull << 32;  // SendBatch's writes: op index below
constexpr int kNoResult = INT32_MIN;                // a SendBatch write not reported yet

// user_data: the descriptor above, the kind and the operation's number below.
uint64_t Tag(int fd, uint32_t kind, uint32_t seq) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(fd)) << 32) | kind | (seq & ~kRecvKind);
}

unsigned LoadAcquire(const unsigned* p) {
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}

void StoreRelease(unsigned* p, unsigned v) {
    __atomic_store_n(p, v, __ATOMIC_RELEASE);
}

}  // namespace

#if defined(IORING_RECV_MULTISHOT) && defined(IORING_CQE_F_BUFFER)
#define QUOLNET_URING_RECV 1
#else
#define QUOLNET_URING_RECV 0  // headers before 6.0: readiness only, reads stay recv(2)
#endif

CUringPoller::CUringPoller() {}

CUringPoller::~CUringPoller() {
    CloseRing();
    for (void* p : m_old_buf_rings) {
        munmap(p, kBufCount * 16);
    }
    if (m_buf_mem != nullptr) {
        munmap(m_buf_mem, static_cast<size_t>(kBufCount) * kBufSize);
    }
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
    if (m_buf_ring != nullptr) {
        m_old_buf_rings.push_back(m_buf_ring);  // the closing ring may still hold it
        m_buf_ring = nullptr;
    }
    m_receives = false;
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
    // Receives need the buffer ring (Linux 5.19) and multishot receive (6.0); without them
    // the loop still works, by readiness, and reads stay recv(2).
    m_receives = SetUpBuffers() == 0;
    return 0;
}

int CUringPoller::SetUpBuffers() {
#if QUOLNET_URING_RECV
    if (m_buf_mem == nullptr) {
        void* mem = mmap(nullptr, static_cast<size_t>(kBufCount) * kBufSize, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mem == MAP_FAILED) {
            return -1;
        }
        m_buf_mem = static_cast<char*>(mem);
        m_bufs.assign(kBufCount, Buf());
    }
    void* ring = mmap(nullptr, kBufCount * sizeof(struct io_uring_buf), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (ring == MAP_FAILED) {
        return -1;
    }
    struct io_uring_buf_reg reg;
    memset(&reg, 0, sizeof(reg));
    reg.ring_addr = reinterpret_cast<uint64_t>(ring);
    reg.ring_entries = kBufCount;
    reg.bgid = kBufGroup;
    if (syscall(__NR_io_uring_register, m_ring, IORING_REGISTER_PBUF_RING, &reg, 1) != 0) {
        munmap(ring, kBufCount * sizeof(struct io_uring_buf));
        return -1;
    }
    m_buf_ring = ring;
    m_buf_tail = 0;
    m_bufs_in_ring = 0;
    // Every buffer no chunk holds goes to the kernel (all of them, but after a new ring
    // took over from one whose chunks are still unread).
    std::vector<bool> held(kBufCount, false);
    for (const Reg& r : m_regs) {
        for (int b = r.head; b != -1; b = m_bufs[static_cast<size_t>(b)].next) {
            held[static_cast<size_t>(b)] = true;
        }
    }
    for (unsigned b = 0; b < kBufCount; ++b) {
        if (!held[b]) {
            GiveBuffer(static_cast<int>(b));
        }
    }
    return 0;
#else
    return -1;
#endif
}

void CUringPoller::GiveBuffer(int bid) {
#if QUOLNET_URING_RECV
    // Entries by hand: in C++ the header's flexible array sits one empty member too far.
    auto* br = static_cast<struct io_uring_buf_ring*>(m_buf_ring);
    struct io_uring_buf& b = static_cast<struct io_uring_buf*>(m_buf_ring)[m_buf_tail & (kBufCount - 1)];
    b.addr = reinterpret_cast<uint64_t>(m_buf_mem + static_cast<size_t>(bid) * kBufSize);
    b.len = kBufSize;
    b.bid = static_cast<uint16_t>(bid);
    ++m_buf_tail;
    __atomic_store_n(&br->tail, m_buf_tail, __ATOMIC_RELEASE);
    ++m_bufs_in_ring;
#else
    (void)bid;
#endif
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

CUringPoller::Reg* CUringPoller::Find(int fd) {
    if (fd < 0 || static_cast<size_t>(fd) >= m_regs.size() || !m_regs[static_cast<size_t>(fd)].active) {
        errno = ENOENT;
        return nullptr;
    }
    return &m_regs[static_cast<size_t>(fd)];
}

void CUringPoller::MarkDirty(int fd, Reg& r) {
    if (!r.dirty) {
        r.dirty = true;
        m_dirty.push_back(fd);
    }
}

void CUringPoller::MarkReady(int fd, Reg& r) {
    if (!r.ready) {
        r.ready = true;
        m_ready.push_back(fd);
    }
}

void CUringPoller::MarkInput(int fd, Reg& r) {
    MarkReady(fd, r);
    if (!r.on_input) {
        r.on_input = true;
        m_input.push_back(fd);
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
    r.receives = false;
    r.bulk = false;
    r.full_run = 0;
    MarkDirty(fd, r);
    return 0;
}

int CUringPoller::Modify(int fd, uint32_t events, void* ptr) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Reg* r = Find(fd);
        if (r == nullptr) {
            return -1;
        }
        if (r->events == events && r->ptr == ptr) {
            return 0;
        }
        r->events = events;
        r->ptr = ptr;
        MarkDirty(fd, *r);
        wake = m_wake && !(m_on_loop && m_on_loop());
    }
    if (wake) {
        m_wake();  // the loop may be asleep with the old mask armed
    }
    return 0;
}

int CUringPoller::Remove(int fd) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Reg* found = Find(fd);
    if (found == nullptr) {
        return -1;
    }
    Reg& r = *found;
    r.active = false;
    r.ptr = nullptr;
    r.revents = 0;
    r.receives = false;
    // Withdrawn now, not at the next wait: the poll and the receive hold the socket's file,
    // and the caller is about to close it.
    const uint64_t poll_tag = Tag(fd, 0, r.poll_seq);
    const uint64_t withdrawn = r.armed && WithdrawPoll(fd, r) ? poll_tag : 0;
    if (r.recv == kArmed) {
        CancelReceive(fd, r);
    }
    if ((withdrawn != 0 || r.recv != kOff) && !Settle(fd, withdrawn) && r.recv != kOff) {
        // Not over in time (or not the ring's thread): what it still brings is dropped.
        r.recv = kOff;
        ++r.recv_seq;
    }
    TakeChunks(r, nullptr);
    r.eof = false;
    r.err = 0;
    return 0;
}

bool CUringPoller::Settle(int fd, uint64_t tag) {
    // A withdrawn poll lets the file go when it completes, which the kernel may leave to the
    // next request for events; a cancelled receive may still bring chunks before its last
    // completion. Asked for here until both are in (on another thread than the ring's, the
    // enter fails and this gives up).
    m_awaited = tag;
    m_awaited_seen = tag == 0;
    Reg& r = m_regs[static_cast<size_t>(fd)];
    for (int i = 0; i < 64; ++i) {
        int ret = Enter(i == 0 ? EnterMode::kPoll : EnterMode::kWait, 1);
        if (ret < 0 && errno != ETIME && errno != EINTR && errno != EBUSY) {
            break;
        }
        ReapAll();
        if (m_awaited_seen && r.recv == kOff) {
            break;
        }
    }
    m_awaited = 0;
    return m_awaited_seen && r.recv == kOff;
}

void CUringPoller::TakeChunks(Reg& r, std::string* left) {
    while (r.head != -1) {
        int bid = r.head;
        Buf& b = m_bufs[static_cast<size_t>(bid)];
        if (left != nullptr) {
            left->append(m_buf_mem + static_cast<size_t>(bid) * kBufSize + b.off, b.len - b.off);
        }
        r.head = b.next;
        GiveBuffer(bid);
    }
    r.tail = -1;
    r.pending = 0;
    r.chunks = 0;
}

bool CUringPoller::StartReceive(int fd) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Reg* r = Find(fd);
    if (r == nullptr || !m_receives) {
        return false;
    }
    r->receives = true;
    // Reads by the socket ask the kernel what is still queued (the end of stream counts):
    // the only sign that one drained the socket, for a multishot poll. Not TCP: would-block
    // is the only sign.
    int one = 1;
    r->inq_on = setsockopt(fd, IPPROTO_TCP, TCP_INQ, &one, sizeof(one)) == 0;
    MarkDirty(fd, *r);  // the receive is armed at the next wait; until then recv(2) reads
    return true;
}

ssize_t CUringPoller::Receive(int fd, void* buf, size_t len, int* inq) {
    std::unique_lock<std::mutex> lock(m_mutex);
    Reg* found = Find(fd);
    if (found == nullptr || !found->receives) {
        lock.unlock();
        return SocketRecv(fd, buf, len, inq);
    }
    Reg& r = *found;
    char* out = static_cast<char*>(buf);
    size_t got = 0;
    while (got < len && r.head != -1) {
        int bid = r.head;
        Buf& b = m_bufs[static_cast<size_t>(bid)];
        size_t n = std::min(static_cast<size_t>(b.len - b.off), len - got);
        memcpy(out + got, m_buf_mem + static_cast<size_t>(bid) * kBufSize + b.off, n);
        got += n;
        b.off += static_cast<uint32_t>(n);
        r.pending -= n;
        if (b.off == b.len) {
            --r.chunks;
            r.head = b.next;
            if (r.head == -1) {
                r.tail = -1;
            }
            GiveBuffer(bid);
        }
    }
    if (got > 0 && r.recv == kOff) {
        MarkDirty(fd, r);  // stopped for want of room or buffers: armed again at the next wait
    }
    if (got > 0) {
        if (inq != nullptr && r.head != -1) {
            *inq = static_cast<int>(std::min<size_t>(r.pending, INT_MAX));  // more is here already
        }
        return static_cast<ssize_t>(got);
    }
    if (r.err != 0) {
        errno = r.err;  // once, as the socket reports it; then it reads as ended
        r.err = 0;
        r.eof = true;
        return -1;
    }
    if (r.eof) {
        return 0;
    }
    if (r.recv == kOff) {
        // No receive in flight (bulk mode, the buffers ran dry, or not armed yet): the
        // socket itself. Nothing else touches the registration meanwhile (loop thread).
        const bool bulk = r.bulk;
        const bool inq_on = r.inq_on;
        lock.unlock();
        int queued = -1;
        int* ask = inq != nullptr ? inq : (inq_on ? &queued : nullptr);
        ssize_t n = SocketRecv(fd, buf, len, ask);
        // Drained: would-block, or nothing queued behind the bytes. A short read is not
        // enough: a read stops at the end of stream, which stays to be read.
        const bool drained = n < 0 ? errno == EAGAIN : (n > 0 && ask != nullptr && *ask == 0);
        const bool counts = bulk && n >= 0;  // a read that counts for leaving bulk mode
        if (!drained && !counts) {
            return n;
        }
        const int saved = errno;
        lock.lock();
        errno = saved;
        Reg* again = Find(fd);
        if (again == nullptr) {
            return n;
        }
        if (drained) {
            again->readable = false;  // the multishot poll reports the next bytes
        }
        if (counts && static_cast<size_t>(n) >= std::min(len, kBulkExit)) {
            again->full_run = 0;
        } else if (counts && ++again->full_run >= kBulkExitRun) {
            again->bulk = false;  // small reads again: back to the ring's receive
            again->full_run = 0;
            MarkDirty(fd, *again);
        }
        return n;
    }
    errno = EAGAIN;
    return -1;
}

void CUringPoller::StopReceive(int fd, std::string* left) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Reg* found = Find(fd);
    if (found == nullptr || !found->receives) {
        return;
    }
    Reg& r = *found;
    r.receives = false;
    if (r.recv == kArmed) {
        CancelReceive(fd, r);
    }
    if (r.recv != kOff && !Settle(fd, 0)) {
        r.recv = kOff;
        ++r.recv_seq;
    }
    TakeChunks(r, left);
    r.eof = false;  // the socket tells its end (or its error) again when read
    r.err = 0;
    MarkDirty(fd, r);  // readiness by a poll from now on
}

bool CUringPoller::WithdrawPoll(int fd, Reg& r) {
    io_uring_sqe* sqe = SqeFor(fd, r);
    if (sqe == nullptr) {
        return false;  // done at the next wait
    }
    sqe->opcode = IORING_OP_POLL_REMOVE;
    sqe->fd = -1;
    sqe->addr = Tag(fd, 0, r.poll_seq);
    sqe->user_data = kWithdrawTag;
    r.armed = false;
    return true;
}

bool CUringPoller::CancelReceive(int fd, Reg& r) {
    io_uring_sqe* sqe = SqeFor(fd, r);
    if (sqe == nullptr) {
        return false;  // done at the next wait
    }
    sqe->opcode = IORING_OP_ASYNC_CANCEL;
    sqe->fd = -1;
    sqe->addr = Tag(fd, kRecvKind, r.recv_seq);
    sqe->user_data = kWithdrawTag;
    r.recv = kCancelling;  // off at its last completion, which marks it dirty again
    return true;
}

void CUringPoller::SendBatch(const SendOp* ops, size_t n, int* results) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_disabled || (m_single_issuer && m_issuer != std::this_thread::get_id())) {
        lock.unlock();
        IPoller::SendBatch(ops, n, results);  // not the ring's thread: in turn
        return;
    }
    m_send_results = results;
    m_sends_done = 0;
    size_t queued = 0;
    for (; queued < n; ++queued) {
        io_uring_sqe* sqe = NextSqe();
        if (sqe == nullptr) {
            break;
        }
        sqe->opcode = IORING_OP_SEND;
        sqe->fd = ops[queued].fd;
        sqe->addr = reinterpret_cast<uint64_t>(ops[queued].buf);
        sqe->len = static_cast<uint32_t>(ops[queued].len);
        sqe->msg_flags = MSG_DONTWAIT | MSG_NOSIGNAL;
        sqe->user_data = kSendTag | queued;
    }
    // Every write submitted must be over before its memory goes back: waited for until its
    // completion is in (with MSG_DONTWAIT that is at once).
    for (size_t i = 0; i < queued; ++i) {
        results[i] = kNoResult;
    }
    for (int round = 0; m_sends_done < queued; ++round) {
        int ret = Enter(round == 0 ? EnterMode::kSubmit : EnterMode::kWait, round == 0 ? 0 : 10);
        if (ret < 0 && errno != ETIME && errno != EINTR && errno != EBUSY && errno != EAGAIN) {
            // The ring itself failed (never expected): the writes it did not report count as
            // failed, and their connections close.
            ReapAll();
            for (size_t i = 0; i < queued; ++i) {
                if (results[i] == kNoResult) {
                    results[i] = -EIO;
                }
            }
            break;
        }
        ReapAll();
    }
    m_send_results = nullptr;
    const size_t done = queued;
    lock.unlock();
    if (done < n) {
        IPoller::SendBatch(ops + done, n - done, results + done);
    }
}

io_uring_sqe* CUringPoller::SqeFor(int fd, Reg& r) {
    io_uring_sqe* sqe = NextSqe();
    if (sqe == nullptr) {
        MarkDirty(fd, r);  // the ring is full even after a submit: tried again at the next wait
    }
    return sqe;
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

void CUringPoller::ArmReceive(int fd, Reg& r) {
#if QUOLNET_URING_RECV
    const bool want = r.active && r.receives && m_receives && (r.events & EPOLLIN) != 0 &&
                      r.pending < kMaxPending && r.chunks < kMaxChunks && !r.bulk && !r.eof && r.err == 0;
    if (r.recv == kArmed && !want) {
        CancelReceive(fd, r);  // paused, full, bulk or stopped: the window pushes back
    } else if (r.recv == kOff && want && m_bufs_in_ring > 0) {
        io_uring_sqe* sqe = SqeFor(fd, r);
        if (sqe == nullptr) {
            return;  // armed at the next wait
        }
        ++r.recv_seq;
        sqe->opcode = IORING_OP_RECV;
        sqe->fd = fd;
        sqe->flags = IOSQE_BUFFER_SELECT;
        sqe->buf_group = kBufGroup;
        sqe->ioprio = IORING_RECV_MULTISHOT;
        sqe->user_data = Tag(fd, kRecvKind, r.recv_seq);
        r.recv = kArmed;
    }
#else
    (void)fd;
    (void)r;
#endif
}

void CUringPoller::ArmPoll(int fd, Reg& r) {
    uint32_t mask = r.active ? r.events & kPollBits : 0;
    if (r.receives && (r.recv != kOff || HasInput(r))) {
        mask &= ~static_cast<uint32_t>(EPOLLIN);  // input comes by the receive
    }
    if (mask != 0) {
        mask |= EPOLLERR | EPOLLHUP;  // reported whatever was asked, as by epoll
    }
    // A registration whose reads all pass through Receive (which sees when they drain the
    // socket) keeps one multishot poll for input instead of a poll armed again after each
    // report; writability stays one-shot.
    const bool multi = r.receives && (mask & EPOLLIN) != 0 && (mask & EPOLLOUT) == 0;
    if (r.armed && (r.armed_mask != mask || r.multi != multi) && !WithdrawPoll(fd, r)) {
        return;  // the armed poll asks for what no longer holds: replaced at the next wait
    }
    if (!multi) {
        r.readable = false;  // reported by a one-shot poll from now on
    }
    if (!r.armed && mask != 0) {
        io_uring_sqe* sqe = SqeFor(fd, r);
        if (sqe == nullptr) {
            return;  // armed at the next wait
        }
        ++r.poll_seq;
        sqe->opcode = IORING_OP_POLL_ADD;
        sqe->fd = fd;
        sqe->poll32_events = mask;
        sqe->len = multi ? IORING_POLL_ADD_MULTI : 0;
        sqe->user_data = Tag(fd, 0, r.poll_seq);
        r.armed = true;
        r.armed_mask = mask;
        r.multi = multi;
        if (multi) {
            // A multishot poll reports wake-ups, and bytes already waiting may bring none:
            // taken as readable until a read finds the socket drained.
            r.readable = true;
            MarkInput(fd, r);
        }
    }
}

void CUringPoller::ArmDirty() {
    // Taken out of m_dirty first: what cannot be armed now is marked dirty again, into it.
    m_arming.clear();
    m_arming.swap(m_dirty);
    for (int fd : m_arming) {
        Reg& r = m_regs[static_cast<size_t>(fd)];
        r.dirty = false;
        ArmReceive(fd, r);  // first: the poll's mask depends on it
        ArmPoll(fd, r);
    }
}

void CUringPoller::ReapRecv(const io_uring_cqe& cqe, int fd, uint32_t seq) {
#if QUOLNET_URING_RECV
    Reg* r = static_cast<size_t>(fd) < m_regs.size() ? &m_regs[static_cast<size_t>(fd)] : nullptr;
    const bool mine = r != nullptr && r->recv != kOff && (r->recv_seq & ~kRecvKind) == seq;
    if (cqe.flags & IORING_CQE_F_BUFFER) {
        int bid = static_cast<int>(cqe.flags >> IORING_CQE_BUFFER_SHIFT);
        --m_bufs_in_ring;
        if (mine && cqe.res > 0 && static_cast<unsigned>(bid) < kBufCount) {
            Buf& b = m_bufs[static_cast<size_t>(bid)];
            b.next = -1;
            b.len = static_cast<uint32_t>(cqe.res);
            b.off = 0;
            if (r->tail == -1) {
                r->head = bid;
            } else {
                m_bufs[static_cast<size_t>(r->tail)].next = bid;
            }
            r->tail = bid;
            r->pending += static_cast<size_t>(cqe.res);
            ++r->chunks;
            if (static_cast<unsigned>(cqe.res) < kBulkChunk) {
                r->full_run = 0;
            } else if (++r->full_run >= kBulkRun && !r->bulk) {
                r->bulk = true;  // big reads: recv(2) into the connector's block from now on
                MarkDirty(fd, *r);
            }
            if (r->pending >= kMaxPending || r->chunks >= kMaxChunks) {
                MarkDirty(fd, *r);  // enough waits unread: the receive stops
            }
        } else if (static_cast<unsigned>(bid) < kBufCount) {
            GiveBuffer(bid);  // a stale receive's: its bytes belong to no one now
        }
    }
    if (!mine) {
        return;
    }
    if (cqe.res == 0) {
        r->eof = true;
    } else if (cqe.res < 0 && cqe.res != -ENOBUFS && cqe.res != -ECANCELED) {
        if (cqe.res == -EINVAL && r->head == -1 && !r->eof) {
            m_receives = false;  // this kernel has no multishot receive: readiness from now on
            r->receives = false;
        } else {
            r->err = -cqe.res;
        }
    }
    if (!(cqe.flags & IORING_CQE_F_MORE)) {
        r->recv = kOff;
        MarkDirty(fd, *r);  // armed again, or the poll takes over, at the next wait
    }
    if (r->active && HasInput(*r)) {
        MarkInput(fd, *r);
    }
#else
    (void)cqe;
    (void)fd;
    (void)seq;
#endif
}

void CUringPoller::ReapAll() {
    unsigned head = *m_cq_head;
    unsigned tail = LoadAcquire(m_cq_tail);
    for (; head != tail; ++head) {
        const io_uring_cqe& cqe = m_cqes[head & m_cq_mask];
        if (cqe.user_data == kWithdrawTag) {
            continue;
        }
        if ((cqe.user_data >> 32) == (kSendTag >> 32)) {
            if (m_send_results != nullptr) {
                m_send_results[static_cast<uint32_t>(cqe.user_data)] = cqe.res;
                ++m_sends_done;
            }
            continue;
        }
        if (cqe.user_data == m_awaited) {
            m_awaited_seen = true;
        }
        int fd = static_cast<int>(cqe.user_data >> 32);
        uint32_t low = static_cast<uint32_t>(cqe.user_data);
        if (low & kRecvKind) {
            ReapRecv(cqe, fd, low & ~kRecvKind);
            continue;
        }
        if (static_cast<size_t>(fd) >= m_regs.size()) {
            continue;
        }
        Reg& r = m_regs[static_cast<size_t>(fd)];
        if (!r.armed || (r.poll_seq & ~kRecvKind) != low) {
            continue;  // withdrawn or replaced since
        }
        if (!r.multi || !(cqe.flags & IORING_CQE_F_MORE)) {
            r.armed = false;
            MarkDirty(fd, r);  // armed again at the next wait: level-triggered
        }
        if (!r.active) {
            continue;
        }
        r.revents |= cqe.res >= 0 ? static_cast<uint32_t>(cqe.res) : static_cast<uint32_t>(EPOLLERR);
        if (r.multi && cqe.res > 0 && (static_cast<uint32_t>(cqe.res) & EPOLLIN)) {
            r.readable = true;  // until a read drains the socket (Receive)
            MarkInput(fd, r);
        }
        MarkReady(fd, r);
    }
    StoreRelease(m_cq_head, head);
}

int CUringPoller::Emit(epoll_event* out, int max) {
    int n = 0;
    size_t i = 0;
    for (; i < m_ready.size() && n < max; ++i) {
        int fd = m_ready[i];
        Reg& r = m_regs[static_cast<size_t>(fd)];
        r.ready = false;
        uint32_t ev = r.revents & (r.events | EPOLLERR | EPOLLHUP);
        r.revents = 0;
        if ((r.events & EPOLLIN) && Unread(r)) {
            ev |= EPOLLIN;
        }
        if (!r.active || ev == 0) {
            continue;
        }
        out[n].events = ev;
        out[n].data.ptr = r.ptr;
        ++n;
    }
    m_ready.erase(m_ready.begin(), m_ready.begin() + static_cast<std::ptrdiff_t>(i));
    return n;
}

int CUringPoller::Wait(epoll_event* out, int max, int timeout_ms) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_disabled && m_single_issuer && m_issuer != std::this_thread::get_id()) {
            // The loop runs on another thread now (RunOnce here, then Run there): a ring
            // answers only the thread that enabled it, so a new one takes over the same
            // registrations. What the old one completed is taken in first; readiness is
            // found again when the new one arms its polls and receives.
            ReapAll();
            std::string why;
            CloseRing();
            m_queued = 0;
            if (Open(m_entries, &why) != 0) {
                errno = ENXIO;
                return -1;
            }
            for (size_t fd = 0; fd < m_regs.size(); ++fd) {
                Reg& r = m_regs[fd];
                r.armed = false;
                if (r.recv != kOff) {
                    r.recv = kOff;
                    ++r.recv_seq;
                }
                if (r.active) {
                    MarkDirty(static_cast<int>(fd), r);
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
        // Unread input is reported again (level-triggered); a registration with none left
        // leaves the list.
        size_t keep = 0;
        for (int fd : m_input) {
            Reg& r = m_regs[static_cast<size_t>(fd)];
            if (r.active && Unread(r)) {
                m_input[keep++] = fd;
                if (r.events & EPOLLIN) {
                    MarkReady(fd, r);
                }
            } else {
                r.on_input = false;
            }
        }
        m_input.resize(keep);
        // Left over from the last wait first: what they mark (a poll to arm again, a receive
        // that ended) is armed by the ArmDirty below, before this wait may sleep.
        ReapAll();
        ArmDirty();  // what changed, and what was reported last time (level-triggered)
    }
    int ret = Enter(m_ready.empty() && timeout_ms != 0 ? EnterMode::kWait : EnterMode::kPoll, timeout_ms);
    std::lock_guard<std::mutex> lock(m_mutex);
    ReapAll();
    int n = Emit(out, max);
    if (n == 0 && ret < 0 && errno != ETIME && errno != EINTR && errno != EBUSY) {
        return -1;
    }
    return n;
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
