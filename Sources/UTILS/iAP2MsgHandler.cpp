#include <korvane/iAP2MsgHandler.h>

#include <stdexcept>

#include <unistd.h>

#include "internal/report.h"

template class iAP2List<iAP2MsgData>;
template class iAP2MsgBox<iAP2MsgData>;

namespace
{

constexpr std::uint32_t kMailboxCapacity = 100;
constexpr int kRefused = -2;
constexpr int kSyncAttempts = 102;
constexpr useconds_t kSyncPause = 10000; // microseconds

/** A record that carries nothing but an event. */
iAP2MsgData eventAlone(std::int32_t id)
{
    return {id, 0, 0, 0, nullptr, nullptr, nullptr};
}

} // namespace

/* ---- EventTable ------------------------------------------------------------------------------ */

EventTable::EventTable(std::uint32_t id, std::string name,
                       IAP2Delegate<void, iAP2MsgData*>* delegate)
    : mEvtID(id), mEvtName(std::move(name)), mDelegate(delegate)
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "EventTable(%s)", mEvtName.c_str());
}

EventTable::EventTable(const EventTable& other)
    : mEvtID(other.mEvtID), mEvtName(other.mEvtName), mDelegate(other.mDelegate)
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "EventTable(%s) copy", mEvtName.c_str());
}

EventTable::~EventTable()
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "~EventTable(%s)", mEvtName.c_str());
}

/* ---- Life ------------------------------------------------------------------------------------ */

iAP2MsgHandler::iAP2MsgHandler() : iAP2Thread("iAP2MsgHandler"), miAP2MsgBox(kMailboxCapacity)
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "iAP2MsgHandler()");
}

iAP2MsgHandler::~iAP2MsgHandler()
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "~iAP2MsgHandler()");
    iAP2MsgData end = eventAlone(EVT_LINKLOOP_EXIT);
    const int result = sendMsg(&end);
    if (result != 0)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "result : %d", result);
    }
    stop();
    const TableLock lock(mEventTableMutex);
    for (const EventTable& entry : mEventTableVector)
    {
        delete entry.mDelegate;
    }
}

