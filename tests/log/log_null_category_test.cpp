// A connector without a log category runs its paths without a single call into the logging
// library. The three library entry points are wrapped at link time and counted.
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "log/log.h"
#include "net/tcp_connector.h"
#include "net/tcp_connector_log.h"
#include "support/log_capture.h"
#include "support/net_helpers.h"

using namespace QUOLNET;

namespace {
std::atomic<int> g_calls{0};
}  // namespace

extern "C" {
int __real__ZN7QUOLNET13log_can_writeEPNS_11LogCategoryEiii(LogCategory* cat, int priority, int r1, int r2);
void __real__ZN7QUOLNET13log_write_hexEPNS_11LogCategoryEPNS_9LogRecordE(LogCategory* cat, LogRecord* rec);
void __real__ZN7QUOLNET9log_writeEPNS_11LogCategoryEPNS_9LogRecordEPKcz(LogCategory* cat, LogRecord* rec,
                                                                        const char* fmt, ...);

int __wrap__ZN7QUOLNET13log_can_writeEPNS_11LogCategoryEiii(LogCategory* cat, int priority, int r1, int r2) {
    ++g_calls;
    return __real__ZN7QUOLNET13log_can_writeEPNS_11LogCategoryEiii(cat, priority, r1, r2);
}

void __wrap__ZN7QUOLNET13log_write_hexEPNS_11LogCategoryEPNS_9LogRecordE(LogCategory* cat, LogRecord* rec) {
    ++g_calls;
    __real__ZN7QUOLNET13log_write_hexEPNS_11LogCategoryEPNS_9LogRecordE(cat, rec);
}

void __wrap__ZN7QUOLNET9log_writeEPNS_11LogCategoryEPNS_9LogRecordEPKcz(LogCategory* cat, LogRecord* rec,
                                                                        const char* fmt, ...) {
    ++g_calls;
    char text[4096];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    __real__ZN7QUOLNET9log_writeEPNS_11LogCategoryEPNS_9LogRecordEPKcz(cat, rec, "%s", text);
}
}  // extern "C"

namespace {

class FixedParser : public IPackParser {
  public:
    int ParsePackLength(const char*, unsigned int) override { return 4; }
};

struct Env {
    CNetBufferMgr pool{8};
    FixedParser parser;
    char combine[256];
    char cb_combine[256];
    char last_err[256];
};

// Every Init outcome, the URL parsers, Fini and destruction, with the given category.
void RunPaths(Env& s, LogCategory* cat) {
    int epfd = epoll_create1(EPOLL_CLOEXEC);
    ASSERT_GE(epfd, 0);
    int pipefd[2];
    ASSERT_EQ(0, pipe(pipefd));
    auto make = [&s](char* combine, int len, CNetBufferMgr* pool) {
        return new CTcpConnector(combine, len, s.cb_combine, sizeof(s.cb_combine), s.last_err, pool, 4, 4,
                                 nullptr, nullptr);
    };
    struct Case {
        const char* url;
        bool parser;
        int epoll;
        int socket;
        int len;
        bool pool;
    };
    std::string long_url = "tcp://1.2.3.4:" + std::string(300, '1');
    const Case cases[] = {
        {nullptr, true, epfd, -1, 256, true},  // invalid argument
        {"tcp://1.2.3.4:80", false, epfd, -1, 256, true},
        {"tcp://1.2.3.4:80", true, -1, -1, 256, true},
        {long_url.c_str(), true, epfd, -1, 256, true},   // CConnector::Init fails
        {"tcp://1.2.3.4", true, epfd, -1, 256, true},    // ParseURL -1
        {"tcp://abc:80", true, epfd, -1, 256, true},     // -2
        {"tcp://1.2.3.4:0", true, epfd, -1, 256, true},  // -3
        {"tcp://[::1:80", true, epfd, -1, 256, true},    // ParseURLV6 -1
        {"tcp://[::1]80", true, epfd, -1, 256, true},    // -1
        {"tcp://[zz]:80", true, epfd, -1, 256, true},    // -2
        {"tcp://[::1]:0", true, epfd, -1, 256, true},    // -3
        {"tcp://1.2.3.4:80", true, epfd, -1, 0, true},   // invalid status
        {"tcp://1.2.3.4:80", true, epfd, -1, 256, false},
        {"tcp://1.2.3.4:80", true, epfd, -1, 256, true},         // dialled: success
        {"tcp://1.2.3.4:80", true, epfd, pipefd[0], 256, true},  // GetLocalSocketName fails
        {"tcp://[::1]:80", true, epfd, pipefd[0], 256, true},
    };
    for (const Case& c : cases) {
        CTcpConnector* conn = make(s.combine, c.len, c.pool ? &s.pool : nullptr);
        conn->SetLogCat(cat);
        conn->Init(c.url, c.parser ? &s.parser : nullptr, c.epoll, c.socket);
        delete conn;
    }
    // Accepted socket registered with a real epoll instance, and a failed registration.
    int client = -1;
    int server = -1;
    ASSERT_TRUE(qntest::TcpPair(&client, &server));
    {
        CTcpConnector conn(s.combine, sizeof(s.combine), s.cb_combine, sizeof(s.cb_combine), s.last_err,
                           &s.pool, 4, 4, nullptr, nullptr);
        conn.SetLogCat(cat);
        EXPECT_EQ(-1, conn.Init("tcp://127.0.0.1:80", &s.parser, pipefd[0], server));
        conn.SetCloseSocket(false);
        EXPECT_EQ(0, conn.Init("tcp://127.0.0.1:80", &s.parser, epfd, server));
        conn.Fini();
    }
    char url[256];
    GetLocalSocketName(false, pipefd[0], url, cat);
    close(client);
    close(server);
    close(pipefd[0]);
    close(pipefd[1]);
    close(epfd);
}

TEST(NullCategory, ConnectorPathsMakeNoLoggingCalls) {
    Env s;
    g_calls = 0;
    RunPaths(s, nullptr);
    EXPECT_EQ(0, g_calls.load());
    EXPECT_EQ(0u, s.pool.GetUsedCount());
}

TEST(NullCategory, SamePathsWithACategoryDoCallTheLibrary) {
    // Proves that the counting seam sees the connector's calls.
    Env s;
    qntest::LogCapture cap;
    g_calls = 0;
    RunPaths(s, cap.cat());
    EXPECT_GT(g_calls.load(), 30);
    EXPECT_GT(cap.Size(), 30u);
}

TEST(NullCategory, MacroWithNullCategoryCallsNothing) {
    g_calls = 0;
    QN_LOG(static_cast<LogCategory*>(nullptr), QN_ERROR, "x");
    char b[4] = {};
    QN_LOG_HEX(static_cast<LogCategory*>(nullptr), b, 4);
    EXPECT_EQ(0, g_calls.load());
}

}  // namespace
