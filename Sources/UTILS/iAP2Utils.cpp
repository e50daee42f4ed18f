#include <korvane/iAP2Utils.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "internal/bigEndian.h"
#include "internal/report.h"
#include "internal/resultCodes.h"

using namespace korvane::internal;

/* ---- Base64 and the secured form ------------------------------------------------------------- */

namespace
{

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::size_t kGroupSize = 3; // bytes
constexpr std::size_t kQuadSize = 4;  // characters, into which a group is encoded

using TwoWords __attribute__((vector_size(16))) = std::uint64_t;
using Characters __attribute__((vector_size(16))) = std::int8_t;

/** Encodes two times 48 bits into two times eight characters, most significant first. */
inline TwoWords encodeWords(TwoWords words)
{
    // Halves the pieces until each byte holds six bits.
    words = (words >> 24 << 32) | (words & 0x0000000000FFFFFFU);
    words = ((words & 0x00FFF00000FFF000U) << 4) | (words & 0x00000FFF00000FFFU);
    words = ((words & 0x0FC00FC00FC00FC0U) << 2) | (words & 0x003F003F003F003FU);
    // The alphabet is five runs of consecutive characters: what a number lacks to its character
    // changes where a run begins.
    const auto numbers = reinterpret_cast<Characters>(words);
    const Characters lacking =
        'A' + ((numbers > 25) & ('a' - 'Z' - 1)) - ((numbers > 51) & ('z' - '0' + 1)) -
        ((numbers > 61) & ('9' - '+' + 1)) + ((numbers > 62) & ('/' - '+' - 1));
    return reinterpret_cast<TwoWords>(numbers + lacking);
}

/** Encodes the 24 bits of a group. */
inline void encodeGroup(std::uint32_t group, char* to)
{
    to[0] = kAlphabet[group >> 18];
    to[1] = kAlphabet[group >> 12 & 63];
    to[2] = kAlphabet[group >> 6 & 63];
    to[3] = kAlphabet[group & 63];
}

/** Encodes all of `from`, which always fits; returns the end of the characters. */
inline char* encode(const unsigned char* from, std::size_t length, char* to)
{
    for (; length >= 12; length -= 12, from += 12, to += 16)
    {
        const TwoWords text = encodeWords(TwoWords{
            loadBigEndian64(from) >> 16,
            loadBigEndian64(from + 4) & 0x0000FFFFFFFFFFFFU,
        });
        storeBigEndian64(text[0], to);
        storeBigEndian64(text[1], to + 8);
    }
    if (length >= 6)
    {
        // Two loads, which share the two bytes in the middle.
        const TwoWords text = encodeWords(
            TwoWords{std::uint64_t{loadBigEndian32(from)} << 16 | loadBigEndian32(from + 2), 0});
        storeBigEndian64(text[0], to);
        length -= 6;
        from += 6;
        to += 8;
    }
    for (; length >= kGroupSize; length -= kGroupSize, from += kGroupSize, to += kQuadSize)
    {
        encodeGroup(std::uint32_t{from[0]} << 16 | std::uint32_t{from[1]} << 8 | from[2], to);
    }
    if (length != 0)
    {
        const std::uint32_t second = length > 1 ? from[1] : 0;
        encodeGroup(std::uint32_t{from[0]} << 16 | second << 8, to);
        to[3] = '=';
        if (length == 1)
        {
            to[2] = '=';
        }
        to += kQuadSize;
    }
    return to;
}

/** base64Encode() where the text and its zero do not fit: writes as much as does. */
[[gnu::cold, gnu::noinline]] void encodePart(const unsigned char* from, std::size_t length,
                                             char* to, std::size_t size)
{
    const std::size_t whole = std::min(length, size / kQuadSize * kGroupSize);
    char quad[kQuadSize] = {};
    encode(from + whole, std::min(length - whole, kGroupSize), quad);
    std::memcpy(encode(from, whole, to), quad, size % kQuadSize);
}

[[gnu::cold, gnu::noinline]] int refuseEncoding(const char* reason, int result,
                                                unsigned long written, unsigned long* outLen)
{
    if (outLen != nullptr)
    {
        *outLen = written;
    }
    KORVANE_REPORT_FAILURE("base64Encode", reason);
    return result;
}

} // namespace

int base64Encode(const unsigned char* inBuffer, unsigned long inLen, char* outBuffer,
                 unsigned long outSize, unsigned long* outLen)
{
    if (inBuffer == nullptr)
    {
        return refuseEncoding("inBuffer is NULL", kArgumentMissing, 0, outLen);
    }
    if (outBuffer == nullptr)
    {
        return refuseEncoding("outBuffer is NULL", kArgumentMissing, 0, outLen);
    }
    // Asked of the output, whose share cannot overflow as that of the input could.
    if (outSize == 0 || inLen > (outSize - 1) / kQuadSize * kGroupSize)
    {
        encodePart(inBuffer, inLen, outBuffer, outSize);
        return refuseEncoding("length error", kOutputTooSmall, outSize, outLen);
    }
    char* const end = encode(inBuffer, inLen, outBuffer);
    *end = '\0';
    if (outLen != nullptr)
    {
        *outLen = static_cast<unsigned long>(end - outBuffer);
    }
    return kSuccess;
}

