/**
 * A named worker thread.
 *
 * A subclass overrides run(), whose loop ends soon after getStopVal() has become true; its owner
 * calls start(), and ends the thread by stop() or by destroying the object.
 *
 * Threads: start(), stop(), join(), detach(), cancel() and the destructor belong to one thread, the
 * owner's; getStopVal() and isRunning() may be called from any.
 *
 * Failures are trace lines at level 90, unless said otherwise, and result codes. Their texts show
 * errno as it stands at that moment, not the code that the POSIX call returned. A thread without a
 * name is shown as "iAP2.noname".
 */
#ifndef KORVANE_IAP2THREAD_H
#define KORVANE_IAP2THREAD_H

#pragma GCC visibility push(default)

class iAP2Thread
{
public:
    /** Results of start(), stop(), join(), detach() and cancel(). */
    enum Result : unsigned int
    {
        Success = 0,
        CreateFailed = 1,
        DetachFailed = 2,
        JoinFailed = 3,
        CancelFailed = 4,
        NotRunning = 5
    };

    /** Prepares a thread; `name` is copied, null stands for "iAP2.noname". */
    explicit iAP2Thread(const char* name);

    /**
     * Joins a thread whose body has returned, and stops any other; a result other than 0 is
     * reported as "<name>:~iAP2Thread:join() fail" or "...stop() fail". So a thread that was never
     * started, or was joined or cancelled before, leaves one of these lines behind.
     *
     * Blocks until the body has returned. A subclass whose run() uses its own members must have
     * ended the thread in its own destructor.
     */
    virtual ~iAP2Thread();

    iAP2Thread(const iAP2Thread&) = delete;
    iAP2Thread& operator=(const iAP2Thread&) = delete;

    /**
     * Starts the thread and gives it its name (see setiAP2ThreadName()).
     *
     * @return 0; 1 when it cannot be created ("<name>:start: pthread_create fail, <text>"). A thread
     *         that is running is left alone: "<name>:start: reject, already running", and 0 too.
     */
    unsigned int start();

    /**
     * Asks the body to end and waits for it. Hazard: a stop that comes before the new thread has
     * entered its body is forgotten, because the thread's entry clears the request; stop() then
     * waits for a body that was never asked.
     *
     * @return what join() returns, or 5 when no thread is held.
     */
    unsigned int stop();

    /** True when the body is to end, and while there is none. */
    bool getStopVal();

    /**
     * Waits for the body to return. A cancellation point.
     *
     * @return 0; 5 when no thread is held; 3 on failure ("<name>:join: pthread_join fail, <text>").
     *         For a detached thread 0 without waiting ("join: thread detached!!", level 60).
     */
    unsigned int join();

    /**
     * Lets the thread go on by itself. It counts as running ever after.
     *
     * @return 0; 5 when no thread is held; 2 on failure ("<name>:detach: pthread_detach fail, ...").
     */
    unsigned int detach();

    /**
     * Requests cancellation and forgets the thread, without waiting for it to end: what it uses must
     * outlive it.
     *
     * @return 0; 5 when no thread is held; 4 on failure ("cancel: pthread_cancel fail, <text>").
     */
    unsigned int cancel();

    /** True from start() until join(), stop() or cancel(), whatever the body has done since. */
    bool isRunning();

    /** Stores a name for later; null stands for "iAP2.noname". */
    void setName(const char* name);

    /**
     * Gives the held thread, if there is one, the stored name; the argument is ignored. A name of more
     * than 15 characters fails ("<name>:setiAP2ThreadName: pthread_setname_np fail, <text>").
     */
    void setiAP2ThreadName(const char* name);

    /**
     * Gives the calling thread, whichever that is, the scheduling policy SCHED_FIFO and `priority`,
     * which is not checked. Failures: "<name>:setCurrentThreadPriority: pthread_getschedparam fail,
     * <text>" and "... pthread_setschedparam fail, <text>".
     */
    void setCurrentThreadPriority(int priority);

protected:
    /** The body, on the new thread. An exception that leaves it ends the process. */
    virtual void run() = 0;

    class __attribute__((visibility("hidden"))) iAP2ThreadImpl;

    /** Owned. */
    iAP2ThreadImpl* m_pimpl;
};

#pragma GCC visibility pop

#endif
