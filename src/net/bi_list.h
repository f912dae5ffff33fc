// LIST_NODE and CBidirList: an intrusive doubly linked list.
//
// The list links nodes that live inside other objects (a NetBuffer's m_node, a connector's
// m_node) and never owns, allocates or frees them. A node is in at most one list at a time.
//
//   m_pstHead -> [node] <-> [node] <-> [node] <- m_pstTail       (m_dwCount == 3)
//   empty:       m_pstHead == m_pstTail == nullptr, m_dwCount == 0
//
// Not thread-safe: a list shared between threads is guarded by its owner's Mutex. The count
// alone may be read without that lock (it is a relaxed atomic); such a read may be stale.
#pragma once

#include "../common/export.h"
#include "../common/relaxed.h"

namespace QUOLNET {

struct LIST_NODE {
    LIST_NODE* pPrev;
    LIST_NODE* pNext;
    void* pData;  // the object this node belongs to
};

class QUOLNET_EXPORT CBidirList {
  public:
    CBidirList() : m_pstHead(nullptr), m_pstTail(nullptr), m_dwCount(0u) {}
    // Does not touch the nodes still linked.
    ~CBidirList() {}
    CBidirList(const CBidirList&) = delete;
    CBidirList& operator=(const CBidirList&) = delete;

    // Links `node` before the head. False for a null node.
    bool InsertHead(LIST_NODE* node);
    // Unlinks and returns the head, or null when empty.
    LIST_NODE* RemoveHead();
    // Links `node` after the tail. False for a null node.
    bool Insert(LIST_NODE* node);
    // Links `node` before `before` (which must be in this list). False for null arguments.
    bool Insert_Before(LIST_NODE* node, LIST_NODE* before);
    // Unlinks `node`, which must be in this list. False for a null node or an empty list.
    bool Remove(LIST_NODE* node);

    LIST_NODE* Head() const { return m_pstHead; }
    LIST_NODE* Tail() const { return m_pstTail; }
    bool IsEmpty() const { return m_dwCount == 0u; }
    unsigned int Count() const { return m_dwCount; }

    // Forgets every node (head, tail null, count 0) without touching them.
    void Reset();
    // Moves all of other's nodes into this list: behind the tail when `to_head` is false,
    // before the head when it is true. `other` is empty afterwards.
    void Merge(CBidirList& other, bool to_head);

    LIST_NODE* m_pstHead;
    LIST_NODE* m_pstTail;
    Relaxed<unsigned int> m_dwCount;
};

}  // namespace QUOLNET
