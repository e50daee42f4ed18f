#include <korvane/SharedContext.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <pthread.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "Faults.h"
#include "TraceRecorder.h"

namespace
{

using IAP2::SharedContext;
using support::Hooks;
using support::ScopedHook;
using support::takeMessages;
using testing::ElementsAre;
using testing::IsEmpty;

/** The fields, in a record that has nothing else. */
struct Fields
{
    pthread_cond_t cond1;
    pthread_mutex_t mutex1;
    bool flag;
    pthread_cond_t cond2;
    pthread_mutex_t mutex2;
};

static_assert(!std::is_polymorphic<SharedContext>::value, "clients know its layout");
static_assert(std::is_standard_layout<SharedContext>::value, "clients know its layout");
static_assert(sizeof(SharedContext) == sizeof(Fields), "clients know its layout");
static_assert(offsetof(SharedContext, mCond1) == offsetof(Fields, cond1), "first");
static_assert(offsetof(SharedContext, mMutex1) == offsetof(Fields, mutex1), "second");
static_assert(offsetof(SharedContext, mFlag) == offsetof(Fields, flag), "third");
static_assert(offsetof(SharedContext, mCond2) == offsetof(Fields, cond2), "fourth");
static_assert(offsetof(SharedContext, mMutex2) == offsetof(Fields, mutex2), "fifth");

class SharedContextTest : public support::TraceTest
{
protected:
    ~SharedContextTest() override
    {
        delete SharedContext::mInstance;
        SharedContext::mInstance = nullptr;
    }
};

/**
 * The POSIX calls on a context's primitives and the traces, in the order in which they come. The calls
 * end with the result that is wanted, though they are made.
 */
class CallLog
{
public:
    explicit CallLog(int result)
        : mCondInit(&Hooks::condInit,
                    [this, result](pthread_cond_t* cond, const pthread_condattr_t* attributes)
                    {
                        add("init", cond, attributes);
                        support::real::condInit(cond, attributes);
                        return result;
                    }),
          mMutexInit(&Hooks::mutexInit,
                     [this, result](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
                     {
                         add("init", mutex, attributes);
                         support::real::mutexInit(mutex, attributes);
                         return result;
                     }),
          mCondDestroy(&Hooks::condDestroy,
                       [this, result](pthread_cond_t* cond)
                       {
                           add("destroy", cond, nullptr);
                           support::real::condDestroy(cond);
                           return result;
                       }),
          mMutexDestroy(&Hooks::mutexDestroy,
                        [this, result](pthread_mutex_t* mutex)
                        {
                            add("destroy", mutex, nullptr);
                            support::real::mutexDestroy(mutex);
                            return result;
                        })
    {
        support::onTrace(
            [this](const std::string& text) {
                mCalls.push_back({support::columnsOf(text).message, nullptr});
            });
    }
    ~CallLog()
    {
        support::onTrace(nullptr);
    }
    CallLog(const CallLog&) = delete;
    CallLog& operator=(const CallLog&) = delete;

    /** The calls, with the names of the fields of a context that was at `context`. */
    std::vector<std::string> of(const void* context) const
    {
        const auto* const bytes = static_cast<const char*>(context);
        const std::map<const void*, std::string> names = {
            {nullptr, ""},
            {bytes + offsetof(SharedContext, mCond1), " mCond1"},
            {bytes + offsetof(SharedContext, mMutex1), " mMutex1"},
            {bytes + offsetof(SharedContext, mCond2), " mCond2"},
            {bytes + offsetof(SharedContext, mMutex2), " mMutex2"}};
        std::vector<std::string> calls;
        for (const Call& call : mCalls)
        {
            const auto name = names.find(call.object);
            calls.push_back(call.what + (name != names.end() ? name->second : " of others"));
        }
        return calls;
    }

private:
    struct Call
    {
        std::string what;
        const void* object;
    };

    void add(const char* what, const void* object, const void* attributes)
    {
        mCalls.push_back({what, object});
        EXPECT_EQ(attributes, nullptr);
    }

    std::vector<Call> mCalls;
    const ScopedHook<decltype(Hooks::condInit)> mCondInit;
    const ScopedHook<decltype(Hooks::mutexInit)> mMutexInit;
    const ScopedHook<decltype(Hooks::condDestroy)> mCondDestroy;
    const ScopedHook<decltype(Hooks::mutexDestroy)> mMutexDestroy;
};

const bool wasNullAtLoadTime = SharedContext::mInstance == nullptr;

TEST_F(SharedContextTest, Instance_AtLoadTime_IsNull)
{
    EXPECT_TRUE(wasNullAtLoadTime);
}

TEST_F(SharedContextTest, GetInstance_WhenCalledTwice_CreatesOneInstance)
{
    SharedContext* const first = SharedContext::getInstance();
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(SharedContext::mInstance, first);
    EXPECT_EQ(SharedContext::getInstance(), first);
    EXPECT_THAT(takeMessages(), ElementsAre("D SharedContext()"));
}

TEST_F(SharedContextTest, GetInstance_WhenThereIsOne_ReturnsIt)
{
    SharedContext::mInstance = new SharedContext;
    takeMessages();
    EXPECT_EQ(SharedContext::getInstance(), SharedContext::mInstance);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(SharedContextTest, GetInstance_Always_TakesNoLock)
{
    int locked = 0;
    const auto count = [&locked](pthread_mutex_t* mutex)
    {
        ++locked;
        return support::real::mutexLock(mutex);
    };
    setLogLevel(IAP2_LOG_ERROR); // the recorder of traces takes one
    const ScopedHook watch(&Hooks::mutexLock, count);
    SharedContext::getInstance();
    SharedContext::getInstance();
    EXPECT_EQ(locked, 0);
}

TEST_F(SharedContextTest, GetInstance_WhenMemoryIsShort_ThrowsAndTriesAgainNextTime)
{
    {
        const ScopedHook fault(&Hooks::operatorNew,
                               [](std::size_t) -> void* { throw std::bad_alloc(); });
        EXPECT_THROW(SharedContext::getInstance(), std::bad_alloc);
    }
    EXPECT_EQ(SharedContext::mInstance, nullptr);
    EXPECT_THAT(takeMessages(), IsEmpty());
    EXPECT_NE(SharedContext::getInstance(), nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre("D SharedContext()"));
}

TEST_F(SharedContextTest, GetInstance_WhenConstructionThrows_ReleasesTheMemoryAndPassesItOn)
{
    void* allocated = nullptr;
    std::vector<void*> released;
    {
        const ScopedHook watchNew(&Hooks::operatorNew,
                                  [&allocated](std::size_t size)
                                  {
                                      void* const block = support::real::operatorNew(size);
                                      allocated = size == sizeof(SharedContext) ? block : allocated;
                                      return block;
                                  });
        const ScopedHook watchDelete(&Hooks::operatorDelete,
                                     [&released](void* block)
                                     {
                                         released.push_back(block);
                                         support::real::operatorDelete(block);
                                     });
        support::onTrace([](const std::string&) { throw std::runtime_error("no trace"); });
        EXPECT_THROW(SharedContext::getInstance(), std::runtime_error);
        support::onTrace(nullptr);
    }
    EXPECT_NE(allocated, nullptr);
    EXPECT_THAT(released, testing::Contains(allocated));
    EXPECT_EQ(SharedContext::mInstance, nullptr);
}

TEST_F(SharedContextTest, Construct_Always_TracesThenInitialisesInOrder)
{
    const CallLog log(0);
    const std::optional<SharedContext> context(std::in_place);
    EXPECT_THAT(log.of(&*context), ElementsAre("SharedContext()", "init mMutex1", "init mCond1",
                                               "init mMutex2", "init mCond2"));
}

TEST_F(SharedContextTest, Construct_WhenNothingCanBeInitialised_DoesNotCare)
{
    const CallLog log(ENOMEM);
    const std::optional<SharedContext> context(std::in_place);
    EXPECT_THAT(log.of(&*context), ElementsAre("SharedContext()", "init mMutex1", "init mCond1",
                                               "init mMutex2", "init mCond2"));
    EXPECT_THAT(takeMessages(), ElementsAre("D SharedContext()"));
}

TEST_F(SharedContextTest, Construct_Always_ClearsTheFlagBeforeItTraces)
{
    alignas(SharedContext) unsigned char memory[sizeof(SharedContext)];
    const auto* const flag = memory + offsetof(SharedContext, mFlag);
    memory[offsetof(SharedContext, mFlag)] = 1;
    int atTrace = -1;
    support::onTrace([&](const std::string&) { atTrace = *flag; });
    auto* const context = new (memory) SharedContext;
    EXPECT_EQ(atTrace, 0);
    EXPECT_FALSE(context->mFlag);
    context->~SharedContext();
}

TEST_F(SharedContextTest, Construct_Always_LeavesThePrimitivesReadyForUse)
{
    SharedContext* const context = SharedContext::getInstance();
    for (pthread_mutex_t* const mutex : {&context->mMutex1, &context->mMutex2})
    {
        EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
        EXPECT_EQ(pthread_mutex_trylock(mutex), EBUSY); // not recursive
        EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
    }
    for (pthread_cond_t* const condition : {&context->mCond1, &context->mCond2})
    {
        EXPECT_EQ(pthread_cond_signal(condition), 0);
    }
}

TEST_F(SharedContextTest, Destroy_Always_TracesThenDestroysInOrder)
{
    std::optional<SharedContext> context(std::in_place);
    const void* const address = &*context;
    const CallLog log(0);
    context.reset();
    EXPECT_THAT(log.of(address),
                ElementsAre("~SharedContext()", "destroy mCond1", "destroy mMutex1",
                            "destroy mCond2", "destroy mMutex2"));
}

TEST_F(SharedContextTest, Destroy_WhenNothingCanBeDestroyed_DoesNotCare)
{
    std::optional<SharedContext> context(std::in_place);
    takeMessages();
    const void* const address = &*context;
    const CallLog log(EBUSY);
    context.reset();
    EXPECT_THAT(log.of(address),
                ElementsAre("~SharedContext()", "destroy mCond1", "destroy mMutex1",
                            "destroy mCond2", "destroy mMutex2"));
    EXPECT_THAT(takeMessages(), ElementsAre("D ~SharedContext()"));
}

TEST_F(SharedContextTest, Destroy_WhenItIsTheInstance_LeavesItsAddress)
{
    SharedContext* const instance = SharedContext::getInstance();
    delete instance;
    EXPECT_EQ(SharedContext::mInstance, instance);
    EXPECT_EQ(SharedContext::getInstance(), instance);
    SharedContext::mInstance = nullptr;
}

TEST_F(SharedContextTest, Trace_Always_NamesTheSourceFile)
{
    SharedContext::getInstance();
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(support::columnsOf(traces[0].text).file, "SharedContext.cpp");
}

} // namespace
