// bench_server_uring: a hand-written io_uring echo loop, the limit to measure the epoll
// reference (server_epoll.cpp) against. Same protocol, flags and framing: every complete
// packet is echoed unchanged (or, with --sink, framed and discarded); a malformed header
// closes the connection.
//
// One thread, one ring (SINGLE_ISSUER | DEFER_TASKRUN: completions are only produced while
// the loop waits in io_uring_enter, no interrupts of the running loop). The listener is
// served by one multishot accept straight into the registered file table (direct
// descriptors: no fd table, no fget/fput per operation); TCP_NODELAY is set on the listener
// and inherited by the accepted sockets. Every connection has one multishot receive that
// takes its buffers from a provided-buffer ring; the bytes are copied into the connection's
// pending buffer and the buffer goes straight back to the ring.
//
// Sends: at most one send in flight per connection, covering every complete packet pending
// when it is issued (MSG_WAITALL: the kernel itself retries a short send; a short completion
// is resubmitted from where it stopped). What arrives meanwhile waits in the pending buffer
// and leaves with the next send, so bytes go out in order. A connection whose pending bytes
// exceed kPauseBytes has its receive cancelled until they drain (back-pressure).
//
// One io_uring_enter per loop iteration (io_uring_submit_and_wait(1)): it submits the
// iteration's sends and waits for one completion. (Waiting for "sends submitted + 1" would
// save the enter that only collects inline send completions, but it stalls when a send has to
// wait for room and its completion is what the loop needs next, e.g. to resume a paused
// receive; measured, it bought nothing beyond the noise, so it is not done.) --mode spin
// busy-polls up to 20 us before each sleep (not the default: the epoll loop does not spin).
// Buffer ring: QUOLNET_URING_BUFS (1024) buffers of QUOLNET_URING_BUFSIZE (16384) bytes.
// Completions are consumed in one batch (io_uring_for_each_cqe + io_uring_cq_advance) and
// the buffers they free are returned to the ring with one advance.
#include <liburing.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include "common/bench_net.h"

using namespace QUOLNET_BENCH;

namespace {

enum Op : uint64_t { kOpAccept = 1, kOpRecv = 2, kOpSend = 3, kOpClose = 4, kOpCancel = 5 };

inline uint64_t Tag(Op op, uint32_t slot) {
    return (uint64_t(op) << 32) | slot;
}

const uint16_t kBufGroup = 0;
const size_t kPauseBytes = 4u << 20;  // pending echo bytes above which reading pauses

// A growable byte buffer (no zero-fill on growth, unlike std::vector).
struct Bytes {
    char* p = nullptr;
    size_t len = 0;
    size_t cap = 0;
    void Reserve(size_t want) {
        if (want <= cap)
            return;
        size_t n = cap ? cap : 4096;
        while (n < want)
            n *= 2;
        char* q = static_cast<char*>(std::realloc(p, n));
        if (q == nullptr) {
            std::perror("realloc");
            std::exit(1);
        }
        p = q;
        cap = n;
    }
    void Append(const char* d, size_t n) {
        Reserve(len + n);
        std::memcpy(p + len, d, n);
        len += n;
    }
    void Swap(Bytes& o) {
        std::swap(p, o.p);
        std::swap(len, o.len);
        std::swap(cap, o.cap);
    }
    Bytes() = default;
    Bytes(const Bytes&) = delete;
    Bytes& operator=(const Bytes&) = delete;
    ~Bytes() { std::free(p); }
};

struct Conn {
    bool recv_armed = false;  // a multishot receive is active
    bool sending = false;     // a send is in flight (from `fly`)
    bool closing = false;     // end of stream, an error or a bad header: close once idle
    bool paused = false;      // receive cancelled for back-pressure
    bool dirty = false;       // on the flush list
    Bytes pend;               // echo: received bytes; [0, ready) are complete packets
    size_t ready = 0;
    Bytes fly;             // echo: the bytes of the send in flight
    size_t fly_off = 0;    // bytes of `fly` already sent
    uint32_t skip = 0;     // sink: body bytes of the current packet still to drop
    uint32_t cur_len = 0;  // sink: length of the packet being dropped
};

struct Loop {
    io_uring ring;
    bool sink = false;
    int lfd = -1;
    std::vector<Conn*> conns;  // indexed by direct-descriptor slot
    std::vector<uint32_t> dirty;
    // provided buffers
    io_uring_buf_ring* br = nullptr;
    char* bufs = nullptr;
    uint32_t nbufs = 0;
    uint32_t bufsize = 0;
    int recycled = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;

    io_uring_sqe* Sqe() {
        io_uring_sqe* sqe = io_uring_get_sqe(&ring);
        if (sqe == nullptr) {
            io_uring_submit(&ring);
            sqe = io_uring_get_sqe(&ring);
        }
        return sqe;
    }

