#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include "failures.h"
#include "NoThreads.h"
#include "outputWorker.h"
#include "ShortMemory.h"
#include "TraceRecorder.h"

using namespace identification;

namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;

/** A zero inside, and more than one piece for a pipe. */
std::string payload()
{
    std::string bytes(8120, 'p');
    bytes[4] = '\0';
    return bytes;
}

class OutputWorker : public support::TraceTest
{
protected:
    OutputWorker()
    {
        std::string name = (fs::path(testing::TempDir()) / "outputWorkerXXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
        {
            throw std::runtime_error("no folder");
        }
        folder = name;
        output = folder / "out.bin";
    }

    ~OutputWorker() override
    {
        support::onTrace({});
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }

    /** Notes which thread writes; hands every line on to `further`. */
    void watch(std::function<void(const std::string& text)> further = [](const std::string&) {})
    {
        support::onTrace(
            [this, further = std::move(further)](const std::string& text)
            {
                if (text.find("]: writes the output") != std::string::npos)
                {
                    const std::lock_guard<std::mutex> lock(mutex);
                    std::array<char, 16> name{};
                    pthread_getname_np(pthread_self(), name.data(), name.size());
                    writers.emplace_back(std::this_thread::get_id() == test ? "the caller"
                                                                            : name.data());
                }
                further(text);
            });
    }

    std::string content() const
    {
        std::ifstream file(output, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    /** All that is in the folder. */
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder))
        {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    static std::vector<std::string> errors()
    {
        std::vector<std::string> result;
        for (const std::string& message : support::takeMessages())
        {
            if (message[0] == 'E' || message[0] == 'W')
            {
                result.push_back(message);
            }
        }
        return result;
    }

    const std::thread::id test = std::this_thread::get_id();
    fs::path folder;
    fs::path output;
    std::mutex mutex;
    std::vector<std::string> writers;
};

TEST_F(OutputWorker, Write_WhenAllIsWell_IsDoneByTheQueuesThreadWhichHasEndedThen)
{
    watch();
    writeOutput(output.string(), payload());
    EXPECT_TRUE(content() == payload());
    EXPECT_THAT(writers, ElementsAre("iAP2DataQueue"));
    const std::vector<std::string> messages = support::takeMessages();
    EXPECT_THAT(messages, Contains("I Terminated QueueThreadRunLoop"));
    EXPECT_THAT(messages, Not(Contains(StartsWith("E "))));
    EXPECT_THAT(files(), ElementsAre("out.bin"));

    writeOutput(output.string(), "shorter");
    EXPECT_EQ(content(), "shorter");
}

TEST_F(OutputWorker, Write_WhenItFails_ThrowsWhatTheWriterThrew)
{
    watch();
    const std::string missing = (folder / "missing" / "out.bin").string();
    std::string text = "none";
    try
    {
        writeOutput(missing, payload());
    }
    catch (const SystemError& error)
    {
        text = error.what();
    }
    EXPECT_EQ(text, missing + ": cannot be written: No such file or directory");
    EXPECT_THAT(writers, ElementsAre("iAP2DataQueue"));
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(OutputWorker, Write_WhenMemoryIsShortForTheWriter_ThrowsAndLeavesTheFile)
{
    const std::string path = output.string();
    const std::string bytes = payload();
    writeOutput(path, "from before");
    support::record(false);
    {
        const ShortMemory limit(0);
        EXPECT_THROW(writeOutput(path, bytes), std::bad_alloc);
    }
    support::record(true);
    EXPECT_EQ(content(), "from before");
    EXPECT_THAT(files(), ElementsAre("out.bin"));
}

TEST_F(OutputWorker, Write_WhenThereIsNoMemoryForTheItem_ThrowsAndLeavesTheFile)
{
    writeOutput(output.string(), "from before");
    watch();
    {
        const NoGuardedMemory none;
        EXPECT_THROW(writeOutput(output.string(), payload()), std::bad_alloc);
    }
    EXPECT_EQ(content(), "from before");
    EXPECT_THAT(writers, IsEmpty());
}

/*
 *     worker                       caller
 *     looks: the queue is empty
 *                                  puts the item and signals; nobody waits
 *     waits
 */
TEST_F(OutputWorker, Write_WhenTheWakeUpIsLost_IsDoneByTheCaller)
{
    std::promise<void> look;
    std::promise<void> put;
    const std::shared_future<void> hasLooked = look.get_future().share();
    const std::shared_future<void> isPut = put.get_future().share();
    bool isFirstWait = true;
    watch(
        [&](const std::string& text)
        {
            if (text.find(" waitDataQueue()") != std::string::npos && isFirstWait)
            {
                isFirstWait = false; // only the worker comes here
                look.set_value();
                isPut.wait();
            }
            else if (text.find(" addDataQueue()") != std::string::npos)
            {
                hasLooked.wait();
            }
            else if (text.find("]: has queued the output") != std::string::npos)
            {
                put.set_value();
            }
        });
    writeOutput(output.string(), payload());
    EXPECT_TRUE(content() == payload());
    EXPECT_THAT(writers, ElementsAre("the caller"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(OutputWorker, Write_WhenThereIsNoWorker_IsDoneByTheCaller)
{
    watch();
    {
        const NoThreads none;
        writeOutput(output.string(), payload());
    }
    EXPECT_TRUE(content() == payload());
    EXPECT_THAT(writers, ElementsAre("the caller"));
    EXPECT_THAT(errors(), ElementsAre(StartsWith("E ERROR : fail to create pthread ret[")));

    const NoThreads none;
    EXPECT_THROW(writeOutput((folder / "missing" / "out.bin").string(), payload()), SystemError);
}

} // namespace
