/**
 * What happens when a mailbox's list refuses a record, which the library's own list never does.
 *
 * The handler and its box are compiled into this file with a list in front of them that refuses on
 * demand; the rest of the library is linked as it is.
 */
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

struct iAP2MsgData;
template <typename T> class iAP2List;

/** Named before the library's template is, so that this is the list of every box below. */
template <> class iAP2List<iAP2MsgData>
{
public:
    iAP2List();
    virtual ~iAP2List();
    iAP2List(const iAP2List&) = delete;
    iAP2List& operator=(const iAP2List&) = delete;

    /** 1 for a record that the test refuses; otherwise as the library's list. */
    int enqueue(iAP2MsgData* data);
    int dequeue(iAP2MsgData* out);
    bool isEmpty();
    std::size_t size();

private:
    class Records;
    std::unique_ptr<Records> m_records;
};

#if defined(__clang__)
#pragma clang diagnostic push
// The library announces and makes the list of its record; here that is the one above.
#pragma clang diagnostic ignored "-Winstantiation-after-specialization"
#endif
#include "UTILS/iAP2MsgHandler.cpp" // NOLINT(bugprone-suspicious-include)
#if defined(__clang__)
#pragma clang diagnostic pop
#endif

#include <algorithm>
#include <cerrno>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Faults.h"
#include "TraceRecorder.h"
#include "UTILS/handlerSenders.h"

namespace
{

/** The library's list, for a record that differs in nothing but its type. */
struct Stored : iAP2MsgData
{
};

/** Which records are refused; set while nobody sends. */
std::function<bool(const iAP2MsgData& data)> refuses;

} // namespace

class iAP2List<iAP2MsgData>::Records : public iAP2List<Stored>
{
};

iAP2List<iAP2MsgData>::iAP2List() : m_records(std::make_unique<Records>())
{
}

iAP2List<iAP2MsgData>::~iAP2List() = default;

int iAP2List<iAP2MsgData>::enqueue(iAP2MsgData* data)
{
    if (refuses && refuses(*data))
    {
        return 1;
    }
    Stored stored = {*data};
    return m_records->enqueue(&stored);
}

int iAP2List<iAP2MsgData>::dequeue(iAP2MsgData* out)
{
    Stored stored = {*out};
    const int result = m_records->dequeue(&stored);
    *out = stored;
    return result;
}

bool iAP2List<iAP2MsgData>::isEmpty()
{
    return m_records->isEmpty();
}

std::size_t iAP2List<iAP2MsgData>::size()
{
    return m_records->size();
}

namespace
{

using support::Hooks;
using support::LineCounter;
using support::ScopedHook;
using support::Sender;
using support::takeMessages;
using testing::ElementsAre;
using testing::MatchesRegex;

using Box = iAP2MsgBox<iAP2MsgData>;
using Delegate = IAP2Delegate<void, iAP2MsgData*>;

constexpr std::int32_t kEvent = 7;
constexpr int kRecordSize = sizeof(iAP2MsgData);
constexpr int kPauses = 101;

constexpr char kBefore[] = "D #### miAP2MsgBox.sendMessageSync before #####";
constexpr char kEnd[] = "D #### miAP2MsgBox.sendMessageSync end #####";
constexpr char kPosted[] = "D sendMessage: m_cond\\[0x[0-9a-f]+\\] signal send new message!!";
constexpr char kSenderWaits[] = "D sendMessageSync: m_condSync\\[0x[0-9a-f]+\\] Waiting...";
constexpr char kListRefuses[] = "E sendMessage: enqueue fail";
constexpr char kSyncListRefuses[] = "E sendMessageSync: enqueue fail";
constexpr char kNothingToJoin[] = "E iAP2MsgHandler:~iAP2Thread:join() fail";

iAP2MsgData event(std::int32_t id)
{
    return {id, 0, 0, 0, nullptr, nullptr, nullptr};
}

/** The calling thread's signals and box mutexes; a wait ends at once, as if woken spuriously. */
class BoxWatch
{
public:
    int signals = 0;
    int waits = 0;

