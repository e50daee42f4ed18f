#include "cClient.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/queue.h>

#include <korvane/iAP2ExtLog.h>
#include <korvane/iAp2LogUtil.h>
#include <korvane/iAp2Marshal.h>
#include <korvane/utils.h>

#define CHECK(condition)                                                                           \
    do                                                                                             \
    {                                                                                              \
        if (!(condition))                                                                          \
        {                                                                                          \
            return #condition;                                                                     \
        }                                                                                          \
    } while (0)

static const char* checkLog(void)
{
    char text[] = "text";
    setLogLevel(IAP2_LOG_VERBOSE);
    logPrint(IAP2_LOG_INFO, "IAP2", "a/b", 1, "from C %d", 1);
    CHECK(iAP2ExtLog(IAP2_LOG_INFO, text) == 0);
    CHECK(iAp2ExternelLogWirteDirect(IAP2_LOG_INFO, text, 4) == 0);
    CHECK(strlen(getCurrentTimeString()) == 12);
    CHECK(getTid() > 0);
    return "";
}

static const char* checkQueuedLog(void)
{
    static const char text[] = "queued from C";
    struct iAP2LogItem item = {IAP2_LOG_INFO, NULL, {NULL, NULL}};
    struct iAP2LogQueue queue;

    iAP2initExternelLog();
    iAP2initExternelLogModelDefs();
    CHECK(iAp2ExternelLogWriteAddQueue(IAP2_LOG_INFO, text, sizeof text - 1) == 0);
    CHECK(TAILQ_EMPTY(&my_tailq_head_iAP2));
    TAILQ_INIT(&queue); /* the same types: the library's own queue may still be looked at */
    TAILQ_INSERT_TAIL(&queue, &item, entries);
    CHECK(TAILQ_LAST(&queue, iAP2LogQueue) == &item);
    TAILQ_REMOVE(&queue, &item, entries);
    CHECK(TAILQ_EMPTY(&queue));
    CHECK(iAp2ExternelLogWriteInit() == 0);
    CHECK(iAp2ExternelLogWriteAddQueue(IAP2_LOG_INFO, text, sizeof text - 1) == 0);
    iAp2ExternelLogWriteStop();
    CHECK(TAILQ_EMPTY(&my_tailq_head_iAP2));
    iAP2TerminateExternelLog();
    iAP2TerminateExternelLogModelDefs();
    return "";
}

static const char* checkMemory(void)
{
    char* const area = (char*)iAP2_malloc(4);
    CHECK(area != NULL);
    CHECK(area[0] == 0 && area[3] == 0);
    iAP2_free(area);
    return "";
}

static const char* checkLists(void)
{
    int first = 1;
    int second = 2;
    ListNode* head = NULL;
    ListNode* tail = NULL;
    const bool freeData = false;

    listInitNode(&head, &tail);
    CHECK(head != NULL && tail != NULL && head->next == tail && tail->prev == head);
    CHECK(listInsertDataBeforeNode(head, tail, &second, tail) == 1);
    CHECK(listInsertDataAfterNode(head, tail, &first, head) == 1);
    CHECK(listGetNodeCount(head, tail) == 2);
    CHECK(listFindNodeWithData(head, tail, &first) == head->next);
    CHECK(listGetNodeBeforeNode(head, tail, tail) == tail->prev);
    CHECK(listGetDataAfterNode(head, tail, head) == &first);
    CHECK(listGetDataRemoveNodeAfterNode(head, tail, head) == head->next);
    CHECK(listGetDataRemoveNodeBeforeNode(head, tail, tail) == &second);
    CHECK(listDeleteNodeWithData(head, tail, &second) == 0);
    CHECK(listDeleteNode(head, tail, head->next) == 1);
    listClearAllNode(head, tail, freeData);
    listFinalNode(head, tail, freeData);

    head = NULL;
    tail = NULL;
    queueInit(&head, &tail);
    CHECK(queuePut(head, tail, &first) == 1);
    CHECK(queuePut(head, tail, &second) == 1);
    CHECK(queueGetCount(head, tail) == 2);
    CHECK(queueGet(head, tail) == &first);
    queueClearAll(head, tail, freeData);
    CHECK(queueGet(head, tail) == NULL);
    queueFinal(head, tail, freeData);
    return "";
}

