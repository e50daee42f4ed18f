#include <korvane/utils.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <korvane/iAP2Utils.h>

#include "internal/bigEndian.h"
#include "internal/inlining.h"
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

/** iAP2_malloc(), but for the clearing: the caller writes to every byte. */
KORVANE_ALWAYS_INLINE void* allocateUncleared(std::uint64_t size)
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
    header->self = header;
    header->guardWord = kGuardWord;
    header->reserved = 0;
    return header + 1;
}

} // namespace

extern "C" {
void* iAP2_malloc(uint64_t size)
{
    void* const area = allocateUncleared(size);
    return __builtin_expect(area != nullptr, 1) ? clear(area, size) : nullptr;
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

/* ---- Lists and queues ------------------------------------------------------------------------ */

namespace
{

// Out of line, so that the queue's functions keep nothing for reports that they do not make.
[[gnu::cold, gnu::noinline]] ListNode* reportNoSentinel(const ListNode* pHead,
                                                        const ListNode* pTail)
{
    KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : pHead[%p] or pTail[%p] is NULL",
                static_cast<const void*>(pHead), static_cast<const void*>(pTail));
    return nullptr;
}

inline bool hasSentinels(const ListNode* pHead, const ListNode* pTail)
{
    if (pHead == nullptr || pTail == nullptr)
    {
        reportNoSentinel(pHead, pTail);
        return false;
    }
    return true;
}

/** The first element that is wanted, or null. A list that is cut short ends where it is cut. */
template <typename IsWanted>
inline ListNode* findElement(const ListNode* pHead, const ListNode* pTail, IsWanted isWanted)
{
    for (ListNode* node = pHead->next; node != nullptr && node != pTail; node = node->next)
    {
        if (isWanted(node))
        {
            return node;
        }
    }
    return nullptr;
}

bool isElement(const ListNode* pHead, const ListNode* pTail, const ListNode* pNode)
{
    if (findElement(pHead, pTail, [=](const ListNode* node) { return node == pNode; }) == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : pNode[%p] is not member of this list",
                    static_cast<const void*>(pNode));
        return false;
    }
    return true;
}

bool isElementOrSentinel(const ListNode* pHead, const ListNode* pTail, const ListNode* pNode)
{
    return pNode == pHead || pNode == pTail || isElement(pHead, pTail, pNode);
}

/** What every getter checks first. */
bool acceptsNode(const ListNode* pHead, const ListNode* pTail, const ListNode* pNode)
{
    if (!hasSentinels(pHead, pTail))
    {
        return false;
    }
    if (pNode == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : pNode is NULL");
        return false;
    }
    return isElementOrSentinel(pHead, pTail, pNode);
}

[[gnu::cold, gnu::noinline]] ListNode* reportNoData()
{
    KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : pData is NULL");
    return nullptr;
}

ListNode* findData(const ListNode* pHead, const ListNode* pTail, const void* pData)
{
    return findElement(pHead, pTail, [=](const ListNode* node) { return node->data == pData; });
}

/** Null where memory is short. */
KORVANE_ALWAYS_INLINE ListNode* newNode(const ListNode& content)
{
    auto* const node = static_cast<ListNode*>(allocateUncleared(sizeof(ListNode)));
    if (node != nullptr)
    {
        *node = content;
    }
    return node;
}

[[gnu::cold, gnu::noinline]] std::uint8_t reportNoNode()
{
    KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : out of memory");
    return 0;
}

/** Returns the data of the node that it releases. */
void* releaseNode(ListNode* node)
{
    void* const data = node->data;
    iAP2_free(node);
    return data;
}

[[gnu::cold, gnu::noinline]] void* releaseWithoutPrev(ListNode* t)
{
    KORVANE_LOG(IAP2_LOG_ERROR, "t->prev is NULL");
    return releaseNode(t);
}

using Link = ListNode* ListNode::*;

/** Inserts on the side of `pNode` that `Outward` leads to; `end` is the last node on that side. */
template <Link Outward, Link Back>
std::uint8_t insertBeside(const ListNode* pHead, const ListNode* pTail, void* pData,
                          ListNode* pNode, const ListNode* end, const char* noNeighbour)
{
    if (!hasSentinels(pHead, pTail))
    {
        return 0;
    }
    if (pNode == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "pNode is NULL");
        return 0;
    }
    if (pNode->*Outward == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s", noNeighbour);
        return 0;
    }
    if (pNode == end)
    {
        return 0;
    }
    ListNode* const neighbour = pNode->*Outward;
    ListNode content{};
    content.data = pData;
    content.*Outward = neighbour;
    content.*Back = pNode;
    ListNode* const node = newNode(content);
    if (node == nullptr)
    {
        return reportNoNode();
    }
    if (!isElementOrSentinel(pHead, pTail, pNode))
    {
        iAP2_free(node);
        return 0;
    }
    neighbour->*Back = node;
    pNode->*Outward = node;
    return 1;
}

} // namespace

