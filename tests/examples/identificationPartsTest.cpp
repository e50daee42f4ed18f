#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <korvane/iAp2LogUtil.h>

#include "comparison.h"
#include "decoding.h"
#include "descriptionReader.h"
#include "failures.h"
#include "files.h"
#include "records.h"
#include "report.h"
#include "roles.h"
#include "ShortMemory.h"
#include "show.h"
#include "SocketPair.h"
#include "text.h"
#include "TraceRecorder.h"
#include "transport.h"

using namespace identification;

namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

Description shipped()
{
    return readDescription(IDENTIFICATION_INPUT);
}

std::vector<std::string> textsOf(const std::vector<Difference>& differences)
{
    std::vector<std::string> texts;
    texts.reserve(differences.size());
    for (const Difference& difference : differences)
    {
        texts.push_back(difference.place + ": " + difference.text);
    }
    return texts;
}

/** What the reader finds out about a transaction that should hold `sent`. */
std::vector<std::string> differencesIn(const Transaction& transaction, const Description& sent)
{
    const Decoded decoded = decodeIdentification(transaction);
    if (decoded.failure.has_value())
    {
        return textsOf({*decoded.failure});
    }
    return textsOf(compare(sent, decoded.description));
}

/** The offset in the transaction of the slot with this meaning. */
std::size_t offsetOf(const Transaction& transaction, const std::string& meaning)
{
    for (const Slot& slot : decodeIdentification(transaction).slots)
    {
        if (slot.meaning == meaning)
        {
            return IAP2_TXN_PAYLOAD_OFFSET + slot.offset;
        }
    }
    ADD_FAILURE() << "no slot " << meaning;
    return 0;
}

void setPayloadSize(Transaction& transaction, std::size_t size)
{
    transaction.payloadSize = size;
    const auto length = static_cast<std::uint32_t>(size);
    std::memcpy(transaction.bytes.data() + IAP2_TXN_LENGTH_OFFSET, &length, sizeof length);
}

Options silent()
{
    Options options;
    options.level = IAP2_LOG_ERROR + 1;
    return options;
}

/** Without the traces of what is broken on purpose. */
class Identification : public testing::Test
{
protected:
    Identification()
    {
        setLogLevel(IAP2_LOG_ERROR + 1);
    }

    ~Identification() override
    {
        setLogLevel(IAP2_LOG_VERBOSE);
    }
};

/* ---- Reading back and comparing -------------------------------------------------------------- */

TEST_F(Identification, Compare_WhenNothingWasAltered_FindsNothing)
{
    const Description sent = shipped();
    EXPECT_THAT(differencesIn(marshalIdentification(sent), sent), IsEmpty());
}

TEST_F(Identification, Compare_WhenAnyByteOfAValueIsAltered_FindsIt)
{
    const Description sent = shipped();
    const Transaction original = marshalIdentification(sent);
    for (const Slot& slot : decodeIdentification(original).slots)
    {
        for (std::size_t i = 0; i < slot.slotSize; ++i)
        {
            Transaction altered = original;
            altered.bytes[IAP2_TXN_PAYLOAD_OFFSET + slot.offset + i] ^= 0x41U;
            const bool isPadding = i >= slot.size;
            EXPECT_EQ(differencesIn(altered, sent).empty(), isPadding)
                << slot.meaning << ", byte " << i;
        }
    }
}

TEST_F(Identification, Compare_WhenValuesAreAltered_NamesThePlaceAndBothValues)
{
    const Description sent = shipped();
    Transaction altered = marshalIdentification(sent);
    const std::size_t mac = offsetOf(altered, "bluetooth[1].macAddress = 00:1A:7D:DA:71:14");
    const std::size_t status = offsetOf(altered, "vehicleStatus.values[9] = 255");
    const std::size_t name = offsetOf(altered, "hid[0].name = \"Lenkradtasten\"");
    altered.bytes[mac + 5] = 0x99;
    altered.bytes[status] = 0;
    altered.bytes[name + 4] = 0;
    EXPECT_THAT(
        differencesIn(altered, sent),
        ElementsAre("bluetooth[1].macAddress: sent 00:1A:7D:DA:71:14, received 00:1A:7D:DA:71:99",
                    "hid[0].name: sent \"Lenkradtasten\", received \"Lenk\\u0000adtasten\"",
                    "vehicleStatus.values[9]: sent 255, received 0"));
}

