#include <korvane/iAP2MsgHandler.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "Faults.h"
#include "TraceRecorder.h"
#include "UTILS/handlerSenders.h"

// Records compare and print by their fields, in the namespace that the matchers look in.
static bool operator==(const iAP2MsgData& a, const iAP2MsgData& b)
{
    return a.evtID == b.evtID && a.dParam1 == b.dParam1 && a.dParam2 == b.dParam2 &&
           a.dParam3 == b.dParam3 && a.pParam1 == b.pParam1 && a.pParam2 == b.pParam2 &&
           a.pParam3 == b.pParam3;
}

static std::ostream& operator<<(std::ostream& out, const iAP2MsgData& data)
{
    return out << "{" << data.evtID << ", " << data.dParam1 << ", " << data.dParam2 << ", "
               << data.dParam3 << ", " << data.pParam1 << ", " << data.pParam2 << ", "
               << data.pParam3 << "}";
}

namespace
{

using support::Hooks;
using support::LineCounter;
using support::ScopedHook;
using support::Sender;
using support::takeMessages;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::KilledBySignal;
using testing::MatchesRegex;
using testing::SizeIs;

using Delegate = IAP2Delegate<void, iAP2MsgData*>;
using Ids = std::vector<std::int32_t>;

constexpr char kPosted[] = "D sendMessage: m_cond\\[0x[0-9a-f]+\\] signal send new message!!";
constexpr char kSenderWaits[] = "D sendMessageSync: m_condSync\\[0x[0-9a-f]+\\] Waiting...";
constexpr char kFinished[] = "D sendSyncFinishMessage: m_condSync\\[0x[0-9a-f]+\\] signal send!!";
/** The base's last word, about a thread that was joined before or never started. */
constexpr char kNothingToJoin[] = "E iAP2MsgHandler:~iAP2Thread:join() fail";

constexpr int kPauses = 101;
constexpr useconds_t kPause = 10000;

iAP2MsgData event(std::int32_t id)
{
    return {id, 0, 0, 0, nullptr, nullptr, nullptr};
}

/** The wait for the finish ends at once, as if woken spuriously. */
ScopedHook<decltype(Hooks::condWait)> wakeAtOnce()
{
    return ScopedHook<decltype(Hooks::condWait)>(
        &Hooks::condWait, [](pthread_cond_t*, pthread_mutex_t*) { return 0; });
}

void printTraces()
{
    support::onTrace([](const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); });
}

/** Says in the trace when it is freed. */
class TracedInvoker : public IAP2DelegateImpl<void, iAP2MsgData*>
{
public:
    explicit TracedInvoker(std::string name) : mName(std::move(name))
    {
    }
    ~TracedInvoker() override
    {
        logPrint(IAP2_LOG_INFO, "IAP2", "tests/invoker", 1, "%s freed", mName.c_str());
    }
    void invoke(iAP2MsgData* /*data*/) override
    {
        logPrint(IAP2_LOG_INFO, "IAP2", "tests/invoker", 1, "%s called", mName.c_str());
    }

private:
    std::string mName;
};

/** A handler whose thread sees its pauses counted, and does not make them. */
class PauseCountingHandler : public iAP2MsgHandler
{
public:
    void run() override
    {
        const ScopedHook hook(&Hooks::usleep,
                              [this](useconds_t pause)
                              {
                                  ++pauses;
                                  lastPause = pause;
                                  return 0;
                              });
        iAP2MsgHandler::run();
    }

    std::atomic<int> pauses{0};
    std::atomic<useconds_t> lastPause{0};
};

class MsgHandlerTest : public support::TraceTest
{
protected:
    /** A delegate that writes down the records it is called with. */
    Delegate* collect()
    {
        return new Delegate([this](iAP2MsgData* data) { mCalled.push_back(*data); });
    }
    Ids calledIds() const
    {
        Ids ids;
        for (const iAP2MsgData& data : mCalled)
        {
            ids.push_back(data.evtID);
        }
        return ids;
    }

    /** Lets the thread dispatch what is queued, and waits for its end. */
    static void endLoop(iAP2MsgHandler& handler)
    {
        handler.sendMsgV(EVT_LINKLOOP_EXIT);
        EXPECT_EQ(handler.join(), iAP2Thread::Success);
    }

    std::vector<iAP2MsgData> mCalled;

private:
    // A thread whose exit record is there before it starts may be gone before it can be named.
    ScopedHook<decltype(Hooks::threadSetname)> mNoName{&Hooks::threadSetname,
                                                       [](pthread_t, const char*) { return 0; }};
};

/* ---- EventTable ---- */

using EventTableTest = support::TraceTest;

TEST_F(EventTableTest, Life_WhenAnEntryIsCopied_IsTracedAndTheDelegateIsShared)
{
    const auto delegate = std::make_unique<Delegate>([](iAP2MsgData*) {});
    {
        const EventTable entry(7, "play", delegate.get());
        EXPECT_THAT(takeMessages(), ElementsAre("D EventTable(play)"));
        EXPECT_EQ(entry.mEvtID, 7U);
        EXPECT_EQ(entry.mEvtName, "play");
        EXPECT_EQ(entry.mDelegate, delegate.get());
        {
            const EventTable copy(entry);
            EXPECT_THAT(takeMessages(), ElementsAre("D EventTable(play) copy"));
            EXPECT_EQ(copy.mEvtID, 7U);
            EXPECT_EQ(copy.mEvtName, "play");
            EXPECT_EQ(copy.mDelegate, delegate.get());
        }
        EXPECT_THAT(takeMessages(), ElementsAre("D ~EventTable(play)"));
    }
    EXPECT_THAT(takeMessages(), ElementsAre("D ~EventTable(play)"));
    iAP2MsgData data = event(7);
    (*delegate)(&data); // nobody has freed it
}

