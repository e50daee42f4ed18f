#include <korvane/iAP2Thread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/utils.h>

#include "Faults.h"
#include "TraceRecorder.h"

namespace
{

using support::columnsOf;
using support::failFirst;
using support::Hooks;
using support::ScopedHook;
using support::takeMessages;
using support::takeTraces;
using support::Trace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::KilledBySignal;

static_assert(std::has_virtual_destructor<iAP2Thread>::value, "owners delete it by its base");
static_assert(std::is_abstract<iAP2Thread>::value, "a subclass brings the body");
static_assert(!std::is_copy_constructible<iAP2Thread>::value, "a thread has one owner");
static_assert(!std::is_copy_assignable<iAP2Thread>::value, "a thread has one owner");
static_assert(sizeof(iAP2Thread) == 2 * sizeof(void*), "the table and one pointer");

using Body = std::function<void(iAP2Thread&)>;

/**
 * A thread whose body belongs to the test and outlives the object: the destructor of the library's
 * class, which ends the thread, comes after those of this class's members.
 */
class Worker : public iAP2Thread
{
public:
    Worker(const char* name, const Body& body) : iAP2Thread(name), mBody(body)
    {
    }

protected:
    void run() override
    {
        // A thread that ends before start() has named it cannot be named any more, and start() says
        // so: the body waits until it is known to be running.
        while (!isRunning())
        {
            std::this_thread::yield();
        }
        mBody(*this);
    }

private:
    const Body& mBody;
};

const Body kNothing = [](iAP2Thread&) {};

/** A body that says when it has been entered, then goes on until it is to stop. */
class Loop
{
public:
    const Body& body() const
    {
        return mBody;
    }
    void waitUntilEntered()
    {
        mEntered.get_future().wait();
    }

private:
    std::promise<void> mEntered;
    const Body mBody = [this](iAP2Thread& thread)
    {
        mEntered.set_value();
        while (!thread.getStopVal())
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
};

/** A body that returns at once; the entry function has returned too after waitUntilEnded(). */
class Brief
{
public:
    const Body& body() const
    {
        return mBody;
    }
    void waitUntilEnded()
    {
        std::unique_lock<std::mutex> lock(mEnd->mutex);
        mEnd->condition.wait(lock, [this] { return mEnd->isReached; });
    }

private:
    struct End
    {
        std::mutex mutex;
        std::condition_variable condition;
        bool isReached = false;
    };
    /** Lives as long as its thread, which calls the destructor when all its functions are done. */
    struct Announcer
    {
        std::shared_ptr<End> end;
        ~Announcer()
        {
            const std::lock_guard<std::mutex> lock(end->mutex);
            end->isReached = true;
            end->condition.notify_one();
        }
    };

