/**
 * A suppressed report as the library's own functions make it.
 */
#ifndef KORVANE_BENCHMARKS_INSIDELINE_H
#define KORVANE_BENCHMARKS_INSIDELINE_H

extern "C" {
#pragma GCC visibility push(default)

/** setLogLevel() for the copy of the library in which insideSuppressedLines() stands. */
void insideSetLogLevel(int level);

/** Reports `value` at level 20, kRepetitions times in a row. */
void insideSuppressedLines(unsigned value);

#pragma GCC visibility pop
}

#endif
