/**
 * Log output: the one way in which every component writes a trace line.
 *
 * A line is built on the caller's stack and handed on the caller's own thread to the platform's
 * trace library (<korvane/iAP2ExtLog.h>). Nothing here takes a lock, and memory is allocated only
 * where vsnprintf() does so for the caller's own format (precisions of thousands of digits, many
 * numbered arguments). Nothing has to be initialised, and every function may be called from any
 * thread at any time.
 *
 * A full line, left to right, one blank between the columns and no newline at the end:
 *
 *     letter  tag   source file (right-aligned in 22)  line (right-aligned in 5)  stamp  message
 *     E       IAP2                          utils.cpp   120  00:12:07:345  iAP2_free error : ...
 */
#ifndef KORVANE_IAP2LOGUTIL_H
#define KORVANE_IAP2LOGUTIL_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** The levels that have a letter of their own; any other printed level is shown as "U". */
enum
{
    IAP2_LOG_VERBOSE = 0,  /**< "V" */
    IAP2_LOG_DEBUG = 20,   /**< "D": entry, exit, progress */
    IAP2_LOG_INFO = 40,    /**< "I" */
    IAP2_LOG_WARNING = 60, /**< "W" */
    IAP2_LOG_ERROR = 90    /**< "E": every failure; the highest level that is ever printed */
};

/**
 * Writes one trace line if `current level <= level <= 90`; otherwise returns at once, having
 * formatted nothing.
 *
 * @param level   see the constants above; decides the letter and the trace severity.
 * @param tag     the component; "IAP2" throughout this library. A null tag is shown as "(null)".
 * @param path    the caller's source path; only what follows its last '/' is shown (a path without
 *                a '/' is shown whole). Null leaves out the file and line columns.
 * @param line    the caller's source line.
 * @param format  a printf format for the message, with its arguments behind it. Null counts as "".
 *
 * The line holds at most 1023 characters; what does not fit is cut without notice.
 * Hazard: columns (not the message) of more than 1024 characters in all are
 * dropped entirely, and the line then consists of the message alone.
 *
 * Blocks only as long as the trace library does. The call is a cancellation point if the trace
 * library's function is one.
 */
void logPrint(int level, const char* tag, const char* path, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/**
 * Makes `level` the lowest level that is printed, for the whole process and from the next call on.
 * Any value is accepted: 0 (the value at load time) prints all named levels, 91 silences
 * logPrint() altogether, a negative value lets negative levels through with the letter "U".
 */
void setLogLevel(int level);

/**
 * Stamps the current time into the process-wide stamp buffer and returns that buffer.
 *
 * @return 12 characters and a terminating zero in a static buffer of 16 bytes:
 *         hours:minutes:seconds:milliseconds of CLOCK_MONOTONIC, folded into one day. Never null,
 *         never to be freed. Every later stamp, taken for a trace line of any thread, overwrites
 *         it; copy it at once where the exact moment matters.
 *
 * If the clock cannot be read the stamp is 00:00:00:000 and "Can't get current time" is reported
 * at level 90. Hazard: that report is a line with a stamp of its own, so a clock that fails for
 * good makes the two functions call each other without end.
 */
char* getCurrentTimeString(void);

/** The calling thread's kernel thread id, as gettid(2) gives it. Cannot fail. */
long getTid(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
