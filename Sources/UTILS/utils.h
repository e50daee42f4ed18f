/**
 * Guarded allocation, the parameter records that are filled from text, and the thread's name.
 *
 * The first section is for C as well. All functions may be called from any thread; a record belongs
 * to one thread at a time. Nothing blocks beyond the system allocator, and no exception leaves a
 * function.
 */
#ifndef KORVANE_UTILS_H
#define KORVANE_UTILS_H

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

/* ---- Parameter records ----------------------------------------------------------------------- */

#ifdef __cplusplus

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

/* ---- Thread name ------------------------------------------------------------------------------ */

/**
 * Names the calling thread; the kernel cuts the name to 15 characters without notice (prctl(2),
 * PR_SET_NAME). A failure is reported at level 90 as "setiAP2ThreadName Error".
 */
void setiAP2ThreadName(const char* name);

#pragma GCC visibility pop

#endif /* __cplusplus */

#endif
