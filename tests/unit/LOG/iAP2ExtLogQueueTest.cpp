#include <korvane/iAP2ExtLog.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <korvane/iAp2LogUtil.h>

#include "Faults.h"
#include "Sanitizers.h"
#include "TraceRecorder.h"

namespace
{

using support::Hooks;
using support::ScopedHook;
using testing::ElementsAre;
using testing::IsEmpty;
namespace real = support::real;

// Clients walk the queue with the macros of <sys/queue.h>, compiled long ago.
static_assert(offsetof(iAP2LogItem, level) == 0 && offsetof(iAP2LogItem, logStr) == 8 &&
                  offsetof(iAP2LogItem, entries.tqe_next) == 16 &&
                  offsetof(iAP2LogItem, entries.tqe_prev) == 24 && sizeof(iAP2LogItem) == 32,
              "an item's fields have moved");
static_assert(offsetof(iAP2LogQueue, tqh_first) == 0 && offsetof(iAP2LogQueue, tqh_last) == 8 &&
                  sizeof(iAP2LogQueue) == 16,
              "the head's fields have moved");

/** Made of what ThreadSanitizer follows through a cancellation, and out of reach of the hooks. */
class Semaphore
{
public:
    Semaphore() = default;
    ~Semaphore()
    {
        pthread_cond_destroy(&mPosted);
        pthread_mutex_destroy(&mMutex);
    }
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    void post()
    {
        const Lock lock(mMutex);
        ++mCount;
        real::condSignal(&mPosted);
    }
    /** A cancellation point. */
    void wait()
    {
        const Lock lock(mMutex);
        while (mCount == 0)
        {
            real::condWait(&mPosted, &mMutex);
        }
        --mCount;
    }

private:
    struct Lock
    {
        explicit Lock(pthread_mutex_t& toLock) : mutex(toLock)
        {
            real::mutexLock(&mutex);
        }
        ~Lock()
        {
            real::mutexUnlock(&mutex);
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

        pthread_mutex_t& mutex;
    };

    pthread_mutex_t mMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t mPosted = PTHREAD_COND_INITIALIZER;
    int mCount = 0;
};

/** Keeps cancellation away for the lifetime of this object. */
class Uncancellable
{
public:
    Uncancellable()
    {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mPrevious);
    }
    ~Uncancellable()
    {
        pthread_setcancelstate(mPrevious, nullptr);
    }
    Uncancellable(const Uncancellable&) = delete;
    Uncancellable& operator=(const Uncancellable&) = delete;

private:
    int mPrevious = 0;
};

struct Handed
{
    int level;
    std::string text;
    std::size_t length;

    bool operator==(const Handed& other) const
    {
        return level == other.level && text == other.text && length == other.length;
    }
};

void PrintTo(const Handed& handed, std::ostream* out)
{
    *out << handed.level << " '" << handed.text << "' " << handed.length;
}

/** What is allocated and released while it matters: nothing twice, and in the end everything. */
class Ledger
{
public:
    void* malloc(std::size_t size)
    {
        void* const block = real::malloc(size);
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsLive[block] = true;
        return block;
    }
    void free(void* block)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        const auto known = mIsLive.find(block);
        if (known != mIsLive.end())
        {
            EXPECT_TRUE(known->second) << "released twice";
            if (!known->second)
            {
                return;
            }
            known->second = false;
        }
        real::free(block);
    }
    std::ptrdiff_t live() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return std::count_if(mIsLive.begin(), mIsLive.end(),
                             [](const auto& block) { return block.second; });
    }

private:
    mutable std::mutex mMutex;
    std::map<void*, bool> mIsLive;
};

/** One writer's thread, which stands still in its pauses and tells what it is doing. */
struct Writer
{
    /** Until it is in its next pause, which it then does not leave by itself. */
    void waitForPause()
    {
        paused.wait();
    }
    /** Through one turn of its loop. */
    void turn()
    {
        wake.post();
        paused.wait();
    }
    void* join()
    {
        void* value = nullptr;
        EXPECT_EQ(real::threadJoin(thread, &value), 0);
        isJoined = true;
        return value;
    }

    Semaphore paused;
    Semaphore wake;
    std::vector<useconds_t> pauses; // the writer's until it is in a pause
    std::vector<Handed> handed;     // likewise
    long tid = 0;                   // likewise
    pthread_t thread = 0;
    bool isJoined = false;
    Hooks hooks; // beside those that make it stand still
};

class QueuedLogTest : public support::TraceTest
{
protected:
    QueuedLogTest()
        : mCreate(&Hooks::threadCreate, [this](auto... arguments) { return create(arguments...); }),
          mCancel(&Hooks::threadCancel,
                  [this](pthread_t thread)
                  {
                      mCancelled.push_back(thread);
                      return mIsCancelReal ? real::threadCancel(thread) : 0;
                  }),
          mDetach(&Hooks::threadDetach,
                  [this](pthread_t thread)
                  {
                      mDetached.push_back(thread);
                      return 0; // joined below
                  }),
          mMalloc(&Hooks::malloc, [this](std::size_t size) { return mLedger.malloc(size); }),
          mFree(&Hooks::free, [this](void* block) { mLedger.free(block); })
    {
        my_tailq_head_iAP2 = {};
    }

    ~QueuedLogTest() override
    {
        iAp2ExternelLogWriteStop();
        for (const auto& writer : mWriters)
        {
            if (!writer->isJoined)
            {
                writer->wake.post();
                writer->join();
            }
        }
        EXPECT_EQ(mLedger.live(), 0);
        EXPECT_EQ(my_tailq_head_iAP2.tqh_first, nullptr);
    }

    /** The next writer is prepared by `prepare`. */
    void prepareNext(std::function<void(Writer&)> prepare)
    {
        mPrepare = std::move(prepare);
    }

    /** Starts a writer and waits for its first pause. */
    Writer& start()
    {
        EXPECT_EQ(iAp2ExternelLogWriteInit(), 0);
        mWriters.back()->waitForPause();
        return *mWriters.back();
    }

    static int add(std::uint32_t level, const std::string& text)
    {
        return iAp2ExternelLogWriteAddQueue(level, text.data(), text.size());
    }

    /** For threads that queue texts, whose blocks the ledger would otherwise meet unknown. */
    void bookThisThread()
    {
        support::hooks().malloc = [this](std::size_t size) { return mLedger.malloc(size); };
        support::hooks().free = [this](void* block) { mLedger.free(block); };
    }

    /** The texts in the queue, whose links are checked. */
    static std::vector<std::string> queued()
    {
        std::vector<std::string> texts;
        iAP2LogItem* const* field = &my_tailq_head_iAP2.tqh_first;
        for (; *field != nullptr; field = &(*field)->entries.tqe_next)
        {
            EXPECT_EQ((*field)->entries.tqe_prev, field);
            texts.emplace_back((*field)->logStr);
        }
        EXPECT_EQ(my_tailq_head_iAP2.tqh_last, field);
        return texts;
    }

