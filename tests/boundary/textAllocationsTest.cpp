#include <korvane/iAP2Utils.h>

#include <string>

#include <gtest/gtest.h>

#include "AllocationCounter.h"

namespace
{

using support::allocationCount;

TEST(TextAllocationsTest, GetSecuredChar_WhenTheFormIsLong_TakesOneBlockBesideTheString)
{
    char mac[] = "00:1A:7D:DA:71:13";
    const std::size_t before = allocationCount();
    const std::string secured = getSecuredChar(mac);
    EXPECT_EQ(allocationCount(), before + 2);
    EXPECT_EQ(secured, "TM=MDA6MUE6N0Q6REE6NzE6M");
}

TEST(TextAllocationsTest, GetSecuredChar_WhenTheFormFitsTheString_TakesOneBlock)
{
    char text[] = "abc";
    const std::size_t before = allocationCount();
    const std::string secured = getSecuredChar(text);
    EXPECT_EQ(allocationCount(), before + 1);
    EXPECT_EQ(secured, "WJjY");
}

TEST(TextAllocationsTest, Base64Encode_WhenCalled_TakesNone)
{
    const unsigned char bytes[] = "00:1A:7D:DA:71:13";
    char text[64];
    const std::size_t before = allocationCount();
    const int result = base64Encode(bytes, sizeof bytes - 1, text, sizeof text, nullptr);
    EXPECT_EQ(allocationCount(), before);
    EXPECT_EQ(result, 0);
}

} // namespace