/* ---- Delegates ---- */

int twice(int number)
{
    return 2 * number;
}

class Adder
{
public:
    int add(int number)
    {
        mSum += number;
        return mSum;
    }

private:
    int mSum = 100;
};

class Negation : public IAP2DelegateImpl<int, int>
{
public:
    explicit Negation(int& freed) : mFreed(freed)
    {
    }
    ~Negation() override
    {
        ++mFreed;
    }
    int invoke(int number) override
    {
        return -number;
    }

private:
    int& mFreed;
};

using Function = IAP2Delegate<int, int>;

static_assert(!std::is_copy_constructible<Function>::value, "it owns its invoker");
static_assert(!std::is_copy_assignable<Function>::value, "it owns its invoker");
static_assert(std::has_virtual_destructor<IAP2DelegateImpl<int, int>>::value, "freed by its base");
static_assert(std::is_abstract<IAP2DelegateImpl<int, int>>::value, "invoke is the invokers'");

TEST(DelegateTest, Invoke_WhenMadeFromAMethod_CallsItOnTheObject)
{
    Adder adder;
    const Function delegate(&adder, &Adder::add);
    EXPECT_EQ(delegate.mImpl->invoke(1), 101);
    EXPECT_EQ(delegate(2), 103);
    EXPECT_EQ(adder.add(0), 103);
}

TEST(DelegateTest, Invoke_WhenMadeFromAFunction_CallsIt)
{
    const Function delegate(twice);
    const Function fromPointer(&twice);
    EXPECT_EQ(delegate.mImpl->invoke(4), 8);
    EXPECT_EQ(fromPointer.mImpl->invoke(5), 10);
}

TEST(DelegateTest, Invoke_WhenMadeFromALambda_CallsACopyOfIt)
{
    const auto shared = std::make_shared<int>(30);
    {
        const Function delegate([shared](int number) { return *shared + number; });
        EXPECT_EQ(delegate.mImpl->invoke(3), 33);
        EXPECT_EQ(shared.use_count(), 2);
    }
    EXPECT_EQ(shared.use_count(), 1);
}

TEST(DelegateTest, Invoke_WhenMadeFromALambdaThatChangesItself_KeepsItsState)
{
    const Function delegate([calls = 0](int) mutable { return ++calls; });
    delegate.mImpl->invoke(0);
    EXPECT_EQ(delegate.mImpl->invoke(0), 2);
}

TEST(DelegateTest, Invoke_WhenMadeFromAStandardFunction_CallsIt)
{
    const std::function<int(int)> function = twice;
    const Function delegate(function);
    EXPECT_EQ(delegate.mImpl->invoke(6), 12);
}

TEST(DelegateTest, Destroy_WhenMadeFromAnInvoker_FreesIt)
{
    int freed = 0;
    auto* const invoker = new Negation(freed);
    const auto* const delegate = new Function(invoker);
    EXPECT_EQ(delegate->mImpl, invoker);
    EXPECT_EQ(delegate->mImpl->invoke(9), -9);
    EXPECT_EQ(freed, 0);
    delete delegate;
    EXPECT_EQ(freed, 1);
}

TEST(DelegateTest, Destroy_WhenTheInvokerIsNull_DoesNothing)
{
    IAP2DelegateImpl<int, int>* const none = nullptr;
    const Function delegate(none);
    EXPECT_EQ(delegate.mImpl, nullptr);
}

/* ---- Life ---- */

TEST_F(MsgHandlerTest, Construct_WhenDone_IsTracedAndNotStarted)
{
    iAP2MsgHandler handler;
    EXPECT_THAT(takeMessages(), ElementsAre("D iAP2MsgHandler()"));
    EXPECT_FALSE(handler.isRunning());
    EXPECT_TRUE(handler.getStopVal());
}

TEST_F(MsgHandlerTest, Destroy_WhenNeverStarted_PostsTheExitFreesDelegatesThenEntries)
{
    {
        iAP2MsgHandler handler;
        handler.registerEventTable(1, "A", new Delegate(new TracedInvoker("first")));
        handler.registerEventTable(2, "none", nullptr);
        handler.registerEventTable(3, "B", new Delegate(new TracedInvoker("second")));
        handler.sendMsgV(1);
        takeMessages();
    }
    EXPECT_THAT(takeMessages(),
                ElementsAre("D ~iAP2MsgHandler()", MatchesRegex(kPosted), "I first freed",
                            "I second freed", "D ~EventTable(A)", "D ~EventTable(none)",
                            "D ~EventTable(B)", kNothingToJoin));
}