    /** Whether every box mutex that was taken meanwhile can be taken by another thread. */
    bool allFree() const
    {
        bool free = !mTaken.empty();
        std::thread(
            [&]
            {
                for (pthread_mutex_t* const mutex : mTaken)
                {
                    const bool isFree = pthread_mutex_trylock(mutex) == 0;
                    free = free && isFree;
                    if (isFree)
                    {
                        pthread_mutex_unlock(mutex);
                    }
                }
            })
            .join();
        return free;
    }

private:
    std::vector<pthread_mutex_t*> mTaken;
    ScopedHook<decltype(Hooks::mutexTimedlock)> mTimedlock{
        &Hooks::mutexTimedlock, [this](pthread_mutex_t* mutex, const timespec* deadline)
        {
            mTaken.push_back(mutex);
            return support::real::mutexTimedlock(mutex, deadline);
        }};
    ScopedHook<decltype(Hooks::condSignal)> mSignal{&Hooks::condSignal,
                                                    [this](pthread_cond_t* condition)
                                                    {
                                                        ++signals;
                                                        return support::real::condSignal(condition);
                                                    }};
    ScopedHook<decltype(Hooks::condWait)> mWait{&Hooks::condWait,
                                                [this](pthread_cond_t*, pthread_mutex_t*)
                                                {
                                                    ++waits;
                                                    return 0;
                                                }};
};

class RefusingTest : public support::TraceTest
{
protected:
    ~RefusingTest() override
    {
        refuses = nullptr;
    }

