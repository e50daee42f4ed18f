#define IAP2_BYTEARRAY_NO_INLINE // their bodies are here
#include <korvane/ByteArray.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include <pthread.h>

#include "internal/report.h"

namespace IAP2
{

namespace
{

constexpr std::int32_t kLargestToKeep = 1024;
constexpr int kAll = -1;

/** A buffer of `size` bytes; a size that is no int fails as the allocator would. */
char* allocate(std::int64_t size)
{
    if (size < 0 || size > std::numeric_limits<std::int32_t>::max())
    {
        throw std::bad_array_new_length();
    }
    return new char[static_cast<std::size_t>(size)];
}

void copy(char* to, const char* from, std::int64_t count)
{
    std::memcpy(to, from, static_cast<std::size_t>(count));
}

/** The buffer of an array without content. */
char* allocateEmpty()
{
    char* const buffer = allocate(1);
    *buffer = 0;
    return buffer;
}

/** The address of `bytes[pos]`, which need not lie inside anything. */
void* addressOf(const char* bytes, std::int32_t pos)
{
    const auto offset = static_cast<std::uintptr_t>(pos);
    return reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(bytes) + offset);
}

} // namespace

/* ---- Construction and assignment ------------------------------------------------------------- */

ByteArray::ByteArray() : ByteArray(allocateEmpty(), 1, 0)
{
}

/** Takes a buffer with its content. */
ByteArray::ByteArray(char* buffer, std::int32_t size, std::int32_t usedSize)
    : mpByteArray(buffer), mAllocSize(size), mUsedSize(usedSize), mHeldSize(size)
{
}

// NOLINTNEXTLINE(readability-non-const-parameter): the signature is the interface
ByteArray::ByteArray(char* pStr, int len)
    : mpByteArray(nullptr), mAllocSize(0), mUsedSize(0), mHeldSize(0)
{
    if (pStr == nullptr || len <= 0)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : append() pStr[%p], len[%d]", static_cast<void*>(pStr),
                    len);
        return;
    }
    mpByteArray = allocate(std::int64_t{len} + 1);
    copy(mpByteArray, pStr, len);
    mpByteArray[len] = 0;
    mAllocSize = mHeldSize = len + 1;
    mUsedSize = len;
}

ByteArray::ByteArray(const ByteArray& other)
    : mpByteArray(nullptr), mAllocSize(0), mUsedSize(0), mHeldSize(0)
{
    copyContent(other);
}

ByteArray::ByteArray(ByteArray&& other) noexcept
{
    takeBuffer(other);
}

ByteArray::~ByteArray()
{
    if (mpByteArray == nullptr)
    {
        reportDestruction();
        return;
    }
    delete[] mpByteArray;
}

/** Says that there is no buffer. A cancellation in it would leave a destructor: it has to wait. */
void ByteArray::reportDestruction()
{
    int state = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : mpByteArray is NULL");
    pthread_setcancelstate(state, &state);
}

ByteArray& ByteArray::operator=(ByteArray&& other) noexcept
{
    if (this != &other)
    {
        delete[] mpByteArray;
        takeBuffer(other);
    }
    return *this;
}

// NOLINTNEXTLINE(misc-unconventional-assign-operator,bugprone-unhandled-self-assignment,cert-oop54-cpp)
ByteArray& ByteArray::operator=(ByteArray& other)
{
    return *this = std::as_const(other);
}

ByteArray& ByteArray::operator=(const ByteArray& other)
{
    if (this != &other)
    {
        copyContent(other);
    }
    return *this;
}

/** Makes this array a copy of another; where that has no buffer, it stays as it is. */
void ByteArray::copyContent(const ByteArray& other)
{
    if (other.mpByteArray == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : pByteArray is NULL"); // as constData() does
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : pByteArray is NULL");
        return;
    }
    releaseBuffer();
    const std::int32_t size = other.mUsedSize + 1;
    mpByteArray = allocate(size);
    copy(mpByteArray, other.mpByteArray, size);
    mUsedSize = other.mUsedSize;
    mAllocSize = mHeldSize = size;
}

void ByteArray::takeBuffer(ByteArray& other)
{
    mpByteArray = other.mpByteArray;
    mAllocSize = other.mAllocSize;
    mUsedSize = other.mUsedSize;
    mHeldSize = other.mHeldSize;
    other.mpByteArray = nullptr;
    other.mAllocSize = other.mUsedSize = other.mHeldSize = 0;
}

/** Leaves this array without a buffer, so that it can end should the next one not be had. */
void ByteArray::releaseBuffer()
{
    delete[] mpByteArray;
    mpByteArray = nullptr;
    mAllocSize = mUsedSize = mHeldSize = 0;
}

/** Releases the buffer for one of `size` bytes, which becomes this array's. */
void ByteArray::replaceBuffer(char* buffer, std::int32_t size)
{
    delete[] mpByteArray;
    mpByteArray = buffer;
    mAllocSize = mHeldSize = size;
}

/* ---- Content --------------------------------------------------------------------------------- */

void ByteArray::clear()
{
    mUsedSize = 0;
    if (mpByteArray == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : mpByteArray is NULL");
        return;
    }
    if (mAllocSize > kLargestToKeep)
    {
        releaseBuffer();
        mpByteArray = allocate(1);
        mAllocSize = mHeldSize = 1;
    }
}

int ByteArray::length()
{
    return mUsedSize;
}

int ByteArray::getUsedSize()
{
    return mUsedSize;
}

ByteArray& ByteArray::append(char* pStr, int len)
{
    return appendAnywhere(pStr, len);
}

