// CProcessHandOver: a manager's listeners and live connections passed to another process
// over a Unix socket (CConnectorMgr::OfferHandOver and TakeOver), so that a restart drops
// no one.
//
// The exchange, after the successor's hello (messages in handover_wire.h):
//
//   old (offering)                                  new (TakeOver)
//     <- kHello {version}
//     kWelcome {version, pid, highest id,              (or kRefuse {why}: the offer stays open)
//               deadline, blocks in use} ->
//     ... the old process serves on ...              warms its pool for that many blocks
//     <- kReady                                      (the pause its peers see begins here)
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
//
// A group (CConnectorGroup::OfferHandOver, TakeOver) speaks the same exchange, from loop 0:
//   old  loop 0 takes the successor and parks every other loop (each waits in a task of its
//        own, so none reads, writes or accepts meanwhile); the listeners of every loop go
//        in one message; then each loop sends its own connections on its own thread, in
//        turn, while loop 0 waits; the end is loop 0's. Every loop then releases its
//        listeners and drains what stayed, or (on a failure) goes on serving.
//   new  on the thread calling TakeOver, before Start: each connection joins the loop its id
//        names when the group has that loop, else the loops in turn (reached through a
//        route, as a moved connection is); the listening sockets are spread over the
//        loops that will listen on them.
#pragma once

#include <cstdint>
#include <memory>
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

    // Where loop 0 and the parked loops meet (group_handover.cpp).
    struct Parking;

  private:
    // What the connections' part of an exchange did, summed over a group's loops.
    struct Tally {
        size_t moved = 0;    // connections the successor confirmed
        size_t offered = 0;  // connections the manager held
        uint64_t bytes = 0;  // message bytes sent for them
        uint64_t owed = 0;   // of those, bytes the connections owed (unsent and unread)
        void Add(const Tally& t) {
            moved += t.moved;
            offered += t.offered;
            bytes += t.bytes;
            owed += t.owed;
        }
    };

    // Polled by a timer while the offer is open: takes a successor and runs the exchange.
    void Poll();
    // A successor's first steps, on `peer`: its credentials and hello checked, the welcome
    // sent. True when it may get ready; false (logged, refused) otherwise.
    bool Greet(int peer);
    // The rest of the exchange, once the successor is ready. True when it completed.
    bool Exchange(int peer);
    // Sends this manager's connections (after the listeners); true when every batch was
    // answered. This manager's loop thread.
    bool SendConnections(int peer, int64_t deadline, Tally* tally, std::string* error);
    // After a complete exchange: the listeners are the successor's, what stayed drains.
    // This manager's loop thread.
    void Finish(int drain_ms);

    // The group's old side (group_handover.cpp), on loop 0's thread. ParkLoops posts the
    // wait to every other loop and returns once all wait (false, with `why`, when one does
    // not by the deadline); SendEachLoop runs each loop's SendConnections in turn; EndParking
    // lets them go, each finishing the hand-over (`success`) or serving on.
    bool ParkLoops(int64_t deadline, std::string* why);
    // The wait itself, on another loop's thread (this manager's): see group_handover.cpp.
    void Park(const std::shared_ptr<Parking>& st, int index);
    bool SendEachLoop(int peer, int64_t deadline, Tally* tally, std::string* error);
    void EndParking(bool success);
    // Every listener of this manager, or of every loop of its group.
    std::vector<std::pair<std::string, int>> AllListeners() const;
    // The highest id this manager, or any loop of its group, has given.
    ConnId HighestId() const;
    // Pool blocks out in this manager, or in every loop of its group (each pool once).
    uint64_t BlocksInUse() const;
    // New side: makes about `blocks` pool blocks (spread over a group's pools) and touches
    // their memory, so that taking the connections' bytes in finds it ready.
    void WarmPools(uint64_t blocks);

    // New side: adopts one connection of a kConns batch into the manager TargetFor chooses
    // (`*where`); its id, or 0 when it could not be.
    // The received bytes stay in `payload` (the batch's message, which `in` reads).
    ConnId Adopt(handover::CReader& in, const std::shared_ptr<const std::string>& payload, int fd,
                 std::string* state, std::string* url, bool* accepted, CConnectorMgr** where,
                 TakeOverResult* result);
    // This manager; in a group the loop `id` names, or (naming none here) the next in turn.
    CConnectorMgr& TargetFor(ConnId id);
    // Keeps a received listening socket for the Listen that will take it.
    void KeepListener(const std::string& url, int fd);
    bool PeerAllowed(int fd, const HandOverOptions& options, std::string* why, int32_t* pid);

    CConnectorMgr& m_mgr;
    int m_offer_fd = -1;
    std::string m_offer_path;
    HandOverOptions m_options;
    uint64_t m_timer = 0;
    int m_peer = -1;  // a greeted successor getting ready (see Poll)
    int32_t m_peer_pid = 0;
    int64_t m_start_ms = 0;              // when it was accepted
    int64_t m_deadline_ms = 0;           // and the whole exchange's deadline
    std::shared_ptr<Parking> m_parking;  // the other loops' wait, during a group's exchange
    unsigned int m_next_loop = 0;        // new side, group: the turn for ids naming no loop here
    std::vector<std::pair<std::string, unsigned int>> m_kept;  // new side, group: sockets per URL so far
};

}  // namespace QUOLNET