TEST_F(MsgHandlerTest, Destroy_WhenTheThreadWaits_EndsItByTheExitRecord)
{
    LineCounter waiting("Waiting ... next Message ");
    {
        iAP2MsgHandler handler;
        handler.registerEventTable(1, "A", new Delegate(new TracedInvoker("first")));
        EXPECT_EQ(handler.start(), iAP2Thread::Success);
        waiting.waitFor(1);
    }
    // The thread's own line is remembered just before or after the destructor's first one.
    std::vector<std::string> messages = takeMessages();
    const auto isWait = [](const std::string& message)
    { return message.find("Waiting ... next Message ") != std::string::npos; };
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(), isWait), 1);
    messages.erase(std::remove_if(messages.begin(), messages.end(), isWait), messages.end());
    EXPECT_THAT(messages,
                ElementsAre("D iAP2MsgHandler()", "D EventTable(A)", "D ~iAP2MsgHandler()",
                            MatchesRegex(kPosted), "E run: exit loop by EVT_LINKLOOP_EXIT",
                            "D run end", "I first freed", "D ~EventTable(A)", kNothingToJoin));
}

TEST_F(MsgHandlerTest, Destroy_WhenADelegateRuns_WaitsForItBeforeItFreesAnything)
{
    setLogLevel(40);
    std::promise<void> entered;
    {
        iAP2MsgHandler handler;
        handler.registerEventTable(1, "A",
                                   new Delegate(
                                       [&](iAP2MsgData*)
                                       {
                                           entered.set_value();
                                           while (!handler.getStopVal())
                                           {
                                               std::this_thread::yield();
                                           }
                                           logPrint(IAP2_LOG_INFO, "IAP2", "tests/delegate", 1,
                                                    "delegate returns");
                                       }));
        handler.registerEventTable(2, "B", new Delegate(new TracedInvoker("other")));
        handler.start();
        handler.sendMsgV(1);
        entered.get_future().wait();
    }
    EXPECT_THAT(takeMessages(), ElementsAre("I delegate returns",
                                            testing::AnyOf("E run: exit loop by EVT_LINKLOOP_EXIT",
                                                           "E run: Thread Stop Routine !!"),
                                            "I other freed", kNothingToJoin));
}

TEST_F(MsgHandlerTest, SendMsg_WhenNeverStarted_QueuesAHundredAndDropsTheOldest)
{
    setLogLevel(90);
    {
        iAP2MsgHandler handler;
        handler.registerEventTable(1, "collect", collect());
        for (unsigned int i = 1; i <= 100; ++i)
        {
            ASSERT_EQ(handler.sendMsgD(1, i), 0);
        }
        EXPECT_THAT(takeMessages(), IsEmpty());
        EXPECT_EQ(handler.sendMsgD(1, 101), 0);
        EXPECT_THAT(takeMessages(),
                    ElementsAre("E sendMessage: queue full, max_size_100, delete oldest"));
        iAP2MsgData oldest{};
        EXPECT_EQ(handler.recvMsg(&oldest), 40);
        EXPECT_EQ(oldest.dParam1, 2U);
    }
    EXPECT_THAT(mCalled, IsEmpty());
}

/* ---- Registration ---- */

TEST_F(MsgHandlerTest, RegisterEventTable_WhenGivenTheParts_MakesTheEntryInPlace)
{
    iAP2MsgHandler handler;
    takeMessages();
    handler.registerEventTable(1, "A", nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre("D EventTable(A)"));
    handler.registerEventTable(2, "B", nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre("D EventTable(B)"));
}

TEST_F(MsgHandlerTest, RegisterEventTable_WhenGivenAnEntry_AppendsOneCopy)
{
    iAP2MsgHandler handler;
    takeMessages();
    handler.registerEventTable(EventTable(1, "A", collect()));
    EXPECT_THAT(takeMessages(),
                ElementsAre("D EventTable(A)", "D EventTable(A) copy", "D ~EventTable(A)"));
    iAP2MsgData data = event(1);
    handler.exeMsg(&data);
    EXPECT_THAT(calledIds(), ElementsAre(1));
}

TEST_F(MsgHandlerTest, RegisterEventTable_WhenADelegateRuns_WaitsUntilItReturns)
{
    setLogLevel(90);
    iAP2MsgHandler handler;
    std::thread registrar;
    std::promise<int> looked;
    std::atomic<bool> isRegistered{false};
    handler.registerEventTable(
        1, "A",
        new Delegate(
            [&](iAP2MsgData*)
            {
                registrar = std::thread(
                    [&]
                    {
                        const ScopedHook lock(&Hooks::mutexLock,
                                              [&](pthread_mutex_t* mutex)
                                              {
                                                  looked.set_value(pthread_mutex_trylock(mutex));
                                                  return pthread_mutex_lock(mutex);
                                              });
                        handler.registerEventTable(2, "B", nullptr);
                        isRegistered = true;
                    });
                EXPECT_EQ(looked.get_future().get(), EBUSY);
                EXPECT_FALSE(isRegistered);
            }));
    iAP2MsgData data = event(1);
    handler.exeMsg(&data);
    registrar.join();
    EXPECT_TRUE(isRegistered);
}

/* ---- Sending ---- */

TEST_F(MsgHandlerTest, SendMsg_WhenTheRecordIsNull_ReportsAndReturnsMinusTwo)
{
    iAP2MsgHandler handler;
    takeMessages();
    EXPECT_EQ(handler.sendMsg(nullptr), -2);
    EXPECT_THAT(takeMessages(), ElementsAre("E sendMsg: reject, inIAP2Data is NULL"));
}

