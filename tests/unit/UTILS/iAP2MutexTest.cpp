#include <korvane/iAP2Mutex.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

static_assert(std::has_virtual_destructor<iAP2Mutex>::value, "owners delete it by its base");
static_assert(!std::is_copy_constructible<iAP2Mutex>::value, "a lock has one identity");
static_assert(!std::is_copy_assignable<iAP2Mutex>::value, "a lock has one identity");
static_assert(sizeof(iAP2Mutex) == 2 * sizeof(void*), "the table and one pointer");

using MutexTest = support::TraceTest;

/** A mutex without its implementation, until it is destroyed. */
class HollowMutex : public iAP2Mutex
{
public:
    HollowMutex() : mImplementation(m_pimpl)
    {
        m_pimpl = nullptr;
    }
    ~HollowMutex() override
    {
        m_pimpl = mImplementation;
    }

private:
    iAP2MutexImpl* const mImplementation;
};

/** A mutex that has lost its implementation for good. */
class LostMutex : public iAP2Mutex
{
public:
    void lose()
    {
        m_pimpl = nullptr;
    }
};

// The mutex is used here in ways that a compiler's analysis of locks takes for mistakes.

void lock(iAP2Mutex& mutex) IAP2_NO_THREAD_SAFETY_ANALYSIS
{
    mutex.iAP2Lock();
}

bool tryLock(iAP2Mutex& mutex) IAP2_NO_THREAD_SAFETY_ANALYSIS
{
    return mutex.trylock();
}

void unlock(iAP2Mutex& mutex) IAP2_NO_THREAD_SAFETY_ANALYSIS
{
    mutex.unlock();
}

/* ---- Life ------------------------------------------------------------------------------------ */

TEST_F(MutexTest, Construct_WhenPossible_InitialisesOneMutexWithDefaultAttributes)
{
    std::vector<const pthread_mutexattr_t*> attributes;
    const ScopedHook watch(&Hooks::mutexInit,
                           [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* given)
                           {
                               attributes.push_back(given);
                               return support::real::mutexInit(mutex, given);
                           });
    const iAP2Mutex mutex;
    EXPECT_THAT(attributes, ElementsAre(nullptr));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MutexTest, Construct_WhenPossible_IsUnlocked)
{
    iAP2Mutex mutex;
    ASSERT_TRUE(tryLock(mutex));
    unlock(mutex);
}

using MutexDeathTest = MutexTest;

TEST_F(MutexDeathTest, Construct_WhenInitialisationFails_ReportsThenAborts)
{
    EXPECT_EXIT(
        {
            support::onTrace([](const std::string& text)
                             { std::fprintf(stderr, "%s\n", text.c_str()); });
            const ScopedHook fault(&Hooks::mutexInit,
                                   failFirst(EAGAIN, ENOMEM, support::real::mutexInit));
            const iAP2Mutex mutex;
        },
        KilledBySignal(SIGABRT),
        "E IAP2 +iAP2Mutex\\.cpp +[0-9]+ [0-9:]+ "
        "iAP2MutexImpl: pthread_mutex_init fail, Cannot allocate memory\n");
}

