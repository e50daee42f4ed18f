/**
 * Handlers and boxes under load, from outside the library.
 *
 * Here the trace library only counts: lines are too many to be remembered.
 */
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <dirent.h>
#include <malloc.h>
#include <pthread.h>

#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAP2MsgHandler.h>
#include <traceif/traceif.h>

#include "Sanitizers.h"

namespace
{

std::atomic<long> droppedRecords{0};
std::atomic<long> syncTimeouts{0};
std::atomic<long> failedCalls{0};
std::atomic<long> receiverWaits{0};
std::atomic<long> senderWaits{0};

} // namespace

extern "C" int qn_log_print(const char* /*path*/, const char* /*function*/, int /*line*/,
                            int /*severity*/, int /*size*/, int /*flags*/, const char* format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const auto holds = [&](const char* part) { return std::strstr(text, part) != nullptr; };
    droppedRecords += holds("sendMessage: queue full, max_size_100, delete oldest") ? 1 : 0;
    syncTimeouts += holds("receiveMessageSync Timeout!!") ? 1 : 0;
    failedCalls += holds(": pthread_") ? 1 : 0;
    receiverWaits += holds("Waiting ... next Message") ? 1 : 0;
    senderWaits += holds("sendMessageSync: m_condSync") ? 1 : 0;
    return 0;
}

namespace
{

using Delegate = IAP2Delegate<void, iAP2MsgData*>;

constexpr int kCapacity = 100;
constexpr int kSenders = 8;
constexpr unsigned int kRecordsPerSender = 100000;
#ifdef KORVANE_TESTS_EMULATED
constexpr int kShortLivedHandlers = 3000; // two emulated threads take some milliseconds to make
#else
constexpr int kShortLivedHandlers = 10000;
#endif
constexpr std::chrono::seconds kPatience{5};

/** Ends the process when it is not fed for five seconds. */
class Watchdog
{
public:
    explicit Watchdog(const char* task) : mTask(task), mThread([this] { watch(); })
    {
    }
    ~Watchdog()
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mIsOver = true;
        }
        mChanged.notify_all();
        mThread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void feed()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mMeals;
        mFed = std::chrono::steady_clock::now();
    }

private:
    void watch()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        while (!mIsOver)
        {
            const auto deadline = mFed + kPatience;
            if (std::chrono::steady_clock::now() >= deadline)
            {
                std::fprintf(stderr, "%s hangs in round %ld\n", mTask, mMeals);
                std::abort();
            }
            mChanged.wait_until(lock, deadline);
        }
    }

    const char* mTask;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::chrono::steady_clock::time_point mFed = std::chrono::steady_clock::now();
    long mMeals = 0;
    bool mIsOver = false;
    std::thread mThread; // the last: it uses all others
};

/** Waits for a counter that a trace line moves; the watchdog bounds it. */
void waitUntilAbove(const std::atomic<long>& counter, long value)
{
    while (counter <= value)
    {
        std::this_thread::yield();
    }
}

int entriesOf(const char* folder)
{
    DIR* const directory = opendir(folder);
    if (directory == nullptr)
    {
        ADD_FAILURE() << folder;
        return -1;
    }
    int entries = 0;
    while (readdir(directory) != nullptr)
    {
        ++entries;
    }
    closedir(directory);
    return entries;
}

class StressTest : public testing::Test
{
protected:
    StressTest()
    {
        setLogLevel(90);
        droppedRecords = 0;
        syncTimeouts = 0;
        failedCalls = 0;
        receiverWaits = 0;
        senderWaits = 0;
    }
    ~StressTest() override
    {
        setLogLevel(0);
    }
};

/*
 *   sender 0 ──┐
 *     ...      ├─> mailbox of 100 ──> handler
 *   sender 7 ──┘        └──> dropped, oldest first
 *
 * The mailbox is nearly always full, and the receiver takes while senders drop.
 */