    void ArmAccept() {
        io_uring_sqe* sqe = Sqe();
        io_uring_prep_multishot_accept_direct(sqe, lfd, nullptr, nullptr, 0);
        io_uring_sqe_set_data64(sqe, Tag(kOpAccept, 0));
    }

    void ArmRecv(uint32_t slot, Conn* c) {
        io_uring_sqe* sqe = Sqe();
        io_uring_prep_recv_multishot(sqe, int(slot), nullptr, 0, 0);
        sqe->flags |= IOSQE_FIXED_FILE | IOSQE_BUFFER_SELECT;
        sqe->buf_group = kBufGroup;
        io_uring_sqe_set_data64(sqe, Tag(kOpRecv, slot));
        c->recv_armed = true;
    }

    void CancelRecv(uint32_t slot) {
        io_uring_sqe* sqe = Sqe();
        io_uring_prep_cancel64(sqe, Tag(kOpRecv, slot), 0);
        sqe->flags |= IOSQE_CQE_SKIP_SUCCESS;
        io_uring_sqe_set_data64(sqe, Tag(kOpCancel, slot));
    }

    void SubmitSend(uint32_t slot, Conn* c) {
        io_uring_sqe* sqe = Sqe();
        io_uring_prep_send(sqe, int(slot), c->fly.p + c->fly_off, c->fly.len - c->fly_off,
                           MSG_WAITALL | MSG_NOSIGNAL);
        sqe->flags |= IOSQE_FIXED_FILE;
        io_uring_sqe_set_data64(sqe, Tag(kOpSend, slot));
        c->sending = true;
    }

    void MarkDirty(uint32_t slot, Conn* c) {
        if (!c->dirty) {
            c->dirty = true;
            dirty.push_back(slot);
        }
    }

    // Starts closing: stops reading; the slot is closed once nothing is in flight.
    void StartClose(uint32_t slot, Conn* c) {
        if (!c->closing) {
            c->closing = true;
            if (c->recv_armed)
                CancelRecv(slot);
        }
        MaybeFinish(slot, c);
    }

    void MaybeFinish(uint32_t slot, Conn* c) {
        if (!c->closing || c->recv_armed || c->sending || c->dirty)
            return;
        io_uring_sqe* sqe = Sqe();
        io_uring_prep_close_direct(sqe, slot);
        sqe->flags |= IOSQE_CQE_SKIP_SUCCESS;
        io_uring_sqe_set_data64(sqe, Tag(kOpClose, slot));
        delete c;
        conns[slot] = nullptr;
    }

    // Echo: the complete packets of [0, ready) leave in one send; the tail stays pending.
    void Flush(uint32_t slot, Conn* c) {
        if (c->sending || c->ready == 0)
            return;
        c->pend.Swap(c->fly);
        c->pend.len = 0;
        size_t tail = c->fly.len - c->ready;
        if (tail > 0)
            c->pend.Append(c->fly.p + c->ready, tail);
        c->fly.len = c->ready;
        c->fly_off = 0;
        c->ready = 0;
        SubmitSend(slot, c);
    }

    // Returns false on a malformed header.
    bool OnData(Conn* c, const char* d, size_t n) {
        if (sink)
            return OnSinkData(c, d, n);
        c->pend.Append(d, n);
        size_t pos = c->ready;
        const size_t len = c->pend.len;
        while (len - pos >= kHeaderLen) {
            uint32_t plen = ReadBe32(c->pend.p + pos);
            if (plen < kHeaderLen || plen > kMaxPacketLen)
                return false;
            if (len - pos < plen) {
                c->pend.Reserve(pos + plen);
                break;
            }
            pos += plen;
            ++packets;
            bytes += plen;
        }
        c->ready = pos;
        return true;
    }

    // Sink: frames and drops without keeping packet bodies.
    bool OnSinkData(Conn* c, const char* d, size_t n) {
        while (n > 0) {
            if (c->skip > 0) {
                size_t k = c->skip < n ? c->skip : n;
                c->skip -= uint32_t(k);
                d += k;
                n -= k;
                if (c->skip == 0) {
                    ++packets;
                    bytes += c->cur_len;
                }
                continue;
            }
            uint32_t plen;
            if (c->pend.len > 0 || n < kHeaderLen) {  // a header split over reads
                size_t k = kHeaderLen - c->pend.len;
                if (k > n)
                    k = n;
                c->pend.Append(d, k);
                d += k;
                n -= k;
                if (c->pend.len < kHeaderLen)
                    return true;
                plen = ReadBe32(c->pend.p);
                c->pend.len = 0;
            } else {
                plen = ReadBe32(d);
                d += kHeaderLen;
                n -= kHeaderLen;
            }
            if (plen < kHeaderLen || plen > kMaxPacketLen)
                return false;
            c->cur_len = plen;
            c->skip = plen - kHeaderLen;
            if (c->skip == 0) {
                ++packets;
                bytes += plen;
            }
        }
        return true;
    }

