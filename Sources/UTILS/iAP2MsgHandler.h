/**
 * Events, delegates, and the thread that dispatches messages to them.
 *
 *     class Player
 *     {
 *     public:
 *         Player()
 *         {
 *             using Delegate = IAP2Delegate<void, iAP2MsgData*>;
 *             mHandler.registerEventTable(1, "play", new Delegate(this, &Player::play));
 *             mHandler.registerEventTable(2, "pause", new Delegate([](iAP2MsgData*) {}));
 *             mHandler.start();
 *         }
 *         void play(iAP2MsgData* data)
 *         {
 *             mTrack = data->dParam1; // on the handler's thread
 *         }
 *
 *     private:
 *         unsigned int mTrack = 0;
 *
 *     public:
 *         iAP2MsgHandler mHandler; // the last member, so that its thread ends before the others go
 *     };
 *
 * Any thread then posts: player.mHandler.sendMsgD(1, 5) goes on at once, sendMsgSyncD(1, 5) returns
 * when play() has run.
 */
#ifndef KORVANE_IAP2MSGHANDLER_H
#define KORVANE_IAP2MSGHANDLER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>

#include <korvane/iAP2ListImpl.h>
#include <korvane/iAP2MsgBoxImpl.h>
#include <korvane/iAP2Thread.h>

#pragma GCC visibility push(default)

/** What a delegate calls. */
template <typename R, typename A> class IAP2DelegateImpl
{
public:
    IAP2DelegateImpl() = default;
    virtual ~IAP2DelegateImpl() = default;
    IAP2DelegateImpl(const IAP2DelegateImpl&) = delete;
    IAP2DelegateImpl& operator=(const IAP2DelegateImpl&) = delete;

    virtual R invoke(A argument) = 0;
};

/** A call that is made later: of an object's method, of anything callable, or of an own invoker. */
template <typename R, typename A> class IAP2Delegate
{
public:
    /** Calls `(object->*method)(argument)`; the object must outlive the delegate. */
    template <typename T>
    IAP2Delegate(T* object, R (T::*method)(A)) : mImpl(new MethodInvoker<T>(object, method))
    {
    }

    /** Calls a copy of `callable`: a function, a lambda, a std::function. */
    template <typename Callable,
              typename = typename std::enable_if<
                  !std::is_convertible<Callable, IAP2DelegateImpl<R, A>*>::value &&
                  !std::is_same<typename std::decay<Callable>::type, IAP2Delegate>::value>::type>
    explicit IAP2Delegate(Callable&& callable)
        : mImpl(new CallableInvoker<typename std::decay<Callable>::type>(
              std::forward<Callable>(callable)))
    {
    }

    /** Calls `impl->invoke(argument)` and owns `impl`. */
    explicit IAP2Delegate(IAP2DelegateImpl<R, A>* impl) : mImpl(impl)
    {
    }

    ~IAP2Delegate()
    {
        delete mImpl;
    }

    IAP2Delegate(const IAP2Delegate&) = delete;
    IAP2Delegate& operator=(const IAP2Delegate&) = delete;

    R operator()(A argument) const
    {
        return mImpl->invoke(argument);
    }

    IAP2DelegateImpl<R, A>* mImpl; ///< owned

private:
    template <typename T> class MethodInvoker : public IAP2DelegateImpl<R, A>
    {
    public:
        MethodInvoker(T* object, R (T::*method)(A)) : mObject(object), mMethod(method)
        {
        }
        R invoke(A argument) override
        {
            return (mObject->*mMethod)(argument);
        }

    private:
        T* mObject;
        R (T::*mMethod)(A);
    };

    template <typename Callable> class CallableInvoker : public IAP2DelegateImpl<R, A>
    {
    public:
        template <typename Source>
        explicit CallableInvoker(Source&& callable) : mCallable(std::forward<Source>(callable))
        {
        }
        R invoke(A argument) override
        {
            return mCallable(argument);
        }

    private:
        Callable mCallable;
    };
};