TEST_F(Identification, Compare_WhenPresenceDiffers_NamesWhatIsMissingAndWhatIsMore)
{
    const Description sent =
        parseDescription(R"({"uart": {"identifier": 1, "value": 2},)"
                         R"( "vehicleInformation": {"identifier": 3, "texts": ["a", null]}})");
    const Description received =
        parseDescription(R"({"hid": [{"identifier": 1, "value": 2}],)"
                         R"( "vehicleInformation": {"identifier": 3, "texts": [null, ""]}})");
    EXPECT_THAT(
        textsOf(compare(sent, received)),
        ElementsAre("uart: sent a component, received nothing",
                    "uart.identifier: sent 1, not received", "uart.name: sent -, not received",
                    "uart.value: sent 2, not received", "hid: sent count 0, received count 1",
                    "vehicleInformation.texts[0]: sent \"a\", received nothing",
                    "vehicleInformation.texts[1]: sent nothing, received \"\"",
                    "hid[0].identifier: received 1, not sent", "hid[0].name: received -, not sent",
                    "hid[0].value: received 2, not sent"));
}

TEST_F(Identification, Compare_WhenTextIsAbsentOrEmpty_TellsThemApart)
{
    const Description absent = parseDescription(R"({"wirelessCarPlay": [{"identifier": 1}]})");
    const Description empty =
        parseDescription(R"({"wirelessCarPlay": [{"identifier": 1, "name": ""}]})");
    EXPECT_THAT(differencesIn(marshalIdentification(empty), absent),
                ElementsAre("wirelessCarPlay[0].name: sent -, received \"\""));
    EXPECT_THAT(differencesIn(marshalIdentification(absent), absent), IsEmpty());
}

TEST_F(Identification, Decode_WhenPayloadIsCutAnywhere_NamesWhereItEnds)
{
    const Description sent = shipped();
    const Transaction original = marshalIdentification(sent);
    for (std::size_t size = 0; size < original.payloadSize; ++size)
    {
        Transaction cut = original;
        setPayloadSize(cut, size);
        // What stands behind the announced length must not be read.
        std::memset(cut.bytes.data() + cut.size(), 0xA5, cut.bytes.size() - cut.size());
        const Decoded decoded = decodeIdentification(cut);
        ASSERT_TRUE(decoded.failure.has_value()) << size;
        for (const Slot& slot : decoded.slots)
        {
            EXPECT_LE(slot.offset + slot.slotSize, size);
        }
    }
    Transaction cut = original;
    setPayloadSize(cut, 4);
    EXPECT_THAT(differencesIn(cut, sent),
                ElementsAre("uart.identifier: the payload ends before it does"));
}

TEST_F(Identification, Decode_WhenBytesFollow_SaysHowMany)
{
    const Description sent = shipped();
    Transaction longer = marshalIdentification(sent);
    setPayloadSize(longer, longer.payloadSize + 8);
    EXPECT_THAT(differencesIn(longer, sent),
                ElementsAre("the end: 8 bytes follow the last component"));
}

TEST_F(Identification, Decode_WhenACountIsImpossible_DoesNotBelieveIt)
{
    const Description sent = parseDescription("{}");
    Transaction altered = marshalIdentification(sent);
    const std::size_t count = offsetOf(altered, "bluetooth: count 0");
    std::memset(&altered.bytes[count], 0xFF, 4);
    EXPECT_THAT(differencesIn(altered, sent),
                ElementsAre("bluetooth: announces 4294967295 entries in front of 32 bytes"));
}