    void Recycle(uint32_t bid) {
        io_uring_buf_ring_add(br, bufs + size_t(bid) * bufsize, bufsize, uint16_t(bid),
                              io_uring_buf_ring_mask(nbufs), recycled++);
    }

    void OnAccept(const io_uring_cqe* cqe) {
        if (cqe->res >= 0) {
            uint32_t slot = uint32_t(cqe->res);
            if (slot < conns.size() && conns[slot] == nullptr) {
                Conn* c = new Conn;
                conns[slot] = c;
                ArmRecv(slot, c);
            }
        }
        if (!(cqe->flags & IORING_CQE_F_MORE))
            ArmAccept();
    }

    void OnRecv(uint32_t slot, const io_uring_cqe* cqe) {
        Conn* c = conns[slot];
        bool more = (cqe->flags & IORING_CQE_F_MORE) != 0;
        if (cqe->flags & IORING_CQE_F_BUFFER) {
            uint32_t bid = cqe->flags >> IORING_CQE_BUFFER_SHIFT;
            if (cqe->res > 0 && c != nullptr && !c->closing) {
                if (!OnData(c, bufs + size_t(bid) * bufsize, size_t(cqe->res))) {
                    c->ready = 0;  // a malformed header: drop everything, as the epoll loop does
                    Recycle(bid);
                    if (!more)
                        c->recv_armed = false;
                    StartClose(slot, c);
                    return;
                }
                if (c->ready > 0 && !c->sending)
                    MarkDirty(slot, c);
                if (c->ready > kPauseBytes && !c->paused && more) {
                    c->paused = true;
                    CancelRecv(slot);
                }
            }
            Recycle(bid);
        }
        if (c == nullptr)
            return;
        if (!more)
            c->recv_armed = false;
        if (cqe->res == 0 || (cqe->res < 0 && cqe->res != -ENOBUFS && cqe->res != -ECANCELED)) {
            StartClose(slot, c);
            return;
        }
        if (c->closing) {
            MaybeFinish(slot, c);
            return;
        }
        if (!more && !c->paused)
            ArmRecv(slot, c);
    }

    void OnSend(uint32_t slot, const io_uring_cqe* cqe) {
        Conn* c = conns[slot];
        if (c == nullptr)
            return;
        c->sending = false;
        if (cqe->res < 0) {
            c->fly.len = 0;
            c->ready = 0;
            StartClose(slot, c);
            return;
        }
        c->fly_off += size_t(cqe->res);
        if (c->fly_off < c->fly.len && cqe->res > 0) {
            SubmitSend(slot, c);  // short send: the rest, from where it stopped
            return;
        }
        c->fly.len = 0;
        c->fly_off = 0;
        if (c->ready > 0)
            MarkDirty(slot, c);
        if (c->closing) {
            MaybeFinish(slot, c);
            return;
        }
        if (c->paused && c->ready <= kPauseBytes / 2) {
            c->paused = false;
            if (!c->recv_armed)
                ArmRecv(slot, c);
        }
    }

    void FlushDirty() {
        for (uint32_t slot : dirty) {
            Conn* c = conns[slot];
            if (c == nullptr)
                continue;
            c->dirty = false;
            if (!sink)
                Flush(slot, c);
            if (c->closing)
                MaybeFinish(slot, c);
        }
        dirty.clear();
    }
};

uint64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000ull + uint64_t(ts.tv_nsec);
}

uint32_t EnvU32(const char* name, uint32_t def) {
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' ? uint32_t(std::strtoul(v, nullptr, 10)) : def;
}

}  // namespace

