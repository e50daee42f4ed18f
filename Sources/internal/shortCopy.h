/**
 * Copying a few bytes in place, where a call of memcpy() would cost more than the copying.
 */
#ifndef KORVANE_INTERNAL_SHORTCOPY_H
#define KORVANE_INTERNAL_SHORTCOPY_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace korvane::internal
{

/** The largest length for shortCopy(). */
constexpr std::size_t kLongestShortCopy = 64;

/** Two pieces of `size` bytes, from both ends, which meet or overlap in the middle. */
template <std::size_t size> inline void copyEnds(void* to, const void* from, std::size_t length)
{
    auto* const target = static_cast<std::uint8_t*>(to);
    const auto* const source = static_cast<const std::uint8_t*>(from);
    std::memcpy(target, source, size);
    std::memcpy(target + length - size, source + length - size, size);
}

/** memcpy() of up to kLongestShortCopy bytes. */
[[gnu::always_inline]] inline void shortCopy(void* to, const void* from, std::size_t length)
{
    auto* const target = static_cast<std::uint8_t*>(to);
    const auto* const source = static_cast<const std::uint8_t*>(from);
    if (length >= 16)
    {
        copyEnds<16>(target, source, length);
        if (length > 32)
        {
            copyEnds<16>(target + 16, source + 16, length - 32);
        }
    }
    else if (length >= 8)
    {
        copyEnds<8>(target, source, length);
    }
    else if (length >= 4)
    {
        copyEnds<4>(target, source, length);
    }
    else if (length != 0)
    {
        target[0] = source[0];
        target[length / 2] = source[length / 2];
        target[length - 1] = source[length - 1];
    }
}

} // namespace korvane::internal

#endif
