#include "ShortMemory.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>

#include <dlfcn.h>

#include <korvane/utils.h>

namespace
{

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
std::atomic<std::size_t> largestBlock{kNoLimit};
std::atomic<bool> isGuardedMemoryThere{true};

} // namespace

ShortMemory::ShortMemory(std::size_t limit)
{
    largestBlock = limit;
}

ShortMemory::~ShortMemory()
{
    largestBlock = kNoLimit;
}

NoGuardedMemory::NoGuardedMemory()
{
    isGuardedMemoryThere = false;
}

NoGuardedMemory::~NoGuardedMemory()
{
    isGuardedMemoryThere = true;
}

/** Stands in front of the library's. */
extern "C" void* iAP2_malloc(std::uint64_t size)
{
    static const auto real =
        reinterpret_cast<void* (*)(std::uint64_t)>(dlsym(RTLD_NEXT, "iAP2_malloc"));
    return isGuardedMemoryThere ? real(size) : nullptr;
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

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return size <= largestBlock ? std::malloc(size) : nullptr;
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept
{
    std::free(block);
}

void operator delete[](void* block) noexcept
{
    std::free(block);
}

void operator delete[](void* block, std::size_t /*size*/) noexcept
{
    std::free(block);
}

void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept
{
    std::free(block);
}
