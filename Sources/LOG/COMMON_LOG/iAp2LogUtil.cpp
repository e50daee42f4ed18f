#include <korvane/iAp2LogUtil.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <korvane/iAP2ExtLog.h>

#include "internal/logLevel.h"
#include "internal/report.h"
#include "internal/shortCopy.h"

extern "C" {
alignas(64) std::atomic<int> korvaneLogLevel{0};

} // extern "C"

namespace
{

constexpr std::size_t kLineLimit = 1024; // with the terminating zero
constexpr std::size_t kFileColumn = 22;
constexpr std::size_t kLineColumn = 5;
constexpr std::size_t kStampLength = sizeof("00:00:00:000") - 1;
constexpr std::size_t kStampBufferSize = 16;

/**
 * A stamp is handled as two words: it is made in registers, and stored and compared whole. Its first
 * character lies in the lowest byte.
 */
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the stamp's characters would be reversed");
struct Stamp
{
    std::uint64_t clock; ///< "hh:mm:ss"
    std::uint64_t rest;  ///< ":mmm", then zeros
};
static_assert(sizeof(Stamp) == kStampBufferSize, "the stamp fills its buffer");

/**
 * The stamp buffer, read and written by words. A word never tears; a reader may find words of two
 * stamps, which is known of this buffer, and no line is printed from it.
 */
alignas(64) char stampBuffer[kStampBufferSize];
using StampWord = std::uint64_t __attribute__((may_alias));

/** The two digits of a value below 100. */
constexpr std::uint64_t twoDigits(unsigned value)
{
    const unsigned tens = value * 103 >> 10; // value / 10 as far as 178
    return tens + '0' + ((value - 10 * tens + '0') << 8);
}

/**
 * The current stamp. A failing clock is reported by a line of its own, printed before the line for
 * which the stamp is wanted.
 */
Stamp makeStamp()
{
    timespec now;
    if (__builtin_expect(clock_gettime(CLOCK_MONOTONIC, &now) != 0, 0))
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "Can't get current time");
        now = timespec{};
    }
    const auto secondOfDay = static_cast<unsigned>(static_cast<std::uint64_t>(now.tv_sec) % 86400);
    const unsigned minuteOfDay = secondOfDay / 60;
    const unsigned hour = minuteOfDay / 60;
    const unsigned milliseconds = static_cast<unsigned>(now.tv_nsec) / 1000000;
    const unsigned hundreds = milliseconds / 100;
    constexpr std::uint64_t colon = ':';
    return {twoDigits(hour) | colon << 16 | twoDigits(minuteOfDay - hour * 60) << 24 | colon << 40 |
                twoDigits(secondOfDay - minuteOfDay * 60) << 48,
            colon | (std::uint64_t{hundreds} + '0') << 8 |
                twoDigits(milliseconds - hundreds * 100) << 16};
}

/**
 * Shows `stamp` in the shared buffer. Within one millisecond all threads find it there already and
 * only read, so logging threads do not take the cache line from each other.
 */
void publishStamp(const Stamp& stamp)
{
    auto* const shared = reinterpret_cast<StampWord*>(stampBuffer);
    if (__atomic_load_n(&shared[0], __ATOMIC_RELAXED) != stamp.clock)
    {
        __atomic_store_n(&shared[0], stamp.clock, __ATOMIC_RELAXED);
    }
    if (__atomic_load_n(&shared[1], __ATOMIC_RELAXED) != stamp.rest)
    {
        __atomic_store_n(&shared[1], stamp.rest, __ATOMIC_RELAXED);
    }
}

char letterOf(int level)
{
    switch (level)
    {
    case IAP2_LOG_VERBOSE:
        return 'V';
    case IAP2_LOG_DEBUG:
        return 'D';
    case IAP2_LOG_INFO:
        return 'I';
    case IAP2_LOG_WARNING:
        return 'W';
    case IAP2_LOG_ERROR:
        return 'E';
    default:
        return 'U';
    }
}

