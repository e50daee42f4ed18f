/**
 * The sink of all trace lines: hands a finished line to the platform's trace library.
 *
 * Both functions run on the caller's thread, take no lock of their own, and may be called from any
 * thread; they block only as long as the trace library's qn_log_print() does. The spellings
 * "Externel" and "Wirte" belong to the names.
 */
#ifndef KORVANE_IAP2EXTLOG_H
#define KORVANE_IAP2EXTLOG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * Passes a finished line on to iAP2ExtLog().
 *
 * @param level   the line's level, in the numbers of <korvane/iAp2LogUtil.h>.
 * @param text    the line, ended by a zero; read during the call only, never as a format.
 * @param length  the length of `text` in bytes; accepted and ignored.
 * @return        what iAP2ExtLog() returned.
 */
int iAp2ExternelLogWirteDirect(int level, char* text, size_t length);

/**
 * Calls the trace library's qn_log_print() exactly once with the severity that belongs to `level`:
 *
 *     above 90: 224    61..90: 192    51..60: 160    31..50: 128    21..30: 64    up to 20: 32
 *
 * Unlike logPrint() it filters nothing.
 *
 * @return what qn_log_print() returned, unchanged.
 */
int iAP2ExtLog(int level, char* text);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
