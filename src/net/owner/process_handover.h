// CProcessHandOver: a manager's listeners and live connections passed to another process
// over a Unix socket (CConnectorMgr::OfferHandOver and TakeOver), so that a restart drops
// no one.
//
// The exchange, after the successor's hello (messages in handover_wire.h):
//
//   old (offering)                                  new (TakeOver)
//     <- kHello {version}
//     kWelcome {version, pid, highest id} ->           (or kRefuse {why}: the offer stays open)
//     kProcess {OnHandOutProcess state} ->           OnHandInProcess
//     kListeners {URLs} + descriptors ->             kept for Listen
//     <- kAck {count}
//     kConns {batch} + descriptors ->                each adopted (not yet served)
//     <- kAck {ids taken}                            then OnHandIn for each
//     ... one batch after another ...
//     kDone {count} ->
//     <- kDoneAck                                    TakeOver returns; Run serves them
//
// Per connection it is all or nothing: the old process exports a connection's state under
// its table lock held exclusively (no other thread is inside Send), and it neither reads
// nor writes the socket again before the answer. The successor acknowledges only what it
// has adopted, before it serves any of it; what the old process reads in the answer is the
// successor's (it ends here with kHandedOver), what is not named in it, or every
// connection of a batch whose answer never came, stays here untouched. The successor
// writes its answer before it touches the sockets, so an answer cannot be lost to a
// successor that dies right after: the old process still reads it.
//
// Threads: everything on the manager's loop thread (TakeOver on the thread that will run
// it, before Run). The old process's loop serves nothing during the exchange.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../connector_mgr.h"
#include "handover_wire.h"

namespace QUOLNET {

class CProcessHandOver {
  public:
    explicit CProcessHandOver(CConnectorMgr& mgr) : m_mgr(mgr) {}
    ~CProcessHandOver();
    CProcessHandOver(const CProcessHandOver&) = delete;
    CProcessHandOver& operator=(const CProcessHandOver&) = delete;

    // See CConnectorMgr::OfferHandOver.
    int Offer(const char* path, const HandOverOptions& options);
    // See CConnectorMgr::TakeOver.
    int TakeOver(const char* path, const HandOverOptions& options, TakeOverResult* result);
    // Closes the offer's socket (and removes its file) if one is open.
    void EndOffer();

  private:
    // Polled by a timer while the offer is open: takes a successor and runs the exchange.
    void Poll();
    // The exchange with one successor, on `peer`. True when it completed.
    bool Exchange(int peer);
    // Sends the connections (after the listeners); true when every batch was answered.
    bool SendConnections(int peer, int64_t deadline, size_t* moved, size_t* offered, std::string* error);
    // New side: adopts one connection of a kConns batch; its id, or 0 when it could not be.
    ConnId Adopt(handover::CReader& in, int fd, std::string* state, std::string* url, bool* accepted,
                 TakeOverResult* result);
    bool PeerAllowed(int fd, const HandOverOptions& options, std::string* why, int32_t* pid);

    CConnectorMgr& m_mgr;
    int m_offer_fd = -1;
    std::string m_offer_path;
    HandOverOptions m_options;
    uint64_t m_timer = 0;
};

}  // namespace QUOLNET
