/**
 * The reader's side: from the bytes of a transaction back to a description.
 */
#ifndef IDENTIFICATION_DECODING_H
#define IDENTIFICATION_DECODING_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "comparison.h"
#include "description.h"
#include "transaction.h"

namespace identification
{

/** One piece of the payload and what it stands for. */
struct Slot
{
    std::size_t offset;   ///< from the first byte of the payload
    std::size_t size;     ///< bytes that carry the value
    std::size_t slotSize; ///< the same, rounded up: the rest is padding
    std::string meaning;
};

struct Decoded
{
    Description description;
    std::vector<Slot> slots;
    std::optional<Difference> failure; ///< where reading could not go on, and why
};

/** Takes everything from the payload with the Get operations. Throws std::bad_alloc. */
Decoded decodeIdentification(const Transaction& transaction);

} // namespace identification

#endif
