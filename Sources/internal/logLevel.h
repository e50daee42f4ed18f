/**
 * The current log level, and the test that every report makes before anything else.
 */
#ifndef KORVANE_INTERNAL_LOGLEVEL_H
#define KORVANE_INTERNAL_LOGLEVEL_H

#include <atomic>

#include <korvane/iAp2LogUtil.h>

extern "C" {
#pragma GCC visibility push(hidden)

/**
 * The lowest level that is printed. Written by setLogLevel() alone. It has C linkage because the
 * entry of logPrint() is written in assembly where the target allows; it is alone in its cache line
 * because every thread reads it for every line.
 */
extern std::atomic<int> korvaneLogLevel;

#pragma GCC visibility pop
}

namespace korvane::internal
{

/** True when a line of this level is printed. Relaxed: a new level need not be seen at once. */
inline bool isLevelPrinted(int level)
{
    return korvaneLogLevel.load(std::memory_order_relaxed) <= level && level <= IAP2_LOG_ERROR;
}

} // namespace korvane::internal

#endif
