/**
 * How the program fails. Each class belongs to one exit code; the text is one line without its end.
 */
#ifndef IDENTIFICATION_FAILURES_H
#define IDENTIFICATION_FAILURES_H

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace identification
{

enum ExitCode
{
    kSame = 0,      ///< what was read back is what was sent
    kDifferent = 1, ///< the reader found a difference
    kBadInput = 2,  ///< wrong options or a bad description
    kSystem = 3     ///< the system refused: memory, processes, the socket, the output
};

/** Wrong options or a bad description. */
class InputError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** The system refused. */
class SystemError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

inline std::string errorText(int number)
{
    return std::generic_category().message(number);
}

} // namespace identification

#endif
