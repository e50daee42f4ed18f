#include <korvane/utils.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "TraceRecorder.h"

namespace
{

using support::takeMessages;
using testing::ElementsAre;
using testing::IsEmpty;

std::string uintError(const std::string& reason)
{
    return "E getUintFromBytes_C error : " + reason;
}

std::string uint64Error(const std::string& reason)
{
    return "E getUint64FromBytes_C error : " + reason;
}

constexpr char kOutOfRange[] = "ERROR : data[i] out of range";
constexpr char kTooLargeToShift[] = "ERROR : intValue << 8 undefined behavior";
constexpr char kOverflow[] = "nStartIdx + nLength overflow";

/** A byte string in a block of just its size, so that reading past it is noticed. */
class Bytes
{
public:
    explicit Bytes(const std::vector<unsigned char>& bytes)
        : mBytes(std::make_unique<unsigned char[]>(bytes.size())), mSize(bytes.size())
    {
        std::copy(bytes.begin(), bytes.end(), mBytes.get());
    }

    unsigned char* data()
    {
        return mBytes.get();
    }
    unsigned long size() const
    {
        return mSize;
    }

private:
    std::unique_ptr<unsigned char[]> mBytes;
    unsigned long mSize;
};

/* ---- the decoders ---- */

class ByteFieldTest : public support::TraceTest
{
protected:
    static std::uint32_t uintOf(Bytes bytes, int nStartIdx, int nLength)
    {
        return getUintFromBytes_C(bytes.data(), bytes.size(), nStartIdx, nLength);
    }
    static std::uint64_t uint64Of(Bytes bytes, int nStartIdx, int nLength)
    {
        return getUint64FromBytes_C(bytes.data(), bytes.size(), nStartIdx, nLength);
    }
    static unsigned int uint8Of(Bytes bytes, int nStartIdx, int nLength)
    {
        return getUint8FromBytes_C(bytes.data(), bytes.size(), nStartIdx, nLength);
    }
    static unsigned int uint16Of(Bytes bytes, int nStartIdx, int nLength)
    {
        return getUint16FromBytes_C(bytes.data(), bytes.size(), nStartIdx, nLength);
    }
    static std::uint32_t uint32Of(Bytes bytes, int nStartIdx, int nLength)
    {
        return getUint32FromBytes_C(bytes.data(), bytes.size(), nStartIdx, nLength);
    }
};

TEST_F(ByteFieldTest, Decode_WhenTheFieldIsInTheMiddle_ReadsItMostSignificantByteFirst)
{
    const std::vector<unsigned char> field{0xEE, 0x12, 0x34, 0x56, 0x78,
                                           0x9A, 0xBC, 0xDE, 0xF0, 0xEE};
    EXPECT_EQ(uintOf(Bytes(field), 1, 4), 0x12345678U);
    EXPECT_EQ(uint32Of(Bytes(field), 1, 4), 0x12345678U);
    EXPECT_EQ(uint8Of(Bytes(field), 5, 1), 0x9AU);
    EXPECT_EQ(uint16Of(Bytes(field), 5, 2), 0x9ABCU);
    for (int width = 0; width <= 8; ++width)
    {
        const std::uint64_t whole = 0x123456789ABCDEF0;
        EXPECT_EQ(uint64Of(Bytes(field), 1, width), width == 0 ? 0 : whole >> (64 - 8 * width));
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, Decode_WhenFourBytesBeginWithALowByte_GivesTheSameFromBoth32BitDecoders)
{
    EXPECT_EQ(uintOf(Bytes({0x12, 0x34, 0x56, 0x78}), 0, 4), 0x12345678U);
    EXPECT_EQ(uint32Of(Bytes({0x12, 0x34, 0x56, 0x78}), 0, 4), 0x12345678U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, GetUint_WhenFourBytesBeginWithAHighByte_RefusesTheShift)
{
    EXPECT_EQ(uintOf(Bytes({0x80, 0x00, 0x00, 0x01}), 0, 4), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uintError(kTooLargeToShift)));
    EXPECT_EQ(uint32Of(Bytes({0x80, 0x00, 0x00, 0x01}), 0, 4), 0x80000001U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, GetUint_WhenTheNumberIsTheLargest_GivesIt)
{
    EXPECT_EQ(uintOf(Bytes({0x7F, 0xFF, 0xFF, 0xFF}), 0, 4), 2147483647U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, GetUint_WhenAHighNumberEndsTheField_GivesIt)
{
    EXPECT_EQ(uintOf(Bytes({0x80, 0x00, 0x00}), 0, 3), 0x800000U);
    EXPECT_EQ(uintOf(Bytes({0xFF, 0xFF, 0xFF}), 0, 3), 0xFFFFFFU);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, GetUint_WhenLeadingBytesAreZero_IgnoresThem)
{
    EXPECT_EQ(uintOf(Bytes({0, 0, 0, 0, 0x7F, 0xFF, 0xFF, 0xFF}), 0, 8), 2147483647U);
    EXPECT_EQ(uintOf(Bytes({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}), 0, 12), 5U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, GetUint_WhenALeadingByteOfAWideFieldIsNotZero_RefusesTheShift)
{
    EXPECT_EQ(uintOf(Bytes({0, 0, 0, 1, 0, 0, 0, 5}), 0, 8), 0U);
    EXPECT_EQ(uintOf(Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}), 0, 12), 0U);
    EXPECT_THAT(takeMessages(),
                ElementsAre(uintError(kTooLargeToShift), uintError(kTooLargeToShift)));
}

TEST_F(ByteFieldTest, GetUint_WhenNumberAndIndexAreBothWrong_ReportsTheNumber)
{
    EXPECT_EQ(uintOf(Bytes({0x80, 0x00, 0x00}), 0, 4), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uintError(kTooLargeToShift)));
    EXPECT_EQ(uintOf(Bytes({0x7F, 0xFF, 0xFF}), 0, 4), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uintError(kOutOfRange)));
}

TEST_F(ByteFieldTest, GetUint_WhenTheLongestFieldLeavesTheData_StopsThere)
{
    EXPECT_EQ(uintOf(Bytes({0, 0, 0, 0, 0, 1}), 0, INT_MAX), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uintError(kOutOfRange)));
    EXPECT_EQ(uintOf(Bytes({0, 0, 0, 1, 0, 0, 0}), 0, INT_MAX), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uintError(kTooLargeToShift)));
}

