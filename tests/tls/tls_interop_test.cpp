// Interoperability with OpenSSL's own command-line peers: `openssl s_client` against a TLS
// listener of the manager, and a TLS dial of the manager against `openssl s_server`, bytes
// going both ways. Skipped where the `openssl` program is missing.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "net/connector_mgr.h"
#include "support/log_capture.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"
#include "test_certs.h"
#include "tls/tls_context.h"

namespace {

using QUOLNET::CConnectorMgr;
using QUOLNET::CloseInfo;
using QUOLNET::ConnId;
using QUOLNET::CTlsContext;
using QUOLNET::TlsOptions;

// A child process with its stdin and stdout on pipes (stderr discarded).
class Child {
  public:
    explicit Child(const std::vector<std::string>& argv) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
            return;
        }
        m_pid = fork();
        if (m_pid == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            int null_fd = open("/dev/null", O_WRONLY);
            dup2(null_fd, 2);
            std::vector<char*> args;
            for (const std::string& a : argv) {
                args.push_back(const_cast<char*>(a.c_str()));
            }
            args.push_back(nullptr);
            execvp(args[0], args.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        m_in = in[1];
        m_out = out[0];
        fcntl(m_out, F_SETFL, O_NONBLOCK);
    }
    ~Child() {
        if (m_in >= 0) {
            close(m_in);
        }
        if (m_out >= 0) {
            close(m_out);
        }
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool ok() const { return m_pid > 0; }
    bool Write(const std::string& bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = write(m_in, bytes.data() + done, bytes.size() - done);
            if (n <= 0) {
                return false;
            }
            done += static_cast<size_t>(n);
        }
        return true;
    }
    // Appends what the child has written so far to `out`.
    void Read(std::string* out) {
        char buf[4096];
        ssize_t n;
        while ((n = read(m_out, buf, sizeof(buf))) > 0) {
            out->append(buf, static_cast<size_t>(n));
        }
    }

  private:
    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
};

bool HaveOpenssl() {
    return system("openssl version >/dev/null 2>&1") == 0;
}

class Echo : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr* mgr, ConnId id, const char*, bool accepted) override {
        describe = mgr->GetConnector(id)->GetStreamIo()->Describe();
        if (!accepted) {
            dialled = id;
        }
    }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool) override {
        if (id == dialled) {
            received.emplace_back(data, len);
            return true;
        }
        return mgr->Send(id, data, len) > 0;
    }
    void OnClosed(CConnectorMgr*, ConnId, const CloseInfo& info) override { closes.push_back(info); }
    ConnId dialled = 0;
    std::string describe;
    std::vector<std::string> received;
    std::vector<CloseInfo> closes;
};

class TlsInteropTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!HaveOpenssl()) {
            GTEST_SKIP() << "no openssl program";
        }
        char dir[] = "/tmp/quolnet-tls-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir));
        m_dir = dir;
        m_ca = qntest::MakeCa("quolnet interop CA");
        m_server = qntest::MakeLeaf(m_ca, "localhost", {"localhost", "127.0.0.1"});
        Save("ca.pem", m_ca.cert);
        Save("cert.pem", m_server.cert);
        Save("key.pem", m_server.key);
    }
    void TearDown() override {
        for (const char* f : {"ca.pem", "cert.pem", "key.pem"}) {
            unlink((m_dir + "/" + f).c_str());
        }
        if (!m_dir.empty()) {
            rmdir(m_dir.c_str());
        }
    }
    void Save(const char* name, const std::string& text) { std::ofstream(m_dir + "/" + name) << text; }
    std::string Path(const char* name) { return m_dir + "/" + name; }

    std::string m_dir;
    qntest::Pem m_ca, m_server;
    qntest::LogCapture m_log;
};

TEST_F(TlsInteropTest, OpensslClientIsEchoedByTheManager) {
    Echo h;
    QUOLNET::ConnectorMgrOptions o;
    o.log_cat = m_log.cat();
    CConnectorMgr mgr(&h, o);
    ASSERT_EQ(0, mgr.Init());
    TlsOptions t;
    t.cert_file = Path("cert.pem");
    t.key_file = Path("key.pem");
    std::string error;
    QUOLNET::SocketOptions s;
    s.stream = CTlsContext::CreateServer(t, &error);
    ASSERT_NE(nullptr, s.stream) << error;
    int port = mgr.Listen("tcp://127.0.0.1:0", s);
    ASSERT_GT(port, 0);

    Child client({"openssl", "s_client", "-connect", "127.0.0.1:" + std::to_string(port), "-CAfile",
                  Path("ca.pem"), "-verify_return_error", "-servername", "localhost", "-quiet", "-ign_eof"});
    ASSERT_TRUE(client.ok());
    std::string packet = qntest::Packet("hello from openssl s_client");
    ASSERT_TRUE(client.Write(packet));
    std::string echoed;
    ASSERT_TRUE(qntest::Pump(mgr, [&]() {
        client.Read(&echoed);
        return echoed.size() >= packet.size();
    })) << m_log.Dump();
    EXPECT_EQ(packet, echoed);
    EXPECT_EQ(0u, h.describe.find("TLSv1.3")) << h.describe;
}

TEST_F(TlsInteropTest, ManagerDialsOpensslServerBothWays) {
    int port = qntest::UnusedPort();
    Child server({"openssl", "s_server", "-accept", std::to_string(port), "-cert", Path("cert.pem"), "-key",
                  Path("key.pem"), "-quiet", "-naccept", "1"});
    ASSERT_TRUE(server.ok());
    Echo h;
    QUOLNET::ConnectorMgrOptions o;
    o.log_cat = m_log.cat();
    CConnectorMgr mgr(&h, o);
    ASSERT_EQ(0, mgr.Init());
    TlsOptions t;
    t.ca_file = Path("ca.pem");
    std::string error;
    QUOLNET::DialOptions d;
    d.socket.stream = CTlsContext::CreateClient(t, &error);
    ASSERT_NE(nullptr, d.socket.stream) << error;
    d.reconnect = true;  // s_server may not listen yet
    d.backoff_initial_ms = 20;
    d.backoff_max_ms = 100;
    ConnId id = mgr.Dial(("tcp://127.0.0.1:" + std::to_string(port)).c_str(), d);
    ASSERT_NE(0u, id);
    ASSERT_TRUE(qntest::Pump(mgr, [&]() { return h.dialled != 0; })) << m_log.Dump();
    EXPECT_EQ(0u, h.describe.find("TLSv1.3")) << h.describe;

    std::string to_server = qntest::Packet("from the manager");
    ASSERT_EQ(static_cast<int>(to_server.size()),
              mgr.Send(id, to_server.data(), static_cast<unsigned int>(to_server.size())));
    std::string seen;
    ASSERT_TRUE(qntest::Pump(mgr, [&]() {
        server.Read(&seen);
        return seen.size() >= to_server.size();
    })) << m_log.Dump();
    EXPECT_EQ(to_server, seen);

    std::string to_client = qntest::Packet("from openssl s_server");
    ASSERT_TRUE(server.Write(to_client));
    ASSERT_TRUE(qntest::Pump(mgr, [&]() { return !h.received.empty(); })) << m_log.Dump();
    EXPECT_EQ(to_client, h.received[0]);
}

}  // namespace
