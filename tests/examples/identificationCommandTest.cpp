#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <korvane/iAp2Marshal.h>

#include "ChildProcess.h"

namespace
{

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write(const fs::path& path, const std::string& content)
{
    std::ofstream file(path, std::ios::binary);
    file << content;
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

/**
 * The text without the line that the log's writer may leave where its end finds it awake. It can come
 * between any others.
 */
std::string withoutEndOfLog(const std::string& text)
{
    std::string result;
    for (const std::string& line : linesOf(text))
    {
        if (line.rfind("iAp2ExternelLogWriteThread() ended!!! mTid[", 0) != 0)
        {
            result += line + '\n';
        }
    }
    return result;
}

/** Every test has a folder of its own. */
class IdentificationCommand : public testing::Test
{
protected:
    IdentificationCommand()
    {
        std::string name = (fs::path(testing::TempDir()) / "identificationXXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
        {
            throw std::runtime_error("no folder");
        }
        folder = name;
        input = folder / "in.json";
        output = folder / "out.bin";
    }

    ~IdentificationCommand() override
    {
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }

    static Outcome run(const std::vector<std::string>& arguments,
                       ChildProcess::Output where = ChildProcess::Output::Read)
    {
        return ChildProcess(arguments, where).finish();
    }

    /** Runs on `json` without traces. */
    Outcome runOn(const std::string& json, std::vector<std::string> arguments = {})
    {
        write(input, json);
        arguments.insert(arguments.end(), {"--level", "91", "--input", input.string()});
        return run(arguments);
    }

    std::vector<std::string> filesInFolder() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder))
        {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    /** `json` is refused in one line with `reason`, at the default level, and nothing is written. */
    void expectRefused(const std::string& json, const std::string& reason)
    {
        write(input, json);
        const Outcome outcome =
            run({"--input", input.string(), "--output", output.string(), "--dump"});
        EXPECT_EQ(outcome.exitCode, 2);
        EXPECT_EQ(outcome.err, "identification: " + input.string() + ": " + reason + "\n");
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(filesInFolder(), ElementsAre("in.json"));
    }

    fs::path folder;
    fs::path input;
    fs::path output;
};

/** A description whose Bluetooth list has one good entry and the given members in a second one. */
std::string withBluetooth(const std::string& members)
{
    return R"({"bluetooth": [{"identifier": 1, "value": 0, "macAddress": "001A7DDA7113"}, {)" +
           members + "}]}";
}

/* ---- The shipped input ----------------------------------------------------------------------- */

TEST_F(IdentificationCommand, Run_WhenInputIsShipped_ShowsAllTwelveComponents)
{
    const Outcome outcome = run({"--input", IDENTIFICATION_INPUT, "--level", "91"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.err, "");

    // The titles of all rows, number by number, in the order in which they are sent.
    std::vector<std::string> titles;
    for (const std::string& line : linesOf(outcome.out))
    {
        if (!line.empty() && std::isdigit(static_cast<unsigned char>(line[0])) != 0)
        {
            titles.push_back(line.substr(0, line.find("  ", 4)));
        }
    }
    EXPECT_THAT(titles,
                ElementsAre("0   UART transport", "1   USB device transport",
                            "2   USB host transport", "3   Bluetooth transport",
                            "3   Bluetooth transport", "3   Bluetooth transport", "4   iAP2 HID",
                            "4   iAP2 HID", "4   iAP2 HID", "5   vehicle information",
                            "6   vehicle status", "7   location information", "8   USB host HID",
                            "8   USB host HID", "9   wireless CarPlay transport",
                            "9   wireless CarPlay transport", "10  Bluetooth HID",
                            "11  route guidance display", "11  route guidance display",
                            "11  route guidance display"));
    EXPECT_THAT(outcome.out,
                AllOf(HasSubstr("\"후석 블루투스\"                       value 1; macAddress "
                                "00:1A:7D:DA:71:14\n"),
                      HasSubstr("texts [\"\", -]; chargingConnectors [1, 3, 5];\n"),
                      HasSubstr("  values [5, -, 480000, 0, -, -, 4294967295]\n"),
                      EndsWith("Differences in what was received: 0.\n")));
}

TEST_F(IdentificationCommand, Run_WhenLevelIsDefault_ShowsTracesOfBothProcessesApart)
{
    const Outcome outcome = run({"--input", IDENTIFICATION_INPUT});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out, AllOf(StartsWith("No  Component"), Not(HasSubstr("IAP2"))));

    const std::size_t marshals = outcome.err.find(": marshals the components");
    const std::size_t marshalled = outcome.err.find("ChargingConnector value [5]");
    const std::size_t sent = outcome.err.find("]: sends ");
    const std::size_t received = outcome.err.find("]: received ");
    const std::size_t readBack = outcome.err.find("utf8Param->value[Lenkradtasten]");
    const std::size_t compared = outcome.err.find("]: differences from what was sent: 0");
    const std::size_t ended = outcome.err.find("]: the reader ended with 0");
    ASSERT_NE(ended, std::string::npos);
    // The progress lines stand anywhere in the block of their process, of which they are the end.
    EXPECT_LT(marshals, sent);
    EXPECT_LT(marshalled, sent);
    EXPECT_LT(sent, received);
    EXPECT_LT(sent, readBack);
    EXPECT_LT(received, compared);
    EXPECT_LT(readBack, compared);
    EXPECT_LT(compared, ended);

    // Nothing of the sender's threads stands inside the reader's block.
    const std::string block = outcome.err.substr(outcome.err.find('\n', sent), compared - sent);
    EXPECT_THAT(block, AllOf(Not(HasSubstr("sender[")), Not(HasSubstr("iAP2MsgHandler"))));
    const std::size_t end = outcome.err.find("]: ends its handler");
    const std::size_t exit = outcome.err.find("run: exit loop by EVT_LINKLOOP_EXIT");
    EXPECT_LT(ended, end);
    EXPECT_LT(end, exit);
    EXPECT_THAT(withoutEndOfLog(outcome.err), EndsWith("iAP2MsgHandler:~iAP2Thread:join() fail\n"));
    EXPECT_THAT(outcome.err, Not(HasSubstr("Marshaling UARTTransportComponent"))); // level 20

    const auto processOf = [&outcome](const std::string& role)
    {
        const std::size_t at = outcome.err.find(role + '[') + role.size() + 1;
        return outcome.err.substr(at, outcome.err.find(']', at) - at);
    };
    EXPECT_NE(processOf("sender"), processOf("reader"));
}

TEST_F(IdentificationCommand, Run_WhenProgressIsShown_LeavesStandardOutputToTheTable)
{
    const std::vector<std::string> arguments{"--input", IDENTIFICATION_INPUT, "--dump"};
    std::vector<std::string> silent = arguments;
    silent.insert(silent.end(), {"--level", "91"});
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, run(silent).out);
    EXPECT_THAT(outcome.err, HasSubstr("iAp2ExternelLogWriteThread() created!!! mTid["));

    const Outcome payload =
        run({"--input", IDENTIFICATION_INPUT, "--quiet", "--output", "/dev/stdout"});
    EXPECT_EQ(payload.exitCode, 0);
    EXPECT_EQ(payload.out.size(), 1068U);
    EXPECT_THAT(payload.err, HasSubstr("]: writes 1068 bytes to /dev/stdout\n"));
}

TEST_F(IdentificationCommand, Run_WhenOutputFails_SaysSoBehindTheProgressLines)
{
    const std::string missing = (folder / "missing" / "out.bin").string();
    const Outcome outcome = run({"--input", IDENTIFICATION_INPUT, "--output", missing});
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.err, HasSubstr("]: writes 1068 bytes to " + missing + "\n"));
    EXPECT_THAT(withoutEndOfLog(outcome.err),
                EndsWith("identification: " + missing +
                         ": cannot be written: No such file or directory\n"));
}

