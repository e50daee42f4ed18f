#include <traceif/traceif.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using testing::ElementsAre;

/** Standard error leads to `descriptor` for as long as this object lives. */
class RedirectedStderr
{
public:
    explicit RedirectedStderr(int descriptor) : mSaved(dup(STDERR_FILENO))
    {
        dup2(descriptor, STDERR_FILENO);
    }
    ~RedirectedStderr()
    {
        dup2(mSaved, STDERR_FILENO);
        close(mSaved);
    }
    RedirectedStderr(const RedirectedStderr&) = delete;
    RedirectedStderr& operator=(const RedirectedStderr&) = delete;

private:
    int mSaved;
};

/** A socket that keeps every write apart, so that writes can be counted. */
class Packets
{
public:
    Packets()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, mSockets), 0);
    }
    ~Packets()
    {
        close(mSockets[0]);
        close(mSockets[1]);
    }
    Packets(const Packets&) = delete;
    Packets& operator=(const Packets&) = delete;

    int writer() const
    {
        return mSockets[0];
    }
    /** The writes so far, each as it was made. */
    std::vector<std::string> take() const
    {
        std::vector<std::string> writes;
        std::string buffer(8192, '\0');
        ssize_t size;
        while ((size = recv(mSockets[1], buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0)
        {
            writes.push_back(buffer.substr(0, static_cast<std::size_t>(size)));
        }
        return writes;
    }

private:
    int mSockets[2];
};

/** A terminal, and what is written to it. */
class Terminal
{
public:
    Terminal() : mMaster(posix_openpt(O_RDWR | O_NOCTTY))
    {
        EXPECT_EQ(grantpt(mMaster), 0);
        EXPECT_EQ(unlockpt(mMaster), 0);
        mSlave = open(ptsname(mMaster), O_RDWR | O_NOCTTY);
        EXPECT_GE(mSlave, 0);
    }
    ~Terminal()
    {
        close(mSlave);
        close(mMaster);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    int writer() const
    {
        return mSlave;
    }
    std::string line() const
    {
        std::string buffer(8192, '\0');
        const ssize_t size = read(mMaster, buffer.data(), buffer.size());
        return buffer.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0);
    }

private:
    int mMaster;
    int mSlave = -1;
};

int print(int severity, const std::string& text)
{
    return qn_log_print("a/b.cpp", "function", 1, severity, 2048, 0, "%s", text.c_str());
}

class TraceifConsoleTest : public testing::Test
{
protected:
    TraceifConsoleTest()
    {
        unsetenv("NO_COLOR");
    }
};

TEST_F(TraceifConsoleTest, Print_WhenStandardErrorIsNoTerminal_WritesSeverityAndLineInOneWrite)
{
    const Packets packets;
    int result = 0;
    {
        const RedirectedStderr redirected(packets.writer());
        result = print(192, "E IAP2 message");
        print(32, "D IAP2 100%s");
    }
    EXPECT_THAT(packets.take(), ElementsAre("192 E IAP2 message\n", " 32 D IAP2 100%s\n"));
    EXPECT_EQ(result, 19);
}

TEST_F(TraceifConsoleTest, Print_WhenTheLineIsLongest_WritesItWholeInOneWrite)
{
    const Packets packets;
    const std::string text(1023, 't');
    {
        const RedirectedStderr redirected(packets.writer());
        print(32, text);
    }
    EXPECT_THAT(packets.take(), ElementsAre(" 32 " + text + "\n"));
}

TEST_F(TraceifConsoleTest, Print_WhenTheTextIsLongerThanAPipeTakesAtOnce_CutsIt)
{
    const Packets packets;
    {
        const RedirectedStderr redirected(packets.writer());
        print(32, std::string(100000, 't'));
    }
    const std::vector<std::string> writes = packets.take();
    ASSERT_EQ(writes.size(), 1U);
    EXPECT_LE(writes[0].size(), 4096U);
    EXPECT_GT(writes[0].size(), 4000U);
    EXPECT_EQ(writes[0].back(), '\n');
}

TEST_F(TraceifConsoleTest, Print_WhenStandardErrorIsATerminal_ColoursByErrorWarningAndRest)
{
    const std::string red = "\033[31m";
    const std::string yellow = "\033[33m";
    const std::string green = "\033[32m";
    const std::string dim = "\033[2m";
    const struct
    {
        int severity;
        std::string line;
    } rows[] = {
        {0xE0, red + "224 message"},   {0xC0, red + "192 message"}, {0xA0, yellow + "160 message"},
        {0x80, green + "128 message"}, {0x40, dim + " 64 message"}, {0x20, dim + " 32 message"},
    };
    const Terminal terminal;
    for (const auto& row : rows)
    {
        const RedirectedStderr redirected(terminal.writer());
        print(row.severity, "message");
        EXPECT_EQ(terminal.line(), row.line + "\033[0m\r\n");
    }
}

TEST_F(TraceifConsoleTest, Print_WhenNoColorIsSet_WritesPlainlyToATerminalToo)
{
    const Terminal terminal;
    for (const char* value : {"1", ""})
    {
        setenv("NO_COLOR", value, 1);
        const RedirectedStderr redirected(terminal.writer());
        print(192, "message");
        EXPECT_EQ(terminal.line(), "192 message\r\n");
    }
    unsetenv("NO_COLOR");
}

TEST_F(TraceifConsoleTest, Print_WhenItSucceeds_LeavesErrnoAlone)
{
    const Packets packets;
    const RedirectedStderr redirected(packets.writer());
    errno = 77;
    print(32, "message");
    EXPECT_EQ(errno, 77);
}

TEST_F(TraceifConsoleTest, Print_WhenStandardErrorIsClosed_ReturnsMinusOne)
{
    int result = 0;
    int error = 0;
    {
        const int file = open("/dev/null", O_RDONLY);
        const RedirectedStderr redirected(file);
        close(file);
        result = print(32, "message");
        error = errno;
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EBADF);
}

int fullPipe[2];

TEST_F(TraceifConsoleTest, Print_WhenASignalInterruptsTheWrite_WritesTheLineAllTheSame)
{
    ASSERT_EQ(pipe(fullPipe), 0);
    fcntl(fullPipe[0], F_SETFL, O_NONBLOCK);
    fcntl(fullPipe[1], F_SETFL, O_NONBLOCK);
    const std::string filling(4096, 'f');
    while (write(fullPipe[1], filling.data(), filling.size()) > 0)
    {
    }
    fcntl(fullPipe[1], F_SETFL, 0);
    // Interrupts the write again and again, and makes room for it the first time.
    struct sigaction interrupt = {};
    struct sigaction previous = {};
    interrupt.sa_handler = [](int)
    {
        const int error = errno;
        char emptied[4096];
        while (read(fullPipe[0], emptied, sizeof emptied) > 0)
        {
        }
        errno = error;
    };
    sigaction(SIGALRM, &interrupt, &previous);
    const itimerval soon = {{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    int result = 0;
    {
        const RedirectedStderr redirected(fullPipe[1]);
        result = print(192, "message");
    }
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &previous, nullptr);
    EXPECT_EQ(result, 12);
    close(fullPipe[0]);
    close(fullPipe[1]);
}

TEST_F(TraceifConsoleTest, Print_WhenThreadsPrintAtOnce_NeverMixesTheirLines)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::string received;
    std::thread reader(
        [&]
        {
            char buffer[4096];
            ssize_t size;
            while ((size = read(ends[0], buffer, sizeof buffer)) > 0)
            {
                received.append(buffer, static_cast<std::size_t>(size));
            }
        });
    {
        const RedirectedStderr redirected(ends[1]);
        close(ends[1]);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i)
        {
            threads.emplace_back(
                [i]
                {
                    const std::string text(1000, static_cast<char>('a' + i));
                    for (int n = 0; n < kLines; ++n)
                    {
                        print(32, text);
                    }
                });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }
    reader.join();
    close(ends[0]);
    EXPECT_EQ(received.size(), std::size_t{kThreads * kLines} * 1005);
    for (std::size_t begin = 0; begin < received.size(); begin += 1005)
    {
        const std::string line = received.substr(begin, 1005);
        ASSERT_EQ(line, " 32 " + std::string(1000, line[4]) + "\n");
    }
}

} // namespace
