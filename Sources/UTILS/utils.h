/**
 * Guarded allocation, lists and queues, the parameter records that are filled from text, fields of
 * byte strings, MAC addresses, shell commands and the thread's name.
 *
 * The first two sections are for C as well. All functions may be called from any thread; a record, a
 * list and a queue belong to one thread at a time. Only run_system_cmd() and printDataByHexa() block
 * beyond the system allocator and the trace library, and no exception leaves a function.
 */
#ifndef KORVANE_UTILS_H
#define KORVANE_UTILS_H

#include <stdbool.h>
#include <stdint.h>

/* ---- Guarded allocation ---------------------------------------------------------------------- */

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * Allocates `size` bytes, all of them 0, aligned as malloc() aligns. 0 bytes are a block too.
 *
 * In front of the area lies a guard header of two pointer widths, by which iAP2_free() tells its
 * own blocks from any other pointer. The caller owns the area until it passes it to iAP2_free();
 * free() must not be called on it.
 *
 * @return null when the header cannot be added to `size` ("iAP2_malloc error : overflow"; the
 *         system allocator is not asked) or the system allocator has no memory
 *         ("iAP2_malloc error : iAP2_malloc Error!!"), both at level 90.
 */
void* iAP2_malloc(uint64_t size);

/**
 * Releases an area of iAP2_malloc().
 *
 * Null ("iAP2_free error : malloc data is already NULL") and whatever carries no intact header in
 * front of it ("iAP2_free error : freeAddress is tainted!!") are reported at level 90 and left
 * alone: leaked rather than risked. So are misaligned pointers and, where nothing readable lies in
 * front of the pointer, pointers to the start of a mapping.
 *
 * Hazard: the header is not cleared by the release, so a second release of the same pointer is
 * noticed only once the system allocator has written over it; and a pointer into memory that is no
 * longer mapped still faults.
 */
void iAP2_free(void* pointer);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

/* ---- Lists and queues ------------------------------------------------------------------------ */

/*
 * Doubly linked lists of untyped pointers, and first-in, first-out queues on them. A list is named
 * by its two sentinel nodes, which every function takes first; elements lie between them, in order
 * from the head. Nodes come from iAP2_malloc() and go to iAP2_free(); data items are the caller's,
 * are never copied, and are released only where `freeData` asks for it.
 *
 * Threads: lists take no lock. Whoever shares one guards it.
 *
 * Failures are reported at level 90 unless said otherwise, and answered with 0 or null. All but the
 * functions that make and end a list refuse a null sentinel ("ERROR : pHead[%p] or pTail[%p] is
 * NULL"). Getters, delete and find refuse a null node or null data ("ERROR : pNode is NULL", "ERROR :
 * pData is NULL"). Nodes that are not in the list are refused ("ERROR : pNode[%p] is not member of
 * this list"): except for the sentinels that takes a walk, so the cost is linear.
 *
 * Hazard: before it is known to be in the list, the neighbours of a node are looked at where it is
 * inserted at or deleted; a node that was released must not come here.
 */

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** A node of a list. The sentinels have no data; the outer link of each leads to itself. */
typedef struct ListNode
{
    void* data;
    struct ListNode* prev;
    struct ListNode* next;
} ListNode;

/**
 * Makes an empty list and stores its sentinels in `*pHead` and `*pTail`, which must hold null.
 *
 * Where memory is short, that is reported at level 60 as "function[listInitNode], line[...]
 * error[...][...]" with errno, which is then 0, and there is no list.
 *
 * Hazard: in that case whatever the two hold is released and not reset: `*pHead` may point to
 * released memory, and a `*pTail` that was not null has been released too.
 */
void listInitNode(ListNode** pHead, ListNode** pTail);

/**
 * listClearAllNode(), then releases the sentinels; the caller forgets both. Where one of them is
 * null that is reported at level 60 as "function[listFinalNode], line[...] error[...][...]" with
 * errno, which is then 0; the other one is released, the elements are not.
 */
