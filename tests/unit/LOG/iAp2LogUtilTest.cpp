#include <korvane/iAp2LogUtil.h>

#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Faults.h"
#include "internal/logLevel.h"
#include "TraceRecorder.h"

namespace
{

using support::columnsOf;
using support::Hooks;
using support::ScopedHook;
using support::takeTraces;
using support::Trace;
using testing::IsEmpty;

constexpr std::size_t kLongestLine = 1023;

/** The level that nobody has set: read before the first test runs. */
const int levelAtLoad = korvaneLogLevel.load();

/** A monotonic clock that stands still at a chosen time. */
class FixedClock
{
public:
    FixedClock(time_t seconds, long nanoseconds)
        : mHook(&Hooks::clockGettime,
                [=](clockid_t clock, timespec* now)
                {
                    EXPECT_EQ(clock, CLOCK_MONOTONIC);
                    now->tv_sec = seconds;
                    now->tv_nsec = nanoseconds;
                    return 0;
                })
    {
    }

private:
    ScopedHook<std::function<int(clockid_t, timespec*)>> mHook;
};

/** A monotonic clock that cannot be read the next `times` times. */
class FailingClock
{
public:
    explicit FailingClock(int times)
        : mHook(&Hooks::clockGettime,
                [times](clockid_t clock, timespec* now) mutable
                {
                    if (times-- > 0)
                    {
                        *now = {3661, 1000000}; // must not be looked at
                        return -1;
                    }
                    return support::real::clockGettime(clock, now);
                })
    {
    }

private:
    ScopedHook<std::function<int(clockid_t, timespec*)>> mHook;
};

class LogTest : public support::TraceTest
{
protected:
    static std::string onlyText()
    {
        const std::vector<Trace> traces = takeTraces();
        EXPECT_EQ(traces.size(), 1U);
        return traces.empty() ? std::string() : traces.front().text;
    }