extern "C" {
void listInitNode(ListNode** pHead, ListNode** pTail)
{
    *pHead = newNode({});
    if (*pHead != nullptr)
    {
        *pTail = newNode({});
        if (*pTail != nullptr)
        {
            **pHead = {nullptr, *pHead, *pTail};
            **pTail = {nullptr, *pHead, *pTail};
            return;
        }
    }
    KORVANE_REPORT_ERRNO_AND_CLEAR("listInitNode");
    // The pointers stay as they are: callers rely on it.
    if (*pHead != nullptr)
    {
        iAP2_free(*pHead);
    }
    if (*pTail != nullptr)
    {
        iAP2_free(*pTail);
    }
}

void listFinalNode(ListNode* pHead, ListNode* pTail, bool freeData)
{
    if (pHead == nullptr)
    {
        KORVANE_REPORT_ERRNO_AND_CLEAR("listFinalNode");
    }
    else
    {
        if (pTail == nullptr)
        {
            KORVANE_REPORT_ERRNO_AND_CLEAR("listFinalNode");
        }
        else
        {
            listClearAllNode(pHead, pTail, freeData);
        }
        iAP2_free(pHead);
    }
    if (pTail != nullptr)
    {
        iAP2_free(pTail);
    }
}

void listClearAllNode(ListNode* pHead, ListNode* pTail, bool freeData)
{
    if (!hasSentinels(pHead, pTail))
    {
        return;
    }
    for (ListNode* node = pHead->next; node != nullptr && node != pTail;)
    {
        ListNode* const next = node->next;
        if (freeData && node->data != nullptr)
        {
            iAP2_free(node->data);
            node->data = nullptr;
        }
        iAP2_free(node);
        node = next;
    }
    pHead->next = pTail;
    pTail->prev = pHead;
}

uint8_t listInsertDataBeforeNode(ListNode* pHead, ListNode* pTail, void* pData, ListNode* pNode)
{
    return insertBeside<&ListNode::prev, &ListNode::next>(pHead, pTail, pData, pNode, pHead,
                                                          "pNode->prev is NULL");
}

uint8_t listInsertDataAfterNode(ListNode* pHead, ListNode* pTail, void* pData, ListNode* pNode)
{
    return insertBeside<&ListNode::next, &ListNode::prev>(pHead, pTail, pData, pNode, pTail,
                                                          "pNode->next is NULL");
}

uint8_t listDeleteNode(ListNode* pHead, ListNode* pTail, ListNode* pNode)
{
    if (!hasSentinels(pHead, pTail))
    {
        return 0;
    }
    if (pNode == pHead || pNode == pTail)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : pNode[%p] is pHead[%p] or pTail[%p]",
                    static_cast<void*>(pNode), static_cast<void*>(pHead),
                    static_cast<void*>(pTail));
        return 0;
    }
    if (pNode == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : pNode is NULL");
        return 0;
    }
    if (pNode->prev == nullptr || pNode->next == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR : pNode->next[%p], pNode->prev[%p] is NULL",
                    static_cast<void*>(pNode->next), static_cast<void*>(pNode->prev));
        return 0;
    }
    if (!isElement(pHead, pTail, pNode))
    {
        return 0;
    }
    pNode->prev->next = pNode->next;
    pNode->next->prev = pNode->prev;
    iAP2_free(pNode);
    return 1;
}

