#include "decoding.h"

#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAp2Marshal.h>
#include <korvane/iAP2Utils.h>

#include "show.h"
#include "text.h"

namespace identification
{

namespace
{

constexpr std::int32_t kAllocationFailed = -6728;
constexpr std::size_t kMacAddressSize = 6;
constexpr std::size_t kShownCharacters = 60; ///< of a text whose bytes are shown too

/** The payload cannot be read on from here. */
class DecodingError : public std::runtime_error
{
public:
    DecodingError(std::string where, const std::string& reason)
        : std::runtime_error(reason), place(std::move(where))
    {
    }

    std::string place;
};

/** Fills a description from a cursor, and notes which bytes it took for what. */
class Decoder
{
public:
    Decoder(MarshalIo& mio, std::vector<Slot>& slots) : mMio(mio), mSlots(slots)
    {
    }

    template <typename Value> void presence(const std::string& place, std::optional<Value>& value)
    {
        const std::uint8_t flag = number<std::uint8_t>(place);
        note(sizeof flag, place + (flag == 0 ? ": absent" : flag == 1 ? ": present" : ": neither"));
        if (flag > 1)
        {
            throw DecodingError(place, "the presence flag is " + std::to_string(flag));
        }
        value.reset();
        if (flag == 1)
        {
            value.emplace();
        }
    }

    template <typename Value> void count(const std::string& place, std::vector<Value>& list)
    {
        const auto count = number<std::uint32_t>(place);
        note(sizeof count, place + ": count " + std::to_string(count));
        // Every entry takes a slot at least; nothing larger is worth the memory.
        if (count > mMio.dataAvail / IAP2_MARSHAL_SLOT_SIZE)
        {
            throw DecodingError(place, "announces " + std::to_string(count) +
                                           " entries in front of " +
                                           std::to_string(mMio.dataAvail) + " bytes");
        }
        list.resize(count);
    }

    template <typename Number> void value(const std::string& place, Number& value)
    {
        value = number<Number>(place);
        note(sizeof value, place + " = " + show(value));
    }

    void value(const std::string& place, std::string& value)
    {
        std::optional<std::string> text = takeText(place);
        if (!text.has_value())
        {
            throw DecodingError(place, "the text does not even have its terminating zero");
        }
        value = std::move(*text);
    }

    void value(const std::string& place, EssentialText& value)
    {
        value.text = takeText(place);
    }

    void value(const std::string& place, MacAddress& value)
    {
        start();
        std::uint32_t length = 0;
        const std::uint8_t* const bytes = iAp2MarshalGetBytes(&mMio, &length);
        requireTaken(place, bytes != nullptr);
        noteLength(place, length);
        for (std::size_t i = 0; i < length; ++i)
        {
            value.digits += hexadecimal(bytes[i], 2);
        }
        for (char& digit : value.digits)
        {
            digit = digit >= 'a' ? static_cast<char>(digit - 'a' + 'A') : digit;
        }
        note(length, place + " = " + show(value));
        if (length != kMacAddressSize)
        {
            throw DecodingError(place, "has " + std::to_string(length) + " bytes");
        }
        logPrint(IAP2_LOG_INFO, "IAP2", __FILE__, __LINE__, "%s [%s] (secured)", place.c_str(),
                 secured(value).c_str());
    }

    void requireEnd() const
    {
        if (mMio.dataAvail != 0)
        {
            throw DecodingError("the end", std::to_string(mMio.dataAvail) +
                                               " bytes follow the last component");
        }
    }

private:
    /** A byte string is a text with its terminating zero, or has length 0 and is none. */
    std::optional<std::string> takeText(const std::string& place)
    {
        start();
        CmdSaveUtf8Param param{};
        const std::int32_t result = reSettingUtf8ParamForCPP(&param, &mMio);
        const std::unique_ptr<char[]> owned(param.value);
        if (result == kAllocationFailed)
        {
            throw std::bad_alloc();
        }
        requireTaken(place, result == 0);
        noteLength(place, param.size);
        if (param.size == 0)
        {
            return std::nullopt;
        }
        std::string text(param.value, param.size - 1);
        note(param.size, place + " = " + quoted(text, kShownCharacters));
        if (param.value[param.size - 1] != '\0')
        {
            throw DecodingError(place, "the text does not end with a zero");
        }
        return text;
    }

    template <typename Number> Number number(const std::string& place)
    {
        start();
        Number value = 0;
        if constexpr (sizeof(Number) == 1)
        {
            value = iAp2MarshalGetUint8(&mMio);
        }
        else if constexpr (sizeof(Number) == 2)
        {
            value = iAp2MarshalGetUint16(&mMio);
        }
        else
        {
            value = iAp2MarshalGetUint32(&mMio);
        }
        requireTaken(place, true);
        return value;
    }

    /** An impossible length fails without leaving its mark in the cursor, hence `isTaken`. */
    void requireTaken(const std::string& place, bool isTaken) const
    {
        if (!isTaken || (mMio.flags & IAP2_MARSHAL_OVERFLOW) != 0)
        {
            throw DecodingError(place, "the payload ends before it does");
        }
    }

    void start()
    {
        mOffset = static_cast<std::size_t>(mMio.data - mMio.data0);
    }

    void noteLength(const std::string& place, std::uint32_t length)
    {
        note(sizeof length, place + ": length " + std::to_string(length));
    }

    /** Notes the next `size` bytes of what was taken last. */
    void note(std::size_t size, std::string meaning)
    {
        constexpr std::size_t last = IAP2_MARSHAL_SLOT_SIZE - 1;
        const std::size_t slotSize = (size + last) & ~last;
        mSlots.push_back({mOffset, size, slotSize, std::move(meaning)});
        mOffset += slotSize;
    }

    MarshalIo& mMio;
    std::vector<Slot>& mSlots;
    std::size_t mOffset = 0;
};

} // namespace

Decoded decodeIdentification(const Transaction& transaction)
{
    Decoded decoded;
    MarshalIo mio{};
    iAp2MarshalInitFromTxn(&mio, transaction.bytes.data());
    Decoder decoder(mio, decoded.slots);
    try
    {
        Walk(decoder).through(decoded.description);
        decoder.requireEnd();
    }
    catch (const DecodingError& error)
    {
        decoded.failure = Difference{error.place, error.what()};
    }
    return decoded;
}

} // namespace identification
