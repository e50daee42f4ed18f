// Trace lines: suppressed ones beside an empty call, printed ones beside formatting their message.
#include <benchmark/benchmark.h>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include <korvane/iAp2LogUtil.h>

#include "allocations.h"
#include "benchmarks.h"
#include "emptyCall.h"
#include "insideLine.h"
#include "repeat.h"
#include "silentSink.h"

namespace
{

const char* const kPath = "Sources/UTILS/iAp2Marshal.cpp";

/* ---- Suppressed lines ------------------------------------------------------------------------ */

void suppressLines(const benchmark::State&)
{
    setLogLevel(IAP2_LOG_INFO);
    insideSetLogLevel(IAP2_LOG_INFO);
}

void printLines(const benchmark::State&)
{
    setLogLevel(IAP2_LOG_VERBOSE);
}

void suppressedFromOutside(benchmark::State& state)
{
    unsigned value = 44100;
    const AllocationReport report(state, kRepetitions);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(value);
        KORVANE_REPEAT_64(
            logPrint(IAP2_LOG_DEBUG, "IAP2", kPath, 312, "%sParam [%u]", "uint32", value));
    }
}

void suppressedInside(benchmark::State& state)
{
    unsigned value = 44100;
    const AllocationReport report(state, kRepetitions);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(value);
        insideSuppressedLines(value);
    }
}

void emptyCalls(benchmark::State& state)
{
    unsigned value = 44100;
    const AllocationReport report(state, kRepetitions);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(value);
        KORVANE_REPEAT_64(
            emptyCall(IAP2_LOG_DEBUG, "IAP2", kPath, 312, "%sParam [%u]", "uint32", value));
    }
}

/* ---- Printed lines --------------------------------------------------------------------------- */

constexpr std::size_t kLineSize = 1024;
const char kReadyPrefix[] = "E IAP2        iAp2Marshal.cpp    32 12:34:56:789 ";
constexpr std::size_t kPrefixLength = sizeof kReadyPrefix - 1;
static_assert(kPrefixLength == sizeof("E IAP2 ") - 1 + 22 + 1 + 5 + 1 + sizeof("00:00:00:000 ") - 1,
              "as long as the columns that a line has");

/** The floor of a printed line: a ready prefix, and the message alone. */
__attribute__((noinline, format(printf, 1, 2))) void formatAlone(const char* format, ...)
{
    char buffer[kLineSize];
    std::memcpy(buffer, kReadyPrefix, kPrefixLength);
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer + kPrefixLength, kLineSize - kPrefixLength, format, arguments);
    va_end(arguments);
    benchmark::DoNotOptimize(&buffer);
    benchmark::ClobberMemory();
}

/** Two messages of the library: one made of texts, one with numbers. */
#define KORVANE_TEXT_MESSAGE "%s error : %s", function, reason
#define KORVANE_NUMBER_MESSAGE                                                                     \
    "ERROR : iAp2MarshalAlloc() overflow size[%zu] dataAvail[%zu]", size, available

void printedText(benchmark::State& state)
{
    const char* function = "iAP2_free";
    const char* reason = "freeAddress is tainted!!";
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(function);
        benchmark::DoNotOptimize(reason);
        logPrint(IAP2_LOG_ERROR, "IAP2", kPath, 32, KORVANE_TEXT_MESSAGE);
    }
}

void formattedText(benchmark::State& state)
{
    const char* function = "iAP2_free";
    const char* reason = "freeAddress is tainted!!";
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(function);
        benchmark::DoNotOptimize(reason);
        formatAlone(KORVANE_TEXT_MESSAGE);
    }
}

void printedNumbers(benchmark::State& state)
{
    std::size_t size = 128;
    std::size_t available = 44;
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(size);
        benchmark::DoNotOptimize(available);
        logPrint(IAP2_LOG_ERROR, "IAP2", kPath, 32, KORVANE_NUMBER_MESSAGE);
    }
}

void formattedNumbers(benchmark::State& state)
{
    std::size_t size = 128;
    std::size_t available = 44;
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(size);
        benchmark::DoNotOptimize(available);
        formatAlone(KORVANE_NUMBER_MESSAGE);
    }
}

#undef KORVANE_TEXT_MESSAGE
#undef KORVANE_NUMBER_MESSAGE

benchmark::internal::Benchmark* add(const char* name, void (*function)(benchmark::State&))
{
    return benchmark::RegisterBenchmark(name, function);
}

} // namespace

void registerLogBenchmarks()
{
    add("SuppressedLine.outside/work", suppressedFromOutside)->Setup(suppressLines);
    add("SuppressedLine.outside/floor", emptyCalls);
    add("SuppressedLine.inside/work", suppressedInside)->Setup(suppressLines);
    add("SuppressedLine.inside/floor", emptyCalls);

    add("PrintedLine.text/work", printedText)->Setup(printLines);
    add("PrintedLine.text/floor", formattedText);
    add("PrintedLine.numbers/work", printedNumbers)->Setup(printLines);
    add("PrintedLine.numbers/floor", formattedNumbers);

    // Two threads at once cost each thread what one alone costs. Formatting the message alone in two
    // threads shares nothing at all, so it shows what the machine itself adds.
    add("TwoThreads.text/work", printedText)->Setup(printLines)->Threads(2);
    add("TwoThreads.text/floor", printedText)->Setup(printLines);
    add("TwoThreads.numbers/work", printedNumbers)->Setup(printLines)->Threads(2);
    add("TwoThreads.numbers/floor", printedNumbers)->Setup(printLines);
    add("TwoThreads.machine/work", formattedText)->Threads(2);
    add("TwoThreads.machine/floor", formattedText);
}

const char* findLogDifference()
{
    return isSilentSinkInPlace() ? nullptr : "lines do not go to the silent sink";
}
