#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "Vidora/NodePool.h"
#include "Vidora/SeqList.h"
#include "support/Capture.h"

namespace Kavio {
namespace Vidora {
namespace {

TEST(SeqList, KeepsOrderRoundTheRingAndDropsWhenFull) {
    int values[40];
    int* nodes[4];
    SeqList<int> list;
    ASSERT_EQ(0, list.Init(nodes, 4));
    EXPECT_EQ(nullptr, list.Pop());
    int pushed = 0;
    int popped = 0;
    for (int round = 0; round < 9; ++round) {  // each leaves the ring's pointers at another place
        while (list.Push(&values[pushed]) == 0) {
            ++pushed;
        }
        EXPECT_EQ(4, pushed - popped);  // the front slot and three entries
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(&values[popped++], list.Pop());
        }
    }
    EXPECT_EQ(&values[popped], list.Pop());
    EXPECT_TRUE(list.Empty());
}

TEST(SeqList, ReportsFaults) {
    const Support::CLogCapture log;
    const Support::CAssertCapture asserts;
    int value = 0;
    int* nodes[1];
    SeqList<int> list;
    EXPECT_EQ(-1, list.Push(&value));
    EXPECT_EQ(-1, list.Init(nullptr, 4));
    EXPECT_EQ(0, list.Init(nodes, 1));
    EXPECT_EQ(-1, list.Push(nullptr));
    EXPECT_EQ(0, list.Push(&value));
    EXPECT_EQ(-1, list.Push(&value));
    EXPECT_EQ((std::vector<std::string>{"nodes", "node != NULL"}), asserts.Texts());
    EXPECT_EQ(1, log.Count("list size isn't enough!And max number is 0 \n"));
}

TEST(NodePool, GivesEachNodeOnceAndTheLastOneBackFirst) {
    const Support::CLogCapture log;
    alignas(8) unsigned char memory[3 * 16];
    NodePool pool;
    ASSERT_EQ(0, pool.Init(memory, 3, 16));
    void* first = pool.Get();
    pool.Put(first);
    EXPECT_EQ(first, pool.Get());
    void* second = pool.Get();
    void* third = pool.Get();
    EXPECT_EQ(3u, (std::set<void*>{first, second, third}).size());
    EXPECT_EQ(nullptr, pool.Get());
    EXPECT_EQ(1, log.Count("node isn't enough!And minus number is 0 \n"));
    pool.Put(second);
    pool.Put(third);
    EXPECT_EQ(2, pool.FreeCount());
    EXPECT_EQ(0, pool.MinFreeCount());
    EXPECT_EQ(third, pool.Get());
    EXPECT_EQ(second, pool.Get());
}

TEST(NodePool, ReportsFaultsAndTakesNoMoreThanItHas) {
    const Support::CAssertCapture asserts;
    alignas(8) unsigned char memory[16];
    NodePool pool;
    EXPECT_EQ(-1, pool.Init(nullptr, 1, 16));
    EXPECT_EQ(-1, pool.Init(memory, 1, 4));
    EXPECT_EQ(nullptr, pool.Get());
    ASSERT_EQ(0, pool.Init(memory, 1, 16));
    pool.Put(nullptr);
    pool.Put(memory);  // full already
    EXPECT_EQ(1, pool.FreeCount());
    const std::string text = "pool && node_num > 0 && node_size >= sizeof(Node)";
    EXPECT_EQ((std::vector<std::string>{text, text, "node"}), asserts.Texts());
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
