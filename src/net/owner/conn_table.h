// CConnTable: a manager's connections by id and by connector, and the lock that lets other
// threads look them up.
//
// Threads and locks:
//   m_lock (shared_mutex)  writers: the loop thread, exclusively, when it adds or removes a
//                          connection, connects, closes a descriptor or moves a connection
//                          away (Lock()); readers: other threads' Send/SendCorked/
//                          IsConnected, shared, for the lookup and the whole connector call
//                          (LockShared()). The loop thread reads without the lock: only it
//                          writes.
//   m_by_connector         loop thread only.
//   ids                    NextId is atomic: any thread may reserve an id (a dial placed by
//                          a group from another thread).
#pragma once

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "conn.h"

namespace QUOLNET {

class CConnTable {
  public:
    // Ids are `base` + 1, `base` + 2, ...; a group puts the loop's index in the top bits.
    explicit CConnTable(ConnId base = 0) : m_next_id(base) {}

    ConnId NextId() { return ++m_next_id; }
    void SetIdBase(ConnId base) { m_next_id = base; }
    ConnId LastId() const { return m_next_id; }
    // Adds `c` under its id (given one by NextId when it has none). Takes the lock.
    void Add(OwnedConn* c);
    // Removes `c` from both maps. The caller holds Lock().
    void RemoveLocked(OwnedConn* c);
    OwnedConn* Find(ConnId id) const;
    OwnedConn* FindByConnector(const void* connector) const;
    size_t Size() const { return m_by_id.size(); }
    // Every connection, by id (loop thread).
    std::vector<OwnedConn*> SortedById() const;
    const std::unordered_map<ConnId, OwnedConn*>& ById() const { return m_by_id; }

    std::unique_lock<std::shared_mutex> Lock() { return std::unique_lock<std::shared_mutex>(m_lock); }
    std::shared_lock<std::shared_mutex> LockShared(bool now = true) {
        return now ? std::shared_lock<std::shared_mutex>(m_lock)
                   : std::shared_lock<std::shared_mutex>(m_lock, std::defer_lock);
    }

  private:
    std::shared_mutex m_lock;
    std::unordered_map<ConnId, OwnedConn*> m_by_id;
    std::unordered_map<const void*, OwnedConn*> m_by_connector;
    std::atomic<ConnId> m_next_id;
};

}  // namespace QUOLNET
