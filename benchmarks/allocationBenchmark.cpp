// Guarded allocation and release, beside malloc(), clearing and free() of a block of the same size.
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <malloc.h>
#include <unistd.h>

#include <korvane/utils.h>

#include "allocations.h"
#include "benchmarks.h"

namespace
{

/** What iAP2_malloc() asks for on top, which decides what the system allocator's blocks are like. */
constexpr std::size_t kGuardSize = 16;

/**
 * Keeps blocks of the same size while a benchmark runs, so that work and floor find the heap alike.
 *
 * The system allocator hands out the same block again and again. What that costs depends on where
 * the block comes from (the end of the heap, or a hole that others have left), and clearing it on how
 * many cache lines it crosses: without this each benchmark would measure its own luck. So the holes
 * are filled first, and then some more blocks are taken, a different number each time.
 */
class Neighbours
{
public:
    explicit Neighbours(std::size_t size)
    {
        constexpr std::size_t largestToKeep = 8192;
        if (size > largestToKeep)
        {
            return;
        }
        fillHoles(size);
        static std::minstd_rand random;
        for (unsigned more = std::uniform_int_distribution<unsigned>(0, 31)(random); more > 0;
             --more)
        {
            take(size);
        }
    }
    ~Neighbours()
    {
        for (void* const block : mBlocks)
        {
            std::free(block);
        }
    }
    Neighbours(const Neighbours&) = delete;
    Neighbours& operator=(const Neighbours&) = delete;

private:
    /** Takes blocks until they come from the end of the heap, as they do once no hole is left. */
    void fillHoles(std::size_t size)
    {
        constexpr std::uintptr_t largestRounding = 64;
        std::uintptr_t end;
        std::uintptr_t block;
        do
        {
            block = take(size);
            end = reinterpret_cast<std::uintptr_t>(sbrk(0)) - mallinfo2().keepcost;
        } while (end - block > size + largestRounding);
    }
    std::uintptr_t take(std::size_t size)
    {
        mBlocks.push_back(std::malloc(size));
        return reinterpret_cast<std::uintptr_t>(mBlocks.back());
    }

    std::vector<void*> mBlocks;
};

void guardedBlock(benchmark::State& state, std::size_t size)
{
    const Neighbours neighbours(size + kGuardSize);
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(size);
        void* block = iAP2_malloc(size);
        benchmark::DoNotOptimize(block);
        benchmark::ClobberMemory();
        iAP2_free(block);
    }
}

void plainBlock(benchmark::State& state, std::size_t size)
{
    const Neighbours neighbours(size);
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(size);
        void* block = std::malloc(size);
        benchmark::DoNotOptimize(block);
        std::memset(block, 0, size);
        benchmark::ClobberMemory();
        std::free(block);
    }
}

} // namespace

void registerAllocationBenchmarks()
{
    constexpr std::size_t sizes[] = {16, 64, 256, 1024, 4096, 65536, 1048576};
    for (const std::size_t size : sizes)
    {
        const std::string row = "GuardedAllocation." + std::to_string(size);
        benchmark::RegisterBenchmark((row + "/work").c_str(), guardedBlock, size);
        benchmark::RegisterBenchmark((row + "/floor").c_str(), plainBlock, size);
    }
    // 1024 bytes are the last that the C library keeps ready for their thread; with the header they
    // are no longer among those. What the header itself costs there shows beside a request as large.
    benchmark::RegisterBenchmark("GuardedAllocation.1024.sameRequest/work", guardedBlock, 1024);
    benchmark::RegisterBenchmark("GuardedAllocation.1024.sameRequest/floor", plainBlock,
                                 1024 + kGuardSize);
}