void listFinalNode(ListNode* pHead, ListNode* pTail, bool freeData);

/**
 * Releases every element; with `freeData` each item that is not null as well, by iAP2_free(), from
 * whose counterpart it must have come.
 */
void listClearAllNode(ListNode* pHead, ListNode* pTail, bool freeData);

/**
 * Inserts `pData`, which may be null, in front of `pNode`, which may be the tail.
 *
 * @return 1; 0 in front of the head, without a report. Further reports: "pNode is NULL", "pNode->prev
 *         is NULL", and "ERROR : out of memory" behind that of iAP2_malloc().
 */
uint8_t listInsertDataBeforeNode(ListNode* pHead, ListNode* pTail, void* pData, ListNode* pNode);

/** The mirror image: behind `pNode`, which may be the head; "pNode->next is NULL". */
uint8_t listInsertDataAfterNode(ListNode* pHead, ListNode* pTail, void* pData, ListNode* pNode);

/**
 * Removes an element and releases its node, not its data.
 *
 * @return 1; 0 for a sentinel ("ERROR : pNode[%p] is pHead[%p] or pTail[%p]"), and for a node without
 *         a neighbour ("ERROR : pNode->next[%p], pNode->prev[%p] is NULL").
 */
uint8_t listDeleteNode(ListNode* pHead, ListNode* pTail, ListNode* pNode);

/**
 * Removes the first element that holds `pData`, as listDeleteNode() would; 1, or 0 without a report
 * when there is none. A neighbour that is missing is reported ("s->prev is NULL", "s->next is NULL").
 */
uint8_t listDeleteNodeWithData(ListNode* pHead, ListNode* pTail, void* pData);

/** The first element that holds `pData`, compared as a pointer; null without a report if none. */
ListNode* listFindNodeWithData(ListNode* pHead, ListNode* pTail, void* pData);

/** The node in front of `pNode`; null when that is the head. */
ListNode* listGetNodeBeforeNode(ListNode* pHead, ListNode* pTail, ListNode* pNode);

/** The data of the node behind `pNode`; null when that is the tail. */
void* listGetDataAfterNode(ListNode* pHead, ListNode* pTail, ListNode* pNode);

/** The node behind `pNode`, null when that is the tail. Despite the name nothing is removed. */
ListNode* listGetDataRemoveNodeAfterNode(ListNode* pHead, ListNode* pTail, ListNode* pNode);

/**
 * Removes the node in front of `pNode` and returns its data; null without a report when that is the
 * head. A node whose own neighbour is missing is removed all the same ("t->prev is NULL").
 */
void* listGetDataRemoveNodeBeforeNode(ListNode* pHead, ListNode* pTail, ListNode* pNode);

/** The number of elements, counted in one walk; 4294967295 and "overflow" where there are more. */
uint32_t listGetNodeCount(ListNode* pHead, ListNode* pTail);

/** listInitNode(). */
void queueInit(ListNode** pHead, ListNode** pTail);

/** Puts `pData`, which may be null, in front of all others: listInsertDataAfterNode() the head. */
uint8_t queuePut(ListNode* pHead, ListNode* pTail, void* pData);

/** Takes the oldest item: listGetDataRemoveNodeBeforeNode() the tail. Null when there is none. */
void* queueGet(ListNode* pHead, ListNode* pTail);

/** listGetNodeCount(). */
uint32_t queueGetCount(ListNode* pHead, ListNode* pTail);

/** listClearAllNode(). */
void queueClearAll(ListNode* pHead, ListNode* pTail, bool freeData);

/** listFinalNode(). */
void queueFinal(ListNode* pHead, ListNode* pTail, bool freeData);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

/* ---- Parameter records ----------------------------------------------------------------------- */

#ifdef __cplusplus

#include <cstdint>

#include <korvane/iAp2Marshal.h>

