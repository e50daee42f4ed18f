#include "ChildProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

struct Pipe
{
    int readEnd;
    int writeEnd;
};

Pipe makePipe()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipe");
    }
    return {ends[0], ends[1]};
}

void closeOnce(int& fd)
{
    if (fd >= 0)
    {
        close(fd);
        fd = -1;
    }
}

/** The emulator's words, where the program is built for another machine, and the program. */
std::vector<std::string> command()
{
    std::vector<std::string> words;
    const char* const emulatorWords = IDENTIFICATION_EMULATOR;
    std::string_view emulator(emulatorWords);
    while (!emulator.empty())
    {
        const std::size_t bar = std::min(emulator.find('|'), emulator.size());
        words.emplace_back(emulator.substr(0, bar));
        emulator.remove_prefix(std::min(bar + 1, emulator.size()));
    }
    words.emplace_back(IDENTIFICATION_PROGRAM);
    return words;
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, Output output)
{
    Pipe out = makePipe();
    Pipe err = makePipe();
    if (output == Output::SmallPipe)
    {
        constexpr int smallest = 4096;
        fcntl(out.writeEnd, F_SETPIPE_SZ, smallest);
    }
    if (output == Output::Nobody || output == Output::FullDevice)
    {
        closeOnce(out.readEnd);
    }
    if (output == Output::FullDevice)
    {
        closeOnce(out.writeEnd);
        out.writeEnd = open("/dev/full", O_WRONLY | O_CLOEXEC);
    }

    std::vector<std::string> words = command();
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv(words.size() + 1, nullptr);
    std::transform(words.begin(), words.end(), argv.begin(),
                   [](std::string& word) { return word.data(); });

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out.writeEnd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.writeEnd, STDERR_FILENO);
    const int error = posix_spawnp(&mProcess, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    closeOnce(out.writeEnd);
    closeOnce(err.writeEnd);
    mOut = out.readEnd;
    mErr = err.readEnd;
    if (error != 0)
    {
        mProcess = -1;
        throw std::runtime_error("cannot start " + words[0]);
    }
}

ChildProcess::~ChildProcess()
{
    if (mProcess > 0)
    {
        finish();
    }
    closeOnce(mOut);
    closeOnce(mErr);
}

bool ChildProcess::readFrom(int& fd, std::string& text)
{
    std::array<char, 4096> piece{};
    ssize_t count;
    do
    {
        count = read(fd, piece.data(), piece.size());
    } while (count < 0 && errno == EINTR);
    if (count <= 0)
    {
        closeOnce(fd);
        return false;
    }
    text.append(piece.data(), static_cast<std::size_t>(count));
    return true;
}

bool ChildProcess::readErrorsUntil(const std::string& text)
{
    while (mOutcome.err.find(text) == std::string::npos)
    {
        if (mErr < 0 || !readFrom(mErr, mOutcome.err))
        {
            return false;
        }
    }
    return true;
}

Outcome ChildProcess::finish()
{
    while (mOut >= 0 || mErr >= 0)
    {
        std::array<pollfd, 2> streams{pollfd{mOut, POLLIN, 0}, pollfd{mErr, POLLIN, 0}};
        if (poll(streams.data(), streams.size(), -1) < 0)
        {
            continue;
        }
        if (streams[0].revents != 0)
        {
            readFrom(mOut, mOutcome.out);
        }
        if (streams[1].revents != 0)
        {
            readFrom(mErr, mOutcome.err);
        }
    }
    int status = 0;
    while (waitpid(mProcess, &status, 0) < 0 && errno == EINTR)
    {
    }
    mProcess = -1;
    mOutcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return mOutcome;
}
