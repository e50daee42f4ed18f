#include <korvane/utils.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

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

constexpr char kTainted[] = "E iAP2_free error : freeAddress is tainted!!";
constexpr std::size_t kHeaderSize = 16;
constexpr std::uint32_t kGuardWord = 0x00123456;

/** The header in front of an area, as it lies in memory. */
struct Header
{
    std::uint64_t self;
    std::uint32_t guardWord;
    std::uint32_t reserved;
};

void writeHeader(void* pointer, const Header& header)
{
    std::memcpy(static_cast<char*>(pointer) - kHeaderSize, &header, sizeof header);
}

Header headerOf(const void* pointer)
{
    Header header;
    std::memcpy(&header, static_cast<const char*>(pointer) - kHeaderSize, sizeof header);
    return header;
}

Header validHeaderFor(const void* pointer)
{
    return {reinterpret_cast<std::uint64_t>(pointer) - kHeaderSize, kGuardWord, 0};
}

class GuardedAllocationTest : public support::TraceTest
{
protected:
    /** Releases `pointer`, which must be refused. */
    void expectTainted(void* pointer)
    {
        int released = 0;
        {
            const ScopedHook watch(&Hooks::free, [&released](void*) { ++released; });
            iAP2_free(pointer);
        }
        EXPECT_EQ(released, 0);
        EXPECT_THAT(takeMessages(), ElementsAre(kTainted));
    }
};

