// Queueing a text, as its caller pays for it: beside the same by hand, and beside handing it on at
// once.
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>

#include <korvane/iAP2ExtLog.h>
#include <korvane/iAp2LogUtil.h>

#include "allocations.h"
#include "benchmarks.h"
#include "silentSink.h"

namespace
{

constexpr useconds_t kWritersPause = 100000;
constexpr int kTexts = 1024; // queued in a row; then they are released, which is not measured

char text[] = "I IAP2         progress.cpp    42 00:12:07:345 step 3 of 7 done";
constexpr std::size_t kTextLength = sizeof text - 1;

sem_t writerIsAsleep;

/* ---- The writer, asleep ---------------------------------------------------------------------- */

/** What the writer says on standard output must not come between the results. */
class Muted
{
public:
    Muted()
    {
        std::fflush(stdout);
        mOutput = dup(STDOUT_FILENO);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    ~Muted()
    {
        std::fflush(stdout);
        dup2(mOutput, STDOUT_FILENO);
        close(mOutput);
    }
    Muted(const Muted&) = delete;
    Muted& operator=(const Muted&) = delete;

private:
    int mOutput;
};

bool startWriter()
{
    const Muted muted;
    sem_init(&writerIsAsleep, 0, 0);
    return iAp2ExternelLogWriteInit() == 0 && sem_wait(&writerIsAsleep) == 0;
}

void setUp(const benchmark::State&)
{
    startWriter();
}

void tearDown(const benchmark::State&)
{
    iAp2ExternelLogWriteStop();
}

/** Takes all texts out of the queue. The writer sleeps, so nobody else looks at it. */
void releaseQueue()
{
    iAP2LogItem* item = my_tailq_head_iAP2.tqh_first;
    while (item != nullptr)
    {
        iAP2LogItem* const next = item->entries.tqe_next;
        std::free(item->logStr);
        std::free(item);
        item = next;
    }
    iAp2ExternelLogWriteInit(); // of a running writer: empties the queue, and no more
}

/* ---- By hand --------------------------------------------------------------------------------- */

pthread_mutex_t handMutex = PTHREAD_MUTEX_INITIALIZER;
iAP2LogQueue handQueue = {nullptr, &handQueue.tqh_first};

/** Two allocations, one copy and one lock. */
__attribute__((noinline)) int queueByHand(std::uint32_t level, const void* bytes,
                                          std::size_t length)
{
    auto* const item = static_cast<iAP2LogItem*>(std::malloc(sizeof(iAP2LogItem)));
    item->level = level;
    item->logStr = static_cast<char*>(std::malloc(length + 1));
    std::memcpy(item->logStr, bytes, length);
    item->logStr[length] = '\0';

    pthread_mutex_lock(&handMutex);
    item->entries.tqe_next = nullptr;
    item->entries.tqe_prev = handQueue.tqh_last;
    *handQueue.tqh_last = item;
    handQueue.tqh_last = &item->entries.tqe_next;
    return pthread_mutex_unlock(&handMutex);
}

void releaseHandQueue()
{
    iAP2LogItem* item = handQueue.tqh_first;
    while (item != nullptr)
    {
        iAP2LogItem* const next = item->entries.tqe_next;
        std::free(item->logStr);
        std::free(item);
        item = next;
    }
    handQueue = {nullptr, &handQueue.tqh_first};
}

/* ---- What is measured ------------------------------------------------------------------------ */

template <typename Queue, typename Release>
void measure(benchmark::State& state, Queue queue, Release release)
{
    std::size_t length = kTextLength;
    const AllocationReport report(state, kTexts);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(length);
        for (int i = 0; i < kTexts; ++i)
        {
            queue(IAP2_LOG_INFO, text, length);
        }
        state.PauseTiming();
        release();
        state.ResumeTiming();
    }
}

void queued(benchmark::State& state)
{
    measure(state, iAp2ExternelLogWriteAddQueue, releaseQueue);
}

void queuedByHand(benchmark::State& state)
{
    measure(state, queueByHand, releaseHandQueue);
}

void handedOn(benchmark::State& state)
{
    measure(state, iAp2ExternelLogWirteDirect, [] {});
}

benchmark::internal::Benchmark* add(const char* name, void (*function)(benchmark::State&))
{
    return benchmark::RegisterBenchmark(name, function);
}

bool areEqual(const iAP2LogItem* left, const iAP2LogItem* right)
{
    while (left != nullptr && right != nullptr && left->level == right->level &&
           std::strcmp(left->logStr, right->logStr) == 0)
    {
        left = left->entries.tqe_next;
        right = right->entries.tqe_next;
    }
    return left == right; // both at their end
}

} // namespace

/**
 * Takes the C library's place in this process: the writer's pause lasts until the writer is stopped,
 * so that nothing leaves the queue while texts are put into it.
 */
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" int usleep(useconds_t microseconds)
{
    if (microseconds == kWritersPause)
    {
        sem_post(&writerIsAsleep);
        for (;;)
        {
            pause();
        }
    }
    const timespec time = {static_cast<time_t>(microseconds / 1000000),
                           static_cast<long>(microseconds % 1000000) * 1000};
    return nanosleep(&time, nullptr);
}

void registerQueuedLogBenchmarks()
{
    add("QueuedText.byHand/work", queued)->Setup(setUp)->Teardown(tearDown);
    add("QueuedText.byHand/floor", queuedByHand);
    add("QueuedText.direct/work", queued)->Setup(setUp)->Teardown(tearDown);
    add("QueuedText.direct/floor", handedOn);
}

const char* findQueuedLogDifference()
{
    if (!isSilentSinkInPlace())
    {
        return "texts do not go to the silent sink";
    }
    if (!startWriter())
    {
        return "the writer of the queued log does not start";
    }
    for (const std::size_t length : {std::size_t{0}, kTextLength / 2, kTextLength})
    {
        iAp2ExternelLogWriteAddQueue(IAP2_LOG_INFO, text, length);
        queueByHand(IAP2_LOG_INFO, text, length);
    }
    const bool isSame = handQueue.tqh_first != nullptr &&
                        areEqual(my_tailq_head_iAP2.tqh_first, handQueue.tqh_first);
    releaseQueue();
    releaseHandQueue();
    iAp2ExternelLogWriteStop();
    return isSame ? nullptr : "texts queued by hand differ from those of the library";
}