/** One registered event. Its life is traced at level 20. */
class EventTable
{
public:
    EventTable(std::uint32_t id, std::string name, IAP2Delegate<void, iAP2MsgData*>* delegate);
    EventTable(const EventTable& other);
    EventTable& operator=(const EventTable& other) = default;

    /** Leaves the delegate alone, which copies share; the handler that holds an entry frees it. */
    virtual ~EventTable();

    std::uint32_t mEvtID;
    std::string mEvtName;
    IAP2Delegate<void, iAP2MsgData*>* mDelegate;
};

/**
 * A thread with a mailbox of 100 records, which calls the delegate of the first registered event
 * that has a record's id.
 *
 * Threads: any thread may post and register. Delegates run on the handler's thread, one at a time
 * and with the table locked: a delegate must not register on its own handler nor post to it
 * synchronously, both of which block for good; registering from elsewhere waits for the delegate.
 *
 * Hazards that callers live with: a full mailbox drops its oldest record, also the announcement of a
 * synchronous one; a synchronous event without an entry leaves its sender blocked until the next
 * synchronous event has been handled; with several synchronous senders the one that is woken need
 * not be the one whose record was handled.
 */
class iAP2MsgHandler : public iAP2Thread
{
public:
    iAP2MsgHandler();

    /**
     * Posts EVT_LINKLOOP_EXIT, waits for the thread to end and frees the delegates of all entries.
     * Every entry must have one of its own.
     *
     * Hazard: a thread that is busy notices that it is to stop before it receives again, and what was
     * posted before is then not dispatched. Post EVT_LINKLOOP_EXIT and join() first to have it all.
     */
    ~iAP2MsgHandler() override;

    /**
     * Appends an entry; the handler owns its delegate from now on. Ids may repeat: the first entry
     * wins. Blocks while a delegate runs.
     */
    void registerEventTable(std::uint32_t id, std::string name,
                            IAP2Delegate<void, iAP2MsgData*>* delegate);

    /** Appends a copy of `entry`. */
    void registerEventTable(EventTable entry);

    /**
     * Posts a copy of `*data`.
     *
     * @return 0; -2 when `data` is null ("sendMsg: reject, inIAP2Data is NULL", level 90) or the
     *         mailbox refuses it.
     */
    int sendMsg(iAP2MsgData* data);

    /**
     * Posts a copy of `*data` and blocks until its delegate has run. Results come back through what
     * the record's pointers point to. It is handled after everything that was posted before it.
     *
     * @return as sendMsg(), which see.
     */
    int sendMsgSync(iAP2MsgData* data);

    /*
     * The same with a record of the given id, integers (D) and pointers (P) in order, and zeros
     * everywhere else. A result other than 0 is reported as "<function> error!!", level 90.
     */

    int sendMsg(int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p1, void* p2,
                void* p3);
    int sendMsgSync(int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p1, void* p2,
                    void* p3);

    int sendMsgV(int id);
    int sendMsgD(int id, unsigned int d);
    int sendMsgDD(int id, unsigned int d1, unsigned int d2);
    int sendMsgDDD(int id, unsigned int d1, unsigned int d2, unsigned int d3);
    int sendMsgP(int id, void* p);
    int sendMsgPP(int id, void* p1, void* p2);
    int sendMsgPPP(int id, void* p1, void* p2, void* p3);
    int sendMsgDP(int id, unsigned int d, void* p);
    int sendMsgDPP(int id, unsigned int d, void* p1, void* p2);
    int sendMsgDPPP(int id, unsigned int d, void* p1, void* p2, void* p3);
    int sendMsgDDP(int id, unsigned int d1, unsigned int d2, void* p);
    int sendMsgDDPP(int id, unsigned int d1, unsigned int d2, void* p1, void* p2);
    int sendMsgDDPPP(int id, unsigned int d1, unsigned int d2, void* p1, void* p2, void* p3);
    int sendMsgDDDP(int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p);
    int sendMsgDDDPP(int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p1, void* p2);
    int sendMsgDDDPPP(int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p1, void* p2,
                      void* p3);