// NOLINTNEXTLINE(readability-non-const-parameter): the signature is append()'s
ByteArray& ByteArray::appendAnywhere(char* pStr, int len)
{
    if (appendInPlace(pStr, len))
    {
        return *this;
    }
    if (pStr == nullptr || len <= 0)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "WARNING : append() pStr[%p], len[%d]",
                    static_cast<void*>(pStr), len);
        return *this;
    }
    if (mpByteArray == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : mpByteArray is NULL");
        return *this;
    }
    // Room that a failed reserve() has promised is taken as it was promised.
    const std::int64_t needed = std::int64_t{mUsedSize} + len + 1;
    const std::int64_t size = std::max<std::int64_t>(needed, mAllocSize);
    char* const buffer = allocate(size);
    copy(buffer, mpByteArray, mUsedSize);
    copy(buffer + mUsedSize, pStr, len);
    mUsedSize += len;
    buffer[mUsedSize] = 0;
    replaceBuffer(buffer, static_cast<std::int32_t>(size)); // the bytes may be the old buffer's
    return *this;
}

ByteArray& ByteArray::append(char* pStr)
{
    if (pStr == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "WARNING : append() pStr is NULL");
        return *this;
    }
    if (mpByteArray == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : mpByteArray is NULL");
        return *this;
    }
    const std::size_t length = std::strlen(pStr);
    if (length == 0)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "WARNING : len is 0");
        return *this;
    }
    if (length > std::numeric_limits<int>::max())
    {
        throw std::bad_array_new_length();
    }
    return append(pStr, static_cast<int>(length));
}

ByteArray& ByteArray::append(char c)
{
    return append(&c, 1);
}

ByteArray& ByteArray::append(ByteArray& other)
{
    char* const bytes = other.data();
    return append(bytes, other.mUsedSize);
}

/* ---- Size ------------------------------------------------------------------------------------ */

void ByteArray::resize(int size)
{
    const char* const self = __func__;
    if (mpByteArray == nullptr)
    {
        KORVANE_REPORT_FAILURE(self, "mpByteArray is NULL");
        return;
    }
    if (mUsedSize >= size)
    {
        if (size >= 0 && size < mAllocSize)
        {
            mpByteArray[size] = 0;
            mUsedSize = size;
        }
        return;
    }
    try
    {
        char* const buffer = allocate(std::int64_t{size} + 1);
        copy(buffer, mpByteArray, mUsedSize);
        buffer[size] = 0;
        mUsedSize = size;
        replaceBuffer(buffer, size + 1);
    }
    catch (const std::bad_alloc& error)
    {
        KORVANE_REPORT_FAILURE(self, error.what());
        mAllocSize = 0;
    }
}

void ByteArray::reserve(int size)
{
    const char* const self = __func__;
    if (mpByteArray == nullptr)
    {
        KORVANE_REPORT_FAILURE(self, "mpByteArray is NULL");
        return;
    }
    if (mAllocSize >= size)
    {
        KORVANE_REPORT_FAILURE(self, "size error");
        return;
    }
    if (mUsedSize < 0)
    {
        KORVANE_REPORT_FAILURE(self, "mUsedSize < 0");
        return;
    }
    // Counts from here on, whether the buffer can be had or not; wraps for the largest int.
    const std::int64_t asked = std::int64_t{size} + 1;
    mAllocSize = static_cast<std::int32_t>(asked);
    try
    {
        // After a failed resize() the content may be longer than what is asked for.
        const std::int64_t held = asked < 0 ? asked : std::max(asked, std::int64_t{mUsedSize} + 1);
        char* const buffer = allocate(held);
        copy(buffer, mpByteArray, mUsedSize);
        buffer[mUsedSize] = 0;
        delete[] mpByteArray;
        mpByteArray = buffer;
        mHeldSize = static_cast<std::int32_t>(held);
    }
    catch (const std::bad_alloc& error)
    {
        KORVANE_REPORT_FAILURE(self, error.what());
    }
}

/* ---- Access ---------------------------------------------------------------------------------- */

const char* ByteArray::constData()
{
    return data();
}

char* ByteArray::data()
{
    if (mpByteArray == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : pByteArray is NULL");
    }
    return mpByteArray;
}

ByteArray ByteArray::mid(int pos, int len)
{
    const char* reason = nullptr;
    if (mpByteArray == nullptr)
    {
        reason = "mpByteArray is NULL";
    }
    else if (mAllocSize <= pos)
    {
        reason = "pos >= mAllocSize";
    }
    else if (pos < 0)
    {
        reason = "pos < 0";
    }
    if (reason != nullptr)
    {
        std::unique_ptr<char[]> empty(allocateEmpty()); // first: without memory nothing is reported
        KORVANE_REPORT_FAILURE("mid", reason);
        return {empty.release(), 1, 0};
    }

    std::int32_t count = len;
    if (len == kAll)
    {
        count = mUsedSize; // not the rest: callers rely on it
    }
    else if (std::int64_t{pos} + len > mUsedSize)
    {
        count = mUsedSize - pos;
    }
    if (count <= 0)
    {
        std::unique_ptr<char[]> empty(allocateEmpty());
        KORVANE_LOG(IAP2_LOG_ERROR, "WARNING : append() pStr[%p], len[%d]",
                    addressOf(mpByteArray, pos), count);
        return {empty.release(), 1, 0};
    }

    char* const buffer = allocate(std::int64_t{count} + 1);
    const std::int32_t readable = std::clamp(mHeldSize - pos, 0, count);
    if (readable > 0)
    {
        copy(buffer, mpByteArray + pos, readable);
    }
    if (readable < count)
    {
        std::memset(buffer + readable, 0, static_cast<std::size_t>(count - readable));
    }
    buffer[count] = 0;
    return {buffer, count + 1, count};
}

ByteArray ByteArray::mid(int pos)
{
    return mid(pos, kAll);
}

} // namespace IAP2
