/**
 * Numbers stored most significant byte first, at any address.
 */
#ifndef KORVANE_INTERNAL_BIGENDIAN_H
#define KORVANE_INTERNAL_BIGENDIAN_H

#include <cstdint>
#include <cstring>

namespace korvane::internal
{

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "every load and store swaps the bytes");

inline std::uint16_t loadBigEndian16(const unsigned char* from)
{
    std::uint16_t number;
    std::memcpy(&number, from, sizeof number);
    return __builtin_bswap16(number);
}

inline std::uint32_t loadBigEndian32(const unsigned char* from)
{
    std::uint32_t number;
    std::memcpy(&number, from, sizeof number);
    return __builtin_bswap32(number);
}

inline std::uint64_t loadBigEndian64(const unsigned char* from)
{
    std::uint64_t number;
    std::memcpy(&number, from, sizeof number);
    return __builtin_bswap64(number);
}

inline void storeBigEndian64(std::uint64_t number, char* to)
{
    number = __builtin_bswap64(number);
    std::memcpy(to, &number, sizeof number);
}

} // namespace korvane::internal

#endif
