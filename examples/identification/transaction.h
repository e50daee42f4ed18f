/**
 * The one transaction that an identification travels in.
 */
#ifndef IDENTIFICATION_TRANSACTION_H
#define IDENTIFICATION_TRANSACTION_H

#include <array>
#include <cstddef>
#include <cstdint>

#include <korvane/iAp2Marshal.h>

namespace identification
{

/** 64 bytes that stay 0, the length of the payload (4 bytes in a field of 8), the payload. */
constexpr std::size_t kTransactionCapacity = 8192;
constexpr std::size_t kPayloadCapacity = kTransactionCapacity - IAP2_TXN_PAYLOAD_OFFSET;

struct Transaction
{
    /** All 0 at first, and so is the padding that marshalling leaves alone. */
    std::array<std::uint8_t, kTransactionCapacity> bytes{};
    std::size_t payloadSize = 0;

    const std::uint8_t* payload() const
    {
        return bytes.data() + IAP2_TXN_PAYLOAD_OFFSET;
    }

    std::size_t size() const
    {
        return IAP2_TXN_PAYLOAD_OFFSET + payloadSize;
    }
};

} // namespace identification

#endif