TEST_F(Identification, Decode_WhenAValueCannotBe_NamesIt)
{
    const Description sent = shipped();
    const Transaction original = marshalIdentification(sent);

    Transaction altered = original;
    altered.bytes[offsetOf(original, "uart: present")] = 2;
    EXPECT_THAT(differencesIn(altered, sent), ElementsAre("uart: the presence flag is 2"));

    altered = original;
    altered.bytes[offsetOf(original, "wirelessCarPlay[0].name = \"WLAN 5 GHz\"") + 10] = '!';
    EXPECT_THAT(differencesIn(altered, sent),
                ElementsAre("wirelessCarPlay[0].name: the text does not end with a zero"));

    altered = original;
    altered.bytes[offsetOf(original, "bluetooth[0].macAddress: length 6")] = 5;
    EXPECT_THAT(differencesIn(altered, sent), ElementsAre("bluetooth[0].macAddress: has 5 bytes"));

    // The slot of an empty optional text holds its zero; without it, what follows is out of step.
    altered = original;
    altered.bytes[offsetOf(original, "vehicleInformation.texts[0]: length 1")] = 0;
    EXPECT_THAT(differencesIn(altered, sent),
                ElementsAre("vehicleInformation.texts[0]: the text does not even have its "
                            "terminating zero"));
}

TEST_F(Identification, Decode_WhenALengthIsImpossible_SaysThatThePayloadEnds)
{
    const Description sent = shipped();
    const Transaction original = marshalIdentification(sent);
    for (const std::string place : {"usbHost.name", "bluetooth[2].macAddress"})
    {
        const std::string length = place == "usbHost.name" ? ": length 20" : ": length 6";
        for (const int lowByte : {0xFC, 0xFD, 0xFF}) // the two last cannot be rounded up
        {
            Transaction altered = original;
            const std::size_t at = offsetOf(original, place + length);
            std::memset(&altered.bytes[at], 0xFF, 4);
            altered.bytes[at] = static_cast<std::uint8_t>(lowByte);
            EXPECT_THAT(differencesIn(altered, sent),
                        ElementsAre(place + ": the payload ends before it does"));
        }
    }
}

TEST_F(Identification, Decode_WhenPayloadIsNoise_Survives)
{
    const Transaction original = marshalIdentification(shipped());
    std::mt19937 random(20240229); // NOLINT: the same noise every time
    std::size_t failures = 0;
    constexpr int rounds = 3000;
    for (int round = 0; round < rounds; ++round)
    {
        Transaction noise = original;
        for (std::size_t hits = 1 + random() % 8; hits > 0; --hits)
        {
            noise.bytes[IAP2_TXN_PAYLOAD_OFFSET + random() % original.payloadSize] =
                static_cast<std::uint8_t>(random());
        }
        const Decoded decoded = decodeIdentification(noise);
        failures += decoded.failure.has_value() ? 1U : 0U;
        EXPECT_FALSE(slotDump(noise, decoded.slots).empty());
        EXPECT_FALSE(componentTable(decoded.description).empty());
    }
    EXPECT_GT(failures, 0U);
}

/* ---- The reader as a whole ------------------------------------------------------------------- */

TEST_F(Identification, RunReader_WhenBytesWereAlteredOnTheWay_ReportsAndReturnsOne)
{
    const Description sent = shipped();
    Transaction altered = marshalIdentification(sent);
    const std::size_t value = offsetOf(altered, "usbHost.values[1] = 1");
    altered.bytes[value] = 9;

    SocketPair sockets;
    sendTransaction(sockets.sender.get(), altered);
    const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    testing::internal::CaptureStderr();
    setLogLevel(IAP2_LOG_ERROR);
    support::takeTraces();
    const ExitCode code = runReader(sockets.reader.get(), sent, silent(), nowhere.get());
    EXPECT_THAT(support::takeMessages(), ElementsAre("E reader[" + std::to_string(getpid()) +
                                                     "]: differences from what was sent: 1"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "identification: usbHost.values[1]: sent 1, received 9\n");
    EXPECT_EQ(code, kDifferent);
}

TEST_F(Identification, RunReader_WhenProgressIsShown_HasSaidItBeforeItPrints)
{
    const Description sent = shipped();
    SocketPair sockets;
    sendTransaction(sockets.sender.get(), marshalIdentification(sent));
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd readEnd(ends[0]);
    const UniqueFd writeEnd(ends[1]);
    std::vector<std::string> lines;
    bool isPrinted = false;
    support::onTrace(
        [&](const std::string& text) // on the log's thread, for everything else is silent
        {
            lines.push_back(text);
            pollfd output{readEnd.get(), POLLIN, 0};
            constexpr int whileNothingHappens = 200; // milliseconds
            isPrinted = isPrinted || poll(&output, 1, whileNothingHappens) != 0;
        });
    EXPECT_EQ(runReader(sockets.reader.get(), sent, Options(), writeEnd.get()), kSame);
    support::onTrace({});
    const std::string role = "reader[" + std::to_string(getpid()) + "]: ";
    EXPECT_THAT(lines, ElementsAre(role + "received 1140 bytes",
                                   role + "differences from what was sent: 0"));
    EXPECT_FALSE(isPrinted);
}

TEST_F(Identification, RunReader_WhenItCannotReadOn_ReportsAndDumpsUpToThere)
{
    const Description sent = shipped();
    Transaction altered = marshalIdentification(sent);
    altered.bytes[offsetOf(altered, "usbDevice: present")] = 77;

    SocketPair sockets;
    sendTransaction(sockets.sender.get(), altered);
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    Options options = silent();
    options.dump = true;
    testing::internal::CaptureStderr();
    const ExitCode code = runReader(sockets.reader.get(), sent, options, writeEnd.get());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "identification: usbDevice: the presence flag is 77\n");
    EXPECT_EQ(code, kDifferent);

    writeEnd.reset();
    std::string output(8192, '\0');
    const ssize_t count = read(readEnd.get(), output.data(), output.size());
    ASSERT_GT(count, 0);
    output.resize(static_cast<std::size_t>(count));
    EXPECT_THAT(output, HasSubstr("Differences in what was received: 1.\n"));
    EXPECT_THAT(output, testing::EndsWith("0x0034  4d .. .. ..              usbDevice: neither\n"));
}

