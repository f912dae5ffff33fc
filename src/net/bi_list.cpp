#include "net/bi_list.h"

namespace QUOLNET {

bool CBidirList::InsertHead(LIST_NODE* node) {
    if (node == nullptr) {
        return false;
    }
    node->pPrev = nullptr;
    node->pNext = m_pstHead;
    if (m_pstHead != nullptr) {
        m_pstHead->pPrev = node;
    } else {
        m_pstTail = node;
    }
    m_pstHead = node;
    ++m_dwCount;
    return true;
}

LIST_NODE* CBidirList::RemoveHead() {
    LIST_NODE* node = m_pstHead;
    if (node == nullptr) {
        return nullptr;
    }
    m_pstHead = node->pNext;
    if (m_pstHead != nullptr) {
        m_pstHead->pPrev = nullptr;
    } else {
        m_pstTail = nullptr;
    }
    node->pPrev = node->pNext = nullptr;
    --m_dwCount;
    return node;
}

bool CBidirList::Insert(LIST_NODE* node) {
    if (node == nullptr) {
        return false;
    }
    node->pNext = nullptr;
    node->pPrev = m_pstTail;
    if (m_pstTail != nullptr) {
        m_pstTail->pNext = node;
    } else {
        m_pstHead = node;
    }
    m_pstTail = node;
    ++m_dwCount;
    return true;
}

bool CBidirList::Insert_Before(LIST_NODE* node, LIST_NODE* before) {
    if (node == nullptr || before == nullptr) {
        return false;
    }
    if (before == m_pstHead) {
        return InsertHead(node);
    }
    node->pNext = before;
    node->pPrev = before->pPrev;
    before->pPrev->pNext = node;
    before->pPrev = node;
    ++m_dwCount;
    return true;
}

bool CBidirList::Remove(LIST_NODE* node) {
    if (node == nullptr || m_dwCount == 0u) {
        return false;
    }
    if (node->pPrev != nullptr) {
        node->pPrev->pNext = node->pNext;
    } else {
        m_pstHead = node->pNext;
    }
    if (node->pNext != nullptr) {
        node->pNext->pPrev = node->pPrev;
    } else {
        m_pstTail = node->pPrev;
    }
    node->pPrev = node->pNext = nullptr;
    --m_dwCount;
    return true;
}

void CBidirList::Reset() {
    m_pstHead = m_pstTail = nullptr;
    m_dwCount = 0u;
}

void CBidirList::Merge(CBidirList& other, bool to_head) {
    if (&other == this || other.m_pstHead == nullptr) {
        return;
    }
    if (m_pstHead == nullptr) {
        m_pstHead = other.m_pstHead;
        m_pstTail = other.m_pstTail;
    } else if (!to_head) {
        m_pstTail->pNext = other.m_pstHead;
        other.m_pstHead->pPrev = m_pstTail;
        m_pstTail = other.m_pstTail;
    } else {
        other.m_pstTail->pNext = m_pstHead;
        m_pstHead->pPrev = other.m_pstTail;
        m_pstHead = other.m_pstHead;
    }
    m_dwCount = m_dwCount + other.m_dwCount;
    other.Reset();
}

}  // namespace QUOLNET
