/**
 * Which locks of a handler are taken while which others are held.
 *
 *     table ──> one of the box's two ──> that one's list
 *
 * Nobody holds both of the box's, and senders stay away from the table: a delegate that blocks, or
 * sends, blocks nobody but who registers.
 */
#include <korvane/iAP2MsgHandler.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <pthread.h>
#include <time.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "Faults.h"
#include "TraceRecorder.h"
#include "UTILS/handlerSenders.h"

namespace
{

using support::Hooks;
using support::ScopedHook;
using support::Sender;
using testing::ElementsAre;
using testing::IsSubsetOf;
using testing::UnorderedElementsAre;

using Delegate = IAP2Delegate<void, iAP2MsgData*>;
using Chains = std::set<std::string>;

iAP2MsgData event(std::int32_t id)
{
    return {id, 0, 0, 0, nullptr, nullptr, nullptr};
}

/** What to call the mutexes of the handler that is made in this object's life. */
class MutexNames
{
public:
    MutexNames()
        : mHook(&Hooks::mutexInit,
                [this](pthread_mutex_t* mutex, const pthread_mutexattr_t* how)
                {
                    static const char* const names[] = {"state", "list", "syncList", "box",
                                                        "boxSync"};
                    const std::size_t number = mNames.size();
                    mNames[mutex] = number < std::size(names) ? names[number] : "unexpected";
                    return support::real::mutexInit(mutex, how);
                })
    {
    }

    /** The handler's own memory; the one mutex in there needs no initialisation. */
    void setObject(const iAP2MsgHandler& handler)
    {
        mBegin = reinterpret_cast<std::uintptr_t>(&handler);
    }

    /** Empty for mutexes of others. */
    std::string of(const pthread_mutex_t* mutex) const
    {
        const auto address = reinterpret_cast<std::uintptr_t>(mutex);
        if (address >= mBegin && address < mBegin + sizeof(iAP2MsgHandler))
        {
            return "table";
        }
        const auto found = mNames.find(mutex);
        return found != mNames.end() ? found->second : std::string();
    }

private:
    std::uintptr_t mBegin = 0;
    std::map<const pthread_mutex_t*, std::string> mNames;
    ScopedHook<decltype(Hooks::mutexInit)> mHook;
};

/**
 * Every lock that the calling thread takes in this object's life, behind those that it holds then:
 * "table > box". A wait ends at once, as if woken spuriously.
 */
class LockWatch
{
public:
    explicit LockWatch(const MutexNames& names) : mNames(names)
    {
    }
    ~LockWatch()
    {
        EXPECT_THAT(mHeld, testing::IsEmpty());
    }
    LockWatch(const LockWatch&) = delete;
    LockWatch& operator=(const LockWatch&) = delete;

    Chains chains;
    std::vector<std::string> inOrder;

private:
    int taken(const pthread_mutex_t* mutex, int result)
    {
        const std::string name = mNames.of(mutex);
        if (!name.empty() && result == 0)
        {
            mHeld.push_back(name);
            std::string chain;
            for (const std::string& held : mHeld)
            {
                chain += chain.empty() ? held : " > " + held;
            }
            chains.insert(chain);
            inOrder.push_back(chain);
        }
        return result;
    }
    void released(const pthread_mutex_t* mutex)
    {
        const auto held = std::find(mHeld.rbegin(), mHeld.rend(), mNames.of(mutex));
        if (held != mHeld.rend())
        {
            mHeld.erase(std::prev(held.base()));
        }
    }

