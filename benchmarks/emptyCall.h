/**
 * The floor of a suppressed line: a call into a shared library that does nothing.
 */
#ifndef KORVANE_BENCHMARKS_EMPTYCALL_H
#define KORVANE_BENCHMARKS_EMPTYCALL_H

#ifdef __cplusplus
extern "C" {
#endif

/** The signature of logPrint(), and an empty body. */
void emptyCall(int level, const char* tag, const char* path, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

#ifdef __cplusplus
}
#endif

#endif
