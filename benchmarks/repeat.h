/**
 * One statement many times over, without a loop around it: what is measured here costs less than the
 * loop would.
 */
#ifndef KORVANE_BENCHMARKS_REPEAT_H
#define KORVANE_BENCHMARKS_REPEAT_H

#define KORVANE_REPEAT_4(statement)                                                                \
    statement;                                                                                     \
    statement;                                                                                     \
    statement;                                                                                     \
    statement
#define KORVANE_REPEAT_16(statement)                                                               \
    KORVANE_REPEAT_4(statement);                                                                   \
    KORVANE_REPEAT_4(statement);                                                                   \
    KORVANE_REPEAT_4(statement);                                                                   \
    KORVANE_REPEAT_4(statement)
#define KORVANE_REPEAT_64(statement)                                                               \
    KORVANE_REPEAT_16(statement);                                                                  \
    KORVANE_REPEAT_16(statement);                                                                  \
    KORVANE_REPEAT_16(statement);                                                                  \
    KORVANE_REPEAT_16(statement)

/** How often KORVANE_REPEAT_64 repeats. */
constexpr int kRepetitions = 64;

#endif