#pragma GCC visibility push(default)

/*
 * Both functions return 0 for success, -6705 when a required argument is null or empty, -6728 when
 * memory is short and -6751 when a value is out of range, and report every failure at level 90 as
 * "<function> error : <reason>". The value that they leave in a record is from iAP2_malloc(); it is
 * the record's until the record is refilled, and its owner's to pass to iAP2_free(). A record that
 * reSettingUtf8ParamForCPP() has filled must not come here.
 */

/**
 * Fills `param` with the six bytes of a MAC address.
 *
 * @param text  twelve hexadecimal digits without separators, most significant byte first. Only
 *              emptiness is checked: the digits are read in pairs at fixed positions, each as
 *              strtol() in base 16 reads two characters, so that separators, signs and other
 *              characters give wrong bytes without an error, and pairs behind the end give 0.
 *
 * Replaces the record's previous value, which is released first. Traces the text in clear at level
 * 20.
 *
 * Hazard: where a pair is out of range (-6751) `present` is 0 and the value has been released, but
 * `param->value` still points to it; the next refill hands the stale pointer to iAP2_free() again.
 * Set it to null, or do not refill.
 */
int32_t changeStringToByteArrayForMacAddr(CmdSaveParam* param, const char* text);

/**
 * Replaces the text of `param` by a copy of `updateData` with its terminating zero, which counts in
 * `size`. An empty text is a value too: one byte, present.
 *
 * The previous value is released before anything can fail, except for a missing argument; on
 * -6751 `present` stays as it was, on -6728 it is 0. `updateData` may point into the record's own
 * value.
 */
int32_t reSettingUtf8ParamFromCharValue(CmdSaveUtf8Param* param, char* updateData);

/* ---- Byte fields and hex dump ---------------------------------------------------------------- */

/*
 * The decoders read the unsigned number in the field of `nLength` bytes from index `nStartIdx` on,
 * most significant byte first. `dataLen` says how many bytes of `data` may be read. A field of width
 * 0 is the number 0; `data` may be null where no byte of it is read.
 *
 * A failure is reported at level 90 and gives 0, which is a number as well: the report alone tells
 * them apart. They keep no state, and any thread may call them.
 */

/**
 * A number of up to 31 bits: at most 2147483647. Bytes in front that are 0 do no harm.
 *
 * Reports "getUintFromBytes_C error : " and "nLength < 0", "nStartIdx < 0", "nStartIdx + nLength
 * overflow" (end beyond 2147483647), "ERROR : intValue << 8 undefined behavior" (the number so far
 * is above 0x7FFFFF and another byte follows) or "ERROR : data[i] out of range".
 *
 * Hazard: four bytes from 80 00 00 00 on are refused; use getUint32FromBytes_C() for them.
 */
std::uint32_t getUintFromBytes_C(unsigned char* data, unsigned long dataLen, int nStartIdx,
                                 int nLength);

/**
 * A number of up to 64 bits; of a wider field it is the last 8 bytes, without a report.
 *
 * Reports "getUint64FromBytes_C error : " and the reasons of getUintFromBytes_C(), except for the
 * one about the number so far.
 */
std::uint64_t getUint64FromBytes_C(unsigned char* data, unsigned long dataLen, int nStartIdx,
                                   int nLength);

/**
 * Numbers of 8, 16 and 32 bits, from a field of any width: getUint64FromBytes_C(), which also makes
 * its reports under its own name. A number that is too large gives 0 and is reported as "data is
 * larger then UINT8_MAX", UINT16_MAX or UINT32_MAX.
 */
std::uint8_t getUint8FromBytes_C(unsigned char* data, unsigned long dataLen, int nStartIdx,
                                 int nLength);
/** See getUint8FromBytes_C(). */
std::uint16_t getUint16FromBytes_C(unsigned char* data, unsigned long dataLen, int nStartIdx,
                                   int nLength);