    const MutexNames& mNames;
    std::vector<std::string> mHeld;
    ScopedHook<decltype(Hooks::mutexLock)> mLock{
        &Hooks::mutexLock,
        [this](pthread_mutex_t* mutex) { return taken(mutex, support::real::mutexLock(mutex)); }};
    ScopedHook<decltype(Hooks::mutexTrylock)> mTrylock{
        &Hooks::mutexTrylock, [this](pthread_mutex_t* mutex)
        { return taken(mutex, support::real::mutexTrylock(mutex)); }};
    ScopedHook<decltype(Hooks::mutexTimedlock)> mTimedlock{
        &Hooks::mutexTimedlock, [this](pthread_mutex_t* mutex, const timespec* deadline)
        { return taken(mutex, support::real::mutexTimedlock(mutex, deadline)); }};
    ScopedHook<decltype(Hooks::mutexUnlock)> mUnlock{&Hooks::mutexUnlock,
                                                     [this](pthread_mutex_t* mutex)
                                                     {
                                                         released(mutex);
                                                         return support::real::mutexUnlock(mutex);
                                                     }};
    ScopedHook<decltype(Hooks::condWait)> mWait{
        &Hooks::condWait, [](pthread_cond_t*, pthread_mutex_t*) { return 0; }};
};

/** A handler that watches the locks of its own thread. */
class WatchedHandler : public iAP2MsgHandler
{
public:
    explicit WatchedHandler(const MutexNames& names) : mNames(names)
    {
    }
    void run() override
    {
        LockWatch watch(mNames);
        iAP2MsgHandler::run();
        chains = watch.chains;
    }

    Chains chains; // read when the thread has been joined

private:
    const MutexNames& mNames;
};

class LockOrderTest : public support::TraceTest
{
protected:
    LockOrderTest() : mHandler(std::make_unique<WatchedHandler>(mNames))
    {
        setLogLevel(200);
        mNames.setObject(*mHandler);
        mHandler->registerEventTable(1, "nothing", new Delegate([](iAP2MsgData*) {}));
        mHandler->registerEventTable(2, "sends",
                                     new Delegate([this](iAP2MsgData*) { mHandler->sendMsgV(1); }));
    }

    template <typename Call> Chains chainsOf(Call call)
    {
        LockWatch watch(mNames);
        call();
        return watch.chains;
    }