void iAP2MsgHandler::registerEventTable(std::uint32_t id, std::string name,
                                        IAP2Delegate<void, iAP2MsgData*>* delegate)
{
    const TableLock lock(mEventTableMutex);
    mEventTableVector.emplace_back(id, std::move(name), delegate);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is the interface
void iAP2MsgHandler::registerEventTable(EventTable entry)
{
    const TableLock lock(mEventTableMutex);
    mEventTableVector.push_back(entry); // a copy, not a move: it is traced as one
}

/* ---- Sending --------------------------------------------------------------------------------- */

int iAP2MsgHandler::sendMsg(iAP2MsgData* data)
{
    if (data == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s: reject, inIAP2Data is NULL", "sendMsg");
        return kRefused;
    }
    return miAP2MsgBox.sendMessage(data) >= 1 ? 0 : kRefused;
}

int iAP2MsgHandler::sendMsgSync(iAP2MsgData* data)
{
    if (data == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s: reject, inIAP2Data is NULL", "sendMsgSync");
        return kRefused;
    }
    KORVANE_LOG(IAP2_LOG_DEBUG, "#### miAP2MsgBox.sendMessageSync before #####");
    iAP2MsgData announcement = eventAlone(EVT_SEND_SYNC_MSG);
    const int result = miAP2MsgBox.sendMessageSyncAnnounced(&announcement, data);
    KORVANE_LOG(IAP2_LOG_DEBUG, "#### miAP2MsgBox.sendMessageSync end #####");
    return result >= 1 ? 0 : kRefused;
}

/*
 * The members that build the record themselves. A row is a suffix, the parameters behind the id and
 * the record's arguments; it makes the asynchronous member and its synchronous twin.
 */
#define KORVANE_FOR_EACH_SENDER(X)                                                                 \
    X(, (int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p1, void* p2, void* p3), \
      d1, d2, d3, p1, p2, p3)                                                                      \
    X(V, (int id), 0, 0, 0, nullptr, nullptr, nullptr)                                             \
    X(D, (int id, unsigned int d1), d1, 0, 0, nullptr, nullptr, nullptr)                           \
    X(DD, (int id, unsigned int d1, unsigned int d2), d1, d2, 0, nullptr, nullptr, nullptr)        \
    X(DDD, (int id, unsigned int d1, unsigned int d2, unsigned int d3), d1, d2, d3, nullptr,       \
      nullptr, nullptr)                                                                            \
    X(P, (int id, void* p1), 0, 0, 0, p1, nullptr, nullptr)                                        \
    X(PP, (int id, void* p1, void* p2), 0, 0, 0, p1, p2, nullptr)                                  \
    X(PPP, (int id, void* p1, void* p2, void* p3), 0, 0, 0, p1, p2, p3)                            \
    X(DP, (int id, unsigned int d1, void* p1), d1, 0, 0, p1, nullptr, nullptr)                     \
    X(DPP, (int id, unsigned int d1, void* p1, void* p2), d1, 0, 0, p1, p2, nullptr)               \
    X(DPPP, (int id, unsigned int d1, void* p1, void* p2, void* p3), d1, 0, 0, p1, p2, p3)         \
    X(DDP, (int id, unsigned int d1, unsigned int d2, void* p1), d1, d2, 0, p1, nullptr, nullptr)  \
    X(DDPP, (int id, unsigned int d1, unsigned int d2, void* p1, void* p2), d1, d2, 0, p1, p2,     \
      nullptr)                                                                                     \
    X(DDPPP, (int id, unsigned int d1, unsigned int d2, void* p1, void* p2, void* p3), d1, d2, 0,  \
      p1, p2, p3)                                                                                  \
    X(DDDP, (int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p1), d1, d2, d3, p1, \
      nullptr, nullptr)                                                                            \
    X(DDDPP, (int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p1, void* p2), d1,  \
      d2, d3, p1, p2, nullptr)                                                                     \
    X(DDDPPP,                                                                                      \
      (int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p1, void* p2, void* p3),   \
      d1, d2, d3, p1, p2, p3)

#define KORVANE_DEFINE_SENDER(Suffix, parameters, d1, d2, d3, p1, p2, p3)                          \
    KORVANE_DEFINE_SEND(sendMsg, Suffix, parameters, d1, d2, d3, p1, p2, p3)                       \
    KORVANE_DEFINE_SEND(sendMsgSync, Suffix, parameters, d1, d2, d3, p1, p2, p3)

#define KORVANE_DEFINE_SEND(send, Suffix, parameters, d1, d2, d3, p1, p2, p3)                      \
    int iAP2MsgHandler::send##Suffix parameters                                                    \
    {                                                                                              \
        return sendRecord<&iAP2MsgHandler::send>(*this, id, d1, {d2, d3}, p1, p2, p3,              \
                                                 #send #Suffix);                                   \
    }

namespace
{

/** Two arguments in one register: with them all arguments of sendRecord() travel in registers. */
struct LastIntegers
{
    std::uint32_t d2;
    std::uint32_t d3;
};

/** What all of them share, so that each is but a few instructions in front of it. */
template <int (iAP2MsgHandler::*send)(iAP2MsgData*)>
[[gnu::noinline]] int sendRecord(iAP2MsgHandler& handler, int id, std::uint32_t d1,
                                 LastIntegers last, void* p1, void* p2, void* p3,
                                 const char* sender)
{
    iAP2MsgData data = {id, d1, last.d2, last.d3, p1, p2, p3};
    const int result = (handler.*send)(&data);
    if (result != 0)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "%s error!!", sender);
    }
    return result;
}

} // namespace

KORVANE_FOR_EACH_SENDER(KORVANE_DEFINE_SENDER)

/* ---- Receiving ------------------------------------------------------------------------------- */

int iAP2MsgHandler::recvMsg(iAP2MsgData* out)
{
    return miAP2MsgBox.receiveMessage(out);
}