/** See getUint8FromBytes_C(). */
std::uint32_t getUint32FromBytes_C(unsigned char* data, unsigned long dataLen, int nStartIdx,
                                   int nLength);

/**
 * Dumps `data` for debugging: traces "[title] dataLen[dataLen]" at level 90, then writes lines of 16
 * bytes to stderr, each in one piece and at every log level:
 *
 *     "   [0016] 00010203 04050607 08090a0b 0c0d0e0f"
 *
 * with the offset in decimal, four digits or more. There is a line for every multiple of 16 up to
 * and including `dataLen`; a negative `dataLen` gives none, a null argument or a `dataLen` of 0 not
 * even the trace. It blocks as long as stderr does.
 *
 * Hazard: every line shows 16 bytes, so that up to 16 bytes behind the data are read and shown: one
 * whole line of them where `dataLen` is a multiple of 16. The buffer must be readable that far.
 */
void printDataByHexa(char* title, unsigned char* data, int dataLen);

/* ---- MAC addresses and characters ------------------------------------------------------------ */

/**
 * Stores the six bytes of a Bluetooth MAC address in `bytesData`.
 *
 * @param stringValue  as for changeStringToByteArrayForMacAddr(): twelve hexadecimal digits without
 *                     separators; no more is checked.
 *
 * Traces the text, and on success each byte, in clear at level 20.
 *
 * @return 0; -6705 when the text is null ("stringValue is NULL") or empty ("Error stringValue is not
 *         present") or `bytesData` is null ("bytesData is NULL"); -6751 when a pair is no byte
 *         ("strtol overflow or underflow", "parsingMac[parsingMacPostion] is larger than
 *         UINT8_MAX"). Failures are reported at level 90 as "changeStringToByteArrayForBtMacAddr
 *         error : <reason>" and leave `bytesData` as it was.
 */
int changeStringToByteArrayForBtMacAddr(unsigned char* bytesData, const char* stringValue);

/**
 * Takes every `c` out of the text `originStr`, in place; what that leaves free at its end becomes
 * zeros. Traces the text before and after at level 20, in its secured form (getSecuredChar() of
 * <korvane/iAP2Utils.h>).
 *
 * Failures are reported at level 90 as "removeCharInString error : " and "originStr is NULL" or the
 * allocator's text; where memory is short the text may be unchanged. An empty text, before or after,
 * has no secured form, which is reported as for getSecuredChar(), whatever the level of the traces.
 */
void removeCharInString(char* originStr, char c);

/* ---- Shell commands --------------------------------------------------------------------------- */

/**
 * Runs a command line by "/bin/sh -c", with an empty environment, and waits until it has ended.
 * Traces "Linux posix_spawn" at level 20.
 *
 * What the shell cannot do and the command's exit status are not reported; a shell that cannot be
 * started is, at level 90 as "posix_spawn error : <error number>", and a wait that fails, as
 * "waitpid error". Everything else is inherited: files, working directory, signal mask. Null, like a
 * command for whose copy there is no memory, leaves the shell without one: it complains on standard
 * error and runs nothing.
 *
 * Any number of threads may run commands at once. Blocks, and is a cancellation point.
 *
 * Hazard: nobody waits again where the wait is interrupted by a signal or the thread cancelled in it;
 * the command goes on by itself. Where SIGCHLD is ignored the wait always fails, at the command's
 * end (POSIX, waitpid()). The command line is the shell's: never put a text from outside into it.
 */
void run_system_cmd(const char* cmd);

/* ---- Thread name ------------------------------------------------------------------------------ */

/**
 * Names the calling thread; the kernel cuts the name to 15 characters without notice (prctl(2),
 * PR_SET_NAME). A failure is reported at level 90 as "setiAP2ThreadName Error".
 */
void setiAP2ThreadName(const char* name);

#pragma GCC visibility pop

#endif /* __cplusplus */

#endif