    /** An item that a client has put into the queue by itself. */
    iAP2LogItem* queueByHand(const char* text)
    {
        auto* const item = static_cast<iAP2LogItem*>(mLedger.malloc(sizeof(iAP2LogItem)));
        item->level = 0;
        item->logStr = nullptr;
        if (text != nullptr)
        {
            item->logStr = static_cast<char*>(mLedger.malloc(std::strlen(text) + 1));
            std::strcpy(item->logStr, text);
        }
        item->entries = {nullptr, &my_tailq_head_iAP2.tqh_first};
        my_tailq_head_iAP2 = {item, &item->entries.tqe_next};
        return item;
    }

    Ledger mLedger;
    std::vector<std::unique_ptr<Writer>> mWriters;
    std::vector<pthread_t> mCancelled;
    std::vector<pthread_t> mDetached;
    bool mIsCancelReal = false;

private:
    struct Start
    {
        QueuedLogTest* test;
        Writer* writer;
        void* (*entry)(void*);
        void* argument;
    };

    int create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
               void* argument)
    {
        mWriters.push_back(std::make_unique<Writer>());
        Writer* const writer = mWriters.back().get();
        if (mPrepare)
        {
            mPrepare(*writer);
        }
        const int result = real::threadCreate(
            &writer->thread, attributes, &QueuedLogTest::enter,
            std::make_unique<Start>(Start{this, writer, entry, argument}).release());
        *thread = writer->thread;
        return result;
    }

    static void* enter(void* argument)
    {
        const Start start = *std::unique_ptr<Start>(static_cast<Start*>(argument));
        Writer* const writer = start.writer;
        Ledger* const ledger = &start.test->mLedger;
        writer->tid = getTid();
        Hooks& hooks = support::hooks();
        hooks = writer->hooks;
        hooks.threadCancel = [](pthread_t) { return 0; }; // of a sink that stops the writer
        hooks.threadDetach = [](pthread_t) { return 0; };
        hooks.malloc = [ledger](std::size_t size) { return ledger->malloc(size); };
        if (!hooks.free)
        {
            hooks.free = [ledger](void* block) { ledger->free(block); };
        }
        if (!hooks.usleep)
        {
            hooks.usleep = [writer](useconds_t microseconds)
            {
                writer->pauses.push_back(microseconds);
                writer->paused.post();
                writer->wake.wait();
                return 0;
            };
        }
        hooks.wirteDirect =
            [writer, sink = writer->hooks.wirteDirect](int level, char* text, std::size_t length)
        {
            // Not by strlen(), which a test may have replaced.
            writer->handed.push_back({level, std::string(text, strnlen(text, 1000)), length});
            return sink ? sink(level, text, length) : 0;
        };
        return start.entry(start.argument);
    }

    std::function<void(Writer&)> mPrepare;
    ScopedHook<decltype(Hooks::threadCreate)> mCreate;
    ScopedHook<decltype(Hooks::threadCancel)> mCancel;
    ScopedHook<decltype(Hooks::threadDetach)> mDetach;
    ScopedHook<decltype(Hooks::malloc)> mMalloc;
    ScopedHook<decltype(Hooks::free)> mFree;
};

