#include <traceif/traceif.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include <unistd.h>

namespace
{

/** Pipes take up to PIPE_BUF bytes in one piece; a line never needs more. */
constexpr std::size_t kLongestLine = 4096;

constexpr char kReset[] = "\033[0m";

const char* colourOf(int severity)
{
    if (severity >= 0xC0)
    {
        return "\033[31m"; // red: error and fatal
    }
    if (severity >= 0xA0)
    {
        return "\033[33m"; // yellow: warning
    }
    if (severity >= 0x80)
    {
        return "\033[32m"; // green: information
    }
    return "\033[2m"; // dim: debug
}

/** Only for a terminal, and never where NO_COLOR is set, be it to nothing. */
bool wantsColour()
{
    return std::getenv("NO_COLOR") == nullptr && isatty(STDERR_FILENO) == 1;
}

} // namespace

extern "C" int qn_log_print(const char* /*path*/, const char* /*function*/, int /*line*/,
                            int severity, int /*size*/, int /*flags*/, const char* format, ...)
{
    const int savedErrno = errno;
    const bool colour = wantsColour();

    char text[kLongestLine];
    const std::size_t room = sizeof text - sizeof kReset; // leaves room for the newline too
    std::size_t length = static_cast<std::size_t>(
        std::snprintf(text, room, "%s%3d ", colour ? colourOf(severity) : "", severity));

    va_list arguments;
    va_start(arguments, format);
    const int written = std::vsnprintf(text + length, room - length, format, arguments);
    va_end(arguments);
    if (written > 0)
    {
        length += std::min(static_cast<std::size_t>(written), room - length - 1);
    }
    if (colour)
    {
        length = static_cast<std::size_t>(
            std::copy(kReset, kReset + sizeof kReset - 1, text + length) - text);
    }
    text[length++] = '\n';

    ssize_t result;
    do
    {
        result = write(STDERR_FILENO, text, length);
    } while (result < 0 && errno == EINTR);
    if (result < 0)
    {
        return -1;
    }
    errno = savedErrno;
    return static_cast<int>(result);
}
