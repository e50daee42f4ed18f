/**
 * The ways into the platform's trace library.
 *
 * The sink hands a finished line on at once: iAp2ExternelLogWirteDirect() and iAP2ExtLog() run on the
 * caller's thread, take no lock of their own, and may be called from any thread; they block only as
 * long as the trace library's qn_log_print() does. Every line of logPrint() goes this way.
 *
 * The queued writer hands a text on later: iAp2ExternelLogWriteAddQueue() copies it into a queue, and
 * one thread, which iAp2ExternelLogWriteInit() starts, passes the copies to the sink. logPrint()
 * does not use it. What the queued writer has to say about itself it writes to standard output.
 *
 * The spellings "Externel" and "Wirte" belong to the names.
 */
#ifndef KORVANE_IAP2EXTLOG_H
#define KORVANE_IAP2EXTLOG_H

#include <stddef.h>
#include <stdint.h>

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

/** A queued text. Item and text come from malloc(). */
typedef struct iAP2LogItem
{
    uint32_t level; /**< as the caller gave it */
    char* logStr;   /**< owned, ended by a zero */
    struct
    {
        struct iAP2LogItem* tqe_next;  /**< null for the last item */
        struct iAP2LogItem** tqe_prev; /**< the field that points at this item */
    } entries;
} iAP2LogItem;

/**
 * The queue: a tail queue as the macros of BSD's <sys/queue.h> know it, with `entries` as the name of
 * the link. All zeros until the first iAp2ExternelLogWriteInit() or iAp2ExternelLogWriteAddQueue().
 * `tqh_first` may be read at any time, atomically: between start and stop it is null when all texts
 * that were queued before have been handed on. Everything else is to be looked at only where neither the writer nor any
 * caller changes it.
 */
struct iAP2LogQueue
{
    struct iAP2LogItem* tqh_first; /**< null when empty */
    struct iAP2LogItem** tqh_last; /**< the last item's tqe_next; when empty, tqh_first */
};
extern struct iAP2LogQueue my_tailq_head_iAP2;

/**
 * Starts the writer, unless it is running, and makes the queue empty in either case.
 *
 * The writer hands on all texts that are queued, in their order, then sleeps 100 ms, and so on. Its
 * name is "iAp2ExternelLogWrite", of which the kernel keeps 15 characters; where it cannot be set, it
 * writes "setiAP2TreadName Error" to standard output. It begins and ends with a line there:
 *
 *     iAp2ExternelLogWriteThread() created!!! mTid[<thread id>]
 *     iAp2ExternelLogWriteThread() ended!!! mTid[<thread id>]
 *
 * Two more lines stand there where they have to: "strlen(item->logStr) + 1 is larger than INT32_MAX"
 * for a text of 2 GiB, which is skipped, and "item or item->logStr is NULL" again and again for an
 * item without a text, which only somebody else can have put into the queue.
 *
 * Any thread may call this at any time. Hazard: texts that are still queued are neither written nor
 * released, except for the one that the writer is handing on.
 *
 * @return 0, or the error code of pthread_mutex_init() or pthread_create(). After an error the
 *         writer is not running, and the queue is as it was.
 */
int iAp2ExternelLogWriteInit(void);

/**
 * Queues a copy of `text` for the writer. While no writer is running, and for a length of SIZE_MAX,
 * the text is dropped without a word.
 *
 * @param level   handed to the sink unchanged. Nothing is filtered.
 * @param text    `length` bytes, of which the writer hands on what stands in front of the first zero;
 *                what it hands on always ends with a zero. Null only with a length of 0.
 * @return        of no meaning.
 *
 * Any number of threads may call this at once, but none while another calls
 * iAp2ExternelLogWriteStop(), which destroys the lock that is needed here. Costs two allocations, one
 * copy and one lock; does not wait for the trace library. Without memory the text is dropped, and
 * "ERROR malloc failed!!  item is null" or "ERROR malloc failed!!  item->logStr is null" is written
 * to standard output.
 */
int iAp2ExternelLogWriteAddQueue(uint32_t level, const void* text, size_t length);

/**
 * Ends the writer and releases what is still queued without writing it. Without a writer it only
 * does the latter.
 *
 * Does not wait: the writer is cancelled and may still be inside the trace library with a last text
 * when this returns. That text stays valid until the trace library is through with it, or is left by
 * the cancellation. A writer that is cancelled in its sleep, which is the usual case, ends without
 * the line that it otherwise ends with.
 */
void iAp2ExternelLogWriteStop(void);

/** Where the platform's trace library needs to be begun and ended. Nothing does, so nothing is done. */
void iAP2initExternelLog(void);
void iAP2TerminateExternelLog(void);
void iAP2initExternelLogModelDefs(void);
void iAP2TerminateExternelLogModelDefs(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
