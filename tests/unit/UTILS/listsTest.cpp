#include <korvane/utils.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <list>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "Faults.h"
#include "TraceRecorder.h"

namespace
{

using support::Hooks;
using support::ScopedHook;
using support::takeMessages;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(std::is_standard_layout<ListNode>::value, "C clients share it");
static_assert(offsetof(ListNode, data) == 0, "first");
static_assert(offsetof(ListNode, prev) == sizeof(void*), "second");
static_assert(offsetof(ListNode, next) == 2 * sizeof(void*), "third");
static_assert(sizeof(ListNode) == 3 * sizeof(void*), "and no more");

constexpr std::size_t kGuardSize = 16;
constexpr char kNoMemory[] = "E iAP2_malloc error : iAP2_malloc Error!!";

int itemA;
int itemB;
int itemC;
void* const A = &itemA;
void* const B = &itemB;
void* const C = &itemC;

std::string shown(const void* pointer)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

std::string noSentinels(const ListNode* head, const ListNode* tail)
{
    return "E ERROR : pHead[" + shown(head) + "] or pTail[" + shown(tail) + "] is NULL";
}

std::string noMember(const ListNode* node)
{
    return "E ERROR : pNode[" + shown(node) + "] is not member of this list";
}

/** A list that is gone when this object is; its data is the test's. */
struct List
{
    List()
    {
        listInitNode(&head, &tail);
    }
    explicit List(const std::vector<void*>& data) : List()
    {
        for (void* const item : data)
        {
            EXPECT_EQ(listInsertDataBeforeNode(head, tail, item, tail), 1);
        }
    }
    ~List()
    {
        listFinalNode(head, tail, false);
    }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    ListNode* node(std::size_t index) const
    {
        ListNode* node = head->next;
        for (; index > 0; --index)
        {
            node = node->next;
        }
        return node;
    }

    /** The data from the head to the tail; fails the test unless every link has its counterpart. */
    std::vector<void*> data() const
    {
        EXPECT_EQ(head->prev, head);
        EXPECT_EQ(tail->next, tail);
        EXPECT_EQ(head->data, nullptr);
        EXPECT_EQ(tail->data, nullptr);
        std::vector<void*> items;
        for (const ListNode* node = head; node != tail; node = node->next)
        {
            EXPECT_EQ(node->next->prev, node);
            if (node != head)
            {
                items.push_back(node->data);
            }
        }
        return items;
    }

    ListNode* head = nullptr;
    ListNode* tail = nullptr;
};

/** What is taken from and given back to the system allocator, as the areas behind the guards. */
class Heap
{
public:
    Heap()
        : mMalloc(&Hooks::malloc,
                  [this](std::size_t size) -> void*
                  {
                      requests.push_back(size - kGuardSize);
                      if (failFrom != 0 && requests.size() >= failFrom)
                      {
                          errno = failure;
                          return nullptr;
                      }
                      return support::real::malloc(size);
                  }),
          mFree(&Hooks::free,
                [this](void* block)
                {
                    released.push_back(static_cast<char*>(block) + kGuardSize);
                    support::real::free(block);
                })
    {
    }
    Heap(const Heap&) = delete;
    Heap& operator=(const Heap&) = delete;

    std::size_t failFrom = 0; // the first request that fails; 0: none
    int failure = ENOMEM;
    std::vector<std::size_t> requests;
    std::vector<void*> released;

private:
    const ScopedHook<decltype(Hooks::malloc)> mMalloc;
    const ScopedHook<decltype(Hooks::free)> mFree;
};

/** One trace of the form "function[...], line[...] error[...][...]", with its own line in it. */
std::string errnoReport(const char* function, const support::Trace& trace, const char* error)
{
    const int line = support::columnsOf(trace.text).line;
    return "W function[" + std::string(function) + "], line[" + std::to_string(line) + "] " + error;
}

std::string messageOf(const support::Trace& trace)
{
    const support::TraceColumns columns = support::columnsOf(trace.text);
    EXPECT_EQ(columns.file, "utils.cpp");
    return columns.letter + " " + columns.message;
}

using ListsTest = support::TraceTest;

/* ---- Init ------------------------------------------------------------------------------------ */

struct Init
{
    const char* name;
    void (*call)(ListNode**, ListNode**);
};

class ListsInitTest : public support::TraceTest, public testing::WithParamInterface<Init>
{
};

TEST_P(ListsInitTest, Init_WhenItSucceeds_LinksTwoSentinels)
{
    ListNode* head = nullptr;
    ListNode* tail = nullptr;
    {
        const Heap heap;
        GetParam().call(&head, &tail);
        EXPECT_THAT(heap.requests, ElementsAre(24, 24));
        EXPECT_THAT(heap.released, IsEmpty());
    }
    ASSERT_NE(head, nullptr);
    ASSERT_NE(tail, nullptr);
    EXPECT_EQ(head->data, nullptr);
    EXPECT_EQ(head->prev, head);
    EXPECT_EQ(head->next, tail);
    EXPECT_EQ(tail->data, nullptr);
    EXPECT_EQ(tail->prev, head);
    EXPECT_EQ(tail->next, tail);
    listFinalNode(head, tail, false);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_P(ListsInitTest, Init_WhenTheHeadIsNotAllocated_ReportsErrnoAndClearsIt)
{
    ListNode* head = nullptr;
    ListNode* tail = nullptr;
    {
        Heap heap;
        heap.failFrom = 1;
        heap.failure = EOWNERDEAD;
        GetParam().call(&head, &tail);
        EXPECT_EQ(errno, 0);
        EXPECT_THAT(heap.requests, ElementsAre(24));
        EXPECT_THAT(heap.released, IsEmpty());
    }
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(tail, nullptr);
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 2U);
    EXPECT_EQ(messageOf(traces[0]), kNoMemory);
    EXPECT_EQ(messageOf(traces[1]),
              errnoReport("listInitNode", traces[1], "error[130][Owner died]"));
}

TEST_P(ListsInitTest, Init_WhenTheHeadIsNotAllocated_ReleasesWhatTheCallersTailHolds)
{
    auto* tail = static_cast<ListNode*>(iAP2_malloc(sizeof(ListNode)));
    ListNode* const before = tail;
    ListNode* head = nullptr;
    {
        Heap heap;
        heap.failFrom = 1;
        GetParam().call(&head, &tail);
        EXPECT_THAT(heap.released, ElementsAre(before));
    }
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(tail, before); // not reset
}

TEST_P(ListsInitTest, Init_WhenTheTailIsNotAllocated_ReleasesTheHeadAndLeavesItsAddress)
{
    ListNode* head = nullptr;
    auto* tail = static_cast<ListNode*>(A); // overwritten
    {
        Heap heap;
        heap.failFrom = 2;
        GetParam().call(&head, &tail);
        EXPECT_EQ(errno, 0);
        EXPECT_THAT(heap.requests, ElementsAre(24, 24));
        EXPECT_NE(head, nullptr);
        EXPECT_THAT(heap.released, ElementsAre(head));
    }
    EXPECT_EQ(tail, nullptr);
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 2U);
    EXPECT_EQ(messageOf(traces[0]), kNoMemory);
    EXPECT_EQ(messageOf(traces[1]),
              errnoReport("listInitNode", traces[1], "error[12][Cannot allocate memory]"));
}

