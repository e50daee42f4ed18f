#include <korvane/ByteArray.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <pthread.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <korvane/iAp2LogUtil.h>

#include "Faults.h"
#include "Sanitizers.h"
#include "TraceRecorder.h"

namespace
{

using IAP2::ByteArray;
using support::Hooks;
using support::ScopedHook;
using support::takeMessages;
using testing::ElementsAre;
using testing::IsEmpty;

// Clients call these by the names that they were compiled with: none is const, and there are two
// copy assignments.
[[maybe_unused]] constexpr int (ByteArray::*lengthOf)() = &ByteArray::length;
[[maybe_unused]] constexpr int (ByteArray::*usedSizeOf)() = &ByteArray::getUsedSize;
[[maybe_unused]] constexpr char* (ByteArray::*dataOf)() = &ByteArray::data;
[[maybe_unused]] constexpr const char* (ByteArray::*constDataOf)() = &ByteArray::constData;
[[maybe_unused]] constexpr ByteArray& (ByteArray::*assign)(ByteArray&) = &ByteArray::operator=;
[[maybe_unused]] constexpr ByteArray& (ByteArray::*assignConst)(const ByteArray&) =
    &ByteArray::operator=;
[[maybe_unused]] constexpr ByteArray (ByteArray::*midRange)(int, int) = &ByteArray::mid;
[[maybe_unused]] constexpr ByteArray (ByteArray::*midRest)(int) = &ByteArray::mid;

constexpr int kIntMax = std::numeric_limits<int>::max();
constexpr int kIntMin = std::numeric_limits<int>::min();

/** Reaches the fields of any array, as a derived class may. */
class Fields : public ByteArray
{
public:
    static char*& buffer(ByteArray& array)
    {
        return array.*&Fields::mpByteArray;
    }
    static std::int32_t& allocSize(ByteArray& array)
    {
        return array.*&Fields::mAllocSize;
    }
    static std::int32_t& usedSize(ByteArray& array)
    {
        return array.*&Fields::mUsedSize;
    }
};

/** What an array consists of; a null buffer has no content. */
struct State
{
    bool hasBuffer;
    std::string content;
    std::int32_t allocSize;

    bool operator==(const State& other) const
    {
        return hasBuffer == other.hasBuffer && content == other.content &&
               allocSize == other.allocSize;
    }
};

std::ostream& operator<<(std::ostream& out, const State& state)
{
    return out << (state.hasBuffer ? "" : "no buffer ") << testing::PrintToString(state.content)
               << " in " << state.allocSize;
}

const State kNoBuffer = {false, "", 0};

State stateOf(ByteArray& array)
{
    const char* const buffer = Fields::buffer(array);
    const auto used = static_cast<std::size_t>(Fields::usedSize(array));
    if (buffer == nullptr)
    {
        EXPECT_EQ(used, 0U);
        return {false, "", Fields::allocSize(array)};
    }
    return {true, std::string(buffer, used), Fields::allocSize(array)};
}

/** The byte behind the content. */
int terminatorOf(ByteArray& array)
{
    return Fields::buffer(array)[Fields::usedSize(array)];
}

ByteArray arrayOf(std::string content)
{
    return {content.data(), static_cast<int>(content.size())};
}

ByteArray withoutBuffer()
{
    ByteArray source;
    ByteArray taken(std::move(source));
    return source; // NOLINT(bugprone-use-after-move,performance-no-automatic-move): that is the point
}

/** A length that the compiler cannot compare with what there is, as it does in the inline forms. */
int unforeseen(int len)
{
    volatile int hidden = len;
    return hidden;
}

std::string pointerText(const void* pointer)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

std::string warning(const void* pointer, int len)
{
    return "E WARNING : append() pStr[" + pointerText(pointer) + "], len[" + std::to_string(len) +
           "]";
}

/** Records the sizes of all buffers that are taken, and counts those that are released. */
class Heap
{
public:
    std::vector<std::size_t> taken;
    int released = 0;

private:
    const ScopedHook<std::function<void*(std::size_t)>> mTake{
        &Hooks::newArray, [this](std::size_t size)
        {
            taken.push_back(size);
            return support::real::newArray(size);
        }};
    const ScopedHook<std::function<void(void*)>> mRelease{&Hooks::deleteArray, [this](void* block)
                                                          {
                                                              ++released;
                                                              support::real::deleteArray(block);
                                                          }};
};

/** No buffer can be taken while this object lives. */
class NoMemory
{
private:
    const ScopedHook<std::function<void*(std::size_t)>> mTake{
        &Hooks::newArray, [](std::size_t) -> void* { throw std::bad_alloc(); }};
};

class ByteArrayTest : public support::TraceTest
{
protected:
    ~ByteArrayTest() override
    {
        EXPECT_THAT(takeMessages(), IsEmpty()); // each test has taken those that it expects
    }
};

constexpr const char* kNoBufferHere = "E ERROR : mpByteArray is NULL";
constexpr const char* kNoBufferThere = "E ERROR : pByteArray is NULL";

/* ---- Construction ---------------------------------------------------------------------------- */

TEST_F(ByteArrayTest, Class_WhenItsTypeIsLookedAt_IsPlain)
{
    EXPECT_FALSE(std::is_polymorphic<ByteArray>::value);
    EXPECT_TRUE(std::is_nothrow_move_assignable<ByteArray>::value);
    EXPECT_TRUE(std::is_nothrow_move_constructible<ByteArray>::value);
    ByteArray array;
    const auto* const start = reinterpret_cast<const char*>(&array);
    EXPECT_EQ(reinterpret_cast<const char*>(&Fields::buffer(array)) - start, 0);
    EXPECT_EQ(reinterpret_cast<const char*>(&Fields::allocSize(array)) - start,
              static_cast<std::ptrdiff_t>(sizeof(char*)));
    EXPECT_EQ(reinterpret_cast<const char*>(&Fields::usedSize(array)) - start,
              static_cast<std::ptrdiff_t>(sizeof(char*) + sizeof(std::int32_t)));
}

TEST_F(ByteArrayTest, Construction_WhenDefault_HoldsOneByteOfZero)
{
    const Heap heap;
    ByteArray array;
    EXPECT_EQ(stateOf(array), (State{true, "", 1}));
    EXPECT_EQ(array.length(), 0);
    EXPECT_EQ(array.constData()[0], 0);
    EXPECT_THAT(heap.taken, ElementsAre(1U));
}

TEST_F(ByteArrayTest, Construction_WhenFromBytes_CopiesThemWithATerminator)
{
    std::string source("a\0b-", 4);
    const Heap heap;
    ByteArray array(source.data(), 3);
    source[0] = 'X';
    EXPECT_EQ(stateOf(array), (State{true, std::string("a\0b", 3), 4}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_THAT(heap.taken, ElementsAre(4U));
}

TEST_F(ByteArrayTest, Construction_WhenFromNoBytes_ReportsAndHasNoBuffer)
{
    char byte = 'a';
    const Heap heap;
    for (const auto& [bytes, len] :
         {std::pair<char*, int>{nullptr, 0}, {nullptr, 5}, {&byte, 0}, {&byte, -1}})
    {
        {
            ByteArray array(bytes, len);
            EXPECT_THAT(takeMessages(),
                        ElementsAre("E ERROR : append() pStr[" + pointerText(bytes) + "], len[" +
                                    std::to_string(len) + "]"));
            EXPECT_EQ(stateOf(array), kNoBuffer);
            EXPECT_EQ(array.data(), nullptr);
            EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferThere));
        }
        EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
    }
    EXPECT_THAT(heap.taken, IsEmpty());
}

TEST_F(ByteArrayTest, Construction_WhenMemoryIsShort_LetsItPropagate)
{
    ByteArray source = arrayOf("abc");
    char bytes[] = "abc";
    const NoMemory noMemory;
    EXPECT_THROW(ByteArray(), std::bad_alloc);
    EXPECT_THROW(ByteArray(bytes, 3), std::bad_alloc);
    EXPECT_THROW(ByteArray copy(source), std::bad_alloc); // NOLINT(performance-unnecessary-copy-*)
    EXPECT_EQ(stateOf(source), (State{true, "abc", 4}));
}

TEST_F(ByteArrayTest, Construction_WhenTheLengthCannotBeCounted_FailsAsAnAllocation)
{
    char byte = 'a';
    const Heap heap;
    EXPECT_THROW(ByteArray(&byte, kIntMax), std::bad_array_new_length);
    EXPECT_THAT(heap.taken, IsEmpty());
}

/* ---- Copies ---------------------------------------------------------------------------------- */

TEST_F(ByteArrayTest, Copy_WhenTheSourceHasSlack_TakesTheContentOnly)
{
    ByteArray source = arrayOf("abc");
    source.reserve(99);
    const Heap heap;
    ByteArray copy(source);
    EXPECT_EQ(stateOf(copy), (State{true, "abc", 4}));
    EXPECT_EQ(terminatorOf(copy), 0);
    EXPECT_THAT(heap.taken, ElementsAre(4U));
    copy.data()[0] = 'X';
    EXPECT_EQ(stateOf(source), (State{true, "abc", 100}));
}

TEST_F(ByteArrayTest, Copy_WhenTheSourceWasCleared_TakesTheByteBehindTheContentAsItStands)
{
    ByteArray source = arrayOf("abc");
    source.clear();
    ByteArray copy(source);
    EXPECT_EQ(stateOf(copy), (State{true, "", 1}));
    EXPECT_EQ(terminatorOf(copy), 'a');
    ByteArray target;
    target = source;
    EXPECT_EQ(terminatorOf(target), 'a');
}

TEST_F(ByteArrayTest, Copy_WhenTheSourceHasNoBuffer_ReportsTwiceAndHasNoneEither)
{
    {
        ByteArray source(nullptr, 0);
        takeMessages();
        ByteArray copy(source);
        EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferThere, kNoBufferThere));
        EXPECT_EQ(stateOf(copy), kNoBuffer);
    }
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere, kNoBufferHere));
}

