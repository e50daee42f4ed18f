#include <korvane/utils.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <sys/prctl.h>

#include "internal/readable.h"
#include "internal/report.h"
#include "internal/resultCodes.h"

#if defined(__SANITIZE_ADDRESS__)
#define KORVANE_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KORVANE_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef KORVANE_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

using namespace korvane::internal;

/* ---- Guarded allocation ---------------------------------------------------------------------- */

namespace
{

/** What lies in front of every area. Its size keeps the alignment of the system allocator. */
struct GuardHeader
{
    GuardHeader* self;
    std::uint32_t guardWord;
    std::uint32_t reserved;
};
static_assert(sizeof(GuardHeader) == 2 * sizeof(void*), "two pointer widths");
static_assert(sizeof(GuardHeader) % alignof(std::max_align_t) == 0, "keeps the alignment");

constexpr std::uint32_t kGuardWord = 0x00123456;

/** Mappings begin at multiples of this, and the first stretch of it is never mapped. */
constexpr std::uintptr_t kSmallestPage = 4096;

/**
 * True when the header in front of `address` can be looked at without asking further: it shares its
 * page with the byte that the caller points to.
 */
bool isHeaderMapped(std::uintptr_t address)
{
    return address > kSmallestPage && address % alignof(std::max_align_t) == 0 &&
           address % kSmallestPage != 0;
}

/**
 * True when the header in front of `address` is one of ours and whole. What is read may belong to
 * anybody, so a thread sanitizer would take it for a race or for a use after release.
 */
__attribute__((no_sanitize("thread"))) bool isGuarded(std::uintptr_t address)
{
    const auto* const header = reinterpret_cast<const GuardHeader*>(address) - 1;
#ifdef KORVANE_ADDRESS_SANITIZER
    // Poisoned: in front of somebody else's block, or released already.
    if (__asan_region_is_poisoned(const_cast<GuardHeader*>(header), sizeof *header) != nullptr)
    {
        return false;
    }
#endif
    return header->self == header && header->guardWord == kGuardWord;
}

/** memset() to 0; what fits four vectors is cleared in place, which costs less than the call. */
inline void* clear(void* area, std::size_t size)
{
    constexpr std::size_t step = 16;
    auto* const bytes = static_cast<unsigned char*>(area);
    if (__builtin_expect(size - step > 3 * step, 0)) // wraps below one step
    {
        return std::memset(area, 0, size);
    }
    // From both ends, overlapping in the middle.
    std::memset(bytes, 0, step);
    std::memset(bytes + size - step, 0, step);
    if (__builtin_expect(size > 2 * step, 1))
    {
        std::memset(bytes + step, 0, step);
        std::memset(bytes + size - 2 * step, 0, step);
    }
    return area;
}

// Out of line, so that the two functions keep nothing for a report that they do not make.
[[gnu::cold, gnu::noinline]] void* refuseSize()
{
    KORVANE_REPORT_FAILURE("iAP2_malloc", "overflow");
    return nullptr;
}

[[gnu::cold, gnu::noinline]] void* reportNoMemory()
{
    KORVANE_REPORT_FAILURE("iAP2_malloc", "iAP2_malloc Error!!");
    return nullptr;
}

/** iAP2_free() for what is not accepted at once. */
[[gnu::cold, gnu::noinline]] void refuseOrFree(void* pointer)
{
    const auto address = reinterpret_cast<std::uintptr_t>(pointer);
    if (pointer == nullptr)
    {
        KORVANE_REPORT_FAILURE("iAP2_free", "malloc data is already NULL");
        return;
    }
    // An intact header in front of the start of a page, which could not be looked at without asking.
    if (address >= kSmallestPage && address % kSmallestPage == 0)
    {
        GuardHeader* const header = static_cast<GuardHeader*>(pointer) - 1;
        if (isReadable(header) && isGuarded(address))
        {
            std::free(header);
            return;
        }
    }
    KORVANE_REPORT_FAILURE("iAP2_free", "freeAddress is tainted!!");
}

} // namespace

extern "C" {
void* iAP2_malloc(uint64_t size)
{
    if (size > std::numeric_limits<std::uint64_t>::max() - sizeof(GuardHeader))
    {
        return refuseSize();
    }
    auto* const header = static_cast<GuardHeader*>(std::malloc(size + sizeof(GuardHeader)));
    if (header == nullptr)
    {
        return reportNoMemory();
    }
    *header = GuardHeader{header, kGuardWord, 0};
    return clear(header + 1, size);
}

void iAP2_free(void* pointer)
{
    const auto address = reinterpret_cast<std::uintptr_t>(pointer);
    if (!isHeaderMapped(address) || !isGuarded(address))
    {
        return refuseOrFree(pointer);
    }
    std::free(static_cast<GuardHeader*>(pointer) - 1);
}

} // extern "C"

/* ---- Parameter records ----------------------------------------------------------------------- */

