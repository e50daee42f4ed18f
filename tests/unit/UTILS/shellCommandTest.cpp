#include <korvane/utils.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "Faults.h"
#include "Sanitizers.h"
#include "TraceRecorder.h"

namespace
{

using support::Hooks;
using support::ScopedHook;
using support::takeMessages;
using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

constexpr const char* kSpawned = "D Linux posix_spawn";

/** A folder of its own for what the commands write. */
class ShellCommandTest : public support::TraceTest
{
protected:
    ShellCommandTest()
    {
        std::string pattern = testing::TempDir() + "shellCommandXXXXXX";
        EXPECT_NE(mkdtemp(pattern.data()), nullptr);
        mFolder = pattern;
    }
    ~ShellCommandTest() override
    {
        for (const std::string& file : mFiles)
        {
            unlink(file.c_str());
        }
        rmdir(mFolder.c_str());
    }

    std::string file(const std::string& name)
    {
        mFiles.push_back(mFolder + "/" + name);
        return mFiles.back();
    }
    /** Runs `command`, whose output goes to a file, and returns that. */
    std::string outputOf(const std::string& command)
    {
        const std::string output = file("output");
        run_system_cmd(("{ " + command + "; } >" + output).c_str());
        return contentOf(output);
    }
    static std::string contentOf(const std::string& path)
    {
        std::stringstream content;
        content << std::ifstream(path).rdbuf();
        return content.str();
    }

private:
    std::string mFolder;
    std::vector<std::string> mFiles;
};

/** What posix_spawn() was given, but for the process id. */
struct Spawned
{
    std::string path;
    std::vector<std::string> arguments;
    bool hasEnvironment;
};

Spawned spawnedWith(const char* path, char* const* arguments, char* const* environment)
{
    Spawned spawned{path, {}, environment != nullptr};
    for (; *arguments != nullptr; ++arguments)
    {
        spawned.arguments.emplace_back(*arguments);
    }
    return spawned;
}

TEST_F(ShellCommandTest, Run_WhenTheCommandEnds_HasWaitedForIt)
{
    pid_t spawned = 0;
    pid_t waited = 0;
    const ScopedHook spawn(
        &Hooks::posixSpawn,
        [&](pid_t* child, const char* path, char* const* arguments, char* const* environment)
        {
            const int error = support::real::posixSpawn(child, path, arguments, environment);
            spawned = *child;
            return error;
        });
    const ScopedHook wait(&Hooks::waitpid,
                          [&](pid_t child, int* status, int options)
                          {
                              EXPECT_NE(status, nullptr);
                              EXPECT_EQ(options, 0);
                              EXPECT_EQ(waited, 0);
                              waited = support::real::waitpid(child, status, options);
                              return waited;
                          });
    EXPECT_EQ(outputOf("echo done"), "done\n");
    EXPECT_GT(spawned, 0);
    EXPECT_EQ(waited, spawned);
    EXPECT_THAT(takeMessages(), ElementsAre(kSpawned));
    errno = 0;
    EXPECT_EQ(support::real::waitpid(spawned, nullptr, 0), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(ShellCommandTest, Run_WhenSpawning_PassesTheShellItsCommandAndNoEnvironment)
{
    Spawned spawned{};
    const char* given = nullptr;
    const std::string command = "echo 'a  b'; exit 3";
    const ScopedHook spawn(
        &Hooks::posixSpawn,
        [&](pid_t*, const char* path, char* const* arguments, char* const* environment)
        {
            EXPECT_THAT(takeMessages(), ElementsAre(kSpawned));
            spawned = spawnedWith(path, arguments, environment);
            given = arguments[2];
            return ENOENT;
        });
    run_system_cmd(command.c_str());
    EXPECT_EQ(spawned.path, "/bin/sh");
    EXPECT_THAT(spawned.arguments, ElementsAre("sh", "-c", command));
    EXPECT_FALSE(spawned.hasEnvironment);
    EXPECT_NE(given, command.c_str());
    EXPECT_THAT(takeMessages(), ElementsAre("E posix_spawn error : 2"));
}

TEST_F(ShellCommandTest, Run_WhenItReadsAVariable_SeesItUnset)
{
    ASSERT_EQ(setenv("KORVANE_TEST_VARIABLE", "set", 1), 0);
    EXPECT_EQ(outputOf("echo ${KORVANE_TEST_VARIABLE-unset} ${HOME-unset}"), "unset unset\n");
    unsetenv("KORVANE_TEST_VARIABLE");
}

TEST_F(ShellCommandTest, Run_WhenThereIsShellSyntax_TheShellReadsIt)
{
    EXPECT_EQ(
        outputOf("printf 'b\\na\\n' | sort; x=\"two  words\"; echo \"$x\"; echo lost >/dev/null"),
        "a\nb\ntwo  words\n");
}

TEST_F(ShellCommandTest, Run_WhenTheCommandFails_ReportsNothing)
{
    run_system_cmd("exit 7");
    run_system_cmd("kill -9 $$");
    run_system_cmd("");
    EXPECT_THAT(takeMessages(), ElementsAre(kSpawned, kSpawned, kSpawned));
}

TEST_F(ShellCommandTest, Run_WhenSpawningFails_ReportsTheNumberAndDoesNotWait)
{
    const ScopedHook spawn(&Hooks::posixSpawn,
                           [](pid_t*, const char*, char* const*, char* const*)
                           {
                               errno = EPERM;
                               return EAGAIN;
                           });
    const ScopedHook wait(&Hooks::waitpid,
                          [](pid_t, int*, int) -> pid_t
                          {
                              ADD_FAILURE() << "waits for nobody";
                              return -1;
                          });
    run_system_cmd("true");
    EXPECT_THAT(takeMessages(),
                ElementsAre(kSpawned, "E posix_spawn error : " + std::to_string(EAGAIN)));
}

TEST_F(ShellCommandTest, Run_WhenWaitingFails_ReportsThat)
{
    for (const int error : {ECHILD, EINTR})
    {
        int waits = 0;
        pid_t left = 0;
        const ScopedHook wait(&Hooks::waitpid,
                              [&](pid_t child, int*, int)
                              {
                                  ++waits;
                                  left = child;
                                  errno = error;
                                  return -1;
                              });
        run_system_cmd("true");
        EXPECT_EQ(waits, 1);
        EXPECT_THAT(takeMessages(), ElementsAre(kSpawned, "E waitpid error"));
        EXPECT_EQ(support::real::waitpid(left, nullptr, 0), left);
    }
}

TEST_F(ShellCommandTest, Run_WhenItReturns_HasReleasedTheDuplicate)
{
    const void* duplicate = nullptr;
    int released = 0;
    const ScopedHook copy(&Hooks::strdup,
                          [&](const char* text)
                          {
                              char* const block = support::real::strdup(text);
                              duplicate = block;
                              return block;
                          });
    const ScopedHook release(&Hooks::free,
                             [&](void* block)
                             {
                                 released += block == duplicate ? 1 : 0;
                                 support::real::free(block);
                             });
    run_system_cmd("true");
    EXPECT_EQ(released, 1);
    const ScopedHook spawn(&Hooks::posixSpawn,
                           [](pid_t*, const char*, char* const*, char* const*) { return ENOMEM; });
    run_system_cmd("true");
    EXPECT_EQ(released, 2);
}

TEST_F(ShellCommandTest, Run_WhenThereIsNoCommandToRun_TheShellGetsNone)
{
    std::vector<Spawned> spawned;
    const ScopedHook spawn(
        &Hooks::posixSpawn,
        [&](pid_t*, const char* path, char* const* arguments, char* const* environment)
        {
            spawned.push_back(spawnedWith(path, arguments, environment));
            return ENOMEM;
        });
    const ScopedHook fault(&Hooks::strdup,
                           [](const char* text) -> char*
                           {
                               EXPECT_NE(text, nullptr);
                               return nullptr;
                           });
    run_system_cmd(nullptr);
    run_system_cmd("true");
    ASSERT_THAT(spawned, SizeIs(2));
    EXPECT_THAT(spawned[0].arguments, ElementsAre("sh", "-c"));
    EXPECT_THAT(spawned[1].arguments, ElementsAre("sh", "-c"));
    EXPECT_THAT(takeMessages(), ElementsAre(kSpawned, "E posix_spawn error : 12", kSpawned,
                                            "E posix_spawn error : 12"));
}

TEST_F(ShellCommandTest, Run_WhenTheCommandIsNull_ReportsNothing)
{
    testing::internal::CaptureStderr();
    run_system_cmd(nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "") << "the shell complains";
    EXPECT_THAT(takeMessages(), ElementsAre(kSpawned));
}

TEST_F(ShellCommandTest, Run_WhenSilent_RunsAllTheSame)
{
    setLogLevel(91);
    EXPECT_EQ(outputOf("echo done"), "done\n");
    const ScopedHook fault(&Hooks::posixSpawn,
                           [](pid_t*, const char*, char* const*, char* const*) { return ENOMEM; });
    run_system_cmd("true");
    EXPECT_THAT(takeMessages(), SizeIs(0));
}

TEST_F(ShellCommandTest, Run_WhenCalledFromSeveralThreads_EachWaitsForItsOwn)
{
    constexpr int kThreads = 4;
    constexpr int kCommands = 5;
    // The commands of the first thread wait for those of the others.
    const std::string gate = file("gate");
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    std::array<std::string, kThreads> outputs;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
    {
        outputs[static_cast<std::size_t>(i)] = file("output" + std::to_string(i));
    }
    threads.emplace_back(
        [&] { run_system_cmd(("read line <" + gate + "; echo $line >" + outputs[0]).c_str()); });
    for (std::size_t i = 1; i < kThreads; ++i)
    {
        threads.emplace_back(
            [&, i]
            {
                for (int k = 0; k < kCommands; ++k)
                {
                    run_system_cmd(("echo " + std::to_string(k) + " >" + outputs[i]).c_str());
                    wrong += contentOf(outputs[i]) == std::to_string(k) + "\n" ? 0 : 1;
                }
            });
    }
    for (std::size_t i = 1; i < kThreads; ++i)
    {
        threads[i].join();
    }
    EXPECT_EQ(contentOf(outputs[0]), "") << "the first command has not gone on";
    {
        std::ofstream(gate) << "open\n";
    }
    threads[0].join();
    EXPECT_EQ(contentOf(outputs[0]), "open\n");
    EXPECT_EQ(wrong, 0);
    const std::vector<std::string> messages = takeMessages();
    EXPECT_THAT(messages, SizeIs(1 + (kThreads - 1) * kCommands));
    EXPECT_THAT(messages, Each(kSpawned));
}

TEST_F(ShellCommandTest, Run_WhenItsThreadIsCancelledInTheWait_ReleasesTheDuplicate)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    struct Work
    {
        pid_t child = 0;
        const void* duplicate = nullptr;
        int released = 0;
    } work;
    const auto run = [](void* argument) -> void*
    {
        Work& here = *static_cast<Work*>(argument);
        // Set for the thread's whole life: a cancellation leaves without restoring anything before.
        support::hooks().strdup = [&here](const char* text)
        {
            char* const block = support::real::strdup(text);
            here.duplicate = block;
            return block;
        };
        support::hooks().free = [&here](void* block)
        {
            here.released += block == here.duplicate ? 1 : 0;
            support::real::free(block);
        };
        support::hooks().waitpid = [&here](pid_t child, int* status, int options)
        {
            here.child = child;
            pthread_cancel(pthread_self());
            return support::real::waitpid(child, status, options); // a cancellation point
        };
        run_system_cmd("true");
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, run, &work), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(work.released, 1);
    EXPECT_EQ(waitpid(work.child, nullptr, 0), work.child);
    EXPECT_THAT(takeMessages(), ElementsAre(kSpawned));
}

} // namespace
