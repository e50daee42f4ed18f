#include <korvane/iAP2ListImpl.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Faults.h"
#include "TraceRecorder.h"

namespace
{

using support::columnsOf;
using support::Hooks;
using support::ScopedHook;
using support::takeMessages;
using support::takeTraces;
using support::Trace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(std::is_trivial<iAP2MsgData>::value, "copied bit for bit, without a constructor");
static_assert(std::is_standard_layout<iAP2MsgData>::value, "fields in their order");
static_assert(sizeof(void*) != 8 || sizeof(iAP2MsgData) == 40, "boxes return this size");
static_assert(offsetof(iAP2MsgData, evtID) == 0 && offsetof(iAP2MsgData, dParam1) == 4 &&
                  offsetof(iAP2MsgData, dParam2) == 8 && offsetof(iAP2MsgData, dParam3) == 12 &&
                  offsetof(iAP2MsgData, pParam1) == 16,
              "fields in their order");
static_assert(std::is_same<decltype(iAP2MsgData::evtID), std::int32_t>::value, "signed");
static_assert(EVT_SEND_SYNC_MSG == 9998 && EVT_LINKLOOP_EXIT == 9999, "the reserved events");
static_assert(std::has_virtual_destructor<iAP2List<iAP2MsgData>>::value, "deleted by its base");
static_assert(!std::is_copy_constructible<iAP2List<iAP2MsgData>>::value, "a list has one lock");

const char* const kEmpty = "E dequeue: reject, list empty";

iAP2MsgData event(std::int32_t id)
{
    return {id, 0, 0, 0, nullptr, nullptr, nullptr};
}

bool isSame(const iAP2MsgData& left, const iAP2MsgData& right)
{
    return std::memcmp(&left, &right, sizeof left) == 0;
}

/** What the calling thread does with the mutex that is initialised first in this object's life. */
class LockWatch
{
public:
    LockWatch()
    {
        mCalls.reserve(16); // noting a call allocates nothing, since memory may be short then
    }
    std::vector<std::string> take()
    {
        std::vector<std::string> calls(mCalls.begin(), mCalls.end());
        mCalls.clear();
        return calls;
    }
    pthread_mutex_t* mutex() const
    {
        return mMutex;
    }

private:
    int note(const char* call, const pthread_mutex_t* mutex, int result)
    {
        if (mutex == mMutex)
        {
            mCalls.push_back(call);
        }
        return result;
    }

