#include "allocations.h"

#include <cstddef>
#include <cstdlib>

namespace
{

thread_local Allocations counted;

void count(std::size_t bytes)
{
    ++counted.count;
    counted.bytes += bytes;
}

} // namespace

// These take the place of the C library's, for the libraries too; operator new comes here as well.
extern "C" {
// The names are the C library's own way to what it would have done.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t number, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size)
{
    count(size);
    return __libc_malloc(size);
}

void* calloc(std::size_t number, std::size_t size)
{
    count(number * size);
    return __libc_calloc(number, size);
}

void* realloc(void* block, std::size_t size)
{
    count(size);
    return __libc_realloc(block, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    count(size);
    return __libc_memalign(alignment, size);
}
// NOLINTEND(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
}

bool areAllocationsCounted()
{
    return true;
}

Allocations countAllocations()
{
    return counted;
}