TEST_F(Identification, RunReader_WhenSenderEndsEarly_Throws)
{
    SocketPair sockets;
    const Transaction transaction = marshalIdentification(shipped());
    ASSERT_EQ(write(sockets.sender.get(), transaction.bytes.data(), 100), 100);
    sockets.sender.reset();
    const Description sent;
    try
    {
        runReader(sockets.reader.get(), sent, silent(), STDOUT_FILENO);
        FAIL();
    }
    catch (const SystemError& error)
    {
        EXPECT_STREQ(error.what(), "the connection ended after 28 of 1068 bytes of the payload");
    }
}

/* ---- Transport ------------------------------------------------------------------------------- */

std::string failureToReceive(const std::string& bytes)
{
    SocketPair sockets;
    EXPECT_EQ(writeAll(sockets.sender.get(), bytes), 0);
    sockets.sender.reset();
    try
    {
        receiveTransaction(sockets.reader.get());
    }
    catch (const SystemError& error)
    {
        return error.what();
    }
    return "none";
}

std::string bytesOf(const Transaction& transaction)
{
    return {reinterpret_cast<const char*>(transaction.bytes.data()), transaction.size()};
}

TEST_F(Identification, Receive_WhenConnectionEndsOrLies_Throws)
{
    Transaction transaction;
    setPayloadSize(transaction, 4);
    EXPECT_EQ(failureToReceive(bytesOf(transaction)), "none");
    EXPECT_EQ(failureToReceive(""), "the connection ended after 0 of 72 bytes of the header");
    EXPECT_EQ(failureToReceive(bytesOf(transaction).substr(0, 71)),
              "the connection ended after 71 of 72 bytes of the header");
    EXPECT_EQ(failureToReceive(bytesOf(transaction).substr(0, 75)),
              "the connection ended after 3 of 4 bytes of the payload");
    EXPECT_EQ(failureToReceive(bytesOf(transaction) + "x"),
              "something follows the payload of 4 bytes");
    setPayloadSize(transaction, kPayloadCapacity + 1);
    EXPECT_EQ(failureToReceive(std::string(bytesOf(transaction), 0, 72)),
              "the header announces 8121 bytes, more than the 8120 that a payload can have");
}

std::atomic<int> signalsSeen{0};

void countSignal(int /*number*/)
{
    ++signalsSeen;
}