TEST_F(IdentificationCommand, Level_WhenAboveInformation_ShowsNoProgress)
{
    EXPECT_THAT(run({"--input", IDENTIFICATION_INPUT, "--level", "40"}).err,
                HasSubstr("]: received 1140 bytes\n"));
    // Not even the log itself.
    EXPECT_EQ(run({"--input", IDENTIFICATION_INPUT, "--level", "91"}).err, "");
    const Outcome outcome = run({"--input", IDENTIFICATION_INPUT, "--level", "41"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.err, AllOf(Not(HasSubstr("sender[")), Not(HasSubstr("reader[")),
                                   Not(HasSubstr("iAp2ExternelLog"))));
}

TEST_F(IdentificationCommand, Level_WhenAbove20_ShowsMacAddressesInTheirSecuredFormAlone)
{
    const std::vector<std::string> clear{"00:1A:7D:DA:71:13", "001A7DDA7113"};
    const Outcome usual = run({"--input", IDENTIFICATION_INPUT, "--level", "21"});
    for (const std::string& address : clear)
    {
        EXPECT_THAT(usual.err, Not(HasSubstr(address)));
    }
    EXPECT_THAT(usual.err,
                AllOf(HasSubstr(" Bluetooth transport 10: MAC address [TM=MDA6MUE6N0Q6REE6NzE6M]"),
                      HasSubstr(" bluetooth[0].macAddress [TM=MDA6MUE6N0Q6REE6NzE6M]")));
    EXPECT_THAT(run({"--input", IDENTIFICATION_INPUT, "--level", "20"}).err,
                HasSubstr("MacAddress: [001A7DDA7113], size : [12]"));
}

/* ---- Options --------------------------------------------------------------------------------- */

TEST_F(IdentificationCommand, Help_WhenAsked_NamesOptionsAndExitCodes)
{
    for (const char* const option : {"--help", "-h"})
    {
        const Outcome outcome = run({option});
        EXPECT_EQ(outcome.exitCode, 0);
        EXPECT_EQ(outcome.err, "");
        for (const char* const part :
             {"--input FILE", "--output FILE", "--level N", "--dump", "--quiet", "--help",
              "Exit codes", "  0  ", "  1  ", "  2  ", "  3  "})
        {
            EXPECT_THAT(outcome.out, HasSubstr(part));
        }
    }
}

TEST_F(IdentificationCommand, Options_WhenValueStandsBehindEqualsSign_AreTheSame)
{
    const Outcome apart = run({"--input", IDENTIFICATION_INPUT, "--level", "91", "--dump"});
    const Outcome together =
        run({std::string("--input=") + IDENTIFICATION_INPUT, "--level=91", "--dump"});
    EXPECT_EQ(apart.exitCode, 0);
    EXPECT_EQ(together.exitCode, 0);
    EXPECT_EQ(apart.out, together.out);
}

TEST_F(IdentificationCommand, Options_WhenWrong_AreRefusedInOneLine)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
        {{}, "--input FILE is missing"},
        {{"--colour"}, "unknown option --colour"},
        {{"-x"}, "unknown option -x"},
        {{"--in", "x"}, "unknown option --in"},
        {{"--inputs=x"}, "unknown option --inputs"},
        {{"file.json"}, "unexpected argument \"file.json\""},
        {{"-"}, "unexpected argument \"-\""},
        {{"--input"}, "--input needs a FILE"},
        {{"--input="}, "--input needs a FILE"},
        {{"--input", "x", "--output"}, "--output needs a FILE"},
        {{"--level"}, "--level needs a number"},
        {{"--level", "high"}, "--level: \"high\" is not a number from 0 to 91"},
        {{"--level", "92"}, "--level: \"92\" is not a number from 0 to 91"},
        {{"--level", "-1"}, "--level: \"-1\" is not a number from 0 to 91"},
        {{"--level", "4 0"}, "--level: \"4 0\" is not a number from 0 to 91"},
        {{"--level", "99999999999"}, "--level: \"99999999999\" is not a number from 0 to 91"},
        {{"--dump=yes"}, "--dump takes no value"},
        {{"--quiet=1"}, "--quiet takes no value"},
        {{"--help=x"}, "--help takes no value"},
    };
    for (const auto& [arguments, reason] : cases)
    {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.exitCode, 2) << reason;
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "identification: " + reason + " (see --help)\n");
    }
}

