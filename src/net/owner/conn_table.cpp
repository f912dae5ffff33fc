// CConnTable: the id map of one manager.
#include "net/owner/conn_table.h"

#include <algorithm>

namespace QUOLNET {

void CConnTable::Add(OwnedConn* c) {
    std::unique_lock<std::shared_mutex> lock(m_lock);
    if (c->id == 0) {
        c->id = NextId();
    }
    m_by_id[c->id] = c;
    m_by_connector[c->connector.get()] = c;
}

void CConnTable::RemoveLocked(OwnedConn* c) {
    m_by_id.erase(c->id);
    m_by_connector.erase(c->connector.get());
}

OwnedConn* CConnTable::Find(ConnId id) const {
    auto it = m_by_id.find(id);
    return it == m_by_id.end() ? nullptr : it->second;
}

OwnedConn* CConnTable::FindByConnector(const void* connector) const {
    auto it = m_by_connector.find(connector);
    return it == m_by_connector.end() ? nullptr : it->second;
}

std::vector<OwnedConn*> CConnTable::SortedById() const {
    std::vector<OwnedConn*> all;
    all.reserve(m_by_id.size());
    for (auto& kv : m_by_id) {
        all.push_back(kv.second);
    }
    std::sort(all.begin(), all.end(), [](const OwnedConn* a, const OwnedConn* b) { return a->id < b->id; });
    return all;
}

}  // namespace QUOLNET