TEST_F(ByteArrayTest, Move_WhenConstructed_TakesTheBufferAndLeavesNone)
{
    {
        ByteArray source = arrayOf("abc");
        source.reserve(9);
        char* const buffer = source.data();
        const Heap heap;
        ByteArray taken(std::move(source));
        EXPECT_THAT(heap.taken, IsEmpty());
        EXPECT_EQ(taken.data(), buffer);
        EXPECT_EQ(stateOf(taken), (State{true, "abc", 10}));
        // NOLINTBEGIN(bugprone-use-after-move): what it leaves is part of the contract
        EXPECT_EQ(source.length(), 0);
        EXPECT_EQ(stateOf(source), kNoBuffer);
        EXPECT_THAT(takeMessages(), IsEmpty());
        EXPECT_EQ(source.data(), nullptr);
        // NOLINTEND(bugprone-use-after-move)
        EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferThere));
    }
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
}

/** Both forms of the copy assignment behave alike. */
template <typename Source> class CopyAssignmentTest : public ByteArrayTest
{
};
using Sources = testing::Types<ByteArray&, const ByteArray&>;
class SourceNames
{
public:
    template <typename Source> static std::string GetName(int)
    {
        return std::is_const<std::remove_reference_t<Source>>::value ? "FromConst" : "FromMutable";
    }
};
TYPED_TEST_SUITE(CopyAssignmentTest, Sources, SourceNames);

TYPED_TEST(CopyAssignmentTest, Assignment_WhenTheSourceHasContent_ReleasesAndCopies)
{
    ByteArray array = arrayOf("abcdef");
    array.reserve(100);
    TypeParam source = array;
    ByteArray target = arrayOf("previous");
    const Heap heap;
    EXPECT_EQ(&(target = source), &target);
    EXPECT_THAT(heap.taken, ElementsAre(7U));
    EXPECT_EQ(heap.released, 1);
    EXPECT_EQ(stateOf(target), (State{true, "abcdef", 7}));
    EXPECT_EQ(stateOf(array), (State{true, "abcdef", 101}));
}

TYPED_TEST(CopyAssignmentTest, Assignment_WhenBothAreOne_DoesNothing)
{
    ByteArray array = arrayOf("abc");
    array.reserve(9);
    TypeParam source = array;
    const Heap heap;
    EXPECT_EQ(&(array = source), &array);
    EXPECT_THAT(heap.taken, IsEmpty());
    EXPECT_EQ(stateOf(array), (State{true, "abc", 10}));

    ByteArray none = withoutBuffer();
    TypeParam noSource = none;
    none = noSource;
    EXPECT_THAT(takeMessages(), IsEmpty());
    none = array;
}

TYPED_TEST(CopyAssignmentTest, Assignment_WhenTheSourceHasNoBuffer_ReportsTwiceAndChangesNothing)
{
    ByteArray none = withoutBuffer();
    takeMessages();
    TypeParam source = none;
    ByteArray target = arrayOf("abc");
    EXPECT_EQ(&(target = source), &target);
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferThere, kNoBufferThere));
    EXPECT_EQ(stateOf(target), (State{true, "abc", 4}));
    none = target;
}

TYPED_TEST(CopyAssignmentTest, Assignment_WhenTheTargetHasNoBuffer_GivesItOne)
{
    ByteArray array = arrayOf("abc");
    TypeParam source = array;
    ByteArray target = withoutBuffer();
    takeMessages();
    target = source;
    EXPECT_EQ(stateOf(target), (State{true, "abc", 4}));
}

TYPED_TEST(CopyAssignmentTest, Assignment_WhenMemoryIsShort_LeavesNoBuffer)
{
    ByteArray array = arrayOf("abc");
    TypeParam source = array;
    {
        ByteArray target = arrayOf("previous");
        const NoMemory noMemory;
        EXPECT_THROW(target = source, std::bad_alloc);
        EXPECT_EQ(stateOf(target), kNoBuffer);
    }
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
}

TEST_F(ByteArrayTest, MoveAssignment_WhenTheSourceHasContent_ReleasesAndTakes)
{
    {
        ByteArray source = arrayOf("abc");
        source.reserve(9);
        char* const buffer = source.data();
        ByteArray target = arrayOf("previous");
        const Heap heap;
        EXPECT_EQ(&(target = std::move(source)), &target);
        EXPECT_THAT(heap.taken, IsEmpty());
        EXPECT_EQ(heap.released, 1);
        EXPECT_EQ(target.data(), buffer);
        EXPECT_EQ(stateOf(target), (State{true, "abc", 10}));
        EXPECT_EQ(stateOf(source), kNoBuffer); // NOLINT(bugprone-use-after-move)
    }
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
}

TEST_F(ByteArrayTest, MoveAssignment_WhenEitherHasNoBuffer_SaysNothing)
{
    {
        ByteArray array = arrayOf("abc");
        ByteArray none = withoutBuffer();
        takeMessages();
        none = std::move(array);
        EXPECT_EQ(stateOf(none), (State{true, "abc", 4}));
        array = withoutBuffer(); // NOLINT(bugprone-use-after-move)
        takeMessages();
        none = std::move(array);
        EXPECT_EQ(stateOf(none), kNoBuffer);
        EXPECT_EQ(stateOf(array), kNoBuffer); // NOLINT(bugprone-use-after-move)
        EXPECT_THAT(takeMessages(), IsEmpty());
    }
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere, kNoBufferHere));
}

TEST_F(ByteArrayTest, MoveAssignment_WhenBothAreOne_DoesNothing)
{
    ByteArray array = arrayOf("abc");
    ByteArray& same = array;
    const Heap heap;
    EXPECT_EQ(&(array = std::move(same)), &array);
    EXPECT_EQ(heap.released, 0);
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
}