void iAP2MsgHandler::recvMsgSync(iAP2MsgData* out)
{
    for (int attempt = 1; miAP2MsgBox.receiveMessageSync(out) == 0; ++attempt)
    {
        if (attempt == kSyncAttempts)
        {
            KORVANE_LOG(IAP2_LOG_ERROR, "receiveMessageSync Timeout!!");
            return;
        }
        usleep(kSyncPause);
    }
}

/* ---- Dispatching ----------------------------------------------------------------------------- */

/** Calls `call` with the index of the first entry that has the record's id. */
template <typename Call>
void iAP2MsgHandler::dispatch(const iAP2MsgData& data, const char* caller, Call call)
{
    const TableLock lock(mEventTableMutex);
    for (std::uint32_t i = 0; i < mEventTableVector.size(); ++i)
    {
        if (mEventTableVector[i].mEvtID == static_cast<std::uint32_t>(data.evtID))
        {
            call(i);
            return;
        }
    }
    KORVANE_LOG(IAP2_LOG_ERROR, "%s: unknown event %d", caller, data.evtID);
}

void iAP2MsgHandler::exeMsg(iAP2MsgData* data)
{
    try
    {
        dispatch(*data, "exeMsg", [&](std::uint32_t index) { callEventHandler(index, data); });
    }
    catch (const std::out_of_range& error)
    {
        std::size_t entries = 0;
        {
            const TableLock lock(mEventTableMutex);
            entries = mEventTableVector.size();
        }
        KORVANE_LOG(IAP2_LOG_INFO, "inIAP2Data->evtID : %d, mEventTableVector.size() : %zu",
                    data->evtID, entries);
        KORVANE_REPORT_FAILURE("exeMsg", error.what());
    }
}

void iAP2MsgHandler::exeMsgSync(iAP2MsgData* data)
{
    dispatch(*data, "exeMsgSync", [&](std::uint32_t index) { callEventHandlerSync(index, data); });
}

// These two take no lock and cannot ask for one either: who calls them from outside has none.

void iAP2MsgHandler::callEventHandler(std::uint32_t index,
                                      iAP2MsgData* data) IAP2_NO_THREAD_SAFETY_ANALYSIS
{
    EventTable& entry = mEventTableVector.at(index);
    KORVANE_LOG(IAP2_LOG_DEBUG, "callEventHandler: (%s) ", entry.mEvtName.c_str());
    entry.mDelegate->mImpl->invoke(data);
}

int iAP2MsgHandler::callEventHandlerSync(std::uint32_t index,
                                         iAP2MsgData* data) IAP2_NO_THREAD_SAFETY_ANALYSIS
{
    EventTable& entry = mEventTableVector.at(index);
    KORVANE_LOG(IAP2_LOG_DEBUG, "callEventHandlerSync: (%s) ", entry.mEvtName.c_str());
    entry.mDelegate->mImpl->invoke(data);
    return miAP2MsgBox.sendSyncFinishMessage();
}

void iAP2MsgHandler::run()
{
    iAP2MsgData received = eventAlone(EVT_LINKLOOP_EXIT);
    iAP2MsgData synchronous = eventAlone(EVT_LINKLOOP_EXIT);
    for (;;)
    {
        if (getStopVal())
        {
            KORVANE_LOG(IAP2_LOG_ERROR, "%s: Thread Stop Routine !!", "run");
            break;
        }
        recvMsg(&received);
        if (received.evtID == EVT_LINKLOOP_EXIT)
        {
            KORVANE_LOG(IAP2_LOG_ERROR, "%s: exit loop by EVT_LINKLOOP_EXIT", "run");
            break;
        }
        if (received.evtID == EVT_SEND_SYNC_MSG)
        {
            KORVANE_LOG(IAP2_LOG_DEBUG, "recv EVT_SEND_SYNC_MSG");
            recvMsgSync(&synchronous);
            exeMsgSync(&synchronous);
        }
        else
        {
            exeMsg(&received);
        }
    }
    KORVANE_LOG(IAP2_LOG_DEBUG, "%s end", "run");
}
