/**
 * Allocations per operation, counted in korvane_benchmarks_counting alone.
 */
#ifndef KORVANE_BENCHMARKS_ALLOCATIONS_H
#define KORVANE_BENCHMARKS_ALLOCATIONS_H

#include <benchmark/benchmark.h>
#include <cstdint>

struct Allocations
{
    std::uint64_t count;
    std::uint64_t bytes; ///< as asked for
};

/** True when allocations are counted in this executable. */
bool areAllocationsCounted();

/** What the calling thread has allocated so far. */
Allocations countAllocations();

/**
 * Adds to a benchmark what its thread allocates during the lifetime of this object, as averages per
 * operation. Made in front of the measuring loop; an iteration is `operations` operations.
 */
class AllocationReport
{
public:
    explicit AllocationReport(benchmark::State& state, int operations = 1)
        : mState(state), mOperations(operations), mBefore(countAllocations())
    {
    }
    ~AllocationReport()
    {
        if (areAllocationsCounted())
        {
            const Allocations now = countAllocations();
            mState.counters["allocations"] = perOperation(now.count - mBefore.count);
            mState.counters["bytes"] = perOperation(now.bytes - mBefore.bytes);
        }
        mState.counters["operations"] = {static_cast<double>(mOperations),
                                         benchmark::Counter::kAvgThreads};
    }
    AllocationReport(const AllocationReport&) = delete;
    AllocationReport& operator=(const AllocationReport&) = delete;

private:
    benchmark::Counter perOperation(std::uint64_t number) const
    {
        return {static_cast<double>(number) / mOperations, benchmark::Counter::kAvgIterations};
    }

    benchmark::State& mState;
    const int mOperations;
    const Allocations mBefore;
};

#endif
