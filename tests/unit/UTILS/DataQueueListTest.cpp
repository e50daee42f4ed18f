#include <korvane/DataQueueList.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sys/prctl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>
#include <korvane/utils.h>

#include "Faults.h"
#include "Sanitizers.h"
#include "TraceRecorder.h"

namespace
{

using IAP2::DataQueueList;
using support::Hooks;
using support::ScopedHook;
using support::takeMessages;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

/** The fields, in a record that has nothing else. */
struct Fields
{
    pthread_t queueThread;
    bool isTerminate;
    ListNode* queueHead;
    ListNode* queueTail;
    pthread_mutex_t queueMutex;
    pthread_cond_t queueCond;
    void (*dataHandleFunc)(void*);
};

static_assert(!std::is_polymorphic<DataQueueList>::value, "clients know its layout");
static_assert(std::is_standard_layout<DataQueueList>::value, "clients know its layout");
static_assert(sizeof(DataQueueList) == sizeof(Fields), "clients know its layout");
static_assert(!std::is_copy_constructible<DataQueueList>::value, "a worker has one object");
static_assert(!std::is_copy_assignable<DataQueueList>::value, "a worker has one object");

constexpr std::size_t kGuardSize = 16;

/** Something that happens once, and that others wait for. */
class Event
{
public:
    void happens()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mHasHappened = true;
        mCondition.notify_all();
    }
    void wait()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mCondition.wait(lock, [this] { return mHasHappened; });
    }
    bool hasHappened()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mHasHappened;
    }

private:
    std::mutex mMutex;
    std::condition_variable mCondition;
    bool mHasHappened = false;
};

/** What the handler was called with, in order. */
class Handled
{
public:
    void add(void* data)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mItems.push_back(data);
        mAdded.notify_all();
    }
    void waitFor(std::size_t count)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mAdded.wait(lock, [&] { return mItems.size() >= count; });
    }
    std::vector<void*> items()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mItems;
    }
    std::size_t size()
    {
        return items().size();
    }

private:
    std::mutex mMutex;
    std::condition_variable mAdded;
    std::vector<void*> mItems;
};

/** What the handler does; set in front of the queue. */
std::function<void(void*)> onData;

void handle(void* data)
{
    onData(data);
}

/** The worker's hooks are its own: they are set on its thread, before its entry is called. */
class WorkerHooks
{
public:
    explicit WorkerHooks(std::function<void()> setUp)
        : mSetUp(std::move(setUp)),
          mCreate(&Hooks::threadCreate,
                  [this](pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                         void* argument)
                  {
                      EXPECT_EQ(attributes, nullptr);
                      mEntry = entry;
                      mArgument = argument;
                      const int result =
                          support::real::threadCreate(thread, attributes, enter, this);
                      mThread = *thread;
                      return result;
                  })
    {
    }
    WorkerHooks(const WorkerHooks&) = delete;
    WorkerHooks& operator=(const WorkerHooks&) = delete;

    pthread_t thread() const
    {
        return mThread;
    }
    void* argument() const
    {
        return mArgument;
    }

private:
    static void* enter(void* self)
    {
        auto* const hooks = static_cast<WorkerHooks*>(self);
        hooks->mSetUp();
        return hooks->mEntry(hooks->mArgument);
    }

    std::function<void()> mSetUp;
    void* (*mEntry)(void*) = nullptr;
    void* mArgument = nullptr;
    pthread_t mThread{};
    const ScopedHook<decltype(Hooks::threadCreate)> mCreate;
};

class DataQueueListTest : public support::TraceTest
{
protected:
    DataQueueListTest()
    {
        onData = [this](void* data) { handled.add(data); };
    }
    ~DataQueueListTest() override
    {
        onData = nullptr;
    }

    void* newItem()
    {
        return iAP2_malloc(1);
    }

    /** Releases what the handler got. */
    void releaseHandled()
    {
        for (void* const item : handled.items())
        {
            if (item != nullptr)
            {
                iAP2_free(item);
            }
        }
    }

    Handled handled;
};

/** A queue without a worker, which the test is itself. */
class Workerless
{
public:
    explicit Workerless(void (*handler)(void*) = handle)
    {
        const ScopedHook fault(&Hooks::threadCreate,
                               [](pthread_t* thread, const pthread_attr_t*, void* (*)(void*), void*)
                               {
                                   *thread = ~pthread_t{0}; // undefined where it fails
                                   return EAGAIN;
                               });
        queue = std::make_unique<DataQueueList>(handler);
        takeMessages();
    }

    std::unique_ptr<DataQueueList> queue;
};

/** A queue whose worker says when it waits for a signal. */
class Watched
{
public:
    Watched()
        : mHooks(
              [this]
              {
                  support::hooks().condWait =
                      [this](pthread_cond_t* condition, pthread_mutex_t* mutex)
                  {
                      struct Leave
                      {
                          Watched& watched;
                          ~Leave()
                          {
                              watched.count(&Watched::mReturns); // also when it is cancelled
                          }
                      } const leave{*this};
                      count(&Watched::mWaits);
                      return support::real::condWait(condition, mutex);
                  };
              })
    {
    }

    ~Watched()
    {
        destroy();
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;

    /** Creates the queue; the worker holds the mutex until it really waits. */
    DataQueueList& start(void (*handler)(void*) = handle)
    {
        mQueue = std::make_unique<DataQueueList>(handler);
        return *mQueue;
    }
    void destroy()
    {
        if (mQueue != nullptr)
        {
            mQueue->terminate();
            mQueue.reset();
        }
    }
    void waitUntilItWaits(int times)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mWaiting.wait(lock, [&] { return mWaits >= times; });
    }
    void waitUntilItHasLeftTheWait()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mWaiting.wait(lock, [&] { return mReturns >= 1; });
    }
    int waits()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mWaits;
    }
    const WorkerHooks& hooks() const
    {
        return mHooks;
    }