/** A text and its length; what printf shows for a null text. */
struct Text
{
    explicit Text(const char* text)
        : data(text != nullptr ? text : "(null)"), length(std::strlen(data))
    {
    }
    const char* data;
    std::size_t length;
};

/** The part of a path that the file column shows: what follows the last '/', or all of it. */
const char* fileNameOf(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

/** The digits of a source line, right-aligned; wider than the column where the number is. */
class LineNumber
{
public:
    explicit LineNumber(int line)
    {
        // Negated as unsigned, which is defined for the smallest int too.
        unsigned rest = line < 0 ? 0U - static_cast<unsigned>(line) : static_cast<unsigned>(line);
        do
        {
            mDigits[--mBegin] = static_cast<char>('0' + rest % 10);
            rest /= 10;
        } while (rest != 0);
        if (line < 0)
        {
            mDigits[--mBegin] = '-';
        }
        while (length() < kLineColumn)
        {
            mDigits[--mBegin] = ' ';
        }
    }
    const char* data() const
    {
        return mDigits + mBegin;
    }
    std::size_t length() const
    {
        return sizeof mDigits - mBegin;
    }

private:
    char mDigits[sizeof("-2147483648") - 1];
    std::size_t mBegin = sizeof mDigits;
};

char* append(char* out, const char* text, std::size_t length)
{
    if (__builtin_expect(length <= korvane::internal::kLongestShortCopy, 1))
    {
        korvane::internal::shortCopy(out, text, length);
    }
    else
    {
        std::memcpy(out, text, length);
    }
    return out + length;
}

constexpr unsigned kLargestColumnLine = 99999;

/**
 * The line column of a number that fits it, and the blank behind it: six characters, the first in the
 * lowest byte.
 */
std::uint64_t lineColumn(unsigned line)
{
    constexpr std::uint64_t toBlanks = std::uint64_t{'0' - ' '} * 0x0101010101;
    const unsigned hundreds = line / 100;
    const unsigned tenThousands = hundreds / 100;
    const unsigned blanks =
        unsigned{line < 10} + unsigned{line < 100} + unsigned{line < 1000} + unsigned{line < 10000};
    const std::uint64_t digits = (tenThousands + '0') |
                                 twoDigits(hundreds - tenThousands * 100) << 8 |
                                 twoDigits(line - hundreds * 100) << 24;
    const std::uint64_t leading = (std::uint64_t{1} << (8 * blanks)) - 1;
    return (digits - (toBlanks & leading)) | std::uint64_t{' '} << 40;
}

/** formatPrefix() where a column is wider than usual, or the line number is negative. */
[[gnu::cold, gnu::noinline]] std::size_t formatWidePrefix(char (&buffer)[kLineLimit], char letter,
                                                          const Text& shownTag, const Text& file,
                                                          int line, const Stamp& stamp)
{
    const LineNumber number(line);
    const std::size_t padding = file.length < kFileColumn ? kFileColumn - file.length : 0;
    const std::size_t length = sizeof("V   ") - 1 + shownTag.length + padding + file.length +
                               number.length() + sizeof(' ') + kStampLength + sizeof(' ');
    if (length <= kLineLimit)
    {
        char* out = buffer;
        *out++ = letter;
        *out++ = ' ';
        out = append(out, shownTag.data, shownTag.length);
        *out++ = ' ';
        std::memset(out, ' ', padding);
        out = append(out + padding, file.data, file.length);
        *out++ = ' ';
        out = append(out, number.data(), number.length());
        *out++ = ' ';
        out = append(out, reinterpret_cast<const char*>(&stamp), kStampLength);
        *out = ' ';
    }
    return length;
}

/**
 * Writes the columns in front of the message, if they take at most kLineLimit characters.
 *
 * @return their length; above kLineLimit nothing was written.
 */
std::size_t formatPrefix(char (&buffer)[kLineLimit], char letter, const char* tag, const char* path,
                         int line)
{
    const Stamp stamp = makeStamp();
    publishStamp(stamp);

    const Text shownTag(tag);
    std::size_t length = sizeof("V  ") - 1 + shownTag.length + kStampLength + sizeof(' ');
    if (path == nullptr)
    {
        if (length <= kLineLimit)
        {
            char* out = buffer;
            *out++ = letter;
            *out++ = ' ';
            out = append(out, shownTag.data, shownTag.length);
            *out++ = ' ';
            out = append(out, reinterpret_cast<const char*>(&stamp), kStampLength);
            *out = ' ';
        }
        return length;
    }

    const Text file(fileNameOf(path));
    const unsigned plainLine = static_cast<unsigned>(line);
    if (__builtin_expect(plainLine > kLargestColumnLine || file.length > kFileColumn ||
                             shownTag.length > korvane::internal::kLongestShortCopy,
                         0))
    {
        return formatWidePrefix(buffer, letter, shownTag, file, line, stamp);
    }
    char* out = buffer;
    *out++ = letter;
    *out++ = ' ';
    korvane::internal::shortCopy(out, shownTag.data, shownTag.length);
    out += shownTag.length;
    *out++ = ' ';
    std::memset(out, ' ', kFileColumn + 2);
    out += kFileColumn;
    korvane::internal::shortCopy(out - file.length, file.data, file.length);
    ++out;
    const std::uint64_t number = lineColumn(plainLine);
    std::memcpy(out, &number, sizeof number);
    out += kLineColumn + 1;
    std::memcpy(out, &stamp, kStampBufferSize);
    out += kStampLength;
    *out++ = ' ';
    return static_cast<std::size_t>(out - buffer);
}

/** logPrint() behind its level test: builds the line and hands it on. */
__attribute__((format(printf, 5, 0))) void printLine(int level, const char* tag, const char* path,
                                                     int line, const char* format,
                                                     va_list arguments)
{
    char buffer[kLineLimit];
    std::size_t offset = formatPrefix(buffer, letterOf(level), tag, path, line);
    if (offset > kLineLimit)
    {
        offset = 0;
    }
    // Ends the line where the columns fill it to the last character (their final blank gives way)
    // and where the message cannot be formatted.
    const std::size_t last = kLineLimit - 1;
    buffer[std::min(offset, last)] = '\0';
    if (format != nullptr)
    {
        const int length = std::vsnprintf(buffer + offset, kLineLimit - offset, format, arguments);
        offset += static_cast<std::size_t>(std::max(length, 0));
    }
    // The sink ignores the length, so a zero that "%c" wrote into the message is not looked for.
    iAp2ExternelLogWirteDirect(level, buffer, std::min(offset, last));
}

} // namespace

