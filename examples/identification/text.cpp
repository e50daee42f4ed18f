#include "text.h"

#include <algorithm>
#include <array>

namespace identification
{

namespace
{

struct Range
{
    char32_t first;
    char32_t last;
};

template <std::size_t count> bool isIn(const std::array<Range, count>& ranges, char32_t value)
{
    return std::any_of(ranges.begin(), ranges.end(),
                       [value](const Range& range)
                       { return value >= range.first && value <= range.last; });
}

/** What moves the cursor, turns the writing direction or cannot be seen. */
constexpr std::array kHidden{Range{0x00, 0x1F},     Range{0x7F, 0x9F},     Range{0x061C, 0x061C},
                             Range{0x200B, 0x200F}, Range{0x2028, 0x202E}, Range{0x2060, 0x2069},
                             Range{0xFEFF, 0xFEFF}};

constexpr std::array kWide{Range{0x1100, 0x115F}, Range{0x2E80, 0xA4CF},   Range{0xAC00, 0xD7A3},
                           Range{0xF900, 0xFAFF}, Range{0xFE30, 0xFE6F},   Range{0xFF00, 0xFF60},
                           Range{0xFFE0, 0xFFE6}, Range{0x1F300, 0x1FAFF}, Range{0x20000, 0x3FFFD}};

constexpr std::array kCombining{Range{0x0300, 0x036F}, Range{0x1AB0, 0x1AFF}, Range{0x20D0, 0x20FF},
                                Range{0xFE00, 0xFE0F}, Range{0xFE20, 0xFE2F}};

std::string escaped(std::string_view text, std::size_t limit, std::string_view marks)
{
    std::string result;
    std::size_t characters = 0;
    for (std::size_t at = 0; at < text.size(); ++characters)
    {
        if (characters == limit)
        {
            return result + "...";
        }
        const CodePoint character = codePointAt(text, at);
        if (character.length == 0)
        {
            result += "\\x" + hexadecimal(static_cast<unsigned char>(text[at]), 2);
            ++at;
            continue;
        }
        if (isIn(kHidden, character.value))
        {
            result += "\\u" + hexadecimal(character.value, 4);
        }
        else
        {
            if (marks.find(text[at]) != std::string_view::npos)
            {
                result += '\\';
            }
            result += text.substr(at, character.length);
        }
        at += character.length;
    }
    return result;
}

} // namespace

CodePoint codePointAt(std::string_view text, std::size_t at)
{
    const auto byte = [text](std::size_t index) -> char32_t
    { return static_cast<unsigned char>(text[index]); };
    constexpr CodePoint invalid{0, 0};

    const char32_t first = byte(at);
    if (first < 0x80)
    {
        return {first, 1};
    }
    std::size_t length = 0;
    char32_t value = 0;
    char32_t smallest = 0;
    if ((first & 0xE0U) == 0xC0)
    {
        length = 2;
        value = first & 0x1FU;
        smallest = 0x80;
    }
    else if ((first & 0xF0U) == 0xE0)
    {
        length = 3;
        value = first & 0x0FU;
        smallest = 0x800;
    }
    else if ((first & 0xF8U) == 0xF0)
    {
        length = 4;
        value = first & 0x07U;
        smallest = 0x10000;
    }
    else
    {
        return invalid;
    }
    if (text.size() - at < length)
    {
        return invalid;
    }
    for (std::size_t i = 1; i < length; ++i)
    {
        const char32_t next = byte(at + i);
        if ((next & 0xC0U) != 0x80)
        {
            return invalid;
        }
        value = (value << 6U) | (next & 0x3FU);
    }
    if (value < smallest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
    {
        return invalid;
    }
    return {value, length};
}

std::size_t findInvalidUtf8(std::string_view text)
{
    for (std::size_t at = 0; at < text.size();)
    {
        const CodePoint character = codePointAt(text, at);
        if (character.length == 0)
        {
            return at;
        }
        at += character.length;
    }
    return std::string_view::npos;
}

std::string printable(std::string_view text, std::size_t limit)
{
    return escaped(text, limit, "");
}

std::string quoted(std::string_view text, std::size_t limit)
{
    return '"' + escaped(text, limit, "\"\\") + '"';
}

std::size_t displayWidth(std::string_view text)
{
    std::size_t width = 0;
    for (std::size_t at = 0; at < text.size();)
    {
        const CodePoint character = codePointAt(text, at);
        if (character.length == 0)
        {
            ++width;
            ++at;
            continue;
        }
        if (!isIn(kCombining, character.value))
        {
            width += isIn(kWide, character.value) ? 2U : 1U;
        }
        at += character.length;
    }
    return width;
}

std::string padded(std::string_view text, std::size_t width)
{
    std::string result(text);
    const std::size_t taken = displayWidth(text);
    if (taken < width)
    {
        result.append(width - taken, ' ');
    }
    return result;
}

std::string hexadecimal(std::size_t number, std::size_t digits)
{
    std::string result;
    while (number != 0 || result.size() < digits)
    {
        result.insert(result.begin(), "0123456789abcdef"[number % 16]);
        number /= 16;
    }
    return result;
}

} // namespace identification
