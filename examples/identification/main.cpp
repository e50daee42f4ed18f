#include <csignal>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include <unistd.h>

#include <korvane/iAp2LogUtil.h>

#include "descriptionReader.h"
#include "failures.h"
#include "files.h"
#include "options.h"
#include "roles.h"

namespace
{

using namespace identification;

ExitCode run(const std::vector<std::string>& arguments)
{
    const Options options = parseOptions(arguments);
    if (options.help)
    {
        print(STDOUT_FILENO, helpText());
        return kSame;
    }
    setLogLevel(options.level);
    const Description description = readDescription(options.input);
    if (options.output.has_value() && isSameFile(options.input, *options.output))
    {
        throw InputError("--output: would overwrite the input");
    }
    return identify(description, options);
}

} // namespace

int main(int argc, char** argv)
{
    reserveStandardDescriptors();
    // Standard output is the table's. What the queued log has to say about itself, it prints by way of
    // this variable of the C library.
    stdout = stderr;
    // Whoever stops reading is noticed where it is written.
    std::signal(SIGPIPE, SIG_IGN);
    try
    {
        return run(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
    }
    catch (const InputError& error)
    {
        complain(error.what());
        return kBadInput;
    }
    catch (const SystemError& error)
    {
        complain(error.what());
        return kSystem;
    }
    catch (const std::bad_alloc&)
    {
        complain("out of memory");
        return kSystem;
    }
}
