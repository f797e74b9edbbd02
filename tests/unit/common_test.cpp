// The shared ground: constants, the message buffer, the exception, the fatal
// checks, the text helpers, the dump, and the finding and reading of data files.
// Read errors, failed opens and sleeps come through the call seam.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "common.h"
#include "support/call_seam.h"
#include "support/scratch_dir.h"

namespace common_test {

namespace call = support::call;
namespace fs = std::filesystem;

using vesk::data_t;
using vesk::dataBuffer;
using vesk::MAX_BUFFER_SIZE;
using vesk::details::DataType;
using vesk::details::DATATYPE_NAMES;
using vesk::details::file_helper;
using vesk::details::FileType;
using vesk::details::ProtocolType;
using vesk::details::vesk_ex;

// --- Constants, types and tables -------------------------------------------

template <auto Constant>
constexpr bool is_unnamed_int = std::conjunction_v<
    std::is_enum<decltype(Constant)>, std::is_convertible<decltype(Constant), int>,
    std::is_same<std::underlying_type_t<decltype(Constant)>, int>>;

static_assert(is_unnamed_int<vesk::MAXIMUM_SNAPLEN> && vesk::MAXIMUM_SNAPLEN == 262144);
static_assert(is_unnamed_int<vesk::MAC_HEADER_LENGTH> && vesk::MAC_HEADER_LENGTH == 14);
static_assert(is_unnamed_int<vesk::UDP_HEADER_LENGTH> && vesk::UDP_HEADER_LENGTH == 8);
static_assert(is_unnamed_int<vesk::TCP_HEADER_OFFSET> && vesk::TCP_HEADER_OFFSET == 47);
static_assert(is_unnamed_int<vesk::IP_HEADER_OFFSET> && vesk::IP_HEADER_OFFSET == 15);
static_assert(is_unnamed_int<vesk::ACK_OFFSET> && vesk::ACK_OFFSET == 43);
static_assert(is_unnamed_int<vesk::SEQ_OFFSET> && vesk::SEQ_OFFSET == 39);
static_assert(is_unnamed_int<vesk::MAX_SNAPLEN> && vesk::MAX_SNAPLEN == 262144);
static_assert(is_unnamed_int<vesk::MAX_BUFFER_SIZE> && vesk::MAX_BUFFER_SIZE == 10240);
static_assert(is_unnamed_int<vesk::retired_fd> && vesk::retired_fd == -1);
static_assert(
    !std::is_same_v<decltype(vesk::MAX_BUFFER_SIZE), decltype(vesk::MAX_SNAPLEN)>);
static_assert(!std::is_same_v<decltype(vesk::retired_fd), decltype(vesk::MAX_SNAPLEN)>);
static_assert(
    !std::is_same_v<decltype(vesk::retired_fd), decltype(vesk::MAX_BUFFER_SIZE)>);

static_assert(std::is_same_v<vesk::fd_t, int>);
static_assert(std::is_same_v<vesk::filename_t, std::string>);
static_assert(std::is_same_v<vesk::dirname_t, std::string>);
static_assert(std::is_same_v<data_t, std::shared_ptr<dataBuffer>>);
static_assert(std::is_same_v<vesk::PROTOTYPE, ProtocolType>);

template <class Enumeration>
constexpr bool is_scoped = std::conjunction_v<
    std::is_enum<Enumeration>, std::negation<std::is_convertible<Enumeration, int>>>;

static_assert(is_scoped<ProtocolType>);
static_assert(static_cast<int>(ProtocolType::TCP) == 0);
static_assert(static_cast<int>(ProtocolType::UDP) == 1);
static_assert(static_cast<int>(ProtocolType::UNKNOWN) == 2);

static_assert(is_scoped<DataType>);
static_assert(static_cast<int>(DataType::UDP) == 0);
static_assert(static_cast<int>(DataType::TCP) == 1);
static_assert(static_cast<int>(DataType::UNKNOWN) == 2);
static_assert(static_cast<int>(DataType::DATA_TYPE_END) == 3);

static_assert(is_scoped<FileType>);
static_assert(static_cast<int>(FileType::REG) == 32768);
static_assert(static_cast<int>(FileType::DIR) == 16384);
static_assert(static_cast<int>(FileType::CHR) == 8192);
static_assert(static_cast<int>(FileType::UNKNOWN) == 8193);

static_assert(std::is_same_v<decltype(vesk::details::options::datatype), DataType>);
static_assert(sizeof(vesk::details::options) == sizeof(DataType), "one field");

static_assert(std::is_same_v<decltype(DATATYPE_NAMES), const char[3][32]>);

TEST(DatatypeNames, EachIsItsTextPaddedWithNulsTo32Bytes)
{
    std::array<char, 96> expected{};
    std::memcpy(&expected[0], "udp", 3);
    std::memcpy(&expected[32], "tcp", 3);
    std::memcpy(&expected[64], "unknown", 7);

    EXPECT_EQ(std::memcmp(DATATYPE_NAMES, expected.data(), expected.size()), 0);
}

static_assert(std::is_standard_layout_v<dataBuffer>);
static_assert(std::is_same_v<decltype(dataBuffer::length), std::size_t>);
static_assert(std::is_same_v<decltype(dataBuffer::buf), char[10240]>);
static_assert(offsetof(dataBuffer, length) == 0);
static_assert(offsetof(dataBuffer, buf) == sizeof(std::size_t));

TEST(DataBuffer, IsEmptyAndZeroedWhateverItsMemoryHeld)
{
    alignas(dataBuffer) std::array<unsigned char, sizeof(dataBuffer)> memory;
    memory.fill(0xAA);
    // Without the detour the compiler could drop the fill as a dead store.
    unsigned char* volatile place = memory.data();
    const auto* const message = new (place) dataBuffer;

    EXPECT_EQ(message->length, 0U);
    EXPECT_THAT(message->buf, ::testing::Each('\0'));
}

// --- The exception and its throw helpers ------------------------------------

static_assert(std::is_base_of_v<std::exception, vesk_ex>);
static_assert(std::is_convertible_v<vesk_ex*, std::exception*>, "a public base");
static_assert(std::has_virtual_destructor_v<vesk_ex>);
static_assert(std::is_copy_constructible_v<vesk_ex>);
static_assert(std::is_move_constructible_v<vesk_ex>);
static_assert(!std::is_default_constructible_v<vesk_ex>);
static_assert(std::is_constructible_v<vesk_ex, std::string>);
static_assert(std::is_constructible_v<vesk_ex, const std::string&, int>);
static_assert(noexcept(std::declval<const vesk_ex&>().what()));
static_assert(
    sizeof(vesk_ex) == sizeof(std::exception) + sizeof(std::string), "the message alone");

// What the one exception says that `throwing` throws.
template <class Throwing>
std::string thrown_text(Throwing throwing)
{
    try {
        throwing();
    } catch (const vesk_ex& error) {
        return error.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

TEST(VeskEx, SaysTheMessageAsGiven)
{
    EXPECT_STREQ(vesk_ex("100% \tplain: ").what(), "100% \tplain: ");
}

TEST(VeskEx, MayBeEmpty) { EXPECT_STREQ(vesk_ex("").what(), ""); }

TEST(VeskEx, MovesItsMessageIn)
{
    std::string message(100, 'x');
    const char* const characters = message.data();

    EXPECT_EQ(static_cast<const void*>(vesk_ex(std::move(message)).what()), characters);
}

TEST(VeskEx, AppendsTheErrorNumberInDecimal)
{
    EXPECT_STREQ(vesk_ex("open failed", 2).what(), "open failed. errno: 2");
    EXPECT_STREQ(vesk_ex("x", 13).what(), "x. errno: 13");
}

TEST(VeskEx, AppendsANumberThatIsNoError)
{
    EXPECT_STREQ(vesk_ex("x", 0).what(), "x. errno: 0");
    EXPECT_STREQ(vesk_ex("x", -1).what(), "x. errno: -1");
    EXPECT_STREQ(vesk_ex("x", INT_MAX).what(), "x. errno: 2147483647");
    EXPECT_STREQ(vesk_ex("x", INT_MIN).what(), "x. errno: -2147483648");
}

TEST(VeskEx, AppendsTheNumberToAnEmptyMessage)
{
    EXPECT_STREQ(vesk_ex("", 5).what(), ". errno: 5");
}

TEST(VeskEx, ACopyOutlivesItsSource)
{
    auto source = std::make_unique<vesk_ex>("x", 13);
    const vesk_ex copy(*source);
    source.reset();

    EXPECT_STREQ(copy.what(), "x. errno: 13");
}

TEST(VeskEx, SpeaksThroughItsBase)
{
    const std::unique_ptr<const std::exception> error =
        std::make_unique<vesk_ex>(std::string("through the base"));

    EXPECT_STREQ(error->what(), "through the base");
}

TEST(VeskThrowEx, ThrowsTheMessage)
{
    EXPECT_EQ(thrown_text([] { vesk::vesk_throw_ex("no such thing"); }), "no such thing");
}

TEST(VeskThrowEx, ThrowsTheMessageWithTheErrorNumber)
{
    EXPECT_EQ(
        thrown_text([] { vesk::vesk_throw_ex("open failed", ENOENT); }),
        "open failed. errno: 2");
}

TEST(VeskThrowEx, MovesItsMessageThrough)
{
    std::string message(100, 'x');
    const char* const characters = message.data();
    try {
        vesk::vesk_throw_ex(std::move(message));
    } catch (const vesk_ex& error) {
        EXPECT_EQ(static_cast<const void*>(error.what()), characters);
    }
}

void throw_uncaught() noexcept { vesk::vesk_throw_ex("open failed", 2); }

TEST(VeskThrowExDeathTest, UncaughtEndsTheProcessWithItsMessage)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(
        throw_uncaught(), ::testing::KilledBySignal(SIGABRT),
        ::testing::Eq("terminate called after throwing an instance of "
                      "'vesk::details::vesk_ex'\n"
                      "  what():  open failed. errno: 2\n"));
}

// --- The fatal checks --------------------------------------------------------

// Each of these returns the line of its check, when that lets it pass.

int check_length(std::size_t length)
{
    replay_assert(length > 0);
    return __LINE__ - 1;
}

int check_count(std::size_t n)
{
    replay_assert(n == sizeof(uint64_t));
    return __LINE__ - 1;
}

int check_result(int rc)
{
    replay_assert(rc != -1);
    return __LINE__ - 1;
}

int check_descriptor(vesk::fd_t conn_fd_)
{
    replay_assert(conn_fd_ != vesk::retired_fd);
    return __LINE__ - 1;
}

int check_list(const std::vector<std::string>& filename_v_)
{
    replay_assert(!filename_v_.empty());
    return __LINE__ - 1;
}

int check_macro_in_condition(int error)
{
    replay_assert(error == EINVAL);
    return __LINE__ - 1;
}

int check_errno(bool holds, int error)
{
    errno = error;
    replay_errno_assert(holds);
    return __LINE__ - 1;
}

int check_allocation(const int* block)
{
    replay_alloc_assert(block);
    return __LINE__ - 1;
}

class FatalCheckDeathTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // The whole standard error of a process that `text` at `line` has ended. The
    // name is bare, though the compiler was given a path.
    static auto line_with(const std::string& text, int line)
    {
        return ::testing::Eq(text + " (common_test.cpp:" + std::to_string(line) + ")\n");
    }

    const ::testing::KilledBySignal aborted_{SIGABRT};
};

TEST_F(FatalCheckDeathTest, AnAssertionShowsConditionFileAndLine)
{
    const int line = check_length(1);
    EXPECT_EXIT(
        check_length(0), aborted_, line_with("Assertion failed: length > 0", line));
}

TEST_F(FatalCheckDeathTest, AnAssertionShowsASizeofAsItIsWritten)
{
    const int line = check_count(8);
    EXPECT_EXIT(
        check_count(7), aborted_,
        line_with("Assertion failed: n == sizeof(uint64_t)", line));
}

TEST_F(FatalCheckDeathTest, AnAssertionShowsANegativeNumberAsItIsWritten)
{
    const int line = check_result(0);
    EXPECT_EXIT(
        check_result(-1), aborted_, line_with("Assertion failed: rc != -1", line));
}

TEST_F(FatalCheckDeathTest, AnAssertionComparesDescriptorsWithTheRetiredOne)
{
    const int line = check_descriptor(0);
    EXPECT_EXIT(
        check_descriptor(-1), aborted_,
        line_with("Assertion failed: conn_fd_ != vesk::retired_fd", line));
}

TEST_F(FatalCheckDeathTest, AnAssertionShowsANegationAsItIsWritten)
{
    const int line = check_list({"file"});
    EXPECT_EXIT(
        check_list({}), aborted_,
        line_with("Assertion failed: !filename_v_.empty()", line));
}

TEST_F(FatalCheckDeathTest, AnAssertionDoesNotExpandMacrosInItsText)
{
    const int line = check_macro_in_condition(EINVAL);
    EXPECT_EXIT(
        check_macro_in_condition(0), aborted_,
        line_with("Assertion failed: error == EINVAL", line));
}

TEST_F(FatalCheckDeathTest, AnErrnoAssertionShowsTheErrorsText)
{
    const int line = check_errno(true, 0);
    EXPECT_EXIT(
        check_errno(false, ENOENT), aborted_,
        line_with("No such file or directory", line));
    EXPECT_EXIT(
        check_errno(false, EBADF), aborted_, line_with("Bad file descriptor", line));
}

TEST_F(FatalCheckDeathTest, AnAllocationAssertionTellsThatMemoryIsOut)
{
    const int block = 0;
    const int line = check_allocation(&block);
    EXPECT_EXIT(
        check_allocation(nullptr), aborted_,
        line_with("FATAL ERROR: OUT OF MEMORY", line));
}

// abort() flushes nothing, so with a buffer under standard error the line is only
// seen if the check itself flushes it.
void buffer_standard_error()
{
    static std::array<char, 4096> buffer;
    std::setvbuf(stderr, buffer.data(), _IOFBF, buffer.size());
}

TEST_F(FatalCheckDeathTest, AnAssertionFlushesItsLine)
{
    const int line = check_length(1);
    EXPECT_EXIT(
        {
            buffer_standard_error();
            check_length(0);
        },
        aborted_, line_with("Assertion failed: length > 0", line));
}

TEST_F(FatalCheckDeathTest, AnErrnoAssertionFlushesItsLine)
{
    const int line = check_errno(true, 0);
    EXPECT_EXIT(
        {
            buffer_standard_error();
            check_errno(false, ENOENT);
        },
        aborted_, line_with("No such file or directory", line));
}

TEST_F(FatalCheckDeathTest, AnAllocationAssertionFlushesItsLine)
{
    const int block = 0;
    const int line = check_allocation(&block);
    EXPECT_EXIT(
        {
            buffer_standard_error();
            check_allocation(nullptr);
        },
        aborted_, line_with("FATAL ERROR: OUT OF MEMORY", line));
}

TEST_F(FatalCheckDeathTest, ChecksThatHoldPrintNothingAndGoOn)
{
    EXPECT_EXIT(
        {
            const int block = 0;
            check_length(1);
            check_errno(true, ENOENT);
            check_allocation(&block);
            std::_Exit(7);
        },
        ::testing::ExitedWithCode(7), ::testing::Eq(""));
}

TEST(FatalCheck, EvaluatesItsConditionOnce)
{
    int evaluations = 0;
    replay_assert(++evaluations > 0);
    EXPECT_EQ(evaluations, 1);
    replay_errno_assert(++evaluations > 0);
    EXPECT_EQ(evaluations, 2);
    replay_alloc_assert(++evaluations);
    EXPECT_EQ(evaluations, 3);
}

TEST(FatalCheck, KeepsErrnoWhenItHolds)
{
    errno = EAGAIN;
    replay_errno_assert(errno == EAGAIN);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(FatalCheck, IsOneStatementBeforeAnElse)
{
    bool otherwise = false;
    if (otherwise)
        replay_assert(otherwise);
    else
        otherwise = true;
    EXPECT_TRUE(otherwise);
}

TEST(BranchHints, KeepTheTruthOfTheirArgument)
{
    // A hint that narrowed its argument would lose the bit above the 32nd.
    const uint64_t high_bit = uint64_t{1} << 40U;

    EXPECT_TRUE(likely(high_bit));
    EXPECT_TRUE(unlikely(high_bit));
    EXPECT_FALSE(likely(high_bit == 0));
    EXPECT_FALSE(unlikely(high_bit == 0));
}

// --- Text helpers ------------------------------------------------------------

struct number_case {
    const char* name;
    const char* text;
    int32_t expected;

    friend void PrintTo(const number_case& test, std::ostream* out) { *out << test.name; }
};

class ParseInt : public ::testing::TestWithParam<number_case> {};

static_assert(std::is_same_v<decltype(vesk::details::parse_int("")), int32_t>);

TEST_P(ParseInt, ReadsTheNumberAtTheStart)
{
    EXPECT_EQ(vesk::details::parse_int(GetParam().text), GetParam().expected);
    EXPECT_EQ(std::atoi(GetParam().text), GetParam().expected) << "the C library's";
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseInt,
    ::testing::Values(
        number_case{"Zero", "0", 0}, number_case{"Positive", "5000", 5000},
        number_case{"Negative", "-7", -7}, number_case{"PlusSign", "+7", 7},
        number_case{"LeadingWhiteSpace", " \t\n\v\f\r12", 12},
        number_case{"TrailingJunk", "5000abc", 5000}, number_case{"Fraction", "12.9", 12},
        number_case{"Empty", "", 0}, number_case{"Word", "abc", 0},
        number_case{"SignAlone", "-", 0}, number_case{"TwoSigns", "+-5", 0},
        number_case{"BlankBehindSign", "- 5", 0},
        number_case{"LeadingZerosAreDecimal", "010", 10},
        number_case{"HexStopsAtTheLetter", "0x10", 0},
        number_case{"Largest", "2147483647", INT32_MAX},
        number_case{"Smallest", "-2147483648", INT32_MIN},
        number_case{"OneAboveTheLargest", "2147483648", INT32_MIN},
        number_case{"OneBelowTheSmallest", "-2147483649", INT32_MAX},
        number_case{"AllThirtyTwoBits", "4294967295", -1},
        number_case{"ThirtyThreeBits", "4294967296", 0},
        number_case{"ThirtyThreeBitsAndFive", "4294967301", 5},
        number_case{"LargestOf64Bits", "9223372036854775807", -1},
        number_case{"BeyondTheLargestOf64Bits", "99999999999999999999", -1},
        number_case{"BeyondTheSmallestOf64Bits", "-99999999999999999999", 0}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(ToLower, ChangesTheStringInPlaceAndReturnsIt)
{
    std::string text = "UDP and Port 9000 [X]";
    std::string& result = vesk::details::to_lower(text);

    EXPECT_EQ(&result, &text);
    EXPECT_EQ(text, "udp and port 9000 [x]");
}

TEST(ToLower, LeavesBytesAbove127AsTheyAre)
{
    std::string text = "\x80\xC4\xFF";
    EXPECT_EQ(vesk::details::to_lower(text), "\x80\xC4\xFF");
}

TEST(ToLower, GoesOnBehindANul)
{
    std::string text("A\0B", 3);
    EXPECT_EQ(vesk::details::to_lower(text), std::string("a\0b", 3));
}

struct trim_case {
    const char* name;
    const char* text;
    const char* expected;

    friend void PrintTo(const trim_case& test, std::ostream* out) { *out << test.name; }
};

class Trim : public ::testing::TestWithParam<trim_case> {};

TEST_P(Trim, TakesWhiteSpaceFromBothEnds)
{
    std::string text = GetParam().text;
    EXPECT_EQ(vesk::details::trim_(text), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Trim,
    ::testing::Values(
        trim_case{"BothEnds", "\t udp and port 1 \r\n", "udp and port 1"},
        trim_case{"TwoBlanks", "  ", ""}, trim_case{"AllFourKinds", " \n\r\t", ""},
        trim_case{"Empty", "", ""}, trim_case{"LeadingOnly", "\n\nudp", "udp"},
        trim_case{"TrailingOnly", "udp\r\n", "udp"},
        trim_case{"NothingToTake", "udp", "udp"}, trim_case{"OneCharacter", " u ", "u"},
        trim_case{"InsideStays", " a \t b ", "a \t b"},
        trim_case{"VerticalTabStays", "\vudp\v", "\vudp\v"},
        trim_case{"FormFeedStays", " \fudp\f ", "\fudp\f"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(Trim, ChangesTheStringInPlaceAndReturnsIt)
{
    std::string text = " udp ";
    std::string& result = vesk::details::trim_(text);

    EXPECT_EQ(&result, &text);
    EXPECT_EQ(text, "udp");
}

TEST(Trim, KeepsANulAtTheEnd)
{
    std::string text("udp\0 ", 5);
    EXPECT_EQ(vesk::details::trim_(text), std::string("udp\0", 4));
}

struct protocol_case {
    const char* name;
    const char* filter;
    DataType expected;

    friend void PrintTo(const protocol_case& test, std::ostream* out)
    {
        *out << test.name;
    }
};

class ExtractProtocolType : public ::testing::TestWithParam<protocol_case> {};

TEST_P(ExtractProtocolType, FindsTheFirstWordThatNamesATransport)
{
    EXPECT_EQ(
        vesk::details::extract_protocol_type(GetParam().filter), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Filters, ExtractProtocolType,
    ::testing::Values(
        protocol_case{"Udp", "udp", DataType::UDP},
        protocol_case{"Tcp", "tcp", DataType::TCP},
        protocol_case{"UpperCase", "UDP and port 9000", DataType::UDP},
        protocol_case{"MixedCase", "port 1 and Tcp", DataType::TCP},
        protocol_case{"NoTransport", "host 1.2.3.4", DataType::UNKNOWN},
        protocol_case{"Empty", "", DataType::UNKNOWN},
        protocol_case{"BlanksOnly", "   ", DataType::UNKNOWN},
        protocol_case{"TcpFirst", "tcp or udp", DataType::TCP},
        protocol_case{"UdpFirst", "udp or tcp", DataType::UDP},
        protocol_case{"LastWord", "host 1.2.3.4 and not udp", DataType::UDP},
        protocol_case{"LeadingBlanks", "  udp", DataType::UDP},
        protocol_case{"DoubleBlanks", "port 1  and  udp", DataType::UDP},
        protocol_case{"TabBehindTheWord", "udp\tand port 1", DataType::UNKNOWN},
        protocol_case{"LineFeedBehindTheWord", "udp\nand port 1", DataType::UNKNOWN},
        protocol_case{"BracketBeforeTheWord", "(udp or icmp)", DataType::UNKNOWN},
        protocol_case{"IndexBehindTheWord", "udp[0] > 1", DataType::UNKNOWN},
        protocol_case{"BracketedThenPlain", "(udp) or tcp", DataType::TCP},
        protocol_case{"LongerWord", "tcpdump udplite", DataType::UNKNOWN},
        protocol_case{"ShorterWord", "tc ud", DataType::UNKNOWN},
        protocol_case{"TheWordUnknown", "unknown", DataType::UNKNOWN}),
    [](const auto& test) { return std::string(test.param.name); });

// --- The dump ----------------------------------------------------------------

// Runs `writing` with standard output led to `descriptor`. Nothing may be checked
// in there: a failure report would go astray.
void with_standard_output(int descriptor, const std::function<void()>& writing)
{
    std::fflush(stdout);
    const int original = ::dup(STDOUT_FILENO);
    ::dup2(descriptor, STDOUT_FILENO);
    writing();
    ::dup2(original, STDOUT_FILENO);
    ::close(original);
}

// The writes in which `bytes` was dumped. A datagram keeps each write apart, and
// what was left in a buffer is missing.
std::vector<std::string> writes_of_dump(std::string bytes)
{
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends.data()), 0);

    with_standard_output(
        ends[0], [&] { vesk::details::binary_output(bytes.data(), bytes.size()); });

    std::vector<std::string> writes;
    std::array<char, 8192> datagram;
    for (;;) {
        const ssize_t length =
            ::recv(ends[1], datagram.data(), datagram.size(), MSG_DONTWAIT);
        if (length < 0)
            break;
        writes.emplace_back(datagram.data(), static_cast<std::size_t>(length));
    }
    ::close(ends[0]);
    ::close(ends[1]);
    return writes;
}

std::string dump_of(const std::string& bytes)
{
    std::string text;
    for (const std::string& write : writes_of_dump(bytes))
        text += write;
    return text;
}

// The first line of the dump that comes next, found from the one before it.
std::string next_seq_line()
{
    const std::string dump = dump_of("");
    EXPECT_THAT(dump, ::testing::StartsWith("seq: "));
    const uint64_t seq = std::stoull(dump.substr(5));
    return "seq: " + std::to_string(seq + 1) + "\n";
}

const std::string SEPARATOR = "=============================\n";

TEST(BinaryOutput, OfNothingHasAnEmptyLine)
{
    const std::string seq_line = next_seq_line();
    EXPECT_EQ(dump_of(""), seq_line + "data length: 0\n\n" + SEPARATOR);
}

TEST(BinaryOutput, OfSevenBytesHasOneLine)
{
    const std::string seq_line = next_seq_line();
    EXPECT_EQ(
        dump_of("abcdefg"),
        seq_line + "data length: 7\n61 62 63 64 65 66 67 \n" + SEPARATOR);
}

TEST(BinaryOutput, OfEightBytesHasALineAndAnEmptyOne)
{
    const std::string seq_line = next_seq_line();
    EXPECT_EQ(
        dump_of("abcdefgh"),
        seq_line + "data length: 8\n61 62 63 64 65 66 67 68 \n\n" + SEPARATOR);
}

TEST(BinaryOutput, OfNineBytesHasTwoLines)
{
    const std::string seq_line = next_seq_line();
    EXPECT_EQ(
        dump_of("abcdefghi"),
        seq_line + "data length: 9\n61 62 63 64 65 66 67 68 \n69 \n" + SEPARATOR);
}

TEST(BinaryOutput, ItsLengthIsDecimalBehindADumpToo)
{
    dump_of("abcdefghijklmnop");
    const std::string seq_line = next_seq_line();
    EXPECT_EQ(
        dump_of("abcdefghijklmnop"), seq_line +
                                         "data length: 16\n"
                                         "61 62 63 64 65 66 67 68 \n"
                                         "69 6a 6b 6c 6d 6e 6f 70 \n\n" +
                                         SEPARATOR);
}

TEST(BinaryOutput, ABytesSignIsWidenedToEightDigits)
{
    const std::string seq_line = next_seq_line();
    EXPECT_EQ(
        dump_of(std::string("\x00\x0f\x7f\x80\x81\xfe\xff", 7)),
        seq_line + "data length: 7\n00 0f 7f ffffff80 ffffff81 fffffffe ffffffff \n" +
            SEPARATOR);
}

TEST(BinaryOutput, CountsItsBlocks)
{
    const std::string first = next_seq_line();
    const std::string second =
        "seq: " + std::to_string(std::stoull(first.substr(5)) + 1) + "\n";

    EXPECT_THAT(dump_of("a"), ::testing::StartsWith(first));
    EXPECT_THAT(dump_of("b"), ::testing::StartsWith(second));
}

TEST(BinaryOutput, FlushesAtEveryLineEnd)
{
    const std::string seq_line = next_seq_line();
    EXPECT_EQ(
        writes_of_dump("abcdefghi"),
        (std::vector<std::string>{
            seq_line, "data length: 9\n", "61 62 63 64 65 66 67 68 \n", "69 \n",
            SEPARATOR}));
}

// A fresh process, whose standard output the death test can see.
void dump_twice_and_exit()
{
    std::array<char, 1> bytes{'a'};
    with_standard_output(STDERR_FILENO, [&] {
        vesk::details::binary_output(bytes.data(), 0);
        vesk::details::binary_output(bytes.data(), 1);
    });
    std::_Exit(0);
}

TEST(BinaryOutputDeathTest, CountsFromOneInEachProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(
        dump_twice_and_exit(), ::testing::ExitedWithCode(0),
        ::testing::Eq(
            "seq: 1\ndata length: 0\n\n" + SEPARATOR + "seq: 2\ndata length: 1\n61 \n" +
            SEPARATOR));
}

// --- Paths and directories ---------------------------------------------------

// A directory of the test's own, and ways to fill it with every kind of entry.
class source_directory {
public:
    const std::string& path() const { return dir_.path(); }
    std::string path(const std::string& name) const { return dir_.file(name); }

    std::string file(const std::string& name, const std::string& content = {}) const
    {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }
    void folder(const std::string& name) const { fs::create_directory(path(name)); }
    void fifo(const std::string& name) const
    {
        EXPECT_EQ(::mkfifo(path(name).c_str(), 0600), 0);
    }
    void link(const std::string& name, const std::string& target) const
    {
        fs::create_symlink(target, path(name));
    }

private:
    support::scratch_dir dir_;
};

class PathExists : public ::testing::Test {
protected:
    // The kind that is told for `path`; every kind there is differs from it before.
    FileType kind_of(const std::string& path)
    {
        FileType type = static_cast<FileType>(0);
        EXPECT_TRUE(vesk::details::path_exists(path, type)) << path;
        return type;
    }

    const source_directory dir_{};
};

TEST_F(PathExists, TellsARegularFile)
{
    EXPECT_EQ(kind_of(dir_.file("file")), FileType::REG);
}

TEST_F(PathExists, TellsADirectoryWithAndWithoutSlash)
{
    EXPECT_EQ(kind_of(dir_.path()), FileType::DIR);
    EXPECT_EQ(kind_of(dir_.path() + "/"), FileType::DIR);
}

TEST_F(PathExists, TellsACharacterDevice)
{
    EXPECT_EQ(kind_of("/dev/null"), FileType::CHR);
}

TEST_F(PathExists, TellsAnythingElseAsUnknown)
{
    dir_.fifo("fifo");
    EXPECT_EQ(kind_of(dir_.path("fifo")), FileType::UNKNOWN);
}

TEST_F(PathExists, FollowsASymbolicLink)
{
    dir_.link("to_file", dir_.file("file"));
    dir_.link("to_directory", dir_.path());

    EXPECT_EQ(kind_of(dir_.path("to_file")), FileType::REG);
    EXPECT_EQ(kind_of(dir_.path("to_directory")), FileType::DIR);
}

struct mode_case {
    const char* name;
    mode_t mode;
    FileType expected;

    friend void PrintTo(const mode_case& test, std::ostream* out) { *out << test.name; }
};

class PathExistsMode : public ::testing::TestWithParam<mode_case> {};

TEST_P(PathExistsMode, IsToldByTheTypeBitsAlone)
{
    const support::scoped_call<call::stat> hook([](const char*, struct ::stat* status) {
        *status = {};
        status->st_mode = GetParam().mode;
        return 0;
    });
    FileType type = static_cast<FileType>(0);

    EXPECT_TRUE(vesk::details::path_exists("any", type));
    EXPECT_EQ(type, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, PathExistsMode,
    ::testing::Values(
        mode_case{"Regular", S_IFREG | 07777, FileType::REG},
        mode_case{"RegularWithoutPermissions", S_IFREG, FileType::REG},
        mode_case{"Directory", S_IFDIR | 01755, FileType::DIR},
        mode_case{"CharacterDevice", S_IFCHR | 0666, FileType::CHR},
        // Its bits contain those of a directory and of a character device.
        mode_case{"BlockDevice", S_IFBLK | 0660, FileType::UNKNOWN},
        mode_case{"Fifo", S_IFIFO | 0644, FileType::UNKNOWN},
        // Its bits contain those of a regular file and of a directory.
        mode_case{"Socket", S_IFSOCK | 0755, FileType::UNKNOWN},
        mode_case{"Link", S_IFLNK | 0777, FileType::UNKNOWN}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(PathExists, AMissingPathLeavesTheTypeAsItWas)
{
    for (const FileType before :
         {FileType::REG, FileType::DIR, FileType::CHR, FileType::UNKNOWN}) {
        FileType type = before;
        EXPECT_FALSE(vesk::details::path_exists(dir_.path("missing"), type));
        EXPECT_EQ(type, before);
    }
}

TEST_F(PathExists, APathThroughAFileDoesNotExist)
{
    FileType type = FileType::CHR;
    EXPECT_FALSE(vesk::details::path_exists(dir_.file("file") + "/below", type));
    EXPECT_EQ(type, FileType::CHR);
}

TEST_F(PathExists, ADanglingLinkDoesNotExist)
{
    dir_.link("dangling", dir_.path("missing"));

    FileType type = FileType::DIR;
    EXPECT_FALSE(vesk::details::path_exists(dir_.path("dangling"), type));
    EXPECT_EQ(type, FileType::DIR);
}

TEST_F(PathExists, AFailureLeavesErrnoForTheCaller)
{
    const support::scoped_call<call::stat> hook([](const char*, struct ::stat*) {
        errno = EACCES;
        return -1;
    });
    FileType type = FileType::UNKNOWN;

    errno = 0;
    EXPECT_FALSE(vesk::details::path_exists("any", type));
    EXPECT_EQ(errno, EACCES);
}

TEST(FilenameToStr, IsThePathItself)
{
    EXPECT_EQ(
        vesk::details::filename_to_str("../a b/\xC3\xA4.dat"), "../a b/\xC3\xA4.dat");
}

class DecodeFilename : public ::testing::Test {
protected:
    // The listed files without their directory, which each of them must have
    // before its name, with exactly one slash between.
    std::vector<std::string> listed()
    {
        std::string dirname = dir_.path();
        std::vector<std::string> names;
        for (const std::string& filename : vesk::details::decode_filename(dirname)) {
            EXPECT_THAT(filename, ::testing::StartsWith(dir_.path() + "/"));
            names.push_back(filename.substr(dir_.path().size() + 1));
        }
        return names;
    }

    using names_t = std::vector<std::string>;
    const source_directory dir_{};
};

TEST_F(DecodeFilename, ListsFullPathsInVersionOrder)
{
    for (const char* const name : {"f10", "f2", "f1"})
        dir_.file(name);
    std::string dirname = dir_.path();

    EXPECT_EQ(
        vesk::details::decode_filename(dirname),
        (names_t{dir_.path("f1"), dir_.path("f2"), dir_.path("f10")}));
}

TEST_F(DecodeFilename, ComparesEveryRunOfDigitsByItsValue)
{
    for (const char* const name : {"a10b2", "a9b30", "a10b10", "b1", "a9b4"})
        dir_.file(name);

    EXPECT_EQ(listed(), (names_t{"a9b4", "a9b30", "a10b2", "a10b10", "b1"}));
}

TEST_F(DecodeFilename, OrdersWithoutDigitsByByteValue)
{
    for (const char* const name : {"b", "a", "_", "B", "~"})
        dir_.file(name);

    EXPECT_EQ(listed(), (names_t{"B", "_", "a", "b", "~"}));
}

TEST_F(DecodeFilename, AppendsAMissingSlashToItsArgument)
{
    const std::string filename = dir_.file("f");
    std::string dirname = dir_.path();

    EXPECT_EQ(vesk::details::decode_filename(dirname), names_t{filename});
    EXPECT_EQ(dirname, dir_.path() + "/");
}

TEST_F(DecodeFilename, AppendsNoSecondSlash)
{
    const std::string filename = dir_.file("f");
    std::string dirname = dir_.path() + "/";

    EXPECT_EQ(vesk::details::decode_filename(dirname), names_t{filename});
    EXPECT_EQ(dirname, dir_.path() + "/");
}

TEST_F(DecodeFilename, AnEmptyDirectoryGivesAnEmptyList)
{
    EXPECT_EQ(listed(), names_t{});
}

TEST_F(DecodeFilename, ListsHiddenFiles)
{
    dir_.file(".hidden");
    EXPECT_EQ(listed(), names_t{".hidden"});
}

TEST_F(DecodeFilename, ListsAnEmptyFile)
{
    dir_.file("empty", "");
    EXPECT_EQ(listed(), names_t{"empty"});
}

TEST_F(DecodeFilename, ListsNothingButRegularFiles)
{
    dir_.folder("a_directory");
    dir_.link("b_device", "/dev/null");
    dir_.fifo("c_fifo");
    dir_.file("d_file");
    dir_.folder("e_directory");

    EXPECT_EQ(listed(), names_t{"d_file"});
}

TEST_F(DecodeFilename, DoesNotDescend)
{
    dir_.folder("sub");
    dir_.file("sub/file");

    EXPECT_EQ(listed(), names_t{});
}

TEST_F(DecodeFilename, ListsALinkToAFileAndNoLinkToADirectory)
{
    dir_.link("a_link", dir_.path());
    dir_.link("b_link", "d_file");
    dir_.file("d_file");

    EXPECT_EQ(listed(), (names_t{"b_link", "d_file"}));
}

TEST_F(DecodeFilename, AnUnknowableEntryBehindAFileIsListed)
{
    dir_.file("a_file");
    dir_.link("b_dangling", "missing");

    EXPECT_EQ(listed(), (names_t{"a_file", "b_dangling"}));
}

TEST_F(DecodeFilename, AnUnknowableEntryBehindADirectoryIsSkipped)
{
    dir_.folder("a_directory");
    dir_.link("b_dangling", "missing");

    EXPECT_EQ(listed(), names_t{});
}

TEST_F(DecodeFilename, TheKindIsCarriedOverEveryUnknowableEntryInARow)
{
    dir_.file("a_file");
    dir_.link("b_dangling", "missing");
    dir_.link("c_dangling", "missing");
    dir_.folder("d_directory");
    dir_.link("e_dangling", "missing");
    dir_.link("f_dangling", "missing");
    dir_.file("g_file");

    EXPECT_EQ(listed(), (names_t{"a_file", "b_dangling", "c_dangling", "g_file"}));
}

TEST_F(DecodeFilename, AnUnknowableFirstEntryIsSkipped)
{
    dir_.link("!dangling", "missing"); // '!' comes before the two dot entries

    EXPECT_EQ(listed(), names_t{});
}

TEST_F(DecodeFilename, TheDotEntriesAreWalkedInTheirPlace)
{
    dir_.file("!file");            // comes before the two dot entries
    dir_.link("0link", "missing"); // comes right behind them, so behind a directory

    EXPECT_EQ(listed(), names_t{"!file"});
}

TEST_F(DecodeFilename, AMissingDirectoryIsRefusedWithItsSlash)
{
    std::string dirname = dir_.path("missing");

    EXPECT_EQ(
        thrown_text([&] { vesk::details::decode_filename(dirname); }),
        "Dir " + dir_.path("missing") + "/ no files");
    EXPECT_EQ(dirname, dir_.path("missing") + "/");
}

TEST_F(DecodeFilename, AFileInsteadOfADirectoryIsRefused)
{
    std::string dirname = dir_.file("file");

    EXPECT_EQ(
        thrown_text([&] { vesk::details::decode_filename(dirname); }),
        "Dir " + dir_.path("file") + "/ no files");
}

using compare_t = int (*)(const dirent**, const dirent**);
using select_t = int (*)(const dirent*);

TEST_F(DecodeFilename, AnUnreadableDirectoryIsRefused)
{
    const support::scoped_call<call::scandir> hook(
        [](const char*, dirent***, select_t, compare_t) {
            errno = EACCES;
            return -1;
        });
    std::string dirname = dir_.path();

    EXPECT_EQ(
        thrown_text([&] { vesk::details::decode_filename(dirname); }),
        "Dir " + dir_.path() + "/ no files");
}

TEST_F(DecodeFilename, AListingWithoutAnyEntryIsRefused)
{
    const support::scoped_call<call::scandir> hook(
        [](const char*, dirent*** entries, select_t, compare_t) {
            *entries = nullptr;
            return 0;
        });
    std::string dirname = dir_.path() + "/";

    EXPECT_EQ(
        thrown_text([&] { vesk::details::decode_filename(dirname); }),
        "Dir " + dir_.path() + "/ no files");
}

TEST_F(DecodeFilename, AListingOfOneEntryIsTaken)
{
    dir_.file("file");
    const support::scoped_call<call::scandir> hook(
        [](const char* dirname, dirent*** entries, select_t, compare_t compare) {
            const select_t not_dots = [](const dirent* entry) {
                return entry->d_name[0] == '.' ? 0 : 1;
            };
            return support::real<call::scandir>(dirname, entries, not_dots, compare);
        });
    EXPECT_EQ(listed(), names_t{"file"});
}

TEST_F(DecodeFilename, TheDirectoryIsListedWithoutAFilter)
{
    std::string listed_path;
    bool filtered = true;
    const support::scoped_call<call::scandir> hook(
        [&](const char* path, dirent*** entries, select_t select, compare_t compare) {
            listed_path = path;
            filtered = select != nullptr;
            return support::real<call::scandir>(path, entries, select, compare);
        });
    std::string dirname = dir_.path();
    vesk::details::decode_filename(dirname);

    EXPECT_EQ(listed_path, dir_.path() + "/");
    EXPECT_FALSE(filtered);
}

// --- Reading a data file -----------------------------------------------------

constexpr std::ios_base::openmode INPUT = std::ios_base::in | std::ios_base::binary;
constexpr std::ios_base::openmode UPDATE = INPUT | std::ios_base::out;

static_assert(std::is_default_constructible_v<file_helper>);
static_assert(!std::is_copy_constructible_v<file_helper>);
static_assert(!std::is_copy_assignable_v<file_helper>);
static_assert(
    std::is_same_v<decltype(std::declval<file_helper&>().file_size()), uint32_t>);
static_assert(std::is_same_v<decltype(std::declval<file_helper&>().file_end()), bool>);
static_assert(std::is_same_v<
              decltype(std::declval<file_helper&>().read(
                  std::declval<char*>(), std::declval<std::size_t&>())),
              bool>);

// Bytes without a pattern, so that a block that is lost, doubled or moved shows;
// every value occurs, line ends and NULs among them.
std::string random_bytes(std::size_t count)
{
    std::mt19937 generator(static_cast<unsigned>(count));
    std::string bytes(count, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(generator() & 0xFFU);
    return bytes;
}

std::string content_of(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::ptrdiff_t open_descriptors()
{
    return std::distance(
        fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

// One read of up to `length` bytes.
std::string read_some(file_helper& file, std::size_t length)
{
    std::string bytes(length, '\0');
    file.read(bytes.data(), length);
    bytes.resize(length);
    return bytes;
}

// The file as messages, as a replay reads it.
std::vector<std::string> read_messages(file_helper& file)
{
    std::vector<std::string> messages;
    for (int reads = 0; !file.file_end() && reads < 1000; ++reads) {
        std::string message = read_some(file, MAX_BUFFER_SIZE);
        if (!message.empty())
            messages.push_back(std::move(message));
    }
    EXPECT_TRUE(file.file_end()) << "the file has no end";
    return messages;
}

class FileHelper : public ::testing::Test {
protected:
    using messages_t = std::vector<std::string>;

    const source_directory dir_{};
    file_helper file_;
};

// What the pauses between the tries were asked to be, without taking them.
class recorded_sleeps {
public:
    using milliseconds_t = std::vector<double>;

    const milliseconds_t& milliseconds() const { return milliseconds_; }

    // The next sleep is cut short by a signal with that much left.
    void interrupt_next(long nanoseconds_left) { nanoseconds_left_ = nanoseconds_left; }

private:
    int sleep(const timespec* time, timespec* left)
    {
        milliseconds_.push_back(
            static_cast<double>(time->tv_sec) * 1e3 +
            static_cast<double>(time->tv_nsec) / 1e6);
        // A sleep may leave any errno; no message may take it for its own.
        errno = EINTR;
        if (nanoseconds_left_ == 0)
            return 0;
        *left = {0, std::exchange(nanoseconds_left_, 0)};
        return -1;
    }

    milliseconds_t milliseconds_;
    long nanoseconds_left_{0};
    const support::scoped_call<call::nanosleep> hook_{
        [this](const timespec* time, timespec* left) { return sleep(time, left); }};
};

// Opening fails with each of these errors in turn, then works.
class failing_opens {
public:
    explicit failing_opens(std::vector<int> errors) : errors_(std::move(errors)) {}

    std::size_t tries() const { return tries_; }

private:
    FILE* open(const char* path, const char* mode)
    {
        if (tries_++ < errors_.size()) {
            errno = errors_[tries_ - 1];
            return nullptr;
        }
        return support::real<call::fopen>(path, mode);
    }

    std::vector<int> errors_;
    std::size_t tries_{0};
    const support::scoped_call<call::fopen> hook_{
        [this](const char* path, const char* mode) { return open(path, mode); }};
};

// The next reads give at most `good` bytes in all, then fail.
class failing_reads {
public:
    explicit failing_reads(std::size_t good) : good_(good) {}

private:
    ssize_t read(int fd, void* buffer, std::size_t length)
    {
        if (good_ == 0) {
            errno = EIO;
            return -1;
        }
        const ssize_t count =
            support::real<call::read>(fd, buffer, std::min<std::size_t>(length, good_));
        good_ -= static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        return count;
    }

    std::size_t good_;
    const support::scoped_call<call::read> hook_{
        [this](int fd, void* buffer, std::size_t length) {
            return read(fd, buffer, length);
        }};
};

TEST_F(FileHelper, HasNotEndedBeforeAnythingIsOpened) { EXPECT_FALSE(file_.file_end()); }

TEST_F(FileHelper, AMissingFileIsTriedFiveTimes)
{
    const std::string filename = dir_.file("file");
    const recorded_sleeps sleeps;
    const failing_opens opens({ENOENT, ENOENT, ENOENT, ENOENT, ENOENT});

    EXPECT_THROW(file_.open(filename, INPUT), vesk_ex);
    EXPECT_EQ(opens.tries(), 5U);
}

TEST_F(FileHelper, EveryFailedTryIsFollowedByTenMilliseconds)
{
    const recorded_sleeps sleeps;

    EXPECT_THROW(file_.open(dir_.path("missing"), INPUT), vesk_ex);
    EXPECT_EQ(sleeps.milliseconds(), recorded_sleeps::milliseconds_t(5, 10.0));
}

TEST_F(FileHelper, AMissingFileCostsFiftyMilliseconds)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(file_.open(dir_.path("missing"), INPUT), vesk_ex);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
}

TEST_F(FileHelper, AnInterruptedPauseIsResumed)
{
    recorded_sleeps sleeps;
    sleeps.interrupt_next(4000000);

    EXPECT_THROW(file_.open(dir_.path("missing"), INPUT), vesk_ex);
    EXPECT_EQ(
        sleeps.milliseconds(), (recorded_sleeps::milliseconds_t{10, 4, 10, 10, 10, 10}));
}

TEST_F(FileHelper, AMissingFileIsReportedWithItsNameAndTheErrorNumber)
{
    EXPECT_EQ(
        thrown_text([&] { file_.open(dir_.path("missing"), INPUT); }),
        "Failed opening file " + dir_.path("missing") + " for reading. errno: 2");
}

TEST_F(FileHelper, TheReportNamesTheFileLastAskedFor)
{
    const recorded_sleeps sleeps;
    EXPECT_THROW(file_.open(dir_.path("first"), INPUT), vesk_ex);

    EXPECT_EQ(
        thrown_text([&] { file_.open(dir_.path("second"), INPUT); }),
        "Failed opening file " + dir_.path("second") + " for reading. errno: 2");
}

TEST_F(FileHelper, TheReportHasTheErrorOfTheLastTry)
{
    const std::string filename = dir_.file("file");
    const recorded_sleeps sleeps;
    const failing_opens opens({EACCES, ENOENT, ENOENT, ENOENT, EMFILE});

    EXPECT_EQ(
        thrown_text([&] { file_.open(filename, INPUT); }),
        "Failed opening file " + filename + " for reading. errno: 24");
}

TEST_F(FileHelper, AThirdTryThatWorksIsEnough)
{
    const std::string filename = dir_.file("file", "content");
    const recorded_sleeps sleeps;
    const failing_opens opens({EMFILE, EMFILE});

    file_.open(filename, INPUT);
    EXPECT_EQ(opens.tries(), 3U);
    EXPECT_EQ(sleeps.milliseconds(), (recorded_sleeps::milliseconds_t{10, 10}));
}

TEST_F(FileHelper, TheFifthTryCountsToo)
{
    const std::string filename = dir_.file("file", "content");
    const recorded_sleeps sleeps;
    const failing_opens opens({EMFILE, EMFILE, EMFILE, EMFILE});

    file_.open(filename, INPUT);
    EXPECT_EQ(read_messages(file_), messages_t{"content"});
}

TEST_F(FileHelper, AFileOpenedAtALaterTryIsReadAsAnyOther)
{
    const std::string filename = dir_.file("file", "content");
    const recorded_sleeps sleeps;
    const failing_opens opens({EMFILE, EMFILE});
    file_.open(filename, INPUT);

    EXPECT_FALSE(file_.file_end());
    EXPECT_EQ(read_messages(file_), messages_t{"content"});
}

TEST_F(FileHelper, AFileThatOpensAtOnceCostsNoPause)
{
    const recorded_sleeps sleeps;
    file_.open(dir_.file("file"), INPUT);

    EXPECT_TRUE(sleeps.milliseconds().empty());
}

TEST_F(FileHelper, ItIsOpenedWithTheGivenMode)
{
    const std::string filename = dir_.file("file");
    std::string modes;
    const support::scoped_call<call::fopen> hook([&](const char* path, const char* mode) {
        modes += std::string(mode) + ' ';
        return support::real<call::fopen>(path, mode);
    });

    file_.open(filename, INPUT);
    file_.open(filename, UPDATE);
    EXPECT_EQ(modes, "rb r+b ");
}

TEST_F(FileHelper, AFailedOpenLeavesNothingToRead)
{
    const recorded_sleeps sleeps;
    file_.open(dir_.file("file", "content"), INPUT);
    EXPECT_THROW(file_.open(dir_.path("missing"), INPUT), vesk_ex);

    EXPECT_FALSE(file_.file_end());
    EXPECT_EQ(read_messages(file_), messages_t{});
}

TEST_F(FileHelper, AGoodFileOpensBehindAFailedOne)
{
    const recorded_sleeps sleeps;
    EXPECT_THROW(file_.open(dir_.path("missing"), INPUT), vesk_ex);

    file_.open(dir_.file("file", "content"), INPUT);
    EXPECT_EQ(read_messages(file_), messages_t{"content"});
}

struct size_case {
    const char* name;
    std::vector<std::size_t> messages;

    friend void PrintTo(const size_case& test, std::ostream* out) { *out << test.name; }
};

class FileHelperSizes : public ::testing::TestWithParam<size_case> {
protected:
    void SetUp() override
    {
        std::size_t size = 0;
        for (const std::size_t length : GetParam().messages)
            size += length;
        content_ = random_bytes(size);
        file_.open(dir_.file("file", content_), INPUT);
    }

    std::string content_;
    const source_directory dir_{};
    file_helper file_;
};

TEST_P(FileHelperSizes, AreReadInMessagesOfAtMost10240Bytes)
{
    std::vector<std::string> expected;
    std::size_t start = 0;
    for (const std::size_t length : GetParam().messages) {
        expected.push_back(content_.substr(start, length));
        start += length;
    }
    EXPECT_EQ(read_messages(file_), expected);
}

TEST_P(FileHelperSizes, AreToldByTheFileSize)
{
    EXPECT_EQ(file_.file_size(), content_.size());
}

TEST_P(FileHelperSizes, AreReadIntoOneString)
{
    std::string content = "earlier text";
    EXPECT_EQ(file_.read(content), !content_.empty());
    EXPECT_EQ(content, content_);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, FileHelperSizes,
    ::testing::Values(
        size_case{"Empty", {}}, size_case{"OneByte", {1}}, size_case{"OneShort", {10239}},
        size_case{"OneFull", {10240}}, size_case{"OneFullAndAByte", {10240, 1}},
        size_case{"TwoFull", {10240, 10240}},
        size_case{"TwoFullAndARest", {10240, 10240, 4520}}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(FileHelper, AFullMessageDoesNotEndTheFile)
{
    file_.open(dir_.file("file", random_bytes(10240)), INPUT);

    EXPECT_EQ(read_some(file_, MAX_BUFFER_SIZE).size(), 10240U);
    EXPECT_FALSE(file_.file_end());
    EXPECT_EQ(read_some(file_, MAX_BUFFER_SIZE).size(), 0U);
    EXPECT_TRUE(file_.file_end());
}

TEST_F(FileHelper, AShortMessageEndsTheFile)
{
    file_.open(dir_.file("file", "short"), INPUT);

    EXPECT_EQ(read_some(file_, MAX_BUFFER_SIZE), "short");
    EXPECT_TRUE(file_.file_end());
}

TEST_F(FileHelper, ReadingOnBehindTheEndGivesNothing)
{
    file_.open(dir_.file("file", "short"), INPUT);
    read_messages(file_);

    EXPECT_EQ(read_some(file_, MAX_BUFFER_SIZE), "");
    EXPECT_TRUE(file_.file_end());
}

TEST_F(FileHelper, AMessageIsZeroBehindItsBytes)
{
    file_.open(dir_.file("file", "short"), INPUT);
    const auto message = std::make_shared<dataBuffer>();
    message->length = MAX_BUFFER_SIZE;
    file_.read(message->buf, message->length);

    EXPECT_EQ(message->length, 5U);
    EXPECT_EQ(std::string(message->buf, 5), "short");
    EXPECT_EQ(
        std::string(message->buf + 5, MAX_BUFFER_SIZE - 5),
        std::string(MAX_BUFFER_SIZE - 5, '\0'));
}

TEST_F(FileHelper, ReadsNoMoreThanItIsAskedFor)
{
    file_.open(dir_.file("file", "abcdefgh"), INPUT);

    EXPECT_EQ(read_some(file_, 3), "abc");
    EXPECT_EQ(read_some(file_, 5), "defgh");
    EXPECT_FALSE(file_.file_end());
}

TEST_F(FileHelper, WithoutAFileAReadGivesNothingAndEnds)
{
    EXPECT_EQ(read_some(file_, MAX_BUFFER_SIZE), "");
    EXPECT_TRUE(file_.file_end());
}

TEST_F(FileHelper, ShortReadsOfTheKernelAreJoinedToWholeMessages)
{
    const std::string content = random_bytes(10241);
    file_.open(dir_.file("file", content), INPUT);
    const support::scoped_call<call::read> hook([](int fd, void* buffer,
                                                   std::size_t length) {
        return support::real<call::read>(fd, buffer, std::min<std::size_t>(length, 100));
    });

    EXPECT_EQ(
        read_messages(file_),
        (messages_t{content.substr(0, 10240), content.substr(10240)}));
}

TEST_F(FileHelper, AReadErrorAtTheStartIsAnEmptyFile)
{
    file_.open(dir_.file("file", random_bytes(25000)), INPUT);
    const failing_reads reads(0);

    EXPECT_EQ(read_messages(file_), messages_t{});
}

TEST_F(FileHelper, AReadErrorBetweenMessagesEndsTheFileThere)
{
    const std::string content = random_bytes(25000);
    file_.open(dir_.file("file", content), INPUT);
    const failing_reads reads(10240);

    EXPECT_EQ(read_messages(file_), messages_t{content.substr(0, 10240)});
}

TEST_F(FileHelper, AReadErrorWithinAMessageDeliversTheBytesBeforeIt)
{
    const std::string content = random_bytes(25000);
    file_.open(dir_.file("file", content), INPUT);
    const failing_reads reads(4000);

    EXPECT_EQ(read_messages(file_), messages_t{content.substr(0, 4000)});
}

TEST_F(FileHelper, AReadErrorWithinALaterMessageDeliversTheBytesBeforeIt)
{
    const std::string content = random_bytes(25000);
    file_.open(dir_.file("file", content), INPUT);
    const failing_reads reads(20481);

    EXPECT_EQ(
        read_messages(file_), (messages_t{
                                  content.substr(0, 10240), content.substr(10240, 10240),
                                  content.substr(20480, 1)}));
}

TEST_F(FileHelper, AReadErrorBehindASmallReadDeliversTheBytesBeforeIt)
{
    const std::string content = random_bytes(25000);
    file_.open(dir_.file("file", content), INPUT);
    ASSERT_EQ(read_some(file_, 5), content.substr(0, 5));
    ASSERT_EQ(read_some(file_, MAX_BUFFER_SIZE), content.substr(5, 10240));
    const failing_reads reads(300);

    EXPECT_EQ(read_messages(file_), messages_t{content.substr(10245, 300)});
}

TEST_F(FileHelper, AReadErrorBehindARewindDeliversTheBytesBeforeIt)
{
    const std::string content = random_bytes(25000);
    file_.open(dir_.file("file", content), INPUT);
    read_messages(file_);
    file_.seek_head();
    const failing_reads reads(500);

    EXPECT_EQ(read_messages(file_), messages_t{content.substr(0, 500)});
}

TEST_F(FileHelper, AReadErrorBehindAnOpeningAtTheEndDeliversNothing)
{
    file_.open(dir_.file("file", random_bytes(25000)), INPUT | std::ios_base::ate);
    const failing_reads reads(0);

    EXPECT_EQ(read_messages(file_), messages_t{});
}

TEST_F(FileHelper, AReadErrorBehindAWriteDeliversNothing)
{
    file_.open(dir_.file("file", random_bytes(25000)), INPUT | std::ios_base::out);
    ASSERT_TRUE(file_.write(random_bytes(500)));
    const failing_reads reads(0);

    EXPECT_EQ(read_messages(file_), messages_t{});
}

TEST_F(FileHelper, AFileIsReadWholeAgainBehindAReadError)
{
    const std::string filename = dir_.file("file", "content");
    file_.open(filename, INPUT);
    {
        const failing_reads reads(3);
        read_messages(file_);
    }

    file_.open(filename, INPUT);
    EXPECT_FALSE(file_.file_end());
    EXPECT_EQ(read_messages(file_), messages_t{"content"});
}

TEST_F(FileHelper, ADirectoryReadsAsAnEmptyFile)
{
    file_.open(dir_.path(), INPUT);
    EXPECT_EQ(read_messages(file_), messages_t{});
}

TEST_F(FileHelper, OneHelperReadsFileAfterFile)
{
    const std::string first = random_bytes(10240);
    const std::string second = random_bytes(10241);
    const std::string first_name = dir_.file("first", first);
    const std::string second_name = dir_.file("second", second);

    for (int pass = 0; pass < 2; ++pass) {
        file_.open(first_name, INPUT);
        EXPECT_FALSE(file_.file_end());
        EXPECT_EQ(read_messages(file_), messages_t{first});
        file_.open(second_name, INPUT);
        EXPECT_FALSE(file_.file_end());
        EXPECT_EQ(
            read_messages(file_),
            (messages_t{second.substr(0, 10240), second.substr(10240)}));
    }
}

TEST_F(FileHelper, OpeningLeavesAHalfReadFileBehind)
{
    file_.open(dir_.file("first", random_bytes(25000)), INPUT);
    read_some(file_, MAX_BUFFER_SIZE);

    file_.open(dir_.file("second", "second"), INPUT);
    EXPECT_EQ(read_messages(file_), messages_t{"second"});
}

TEST_F(FileHelper, OpeningClosesTheFileBefore)
{
    const std::string filename = dir_.file("file");
    const std::ptrdiff_t before = open_descriptors();
    file_.open(filename, INPUT);
    file_.open(filename, INPUT);

    EXPECT_EQ(open_descriptors(), before + 1);
}

TEST_F(FileHelper, AFailedOpenClosesTheFileBefore)
{
    const recorded_sleeps sleeps;
    const std::ptrdiff_t before = open_descriptors();
    file_.open(dir_.file("file"), INPUT);
    EXPECT_THROW(file_.open(dir_.path("missing"), INPUT), vesk_ex);

    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileHelper, ClosingReleasesTheDescriptor)
{
    const std::ptrdiff_t before = open_descriptors();
    file_.open(dir_.file("file"), INPUT);
    ASSERT_EQ(open_descriptors(), before + 1);

    file_.close();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileHelper, DestructionReleasesTheDescriptor)
{
    const std::ptrdiff_t before = open_descriptors();
    {
        file_helper file;
        file.open(dir_.file("file"), INPUT);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileHelper, ClosingClearsTheEnd)
{
    file_.open(dir_.file("file"), INPUT);
    read_messages(file_);
    ASSERT_TRUE(file_.file_end());

    file_.close();
    EXPECT_FALSE(file_.file_end());
}

TEST_F(FileHelper, ClosingWithoutAFileIsHarmless)
{
    file_.close();
    file_.close();
    EXPECT_FALSE(file_.file_end());

    file_.open(dir_.file("file", "content"), INPUT);
    EXPECT_EQ(read_messages(file_), messages_t{"content"});
}

TEST_F(FileHelper, ASeekGoesBackToTheFirstByte)
{
    file_.open(dir_.file("file", "abcdef"), INPUT);
    ASSERT_EQ(read_some(file_, 4), "abcd");

    file_.seek_head();
    EXPECT_EQ(read_some(file_, 4), "abcd");
}

TEST_F(FileHelper, ASeekMakesAnEndedFileReadableAgain)
{
    const std::string content = random_bytes(10241);
    file_.open(dir_.file("file", content), INPUT);
    const messages_t first = read_messages(file_);

    file_.seek_head();
    EXPECT_FALSE(file_.file_end());
    EXPECT_EQ(read_messages(file_), first);
}

TEST_F(FileHelper, AskingForTheSizeKeepsTheReadPosition)
{
    file_.open(dir_.file("file", "abcdefgh"), INPUT);
    ASSERT_EQ(read_some(file_, 3), "abc");

    EXPECT_EQ(file_.file_size(), 8U);
    EXPECT_EQ(read_some(file_, 3), "def");
}

TEST_F(FileHelper, AnEndedFileStillHasItsSizeAndItsEnd)
{
    file_.open(dir_.file("file", "abcdefgh"), INPUT);
    read_messages(file_);

    EXPECT_EQ(file_.file_size(), 8U);
    EXPECT_TRUE(file_.file_end());
    EXPECT_EQ(read_some(file_, 3), "");
}

TEST_F(FileHelper, ASizeMayNeedAll32Bits)
{
    const std::string filename = dir_.file("file");
    fs::resize_file(filename, 0xC0000001U); // a hole: no space is taken
    file_.open(filename, INPUT);

    EXPECT_EQ(file_.file_size(), 0xC0000001U);
}

TEST_F(FileHelper, AStringTakesTheRestOfTheFile)
{
    file_.open(dir_.file("file", "abcdefgh"), INPUT);
    ASSERT_EQ(read_some(file_, 3), "abc");

    std::string rest = "earlier text";
    EXPECT_TRUE(file_.read(rest));
    EXPECT_EQ(rest, "defgh");
}

TEST_F(FileHelper, AStringBehindTheEndIsEmptied)
{
    file_.open(dir_.file("file", "abcdefgh"), INPUT);
    std::string content;
    ASSERT_TRUE(file_.read(content));

    EXPECT_FALSE(file_.read(content));
    EXPECT_EQ(content, "");
}

TEST_F(FileHelper, AStringIsReadAgainBehindASeek)
{
    file_.open(dir_.file("file", "abcdefgh"), INPUT);
    std::string content;
    ASSERT_TRUE(file_.read(content));

    file_.seek_head();
    EXPECT_TRUE(file_.read(content));
    EXPECT_EQ(content, "abcdefgh");
}

TEST_F(FileHelper, AWriteReplacesTheBytesAtThePosition)
{
    const std::string filename = dir_.file("file", "abcdefgh");
    file_.open(filename, UPDATE);

    EXPECT_TRUE(file_.write("12"));
    EXPECT_TRUE(file_.write("34"));
    file_.close();
    EXPECT_EQ(content_of(filename), "1234efgh");
}

TEST_F(FileHelper, AWriteTakesEveryByteOfALargeString)
{
    const std::string filename = dir_.file("file");
    const std::string content = random_bytes(100000);
    file_.open(filename, UPDATE);

    EXPECT_TRUE(file_.write(std::string(content)));
    file_.close();
    EXPECT_EQ(content_of(filename), content);
}

TEST_F(FileHelper, WhatIsWrittenIsReadBackBehindASeek)
{
    file_.open(dir_.file("file"), UPDATE);
    ASSERT_TRUE(file_.write("content"));

    file_.seek_head();
    EXPECT_EQ(read_messages(file_), messages_t{"content"});
}

TEST_F(FileHelper, AFileOpenForReadingRefusesAWrite)
{
    const std::string filename = dir_.file("file", "content");
    file_.open(filename, INPUT);

    EXPECT_FALSE(file_.write("other"));
    file_.close();
    EXPECT_EQ(content_of(filename), "content");
}

TEST_F(FileHelper, AWriteThatFindsNoRoomFails)
{
    file_.open("/dev/full", std::ios_base::out | std::ios_base::binary);
    EXPECT_FALSE(file_.write(random_bytes(100000)));
}

TEST_F(FileHelper, ASmallWriteThatFindsNoRoomFailsToo)
{
    file_.open("/dev/full", std::ios_base::out | std::ios_base::binary);
    EXPECT_FALSE(file_.write("few bytes"));
}

TEST_F(FileHelper, WithoutAFileAWriteFails) { EXPECT_FALSE(file_.write("content")); }

} // namespace common_test
