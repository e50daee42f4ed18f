/**
 * A growable byte buffer that owns its bytes and keeps one spare byte behind them, normally a zero,
 * so that its content can also be read as text.
 *
 * Failures are trace lines at level 90 and not results: an operation that fails reports and leaves
 * the array as its comment says. Only a lack of memory leaves an operation, as std::bad_alloc, and
 * neither resize() nor reserve(). What cannot be counted in an int is such a lack too
 * (std::bad_array_new_length): content and spare byte are 2147483647 bytes at most.
 *
 * An array belongs to one thread at a time; callers that share one lock it themselves. Nothing
 * blocks beyond the system allocator.
 */
#ifndef KORVANE_BYTEARRAY_H
#define KORVANE_BYTEARRAY_H

#include <cstdint>
#include <cstring>

#pragma GCC visibility push(default)

#define IAP2_BYTEARRAY_HIDDEN __attribute__((visibility("hidden")))

namespace IAP2
{

/**
 * An array without a buffer is what a move leaves behind, a construction from no bytes or from such
 * an array, and an assignment or a clear() that found no memory. It has a length of 0; nearly everything that is done
 * to it reports an error, its destruction too, until it is assigned to.
 */
class ByteArray
{
public:
    /** An empty array: a buffer of one byte, which is 0. */
    ByteArray();

    /**
     * A copy of `len` bytes. Where `pStr` is null or `len` not positive, that is reported as
     * "ERROR : append() pStr[%p], len[%d]" and the array has no buffer.
     */
    ByteArray(char* pStr, int len);

    /**
     * A copy of the content and of the byte behind it, as it stands, and of nothing else: the
     * capacity is the length plus one. Where the source has no buffer, the copy has none either,
     * and "ERROR : pByteArray is NULL" is reported twice.
     */
    ByteArray(const ByteArray& other);

    /** Takes the source's buffer; the source has none afterwards. */
    ByteArray(ByteArray&& other) noexcept;

    /**
     * Releases the buffer; where there is none, reports "ERROR : mpByteArray is NULL". So does every
     * array that was moved from, those that a growing std::vector leaves behind among them. A thread
     * is not cancelled in that report but at its next cancellation point.
     */
    ~ByteArray();

    /** Releases this array's buffer and takes the source's, unless both are one array. */
    ByteArray& operator=(ByteArray&& other) noexcept;

    /**
     * Releases this array's buffer and makes it a copy as the copy constructor does, unless both are
     * one array. A source without a buffer is reported as there and changes nothing. Where memory is
     * short, this array has no buffer afterwards.
     */
    ByteArray& operator=(ByteArray& other);
    ByteArray& operator=(const ByteArray& other);

    /**
     * Sets the length to 0. Up to a capacity of 1024 the buffer is kept for reuse, above it gives way to
     * one of a single byte; should even that not be had, the array has no buffer afterwards. Without
     * a buffer: "ERROR : mpByteArray is NULL".
     *
     * Hazard: no terminating zero is written; the old bytes, or one that nobody has set, stay.
     */
    void clear();

    /** Both are the number of content bytes. */
    int length();
    int getUsedSize();

    /**
     * Adds `len` bytes, which may be the array's own, and a terminating zero behind them. Returns
     * this array, whatever happens.
     *
     * Where they do not fit, a new buffer of exactly the new length plus one is taken: whoever adds
     * many small pieces calls reserve() first. Reported, and nothing is changed: a null `pStr` or a
     * `len` that is not positive ("WARNING : append() pStr[%p], len[%d]"), no buffer
     * ("ERROR : mpByteArray is NULL").
     */
    ByteArray& append(char* pStr, int len);

    /**
     * Adds a text without its terminating zero. Reported, and nothing is changed: a null `pStr`
     * ("WARNING : append() pStr is NULL"), no buffer ("ERROR : mpByteArray is NULL"), an empty text
     * ("WARNING : len is 0").
     */
    ByteArray& append(char* pStr);

    /** Adds one byte, also a 0, as append(&c, 1) does. */
    ByteArray& append(char c);

    /**
     * Adds the content of another array, or of this one, as append(other.data(), other.length())
     * does: an empty one is reported by append(), one without a buffer by data() and append().
     */
    ByteArray& append(ByteArray& other);

    /**
     * Makes the content `size` bytes long, with a terminating zero behind it. Growing takes a new
     * buffer of `size` + 1 bytes, also where the old one had room. Shrinking keeps the buffer. A
     * negative `size` changes nothing.
     *
     * Reported, and nothing is changed: no buffer ("resize error : mpByteArray is NULL"). A lack of
     * memory is reported with the allocator's text ("resize error : std::bad_alloc"); content and
     * length stay, but the capacity counts as 0, so that the next append takes a new buffer, mid()
     * finds no position and a resize() that shrinks does nothing.
     *
     * Hazard: the bytes that are added are not set.
     */
    void resize(int size);

