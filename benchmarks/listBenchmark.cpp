// Lists and queues, beside malloc() and free() of a node, a bare walk, std::list and BSD's TAILQ.
#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <list>
#include <string>

#include <sys/queue.h>

#include <korvane/utils.h>

#include "allocations.h"
#include "bareWalk.h"
#include "benchmarks.h"
#include "repeat.h"

namespace
{

/** What a node is for the system allocator: guard and node. */
constexpr std::size_t kNodeRequest = 16 + sizeof(ListNode);

constexpr std::size_t kSizes[] = {10, 100, 1000};

/* ---- The three kinds of queue ---------------------------------------------------------------- */

class OurQueue
{
public:
    OurQueue()
    {
        queueInit(&mHead, &mTail);
    }
    ~OurQueue()
    {
        queueFinal(mHead, mTail, false);
    }
    OurQueue(const OurQueue&) = delete;
    OurQueue& operator=(const OurQueue&) = delete;

    void put(void* data)
    {
        queuePut(mHead, mTail, data);
    }
    void* get()
    {
        return queueGet(mHead, mTail);
    }
    ListNode* find(void* data)
    {
        return listFindNodeWithData(mHead, mTail, data);
    }
    ListNode* walk(void* data)
    {
        return bareWalk(mHead, mTail, data);
    }

private:
    ListNode* mHead = nullptr;
    ListNode* mTail = nullptr;
};

class StandardQueue
{
public:
    void put(void* data)
    {
        mList.push_front(data);
    }
    void* get()
    {
        void* const data = mList.back();
        mList.pop_back();
        return data;
    }
    const void* find(void* data)
    {
        const auto found = std::find(mList.begin(), mList.end(), data);
        return found != mList.end() ? &*found : nullptr;
    }

private:
    std::list<void*> mList;
};

class TailQueue
{
public:
    TailQueue()
    {
        TAILQ_INIT(&mHead);
    }
    ~TailQueue()
    {
        while (!TAILQ_EMPTY(&mHead))
        {
            get();
        }
    }
    TailQueue(const TailQueue&) = delete;
    TailQueue& operator=(const TailQueue&) = delete;

    void put(void* data)
    {
        auto* const entry = static_cast<Entry*>(std::malloc(sizeof(Entry)));
        if (entry != nullptr)
        {
            entry->data = data;
            TAILQ_INSERT_HEAD(&mHead, entry, link);
        }
    }
    void* get()
    {
        Entry* const entry = TAILQ_LAST(&mHead, Head);
        void* const data = entry->data;
        TAILQ_REMOVE(&mHead, entry, link);
        std::free(entry);
        return data;
    }
    const void* find(void* data)
    {
        Entry* entry = nullptr;
        TAILQ_FOREACH(entry, &mHead, link)
        {
            if (entry->data == data)
            {
                break;
            }
        }
        return entry;
    }

private:
    struct Entry
    {
        void* data;
        TAILQ_ENTRY(Entry) link;
    };
    TAILQ_HEAD(Head, Entry);

