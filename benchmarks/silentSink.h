/**
 * The trace sink of the benchmarks: it takes the place of libtraceif.so's and does nothing.
 */
#ifndef KORVANE_BENCHMARKS_SILENTSINK_H
#define KORVANE_BENCHMARKS_SILENTSINK_H

/** True when the library's calls of qn_log_print() arrive at the silent sink. */
bool isSilentSinkInPlace();

#endif
