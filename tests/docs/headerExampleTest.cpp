// The example in the header of the message handler does what the sentence behind it promises.
#include "iAP2MsgHandlerExample.h" // first: it includes what it needs

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "TraceRecorder.h"

namespace
{

class HandlerExampleTest : public support::TraceTest
{
};

TEST_F(HandlerExampleTest, Player_WhenPostedTo_DispatchesEveryRecordInOrder)
{
    std::vector<std::string> called;
    {
        Player player;
        EXPECT_EQ(player.mHandler.sendMsgD(1, 5), 0);
        EXPECT_EQ(player.mHandler.sendMsgSyncV(2), 0);
        EXPECT_EQ(player.mHandler.sendMsgSyncD(1, 5), 0);
    }
    for (const std::string& message : support::takeMessages())
    {
        if (message.find("callEventHandler") != std::string::npos)
        {
            called.push_back(message);
        }
    }
    EXPECT_THAT(called, testing::ElementsAre("D callEventHandler: (play) ",
                                             "D callEventHandlerSync: (pause) ",
                                             "D callEventHandlerSync: (play) "));
}

} // namespace