uint8_t listDeleteNodeWithData(ListNode* pHead, ListNode* pTail, void* pData)
{
    if (!hasSentinels(pHead, pTail))
    {
        return 0;
    }
    if (pData == nullptr)
    {
        reportNoData();
        return 0;
    }
    ListNode* const s = findData(pHead, pTail, pData);
    if (s == nullptr)
    {
        return 0;
    }
    if (s->prev != nullptr)
    {
        s->prev->next = s->next;
    }
    else
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "s->prev is NULL");
    }
    if (s->next != nullptr)
    {
        s->next->prev = s->prev;
    }
    else
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "s->next is NULL");
    }
    iAP2_free(s);
    return 1;
}

ListNode* listFindNodeWithData(ListNode* pHead, ListNode* pTail, void* pData)
{
    if (pHead == nullptr || pTail == nullptr)
    {
        return reportNoSentinel(pHead, pTail);
    }
    if (pData == nullptr)
    {
        return reportNoData();
    }
    return findData(pHead, pTail, pData);
}

ListNode* listGetNodeBeforeNode(ListNode* pHead, ListNode* pTail, ListNode* pNode)
{
    if (!acceptsNode(pHead, pTail, pNode))
    {
        return nullptr;
    }
    return pNode->prev != pHead ? pNode->prev : nullptr;
}

void* listGetDataAfterNode(ListNode* pHead, ListNode* pTail, ListNode* pNode)
{
    ListNode* const next = listGetDataRemoveNodeAfterNode(pHead, pTail, pNode);
    return next != nullptr ? next->data : nullptr;
}

ListNode* listGetDataRemoveNodeAfterNode(ListNode* pHead, ListNode* pTail, ListNode* pNode)
{
    if (!acceptsNode(pHead, pTail, pNode))
    {
        return nullptr;
    }
    return pNode->next != pTail ? pNode->next : nullptr;
}

void* listGetDataRemoveNodeBeforeNode(ListNode* pHead, ListNode* pTail, ListNode* pNode)
{
    if (!acceptsNode(pHead, pTail, pNode))
    {
        return nullptr;
    }
    ListNode* const t = pNode->prev;
    if (t == nullptr || t == pHead)
    {
        return nullptr;
    }
    pNode->prev = t->prev;
    if (t->prev == nullptr)
    {
        return releaseWithoutPrev(t);
    }
    t->prev->next = pNode;
    return releaseNode(t);
}

uint32_t listGetNodeCount(ListNode* pHead, ListNode* pTail)
{
    if (!hasSentinels(pHead, pTail))
    {
        return 0;
    }
    std::uint32_t count = 0;
    for (const ListNode* node = pHead->next; node != nullptr && node != pTail; node = node->next)
    {
        if (count == std::numeric_limits<std::uint32_t>::max())
        {
            KORVANE_LOG(IAP2_LOG_ERROR, "overflow");
            break;
        }
        ++count;
    }
    return count;
}

void queueInit(ListNode** pHead, ListNode** pTail)
{
    listInitNode(pHead, pTail);
}

uint8_t queuePut(ListNode* pHead, ListNode* pTail, void* pData)
{
    return listInsertDataAfterNode(pHead, pTail, pData, pHead);
}

void* queueGet(ListNode* pHead, ListNode* pTail)
{
    return listGetDataRemoveNodeBeforeNode(pHead, pTail, pTail);
}

uint32_t queueGetCount(ListNode* pHead, ListNode* pTail)
{
    return listGetNodeCount(pHead, pTail);
}

void queueClearAll(ListNode* pHead, ListNode* pTail, bool freeData)
{
    listClearAllNode(pHead, pTail, freeData);
}

void queueFinal(ListNode* pHead, ListNode* pTail, bool freeData)
{
    listFinalNode(pHead, pTail, freeData);
}
} // extern "C"

