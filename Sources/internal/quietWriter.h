/**
 * Writing slots where it is known beforehand that all of them fit and that nothing is traced.
 */
#ifndef KORVANE_INTERNAL_QUIETWRITER_H
#define KORVANE_INTERNAL_QUIETWRITER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "internal/rounding.h"
#include "internal/shortCopy.h"

namespace korvane::internal
{

/**
 * Finds out whether a record can be left to QuietWriter, with the operations of SlotWriter: adds up
 * the room that the record takes at most (values that may be absent count as present) and looks for
 * what QuietWriter cannot do.
 */
class SlotMeter
{
public:
    static constexpr bool kTraces = false;

    /** For a record that is to be written to `room` bytes at `data`. */
    SlotMeter(const std::uint8_t* data, std::size_t room)
        : mBegin(reinterpret_cast<std::uintptr_t>(data)), mRoom(room)
    {
    }
    template <typename Value> void put(Value)
    {
        mBytes += roundUpToSlot(sizeof(Value));
    }
    template <typename Value, std::size_t count> void putEach(const Value (&)[count])
    {
        mBytes += count * roundUpToSlot(sizeof(Value));
    }
    void putBytes(const void* bytes, std::uint32_t length)
    {
        mBytes += sizeof length + roundUpToSlot(std::size_t{length});
        mIsRefused |= length > kLongestShortCopy;
        mIsRefused |= reachesIntoRoom(bytes, length);
    }
    /** A count and as many numbers. */
    void putNumbers(const std::uint32_t* numbers, std::uint32_t count)
    {
        const std::size_t length = sizeof *numbers * std::size_t{count};
        mBytes += sizeof count + length;
        mIsRefused |= reachesIntoRoom(numbers, length);
    }
    void refuseIf(bool condition)
    {
        mIsRefused |= condition;
    }
    bool isRefused() const
    {
        return mIsRefused || mBytes > mRoom;
    }

    /** What is written must not change what is still to be read. */
    bool reachesIntoRoom(const void* bytes, std::size_t length) const
    {
        return reinterpret_cast<std::uintptr_t>(bytes) - mBegin + length < mRoom + length;
    }

private:
    const std::uintptr_t mBegin;
    const std::size_t mRoom;
    std::size_t mBytes = 0;
    bool mIsRefused = false;
};

/** Writes slots without a look at the room; for records that SlotMeter has not refused. */
class QuietWriter
{
public:
    static constexpr bool kTraces = false;

    explicit QuietWriter(std::uint8_t* data) : mData(data)
    {
    }
    /** The first byte behind what was written. */
    std::uint8_t* end() const
    {
        return mData;
    }
    template <typename Value> void put(Value value)
    {
        std::memcpy(mData, &value, sizeof value);
        mData += roundUpToSlot(sizeof value);
    }
    template <typename Value, std::size_t count> void putEach(const Value (&values)[count])
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            std::memcpy(mData + i * roundUpToSlot(sizeof(Value)), &values[i], sizeof(Value));
        }
        mData += count * roundUpToSlot(sizeof(Value));
    }
    [[gnu::always_inline]] void putBytes(const void* bytes, std::uint32_t length)
    {
        put(length);
        shortCopy(mData, bytes, length);
        mData += roundUpToSlot(std::size_t{length});
    }

private:
    std::uint8_t* mData;
};

} // namespace korvane::internal

#endif
