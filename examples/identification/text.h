/**
 * UTF-8 as it is read, shown and measured here.
 */
#ifndef IDENTIFICATION_TEXT_H
#define IDENTIFICATION_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace identification
{

constexpr std::size_t kNoLimit = std::string_view::npos;

/** One character of a text; `length` is 0 where the bytes are not UTF-8. */
struct CodePoint
{
    char32_t value;
    std::size_t length;
};

/** Overlong forms, surrogates and numbers beyond U+10FFFF do not count as UTF-8. */
CodePoint codePointAt(std::string_view text, std::size_t at);

/** Index of the first byte that is not UTF-8, or npos. */
std::size_t findInvalidUtf8(std::string_view text);

/**
 * The text on one line of a terminal: control and direction characters as \u00XX, bytes that are
 * not UTF-8 as \xXX. Beyond `limit` characters it ends in "...".
 */
std::string printable(std::string_view text, std::size_t limit = kNoLimit);

/** printable() between quotation marks. Without a limit, different texts never look the same. */
std::string quoted(std::string_view text, std::size_t limit = kNoLimit);

/** Columns that a printable text takes on a terminal; East Asian characters take two. */
std::size_t displayWidth(std::string_view text);

/** The text followed by blanks up to `width` columns. */
std::string padded(std::string_view text, std::size_t width);

/** The number in hexadecimal, with leading zeros up to `digits`. */
std::string hexadecimal(std::size_t number, std::size_t digits);

} // namespace identification

#endif