    int sendMsgSyncV(int id);
    int sendMsgSyncD(int id, unsigned int d);
    int sendMsgSyncDD(int id, unsigned int d1, unsigned int d2);
    int sendMsgSyncDDD(int id, unsigned int d1, unsigned int d2, unsigned int d3);
    int sendMsgSyncP(int id, void* p);
    int sendMsgSyncPP(int id, void* p1, void* p2);
    int sendMsgSyncPPP(int id, void* p1, void* p2, void* p3);
    int sendMsgSyncDP(int id, unsigned int d, void* p);
    int sendMsgSyncDPP(int id, unsigned int d, void* p1, void* p2);
    int sendMsgSyncDPPP(int id, unsigned int d, void* p1, void* p2, void* p3);
    int sendMsgSyncDDP(int id, unsigned int d1, unsigned int d2, void* p);
    int sendMsgSyncDDPP(int id, unsigned int d1, unsigned int d2, void* p1, void* p2);
    int sendMsgSyncDDPPP(int id, unsigned int d1, unsigned int d2, void* p1, void* p2, void* p3);
    int sendMsgSyncDDDP(int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p);
    int sendMsgSyncDDDPP(int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p1,
                         void* p2);
    int sendMsgSyncDDDPPP(int id, unsigned int d1, unsigned int d2, unsigned int d3, void* p1,
                          void* p2, void* p3);

    /** Waits for the next asynchronous record; its size. */
    int recvMsg(iAP2MsgData* out);

    /**
     * Takes the next synchronous record. Looks for it up to 102 times, 10 ms apart; then
     * "receiveMessageSync Timeout!!" is reported at level 90 and `*out` stays as it was, which run()
     * dispatches once more.
     */
    void recvMsgSync(iAP2MsgData* out);

    /**
     * Calls the delegate of the first entry with the record's id; where there is none,
     * "exeMsg: unknown event <id>" is reported at level 90. A std::out_of_range that leaves the
     * delegate is reported (levels 40 and 90) and forgotten; every other exception goes on, which
     * ends the process when it leaves the thread.
     */
    void exeMsg(iAP2MsgData* data);

    /** The same for a synchronous record, whose sender is then woken; catches nothing. */
    void exeMsgSync(iAP2MsgData* data);

    /**
     * Calls the delegate of the entry at `index`; std::out_of_range where there is none. Takes no
     * lock: exeMsg() calls it with the table locked.
     */
    void callEventHandler(std::uint32_t index, iAP2MsgData* data);

    /** The same, and wakes a synchronous sender; 0, or the code of the mailbox's final unlock. */
    int callEventHandlerSync(std::uint32_t index, iAP2MsgData* data);

    /** The loop, until EVT_LINKLOOP_EXIT is received or stop() is noticed between two records. */
    void run() override;

private:
    /** std::mutex, and a lock for a scope, as clang's thread safety analysis knows them. */
    class IAP2_CAPABILITY("mutex") TableMutex : public std::mutex
    {
    };
    class IAP2_SCOPED_CAPABILITY TableLock
    {
    public:
        explicit TableLock(TableMutex& mutex) IAP2_ACQUIRE(mutex) : mLock(mutex)
        {
        }
        ~TableLock() IAP2_RELEASE()
        {
        }

    private:
        std::lock_guard<std::mutex> mLock;
    };

    template <typename Call> void dispatch(const iAP2MsgData& data, const char* caller, Call call);

    iAP2MsgBox<iAP2MsgData> miAP2MsgBox;
    std::deque<EventTable> mEventTableVector IAP2_GUARDED_BY(mEventTableMutex);
    TableMutex mEventTableMutex; ///< held while a delegate runs
};

#pragma GCC visibility pop

#endif
