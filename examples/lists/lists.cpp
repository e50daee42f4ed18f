// A playlist, whose items belong to the program, and a queue, whose items belong to the queue.

#include <cstdio>
#include <cstring>

#include <korvane/iAp2LogUtil.h>
#include <korvane/utils.h>

namespace
{

void show(ListNode* head, ListNode* tail)
{
    ListNode* node = head;
    while ((node = listGetDataRemoveNodeAfterNode(head, tail, node)) != nullptr) // removes nothing
    {
        std::printf("%s ", static_cast<const char*>(node->data));
    }
    std::printf("(%u)\n", listGetNodeCount(head, tail));
}

bool editPlaylist()
{
    char intro[] = "intro";
    char verse[] = "verse";
    char chorus[] = "chorus";
    ListNode* head = nullptr;
    ListNode* tail = nullptr;
    listInitNode(&head, &tail);
    if (head == nullptr || tail == nullptr)
    {
        return false;
    }
    bool done = listInsertDataAfterNode(head, tail, intro, head) == 1 &&
                listInsertDataBeforeNode(head, tail, chorus, tail) == 1;
    ListNode* const last = listFindNodeWithData(head, tail, chorus);
    done = done && last != nullptr && listInsertDataBeforeNode(head, tail, verse, last) == 1;
    show(head, tail);
    done = done && listDeleteNodeWithData(head, tail, intro) == 1;
    show(head, tail);
    listFinalNode(head, tail, false); // the texts are not the list's
    return done;
}

bool queueTexts()
{
    ListNode* head = nullptr;
    ListNode* tail = nullptr;
    queueInit(&head, &tail);
    if (head == nullptr || tail == nullptr)
    {
        return false;
    }
    bool done = true;
    const char* const texts[] = {"one", "two", "three"};
    for (const char* const text : texts)
    {
        void* const copy = iAP2_malloc(std::strlen(text) + 1);
        if (copy == nullptr)
        {
            done = false;
            break;
        }
        std::memcpy(copy, text, std::strlen(text));
        if (queuePut(head, tail, copy) == 0)
        {
            iAP2_free(copy); // refused, so it is still ours
            done = false;
        }
    }
    void* const oldest = queueGet(head, tail); // ours again
    if (oldest != nullptr)
    {
        std::printf("%s, then %u more\n", static_cast<const char*>(oldest),
                    queueGetCount(head, tail));
        iAP2_free(oldest);
    }
    queueFinal(head, tail, true); // releases the items that are left, too
    return done && oldest != nullptr;
}

} // namespace

int main()
{
    setLogLevel(IAP2_LOG_ERROR);
    if (!editPlaylist() || !queueTexts())
    {
        std::fputs("lists: no memory left\n", stderr);
        return 1;
    }
    return 0;
}