TEST_F(ByteArrayTest, Destruction_WhenThereIsABuffer_ReleasesItSilently)
{
    const Heap heap;
    {
        const ByteArray array;
        const ByteArray other = arrayOf("abc");
    }
    EXPECT_EQ(heap.taken.size(), 2U);
    EXPECT_EQ(heap.released, 2);
}

TEST_F(ByteArrayTest, Destruction_WhenItsThreadIsCancelledInTheReport_PutsItOff)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    support::onTrace(
        [](const std::string& text)
        {
            if (text.find("mpByteArray is NULL") != std::string::npos)
            {
                pthread_cancel(pthread_self());
                pthread_testcancel();
            }
        });
    bool hasEnded = false;
    const auto destroy = [](void* flag) -> void*
    {
        {
            const ByteArray none(nullptr, 0);
        }
        *static_cast<bool*>(flag) = true;
        pthread_testcancel();
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, destroy, &hasEnded), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_TRUE(hasEnded);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E ERROR : append() pStr[(nil)], len[0]", kNoBufferHere));
}

TEST_F(ByteArrayTest, Destruction_WhenItsThreadCannotBeCancelled_LeavesItSo)
{
    int state = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    {
        const ByteArray none(nullptr, 0);
    }
    pthread_setcancelstate(state, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
    takeMessages();
}

TEST_F(ByteArrayTest, Vector_WhenItGrows_MovesItsArrays)
{
    std::vector<ByteArray> arrays;
    arrays.reserve(1);
    arrays.emplace_back();
    const Heap heap;
    arrays.reserve(2);
    EXPECT_EQ(stateOf(arrays[0]), (State{true, "", 1}));
    EXPECT_THAT(heap.taken, IsEmpty());
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
}

/* ---- append() -------------------------------------------------------------------------------- */

TEST_F(ByteArrayTest, Append_WhenTheBytesDoNotFit_TakesExactlyWhatTheyNeed)
{
    char bytes[] = "abc";
    ByteArray array;
    const Heap heap;
    EXPECT_EQ(&array.append(bytes, 3), &array);
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_EQ(&array.append('d'), &array);
    EXPECT_EQ(stateOf(array), (State{true, "abcd", 5}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_THAT(heap.taken, ElementsAre(4U, 5U));
    EXPECT_EQ(heap.released, 2);
}

TEST_F(ByteArrayTest, Append_WhenRoomIsReserved_TakesNoMemory)
{
    char bytes[] = "efg";
    ByteArray array = arrayOf("abcd");
    array.reserve(10);
    EXPECT_EQ(stateOf(array), (State{true, "abcd", 11}));
    std::fill_n(array.data() + 4, 7, 'x');
    const Heap heap;
    array.append(bytes, 3);
    EXPECT_EQ(stateOf(array), (State{true, "abcdefg", 11}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_EQ(array.data()[8], 'x');
    array.append(bytes, 3); // the last byte is the terminator's
    EXPECT_EQ(stateOf(array), (State{true, "abcdefgefg", 11}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_THAT(heap.taken, IsEmpty());
    array.append('h');
    EXPECT_EQ(stateOf(array), (State{true, "abcdefgefgh", 12}));
    EXPECT_THAT(heap.taken, ElementsAre(12U));
}

TEST_F(ByteArrayTest, Append_WhenTheArrayWasCleared_WritesTheTerminator)
{
    ByteArray array = arrayOf("abcdef");
    array.clear();
    array.append('X');
    EXPECT_EQ(stateOf(array), (State{true, "X", 7}));
    EXPECT_STREQ(array.constData(), "X");
}

TEST_F(ByteArrayTest, Append_WhenThereAreNoBytes_WarnsAndChangesNothing)
{
    char byte = 'x';
    ByteArray array = arrayOf("abc");
    EXPECT_EQ(&array.append(nullptr, 5), &array);
    EXPECT_EQ(&array.append(&byte, 0), &array);
    EXPECT_EQ(&array.append(&byte, -1), &array);
    EXPECT_EQ(&array.append(&byte, kIntMin), &array);
    EXPECT_THAT(takeMessages(), ElementsAre(warning(nullptr, 5), warning(&byte, 0),
                                            warning(&byte, -1), warning(&byte, kIntMin)));
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
    array.reserve(20); // room makes no difference
    array.append(nullptr, 5).append(&byte, 0).append(&byte, -1);
    EXPECT_THAT(takeMessages(),
                ElementsAre(warning(nullptr, 5), warning(&byte, 0), warning(&byte, -1)));
    EXPECT_EQ(stateOf(array), (State{true, "abc", 21}));
}

TEST_F(ByteArrayTest, Append_WhenThereIsNoBuffer_ReportsBehindTheCheckOfTheBytes)
{
    char bytes[] = "abc";
    char empty[] = "";
    {
        ByteArray array = withoutBuffer();
        takeMessages();
        EXPECT_EQ(&array.append(nullptr, 5), &array);
        EXPECT_THAT(takeMessages(), ElementsAre(warning(nullptr, 5)));
        EXPECT_EQ(&array.append(bytes, 3), &array);
        EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
        EXPECT_EQ(&array.append('x'), &array);
        EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
        EXPECT_EQ(&array.append(static_cast<char*>(nullptr)), &array);
        EXPECT_THAT(takeMessages(), ElementsAre("E WARNING : append() pStr is NULL"));
        EXPECT_EQ(&array.append(empty), &array);
        EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
        EXPECT_EQ(&array.append(bytes), &array);
        EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
        EXPECT_EQ(stateOf(array), kNoBuffer);
    }
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
}

TEST_F(ByteArrayTest, Append_WhenGivenAText_AddsItWithoutItsZero)
{
    char text[] = "def\0ghi";
    ByteArray array = arrayOf("abc");
    EXPECT_EQ(&array.append(text), &array);
    EXPECT_EQ(stateOf(array), (State{true, "abcdef", 7}));
}

TEST_F(ByteArrayTest, Append_WhenTheTextIsNullOrEmpty_WarnsAndChangesNothing)
{
    char empty[] = "";
    ByteArray array = arrayOf("abc");
    EXPECT_EQ(&array.append(static_cast<char*>(nullptr)), &array);
    EXPECT_EQ(&array.append(empty), &array);
    EXPECT_THAT(takeMessages(),
                ElementsAre("E WARNING : append() pStr is NULL", "E WARNING : len is 0"));
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
}

TEST_F(ByteArrayTest, Append_WhenTheTextIsLongerThanAnInt_FailsAsAnAllocation)
{
    char text[] = "a";
    ByteArray array = arrayOf("abc");
    for (const std::size_t length : {std::size_t{1} << 31, (std::size_t{1} << 32) + 1})
    {
        const ScopedHook fault(&Hooks::strlen, [length](const char*) { return length; });
        EXPECT_THROW(array.append(text), std::bad_array_new_length);
    }
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
}

TEST_F(ByteArrayTest, Append_WhenGivenAZeroByte_AddsIt)
{
    ByteArray array = arrayOf("abc");
    array.append('\0').append('\xff');
    EXPECT_EQ(stateOf(array), (State{true, std::string("abc\0\xff", 5), 6}));
}

TEST_F(ByteArrayTest, Append_WhenGivenAnArray_AddsItsContent)
{
    ByteArray array = arrayOf("abc");
    ByteArray other = arrayOf("def");
    other.reserve(99);
    EXPECT_EQ(&array.append(other), &array);
    EXPECT_EQ(stateOf(array), (State{true, "abcdef", 7}));
    EXPECT_EQ(stateOf(other), (State{true, "def", 100}));
}

TEST_F(ByteArrayTest, Append_WhenGivenItself_DoublesTheContent)
{
    ByteArray array = arrayOf("abc");
    array.append(array);
    EXPECT_EQ(stateOf(array), (State{true, "abcabc", 7}));
    array.reserve(20);
    const Heap heap;
    array.append(array);
    EXPECT_EQ(stateOf(array), (State{true, "abcabcabcabc", 21}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_THAT(heap.taken, IsEmpty());
}

TEST_F(ByteArrayTest, Append_WhenTheBytesAreItsOwn_AddsThemAsTheyWere)
{
    ByteArray array = arrayOf("abcdef");
    array.append(array.data() + 2, 3); // behind which the buffer is another one
    EXPECT_EQ(stateOf(array), (State{true, "abcdefcde", 10}));
    array.reserve(20);
    array.append(array.data() + 2, 3);
    EXPECT_EQ(stateOf(array), (State{true, "abcdefcdecde", 21}));
    array.data()[13] = '!';
    array.append(array.data() + 10, 4); // reaches into what is being written
    EXPECT_EQ(stateOf(array), (State{true, std::string("abcdefcdecdede\0!", 16), 21}));
    EXPECT_EQ(terminatorOf(array), 0);
}

TEST_F(ByteArrayTest, Append_WhenGivenAnEmptyArray_Warns)
{
    ByteArray array = arrayOf("abc");
    ByteArray empty;
    EXPECT_EQ(&array.append(empty), &array);
    EXPECT_THAT(takeMessages(), ElementsAre(warning(empty.data(), 0)));
    EXPECT_EQ(&empty.append(empty), &empty);
    EXPECT_THAT(takeMessages(), ElementsAre(warning(empty.data(), 0)));
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
}

TEST_F(ByteArrayTest, Append_WhenGivenAnArrayWithoutBuffer_ReportsAndWarns)
{
    ByteArray array = arrayOf("abc");
    ByteArray none = withoutBuffer();
    takeMessages();
    EXPECT_EQ(&array.append(none), &array);
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferThere, warning(nullptr, 0)));
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
    none = array;
}

TEST_F(ByteArrayTest, Append_WhenMemoryIsShort_PropagatesAndChangesNothing)
{
    char text[] = "def";
    ByteArray array = arrayOf("abc");
    const NoMemory noMemory;
    EXPECT_THROW(array.append(text, 3), std::bad_alloc);
    EXPECT_THROW(array.append(text), std::bad_alloc);
    EXPECT_THROW(array.append('d'), std::bad_alloc);
    EXPECT_THROW(array.append(array), std::bad_alloc);
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
    EXPECT_EQ(terminatorOf(array), 0);
}

TEST_F(ByteArrayTest, Append_WhenTheSumCannotBeCounted_FailsAsAnAllocationAndChangesNothing)
{
    char byte = 'x';
    ByteArray array = arrayOf("abc");
    const Heap heap;
    EXPECT_THROW(array.append(&byte, unforeseen(kIntMax)), std::bad_array_new_length);
    EXPECT_THROW(array.append(&byte, unforeseen(kIntMax - 3)), std::bad_array_new_length);
    EXPECT_THAT(heap.taken, IsEmpty());
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
}

TEST_F(ByteArrayTest, Append_WhenTheSumIsTheLargestInt_AsksTheAllocator)
{
    char byte = 'x';
    ByteArray array = arrayOf("abc");
    std::size_t asked = 0;
    const ScopedHook fault(&Hooks::newArray,
                           [&asked](std::size_t size) -> void*
                           {
                               asked = size;
                               throw std::bad_alloc();
                           });
    EXPECT_THROW(array.append(&byte, unforeseen(kIntMax - 4)), std::bad_alloc);
    EXPECT_EQ(asked, static_cast<std::size_t>(kIntMax));
}

/* ---- clear() and length() -------------------------------------------------------------------- */

TEST_F(ByteArrayTest, Clear_WhenTheBufferHas1024Bytes_KeepsItAndItsBytes)
{
    ByteArray array = arrayOf(std::string(1023, 'a'));
    const char* const buffer = array.constData();
    const Heap heap;
    array.clear();
    EXPECT_EQ(stateOf(array), (State{true, "", 1024}));
    EXPECT_EQ(array.constData(), buffer);
    EXPECT_EQ(std::string(buffer, 1024), std::string(1023, 'a') + '\0');
    EXPECT_THAT(heap.taken, IsEmpty());
    EXPECT_EQ(heap.released, 0);
}

TEST_F(ByteArrayTest, Clear_WhenTheBufferHas1025Bytes_LeavesASingleByte)
{
    ByteArray array = arrayOf(std::string(1024, 'a'));
    char byte = 'b';
    {
        // What the new buffer holds is not touched.
        const ScopedHook mark(&Hooks::newArray,
                              [](std::size_t size)
                              {
                                  EXPECT_EQ(size, 1U);
                                  void* const block = support::real::newArray(size);
                                  *static_cast<char*>(block) = '?';
                                  return block;
                              });
        array.clear();
    }
    EXPECT_EQ(stateOf(array), (State{true, "", 1}));
    EXPECT_EQ(terminatorOf(array), '?');
    array.append(&byte, 1);
    EXPECT_EQ(stateOf(array), (State{true, "b", 2}));
}

TEST_F(ByteArrayTest, Clear_WhenTheBufferIsLarge_ReleasesItBeforeTheNextIsTaken)
{
    ByteArray array = arrayOf(std::string(1024, 'a'));
    std::vector<std::string> order;
    const ScopedHook take(&Hooks::newArray,
                          [&order](std::size_t size)
                          {
                              order.emplace_back("take");
                              return support::real::newArray(size);
                          });
    const ScopedHook release(&Hooks::deleteArray,
                             [&order](void* block)
                             {
                                 order.emplace_back("release");
                                 support::real::deleteArray(block);
                             });
    array.clear();
    EXPECT_THAT(order, ElementsAre("release", "take"));
}

TEST_F(ByteArrayTest, Clear_WhenNotEvenAByteIsLeft_LeavesNoBuffer)
{
    {
        ByteArray array = arrayOf(std::string(1024, 'a'));
        const NoMemory noMemory;
        EXPECT_THROW(array.clear(), std::bad_alloc);
        EXPECT_EQ(stateOf(array), kNoBuffer);
        EXPECT_THAT(takeMessages(), IsEmpty());
    }
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
}

TEST_F(ByteArrayTest, Clear_WhenThereIsNoBuffer_SetsTheLengthAndReports)
{
    ByteArray array = withoutBuffer();
    takeMessages();
    Fields::usedSize(array) = 5;
    array.clear();
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferHere));
    EXPECT_EQ(stateOf(array), kNoBuffer);
    array = arrayOf("x");
    takeMessages();
}

TEST_F(ByteArrayTest, Length_WhenAsked_IsTheUsedSizeByBothNames)
{
    ByteArray array = arrayOf("abc");
    array.reserve(99);
    EXPECT_EQ(array.length(), 3);
    EXPECT_EQ(array.getUsedSize(), 3);
    ByteArray none = withoutBuffer();
    takeMessages();
    EXPECT_EQ(none.length(), 0);
    EXPECT_EQ(none.getUsedSize(), 0);
    none = array;
}

/* ---- resize() -------------------------------------------------------------------------------- */

TEST_F(ByteArrayTest, Resize_WhenShrinking_KeepsTheBuffer)
{
    ByteArray array = arrayOf("abcdef");
    const Heap heap;
    array.resize(2);
    EXPECT_EQ(stateOf(array), (State{true, "ab", 7}));
    EXPECT_EQ(std::string(array.constData(), 7), std::string("ab\0def\0", 7));
    array.resize(0);
    EXPECT_EQ(stateOf(array), (State{true, "", 7}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_THAT(heap.taken, IsEmpty());
}

TEST_F(ByteArrayTest, Resize_WhenTheSizeIsThePresentOne_WritesTheTerminator)
{
    ByteArray array = arrayOf("abc");
    array.clear();
    const Heap heap;
    array.resize(0);
    EXPECT_STREQ(array.constData(), "");
    EXPECT_EQ(stateOf(array), (State{true, "", 4}));
    EXPECT_THAT(heap.taken, IsEmpty());
}

TEST_F(ByteArrayTest, Resize_WhenTheSizeIsNegative_DoesNothing)
{
    ByteArray array = arrayOf("abc");
    array.resize(-1);
    array.resize(kIntMin);
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
    EXPECT_EQ(terminatorOf(array), 0);
}

TEST_F(ByteArrayTest, Resize_WhenGrowing_LeavesTheNewBytesUnset)
{
    ByteArray array = arrayOf("ab");
    const Heap heap;
    {
        const ScopedHook mark(&Hooks::newArray,
                              [](std::size_t size)
                              {
                                  EXPECT_EQ(size, 11U);
                                  void* const block = support::real::newArray(size);
                                  std::fill_n(static_cast<char*>(block), size, '?');
                                  return block;
                              });
        array.resize(10);
    }
    EXPECT_EQ(stateOf(array), (State{true, "ab????????", 11}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_EQ(heap.released, 1);
}

TEST_F(ByteArrayTest, Resize_WhenGrowingWithinTheBuffer_TakesANewOneAllTheSame)
{
    ByteArray array = arrayOf("ab");
    array.reserve(99);
    const Heap heap;
    array.resize(3);
    EXPECT_THAT(heap.taken, ElementsAre(4U));
    EXPECT_EQ(heap.released, 1);
    EXPECT_EQ(array.length(), 3);
    EXPECT_EQ(std::string(array.data(), 2), "ab");
    EXPECT_EQ(Fields::allocSize(array), 4);
    EXPECT_EQ(terminatorOf(array), 0);
}

TEST_F(ByteArrayTest, Resize_WhenThereIsNoBuffer_ReportsAndChangesNothing)
{
    ByteArray array = withoutBuffer();
    for (const int size : {5, 0, -1})
    {
        takeMessages();
        array.resize(size);
        EXPECT_THAT(takeMessages(), ElementsAre("E resize error : mpByteArray is NULL"));
        EXPECT_EQ(stateOf(array), kNoBuffer);
    }
    array = arrayOf("x");
    takeMessages();
}

TEST_F(ByteArrayTest, Resize_WhenMemoryIsShort_ReportsAndTakesTheCapacityForNothing)
{
    char bytes[] = "xy";
    ByteArray array = arrayOf("abcdef");
    const char* const buffer = array.constData();
    {
        const NoMemory noMemory;
        array.resize(10);
    }
    EXPECT_THAT(takeMessages(), ElementsAre("E resize error : std::bad_alloc"));
    EXPECT_EQ(stateOf(array), (State{true, "abcdef", 0}));
    EXPECT_EQ(array.constData(), buffer);
    EXPECT_EQ(terminatorOf(array), 0);

    array.resize(2);
    EXPECT_EQ(stateOf(array), (State{true, "abcdef", 0}));
    ByteArray slice = array.mid(0, 2);
    EXPECT_THAT(takeMessages(), ElementsAre("E mid error : pos >= mAllocSize"));
    EXPECT_EQ(stateOf(slice), (State{true, "", 1}));
    ByteArray copy(array);
    EXPECT_EQ(stateOf(copy), (State{true, "abcdef", 7}));
    array.append(bytes, 2);
    EXPECT_EQ(stateOf(array), (State{true, "abcdefxy", 9}));
}

TEST_F(ByteArrayTest, Resize_WhenTheCapacityIsReset_AfterTheReport)
{
    ByteArray array = arrayOf("abc");
    int reported = -1;
    support::onTrace([&](const std::string&) { reported = Fields::allocSize(array); });
    {
        const NoMemory noMemory;
        array.resize(10);
    }
    support::onTrace(nullptr);
    EXPECT_EQ(reported, 4);
    EXPECT_THAT(takeMessages(), ElementsAre("E resize error : std::bad_alloc"));
}

TEST_F(ByteArrayTest, Resize_WhenTheSizeCannotBeCounted_FailsAsAnAllocation)
{
    ByteArray array = arrayOf("abc");
    const Heap heap;
    array.resize(kIntMax);
    EXPECT_THAT(takeMessages(), ElementsAre("E resize error : std::bad_array_new_length"));
    EXPECT_EQ(stateOf(array), (State{true, "abc", 0}));
    EXPECT_THAT(heap.taken, IsEmpty());
}

/* ---- reserve() ------------------------------------------------------------------------------- */

TEST_F(ByteArrayTest, Reserve_WhenAboveTheCapacity_KeepsTheContent)
{
    ByteArray array = arrayOf(std::string("a\0c", 3));
    array.clear();
    array.resize(0);
    array.append('x').append('\0').append('z');
    const Heap heap;
    array.reserve(5);
    EXPECT_EQ(stateOf(array), (State{true, std::string("x\0z", 3), 6}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_THAT(heap.taken, ElementsAre(6U));
    EXPECT_EQ(heap.released, 1);
}

TEST_F(ByteArrayTest, Reserve_WhenTheArrayWasCleared_WritesTheTerminator)
{
    ByteArray array = arrayOf("abc");
    array.clear();
    array.reserve(9);
    EXPECT_EQ(terminatorOf(array), 0);
}

TEST_F(ByteArrayTest, Reserve_WhenNotAboveTheCapacity_ReportsAndChangesNothing)
{
    ByteArray array = arrayOf("abc");
    const Heap heap;
    for (const int size : {4, 3, 0, -1, kIntMin})
    {
        array.reserve(size);
        EXPECT_THAT(takeMessages(), ElementsAre("E reserve error : size error"));
        EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
    }
    EXPECT_THAT(heap.taken, IsEmpty());
    array.reserve(5);
    EXPECT_EQ(stateOf(array), (State{true, "abc", 6}));
}

TEST_F(ByteArrayTest, Reserve_WhenThereIsNoBuffer_ReportsThatFirst)
{
    ByteArray array = withoutBuffer();
    for (const int size : {5, 0})
    {
        takeMessages();
        array.reserve(size);
        EXPECT_THAT(takeMessages(), ElementsAre("E reserve error : mpByteArray is NULL"));
        EXPECT_EQ(stateOf(array), kNoBuffer);
    }
    array = arrayOf("x");
    takeMessages();
}

TEST_F(ByteArrayTest, Reserve_WhenTheLengthIsNegative_ReportsThatBehindTheSize)
{
    ByteArray array = arrayOf("abc");
    Fields::usedSize(array) = -1;
    const Heap heap;
    array.reserve(4);
    EXPECT_THAT(takeMessages(), ElementsAre("E reserve error : size error"));
    array.reserve(9);
    EXPECT_THAT(takeMessages(), ElementsAre("E reserve error : mUsedSize < 0"));
    EXPECT_THAT(heap.taken, IsEmpty());
    Fields::usedSize(array) = 3;
    EXPECT_EQ(stateOf(array), (State{true, "abc", 4}));
}

TEST_F(ByteArrayTest, Reserve_WhenMemoryIsShort_ReportsAndCountsTheRoomAsThere)
{
    ByteArray array = arrayOf("abc");
    const char* const buffer = array.constData();
    int reported = -1;
    support::onTrace([&](const std::string&) { reported = Fields::allocSize(array); });
    {
        const NoMemory noMemory;
        array.reserve(10);
    }
    support::onTrace(nullptr);
    EXPECT_EQ(reported, 11);
    EXPECT_THAT(takeMessages(), ElementsAre("E reserve error : std::bad_alloc"));
    EXPECT_EQ(stateOf(array), (State{true, "abc", 11}));
    EXPECT_EQ(array.constData(), buffer);
    EXPECT_EQ(terminatorOf(array), 0);
}

TEST_F(ByteArrayTest, Reserve_WhenItHasFailed_AppendsTakeTheRoomThatWasPromised)
{
    ByteArray array = arrayOf("abc");
    {
        const NoMemory noMemory;
        array.reserve(10);
        takeMessages();
        EXPECT_THROW(array.append('d'), std::bad_alloc);
        EXPECT_EQ(stateOf(array), (State{true, "abc", 11}));
    }
    const Heap heap;
    array.append('d');
    EXPECT_EQ(stateOf(array), (State{true, "abcd", 11}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_THAT(heap.taken, ElementsAre(11U));
    EXPECT_EQ(heap.released, 1);
    for (int i = 0; i < 6; ++i)
    {
        array.append('e');
    }
    EXPECT_EQ(stateOf(array), (State{true, "abcdeeeeee", 11}));
    EXPECT_EQ(heap.taken.size(), 1U);
}

TEST_F(ByteArrayTest, Reserve_WhenItHasFailed_WhatFitsTheOldBufferGoesThere)
{
    ByteArray array = arrayOf("abc");
    array.clear();
    {
        const NoMemory noMemory;
        array.reserve(10);
        takeMessages();
        array.append('x');
    }
    EXPECT_EQ(stateOf(array), (State{true, "x", 11}));
}

TEST_F(ByteArrayTest, Reserve_WhenItHasFailed_WhatDoesNotFitThePromiseTakesItsOwnRoom)
{
    char bytes[] = "defghijkl";
    ByteArray array = arrayOf("abc");
    {
        const NoMemory noMemory;
        array.reserve(10);
        takeMessages();
    }
    array.append(bytes, 8); // its terminator does not
    EXPECT_EQ(stateOf(array), (State{true, "abcdefghijk", 12}));
}

TEST_F(ByteArrayTest, Reserve_WhenItHasFailed_SlicesBehindTheOldBufferAreZeros)
{
    ByteArray array = arrayOf("abc");
    {
        const NoMemory noMemory;
        array.reserve(10);
        takeMessages();
    }
    ByteArray slice = array.mid(2);
    EXPECT_EQ(stateOf(slice), (State{true, std::string("c\0\0", 3), 4}));
    slice = array.mid(9);
    EXPECT_EQ(stateOf(slice), (State{true, std::string("\0\0\0", 3), 4}));
    takeMessages(); // of the arrays that were taken over
}

TEST_F(ByteArrayTest, Reserve_WhenItFollowsAFailedResize_KeepsContentThatIsLonger)
{
    ByteArray array = arrayOf("abcdef");
    {
        const NoMemory noMemory;
        array.resize(10);
        takeMessages();
    }
    array.reserve(0);
    EXPECT_THAT(takeMessages(), ElementsAre("E reserve error : size error"));
    const Heap heap;
    array.reserve(2);
    EXPECT_EQ(stateOf(array), (State{true, "abcdef", 3}));
    EXPECT_EQ(terminatorOf(array), 0);
    EXPECT_THAT(heap.taken, ElementsAre(7U));
    ByteArray slice = array.mid(2, 4);
    EXPECT_EQ(stateOf(slice), (State{true, "cdef", 5}));
    array.append('g');
    EXPECT_EQ(stateOf(array), (State{true, "abcdefg", 8}));
}

TEST_F(ByteArrayTest, Reserve_WhenItFailsBehindAFailedResize_CountsLessThanTheBufferHas)
{
    ByteArray array = arrayOf("abcdef");
    array.reserve(99);
    {
        const NoMemory noMemory;
        array.resize(200);
        array.reserve(6);
        takeMessages();
    }
    EXPECT_EQ(stateOf(array), (State{true, "abcdef", 7}));
    array.append('g');
    EXPECT_EQ(stateOf(array), (State{true, "abcdefg", 8}));
}

TEST_F(ByteArrayTest, Reserve_WhenTheSizeCannotBeCounted_FailsAsAnAllocation)
{
    ByteArray array = arrayOf("abc");
    const Heap heap;
    array.reserve(kIntMax);
    EXPECT_THAT(takeMessages(), ElementsAre("E reserve error : std::bad_array_new_length"));
    EXPECT_EQ(stateOf(array), (State{true, "abc", kIntMin}));
    EXPECT_THAT(heap.taken, IsEmpty());
    array.reserve(-5);
    EXPECT_THAT(takeMessages(), ElementsAre("E reserve error : std::bad_array_new_length"));
    EXPECT_EQ(stateOf(array), (State{true, "abc", -4}));
    array.append('d');
    EXPECT_EQ(stateOf(array), (State{true, "abcd", 5}));
}

TEST_F(ByteArrayTest, Reserve_WhenTheSizeCannotBeCounted_TheNextAppendTakesItsOwnRoom)
{
    char bytes[] = "defg";
    ByteArray array = arrayOf("abc");
    array.reserve(kIntMax);
    takeMessages();
    array.append(bytes, 4);
    EXPECT_EQ(stateOf(array), (State{true, "abcdefg", 8}));
}

/* ---- data() ---------------------------------------------------------------------------------- */

TEST_F(ByteArrayTest, Data_WhenThereIsABuffer_IsThatForReadingAndWriting)
{
    ByteArray array = arrayOf("abc");
    EXPECT_EQ(array.data(), Fields::buffer(array));
    EXPECT_EQ(array.constData(), Fields::buffer(array));
    array.data()[1] = 'X';
    EXPECT_STREQ(array.constData(), "aXc");
}

TEST_F(ByteArrayTest, Data_WhenThereIsNoBuffer_ReportsAndIsNull)
{
    ByteArray array = withoutBuffer();
    takeMessages();
    EXPECT_EQ(array.data(), nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferThere));
    EXPECT_EQ(array.constData(), nullptr);
    EXPECT_THAT(takeMessages(), ElementsAre(kNoBufferThere));
    array = arrayOf("x");
    takeMessages();
}

/* ---- mid() ----------------------------------------------------------------------------------- */

TEST_F(ByteArrayTest, Mid_WhenInsideTheContent_CopiesWhatIsAskedFor)
{
    ByteArray array = arrayOf("abcdef");
    array.reserve(99);
    const Heap heap;
    ByteArray slice = array.mid(1, 2);
    EXPECT_EQ(stateOf(slice), (State{true, "bc", 3}));
    EXPECT_EQ(terminatorOf(slice), 0);
    EXPECT_THAT(heap.taken, ElementsAre(3U)); // no empty array in between
    slice.data()[0] = 'X';
    EXPECT_EQ(stateOf(array), (State{true, "abcdef", 100}));
}

TEST_F(ByteArrayTest, Mid_WhenPastTheContent_IsCutAtItsEnd)
{
    ByteArray array = arrayOf("abcdef");
    ByteArray cut = array.mid(4, 10);
    ByteArray exact = array.mid(4, 2);
    ByteArray all = array.mid(0, 7);
    ByteArray most = array.mid(5, kIntMax);
    EXPECT_EQ(stateOf(cut), (State{true, "ef", 3}));
    EXPECT_EQ(stateOf(exact), (State{true, "ef", 3}));
    EXPECT_EQ(stateOf(all), (State{true, "abcdef", 7}));
    EXPECT_EQ(stateOf(most), (State{true, "f", 2}));
    EXPECT_EQ(terminatorOf(cut), 0);
}

TEST_F(ByteArrayTest, Mid_WhenNoByteIsLeft_WarnsAndIsEmpty)
{
    ByteArray array = arrayOf("abcdef");
    ByteArray slice = array.mid(6, 1);
    EXPECT_THAT(takeMessages(), ElementsAre(warning(array.data() + 6, 0)));
    EXPECT_EQ(stateOf(slice), (State{true, "", 1}));
    EXPECT_EQ(terminatorOf(slice), 0);

    array.reserve(20);
    slice = array.mid(15, 2);
    EXPECT_THAT(takeMessages(), ElementsAre(warning(array.data() + 15, -9), kNoBufferHere));
    EXPECT_EQ(stateOf(slice), (State{true, "", 1}));
}

TEST_F(ByteArrayTest, Mid_WhenNoByteIsAskedFor_WarnsAndIsEmpty)
{
    ByteArray array = arrayOf("abcdef");
    ByteArray none = array.mid(2, 0);
    EXPECT_THAT(takeMessages(), ElementsAre(warning(array.data() + 2, 0)));
    EXPECT_EQ(stateOf(none), (State{true, "", 1}));
    ByteArray negative = array.mid(2, -2);
    EXPECT_THAT(takeMessages(), ElementsAre(warning(array.data() + 2, -2)));
    EXPECT_EQ(stateOf(negative), (State{true, "", 1}));
    ByteArray least = array.mid(2, kIntMin);
    EXPECT_THAT(takeMessages(), ElementsAre(warning(array.data() + 2, kIntMin)));
    EXPECT_EQ(stateOf(least), (State{true, "", 1}));
}

TEST_F(ByteArrayTest, Mid_WhenThePositionIsOutside_ReportsAndIsEmpty)
{
    ByteArray array = arrayOf("abcdef");
    ByteArray behind = array.mid(7, 1);
    EXPECT_THAT(takeMessages(), ElementsAre("E mid error : pos >= mAllocSize"));
    EXPECT_EQ(stateOf(behind), (State{true, "", 1}));
    EXPECT_EQ(terminatorOf(behind), 0);
    ByteArray inFront = array.mid(-1, 1);
    EXPECT_THAT(takeMessages(), ElementsAre("E mid error : pos < 0"));
    EXPECT_EQ(stateOf(inFront), (State{true, "", 1}));
    ByteArray farBehind = array.mid(kIntMax);
    EXPECT_THAT(takeMessages(), ElementsAre("E mid error : pos >= mAllocSize"));
    EXPECT_EQ(stateOf(farBehind), (State{true, "", 1}));
    ByteArray farInFront = array.mid(kIntMin);
    EXPECT_THAT(takeMessages(), ElementsAre("E mid error : pos < 0"));
    EXPECT_EQ(stateOf(farInFront), (State{true, "", 1}));
}

TEST_F(ByteArrayTest, Mid_WhenSeveralChecksFail_ReportsTheFirst)
{
    ByteArray none = withoutBuffer();
    for (const int position : {0, -1, 5})
    {
        takeMessages();
        ByteArray slice = none.mid(position, 1);
        EXPECT_THAT(takeMessages(), ElementsAre("E mid error : mpByteArray is NULL"));
        EXPECT_EQ(stateOf(slice), (State{true, "", 1}));
    }
    none = arrayOf("abc");
    none.reserve(kIntMax); // whose capacity is below every position
    takeMessages();
    const ByteArray slice = none.mid(-1, 1);
    EXPECT_THAT(takeMessages(), ElementsAre("E mid error : pos >= mAllocSize"));
}

TEST_F(ByteArrayTest, Mid_WhenWithoutLength_CopiesTheWholeLengthFromThere)
{
    ByteArray array = arrayOf("abcdef");
    array.reserve(9);
    std::string behind = "wxy";
    std::copy(behind.begin(), behind.end(), array.data() + 7);
    ByteArray all = array.mid(0);
    EXPECT_EQ(stateOf(all), (State{true, "abcdef", 7}));
    ByteArray shifted = array.mid(2);
    EXPECT_EQ(stateOf(shifted), (State{true, std::string("cdef\0w", 6), 7}));
    EXPECT_EQ(terminatorOf(shifted), 0);
    ByteArray same = array.mid(2, -1);
    EXPECT_EQ(stateOf(same), stateOf(shifted));
}

TEST_F(ByteArrayTest, Mid_WhenWithoutLengthReachesPastTheBuffer_IsFilledUpWithZeros)
{
    ByteArray array = arrayOf("abcdef");
    ByteArray one = array.mid(1);
    EXPECT_EQ(stateOf(one), (State{true, std::string("bcdef\0", 6), 7}));
    ByteArray slice = array.mid(4);
    EXPECT_EQ(stateOf(slice), (State{true, std::string("ef\0\0\0\0", 6), 7}));
    EXPECT_EQ(terminatorOf(slice), 0);
    ByteArray last = array.mid(6);
    EXPECT_EQ(stateOf(last), (State{true, std::string(6, '\0'), 7}));
}

TEST_F(ByteArrayTest, Mid_WhenWithoutLengthOfAnEmptyArray_Warns)
{
    ByteArray array;
    ByteArray slice = array.mid(0);
    EXPECT_THAT(takeMessages(), ElementsAre(warning(array.data(), 0)));
    EXPECT_EQ(stateOf(slice), (State{true, "", 1}));
}

TEST_F(ByteArrayTest, Mid_WhenMemoryIsShort_PropagatesWithoutAReport)
{
    ByteArray array = arrayOf("abcdef");
    const NoMemory noMemory;
    EXPECT_THROW(array.mid(1, 2), std::bad_alloc);
    EXPECT_THROW(array.mid(6, 1), std::bad_alloc);
    EXPECT_THROW(array.mid(-1, 1), std::bad_alloc);
    EXPECT_THROW(array.mid(7), std::bad_alloc);
    EXPECT_EQ(stateOf(array), (State{true, "abcdef", 7}));
}

TEST_F(ByteArrayTest, Mid_WhenItsThreadIsCancelledInAReport_LosesNoMemory)
{
    KORVANE_SKIP_CANCELLATION_UNDER_ASAN();
    for (const int position : {3, -1}) // which are a warning and an error
    {
        pthread_t thread{};
        struct Work
        {
            int position;
            std::size_t taken = 0;
            std::size_t released = 0;
        } work{position};
        support::onTrace(
            [](const std::string&)
            {
                pthread_cancel(pthread_self());
                pthread_testcancel();
            });
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void* argument) -> void*
                      {
                          auto* const here = static_cast<Work*>(argument);
                          const Heap heap;
                          struct Count
                          {
                              const Heap& heap;
                              Work& work;
                              ~Count()
                              {
                                  work.taken = heap.taken.size();
                                  work.released = static_cast<std::size_t>(heap.released);
                              }
                          } const count{heap, *here};
                          ByteArray array = arrayOf("abc");
                          array.mid(here->position, 1);
                          return nullptr;
                      },
                      &work),
                  0);
        void* result = nullptr;
        ASSERT_EQ(pthread_join(thread, &result), 0);
        support::onTrace(nullptr);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_EQ(work.taken, 2U);
        EXPECT_EQ(work.released, 2U);
        EXPECT_EQ(takeMessages().size(), 1U);
    }
}

/* ---- Silence --------------------------------------------------------------------------------- */

TEST_F(ByteArrayTest, Operations_WhenSilent_FailTheSame)
{
    setLogLevel(91);
    char byte = 'x';
    ByteArray none(nullptr, 0);
    ByteArray copy(none);
    none.append(&byte, 1).append(&byte, 0).append(none).append(static_cast<char*>(nullptr));
    none.clear();
    none.resize(3);
    none.reserve(3);
    EXPECT_EQ(none.data(), nullptr);
    EXPECT_EQ(stateOf(none), kNoBuffer);
    EXPECT_EQ(stateOf(copy), kNoBuffer);
    ByteArray slice = none.mid(0, 1);
    EXPECT_EQ(stateOf(slice), (State{true, "", 1}));
    const NoMemory noMemory;
    slice.reserve(5);
    EXPECT_EQ(stateOf(slice), (State{true, "", 6}));
    slice.resize(5);
    EXPECT_EQ(stateOf(slice), (State{true, "", 0}));
}

/* ---- Model ----------------------------------------------------------------------------------- */

/** An array in a few obvious lines. What it throws and what it refuses, it leaves unchanged. */
struct Model
{
    bool hasBuffer = true;
    std::string content;
    std::int64_t counted = 1; // mAllocSize
    std::int64_t held = 1;    // what the buffer has

    std::int64_t used() const
    {
        return static_cast<std::int64_t>(content.size());
    }
    void lose()
    {
        *this = Model{false, "", 0, 0};
    }
    void hold(std::int64_t size)
    {
        counted = held = size;
    }
    /** @return whether std::bad_alloc leaves it. */
    bool append(const std::string& bytes, bool isMemoryShort)
    {
        const auto len = static_cast<std::int64_t>(bytes.size());
        if (!hasBuffer || len == 0)
        {
            return false;
        }
        const bool isPromised = counted - used() > len;
        if (!isPromised || held - used() <= len)
        {
            if (isMemoryShort)
            {
                return true;
            }
            hold(isPromised ? counted : used() + len + 1);
        }
        content += bytes;
        return false;
    }
    bool assign(const Model& other, bool isMemoryShort)
    {
        if (this == &other || !other.hasBuffer)
        {
            return false;
        }
        if (isMemoryShort)
        {
            lose();
            return true;
        }
        *this = other;
        hold(used() + 1);
        return false;
    }
    bool clear(bool isMemoryShort)
    {
        content.clear();
        if (!hasBuffer || counted <= 1024)
        {
            return false;
        }
        hold(1);
        if (isMemoryShort)
        {
            lose();
        }
        return isMemoryShort;
    }
    void resize(std::int64_t size, bool isMemoryShort)
    {
        if (!hasBuffer || (size <= used() && (size < 0 || size >= counted)))
        {
            return;
        }
        if (size > used())
        {
            if (isMemoryShort)
            {
                counted = 0;
                return;
            }
            hold(size + 1);
        }
        content.resize(static_cast<std::size_t>(size), '?');
    }
    void reserve(std::int64_t size, bool isMemoryShort)
    {
        if (!hasBuffer || counted >= size)
        {
            return;
        }
        counted = size + 1;
        if (!isMemoryShort)
        {
            held = std::max(counted, used() + 1);
        }
    }
};

class ByteArrayModelTest : public ByteArrayTest, public testing::WithParamInterface<unsigned>
{
protected:
    int upTo(int most)
    {
        return std::uniform_int_distribution<int>(0, most)(mRandom);
    }
    std::string bytes(int most)
    {
        std::string text(static_cast<std::size_t>(upTo(most)), '\0');
        std::generate(text.begin(), text.end(), [&] { return static_cast<char>(upTo(255)); });
        return text;
    }
    void step();
    void checkSlice(ByteArray& array, const Model& model, int position, int len);

    std::minstd_rand mRandom{GetParam()};
    std::array<ByteArray, 3> mArrays;
    std::array<Model, 3> mModels;
    bool mIsMemoryShort = false;
};

/** Compares with the array's own bytes, as far as it holds any. */
void ByteArrayModelTest::checkSlice(ByteArray& array, const Model& model, int position, int len)
{
    std::string expected;
    if (model.hasBuffer && position >= 0 && position < model.counted)
    {
        const auto start = static_cast<std::int64_t>(position);
        const std::int64_t count =
            len == -1 ? model.used() : std::min<std::int64_t>(len, model.used() - start);
        for (std::int64_t i = start; i < start + count; ++i)
        {
            expected += i < model.held ? Fields::buffer(array)[i] : '\0';
        }
    }
    try
    {
        ByteArray slice = array.mid(position, len);
        EXPECT_FALSE(mIsMemoryShort);
        EXPECT_EQ(stateOf(slice),
                  (State{true, expected, static_cast<std::int32_t>(expected.size()) + 1}));
        EXPECT_EQ(terminatorOf(slice), 0);
    }
    catch (const std::bad_alloc&)
    {
        EXPECT_TRUE(mIsMemoryShort);
    }
}

void ByteArrayModelTest::step()
{
    const auto index = static_cast<std::size_t>(upTo(2));
    const auto otherIndex = static_cast<std::size_t>(upTo(2));
    ByteArray& array = mArrays[index];
    ByteArray& other = mArrays[otherIndex];
    Model& model = mModels[index];
    Model& otherModel = mModels[otherIndex];
    mIsMemoryShort = upTo(9) == 0;
    bool throws = false;
    bool thrown = false;
    try
    {
        switch (upTo(11))
        {
        case 0:
        case 1:
        {
            std::string added = bytes(upTo(9) == 0 ? 1500 : 20);
            throws = model.append(added, mIsMemoryShort);
            array.append(added.data(), static_cast<int>(added.size()));
            break;
        }
        case 2:
        {
            std::string text = bytes(20);
            throws = model.append(text.substr(0, text.find('\0')), mIsMemoryShort);
            array.append(text.data());
            break;
        }
        case 3:
        {
            const char byte = static_cast<char>(upTo(255));
            throws = model.append(std::string(1, byte), mIsMemoryShort);
            array.append(byte);
            break;
        }
        case 4:
            throws = model.append(std::string(otherModel.content), mIsMemoryShort);
            array.append(other);
            break;
        case 5:
        {
            // Some of its own bytes.
            const int start = upTo(array.length());
            const int len = upTo(array.length() - start);
            throws = model.append(model.content.substr(static_cast<std::size_t>(start),
                                                       static_cast<std::size_t>(len)),
                                  mIsMemoryShort);
            char* const buffer = Fields::buffer(array);
            array.append(buffer == nullptr ? nullptr : buffer + start, len);
            break;
        }
        case 6:
            throws = model.clear(mIsMemoryShort);
            array.clear();
            break;
        case 7:
        {
            const int size = upTo(60) - 5;
            const int before = array.length();
            model.resize(size, mIsMemoryShort);
            array.resize(size);
            for (int i = before; i < array.length(); ++i)
            {
                array.data()[i] = '?';
            }
            break;
        }
        case 8:
        {
            const int size = upTo(80) - 5;
            model.reserve(size, mIsMemoryShort);
            array.reserve(size);
            break;
        }
        case 9:
            throws = model.assign(otherModel, mIsMemoryShort);
            array = other;
            break;
        case 10:
            if (&array != &other)
            {
                model = std::exchange(otherModel, Model{false, "", 0, 0});
            }
            array = std::move(other);
            break;
        default:
            checkSlice(array, model, upTo(70) - 5, upTo(40) - 5);
        }
    }
    catch (const std::bad_alloc&)
    {
        thrown = true;
    }
    mIsMemoryShort = false;
    EXPECT_EQ(thrown, throws);
    if (upTo(3) == 0 && !mModels[index].hasBuffer)
    {
        mArrays[index] = arrayOf("again");
        mModels[index] = Model{true, "again", 6, 6};
    }
}

TEST_P(ByteArrayModelTest, Operations_WhenRandom_DoWhatTheModelDoes)
{
    support::record(false);
    setLogLevel(91);
    const ScopedHook memory(&Hooks::newArray,
                            [this](std::size_t size)
                            {
                                if (mIsMemoryShort)
                                {
                                    throw std::bad_alloc();
                                }
                                void* const block = support::real::newArray(size);
                                std::fill_n(static_cast<char*>(block), size, '~');
                                return block;
                            });
    for (int i = 0; i < 20000; ++i)
    {
        step();
        for (std::size_t k = 0; k < mArrays.size(); ++k)
        {
            // mid() and copies read what lies behind; a cleared array has no terminator of its own.
            const Model& model = mModels[k];
            ASSERT_EQ(stateOf(mArrays[k]), (State{model.hasBuffer, model.content,
                                                  static_cast<std::int32_t>(model.counted)}))
                << "array " << k << " after step " << i;
        }
    }
    for (ByteArray& array : mArrays)
    {
        array = ByteArray();
    }
    support::record(true);
}

INSTANTIATE_TEST_SUITE_P(Runs, ByteArrayModelTest, testing::Values(1U, 2U, 3U));

} // namespace