    MutexNames mNames;
    std::unique_ptr<WatchedHandler> mHandler;
};

TEST_F(LockOrderTest, RegisterEventTable_InBothForms_TakesTheTable)
{
    LockWatch watch(mNames);
    mHandler->registerEventTable(3, "A", nullptr);
    EXPECT_THAT(watch.inOrder, ElementsAre("table"));
    mHandler->registerEventTable(EventTable(4, "B", nullptr));
    EXPECT_THAT(watch.inOrder, ElementsAre("table", "table"));
}

TEST_F(LockOrderTest, SendMsg_WhenTheMailboxIsFull_TakesTheListInsideTheBox)
{
    const Chains chains = chainsOf(
        [this]
        {
            for (int i = 0; i < 101; ++i)
            {
                mHandler->sendMsgV(1);
            }
        });
    EXPECT_THAT(chains, UnorderedElementsAre("box", "box > list"));
}

TEST_F(LockOrderTest, SendMsgSync_Always_NeverHoldsBothOfTheBox)
{
    const Chains chains = chainsOf([this] { mHandler->sendMsgSyncV(1); });
    EXPECT_THAT(chains, UnorderedElementsAre("box", "box > list", "boxSync", "boxSync > syncList"));
}

TEST_F(LockOrderTest, RecvMsg_WhenARecordIsThere_TakesTheListInsideTheBox)
{
    mHandler->sendMsgV(1);
    iAP2MsgData out{};
    const Chains chains = chainsOf([&] { mHandler->recvMsg(&out); });
    EXPECT_EQ(out.evtID, 1);
    EXPECT_THAT(chains, UnorderedElementsAre("box", "box > list"));
}

TEST_F(LockOrderTest, RecvMsgSync_WhetherARecordIsThereOrNot_TakesTheListInsideTheBox)
{
    const ScopedHook pause(&Hooks::usleep, [](useconds_t) { return 0; });
    iAP2MsgData out = event(-1);
    EXPECT_THAT(chainsOf([&] { mHandler->recvMsgSync(&out); }),
                UnorderedElementsAre("boxSync", "boxSync > syncList"));
    EXPECT_EQ(out.evtID, -1);
    chainsOf([this] { mHandler->sendMsgSyncV(1); });
    EXPECT_THAT(chainsOf([&] { mHandler->recvMsgSync(&out); }),
                UnorderedElementsAre("boxSync", "boxSync > syncList"));
    EXPECT_EQ(out.evtID, 1);
}

TEST_F(LockOrderTest, ExeMsg_WhenTheDelegateSends_TakesTheBoxInsideTheTable)
{
    iAP2MsgData data = event(2);
    EXPECT_THAT(chainsOf([&] { mHandler->exeMsg(&data); }),
                UnorderedElementsAre("table", "table > box", "table > box > list"));
}

TEST_F(LockOrderTest, ExeMsg_WhenTheEventIsUnknown_TakesTheTable)
{
    iAP2MsgData data = event(99);
    EXPECT_THAT(chainsOf([&] { mHandler->exeMsg(&data); }), UnorderedElementsAre("table"));
    EXPECT_THAT(chainsOf([&] { mHandler->exeMsgSync(&data); }), UnorderedElementsAre("table"));
}

TEST_F(LockOrderTest, ExeMsg_WhenADelegateRunsOutOfRange_TakesTheTableAgainToCountIt)
{
    mHandler->registerEventTable(
        3, "throws", new Delegate([](iAP2MsgData*) { throw std::out_of_range("too far"); }));
    iAP2MsgData data = event(3);
    LockWatch watch(mNames);
    mHandler->exeMsg(&data);
    EXPECT_THAT(watch.inOrder, ElementsAre("table", "table"));
}

TEST_F(LockOrderTest, ExeMsgSync_WhenTheDelegateHasRun_FinishesInsideTheTable)
{
    iAP2MsgData data = event(1);
    EXPECT_THAT(chainsOf([&] { mHandler->exeMsgSync(&data); }),
                UnorderedElementsAre("table", "table > boxSync"));
}

TEST_F(LockOrderTest, CallEventHandler_Always_LeavesTheTableToItsCaller)
{
    iAP2MsgData data = event(1);
    EXPECT_THAT(chainsOf([&] { mHandler->callEventHandler(0, &data); }), testing::IsEmpty());
    EXPECT_THAT(chainsOf([&] { mHandler->callEventHandlerSync(0, &data); }),
                UnorderedElementsAre("boxSync"));
}

TEST_F(LockOrderTest, Run_WhenEveryKindOfRecordComes_HoldsNothingWhileItReceives)
{
    chainsOf([this] { mHandler->sendMsgSyncV(1); });
    mHandler->sendMsgV(1);
    mHandler->sendMsgV(2);
    mHandler->sendMsgV(99);
    mHandler->sendMsgV(EVT_LINKLOOP_EXIT);
    const ScopedHook noName(&Hooks::threadSetname, [](pthread_t, const char*) { return 0; });
    ASSERT_EQ(mHandler->start(), iAP2Thread::Success);
    ASSERT_EQ(mHandler->join(), iAP2Thread::Success);
    EXPECT_THAT(mHandler->chains,
                UnorderedElementsAre("state", "box", "box > list", "boxSync", "boxSync > syncList",
                                     "table", "table > boxSync", "table > box",
                                     "table > box > list"));
}

TEST_F(LockOrderTest, Destroy_WhenRecordsAreLeft_TakesOneAfterTheOther)
{
    mHandler->sendMsgV(1);
    EXPECT_THAT(chainsOf([this] { mHandler.reset(); }),
                UnorderedElementsAre("box", "box > list", "state", "table", "list", "syncList"));
}

class EachSenderLocks : public LockOrderTest, public testing::WithParamInterface<Sender>
{
};

INSTANTIATE_TEST_SUITE_P(Asynchronous, EachSenderLocks,
                         testing::ValuesIn(support::kAsynchronousSenders),
                         [](const testing::TestParamInfo<Sender>& tested)
                         { return std::string(tested.param.name); });
INSTANTIATE_TEST_SUITE_P(Synchronous, EachSenderLocks,
                         testing::ValuesIn(support::kSynchronousSenders),
                         [](const testing::TestParamInfo<Sender>& tested)
                         { return std::string(tested.param.name); });

TEST_P(EachSenderLocks, Send_Always_StaysAwayFromTheTable)
{
    const Chains chains = chainsOf([this] { GetParam().send(*mHandler); });
    EXPECT_THAT(chains, testing::IsSupersetOf({"box", "box > list"}));
    EXPECT_THAT(chains, IsSubsetOf({"box", "box > list", "boxSync", "boxSync > syncList"}));
}

} // namespace
