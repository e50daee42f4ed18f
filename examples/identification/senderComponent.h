/**
 * The sender as a component of the stack is built: a handler, events, and a delegate for each.
 *
 * Threads: the owner's thread posts and goes on at once; it waits in answer() and in the destructor
 * only. The delegates run on the handler's thread, one at a time in the order of posting, and are
 * alone with the state. As everywhere, a thread must not be followed by a fork().
 */
#ifndef IDENTIFICATION_SENDERCOMPONENT_H
#define IDENTIFICATION_SENDERCOMPONENT_H

#include <cstddef>
#include <exception>

#include <korvane/iAP2MsgHandler.h>

#include "description.h"
#include "transaction.h"

namespace identification
{

class SenderComponent
{
public:
    struct Answer
    {
        std::size_t sentBytes = 0;  ///< of the transaction, once it has been sent as a whole
        std::exception_ptr failure; ///< why a step failed: SystemError, std::bad_alloc
    };

    /** Starts the handler's thread; throws SystemError when there is none to be had. */
    SenderComponent();

    /** Lets the steps that were posted come to their end, then ends the thread. */
    ~SenderComponent();

    SenderComponent(const SenderComponent&) = delete;
    SenderComponent& operator=(const SenderComponent&) = delete;

    /*
     * The steps. What they are given must stay until answer() has returned or the component is gone.
     * A failure is kept for the answer, and the steps behind it do nothing. Where memory is too short
     * to post, the process ends as the program does without memory.
     */

    void postDescribe(const Description& description); ///< begins anew, also after a failure
    void postMarshal(Transaction& transaction);        ///< fills the transaction
    void postSend(int socket);                         ///< writes it to the socket

    /** Waits for all the steps that were posted: what became of them. */
    Answer answer();

private:
    enum Event : int
    {
        Describe = 1, ///< pParam1: a const Description
        Marshal = 2,  ///< pParam1: a Transaction
        Send = 3,     ///< dParam1: a socket
        Report = 4    ///< pParam1: an Answer; pParam2: a std::atomic<bool>, set when it is there
    };

    void describe(iAP2MsgData* data);
    void marshal(iAP2MsgData* data);
    void send(iAP2MsgData* data);
    void report(iAP2MsgData* data);

    template <typename Work> void step(Work work);

    // The handler's thread alone touches these.
    const Description* mDescription = nullptr;
    const Transaction* mTransaction = nullptr;
    Answer mAnswer;

    iAP2MsgHandler mHandler; // the last member, so that its thread ends before the others go
};

} // namespace identification

#endif