    static void refuse(std::int32_t id)
    {
        refuses = [id](const iAP2MsgData& data) { return data.evtID == id; };
    }
    static void refuseAll()
    {
        refuses = [](const iAP2MsgData&) { return true; };
    }
};

/* ---- The box ---- */

TEST_F(RefusingTest, SendMessage_WhenTheListRefuses_ReportsSignalsNobodyAndFreesTheMutex)
{
    Box box(100);
    iAP2MsgData data = event(kEvent);
    refuseAll();
    const BoxWatch watch;
    EXPECT_EQ(box.sendMessage(&data), -1);
    EXPECT_THAT(takeMessages(), ElementsAre(kListRefuses));
    EXPECT_EQ(watch.signals, 0);
    EXPECT_TRUE(watch.allFree());
}

TEST_F(RefusingTest, SendMessage_WhenAFullListRefuses_HasDroppedTheOldestRecord)
{
    Box box(2);
    for (std::int32_t id = 1; id <= 2; ++id)
    {
        iAP2MsgData data = event(id);
        ASSERT_EQ(box.sendMessage(&data), kRecordSize);
    }
    takeMessages();
    refuseAll();
    iAP2MsgData data = event(3);
    EXPECT_EQ(box.sendMessage(&data), -1);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E sendMessage: queue full, max_size_2, delete oldest", kListRefuses));
    refuses = nullptr;
    data = event(4);
    EXPECT_EQ(box.sendMessage(&data), kRecordSize);
    EXPECT_EQ(box.receiveMessage(&data), kRecordSize);
    EXPECT_EQ(data.evtID, 2);
    EXPECT_EQ(box.receiveMessage(&data), kRecordSize);
    EXPECT_EQ(data.evtID, 4);
}

TEST_F(RefusingTest, SendMessageSync_WhenTheListRefuses_ReportsWaitsForNobodyAndFreesTheMutex)
{
    Box box(100);
    iAP2MsgData data = event(kEvent);
    refuseAll();
    const BoxWatch watch;
    EXPECT_EQ(box.sendMessageSync(&data), -1);
    EXPECT_THAT(takeMessages(), ElementsAre(kSyncListRefuses));
    EXPECT_EQ(watch.waits, 0);
    EXPECT_EQ(watch.signals, 0);
    EXPECT_TRUE(watch.allFree());
}

TEST_F(RefusingTest, SendMessageSyncAnnounced_WhenOnlyTheRecordIsRefused_SignalsTheAnnouncement)
{
    Box box(100);
    iAP2MsgData announcement = event(EVT_SEND_SYNC_MSG);
    iAP2MsgData data = event(kEvent);
    refuse(kEvent);
    const BoxWatch watch;
    EXPECT_EQ(box.sendMessageSyncAnnounced(&announcement, &data), -1);
    EXPECT_THAT(takeMessages(), ElementsAre(MatchesRegex(kPosted), kSyncListRefuses));
    EXPECT_EQ(watch.signals, 1);
    EXPECT_EQ(watch.waits, 0);
    EXPECT_TRUE(watch.allFree());
    iAP2MsgData out{};
    EXPECT_EQ(box.receiveMessage(&out), kRecordSize);
    EXPECT_EQ(out.evtID, EVT_SEND_SYNC_MSG);
    EXPECT_EQ(box.receiveMessageSync(&out), 0);
}

TEST_F(RefusingTest, SendMessageSyncAnnounced_WhenOnlyTheRecordIsRefused_WakesAReceiverThatWaits)
{
    Box box(100);
    LineCounter waiting("Waiting ... next Message ");
    std::int32_t id = 0;
    std::thread receiver(
        [&]
        {
            iAP2MsgData out{};
            EXPECT_EQ(box.receiveMessage(&out), kRecordSize);
            id = out.evtID;
        });
    waiting.waitFor(1);
    refuse(kEvent);
    iAP2MsgData announcement = event(EVT_SEND_SYNC_MSG);
    iAP2MsgData data = event(kEvent);
    EXPECT_EQ(box.sendMessageSyncAnnounced(&announcement, &data), -1);
    receiver.join();
    EXPECT_EQ(id, EVT_SEND_SYNC_MSG);
}

TEST_F(RefusingTest,
       SendMessageSyncAnnounced_WhenOnlyTheAnnouncementIsRefused_SignalsNobodyAndWaits)
{
    Box box(100);
    iAP2MsgData announcement = event(EVT_SEND_SYNC_MSG);
    iAP2MsgData data = event(kEvent);
    refuse(EVT_SEND_SYNC_MSG);
    const BoxWatch watch;
    EXPECT_EQ(box.sendMessageSyncAnnounced(&announcement, &data), kRecordSize);
    EXPECT_THAT(takeMessages(), ElementsAre(kListRefuses, MatchesRegex(kSenderWaits)));
    EXPECT_EQ(watch.signals, 0);
    EXPECT_EQ(watch.waits, 1);
    EXPECT_TRUE(watch.allFree());
    iAP2MsgData out{};
    EXPECT_EQ(box.receiveMessageSync(&out), kRecordSize);
    EXPECT_EQ(out.evtID, kEvent);
}

TEST_F(RefusingTest, SendMessageSyncAnnounced_WhenBothAreRefused_SignalsNobody)
{
    Box box(100);
    iAP2MsgData announcement = event(EVT_SEND_SYNC_MSG);
    iAP2MsgData data = event(kEvent);
    refuseAll();
    const BoxWatch watch;
    EXPECT_EQ(box.sendMessageSyncAnnounced(&announcement, &data), -1);
    EXPECT_THAT(takeMessages(), ElementsAre(kListRefuses, kSyncListRefuses));
    EXPECT_EQ(watch.signals, 0);
    EXPECT_EQ(watch.waits, 0);
    EXPECT_TRUE(watch.allFree());
}

/** The box's mutexes are released, but the library is told that this failed. */
class FailingUnlock
{
private:
    std::vector<pthread_mutex_t*> mTaken;
    ScopedHook<decltype(Hooks::mutexTimedlock)> mTimedlock{
        &Hooks::mutexTimedlock, [this](pthread_mutex_t* mutex, const timespec* deadline)
        {
            mTaken.push_back(mutex);
            return support::real::mutexTimedlock(mutex, deadline);
        }};
    ScopedHook<decltype(Hooks::mutexUnlock)> mUnlock{
        &Hooks::mutexUnlock, [this](pthread_mutex_t* mutex)
        {
            const int result = support::real::mutexUnlock(mutex);
            if (std::find(mTaken.begin(), mTaken.end(), mutex) == mTaken.end())
            {
                return result;
            }
            errno = EPERM;
            return EINVAL;
        }};
};

TEST_F(RefusingTest, SendMessage_WhenTheListRefusesAndUnlockingFails_ReportsBoth)
{
    Box box(100);
    iAP2MsgData data = event(kEvent);
    refuseAll();
    const FailingUnlock fault;
    EXPECT_EQ(box.sendMessage(&data), -1);
    EXPECT_THAT(takeMessages(),
                ElementsAre(kListRefuses,
                            "E sendMessage: pthread_mutex_unlock fail, Operation not permitted"));
}

TEST_F(RefusingTest, SendMessageSync_WhenTheListRefusesAndUnlockingFails_ReportsBoth)
{
    Box box(100);
    iAP2MsgData data = event(kEvent);
    refuseAll();
    const FailingUnlock fault;
    EXPECT_EQ(box.sendMessageSync(&data), -1);
    EXPECT_THAT(
        takeMessages(),
        ElementsAre(kSyncListRefuses,
                    "E sendMessageSync: pthread_mutex_unlock fail, Operation not permitted"));
}

/* ---- The handler ---- */

TEST_F(RefusingTest, SendMsg_WhenTheMailboxRefuses_ReturnsMinusTwoAndLeavesTheReportToIt)
{
    iAP2MsgHandler handler;
    takeMessages();
    refuse(kEvent);
    iAP2MsgData data = event(kEvent);
    EXPECT_EQ(handler.sendMsg(&data), -2);
    EXPECT_THAT(takeMessages(), ElementsAre(kListRefuses));
}

TEST_F(RefusingTest, SendMsgSync_WhenTheRecordIsRefused_ReturnsMinusTwoAndLeavesTheReportToTheBox)
{
    iAP2MsgHandler handler;
    takeMessages();
    refuse(kEvent);
    iAP2MsgData data = event(kEvent);
    const BoxWatch watch;
    EXPECT_EQ(handler.sendMsgSync(&data), -2);
    EXPECT_THAT(takeMessages(),
                ElementsAre(kBefore, MatchesRegex(kPosted), kSyncListRefuses, kEnd));
    EXPECT_EQ(watch.signals, 1);
    iAP2MsgData out{};
    EXPECT_EQ(handler.recvMsg(&out), kRecordSize);
    EXPECT_EQ(out.evtID, EVT_SEND_SYNC_MSG);
}

TEST_F(RefusingTest, SendMessageSyncAnnounced_WhenTheRecordIsRefusedAndSignallingFails_ReportsBoth)
{
    Box box(100);
    iAP2MsgData announcement = event(EVT_SEND_SYNC_MSG);
    iAP2MsgData data = event(kEvent);
    refuse(kEvent);
    const ScopedHook fault(&Hooks::condSignal,
                           [](pthread_cond_t* condition)
                           {
                               support::real::condSignal(condition);
                               errno = EPERM;
                               return EINVAL;
                           });
    EXPECT_EQ(box.sendMessageSyncAnnounced(&announcement, &data), -1);
    EXPECT_THAT(
        takeMessages(),
        UnorderedElementsAre(MatchesRegex(kPosted), kSyncListRefuses,
                             "E sendMessage: pthread_cond_signal fail, Operation not permitted"));
}

TEST_F(RefusingTest, SendMsgSync_WhenTheControlRecordIsRefused_WaitsAllTheSame)
{
    iAP2MsgHandler handler;
    takeMessages();
    refuse(EVT_SEND_SYNC_MSG);
    iAP2MsgData data = event(kEvent);
    const BoxWatch watch;
    EXPECT_EQ(handler.sendMsgSync(&data), 0);
    EXPECT_THAT(takeMessages(),
                ElementsAre(kBefore, kListRefuses, MatchesRegex(kSenderWaits), kEnd));
    EXPECT_EQ(watch.waits, 1);
    iAP2MsgData out{};
    handler.recvMsgSync(&out);
    EXPECT_EQ(out.evtID, kEvent);
}

class EachRefusedSender : public RefusingTest, public testing::WithParamInterface<Sender>
{
protected:
    static std::string error()
    {
        return std::string("E ") + GetParam().name + " error!!";
    }
};

class EachRefusedSyncSender : public EachRefusedSender
{
};

std::string nameOf(const testing::TestParamInfo<Sender>& tested)
{
    return tested.param.name;
}

INSTANTIATE_TEST_SUITE_P(iAP2MsgHandler, EachRefusedSender,
                         testing::ValuesIn(support::kAsynchronousSenders), nameOf);
INSTANTIATE_TEST_SUITE_P(iAP2MsgHandler, EachRefusedSyncSender,
                         testing::ValuesIn(support::kSynchronousSenders), nameOf);

TEST_P(EachRefusedSender, Send_WhenTheMailboxRefuses_ReportsUnderItsOwnNameAndReturnsMinusTwo)
{
    iAP2MsgHandler handler;
    takeMessages();
    refuseAll();
    EXPECT_EQ(GetParam().send(handler), -2);
    EXPECT_THAT(takeMessages(), ElementsAre(kListRefuses, error()));
}

TEST_P(EachRefusedSyncSender, Send_WhenEverythingIsRefused_ReportsUnderItsOwnNameAndReturnsMinusTwo)
{
    iAP2MsgHandler handler;
    takeMessages();
    refuseAll();
    EXPECT_EQ(GetParam().send(handler), -2);
    EXPECT_THAT(takeMessages(),
                ElementsAre(kBefore, kListRefuses, kSyncListRefuses, kEnd, error()));
}

TEST_P(EachRefusedSyncSender, Send_WhenTheRecordIsRefused_ReportsUnderItsOwnNameAndReturnsMinusTwo)
{
    iAP2MsgHandler handler;
    takeMessages();
    refuse(kEvent);
    EXPECT_EQ(GetParam().send(handler), -2);
    EXPECT_THAT(takeMessages(),
                ElementsAre(kBefore, MatchesRegex(kPosted), kSyncListRefuses, kEnd, error()));
}

TEST_P(EachRefusedSyncSender, Send_WhenOnlyTheControlRecordIsRefused_ReportsNothingOfItsOwn)
{
    iAP2MsgHandler handler;
    takeMessages();
    refuse(EVT_SEND_SYNC_MSG);
    const BoxWatch watch;
    EXPECT_EQ(GetParam().send(handler), 0);
    EXPECT_THAT(takeMessages(),
                ElementsAre(kBefore, kListRefuses, MatchesRegex(kSenderWaits), kEnd));
}

/** Its thread's pauses are counted and not made. */
class PatientHandler : public iAP2MsgHandler
{
public:
    void run() override
    {
        const ScopedHook hook(&Hooks::usleep,
                              [this](useconds_t)
                              {
                                  ++pauses;
                                  return 0;
                              });
        iAP2MsgHandler::run();
    }

