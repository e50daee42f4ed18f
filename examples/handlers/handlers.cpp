// The smallest useful handler: one thread counts what it is told and answers how much that is.

#include <cstdio>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAP2MsgHandler.h>

namespace
{

// [example]
enum : unsigned int
{
    Add = 1,
    Total = 2
};

class Counter
{
public:
    Counter()
    {
        using Delegate = IAP2Delegate<void, iAP2MsgData*>;
        handler.registerEventTable(Add, "add", new Delegate(this, &Counter::add));
        handler.registerEventTable(Total, "total", new Delegate(this, &Counter::total));
        handler.start();
    }

private:
    void add(iAP2MsgData* data)
    {
        mTotal += data->dParam1;
    }
    void total(iAP2MsgData* data)
    {
        *static_cast<unsigned int*>(data->pParam1) = mTotal;
    }

    unsigned int mTotal = 0; // the handler's thread alone touches it

public:
    iAP2MsgHandler handler; // the last member, so that its thread ends before the others go
};
// [example]

} // namespace

int main()
{
    setLogLevel(IAP2_LOG_ERROR);
    Counter counter;
    for (unsigned int i = 1; i <= 10; ++i)
    {
        counter.handler.sendMsgD(Add, i); // goes on at once
    }
    unsigned int total = 0;
    counter.handler.sendMsgSyncP(Total, &total); // returns when total() has run
    std::printf("%u\n", total);
    return total == 55 ? 0 : 1;
}
