// LoopThread: a manager listening on loopback with its loop on a thread of its own, for the
// tests that play peers (or other threads) against a running server.
#pragma once

#include <thread>

#include "net/connector_mgr.h"
#include "support/mgr_helpers.h"

namespace qntest {

class LoopThread {
  public:
    // Initialises the manager, listens on 127.0.0.1 (a free port) and runs the loop; ok()
    // tells whether all of it worked.
    LoopThread(QUOLNET::IConnectorHandler* h, const QUOLNET::ConnectorMgrOptions& o) : m_mgr(h, o) {
        m_ok = m_mgr.Init() == 0 && m_mgr.Listen("tcp://127.0.0.1:0") > 0;
        if (m_ok) {
            m_thread = std::thread([this]() { m_mgr.Run(); });
        }
    }
    ~LoopThread() { Stop(); }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    // Stops the loop and waits for its thread; idempotent.
    void Stop() {
        m_mgr.Stop();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    bool ok() const { return m_ok; }
    QUOLNET::CConnectorMgr& mgr() { return m_mgr; }
    // A blocking client socket dialled to the listener, or -1.
    int Dial() { return DialListener(m_mgr); }

  private:
    QUOLNET::CConnectorMgr m_mgr;
    std::thread m_thread;
    bool m_ok = false;
};

}  // namespace qntest