TEST_F(MsgHandlerTest, SendMsgSync_WhenTheRecordIsNull_ReportsAndReturnsMinusTwo)
{
    iAP2MsgHandler handler;
    takeMessages();
    EXPECT_EQ(handler.sendMsgSync(nullptr), -2);
    EXPECT_THAT(takeMessages(), ElementsAre("E sendMsgSync: reject, inIAP2Data is NULL"));
}

TEST_F(MsgHandlerTest, SendMsg_WhenARecordIsGiven_PostsACopyOfIt)
{
    int target = 0;
    iAP2MsgHandler handler;
    iAP2MsgData data = {1, 2, 3, 4, &target, &data, this};
    const iAP2MsgData sent = data;
    takeMessages();
    EXPECT_EQ(handler.sendMsg(&data), 0);
    EXPECT_THAT(takeMessages(), ElementsAre(MatchesRegex(kPosted)));
    data = event(0);
    iAP2MsgData out{};
    EXPECT_EQ(handler.recvMsg(&out), 40);
    EXPECT_EQ(out, sent);
}

TEST_F(MsgHandlerTest, SendMsgSync_WhenARecordIsGiven_PostsTheControlRecordThenWaits)
{
    iAP2MsgHandler handler;
    iAP2MsgData data = {1, 2, 3, 4, &data, nullptr, this};
    takeMessages();
    {
        const auto wake = wakeAtOnce();
        EXPECT_EQ(handler.sendMsgSync(&data), 0);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("D #### miAP2MsgBox.sendMessageSync before #####",
                                            MatchesRegex(kPosted), MatchesRegex(kSenderWaits),
                                            "D #### miAP2MsgBox.sendMessageSync end #####"));
    iAP2MsgData out{};
    EXPECT_EQ(handler.recvMsg(&out), 40);
    EXPECT_EQ(out, event(EVT_SEND_SYNC_MSG));
    handler.recvMsgSync(&out);
    EXPECT_EQ(out, data);
}

TEST_F(MsgHandlerTest, SendMsgSync_WhenTheDelegateHasRun_ReturnsWithItsResults)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(
        1, "answer",
        new Delegate([](iAP2MsgData* data) { *static_cast<int*>(data->pParam1) = 42; }));
    handler.start();
    int answer = 0;
    EXPECT_EQ(handler.sendMsgSyncP(1, &answer), 0);
    EXPECT_EQ(answer, 42);
}

TEST_F(MsgHandlerTest, SendMsgSync_WhenAsynchronousRecordsWait_IsHandledAfterThem)
{
    iAP2MsgHandler handler;
    for (const std::uint32_t id : {1U, 2U, 3U, 4U})
    {
        handler.registerEventTable(id, "collect", collect());
    }
    handler.sendMsgV(1);
    handler.sendMsgV(2);
    handler.sendMsgV(3);
    handler.start();
    EXPECT_EQ(handler.sendMsgSyncV(4), 0);
    EXPECT_THAT(calledIds(), ElementsAre(1, 2, 3, 4));
}

TEST_F(MsgHandlerTest, SendMsgSync_WhenTheHandlerIsIdle_NeverPausesIt)
{
    constexpr int kSends = 1000;
    setLogLevel(20);
    PauseCountingHandler handler;
    int handled = 0;
    handler.registerEventTable(1, "count", new Delegate([&](iAP2MsgData*) { ++handled; }));
    LineCounter idle("Waiting ... next Message ");
    handler.start();
    for (int i = 1; i <= kSends; ++i)
    {
        idle.waitFor(i);
        ASSERT_EQ(handler.sendMsgSyncV(1), 0);
    }
    EXPECT_EQ(handled, kSends);
    EXPECT_EQ(handler.pauses, 0);
    handler.sendMsgV(EVT_LINKLOOP_EXIT);
    handler.stop();
}

/** A handler whose mutexes are known, in the order in which they were initialised. */
class WatchedHandler
{
public:
    WatchedHandler()
    {
        const ScopedHook hook(&Hooks::mutexInit,
                              [this](pthread_mutex_t* mutex, const pthread_mutexattr_t* how)
                              {
                                  mMutexes.push_back(mutex);
                                  return support::real::mutexInit(mutex, how);
                              });
        handler = std::make_unique<iAP2MsgHandler>();
    }

    /** Releases the mutexes that are held; which ones. */
    std::vector<std::string> releaseHeld()
    {
        static const char* const names[] = {"state", "list", "syncList", "mutex", "mutexSync"};
        std::vector<std::string> held;
        EXPECT_THAT(mMutexes, SizeIs(std::extent<decltype(names)>::value));
        for (std::size_t i = 0; i < mMutexes.size(); ++i)
        {
            if (support::real::mutexTrylock(mMutexes[i]) == EBUSY)
            {
                held.emplace_back(names[i]);
            }
            support::real::mutexUnlock(mMutexes[i]);
        }
        return held;
    }

    std::unique_ptr<iAP2MsgHandler> handler;

private:
    std::vector<pthread_mutex_t*> mMutexes;
};

