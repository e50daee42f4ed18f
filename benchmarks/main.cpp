// Runs the benchmarks, once it is certain that each work and its floor do the same.
#include <benchmark/benchmark.h>
#include <cstdio>

#include "benchmarks.h"

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
    {
        return 2;
    }
    for (const auto findDifference :
         {findLogDifference, findListDifference, findByteArrayDifference, findMarshalDifference,
          findQueuedLogDifference, findTextDifference})
    {
        if (const char* const difference = findDifference())
        {
            std::fprintf(stderr, "benchmarks: %s\n", difference);
            return 1;
        }
    }
    registerLogBenchmarks();
    registerListBenchmarks();
    registerMarshalBenchmarks();
    registerAllocationBenchmarks();
    registerHandlerBenchmarks();
    registerByteArrayBenchmarks();
    registerQueuedLogBenchmarks();
    registerTextBenchmarks();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
