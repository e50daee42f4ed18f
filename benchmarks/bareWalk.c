#include "bareWalk.h"

#include <stddef.h>

ListNode* bareWalk(ListNode* head, ListNode* tail, void* data)
{
    for (ListNode* node = head->next; node != NULL && node != tail; node = node->next)
    {
        if (node->data == data)
        {
            return node;
        }
    }
    return NULL;
}
