/**
 * The built program as a child process.
 */
#ifndef KORVANE_TESTS_CHILDPROCESS_H
#define KORVANE_TESTS_CHILDPROCESS_H

#include <string>
#include <vector>

#include <sys/types.h>

struct Outcome
{
    int exitCode = -1; ///< or 128 and the number of the signal
    std::string out;
    std::string err;
};

class ChildProcess
{
public:
    /** Where the child's standard output goes. */
    enum class Output
    {
        Read,      ///< finish() reads it
        Nobody,    ///< a pipe whose reader has gone away
        SmallPipe, ///< finish() reads it; until then the pipe takes a few KiB
        FullDevice ///< no room left
    };

    explicit ChildProcess(const std::vector<std::string>& arguments, Output output = Output::Read);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    /** Reads standard error up to and including `text`; false when it ends without it. */
    bool readErrorsUntil(const std::string& text);

    /** What was read from standard error so far. */
    const std::string& errors() const
    {
        return mOutcome.err;
    }

    /** Reads both streams to their ends and waits for the child. */
    Outcome finish();

private:
    bool readFrom(int& fd, std::string& text);

    pid_t mProcess = -1;
    int mOut = -1;
    int mErr = -1;
    Outcome mOutcome;
};

#endif