TEST_F(MsgHandlerTest, SendMsg_WhenMemoryIsShort_ThrowsAndLeavesTheListLocked)
{
    setLogLevel(90);
    WatchedHandler watched;
    {
        const ScopedHook fault(&Hooks::operatorNew,
                               [](std::size_t) -> void* { throw std::bad_alloc(); });
        EXPECT_THROW(watched.handler->sendMsgV(1), std::bad_alloc);
    }
    EXPECT_THAT(watched.releaseHeld(), ElementsAre("list"));
    EXPECT_THAT(takeMessages(), IsEmpty());

    watched.handler->registerEventTable(2, "collect", collect());
    EXPECT_EQ(watched.handler->sendMsgV(2), 0);
    watched.handler->start();
    endLoop(*watched.handler);
    EXPECT_THAT(calledIds(), ElementsAre(2));
}

TEST_F(MsgHandlerTest, SendMsgSync_WhenMemoryIsShortForTheRecord_ThrowsBehindTheControlRecord)
{
    setLogLevel(90);
    WatchedHandler watched;
    {
        const auto wake = wakeAtOnce();
        const ScopedHook fault(&Hooks::operatorNew,
                               [isFirst = true](std::size_t size) mutable
                               {
                                   if (!std::exchange(isFirst, false))
                                   {
                                       throw std::bad_alloc();
                                   }
                                   return support::real::operatorNew(size);
                               });
        EXPECT_THROW(watched.handler->sendMsgSyncV(1), std::bad_alloc);
    }
    EXPECT_THAT(watched.releaseHeld(), ElementsAre("syncList"));
    EXPECT_THAT(takeMessages(), IsEmpty());
    iAP2MsgData out{};
    EXPECT_EQ(watched.handler->recvMsg(&out), 40);
    EXPECT_EQ(out, event(EVT_SEND_SYNC_MSG));
}

/* ---- The argument families ---- */

class EachSender : public MsgHandlerTest, public testing::WithParamInterface<Sender>
{
};

INSTANTIATE_TEST_SUITE_P(Asynchronous, EachSender, testing::ValuesIn(support::kAsynchronousSenders),
                         [](const testing::TestParamInfo<Sender>& tested)
                         { return std::string(tested.param.name); });
INSTANTIATE_TEST_SUITE_P(Synchronous, EachSender, testing::ValuesIn(support::kSynchronousSenders),
                         [](const testing::TestParamInfo<Sender>& tested)
                         { return std::string(tested.param.name); });

TEST_P(EachSender, Send_WhenTheHandlerRuns_DeliversItsArgumentsAndZeros)
{
    setLogLevel(90);
    {
        iAP2MsgHandler handler;
        handler.registerEventTable(7, "collect", collect());
        handler.start();
        EXPECT_EQ(GetParam().send(handler), 0);
        // Whoever sends synchronously has waited for the delegate.
        if (std::string(GetParam().name).find("Sync") != std::string::npos)
        {
            EXPECT_THAT(mCalled, SizeIs(1));
        }
        endLoop(handler);
    }
    EXPECT_THAT(mCalled, ElementsAre(GetParam().sent));
    EXPECT_THAT(takeMessages(),
                ElementsAre("E run: exit loop by EVT_LINKLOOP_EXIT", kNothingToJoin));
}

/* ---- Dispatching ---- */

TEST_F(MsgHandlerTest, ExeMsg_WhenTheTableIsEmpty_ReportsAnUnknownEvent)
{
    iAP2MsgHandler handler;
    takeMessages();
    iAP2MsgData data = event(5);
    handler.exeMsg(&data);
    EXPECT_THAT(takeMessages(), ElementsAre("E exeMsg: unknown event 5"));
}

TEST_F(MsgHandlerTest, ExeMsg_WhenNoEntryHasTheId_ReportsAnUnknownEvent)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(1, "A", collect());
    takeMessages();
    iAP2MsgData data = event(-5);
    handler.exeMsg(&data);
    EXPECT_THAT(takeMessages(), ElementsAre("E exeMsg: unknown event -5"));
    EXPECT_THAT(mCalled, IsEmpty());
}

TEST_F(MsgHandlerTest, ExeMsg_WhenTwoEntriesHaveTheId_CallsTheFirstOnly)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(4, "other", new Delegate(new TracedInvoker("zeroth")));
    handler.registerEventTable(5, "A", new Delegate(new TracedInvoker("first")));
    handler.registerEventTable(5, "B", new Delegate(new TracedInvoker("second")));
    takeMessages();
    iAP2MsgData data = event(5);
    handler.exeMsg(&data);
    EXPECT_THAT(takeMessages(), ElementsAre("D callEventHandler: (A) ", "I first called"));
}

TEST_F(MsgHandlerTest, ExeMsg_WhenTheIdIsNegative_ComparesThirtyTwoBits)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(0xFFFFFFFFU, "A", collect());
    iAP2MsgData data = event(-1);
    handler.exeMsg(&data);
    EXPECT_THAT(calledIds(), ElementsAre(-1));
}

TEST_F(MsgHandlerTest, ExeMsg_WhenItCalls_HandsOverTheCallersRecord)
{
    iAP2MsgHandler handler;
    iAP2MsgData* given = nullptr;
    handler.registerEventTable(1, "A", new Delegate([&](iAP2MsgData* data) { given = data; }));
    iAP2MsgData data = event(1);
    handler.exeMsg(&data);
    EXPECT_EQ(given, &data);
}