    pthread_mutex_t* mMutex = nullptr;
    std::vector<const char*> mCalls;
    ScopedHook<decltype(Hooks::mutexInit)> mInit{
        &Hooks::mutexInit, [this](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
        {
            mMutex = mMutex == nullptr ? mutex : mMutex;
            return support::real::mutexInit(mutex, attributes);
        }};
    ScopedHook<decltype(Hooks::mutexLock)> mLock{&Hooks::mutexLock, [this](pthread_mutex_t* mutex) {
                                                     return note("lock", mutex,
                                                                 support::real::mutexLock(mutex));
                                                 }};
    ScopedHook<decltype(Hooks::mutexUnlock)> mUnlock{
        &Hooks::mutexUnlock, [this](pthread_mutex_t* mutex)
        { return note("unlock", mutex, support::real::mutexUnlock(mutex)); }};
    ScopedHook<decltype(Hooks::mutexDestroy)> mDestroy{
        &Hooks::mutexDestroy, [this](pthread_mutex_t* mutex)
        { return note("destroy", mutex, support::real::mutexDestroy(mutex)); }};
};

using ListTest = support::TraceTest;

/* ---- Order and copies ------------------------------------------------------------------------ */

TEST_F(ListTest, Construct_Always_IsEmpty)
{
    iAP2List<iAP2MsgData> list;
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(list.size(), 0U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ListTest, Dequeue_WhenThreeWereEnqueued_ReturnsThemInTheirOrderThenRefuses)
{
    iAP2List<iAP2MsgData> list;
    for (const std::int32_t id : {1, 2, 3})
    {
        iAP2MsgData data = event(id);
        EXPECT_EQ(list.enqueue(&data), 0);
    }
    EXPECT_FALSE(list.isEmpty());
    EXPECT_EQ(list.size(), 3U);
    for (const std::int32_t id : {1, 2, 3})
    {
        iAP2MsgData data = event(0);
        EXPECT_EQ(list.dequeue(&data), 0);
        EXPECT_EQ(data.evtID, id);
        EXPECT_EQ(list.size(), static_cast<std::size_t>(3 - id));
    }
    EXPECT_TRUE(list.isEmpty());
    EXPECT_THAT(takeMessages(), IsEmpty());
    iAP2MsgData data = event(0);
    EXPECT_EQ(list.dequeue(&data), 1);
    EXPECT_THAT(takeMessages(), ElementsAre(kEmpty));
}

TEST_F(ListTest, Dequeue_WhenTheListIsFresh_ReportsItAndLeavesTheTargetAlone)
{
    iAP2List<iAP2MsgData> list;
    int pointee = 0;
    const iAP2MsgData before{-7, 1, 2, 3, &pointee, &list, nullptr};
    iAP2MsgData target = before;
    EXPECT_EQ(list.dequeue(&target), 1);
    EXPECT_TRUE(isSame(target, before));
    const std::vector<Trace> traces = takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(columnsOf(traces[0].text).letter, "E");
    EXPECT_EQ(columnsOf(traces[0].text).file, "iAP2ListImpl.h");
    EXPECT_EQ(columnsOf(traces[0].text).message, "dequeue: reject, list empty");
}

TEST_F(ListTest, Dequeue_AfterEnqueue_ReturnsAllSevenFields)
{
    iAP2List<iAP2MsgData> list;
    int pointees[3] = {};
    const iAP2MsgData sent{-2147483647 - 1, 0xFFFFFFFF,   0x80000000,  7,
                           &pointees[0],    &pointees[1], &pointees[2]};
    iAP2MsgData data = sent;
    list.enqueue(&data);
    data = event(5); // the list has a copy
    iAP2MsgData received = event(0);
    EXPECT_EQ(list.dequeue(&received), 0);
    EXPECT_EQ(received.evtID, sent.evtID);
    EXPECT_EQ(received.dParam1, sent.dParam1);
    EXPECT_EQ(received.dParam2, sent.dParam2);
    EXPECT_EQ(received.dParam3, sent.dParam3);
    EXPECT_EQ(received.pParam1, sent.pParam1);
    EXPECT_EQ(received.pParam2, sent.pParam2);
    EXPECT_EQ(received.pParam3, sent.pParam3);
}

TEST_F(ListTest, Enqueue_WhenTheListIsLong_HasNoLimit)
{
    constexpr std::int32_t kRecords = 10000;
    iAP2List<iAP2MsgData> list;
    for (std::int32_t id = 0; id < kRecords; ++id)
    {
        iAP2MsgData data = event(id);
        ASSERT_EQ(list.enqueue(&data), 0);
    }
    EXPECT_EQ(list.size(), static_cast<std::size_t>(kRecords));
    for (std::int32_t id = 0; id < kRecords; ++id)
    {
        iAP2MsgData data = event(-1);
        ASSERT_EQ(list.dequeue(&data), 0);
        ASSERT_EQ(data.evtID, id);
    }
}

TEST_F(ListTest, Operations_WhenMixed_KeepTheOrder)
{
    iAP2List<iAP2MsgData> list;
    std::vector<std::int32_t> received;
    const auto put = [&list](std::int32_t id)
    {
        iAP2MsgData data = event(id);
        list.enqueue(&data);
    };
    const auto get = [&]
    {
        iAP2MsgData data = event(-1);
        list.dequeue(&data);
        received.push_back(data.evtID);
    };
    put(1);
    put(2);
    get();
    put(3);
    get();
    get();
    put(4);
    get();
    EXPECT_THAT(received, ElementsAre(1, 2, 3, 4));
    EXPECT_TRUE(list.isEmpty());
}

/* ---- What pointers point to ------------------------------------------------------------------ */

TEST_F(ListTest, Destroy_WhenRecordsAreLeft_FreesThemButNothingTheyPointTo)
{
    const auto first = std::make_unique<std::string>("kept by its owner, behind one pointer");
    const auto second = std::make_unique<std::string>("and behind another one of a record");
    {
        iAP2List<iAP2MsgData> list;
        iAP2MsgData data{1, 0, 0, 0, first.get(), second.get(), nullptr};
        list.enqueue(&data);
        list.enqueue(&data);
    }
    EXPECT_EQ(*first, "kept by its owner, behind one pointer");
    EXPECT_EQ(*second, "and behind another one of a record");
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- The lock -------------------------------------------------------------------------------- */

TEST_F(ListTest, Operations_Always_WorkUnderTheListsLock)
{
    LockWatch watch;
    iAP2MsgData data = event(1);
    {
        iAP2List<iAP2MsgData> list;
        list.enqueue(&data);
        EXPECT_THAT(watch.take(), ElementsAre("lock", "unlock"));
        list.isEmpty();
        EXPECT_THAT(watch.take(), ElementsAre("lock", "unlock"));
        list.size();
        EXPECT_THAT(watch.take(), ElementsAre("lock", "unlock"));
        list.dequeue(&data);
        EXPECT_THAT(watch.take(), ElementsAre("lock", "unlock", "lock", "unlock"));
        list.dequeue(&data);
        EXPECT_THAT(watch.take(), ElementsAre("lock", "unlock"));
        list.enqueue(&data);
        watch.take();
    }
    EXPECT_THAT(watch.take(), ElementsAre("lock", "unlock", "destroy"));
}

TEST_F(ListTest, Dequeue_WhenTheLastRecordGoesBetweenItsTwoLocks_RefusesLikeAnEmptyList)
{
    iAP2List<iAP2MsgData> list;
    iAP2MsgData data = event(1);
    list.enqueue(&data);
    iAP2MsgData other = event(0);
    int result = 0;
    data = event(77);
    {
        // The rival comes after the list was found not to be empty.
        const ScopedHook rival(&Hooks::mutexUnlock,
                               [&, isFirst = true](pthread_mutex_t* mutex) mutable
                               {
                                   const int unlocked = support::real::mutexUnlock(mutex);
                                   if (std::exchange(isFirst, false))
                                   {
                                       EXPECT_EQ(list.dequeue(&other), 0);
                                   }
                                   return unlocked;
                               });
        result = list.dequeue(&data);
    }
    EXPECT_EQ(result, 1);
    EXPECT_EQ(other.evtID, 1);
    EXPECT_TRUE(isSame(data, event(77)));
    EXPECT_THAT(takeMessages(), ElementsAre(kEmpty));
}

TEST_F(ListTest, Operations_WhenManyThreadsEnqueue_KeepTheOrderOfEach)
{
    constexpr std::uint32_t kSenders = 4;
    constexpr std::uint32_t kRecords = 2000;
    iAP2List<iAP2MsgData> list;
    std::vector<std::thread> senders;
    for (std::uint32_t sender = 0; sender < kSenders; ++sender)
    {
        senders.emplace_back(
            [&list, sender]
            {
                for (std::uint32_t i = 0; i < kRecords; ++i)
                {
                    iAP2MsgData data{1, sender, i, 0, nullptr, nullptr, nullptr};
                    list.enqueue(&data);
                }
            });
    }
    std::vector<std::uint32_t> next(kSenders, 0);
    for (std::uint32_t received = 0; received < kSenders * kRecords;)
    {
        if (list.isEmpty())
        {
            std::this_thread::yield();
            continue;
        }
        iAP2MsgData data = event(0);
        ASSERT_EQ(list.dequeue(&data), 0); // nobody else removes
        ASSERT_LT(data.dParam1, kSenders);
        ASSERT_EQ(data.dParam2, next[data.dParam1]++);
        ++received;
    }
    for (std::thread& sender : senders)
    {
        sender.join();
    }
    EXPECT_TRUE(list.isEmpty());
}

/* ---- Memory ---------------------------------------------------------------------------------- */

TEST_F(ListTest, Enqueue_Always_AllocatesOneNode)
{
    iAP2List<iAP2MsgData> list;
    iAP2MsgData data = event(1);
    int allocations = 0;
    {
        const ScopedHook watch(&Hooks::operatorNew,
                               [&allocations](std::size_t size)
                               {
                                   ++allocations;
                                   return support::real::operatorNew(size);
                               });
        list.enqueue(&data);
        list.dequeue(&data);
    }
    EXPECT_EQ(allocations, 1);
}

TEST_F(ListTest, Enqueue_WhenMemoryIsShort_ThrowsWithTheLockHeldAndAddsNothing)
{
    LockWatch watch;
    iAP2List<iAP2MsgData> list;
    iAP2MsgData data = event(1);
    list.enqueue(&data);
    watch.take();
    bool isThrown = false;
    {
        const ScopedHook fault(&Hooks::operatorNew,
                               [](std::size_t) -> void* { throw std::bad_alloc(); });
        try
        {
            list.enqueue(&data);
        }
        catch (const std::bad_alloc&)
        {
            isThrown = true;
        }
    }
    EXPECT_TRUE(isThrown);
    EXPECT_THAT(watch.take(), ElementsAre("lock"));
    EXPECT_EQ(support::real::mutexTrylock(watch.mutex()), EBUSY);
    EXPECT_THAT(takeMessages(), IsEmpty());

    support::real::mutexUnlock(watch.mutex()); // so that the list can be looked at and destroyed
    EXPECT_EQ(list.size(), 1U);
}

/* ---- Other records --------------------------------------------------------------------------- */

struct Sample
{
    double value;
    char unit[5];
};

TEST_F(ListTest, Operations_WhenRecordsAreOfAnotherType_WorkAlike)
{
    iAP2List<Sample> list;
    Sample sample{1.5, "km/h"};
    EXPECT_EQ(list.enqueue(&sample), 0);
    sample = {-2.25, "degC"};
    EXPECT_EQ(list.enqueue(&sample), 0);
    EXPECT_EQ(list.size(), 2U);
    EXPECT_EQ(list.dequeue(&sample), 0);
    EXPECT_EQ(sample.value, 1.5);
    EXPECT_STREQ(sample.unit, "km/h");
    EXPECT_EQ(list.dequeue(&sample), 0);
    EXPECT_EQ(sample.value, -2.25);
    EXPECT_STREQ(sample.unit, "degC");
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(list.dequeue(&sample), 1);
    EXPECT_EQ(sample.value, -2.25);
    EXPECT_THAT(takeMessages(), ElementsAre(kEmpty));
}

TEST_F(ListTest, Operations_WhenRecordsAreNumbers_WorkAlike)
{
    iAP2List<int> list;
    for (int number : {3, 1, 2})
    {
        list.enqueue(&number);
    }
    std::vector<int> received;
    while (!list.isEmpty())
    {
        int number = 0;
        list.dequeue(&number);
        received.push_back(number);
    }
    EXPECT_THAT(received, ElementsAre(3, 1, 2));
}

} // namespace
