// How a manager chooses its back end (ConnectorMgrOptions::io_backend, QUOLNET_IO_BACKEND) and
// what it says. A kernel that refuses io_uring (disabled, or filtered by seccomp) cannot be had
// on demand, so io_uring_setup is refused through a wrap of syscall(2), which the io_uring
// back end calls for its raw interface; every other call goes through. Each test runs in a
// process of its own (ctest), so the once-per-process warning is seen by each.
#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "echo_common.h"
#include "net/connector_mgr.h"
#include "net/owner/uring_poller.h"
#include "support/log_capture.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

namespace {
std::atomic<bool> g_refuse_io_uring{false};
}  // namespace

extern "C" {
long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...) {
    va_list ap;
    va_start(ap, number);
    long a[6];
    for (long& v : a) {
        v = va_arg(ap, long);
    }
    va_end(ap);
    if (g_refuse_io_uring.load() && number == __NR_io_uring_setup) {
        errno = EPERM;
        return -1;
    }
    return __real_syscall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
}

namespace {

using QUOLNET::CConnectorMgr;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::IoBackend;

// Sends `text` as a packet on `fd` and runs `mgr` on this thread until its echo is back.
void EchoOnce(CConnectorMgr& mgr, int fd, const std::string& text) {
    std::string ping = qntest::Packet(text);
    ASSERT_TRUE(qntest::WriteAll(fd, ping.data(), ping.size()));
    std::string back;
    ASSERT_TRUE(qntest::Pump(mgr, [&]() {
        char buf[64];
        ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n > 0) {
            back.append(buf, static_cast<size_t>(n));
        }
        return back.size() >= ping.size();
    }));
    EXPECT_EQ(ping, back);
}

// A manager with `backend`, its log captured; Init's result in `init`.
struct Server {
    explicit Server(IoBackend backend) : log(QUOLNET::LOG_PRIORITY_DEBUG, "backend") {
        ConnectorMgrOptions o;
        o.io_backend = backend;
        o.log_cat = log.cat();
        mgr.reset(new CConnectorMgr(&handler, o));
        init = mgr->Init();
    }
    // Echoes one packet over loopback.
    void ExpectServes() {
        int fd = qntest::ListenAndDial(*mgr);
        ASSERT_GE(fd, 0);
        EchoOnce(*mgr, fd, "ping");
        close(fd);
    }

    qntest::LogCapture log;
    echo::EchoServerHandler handler;
    std::unique_ptr<CConnectorMgr> mgr;
    int init = -1;
};

const char* kRefused = "io_uring_setup: Operation not permitted (io_uring disabled or filtered here)";

TEST(ConnectorMgrBackend, AutoFallsBackToEpollWhereTheKernelRefusesIoUring) {
    g_refuse_io_uring = true;
    Server s(IoBackend::kAuto);
    ASSERT_EQ(0, s.init);
    EXPECT_STREQ("epoll", s.mgr->GetIoBackendName());
    EXPECT_TRUE(s.log.Has(QUOLNET::LOG_PRIORITY_WARN,
                          std::string("io_uring unavailable (") + kRefused + "): using epoll"))
        << s.log.Dump();
    s.ExpectServes();
    Server second(IoBackend::kAuto);  // said once per process, however many loops
    EXPECT_EQ(0, second.log.CountPrefix(QUOLNET::LOG_PRIORITY_WARN, "io_uring unavailable"));
    g_refuse_io_uring = false;
}

TEST(ConnectorMgrBackend, AnExplicitIoUringFailsInitWithTheKernelsReason) {
    g_refuse_io_uring = true;
    Server s(IoBackend::kIoUring);
    EXPECT_EQ(-1, s.init);
    EXPECT_TRUE(s.log.Has(QUOLNET::LOG_PRIORITY_ERROR,
                          std::string("Init: the io_uring back end is unavailable: ") + kRefused))
        << s.log.Dump();
    g_refuse_io_uring = false;
}

TEST(ConnectorMgrBackend, AnUnknownNameInTheEnvironmentMeansEpollWithAWarning) {
    const char* before = getenv("QUOLNET_IO_BACKEND");
    std::string saved = before != nullptr ? before : "";
    setenv("QUOLNET_IO_BACKEND", "kqueue", 1);
    Server s(IoBackend::kDefault);
    ASSERT_EQ(0, s.init);
    EXPECT_STREQ("epoll", s.mgr->GetIoBackendName());
    EXPECT_TRUE(s.log.Has(QUOLNET::LOG_PRIORITY_WARN,
                          "QUOLNET_IO_BACKEND=kqueue is none of epoll, io_uring, auto: using epoll"));
    if (before != nullptr) {
        setenv("QUOLNET_IO_BACKEND", saved.c_str(), 1);
    } else {
        unsetenv("QUOLNET_IO_BACKEND");
    }
}

TEST(ConnectorMgrBackend, IoUringServesWhereTheKernelAllowsIt) {
    std::string why;
    if (!QUOLNET::CUringPoller::Available(&why)) {
        GTEST_SKIP() << "io_uring unavailable here: " << why;
    }
    Server s(IoBackend::kIoUring);
    ASSERT_EQ(0, s.init);
    EXPECT_STREQ("io_uring", s.mgr->GetIoBackendName());
    EXPECT_TRUE(s.log.Has(QUOLNET::LOG_PRIORITY_INFO, "io back end: io_uring"));
    s.ExpectServes();
    Server plain(IoBackend::kEpoll);  // and the explicit epoll is epoll, whatever the environment says
    ASSERT_EQ(0, plain.init);
    EXPECT_STREQ("epoll", plain.mgr->GetIoBackendName());
}

// The loop may run on one thread and later on another (RunOnce here, then Run there), as on
// epoll; an io_uring ring answers only the thread that enabled it, so it is set up again with
// the same registrations.
TEST(ConnectorMgrBackend, AnIoUringLoopMayMoveToAnotherThread) {
    std::string why;
    if (!QUOLNET::CUringPoller::Available(&why)) {
        GTEST_SKIP() << "io_uring unavailable here: " << why;
    }
    Server s(IoBackend::kIoUring);
    ASSERT_EQ(0, s.init);
    int fd = qntest::ListenAndDial(*s.mgr);
    ASSERT_GE(fd, 0);
    EchoOnce(*s.mgr, fd, "on the test's thread");
    std::thread other([&]() { EchoOnce(*s.mgr, fd, "on another thread"); });
    other.join();
    EchoOnce(*s.mgr, fd, "and back");
    close(fd);
}

}  // namespace
