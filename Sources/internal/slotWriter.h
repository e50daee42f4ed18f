/**
 * The writing side of the marshal cursor, held in registers while several values are put.
 */
#ifndef KORVANE_INTERNAL_SLOTWRITER_H
#define KORVANE_INTERNAL_SLOTWRITER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <korvane/iAp2Marshal.h>

#include "internal/rounding.h"

namespace korvane::internal
{

/**
 * Writes slots behind a cursor. The cursor itself is brought up to date by commit() and by the
 * destructor, not for every value: the stores into the buffer could alias it, so that each value
 * would have to wait for the cursor of the one before.
 */
class SlotWriter
{
public:
    static constexpr bool kTraces = true;

    explicit SlotWriter(MarshalIo* mio) : mMio(mio), mData(mio->data), mAvail(mio->dataAvail)
    {
    }
    ~SlotWriter()
    {
        commit();
    }
    SlotWriter(const SlotWriter&) = delete;
    SlotWriter& operator=(const SlotWriter&) = delete;

    /** Brings the cursor up to date, for whoever looks at it while this object lives. */
    void commit()
    {
        mMio->data = mData;
        mMio->dataAvail = mAvail;
    }

    /** The one primitive under every Put: a slot for `size` bytes, or null once that is reported. */
    std::uint8_t* alloc(std::size_t size)
    {
        const std::size_t rounded = roundUpToSlot(size);
        if (__builtin_expect(!canRoundUpToSlot(size) || mAvail < rounded, 0))
        {
            commit();
            refuse(*mMio, size);
            return nullptr;
        }
        return advance(rounded);
    }

    template <typename Value> void put(Value value)
    {
        if (std::uint8_t* const slot = alloc(sizeof value))
        {
            std::memcpy(slot, &value, sizeof value);
        }
    }

    /** put() for each of `values`, with a single check of the room where all of them fit. */
    template <typename Value, std::size_t count> void putEach(const Value (&values)[count])
    {
        constexpr std::size_t slotSize = roundUpToSlot(sizeof(Value));
        if (mAvail >= count * slotSize)
        {
            std::uint8_t* const slots = advance(count * slotSize);
            for (std::size_t i = 0; i < count; ++i)
            {
                std::memcpy(slots + i * slotSize, &values[i], sizeof(Value));
            }
            return;
        }
        for (const Value value : values)
        {
            put(value);
        }
    }

    /** iAp2MarshalPutBytes() for bytes that are not null. */
    void putBytes(const void* bytes, std::uint32_t length)
    {
        put(length);
        if (std::uint8_t* const slot = alloc(length))
        {
            fill(slot, bytes, length);
        }
    }

private:
    /** Marks and reports a slot of `size` bytes that `mio` has no room for. */
    static void refuse(MarshalIo& mio, std::size_t size);

    std::uint8_t* advance(std::size_t rounded)
    {
        std::uint8_t* const slot = mData;
        mData += rounded;
        mAvail -= rounded;
        return slot;
    }

    /** Copies into a slot as if that had been cleared first, which shows where the two overlap. */
    static void fill(std::uint8_t* slot, const void* bytes, std::uint32_t length)
    {
        const auto target = reinterpret_cast<std::uintptr_t>(slot);
        const auto source = reinterpret_cast<std::uintptr_t>(bytes);
        if (__builtin_expect(source - target < length || target - source < length, 0))
        {
            std::memset(slot, 0, length);
            std::memmove(slot, bytes, length);
            return;
        }
        std::memcpy(slot, bytes, length);
    }

    MarshalIo* const mMio;
    std::uint8_t* mData;
    std::size_t mAvail;
};

} // namespace korvane::internal

#endif
