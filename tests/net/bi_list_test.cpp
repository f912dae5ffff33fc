// CBidirList: linking, unlinking, merging and forgetting intrusive nodes.
#include <gtest/gtest.h>

#include <vector>

#include "net/bi_list.h"

using namespace QUOLNET;

namespace {

struct Item {
    LIST_NODE node;
    int value;
};

class BiListTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (int i = 0; i < 8; ++i) {
            items[i].node = {nullptr, nullptr, &items[i]};
            items[i].value = i;
        }
    }
    // Values in list order, checking every back link and the count on the way.
    static std::vector<int> Values(const CBidirList& l) {
        std::vector<int> out;
        LIST_NODE* prev = nullptr;
        for (LIST_NODE* n = l.Head(); n != nullptr; n = n->pNext) {
            EXPECT_EQ(prev, n->pPrev);
            out.push_back(static_cast<Item*>(n->pData)->value);
            prev = n;
        }
        EXPECT_EQ(prev, l.Tail());
        EXPECT_EQ(out.size(), l.Count());
        EXPECT_EQ(out.empty(), l.IsEmpty());
        return out;
    }
    Item items[8];
};

TEST_F(BiListTest, EmptyList) {
    CBidirList l;
    EXPECT_TRUE(l.IsEmpty());
    EXPECT_EQ(0u, l.Count());
    EXPECT_EQ(nullptr, l.Head());
    EXPECT_EQ(nullptr, l.Tail());
}

TEST_F(BiListTest, RemoveHeadOnEmptyReturnsNull) {
    CBidirList l;
    EXPECT_EQ(nullptr, l.RemoveHead());
    EXPECT_EQ(0u, l.Count());
    EXPECT_EQ(0u, static_cast<unsigned int>(l.m_dwCount));
}

TEST_F(BiListTest, InsertAppendsAndInsertHeadPrepends) {
    CBidirList l;
    EXPECT_TRUE(l.Insert(&items[1].node));
    EXPECT_TRUE(l.Insert(&items[2].node));
    EXPECT_TRUE(l.InsertHead(&items[0].node));
    EXPECT_EQ((std::vector<int>{0, 1, 2}), Values(l));
    EXPECT_FALSE(l.Insert(nullptr));
    EXPECT_FALSE(l.InsertHead(nullptr));
    EXPECT_EQ(3u, l.Count());
}

TEST_F(BiListTest, InsertHeadIntoEmptySetsTail) {
    CBidirList l;
    EXPECT_TRUE(l.InsertHead(&items[0].node));
    EXPECT_EQ(&items[0].node, l.Head());
    EXPECT_EQ(&items[0].node, l.Tail());
}

TEST_F(BiListTest, InsertBefore) {
    CBidirList l;
    l.Insert(&items[0].node);
    l.Insert(&items[2].node);
    EXPECT_TRUE(l.Insert_Before(&items[1].node, &items[2].node));
    EXPECT_TRUE(l.Insert_Before(&items[3].node, &items[0].node));  // before the head
    EXPECT_EQ((std::vector<int>{3, 0, 1, 2}), Values(l));
    EXPECT_FALSE(l.Insert_Before(nullptr, &items[0].node));
    EXPECT_FALSE(l.Insert_Before(&items[4].node, nullptr));
}

TEST_F(BiListTest, RemoveHeadInOrder) {
    CBidirList l;
    for (int i = 0; i < 3; ++i) {
        l.Insert(&items[i].node);
    }
    LIST_NODE* n = l.RemoveHead();
    EXPECT_EQ(&items[0].node, n);
    EXPECT_EQ(nullptr, n->pNext);
    EXPECT_EQ(nullptr, n->pPrev);
    EXPECT_EQ((std::vector<int>{1, 2}), Values(l));
    l.RemoveHead();
    l.RemoveHead();
    EXPECT_EQ(nullptr, l.Tail());
    EXPECT_TRUE(Values(l).empty());
}