/** Pages of memory of our own, each readable and writable until it is closed. */
class Pages
{
public:
    explicit Pages(std::size_t count)
        : mSize(count * pageSize()),
          mBegin(static_cast<char*>(
              mmap(nullptr, mSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        EXPECT_NE(static_cast<void*>(mBegin), MAP_FAILED);
    }
    ~Pages()
    {
        munmap(mBegin, mSize);
    }
    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;

    static std::size_t pageSize()
    {
        return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    }
    char* page(std::size_t index) const
    {
        return mBegin + index * pageSize();
    }

private:
    std::size_t mSize;
    char* mBegin;
};

/* ---- iAP2_malloc ---- */

TEST_F(GuardedAllocationTest, Malloc_WhenItSucceeds_ReturnsAClearedAlignedArea)
{
    for (const std::size_t size : {1U, 2U, 15U, 16U, 17U, 255U, 4096U, 100000U, 1U << 20})
    {
        // Memory that is not clear by chance.
        const ScopedHook dirty(&Hooks::malloc, [](std::size_t bytes)
                               { return std::memset(support::real::malloc(bytes), 0xAA, bytes); });
        auto* const area = static_cast<unsigned char*>(iAP2_malloc(size));
        ASSERT_NE(area, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(area) % alignof(std::max_align_t), 0U);
        EXPECT_EQ(std::vector<unsigned char>(area, area + size), std::vector<unsigned char>(size));
        iAP2_free(area);
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(GuardedAllocationTest, Malloc_WhenItSucceeds_AsksOnceForTheSizeAndTheHeader)
{
    std::vector<std::size_t> requests;
    void* block = nullptr;
    const ScopedHook watch(&Hooks::malloc,
                           [&](std::size_t bytes)
                           {
                               requests.push_back(bytes);
                               return block = support::real::malloc(bytes);
                           });
    void* const area = iAP2_malloc(100);
    EXPECT_THAT(requests, ElementsAre(116));
    EXPECT_EQ(area, static_cast<char*>(block) + kHeaderSize);
    iAP2_free(area);
}

TEST_F(GuardedAllocationTest, Malloc_WhenItSucceeds_WritesTheHeaderInFront)
{
    void* const area = iAP2_malloc(8);
    const Header header = headerOf(area);
    EXPECT_EQ(header.self, reinterpret_cast<std::uint64_t>(area) - kHeaderSize);
    EXPECT_EQ(header.guardWord, 0x00123456U);
    EXPECT_EQ(header.reserved, 0U);
    iAP2_free(area);
}

TEST_F(GuardedAllocationTest, Malloc_WhenSizeIsZero_ReturnsABlockThatCanBeReleased)
{
    void* const area = iAP2_malloc(0);
    ASSERT_NE(area, nullptr);
    int released = 0;
    const ScopedHook watch(&Hooks::free,
                           [&released](void* block)
                           {
                               ++released;
                               support::real::free(block);
                           });
    iAP2_free(area);
    EXPECT_EQ(released, 1);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(GuardedAllocationTest, Malloc_WhenTheHeaderCannotBeAdded_ReportsOverflowWithoutAsking)
{
    int requests = 0;
    const ScopedHook watch(&Hooks::malloc,
                           [&requests](std::size_t) -> void*
                           {
                               ++requests;
                               return nullptr;
                           });
    constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(iAP2_malloc(kMax), nullptr);
    EXPECT_EQ(iAP2_malloc(kMax - 15), nullptr); // 2^64 - 16
    EXPECT_EQ(requests, 0);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E iAP2_malloc error : overflow", "E iAP2_malloc error : overflow"));
}

TEST_F(GuardedAllocationTest, Malloc_WhenTheHeaderJustFits_AsksTheSystemAllocator)
{
    std::vector<std::size_t> requests;
    const ScopedHook watch(&Hooks::malloc,
                           [&requests](std::size_t bytes) -> void*
                           {
                               requests.push_back(bytes);
                               return nullptr;
                           });
    constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(iAP2_malloc(kMax - 16), nullptr);
    EXPECT_THAT(requests, ElementsAre(kMax));
    EXPECT_THAT(takeMessages(), ElementsAre("E iAP2_malloc error : iAP2_malloc Error!!"));
}

TEST_F(GuardedAllocationTest, Malloc_WhenMemoryIsShort_ReportsAndReturnsNull)
{
    const ScopedHook fault(&Hooks::malloc, [](std::size_t) -> void* { return nullptr; });
    EXPECT_EQ(iAP2_malloc(8), nullptr);
    const std::vector<support::Trace> traces = support::takeTraces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(traces[0].severity, 192);
    const support::TraceColumns columns = support::columnsOf(traces[0].text);
    EXPECT_EQ(columns.tag, "IAP2");
    EXPECT_EQ(columns.file, "utils.cpp");
    EXPECT_EQ(columns.message, "iAP2_malloc error : iAP2_malloc Error!!");
}

/* ---- iAP2_free ---- */

TEST_F(GuardedAllocationTest, Free_WhenTheBlockIsIntact_ReleasesItsHeadersAddress)
{
    void* const area = iAP2_malloc(24);
    const Header expected = validHeaderFor(area);
    Header atRelease{};
    void* released = nullptr;
    const ScopedHook watch(&Hooks::free,
                           [&](void* block)
                           {
                               released = block;
                               std::memcpy(&atRelease, block, sizeof atRelease);
                               support::real::free(block);
                           });
    iAP2_free(area);
    EXPECT_EQ(released, static_cast<char*>(area) - kHeaderSize);
    EXPECT_EQ(std::memcmp(&atRelease, &expected, sizeof expected), 0); // not cleared first
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(GuardedAllocationTest, Free_WhenTheReservedWordIsOverwritten_StillReleases)
{
    void* const area = iAP2_malloc(24);
    Header header = headerOf(area);
    header.reserved = 0xFFFFFFFF;
    writeHeader(area, header);
    int released = 0;
    const ScopedHook watch(&Hooks::free,
                           [&released](void* block)
                           {
                               ++released;
                               support::real::free(block);
                           });
    iAP2_free(area);
    EXPECT_EQ(released, 1);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(GuardedAllocationTest, Free_WhenPointerIsNull_ReportsItAndReleasesNothing)
{
    int released = 0;
    const ScopedHook watch(&Hooks::free, [&released](void*) { ++released; });
    iAP2_free(nullptr);
    EXPECT_EQ(released, 0);
    EXPECT_THAT(takeMessages(), ElementsAre("E iAP2_free error : malloc data is already NULL"));
}

TEST_F(GuardedAllocationTest, Free_WhenTheCurrentLevelIs90Or91_ReportsOrIsSilent)
{
    setLogLevel(90);
    iAP2_free(nullptr);
    EXPECT_EQ(takeMessages().size(), 1U);
    setLogLevel(91);
    iAP2_free(nullptr);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(GuardedAllocationTest, Free_WhenTheSelfAddressIsWrong_IsTainted)
{
    void* const area = iAP2_malloc(24);
    const Header intact = headerOf(area);
    Header header = intact;
    header.self += 1;
    writeHeader(area, header);
    expectTainted(area);
    header.self = 0;
    writeHeader(area, header);
    expectTainted(area);
    writeHeader(area, intact);
    iAP2_free(area);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(GuardedAllocationTest, Free_WhenTheGuardWordIsWrong_IsTainted)
{
    void* const area = iAP2_malloc(24);
    const Header intact = headerOf(area);
    for (const std::uint32_t word : {0U, 0x00123457U, 0x56341200U, 0xFFFFFFFFU})
    {
        Header header = intact;
        header.guardWord = word;
        writeHeader(area, header);
        expectTainted(area);
    }
    writeHeader(area, intact);
    iAP2_free(area);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(GuardedAllocationTest, Free_WhenThePointerIsTheSystemAllocators_IsTainted)
{
    for (const std::size_t size : {1U, 16U, 1000U, 1U << 20})
    {
        void* const foreign = support::real::malloc(size);
        expectTainted(foreign);
        support::real::free(foreign);
    }
}

TEST_F(GuardedAllocationTest, Free_WhenThePointerIsInsideAnArea_IsTainted)
{
    auto* const area = static_cast<char*>(iAP2_malloc(256));
    for (std::size_t offset = 1; offset < 256; ++offset)
    {
        expectTainted(area + offset);
    }
    expectTainted(area - kHeaderSize);
    iAP2_free(area);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(GuardedAllocationTest, Free_WhenThePointerIsOnTheStackOrStatic_IsTainted)
{
    alignas(16) char local[64] = {};
    alignas(16) static char fixed[64];
    expectTainted(local + 32);
    expectTainted(fixed + 32);
}

TEST_F(GuardedAllocationTest, Free_WhenThePointerIsMisaligned_IsTaintedEvenBehindAForgedHeader)
{
    alignas(16) char bytes[96] = {};
    for (std::size_t shift = 1; shift < 16; ++shift)
    {
        char* const pointer = bytes + 32 + shift;
        writeHeader(pointer, validHeaderFor(pointer));
        expectTainted(pointer);
    }
}

TEST_F(GuardedAllocationTest, Free_WhenThePointerIsASmallNumber_IsTainted)
{
    for (const std::uintptr_t address : {1U, 8U, 16U, 17U, 32U, 4080U, 4095U})
    {
        expectTainted(reinterpret_cast<void*>(address));
    }
    expectTainted(reinterpret_cast<void*>(std::numeric_limits<std::uintptr_t>::max()));
}

TEST_F(GuardedAllocationTest, Free_WhenTheHeaderWouldLieInAnUnmappedPage_IsTainted)
{
    const Pages pages(3);
    munmap(pages.page(0), Pages::pageSize());
    for (std::size_t offset = 0; offset < kHeaderSize; ++offset)
    {
        expectTainted(pages.page(1) + offset);
    }
}

TEST_F(GuardedAllocationTest, Free_WhenTheHeaderWouldLieInAnUnreadablePage_IsTainted)
{
    const Pages pages(2);
    mprotect(pages.page(0), Pages::pageSize(), PROT_NONE);
    for (std::size_t offset = 0; offset < kHeaderSize; ++offset)
    {
        expectTainted(pages.page(1) + offset);
    }
}

TEST_F(GuardedAllocationTest, Free_WhenTheUnmappedPageIsAsked_LeavesErrnoAlone)
{
    const Pages pages(2);
    mprotect(pages.page(0), Pages::pageSize(), PROT_NONE);
    errno = 77;
    iAP2_free(pages.page(1));
    EXPECT_EQ(errno, 77);
    EXPECT_THAT(takeMessages(), ElementsAre(kTainted));
}

TEST_F(GuardedAllocationTest, Free_WhenTheAreaBeginsAPageAndTheHeaderIsIntact_ReleasesIt)
{
    const Pages pages(2);
    char* const block = pages.page(1) - kHeaderSize;
    void* area;
    {
        const ScopedHook place(&Hooks::malloc, [block](std::size_t) -> void* { return block; });
        area = iAP2_malloc(64);
    }
    ASSERT_EQ(area, pages.page(1));
    void* released = nullptr;
    const ScopedHook watch(&Hooks::free, [&released](void* pointer) { released = pointer; });
    iAP2_free(area);
    EXPECT_EQ(released, block);
    EXPECT_THAT(takeMessages(), IsEmpty());
}

TEST_F(GuardedAllocationTest, Free_WhenTheAreaBeginsAPageAndTheHeaderIsNot_IsTainted)
{
    const Pages pages(2);
    expectTainted(pages.page(1));
}

TEST_F(GuardedAllocationTest, Free_WhenReleasedTwice_IsTaintedOnceTheAllocatorWroteOverTheHeader)
{
    void* const area = iAP2_malloc(24);
    char* const block = static_cast<char*>(area) - kHeaderSize;
    {
        const ScopedHook overwrite(&Hooks::free, [](void* released)
                                   { std::memset(released, 0x55, kHeaderSize); });
        iAP2_free(area);
    }
    EXPECT_THAT(takeMessages(), IsEmpty());
    expectTainted(area);
    support::real::free(block);
}

} // namespace
