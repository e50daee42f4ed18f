// Message handlers: posting, round trips and synchronous sends, beside a deque with a condition
// variable and beside two threads that wake each other through a futex.
#include <atomic>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <pthread.h>
#include <sched.h>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAP2MsgHandler.h>

#include "allocations.h"
#include "benchmarks.h"
#include "dequeHandler.h"
#include "futexPartner.h"

namespace
{

using Delegate = IAP2Delegate<void, iAP2MsgData*>;

constexpr int kSilence = IAP2_LOG_ERROR + 1;
constexpr int kDefaultLevel = 0;

enum Event
{
    kPosted = 1,
    kOnOtherProcessor = 2
};

iAP2MsgData record(int event, void* pointer = nullptr)
{
    return {event, 1, 2, 3, pointer, nullptr, nullptr};
}

/* ---- Two threads on two processors ----------------------------------------------------------- */

void runOn(unsigned int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

/** The calling thread stays on the first processor for as long as this object lives. */
class OnFirstProcessor
{
public:
    OnFirstProcessor()
    {
        pthread_getaffinity_np(pthread_self(), sizeof mBefore, &mBefore);
        runOn(0);
    }
    ~OnFirstProcessor()
    {
        pthread_setaffinity_np(pthread_self(), sizeof mBefore, &mBefore);
    }
    OnFirstProcessor(const OnFirstProcessor&) = delete;
    OnFirstProcessor& operator=(const OnFirstProcessor&) = delete;

private:
    cpu_set_t mBefore;
};

void runOnSecondProcessor()
{
    runOn(1);
}

/* ---- What is measured, in one shape ---------------------------------------------------------- */

/** The library's handler. */
class Handler
{
public:
    using Mailbox = iAP2MsgBox<iAP2MsgData>;

    void registerEvent(int id, std::function<void(iAP2MsgData*)> function)
    {
        mHandler.registerEventTable(static_cast<std::uint32_t>(id), "event",
                                    new Delegate(std::move(function)));
    }
    void start()
    {
        mHandler.start();
    }
    void post(iAP2MsgData& data)
    {
        mHandler.sendMsg(&data);
    }
    void postAndWait(iAP2MsgData& data)
    {
        mHandler.sendMsgSync(&data);
    }

private:
    iAP2MsgHandler mHandler;
};

/** The library's mailbox by itself. */
class Mailbox
{
public:
    void post(iAP2MsgData& data)
    {
        mBox.sendMessage(&data);
    }
    iAP2MsgData receive()
    {
        iAP2MsgData data;
        mBox.receiveMessage(&data);
        return data;
    }

private:
    iAP2MsgBox<iAP2MsgData> mBox{100};
};

/* ---- Posting and dispatching ----------------------------------------------------------------- */

constexpr int kMostSenders = 2;
constexpr long kWindow = 45; // on the way from each sender at most: nothing is ever dropped
constexpr int kBurst = 1000; // many windows, so that the first wake-up does not count

/** How many records of one sender have been handled. */
struct alignas(64) Handled
{
    std::atomic<long> count{0};
};

template <typename AnyHandler> struct Stream
{
    Handled handled[kMostSenders];
    AnyHandler handler;
};
template <typename AnyHandler> std::unique_ptr<Stream<AnyHandler>> currentStream;

template <typename AnyHandler, int level> void startStream(const benchmark::State&)
{
    setLogLevel(level);
    currentStream<AnyHandler> = std::make_unique<Stream<AnyHandler>>();
    Stream<AnyHandler>& stream = *currentStream<AnyHandler>;
    stream.handler.registerEvent(kPosted,
                                 [&](iAP2MsgData* data)
                                 {
                                     std::atomic<long>& count = stream.handled[data->dParam1].count;
                                     count.store(count.load(std::memory_order_relaxed) + 1,
                                                 std::memory_order_release);
                                 });
    stream.handler.registerEvent(kOnOtherProcessor, [](iAP2MsgData*) { runOnSecondProcessor(); });
    stream.handler.start();
    iAP2MsgData there = record(kOnOtherProcessor);
    stream.handler.postAndWait(there);
}

template <typename AnyHandler> void endStream(const benchmark::State&)
{
    currentStream<AnyHandler>.reset();
}

/** Posts without a pause, as long as the mailbox has room. */
template <typename AnyHandler> void postStream(benchmark::State& state)
{
    Stream<AnyHandler>& stream = *currentStream<AnyHandler>;
    const std::atomic<long>& handled = stream.handled[state.thread_index()].count;
    iAP2MsgData data = record(kPosted);
    data.dParam1 = static_cast<std::uint32_t>(state.thread_index());
    long room = kWindow;
    long sent = 0;
    const auto waitUntilOnTheWay = [&](long most)
    {
        while (sent - handled.load(std::memory_order_acquire) > most)
        {
            sched_yield();
        }
    };
    const OnFirstProcessor here;
    const AllocationReport report(state, kBurst);
    for ([[maybe_unused]] auto iteration : state)
    {
        for (int i = 0; i < kBurst; ++i)
        {
            if (room == 0)
            {
                waitUntilOnTheWay(kWindow / 2);
                room = kWindow - (sent - handled.load(std::memory_order_acquire));
            }
            stream.handler.post(data);
            --room;
            ++sent;
        }
    }
    waitUntilOnTheWay(0);
}

/* ---- Round trips ----------------------------------------------------------------------------- */

/** A record to a handler, whose delegate posts it back. */
template <typename AnyHandler, typename AnyMailbox, int level>
void roundTrips(benchmark::State& state)
{
    setLogLevel(level);
    AnyMailbox answers;
    AnyHandler handler;
    handler.registerEvent(kPosted, [&](iAP2MsgData* data) { answers.post(*data); });
    handler.registerEvent(kOnOtherProcessor, [](iAP2MsgData*) { runOnSecondProcessor(); });
    handler.start();
    const OnFirstProcessor here;
    iAP2MsgData there = record(kOnOtherProcessor);
    handler.postAndWait(there);
    iAP2MsgData data = record(kPosted);
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        handler.post(data);
        data = answers.receive();
    }
}

/** A record whose sender waits until it has been handled. */
template <typename AnyHandler, int level> void synchronousSends(benchmark::State& state)
{
    setLogLevel(level);
    AnyHandler handler;
    handler.registerEvent(kPosted,
                          [](iAP2MsgData* data) { benchmark::DoNotOptimize(data->dParam1); });
    handler.registerEvent(kOnOtherProcessor, [](iAP2MsgData*) { runOnSecondProcessor(); });
    handler.start();
    const OnFirstProcessor here;
    iAP2MsgData there = record(kOnOtherProcessor);
    handler.postAndWait(there);
    iAP2MsgData data = record(kPosted);
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        handler.postAndWait(data);
    }
}