/** Standard output for the lifetime of this object, or until it is taken. */
class Output
{
public:
    Output()
    {
        std::fflush(stdout);
        testing::internal::CaptureStdout();
    }
    ~Output()
    {
        if (!mIsTaken)
        {
            take();
        }
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    std::string take()
    {
        mIsTaken = true;
        return testing::internal::GetCapturedStdout();
    }

private:
    bool mIsTaken = false;
};

std::string createdLine(const Writer& writer)
{
    return "iAp2ExternelLogWriteThread() created!!! mTid[" + std::to_string(writer.tid) + "]\n";
}

std::string endedLine(const Writer& writer)
{
    return "iAp2ExternelLogWriteThread() ended!!! mTid[" + std::to_string(writer.tid) + "]\n";
}

/* ---- Begin and end of the module ------------------------------------------------------------- */

TEST_F(QueuedLogTest, iAP2initExternelLog_WhenCalledLikeItsCompanions_DoesNothing)
{
    Output output;
    iAP2initExternelLog();
    iAP2initExternelLogModelDefs();
    EXPECT_EQ(add(90, "text"), 0); // nothing was started
    iAP2TerminateExternelLog();
    iAP2TerminateExternelLogModelDefs();
    EXPECT_EQ(output.take(), "");
    EXPECT_THAT(mWriters, IsEmpty());
    EXPECT_THAT(queued(), IsEmpty());

    const Writer& writer = start();
    add(90, "text");
    iAP2initExternelLog();
    iAP2TerminateExternelLog();
    EXPECT_THAT(queued(), ElementsAre("text"));
    EXPECT_THAT(mCancelled, IsEmpty());
    EXPECT_EQ(writer.pauses.size(), 1U);
    EXPECT_THAT(support::takeTraces(), IsEmpty());
}

/* ---- Queueing without a writer --------------------------------------------------------------- */

TEST_F(QueuedLogTest, AddQueue_WhenNotStarted_Returns0AndQueuesNothing)
{
    Output output;
    int allocations = 0;
    int locks = 0;
    my_tailq_head_iAP2.tqh_last = &my_tailq_head_iAP2.tqh_first;
    {
        const ScopedHook malloc(&Hooks::malloc,
                                [&](std::size_t size)
                                {
                                    ++allocations;
                                    return real::malloc(size);
                                });
        const ScopedHook lock(&Hooks::mutexLock,
                              [&](pthread_mutex_t* mutex)
                              {
                                  ++locks;
                                  return real::mutexLock(mutex);
                              });
        EXPECT_EQ(iAp2ExternelLogWriteAddQueue(90, "text", 4), 0);
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(locks, 0);
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(output.take(), "");
}

TEST_F(QueuedLogTest, AddQueue_WhenTheHeadWasNeverInitialised_PointsItsEndAtItsFirstField)
{
    EXPECT_EQ(my_tailq_head_iAP2.tqh_last, nullptr);
    EXPECT_EQ(add(90, "text"), 0);
    EXPECT_EQ(my_tailq_head_iAP2.tqh_first, nullptr);
    EXPECT_EQ(my_tailq_head_iAP2.tqh_last, &my_tailq_head_iAP2.tqh_first);
}

TEST_F(QueuedLogTest, AddQueue_WhenNotStartedAndAnItemIsQueued_LeavesTheHeadAsItIs)
{
    iAP2LogItem* const item = queueByHand("by hand");
    my_tailq_head_iAP2.tqh_last = nullptr;
    EXPECT_EQ(add(90, "text"), 0);
    EXPECT_EQ(my_tailq_head_iAP2.tqh_first, item);
    EXPECT_EQ(my_tailq_head_iAP2.tqh_last, nullptr);
}

TEST_F(QueuedLogTest, AddQueue_WhenStopped_DropsTheText)
{
    start();
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(add(90, "text"), 0);
    EXPECT_THAT(queued(), IsEmpty());
}

/* ---- Start ----------------------------------------------------------------------------------- */

TEST_F(QueuedLogTest, Init_WhenNotStarted_InitialisesMutexThenThreadWithDefaults)
{
    std::vector<std::string> calls;
    {
        const ScopedHook init(&Hooks::mutexInit,
                              [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                              {
                                  calls.emplace_back(attributes == nullptr ? "mutex" : "other");
                                  return real::mutexInit(mutex, attributes);
                              });
        auto create = support::hooks().threadCreate;
        const ScopedHook thread(&Hooks::threadCreate,
                                [&](pthread_t* handle, const pthread_attr_t* attributes,
                                    void* (*entry)(void*), void* argument)
                                {
                                    calls.emplace_back(attributes == nullptr ? "thread" : "other");
                                    return create(handle, attributes, entry, argument);
                                });
        start();
    }
    EXPECT_THAT(calls, ElementsAre("mutex", "thread"));
    EXPECT_THAT(queued(), IsEmpty()); // from a head of zeros
}

TEST_F(QueuedLogTest, Init_WhenTheMutexCannotBeInitialised_ReturnsItsCodeAndStaysStopped)
{
    iAP2LogItem* const item = queueByHand("by hand");
    {
        const ScopedHook init(&Hooks::mutexInit,
                              support::failFirst(EAGAIN, ENOMEM, real::mutexInit));
        EXPECT_EQ(iAp2ExternelLogWriteInit(), EAGAIN);
    }
    EXPECT_THAT(mWriters, IsEmpty());
    EXPECT_EQ(my_tailq_head_iAP2.tqh_first, item); // not reset
    EXPECT_EQ(add(90, "text"), 0);
    EXPECT_THAT(queued(), ElementsAre("by hand"));

    int destroyed = 0;
    const ScopedHook destroy(&Hooks::mutexDestroy,
                             [&](pthread_mutex_t* mutex)
                             {
                                 ++destroyed;
                                 return real::mutexDestroy(mutex);
                             });
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(destroyed, 0);
    EXPECT_THAT(mCancelled, IsEmpty());
    start();
}

TEST_F(QueuedLogTest, Init_WhenTheThreadCannotBeCreated_ReturnsItsCodeAndStaysStopped)
{
    iAP2LogItem* const item = queueByHand("by hand");
    {
        const ScopedHook create(&Hooks::threadCreate,
                                [](pthread_t* thread, auto...)
                                {
                                    *thread = 1; // undefined after a failure
                                    errno = ENOMEM;
                                    return EAGAIN;
                                });
        EXPECT_EQ(iAp2ExternelLogWriteInit(), EAGAIN);
    }
    EXPECT_EQ(my_tailq_head_iAP2.tqh_first, item); // not reset
    EXPECT_EQ(add(90, "text"), 0);
    EXPECT_THAT(queued(), ElementsAre("by hand"));

    int destroyed = 0;
    const ScopedHook destroy(&Hooks::mutexDestroy,
                             [&](pthread_mutex_t* mutex)
                             {
                                 ++destroyed;
                                 return real::mutexDestroy(mutex);
                             });
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(destroyed, 1);
    EXPECT_THAT(mCancelled, IsEmpty());
}

TEST_F(QueuedLogTest, Init_WhenAnEarlierStartFailed_InitialisesNoMutexTwice)
{
    {
        const ScopedHook create(&Hooks::threadCreate, [](auto...) { return EAGAIN; });
        EXPECT_EQ(iAp2ExternelLogWriteInit(), EAGAIN);
    }
    std::vector<std::string> calls;
    const ScopedHook destroy(&Hooks::mutexDestroy,
                             [&](pthread_mutex_t* mutex)
                             {
                                 calls.emplace_back("destroy");
                                 return real::mutexDestroy(mutex);
                             });
    const ScopedHook init(&Hooks::mutexInit,
                          [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                          {
                              calls.emplace_back("init");
                              return real::mutexInit(mutex, attributes);
                          });
    Writer& writer = start();
    add(90, "text");
    writer.turn();
    EXPECT_THAT(writer.handed, ElementsAre(Handed{90, "text", 5}));
    iAp2ExternelLogWriteStop();
    EXPECT_THAT(calls, ElementsAre("destroy", "init", "destroy"));
}

TEST_F(QueuedLogTest, Init_WhenNotStarted_LetsNothingBeQueuedBeforeTheQueueIsReset)
{
    pthread_mutex_t* initialised = nullptr;
    const ScopedHook init(&Hooks::mutexInit,
                          [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                          {
                              initialised = mutex;
                              return real::mutexInit(mutex, attributes);
                          });
    int tried = 0;
    {
        const ScopedHook lock(&Hooks::mutexLock,
                              [&](pthread_mutex_t* mutex)
                              {
                                  if (mutex == initialised && tried++ == 0)
                                  {
                                      my_tailq_head_iAP2.tqh_last = &my_tailq_head_iAP2.tqh_first;
                                      add(90, "early");
                                  }
                                  return real::mutexLock(mutex);
                              });
        EXPECT_EQ(iAp2ExternelLogWriteInit(), 0);
    }
    mWriters.back()->waitForPause();
    EXPECT_EQ(tried, 1);
    EXPECT_EQ(mLedger.live(), 0);
}

TEST_F(QueuedLogTest, Init_WhenRunning_LosesWhatIsQueuedAndKeepsTheWriter)
{
    Writer& writer = start();
    add(90, "lost 1");
    add(90, "lost 2");
    iAP2LogItem* const first = my_tailq_head_iAP2.tqh_first;
    iAP2LogItem* const second = first->entries.tqe_next;
    int mutexes = 0;
    {
        const ScopedHook init(&Hooks::mutexInit,
                              [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                              {
                                  ++mutexes;
                                  return real::mutexInit(mutex, attributes);
                              });
        EXPECT_EQ(iAp2ExternelLogWriteInit(), 0);
    }
    EXPECT_EQ(mutexes, 0);
    EXPECT_EQ(mWriters.size(), 1U);
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(mLedger.live(), 4);

    add(90, "kept");
    writer.turn();
    EXPECT_THAT(writer.handed, ElementsAre(Handed{90, "kept", 5}));
    EXPECT_STREQ(first->logStr, "lost 1");
    EXPECT_STREQ(second->logStr, "lost 2");
    for (iAP2LogItem* const item : {first, second})
    {
        mLedger.free(item->logStr);
        mLedger.free(item);
    }
}

TEST_F(QueuedLogTest, Init_WhenRunningAndTheWriterHandsATextOn_LeavesTheNewQueueIntact)
{
    Semaphore entered;
    Semaphore leave;
    prepareNext(
        [&](Writer& writer)
        {
            writer.hooks.wirteDirect = [&](int, const char* text, std::size_t)
            {
                if (std::string(text) == "in hand")
                {
                    entered.post();
                    leave.wait();
                }
                return 0;
            };
        });
    Writer& writer = start();
    add(0, "in hand");
    add(0, "lost");
    iAP2LogItem* const lost = my_tailq_head_iAP2.tqh_first->entries.tqe_next;
    writer.wake.post();
    entered.wait();
    EXPECT_EQ(iAp2ExternelLogWriteInit(), 0);
    add(0, "new 1");
    add(0, "new 2");
    leave.post();
    writer.waitForPause();
    EXPECT_THAT(writer.handed,
                ElementsAre(Handed{0, "in hand", 8}, Handed{0, "new 1", 6}, Handed{0, "new 2", 6}));
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(mLedger.live(), 2);
    mLedger.free(lost->logStr);
    mLedger.free(lost);
}

/* ---- Queueing -------------------------------------------------------------------------------- */

TEST_F(QueuedLogTest, AddQueue_WhenRunning_AppendsACopyAtTheTail)
{
    start();
    std::string text = "first";
    EXPECT_EQ(add(90, text), 0);
    text = "other";
    EXPECT_THAT(queued(), ElementsAre("first"));
    EXPECT_EQ(add(UINT32_MAX, "second"), 0);
    EXPECT_EQ(add(0, "third"), 0);
    EXPECT_THAT(queued(), ElementsAre("first", "second", "third"));
    const iAP2LogItem* const first = my_tailq_head_iAP2.tqh_first;
    EXPECT_EQ(first->level, 90U);
    EXPECT_EQ(first->entries.tqe_next->level, UINT32_MAX);
    EXPECT_EQ(first->entries.tqe_next->entries.tqe_next->level, 0U);
}

TEST_F(QueuedLogTest, AddQueue_WhenLengthIsShorterThanTheText_CopiesThatManyBytes)
{
    start();
    EXPECT_EQ(iAp2ExternelLogWriteAddQueue(0, "a long text", 6), 0);
    EXPECT_THAT(queued(), ElementsAre("a long"));
}

TEST_F(QueuedLogTest, AddQueue_WhenTheTextHoldsZeros_CopiesAllAndHandsOnWhatIsInFront)
{
    Writer& writer = start();
    const char bytes[] = {'a', 'b', '\0', 'c', '\xff'};
    EXPECT_EQ(iAp2ExternelLogWriteAddQueue(40, bytes, sizeof bytes), 0);
    const std::string copy(my_tailq_head_iAP2.tqh_first->logStr, sizeof bytes + 1);
    EXPECT_EQ(copy, std::string("ab\0c\xff\0", 6));
    writer.turn();
    EXPECT_THAT(writer.handed, ElementsAre(Handed{40, "ab", 3}));
}

TEST_F(QueuedLogTest, AddQueue_WhenLengthIs0_QueuesAnEmptyText)
{
    Writer& writer = start();
    EXPECT_EQ(iAp2ExternelLogWriteAddQueue(40, "text", 0), 0);
    EXPECT_EQ(iAp2ExternelLogWriteAddQueue(60, nullptr, 0), 0);
    EXPECT_THAT(queued(), ElementsAre("", ""));
    writer.turn();
    EXPECT_THAT(writer.handed, ElementsAre(Handed{40, "", 1}, Handed{60, "", 1}));
}

TEST_F(QueuedLogTest, AddQueue_WhenLengthIsTheLargest_DropsTheTextWithoutAWord)
{
    start();
    Output output;
    EXPECT_EQ(iAp2ExternelLogWriteAddQueue(90, "text", SIZE_MAX), 0);
    EXPECT_EQ(output.take(), "");
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(mLedger.live(), 0);
}

TEST_F(QueuedLogTest, AddQueue_WhenLengthIsTheLargestThatCounts_AsksForAllOfIt)
{
    start();
    std::vector<std::size_t> sizes;
    Output output;
    {
        const ScopedHook malloc(&Hooks::malloc,
                                [&](std::size_t size) -> void*
                                {
                                    sizes.push_back(size);
                                    return size == SIZE_MAX ? nullptr : mLedger.malloc(size);
                                });
        iAp2ExternelLogWriteAddQueue(90, "text", SIZE_MAX - 1);
    }
    EXPECT_THAT(sizes, ElementsAre(sizeof(iAP2LogItem), SIZE_MAX));
    EXPECT_EQ(output.take(), "ERROR malloc failed!!  item->logStr is null\n");
}

TEST_F(QueuedLogTest, AddQueue_WhenTheItemCannotBeAllocated_WritesSoAndDropsTheText)
{
    start();
    Output output;
    std::vector<std::size_t> sizes;
    {
        const ScopedHook malloc(&Hooks::malloc,
                                [&](std::size_t size) -> void*
                                {
                                    sizes.push_back(size);
                                    return nullptr;
                                });
        iAp2ExternelLogWriteAddQueue(90, "text", 4);
    }
    EXPECT_EQ(output.take(), "ERROR malloc failed!!  item is null\n");
    EXPECT_THAT(sizes, ElementsAre(sizeof(iAP2LogItem)));
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_THAT(support::takeTraces(), IsEmpty());
}

TEST_F(QueuedLogTest, AddQueue_WhenTheTextCannotBeAllocated_ReleasesTheItemAndWritesSo)
{
    start();
    Output output;
    {
        const ScopedHook malloc(&Hooks::malloc,
                                [&](std::size_t size) -> void*
                                { return size == 5 ? nullptr : mLedger.malloc(size); });
        iAp2ExternelLogWriteAddQueue(90, "text", 4);
    }
    EXPECT_EQ(output.take(), "ERROR malloc failed!!  item->logStr is null\n");
    EXPECT_EQ(mLedger.live(), 0);
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_THAT(support::takeTraces(), IsEmpty());
}

TEST_F(QueuedLogTest, AddQueue_WhenRunning_CostsTwoAllocationsAndOneLock)
{
    std::vector<pthread_mutex_t*> initialised;
    {
        const ScopedHook init(&Hooks::mutexInit,
                              [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                              {
                                  initialised.push_back(mutex);
                                  return real::mutexInit(mutex, attributes);
                              });
        start();
    }
    std::vector<std::size_t> sizes;
    std::vector<pthread_mutex_t*> locked;
    std::vector<pthread_mutex_t*> unlocked;
    {
        const ScopedHook malloc(&Hooks::malloc,
                                [&](std::size_t size)
                                {
                                    sizes.push_back(size);
                                    return real::malloc(size);
                                });
        const ScopedHook lock(&Hooks::mutexLock,
                              [&](pthread_mutex_t* mutex)
                              {
                                  locked.push_back(mutex);
                                  return real::mutexLock(mutex);
                              });
        const ScopedHook unlock(&Hooks::mutexUnlock,
                                [&](pthread_mutex_t* mutex)
                                {
                                    unlocked.push_back(mutex);
                                    return real::mutexUnlock(mutex);
                                });
        for (int i = 0; i < 2; ++i) // into an empty queue and behind an item
        {
            iAp2ExternelLogWriteAddQueue(90, "text", 4);
        }
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{sizeof(iAP2LogItem), 5, sizeof(iAP2LogItem), 5}));
    ASSERT_EQ(initialised.size(), 1U);
    EXPECT_THAT(locked, ElementsAre(initialised[0], initialised[0]));
    EXPECT_THAT(unlocked, ElementsAre(initialised[0], initialised[0]));
}

TEST_F(QueuedLogTest, AddQueue_WhenUnlockingGivesACode_ReturnsIt)
{
    start();
    {
        const ScopedHook unlock(&Hooks::mutexUnlock,
                                [](pthread_mutex_t* mutex)
                                {
                                    real::mutexUnlock(mutex);
                                    return EPERM;
                                });
        EXPECT_EQ(iAp2ExternelLogWriteAddQueue(90, "text", 4), EPERM);
    }
    EXPECT_THAT(queued(), ElementsAre("text"));
}

TEST_F(QueuedLogTest, AddQueue_WhenTheHeadIsZerosAndTheWriterRuns_RepairsAndQueues)
{
    Writer& writer = start();
    my_tailq_head_iAP2 = {};
    EXPECT_EQ(add(90, "text"), 0);
    EXPECT_THAT(queued(), ElementsAre("text"));
    writer.turn();
    EXPECT_THAT(writer.handed, ElementsAre(Handed{90, "text", 5}));
}

TEST_F(QueuedLogTest, AddQueue_WhenTheHeadIsZerosAndTheTextIsDropped_RepairsAllTheSame)
{
    start();
    my_tailq_head_iAP2 = {};
    iAp2ExternelLogWriteAddQueue(90, "text", SIZE_MAX);
    EXPECT_EQ(my_tailq_head_iAP2.tqh_last, &my_tailq_head_iAP2.tqh_first);

    my_tailq_head_iAP2 = {};
    Output output;
    const ScopedHook malloc(&Hooks::malloc, [](std::size_t) { return nullptr; });
    iAp2ExternelLogWriteAddQueue(90, "text", 4);
    EXPECT_EQ(my_tailq_head_iAP2.tqh_last, &my_tailq_head_iAP2.tqh_first);
}

/* ---- The writer ------------------------------------------------------------------------------ */

TEST_F(QueuedLogTest, Writer_WhenStarted_SaysSoAndNamesItself)
{
    Output output;
    std::vector<std::string> names;
    char kernelName[16] = {};
    prepareNext(
        [&](Writer& writer)
        {
            writer.hooks.prctl = [&](int option, const void* argument)
            {
                names.push_back(std::to_string(option) + " " + static_cast<const char*>(argument));
                const int result = real::prctl(option, argument);
                real::prctl(PR_GET_NAME, kernelName);
                return result;
            };
        });
    const Writer& writer = start();
    EXPECT_EQ(output.take(), createdLine(writer));
    EXPECT_THAT(names, ElementsAre(std::to_string(PR_SET_NAME) + " iAp2ExternelLogWrite"));
    EXPECT_STREQ(kernelName, "iAp2ExternelLog");
}

TEST_F(QueuedLogTest, Writer_WhenItCannotBeNamed_SaysSoAndGoesOn)
{
    Output output;
    prepareNext([](Writer& writer) { writer.hooks.prctl = [](int, const void*) { return -1; }; });
    Writer& writer = start();
    add(90, "text");
    writer.turn();
    EXPECT_EQ(output.take(), createdLine(writer) + "setiAP2TreadName Error\n");
    EXPECT_THAT(writer.handed, ElementsAre(Handed{90, "text", 5}));
    EXPECT_THAT(support::takeTraces(), IsEmpty());
}

TEST_F(QueuedLogTest, Writer_WhenTheQueueIsEmpty_Pauses100Milliseconds)
{
    Writer& writer = start();
    writer.turn();
    add(90, "text");
    writer.turn();
    EXPECT_THAT(writer.pauses, ElementsAre(100000U, 100000U, 100000U));
}

TEST_F(QueuedLogTest, Writer_WhenSeveralTextsAreQueued_HandsAllOnInOrderAtOneWake)
{
    Writer& writer = start();
    std::vector<Handed> expected;
    for (int i = 0; i < 300; ++i)
    {
        const std::string text(static_cast<std::size_t>(i), 'x');
        add(static_cast<std::uint32_t>(i), text);
        expected.push_back({i, text, static_cast<std::size_t>(i) + 1});
    }
    EXPECT_THAT(writer.handed, IsEmpty());
    writer.turn();
    EXPECT_EQ(writer.handed, expected);
    EXPECT_EQ(writer.pauses.size(), 2U);
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(mLedger.live(), 0);
}

TEST_F(QueuedLogTest, Writer_WhenTheSinkQueuesAText_HandsThatOnBeforeItPauses)
{
    prepareNext(
        [](Writer& writer)
        {
            writer.hooks.wirteDirect = [](int level, const char*, std::size_t)
            { return level < 3 ? add(static_cast<std::uint32_t>(level) + 1, "again") : 0; };
        });
    Writer& writer = start();
    add(1, "first");
    writer.turn();
    EXPECT_THAT(writer.handed,
                ElementsAre(Handed{1, "first", 6}, Handed{2, "again", 6}, Handed{3, "again", 6}));
}

TEST_F(QueuedLogTest, Writer_WhenATextIsHandedOn_RemovesItUnderTheQueuesMutex)
{
    pthread_mutex_t* initialised = nullptr;
    const ScopedHook init(&Hooks::mutexInit,
                          [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                          {
                              initialised = mutex;
                              return real::mutexInit(mutex, attributes);
                          });
    std::vector<std::string> calls;
    const auto note = [&](const char* call, const pthread_mutex_t* mutex)
    {
        if (mutex == initialised)
        {
            calls.push_back(call + std::to_string(queued().size()));
        }
    };
    prepareNext(
        [&](Writer& writer)
        {
            writer.hooks.mutexLock = [&](pthread_mutex_t* mutex)
            {
                note("lock ", mutex);
                return real::mutexLock(mutex);
            };
            writer.hooks.mutexUnlock = [&](pthread_mutex_t* mutex)
            {
                note("unlock ", mutex);
                return real::mutexUnlock(mutex);
            };
            writer.hooks.wirteDirect = [&](int, const char*, std::size_t)
            {
                calls.emplace_back("hand on");
                return 0;
            };
        });
    Writer& writer = start();
    add(0, "first");
    add(0, "second");
    writer.turn();
    EXPECT_THAT(calls,
                ElementsAre("hand on", "lock 2", "unlock 1", "hand on", "lock 1", "unlock 0"));
    iAp2ExternelLogWriteStop();
    writer.wake.post();
    writer.join(); // before what its hooks refer to is gone
}

TEST_F(QueuedLogTest, Writer_WhenLevelsAreAnything_PassesThemOnUnchanged)
{
    setLogLevel(91);
    Writer& writer = start();
    for (const std::uint32_t level : {0U, 25U, 90U, 91U, 0x7fffffffU, 0x80000000U, 0xffffffffU})
    {
        add(level, "");
    }
    writer.turn();
    EXPECT_THAT(writer.handed, ElementsAre(Handed{0, "", 1}, Handed{25, "", 1}, Handed{90, "", 1},
                                           Handed{91, "", 1}, Handed{INT_MAX, "", 1},
                                           Handed{INT_MIN, "", 1}, Handed{-1, "", 1}));
}

TEST_F(QueuedLogTest, Writer_WhenATextIsHandedOn_ReachesTheTraceLibrary)
{
    prepareNext([](Writer& writer) { writer.hooks.wirteDirect = real::wirteDirect; });
    Writer& writer = start();
    add(90, "100%s");
    add(40, "second");
    writer.turn();
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 2U);
    EXPECT_EQ(traces[0].text, "100%s");
    EXPECT_EQ(traces[0].severity, 192);
    EXPECT_EQ(traces[0].function, "iAP2ExtLog");
    EXPECT_EQ(traces[1].text, "second");
    EXPECT_EQ(traces[1].severity, 128);
}

TEST_F(QueuedLogTest, Writer_WhenATextIsTooLong_SaysSoAndSkipsIt)
{
    prepareNext(
        [](Writer& writer)
        {
            writer.hooks.strlen = [](const char* text) -> std::size_t
            {
                const std::string what(text, strnlen(text, 1000));
                return what == "longest" ? INT32_MAX - 1
                       : what == "long"  ? INT32_MAX
                       : what == "huge"  ? SIZE_MAX
                                         : what.size();
            };
        });
    Writer& writer = start();
    Output output;
    for (const char* text : {"longest", "long", "huge", "short"})
    {
        add(0, text);
    }
    writer.turn();
    EXPECT_EQ(output.take(), "strlen(item->logStr) + 1 is larger than INT32_MAX\n"
                             "strlen(item->logStr) + 1 is larger than INT32_MAX\n");
    EXPECT_THAT(writer.handed, ElementsAre(Handed{0, "longest", INT32_MAX}, Handed{0, "short", 6}));
    EXPECT_EQ(mLedger.live(), 0);
}

TEST_F(QueuedLogTest, Writer_WhenAnItemHasNoText_SaysSoOverAndOverUntilItIsStopped)
{
    Output output;
    Semaphore looked;
    prepareNext(
        [&](Writer& writer)
        {
            writer.hooks.mutexLock = [&looked](pthread_mutex_t* mutex)
            {
                looked.post();
                return real::mutexLock(mutex);
            };
        });
    Writer& writer = start();
    iAP2LogItem* const item = queueByHand(nullptr);
    add(90, "behind");
    writer.wake.post();
    for (int i = 0; i < 20; ++i)
    {
        looked.wait();
    }
    EXPECT_EQ(__atomic_load_n(&my_tailq_head_iAP2.tqh_first, __ATOMIC_RELAXED), item);
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(mLedger.live(), 0);
    writer.waitForPause();
    writer.wake.post();
    writer.join();
    EXPECT_THAT(writer.handed, IsEmpty());

    std::string text = output.take();
    const std::string line = "item or item->logStr is NULL\n";
    const std::string created = createdLine(writer);
    ASSERT_EQ(text.compare(0, created.size(), created), 0);
    text.erase(0, created.size());
    int lines = 0;
    while (text.compare(0, line.size(), line) == 0)
    {
        text.erase(0, line.size());
        ++lines;
    }
    EXPECT_GT(lines, 10);
    EXPECT_EQ(text, endedLine(writer));
}

TEST_F(QueuedLogTest, Writer_WhenItFindsItselfStopped_SaysSoAndEnds)
{
    Output output;
    Writer& writer = start();
    iAp2ExternelLogWriteStop();
    writer.wake.post();
    EXPECT_EQ(writer.join(), nullptr);
    EXPECT_EQ(output.take(), createdLine(writer) + endedLine(writer));
}

TEST_F(QueuedLogTest, Writer_WhenCancelledInItsPause_EndsWithoutALine)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    mIsCancelReal = true;
    Output output;
    Writer& writer = start();
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(writer.join(), PTHREAD_CANCELED);
    EXPECT_EQ(output.take(), createdLine(writer));
}

TEST_F(QueuedLogTest, Writer_WhenTheCancellationIsStillPendingAtTheLoopsTest_WritesItsLastLine)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    mIsCancelReal = true;
    Semaphore paused;
    Semaphore wake;
    prepareNext(
        [&](Writer& writer)
        {
            writer.hooks.usleep = [&](useconds_t)
            {
                const Uncancellable shield;
                paused.post();
                wake.wait();
                return 0;
            };
        });
    Output output;
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // every line is a cancellation point
    EXPECT_EQ(iAp2ExternelLogWriteInit(), 0);
    paused.wait();
    iAp2ExternelLogWriteStop();
    wake.post();
    Writer& writer = *mWriters.back();
    EXPECT_EQ(writer.join(), nullptr);
    EXPECT_EQ(output.take(), createdLine(writer) + endedLine(writer));
    std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
}

/* ---- Stop ------------------------------------------------------------------------------------ */

TEST_F(QueuedLogTest, Stop_WhenRunning_CancelsDestroysTheMutexAndReleasesWhatIsQueued)
{
    std::vector<std::string> calls;
    pthread_mutex_t* initialised = nullptr;
    const ScopedHook init(&Hooks::mutexInit,
                          [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                          {
                              initialised = mutex;
                              return real::mutexInit(mutex, attributes);
                          });
    Writer& writer = start();
    add(90, "first");
    add(90, "second");
    {
        const ScopedHook cancel(&Hooks::threadCancel,
                                [&](pthread_t thread)
                                {
                                    calls.emplace_back("cancel");
                                    EXPECT_EQ(thread, writer.thread);
                                    return 0;
                                });
        const ScopedHook detach(&Hooks::threadDetach,
                                [&](pthread_t thread)
                                {
                                    calls.emplace_back("detach");
                                    EXPECT_EQ(thread, writer.thread);
                                    return 0;
                                });
        const ScopedHook destroy(&Hooks::mutexDestroy,
                                 [&](pthread_mutex_t* mutex)
                                 {
                                     calls.emplace_back("destroy");
                                     EXPECT_EQ(mutex, initialised);
                                     return real::mutexDestroy(mutex);
                                 });
        const ScopedHook free(&Hooks::free,
                              [&](void* block)
                              {
                                  calls.emplace_back("free");
                                  mLedger.free(block);
                              });
        iAp2ExternelLogWriteStop();
    }
    EXPECT_THAT(calls, ElementsAre("cancel", "detach", "destroy", "free", "free", "free", "free"));
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(mLedger.live(), 0);
    writer.wake.post();
    writer.join();
    EXPECT_THAT(writer.handed, IsEmpty());
}

TEST_F(QueuedLogTest, Stop_WhenNotStarted_ReleasesWhatIsQueuedAllTheSame)
{
    int destroyed = 0;
    const ScopedHook destroy(&Hooks::mutexDestroy,
                             [&](pthread_mutex_t* mutex)
                             {
                                 ++destroyed;
                                 return real::mutexDestroy(mutex);
                             });
    queueByHand("by hand");
    iAp2ExternelLogWriteStop();
    EXPECT_THAT(queued(), IsEmpty());
    queueByHand(nullptr);
    iAp2ExternelLogWriteStop();
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(mLedger.live(), 0);
    EXPECT_THAT(mCancelled, IsEmpty());
    EXPECT_THAT(mDetached, IsEmpty());
    EXPECT_EQ(destroyed, 0);
}

TEST_F(QueuedLogTest, Stop_WhenNothingWasEverQueued_LeavesTheHeadAsItIs)
{
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(my_tailq_head_iAP2.tqh_first, nullptr);
    EXPECT_EQ(my_tailq_head_iAP2.tqh_last, nullptr);
}

TEST_F(QueuedLogTest, Stop_WhenCalledTwice_DoesNothingTheSecondTime)
{
    start();
    int destroyed = 0;
    const ScopedHook destroy(&Hooks::mutexDestroy,
                             [&](pthread_mutex_t* mutex)
                             {
                                 ++destroyed;
                                 return real::mutexDestroy(mutex);
                             });
    iAp2ExternelLogWriteStop();
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(mCancelled.size(), 1U);
    EXPECT_EQ(mDetached.size(), 1U);
    EXPECT_EQ(destroyed, 1);
}

TEST_F(QueuedLogTest, Stop_WhenAnItemLiesWhereAnEarlierOneLay_ReleasesItToo)
{
    iAP2LogItem place;
    int released = 0;
    const auto free = [&](void* block)
    {
        if (block == &place)
        {
            ++released;
        }
        else
        {
            mLedger.free(block);
        }
    };
    prepareNext([&](Writer& writer) { writer.hooks.free = free; });
    Writer& writer = start();
    const ScopedHook freeHere(&Hooks::free, free);
    const ScopedHook malloc(&Hooks::malloc,
                            [&](std::size_t size) -> void*
                            { return size == sizeof place ? &place : mLedger.malloc(size); });
    add(90, "first");
    writer.turn();
    EXPECT_EQ(released, 1);
    add(90, "second");
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(released, 2);
    EXPECT_EQ(mLedger.live(), 0);
}

TEST_F(QueuedLogTest, Stop_WhenFollowedByInit_StartsAnotherWriter)
{
    Writer& first = start();
    iAp2ExternelLogWriteStop();
    first.wake.post();
    first.join();
    Writer& second = start();
    EXPECT_EQ(mWriters.size(), 2U);
    add(90, "text");
    second.turn();
    EXPECT_THAT(second.handed, ElementsAre(Handed{90, "text", 5}));
}

/** A sink that holds its first text until it is told to let it go. */
class SlowSinkTest : public QueuedLogTest
{
protected:
    SlowSinkTest()
    {
        prepareNext(
            [this](Writer& writer)
            {
                if (mWriters.size() == 1)
                {
                    writer.hooks.wirteDirect = [this](int, const char* text, std::size_t)
                    {
                        mText = text;
                        mEntered.post();
                        hold();
                        mTextAfterwards = text;
                        return 0;
                    };
                }
            });
    }

    ~SlowSinkTest() override
    {
        mLeave.post(); // of a test that has failed
    }

    /** The writer inside the sink with "in hand", and two more texts behind that. */
    Writer& startAndEnter()
    {
        Writer& writer = start();
        add(90, "in hand");
        add(90, "queued 1");
        add(90, "queued 2");
        writer.wake.post();
        mEntered.wait();
        return writer;
    }

    virtual void hold()
    {
        mLeave.wait();
    }

    Semaphore mEntered;
    Semaphore mLeave;
    std::string mText;
    std::string mTextAfterwards;
};

TEST_F(SlowSinkTest, Stop_WhenATextIsBeingHandedOn_LeavesThatTextToTheWriter)
{
    Writer& writer = startAndEnter();
    EXPECT_THAT(queued(), ElementsAre("in hand", "queued 1", "queued 2"));
    iAp2ExternelLogWriteStop();
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(mLedger.live(), 2);
    mLeave.post();
    writer.waitForPause();
    EXPECT_EQ(mTextAfterwards, "in hand");
    EXPECT_EQ(mLedger.live(), 0);
    EXPECT_THAT(queued(), IsEmpty());
    writer.wake.post();
    EXPECT_EQ(writer.join(), nullptr);
    EXPECT_THAT(writer.handed, ElementsAre(Handed{90, "in hand", 8}));
}

TEST_F(SlowSinkTest, Stop_WhenTheSinkIsCancelled_ReleasesItsTextOnce)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    mIsCancelReal = true;
    Writer& writer = startAndEnter();
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(writer.join(), PTHREAD_CANCELED);
    EXPECT_EQ(mTextAfterwards, "");
    EXPECT_EQ(mLedger.live(), 0);

    Writer& next = start();
    add(90, "next");
    next.turn();
    EXPECT_THAT(next.handed, ElementsAre(Handed{90, "next", 5}));
}

TEST_F(SlowSinkTest, Cancellation_WhenItIsNotStops_TakesTheTextOutOfTheQueue)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    Writer& writer = startAndEnter();
    real::threadCancel(writer.thread);
    EXPECT_EQ(writer.join(), PTHREAD_CANCELED);
    EXPECT_THAT(queued(), ElementsAre("queued 1", "queued 2"));
    EXPECT_EQ(mLedger.live(), 4);
}

TEST_F(SlowSinkTest, Stop_WhenTheNextWriterStartsMeanwhile_KeepsTheOldOneFromItsQueue)
{
    Writer& old = startAndEnter();
    iAp2ExternelLogWriteStop();
    Writer& next = start();
    ASSERT_EQ(mWriters.size(), 2U);
    add(90, "new 1");
    add(90, "new 2");
    mLeave.post();
    old.waitForPause();
    EXPECT_THAT(queued(), ElementsAre("new 1", "new 2"));
    EXPECT_EQ(mLedger.live(), 4);
    old.wake.post();
    EXPECT_EQ(old.join(), nullptr);
    EXPECT_THAT(queued(), ElementsAre("new 1", "new 2"));
    next.turn();
    EXPECT_THAT(old.handed, ElementsAre(Handed{90, "in hand", 8}));
    EXPECT_THAT(next.handed, ElementsAre(Handed{90, "new 1", 6}, Handed{90, "new 2", 6}));
}

TEST_F(SlowSinkTest, Stop_WhenTheNextWriterHandsOnMeanwhile_ReleasesEachTextOnce)
{
    Writer& old = startAndEnter();
    iAp2ExternelLogWriteStop();
    Writer& next = start();
    add(90, "new 1");
    add(90, "new 2");
    next.turn();
    add(90, "new 3");
    mLeave.post();
    old.waitForPause();
    EXPECT_THAT(queued(), ElementsAre("new 3"));
    next.turn();
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(mLedger.live(), 0);
    EXPECT_EQ(mTextAfterwards, "in hand");
}

/** A sink of two writers, each held with its first text. */
class TwoSlowSinksTest : public QueuedLogTest
{
protected:
    TwoSlowSinksTest()
    {
        prepareNext(
            [this](Writer& writer)
            {
                Sink& sink = mWriters.size() == 1 ? mFirst : mSecond;
                writer.hooks.wirteDirect = [&sink](int, const char*, std::size_t)
                {
                    sink.entered.post();
                    sink.leave.wait();
                    return 0;
                };
            });
    }

    struct Sink
    {
        Semaphore entered;
        Semaphore leave;
    };
    Sink mFirst;
    Sink mSecond;
};

TEST_F(TwoSlowSinksTest, Stop_WhenTheNextWriterHoldsAText_KeepsTheOldOneFromThatToo)
{
    Writer& old = start();
    add(90, "old");
    old.wake.post();
    mFirst.entered.wait();
    iAp2ExternelLogWriteStop();

    Writer& next = start();
    add(90, "new 1");
    add(90, "new 2");
    next.wake.post();
    mSecond.entered.wait();
    mFirst.leave.post(); // the old writer looks at a queue that is not its own
    old.waitForPause();
    EXPECT_THAT(queued(), ElementsAre("new 1", "new 2"));
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(mLedger.live(), 2);
    mSecond.leave.post();
    next.waitForPause();
    EXPECT_EQ(mLedger.live(), 0);
    EXPECT_THAT(old.handed, ElementsAre(Handed{90, "old", 4}));
    EXPECT_THAT(next.handed, ElementsAre(Handed{90, "new 1", 6}));
}

TEST_F(QueuedLogTest, Stop_WhenTheSinkCallsIt_ReleasesEachTextOnce)
{
    prepareNext(
        [](Writer& writer)
        {
            writer.hooks.wirteDirect = [](int, const char*, std::size_t)
            {
                iAp2ExternelLogWriteStop();
                return 0;
            };
        });
    Writer& writer = start();
    add(90, "in hand");
    add(90, "queued");
    writer.turn();
    EXPECT_THAT(writer.handed, ElementsAre(Handed{90, "in hand", 8}));
    EXPECT_THAT(queued(), IsEmpty());
    EXPECT_EQ(mLedger.live(), 0);
    writer.wake.post();
    EXPECT_EQ(writer.join(), nullptr);
}

TEST_F(QueuedLogTest, Init_WhenTheSinkCallsIt_ReleasesTheTextInHandOnce)
{
    prepareNext(
        [](Writer& writer)
        {
            writer.hooks.wirteDirect = [](int level, const char*, std::size_t)
            { return level == 1 ? iAp2ExternelLogWriteInit() : 0; };
        });
    Writer& writer = start();
    add(1, "in hand");
    writer.turn();
    add(2, "next");
    writer.turn();
    EXPECT_THAT(writer.handed, ElementsAre(Handed{1, "in hand", 8}, Handed{2, "next", 5}));
    EXPECT_EQ(mLedger.live(), 0);
}

/* ---- Several threads ------------------------------------------------------------------------- */

TEST_F(QueuedLogTest, AddQueue_WhenSeveralThreadsQueue_LosesNothingAndKeepsEachOnesOrder)
{
    constexpr int kProducers = 4;
    constexpr int kTexts = 250;
    for (int round = 0; round < 5; ++round)
    {
        Semaphore handed;
        prepareNext(
            [&](Writer& writer)
            {
                writer.hooks.usleep = [](useconds_t) { return real::usleep(100); };
                writer.hooks.wirteDirect = [&](int, const char*, std::size_t)
                {
                    handed.post();
                    return 0;
                };
            });
        ASSERT_EQ(iAp2ExternelLogWriteInit(), 0);
        std::vector<std::thread> producers;
        for (int producer = 0; producer < kProducers; ++producer)
        {
            producers.emplace_back(
                [this, producer]
                {
                    bookThisThread();
                    for (int i = 0; i < kTexts; ++i)
                    {
                        EXPECT_EQ(add(static_cast<std::uint32_t>(producer), std::to_string(i)), 0);
                    }
                });
        }
        for (std::thread& producer : producers)
        {
            producer.join();
        }
        for (int i = 0; i < kProducers * kTexts; ++i)
        {
            handed.wait();
        }
        iAp2ExternelLogWriteStop();
        Writer& writer = *mWriters.back();
        EXPECT_EQ(writer.join(), nullptr);
        ASSERT_EQ(writer.handed.size(), static_cast<std::size_t>(kProducers * kTexts));
        int next[kProducers] = {};
        for (const Handed& one : writer.handed)
        {
            EXPECT_EQ(one.text, std::to_string(next[one.level]++));
        }
    }
}

TEST_F(QueuedLogTest, AddQueue_WhenSeveralThreadsMeetAHeadOfZeros_LosesNothing)
{
    constexpr int kProducers = 4;
    Writer& writer = start();
    for (int round = 0; round < 200; ++round)
    {
        my_tailq_head_iAP2 = {};
        std::vector<std::thread> producers;
        for (int i = 0; i < kProducers; ++i)
        {
            producers.emplace_back(
                [this]
                {
                    bookThisThread();
                    add(0, "text");
                });
        }
        for (std::thread& producer : producers)
        {
            producer.join();
        }
        ASSERT_EQ(queued().size(), static_cast<std::size_t>(kProducers));
        writer.turn();
    }
    EXPECT_EQ(writer.handed.size(), 200U * kProducers);
}

TEST_F(QueuedLogTest, AddQueue_WhenTheWriterIsBeingStarted_LosesNothingThatItHasTaken)
{
    for (int round = 0; round < 100; ++round)
    {
        Semaphore go;
        std::vector<std::thread> producers;
        for (int i = 0; i < 2; ++i)
        {
            producers.emplace_back(
                [this, &go]
                {
                    bookThisThread();
                    go.wait();
                    for (int k = 0; k < 20; ++k)
                    {
                        add(0, "text");
                    }
                });
        }
        my_tailq_head_iAP2 = {};
        go.post();
        go.post();
        ASSERT_EQ(iAp2ExternelLogWriteInit(), 0);
        for (std::thread& producer : producers)
        {
            producer.join();
        }
        Writer& writer = *mWriters.back();
        writer.waitForPause();
        add(1, "last");
        writer.turn();
        ASSERT_FALSE(writer.handed.empty());
        EXPECT_EQ(writer.handed.back(), (Handed{1, "last", 5}));
        EXPECT_THAT(queued(), IsEmpty());
        iAp2ExternelLogWriteStop();
        writer.wake.post();
        writer.join();
    }
}

/** The library's own pauses and cancellations; its threads are joined instead of detached. */
class StoppedWriters
{
public:
    StoppedWriters()
        : mDetach(&Hooks::threadDetach,
                  [this](pthread_t thread)
                  {
                      mThreads.push_back(thread);
                      return 0;
                  })
    {
    }
    ~StoppedWriters()
    {
        for (const pthread_t thread : mThreads)
        {
            EXPECT_EQ(real::threadJoin(thread, nullptr), 0);
        }
    }
    StoppedWriters(const StoppedWriters&) = delete;
    StoppedWriters& operator=(const StoppedWriters&) = delete;

private:
    std::vector<pthread_t> mThreads;
    ScopedHook<decltype(Hooks::threadDetach)> mDetach;
};

class QueuedLogThreadsTest : public support::TraceTest
{
};

TEST_F(QueuedLogThreadsTest, InitAndStop_WhenSeveralThreadsCallThem_LeaveAWriterThatCanBeStarted)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    Output output;
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 3; ++caller)
    {
        callers.emplace_back(
            []
            {
                const StoppedWriters writers;
                for (int i = 0; i < 100; ++i)
                {
                    EXPECT_EQ(iAp2ExternelLogWriteInit(), 0);
                    iAp2ExternelLogWriteStop();
                }
            });
    }
    for (std::thread& caller : callers)
    {
        caller.join();
    }
    const StoppedWriters writers;
    ASSERT_EQ(iAp2ExternelLogWriteInit(), 0);
    support::LineCounter lines("after all");
    iAp2ExternelLogWriteAddQueue(90, "after all", 9);
    lines.waitFor(1);
    iAp2ExternelLogWriteStop();
    EXPECT_EQ(support::takeTraces().size(), 1U);
}

TEST_F(QueuedLogThreadsTest, Stop_WhenTheWriterIsAnywhere_LetsEachTextBeHandedOnAtMostOnce)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    Output output;
    {
        const StoppedWriters writers;
        for (int round = 0; round < 300; ++round)
        {
            ASSERT_EQ(iAp2ExternelLogWriteInit(), 0);
            for (int i = 0; i < 10 + round % 7; ++i)
            {
                const std::string text = std::to_string(round) + "." + std::to_string(i);
                iAp2ExternelLogWriteAddQueue(90, text.data(), text.size());
            }
            if (round % 3 == 0)
            {
                std::this_thread::yield();
            }
            iAp2ExternelLogWriteStop();
        }
    }
    std::map<std::string, int> counts;
    for (const support::Trace& trace : support::takeTraces())
    {
        EXPECT_EQ(++counts[trace.text], 1) << trace.text;
    }
    EXPECT_EQ(my_tailq_head_iAP2.tqh_first, nullptr);
}

} // namespace