int main(int argc, char** argv) {
    ServerOptions opt = ParseServerOptions(argc, argv, "bench_server_uring");
    RaiseFdLimit();
    InstallStopHandlers();
    // --mode spin: busy-poll for completions up to 20 us (QUOLNET_URING_SPIN_US) before
    // sleeping in io_uring_enter; the default sleeps at once, as the epoll loop does.
    bool spin = false;
    if (opt.mode != nullptr) {
        if (std::strcmp(opt.mode, "spin") != 0) {
            std::fprintf(stderr, "bench_server_uring: unknown --mode '%s' (spin or none)\n", opt.mode);
            return 2;
        }
        spin = true;
    }
    const uint64_t spin_ns = uint64_t(EnvU32("QUOLNET_URING_SPIN_US", spin ? 20 : 0)) * 1000;

    static Loop loop;
    loop.sink = opt.sink;
    loop.lfd = OpenListener(opt.host, opt.port);
    SetNoDelay(loop.lfd);  // inherited by every accepted socket

    io_uring_params p;
    std::memset(&p, 0, sizeof(p));
    p.flags = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN | IORING_SETUP_SUBMIT_ALL |
              IORING_SETUP_CQSIZE;
    p.cq_entries = 65536;
    int ret = io_uring_queue_init_params(4096, &loop.ring, &p);
    if (ret < 0) {
        std::fprintf(stderr, "io_uring_queue_init_params: %s\n", std::strerror(-ret));
        return 1;
    }
    io_uring_register_ring_fd(&loop.ring);

    // The registered file table: one slot per connection.
    rlimit rl;
    uint32_t nfiles = 16384;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < nfiles + 64)
        nfiles = uint32_t(rl.rlim_cur > 128 ? rl.rlim_cur - 64 : 64);
    ret = io_uring_register_files_sparse(&loop.ring, nfiles);
    if (ret < 0) {
        std::fprintf(stderr, "io_uring_register_files_sparse: %s\n", std::strerror(-ret));
        return 1;
    }
    loop.conns.assign(nfiles, nullptr);

    // The provided-buffer ring.
    loop.nbufs = EnvU32("QUOLNET_URING_BUFS", 1024);
    loop.bufsize = EnvU32("QUOLNET_URING_BUFSIZE", 16384);
    size_t ring_bytes = sizeof(io_uring_buf) * loop.nbufs;
    void* rmem = mmap(nullptr, ring_bytes, PROT_READ | PROT_WRITE, MAP_ANONYMOUS | MAP_PRIVATE, -1, 0);
    void* bmem = mmap(nullptr, size_t(loop.nbufs) * loop.bufsize, PROT_READ | PROT_WRITE,
                      MAP_ANONYMOUS | MAP_PRIVATE, -1, 0);
    if (rmem == MAP_FAILED || bmem == MAP_FAILED) {
        std::perror("mmap");
        return 1;
    }
    loop.br = static_cast<io_uring_buf_ring*>(rmem);
    loop.bufs = static_cast<char*>(bmem);
    io_uring_buf_ring_init(loop.br);
    io_uring_buf_reg reg;
    std::memset(&reg, 0, sizeof(reg));
    reg.ring_addr = reinterpret_cast<uint64_t>(rmem);
    reg.ring_entries = loop.nbufs;
    reg.bgid = kBufGroup;
    ret = io_uring_register_buf_ring(&loop.ring, &reg, 0);
    if (ret < 0) {
        std::fprintf(stderr, "io_uring_register_buf_ring: %s\n", std::strerror(-ret));
        return 1;
    }
    for (uint32_t i = 0; i < loop.nbufs; ++i)
        loop.Recycle(i);
    io_uring_buf_ring_advance(loop.br, loop.recycled);
    loop.recycled = 0;

    loop.ArmAccept();
    while (!StopRequested()) {
        unsigned want = 1;
        if (spin_ns > 0) {
            // Optional busy-poll: look for completions without sleeping for up to spin_ns.
            io_uring_submit(&loop.ring);
            uint64_t start = 0;
            while (io_uring_cq_ready(&loop.ring) < want && !StopRequested()) {
                uint64_t now = NowNs();
                if (start == 0)
                    start = now;
                else if (now - start > spin_ns)
                    break;
                io_uring_get_events(&loop.ring);
            }
            want = io_uring_cq_ready(&loop.ring) >= want ? 0 : want;
        }
        ret = io_uring_submit_and_wait(&loop.ring, want);
        if (ret < 0 && ret != -EINTR && ret != -EAGAIN && ret != -EBUSY && ret != -ETIME) {
            std::fprintf(stderr, "io_uring_submit_and_wait: %s\n", std::strerror(-ret));
            break;
        }
        unsigned head;
        unsigned seen = 0;
        io_uring_cqe* cqe;
        io_uring_for_each_cqe(&loop.ring, head, cqe) {
            ++seen;
            uint64_t ud = cqe->user_data;
            uint32_t slot = uint32_t(ud);
            switch (Op(ud >> 32)) {
                case kOpRecv:
                    loop.OnRecv(slot, cqe);
                    break;
                case kOpSend:
                    loop.OnSend(slot, cqe);
                    break;
                case kOpAccept:
                    loop.OnAccept(cqe);
                    break;
                default:  // a failed close or cancel: nothing to do
                    break;
            }
        }
        io_uring_cq_advance(&loop.ring, seen);
        if (loop.recycled > 0) {
            io_uring_buf_ring_advance(loop.br, loop.recycled);
            loop.recycled = 0;
        }
        loop.FlushDirty();
    }
    PrintServed(loop.packets, loop.bytes);
    return 0;
}