TEST_F(IdentificationCommand, Level_WhenLow_ShowsDebugTraces)
{
    const Outcome outcome = run({"--input", IDENTIFICATION_INPUT, "--level", "20"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("Marshaling UARTTransportComponent"),
                                   HasSubstr("Marshaling RouteGuidanceDisplayComponent")));
}

TEST_F(IdentificationCommand, Level_WhenErrorsOnly_ShowsTheHandlersEndAloneWhereAllIsWell)
{
    const Outcome outcome = run({"--input", IDENTIFICATION_INPUT, "--level", "90"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(
        linesOf(outcome.err),
        ElementsAre(MatchesRegex(".* E IAP2 .* run: exit loop by EVT_LINKLOOP_EXIT"),
                    MatchesRegex(".* E IAP2 .* iAP2MsgHandler:~iAP2Thread:join\\(\\) fail")));
}

TEST_F(IdentificationCommand, Quiet_WhenSet_PrintsNothing)
{
    const Outcome outcome = run({"--input", IDENTIFICATION_INPUT, "--level", "91", "--quiet"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
}

TEST_F(IdentificationCommand, Dump_WhenDescriptionIsEmpty_ShowsEverySlot)
{
    const Outcome outcome = runOn("{}", {"--quiet", "--dump"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "Payload of 48 bytes, 72 bytes into the transaction (.. is padding)\n"
                           "Offset  Bytes                    Meaning\n"
                           "0x0000  00 .. .. ..              uart: absent\n"
                           "0x0004  00 .. .. ..              usbDevice: absent\n"
                           "0x0008  00 .. .. ..              usbHost: absent\n"
                           "0x000c  00 00 00 00              bluetooth: count 0\n"
                           "0x0010  00 00 00 00              hid: count 0\n"
                           "0x0014  00 .. .. ..              vehicleInformation: absent\n"
                           "0x0018  00 .. .. ..              vehicleStatus: absent\n"
                           "0x001c  00 .. .. ..              locationInformation: absent\n"
                           "0x0020  00 00 00 00              usbHostHid: count 0\n"
                           "0x0024  00 00 00 00              wirelessCarPlay: count 0\n"
                           "0x0028  00 .. .. ..              bluetoothHid: absent\n"
                           "0x002c  00 00 00 00              routeGuidanceDisplay: count 0\n");
}

TEST_F(IdentificationCommand, Dump_WhenTextTakesSeveralLines_ShowsBytesAndPadding)
{
    const Outcome outcome =
        runOn(R"({"bluetooth": [{"identifier": 258, "name": "Größe \"M\"", "value": 7,)"
              R"( "macAddress": "00:1a:7d:DA:71:13"}]})",
              {"--quiet", "--dump"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(
        outcome.out,
        HasSubstr("0x000c  01 00 00 00              bluetooth: count 1\n"
                  "0x0010  02 01 .. ..              bluetooth[0].identifier = 258\n"
                  "0x0014  0c 00 00 00              bluetooth[0].name: length 12\n"
                  "0x0018  47 72 c3 b6 c3 9f 65 20  bluetooth[0].name = \"Größe \\\"M\\\"\"\n"
                  "0x0020  22 4d 22 00\n"
                  "0x0024  07 .. .. ..              bluetooth[0].value = 7\n"
                  "0x0028  06 00 00 00              bluetooth[0].macAddress: length 6\n"
                  "0x002c  00 1a 7d da 71 13 .. ..  "
                  "bluetooth[0].macAddress = 00:1A:7D:DA:71:13\n"
                  "0x0034  00 00 00 00              hid: count 0\n"));
}

TEST_F(IdentificationCommand, Dump_WhenInputIsShipped_CoversThePayloadWithoutGaps)
{
    const Outcome outcome = run({"--input", IDENTIFICATION_INPUT, "--level", "91", "--quiet",
                                 "--dump", "--output", output.string()});
    ASSERT_EQ(outcome.exitCode, 0);
    const std::string payload = contentOf(output);

    std::size_t expectedOffset = 0;
    for (const std::string& line : linesOf(outcome.out))
    {
        if (line.rfind("0x", 0) != 0)
        {
            continue;
        }
        EXPECT_EQ(std::stoul(line, nullptr, 16), expectedOffset);
        // The bytes end where two blanks stand; padding is shown as dots.
        std::istringstream bytes(line.substr(8, line.find("  ", 8) - 8));
        for (std::string byte; bytes >> byte; ++expectedOffset)
        {
            ASSERT_LT(expectedOffset, payload.size());
            const auto actual = static_cast<unsigned char>(payload[expectedOffset]);
            EXPECT_EQ(byte == ".." ? 0 : std::stoul(byte, nullptr, 16), actual);
        }
    }
    EXPECT_EQ(expectedOffset, payload.size());
}

TEST_F(IdentificationCommand, Table_WhenNothingIsThere_SaysSoForEachKind)
{
    const Outcome outcome = runOn("{}");
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out,
                AllOf(HasSubstr("UART transport                -   -     absent\n"),
                      HasSubstr("iAP2 HID                      -   -     no entries\n"),
                      EndsWith("Bytes of payload: 48. Values sent: 12. Differences in "
                               "what was received: 0.\n")));
}

TEST_F(IdentificationCommand, Table_WhenTextHasControlCharacters_StaysOnItsLine)
{
    const Outcome outcome =
        runOn(R"({"wirelessCarPlay": [{"identifier": 1, "name": "a\nb\u001b[31m\u202e"}]})");
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out, HasSubstr(R"(1   "a\u000ab\u001b[31m\u202e")"));
}

/* ---- --output -------------------------------------------------------------------------------- */

/** Puts a payload behind the header of a transaction. */
std::vector<std::uint8_t> transactionOf(const std::string& payload)
{
    std::vector<std::uint8_t> bytes(IAP2_TXN_PAYLOAD_OFFSET + payload.size());
    const auto length = static_cast<std::uint32_t>(payload.size());
    std::memcpy(bytes.data() + IAP2_TXN_LENGTH_OFFSET, &length, sizeof length);
    std::memcpy(bytes.data() + IAP2_TXN_PAYLOAD_OFFSET, payload.data(), payload.size());
    return bytes;
}

std::string getText(MarshalIo& mio)
{
    std::uint32_t length = 0;
    const std::uint8_t* const bytes = iAp2MarshalGetBytes(&mio, &length);
    return bytes == nullptr ? "(nothing)" : std::string(bytes, bytes + length);
}

template <std::size_t size> std::string withZero(const char (&text)[size])
{
    return std::string(text, size);
}

TEST_F(IdentificationCommand, Output_WhenWritten_IsWhatTheLibraryReads)
{
    const Outcome outcome = runOn(R"({
        "routeGuidanceDisplay": [{"identifier": 12, "values": [1, null, 3, null, 5, null, 65535]}],
        "bluetoothHid": {"identifier": 11, "name": "k", "value": 4000000000},
        "wirelessCarPlay": [{"identifier": 9, "name": "i"}, {"identifier": 10, "name": "j"}],
        "usbHostHid": [{"identifier": 8, "name": "h", "value": 70000, "values": [258, 65535]}],
        "locationInformation": {"identifier": 7, "name": "g", "values": [4, 5, 6]},
        "vehicleStatus": {"identifier": 6, "name": "f",
                          "values": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 255]},
        "vehicleInformation": {"identifier": 5, "name": "é", "engineTypes": [1, 2],
                               "essentialText": "", "texts": [null, "t"],
                               "chargingConnectors": [3],
                               "values": [null, 1, null, 2, null, 3, 4294967295]},
        "hid": [{"identifier": 4, "name": null, "value": 9}],
        "bluetooth": [{"identifier": 3, "name": "", "value": 8, "macAddress": "ffeeddccbbaa"}],
        "usbHost": {"identifier": 2, "name": "c", "values": [1, 2, 3]},
        "usbDevice": {"identifier": 1, "name": "b", "value": 7, "sampleRates": [44100, 48000]},
        "uart": {"identifier": 65535, "name": "a", "value": 255}})",
                                  {"--quiet", "--output", output.string()});
    ASSERT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(filesInFolder(), ElementsAre("in.json", "out.bin"));

    const std::vector<std::uint8_t> transaction = transactionOf(contentOf(output));
    MarshalIo mio{};
    iAp2MarshalInitFromTxn(&mio, transaction.data());

    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1); // UART transport
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 65535);
    EXPECT_EQ(getText(mio), withZero("a"));
    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 255);

    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1); // USB device transport
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 1);
    EXPECT_EQ(getText(mio), withZero("b"));
    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 7);
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 2U);
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 44100U);
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 48000U);

    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1); // USB host transport
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 2);
    EXPECT_EQ(getText(mio), withZero("c"));
    for (const int value : {1, 2, 3})
    {
        EXPECT_EQ(iAp2MarshalGetUint8(&mio), value);
    }

    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 1U); // Bluetooth transports
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 3);
    EXPECT_EQ(getText(mio), withZero(""));
    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 8);
    EXPECT_EQ(getText(mio), "\xFF\xEE\xDD\xCC\xBB\xAA");

    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 1U); // iAP2 HID
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 4);
    EXPECT_EQ(getText(mio), "");
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 9U);

    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1); // vehicle information
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 5);
    EXPECT_EQ(getText(mio), withZero("\xC3\xA9"));
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 2U);
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 1U);
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 2U);
    EXPECT_EQ(getText(mio), withZero(""));
    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 0);
    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1);
    EXPECT_EQ(getText(mio), withZero("t"));
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 1U);
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 3U);
    for (const std::uint32_t value : {1U, 2U, 3U})
    {
        EXPECT_EQ(iAp2MarshalGetUint8(&mio), 0);
        EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1);
        EXPECT_EQ(iAp2MarshalGetUint32(&mio), value);
    }
    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1);
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 4294967295U);

    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1); // vehicle status
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 6);
    EXPECT_EQ(getText(mio), withZero("f"));
    for (const int value : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 255})
    {
        EXPECT_EQ(iAp2MarshalGetUint8(&mio), value);
    }

    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1); // location information
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 7);
    EXPECT_EQ(getText(mio), withZero("g"));
    for (const int value : {4, 5, 6})
    {
        EXPECT_EQ(iAp2MarshalGetUint8(&mio), value);
    }

    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 1U); // USB host HID
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 8);
    EXPECT_EQ(getText(mio), withZero("h"));
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 70000U);
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 258);
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 65535);

    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 2U); // wireless CarPlay transports
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 9);
    EXPECT_EQ(getText(mio), withZero("i"));
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 10);
    EXPECT_EQ(getText(mio), withZero("j"));

    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1); // Bluetooth HID
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 11);
    EXPECT_EQ(getText(mio), withZero("k"));
    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 4000000000U);

    EXPECT_EQ(iAp2MarshalGetUint32(&mio), 1U); // route guidance displays
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 12);
    EXPECT_EQ(getText(mio), "");
    for (const int value : {1, 3, 5})
    {
        EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1);
        EXPECT_EQ(iAp2MarshalGetUint16(&mio), value);
        EXPECT_EQ(iAp2MarshalGetUint8(&mio), 0);
    }
    EXPECT_EQ(iAp2MarshalGetUint8(&mio), 1);
    EXPECT_EQ(iAp2MarshalGetUint16(&mio), 65535);

    EXPECT_EQ(mio.dataAvail, 0U);
    EXPECT_EQ(mio.flags, static_cast<std::uint32_t>(IAP2_MARSHAL_READING));
}

