/**
 * Memory that is short, for all threads. Replaces operator new and iAP2_malloc() in every test
 * executable that links it.
 */
#ifndef KORVANE_TESTS_SHORTMEMORY_H
#define KORVANE_TESTS_SHORTMEMORY_H

#include <cstddef>

/** While it lives, operator new throws std::bad_alloc for blocks of more than `limit` bytes. */
class ShortMemory
{
public:
    explicit ShortMemory(std::size_t limit);
    ~ShortMemory();
    ShortMemory(const ShortMemory&) = delete;
    ShortMemory& operator=(const ShortMemory&) = delete;
};

/** While it lives, iAP2_malloc() has no memory; what the library calls itself is not this one. */
class NoGuardedMemory
{
public:
    NoGuardedMemory();
    ~NoGuardedMemory();
    NoGuardedMemory(const NoGuardedMemory&) = delete;
    NoGuardedMemory& operator=(const NoGuardedMemory&) = delete;
};

#endif