extern "C" {
#if KORVANE_ASSEMBLY_ENTRY

#pragma GCC visibility push(hidden)
void korvanePrintLine(int level, const char* tag, const char* path, int line, const char* format,
                      ...) __attribute__((format(printf, 5, 6)));
#pragma GCC visibility pop

/** Where logPrintEntry.S jumps, with the arguments of logPrint(), when the level is printed. */
void korvanePrintLine(int level, const char* tag, const char* path, int line, const char* format,
                      ...)
{
    va_list arguments;
    va_start(arguments, format);
    printLine(level, tag, path, line, format, arguments);
    va_end(arguments);
}

#else

void logPrint(int level, const char* tag, const char* path, int line, const char* format, ...)
{
    if (!korvane::internal::isLevelPrinted(level))
    {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    printLine(level, tag, path, line, format, arguments);
    va_end(arguments);
}

#endif

void korvaneReportError(const char* path, int line, const char* format, ...)
{
    if (!korvane::internal::isLevelPrinted(IAP2_LOG_ERROR))
    {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    printLine(IAP2_LOG_ERROR, "IAP2", path, line, format, arguments);
    va_end(arguments);
}

void setLogLevel(int level)
{
    korvaneLogLevel.store(level, std::memory_order_relaxed);
}

char* getCurrentTimeString(void)
{
    const Stamp stamp = makeStamp();
    publishStamp(stamp);
    return stampBuffer;
}

long getTid(void)
{
    return syscall(SYS_gettid);
}

} // extern "C"