    /**
     * Makes the capacity `size` + 1 bytes; the content stays. What counts as the capacity only
     * grows. Reported, and nothing is changed: no buffer ("reserve error : mpByteArray is NULL"), a `size` that is not above the
     * present capacity ("reserve error : size error"), a negative length, which only a derived class
     * can make ("reserve error : mUsedSize < 0").
     *
     * A lack of memory is reported with the allocator's text ("reserve error : std::bad_alloc"). The
     * capacity then counts as the one asked for though the buffer is still the old one: what is
     * added within it takes a buffer of that capacity then. (For 2147483647 it counts as the least
     * int, so that the next append takes a new buffer.)
     */
    void reserve(int size);

    /**
     * The buffer, which is this array's until the array changes or ends; null without one, after
     * "ERROR : pByteArray is NULL".
     */
    const char* constData();
    char* data();

    /**
     * A copy of up to `len` bytes from `pos` on, cut at the end of the content. An empty array is
     * returned where there is no buffer ("mid error : mpByteArray is NULL"), where `pos` is not
     * inside the capacity ("mid error : pos >= mAllocSize"), where it is negative
     * ("mid error : pos < 0"), and where no byte is left or asked for ("WARNING : append()
     * pStr[%p], len[%d]" with the address of `pos` and the count).
     *
     * Hazard: a `len` of -1, and mid(pos), stands for length() bytes from `pos` on and not for the
     * rest. Above a position of 0 the result therefore reaches `pos` bytes past the content: the
     * byte behind it first, then whatever the buffer holds, and zeros behind the buffer.
     */
    ByteArray mid(int pos, int len);
    ByteArray mid(int pos);

protected:
    // To be read by a derived class, not changed: the true size below would not follow.
    char* mpByteArray;       ///< owned, from array new
    std::int32_t mAllocSize; ///< what counts as the buffer's size
    std::int32_t mUsedSize;  ///< content bytes

private:
    ByteArray(char* buffer, std::int32_t size, std::int32_t usedSize) IAP2_BYTEARRAY_HIDDEN;
    void copyContent(const ByteArray& other) IAP2_BYTEARRAY_HIDDEN;
    void takeBuffer(ByteArray& other) IAP2_BYTEARRAY_HIDDEN;
    void releaseBuffer() IAP2_BYTEARRAY_HIDDEN;
    void replaceBuffer(char* buffer, std::int32_t size) IAP2_BYTEARRAY_HIDDEN;
    static void reportDestruction();
    ByteArray& appendAnywhere(char* pStr, int len);

    /**
     * Adds `len` bytes and a terminating zero, if there are any and they fit; by the size that counts
     * and by the true one. Without a buffer nothing does.
     */
    __attribute__((always_inline)) bool appendInPlace(const char* bytes, int len)
    {
        if (bytes == nullptr || len <= 0 || mHeldSize - mUsedSize <= len ||
            mAllocSize <= mUsedSize + len)
        {
            return false;
        }
        char* const end = mpByteArray + mUsedSize; // read once: the bytes may alias the fields
        std::memmove(end, bytes, static_cast<std::size_t>(len));
        end[len] = 0;
        mUsedSize += len;
        return true;
    }

    std::int32_t mHeldSize; ///< the buffer's true size, which failures make mAllocSize differ from
};

/* ---- Inline forms ---------------------------------------------------------------------------- */

/*
 * In optimised code these do in place what succeeds and leave the rest to the library, so that the
 * fields above are part of the library's binary interface. `gnu_inline` emits no body: the symbols
 * stay the library's alone. Define IAP2_BYTEARRAY_NO_INLINE to call the library every time.
 */
#if defined(__OPTIMIZE__) && !defined(IAP2_BYTEARRAY_NO_INLINE)

#if defined(__clang__)
#pragma clang diagnostic push
// A member cannot be `extern`; what clang says it does without is what is wanted.
#pragma clang diagnostic ignored "-Wgnu-inline-cpp-without-extern"
#endif
#define IAP2_BYTEARRAY_INLINE inline __attribute__((gnu_inline, always_inline))

IAP2_BYTEARRAY_INLINE ByteArray::~ByteArray()
{
    if (mpByteArray == nullptr)
    {
        reportDestruction();
        return;
    }
    delete[] mpByteArray;
}

IAP2_BYTEARRAY_INLINE int ByteArray::length()
{
    return mUsedSize;
}

IAP2_BYTEARRAY_INLINE int ByteArray::getUsedSize()
{
    return mUsedSize;
}

IAP2_BYTEARRAY_INLINE ByteArray& ByteArray::append(char* pStr, int len)
{
    return __builtin_expect(appendInPlace(pStr, len), 1) ? *this : appendAnywhere(pStr, len);
}

IAP2_BYTEARRAY_INLINE ByteArray& ByteArray::append(char c)
{
    if (__builtin_expect(appendInPlace(&c, 1), 1))
    {
        return *this;
    }
    char copy = c; // whose address is taken here alone, so that `c` stays in its register
    return appendAnywhere(&copy, 1);
}

#undef IAP2_BYTEARRAY_INLINE
#if defined(__clang__)
#pragma clang diagnostic pop
#endif

#endif

} // namespace IAP2

#undef IAP2_BYTEARRAY_HIDDEN

#pragma GCC visibility pop

#endif