TEST_F(StressTest, SendMsg_WhenEightThreadsFloodAHandler_LosesOnlyWhatIsReportedAndKeepsOrder)
{
    std::vector<long> last(kSenders, -1);
    long delivered = 0;
    long outOfOrder = 0;
    std::atomic<long> accepted{0};
    {
        iAP2MsgHandler handler;
        handler.registerEventTable(1, "count",
                                   new Delegate(
                                       [&](iAP2MsgData* data)
                                       {
                                           ++delivered;
                                           long& previous = last.at(data->dParam1);
                                           const long number = data->dParam2;
                                           outOfOrder += number > previous ? 0 : 1;
                                           previous = number;
                                       }));
        handler.registerEventTable(2, "barrier", new Delegate([](iAP2MsgData*) {}));
        ASSERT_EQ(handler.start(), iAP2Thread::Success);
        std::vector<std::thread> senders;
        for (unsigned int sender = 0; sender < kSenders; ++sender)
        {
            senders.emplace_back(
                [&, sender]
                {
                    long sent = 0;
                    for (unsigned int i = 0; i < kRecordsPerSender; ++i)
                    {
                        sent += handler.sendMsgDD(1, sender, i) == 0 ? 1 : 0;
                    }
                    accepted += sent;
                });
        }
        for (std::thread& sender : senders)
        {
            sender.join();
        }
        EXPECT_EQ(handler.sendMsgSyncV(2), 0); // everything before it is dispatched by then
    }
    EXPECT_EQ(accepted, static_cast<long>(kSenders) * kRecordsPerSender);
    EXPECT_EQ(delivered + droppedRecords, accepted);
    EXPECT_EQ(outOfOrder, 0);
    EXPECT_GT(delivered, 0);
    EXPECT_EQ(failedCalls, 0);
    RecordProperty("delivered", std::to_string(delivered));
    RecordProperty("dropped", std::to_string(droppedRecords));
}

/*
 * No sender has more on the way than its share of the mailbox, so nothing is dropped and every
 * synchronous sender is woken, though not always by its own record. That is why what their records
 * lead to outlives them.
 */
TEST_F(StressTest, SendMsgSync_WhenOtherThreadsSendAsynchronously_EveryRecordIsHandledOnce)
{
    constexpr unsigned int kAsynchronous = 4;
    constexpr unsigned int kSynchronous = 4;
    constexpr long kEach = 20000;
    constexpr long kEachSynchronous = 1000;
    constexpr long kShare = 20; // four of them leave room for the synchronous announcements
    std::atomic<long> handled[kAsynchronous] = {};
    std::atomic<long> handledSynchronous{0};
    std::atomic<long> refused{0};
    {
        iAP2MsgHandler handler;
        handler.registerEventTable(
            1, "count", new Delegate([&](iAP2MsgData* data) { ++handled[data->dParam1]; }));
        handler.registerEventTable(2, "count",
                                   new Delegate([&](iAP2MsgData*) { ++handledSynchronous; }));
        handler.registerEventTable(3, "barrier", new Delegate([](iAP2MsgData*) {}));
        ASSERT_EQ(handler.start(), iAP2Thread::Success);
        std::vector<std::thread> senders;
        for (unsigned int sender = 0; sender < kAsynchronous; ++sender)
        {
            senders.emplace_back(
                [&, sender]
                {
                    for (long sent = 0; sent < kEach; ++sent)
                    {
                        waitUntilAbove(handled[sender], sent - kShare);
                        refused += handler.sendMsgD(1, sender) == 0 ? 0 : 1;
                    }
                });
        }
        for (unsigned int sender = 0; sender < kSynchronous; ++sender)
        {
            senders.emplace_back(
                [&]
                {
                    for (long sent = 0; sent < kEachSynchronous; ++sent)
                    {
                        refused += handler.sendMsgSyncV(2) == 0 ? 0 : 1;
                    }
                });
        }
        for (std::thread& sender : senders)
        {
            sender.join();
        }
        refused += handler.sendMsgSyncV(3) == 0 ? 0 : 1; // behind all the others
    }
    for (const std::atomic<long>& count : handled)
    {
        EXPECT_EQ(count, kEach);
    }
    EXPECT_EQ(handledSynchronous, kSynchronous * kEachSynchronous);
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(droppedRecords, 0);
    EXPECT_EQ(syncTimeouts, 0);
    EXPECT_EQ(failedCalls, 0);
}

/** One handler's life; what was sent is delivered, dropped or still in the mailbox at its end. */
void liveShortly(std::minstd_rand& random)
{
    const long droppedBefore = droppedRecords;
    std::atomic<long> delivered{0};
    std::atomic<long> sent{0};
    std::atomic<bool> isOver{false};
    {
        iAP2MsgHandler handler;
        handler.registerEventTable(1, "count", new Delegate([&](iAP2MsgData*) { ++delivered; }));
        ASSERT_EQ(handler.start(), iAP2Thread::Success);
        std::thread flood(
            [&]
            {
                while (!isOver)
                {
                    sent += handler.sendMsgV(1) == 0 ? 1 : 0;
                }
            });
        // Anything from before the thread's entry until well into the flood; more often early.
        const auto moment = std::chrono::steady_clock::now() +
                            std::chrono::microseconds((random() % 18) * (random() % 18));
        while (std::chrono::steady_clock::now() < moment)
        {
            sent += handler.sendMsgV(1) == 0 ? 1 : 0;
        }
        isOver = true;
        flood.join(); // nobody may send to what is being destroyed
    }
    const long left = sent - delivered - (droppedRecords - droppedBefore);
    ASSERT_GE(left, 0);
    ASSERT_LE(left, kCapacity);
}