TEST_F(ByteFieldTest, GetUint64_WhenTheFieldIsWiderThanTheNumber_GivesItsLastEightBytes)
{
    EXPECT_EQ(uint64Of(Bytes({1, 2, 3, 4, 5, 6, 7, 8, 9}), 0, 9), 0x0203040506070809U);
    EXPECT_EQ(uint64Of(Bytes({0xEE, 0xFF, 0xFF, 0xFF, 0xFF, 2, 3, 4, 5, 6, 7, 8, 9}), 1, 12),
              0x0203040506070809U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, Decode_WhenTheFieldLeavesTheData_ReportsItAndGivesNoPartOfIt)
{
    EXPECT_EQ(uintOf(Bytes({1, 2, 3, 4}), 3, 2), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uintError(kOutOfRange)));
    EXPECT_EQ(uint64Of(Bytes({1, 2, 3, 4}), 3, 2), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uint64Error(kOutOfRange)));
    EXPECT_EQ(uint64Of(Bytes({1, 2, 3, 4}), 4, 1), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uint64Error(kOutOfRange)));
    EXPECT_EQ(uint64Of(Bytes({1, 2, 3, 4}), 3, 1), 4U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, Decode_WhenTheWidthIsNegative_ReportsItFirst)
{
    EXPECT_EQ(uintOf(Bytes({1}), -1, -1), 0U);
    EXPECT_EQ(uint64Of(Bytes({1}), -1, -1), 0U);
    EXPECT_EQ(uint64Of(Bytes({1}), 0, INT_MIN), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uintError("nLength < 0"), uint64Error("nLength < 0"),
                                            uint64Error("nLength < 0")));
}

TEST_F(ByteFieldTest, Decode_WhenTheStartIsNegative_ReportsItForEveryWidth)
{
    for (const int width : {0, 1, 8, INT_MAX})
    {
        EXPECT_EQ(uintOf(Bytes({1}), -1, width), 0U);
        EXPECT_EQ(uint64Of(Bytes({1}), INT_MIN, width), 0U);
        EXPECT_THAT(takeMessages(),
                    ElementsAre(uintError("nStartIdx < 0"), uint64Error("nStartIdx < 0")));
    }
}

