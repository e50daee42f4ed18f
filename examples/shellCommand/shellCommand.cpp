// Runs a command line and learns how it ended, which run_system_cmd() does not tell: the command line
// leaves its exit status in a file.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

#include <korvane/iAp2LogUtil.h>
#include <korvane/utils.h>

namespace
{

// [example]
/** The exit status of `command`; -1 where the shell has left none. */
int statusOf(const std::string& command)
{
    std::string file = P_tmpdir "/shellCommandXXXXXX";
    const int descriptor = mkstemp(file.data());
    if (descriptor == -1)
    {
        return -1;
    }
    close(descriptor);
    // The last line runs whatever the command does, but for one that ends the shell itself.
    run_system_cmd(("(" + command + "\n)\necho $? >" + file).c_str());
    int status = -1;
    if (!(std::ifstream(file) >> status))
    {
        status = -1;
    }
    unlink(file.c_str());
    return status;
}
// [example]

} // namespace

int main(int argc, char** argv)
{
    setLogLevel(IAP2_LOG_ERROR);
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: shellCommand COMMAND\n");
        return 2;
    }
    const int status = statusOf(argv[1]);
    if (status == -1)
    {
        std::fprintf(stderr, "shellCommand: the command has left no exit status\n");
        return 1;
    }
    if (status != 0)
    {
        std::fprintf(stderr, "shellCommand: the command ended with %d\n", status);
        return 1;
    }
    return 0;
}