namespace
{

/** How many characters the secured form moves to its front. */
constexpr std::size_t kMoved = 3;

/** A secured form in an array of its own; without text where there is none. */
struct Secured
{
    std::unique_ptr<char[]> text;
    unsigned long length = 0;
};

/** createBase64EncodedString(), for all that secure a value. */
Secured secure(const char* value, std::size_t length)
{
    const char* const function = "createBase64EncodedString";
    Secured secured;
    if (length == 0)
    {
        KORVANE_REPORT_FAILURE(function, "inString is empty");
        return secured;
    }
    // A quad for each whole group, and room for one more and the zero.
    const std::size_t capacity = length / kGroupSize * kQuadSize + kQuadSize + 1;
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[kMoved + capacity]);
    if (buffer == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s error : outBuffer is NULL", function);
        return secured;
    }
    if (base64Encode(reinterpret_cast<const unsigned char*>(value), length, buffer.get() + kMoved,
                     capacity, &secured.length) != kSuccess)
    {
        KORVANE_REPORT_FAILURE(function, "error!!");
        return secured;
    }
    // Encoded behind the place of what moves to the front, so nothing else has to move.
    std::memcpy(buffer.get(), buffer.get() + secured.length, kMoved);
    buffer[secured.length] = '\0';
    secured.text = std::move(buffer);
    return secured;
}

/** The pointer forms; `function` is the one that reports. */
std::string secureTerminated(const char* function, const char* value)
{
    if (value == nullptr)
    {
        KORVANE_REPORT_FAILURE(function, "inValue is NULL!");
        return {};
    }
    const Secured secured = secure(value, std::strlen(value));
    if (secured.text == nullptr)
    {
        KORVANE_REPORT_FAILURE(function, "encodedString is NULL!");
        return {};
    }
    return {secured.text.get(), secured.length};
}

} // namespace

char* createBase64EncodedString(std::string& inString)
{
    return secure(inString.data(), inString.size()).text.release();
}

std::string getSecuredString(std::string value)
{
    const Secured secured = secure(value.data(), value.size());
    return secured.text == nullptr ? std::string()
                                   : std::string(secured.text.get(), secured.length);
}

std::string getSecuredUtf8(unsigned char* inValue)
{
    return secureTerminated(__func__, reinterpret_cast<const char*>(inValue));
}

std::string getSecuredChar(char* inValue)
{
    return secureTerminated(__func__, inValue);
}

/* ---- MAC addresses and characters ------------------------------------------------------------ */

std::string insertColonIntoMacAddress(std::string mac)
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "insertColonIntoMacAddress()");
    constexpr std::size_t digits = 12;
    if (mac.size() == digits)
    {
        for (const std::size_t position : {2U, 5U, 8U, 11U, 14U})
        {
            mac.insert(position, 1, ':');
        }
    }
    // Secured at every level: that reports failures of its own, such as an empty text.
    const std::string secured = getSecuredString(mac);
    KORVANE_LOG(IAP2_LOG_DEBUG, "string [%s]", secured.c_str());
    return mac;
}

std::string removeCharFromString(std::string inString, const std::string& target)
{
    if (!inString.empty() && !target.empty())
    {
        std::size_t position = 0;
        while ((position = inString.find(target, position)) != std::string::npos)
        {
            inString.erase(position, 1);
            // No match begins in front of what the erased character has brought together.
            position -= std::min(position, target.size() - 1);
        }
    }
    KORVANE_LOG(IAP2_LOG_DEBUG, "inString : %s", inString.c_str());
    return inString;
}

/* ---- Parameter records ----------------------------------------------------------------------- */

std::int32_t reSettingUtf8ParamForCPP(CmdSaveUtf8Param* param, MarshalIo* mio)
{
    const char* const self = __func__;
    if (mio == nullptr)
    {
        KORVANE_REPORT_ERRNO_AND_CLEAR(self);
        return kArgumentMissing;
    }
    if (param == nullptr)
    {
        KORVANE_REPORT_ERRNO_AND_CLEAR(self);
        return kArgumentMissing;
    }
    delete[] param->value;
    param->value = nullptr;

    const std::uint8_t* const bytes = iAp2MarshalGetBytes(mio, &param->size);
    if (bytes == nullptr)
    {
        param->size = 0;
        param->present = 0;
        return kOutOfRange;
    }
    param->value = new (std::nothrow) char[std::size_t{param->size} + 1];
    if (param->value == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR utf8Param Malloc Fail");
        param->present = 0;
        return kAllocationFailed;
    }
    std::memcpy(param->value, bytes, param->size);
    param->value[param->size] = '\0';
    KORVANE_LOG(IAP2_LOG_INFO, "utf8Param->value[%s]", param->value);
    param->present = 1;
    return kSuccess;
}
