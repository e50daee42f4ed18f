/** The floor of a find: the walk and nothing else. */
#ifndef KORVANE_BENCHMARKS_BAREWALK_H
#define KORVANE_BENCHMARKS_BAREWALK_H

#include <korvane/utils.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The first element between two sentinels that holds `data`, or null. */
ListNode* bareWalk(ListNode* head, ListNode* tail, void* data);

#ifdef __cplusplus
}
#endif

#endif