TEST_F(StressTest, Destroy_WhenHandlersAreFloodedAtARandomMoment_NeverHangsAndLeavesNothing)
{
    constexpr unsigned int kSeed = 20210304;
    constexpr int kWarmUp = 50; // what the C library keeps for later is there by then
    constexpr long kSlack = 32 * 1024;
    Watchdog watchdog("a short-lived handler");
    std::minstd_rand random(kSeed);
    int threads = 0;
    int descriptors = 0;
    std::size_t inUse = 0;
    for (int i = 0; i < kShortLivedHandlers; ++i)
    {
        if (i == kWarmUp)
        {
            threads = entriesOf("/proc/self/task");
            descriptors = entriesOf("/proc/self/fd");
            inUse = mallinfo2().uordblks;
        }
        watchdog.feed();
        ASSERT_NO_FATAL_FAILURE(liveShortly(random));
    }
    const auto leaked = static_cast<long>(mallinfo2().uordblks) - static_cast<long>(inUse);
    EXPECT_LT(leaked, kSlack); // a few bytes a handler
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    // A joined thread may be listed for a moment.
    watchdog.feed();
    while (entriesOf("/proc/self/task") > threads)
    {
        std::this_thread::yield();
    }
    EXPECT_EQ(failedCalls, 0);
}

/* ---- Cancellation inside each blocking call ---- */

/** A thread that calls something which blocks, is cancelled there and has ended afterwards. */
void cancelInside(const std::function<void()>& blocking, const std::atomic<long>& reached)
{
    const long before = reached;
    pthread_t thread;
    const auto entry = [](void* call) -> void*
    {
        (*static_cast<const std::function<void()>*>(call))();
        return nullptr;
    };
    ASSERT_EQ(
        pthread_create(&thread, nullptr, entry, const_cast<std::function<void()>*>(&blocking)), 0);
    waitUntilAbove(reached, before);
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

constexpr int kCancellations = 100;

TEST_F(StressTest, ReceiveMessage_WhenItsThreadIsCancelled_LeavesTheBoxUsable)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    setLogLevel(20);
    Watchdog watchdog("a cancelled receiver");
    {
        iAP2MsgBox<iAP2MsgData> box(100);
        for (int i = 0; i < kCancellations; ++i)
        {
            watchdog.feed();
            iAP2MsgData out{};
            ASSERT_NO_FATAL_FAILURE(cancelInside([&] { box.receiveMessage(&out); }, receiverWaits));
            iAP2MsgData data = {i, 0, 0, 0, nullptr, nullptr, nullptr};
            ASSERT_EQ(box.sendMessage(&data), 40);
            ASSERT_EQ(box.receiveMessage(&out), 40);
            ASSERT_EQ(out.evtID, i);
        }
    }
    EXPECT_EQ(failedCalls, 0);
}

TEST_F(StressTest, SendMessageSync_WhenItsThreadIsCancelled_LeavesTheRecordAndTheBoxUsable)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    setLogLevel(20);
    Watchdog watchdog("a cancelled synchronous sender");
    {
        iAP2MsgBox<iAP2MsgData> box(100);
        for (int i = 0; i < kCancellations; ++i)
        {
            watchdog.feed();
            iAP2MsgData data = {i, 0, 0, 0, nullptr, nullptr, nullptr};
            ASSERT_NO_FATAL_FAILURE(cancelInside([&] { box.sendMessageSync(&data); }, senderWaits));
            iAP2MsgData out{};
            ASSERT_EQ(box.receiveMessageSync(&out), 40);
            ASSERT_EQ(out.evtID, i);
            ASSERT_EQ(box.receiveMessageSync(&out), 0);
            ASSERT_EQ(box.sendSyncFinishMessage(), 0);
        }
    }
    EXPECT_EQ(failedCalls, 0);
}

/** A handler whose thread is known, to be waited for when it has been cancelled. */
class KnownHandler : public iAP2MsgHandler
{
public:
    void run() override
    {
        mThread = pthread_self();
        iAP2MsgHandler::run();
    }

