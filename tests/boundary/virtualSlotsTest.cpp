/** Where virtual members stand in their tables: clients were compiled against these places. */
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include <korvane/iAP2MsgHandler.h>
#include <korvane/iAP2Thread.h>

namespace
{

// Two slots in front of all others belong to the destructor, which has no address.
constexpr std::size_t kBehindDestructor = 2;

/** The slot of a virtual member, as every call through a pointer to it finds it. */
template <typename Member> std::size_t slotOf(Member member)
{
    struct
    {
        std::uintptr_t place;
        std::ptrdiff_t adjustment;
    } pointer;
    static_assert(sizeof pointer == sizeof member, "a pointer to a member is two words");
    std::memcpy(&pointer, &member, sizeof pointer);
#if defined(__aarch64__)
    EXPECT_EQ(pointer.adjustment, 1) << "the member is not virtual";
    return pointer.place / sizeof(void*);
#else
    EXPECT_EQ(pointer.adjustment, 0);
    EXPECT_EQ(pointer.place % sizeof(void*), 1U) << "the member is not virtual";
    return pointer.place / sizeof(void*);
#endif
}

class Worker : public iAP2Thread
{
public:
    static std::size_t slotOfRun()
    {
        return slotOf(&Worker::run);
    }

protected:
    void run() override;
};

class Handler : public iAP2MsgHandler
{
public:
    static std::size_t slotOfRun()
    {
        return slotOf(&Handler::run);
    }
};

TEST(VirtualSlots, Run_WhenAThreadsOrAHandlers_IsTheFirstBehindTheDestructor)
{
    EXPECT_EQ(Worker::slotOfRun(), kBehindDestructor);
    EXPECT_EQ(Handler::slotOfRun(), kBehindDestructor);
}

TEST(VirtualSlots, Invoke_WhenADelegates_IsTheFirstBehindTheDestructor)
{
    using Invoker = IAP2DelegateImpl<void, iAP2MsgData*>;
    EXPECT_EQ(slotOf(&Invoker::invoke), kBehindDestructor);
}

} // namespace
