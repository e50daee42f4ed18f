/**
 * The benchmarks, by question. A benchmark is named `row/work` or `row/floor`; tools/benchReport.py
 * pairs them by that and knows the goal of each row.
 */
#ifndef KORVANE_BENCHMARKS_BENCHMARKS_H
#define KORVANE_BENCHMARKS_BENCHMARKS_H

void registerAllocationBenchmarks();
void registerHandlerBenchmarks();
void registerLogBenchmarks();
void registerMarshalBenchmarks();

/** Why work and floor of the lines would not do the same; null when they do. */
const char* findLogDifference();

/** The same for marshalling and reading back. */
const char* findMarshalDifference();

#endif