TEST_F(MsgHandlerTest, ExeMsg_WhenADelegateRunsOutOfRange_ReportsTwiceAndFreesTheTable)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(
        5, "A", new Delegate([](iAP2MsgData*) { throw std::out_of_range("too far"); }));
    handler.registerEventTable(6, "B", collect());
    takeMessages();
    iAP2MsgData data = event(5);
    EXPECT_NO_THROW(handler.exeMsg(&data));
    EXPECT_THAT(takeMessages(), ElementsAre("D callEventHandler: (A) ",
                                            "I inIAP2Data->evtID : 5, mEventTableVector.size() : 2",
                                            "E exeMsg error : too far"));
    handler.registerEventTable(7, "C", nullptr); // blocks while the table is locked
}

TEST_F(MsgHandlerTest, ExeMsg_WhenADelegateThrowsAnythingElse_LetsItThroughAndFreesTheTable)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(
        5, "A", new Delegate([](iAP2MsgData*) { throw std::length_error("too long"); }));
    handler.registerEventTable(6, "B", new Delegate([](iAP2MsgData*) { throw 17; }));
    takeMessages();
    iAP2MsgData data = event(5);
    EXPECT_THROW(handler.exeMsg(&data), std::length_error);
    EXPECT_THAT(takeMessages(), ElementsAre("D callEventHandler: (A) "));
    data = event(6);
    EXPECT_THROW(handler.exeMsg(&data), int);
    EXPECT_THAT(takeMessages(), ElementsAre("D callEventHandler: (B) "));
    handler.registerEventTable(7, "C", nullptr); // blocks while the table is locked
}

TEST_F(MsgHandlerTest, ExeMsgSync_WhenAnEntryHasTheId_CallsItThenSignalsTheFinish)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(5, "A", new Delegate(new TracedInvoker("first")));
    handler.registerEventTable(5, "B", new Delegate(new TracedInvoker("second")));
    takeMessages();
    iAP2MsgData data = event(5);
    handler.exeMsgSync(&data);
    EXPECT_THAT(takeMessages(), ElementsAre("D callEventHandlerSync: (A) ", "I first called",
                                            MatchesRegex(kFinished)));
}

TEST_F(MsgHandlerTest, ExeMsgSync_WhenNoEntryHasTheId_ReportsAndSignalsNothing)
{
    iAP2MsgHandler handler;
    takeMessages();
    iAP2MsgData data = event(5);
    handler.exeMsgSync(&data);
    EXPECT_THAT(takeMessages(), ElementsAre("E exeMsgSync: unknown event 5"));
}

TEST_F(MsgHandlerTest, ExeMsgSync_WhenADelegateRunsOutOfRange_LetsItThroughAndFreesTheTable)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(
        5, "A", new Delegate([](iAP2MsgData*) { throw std::out_of_range("too far"); }));
    takeMessages();
    iAP2MsgData data = event(5);
    EXPECT_THROW(handler.exeMsgSync(&data), std::out_of_range);
    EXPECT_THAT(takeMessages(), ElementsAre("D callEventHandlerSync: (A) "));
    handler.registerEventTable(7, "C", nullptr); // blocks while the table is locked
}

TEST_F(MsgHandlerTest, CallEventHandler_WhenTheIndexIsOutOfRange_Throws)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(1, "A", collect());
    iAP2MsgData data = event(1);
    EXPECT_THROW(handler.callEventHandler(1, &data), std::out_of_range);
    EXPECT_THROW(handler.callEventHandlerSync(1, &data), std::out_of_range);
    EXPECT_THAT(mCalled, IsEmpty());
}

TEST_F(MsgHandlerTest, CallEventHandler_WhenTheIndexIsThere_CallsThatEntryWhateverTheId)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(1, "A", nullptr);
    handler.registerEventTable(1, "B", collect());
    takeMessages();
    iAP2MsgData data = event(9);
    handler.callEventHandler(1, &data);
    EXPECT_THAT(takeMessages(), ElementsAre("D callEventHandler: (B) "));
    EXPECT_THAT(calledIds(), ElementsAre(9));
}

TEST_F(MsgHandlerTest, CallEventHandlerSync_WhenTheFinishIsSignalled_ReturnsItsResult)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(1, "A", collect());
    iAP2MsgData data = event(1);
    EXPECT_EQ(handler.callEventHandlerSync(0, &data), 0);
    int timedLocks = 0;
    pthread_mutex_t* boxMutex = nullptr;
    const ScopedHook lock(&Hooks::mutexTimedlock,
                          [&](pthread_mutex_t* mutex, const timespec* deadline)
                          {
                              ++timedLocks;
                              boxMutex = mutex;
                              return pthread_mutex_timedlock(mutex, deadline);
                          });
    const ScopedHook unlock(&Hooks::mutexUnlock,
                            [&](pthread_mutex_t* mutex)
                            {
                                const int result = pthread_mutex_unlock(mutex);
                                return mutex == boxMutex ? EINVAL : result;
                            });
    EXPECT_EQ(handler.callEventHandlerSync(0, &data), EINVAL);
    EXPECT_EQ(timedLocks, 1);
    EXPECT_THAT(calledIds(), ElementsAre(1, 1));
}

/* ---- Fetching the synchronous record ---- */