static const char* checkCursor(void)
{
    uint8_t txn[IAP2_TXN_PAYLOAD_OFFSET + 128] = {0};
    uint32_t length = 0;
    uint32_t used;
    MarshalIo mio;

    iAp2MarshalInit(&mio, txn, sizeof txn, IAP2_TXN_PAYLOAD_OFFSET);
    iAp2MarshalPutUint8(&mio, UINT8_MAX);
    iAp2MarshalPutUint16(&mio, UINT16_MAX);
    iAp2MarshalPutUint32(&mio, UINT32_MAX);
    iAp2MarshalPutUint64(&mio, UINT64_MAX);
    iAp2MarshalPutInt8(&mio, INT8_MIN);
    iAp2MarshalPutInt16(&mio, INT16_MIN);
    iAp2MarshalPutInt32(&mio, INT32_MIN);
    iAp2MarshalPutInt64(&mio, INT64_MIN);
    iAp2MarshalPutBytes(&mio, "abc", 3);
    iAp2MarshalPutBytes(&mio, "de", 2);
    memset(iAp2MarshalAlloc(&mio, 4), 1, 4);
    used = iAp2MarshalGetUsedSize(&mio);
    CHECK(used == IAP2_TXN_PAYLOAD_OFFSET + 40 + 16 + 4);
    CHECK(mio.flags == IAP2_MARSHAL_WRITING);

    used -= IAP2_TXN_PAYLOAD_OFFSET;
    memcpy(txn + IAP2_TXN_LENGTH_OFFSET, &used, sizeof used);
    iAp2MarshalInitFromTxn(&mio, txn);
    CHECK(iAp2MarshalGetUint8(&mio) == UINT8_MAX);
    CHECK(iAp2MarshalGetUint16(&mio) == UINT16_MAX);
    CHECK(iAp2MarshalGetUint32(&mio) == UINT32_MAX);
    CHECK(iAp2MarshalGetUint64(&mio) == UINT64_MAX);
    CHECK(iAp2MarshalGetInt8(&mio) == INT8_MIN);
    CHECK(iAp2MarshalGetInt16(&mio) == INT16_MIN);
    CHECK(iAp2MarshalGetInt32(&mio) == INT32_MIN);
    CHECK(iAp2MarshalGetInt64(&mio) == INT64_MIN);
    CHECK(memcmp(iAp2MarshalGetBytes(&mio, &length), "abc", 3) == 0 && length == 3);
    CHECK(memcmp(iAp2MarshalGetVoidPointer(&mio, &length), "de", 2) == 0 && length == 2);
    CHECK(iAp2MarshalGetUint32(&mio) == 0x01010101);
    CHECK(mio.dataAvail == 0 && mio.flags == IAP2_MARSHAL_READING);
    return "";
}

static const char* checkComponents(void)
{
    char name[] = "name";
    const CmdSaveEssentialUtf8Param text = {sizeof name, name};
    uint8_t buffer[2048];
    CmdSaveBoolParam flag = {1, 1};
    UARTTransportComponent uart = {1, 1, text, 1};
    USBDeviceTransportComponent usbDevice = {1, 2, text, 1, {0, NULL}};
    USBHostTransportComponent usbHost = {1, 3, text, {1, 2, 3}};
    BluetoothTransportComponent bluetooth = {4, text, 1, {1, 2, 3, 4, 5, 6}};
    iAP2HIDComponent hid = {5, text, 1};
    VehicleInformationComponent vehicle;
    VehicleStatusComponent status;
    LocationInformationComponent location = {1, 8, text, {1, 2, 3}};
    USBHostHIDComponent usbHid = {9, text, 1, {2, 3}};
    WirelessCarPlayTransportComponent wireless = {10, text};
    BluetoothHIDComponent bluetoothHid = {1, 11, text, 1};
    RouteGuidanceDisplayComponent route;
    ComponentListParam list;
    MarshalIo mio;

    memset(&vehicle, 0, sizeof vehicle);
    memset(&status, 0, sizeof status);
    memset(&route, 0, sizeof route);
    list.count = 1;
    list.components = &wireless;

    iAp2MarshalInit(&mio, buffer, sizeof buffer, 0);
    SimpleMashalingByType(&flag, &mio, IAP2_PARAM_BOOL);
    MarshalingForUARTTransportComponent(&uart, &mio);
    MarshalingForUSBDeviceTransportComponent(&usbDevice, &mio);
    MarshalingForUSBHostTransportComponent(&usbHost, &mio);
    MarshalingForBluetoothTransportComponent(&bluetooth, &mio);
    MarshalingForiAP2HIDComponent(&hid, &mio);
    MarshalingForVehicleInformationComponent(&vehicle, &mio);
    MarshalingForVehicleStatusComponent(&status, &mio);
    MarshalingForLocationInformationComponent(&location, &mio);
    MarshalingForUSBHostHIDComponent(&usbHid, &mio);
    MarshalingForWirelessCarPlayTransportComponent(&wireless, &mio);
    MarshalingForBluetoothHIDComponent(&bluetoothHid, &mio);
    MarshalingForRouteGuidanceDisplayComponent(&route, &mio);
    MarshalingByComponentType(&uart, &mio, IAP2_COMPONENT_UART_TRANSPORT);
    MarshalingByComponentListType(&list, &mio, IAP2_COMPONENT_WIRELESS_CARPLAY_TRANSPORT);
    CHECK(mio.flags == IAP2_MARSHAL_WRITING);
    CHECK(iAp2MarshalGetUsedSize(&mio) > 400);
    return "";
}

const char* runCClient(void)
{
    const char* (*const checks[])(void) = {checkLog,   checkQueuedLog, checkMemory,
                                           checkLists, checkCursor,    checkComponents};
    size_t i;
    for (i = 0; i < sizeof checks / sizeof checks[0]; ++i)
    {
        const char* const failure = checks[i]();
        if (failure[0] != '\0')
        {
            return failure;
        }
    }
    return "";
}
