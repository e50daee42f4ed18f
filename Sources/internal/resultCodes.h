/** The result codes that functions of several families share. */
#ifndef KORVANE_INTERNAL_RESULTCODES_H
#define KORVANE_INTERNAL_RESULTCODES_H

#include <cstdint>

namespace korvane::internal
{

constexpr std::int32_t kSuccess = 0;
constexpr std::int32_t kArgumentMissing = -6705; ///< null, or empty
constexpr std::int32_t kAllocationFailed = -6728;
constexpr std::int32_t kOutputTooSmall = -6743;
constexpr std::int32_t kOutOfRange = -6751;

} // namespace korvane::internal

#endif