    const std::shared_ptr<End> mEnd = std::make_shared<End>();
    const Body mBody = [this](iAP2Thread&) { thread_local const Announcer announcer{mEnd}; };
};

std::string nameOf(pthread_t thread)
{
    char name[16] = {};
    pthread_getname_np(thread, name, sizeof name);
    return name;
}

using ThreadTest = support::TraceTest;

/* ---- Created --------------------------------------------------------------------------------- */

TEST_F(ThreadTest, Operations_WhenNeverStarted_FindNoThread)
{
    Worker worker("worker", kNothing);
    EXPECT_FALSE(worker.isRunning());
    EXPECT_TRUE(worker.getStopVal());
    EXPECT_EQ(worker.join(), 5U);
    EXPECT_EQ(worker.detach(), 5U);
    EXPECT_EQ(worker.cancel(), 5U);
    EXPECT_EQ(worker.stop(), 5U);
    EXPECT_TRUE(worker.getStopVal());
    EXPECT_FALSE(worker.isRunning());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, Destroy_WhenNeverStarted_ReportsThatThereIsNothingToJoin)
{
    {
        const Worker worker("worker", kNothing);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E worker:~iAP2Thread:join() fail"));
}

TEST_F(ThreadTest, Construct_WhenTheStateMutexCannotBeInitialised_DoesNotCare)
{
    {
        const ScopedHook fault(
            &Hooks::mutexInit,
            [isFirst = true](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) mutable
            {
                EXPECT_EQ(attributes, nullptr);
                const int result = support::real::mutexInit(mutex, attributes);
                return std::exchange(isFirst, false) ? ENOMEM : result;
            });
        Worker worker("worker", kNothing);
        EXPECT_EQ(worker.start(), 0U);
        EXPECT_EQ(worker.stop(), 0U);
        EXPECT_THAT(takeMessages(), IsEmpty());
    }
}

TEST_F(ThreadTest, Report_Always_NamesTheSourceFile)
{
    {
        const Worker worker("worker", kNothing);
    }
    const std::vector<Trace> traces = takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(columnsOf(traces[0].text).file, "iAP2Thread.cpp");
}

/* ---- Starting -------------------------------------------------------------------------------- */

TEST_F(ThreadTest, Start_WhenPossible_RunsTheBodyOnAThreadOfItsOwn)
{
    std::promise<std::thread::id> ran;
    const Body body = [&ran](iAP2Thread& thread)
    {
        EXPECT_FALSE(thread.getStopVal());
        ran.set_value(std::this_thread::get_id());
    };
    Worker worker("worker", body);
    EXPECT_EQ(worker.start(), 0U);
    EXPECT_TRUE(worker.isRunning());
    EXPECT_NE(ran.get_future().get(), std::this_thread::get_id());
    EXPECT_EQ(worker.join(), 0U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, Start_Always_CreatesWithDefaultAttributesThenNamesThatThread)
{
    std::vector<std::string> calls;
    pthread_t created{};
    Worker worker("worker", kNothing);
    {
        const ScopedHook create(&Hooks::threadCreate,
                                [&](pthread_t* thread, const pthread_attr_t* attributes,
                                    void* (*entry)(void*), void* argument)
                                {
                                    calls.emplace_back("create");
                                    EXPECT_EQ(attributes, nullptr);
                                    EXPECT_EQ(argument, static_cast<iAP2Thread*>(&worker));
                                    EXPECT_FALSE(worker.isRunning());
                                    const int result = support::real::threadCreate(
                                        thread, attributes, entry, argument);
                                    created = *thread;
                                    return result;
                                });
        const ScopedHook setname(&Hooks::threadSetname,
                                 [&](pthread_t thread, const char* name)
                                 {
                                     calls.push_back(std::string("name ") + name);
                                     EXPECT_TRUE(pthread_equal(thread, created));
                                     EXPECT_FALSE(worker.isRunning());
                                     return support::real::threadSetname(thread, name);
                                 });
        EXPECT_EQ(worker.start(), 0U);
    }
    EXPECT_THAT(calls, ElementsAre("create", "name worker"));
    EXPECT_EQ(worker.join(), 0U);
}

TEST_F(ThreadTest, Start_WhenTheThreadCannotBeCreated_ReportsTheTextOfErrnoAndReturns1)
{
    Worker worker("worker", kNothing);
    {
        const ScopedHook fault(&Hooks::threadCreate,
                               failFirst(EAGAIN, ENOMEM, support::real::threadCreate));
        EXPECT_EQ(worker.start(), 1U);
    }
    EXPECT_THAT(takeMessages(),
                ElementsAre("E worker:start: pthread_create fail, Cannot allocate memory"));
    EXPECT_FALSE(worker.isRunning());
    EXPECT_TRUE(worker.getStopVal());
    EXPECT_EQ(worker.stop(), 5U);
    EXPECT_EQ(worker.start(), 0U);
    EXPECT_EQ(worker.join(), 0U);
}

TEST_F(ThreadTest, Start_WhenAlreadyRunning_ReportsItYetReturns0)
{
    Loop loop;
    Worker worker("worker", loop.body());
    ASSERT_EQ(worker.start(), 0U);
    loop.waitUntilEntered();
    int created = 0;
    {
        const ScopedHook watch(
            &Hooks::threadCreate,
            [&created](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)
            {
                ++created;
                return EAGAIN;
            });
        EXPECT_EQ(worker.start(), 0U);
    }
    EXPECT_EQ(created, 0);
    EXPECT_THAT(takeMessages(), ElementsAre("E worker:start: reject, already running"));
    EXPECT_FALSE(worker.getStopVal());
    EXPECT_EQ(worker.stop(), 0U);
}

TEST_F(ThreadTest, Start_AfterJoin_RunsTheBodyAgain)
{
    std::atomic<int> runs{0};
    const Body body = [&runs](iAP2Thread&) { ++runs; };
    Worker worker("worker", body);
    for (int run = 1; run <= 3; ++run)
    {
        EXPECT_EQ(worker.start(), 0U);
        EXPECT_TRUE(worker.isRunning());
        EXPECT_EQ(worker.join(), 0U);
        EXPECT_FALSE(worker.isRunning());
        EXPECT_TRUE(worker.getStopVal());
        EXPECT_EQ(runs, run);
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

using ThreadDeathTest = ThreadTest;

TEST_F(ThreadDeathTest, Run_WhenAnExceptionLeavesIt_EndsTheProcess)
{
    EXPECT_EXIT(
        {
            const Body body = [](iAP2Thread&) { throw std::runtime_error("left the body"); };
            Worker worker("worker", body);
            worker.start();
            worker.join();
            std::_Exit(0);
        },
        KilledBySignal(SIGABRT), "left the body");
}

/* ---- Stopping and joining -------------------------------------------------------------------- */

TEST_F(ThreadTest, Stop_WhenTheBodyLoops_AsksItToEndAndWaits)
{
    Loop loop;
    Worker worker("worker", loop.body());
    ASSERT_EQ(worker.start(), 0U);
    loop.waitUntilEntered();
    EXPECT_TRUE(worker.isRunning());
    EXPECT_FALSE(worker.getStopVal());
    EXPECT_EQ(worker.stop(), 0U);
    EXPECT_FALSE(worker.isRunning());
    EXPECT_TRUE(worker.getStopVal());
    EXPECT_EQ(worker.stop(), 5U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, Stop_WhileTheBodyIsStillRunning_HasRaisedTheFlagBeforeItJoins)
{
    std::promise<void> entered;
    std::promise<void> released;
    const Body body = [&](iAP2Thread&)
    {
        entered.set_value();
        released.get_future().wait();
    };
    Worker worker("worker", body);
    ASSERT_EQ(worker.start(), 0U);
    entered.get_future().wait();
    int joins = 0;
    {
        const ScopedHook watch(&Hooks::threadJoin,
                               [&](pthread_t thread, void** value)
                               {
                                   ++joins;
                                   EXPECT_EQ(value, nullptr);
                                   EXPECT_TRUE(worker.getStopVal());
                                   EXPECT_TRUE(worker.isRunning());
                                   released.set_value();
                                   return support::real::threadJoin(thread, value);
                               });
        EXPECT_EQ(worker.stop(), 0U);
    }
    EXPECT_EQ(joins, 1);
}

TEST_F(ThreadTest, Stop_WhenTheBodyReturnedByItself_JoinsAtOnce)
{
    Brief brief;
    Worker worker("worker", brief.body());
    ASSERT_EQ(worker.start(), 0U);
    brief.waitUntilEnded();
    EXPECT_TRUE(worker.isRunning());
    EXPECT_TRUE(worker.getStopVal());
    EXPECT_EQ(worker.stop(), 0U);
    EXPECT_FALSE(worker.isRunning());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/** Threads that the calling thread creates wait before their entry until open() is called. */
class EntryGate
{
public:
    void open()
    {
        mOpened.set_value();
    }

private:
    struct Start
    {
        EntryGate* gate;
        void* (*entry)(void*);
        void* argument;
    };
    static void* enter(void* argument)
    {
        const std::unique_ptr<Start> start(static_cast<Start*>(argument));
        start->gate->mOpened.get_future().wait();
        return start->entry(start->argument);
    }

    std::promise<void> mOpened;
    ScopedHook<decltype(Hooks::threadCreate)> mHook{
        &Hooks::threadCreate, [this](pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*entry)(void*), void* argument)
        {
            return support::real::threadCreate(thread, attributes, &EntryGate::enter,
                                               new Start{this, entry, argument});
        }};
};

TEST_F(ThreadTest, Stop_WhenItComesBeforeTheThreadsEntry_IsForgotten)
{
    bool isAsked = true;
    const Body body = [&isAsked](iAP2Thread& thread) { isAsked = thread.getStopVal(); };
    EntryGate gate;
    Worker worker("worker", body);
    ASSERT_EQ(worker.start(), 0U);
    EXPECT_TRUE(worker.isRunning());
    EXPECT_TRUE(worker.getStopVal()); // the thread itself clears it
    {
        const ScopedHook watch(&Hooks::threadJoin,
                               [&](pthread_t thread, void** value)
                               {
                                   EXPECT_TRUE(worker.getStopVal());
                                   gate.open();
                                   return support::real::threadJoin(thread, value);
                               });
        EXPECT_EQ(worker.stop(), 0U);
    }
    EXPECT_FALSE(isAsked);
}

TEST_F(ThreadTest, Join_WhenTheBodyIsStillRunning_WaitsUntilItReturns)
{
    std::promise<void> released;
    std::atomic<bool> isDone{false};
    const Body body = [&](iAP2Thread&)
    {
        released.get_future().wait();
        isDone = true;
    };
    Worker worker("worker", body);
    ASSERT_EQ(worker.start(), 0U);
    {
        const ScopedHook watch(&Hooks::threadJoin,
                               [&](pthread_t thread, void** value)
                               {
                                   EXPECT_FALSE(isDone);
                                   released.set_value();
                                   return support::real::threadJoin(thread, value);
                               });
        EXPECT_EQ(worker.join(), 0U);
    }
    EXPECT_TRUE(isDone);
    EXPECT_FALSE(worker.isRunning());
    EXPECT_TRUE(worker.getStopVal());
    EXPECT_EQ(worker.join(), 5U);
    EXPECT_EQ(worker.detach(), 5U);
    EXPECT_EQ(worker.cancel(), 5U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, Join_WhenItFails_ReportsTheTextOfErrnoReturns3AndStillHoldsTheThread)
{
    Worker worker("worker", kNothing);
    ASSERT_EQ(worker.start(), 0U);
    {
        const ScopedHook fault(&Hooks::threadJoin,
                               failFirst(EDEADLK, ESRCH, support::real::threadJoin));
        EXPECT_EQ(worker.join(), 3U);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E worker:join: pthread_join fail, No such process"));
    EXPECT_TRUE(worker.isRunning());
    EXPECT_EQ(worker.join(), 0U);
}

TEST_F(ThreadTest, Stop_WhenTheJoinFails_ReturnsItsCode)
{
    Worker worker("worker", kNothing);
    ASSERT_EQ(worker.start(), 0U);
    {
        const ScopedHook fault(&Hooks::threadJoin,
                               failFirst(EDEADLK, EINVAL, support::real::threadJoin));
        EXPECT_EQ(worker.stop(), 3U);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E worker:join: pthread_join fail, Invalid argument"));
    EXPECT_EQ(worker.join(), 0U);
}

/* ---- Destroying ------------------------------------------------------------------------------ */

TEST_F(ThreadTest, Destroy_WhenTheBodyLoops_StopsItSilently)
{
    Loop loop;
    {
        Worker worker("worker", loop.body());
        ASSERT_EQ(worker.start(), 0U);
        loop.waitUntilEntered();
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, Destroy_WhenTheBodyHasReturned_JoinsSilently)
{
    Brief brief;
    int joins = 0;
    const ScopedHook watch(&Hooks::threadJoin,
                           [&joins](pthread_t thread, void** value)
                           {
                               ++joins;
                               return support::real::threadJoin(thread, value);
                           });
    {
        Worker worker("worker", brief.body());
        ASSERT_EQ(worker.start(), 0U);
        brief.waitUntilEnded();
    }
    EXPECT_EQ(joins, 1);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, Destroy_AfterJoin_ReportsThatThereIsNothingToJoin)
{
    {
        Worker worker("worker", kNothing);
        ASSERT_EQ(worker.start(), 0U);
        ASSERT_EQ(worker.join(), 0U);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E worker:~iAP2Thread:join() fail"));
}

TEST_F(ThreadTest, Destroy_WhenTheJoinFails_ReportsBoth)
{
    Brief brief;
    {
        const ScopedHook fault(&Hooks::threadJoin,
                               [](pthread_t thread, void** value)
                               {
                                   support::real::threadJoin(thread, value);
                                   errno = ESRCH;
                                   return EINVAL;
                               });
        Worker worker("worker", brief.body());
        ASSERT_EQ(worker.start(), 0U);
        brief.waitUntilEnded();
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E worker:join: pthread_join fail, No such process",
                                            "E worker:~iAP2Thread:join() fail"));
}

TEST_F(ThreadTest, Destroy_WhenTheStopFails_ReportsBoth)
{
    Loop loop;
    {
        const ScopedHook fault(&Hooks::threadJoin,
                               [](pthread_t thread, void** value)
                               {
                                   support::real::threadJoin(thread, value);
                                   errno = ESRCH;
                                   return EINVAL;
                               });
        Worker worker("worker", loop.body());
        ASSERT_EQ(worker.start(), 0U);
        loop.waitUntilEntered();
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E worker:join: pthread_join fail, No such process",
                                            "E worker:~iAP2Thread:stop() fail"));
}

TEST_F(ThreadTest, Destroy_Always_DestroysTheStateMutex)
{
    pthread_mutex_t* initialised = nullptr;
    int destroyed = 0;
    const ScopedHook init(&Hooks::mutexInit,
                          [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                          {
                              initialised = mutex;
                              return support::real::mutexInit(mutex, attributes);
                          });
    const ScopedHook destroy(&Hooks::mutexDestroy,
                             [&](pthread_mutex_t* mutex)
                             {
                                 destroyed += mutex == initialised ? 1 : 0;
                                 return support::real::mutexDestroy(mutex);
                             });
    {
        const Worker worker("worker", kNothing);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
}

/* ---- Detaching ------------------------------------------------------------------------------- */

TEST_F(ThreadTest, Detach_WhenRunning_LeavesTheThreadRunningButNotJoinable)
{
    Brief brief;
    {
        std::promise<void> released;
        const Body body = [&](iAP2Thread& thread)
        {
            released.get_future().wait();
            brief.body()(thread);
        };
        Worker worker("worker", body);
        ASSERT_EQ(worker.start(), 0U);
        EXPECT_EQ(worker.detach(), 0U);
        EXPECT_TRUE(worker.isRunning());
        EXPECT_THAT(takeMessages(), IsEmpty());

        // Neither waits: the body is still held back.
        EXPECT_EQ(worker.join(), 0U);
        EXPECT_THAT(takeMessages(), ElementsAre("W join: thread detached!!"));
        EXPECT_EQ(worker.start(), 0U);
        EXPECT_THAT(takeMessages(), ElementsAre("E worker:start: reject, already running"));

        released.set_value();
        brief.waitUntilEnded();
        EXPECT_TRUE(worker.isRunning());
        EXPECT_TRUE(worker.getStopVal());
        EXPECT_EQ(worker.start(), 0U);
        EXPECT_EQ(worker.stop(), 0U);
        EXPECT_THAT(takeMessages(), ElementsAre("E worker:start: reject, already running",
                                                "W join: thread detached!!"));
    }
    EXPECT_THAT(takeMessages(), ElementsAre("W join: thread detached!!"));
}

TEST_F(ThreadTest, Detach_WhenItFails_ReportsTheTextOfErrnoReturns2AndStaysJoinable)
{
    Worker worker("worker", kNothing);
    ASSERT_EQ(worker.start(), 0U);
    {
        const ScopedHook fault(&Hooks::threadDetach,
                               failFirst(EINVAL, ESRCH, support::real::threadDetach));
        EXPECT_EQ(worker.detach(), 2U);
    }
    EXPECT_THAT(takeMessages(),
                ElementsAre("E worker:detach: pthread_detach fail, No such process"));
    EXPECT_TRUE(worker.isRunning());
    EXPECT_EQ(worker.join(), 0U);
    EXPECT_FALSE(worker.isRunning()); // it was joined, not taken for detached
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- Cancelling ------------------------------------------------------------------------------ */

/** A body that blocks for ever in a cancellation point and tells whether its stack was unwound. */
class Blocked
{
public:
    const Body& body() const
    {
        return mBody;
    }
    /** Waits until the body blocks or is about to. */
    void waitUntilEntered()
    {
        mThread = mEntered.get_future().get();
    }
    /** Waits for the cancelled thread, which the library no longer holds, and returns its value. */
    void* join()
    {
        void* value = nullptr;
        EXPECT_EQ(support::real::threadJoin(mThread, &value), 0);
        return value;
    }
    int unwound() const
    {
        return mUnwound;
    }

private:
    struct CountUnwinding
    {
        int& count;
        ~CountUnwinding()
        {
            ++count;
        }
    };
    struct HeldMutex
    {
        explicit HeldMutex(pthread_mutex_t& held) : mutex(held)
        {
            pthread_mutex_lock(&mutex);
        }
        ~HeldMutex()
        {
            pthread_mutex_unlock(&mutex);
        }
        pthread_mutex_t& mutex;
    };

    void block()
    {
        const CountUnwinding inner{mUnwound};
        const HeldMutex held(mMutex);
        mEntered.set_value(pthread_self());
        for (;;)
        {
            pthread_cond_wait(&mNever, &mMutex);
        }
    }

    int mUnwound = 0; // read after the join
    pthread_t mThread{};
    std::promise<pthread_t> mEntered;
    pthread_mutex_t mMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t mNever = PTHREAD_COND_INITIALIZER;
    const Body mBody = [this](iAP2Thread&)
    {
        const CountUnwinding outer{mUnwound};
        block();
    };
};

TEST_F(ThreadTest, Cancel_WhenTheBodyBlocks_UnwindsIt)
{
    Blocked blocked;
    Worker worker("worker", blocked.body());
    ASSERT_EQ(worker.start(), 0U);
    blocked.waitUntilEntered();
    EXPECT_EQ(worker.cancel(), 0U);
    EXPECT_EQ(blocked.join(), PTHREAD_CANCELED);
    EXPECT_EQ(blocked.unwound(), 2);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, Cancel_WhenTheBodyRuns_ForgetsTheThreadWithoutWaitingAndKeepsTheStopFlag)
{
    Blocked blocked;
    Worker worker("worker", blocked.body());
    ASSERT_EQ(worker.start(), 0U);
    blocked.waitUntilEntered();
    int joins = 0;
    {
        const ScopedHook watch(&Hooks::threadJoin,
                               [&joins](pthread_t, void**)
                               {
                                   ++joins;
                                   return 0;
                               });
        EXPECT_EQ(worker.cancel(), 0U);
    }
    EXPECT_EQ(joins, 0);
    EXPECT_FALSE(worker.isRunning());
    EXPECT_FALSE(worker.getStopVal());
    EXPECT_EQ(worker.join(), 5U);
    EXPECT_EQ(worker.detach(), 5U);
    EXPECT_EQ(worker.cancel(), 5U);
    EXPECT_FALSE(worker.getStopVal());
    blocked.join();
    EXPECT_FALSE(worker.getStopVal()); // the entry function did not get to its end
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, Destroy_AfterCancelInterruptedTheBody_ReportsThatThereIsNothingToStop)
{
    Blocked blocked;
    {
        Worker worker("worker", blocked.body());
        ASSERT_EQ(worker.start(), 0U);
        blocked.waitUntilEntered();
        ASSERT_EQ(worker.cancel(), 0U);
        blocked.join();
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E worker:~iAP2Thread:stop() fail"));
}

TEST_F(ThreadTest, Start_AfterCancel_IsAccepted)
{
    Blocked first;
    Loop second;
    const Body* current = &first.body();
    const Body body = [&current](iAP2Thread& thread) { (*current)(thread); };
    Worker worker("worker", body);
    ASSERT_EQ(worker.start(), 0U);
    first.waitUntilEntered();
    ASSERT_EQ(worker.cancel(), 0U);
    first.join();
    current = &second.body();
    EXPECT_EQ(worker.start(), 0U);
    EXPECT_TRUE(worker.isRunning());
    second.waitUntilEntered();
    EXPECT_EQ(worker.stop(), 0U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, Cancel_WhenItFails_ReportsItWithoutTheNameAndReturns4)
{
    Loop loop;
    Worker worker("worker", loop.body());
    ASSERT_EQ(worker.start(), 0U);
    loop.waitUntilEntered();
    {
        const ScopedHook fault(&Hooks::threadCancel,
                               failFirst(EINVAL, ESRCH, support::real::threadCancel));
        EXPECT_EQ(worker.cancel(), 4U);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E cancel: pthread_cancel fail, No such process"));
    EXPECT_TRUE(worker.isRunning());
    EXPECT_EQ(worker.stop(), 0U); // still held and joinable
    EXPECT_FALSE(worker.isRunning());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- Names ----------------------------------------------------------------------------------- */

/** Starts the worker and returns the name that its thread has once start() is done. */
std::string startedName(const char* name)
{
    std::promise<void> started;
    std::string found;
    const Body body = [&](iAP2Thread&)
    {
        started.get_future().wait();
        found = nameOf(pthread_self());
    };
    Worker worker(name, body);
    EXPECT_EQ(worker.start(), 0U);
    EXPECT_TRUE(worker.isRunning());
    started.set_value();
    EXPECT_EQ(worker.join(), 0U);
    return found;
}

TEST_F(ThreadTest, Start_WhenTheNameHas15Characters_GivesItToTheThread)
{
    EXPECT_EQ(startedName("fifteen letters"), "fifteen letters");
    EXPECT_THAT(takeMessages(), ElementsAre("E fifteen letters:~iAP2Thread:join() fail"));
}

TEST_F(ThreadTest, Start_WhenTheNameHas16Characters_ReportsItAndRunsTheThreadUnnamed)
{
    errno = EPERM; // which the failing call leaves as it is
    EXPECT_EQ(startedName("sixteen letters!"), nameOf(pthread_self()));
    EXPECT_THAT(takeMessages(),
                ElementsAre("E sixteen letters!:setiAP2ThreadName: pthread_setname_np fail, "
                            "Operation not permitted",
                            "E sixteen letters!:~iAP2Thread:join() fail"));
}

TEST_F(ThreadTest, Start_WhenTheNameIsNull_CallsTheThreadByTheSubstitute)
{
    EXPECT_EQ(startedName(nullptr), "iAP2.noname");
    EXPECT_THAT(takeMessages(), ElementsAre("E iAP2.noname:~iAP2Thread:join() fail"));
}

TEST_F(ThreadTest, Start_WhenTheNameIsEmpty_ShowsAndGivesTheSubstitute)
{
    EXPECT_EQ(startedName(""), "iAP2.noname");
    EXPECT_THAT(takeMessages(), ElementsAre("E iAP2.noname:~iAP2Thread:join() fail"));
}

TEST_F(ThreadTest, Construct_Always_CopiesTheName)
{
    {
        char name[] = "before";
        const Worker worker(name, kNothing);
        std::strcpy(name, "after!");
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E before:~iAP2Thread:join() fail"));
}

TEST_F(ThreadTest, SetName_WhenRunning_StoresTheNameButDoesNotRenameTheThread)
{
    std::promise<void> named;
    std::string found;
    const Body body = [&](iAP2Thread&)
    {
        named.get_future().wait();
        found = nameOf(pthread_self());
    };
    {
        Worker worker("first", body);
        ASSERT_EQ(worker.start(), 0U);
        worker.setName("second");
        named.set_value();
        EXPECT_EQ(worker.join(), 0U);
        EXPECT_EQ(found, "first");
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E second:~iAP2Thread:join() fail"));
}

TEST_F(ThreadTest, SetName_WhenNull_StoresTheSubstitute)
{
    {
        Worker worker("worker", kNothing);
        worker.setName(nullptr);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E iAP2.noname:~iAP2Thread:join() fail"));
}

TEST_F(ThreadTest, MemberSetThreadName_Always_GivesTheStoredNameAndIgnoresItsArgument)
{
    std::promise<void> named;
    std::string found;
    const Body body = [&](iAP2Thread&)
    {
        named.get_future().wait();
        found = nameOf(pthread_self());
    };
    Worker worker("first", body);
    ASSERT_EQ(worker.start(), 0U);
    worker.setName("second");
    worker.setiAP2ThreadName("third");
    named.set_value();
    EXPECT_EQ(worker.join(), 0U);
    EXPECT_EQ(found, "second");
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, MemberSetThreadName_WhenItFails_ReportsTheTextOfErrno)
{
    Worker worker("worker", kNothing);
    ASSERT_EQ(worker.start(), 0U);
    {
        const ScopedHook fault(&Hooks::threadSetname,
                               failFirst(ERANGE, EACCES, support::real::threadSetname));
        worker.setiAP2ThreadName(nullptr);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E worker:setiAP2ThreadName: pthread_setname_np fail, "
                                            "Permission denied"));
    EXPECT_EQ(worker.join(), 0U);
}

TEST_F(ThreadTest, FreeSetThreadName_Always_NamesTheCallingThreadCutTo15Characters)
{
    std::string brief;
    std::string cut;
    std::thread(
        [&]
        {
            setiAP2ThreadName("brief");
            brief = nameOf(pthread_self());
            setiAP2ThreadName("seventeen letters");
            cut = nameOf(pthread_self());
        })
        .join();
    EXPECT_EQ(brief, "brief");
    EXPECT_EQ(cut, "seventeen lette");
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, FreeSetThreadName_WhenTheCallFails_ReportsIt)
{
    const char* const name = "any";
    const ScopedHook fault(&Hooks::prctl,
                           [name](int option, const void* argument)
                           {
                               EXPECT_EQ(option, PR_SET_NAME);
                               EXPECT_EQ(argument, name);
                               return -1;
                           });
    setiAP2ThreadName(name);
    EXPECT_THAT(takeMessages(), ElementsAre("E setiAP2ThreadName Error"));
}

/* ---- Priority -------------------------------------------------------------------------------- */

TEST_F(ThreadTest, SetPriority_Always_GivesTheCallingThreadRealTimeScheduling)
{
    std::vector<int> priorities;
    Worker worker("worker", kNothing);
    std::thread(
        [&]
        {
            const ScopedHook watch(
                &Hooks::threadSetschedparam,
                [&priorities](pthread_t thread, int policy, const sched_param* parameters)
                {
                    EXPECT_TRUE(pthread_equal(thread, pthread_self()));
                    EXPECT_EQ(policy, SCHED_FIFO);
                    priorities.push_back(parameters->sched_priority);
                    return 0;
                });
            worker.setCurrentThreadPriority(42);
            worker.setCurrentThreadPriority(-5);
            worker.setCurrentThreadPriority(100000);
        })
        .join();
    EXPECT_THAT(priorities, ElementsAre(42, -5, 100000));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ThreadTest, SetPriority_WhenItCannotBeRead_ReportsTheTextOfErrnoAndSetsNothing)
{
    int sets = 0;
    Worker worker("worker", kNothing);
    {
        const ScopedHook watch(&Hooks::threadSetschedparam,
                               [&sets](pthread_t, int, const sched_param*)
                               {
                                   ++sets;
                                   return 0;
                               });
        const ScopedHook fault(&Hooks::threadGetschedparam,
                               [](pthread_t thread, int*, sched_param*)
                               {
                                   EXPECT_TRUE(pthread_equal(thread, pthread_self()));
                                   errno = EACCES;
                                   return ESRCH;
                               });
        worker.setCurrentThreadPriority(1);
    }
    EXPECT_EQ(sets, 0);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E worker:setCurrentThreadPriority: pthread_getschedparam fail, "
                            "Permission denied"));
}

TEST_F(ThreadTest, SetPriority_WhenItCannotBeSet_ReportsTheTextOfErrno)
{
    Worker worker("worker", kNothing);
    {
        const ScopedHook fault(&Hooks::threadSetschedparam,
                               failFirst(EPERM, EACCES, support::real::threadSetschedparam));
        worker.setCurrentThreadPriority(1);
    }
    EXPECT_THAT(takeMessages(),
                ElementsAre("E worker:setCurrentThreadPriority: pthread_setschedparam fail, "
                            "Permission denied"));
}

/* ---- Without an implementation --------------------------------------------------------------- */

/** A worker that can be without its implementation for a while. */
class HollowWorker : public Worker
{
public:
    HollowWorker() : Worker("hollow", kNothing), mImplementation(m_pimpl)
    {
        m_pimpl = nullptr;
    }
    ~HollowWorker() override
    {
        m_pimpl = mImplementation;
    }

private:
    iAP2ThreadImpl* const mImplementation;
};

TEST_F(ThreadTest, GetStopVal_WhenThereIsNoImplementation_ReportsItAndIsFalse)
{
    HollowWorker worker;
    EXPECT_FALSE(worker.getStopVal());
    EXPECT_THAT(takeMessages(), ElementsAre("E m_pimpl is null"));
}

} // namespace
