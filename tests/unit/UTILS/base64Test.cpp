#include <korvane/iAP2Utils.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "Faults.h"
#include "TraceRecorder.h"

namespace
{

using support::Hooks;
using support::ScopedHook;
using support::takeMessages;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

const unsigned char* bytesOf(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

/** The text of `bytes`, by a call that has room enough. */
std::string encoded(const std::string& bytes)
{
    std::vector<char> out(bytes.size() * 2 + 8, '\x5A');
    unsigned long length = 77;
    EXPECT_EQ(base64Encode(bytesOf(bytes), bytes.size(), out.data(), out.size(), &length), 0);
    EXPECT_EQ(std::strlen(out.data()), length);
    return out.data();
}

/* ---- base64Encode ---- */

class Base64Test : public support::TraceTest
{
};

TEST_F(Base64Test, Encode_WhenTextIsThatOfTheStandard_GivesItsEncoding)
{
    // RFC 4648, section 10.
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(encoded("f"), "Zg==");
    EXPECT_EQ(encoded("fo"), "Zm8=");
    EXPECT_EQ(encoded("foo"), "Zm9v");
    EXPECT_EQ(encoded("foob"), "Zm9vYg==");
    EXPECT_EQ(encoded("fooba"), "Zm9vYmE=");
    EXPECT_EQ(encoded("foobar"), "Zm9vYmFy");
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(Base64Test, Encode_WhenEachNumberStandsInEachPlace_GivesItsCharacter)
{
    for (std::size_t first = 0; first < 64; ++first)
    {
        std::string bytes;
        std::string expected;
        for (std::size_t i = 0; i < 64; i += 4)
        {
            std::uint32_t group = 0;
            for (std::size_t j = i; j < i + 4; ++j)
            {
                const std::size_t number = (first + j) % 64;
                group = group << 6 | static_cast<std::uint32_t>(number);
                expected += kAlphabet[number];
            }
            bytes += static_cast<char>(group >> 16);
            bytes += static_cast<char>(group >> 8);
            bytes += static_cast<char>(group);
        }
        EXPECT_EQ(encoded(bytes), expected);
    }
}

TEST_F(Base64Test, Encode_WhenOnlyTheZeroHasNoRoom_WritesTheTextAndFails)
{
    char out[6];
    std::memset(out, '#', sizeof out);
    unsigned long length = 77;
    EXPECT_EQ(base64Encode(bytesOf("abc"), 3, out, 4, &length), -6743);
    EXPECT_EQ(std::string(out, sizeof out), "YWJj##");
    EXPECT_EQ(length, 4U);
    EXPECT_THAT(takeMessages(), ElementsAre("E base64Encode error : length error"));
    EXPECT_EQ(base64Encode(bytesOf("abc"), 3, out, 5, &length), 0);
    EXPECT_EQ(std::string(out, sizeof out), std::string("YWJj\0#", 6));
    EXPECT_EQ(length, 4U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(Base64Test, Encode_WhenPaddingHasNoRoom_WritesWhatFits)
{
    for (std::size_t size = 0; size <= 4; ++size)
    {
        std::string out(6, '#');
        unsigned long length = 77;
        EXPECT_EQ(base64Encode(bytesOf("a"), 1, out.data(), size, &length), -6743);
        EXPECT_EQ(out, std::string("YQ==").substr(0, size) + std::string(6 - size, '#'));
        EXPECT_EQ(length, size);
        EXPECT_THAT(takeMessages(), ElementsAre("E base64Encode error : length error"));
    }
}

TEST_F(Base64Test, Encode_WhenInputIsEmpty_GivesAnEmptyText)
{
    char out[2] = {'#', '#'};
    unsigned long length = 77;
    EXPECT_EQ(base64Encode(bytesOf("abc"), 0, out, 1, &length), 0);
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(out[1], '#');
    EXPECT_EQ(length, 0U);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(Base64Test, Encode_WhenInputAndOutputAreEmpty_HasNoRoomForTheZero)
{
    char out = '#';
    unsigned long length = 77;
    EXPECT_EQ(base64Encode(bytesOf("abc"), 0, &out, 0, &length), -6743);
    EXPECT_EQ(out, '#');
    EXPECT_EQ(length, 0U);
    EXPECT_THAT(takeMessages(), ElementsAre("E base64Encode error : length error"));
}

TEST_F(Base64Test, Encode_WhenABufferIsNull_ReportsTheInputFirst)
{
    char out[8] = "#######";
    unsigned long length = 77;
    EXPECT_EQ(base64Encode(nullptr, 3, nullptr, 8, &length), -6705);
    EXPECT_EQ(length, 0U);
    EXPECT_THAT(takeMessages(), ElementsAre("E base64Encode error : inBuffer is NULL"));
    length = 77;
    EXPECT_EQ(base64Encode(nullptr, 0, out, 8, &length), -6705);
    EXPECT_EQ(length, 0U);
    EXPECT_STREQ(out, "#######");
    EXPECT_THAT(takeMessages(), ElementsAre("E base64Encode error : inBuffer is NULL"));
    length = 77;
    EXPECT_EQ(base64Encode(bytesOf("abc"), 0, nullptr, 0, &length), -6705);
    EXPECT_EQ(length, 0U);
    EXPECT_THAT(takeMessages(), ElementsAre("E base64Encode error : outBuffer is NULL"));
}

TEST_F(Base64Test, Encode_WhenNobodyAsksForTheLength_GivesTheSameResults)
{
    char out[8];
    EXPECT_EQ(base64Encode(bytesOf("abc"), 3, out, sizeof out, nullptr), 0);
    EXPECT_STREQ(out, "YWJj");
    EXPECT_EQ(base64Encode(bytesOf("abc"), 3, out, 4, nullptr), -6743);
    EXPECT_EQ(base64Encode(nullptr, 3, out, 4, nullptr), -6705);
    EXPECT_EQ(base64Encode(bytesOf("abc"), 3, nullptr, 4, nullptr), -6705);
}

TEST_F(Base64Test, Encode_WhenTheInputIsLongerThanAnyText_WritesWhatFits)
{
    for (const unsigned long inLen : {ULONG_MAX, ULONG_MAX / 4 * 3 + 1, 1UL << 62})
    {
        std::string out(12, '#');
        unsigned long length = 77;
        EXPECT_EQ(base64Encode(bytesOf("foobarfoobar"), inLen, out.data(), 6, &length), -6743);
        EXPECT_EQ(out, "Zm9vYm######");
        EXPECT_EQ(length, 6U);
    }
}

TEST_F(Base64Test, Encode_WhenTheOutputIsTheLargest_Succeeds)
{
    char out[8];
    unsigned long length = 77;
    EXPECT_EQ(base64Encode(bytesOf("abcd"), 2, out, ULONG_MAX, &length), 0);
    EXPECT_STREQ(out, "YWI=");
    EXPECT_EQ(length, 4U);
}

/** Byte by byte, with the size tested before every character. */
int encodeByTheSteps(const std::vector<unsigned char>& in, std::size_t outSize, std::string& out)
{
    const auto emit = [&](char character)
    {
        if (out.size() >= outSize)
        {
            return false;
        }
        out += character;
        return true;
    };
    std::uint32_t bits = 0;
    int count = -6;
    for (const unsigned char byte : in)
    {
        bits = (bits << 8) + byte;
        for (count += 8; count >= 0; count -= 6)
        {
            if (!emit(kAlphabet[bits >> count & 63]))
            {
                return -6743;
            }
        }
    }
    if (count > -6 && !emit(kAlphabet[bits << 8 >> (count + 8) & 63]))
    {
        return -6743;
    }
    while (out.size() % 4 != 0)
    {
        if (!emit('='))
        {
            return -6743;
        }
    }
    return out.size() >= outSize ? -6743 : 0;
}

TEST_F(Base64Test, Encode_WhenEveryLengthMeetsEverySize_AgreesWithTheSteps)
{
    setLogLevel(91);           // the reports have tests of their own
    std::mt19937 random(4648); // fixed: a failure can be repeated
    for (std::size_t length = 0; length <= 300; ++length)
    {
        std::vector<unsigned char> in(length);
        std::generate(in.begin(), in.end(),
                      [&random] { return static_cast<unsigned char>(random()); });
        // In a block of just its size, so that reading past it is noticed; never null.
        const auto exact = std::make_unique<unsigned char[]>(length);
        std::copy(in.begin(), in.end(), exact.get());
        const std::size_t needed = (length + 2) / 3 * 4 + 1;
        for (std::size_t size = 0; size <= needed + 3; ++size)
        {
            std::string expected;
            const int result = encodeByTheSteps(in, size, expected);
            const std::size_t expectedLength = expected.size();
            if (result == 0)
            {
                expected += '\0';
            }
            expected.resize(needed + 16, '\x5A'); // what is not written stays as it was

            std::string out(needed + 16, '\x5A');
            unsigned long outLen = ULONG_MAX;
            ASSERT_EQ(base64Encode(exact.get(), length, out.data(), size, &outLen), result)
                << length << " bytes into " << size;
            ASSERT_EQ(outLen, expectedLength) << length << " bytes into " << size;
            ASSERT_EQ(out, expected) << length << " bytes into " << size;
        }
    }
}

TEST_F(Base64Test, Encode_WhenBuffersAreNotAligned_GivesTheSame)
{
    const std::string bytes = "0123456789abcdefghijklmnopqrstuvwxyz";
    const std::string expected = encoded(bytes);
    for (std::size_t offset = 0; offset < 16; ++offset)
    {
        const std::string shifted = std::string(offset, '#') + bytes;
        std::vector<char> out(100);
        char* const text = out.data() + 16 - offset;
        EXPECT_EQ(base64Encode(bytesOf(shifted) + offset, bytes.size(), text, 60, nullptr), 0);
        EXPECT_EQ(text, expected);
    }
}

/* ---- the secured form ---- */

/** The secured form, by the pointer that the caller releases. */
std::string secured(std::string value)
{
    const std::unique_ptr<char[]> text(createBase64EncodedString(value));
    return text == nullptr ? "null" : text.get();
}

class SecuredFormTest : public support::TraceTest
{
protected:
    static std::string ofUtf8(std::string value)
    {
        return getSecuredUtf8(reinterpret_cast<unsigned char*>(value.data()));
    }
    static std::string ofChar(std::string value)
    {
        return getSecuredChar(value.data());
    }
};

TEST_F(SecuredFormTest, Create_WhenTextIsShort_MovesTheLastThreeCharactersToTheFront)
{
    EXPECT_EQ(secured("abc"), "WJjY");
    EXPECT_EQ(secured("a"), "Q==Y");
    EXPECT_EQ(secured("ab"), "WI=Y");
    EXPECT_EQ(secured("abcd"), "A==YWJjZ");
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(SecuredFormTest, Create_WhenTextHasAnyLength_GivesItsRotatedEncoding)
{
    std::string value;
    for (std::size_t length = 1; length <= 300; ++length)
    {
        value += static_cast<char>(length * 37); // zeros among them
        const std::string plain = encoded(value);
        const std::string form = secured(value);
        EXPECT_EQ(form.size(), (length + 2) / 3 * 4);
        EXPECT_EQ(form, plain.substr(plain.size() - 3) + plain.substr(0, plain.size() - 3));
        EXPECT_EQ(getSecuredString(value), form);
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(SecuredFormTest, Create_WhenTextIsTaken_LeavesItAsItWas)
{
    std::string value = "001A7DDA7113";
    secured(value);
    const std::unique_ptr<char[]> text(createBase64EncodedString(value));
    EXPECT_EQ(value, "001A7DDA7113");
    EXPECT_STREQ(text.get(), "TEzMDAxQTdEREE3M");
}

TEST_F(SecuredFormTest, Create_WhenTextIsEmpty_ReportsItAndGivesNull)
{
    std::string empty;
    EXPECT_EQ(createBase64EncodedString(empty), nullptr);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E createBase64EncodedString error : inString is empty"));
}

TEST_F(SecuredFormTest, Create_WhenMemoryIsShort_ReportsItAndGivesNull)
{
    std::string value = "abc";
    const ScopedHook hook(&Hooks::newArrayNothrow, [](std::size_t) -> void* { return nullptr; });
    EXPECT_EQ(createBase64EncodedString(value), nullptr);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E createBase64EncodedString error : outBuffer is NULL"));
}

TEST_F(SecuredFormTest, Create_WhenItAllocates_TakesOneBlockForEncodingAndRotation)
{
    std::vector<std::size_t> requests;
    const ScopedHook watch(&Hooks::newArrayNothrow,
                           [&requests](std::size_t size) -> void*
                           {
                               requests.push_back(size);
                               return new (std::nothrow) char[size];
                           });
    for (const char* const value : {"a", "ab", "abc", "abcd"})
    {
        EXPECT_NE(secured(value), "null");
    }
    EXPECT_THAT(requests, ElementsAre(5 + 3, 5 + 3, 9 + 3, 9 + 3));
}

TEST_F(SecuredFormTest, Create_WhenTheBlockIsReleased_IsReleasedAsAnArray)
{
    std::string value = "abc";
    void* released = nullptr;
    char* const text = createBase64EncodedString(value);
    {
        const ScopedHook watch(&Hooks::deleteArray,
                               [&released](void* block)
                               {
                                   released = block;
                                   support::real::deleteArray(block);
                               });
        delete[] text;
    }
    EXPECT_EQ(released, text);
}

TEST_F(SecuredFormTest, GetSecured_WhenTheTextIsTaken_ReleasesTheBlock)
{
    int live = 0;
    const ScopedHook count(&Hooks::newArrayNothrow,
                           [&live](std::size_t size) -> void*
                           {
                               ++live;
                               return new (std::nothrow) char[size];
                           });
    const ScopedHook discount(&Hooks::deleteArray,
                              [&live](void* block)
                              {
                                  live -= block != nullptr ? 1 : 0;
                                  support::real::deleteArray(block);
                              });
    EXPECT_EQ(getSecuredString("abc"), "WJjY");
    EXPECT_EQ(live, 0);
    EXPECT_EQ(ofChar("abc"), "WJjY");
    EXPECT_EQ(ofUtf8("abc"), "WJjY");
    EXPECT_EQ(live, 0);
}

TEST_F(SecuredFormTest, GetSecured_WhenTextIsThere_GivesTheSameFromAllThree)
{
    EXPECT_EQ(getSecuredString("00:1A:7D:DA:71:13"), "TM=MDA6MUE6N0Q6REE6NzE6M");
    EXPECT_EQ(ofUtf8("00:1A:7D:DA:71:13"), "TM=MDA6MUE6N0Q6REE6NzE6M");
    EXPECT_EQ(ofChar("00:1A:7D:DA:71:13"), "TM=MDA6MUE6N0Q6REE6NzE6M");
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(SecuredFormTest, GetSecured_WhenTextIsUtf8_EncodesItsBytes)
{
    EXPECT_EQ(ofUtf8("\xC3\xA9\xFF"), "6n/w");
    EXPECT_EQ(ofChar("\xC3\xA9\xFF"), "6n/w");
}

TEST_F(SecuredFormTest, GetSecured_WhenAZeroEndsThePointedText_StopsThere)
{
    EXPECT_EQ(ofChar(std::string("abc\0def", 7)), "WJjY");
    EXPECT_EQ(ofUtf8(std::string("abc\0def", 7)), "WJjY");
    EXPECT_EQ(getSecuredString(std::string("abc\0", 4)), "A==YWJjA");
}

TEST_F(SecuredFormTest, GetSecuredString_WhenTextIsEmpty_AddsNoReport)
{
    EXPECT_EQ(getSecuredString(""), "");
    EXPECT_THAT(takeMessages(),
                ElementsAre("E createBase64EncodedString error : inString is empty"));
}

TEST_F(SecuredFormTest, GetSecuredPointer_WhenTextIsEmpty_ReportsItTwice)
{
    EXPECT_EQ(ofUtf8(""), "");
    EXPECT_THAT(takeMessages(), ElementsAre("E createBase64EncodedString error : inString is empty",
                                            "E getSecuredUtf8 error : encodedString is NULL!"));
    EXPECT_EQ(ofChar(""), "");
    EXPECT_THAT(takeMessages(), ElementsAre("E createBase64EncodedString error : inString is empty",
                                            "E getSecuredChar error : encodedString is NULL!"));
}

TEST_F(SecuredFormTest, GetSecuredPointer_WhenItIsNull_ReportsItAlone)
{
    EXPECT_EQ(getSecuredUtf8(nullptr), "");
    EXPECT_THAT(takeMessages(), ElementsAre("E getSecuredUtf8 error : inValue is NULL!"));
    EXPECT_EQ(getSecuredChar(nullptr), "");
    EXPECT_THAT(takeMessages(), ElementsAre("E getSecuredChar error : inValue is NULL!"));
}

TEST_F(SecuredFormTest, GetSecured_WhenMemoryIsShort_GivesAnEmptyTextAndTheReports)
{
    const std::string noMemory = "E createBase64EncodedString error : outBuffer is NULL";
    const auto fail = [](std::size_t) -> void* { return nullptr; };
    {
        const ScopedHook hook(&Hooks::newArrayNothrow, fail);
        EXPECT_EQ(getSecuredString("abc"), "");
    }
    EXPECT_THAT(takeMessages(), ElementsAre(noMemory));
    {
        const ScopedHook hook(&Hooks::newArrayNothrow, fail);
        EXPECT_EQ(ofUtf8("abc"), "");
        EXPECT_EQ(ofChar("abc"), "");
    }
    EXPECT_THAT(takeMessages(),
                ElementsAre(noMemory, "E getSecuredUtf8 error : encodedString is NULL!", noMemory,
                            "E getSecuredChar error : encodedString is NULL!"));
}

} // namespace