namespace
{

constexpr std::size_t kMacAddressSize = 6;

/**
 * Reads the pair of hexadecimal digits that stands for byte `index`, as far as the text goes.
 *
 * @return null, or why there is no such byte.
 */
const char* parseMacPair(const char* text, std::size_t length, std::size_t index,
                         std::uint8_t* byte)
{
    char pair[3] = {};
    for (std::size_t i = 0; i < 2 && 2 * index + i < length; ++i)
    {
        pair[i] = text[2 * index + i];
    }
    errno = 0;
    const long value = std::strtol(pair, nullptr, 16);
    if (errno == ERANGE)
    {
        return "strtol overflow or underflow";
    }
    if (value > std::numeric_limits<std::uint8_t>::max())
    {
        return "parsingMac[parsingMacPostion] is larger than UINT8_MAX";
    }
    *byte = static_cast<std::uint8_t>(value);
    return nullptr;
}

} // namespace

std::int32_t changeStringToByteArrayForMacAddr(CmdSaveParam* param, const char* text)
{
    const char* const self = __func__;
    if (text == nullptr)
    {
        KORVANE_REPORT_FAILURE(self, "stringValue is NULL");
        return kArgumentMissing;
    }
    const std::size_t length = std::strlen(text);
    KORVANE_LOG(IAP2_LOG_DEBUG, "MacAddress: [%s], size : [%zu]", text, length);
    if (length == 0)
    {
        KORVANE_REPORT_FAILURE(self, "Error stringValue is not present");
        return kArgumentMissing;
    }
    if (param == nullptr)
    {
        KORVANE_REPORT_FAILURE(self, "bytesData is NULL");
        return kArgumentMissing;
    }

    param->present = 0;
    if (param->value != nullptr)
    {
        iAP2_free(param->value);
        param->value = nullptr;
    }
    param->value = static_cast<std::uint8_t*>(iAP2_malloc(kMacAddressSize));
    if (param->value == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR bytesData Malloc Fail");
        KORVANE_REPORT_FAILURE(self, "bytesData is NULL");
        return kAllocationFailed;
    }
    param->size = kMacAddressSize;

    for (std::size_t i = 0; i < kMacAddressSize; ++i)
    {
        const char* const reason = parseMacPair(text, length, i, &param->value[i]);
        if (reason != nullptr)
        {
            KORVANE_LOG(IAP2_LOG_ERROR, "%s", reason);
            iAP2_free(param->value); // the pointer stays in the record: callers rely on it
            KORVANE_REPORT_FAILURE(self, reason);
            return kOutOfRange;
        }
        KORVANE_LOG(IAP2_LOG_DEBUG, "MacAddress: [%x]", unsigned{param->value[i]});
    }
    param->present = 1;
    return kSuccess;
}

namespace
{

/** Gives `param`, which has no value, a copy of `text`; fails as the function that it serves. */
std::int32_t copyText(CmdSaveUtf8Param& param, const char* text)
{
    const char* const caller = "reSettingUtf8ParamFromCharValue";
    const std::size_t length = std::strlen(text);
    if (length > std::numeric_limits<std::uint32_t>::max() - 1)
    {
        KORVANE_REPORT_FAILURE(caller, "strlen(updateData) + 1 is larger than UINT32_MAX");
        return kOutOfRange;
    }
    param.size = static_cast<std::uint32_t>(length) + 1;
    param.value = static_cast<char*>(iAP2_malloc(param.size));
    if (param.value == nullptr)
    {
        param.present = 0;
        KORVANE_REPORT_FAILURE(caller, "ERROR utf8Param Malloc Fail");
        return kAllocationFailed;
    }
    std::memcpy(param.value, text, length);
    param.present = 1;
    return kSuccess;
}

} // namespace

std::int32_t reSettingUtf8ParamFromCharValue(CmdSaveUtf8Param* param, char* updateData)
{
    const char* const self = __func__;
    if (updateData == nullptr)
    {
        KORVANE_REPORT_FAILURE(self, "updateData is NULL");
        return kArgumentMissing;
    }
    if (param == nullptr)
    {
        KORVANE_REPORT_FAILURE(self, "utf8Param is NULL");
        return kArgumentMissing;
    }
    // A text inside the record's own value has to be copied before that is released.
    char* const previous = param->value;
    const bool isOwnText =
        previous != nullptr &&
        reinterpret_cast<std::uintptr_t>(updateData) - reinterpret_cast<std::uintptr_t>(previous) <
            param->size;
    param->value = nullptr;
    if (previous != nullptr && !isOwnText)
    {
        iAP2_free(previous);
    }
    const std::int32_t result = copyText(*param, updateData);
    if (isOwnText)
    {
        iAP2_free(previous);
    }
    return result;
}

/* ---- Thread name ------------------------------------------------------------------------------ */

void setiAP2ThreadName(const char* name)
{
    if (prctl(PR_SET_NAME, name, 0, 0, 0) == -1)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "setiAP2ThreadName Error");
    }
}
