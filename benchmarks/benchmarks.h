/**
 * The benchmarks, by question. A benchmark is named `row/work` or `row/floor`; tools/benchReport.py
 * pairs them by that and knows the goal of each row.
 */
#ifndef KORVANE_BENCHMARKS_BENCHMARKS_H
#define KORVANE_BENCHMARKS_BENCHMARKS_H

void registerAllocationBenchmarks();
void registerByteArrayBenchmarks();
void registerHandlerBenchmarks();
void registerListBenchmarks();
void registerLogBenchmarks();
void registerMarshalBenchmarks();
void registerQueuedLogBenchmarks();
void registerTextBenchmarks();

/** Why work and floor of the lines would not do the same; null when they do. */
const char* findLogDifference();

/** The same for byte arrays and strings. */
const char* findByteArrayDifference();

/** The same for lists and queues. */
const char* findListDifference();

/** The same for marshalling and reading back. */
const char* findMarshalDifference();

/** The same for texts that are queued. */
const char* findQueuedLogDifference();

/** The same for Base64, decoded fields and the secured form. */
const char* findTextDifference();

#endif