INSTANTIATE_TEST_SUITE_P(ListsTest, ListsInitTest,
                         testing::Values(Init{"list", listInitNode}, Init{"queue", queueInit}),
                         [](const auto& test) { return std::string(test.param.name); });

/* ---- Clear and final ------------------------------------------------------------------------- */

struct Emptying
{
    const char* name;
    void (*clear)(ListNode*, ListNode*, bool);
    void (*final)(ListNode*, ListNode*, bool);
};

class ListsEmptyingTest : public support::TraceTest, public testing::WithParamInterface<Emptying>
{
};

TEST_P(ListsEmptyingTest, Clear_WhenASentinelIsNull_ReportsItAndDoesNothing)
{
    const List list({A});
    const Heap heap;
    GetParam().clear(nullptr, list.tail, true);
    GetParam().clear(list.head, nullptr, true);
    GetParam().clear(nullptr, nullptr, false);
    EXPECT_THAT(heap.released, IsEmpty());
    EXPECT_THAT(list.data(), ElementsAre(A));
    EXPECT_THAT(takeMessages(),
                ElementsAre(noSentinels(nullptr, list.tail), noSentinels(list.head, nullptr),
                            "E ERROR : pHead[(nil)] or pTail[(nil)] is NULL"));
}

TEST_P(ListsEmptyingTest, Clear_WithoutFreeData_ReleasesTheNodesAlone)
{
    void* const item = iAP2_malloc(1);
    const List list({A, item, nullptr});
    ListNode* const nodes[] = {list.node(0), list.node(1), list.node(2)};
    {
        const Heap heap;
        GetParam().clear(list.head, list.tail, false);
        EXPECT_THAT(heap.released, ElementsAre(nodes[0], nodes[1], nodes[2]));
    }
    EXPECT_THAT(list.data(), IsEmpty());
    EXPECT_EQ(list.head->next, list.tail);
    iAP2_free(item);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_P(ListsEmptyingTest, Clear_WithFreeData_ReleasesEachItemThenItsNode)
{
    void* const first = iAP2_malloc(1);
    void* const last = iAP2_malloc(2);
    const List list({first, nullptr, last});
    ListNode* const nodes[] = {list.node(0), list.node(1), list.node(2)};
    {
        const Heap heap;
        GetParam().clear(list.head, list.tail, true);
        EXPECT_THAT(heap.released, ElementsAre(first, nodes[0], nodes[1], last, nodes[2]));
    }
    EXPECT_THAT(list.data(), IsEmpty());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_P(ListsEmptyingTest, Clear_WithFreeData_SetsTheDataToNullBeforeTheNodeGoes)
{
    const List list({iAP2_malloc(1)});
    const ListNode* const node = list.node(0);
    std::vector<const void*> dataAtRelease;
    const ScopedHook watch(&Hooks::free,
                           [&](void* block)
                           {
                               if (static_cast<char*>(block) + kGuardSize ==
                                   reinterpret_cast<const char*>(node))
                               {
                                   dataAtRelease.push_back(node->data);
                               }
                               support::real::free(block);
                           });
    GetParam().clear(list.head, list.tail, true);
    EXPECT_THAT(dataAtRelease, ElementsAre(nullptr));
}

TEST_P(ListsEmptyingTest, Clear_WithFreeData_ReportsItemsThatAreNotOfTheAllocator)
{
    const List list({A});
    GetParam().clear(list.head, list.tail, true);
    EXPECT_THAT(list.data(), IsEmpty());
    EXPECT_THAT(takeMessages(), ElementsAre("E iAP2_free error : freeAddress is tainted!!"));
}

TEST_P(ListsEmptyingTest, Clear_WhenTheListIsCutShort_ReleasesUpToTheCutAndJoinsTheSentinels)
{
    const List list({A, B});
    ListNode* const nodes[] = {list.node(0), list.node(1)};
    nodes[0]->next = nullptr;
    {
        const Heap heap;
        GetParam().clear(list.head, list.tail, false);
        EXPECT_THAT(heap.released, ElementsAre(nodes[0]));
    }
    EXPECT_THAT(list.data(), IsEmpty());
    iAP2_free(nodes[1]);
}

TEST_P(ListsEmptyingTest, Clear_WhenTheListIsEmpty_LeavesItSo)
{
    const List list;
    const Heap heap;
    GetParam().clear(list.head, list.tail, true);
    EXPECT_THAT(heap.released, IsEmpty());
    EXPECT_THAT(list.data(), IsEmpty());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_P(ListsEmptyingTest, Final_WithoutFreeData_ReleasesNodesThenSentinels)
{
    ListNode* head = nullptr;
    ListNode* tail = nullptr;
    listInitNode(&head, &tail);
    listInsertDataAfterNode(head, tail, A, head);
    ListNode* const node = head->next;
    const Heap heap;
    errno = 5;
    GetParam().final(head, tail, false);
    EXPECT_EQ(errno, 5);
    EXPECT_THAT(heap.released, ElementsAre(node, head, tail));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_P(ListsEmptyingTest, Final_WithFreeData_ReleasesTheItemsToo)
{
    ListNode* head = nullptr;
    ListNode* tail = nullptr;
    listInitNode(&head, &tail);
    void* const item = iAP2_malloc(1);
    listInsertDataAfterNode(head, tail, item, head);
    ListNode* const node = head->next;
    const Heap heap;
    GetParam().final(head, tail, true);
    EXPECT_THAT(heap.released, ElementsAre(item, node, head, tail));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_P(ListsEmptyingTest, Final_WhenTheHeadIsNull_ReportsErrnoAndReleasesTheTail)
{
    List list({A});
    {
        const Heap heap;
        errno = ENOMEM;
        GetParam().final(nullptr, list.tail, false);
        EXPECT_EQ(errno, 0);
        EXPECT_THAT(heap.released, ElementsAre(list.tail));
    }
    iAP2_free(list.node(0));
    list.tail = nullptr;
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(messageOf(traces[0]),
              errnoReport("listFinalNode", traces[0], "error[12][Cannot allocate memory]"));
}

TEST_P(ListsEmptyingTest, Final_WhenTheTailIsNull_ReportsErrnoAndReleasesTheHeadAlone)
{
    List list({A});
    ListNode* const node = list.node(0);
    {
        const Heap heap;
        errno = EOWNERDEAD;
        GetParam().final(list.head, nullptr, true);
        EXPECT_EQ(errno, 0);
        EXPECT_THAT(heap.released, ElementsAre(list.head));
    }
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(messageOf(traces[0]),
              errnoReport("listFinalNode", traces[0], "error[130][Owner died]"));
    iAP2_free(node);
    list.head = nullptr;
}

TEST_P(ListsEmptyingTest, Final_WhenBothAreNull_ReportsOnceAndReleasesNothing)
{
    const Heap heap;
    errno = 0;
    GetParam().final(nullptr, nullptr, true);
    EXPECT_EQ(errno, 0);
    EXPECT_THAT(heap.released, IsEmpty());
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(messageOf(traces[0]), errnoReport("listFinalNode", traces[0], "error[0][Success]"));
}

INSTANTIATE_TEST_SUITE_P(ListsTest, ListsEmptyingTest,
                         testing::Values(Emptying{"list", listClearAllNode, listFinalNode},
                                         Emptying{"queue", queueClearAll, queueFinal}),
                         [](const auto& test) { return std::string(test.param.name); });

/* ---- Inserts --------------------------------------------------------------------------------- */

/** An insert, and which way it looks. */
struct Insert
{
    const char* name;
    std::uint8_t (*call)(ListNode*, ListNode*, void*, ListNode*);
    ListNode* ListNode::*outward;
    ListNode* List::*end; // what nothing can be inserted behind, seen in that direction
    ListNode* List::*start;
    const char* noNeighbour;

    std::uint8_t operator()(const List& list, void* data, ListNode* node) const
    {
        return call(list.head, list.tail, data, node);
    }
};

class ListsInsertTest : public support::TraceTest, public testing::WithParamInterface<Insert>
{
};

TEST_P(ListsInsertTest, Insert_WhenASentinelIsNull_ReportsItFirst)
{
    const List list;
    const Insert& insert = GetParam();
    EXPECT_EQ(insert.call(nullptr, list.tail, A, nullptr), 0);
    EXPECT_EQ(insert.call(list.head, nullptr, A, list.head), 0);
    EXPECT_THAT(takeMessages(),
                ElementsAre(noSentinels(nullptr, list.tail), noSentinels(list.head, nullptr)));
}

TEST_P(ListsInsertTest, Insert_WhenTheNodeIsNull_ReportsIt)
{
    const List list;
    EXPECT_EQ(GetParam()(list, A, nullptr), 0);
    EXPECT_THAT(takeMessages(), ElementsAre("E pNode is NULL"));
}

TEST_P(ListsInsertTest, Insert_WhenTheNodeHasNoNeighbour_ReportsItBeforeAllElse)
{
    const List list;
    const Heap heap;
    ListNode foreign{};
    EXPECT_EQ(GetParam()(list, A, &foreign), 0);
    // Even at the end, where there would be nothing to say.
    ListNode* const end = list.*GetParam().end;
    ListNode* const outer = std::exchange(end->*GetParam().outward, nullptr);
    EXPECT_EQ(GetParam()(list, A, end), 0);
    end->*GetParam().outward = outer;
    EXPECT_THAT(heap.requests, IsEmpty());
    EXPECT_THAT(takeMessages(), ElementsAre(GetParam().noNeighbour, GetParam().noNeighbour));
}

TEST_P(ListsInsertTest, Insert_WhenTheNodeIsTheEnd_IsSilent)
{
    const List list({A});
    const Heap heap;
    EXPECT_EQ(GetParam()(list, B, list.*GetParam().end), 0);
    EXPECT_THAT(heap.requests, IsEmpty());
    EXPECT_THAT(list.data(), ElementsAre(A));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_P(ListsInsertTest, Insert_WhenMemoryIsShort_ReportsItAndChangesNothing)
{
    const List list({A});
    {
        Heap heap;
        heap.failFrom = 1;
        EXPECT_EQ(GetParam()(list, B, list.node(0)), 0);
        EXPECT_THAT(heap.requests, ElementsAre(24));
    }
    EXPECT_THAT(list.data(), ElementsAre(A));
    EXPECT_THAT(takeMessages(), ElementsAre(kNoMemory, "E ERROR : out of memory"));
}

TEST_P(ListsInsertTest, Insert_WhenMemoryIsShort_DoesNotLookWhoseTheNodeIs)
{
    const List list;
    const List other({A});
    Heap heap;
    heap.failFrom = 1;
    EXPECT_EQ(GetParam()(list, B, other.node(0)), 0);
    EXPECT_THAT(takeMessages(), ElementsAre(kNoMemory, "E ERROR : out of memory"));
}

TEST_P(ListsInsertTest, Insert_WhenTheNodeIsOfAnotherList_ReportsItAndReleasesTheNewNode)
{
    const List list({A});
    const List other({B});
    {
        const Heap heap;
        EXPECT_EQ(GetParam()(list, C, other.node(0)), 0);
        EXPECT_THAT(heap.requests, ElementsAre(24));
        EXPECT_EQ(heap.released.size(), 1U);
        EXPECT_EQ(GetParam()(list, C, other.*GetParam().start), 0);
    }
    EXPECT_THAT(list.data(), ElementsAre(A));
    EXPECT_THAT(other.data(), ElementsAre(B));
    EXPECT_THAT(takeMessages(),
                ElementsAre(noMember(other.node(0)), noMember(other.*GetParam().start)));
}

TEST_P(ListsInsertTest, Insert_WhenTheNodeIsBehindACut_ReportsIt)
{
    const List list({A, B});
    ListNode* const last = list.node(1);
    ListNode* const cut = std::exchange(list.node(0)->next, nullptr);
    EXPECT_EQ(GetParam()(list, C, last), 0);
    list.node(0)->next = cut;
    EXPECT_THAT(takeMessages(), ElementsAre(noMember(last)));
}

TEST_P(ListsInsertTest, Insert_WhenTheNodeIsASentinel_WalksNowhere)
{
    const List list({A});
    // Whoever walked the list would follow this.
    ListNode* const node = list.node(0);
    ListNode* const start = list.*GetParam().start;
    ListNode cut = *node;
    cut.next = reinterpret_cast<ListNode*>(1);
    list.head->next = &cut;
    list.tail->prev = &cut;
    EXPECT_EQ(GetParam()(list, B, start), 1);
    ListNode* const added = start->*GetParam().outward;
    EXPECT_EQ(added->data, B);
    list.head->next = node;
    list.tail->prev = node;
    iAP2_free(added);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_P(ListsInsertTest, Insert_WhenItSucceeds_AsksForOneNodeAndReleasesNothing)
{
    const List list;
    const Heap heap;
    EXPECT_EQ(GetParam()(list, A, list.*GetParam().start), 1);
    EXPECT_THAT(heap.requests, ElementsAre(24));
    EXPECT_THAT(heap.released, IsEmpty());
}

TEST_P(ListsInsertTest, Insert_WhenTheDataIsNull_InsertsIt)
{
    const List list;
    EXPECT_EQ(GetParam()(list, nullptr, list.*GetParam().start), 1);
    EXPECT_THAT(list.data(), ElementsAre(nullptr));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(ListsTest, ListsInsertTest,
                         testing::Values(Insert{"before", listInsertDataBeforeNode, &ListNode::prev,
                                                &List::head, &List::tail, "E pNode->prev is NULL"},
                                         Insert{"after", listInsertDataAfterNode, &ListNode::next,
                                                &List::tail, &List::head, "E pNode->next is NULL"}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(ListsTest, InsertBefore_WhenTheNodeIsInTheList_PlacesTheDataInFront)
{
    const List list({A, C});
    EXPECT_EQ(listInsertDataBeforeNode(list.head, list.tail, B, list.node(1)), 1);
    EXPECT_THAT(list.data(), ElementsAre(A, B, C));
    EXPECT_EQ(listInsertDataBeforeNode(list.head, list.tail, C, list.node(0)), 1);
    EXPECT_THAT(list.data(), ElementsAre(C, A, B, C));
    EXPECT_EQ(listInsertDataBeforeNode(list.head, list.tail, A, list.tail), 1);
    EXPECT_THAT(list.data(), ElementsAre(C, A, B, C, A));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, InsertAfter_WhenTheNodeIsInTheList_PlacesTheDataBehind)
{
    const List list({A, C});
    EXPECT_EQ(listInsertDataAfterNode(list.head, list.tail, B, list.node(0)), 1);
    EXPECT_THAT(list.data(), ElementsAre(A, B, C));
    EXPECT_EQ(listInsertDataAfterNode(list.head, list.tail, A, list.node(2)), 1);
    EXPECT_THAT(list.data(), ElementsAre(A, B, C, A));
    EXPECT_EQ(listInsertDataAfterNode(list.head, list.tail, C, list.head), 1);
    EXPECT_THAT(list.data(), ElementsAre(C, A, B, C, A));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- Getters --------------------------------------------------------------------------------- */

/** A function that takes a node, with "nothing" as the common result. */
struct Getter
{
    const char* name;
    const void* (*call)(ListNode*, ListNode*, ListNode*);
};

class ListsGetterTest : public support::TraceTest, public testing::WithParamInterface<Getter>
{
};

TEST_P(ListsGetterTest, Get_WhenASentinelIsNull_ReportsItFirst)
{
    const List list({A, B});
    EXPECT_EQ(GetParam().call(nullptr, list.tail, nullptr), nullptr);
    EXPECT_EQ(GetParam().call(list.head, nullptr, list.node(0)), nullptr);
    EXPECT_THAT(takeMessages(),
                ElementsAre(noSentinels(nullptr, list.tail), noSentinels(list.head, nullptr)));
    EXPECT_THAT(list.data(), ElementsAre(A, B));
}

TEST_P(ListsGetterTest, Get_WhenTheNodeIsNull_ReportsIt)
{
    const List list({A, B});
    EXPECT_EQ(GetParam().call(list.head, list.tail, nullptr), nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre("E ERROR : pNode is NULL"));
}

TEST_P(ListsGetterTest, Get_WhenTheNodeIsOfAnotherList_ReportsIt)
{
    const List list({A, B});
    const List other({A, B, C});
    EXPECT_EQ(GetParam().call(list.head, list.tail, other.node(1)), nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre(noMember(other.node(1))));
    EXPECT_THAT(other.data(), ElementsAre(A, B, C));
}

TEST_P(ListsGetterTest, Get_WhenTheNodeIsBehindACut_ReportsIt)
{
    const List list({A, B, C});
    ListNode* const middle = list.node(1);
    ListNode* const cut = std::exchange(list.node(0)->next, nullptr);
    EXPECT_EQ(GetParam().call(list.head, list.tail, middle), nullptr);
    list.node(0)->next = cut;
    EXPECT_THAT(takeMessages(), ElementsAre(noMember(middle)));
    EXPECT_THAT(list.data(), ElementsAre(A, B, C));
}

INSTANTIATE_TEST_SUITE_P(
    ListsTest, ListsGetterTest,
    testing::Values(Getter{"nodeBefore",
                           [](ListNode* head, ListNode* tail, ListNode* node) -> const void*
                           { return listGetNodeBeforeNode(head, tail, node); }},
                    Getter{"dataAfter",
                           [](ListNode* head, ListNode* tail, ListNode* node) -> const void*
                           { return listGetDataAfterNode(head, tail, node); }},
                    Getter{"nodeAfter",
                           [](ListNode* head, ListNode* tail, ListNode* node) -> const void*
                           { return listGetDataRemoveNodeAfterNode(head, tail, node); }},
                    Getter{"removeBefore",
                           [](ListNode* head, ListNode* tail, ListNode* node) -> const void*
                           { return listGetDataRemoveNodeBeforeNode(head, tail, node); }}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(ListsTest, GetNodeBefore_WhenTheNodeIsInTheList_GivesItsPredecessor)
{
    const List list({A, B});
    EXPECT_EQ(listGetNodeBeforeNode(list.head, list.tail, list.tail), list.node(1));
    EXPECT_EQ(listGetNodeBeforeNode(list.head, list.tail, list.node(1)), list.node(0));
    EXPECT_EQ(listGetNodeBeforeNode(list.head, list.tail, list.node(0)), nullptr);
    EXPECT_EQ(listGetNodeBeforeNode(list.head, list.tail, list.head), nullptr);
    EXPECT_THAT(list.data(), ElementsAre(A, B));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, GetDataAfter_WhenTheNodeIsInTheList_GivesItsSuccessorsData)
{
    const List list({A, B});
    EXPECT_EQ(listGetDataAfterNode(list.head, list.tail, list.head), A);
    EXPECT_EQ(listGetDataAfterNode(list.head, list.tail, list.node(0)), B);
    EXPECT_EQ(listGetDataAfterNode(list.head, list.tail, list.node(1)), nullptr);
    list.tail->data = C; // never asked for
    EXPECT_EQ(listGetDataAfterNode(list.head, list.tail, list.node(1)), nullptr);
    EXPECT_EQ(listGetDataAfterNode(list.head, list.tail, list.tail), nullptr);
    list.tail->data = nullptr;
    EXPECT_THAT(list.data(), ElementsAre(A, B));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, GetDataRemoveNodeAfter_WhenTheNodeIsInTheList_GivesTheNodeAndRemovesNothing)
{
    const List list({A, B});
    EXPECT_EQ(listGetDataRemoveNodeAfterNode(list.head, list.tail, list.head), list.node(0));
    EXPECT_EQ(listGetDataRemoveNodeAfterNode(list.head, list.tail, list.node(0)), list.node(1));
    EXPECT_EQ(listGetDataRemoveNodeAfterNode(list.head, list.tail, list.node(1)), nullptr);
    EXPECT_EQ(listGetDataRemoveNodeAfterNode(list.head, list.tail, list.tail), nullptr);
    EXPECT_THAT(list.data(), ElementsAre(A, B));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, GetAfter_WhenTheListIsCutThere_GivesNothing)
{
    const List list({A, B});
    ListNode* const cut = std::exchange(list.node(0)->next, nullptr);
    EXPECT_EQ(listGetDataRemoveNodeAfterNode(list.head, list.tail, list.node(0)), nullptr);
    EXPECT_EQ(listGetDataAfterNode(list.head, list.tail, list.node(0)), nullptr);
    list.node(0)->next = cut;
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, GetBefore_WhenThereIsNoPredecessor_GivesNothing)
{
    const List list({A, B});
    ListNode* const cut = std::exchange(list.node(1)->prev, nullptr);
    EXPECT_EQ(listGetNodeBeforeNode(list.head, list.tail, list.node(1)), nullptr);
    EXPECT_EQ(listGetDataRemoveNodeBeforeNode(list.head, list.tail, list.node(1)), nullptr);
    list.node(1)->prev = cut;
    EXPECT_THAT(list.data(), ElementsAre(A, B));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, GetDataRemoveNodeBefore_WhenThereIsAPredecessor_RemovesItAndGivesItsData)
{
    const List list({A, B, C});
    ListNode* const middle = list.node(1);
    const Heap heap;
    EXPECT_EQ(listGetDataRemoveNodeBeforeNode(list.head, list.tail, list.node(2)), B);
    EXPECT_THAT(list.data(), ElementsAre(A, C));
    EXPECT_THAT(heap.released, ElementsAre(middle));
    EXPECT_EQ(listGetDataRemoveNodeBeforeNode(list.head, list.tail, list.tail), C);
    EXPECT_EQ(listGetDataRemoveNodeBeforeNode(list.head, list.tail, list.tail), A);
    EXPECT_THAT(list.data(), IsEmpty());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, GetDataRemoveNodeBefore_WhenTheHeadIsInFront_GivesNothing)
{
    const List list({A});
    EXPECT_EQ(listGetDataRemoveNodeBeforeNode(list.head, list.tail, list.node(0)), nullptr);
    EXPECT_EQ(listGetDataRemoveNodeBeforeNode(list.head, list.tail, list.head), nullptr);
    EXPECT_THAT(list.data(), ElementsAre(A));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, GetDataRemoveNodeBefore_WhenThePredecessorHasNone_ReportsItAndRemovesIt)
{
    const List list({A, B});
    ListNode* const second = list.node(1);
    ListNode* const first = list.node(0);
    first->prev = nullptr;
    const Heap heap;
    EXPECT_EQ(listGetDataRemoveNodeBeforeNode(list.head, list.tail, second), A);
    EXPECT_THAT(heap.released, ElementsAre(first));
    EXPECT_EQ(second->prev, nullptr);
    list.head->next = second;
    second->prev = list.head;
    EXPECT_THAT(takeMessages(), ElementsAre("E t->prev is NULL"));
}

/* ---- Delete ---------------------------------------------------------------------------------- */

TEST_F(ListsTest, Delete_WhenASentinelIsNull_ReportsItFirst)
{
    const List list({A});
    EXPECT_EQ(listDeleteNode(nullptr, list.tail, nullptr), 0);
    EXPECT_EQ(listDeleteNode(list.head, nullptr, list.head), 0);
    EXPECT_THAT(takeMessages(),
                ElementsAre(noSentinels(nullptr, list.tail), noSentinels(list.head, nullptr)));
    EXPECT_THAT(list.data(), ElementsAre(A));
}

TEST_F(ListsTest, Delete_WhenTheNodeIsASentinel_ReportsIt)
{
    const List list({A});
    EXPECT_EQ(listDeleteNode(list.head, list.tail, list.head), 0);
    EXPECT_EQ(listDeleteNode(list.head, list.tail, list.tail), 0);
    const std::string sentinels =
        "] is pHead[" + shown(list.head) + "] or pTail[" + shown(list.tail) + "]";
    EXPECT_THAT(takeMessages(), ElementsAre("E ERROR : pNode[" + shown(list.head) + sentinels,
                                            "E ERROR : pNode[" + shown(list.tail) + sentinels));
    EXPECT_THAT(list.data(), ElementsAre(A));
}

TEST_F(ListsTest, Delete_WhenASentinelHasNoNeighbour_SaysThatItIsASentinel)
{
    const List list;
    list.head->prev = nullptr;
    EXPECT_EQ(listDeleteNode(list.head, list.tail, list.head), 0);
    list.head->prev = list.head;
    EXPECT_THAT(takeMessages(),
                ElementsAre("E ERROR : pNode[" + shown(list.head) + "] is pHead[" +
                            shown(list.head) + "] or pTail[" + shown(list.tail) + "]"));
}

TEST_F(ListsTest, Delete_WhenTheNodeIsNull_ReportsIt)
{
    const List list;
    EXPECT_EQ(listDeleteNode(list.head, list.tail, nullptr), 0);
    EXPECT_THAT(takeMessages(), ElementsAre("E ERROR : pNode is NULL"));
}

TEST_F(ListsTest, Delete_WhenANeighbourIsMissing_ReportsBothBeforeItLooksWhoseTheNodeIs)
{
    const List list;
    ListNode other{};
    ListNode node{};
    const auto report = [](const ListNode* next, const ListNode* prev) {
        return "E ERROR : pNode->next[" + shown(next) + "], pNode->prev[" + shown(prev) +
               "] is NULL";
    };
    EXPECT_EQ(listDeleteNode(list.head, list.tail, &node), 0);
    node.next = &other;
    EXPECT_EQ(listDeleteNode(list.head, list.tail, &node), 0);
    node.next = nullptr;
    node.prev = &other;
    EXPECT_EQ(listDeleteNode(list.head, list.tail, &node), 0);
    EXPECT_THAT(takeMessages(), ElementsAre(report(nullptr, nullptr), report(&other, nullptr),
                                            report(nullptr, &other)));
}

TEST_F(ListsTest, Delete_WhenTheNodeIsOfAnotherList_ReportsItAndReleasesNothing)
{
    const List list({A});
    const List other({B});
    const Heap heap;
    EXPECT_EQ(listDeleteNode(list.head, list.tail, other.node(0)), 0);
    EXPECT_EQ(listDeleteNode(list.head, list.tail, other.head), 0);
    EXPECT_THAT(heap.released, IsEmpty());
    EXPECT_THAT(other.data(), ElementsAre(B));
    EXPECT_THAT(takeMessages(), ElementsAre(noMember(other.node(0)), noMember(other.head)));
}

TEST_F(ListsTest, Delete_WhenTheNodeIsInTheList_ReleasesItAndNotItsData)
{
    void* const item = iAP2_malloc(1);
    const List list({A, item, B});
    ListNode* const node = list.node(1);
    {
        const Heap heap;
        EXPECT_EQ(listDeleteNode(list.head, list.tail, node), 1);
        EXPECT_THAT(heap.released, ElementsAre(node));
    }
    EXPECT_THAT(list.data(), ElementsAre(A, B));
    EXPECT_EQ(listDeleteNode(list.head, list.tail, list.node(1)), 1);
    EXPECT_EQ(listDeleteNode(list.head, list.tail, list.node(0)), 1);
    EXPECT_THAT(list.data(), IsEmpty());
    iAP2_free(item);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- By data --------------------------------------------------------------------------------- */

TEST_F(ListsTest, Find_WhenASentinelOrTheDataIsNull_ReportsItInThatOrder)
{
    const List list({nullptr});
    EXPECT_EQ(listFindNodeWithData(nullptr, list.tail, nullptr), nullptr);
    EXPECT_EQ(listFindNodeWithData(list.head, nullptr, A), nullptr);
    EXPECT_EQ(listFindNodeWithData(list.head, list.tail, nullptr), nullptr);
    EXPECT_THAT(takeMessages(),
                ElementsAre(noSentinels(nullptr, list.tail), noSentinels(list.head, nullptr),
                            "E ERROR : pData is NULL"));
}

TEST_F(ListsTest, Find_WhenThereAreSeveral_GivesTheOneNearerTheHead)
{
    const List list({A, B, A, B});
    EXPECT_EQ(listFindNodeWithData(list.head, list.tail, A), list.node(0));
    EXPECT_EQ(listFindNodeWithData(list.head, list.tail, B), list.node(1));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, Find_WhenThereIsNone_GivesNothingWithoutAReport)
{
    const List list({A, B});
    list.tail->data = C; // the tail is no element
    list.head->data = C;
    EXPECT_EQ(listFindNodeWithData(list.head, list.tail, C), nullptr);
    list.tail->data = nullptr;
    list.head->data = nullptr;
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, Find_WhenTheDataIsBehindACut_GivesNothing)
{
    const List list({A, B});
    ListNode* const cut = std::exchange(list.node(0)->next, nullptr);
    EXPECT_EQ(listFindNodeWithData(list.head, list.tail, B), nullptr);
    list.node(0)->next = cut;
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, DeleteWithData_WhenASentinelOrTheDataIsNull_ReportsItInThatOrder)
{
    const List list({nullptr});
    EXPECT_EQ(listDeleteNodeWithData(nullptr, list.tail, nullptr), 0);
    EXPECT_EQ(listDeleteNodeWithData(list.head, nullptr, A), 0);
    EXPECT_EQ(listDeleteNodeWithData(list.head, list.tail, nullptr), 0);
    EXPECT_THAT(takeMessages(),
                ElementsAre(noSentinels(nullptr, list.tail), noSentinels(list.head, nullptr),
                            "E ERROR : pData is NULL"));
    EXPECT_THAT(list.data(), ElementsAre(nullptr));
}

TEST_F(ListsTest, DeleteWithData_WhenThereAreSeveral_RemovesTheOneNearerTheHead)
{
    void* const item = iAP2_malloc(1);
    const List list({A, item, B, item});
    ListNode* const first = list.node(1);
    {
        const Heap heap;
        EXPECT_EQ(listDeleteNodeWithData(list.head, list.tail, item), 1);
        EXPECT_THAT(heap.released, ElementsAre(first)); // and not the data
    }
    EXPECT_THAT(list.data(), ElementsAre(A, B, item));
    EXPECT_EQ(listDeleteNodeWithData(list.head, list.tail, item), 1);
    EXPECT_THAT(list.data(), ElementsAre(A, B));
    iAP2_free(item);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, DeleteWithData_WhenThereIsNone_Returns0WithoutAReport)
{
    const List list({A});
    EXPECT_EQ(listDeleteNodeWithData(list.head, list.tail, B), 0);
    EXPECT_THAT(list.data(), ElementsAre(A));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, DeleteWithData_WhenNeighboursAreMissing_ReportsThemAndRemovesTheNode)
{
    const List list({A});
    ListNode* const node = list.node(0);
    node->prev = nullptr;
    {
        const Heap heap;
        EXPECT_EQ(listDeleteNodeWithData(list.head, list.tail, A), 1);
        EXPECT_THAT(heap.released, ElementsAre(node));
    }
    EXPECT_EQ(list.tail->prev, nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre("E s->prev is NULL"));

    list.head->next = list.tail;
    list.tail->prev = list.head;
    EXPECT_EQ(listInsertDataAfterNode(list.head, list.tail, A, list.head), 1);
    list.node(0)->next = nullptr;
    EXPECT_EQ(listDeleteNodeWithData(list.head, list.tail, A), 1);
    EXPECT_EQ(list.head->next, nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre("E s->next is NULL"));

    list.head->next = list.tail;
    list.tail->prev = list.head;
    EXPECT_EQ(listInsertDataAfterNode(list.head, list.tail, A, list.head), 1);
    list.node(0)->prev = nullptr;
    list.node(0)->next = nullptr;
    EXPECT_EQ(listDeleteNodeWithData(list.head, list.tail, A), 1);
    EXPECT_THAT(takeMessages(), ElementsAre("E s->prev is NULL", "E s->next is NULL"));
    list.head->next = list.tail;
    list.tail->prev = list.head;
}

/* ---- Count ----------------------------------------------------------------------------------- */

TEST_F(ListsTest, Count_WhenASentinelIsNull_ReportsItAndIs0)
{
    const List list({A});
    for (const auto count : {listGetNodeCount, queueGetCount})
    {
        EXPECT_EQ(count(nullptr, list.tail), 0U);
        EXPECT_EQ(count(list.head, nullptr), 0U);
        EXPECT_THAT(takeMessages(),
                    ElementsAre(noSentinels(nullptr, list.tail), noSentinels(list.head, nullptr)));
    }
}

TEST_F(ListsTest, Count_Always_IsTheNumberOfElements)
{
    const List list;
    for (std::uint32_t number = 0; number < 100; ++number)
    {
        EXPECT_EQ(listGetNodeCount(list.head, list.tail), number);
        EXPECT_EQ(queueGetCount(list.head, list.tail), number);
        EXPECT_EQ(queuePut(list.head, list.tail, nullptr), 1);
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, Count_WhenTheListIsCutShort_EndsThere)
{
    const List list({A, B, C});
    ListNode* const cut = std::exchange(list.node(1)->next, nullptr);
    EXPECT_EQ(listGetNodeCount(list.head, list.tail), 2U);
    list.node(1)->next = cut;
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- Queue ----------------------------------------------------------------------------------- */

TEST_F(ListsTest, Queue_WhenItemsArePut_GivesThemInTheOrderOfTheirArrival)
{
    const List queue;
    EXPECT_EQ(queueGet(queue.head, queue.tail), nullptr);
    EXPECT_EQ(queuePut(queue.head, queue.tail, A), 1);
    EXPECT_EQ(queuePut(queue.head, queue.tail, B), 1);
    EXPECT_EQ(queuePut(queue.head, queue.tail, C), 1);
    EXPECT_THAT(queue.data(), ElementsAre(C, B, A)); // in at the front, out at the back
    EXPECT_EQ(queueGet(queue.head, queue.tail), A);
    EXPECT_EQ(queueGet(queue.head, queue.tail), B);
    EXPECT_EQ(queueGet(queue.head, queue.tail), C);
    EXPECT_EQ(queueGet(queue.head, queue.tail), nullptr);
    EXPECT_THAT(queue.data(), IsEmpty());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListsTest, QueueGet_WhenAnItemIsTaken_ReleasesItsNode)
{
    const List queue({A});
    ListNode* const node = queue.node(0);
    const Heap heap;
    EXPECT_EQ(queueGet(queue.head, queue.tail), A);
    EXPECT_THAT(heap.released, ElementsAre(node));
}

TEST_F(ListsTest, QueueGet_Always_WalksNowhere)
{
    const List queue({A, B, C});
    // Whoever walked the list would follow this.
    ListNode* const node = queue.node(0);
    ListNode* const next = std::exchange(node->next, reinterpret_cast<ListNode*>(1));
    EXPECT_EQ(queueGet(queue.head, queue.tail), C);
    node->next = next;
    EXPECT_THAT(queue.data(), ElementsAre(A, B));
}

TEST_F(ListsTest, QueuePut_WhenMemoryIsShort_ReportsItAndReturns0)
{
    const List queue;
    Heap heap;
    heap.failFrom = 1;
    EXPECT_EQ(queuePut(queue.head, queue.tail, A), 0);
    EXPECT_THAT(takeMessages(), ElementsAre(kNoMemory, "E ERROR : out of memory"));
    EXPECT_THAT(queue.data(), IsEmpty());
}

TEST_F(ListsTest, Queue_WhenASentinelIsNull_ReportsIt)
{
    const List queue;
    EXPECT_EQ(queuePut(nullptr, queue.tail, A), 0);
    EXPECT_EQ(queuePut(queue.head, nullptr, A), 0);
    EXPECT_EQ(queueGet(nullptr, queue.tail), nullptr);
    EXPECT_EQ(queueGet(queue.head, nullptr), nullptr);
    EXPECT_THAT(takeMessages(),
                ElementsAre(noSentinels(nullptr, queue.tail), noSentinels(queue.head, nullptr),
                            noSentinels(nullptr, queue.tail), noSentinels(queue.head, nullptr)));
}

/* ---- Silence --------------------------------------------------------------------------------- */

TEST_F(ListsTest, Results_WhenReportsAreSilenced_AreTheSame)
{
    const List list({A});
    setLogLevel(IAP2_LOG_ERROR + 1);
    errno = 5;
    EXPECT_EQ(listDeleteNode(list.head, list.tail, list.head), 0);
    EXPECT_EQ(listGetNodeCount(nullptr, list.tail), 0U);
    EXPECT_EQ(errno, 5);
    listFinalNode(nullptr, nullptr, false);
    EXPECT_EQ(errno, 0);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- Model ----------------------------------------------------------------------------------- */

/** A list beside a std::list that is treated alike. */
class Model
{
public:
    explicit Model(std::uint32_t seed) : mRandom(seed)
    {
    }

    void step()
    {
        const Position at = anyPosition();
        void* const data = &mItems[below(kItems)];
        switch (below(10))
        {
        case 0:
        {
            const bool possible = at.node != mList.head;
            EXPECT_EQ(listInsertDataBeforeNode(mList.head, mList.tail, data, at.node), possible);
            if (possible)
            {
                mModel.insert(at.element, data);
            }
            break;
        }
        case 1:
        {
            const bool possible = at.node != mList.tail;
            EXPECT_EQ(listInsertDataAfterNode(mList.head, mList.tail, data, at.node), possible);
            if (possible)
            {
                mModel.insert(at.node == mList.head ? mModel.begin() : std::next(at.element), data);
            }
            break;
        }
        case 2:
        {
            const bool possible = at.node != mList.head && at.node != mList.tail;
            EXPECT_EQ(listDeleteNode(mList.head, mList.tail, at.node), possible);
            if (possible)
            {
                mModel.erase(at.element);
            }
            mReports += possible ? 0 : 1;
            break;
        }
        case 3:
        {
            const auto found = std::find(mModel.begin(), mModel.end(), data);
            EXPECT_EQ(listDeleteNodeWithData(mList.head, mList.tail, data), found != mModel.end());
            if (found != mModel.end())
            {
                mModel.erase(found);
            }
            break;
        }
        case 4:
        {
            const auto found = std::find(mModel.begin(), mModel.end(), data);
            const auto index = static_cast<std::size_t>(std::distance(mModel.begin(), found));
            EXPECT_EQ(listFindNodeWithData(mList.head, mList.tail, data),
                      found != mModel.end() ? mList.node(index) : nullptr);
            break;
        }
        case 5:
        {
            const bool possible = at.node != mList.head && at.element != mModel.begin();
            EXPECT_EQ(listGetNodeBeforeNode(mList.head, mList.tail, at.node),
                      possible ? at.node->prev : nullptr);
            EXPECT_EQ(listGetDataRemoveNodeBeforeNode(mList.head, mList.tail, at.node),
                      possible ? *std::prev(at.element) : nullptr);
            if (possible)
            {
                mModel.erase(std::prev(at.element));
            }
            break;
        }
        case 6:
        {
            const auto after = at.node == mList.head   ? mModel.begin()
                               : at.node == mList.tail ? mModel.end()
                                                       : std::next(at.element);
            EXPECT_EQ(listGetDataAfterNode(mList.head, mList.tail, at.node),
                      after != mModel.end() ? *after : nullptr);
            EXPECT_EQ(listGetDataRemoveNodeAfterNode(mList.head, mList.tail, at.node),
                      after != mModel.end() ? at.node->next : nullptr);
            break;
        }
        case 7:
            EXPECT_EQ(queuePut(mList.head, mList.tail, data), 1);
            mModel.push_front(data);
            break;
        case 8:
            EXPECT_EQ(queueGet(mList.head, mList.tail), mModel.empty() ? nullptr : mModel.back());
            if (!mModel.empty())
            {
                mModel.pop_back();
            }
            break;
        default:
            if (below(50) == 0)
            {
                listClearAllNode(mList.head, mList.tail, false);
                mModel.clear();
            }
            break;
        }
        EXPECT_EQ(listGetNodeCount(mList.head, mList.tail), mModel.size());
        EXPECT_THAT(mList.data(), testing::ElementsAreArray(mModel));
    }

    std::size_t reports() const
    {
        return mReports;
    }

private:
    static constexpr std::uint32_t kItems = 12;

    struct Position
    {
        ListNode* node;
        std::list<void*>::iterator element; // end() for both sentinels
    };

    std::uint32_t below(std::uint32_t limit)
    {
        return std::uniform_int_distribution<std::uint32_t>(0, limit - 1)(mRandom);
    }

    Position anyPosition()
    {
        const auto index = below(static_cast<std::uint32_t>(mModel.size()) + 2);
        if (index > mModel.size())
        {
            return {mList.head, mModel.end()};
        }
        return {mList.node(index), std::next(mModel.begin(), index)};
    }

    std::minstd_rand mRandom;
    List mList;
    std::list<void*> mModel;
    int mItems[kItems] = {};
    std::size_t mReports = 0;
};

TEST_F(ListsTest, AnyOperations_ComparedWithAModel_DoTheSame)
{
    Model model(20261121);
    for (int step = 0; step < 6000 && !HasFailure(); ++step)
    {
        SCOPED_TRACE(step);
        model.step();
    }
    EXPECT_EQ(takeMessages().size(), model.reports());
}

} // namespace