TEST_F(IdentificationCommand, Output_WhenFileExists_IsReplacedAndKeepsItsMode)
{
    write(output, "something longer than the payload will be, which must not show through it");
    fs::permissions(output, fs::perms::owner_read | fs::perms::owner_write);
    ASSERT_EQ(runOn("{}", {"--output", output.string()}).exitCode, 0);
    EXPECT_EQ(contentOf(output), std::string(48, '\0'));
    EXPECT_EQ(fs::status(output).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_THAT(filesInFolder(), ElementsAre("in.json", "out.bin"));
}

TEST_F(IdentificationCommand, Output_WhenNameIsALink_WritesWhereItLeads)
{
    const fs::path target = folder / "target.bin";
    write(target, "old");
    fs::create_symlink(target, output);
    ASSERT_EQ(runOn("{}", {"--output", output.string()}).exitCode, 0);
    EXPECT_TRUE(fs::is_symlink(output));
    EXPECT_EQ(contentOf(target), std::string(48, '\0'));
}

TEST_F(IdentificationCommand, Output_WhenNameIsADevice_WritesToIt)
{
    const Outcome outcome = runOn("{}", {"--quiet", "--output", "/dev/stdout"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, std::string(48, '\0'));
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    EXPECT_EQ(runOn("{}", {"--output", "/dev/null"}).exitCode, 0);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(IdentificationCommand, Output_WhenItCannotBeWritten_FailsWithTheSystemsReason)
{
    const std::string missing = (folder / "missing" / "out.bin").string();
    const Outcome outcome = runOn("{}", {"--output", missing});
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_EQ(outcome.err,
              "identification: " + missing + ": cannot be written: No such file or directory\n");
    EXPECT_EQ(runOn("{}", {"--output", folder.string()}).exitCode, 3);
    EXPECT_EQ(runOn("{}", {"--output", "/dev/full"}).exitCode, 3);
}

TEST_F(IdentificationCommand, Output_WhenItIsTheInput_IsRefused)
{
    const Outcome outcome = runOn("{}", {"--output", input.string()});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_EQ(outcome.err, "identification: --output: would overwrite the input\n");
    EXPECT_EQ(contentOf(input), "{}");
}

TEST_F(IdentificationCommand, Output_WhenInputIsBad_IsLeftAsItWas)
{
    write(output, "from before");
    EXPECT_EQ(runOn("{\"uart\": 1}", {"--output", output.string()}).exitCode, 2);
    EXPECT_EQ(contentOf(output), "from before");
    EXPECT_THAT(filesInFolder(), ElementsAre("in.json", "out.bin"));
}

/* ---- Streams --------------------------------------------------------------------------------- */

TEST_F(IdentificationCommand, Run_WhenNobodyReadsStandardOutput_EndsAsUsual)
{
    const std::vector<std::string> arguments{"--input", IDENTIFICATION_INPUT, "--level",      "91",
                                             "--dump",  "--output",           output.string()};
    const Outcome outcome = run(arguments, ChildProcess::Output::Nobody);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_TRUE(fs::exists(output));
    EXPECT_EQ(run({"--help"}, ChildProcess::Output::Nobody).exitCode, 0);
}

TEST_F(IdentificationCommand, Run_WhenStandardOutputIsFull_FailsWithTheSystemsReason)
{
    const Outcome outcome =
        run({"--input", IDENTIFICATION_INPUT, "--level", "91", "--output", output.string()},
            ChildProcess::Output::FullDevice);
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_EQ(outcome.err, "identification: standard output: No space left on device\n");
    EXPECT_FALSE(fs::exists(output));
}

TEST_F(IdentificationCommand, Run_WhenStandardOutputIsSlow_LosesNothing)
{
    const std::vector<std::string> arguments{"--input", IDENTIFICATION_INPUT, "--level", "91",
                                             "--dump"};
    EXPECT_EQ(run(arguments, ChildProcess::Output::SmallPipe).out, run(arguments).out);
}

TEST_F(IdentificationCommand, Run_WhenReaderIsKilled_SaysSo)
{
    // The reader hangs in its output, which nobody reads yet, while it is looked for and killed.
    ChildProcess child({"--input", IDENTIFICATION_INPUT, "--dump", "--output", output.string()},
                       ChildProcess::Output::SmallPipe);
    ASSERT_TRUE(child.readErrorsUntil("]: differences from what was sent"));
    const std::string role = "reader[";
    const std::size_t at = child.errors().find(role);
    ASSERT_NE(at, std::string::npos);
    const int reader = std::stoi(child.errors().substr(at + role.size()));
    ASSERT_GT(reader, 1);
    ASSERT_EQ(kill(reader, SIGKILL), 0);

    const Outcome outcome = child.finish();
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(withoutEndOfLog(outcome.err),
                EndsWith("identification: the reader was ended by signal 9\n"));
    EXPECT_FALSE(fs::exists(output));
}

/* ---- Bad input ------------------------------------------------------------------------------- */

TEST_F(IdentificationCommand, Input_WhenFileIsMissing_IsRefused)
{
    const Outcome outcome = run({"--input", input.string(), "--output", output.string()});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_EQ(outcome.err, "identification: " + input.string() +
                               ": cannot be read: No such file or directory\n");
    EXPECT_THAT(filesInFolder(), IsEmpty());
}

TEST_F(IdentificationCommand, Input_WhenItIsAFolder_IsRefused)
{
    const Outcome outcome = run({"--input", folder.string()});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_EQ(outcome.err,
              "identification: " + folder.string() + ": cannot be read: Is a directory\n");
}

TEST_F(IdentificationCommand, Input_WhenFileIsHuge_IsRefused)
{
    expectRefused("{}" + std::string(1024 * 1024, ' '), "is larger than 1048576 bytes");
}

TEST_F(IdentificationCommand, Input_WhenFileIsAsLargeAsAllowed_IsAccepted)
{
    EXPECT_EQ(runOn("{}" + std::string(1024 * 1024 - 2, ' ')).exitCode, 0);
}

TEST_F(IdentificationCommand, Input_WhenNotJson_NamesLineAndColumn)
{
    expectRefused("{\n  \"uart\": ü\n}", "line 2, column 11: not JSON: syntax error while parsing "
                                         "value - invalid literal");
    expectRefused("{\"uart\" 1}", "line 1, column 9: not JSON: syntax error while parsing object "
                                  "separator - unexpected number literal; expected ':'");
    expectRefused("", "line 1, column 1: not JSON: syntax error while parsing value - unexpected "
                      "end of input; expected '[', '{', or a literal");
}

TEST_F(IdentificationCommand, Input_WhenNotJson_IsRefusedInOneLineWhateverItHolds)
{
    const std::string binary("\x7f\x45LF\x02\x01\x01\x00\x00\n\n{}", 13);
    for (const std::string& json :
         {binary, std::string("{"), std::string("{\"uart\": {}"), std::string("{} {}"),
          std::string("[1, 2"), std::string("{\"uart\": \"a\nb\"}"), std::string("{'uart': 1}"),
          std::string("{\"uart\": 01}"), std::string("{\"a\": \"\\ud800\"}"),
          std::string("// nothing\n{}"), "{\"" + std::string(100000, 'x')})
    {
        write(input, json);
        const Outcome outcome = run({"--input", input.string(), "--output", output.string()});
        EXPECT_EQ(outcome.exitCode, 2);
        EXPECT_THAT(linesOf(outcome.err),
                    ElementsAre(MatchesRegex("identification: .*/in\\.json: line [0-9]+, column "
                                             "[0-9]+: not JSON: syntax error.*")));
        EXPECT_LT(outcome.err.size(), 500U);
        EXPECT_FALSE(fs::exists(output));
    }
}

TEST_F(IdentificationCommand, Input_WhenNotUtf8_NamesThePlace)
{
    expectRefused("{\"uart\": {\"identifier\": 1,\n \"name\": \"M\xFCnchen\", \"value\": 1}}",
                  "uart.name (line 2, column 12): not UTF-8");
    expectRefused("\xFF\xFE{", "line 1, column 1: not UTF-8");
    expectRefused("{\"uart\": {\"identifier\": 1, \"\xC0\xAF\": 1}}",
                  "uart (line 1, column 29): not UTF-8");
}

TEST_F(IdentificationCommand, Input_WhenKeyIsUnknown_NamesIt)
{
    expectRefused(R"({"wifi": {}})",
                  "wifi: unknown key; there are uart, usbDevice, usbHost, bluetooth, hid, "
                  "vehicleInformation, vehicleStatus, locationInformation, usbHostHid, "
                  "wirelessCarPlay, bluetoothHid, routeGuidanceDisplay");
    expectRefused(withBluetooth(R"("identifier": 2, "macaddress": "")"),
                  "bluetooth[1].macaddress: unknown key; there are identifier, name, value, "
                  "macAddress");
    expectRefused(R"({"uart": {"a\nb": 1}})",
                  R"(uart."a\u000ab": unknown key; there are identifier, name, value)");
}

TEST_F(IdentificationCommand, Input_WhenKeyIsMissing_NamesIt)
{
    expectRefused(R"({"uart": {"name": "x", "value": 1}})", "uart.identifier: is missing");
    expectRefused(R"({"uart": {"identifier": 1}})", "uart.value: is missing");
    expectRefused(R"({"usbHost": {"identifier": 1}})", "usbHost.values: is missing");
    expectRefused(withBluetooth(R"("identifier": 2, "value": 1)"),
                  "bluetooth[1].macAddress: is missing");
}

TEST_F(IdentificationCommand, Input_WhenTypeIsWrong_NamesBothTypes)
{
    expectRefused("[]", "the top level: must be an object, not an array");
    expectRefused(R"({"uart": null})", "uart: must be an object, not null");
    expectRefused(R"({"uart": [1]})", "uart: must be an object, not an array");
    expectRefused(R"({"bluetooth": {}})", "bluetooth: must be an array, not an object");
    expectRefused(R"({"bluetooth": [3]})", "bluetooth[0]: must be an object, not a number");
    expectRefused(R"({"uart": {"identifier": "1", "value": 1}})",
                  "uart.identifier: must be a number, not a text");
    expectRefused(R"({"uart": {"identifier": 1, "value": true}})",
                  "uart.value: must be a number, not true or false");
    expectRefused(R"({"uart": {"identifier": 1, "value": null}})",
                  "uart.value: must be a number, not null");
    expectRefused(R"({"uart": {"identifier": 1, "value": 1, "name": 5}})",
                  "uart.name: must be a text, not a number");
    expectRefused(withBluetooth(R"("identifier": 2, "value": 1, "macAddress": 26)"),
                  "bluetooth[1].macAddress: must be a text, not a number");
    expectRefused(R"({"usbDevice": {"identifier": 1, "value": 1, "sampleRates": [1, "2"]}})",
                  "usbDevice.sampleRates[1]: must be a number, not a text");
    expectRefused(R"({"usbDevice": {"identifier": 1, "value": 1, "sampleRates": [null]}})",
                  "usbDevice.sampleRates[0]: must be a number, not null");
    expectRefused(R"({"vehicleInformation": {"identifier": 1, "texts": ["", {}]}})",
                  "vehicleInformation.texts[1]: must be a text, not an object");
    expectRefused(R"({"vehicleInformation": {"identifier": 1, "values": 7}})",
                  "vehicleInformation.values: must be an array, not a number");
    expectRefused(R"({"uart": {"identifier": 1.5, "value": 1}})",
                  "uart.identifier: is 1.5, not a number without point and exponent");
}

TEST_F(IdentificationCommand, Input_WhenCountIsWrong_NamesIt)
{
    expectRefused(R"({"usbHost": {"identifier": 1, "values": [1, 2]}})",
                  "usbHost.values: must have 3 entries, not 2");
    expectRefused(R"({"vehicleInformation": {"identifier": 1, "texts": ["", "", ""]}})",
                  "vehicleInformation.texts: must have 2 entries, not 3");
}

TEST_F(IdentificationCommand, Input_WhenNumberIsOutOfItsWidth_NamesTheRange)
{
    expectRefused(R"({"uart": {"identifier": 65536, "value": 1}})",
                  "uart.identifier: is 65536, outside 0 to 65535");
    expectRefused(R"({"uart": {"identifier": 1, "value": 256}})",
                  "uart.value: is 256, outside 0 to 255");
    expectRefused(R"({"uart": {"identifier": 1, "value": -1}})",
                  "uart.value: is -1, outside 0 to 255");
    expectRefused(R"({"hid": [{"identifier": 1, "value": 4294967296}]})",
                  "hid[0].value: is 4294967296, outside 0 to 4294967295");
    expectRefused(R"({"hid": [{"identifier": 1, "value": 18446744073709551616}]})",
                  "hid[0].value: is 1.8446744073709552e+19, outside 0 to 4294967295");
    expectRefused(R"({"hid": [{"identifier": 1, "value": -9223372036854775809}]})",
                  "hid[0].value: is -9.223372036854776e+18, outside 0 to 4294967295");
    expectRefused(R"({"hid": [{"identifier": 1, "value": 1e999}]})",
                  "hid[0].value: the number is larger than any that is allowed");
    expectRefused(R"({"routeGuidanceDisplay": [{"identifier": 1,)"
                  R"( "values": [null, 1, 2, 65536, 4, 5, 6]}]})",
                  "routeGuidanceDisplay[0].values[3]: is 65536, outside 0 to 65535");
}

TEST_F(IdentificationCommand, Input_WhenMacAddressIsMalformed_ShowsIt)
{
    for (const char* const text :
         {"", "00:1A:7D:DA:71", "001A7DDA711", "001A7DDA71133", "00:1A:7D:DA:71:1",
          "00:1A:7D:DA:71:1G", "00-1A-7D-DA-71-13", "00:1A:7D:DA:71:13:", "0:01A:7D:DA:71:13",
          "00:1A7D:DA:71:13", " 01A7DDA7113", "-01A7DDA7113", "0x1A7DDA7113", "00 1A 7D DA 71 13",
          "001A7DDA711é"})
    {
        expectRefused(withBluetooth(R"("identifier": 2, "value": 1, "macAddress": ")" +
                                    std::string(text) + '"'),
                      "bluetooth[1].macAddress: is \"" + std::string(text) +
                          "\", not a MAC address such as 00:1A:7D:DA:71:13 or 001A7DDA7113");
    }
}

TEST_F(IdentificationCommand, Input_WhenIdentifierIsUsedTwice_NamesBothPlaces)
{
    expectRefused(R"({"uart": {"identifier": 1, "value": 1},)"
                  R"( "wirelessCarPlay": [{"identifier": 2}, {"identifier": 1}]})",
                  "wirelessCarPlay[1].identifier: 1 is the identifier of uart already");
    expectRefused(R"({"hid": [{"identifier": 7, "value": 1}, {"identifier": 7, "value": 1}]})",
                  "hid[1].identifier: 7 is the identifier of hid[0] already");
}

TEST_F(IdentificationCommand, Input_WhenKeyStandsTwice_NamesIt)
{
    expectRefused(R"({"uart": {"identifier": 1, "value": 1, "value": 2}})",
                  "uart.value: stands there twice");
    expectRefused(R"({"hid": [], "uart": {"identifier": 1, "value": 1}, "hid": []})",
                  "hid: stands there twice");
    expectRefused(withBluetooth(R"("name": "a", "name": "a")"),
                  "bluetooth[1].name: stands there twice");
}

TEST_F(IdentificationCommand, Input_WhenNestedTooDeep_IsRefused)
{
    expectRefused(std::string(17, '[') + std::string(17, ']'),
                  "[0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0]: nested deeper than 16 levels");
    expectRefused(std::string(500000, '['),
                  "[0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0]: nested deeper than 16 levels");
}

TEST_F(IdentificationCommand, Input_WhenTextContainsNul_IsRefused)
{
    expectRefused(R"({"uart": {"identifier": 1, "name": "a\u0000b", "value": 1}})",
                  "uart.name: contains the character \\u0000, which ends a text");
}

/* ---- The room in the transaction ------------------------------------------------------------- */

/** A UART transport with a name of `length` characters and a Bluetooth HID function. */
std::string withNameOf(std::size_t length, const std::string& hidName)
{
    return R"({"uart": {"identifier": 1, "value": 1, "name": ")" + std::string(length, 'x') +
           R"("}, "bluetoothHid": {"identifier": 2, "value": 1, "name": ")" + hidName + R"("}})";
}

