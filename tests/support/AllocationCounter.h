/**
 * Counts what a piece of code takes from the heap, by whatever function and from whatever library.
 */
#ifndef KORVANE_TESTS_ALLOCATIONCOUNTER_H
#define KORVANE_TESTS_ALLOCATIONCOUNTER_H

#include <cstddef>

namespace support
{

/** How many blocks the calling thread has taken from the heap so far. */
std::size_t allocationCount();

} // namespace support

#endif