    int pauses = 0; // read when the thread has been joined
};

TEST_F(RefusingTest, Run_WhenAnAnnouncedRecordWasRefused_LooksForItInVainAndGoesOn)
{
    setLogLevel(20);
    PatientHandler handler;
    int handled = 0;
    handler.registerEventTable(1, "count", new Delegate([&](iAP2MsgData*) { ++handled; }));
    LineCounter waiting("Waiting ... next Message ");
    ASSERT_EQ(handler.start(), iAP2Thread::Success);
    waiting.waitFor(1);
    takeMessages();
    setLogLevel(90);
    refuse(kEvent);
    EXPECT_EQ(handler.sendMsgSyncV(kEvent), -2); // and yet the thread is woken
    EXPECT_EQ(handler.sendMsgV(1), 0);
    EXPECT_EQ(handler.sendMsgV(EVT_LINKLOOP_EXIT), 0);
    EXPECT_EQ(handler.join(), iAP2Thread::Success);
    EXPECT_EQ(handler.pauses, kPauses);
    EXPECT_EQ(handled, 1);
    std::vector<std::string> own;
    std::vector<std::string> threads;
    for (std::string& message : takeMessages())
    {
        const bool isOwn = message.find("sendM") != std::string::npos;
        (isOwn ? own : threads).push_back(std::move(message));
    }
    EXPECT_THAT(own, ElementsAre(kSyncListRefuses, "E sendMsgSyncV error!!"));
    EXPECT_THAT(threads,
                ElementsAre("E receiveMessageSync Timeout!!", "E exeMsgSync: unknown event 9999",
                            "E run: exit loop by EVT_LINKLOOP_EXIT"));
}

TEST_F(RefusingTest, Destroy_WhenTheExitRecordIsRefused_ReportsTheResultAndGoesOn)
{
    bool isFreed = false;
    {
        iAP2MsgHandler handler;
        const std::shared_ptr<bool> freed(&isFreed, [](bool* flag) { *flag = true; });
        handler.registerEventTable(1, "A", new Delegate([freed](iAP2MsgData*) {}));
        takeMessages();
        refuse(EVT_LINKLOOP_EXIT);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("D ~iAP2MsgHandler()", kListRefuses, "E result : -2",
                                            "D ~EventTable(A)", kNothingToJoin));
    EXPECT_TRUE(isFreed);
}

TEST_F(RefusingTest, Destroy_WhenTheExitRecordIsRefusedAndADelegateRuns_StopsBehindIt)
{
    setLogLevel(90);
    bool isFreed = false;
    {
        iAP2MsgHandler handler;
        std::promise<void> entered;
        const std::shared_ptr<bool> freed(&isFreed, [](bool* flag) { *flag = true; });
        handler.registerEventTable(1, "until stop",
                                   new Delegate(
                                       [&handler, &entered, freed](iAP2MsgData*)
                                       {
                                           entered.set_value();
                                           while (!handler.getStopVal())
                                           {
                                               std::this_thread::yield();
                                           }
                                       }));
        ASSERT_EQ(handler.start(), iAP2Thread::Success);
        ASSERT_EQ(handler.sendMsgV(1), 0);
        entered.get_future().wait();
        refuse(EVT_LINKLOOP_EXIT);
    }
    EXPECT_THAT(takeMessages(), ElementsAre(kListRefuses, "E result : -2",
                                            "E run: Thread Stop Routine !!", kNothingToJoin));
    EXPECT_TRUE(isFreed);
}

} // namespace
