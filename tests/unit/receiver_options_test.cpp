// The command line, word by word: what the sender's options mean here, what the
// receiver's own ones take, and what is wrong use. Nothing is opened.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "options.h"

namespace receiver_options_test {

using namespace receiver;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using words_t = std::vector<std::string>;

options parse(const words_t& words, const std::string& program = "replay_receiver")
{
    std::vector<const char*> argv{program.c_str()};
    for (const std::string& word : words)
        argv.push_back(word.c_str());
    return parse_options(static_cast<int>(argv.size()), argv.data());
}

struct ending {
    bool wrong;
    std::string text;
};

// How the command line ends the program; none when it does not.
std::optional<ending> ending_of(const words_t& words)
{
    try {
        (void)parse(words);
    } catch (const usage_end& end) {
        return ending{end.is_wrong_use(), end.what()};
    }
    return std::nullopt;
}

// The message for wrong use, or what happened instead.
std::string wrong_use(const words_t& words)
{
    const std::optional<ending> end = ending_of(words);
    if (!end)
        return "(taken)";
    return end->wrong ? end->text : "(not wrong)";
}

// ----------------------------------------------------------------------- defaults

TEST(ReceiverOptions, TheSendersWordsHaveTheSendersDefaults)
{
    const options to = parse({});
    EXPECT_EQ(to.ip, "127.0.0.1");
    EXPECT_EQ(to.port, 9089);
    EXPECT_TRUE(to.tcp);
    EXPECT_EQ(to.device, "");
    EXPECT_EQ(to.source.path, "");
    EXPECT_FALSE(to.source.captures);
    EXPECT_EQ(to.source.filter, "");
    EXPECT_EQ(to.source.passes, 1U);
    EXPECT_FALSE(to.source.preload);
    EXPECT_EQ(to.wanted_bps, 0U);
    EXPECT_THAT(to.remarks, IsEmpty());
}

TEST(ReceiverOptions, TheReceiversOwnWordsHaveTheirDefaults)
{
    const options to = parse({});
    EXPECT_EQ(to.connect_timeout_s, 10);
    EXPECT_EQ(to.receive_buffer, std::nullopt);
    EXPECT_EQ(to.window, 4096U);
    EXPECT_EQ(to.tolerance_percent, 0.5);
    EXPECT_EQ(to.settle_s, 0.2);
    EXPECT_EQ(to.idle_s, 2);
    EXPECT_EQ(to.duration_s, std::nullopt);
    EXPECT_EQ(to.messages, std::nullopt);
    EXPECT_EQ(to.bytes, std::nullopt);
    EXPECT_EQ(to.progress, progress_mode::automatic);
    EXPECT_FALSE(to.plan);
}

TEST(ReceiverOptions, NoFileIsWrittenUnlessAskedFor)
{
    const options to = parse({});
    EXPECT_EQ(to.json, "");
    EXPECT_EQ(to.csv, "");
    EXPECT_EQ(to.report, "");
    EXPECT_EQ(to.write, "");
}

TEST(ReceiverOptions, WithoutAPathThereIsNothingToCompareWith)
{
    EXPECT_FALSE(parse({}).has_source());
    EXPECT_TRUE(parse({"--filepath", "day.dat"}).has_source());
}

// ----------------------------------------------------------------- the sender's own

TEST(ReceiverOptions, TheSendersTextsAreTakenAsTheyStand)
{
    const options to = parse(
        {"--ip", "239.1.1.1", "--filepath", "Day 1.PCAP", "--filetype", "1", "--filter",
         "  UDP and port 5000 ", "--device", "eth1"});
    EXPECT_EQ(to.ip, "239.1.1.1");
    EXPECT_EQ(to.source.path, "Day 1.PCAP");
    EXPECT_EQ(to.source.filter, "  UDP and port 5000 ");
    EXPECT_EQ(to.device, "eth1");
}

TEST(ReceiverOptions, APortIsAnyOfTheSixteenBitsButZero)
{
    EXPECT_EQ(parse({"--port", "1"}).port, 1);
    EXPECT_EQ(parse({"--port", "65535"}).port, 65535);
    EXPECT_THAT(wrong_use({"--port", "0"}), HasSubstr("--port"));
    EXPECT_THAT(wrong_use({"--port", "65536"}), HasSubstr("--port"));
    EXPECT_THAT(wrong_use({"--port", "-1"}), HasSubstr("--port"));
}

// A leading zero is no other base for the sender either.
TEST(ReceiverOptions, TheSendersNumbersAreDecimal)
{
    EXPECT_EQ(parse({"--port", "09089"}).port, 9089);
    EXPECT_EQ(parse({"--loopback", "010"}).source.passes, 10U);
}

TEST(ReceiverOptions, TheFileTypeIsDataOrCaptures)
{
    EXPECT_FALSE(parse({"--filepath", "x", "--filetype", "0"}).source.captures);
    EXPECT_TRUE(
        parse({"--filepath", "x", "--filetype", "1", "--filter", "udp"}).source.captures);
    EXPECT_THAT(wrong_use({"--filetype", "2"}), HasSubstr("--filetype"));
    EXPECT_THAT(wrong_use({"--filetype", "-1"}), HasSubstr("--filetype"));
}

TEST(ReceiverOptions, ZeroPassesAreEndless)
{
    EXPECT_EQ(parse({"--loopback", "0"}).source.passes, 0U);
    EXPECT_EQ(parse({"--loopback", "3"}).source.passes, 3U);
    EXPECT_EQ(parse({"--loopback", "4294967295"}).source.passes, 4294967295U);
}

TEST(ReceiverOptions, NegativePassesWrapToThirtyTwoBits)
{
    EXPECT_EQ(parse({"--loopback", "-1"}).source.passes, 4294967295U);
    EXPECT_EQ(parse({"--loopback=-2"}).source.passes, 4294967294U);
    EXPECT_EQ(parse({"--loopback", "-2147483648"}).source.passes, 2147483648U);
}

TEST(ReceiverOptions, PassesBeyondThirtyTwoBitsAreRefused)
{
    EXPECT_THAT(wrong_use({"--loopback", "4294967296"}), HasSubstr("--loopback"));
    EXPECT_THAT(wrong_use({"--loopback", "-2147483649"}), HasSubstr("--loopback"));
}

TEST(ReceiverOptions, ARateIsInMillionsOfBits)
{
    EXPECT_EQ(parse({"--mbps", "200"}).wanted_bps, 200'000'000U);
    EXPECT_EQ(parse({"--mbps", "0.5"}).wanted_bps, 500'000U);
    EXPECT_EQ(parse({"--mbps", "0"}).wanted_bps, 0U);
}

// The values that IEEE single precision gives.
TEST(ReceiverOptions, ARateIsReadInSinglePrecision)
{
    EXPECT_EQ(parse({"--mbps", "333.333"}).wanted_bps, 333'332'992U);
    EXPECT_EQ(parse({"--mbps", "16.777217"}).wanted_bps, 16'777'218U);
    EXPECT_EQ(parse({"--mbps", "9999.99"}).wanted_bps, 9'999'989'760U);
    EXPECT_EQ(parse({"--mbps", "1e12"}).wanted_bps, 999'999'984'306'749'440U);
}

TEST(ReceiverOptions, ARateIsCutToWholeBits)
{
    EXPECT_EQ(parse({"--mbps", "0.0000018"}).wanted_bps, 1U);
    EXPECT_EQ(parse({"--mbps", "0.0000009"}).wanted_bps, 0U);
}

TEST(ReceiverOptions, ARateThatIsNoneIsRefused)
{
    for (const char* rate : {"-1", "-0.1", "nan", "inf", "1e13", "fast"})
        EXPECT_THAT(wrong_use({"--mbps", rate}), HasSubstr("--mbps")) << rate;
}

TEST(ReceiverOptions, TheProtocolIsTakenInAnyCase)
{
    for (const char* word : {"tcp", "TCP", "tCp"})
        EXPECT_TRUE(parse({"--protocol", word}).tcp) << word;
    for (const char* word : {"udp", "UDP", "Udp"})
        EXPECT_FALSE(parse({"--protocol", word}).tcp) << word;
}

TEST(ReceiverOptions, TcpAndUdpNeedNoRemark)
{
    for (const char* word : {"tcp", "TCP", "udp", "UDP"})
        EXPECT_THAT(parse({"--protocol", word}).remarks, IsEmpty()) << word;
}

TEST(ReceiverOptions, AnyOtherProtocolIsUdpWithARemarkThatNamesIt)
{
    for (const char* word : {"sctp", "tcp ", "upd", "6"}) {
        const options to = parse({"--protocol", word});
        EXPECT_FALSE(to.tcp) << word;
        ASSERT_THAT(to.remarks, SizeIs(1)) << word;
        EXPECT_THAT(to.remarks[0], HasSubstr("--protocol"));
        EXPECT_THAT(to.remarks[0], HasSubstr(word));
        EXPECT_THAT(to.remarks[0], HasSubstr("udp"));
    }
}

TEST(ReceiverOptions, OnlyOnePreloads)
{
    // The sender cuts the number to 32 bits.
    for (const char* value : {"1", "4294967297", "-4294967295"})
        EXPECT_TRUE(parse({"--preload", value}).source.preload) << value;
    for (const char* value : {"0", "2", "-1", "4294967296"})
        EXPECT_FALSE(parse({"--preload", value}).source.preload) << value;
}

TEST(ReceiverOptions, DebuggingIsIgnoredWithARemark)
{
    for (const char* value : {"0", "1", "7"}) {
        const options to = parse({"--debug", value});
        ASSERT_THAT(to.remarks, SizeIs(1)) << value;
        EXPECT_THAT(to.remarks[0], HasSubstr("--debug"));
    }
}

// ------------------------------------------------------------- the receiver's own

TEST(ReceiverOptions, SecondsMayHaveAFraction)
{
    const options to = parse(
        {"--connect-timeout", "2.5", "--settle", "0.25", "--idle", "0.125", "--duration",
         "1e3"});
    EXPECT_EQ(to.connect_timeout_s, 2.5);
    EXPECT_EQ(to.settle_s, 0.25);
    EXPECT_EQ(to.idle_s, 0.125);
    EXPECT_EQ(to.duration_s, 1000);
}

TEST(ReceiverOptions, SettlingAndConnectingMayTakeNoTimeAtAll)
{
    EXPECT_EQ(parse({"--settle", "0"}).settle_s, 0);
    EXPECT_EQ(parse({"--connect-timeout", "0"}).connect_timeout_s, 0);
}

TEST(ReceiverOptions, AToleranceOfZeroIsAllowed)
{
    EXPECT_EQ(parse({"--tolerance", "0"}).tolerance_percent, 0);
    EXPECT_EQ(parse({"--tolerance", "2.5"}).tolerance_percent, 2.5);
}

TEST(ReceiverOptions, LimitsCountMessagesAndBytes)
{
    const options to = parse({"--messages", "18446744073709551615", "--bytes", "1"});
    EXPECT_EQ(to.messages, std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(to.bytes, 1U);
}

TEST(ReceiverOptions, SizesTakeSuffixesOf1024)
{
    const std::vector<std::tuple<const char*, uint64_t>> sizes = {
        {"1", 1},        {"65536", 65536},  {"1k", 1024},       {"1K", 1024},
        {"3m", 3145728}, {"64M", 67108864}, {"2G", 2147483648}, {"2g", 2147483648}};
    for (const auto& [text, size] : sizes) {
        EXPECT_EQ(parse({"--rcvbuf", text}).receive_buffer, size) << text;
        EXPECT_EQ(parse({"--bytes", text}).bytes, size) << text;
    }
}

TEST(ReceiverOptions, SizesWithAnotherSuffixAreRefused)
{
    for (const char* size : {"1x", "1.5k", "1.5.2", "99999999999G", "-1k", ""}) {
        EXPECT_THAT(wrong_use({"--rcvbuf", size}), HasSubstr("--rcvbuf")) << size;
        EXPECT_THAT(wrong_use({"--bytes", size}), HasSubstr("--bytes")) << size;
    }
}

TEST(ReceiverOptions, AWindowHoldsOneMessageToAMillion)
{
    EXPECT_EQ(parse({"--window", "1"}).window, 1U);
    EXPECT_EQ(parse({"--window", "1048576"}).window, 1048576U);
    EXPECT_THAT(wrong_use({"--window", "0"}), HasSubstr("--window"));
    EXPECT_THAT(wrong_use({"--window", "1048577"}), HasSubstr("--window"));
}

TEST(ReceiverOptions, ProgressIsOneOfThreeWords)
{
    EXPECT_EQ(parse({"--progress", "auto"}).progress, progress_mode::automatic);
    EXPECT_EQ(parse({"--progress", "always"}).progress, progress_mode::always);
    EXPECT_EQ(parse({"--progress", "never"}).progress, progress_mode::never);
    EXPECT_THAT(wrong_use({"--progress", "sometimes"}), HasSubstr("--progress"));
}

TEST(ReceiverOptions, FilesToWriteAreTakenAsTheyStand)
{
    const options to = parse(
        {"--json", "a.json", "--csv", "b.csv", "--report", "c.html", "--write",
         "d.pcap"});
    EXPECT_EQ(to.json, "a.json");
    EXPECT_EQ(to.csv, "b.csv");
    EXPECT_EQ(to.report, "c.html");
    EXPECT_EQ(to.write, "d.pcap");
}

TEST(ReceiverOptions, AHyphenIsAFileName)
{
    EXPECT_EQ(parse({"--json", "-"}).json, "-");
    EXPECT_EQ(parse({"--json=-"}).json, "-");
}

TEST(ReceiverOptions, APlanIsAskedForWithoutAValue)
{
    EXPECT_TRUE(parse({"--filepath", "x", "--plan"}).plan);
    EXPECT_TRUE(parse({"--plan", "--filepath", "x"}).plan);
}

// -------------------------------------------------------------------------- shape

// Each option with a value that differs from its default, and that value read back.
struct option_case {
    const char* name;
    const char* value;
    std::string (*read)(const options&);
};

const option_case CASES[] = {
    {"--ip", "10.1.2.3", [](const options& to) { return to.ip; }},
    {"--port", "5000", [](const options& to) { return std::to_string(to.port); }},
    {"--filepath", "day", [](const options& to) { return to.source.path; }},
    {"--filetype", "1",
     [](const options& to) { return std::to_string(to.source.captures); }},
    {"--filter", "udp", [](const options& to) { return to.source.filter; }},
    {"--loopback", "7",
     [](const options& to) { return std::to_string(to.source.passes); }},
    {"--mbps", "3",
     [](const options& to) { return std::to_string(to.wanted_bps / 1000000); }},
    {"--protocol", "udp",
     [](const options& to) { return std::string(to.tcp ? "tcp" : "udp"); }},
    {"--device", "eth7", [](const options& to) { return to.device; }},
    {"--preload", "1",
     [](const options& to) { return std::to_string(to.source.preload); }},
    {"--debug", "1", [](const options& to) { return std::to_string(to.remarks.size()); }},
    {"--connect-timeout", "3",
     [](const options& to) {
         return std::to_string(static_cast<int>(to.connect_timeout_s));
     }},
    {"--rcvbuf", "77",
     [](const options& to) { return std::to_string(*to.receive_buffer); }},
    {"--window", "78", [](const options& to) { return std::to_string(to.window); }},
    {"--tolerance", "4",
     [](const options& to) {
         return std::to_string(static_cast<int>(to.tolerance_percent));
     }},
    {"--settle", "5",
     [](const options& to) { return std::to_string(static_cast<int>(to.settle_s)); }},
    {"--idle", "6",
     [](const options& to) { return std::to_string(static_cast<int>(to.idle_s)); }},
    {"--duration", "8",
     [](const options& to) { return std::to_string(static_cast<int>(*to.duration_s)); }},
    {"--messages", "9", [](const options& to) { return std::to_string(*to.messages); }},
    {"--bytes", "11", [](const options& to) { return std::to_string(*to.bytes); }},
    {"--progress", "never",
     [](const options& to) {
         return std::string(to.progress == progress_mode::never ? "never" : "other");
     }},
    {"--json", "j", [](const options& to) { return to.json; }},
    {"--csv", "c", [](const options& to) { return to.csv; }},
    {"--report", "r", [](const options& to) { return to.report; }},
    {"--write", "w", [](const options& to) { return to.write; }},
};

std::string upper(std::string word)
{
    for (char& c : word) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    return word;
}

TEST(ReceiverOptions, EveryOptionTakesTheNextWord)
{
    for (const option_case& each : CASES)
        EXPECT_EQ(each.read(parse({each.name, each.value})), each.value) << each.name;
}

TEST(ReceiverOptions, EveryOptionTakesItsValueBehindAnEqualsSign)
{
    for (const option_case& each : CASES)
        EXPECT_EQ(
            each.read(parse({std::string(each.name) + "=" + each.value})), each.value)
            << each.name;
}

TEST(ReceiverOptions, EveryOptionIsKnownInAnyCase)
{
    for (const option_case& each : CASES)
        EXPECT_EQ(each.read(parse({upper(each.name), each.value})), each.value)
            << each.name;
    EXPECT_TRUE(parse({"--PLAN", "--FilePath", "x"}).plan);
}

TEST(ReceiverOptions, TheLastOfARepeatedOptionCounts)
{
    for (const option_case& each : CASES) {
        if (std::string(each.name) == "--debug")
            continue;
        const std::string first = std::string(each.name) == "--protocol" ? "tcp"
                                  : std::string(each.name) == "--ip"     ? "127.0.0.1"
                                  : std::string(each.name) == "--progress"
                                      ? "always"
                                      : "0" + std::string(each.name[2] == 'f' ? "" : "1");
        EXPECT_EQ(
            each.read(parse({each.name, first, upper(each.name), each.value})),
            each.value)
            << each.name;
    }
}

TEST(ReceiverOptions, RepeatedOptionsGiveOneRemark)
{
    EXPECT_THAT(parse({"--debug", "1", "--debug", "0"}).remarks, SizeIs(1));
    EXPECT_THAT(parse({"--protocol", "sctp", "--protocol", "tcp"}).remarks, IsEmpty());
}

TEST(ReceiverOptions, AValueMayLookLikeAnOption)
{
    EXPECT_EQ(parse({"--filepath", "--port"}).source.path, "--port");
    EXPECT_EQ(parse({"--filter", "-x", "--port", "5"}).source.filter, "-x");
}

TEST(ReceiverOptions, EveryOptionNeedsItsValue)
{
    for (const option_case& each : CASES)
        EXPECT_THAT(wrong_use({each.name}), HasSubstr(each.name));
}

// ---------------------------------------------------------------------- wrong use

TEST(ReceiverOptions, WordsThatAreNoOptionAreRefusedByName)
{
    EXPECT_THAT(wrong_use({"--bogus"}), HasSubstr("--bogus"));
    EXPECT_THAT(wrong_use({"--bogus=1"}), HasSubstr("--bogus"));
    EXPECT_THAT(wrong_use({"day.pcap"}), HasSubstr("day.pcap"));
    EXPECT_THAT(wrong_use({"-x"}), HasSubstr("-x"));
    EXPECT_THAT(wrong_use({"--port", "5", "6"}), HasSubstr("6"));
}

TEST(ReceiverOptions, AnAbbreviationIsNoOption)
{
    EXPECT_THAT(wrong_use({"--file", "x"}), HasSubstr("--file"));
}

TEST(ReceiverOptions, TextInPlaceOfANumberIsRefusedByTheOptionsName)
{
    for (const char* name :
         {"--port", "--filetype", "--loopback", "--mbps", "--preload", "--debug",
          "--connect-timeout", "--rcvbuf", "--window", "--tolerance", "--settle",
          "--idle", "--duration", "--messages", "--bytes"}) {
        EXPECT_THAT(wrong_use({name, "many"}), HasSubstr(name));
        EXPECT_THAT(wrong_use({name, "1y"}), HasSubstr(name));
    }
}

TEST(ReceiverOptions, NegativeAmountsAreRefusedByTheOptionsName)
{
    for (const char* name :
         {"--connect-timeout", "--rcvbuf", "--window", "--tolerance", "--settle",
          "--idle", "--duration", "--messages", "--bytes"})
        EXPECT_THAT(wrong_use({name, "-1"}), HasSubstr(name));
}

TEST(ReceiverOptions, LimitsOfNothingAreRefusedByTheOptionsName)
{
    for (const char* name :
         {"--rcvbuf", "--window", "--idle", "--duration", "--messages", "--bytes"})
        EXPECT_THAT(wrong_use({name, "0"}), HasSubstr(name));
}

TEST(ReceiverOptions, WhatIsNoNumberIsNoAmount)
{
    for (const char* name :
         {"--connect-timeout", "--tolerance", "--settle", "--idle", "--duration"}) {
        EXPECT_THAT(wrong_use({name, "nan"}), HasSubstr(name));
        EXPECT_THAT(wrong_use({name, "inf"}), HasSubstr(name));
    }
}

TEST(ReceiverOptions, AmountsThatAreTooLargeAreRefusedByTheOptionsName)
{
    for (const char* name : {"--rcvbuf", "--messages", "--bytes"})
        EXPECT_THAT(wrong_use({name, "18446744073709551616"}), HasSubstr(name));
    for (const char* name : {"--idle", "--duration", "--mbps"})
        EXPECT_THAT(wrong_use({name, "1e999"}), HasSubstr(name));
}

TEST(ReceiverOptions, WrongUseIsToldInAFewWords)
{
    for (const char* name :
         {"--connect-timeout", "--rcvbuf", "--tolerance", "--settle", "--idle",
          "--duration", "--messages", "--bytes"})
        EXPECT_LT(wrong_use({name, "-1"}).size(), 120U) << name;
}

TEST(ReceiverOptions, AnAddressHasFourNumbers)
{
    for (const char* ip : {"localhost", "1.2.3", "256.1.1.1", "::1", "", "1.2.3.4 "})
        EXPECT_THAT(wrong_use({"--ip", ip}), HasSubstr("--ip")) << ip;
    EXPECT_EQ(parse({"--ip", "0.0.0.0"}).ip, "0.0.0.0");
}

TEST(ReceiverOptions, CapturesNeedAFilter)
{
    EXPECT_THAT(wrong_use({"--filepath", "x", "--filetype", "1"}), HasSubstr("--filter"));
    EXPECT_THAT(
        wrong_use({"--filepath", "x", "--filetype", "1", "--preload", "1"}),
        HasSubstr("--filter"));
}

TEST(ReceiverOptions, AFilterNamesItsTransport)
{
    const words_t captures = {"--filepath", "x", "--filetype", "1", "--filter"};
    const auto with = [&](const std::string& filter) {
        words_t words = captures;
        words.push_back(filter);
        return words;
    };
    for (const char* filter : {"port 5000", "(udp)", "udp\tand port 5", "ip", " "})
        EXPECT_THAT(wrong_use(with(filter)), HasSubstr("--filter")) << filter;
    for (const char* filter : {"udp", "TCP", "port 5 and tcp", "\tudp\n"})
        EXPECT_EQ(parse(with(filter)).source.filter, filter);
}

// A preloaded capture is filtered by something else.
TEST(ReceiverOptions, ThePreloadedFilterNeedsNoTransport)
{
    const options to = parse(
        {"--filepath", "x", "--filetype", "1", "--filter", "port 5", "--preload", "1"});
    EXPECT_TRUE(to.source.preload);
    EXPECT_EQ(to.source.filter, "port 5");
}

TEST(ReceiverOptions, WithoutARecordingNoFilterIsNeeded)
{
    EXPECT_TRUE(parse({"--filetype", "1"}).source.captures);
}

TEST(ReceiverOptions, APlanNeedsARecording)
{
    EXPECT_THAT(wrong_use({"--plan"}), HasSubstr("--filepath"));
}

// ------------------------------------------------------------------------- endings

TEST(ReceiverOptions, HelpIsNotWrongUse)
{
    for (const char* word : {"--help", "-h", "--HELP", "-H", "--Help"}) {
        const std::optional<ending> end = ending_of({word});
        ASSERT_TRUE(end) << word;
        EXPECT_FALSE(end->wrong) << word;
        EXPECT_THAT(end->text, HasSubstr("--filepath")) << word;
    }
}

TEST(ReceiverOptions, HelpIsGivenBehindOtherWords)
{
    const std::optional<ending> end =
        ending_of({"--port", "5000", "--help", "--filepath", "x"});
    ASSERT_TRUE(end);
    EXPECT_FALSE(end->wrong);
}

TEST(ReceiverOptions, HelpMentionsEveryOption)
{
    const std::string help = ending_of({"--help"}).value().text;
    for (const option_case& each : CASES)
        EXPECT_THAT(help, HasSubstr(std::string("  ") + each.name + " ")) << each.name;
    for (const char* name : {"-h,--help", "--version", "--plan"})
        EXPECT_THAT(help, HasSubstr(name));
}

TEST(ReceiverOptions, HelpTellsTheExitStatuses)
{
    const std::string help = ending_of({"--help"}).value().text;
    for (const char* status :
         {"0 as expected", "1 content", "2 wrong use", "3 cannot connect", "4 rate",
          "5 undecided", "6 a file", "7 ended early"})
        EXPECT_THAT(help, HasSubstr(status));
}

TEST(ReceiverOptions, HelpFitsATerminal)
{
    const std::string help = ending_of({"--help"}).value().text;
    size_t begin = 0;
    while (begin < help.size()) {
        const size_t end = std::min(help.find('\n', begin), help.size());
        EXPECT_LE(end - begin, 100U) << help.substr(begin, end - begin);
        begin = end + 1;
    }
}

TEST(ReceiverOptions, TheVersionIsOneLineAndNotWrongUse)
{
    for (const char* word : {"--version", "--VERSION"}) {
        const std::optional<ending> end = ending_of({word});
        ASSERT_TRUE(end) << word;
        EXPECT_FALSE(end->wrong);
        EXPECT_THAT(
            end->text,
            testing::MatchesRegex("replay_receiver [0-9]+\\.[0-9]+\\.[0-9]+\n"));
    }
}

// ------------------------------------------------------------------ for the record

TEST(ReceiverOptions, TheCommandIsKeptAsTyped)
{
    EXPECT_EQ(
        parse({"--port", "5000", "--FILEPATH=day.dat"}, "./replay_receiver").command,
        "./replay_receiver --port 5000 --FILEPATH=day.dat");
}

TEST(ReceiverOptions, WordsWithBlanksAreQuotedInTheCommand)
{
    EXPECT_EQ(
        parse({"--filter", "udp and port 5", "--device", ""}).command,
        "replay_receiver --filter 'udp and port 5' --device ''");
}

// What a shell would have to be given again.
TEST(ReceiverOptions, AQuoteInTheCommandIsQuotedItself)
{
    EXPECT_EQ(
        parse({"--filepath", "it's"}).command, R"(replay_receiver --filepath 'it'\''s')");
}

} // namespace receiver_options_test