private:
    void count(int Watched::*counter)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++(this->*counter);
        mWaiting.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mWaiting;
    int mWaits = 0;
    int mReturns = 0;
    const WorkerHooks mHooks;
    std::unique_ptr<DataQueueList> mQueue;
};

/* ---- Constructor ----------------------------------------------------------------------------- */

TEST_F(DataQueueListTest, Construct_Always_StartsAWorkerThatHandlesNullOnceAndWaits)
{
    Watched watched;
    watched.start();
    watched.waitUntilItWaits(1);
    EXPECT_THAT(handled.items(), ElementsAre(nullptr));
    EXPECT_THAT(takeMessages(),
                ElementsAre("D DataQueueList()",
                            MatchesRegex("I QueueTreadRunLoop\\(\\) created!!! mTid\\[[0-9]+\\]"),
                            "I QueueTreadRunLoop()", "D getDataQueue()", "D dataHandler()",
                            "D waitDataQueue()"));
}

TEST_F(DataQueueListTest, Construct_Always_PassesItselfToAThreadWithDefaultAttributes)
{
    Watched watched; // looks at the attributes
    DataQueueList& queue = watched.start();
    EXPECT_EQ(watched.hooks().argument(), &queue);
    queue.terminate();
}

TEST_F(DataQueueListTest, Construct_Always_InitialisesMutexThenConditionBeforeTheThread)
{
    std::vector<std::string> calls;
    const ScopedHook mutexHook(&Hooks::mutexInit,
                               [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                               {
                                   calls.emplace_back("mutex");
                                   EXPECT_EQ(attributes, nullptr);
                                   return support::real::mutexInit(mutex, attributes);
                               });
    const ScopedHook conditionHook(&Hooks::condInit,
                                   [&](pthread_cond_t* cond, const pthread_condattr_t* attributes)
                                   {
                                       calls.emplace_back("condition");
                                       EXPECT_EQ(attributes, nullptr);
                                       return support::real::condInit(cond, attributes);
                                   });
    const ScopedHook heap(&Hooks::malloc,
                          [&](std::size_t size)
                          {
                              calls.emplace_back("node");
                              return support::real::malloc(size);
                          });
    const ScopedHook thread(&Hooks::threadCreate,
                            [&](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)
                            {
                                calls.emplace_back("thread");
                                return EAGAIN;
                            });
    support::onTrace([&](const std::string& text)
                     { calls.push_back(support::columnsOf(text).message); });
    const DataQueueList queue(handle);
    support::onTrace(nullptr);
    EXPECT_THAT(calls, ElementsAre("DataQueueList()", "mutex", "condition", "node", "node",
                                   "thread", "ERROR : fail to create pthread ret[11]"));
}

TEST_F(DataQueueListTest, Construct_WhenMutexAndConditionCannotBeInitialised_DoesNotCare)
{
    const ScopedHook mutexHook(&Hooks::mutexInit,
                               [](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                               {
                                   support::real::mutexInit(mutex, attributes);
                                   return ENOMEM;
                               });
    const ScopedHook conditionHook(&Hooks::condInit,
                                   [](pthread_cond_t* cond, const pthread_condattr_t* attributes)
                                   {
                                       support::real::condInit(cond, attributes);
                                       return ENOMEM;
                                   });
    DataQueueList queue(handle);
    void* const item = newItem();
    EXPECT_EQ(queue.addDataQueue(item), 1);
    queue.terminate();
    EXPECT_THAT(takeMessages(), Each(testing::Not(testing::StartsWith("E "))));
    releaseHandled();
}

TEST_F(DataQueueListTest, Construct_WhenTheThreadCannotBeCreated_ReportsEightBitsOfTheResult)
{
    struct Case
    {
        int result;
        std::vector<std::string> messages;
    };
    for (const Case& one :
         {Case{EAGAIN, {"D DataQueueList()", "E ERROR : fail to create pthread ret[11]"}},
          Case{200, {"D DataQueueList()", "E ERROR : fail to create pthread ret[200]"}},
          Case{256 + 22, {"D DataQueueList()", "E ERROR : fail to create pthread ret[22]"}},
          Case{256, {"D DataQueueList()"}}})
    {
        int joins = 0;
        const ScopedHook join(&Hooks::threadJoin,
                              [&](pthread_t, void**)
                              {
                                  ++joins;
                                  return 0;
                              });
        const ScopedHook fault(
            &Hooks::threadCreate,
            [&](pthread_t* thread, const pthread_attr_t*, void* (*)(void*), void*)
            {
                *thread = ~pthread_t{0}; // undefined where it fails
                return one.result;
            });
        takeMessages();
        DataQueueList queue(handle);
        EXPECT_EQ(takeMessages(), one.messages);
        queue.terminate(); // there is no worker, whatever was reported
        EXPECT_EQ(joins, 0);
    }
}

TEST_F(DataQueueListTest, Construct_WhenTheThreadCannotBeCreated_LeavesAQueueThatAcceptsItems)
{
    const Workerless workerless;
    void* const item = newItem();
    EXPECT_EQ(workerless.queue->addDataQueue(item), 1);
    void* taken = nullptr;
    workerless.queue->getDataQueue(&taken);
    EXPECT_EQ(taken, item);
    iAP2_free(item);
    EXPECT_THAT(handled.items(), IsEmpty());
}

TEST_F(DataQueueListTest, Construct_WhenMemoryIsShort_LeavesAnObjectThatRefusesItems)
{
    for (const int allowed : {0, 1})
    {
        std::vector<void*> released;
        const ScopedHook fault(&Hooks::malloc,
                               [left = allowed](std::size_t size) mutable -> void*
                               { return left-- > 0 ? support::real::malloc(size) : nullptr; });
        const ScopedHook watch(&Hooks::free,
                               [&released](void* block)
                               {
                                   released.push_back(block);
                                   support::real::free(block);
                               });
        {
            const Workerless workerless;
            int item = 0;
            EXPECT_EQ(workerless.queue->addDataQueue(&item), 0);
            void* taken = &item;
            workerless.queue->getDataQueue(&taken);
            EXPECT_EQ(taken, nullptr);
            const char* const noQueue = "E ERROR : pHead[(nil)] or pTail[(nil)] is NULL";
            EXPECT_THAT(takeMessages(),
                        ElementsAre("D addDataQueue()", noQueue, "D getDataQueue()", noQueue));
        }
        EXPECT_THAT(released, SizeIs(static_cast<std::size_t>(allowed))); // each once
        EXPECT_THAT(takeMessages(),
                    ElementsAre("D ~DataQueueList()",
                                MatchesRegex("W function\\[listFinalNode\\], line\\[[0-9]+\\] "
                                             "error\\[[0-9]+\\]\\[.*\\]")));
    }
}

/* ---- The worker's thread --------------------------------------------------------------------- */

TEST_F(DataQueueListTest, Worker_Always_IsNamedAndTracesItsThreadId)
{
    std::string name;
    long id = 0;
    onData = [&](void* data)
    {
        char text[16] = {};
        prctl(PR_GET_NAME, text);
        name = text;
        id = getTid();
        handled.add(data);
    };
    DataQueueList queue(handle);
    handled.waitFor(1);
    queue.terminate();
    EXPECT_EQ(name, "iAP2DataQueue");
    EXPECT_NE(id, getTid());
    const std::vector<std::string> messages = takeMessages();
    const auto count = [&](const std::string& message)
    { return std::count(messages.begin(), messages.end(), message); };
    const std::string number = "mTid[" + std::to_string(id) + "]";
    EXPECT_EQ(count("I QueueTreadRunLoop() created!!! " + number), 1);
    EXPECT_EQ(count("I QueueTreadRunLoop() ended !!! " + number), 1);
}

TEST_F(DataQueueListTest, Worker_WhenItEnds_SaysSoInThisOrder)
{
    Watched watched;
    DataQueueList& queue = watched.start();
    watched.waitUntilItWaits(1);
    takeMessages();
    queue.terminate();
    EXPECT_THAT(takeMessages(),
                ElementsAre("D terminate()", "I QueueTreadRunLoop() terminate",
                            MatchesRegex("I QueueTreadRunLoop\\(\\) ended !!! mTid\\[[0-9]+\\]"),
                            "I Terminated QueueThreadRunLoop"));
}

TEST_F(DataQueueListTest, Worker_WhenItHasNoObject_NamesItsThreadReportsAndEnds)
{
    void* value = &handled;
    std::vector<std::string> calls;
    {
        const ScopedHook create(
            &Hooks::threadCreate,
            [&](pthread_t*, const pthread_attr_t*, void* (*entry)(void*), void*)
            {
                takeMessages();
                std::thread(
                    [&]
                    {
                        support::hooks().prctl = [&](int option, const void* name)
                        {
                            EXPECT_EQ(option, PR_SET_NAME);
                            calls.emplace_back(static_cast<const char*>(name));
                            return 0;
                        };
                        support::onTrace([&](const std::string& text)
                                         { calls.push_back(support::columnsOf(text).message); });
                        value = entry(nullptr);
                        support::onTrace(nullptr);
                    })
                    .join();
                return EAGAIN;
            });
        const DataQueueList queue(handle);
    }
    EXPECT_EQ(value, nullptr);
    EXPECT_THAT(calls, ElementsAre("iAP2DataQueue", "ERROR : QueueTread data is NULL"));
    EXPECT_THAT(takeMessages(), testing::Contains("E ERROR : QueueTread data is NULL"));
    EXPECT_THAT(handled.items(), IsEmpty());
}

TEST_F(DataQueueListTest, Worker_WhenItCannotBeNamed_RunsAllTheSame)
{
    const WorkerHooks hooks(
        []
        {
            support::hooks().prctl = [](int, const void*)
            {
                errno = EFAULT;
                return -1;
            };
        });
    DataQueueList queue(handle);
    handled.waitFor(1);
    queue.terminate();
    EXPECT_THAT(takeMessages(), testing::Contains("E setiAP2ThreadName Error"));
}

TEST_F(DataQueueListTest, Worker_WhenItEnds_ReturnsNull)
{
    void* value = &handled;
    const ScopedHook join(&Hooks::threadJoin, [&](pthread_t thread, void**)
                          { return support::real::threadJoin(thread, &value); });
    DataQueueList queue(handle);
    queue.terminate();
    EXPECT_EQ(value, nullptr);
}

/* ---- The loop -------------------------------------------------------------------------------- */

TEST_F(DataQueueListTest, Loop_WhenItemsAreQueued_HandlesThemInOrderWithoutWaiting)
{
    const Workerless workerless;
    DataQueueList& queue = *workerless.queue;
    void* const items[] = {newItem(), newItem(), newItem()};
    for (void* const item : items)
    {
        queue.addDataQueue(item);
    }
    int waits = 0;
    const ScopedHook wait(&Hooks::condWait,
                          [&](pthread_cond_t*, pthread_mutex_t*)
                          {
                              ++waits;
                              return 0;
                          });
    onData = [&](void* data)
    {
        handled.add(data);
        if (data == items[2])
        {
            queue.terminate();
        }
    };
    takeMessages();
    queue.QueueTreadRunLoop();
    EXPECT_THAT(handled.items(), ElementsAreArray(items));
    EXPECT_EQ(waits, 0);
    EXPECT_THAT(takeMessages(),
                ElementsAre("I QueueTreadRunLoop()", "D getDataQueue()", "D dataHandler()",
                            "D getDataQueue()", "D dataHandler()", "D getDataQueue()",
                            "D dataHandler()", "D terminate()", "D waitDataQueue()",
                            "I QueueTreadRunLoop() terminate"));
    releaseHandled();
}

TEST_F(DataQueueListTest, Loop_WhenAWakeUpFindsNothing_CallsTheHandlerWithNull)
{
    const Workerless workerless;
    DataQueueList& queue = *workerless.queue;
    int waits = 0;
    const ScopedHook wait(&Hooks::condWait,
                          [&](pthread_cond_t*, pthread_mutex_t*)
                          {
                              ++waits;
                              return 0; // for no reason
                          });
    onData = [&](void* data)
    {
        handled.add(data);
        if (handled.size() == 3)
        {
            queue.terminate();
        }
    };
    queue.QueueTreadRunLoop();
    EXPECT_THAT(handled.items(), ElementsAre(nullptr, nullptr, nullptr));
    EXPECT_EQ(waits, 2);
}

TEST_F(DataQueueListTest, Loop_WhenThereIsNoHandler_ReportsOnEachPassAndLosesTheItems)
{
    const Workerless workerless(nullptr);
    DataQueueList& queue = *workerless.queue;
    void* const items[] = {newItem(), newItem()};
    queue.addDataQueue(items[0]);
    queue.addDataQueue(items[1]);
    const ScopedHook wait(&Hooks::condWait,
                          [&](pthread_cond_t*, pthread_mutex_t* mutex)
                          {
                              support::real::mutexUnlock(mutex);
                              queue.terminate();
                              return support::real::mutexLock(mutex);
                          });
    takeMessages();
    queue.QueueTreadRunLoop();
    EXPECT_THAT(takeMessages(),
                ElementsAre("I QueueTreadRunLoop()", "D getDataQueue()", "D dataHandler()",
                            "E datahandleFunc is NULL", "D getDataQueue()", "D dataHandler()",
                            "E datahandleFunc is NULL", "D waitDataQueue()", "D terminate()",
                            "I QueueTreadRunLoop() terminate"));
    void* left = &handled;
    queue.getDataQueue(&left);
    EXPECT_EQ(left, nullptr);
    iAP2_free(items[0]);
    iAP2_free(items[1]);
}

TEST_F(DataQueueListTest, Loop_WhenThereIsNoQueue_ReportsItTwiceOnEachPass)
{
    std::unique_ptr<Workerless> workerless;
    {
        const ScopedHook fault(&Hooks::malloc, [](std::size_t) -> void* { return nullptr; });
        workerless = std::make_unique<Workerless>();
    }
    onData = [&](void*) { workerless->queue->terminate(); };
    workerless->queue->QueueTreadRunLoop();
    const char* const noQueue = "E ERROR : pHead[(nil)] or pTail[(nil)] is NULL";
    EXPECT_THAT(takeMessages(),
                ElementsAre("I QueueTreadRunLoop()", "D getDataQueue()", noQueue, "D dataHandler()",
                            "D terminate()", noQueue, "D waitDataQueue()",
                            "I QueueTreadRunLoop() terminate"));
}

TEST_F(DataQueueListTest, Loop_Always_CallsTheHandlerWithoutTheLock)
{
    Watched watched;
    DataQueueList& queue = watched.start();
    watched.waitUntilItWaits(1);
    void* taken = &handled;
    Event handledIt;
    onData = [&](void* data)
    {
        if (data != nullptr)
        {
            std::thread([&] { queue.getDataQueue(&taken); }).join(); // would wait for the lock
            handledIt.happens();
        }
        handled.add(data);
    };
    queue.addDataQueue(newItem());
    handledIt.wait();
    EXPECT_EQ(taken, nullptr);
    queue.terminate();
    releaseHandled();
}

TEST_F(DataQueueListTest, Loop_WhenItemsAreAdded_HandlesThemInTheOrderOfArrival)
{
    Watched watched;
    DataQueueList& queue = watched.start();
    std::vector<void*> expected = {nullptr};
    for (int i = 0; i < 3; ++i)
    {
        watched.waitUntilItWaits(1 + i);
        expected.push_back(newItem());
        EXPECT_EQ(queue.addDataQueue(expected.back()), 1);
        handled.waitFor(expected.size());
    }
    queue.terminate();
    EXPECT_THAT(handled.items(), ElementsAreArray(expected));
    releaseHandled();
}

/*
 *     worker                         producer
 *
 *     the queue is empty
 *                                    put A, signal: nobody waits
 *     wait
 *                                    put B, signal
 *     handle A, then B
 */
TEST_F(DataQueueListTest, Loop_WhenAnItemComesBetweenLookAndWait_HandlesItOnlyWithTheNext)
{
    void* const a = newItem();
    void* const b = newItem();
    Watched watched;
    DataQueueList* queue = nullptr;
    Event constructed;
    std::atomic<bool> isFirst{true};
    support::onTrace(
        [&](const std::string& text)
        {
            if (text.find("waitDataQueue()") != std::string::npos && isFirst.exchange(false))
            {
                constructed.wait();
                std::thread([&] { EXPECT_EQ(queue->addDataQueue(a), 1); }).join();
            }
        });
    queue = &watched.start();
    constructed.happens();
    watched.waitUntilItWaits(1);
    EXPECT_THAT(handled.items(), ElementsAre(nullptr)); // and A is queued
    EXPECT_EQ(queue->addDataQueue(b), 1);
    handled.waitFor(3);
    EXPECT_THAT(handled.items(), ElementsAre(nullptr, a, b));
    watched.waitUntilItWaits(2);
    queue->terminate();
    releaseHandled();
}

/* ---- Single operations ----------------------------------------------------------------------- */

/** The calls of the test's thread on mutexes, conditions and memory, in their order. */
class Calls
{
public:
    Calls()
        : mLock(&Hooks::mutexLock,
                [this](pthread_mutex_t* mutex)
                {
                    names.emplace_back("lock");
                    return support::real::mutexLock(mutex);
                }),
          mUnlock(&Hooks::mutexUnlock,
                  [this](pthread_mutex_t* mutex)
                  {
                      names.emplace_back("unlock");
                      return support::real::mutexUnlock(mutex);
                  }),
          mSignal(&Hooks::condSignal,
                  [this](pthread_cond_t* condition)
                  {
                      names.emplace_back("signal");
                      return support::real::condSignal(condition);
                  }),
          mWait(&Hooks::condWait,
                [this](pthread_cond_t*, pthread_mutex_t*)
                {
                    names.emplace_back("wait");
                    return 0;
                }),
          mMalloc(&Hooks::malloc,
                  [this](std::size_t size)
                  {
                      names.emplace_back("malloc");
                      return support::real::malloc(size);
                  }),
          mFree(&Hooks::free,
                [this](void* block)
                {
                    names.emplace_back("free");
                    released.push_back(static_cast<char*>(block) + kGuardSize);
                    support::real::free(block);
                }),
          mMutexDestroy(&Hooks::mutexDestroy,
                        [this](pthread_mutex_t* mutex)
                        {
                            names.emplace_back("destroy mutex");
                            return support::real::mutexDestroy(mutex);
                        }),
          mCondDestroy(&Hooks::condDestroy,
                       [this](pthread_cond_t* condition)
                       {
                           names.emplace_back("destroy condition");
                           return support::real::condDestroy(condition);
                       })
    {
        setLogLevel(IAP2_LOG_ERROR + 1); // the recorder of traces has a mutex of its own
    }
    ~Calls()
    {
        setLogLevel(0);
    }
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    std::vector<std::string> names;
    std::vector<void*> released;

private:
    const ScopedHook<decltype(Hooks::mutexLock)> mLock;
    const ScopedHook<decltype(Hooks::mutexUnlock)> mUnlock;
    const ScopedHook<decltype(Hooks::condSignal)> mSignal;
    const ScopedHook<decltype(Hooks::condWait)> mWait;
    const ScopedHook<decltype(Hooks::malloc)> mMalloc;
    const ScopedHook<decltype(Hooks::free)> mFree;
    const ScopedHook<decltype(Hooks::mutexDestroy)> mMutexDestroy;
    const ScopedHook<decltype(Hooks::condDestroy)> mCondDestroy;
};

TEST_F(DataQueueListTest, Add_WhenThereIsAnItem_PutsAndSignalsUnderTheLock)
{
    const Workerless workerless;
    void* const item = newItem();
    {
        Calls calls;
        EXPECT_EQ(workerless.queue->addDataQueue(item), 1);
        EXPECT_THAT(calls.names, ElementsAre("lock", "malloc", "signal", "unlock"));
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
    workerless.queue->addDataQueue(newItem());
    EXPECT_THAT(takeMessages(), ElementsAre("D addDataQueue()"));
}

TEST_F(DataQueueListTest, Add_WhenTheItemIsNull_WarnsAndWakesNobody)
{
    const Workerless workerless;
    {
        Calls calls;
        EXPECT_EQ(workerless.queue->addDataQueue(nullptr), 0);
        EXPECT_THAT(calls.names, IsEmpty());
    }
    EXPECT_EQ(workerless.queue->addDataQueue(nullptr), 0);
    EXPECT_THAT(takeMessages(), ElementsAre("D addDataQueue()", "W addDataQueue data is null"));
}

TEST_F(DataQueueListTest, Add_WhenMemoryIsShort_Returns0AndSignalsAllTheSame)
{
    const Workerless workerless;
    int signals = 0;
    const ScopedHook signal(&Hooks::condSignal,
                            [&](pthread_cond_t* condition)
                            {
                                ++signals;
                                return support::real::condSignal(condition);
                            });
    const ScopedHook fault(&Hooks::malloc, [](std::size_t) -> void* { return nullptr; });
    int item = 0;
    EXPECT_EQ(workerless.queue->addDataQueue(&item), 0);
    EXPECT_EQ(signals, 1);
    EXPECT_THAT(takeMessages(),
                ElementsAre("D addDataQueue()", "E iAP2_malloc error : iAP2_malloc Error!!",
                            "E ERROR : out of memory"));
}

TEST_F(DataQueueListTest, Get_Always_TakesTheOldestUnderTheLock)
{
    const Workerless workerless;
    void* const items[] = {newItem(), newItem()};
    workerless.queue->addDataQueue(items[0]);
    workerless.queue->addDataQueue(items[1]);
    takeMessages();
    void* taken = nullptr;
    {
        Calls calls;
        workerless.queue->getDataQueue(&taken);
        EXPECT_THAT(calls.names, ElementsAre("lock", "free", "unlock"));
    }
    EXPECT_EQ(taken, items[0]);
    workerless.queue->getDataQueue(&taken);
    EXPECT_EQ(taken, items[1]);
    workerless.queue->getDataQueue(&taken);
    EXPECT_EQ(taken, nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre("D getDataQueue()", "D getDataQueue()"));
    iAP2_free(items[0]);
    iAP2_free(items[1]);
}

TEST_F(DataQueueListTest, Wait_Always_WaitsOnceUnderTheLock)
{
    const Workerless workerless;
    {
        Calls calls;
        workerless.queue->waitDataQueue();
        EXPECT_THAT(calls.names, ElementsAre("lock", "wait", "unlock"));
    }
    const ScopedHook wait(&Hooks::condWait, [](pthread_cond_t*, pthread_mutex_t*) { return 0; });
    workerless.queue->waitDataQueue();
    EXPECT_THAT(takeMessages(), ElementsAre("D waitDataQueue()"));
}

TEST_F(DataQueueListTest, Wait_WhenItemsAreQueued_WaitsAllTheSame)
{
    const Workerless workerless;
    workerless.queue->addDataQueue(newItem());
    Calls calls;
    workerless.queue->waitDataQueue();
    EXPECT_THAT(calls.names, ElementsAre("lock", "wait", "unlock"));
}

TEST_F(DataQueueListTest, DataHandler_Always_CallsTheFunctionThatItIsGiven)
{
    const Workerless workerless(nullptr);
    int item = 0;
    workerless.queue->dataHandler(&item, handle);
    EXPECT_THAT(handled.items(), ElementsAre(&item));
    EXPECT_THAT(takeMessages(), ElementsAre("D dataHandler()"));
    workerless.queue->dataHandler(&item, nullptr);
    EXPECT_THAT(handled.items(), ElementsAre(&item));
    EXPECT_THAT(takeMessages(), ElementsAre("D dataHandler()", "E datahandleFunc is NULL"));
}

/* ---- Destructor ------------------------------------------------------------------------------ */

TEST_F(DataQueueListTest, Destroy_Always_ReleasesItemsAndQueueThenDestroysTheMutex)
{
    Workerless workerless;
    void* const items[] = {newItem(), newItem()};
    workerless.queue->addDataQueue(items[0]);
    workerless.queue->addDataQueue(items[1]);
    takeMessages();
    {
        Calls calls;
        workerless.queue.reset();
        // Two items with their nodes, two sentinels; the condition stays.
        EXPECT_THAT(calls.names,
                    ElementsAre("free", "free", "free", "free", "free", "free", "destroy mutex"));
        EXPECT_THAT(calls.released, SizeIs(6));
        EXPECT_EQ(calls.released[0], items[1]); // from the head on, which is the newest
        EXPECT_EQ(calls.released[2], items[0]);
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(DataQueueListTest, Destroy_Always_TracesItselfFirst)
{
    Workerless workerless;
    workerless.queue->addDataQueue(iAP2_malloc(1));
    takeMessages();
    std::vector<std::string> calls;
    const ScopedHook heap(&Hooks::free,
                          [&](void* block)
                          {
                              calls.emplace_back("free");
                              support::real::free(block);
                          });
    support::onTrace([&](const std::string& text)
                     { calls.push_back(support::columnsOf(text).message); });
    workerless.queue.reset();
    support::onTrace(nullptr);
    EXPECT_THAT(calls, ElementsAre("~DataQueueList()", "free", "free", "free", "free"));
    EXPECT_THAT(takeMessages(), ElementsAre("D ~DataQueueList()"));
}

TEST_F(DataQueueListTest, Destroy_Always_LeavesTheWorkerAlone)
{
    int calls = 0;
    const ScopedHook join(&Hooks::threadJoin,
                          [&](pthread_t, void**)
                          {
                              ++calls;
                              return 0;
                          });
    const ScopedHook cancel(&Hooks::threadCancel,
                            [&](pthread_t)
                            {
                                ++calls;
                                return 0;
                            });
    // As if there were a worker: one that has not been asked to end.
    std::unique_ptr<DataQueueList> queue;
    {
        const ScopedHook create(
            &Hooks::threadCreate,
            [](pthread_t* thread, const pthread_attr_t*, void* (*)(void*), void*)
            {
                *thread = pthread_self();
                return 0;
            });
        queue = std::make_unique<DataQueueList>(handle);
    }
    queue.reset();
    EXPECT_EQ(calls, 0);
}

/* ---- Terminate ------------------------------------------------------------------------------- */

TEST_F(DataQueueListTest, Terminate_WhenTheWorkerWaits_EndsItWithoutAnotherPass)
{
    Watched watched;
    DataQueueList& queue = watched.start();
    watched.waitUntilItWaits(1);
    queue.terminate();
    EXPECT_THAT(handled.items(), ElementsAre(nullptr));
    watched.destroy();
}

TEST_F(DataQueueListTest, Terminate_WhenCalledAgain_ReturnsAtOnce)
{
    int joins = 0;
    const ScopedHook join(&Hooks::threadJoin,
                          [&](pthread_t thread, void** value)
                          {
                              ++joins;
                              return support::real::threadJoin(thread, value);
                          });
    DataQueueList queue(handle);
    queue.terminate();
    queue.terminate();
    queue.terminate();
    EXPECT_EQ(joins, 1);
}

TEST_F(DataQueueListTest, Terminate_WhenThereIsNoWorker_ReturnsAtOnce)
{
    const Workerless workerless;
    int joins = 0;
    const ScopedHook join(&Hooks::threadJoin,
                          [&](pthread_t, void**)
                          {
                              ++joins;
                              return 0;
                          });
    workerless.queue->terminate();
    EXPECT_EQ(joins, 0);
    EXPECT_THAT(takeMessages(), ElementsAre("D terminate()"));
}

TEST_F(DataQueueListTest, Terminate_WhenItemsAreQueued_LeavesThemToTheDestructor)
{
    Event entered;
    Event goOn;
    std::vector<void*> items = {newItem(), newItem(), newItem()};
    onData = [&](void* data)
    {
        handled.add(data);
        if (data == items[0])
        {
            entered.happens();
            goOn.wait();
        }
    };
    Watched watched;
    DataQueueList& queue = watched.start();
    watched.waitUntilItWaits(1);
    for (void* const item : items)
    {
        queue.addDataQueue(item);
    }
    entered.wait();
    std::thread owner([&] { queue.terminate(); });
    // Once it may wait no longer, the flag is up.
    std::thread([&] { queue.waitDataQueue(); }).join();
    goOn.happens();
    owner.join();
    EXPECT_THAT(handled.items(), ElementsAre(nullptr, items[0]));

    std::vector<void*> released;
    {
        const ScopedHook watch(&Hooks::free,
                               [&](void* block)
                               {
                                   released.push_back(static_cast<char*>(block) + kGuardSize);
                                   support::real::free(block);
                               });
        watched.destroy();
    }
    EXPECT_THAT(released, testing::IsSupersetOf({items[1], items[2]}));
    EXPECT_THAT(released, testing::Not(testing::Contains(items[0])));
    releaseHandled();
}

/*
 *     worker                         owner
 *
 *     the queue is empty
 *                                    raise the flag, signal: nobody waits
 *     (would wait for ever)
 *                                    join
 */
TEST_F(DataQueueListTest, Terminate_WhenItComesBetweenLookAndWait_DoesNotLoseItsWakeUp)
{
    Event looked;
    Event joining;
    std::atomic<bool> isFirst{true};
    support::onTrace(
        [&](const std::string& text)
        {
            if (text.find("waitDataQueue()") != std::string::npos && isFirst.exchange(false))
            {
                looked.happens();
                joining.wait();
            }
        });
    Watched watched;
    DataQueueList& queue = watched.start();
    looked.wait();
    {
        const ScopedHook join(&Hooks::threadJoin,
                              [&](pthread_t thread, void** value)
                              {
                                  joining.happens();
                                  return support::real::threadJoin(thread, value);
                              });
        queue.terminate();
    }
    EXPECT_EQ(watched.waits(), 0);
    EXPECT_THAT(handled.items(), ElementsAre(nullptr));
    support::onTrace(nullptr);
}

TEST_F(DataQueueListTest, Terminate_WhenTheHandlerCallsIt_EndsTheLoopAndLeavesTheJoinToTheOwner)
{
    std::atomic<int> joins{0};
    Watched watched;
    DataQueueList& queue = watched.start();
    watched.waitUntilItWaits(1);
    onData = [&](void* data)
    {
        const ScopedHook join(&Hooks::threadJoin,
                              [&](pthread_t, void**)
                              {
                                  ++joins;
                                  return EDEADLK;
                              });
        queue.terminate();
        queue.terminate();
        handled.add(data);
    };
    support::LineCounter ended("Terminated QueueThreadRunLoop");
    void* const item = newItem();
    queue.addDataQueue(item);
    ended.waitFor(1);
    EXPECT_EQ(joins, 0);
    EXPECT_THAT(handled.items(), ElementsAre(nullptr, item));
    {
        const ScopedHook join(&Hooks::threadJoin,
                              [&](pthread_t thread, void** value)
                              {
                                  ++joins;
                                  return support::real::threadJoin(thread, value);
                              });
        queue.terminate();
    }
    EXPECT_EQ(joins, 1);
    releaseHandled();
}

TEST_F(DataQueueListTest, Terminate_WhenTheHandlerCallsItInsideTheConstructor_EndsTheLoop)
{
    Event called;
    std::atomic<DataQueueList*> object{nullptr};
    onData = [&](void*)
    {
        object.load()->terminate();
        called.happens();
    };
    std::unique_ptr<DataQueueList> queue;
    {
        const ScopedHook create(&Hooks::threadCreate,
                                [&](pthread_t* thread, const pthread_attr_t* attributes,
                                    void* (*entry)(void*), void* argument)
                                {
                                    object = static_cast<DataQueueList*>(argument);
                                    const int result = support::real::threadCreate(
                                        thread, attributes, entry, argument);
                                    called.wait();
                                    return result;
                                });
        queue = std::make_unique<DataQueueList>(handle);
    }
    int joins = 0;
    const ScopedHook join(&Hooks::threadJoin,
                          [&](pthread_t thread, void** value)
                          {
                              ++joins;
                              return support::real::threadJoin(thread, value);
                          });
    queue->terminate();
    EXPECT_EQ(joins, 1);
}

/** Calls terminate() on a thread of its own, and says how far it has come. */
class Terminator
{
public:
    enum Join
    {
        ForReal,
        InVain // for ever, and can be cancelled
    };
    explicit Terminator(DataQueueList& queue, Join how = ForReal)
        : mHow(how), mThread([this, &queue] { run(queue); })
    {
    }
    Terminator(const Terminator&) = delete;
    Terminator& operator=(const Terminator&) = delete;

    void waitUntilItJoinsOrWaits()
    {
        mBlocked.wait();
    }
    bool hasJoined() const
    {
        return mHasJoined;
    }
    bool hasReturned()
    {
        return mReturned.hasHappened();
    }
    pthread_t thread()
    {
        return mThread.native_handle();
    }
    void finish()
    {
        mThread.join();
    }

private:
    /** Not in pthread_join(): ThreadSanitizer cannot see a thread leave that by a cancellation. */
    static void waitInVain()
    {
        struct Mutex
        {
            pthread_mutex_t posix = PTHREAD_MUTEX_INITIALIZER;
            ~Mutex()
            {
                pthread_mutex_unlock(&posix);
                pthread_mutex_destroy(&posix);
            }
        } mutex;
        pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
        pthread_mutex_lock(&mutex.posix);
        for (;;)
        {
            support::real::condWait(&condition, &mutex.posix);
        }
    }

    void run(DataQueueList& queue)
    {
        const ScopedHook join(&Hooks::threadJoin,
                              [this](pthread_t thread, void** value)
                              {
                                  mHasJoined = true;
                                  mBlocked.happens();
                                  if (mHow == InVain)
                                  {
                                      waitInVain();
                                  }
                                  return support::real::threadJoin(thread, value);
                              });
        const ScopedHook wait(&Hooks::condWait,
                              [this](pthread_cond_t* condition, pthread_mutex_t* mutex)
                              {
                                  mBlocked.happens();
                                  return support::real::condWait(condition, mutex);
                              });
        queue.terminate();
        mReturned.happens();
    }

    Event mBlocked;
    Event mReturned;
    std::atomic<bool> mHasJoined{false};
    const Join mHow;
    std::thread mThread;
};

/** A queue whose handler does not return before it is told to. */
class Busy
{
public:
    Busy() : mQueue(std::make_unique<DataQueueList>(handle))
    {
        mEntered.wait();
    }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

    DataQueueList& queue()
    {
        return *mQueue;
    }
    void goOn()
    {
        mGoOn.happens();
    }
    bool hasEnded() const
    {
        return mHasEnded;
    }

private:
    struct HandlerSetter
    {
        explicit HandlerSetter(Busy& busy)
        {
            onData = [&busy](void*)
            {
                busy.mEntered.happens();
                busy.mGoOn.wait();
                busy.mHasEnded = true;
            };
        }
    };

    Event mEntered;
    Event mGoOn;
    std::atomic<bool> mHasEnded{false};
    HandlerSetter mSetter{*this};
    std::unique_ptr<DataQueueList> mQueue;
};

TEST_F(DataQueueListTest, Terminate_WhenSeveralCallIt_ReturnsToEachWhenTheWorkerHasEnded)
{
    Busy busy;
    Terminator first(busy.queue());
    first.waitUntilItJoinsOrWaits();
    Terminator second(busy.queue());
    Terminator third(busy.queue());
    second.waitUntilItJoinsOrWaits();
    third.waitUntilItJoinsOrWaits();
    EXPECT_FALSE(first.hasReturned() || second.hasReturned() || third.hasReturned());
    busy.goOn();
    first.finish();
    second.finish();
    third.finish();
    EXPECT_TRUE(busy.hasEnded());
    EXPECT_TRUE(first.hasJoined());
    EXPECT_FALSE(second.hasJoined() || third.hasJoined());
}

TEST_F(DataQueueListTest, Terminate_WhenTheOneThatJoinsIsCancelled_LetsAnotherJoin)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    Busy busy;
    Terminator first(busy.queue(), Terminator::InVain);
    first.waitUntilItJoinsOrWaits();
    Terminator second(busy.queue());
    second.waitUntilItJoinsOrWaits();
    EXPECT_FALSE(second.hasJoined());
    pthread_cancel(first.thread());
    first.finish();
    EXPECT_FALSE(first.hasReturned());
    busy.goOn();
    second.finish();
    EXPECT_TRUE(second.hasJoined());
    EXPECT_TRUE(busy.hasEnded());
}

TEST_F(DataQueueListTest, Terminate_WhenTheJoinFails_ReportsErrnoAndTriesAgainNextTime)
{
    Watched watched;
    DataQueueList& queue = watched.start();
    watched.waitUntilItWaits(1);
    support::LineCounter ended("Terminated QueueThreadRunLoop");
    {
        const ScopedHook join(&Hooks::threadJoin,
                              [](pthread_t, void**)
                              {
                                  errno = EOWNERDEAD;
                                  return EINVAL;
                              });
        queue.terminate();
    }
    ended.waitFor(1);
    EXPECT_THAT(takeMessages(), testing::Contains("E terminate: pthread_join fail, Owner died"));
    int joins = 0;
    const ScopedHook join(&Hooks::threadJoin,
                          [&](pthread_t thread, void** value)
                          {
                              ++joins;
                              return support::real::threadJoin(thread, value);
                          });
    queue.terminate();
    EXPECT_EQ(joins, 1);
    EXPECT_THAT(takeMessages(), ElementsAre("D terminate()"));
}

TEST_F(DataQueueListTest, Terminate_WhenOthersWaitToo_WakesThemAll)
{
    Event othersWait;
    onData = [&](void*) { othersWait.wait(); }; // so that the worker is the last who waits
    Watched watched;
    DataQueueList& queue = watched.start();
    std::vector<std::thread> others;
    std::array<Event, 3> waiting;
    for (Event& event : waiting)
    {
        others.emplace_back(
            [&]
            {
                const ScopedHook wait(&Hooks::condWait,
                                      [&](pthread_cond_t* condition, pthread_mutex_t* mutex)
                                      {
                                          event.happens();
                                          return support::real::condWait(condition, mutex);
                                      });
                queue.waitDataQueue();
            });
        event.wait();
    }
    othersWait.happens();
    watched.waitUntilItWaits(1);
    queue.terminate();
    for (std::thread& other : others)
    {
        other.join();
    }
}

TEST_F(DataQueueListTest, Terminate_Afterwards_ItemsAreAcceptedAndNobodyWaits)
{
    Watched watched;
    DataQueueList& queue = watched.start();
    watched.waitUntilItWaits(1);
    queue.terminate();
    takeMessages();
    EXPECT_EQ(queue.addDataQueue(newItem()), 1);
    queue.waitDataQueue();
    EXPECT_THAT(handled.items(), ElementsAre(nullptr));
    EXPECT_THAT(takeMessages(), ElementsAre("D addDataQueue()", "D waitDataQueue()"));
}

/* ---- Cancellation ---------------------------------------------------------------------------- */

TEST_F(DataQueueListTest, Worker_WhenCancelledInItsWait_LeavesTheMutexFree)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    Watched watched;
    DataQueueList& queue = watched.start();
    watched.waitUntilItWaits(1);
    void* value = nullptr;
    const ScopedHook join(&Hooks::threadJoin, [&](pthread_t thread, void**)
                          { return support::real::threadJoin(thread, &value); });
    pthread_cancel(watched.hooks().thread());
    watched.waitUntilItHasLeftTheWait();
    queue.terminate();
    EXPECT_EQ(value, PTHREAD_CANCELED);
    EXPECT_EQ(queue.addDataQueue(newItem()), 1); // would wait for the lock
}

/* ---- Many threads ---------------------------------------------------------------------------- */

struct Numbered
{
    std::uint32_t producer;
    std::uint32_t number;
};

TEST_F(DataQueueListTest, Add_WhenManyThreadsDo_LosesNothingAndKeepsEachOnesOrder)
{
    constexpr std::uint32_t kProducers = 4;
    constexpr std::uint32_t kItems = 400;
    setLogLevel(IAP2_LOG_ERROR);
    std::array<std::uint32_t, kProducers> next{}; // the worker's, then the test's
    std::uint32_t outOfOrder = 0;
    const auto check = [&](void* data)
    {
        const auto* const item = static_cast<const Numbered*>(data);
        outOfOrder += item->number == next[item->producer]++ ? 0U : 1U;
        iAP2_free(data);
    };
    onData = [&](void* data)
    {
        if (data != nullptr)
        {
            check(data);
        }
    };
    DataQueueList queue(handle);
    std::vector<std::thread> producers;
    for (std::uint32_t producer = 0; producer < kProducers; ++producer)
    {
        producers.emplace_back(
            [&, producer]
            {
                for (std::uint32_t number = 0; number < kItems; ++number)
                {
                    auto* const item = static_cast<Numbered*>(iAP2_malloc(sizeof(Numbered)));
                    *item = {producer, number};
                    EXPECT_EQ(queue.addDataQueue(item), 1);
                }
            });
    }
    for (std::thread& producer : producers)
    {
        producer.join();
    }
    queue.terminate();
    // What the worker has not taken is still there, in its order.
    for (void* left = nullptr; queue.getDataQueue(&left), left != nullptr;)
    {
        check(left);
    }
    EXPECT_THAT(next, Each(kItems));
    EXPECT_EQ(outOfOrder, 0U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

} // namespace