TEST_F(MsgHandlerTest, RecvMsgSync_WhenTheRecordNeverComes_LooksAHundredAndTwoTimes)
{
    iAP2MsgHandler handler;
    std::vector<useconds_t> pauses;
    int attempts = 0;
    const ScopedHook sleep(&Hooks::usleep,
                           [&](useconds_t pause)
                           {
                               EXPECT_EQ(attempts, static_cast<int>(pauses.size()) + 1);
                               pauses.push_back(pause);
                               return 0;
                           });
    const ScopedHook lock(&Hooks::mutexTimedlock,
                          [&](pthread_mutex_t* mutex, const timespec* deadline)
                          {
                              ++attempts;
                              return pthread_mutex_timedlock(mutex, deadline);
                          });
    takeMessages();
    iAP2MsgData out = {1, 2, 3, 4, this, nullptr, &handler};
    const iAP2MsgData before = out;
    handler.recvMsgSync(&out);
    EXPECT_EQ(attempts, kPauses + 1);
    EXPECT_THAT(pauses, AllOf(SizeIs(kPauses), Each(kPause)));
    EXPECT_EQ(out, before);
    EXPECT_THAT(takeMessages(), ElementsAre("E receiveMessageSync Timeout!!"));
}

/** Fetches a record that comes during pause number `pause`, or before the first attempt for 0. */
void expectRecordAfter(int pause)
{
    iAP2MsgHandler handler;
    const auto send = [&]
    {
        const auto wake = wakeAtOnce();
        EXPECT_EQ(handler.sendMsgSyncD(3, 4), 0);
    };
    if (pause == 0)
    {
        send();
    }
    int pauses = 0;
    const ScopedHook sleep(&Hooks::usleep,
                           [&](useconds_t)
                           {
                               if (++pauses == pause)
                               {
                                   send();
                               }
                               return 0;
                           });
    setLogLevel(90);
    takeMessages();
    iAP2MsgData out{};
    handler.recvMsgSync(&out);
    EXPECT_EQ(pauses, pause);
    EXPECT_EQ(out, (iAP2MsgData{3, 4, 0, 0, nullptr, nullptr, nullptr}));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MsgHandlerTest, RecvMsgSync_WhenTheRecordIsThere_NeverPauses)
{
    expectRecordAfter(0);
}

TEST_F(MsgHandlerTest, RecvMsgSync_WhenTheRecordComesDuringAPause_ReturnsWithTheNextAttempt)
{
    expectRecordAfter(3);
}

TEST_F(MsgHandlerTest, RecvMsgSync_WhenTheRecordComesDuringTheLastPause_IsInTime)
{
    expectRecordAfter(kPauses);
}

/* ---- The loop ---- */

TEST_F(MsgHandlerTest, Run_WhenTheStopFlagIsUp_EndsBeforeItReceives)
{
    iAP2MsgHandler handler; // never started: the flag is up from the beginning
    handler.sendMsgV(1);
    takeMessages();
    handler.run();
    EXPECT_THAT(takeMessages(), ElementsAre("E run: Thread Stop Routine !!", "D run end"));
    iAP2MsgData out{};
    EXPECT_EQ(handler.recvMsg(&out), 40);
    EXPECT_EQ(out, event(1));
}

TEST_F(MsgHandlerTest, Run_WhenStopIsCalledWhileADelegateRuns_EndsAfterThatRecord)
{
    setLogLevel(90);
    iAP2MsgHandler handler;
    std::promise<void> entered;
    handler.registerEventTable(1, "until stop",
                               new Delegate(
                                   [&](iAP2MsgData*)
                                   {
                                       entered.set_value();
                                       while (!handler.getStopVal())
                                       {
                                           std::this_thread::yield();
                                       }
                                   }));
    handler.registerEventTable(2, "collect", collect());
    handler.start();
    handler.sendMsgV(1);
    handler.sendMsgV(2);
    entered.get_future().wait();
    EXPECT_EQ(handler.stop(), iAP2Thread::Success);
    EXPECT_THAT(takeMessages(), ElementsAre("E run: Thread Stop Routine !!"));
    EXPECT_THAT(mCalled, IsEmpty());
    EXPECT_FALSE(handler.isRunning());
}

TEST_F(MsgHandlerTest, Run_WhenStopIsCalledWhileItWaits_HandlesTheNextRecordAndEndsThen)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(1, "collect", collect());
    LineCounter waiting("Waiting ... next Message ");
    handler.start();
    waiting.waitFor(1);
    setLogLevel(90);
    takeMessages();
    std::thread owner([&] { EXPECT_EQ(handler.stop(), iAP2Thread::Success); });
    while (!handler.getStopVal())
    {
        std::this_thread::yield();
    }
    handler.sendMsgV(1);
    owner.join();
    EXPECT_THAT(calledIds(), ElementsAre(1));
    EXPECT_THAT(takeMessages(), ElementsAre("E run: Thread Stop Routine !!"));
}

TEST_F(MsgHandlerTest, Run_WhenTheExitEventComes_EndsAndDispatchesNothingBehindIt)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(EVT_LINKLOOP_EXIT, "exit", collect());
    handler.registerEventTable(1, "collect", collect());
    handler.sendMsgV(1);
    handler.sendMsgV(EVT_LINKLOOP_EXIT);
    handler.sendMsgV(1);
    takeMessages();
    LineCounter end("run end");
    handler.start();
    end.waitFor(1);
    EXPECT_TRUE(handler.isRunning()); // until it is joined
    EXPECT_EQ(handler.join(), iAP2Thread::Success);
    EXPECT_THAT(takeMessages(), ElementsAre("D callEventHandler: (collect) ",
                                            "E run: exit loop by EVT_LINKLOOP_EXIT", "D run end"));
    EXPECT_THAT(calledIds(), ElementsAre(1));
}

