#include <korvane/iAp2LogUtil.h>

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
 * The stamp buffer, and the two words by which it is read and written. A word never tears; a reader
 * may find words of two stamps, which is known of this buffer, and no line is printed from it.
 */
alignas(64) char stampBuffer[kStampBufferSize];
using StampWord = std::uint64_t __attribute__((may_alias));

/** Writes `value` in two digits; values above 99 do not occur. */
char* putTwoDigits(char* out, unsigned value)
{
    out[0] = static_cast<char>('0' + value / 10);
    out[1] = static_cast<char>('0' + value % 10);
    return out + 2;
}

/**
 * Writes the current stamp, zero-filled to the size of the stamp buffer. A failing clock is
 * reported by a line of its own, printed before the line for which the stamp is wanted.
 */
void formatStamp(char (&stamp)[kStampBufferSize])
{
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "Can't get current time");
        now = timespec{};
    }
    const unsigned secondOfDay = static_cast<unsigned>(now.tv_sec % 86400);
    const unsigned milliseconds = static_cast<unsigned>(now.tv_nsec / 1000000);

    std::memset(stamp + kStampLength, 0, kStampBufferSize - kStampLength);
    char* out = putTwoDigits(stamp, secondOfDay / 3600);
    *out++ = ':';
    out = putTwoDigits(out, secondOfDay % 3600 / 60);
    *out++ = ':';
    out = putTwoDigits(out, secondOfDay % 60);
    *out++ = ':';
    *out++ = static_cast<char>('0' + milliseconds / 100);
    putTwoDigits(out, milliseconds % 100);
}

/**
 * Shows `stamp` in the shared buffer. Within one millisecond all threads find it there already and
 * only read, so logging threads do not take the cache line from each other.
 */
void publishStamp(const char (&stamp)[kStampBufferSize])
{
    auto* shared = reinterpret_cast<StampWord*>(stampBuffer);
    for (std::size_t i = 0; i < kStampBufferSize / sizeof(StampWord); ++i)
    {
        StampWord word;
        std::memcpy(&word, stamp + i * sizeof word, sizeof word);
        if (__atomic_load_n(&shared[i], __ATOMIC_RELAXED) != word)
        {
            __atomic_store_n(&shared[i], word, __ATOMIC_RELAXED);
        }
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
    std::memcpy(out, text, length);
    return out + length;
}

/**
 * Writes the columns in front of the message, if they take at most kLineLimit characters.
 *
 * @return their length; above kLineLimit nothing was written.
 */
std::size_t formatPrefix(char (&buffer)[kLineLimit], char letter, const char* tag, const char* path,
                         int line)
{
    char stamp[kStampBufferSize];
    formatStamp(stamp);
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
            out = append(out, stamp, kStampLength);
            *out = ' ';
        }
        return length;
    }

    const Text file(fileNameOf(path));
    const LineNumber number(line);
    const std::size_t padding = file.length < kFileColumn ? kFileColumn - file.length : 0;
    length += padding + file.length + sizeof(' ') + number.length() + sizeof(' ');
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
        out = append(out, stamp, kStampLength);
        *out = ' ';
    }
    return length;
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
    buffer[offset < kLineLimit ? offset : kLineLimit - 1] = '\0';
    if (format != nullptr)
    {
        std::vsnprintf(buffer + offset, kLineLimit - offset, format, arguments);
    }
    // Measured, not taken from vsnprintf(): "%c" may have written a zero into the message.
    iAp2ExternelLogWirteDirect(level, buffer, strnlen(buffer, kLineLimit));
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

void setLogLevel(int level)
{
    korvaneLogLevel.store(level, std::memory_order_relaxed);
}

char* getCurrentTimeString(void)
{
    char stamp[kStampBufferSize];
    formatStamp(stamp);
    publishStamp(stamp);
    return stampBuffer;
}

long getTid(void)
{
    return syscall(SYS_gettid);
}

} // extern "C"