TEST_F(MutexTest, Destroy_WhenPossible_DestroysTheMutexThatWasInitialised)
{
    std::vector<std::string> calls;
    const pthread_mutex_t* initialised = nullptr;
    const ScopedHook init(&Hooks::mutexInit,
                          [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                          {
                              initialised = mutex;
                              return support::real::mutexInit(mutex, attributes);
                          });
    const ScopedHook destroy(&Hooks::mutexDestroy,
                             [&](pthread_mutex_t* mutex)
                             {
                                 EXPECT_EQ(mutex, initialised);
                                 calls.emplace_back("destroy");
                                 return support::real::mutexDestroy(mutex);
                             });
    auto mutex = std::make_unique<iAP2Mutex>();
    EXPECT_THAT(calls, IsEmpty());
    mutex.reset();
    EXPECT_THAT(calls, ElementsAre("destroy"));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MutexTest, Destroy_WhenTheMutexCannotBeDestroyed_ReportsTheTextOfErrnoAndGoesOn)
{
    {
        const ScopedHook fault(&Hooks::mutexDestroy,
                               failFirst(EBUSY, EPERM, support::real::mutexDestroy));
        const iAP2Mutex mutex;
    }
    EXPECT_THAT(
        takeMessages(),
        ElementsAre("E ~iAP2MutexImpl: pthread_mutex_destroy fail, Operation not permitted"));
}

TEST_F(MutexTest, Destroy_WhenThereIsNoImplementation_DoesNothing)
{
    // The implementation lives here, since nobody is left who could free it.
    alignas(std::max_align_t) static unsigned char storage[128];
    int destroyed = 0;
    const ScopedHook watch(&Hooks::mutexDestroy,
                           [&destroyed](pthread_mutex_t* mutex)
                           {
                               ++destroyed;
                               return support::real::mutexDestroy(mutex);
                           });
    {
        std::unique_ptr<ScopedHook<std::function<void*(std::size_t)>>> place(new ScopedHook(
            &Hooks::operatorNew,
            [](std::size_t size) -> void* { return size <= sizeof storage ? storage : nullptr; }));
        LostMutex mutex;
        place.reset();
        mutex.lose();
    }
    EXPECT_EQ(destroyed, 0);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- Locking --------------------------------------------------------------------------------- */

TEST_F(MutexTest, Lock_WhenTheMutexIsFree_HoldsItSilently)
{
    iAP2Mutex mutex;
    lock(mutex);
    EXPECT_FALSE(std::async(std::launch::async, [&] { return tryLock(mutex); }).get());
    unlock(mutex);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MutexTest, Lock_WhenAnotherThreadHoldsTheMutex_BlocksUntilItIsFree)
{
    iAP2Mutex mutex;
    std::vector<std::string> order;
    std::promise<int> arrived;
    lock(mutex);
    std::thread other(
        [&]
        {
            const ScopedHook watch(&Hooks::mutexLock,
                                   [&](pthread_mutex_t* native)
                                   {
                                       arrived.set_value(support::real::mutexTrylock(native));
                                       return support::real::mutexLock(native);
                                   });
            lock(mutex);
            order.emplace_back("other");
            unlock(mutex);
        });
    EXPECT_EQ(arrived.get_future().get(), EBUSY);
    order.emplace_back("first");
    unlock(mutex);
    other.join();
    EXPECT_THAT(order, ElementsAre("first", "other"));
}

TEST_F(MutexTest, Lock_WhenManyThreadsCount_LosesNoStep)
{
    constexpr int kThreads = 4;
    constexpr int kSteps = 5000;
    iAP2Mutex mutex;
    int count = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
    {
        threads.emplace_back(
            [&]
            {
                for (int step = 0; step < kSteps; ++step)
                {
                    lock(mutex);
                    ++count;
                    unlock(mutex);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(count, kThreads * kSteps);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MutexTest, Lock_WhenItFails_ReportsTheTextOfErrnoAndDoesNotHoldTheMutex)
{
    iAP2Mutex mutex;
    {
        const ScopedHook fault(&Hooks::mutexLock,
                               failFirst(EDEADLK, EINVAL, support::real::mutexLock));
        lock(mutex);
    }
    EXPECT_THAT(takeMessages(),
                ElementsAre("E iAP2Lock: pthread_mutex_lock fail, Invalid argument"));
    ASSERT_TRUE(tryLock(mutex));
    unlock(mutex);
}

TEST_F(MutexTest, Lock_WhenItFailsAndErrnoIsClear_SaysSuccess)
{
    iAP2Mutex mutex;
    {
        const ScopedHook fault(&Hooks::mutexLock, failFirst(EDEADLK, 0, support::real::mutexLock));
        lock(mutex);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E iAP2Lock: pthread_mutex_lock fail, Success"));
}

TEST_F(MutexTest, Report_Always_NamesTheSourceFile)
{
    HollowMutex mutex;
    lock(mutex);
    const std::vector<Trace> traces = takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(columnsOf(traces[0].text).file, "iAP2Mutex.cpp");
}

/* ---- Trying ---------------------------------------------------------------------------------- */

TEST_F(MutexTest, Trylock_WhenTheMutexIsFree_LeavesItHeld)
{
    iAP2Mutex mutex;
    ASSERT_TRUE(tryLock(mutex));
    EXPECT_FALSE(std::async(std::launch::async, [&] { return tryLock(mutex); }).get());
    unlock(mutex);
}

TEST_F(MutexTest, Trylock_WhenTheThreadItselfHoldsTheMutex_IsFalseWithoutATrace)
{
    iAP2Mutex mutex;
    ASSERT_TRUE(tryLock(mutex));
    EXPECT_FALSE(tryLock(mutex));
    unlock(mutex);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MutexTest, Trylock_WhenItFailsForAnotherReason_IsFalseWithoutATrace)
{
    iAP2Mutex mutex;
    const ScopedHook fault(&Hooks::mutexTrylock,
                           failFirst(EINVAL, EINVAL, support::real::mutexTrylock));
    EXPECT_FALSE(tryLock(mutex));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- Unlocking ------------------------------------------------------------------------------- */

TEST_F(MutexTest, Unlock_AfterTrylock_FreesTheMutexForTheNextLock)
{
    iAP2Mutex mutex;
    ASSERT_TRUE(tryLock(mutex));
    unlock(mutex);
    std::thread(
        [&]
        {
            lock(mutex);
            unlock(mutex);
        })
        .join();
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(MutexTest, Unlock_WhenItFails_ReportsTheTextOfErrnoAndReturns)
{
    iAP2Mutex mutex;
    lock(mutex);
    {
        const ScopedHook fault(&Hooks::mutexUnlock,
                               failFirst(EPERM, EINVAL, support::real::mutexUnlock));
        unlock(mutex);
    }
    EXPECT_THAT(takeMessages(),
                ElementsAre("E unlock: pthread_mutex_unlock fail, Invalid argument"));
    unlock(mutex);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- Without an implementation --------------------------------------------------------------- */

TEST_F(MutexTest, Lock_WhenThereIsNoImplementation_OnlyReportsIt)
{
    HollowMutex mutex;
    lock(mutex);
    EXPECT_THAT(takeMessages(), ElementsAre("E iAP2Lock: m_pimpl is NULL"));
}

TEST_F(MutexTest, Trylock_WhenThereIsNoImplementation_ReportsItAndIsFalse)
{
    HollowMutex mutex;
    EXPECT_FALSE(tryLock(mutex));
    EXPECT_THAT(takeMessages(), ElementsAre("E trylock: m_pimpl is NULL"));
}

TEST_F(MutexTest, Unlock_WhenThereIsNoImplementation_OnlyReportsIt)
{
    HollowMutex mutex;
    unlock(mutex);
    EXPECT_THAT(takeMessages(), ElementsAre("E unlock: m_pimpl is NULL"));
}

} // namespace