// Beside the name of the UART transport there are 48 bytes of presence flags and counts, 12 for the
// identifier, the length of the name and the value of each component, 4 for an empty HID name and 1
// for the terminating zero.
constexpr std::size_t kLongestName = 8120 - 48 - 2 * 12 - 4 - 1;

TEST_F(IdentificationCommand, Input_WhenPayloadFillsTheBufferExactly_IsAccepted)
{
    ASSERT_EQ(runOn(withNameOf(kLongestName, ""), {"--output", output.string()}).exitCode, 0);
    EXPECT_EQ(fs::file_size(output), 8120U);
}

TEST_F(IdentificationCommand, Input_WhenTextIsTooLong_NamesIt)
{
    expectRefused(withNameOf(9000, ""),
                  "uart.name: does not fit: 9008 bytes, where 8112 are left of 8120");
    expectRefused(withNameOf(100, std::string(8000, 'y')),
                  "bluetoothHid.name: does not fit: 8008 bytes, where 7956 are left of 8120");
}

TEST_F(IdentificationCommand, Input_WhenTextLeavesNoRoomForTheRest_NamesBoth)
{
    expectRefused(withNameOf(kLongestName, "12345678"),
                  "bluetoothHid.value: does not fit: 4 bytes, where 0 are left of 8120 "
                  "(uart.name takes 8044)");
}

TEST_F(IdentificationCommand, Input_WhenListIsTooLong_NamesTheEntry)
{
    std::string rates = "1";
    for (int i = 0; i < 3000; ++i)
    {
        rates += ",1";
    }
    expectRefused(R"({"usbDevice": {"identifier": 1, "value": 1, "sampleRates": [)" + rates + "]}}",
                  "usbDevice.sampleRates[2024]: does not fit: 4 bytes, where 0 are left of 8120");
}

TEST_F(IdentificationCommand, Complaint_WhenFileNameHasANewline_StaysOnOneLine)
{
    const Outcome outcome = run({"--input", (folder / "a\nb").string()});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_EQ(outcome.err, "identification: " + folder.string() +
                               "/a\\u000ab: cannot be read: No such file or directory\n");
}

} // namespace
