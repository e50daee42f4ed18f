/**
 * Reporting at the call site.
 *
 * The source file and line are part of every trace line, so these are macros and a report stands
 * where its condition is tested. Below the level of errors the level is tested here, before the call,
 * so that a suppressed report costs a load and a compare, and its arguments are not even evaluated.
 * Errors are far more sites than anything else and are seldom suppressed: one function behind all of
 * them tests the level, and a site takes half the instructions.
 */
#ifndef KORVANE_INTERNAL_REPORT_H
#define KORVANE_INTERNAL_REPORT_H

#include <cerrno>

#include "internal/errnoText.h"
#include "internal/logLevel.h"

extern "C" {
#pragma GCC visibility push(hidden)

/** logPrint() for the library's own errors: their level and tag are the same everywhere. */
[[gnu::cold, gnu::format(printf, 3, 4)]] void korvaneReportError(const char* path, int line,
                                                                 const char* format, ...);

#pragma GCC visibility pop
}

/** Writes one line at `level`, a constant; the message is a printf format with its arguments. */
#define KORVANE_LOG(level, ...)                                                                    \
    do                                                                                             \
    {                                                                                              \
        if constexpr ((level) == IAP2_LOG_ERROR)                                                   \
        {                                                                                          \
            korvaneReportError(__FILE__, __LINE__, __VA_ARGS__);                                   \
        }                                                                                          \
        else if (korvane::internal::isLevelPrinted(level))                                         \
        {                                                                                          \
            logPrint(level, "IAP2", __FILE__, __LINE__, __VA_ARGS__);                              \
        }                                                                                          \
    } while (false)

/** Reports why `function` fails, in the form in which most functions of the library do. */
#define KORVANE_REPORT_FAILURE(function, reason)                                                   \
    KORVANE_LOG(IAP2_LOG_ERROR, "%s error : %s", function, reason)

/** Reports that a POSIX call failed in `function`; the text is that of errno, whatever it says. */
#define KORVANE_REPORT_CALL(function, call)                                                        \
    KORVANE_LOG(IAP2_LOG_ERROR, "%s: " call " fail, %s", function,                                 \
                korvane::internal::ErrnoText(errno).text())

/** Reports that `function` gives up at this line, with errno as it stands, and sets that to 0. */
#define KORVANE_REPORT_ERRNO_AND_CLEAR(function)                                                   \
    do                                                                                             \
    {                                                                                              \
        KORVANE_LOG(IAP2_LOG_WARNING, "function[%s], line[%d] error[%d][%s]", function, __LINE__,  \
                    errno, korvane::internal::ErrnoText(errno).text());                            \
        errno = 0;                                                                                 \
    } while (false)

#endif
