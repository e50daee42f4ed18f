#include "AllocationCounter.h"

#include <cstdlib>

namespace
{

thread_local std::size_t count = 0;

} // namespace

std::size_t support::allocationCount()
{
    return count;
}

#if defined(__has_feature)
#define KORVANE_HAS_FEATURE(feature) __has_feature(feature)
#else
#define KORVANE_HAS_FEATURE(feature) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) ||                               \
    KORVANE_HAS_FEATURE(address_sanitizer) || KORVANE_HAS_FEATURE(thread_sanitizer)

// A sanitizer is the heap; it tells of every block.
// Declared here: g++ brings the function but not <sanitizer/allocator_interface.h>.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*,
                                                                          std::size_t),
                                                         void (*onFree)(const volatile void*));

namespace
{

void countAllocation(const volatile void*, std::size_t)
{
    ++count;
}

void ignoreRelease(const volatile void*)
{
}

const int installed = __sanitizer_install_malloc_and_free_hooks(countAllocation, ignoreRelease);

} // namespace

#else

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
// The executable's own functions come before the C library's, for every library in the process.
extern "C" {
// The names are the C library's.
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t number, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
// NOLINTEND(bugprone-reserved-identifier)

void* malloc(std::size_t size)
{
    ++count;
    return __libc_malloc(size);
}

void* calloc(std::size_t number, std::size_t size)
{
    ++count;
    return __libc_calloc(number, size);
}

void* realloc(void* block, std::size_t size)
{
    ++count;
    return __libc_realloc(block, size);
}

void* memalign(std::size_t alignment, std::size_t size)
{
    ++count;
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    ++count;
    return __libc_memalign(alignment, size);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

#endif