TEST_F(ByteFieldTest, Decode_WhenTheEndIsBeyondTheLargestIndex_ReportsTheOverflow)
{
    for (const auto& [start, width] : {std::pair(INT_MAX, 1), std::pair(1, INT_MAX),
                                       std::pair(INT_MAX, INT_MAX), std::pair(INT_MAX - 3, 4)})
    {
        EXPECT_EQ(uintOf(Bytes({1}), start, width), 0U);
        EXPECT_EQ(uint64Of(Bytes({1}), start, width), 0U);
        EXPECT_THAT(takeMessages(), ElementsAre(uintError(kOverflow), uint64Error(kOverflow)));
    }
    EXPECT_EQ(uintOf(Bytes({1}), INT_MAX - 4, 4), 0U);
    EXPECT_EQ(uint64Of(Bytes({1}), INT_MAX - 4, 4), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uintError(kOutOfRange), uint64Error(kOutOfRange)));
}

TEST_F(ByteFieldTest, Decode_WhenTheOverflowLiesWithinALargerLength_IsStillReported)
{
    Bytes bytes({1});
    constexpr unsigned long length = 1UL << 40;
    EXPECT_EQ(getUintFromBytes_C(bytes.data(), length, INT_MAX, 1), 0U);
    EXPECT_EQ(getUint64FromBytes_C(bytes.data(), length, INT_MAX, 1), 0U);
    EXPECT_EQ(getUint64FromBytes_C(bytes.data(), length, -1, 1), 0U);
    EXPECT_EQ(getUint64FromBytes_C(bytes.data(), ULONG_MAX, 0, -1), 0U);
    EXPECT_THAT(takeMessages(),
                ElementsAre(uintError(kOverflow), uint64Error(kOverflow),
                            uint64Error("nStartIdx < 0"), uint64Error("nLength < 0")));
}

