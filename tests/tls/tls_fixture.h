// TlsMgrTest<Handler>: the fixture of the TLS tests that drive a manager on the test's own
// thread (Pump): certificates made once per suite (a CA and a leaf for "localhost" and
// 127.0.0.1 it signs), the options of both ends, a TLS listener on 127.0.0.1, and after each
// test no pool block out and no descriptor left open. `Handler` (m_rec) receives the
// manager's events; m_options may be changed before the first Mgr().
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "net/connector_mgr.h"
#include "support/log_capture.h"
#include "support/net_helpers.h"
#include "test_certs.h"
#include "tls/tls_context.h"

namespace qntest {

template <typename Handler>
class TlsMgrTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        s_ca = new Pem(MakeCa("quolnet test CA"));
        s_server = new Pem(MakeLeaf(*s_ca, "localhost", {"localhost", "127.0.0.1"}));
    }
    static void TearDownTestSuite() {
        delete s_ca;
        delete s_server;
    }
    void SetUp() override { m_fds_before = CountOpenFds(); }
    void TearDown() override {
        m_mgr.reset();
        EXPECT_EQ(0u, m_pool.GetUsedCount());
        EXPECT_EQ(m_fds_before, CountOpenFds());
    }
    // The manager, made (and initialised) at the first call with m_options.
    QUOLNET::CConnectorMgr& Mgr() {
        if (m_mgr == nullptr) {
            QUOLNET::ConnectorMgrOptions o = m_options;
            o.pool = &m_pool;
            o.log_cat = m_log.cat();
            m_mgr.reset(new QUOLNET::CConnectorMgr(&m_rec, o));
            EXPECT_EQ(0, m_mgr->Init());
        }
        return *m_mgr;
    }
    static QUOLNET::TlsOptions ServerOptions() {
        QUOLNET::TlsOptions t;
        t.cert_pem = s_server->cert;
        t.key_pem = s_server->key;
        return t;
    }
    static QUOLNET::TlsOptions ClientOptions() {
        QUOLNET::TlsOptions t;
        t.ca_pem = s_ca->cert;
        return t;
    }
    // Listens with TLS on 127.0.0.1; the URL.
    std::string ListenTls(const QUOLNET::TlsOptions& t) {
        std::string error;
        QUOLNET::SocketOptions s;
        s.stream = QUOLNET::CTlsContext::CreateServer(t, &error);
        EXPECT_NE(nullptr, s.stream) << error;
        EXPECT_GT(Mgr().Listen("tcp://127.0.0.1:0", s), 0);
        return Mgr().GetListenURL(0);
    }

    static inline Pem* s_ca = nullptr;
    static inline Pem* s_server = nullptr;
    LogCapture m_log;
    QUOLNET::CNetBufferMgr m_pool{256};
    QUOLNET::ConnectorMgrOptions m_options;
    Handler m_rec;
    std::unique_ptr<QUOLNET::CConnectorMgr> m_mgr;
    int m_fds_before = 0;
};

}  // namespace qntest
