#include <korvane/iAP2ExtLog.h>

#include <climits>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "TraceRecorder.h"

namespace
{

using support::takeTraces;
using support::Trace;

class ExtLogTest : public support::TraceTest
{
protected:
    static Trace sink(int level)
    {
        char text[] = "the text";
        iAP2ExtLog(level, text);
        const std::vector<Trace> traces = takeTraces();
        EXPECT_EQ(traces.size(), 1U);
        return traces.empty() ? Trace() : traces.front();
    }
};

TEST_F(ExtLogTest, iAP2ExtLog_WhenLevelIsInARow_PassesTheRowsSeverity)
{
    const struct
    {
        int level;
        int severity;
    } rows[] = {
        {INT_MIN, 32}, {-1, 32},  {0, 32},   {20, 32},   {21, 64},       {30, 64},
        {31, 128},     {40, 128}, {50, 128}, {51, 160},  {60, 160},      {61, 192},
        {70, 192},     {90, 192}, {91, 224}, {100, 224}, {INT_MAX, 224},
    };
    for (const auto& row : rows)
    {
        EXPECT_EQ(sink(row.level).severity, row.severity) << row.level;
    }
}

TEST_F(ExtLogTest, iAP2ExtLog_WhenCalled_PassesItsOwnPlaceAndTheConstants)
{
    const Trace trace = sink(90);
    EXPECT_EQ(trace.path, "Sources/LOG/EXTERNEL_LOG/Quilmar/iAP2ExtLog.cpp");
    EXPECT_EQ(trace.function, "iAP2ExtLog");
    EXPECT_EQ(trace.size, 2048);
    EXPECT_EQ(trace.flags, 0);
    EXPECT_EQ(trace.format, "%s");
    EXPECT_EQ(trace.text, "the text");
}

TEST_F(ExtLogTest, iAP2ExtLog_WhenSeveritiesDiffer_ReportsADifferentLineForEach)
{
    std::set<int> lines;
    for (const int level : {91, 61, 51, 31, 21, 0})
    {
        lines.insert(sink(level).line);
    }
    EXPECT_EQ(lines.size(), 6U);
    EXPECT_GT(*lines.begin(), 0);
}

TEST_F(ExtLogTest, iAP2ExtLog_WhenTextHoldsConversions_PassesItAsAnArgument)
{
    char text[] = "100%s%n%d";
    iAP2ExtLog(0, text);
    EXPECT_EQ(takeTraces().at(0).text, "100%s%n%d");
}

TEST_F(ExtLogTest, iAP2ExtLog_WhenTheTraceLibraryReturns_ReturnsThatUnchanged)
{
    char text[] = "x";
    for (const int result : {0, 1, -1, INT_MAX, INT_MIN})
    {
        support::setTraceResult(result);
        for (const int level : {91, 61, 51, 31, 21, 0})
        {
            EXPECT_EQ(iAP2ExtLog(level, text), result);
            EXPECT_EQ(iAp2ExternelLogWirteDirect(level, text, 1), result);
        }
    }
}

TEST_F(ExtLogTest, iAP2ExtLog_WhenLevelsAreSilenced_FiltersNothing)
{
    setLogLevel(91);
    EXPECT_EQ(sink(0).text, "the text");
    EXPECT_EQ(sink(95).severity, 224);
}

TEST_F(ExtLogTest, iAp2ExternelLogWirteDirect_WhenLengthIsAnything_IgnoresIt)
{
    char text[] = "the text";
    for (const std::size_t length : {std::size_t{0}, std::size_t{3}, static_cast<std::size_t>(-1)})
    {
        iAp2ExternelLogWirteDirect(40, text, length);
        const std::vector<Trace> traces = takeTraces();
        ASSERT_EQ(traces.size(), 1U);
        EXPECT_EQ(traces[0].text, "the text");
        EXPECT_EQ(traces[0].severity, 128);
        EXPECT_EQ(traces[0].function, "iAP2ExtLog");
    }
}

TEST_F(ExtLogTest, LogPrint_WhenLevelIsPrinted_ReachesTheTraceLibraryWithItsSeverity)
{
    const struct
    {
        int level;
        int severity;
    } rows[] = {{0, 32}, {20, 32}, {25, 64}, {40, 128}, {50, 128}, {60, 160}, {70, 192}, {90, 192}};
    for (const auto& row : rows)
    {
        logPrint(row.level, "IAP2", "a/b", 1, "x");
        const std::vector<Trace> traces = takeTraces();
        ASSERT_EQ(traces.size(), 1U);
        EXPECT_EQ(traces[0].severity, row.severity) << row.level;
    }
}

} // namespace
