// More elements than 32 bits can count. There is no memory for them, but a list that bites its own
// tail has as many as anybody wants to count.
#include <korvane/utils.h>

#include <cstdint>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TraceRecorder.h"

namespace
{

using ListOverflowTest = support::TraceTest;

TEST_F(ListOverflowTest, Count_WhenThereAreMoreThan32BitsCanCount_ReportsItAndEnds)
{
    ListNode* head = nullptr;
    ListNode* tail = nullptr;
    listInitNode(&head, &tail);
    ASSERT_EQ(listInsertDataAfterNode(head, tail, nullptr, head), 1);
    ListNode* const element = head->next;
    element->next = element;
    EXPECT_EQ(listGetNodeCount(head, tail), 4294967295U);
    element->next = tail;
    listFinalNode(head, tail, false);
    EXPECT_THAT(support::takeMessages(), testing::ElementsAre("E overflow"));
}

} // namespace