TEST_F(MsgHandlerTest, Run_WhenADelegateRunsOutOfRange_HandlesTheNextRecord)
{
    setLogLevel(40);
    {
        iAP2MsgHandler handler;
        handler.registerEventTable(
            1, "A", new Delegate([](iAP2MsgData*) { throw std::out_of_range("too far"); }));
        handler.registerEventTable(2, "B", collect());
        handler.sendMsgV(1);
        handler.sendMsgV(2);
        handler.start();
        endLoop(handler);
    }
    EXPECT_THAT(calledIds(), ElementsAre(2));
    EXPECT_THAT(takeMessages(),
                ElementsAre("I inIAP2Data->evtID : 1, mEventTableVector.size() : 2",
                            "E exeMsg error : too far", "E run: exit loop by EVT_LINKLOOP_EXIT",
                            kNothingToJoin));
}

TEST_F(MsgHandlerTest, Run_WhenASynchronousRecordComes_TracesFetchesCallsAndSignals)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(1, "A", collect());
    {
        const auto wake = wakeAtOnce();
        handler.sendMsgSyncD(1, 2);
    }
    handler.sendMsgV(EVT_LINKLOOP_EXIT);
    takeMessages();
    handler.start();
    EXPECT_EQ(handler.join(), iAP2Thread::Success);
    EXPECT_THAT(takeMessages(), ElementsAre("D recv EVT_SEND_SYNC_MSG",
                                            "D callEventHandlerSync: (A) ", MatchesRegex(kFinished),
                                            "E run: exit loop by EVT_LINKLOOP_EXIT", "D run end"));
    EXPECT_THAT(mCalled, ElementsAre(iAP2MsgData{1, 2, 0, 0, nullptr, nullptr, nullptr}));
}

TEST_F(MsgHandlerTest, Run_WhenTheFirstSynchronousRecordNeverComes_DispatchesTheInitialOne)
{
    PauseCountingHandler handler;
    handler.sendMsgV(EVT_SEND_SYNC_MSG);
    handler.sendMsgV(EVT_LINKLOOP_EXIT);
    takeMessages();
    handler.start();
    EXPECT_EQ(handler.join(), iAP2Thread::Success);
    EXPECT_EQ(handler.pauses, kPauses);
    EXPECT_EQ(handler.lastPause, kPause);
    EXPECT_THAT(takeMessages(),
                ElementsAre("D recv EVT_SEND_SYNC_MSG", "E receiveMessageSync Timeout!!",
                            "E exeMsgSync: unknown event 9999",
                            "E run: exit loop by EVT_LINKLOOP_EXIT", "D run end"));
}

TEST_F(MsgHandlerTest, Run_WhenALaterSynchronousRecordNeverComes_DispatchesTheLastOneAgain)
{
    PauseCountingHandler handler;
    handler.registerEventTable(1, "A", collect());
    {
        const auto wake = wakeAtOnce();
        handler.sendMsgSyncDP(1, 2, this);
    }
    handler.sendMsgV(EVT_SEND_SYNC_MSG);
    handler.sendMsgV(EVT_LINKLOOP_EXIT);
    takeMessages();
    handler.start();
    EXPECT_EQ(handler.join(), iAP2Thread::Success);
    EXPECT_EQ(handler.pauses, kPauses);
    const iAP2MsgData sent = {1, 2, 0, 0, this, nullptr, nullptr};
    EXPECT_THAT(mCalled, ElementsAre(sent, sent));
    EXPECT_THAT(takeMessages(),
                ElementsAre("D recv EVT_SEND_SYNC_MSG", "D callEventHandlerSync: (A) ",
                            MatchesRegex(kFinished), "D recv EVT_SEND_SYNC_MSG",
                            "E receiveMessageSync Timeout!!", "D callEventHandlerSync: (A) ",
                            MatchesRegex(kFinished), "E run: exit loop by EVT_LINKLOOP_EXIT",
                            "D run end"));
}

TEST_F(MsgHandlerTest, Run_WhenASynchronousEventIsUnknown_LeavesItsSenderToTheNextFinish)
{
    iAP2MsgHandler handler;
    handler.registerEventTable(1, "A", collect());
    LineCounter unknown("exeMsgSync: unknown event 2");
    handler.start();
    std::atomic<bool> returned{false};
    std::thread sender(
        [&]
        {
            EXPECT_EQ(handler.sendMsgSyncV(2), 0);
            returned = true;
        });
    unknown.waitFor(1);
    EXPECT_FALSE(returned);
    // The finish that belongs to another record wakes it.
    iAP2MsgData data = event(1);
    handler.exeMsgSync(&data);
    sender.join();
    EXPECT_THAT(calledIds(), ElementsAre(1));
}

TEST(MsgHandlerDeathTest, Run_WhenADelegateThrowsAnythingElse_EndsTheProcess)
{
    EXPECT_EXIT(
        {
            printTraces();
            setLogLevel(20);
            iAP2MsgHandler handler;
            handler.registerEventTable(
                1, "A", new Delegate([](iAP2MsgData*) { throw std::length_error("too long"); }));
            handler.sendMsgV(1);
            handler.start();
            handler.join();
        },
        KilledBySignal(SIGABRT), "callEventHandler: \\(A\\) \n.*too long");
    setLogLevel(0);
}

} // namespace
