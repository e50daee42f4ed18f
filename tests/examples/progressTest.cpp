#include <cerrno>
#include <future>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <korvane/iAp2LogUtil.h>

#include "failures.h"
#include "NoThreads.h"
#include "progress.h"
#include "TraceRecorder.h"

using namespace identification;

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

class Progress : public support::TraceTest
{
protected:
    static std::string line(const std::string& role, const std::string& text)
    {
        return role + '[' + std::to_string(getpid()) + "]: " + text;
    }

    static std::vector<std::string> texts()
    {
        std::vector<std::string> result;
        for (const support::Trace& trace : support::takeTraces())
        {
            EXPECT_EQ(trace.severity, 128); // information
            result.push_back(trace.text);
        }
        return result;
    }
};

TEST_F(Progress, Say_WhenLogRuns_ComesOutInOrder)
{
    const ProgressLog log(IAP2_LOG_INFO);
    std::vector<std::string> expected;
    for (int i = 0; i < 50; ++i)
    {
        sayProgress("sender", "step " + std::to_string(i));
        expected.push_back(line("sender", "step " + std::to_string(i)));
    }
    awaitProgress();
    EXPECT_EQ(texts(), expected);

    sayProgress("reader", "100 % of %s");
    awaitProgress();
    EXPECT_THAT(texts(), ElementsAre(line("reader", "100 % of %s")));
}

TEST_F(Progress, Say_WhenTheTraceLibraryIsBusy_DoesNotWait)
{
    std::promise<void> end;
    const std::shared_future<void> isOver = end.get_future().share();
    support::onTrace([isOver](const std::string&) { isOver.wait(); });
    {
        const ProgressLog log(IAP2_LOG_INFO);
        for (const char* const text : {"a", "b", "c"})
        {
            sayProgress("sender", text);
        }
        end.set_value(); // reached only because nobody has waited for the first line
    }
    EXPECT_THAT(texts(),
                ElementsAre(line("sender", "a"), line("sender", "b"), line("sender", "c")));
}

TEST_F(Progress, End_WhenLinesAreLeft_WritesThemFirst)
{
    for (const char* const text : {"first", "second"}) // the second one has a log of its own
    {
        {
            const ProgressLog log(IAP2_LOG_INFO);
            sayProgress("sender", text);
        }
        EXPECT_THAT(texts(), ElementsAre(line("sender", text)));
    }
}

TEST_F(Progress, Say_WhenThereIsNoLog_IsNotHeard)
{
    sayProgress("sender", "early");
    awaitProgress();
    {
        const ProgressLog log(IAP2_LOG_INFO);
    }
    sayProgress("sender", "late");
    awaitProgress();
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(Progress, Say_WhenLevelHidesIt_IsNotHeard)
{
    {
        const ProgressLog hidden(IAP2_LOG_INFO + 1);
        sayProgress("sender", "hidden");
    }
    EXPECT_THAT(texts(), IsEmpty());
    {
        const ProgressLog shown(IAP2_LOG_VERBOSE);
        sayProgress("sender", "shown");
    }
    EXPECT_THAT(texts(), ElementsAre(line("sender", "shown")));
}

TEST_F(Progress, Log_WhenThereIsNoThread_Throws)
{
    std::string text = "none";
    {
        const NoThreads none;
        try
        {
            const ProgressLog log(IAP2_LOG_INFO);
        }
        catch (const SystemError& error)
        {
            text = error.what();
        }
    }
    EXPECT_THAT(text, testing::AnyOf("no thread for the progress lines: " + errorText(EAGAIN),
                                     "no thread for the progress lines: " + errorText(ENOMEM)));
    sayProgress("sender", "dropped");
    EXPECT_THAT(texts(), IsEmpty());
}

} // namespace