TEST_F(ByteFieldTest, Decode_WhenTheWidthIsZero_ReadsNothingAndReportsNothing)
{
    for (const int start : {0, 5, INT_MAX})
    {
        EXPECT_EQ(getUintFromBytes_C(nullptr, 0, start, 0), 0U);
        EXPECT_EQ(getUint64FromBytes_C(nullptr, 0, start, 0), 0U);
        EXPECT_EQ(getUint8FromBytes_C(nullptr, 0, start, 0), 0U);
        EXPECT_EQ(getUint16FromBytes_C(nullptr, 0, start, 0), 0U);
        EXPECT_EQ(getUint32FromBytes_C(nullptr, 0, start, 0), 0U);
        EXPECT_EQ(getUint64FromBytes_C(nullptr, ULONG_MAX, start, 0), 0U);
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, Decode_WhenTheLengthNeedsMoreThan32Bits_ComparesAllOfIt)
{
    Bytes bytes({0x12, 0x34, 0x56, 0x78});
    for (const unsigned long length : {1UL << 32, (1UL << 32) + 2, 1UL << 63, ULONG_MAX})
    {
        EXPECT_EQ(getUintFromBytes_C(bytes.data(), length, 0, 4), 0x12345678U);
        EXPECT_EQ(getUint64FromBytes_C(bytes.data(), length, 0, 4), 0x12345678U);
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, Decode_WhenTheFieldEndsAtTheLargestIndex_ReadsIt)
{
    // All but the last page is never touched, so no memory stands behind it.
    constexpr auto size = static_cast<std::size_t>(INT_MAX);
    void* const area = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(area, MAP_FAILED);
    auto* const bytes = static_cast<unsigned char*>(area);
    for (std::size_t i = 1; i <= 9; ++i)
    {
        bytes[size - i] = static_cast<unsigned char>(i);
    }
    EXPECT_EQ(getUintFromBytes_C(bytes, size, INT_MAX - 4, 4), 0x04030201U);
    EXPECT_EQ(getUint32FromBytes_C(bytes, size, INT_MAX - 3, 3), 0x030201U);
    EXPECT_EQ(getUint64FromBytes_C(bytes, size, INT_MAX - 9, 9), 0x0807060504030201U);
    EXPECT_EQ(getUint64FromBytes_C(bytes, size, 0, INT_MAX), 0x0807060504030201U);
    EXPECT_THAT(takeMessages(), IsEmpty());
    munmap(area, size);
}

TEST_F(ByteFieldTest, NarrowDecode_WhenAWideFieldHoldsASmallNumber_GivesIt)
{
    EXPECT_EQ(uint8Of(Bytes({0, 0, 5}), 0, 3), 5U);
    EXPECT_EQ(uint8Of(Bytes({0, 0xFF}), 0, 2), 0xFFU);
    EXPECT_EQ(uint16Of(Bytes({0, 0xFF, 0xFF}), 0, 3), 0xFFFFU);
    EXPECT_EQ(uint32Of(Bytes({0, 0xFF, 0xFF, 0xFF, 0xFF}), 0, 5), 0xFFFFFFFFU);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(ByteFieldTest, NarrowDecode_WhenTheNumberIsTooLarge_ReportsItAndGivesZero)
{
    EXPECT_EQ(uint8Of(Bytes({1, 0}), 0, 2), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre("E data is larger then UINT8_MAX"));
    EXPECT_EQ(uint16Of(Bytes({1, 0, 0}), 0, 3), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre("E data is larger then UINT16_MAX"));
    EXPECT_EQ(uint32Of(Bytes({1, 0, 0, 0, 0}), 0, 5), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre("E data is larger then UINT32_MAX"));
}

TEST_F(ByteFieldTest, NarrowDecode_WhenTheFieldCannotBeRead_ReportsAsThe64BitDecoderOnly)
{
    EXPECT_EQ(uint8Of(Bytes({1, 2, 3, 4}), 4, 1), 0U);
    EXPECT_EQ(uint16Of(Bytes({1, 2, 3, 4}), 3, 2), 0U);
    EXPECT_EQ(uint32Of(Bytes({1, 2, 3, 4}), -1, 4), 0U);
    EXPECT_EQ(uint32Of(Bytes({1, 2, 3, 4}), 0, -1), 0U);
    EXPECT_EQ(uint8Of(Bytes({1, 2, 3, 4}), INT_MAX, 1), 0U);
    EXPECT_THAT(takeMessages(), ElementsAre(uint64Error(kOutOfRange), uint64Error(kOutOfRange),
                                            uint64Error("nStartIdx < 0"),
                                            uint64Error("nLength < 0"), uint64Error(kOverflow)));
}

TEST_F(ByteFieldTest, Decode_WhenReportsAreSilenced_StillGivesZero)
{
    setLogLevel(91);
    EXPECT_EQ(uintOf(Bytes({0x80, 0, 0, 0}), 0, 4), 0U);
    EXPECT_EQ(uint64Of(Bytes({1}), 0, 2), 0U);
    EXPECT_EQ(uint8Of(Bytes({1, 0}), 0, 2), 0U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

/* ---- the decoders beside obvious ones ---- */

struct Decoded
{
    std::uint64_t value = 0;
    std::vector<std::string> messages;
};

/** Step by step, with every check in its place; null when all went well. */
const char* decodeByTheSteps(const std::vector<unsigned char>& bytes, int start, int width,
                             bool isLimited, std::uint64_t& value)
{
    value = 0;
    const std::int64_t end = std::int64_t{start} + width;
    if (width < 0)
    {
        return "nLength < 0";
    }
    if (start < 0)
    {
        return "nStartIdx < 0";
    }
    if (end > INT_MAX)
    {
        return kOverflow;
    }
    for (std::int64_t i = start; i < end; ++i)
    {
        if (isLimited && value > 0x7FFFFF)
        {
            return kTooLargeToShift;
        }
        if (i >= static_cast<std::int64_t>(bytes.size()))
        {
            return kOutOfRange;
        }
        value = value * 256 + bytes[static_cast<std::size_t>(i)];
    }
    return nullptr;
}

Decoded modelOfUint(const std::vector<unsigned char>& bytes, int start, int width)
{
    Decoded decoded;
    if (const char* const reason = decodeByTheSteps(bytes, start, width, true, decoded.value))
    {
        return {0, {uintError(reason)}};
    }
    return decoded;
}

Decoded modelOfUint64(const std::vector<unsigned char>& bytes, int start, int width)
{
    Decoded decoded;
    if (const char* const reason = decodeByTheSteps(bytes, start, width, false, decoded.value))
    {
        return {0, {uint64Error(reason)}};
    }
    return decoded;
}

Decoded modelOfNarrow(const std::vector<unsigned char>& bytes, int start, int width, int bits)
{
    Decoded decoded = modelOfUint64(bytes, start, width);
    if (decoded.value >> bits != 0)
    {
        return {0, {"E data is larger then UINT" + std::to_string(bits) + "_MAX"}};
    }
    return decoded;
}

TEST_F(ByteFieldTest, Decode_WhenFieldsAreRandom_AgreesWithTheSteps)
{
    std::mt19937 random(20260); // fixed: a failure can be repeated
    const unsigned char favourites[] = {0x00, 0x00, 0x00, 0x01, 0x7F, 0x80, 0xFF};
    const auto below = [&random](int limit)
    { return static_cast<int>(random() % static_cast<unsigned int>(limit)); };
    const auto boundary = [&below]
    {
        const int near = below(4);
        return below(20) != 0 ? below(16) - 1 : INT_MAX - near;
    };
    for (int round = 0; round < 20000; ++round)
    {
        std::vector<unsigned char> bytes(static_cast<std::size_t>(below(16)));
        for (unsigned char& byte : bytes)
        {
            byte = below(4) != 0 ? favourites[below(7)] : static_cast<unsigned char>(random());
        }
        const int start = boundary();
        const int width = boundary();
        SCOPED_TRACE("round " + std::to_string(round) + ", " + std::to_string(start) + " + " +
                     std::to_string(width) + " of " + std::to_string(bytes.size()));

        Decoded model = modelOfUint(bytes, start, width);
        ASSERT_EQ(uintOf(Bytes(bytes), start, width), model.value);
        ASSERT_EQ(takeMessages(), model.messages);
        model = modelOfUint64(bytes, start, width);
        ASSERT_EQ(uint64Of(Bytes(bytes), start, width), model.value);
        ASSERT_EQ(takeMessages(), model.messages);
        model = modelOfNarrow(bytes, start, width, 8);
        ASSERT_EQ(uint8Of(Bytes(bytes), start, width), model.value);
        ASSERT_EQ(takeMessages(), model.messages);
        model = modelOfNarrow(bytes, start, width, 16);
        ASSERT_EQ(uint16Of(Bytes(bytes), start, width), model.value);
        ASSERT_EQ(takeMessages(), model.messages);
        model = modelOfNarrow(bytes, start, width, 32);
        ASSERT_EQ(uint32Of(Bytes(bytes), start, width), model.value);
        ASSERT_EQ(takeMessages(), model.messages);
    }
}

/* ---- printDataByHexa ---- */

/** Stands in for standard error and keeps apart what each write(2) brings. */
class StandardErrorWrites
{
public:
    StandardErrorWrites() : mSaved(dup(STDERR_FILENO))
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, mEnds), 0);
        EXPECT_EQ(dup2(mEnds[0], STDERR_FILENO), STDERR_FILENO);
    }
    ~StandardErrorWrites()
    {
        dup2(mSaved, STDERR_FILENO);
        for (const int end : {mSaved, mEnds[0], mEnds[1]})
        {
            close(end);
        }
    }
    StandardErrorWrites(const StandardErrorWrites&) = delete;
    StandardErrorWrites& operator=(const StandardErrorWrites&) = delete;

    std::vector<std::string> take() const
    {
        std::vector<std::string> writes;
        char buffer[256];
        for (;;)
        {
            const ssize_t length = recv(mEnds[1], buffer, sizeof buffer, MSG_DONTWAIT);
            if (length < 0)
            {
                return writes;
            }
            writes.emplace_back(buffer, static_cast<std::size_t>(length));
        }
    }

private:
    int mSaved;
    int mEnds[2] = {-1, -1};
};

class HexDumpTest : public support::TraceTest
{
protected:
    /** 0, 1, 2 and so on, with a whole line behind the data. */
    static std::vector<unsigned char> counting(int dataLen)
    {
        std::vector<unsigned char> bytes(static_cast<std::size_t>(dataLen) + 16);
        for (std::size_t i = 0; i < bytes.size(); ++i)
        {
            bytes[i] = static_cast<unsigned char>(i);
        }
        return bytes;
    }

    char mTitle[6] = "title";
};

TEST_F(HexDumpTest, PrintData_WhenTheLastLineIsPartial_ShowsWhatFollowsTheData)
{
    std::vector<unsigned char> bytes = counting(20);
    const StandardErrorWrites writes;
    printDataByHexa(mTitle, bytes.data(), 20);
    EXPECT_THAT(writes.take(), ElementsAre("   [0000] 00010203 04050607 08090a0b 0c0d0e0f\n",
                                           "   [0016] 10111213 14151617 18191a1b 1c1d1e1f\n"));
    EXPECT_THAT(takeMessages(), ElementsAre("E [title] dataLen[20]"));
}

TEST_F(HexDumpTest, PrintData_WhenTheLengthIsAMultipleOf16_WritesOneMoreLine)
{
    std::vector<unsigned char> bytes = counting(16);
    bytes[0] = 0xFF;
    const StandardErrorWrites writes;
    printDataByHexa(mTitle, bytes.data(), 16);
    EXPECT_THAT(writes.take(), ElementsAre("   [0000] ff010203 04050607 08090a0b 0c0d0e0f\n",
                                           "   [0016] 10111213 14151617 18191a1b 1c1d1e1f\n"));
    EXPECT_THAT(takeMessages(), ElementsAre("E [title] dataLen[16]"));
}

TEST_F(HexDumpTest, PrintData_WhenTheLengthIsBelow16_WritesOneLine)
{
    for (const int length : {1, 15})
    {
        std::vector<unsigned char> bytes = counting(0);
        const StandardErrorWrites writes;
        printDataByHexa(mTitle, bytes.data(), length);
        EXPECT_THAT(writes.take(), ElementsAre("   [0000] 00010203 04050607 08090a0b 0c0d0e0f\n"));
        EXPECT_THAT(takeMessages(),
                    ElementsAre("E [title] dataLen[" + std::to_string(length) + "]"));
    }
}

TEST_F(HexDumpTest, PrintData_WhenTheOffsetHasMoreDigits_PrintsItWider)
{
    std::vector<unsigned char> bytes = counting(10000);
    testing::internal::CaptureStderr();
    printDataByHexa(mTitle, bytes.data(), 10000);
    const std::string text = testing::internal::GetCapturedStderr();
    constexpr char end[] = "   [9984] 00010203 04050607 08090a0b 0c0d0e0f\n"
                           "   [10000] 10111213 14151617 18191a1b 1c1d1e1f\n";
    EXPECT_EQ(text.size(), 626 * (sizeof end / 2 - 1) + 1);
    EXPECT_THAT(text, testing::EndsWith(end));
    EXPECT_THAT(takeMessages(), ElementsAre("E [title] dataLen[10000]"));
}

TEST_F(HexDumpTest, PrintData_WhenTheLengthIsNegative_TracesIt)
{
    std::vector<unsigned char> bytes = counting(0);
    const StandardErrorWrites writes;
    printDataByHexa(mTitle, bytes.data(), -1);
    printDataByHexa(mTitle, bytes.data(), INT_MIN);
    EXPECT_THAT(writes.take(), IsEmpty());
    EXPECT_THAT(takeMessages(),
                ElementsAre("E [title] dataLen[-1]", "E [title] dataLen[-2147483648]"));
}

TEST_F(HexDumpTest, PrintData_WhenAnArgumentIsMissing_DoesNothing)
{
    std::vector<unsigned char> bytes = counting(16);
    const StandardErrorWrites writes;
    printDataByHexa(nullptr, bytes.data(), 16);
    printDataByHexa(mTitle, nullptr, 16);
    printDataByHexa(mTitle, bytes.data(), 0);
    printDataByHexa(nullptr, bytes.data(), -1);
    printDataByHexa(mTitle, nullptr, -1);
    EXPECT_THAT(writes.take(), IsEmpty());
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(HexDumpTest, PrintData_WhenTheTitleHasDirectives_ShowsThemAsTheyAre)
{
    std::vector<unsigned char> bytes = counting(1);
    char title[] = "%s%n";
    const StandardErrorWrites writes;
    printDataByHexa(title, bytes.data(), 1);
    EXPECT_THAT(takeMessages(), ElementsAre("E [%s%n] dataLen[1]"));
}

TEST_F(HexDumpTest, PrintData_WhenTracesAreSilenced_StillWritesTheLines)
{
    std::vector<unsigned char> bytes = counting(1);
    const StandardErrorWrites writes;
    setLogLevel(91);
    printDataByHexa(mTitle, bytes.data(), 1);
    EXPECT_THAT(writes.take(), ElementsAre("   [0000] 00010203 04050607 08090a0b 0c0d0e0f\n"));
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(HexDumpTest, PrintData_WhenTheHeaderIsTraced_HasWrittenNoLineYet)
{
    std::vector<unsigned char> bytes = counting(1);
    const StandardErrorWrites writes;
    std::vector<std::string> writtenBefore{"unset"};
    support::onTrace([&](const std::string&) { writtenBefore = writes.take(); });
    printDataByHexa(mTitle, bytes.data(), 1);
    support::onTrace({});
    EXPECT_THAT(writtenBefore, IsEmpty());
    EXPECT_EQ(writes.take().size(), 1U);
}

} // namespace