    Head mHead;
};

/* ---- A pair: in and out ---------------------------------------------------------------------- */

void putAndGetOurs(benchmark::State& state)
{
    ListNode* head = nullptr;
    ListNode* tail = nullptr;
    queueInit(&head, &tail);
    ListNode* const in = head; // two that stay in registers
    ListNode* const out = tail;
    int item = 0;
    const AllocationReport report(state, kRepetitions);
    for ([[maybe_unused]] auto iteration : state)
    {
        KORVANE_REPEAT_64(queuePut(in, out, &item); benchmark::DoNotOptimize(queueGet(in, out)));
    }
    queueFinal(head, tail, false);
}

template <typename Queue> void putAndGet(benchmark::State& state)
{
    Queue queue;
    int item = 0;
    const AllocationReport report(state, kRepetitions);
    for ([[maybe_unused]] auto iteration : state)
    {
        KORVANE_REPEAT_64(queue.put(&item); benchmark::DoNotOptimize(queue.get()));
    }
}

inline void allocateAndReleaseOne()
{
    void* block = std::malloc(kNodeRequest);
    benchmark::DoNotOptimize(block);
    std::free(block);
}

void allocateAndRelease(benchmark::State& state)
{
    const AllocationReport report(state, kRepetitions);
    for ([[maybe_unused]] auto iteration : state)
    {
        KORVANE_REPEAT_64(allocateAndReleaseOne());
    }
}

/* ---- A find, of the last element ------------------------------------------------------------- */

/** A queue of so many items, made once, so that all that walk it meet the same memory. */
template <typename Queue> struct Filled
{
    explicit Filled(std::size_t size)
    {
        for (std::size_t i = size; i > 0; --i)
        {
            queue.put(&items[i - 1]); // the first item ends up in front
        }
        last = &items[size - 1];
    }

    std::array<int, 1000> items{};
    void* last;
    Queue queue;
};

template <typename Queue> Filled<Queue>& filled(std::size_t size)
{
    static Filled<Queue> queues[] = {Filled<Queue>(kSizes[0]), Filled<Queue>(kSizes[1]),
                                     Filled<Queue>(kSizes[2])};
    const auto* const found = std::find(std::begin(kSizes), std::end(kSizes), size);
    return queues[found - std::begin(kSizes)];
}

template <typename Queue> void find(benchmark::State& state, std::size_t size)
{
    Filled<Queue>& elements = filled<Queue>(size);
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(elements.queue.find(elements.last));
    }
}

void walk(benchmark::State& state, std::size_t size)
{
    Filled<OurQueue>& elements = filled<OurQueue>(size);
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(elements.queue.walk(elements.last));
    }
}

template <typename Queue> bool areFirstInFirstOut()
{
    Queue queue;
    int items[2] = {};
    queue.put(&items[0]);
    queue.put(&items[1]);
    return queue.get() == &items[0] && queue.get() == &items[1];
}

} // namespace

void registerListBenchmarks()
{
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("QueuePair/work", putAndGetOurs);
    RegisterBenchmark("QueuePair/floor", allocateAndRelease);
    RegisterBenchmark("QueuePair.list/work", putAndGetOurs);
    RegisterBenchmark("QueuePair.list/floor", putAndGet<StandardQueue>);
    RegisterBenchmark("QueuePair.tailq/work", putAndGetOurs);
    RegisterBenchmark("QueuePair.tailq/floor", putAndGet<TailQueue>);
    for (const std::size_t size : kSizes)
    {
        const std::string row = "ListFind." + std::to_string(size);
        RegisterBenchmark((row + "/work").c_str(), find<OurQueue>, size);
        RegisterBenchmark((row + "/floor").c_str(), walk, size);
        RegisterBenchmark((row + ".list/work").c_str(), find<OurQueue>, size);
        RegisterBenchmark((row + ".list/floor").c_str(), find<StandardQueue>, size);
        RegisterBenchmark((row + ".tailq/work").c_str(), find<OurQueue>, size);
        RegisterBenchmark((row + ".tailq/floor").c_str(), find<TailQueue>, size);
    }
}

const char* findListDifference()
{
    if (!areFirstInFirstOut<OurQueue>() || !areFirstInFirstOut<StandardQueue>() ||
        !areFirstInFirstOut<TailQueue>())
    {
        return "a queue does not give back first what was put first";
    }
    for (const std::size_t size : kSizes)
    {
        Filled<OurQueue>& ours = filled<OurQueue>(size);
        const ListNode* const found = ours.queue.find(ours.last);
        if (found == nullptr || found->data != ours.last || found != ours.queue.walk(ours.last))
        {
            return "find and bare walk do not end at the same element";
        }
        if (filled<StandardQueue>(size).queue.find(filled<StandardQueue>(size).last) == nullptr ||
            filled<TailQueue>(size).queue.find(filled<TailQueue>(size).last) == nullptr)
        {
            return "another list does not find its last element";
        }
    }
    return nullptr;
}