TEST_F(Identification, Receive_WhenPiecesAreSmallAndSignalsInterrupt_GetsEverything)
{
    // Without SA_RESTART, a signal ends the call that it interrupts.
    struct sigaction action = {};
    struct sigaction previous = {};
    action.sa_handler = countSignal;
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

    const Description sent = shipped();
    const Transaction transaction = marshalIdentification(sent);
    SocketPair sockets;
    const pthread_t receiver = pthread_self();
    std::thread sender(
        [&]
        {
            for (const char byte : bytesOf(transaction))
            {
                writeAll(sockets.sender.get(), {&byte, 1});
                pthread_kill(receiver, SIGUSR1);
            }
            sockets.sender.reset();
        });
    const Transaction received = receiveTransaction(sockets.reader.get());
    sender.join();
    sigaction(SIGUSR1, &previous, nullptr);

    EXPECT_GT(signalsSeen.load(), 0);
    EXPECT_EQ(received.payloadSize, transaction.payloadSize);
    EXPECT_EQ(received.bytes, transaction.bytes);
}

TEST_F(Identification, Receive_WhenAnyLengthIsAnnounced_GetsItWithoutAReport)
{
    setLogLevel(IAP2_LOG_VERBOSE);
    support::takeTraces();
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{951},
                                   std::size_t{952}, std::size_t{953}, kPayloadCapacity})
    {
        Transaction transaction;
        for (std::size_t i = 0; i < size; ++i)
        {
            transaction.bytes[IAP2_TXN_PAYLOAD_OFFSET + i] = static_cast<std::uint8_t>(i * 11);
        }
        setPayloadSize(transaction, size);
        SocketPair sockets;
        sendTransaction(sockets.sender.get(), transaction);
        const Transaction received = receiveTransaction(sockets.reader.get());
        EXPECT_EQ(received.payloadSize, size);
        EXPECT_EQ(received.bytes, transaction.bytes);
        EXPECT_THAT(support::takeMessages(), IsEmpty()) << size;
    }
}

TEST_F(Identification, Receive_WhenMemoryIsShort_ThrowsBadAlloc)
{
    Transaction transaction;
    setPayloadSize(transaction, kPayloadCapacity);
    SocketPair sockets;
    sendTransaction(sockets.sender.get(), transaction);
    const ShortMemory limit(kTransactionCapacity); // one less than it takes
    EXPECT_THROW(receiveTransaction(sockets.reader.get()), std::bad_alloc);
}

TEST_F(Identification, Send_WhenTransactionIsFullAndSocketNarrow_ArrivesWhole)
{
    Transaction transaction;
    for (std::size_t i = 0; i < transaction.bytes.size(); ++i)
    {
        transaction.bytes[i] = static_cast<std::uint8_t>(i * 7);
    }
    setPayloadSize(transaction, kPayloadCapacity);
    SocketPair sockets;
    const int narrow = 1; // the system takes its least size instead
    ASSERT_EQ(setsockopt(sockets.sender.get(), SOL_SOCKET, SO_SNDBUF, &narrow, sizeof narrow), 0);
    std::thread sender([&] { sendTransaction(sockets.sender.get(), transaction); });
    const Transaction received = receiveTransaction(sockets.reader.get());
    sender.join();
    EXPECT_EQ(received.bytes, transaction.bytes);
}

TEST_F(Identification, Send_WhenReaderIsGone_ThrowsAndRaisesNoSignal)
{
    SocketPair sockets;
    sockets.reader.reset();
    const Transaction transaction = marshalIdentification(shipped());
    try
    {
        sendTransaction(sockets.sender.get(), transaction);
        FAIL();
    }
    catch (const SystemError& error)
    {
        EXPECT_STREQ(error.what(), "sending failed: Broken pipe");
    }
}

/* ---- MAC addresses --------------------------------------------------------------------------- */

TEST_F(Identification, Secured_WhenAddressIsGiven_IsTheShownTextInItsSecuredForm)
{
    const MacAddress address{"001A7DDA7113"};
    EXPECT_EQ(show(address), "00:1A:7D:DA:71:13");
    EXPECT_EQ(secured(address), "TM=MDA6MUE6N0Q6REE6NzE6M");
}

TEST_F(Identification, Show_WhenAddressIsDamaged_ShowsItsDigitsWithoutAReport)
{
    setLogLevel(IAP2_LOG_WARNING);
    support::takeTraces();
    EXPECT_EQ(show(MacAddress{""}), "");
    EXPECT_EQ(show(MacAddress{"001A"}), "001A");
    EXPECT_THAT(support::takeMessages(), IsEmpty());
}