TEST_F(BiListTest, RemoveAnywhere) {
    CBidirList l;
    for (int i = 0; i < 5; ++i) {
        l.Insert(&items[i].node);
    }
    EXPECT_TRUE(l.Remove(&items[2].node));  // middle
    EXPECT_EQ((std::vector<int>{0, 1, 3, 4}), Values(l));
    EXPECT_TRUE(l.Remove(&items[0].node));  // head
    EXPECT_EQ((std::vector<int>{1, 3, 4}), Values(l));
    EXPECT_TRUE(l.Remove(&items[4].node));  // tail
    EXPECT_EQ((std::vector<int>{1, 3}), Values(l));
    EXPECT_FALSE(l.Remove(nullptr));
    EXPECT_TRUE(l.Remove(&items[1].node));
    EXPECT_TRUE(l.Remove(&items[3].node));
    EXPECT_TRUE(Values(l).empty());
    EXPECT_FALSE(l.Remove(&items[3].node));  // empty list
}

TEST_F(BiListTest, ResetForgetsWithoutTouchingNodes) {
    CBidirList l;
    l.Insert(&items[0].node);
    l.Insert(&items[1].node);
    l.Reset();
    EXPECT_TRUE(Values(l).empty());
    EXPECT_EQ(&items[1].node, items[0].node.pNext);  // nodes untouched
    EXPECT_EQ(&items[0].node, items[1].node.pPrev);
}

TEST_F(BiListTest, MergeBehindTail) {
    CBidirList a;
    CBidirList b;
    a.Insert(&items[0].node);
    a.Insert(&items[1].node);
    b.Insert(&items[2].node);
    b.Insert(&items[3].node);
    a.Merge(b, false);
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), Values(a));
    EXPECT_TRUE(Values(b).empty());
    EXPECT_EQ(nullptr, b.Head());
    EXPECT_EQ(nullptr, b.Tail());
}

TEST_F(BiListTest, MergeBeforeHeadWhenFlagged) {
    CBidirList a;
    CBidirList b;
    a.Insert(&items[0].node);
    b.Insert(&items[1].node);
    b.Insert(&items[2].node);
    a.Merge(b, true);
    EXPECT_EQ((std::vector<int>{1, 2, 0}), Values(a));
    EXPECT_TRUE(b.IsEmpty());
}

TEST_F(BiListTest, MergeIntoEmpty) {
    CBidirList a;
    CBidirList b;
    b.Insert(&items[0].node);
    b.Insert(&items[1].node);
    a.Merge(b, false);
    EXPECT_EQ((std::vector<int>{0, 1}), Values(a));
    EXPECT_TRUE(b.IsEmpty());
}

TEST_F(BiListTest, MergeOfEmptyChangesNothing) {
    CBidirList a;
    CBidirList empty;
    a.Insert(&items[0].node);
    a.Insert(&items[1].node);
    a.Merge(empty, false);
    EXPECT_EQ((std::vector<int>{0, 1}), Values(a));
    a.Merge(empty, true);
    EXPECT_EQ((std::vector<int>{0, 1}), Values(a));
    EXPECT_TRUE(empty.IsEmpty());
    CBidirList e2;
    e2.Merge(empty, false);
    EXPECT_TRUE(Values(e2).empty());
}

TEST_F(BiListTest, MergeWithItselfChangesNothing) {
    CBidirList a;
    a.Insert(&items[0].node);
    a.Merge(a, false);
    EXPECT_EQ((std::vector<int>{0}), Values(a));
}

TEST_F(BiListTest, DestructionLeavesNodesAlone) {
    {
        CBidirList l;
        l.Insert(&items[0].node);
        l.Insert(&items[1].node);
    }
    EXPECT_EQ(&items[1].node, items[0].node.pNext);
    EXPECT_EQ(&items[0], items[0].node.pData);
}

}  // namespace