void futexRoundTrips(benchmark::State& state)
{
    FutexPartner partner(runOnSecondProcessor);
    const OnFirstProcessor here;
    partner.roundTrip();
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        partner.roundTrip();
    }
}

/* ---- The rows -------------------------------------------------------------------------------- */

// Threads that wait for each other use little of a processor: what counts is the time that passes.
benchmark::internal::Benchmark* add(const std::string& name, void (*function)(benchmark::State&))
{
    return benchmark::RegisterBenchmark(name.c_str(), function)->UseRealTime();
}

template <int level> void addRows(const std::string& suffix)
{
    for (const int senders : {1, 2})
    {
        const std::string row = "Stream." + std::to_string(senders) + "." + suffix;
        add(row + "/work", postStream<Handler>)
            ->Setup(startStream<Handler, level>)
            ->Teardown(endStream<Handler>)
            ->Threads(senders);
        add(row + "/floor", postStream<DequeHandler>)
            ->Setup(startStream<DequeHandler, level>)
            ->Teardown(endStream<DequeHandler>)
            ->Threads(senders);
    }
    const std::string roundTrip = "RoundTrip." + suffix;
    add(roundTrip + "/work", roundTrips<Handler, Mailbox, level>);
    add(roundTrip + "/floor", futexRoundTrips);
    add(roundTrip + ".deque/work", roundTrips<Handler, Mailbox, level>);
    add(roundTrip + ".deque/floor", roundTrips<DequeHandler, DequeMailbox, level>);

    const std::string synchronous = "SynchronousSend." + suffix;
    add(synchronous + "/work", synchronousSends<Handler, level>);
    add(synchronous + "/floor", futexRoundTrips);
    add(synchronous + ".deque/work", synchronousSends<Handler, level>);
    add(synchronous + ".deque/floor", synchronousSends<DequeHandler, level>);
}

} // namespace

void registerHandlerBenchmarks()
{
    addRows<kSilence>("silenced");
    addRows<kDefaultLevel>("default");
}