    /** Cancels the thread, which must have come as far as a line or a delegate of its loop. */
    void cancelAndWait()
    {
        const pthread_t thread = mThread;
        ASSERT_EQ(cancel(), iAP2Thread::Success);
        void* result = nullptr;
        ASSERT_EQ(pthread_join(thread, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
    }

private:
    std::atomic<pthread_t> mThread{};
};

/** A wait that nobody ends. */
class Forever
{
public:
    void wait()
    {
        struct Lock
        {
            pthread_mutex_t& mutex;
            explicit Lock(pthread_mutex_t& locked) : mutex(locked)
            {
                pthread_mutex_lock(&mutex);
            }
            ~Lock()
            {
                pthread_mutex_unlock(&mutex);
            }
            Lock(const Lock&) = delete;
            Lock& operator=(const Lock&) = delete;
        } const lock(mMutex);
        for (;;)
        {
            pthread_cond_wait(&mNever, &mMutex);
        }
    }

private:
    pthread_mutex_t mMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t mNever = PTHREAD_COND_INITIALIZER;
};

TEST_F(StressTest, SendMsgSync_WhenItsThreadIsCancelled_TheHandlerServesTheNextSender)
{
    setLogLevel(20);
    Watchdog watchdog("a cancelled sendMsgSync");
    std::atomic<long> entered{0};
    std::atomic<bool> mayReturn{false};
    iAP2MsgHandler handler;
    handler.registerEventTable(1, "block",
                               new Delegate(
                                   [&](iAP2MsgData*)
                                   {
                                       ++entered;
                                       while (!mayReturn)
                                       {
                                           std::this_thread::yield();
                                       }
                                   }));
    ASSERT_EQ(handler.start(), iAP2Thread::Success);
    for (int i = 0; i < kCancellations; ++i)
    {
        watchdog.feed();
        mayReturn = false;
        // The delegate runs: the sender is in its wait, and stays there.
        ASSERT_NO_FATAL_FAILURE(cancelInside([&] { handler.sendMsgSyncV(1); }, entered));
        const long waits = receiverWaits;
        mayReturn = true;
        waitUntilAbove(receiverWaits, waits); // or its finish would wake the next sender
        ASSERT_EQ(handler.sendMsgSyncV(1), 0);
    }
    EXPECT_EQ(failedCalls, 0);
}

TEST_F(StressTest, Run_WhenItsThreadIsCancelledWhileItWaits_TheHandlerCanBeStartedAgain)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    setLogLevel(20);
    Watchdog watchdog("a cancelled handler");
    KnownHandler handler;
    long handled = 0;
    handler.registerEventTable(1, "count", new Delegate([&](iAP2MsgData*) { ++handled; }));
    for (int i = 0; i < kCancellations; ++i)
    {
        watchdog.feed();
        const long waits = receiverWaits;
        ASSERT_EQ(handler.start(), iAP2Thread::Success);
        waitUntilAbove(receiverWaits, waits);
        ASSERT_NO_FATAL_FAILURE(handler.cancelAndWait());
    }
    ASSERT_EQ(handler.start(), iAP2Thread::Success);
    EXPECT_EQ(handler.sendMsgSyncV(1), 0);
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(handler.sendMsgV(EVT_LINKLOOP_EXIT), 0);
    EXPECT_EQ(handler.join(), iAP2Thread::Success);
    EXPECT_EQ(failedCalls, 0);
}

TEST_F(StressTest, Run_WhenItsThreadIsCancelledInADelegate_TheTableIsFreeAgain)
{
    Watchdog watchdog("a handler that is cancelled in a delegate");
    KnownHandler handler;
    std::atomic<long> entered{0};
    Forever forever;
    handler.registerEventTable(1, "block",
                               new Delegate(
                                   [&](iAP2MsgData*)
                                   {
                                       ++entered;
                                       forever.wait();
                                   }));
    for (int i = 0; i < kCancellations; ++i)
    {
        watchdog.feed();
        ASSERT_EQ(handler.start(), iAP2Thread::Success);
        ASSERT_EQ(handler.sendMsgV(1), 0);
        waitUntilAbove(entered, i);
        ASSERT_NO_FATAL_FAILURE(handler.cancelAndWait());
        handler.registerEventTable(2, "none", nullptr); // blocks while the table is locked
    }
    long handled = 0;
    handler.registerEventTable(3, "count", new Delegate([&](iAP2MsgData*) { ++handled; }));
    ASSERT_EQ(handler.start(), iAP2Thread::Success);
    EXPECT_EQ(handler.sendMsgSyncV(3), 0);
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(handler.sendMsgV(EVT_LINKLOOP_EXIT), 0);
    EXPECT_EQ(handler.join(), iAP2Thread::Success);
    EXPECT_EQ(failedCalls, 0);
}

} // namespace
