#include "ShortMemory.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace
{

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
std::atomic<std::size_t> largestBlock{kNoLimit};

} // namespace

ShortMemory::ShortMemory(std::size_t limit)
{
    largestBlock = limit;
}

ShortMemory::~ShortMemory()
{
    largestBlock = kNoLimit;
}

void* operator new(std::size_t size)
{
    void* const block = size <= largestBlock ? std::malloc(size) : nullptr;
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept
{
    std::free(block);
}