TEST_F(Identification, Marshal_WhenAddressCannotBeStored_Throws)
{
    Description description = shipped();
    description.bluetooth[1].macAddress.digits.clear();
    try
    {
        marshalIdentification(description);
        FAIL();
    }
    catch (const SystemError& error)
    {
        EXPECT_STREQ(error.what(), "a MAC address could not be stored");
    }
}

/* ---- Marshalling ----------------------------------------------------------------------------- */

TEST_F(Identification, Marshal_WhenDescriptionDoesNotFit_Throws)
{
    Description description = shipped();
    description.uart->name.text = std::string(kPayloadCapacity, 'x');
    EXPECT_THROW(marshalIdentification(description), SystemError);
}

TEST_F(Identification, Marshal_WhenDone_LeavesHeaderAndPaddingZero)
{
    const Transaction transaction = marshalIdentification(shipped());
    for (std::size_t i = 0; i < IAP2_TXN_LENGTH_OFFSET; ++i)
    {
        EXPECT_EQ(transaction.bytes[i], 0);
    }
    std::uint32_t length = 0;
    std::memcpy(&length, transaction.bytes.data() + IAP2_TXN_LENGTH_OFFSET, sizeof length);
    EXPECT_EQ(length, transaction.payloadSize);
    for (const Slot& slot : decodeIdentification(transaction).slots)
    {
        for (std::size_t i = slot.size; i < slot.slotSize; ++i)
        {
            EXPECT_EQ(transaction.payload()[slot.offset + i], 0) << slot.meaning;
        }
    }
}

/* ---- Texts ----------------------------------------------------------------------------------- */

TEST_F(Identification, FindInvalidUtf8_WhenBytesAreNotUtf8_TellsWhere)
{
    const std::vector<std::pair<std::string, std::size_t>> cases{
        {"", kNoLimit},
        {"abc", kNoLimit},
        {"\xC2\x80\xDF\xBF", kNoLimit},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", kNoLimit},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", kNoLimit},
        {"a\x80", 1},             // a continuation without a start
        {"a\xC1\xBF", 1},         // overlong
        {"a\xE0\x9F\xBF", 1},     // overlong
        {"a\xF0\x8F\xBF\xBF", 1}, // overlong
        {"a\xED\xA0\x80", 1},     // a surrogate
        {"a\xF4\x90\x80\x80", 1}, // beyond the last character
        {"a\xF8\x88\x80\x80\x80", 1},
        {"a\xE2\x82", 1}, // cut
        {"a\xE2\x28\xA1", 1},
        {"\xC3\xA9\xFF", 2},
    };
    for (const auto& [text, expected] : cases)
    {
        EXPECT_EQ(findInvalidUtf8(text), expected) << printable(text);
    }
}

TEST_F(Identification, Quoted_WhenTextIsStrange_IsOneLineAndUnambiguous)
{
    EXPECT_EQ(quoted("Größe"), "\"Größe\"");
    EXPECT_EQ(quoted("a\"b\\c"), R"("a\"b\\c")");
    EXPECT_EQ(quoted("a\n\x7F\xC2\x85"), R"("a\u000a\u007f\u0085")");
    EXPECT_EQ(quoted("\xFF"), R"("\xff")");
    EXPECT_EQ(quoted("abcdef", 3), "\"abc...\"");
    EXPECT_EQ(quoted("abc", 3), "\"abc\"");
}

TEST_F(Identification, DisplayWidth_WhenCharactersAreWideOrCombine_CountsColumns)
{
    EXPECT_EQ(displayWidth("abc"), 3U);
    EXPECT_EQ(displayWidth("Größe"), 5U);
    EXPECT_EQ(displayWidth("후석"), 4U);
    EXPECT_EQ(displayWidth("e\xCC\x81"), 1U);
    EXPECT_EQ(padded("후", 4), "후  ");
    EXPECT_EQ(padded("abcde", 4), "abcde");
}

TEST_F(Identification, Show_WhenTextsAreLong_ShortensThem)
{
    const std::array<std::optional<std::string>, 2> texts{std::string(10, 'x'), std::nullopt};
    EXPECT_EQ(show(texts), "[\"xxxxxxxxxx\", -]");
    EXPECT_EQ(show(texts, 4), "[\"xxxx...\", -]");
}

} // namespace
