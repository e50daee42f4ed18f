/**
 * Rounding up to marshalling slots, checked where the size comes from a caller.
 */
#ifndef KORVANE_INTERNAL_ROUNDING_H
#define KORVANE_INTERNAL_ROUNDING_H

#include <limits>
#include <type_traits>

#include <korvane/iAp2Marshal.h>

namespace korvane::internal
{

/** True when `size` can be rounded up to whole slots without wrapping. */
template <typename Size> constexpr bool canRoundUpToSlot(Size size)
{
    static_assert(std::is_unsigned_v<Size>, "sizes are unsigned");
    return size <= std::numeric_limits<Size>::max() - (IAP2_MARSHAL_SLOT_SIZE - 1);
}

/** `size` rounded up to whole slots; requires canRoundUpToSlot(size). */
template <typename Size> constexpr Size roundUpToSlot(Size size)
{
    return (size + (IAP2_MARSHAL_SLOT_SIZE - 1)) & ~Size{IAP2_MARSHAL_SLOT_SIZE - 1};
}

} // namespace korvane::internal

#endif