/* ---- Parameter records ----------------------------------------------------------------------- */

namespace
{

constexpr std::size_t kMacAddressSize = 6;

/** What both converters begin with; `function` is the one that reports. Gives the text's length. */
bool areMacArgumentsThere(const char* function, const char* text, const void* target,
                          std::size_t* length)
{
    if (text == nullptr)
    {
        KORVANE_REPORT_FAILURE(function, "stringValue is NULL");
        return false;
    }
    *length = std::strlen(text);
    KORVANE_LOG(IAP2_LOG_DEBUG, "MacAddress: [%s], size : [%zu]", text, *length);
    if (*length == 0)
    {
        KORVANE_REPORT_FAILURE(function, "Error stringValue is not present");
        return false;
    }
    if (target == nullptr)
    {
        KORVANE_REPORT_FAILURE(function, "bytesData is NULL");
        return false;
    }
    return true;
}

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
    std::size_t length = 0;
    if (!areMacArgumentsThere(self, text, param, &length))
    {
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

/* ---- Byte fields and hex dump ---------------------------------------------------------------- */

namespace
{

/** The width of the widest number; what a wider field has in front of it is shifted out. */
constexpr int kWidestField = 8;

/** The field's end, past INT_MAX whenever a number is negative or the two add up to too much. */
inline std::uint64_t fieldEnd(int nStartIdx, int nLength)
{
    return std::uint64_t{static_cast<unsigned int>(nStartIdx)} + static_cast<unsigned int>(nLength);
}

/** True when the field has a valid end and lies within the data. */
inline bool isFieldWithin(unsigned long dataLen, int nStartIdx, int nLength)
{
    const std::uint64_t end = fieldEnd(nStartIdx, nLength);
    return end <= dataLen && end <= std::numeric_limits<int>::max();
}

/** The number in a field that lies within the data. The common widths are one load each. */
inline std::uint64_t decodeField(const unsigned char* data, int nStartIdx, int nLength)
{
    switch (nLength)
    {
    case 1:
        return data[nStartIdx];
    case 2:
        return loadBigEndian16(data + nStartIdx);
    case 4:
        return loadBigEndian32(data + nStartIdx);
    case 8:
        return loadBigEndian64(data + nStartIdx);
    default:
        break;
    }
    const int end = nStartIdx + nLength;
    std::uint64_t value = 0;
    for (int i = nLength > kWidestField ? end - kWidestField : nStartIdx; i < end; ++i)
    {
        value = value << 8 | data[i];
    }
    return value;
}

/** Why no data at all can have this field; null when some can. */
const char* findFieldFault(int nStartIdx, int nLength)
{
    if (nLength < 0)
    {
        return "nLength < 0";
    }
    if (nStartIdx < 0)
    {
        return "nStartIdx < 0";
    }
    if (std::numeric_limits<int>::max() - nLength < nStartIdx)
    {
        return "nStartIdx + nLength overflow";
    }
    return nullptr;
}

/** getUint64FromBytes_C() for a field that is not within the data. */
[[gnu::cold, gnu::noinline]] std::uint64_t refuseUint64(int nStartIdx, int nLength)
{
    const char* reason = findFieldFault(nStartIdx, nLength);
    if (reason == nullptr)
    {
        if (nLength == 0)
        {
            return 0; // nothing to read, so nothing is missing
        }
        reason = "ERROR : data[i] out of range";
    }
    KORVANE_REPORT_FAILURE("getUint64FromBytes_C", reason);
    return 0;
}

/**
 * getUintFromBytes_C() byte by byte, for whatever is not a number at once: which report comes first
 * depends on the bytes.
 */
[[gnu::cold, gnu::noinline]] std::uint32_t
decodeUintByBytes(const unsigned char* data, unsigned long dataLen, int nStartIdx, int nLength)
{
    constexpr std::uint32_t largestToShift = std::numeric_limits<std::int32_t>::max() >> 8;
    const char* const function = "getUintFromBytes_C";
    if (const char* const reason = findFieldFault(nStartIdx, nLength))
    {
        KORVANE_REPORT_FAILURE(function, reason);
        return 0;
    }
    std::uint32_t value = 0;
    for (int i = nStartIdx; i < nStartIdx + nLength; ++i)
    {
        if (value > largestToShift)
        {
            KORVANE_REPORT_FAILURE(function, "ERROR : intValue << 8 undefined behavior");
            return 0;
        }
        if (static_cast<unsigned long>(i) >= dataLen)
        {
            KORVANE_REPORT_FAILURE(function, "ERROR : data[i] out of range");
            return 0;
        }
        value = value << 8 | data[i];
    }
    return value;
}

/** getUint64FromBytes_C(), for itself and for the narrow ones. */
inline std::uint64_t decodeUint64(const unsigned char* data, unsigned long dataLen, int nStartIdx,
                                  int nLength)
{
    if (!isFieldWithin(dataLen, nStartIdx, nLength))
    {
        return refuseUint64(nStartIdx, nLength);
    }
    return decodeField(data, nStartIdx, nLength);
}

[[gnu::cold, gnu::noinline]] void reportLargeData(const char* message)
{
    KORVANE_LOG(IAP2_LOG_ERROR, "%s", message);
}

/** The 64-bit decoder's number as one of a narrower type; `message` says that it is too large. */
template <typename Number>
inline Number decodeNarrow(const unsigned char* data, unsigned long dataLen, int nStartIdx,
                           int nLength, const char* message)
{
    const std::uint64_t value = decodeUint64(data, dataLen, nStartIdx, nLength);
    if (value > std::numeric_limits<Number>::max())
    {
        reportLargeData(message);
        return 0;
    }
    return static_cast<Number>(value);
}

} // namespace

std::uint32_t getUintFromBytes_C(unsigned char* data, unsigned long dataLen, int nStartIdx,
                                 int nLength)
{
    if (nLength <= kWidestField && isFieldWithin(dataLen, nStartIdx, nLength))
    {
        // Most numbers of this type have four bytes.
        const std::uint64_t value = __builtin_expect(nLength == 4, 1)
                                        ? loadBigEndian32(data + nStartIdx)
                                        : decodeField(data, nStartIdx, nLength);
        if (value <= std::numeric_limits<std::int32_t>::max())
        {
            return static_cast<std::uint32_t>(value);
        }
    }
    return decodeUintByBytes(data, dataLen, nStartIdx, nLength);
}

std::uint64_t getUint64FromBytes_C(unsigned char* data, unsigned long dataLen, int nStartIdx,
                                   int nLength)
{
    return decodeUint64(data, dataLen, nStartIdx, nLength);
}

std::uint8_t getUint8FromBytes_C(unsigned char* data, unsigned long dataLen, int nStartIdx,
                                 int nLength)
{
    return decodeNarrow<std::uint8_t>(data, dataLen, nStartIdx, nLength,
                                      "data is larger then UINT8_MAX");
}

std::uint16_t getUint16FromBytes_C(unsigned char* data, unsigned long dataLen, int nStartIdx,
                                   int nLength)
{
    return decodeNarrow<std::uint16_t>(data, dataLen, nStartIdx, nLength,
                                       "data is larger then UINT16_MAX");
}

std::uint32_t getUint32FromBytes_C(unsigned char* data, unsigned long dataLen, int nStartIdx,
                                   int nLength)
{
    return decodeNarrow<std::uint32_t>(data, dataLen, nStartIdx, nLength,
                                       "data is larger then UINT32_MAX");
}

// NOLINTNEXTLINE(readability-non-const-parameter): the signature is the interface
void printDataByHexa(char* title, unsigned char* data, int dataLen)
{
    if (title == nullptr || data == nullptr || dataLen == 0)
    {
        return;
    }
    KORVANE_LOG(IAP2_LOG_ERROR, "[%s] dataLen[%d]", title, dataLen);
    // Wider than the length, which may be the largest of its type; the offset printed never is.
    for (std::int64_t offset = 0; offset <= dataLen; offset += 16)
    {
        const unsigned char* const row = data + offset;
        char line[64];
        const int length = std::snprintf(
            line, sizeof line,
            "   [%04d] %02x%02x%02x%02x %02x%02x%02x%02x %02x%02x%02x%02x "
            "%02x%02x%02x%02x\n",
            static_cast<int>(offset), row[0], row[1], row[2], row[3], row[4], row[5], row[6],
            row[7], row[8], row[9], row[10], row[11], row[12], row[13], row[14], row[15]);
        // In one piece, so that lines of several threads do not mix.
        std::fwrite(line, 1, static_cast<std::size_t>(length), stderr);
    }
}

/* ---- MAC addresses and characters ------------------------------------------------------------ */

int changeStringToByteArrayForBtMacAddr(unsigned char* bytesData, const char* stringValue)
{
    const char* const self = __func__;
    std::size_t length = 0;
    if (!areMacArgumentsThere(self, stringValue, bytesData, &length))
    {
        return kArgumentMissing;
    }
    std::uint8_t bytes[kMacAddressSize];
    for (std::size_t i = 0; i < kMacAddressSize; ++i)
    {
        if (const char* const reason = parseMacPair(stringValue, length, i, &bytes[i]))
        {
            KORVANE_REPORT_FAILURE(self, reason);
            return kOutOfRange;
        }
    }
    for (std::size_t i = 0; i < kMacAddressSize; ++i)
    {
        bytesData[i] = bytes[i];
        KORVANE_LOG(IAP2_LOG_DEBUG, "MacAddress: [%x]", unsigned{bytesData[i]});
    }
    return kSuccess;
}

void removeCharInString(char* originStr, char c)
{
    const char* const self = __func__;
    if (originStr == nullptr)
    {
        KORVANE_REPORT_FAILURE(self, "originStr is NULL");
        return;
    }
    try
    {
        // Secured at every level: that reports failures of its own, such as an empty text.
        const std::string origin = getSecuredChar(originStr);
        KORVANE_LOG(IAP2_LOG_DEBUG, "origin Str[%s]", origin.c_str());

        const std::size_t length = std::strlen(originStr);
        std::unique_ptr<char[]> kept(new char[length + 1]);
        std::size_t count = 0;
        for (std::size_t i = 0; i < length; ++i)
        {
            if (originStr[i] == c)
            {
                continue;
            }
            if (count == std::numeric_limits<std::size_t>::max())
            {
                KORVANE_LOG(IAP2_LOG_ERROR, "overflow");
                break;
            }
            kept[count++] = originStr[i];
        }
        kept[count] = '\0';
        std::strncpy(originStr, kept.get(), length); // clears what is behind the shorter text
        kept.reset();

        const std::string changed = getSecuredChar(originStr);
        KORVANE_LOG(IAP2_LOG_DEBUG, "changed Str[%s]", changed.c_str());
    }
    catch (const std::bad_alloc& failure)
    {
        KORVANE_REPORT_FAILURE(self, failure.what());
    }
}

/* ---- Shell commands --------------------------------------------------------------------------- */

namespace
{

struct Free
{
    void operator()(char* text) const
    {
        std::free(text);
    }
};

} // namespace

void run_system_cmd(const char* cmd)
{
    // Owned: the trace and the wait may be where the thread is cancelled.
    const std::unique_ptr<char, Free> command(cmd == nullptr ? nullptr : strdup(cmd));
    KORVANE_LOG(IAP2_LOG_DEBUG, "Linux posix_spawn");

    char name[] = "sh";
    char option[] = "-c";
    char* const arguments[] = {name, option, command.get(), nullptr};
    pid_t child = 0;
    const int error = posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments, nullptr);
    if (error != 0)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "posix_spawn error : %d", error);
        return;
    }
    int status = 0;
    if (waitpid(child, &status, 0) == -1)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "waitpid error");
    }
}

/* ---- Thread name ------------------------------------------------------------------------------ */

void setiAP2ThreadName(const char* name)
{
    if (prctl(PR_SET_NAME, name, 0, 0, 0) == -1)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "setiAP2ThreadName Error");
    }
}