    /** The letters of the lines that levels 0, 20, 40, 60, 90 and 91 print. */
    static std::string lettersOfNamedLevels()
    {
        for (const int level : {0, 20, 40, 60, 90, 91})
        {
            logPrint(level, "IAP2", "a/b", 1, "x");
        }
        std::string letters;
        for (const Trace& trace : takeTraces())
        {
            letters += trace.text.front();
        }
        return letters;
    }
};

/* ---- The level filter ---- */

TEST_F(LogTest, CurrentLevel_WhenNobodyHasSetIt_IsZero)
{
    EXPECT_EQ(levelAtLoad, 0);
}

TEST_F(LogTest, LogPrint_WhenLevelIsTheDefault_PrintsEveryNamedLevelButNoneAbove90)
{
    EXPECT_EQ(lettersOfNamedLevels(), "VDIWE");
}

TEST_F(LogTest, LogPrint_WhenCurrentLevelIs60_PrintsWarningsAndErrorsOnly)
{
    setLogLevel(60);
    EXPECT_EQ(lettersOfNamedLevels(), "WE");
}

TEST_F(LogTest, LogPrint_WhenCurrentLevelIs91_IsSilent)
{
    setLogLevel(91);
    EXPECT_EQ(lettersOfNamedLevels(), "");
}

TEST_F(LogTest, LogPrint_WhenLevelEqualsTheCurrentLevel_Prints)
{
    setLogLevel(40);
    logPrint(40, "IAP2", "a/b", 1, "x");
    EXPECT_EQ(takeTraces().size(), 1U);
    logPrint(39, "IAP2", "a/b", 1, "x");
    EXPECT_THAT(takeTraces(), IsEmpty());
}

TEST_F(LogTest, LogPrint_WhenLevelIsNegative_PrintsOnlyBehindANegativeCurrentLevelAndAsU)
{
    logPrint(-1, "IAP2", "a/b", 1, "x");
    EXPECT_THAT(takeTraces(), IsEmpty());
    setLogLevel(-1);
    logPrint(-1, "IAP2", "a/b", 1, "x");
    EXPECT_EQ(columnsOf(onlyText()).letter, "U");
    logPrint(-2, "IAP2", "a/b", 1, "x");
    EXPECT_THAT(takeTraces(), IsEmpty());
    setLogLevel(INT_MIN);
    logPrint(INT_MIN, "IAP2", "a/b", 1, "x");
    EXPECT_EQ(columnsOf(onlyText()).letter, "U");
}

TEST_F(LogTest, LogPrint_WhenLevelHasNoName_PrintsTheLetterU)
{
    for (const int level : {1, 19, 21, 50, 59, 70, 89})
    {
        logPrint(level, "IAP2", "a/b", 1, "x");
        EXPECT_EQ(columnsOf(onlyText()).letter, "U") << level;
    }
}

TEST_F(LogTest, LogPrint_WhenLevelIsAbove90_PrintsNothingWhateverTheCurrentLevel)
{
    setLogLevel(INT_MIN);
    logPrint(91, "IAP2", "a/b", 1, "x");
    logPrint(INT_MAX, "IAP2", "a/b", 1, "x");
    setLogLevel(91);
    logPrint(91, "IAP2", "a/b", 1, "x");
    EXPECT_THAT(takeTraces(), IsEmpty());
}

TEST_F(LogTest, LogPrint_WhenSuppressed_ReadsNoClockAndNoArgument)
{
    setLogLevel(91);
    int reads = 0;
    const ScopedHook clock(&Hooks::clockGettime,
                           [&reads](clockid_t, timespec*)
                           {
                               ++reads;
                               return 0;
                           });
    const char* const unreadable = reinterpret_cast<const char*>(8);
    logPrint(90, unreadable, unreadable, 1, "%s", unreadable);
    logPrint(95, unreadable, unreadable, 1, "%s", unreadable);
    EXPECT_EQ(reads, 0);
    EXPECT_THAT(takeTraces(), IsEmpty());
}

/* ---- The line ---- */

TEST_F(LogTest, LogPrint_WhenCalled_PassesOneLineWithAllColumns)
{
    const FixedClock clock(3 * 3600 + 4 * 60 + 5, 6 * 1000000);
    logPrint(20, "IAP2", "Sources/UTILS/utils.cpp", 120, "value[%d] text[%s]", -7, "abc");
    EXPECT_EQ(onlyText(), "D IAP2              utils.cpp   120 03:04:05:006 value[-7] text[abc]");
}

TEST_F(LogTest, LogPrint_WhenPathIsNull_LeavesOutFileAndLine)
{
    const FixedClock clock(0, 0);
    logPrint(90, "IAP2", nullptr, 120, "message");
    EXPECT_EQ(onlyText(), "E IAP2 00:00:00:000 message");
}

TEST_F(LogTest, LogPrint_WhenPathHasNoSlash_PrintsItWhole)
{
    logPrint(0, "IAP2", "utils.cpp", 1, "x");
    EXPECT_EQ(columnsOf(onlyText()).file, "utils.cpp");
}

TEST_F(LogTest, LogPrint_WhenPathEndsInSlash_PrintsAnEmptyFileColumn)
{
    const FixedClock clock(0, 0);
    logPrint(0, "IAP2", "a/b/", 1, "x");
    EXPECT_EQ(onlyText(), "V IAP2 " + std::string(22, ' ') + "     1 00:00:00:000 x");
}

TEST_F(LogTest, LogPrint_WhenPathHasSeveralSlashes_PrintsWhatFollowsTheLast)
{
    logPrint(0, "IAP2", "/a//b/name", 1, "x");
    EXPECT_EQ(columnsOf(onlyText()).file, "name");
}

TEST_F(LogTest, LogPrint_WhenFileNameIs22CharactersOrLonger_PrintsItWhole)
{
    const FixedClock clock(0, 0);
    logPrint(0, "IAP2", "a/1234567890123456789012", 1, "x");
    EXPECT_EQ(onlyText(), "V IAP2 1234567890123456789012     1 00:00:00:000 x");
    logPrint(0, "IAP2", "a/12345678901234567890123", 1, "x");
    EXPECT_EQ(onlyText(), "V IAP2 12345678901234567890123     1 00:00:00:000 x");
}

TEST_F(LogTest, LogPrint_WhenLineNumberVaries_PrintsWhatPrintfPrints)
{
    const FixedClock clock(0, 0);
    for (const int line :
         {0, 1, 9, 10, 99, 100, 12345, 99999, 100000, INT_MAX, -1, -9999, -10000, -99999, INT_MIN})
    {
        char expected[128];
        std::snprintf(expected, sizeof expected, "V IAP2 %22s %5d 00:00:00:000 x", "b", line);
        logPrint(0, "IAP2", "a/b", line, "x");
        EXPECT_EQ(onlyText(), expected);
    }
}

TEST_F(LogTest, LogPrint_WhenTagDiffers_PrintsIt)
{
    const FixedClock clock(0, 0);
    logPrint(0, "OTHER COMPONENT", nullptr, 1, "x");
    EXPECT_EQ(onlyText(), "V OTHER COMPONENT 00:00:00:000 x");
    logPrint(0, "", nullptr, 1, "x");
    EXPECT_EQ(onlyText(), "V  00:00:00:000 x");
    const char* volatile noTag = nullptr;
    logPrint(0, noTag, nullptr, 1, "x");
    EXPECT_EQ(onlyText(), "V (null) 00:00:00:000 x");
}

TEST_F(LogTest, LogPrint_WhenMessageIsEmptyOrFormatNull_EndsBehindTheBlank)
{
    const FixedClock clock(0, 0);
    logPrint(0, "IAP2", nullptr, 1, "%s", "");
    EXPECT_EQ(onlyText(), "V IAP2 00:00:00:000 ");
    // Leaves something on the stack that must not show.
    logPrint(0, "IAP2", nullptr, 1, "%s", std::string(1000, 'm').c_str());
    takeTraces();
    // Through another type, since a compiler checks the format where it sees one.
    const auto print =
        reinterpret_cast<void (*)(int, const char*, const char*, int, const void*, ...)>(&logPrint);
    print(0, "IAP2", nullptr, 1, nullptr);
    EXPECT_EQ(onlyText(), "V IAP2 00:00:00:000 ");
}

TEST_F(LogTest, LogPrint_WhenMessageHoldsPercentSigns_PassesThemUntouched)
{
    logPrint(0, "IAP2", "a/b", 1, "%s", "100%s %n %d");
    const std::vector<Trace> traces = takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(traces[0].format, "%s");
    EXPECT_EQ(columnsOf(traces[0].text).message, "100%s %n %d");
}

TEST_F(LogTest, LogPrint_WhenMessageHoldsNewlines_AddsNone)
{
    logPrint(0, "IAP2", "a/b", 1, "one\ntwo");
    EXPECT_EQ(columnsOf(onlyText()).message, "one\ntwo");
}

TEST_F(LogTest, LogPrint_WhenMessageHoldsAZero_EndsThere)
{
    logPrint(0, "IAP2", "a/b", 1, "one%ctwo", '\0');
    EXPECT_EQ(columnsOf(onlyText()).message, "one");
}

TEST_F(LogTest, LogPrint_WhenArgumentsAreOfManyKinds_FormatsThemAll)
{
    logPrint(0, "IAP2", "a/b", 1, "%d %zu %lld %g %g %g %g %g %g %g %g %g %c %s", 1,
             static_cast<std::size_t>(-1), -5LL, 0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5, 8.5, 'c',
             "s");
    EXPECT_EQ(columnsOf(onlyText()).message,
              "1 18446744073709551615 -5 0.5 1.5 2.5 3.5 4.5 5.5 6.5 7.5 8.5 c s");
}

TEST_F(LogTest, LogPrint_WhenTheMessageCannotBeFormatted_PrintsTheColumns)
{
    const FixedClock clock(0, 0);
    const wchar_t invalid[] = {static_cast<wchar_t>(0x7fffffff), 0};
    logPrint(0, "IAP2", nullptr, 1, "%ls", invalid);
    EXPECT_EQ(onlyText(), "V IAP2 00:00:00:000 ");
}

/* ---- The limit of a line ---- */

TEST_F(LogTest, LogPrint_WhenTheLineIsExactly1023Characters_KeepsItWhole)
{
    const FixedClock clock(0, 0);
    const std::string prefix = "V IAP2 00:00:00:000 ";
    const std::string message(kLongestLine - prefix.size(), 'm');
    logPrint(0, "IAP2", nullptr, 1, "%s", message.c_str());
    EXPECT_EQ(onlyText(), prefix + message);
}

TEST_F(LogTest, LogPrint_WhenTheLineIsLonger_CutsItAt1023Characters)
{
    const FixedClock clock(0, 0);
    const std::string prefix = "V IAP2 00:00:00:000 ";
    for (const std::size_t extra : {1U, 2U, 1000U, 100000U})
    {
        const std::string message(kLongestLine - prefix.size() + extra, 'm');
        logPrint(0, "IAP2", nullptr, 1, "%s", message.c_str());
        EXPECT_EQ(onlyText(), (prefix + message).substr(0, kLongestLine)) << extra;
    }
}

/** The shape of the limit, with the columns in plain printf calls. */
std::string lineByPrintf(const char* tag, const char* file, const char* message)
{
    char buffer[2048] = {};
    int length =
        file != nullptr
            ? std::snprintf(buffer, 1024, "%c %s %22s %5d %s ", 'V', tag, file, 77, "00:00:00:000")
            : std::snprintf(buffer, 1024, "%c %s %s ", 'V', tag, "00:00:00:000");
    if (length > 1024)
    {
        length = 0;
    }
    std::snprintf(buffer + length, static_cast<std::size_t>(1024 - length), "%s", message);
    return std::string(buffer, strnlen(buffer, 1024));
}

TEST_F(LogTest, LogPrint_WhenTheColumnsApproachTheLimit_CutsOrDropsThemAsPrintfWould)
{
    const FixedClock clock(0, 0);
    for (std::size_t length = 940; length < 1100; ++length)
    {
        const std::string tag(length, 't');
        for (const char* message : {"", "m", "the message"})
        {
            logPrint(0, tag.c_str(), nullptr, 77, "%s", message);
            EXPECT_EQ(onlyText(), lineByPrintf(tag.c_str(), nullptr, message)) << length;
            logPrint(0, tag.c_str(), "a/b", 77, "%s", message);
            EXPECT_EQ(onlyText(), lineByPrintf(tag.c_str(), "b", message)) << length;
            logPrint(0, "IAP2", ("a/" + tag).c_str(), 77, "%s", message);
            EXPECT_EQ(onlyText(), lineByPrintf("IAP2", tag.c_str(), message)) << length;
        }
    }
}

TEST_F(LogTest, LogPrint_WhenTheColumnsAreExactly1024Characters_PrintsThemWithoutTheLastBlank)
{
    const FixedClock clock(0, 0);
    const std::string tag(1024 - std::strlen("V  00:00:00:000 "), 't');
    logPrint(0, tag.c_str(), nullptr, 1, "%s", "lost");
    EXPECT_EQ(onlyText(), "V " + tag + " 00:00:00:000");
}

TEST_F(LogTest, LogPrint_WhenTheColumnsAreLongerThan1024Characters_PrintsTheMessageAlone)
{
    const std::string tag(1025 - std::strlen("V  00:00:00:000 "), 't');
    logPrint(0, tag.c_str(), nullptr, 1, "the message %d", 5);
    EXPECT_EQ(onlyText(), "the message 5");
    logPrint(0, tag.c_str(), nullptr, 1, "%s", std::string(5000, 'm').c_str());
    EXPECT_EQ(onlyText(), std::string(kLongestLine, 'm'));
}

TEST_F(LogTest, LogPrint_WhenALineIsPrinted_PassesItsLevelAndItsLengthOn)
{
    const FixedClock clock(0, 0);
    std::vector<std::pair<int, std::size_t>> calls;
    const ScopedHook watch(&Hooks::wirteDirect,
                           [&calls](int level, char* text, std::size_t length)
                           {
                               calls.emplace_back(level, length);
                               return support::real::wirteDirect(level, text, length);
                           });
    const std::size_t columns = std::strlen("V IAP2 00:00:00:000 ");
    logPrint(20, "IAP2", nullptr, 1, "12345");
    logPrint(90, "IAP2", nullptr, 1, "%s", std::string(kLongestLine - columns, 'm').c_str());
    logPrint(0, "IAP2", nullptr, 1, "%s", std::string(5000, 'm').c_str());
    logPrint(0, std::string(2000, 't').c_str(), nullptr, 1, "%s", "");
    EXPECT_THAT(calls, testing::ElementsAre(std::pair(20, columns + 5), std::pair(90, kLongestLine),
                                            std::pair(0, kLongestLine), std::pair(0, 0)));
    EXPECT_EQ(takeTraces().size(), 4U);
}

/* ---- The stamp ---- */

TEST_F(LogTest, GetCurrentTimeString_WhenTheClockRuns_ShowsHoursMinutesSecondsMilliseconds)
{
    const struct
    {
        time_t seconds;
        long nanoseconds;
        const char* stamp;
    } rows[] = {
        {0, 0, "00:00:00:000"},
        {0, 999999, "00:00:00:000"},
        {0, 1000000, "00:00:00:001"},
        {59, 999999999, "00:00:59:999"},
        {60, 10000000, "00:01:00:010"},
        {3599, 100000000, "00:59:59:100"},
        {3600, 0, "01:00:00:000"},
        {10 * 3600 + 11 * 60 + 12, 345678901, "10:11:12:345"},
        {86399, 999999999, "23:59:59:999"},
        {86400, 0, "00:00:00:000"},
        {86400 * 365 + 61, 5000000, "00:01:01:005"},
    };
    for (const auto& row : rows)
    {
        const FixedClock clock(row.seconds, row.nanoseconds);
        EXPECT_STREQ(getCurrentTimeString(), row.stamp);
    }
}

TEST_F(LogTest, GetCurrentTimeString_WhenCalledTwice_ReturnsTheSameBuffer)
{
    const char* first;
    {
        const FixedClock clock(1, 0);
        first = getCurrentTimeString();
    }
    const FixedClock clock(2, 0);
    EXPECT_EQ(getCurrentTimeString(), first);
    EXPECT_STREQ(first, "00:00:02:000");
}

TEST_F(LogTest, GetCurrentTimeString_WhenAnotherThreadCalls_ReturnsTheSameBuffer)
{
    const char* other = nullptr;
    std::thread([&other] { other = getCurrentTimeString(); }).join();
    EXPECT_EQ(other, getCurrentTimeString());
}

TEST_F(LogTest, LogPrint_WhenTheSharedStampChangesMeanwhile_PrintsItsOwn)
{
    const FixedClock clock(3600, 0);
    {
        // The columns are measured between the stamp's making and its place in the line.
        const ScopedHook meanwhile(&Hooks::strlen,
                                   [](const char* text)
                                   {
                                       const FixedClock later(7200, 0);
                                       getCurrentTimeString();
                                       return std::strlen(text);
                                   });
        logPrint(0, "IAP2", "a/b", 1, "x");
        logPrint(0, "IAP2", nullptr, 1, "x");
    }
    const std::vector<Trace> traces = takeTraces();
    ASSERT_EQ(traces.size(), 2U);
    EXPECT_EQ(columnsOf(traces[0].text).stamp, "01:00:00:000");
    EXPECT_EQ(traces[1].text, "V IAP2 01:00:00:000 x");
}

TEST_F(LogTest, GetCurrentTimeString_WhenALineIsPrintedLater_ShowsThatLinesStamp)
{
    const char* const stamp = getCurrentTimeString();
    const FixedClock clock(7200, 8000000);
    logPrint(0, "IAP2", "a/b", 1, "x");
    EXPECT_EQ(columnsOf(onlyText()).stamp, "02:00:00:008");
    EXPECT_STREQ(stamp, "02:00:00:008");
    EXPECT_EQ(std::memcmp(stamp, "02:00:00:008\0\0\0\0", 16), 0);
}

TEST_F(LogTest, GetCurrentTimeString_WhenTheClockFails_ReportsAndShowsZero)
{
    const FailingClock clock(1);
    const char* const stamp = getCurrentTimeString();
    EXPECT_STREQ(stamp, "00:00:00:000");
    const std::vector<Trace> traces = takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(traces[0].severity, 192);
    const support::TraceColumns columns = columnsOf(traces[0].text);
    EXPECT_EQ(columns.letter, "E");
    EXPECT_EQ(columns.tag, "IAP2");
    EXPECT_EQ(columns.file, "iAp2LogUtil.cpp");
    EXPECT_GT(columns.line, 0);
    EXPECT_EQ(columns.message, "Can't get current time");
}

TEST_F(LogTest, GetCurrentTimeString_WhenTheClockFailsAndErrorsAreSilent_ShowsZeroOnly)
{
    setLogLevel(91);
    const FailingClock clock(1);
    EXPECT_STREQ(getCurrentTimeString(), "00:00:00:000");
    EXPECT_THAT(takeTraces(), IsEmpty());
}

TEST_F(LogTest, LogPrint_WhenTheClockFails_PrintsTheReportFirstAndItsOwnLineAtZero)
{
    const FailingClock clock(1);
    logPrint(20, "IAP2", "a/b", 1, "the line");
    const std::vector<Trace> traces = takeTraces();
    ASSERT_EQ(traces.size(), 2U);
    EXPECT_EQ(columnsOf(traces[0].text).message, "Can't get current time");
    EXPECT_EQ(columnsOf(traces[1].text).message, "the line");
    EXPECT_EQ(columnsOf(traces[1].text).stamp, "00:00:00:000");
}

TEST_F(LogTest, LogPrint_WhenTheClockKeepsFailing_AsksAgainForEachReport)
{
    const FailingClock clock(20);
    logPrint(20, "IAP2", "a/b", 1, "the line");
    const std::vector<std::string> messages = support::takeMessages();
    ASSERT_EQ(messages.size(), 21U);
    for (std::size_t i = 0; i < 20; ++i)
    {
        EXPECT_EQ(messages[i], "E Can't get current time");
    }
    EXPECT_EQ(messages[20], "D the line");
}

/* ---- Threads ---- */

TEST_F(LogTest, LogPrint_WhenThreadsPrintAtOnce_EveryLineIsWholeAndHasItsOwnStamp)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 2000;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
    {
        threads.emplace_back(
            [i]
            {
                // Every thread lives in an hour of its own, so that a foreign stamp shows.
                for (int n = 0; n < kLines; ++n)
                {
                    const FixedClock clock(3600 * (i + 1) + n % 3600, n % 1000 * 1000000L);
                    logPrint(20, "IAP2", "a/thread", i, "n[%d]", n);
                    setLogLevel(0);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    std::vector<int> next(kThreads, 0);
    const std::vector<Trace> traces = takeTraces();
    EXPECT_EQ(traces.size(), static_cast<std::size_t>(kThreads * kLines));
    for (const Trace& trace : traces)
    {
        int hour;
        int minute;
        int second;
        int millisecond;
        int thread;
        int n;
        ASSERT_EQ(std::sscanf(trace.text.c_str(), "D IAP2 thread %d %d:%d:%d:%d n[%d]", &thread,
                              &hour, &minute, &second, &millisecond, &n),
                  6)
            << trace.text;
        EXPECT_EQ(hour, thread + 1);
        EXPECT_EQ(minute * 60 + second, n % 3600);
        EXPECT_EQ(millisecond, n % 1000);
        EXPECT_EQ(n, next[static_cast<std::size_t>(thread)]++);
    }
}

TEST_F(LogTest, GetTid_WhenCalled_ReturnsTheKernelsIdOfTheCallingThread)
{
    EXPECT_EQ(getTid(), syscall(SYS_gettid));
    EXPECT_EQ(getTid(), getpid());
    long other = 0;
    long expected = 0;
    std::thread(
        [&]
        {
            other = getTid();
            expected = syscall(SYS_gettid);
        })
        .join();
    EXPECT_EQ(other, expected);
    EXPECT_NE(other, getTid());
}

} // namespace
