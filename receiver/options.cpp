// See options.h.
#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "common.h"

namespace receiver {

namespace {

constexpr const char* DESCRIPTION =
    "Receives a replay, compares it with the recording and measures it.\n"
    "\n"
    "Give it the sender's own command line: the same words mean the same here. Over\n"
    "TCP it connects to --ip and --port; over UDP it listens there, so start it\n"
    "before the sender. Without --filepath it measures and compares nothing.";

constexpr const char* FOOTER =
    "Exit status: 0 as expected, 1 content differs or is lost, duplicated or out of\n"
    "order, 2 wrong use, 3 cannot connect, bind or join, 4 rate outside --tolerance,\n"
    "5 undecided as this receiver itself dropped, 6 a file cannot be read or written,\n"
    "7 ended early.\n"
    "\n"
    "Examples:\n"
    "  replay_sender   --filepath day.dat --mbps 50\n"
    "  replay_receiver --filepath day.dat --mbps 50 --report day.html\n"
    "  replay_receiver --filepath day.dat --mbps 50 --plan\n"
    "  replay_receiver --protocol udp --ip 239.1.1.1 --port 5000 --device eth1 \\\n"
    "                  --write seen.pcap --duration 60";

// As the sender reads its rate: in single precision, cut to whole bits per second.
uint64_t bits_per_second(double mbps)
{
    return static_cast<uint64_t>(static_cast<float>(mbps) * 1000000.0F);
}

// The values that the parser stores before they are checked together.
struct raw_values {
    int64_t port{9089};
    int64_t filetype{0};
    int64_t passes{1};
    int64_t preload{0};
    int64_t debug{0};
    double mbps{0};
    std::string protocol{"tcp"};
    std::string progress{"auto"};
    uint64_t window{4096};
    uint64_t receive_buffer{0};
    double duration{0};
    uint64_t messages{0};
    uint64_t bytes{0};
};

std::string quoted(const std::string& word)
{
    if (!word.empty() &&
        word.find_first_of(" \t\n'\"\\$&;()<>|*?`#~{}[]!") == std::string::npos)
        return word;
    std::string text;
    for (const char c : word)
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return fmt::format("'{}'", text);
}

// As a shell takes it back.
std::string quoted_command(int argc, const char* const* argv)
{
    std::string command;
    for (int i = 0; i < argc; ++i) {
        command += i == 0 ? "" : " ";
        command += quoted(argv[i]);
    }
    return command;
}

// The texts are short enough for a line of 80 columns beside the names.
CLI::Option* describe(
    CLI::Option* option, const char* group, const char* value, const char* text)
{
    return option->group(group)->type_name(value)->description(text);
}

// The parser's own conversions take what is too large for the largest number, and a
// leading zero for octal, which the sender does not.
CLI::Validator whole_number()
{
    return {
        [](std::string& text) {
            const size_t digits = text.find_first_not_of("+-");
            const size_t first = text.find_first_not_of('0', digits);
            if (digits != std::string::npos)
                text.erase(digits, std::min(first, text.size() - 1) - digits);
            errno = 0;
            (void)std::strtoull(text.c_str(), nullptr, 10);
            return errno == ERANGE ? fmt::format("{} is too large", text) : std::string();
        },
        ""};
}

CLI::Validator at_least(double least, bool inclusive)
{
    return {
        [=](std::string& text) {
            const double number = std::strtod(text.c_str(), nullptr);
            if (!std::isfinite(number))
                return fmt::format("{} is no finite number", text);
            if (number > least || (inclusive && number == least))
                return std::string();
            return fmt::format(
                "{} is not {} {}", text, inclusive ? "at least" : "more than", least);
        },
        ""};
}

CLI::Validator positive() { return at_least(0, false); }
CLI::Validator not_negative() { return at_least(0, true); }

// A check whose limits are not shown beside the name.
CLI::Validator quiet(CLI::Validator check) { return check.description(""); }

void add_sender_options(CLI::App& app, options& to, raw_values& raw)
{
    const char* group = "The sender's options";
    describe(
        app.add_option("--ip", to.ip), group, "ADDRESS",
        "connect to it; UDP: listen on it (127.0.0.1)");
    describe(app.add_option("--port", raw.port), group, "N", "its port (9089)")
        ->transform(whole_number())
        ->check(quiet(CLI::Range(1, 65535)));
    describe(
        app.add_option("--filepath", to.source.path), group, "PATH",
        "the recording: a file or a folder");
    describe(
        app.add_option("--filetype", raw.filetype), group, "0|1",
        "0: data files, 1: captures (0)")
        ->transform(whole_number())
        ->check(quiet(CLI::Range(0, 1)));
    describe(
        app.add_option("--filter", to.source.filter), group, "TEXT",
        "of captures, as for tcpdump");
    describe(
        app.add_option("--loopback", raw.passes), group, "N",
        "passes, 0: without end (1)")
        ->transform(whole_number())
        ->check(quiet(CLI::Range(
            int64_t{std::numeric_limits<int32_t>::min()},
            int64_t{std::numeric_limits<uint32_t>::max()})));
    describe(
        app.add_option("--mbps", raw.mbps), group, "RATE",
        "the rate asked for, 0: none (0)");
    describe(app.add_option("--protocol", raw.protocol), group, "tcp|udp", "(tcp)");
    describe(
        app.add_option("--device", to.device), group, "NAME",
        "on which to join a multicast group");
    describe(
        app.add_option("--preload", raw.preload), group, "0|1",
        "1: expect the order that this gives (0)")
        ->transform(whole_number());
    describe(app.add_option("--debug", raw.debug), group, "N", "taken and ignored")
        ->transform(whole_number());
}

void add_own_options(CLI::App& app, options& to, raw_values& raw)
{
    const char* group = "How to receive and compare";
    describe(
        app.add_option("--connect-timeout", to.connect_timeout_s), group, "SECONDS",
        "keep trying for so long (10)")
        ->check(not_negative());
    describe(
        app.add_option("--rcvbuf", raw.receive_buffer), group, "BYTES",
        "receive buffer, also as 8k, 64M\n(UDP: 64M, TCP: the kernel's choice)")
        ->transform(whole_number())
        ->transform(quiet(CLI::AsSizeValue(false)))
        ->check(positive());
    describe(
        app.add_option("--window", raw.window), group, "N",
        "messages to look around for a lost place\n(4096)")
        ->transform(whole_number())
        ->check(quiet(CLI::Range(1, 1 << 20)));
    describe(
        app.add_option("--tolerance", to.tolerance_percent), group, "PERCENT",
        "rate error that passes (0.5)")
        ->check(not_negative());
}

void add_end_options(CLI::App& app, options& to, raw_values& raw)
{
    const char* group = "When to end (and always when all that is expected has come)";
    describe(
        app.add_option("--settle", to.settle_s), group, "SECONDS",
        "listen on behind the expected total (0.2)")
        ->check(not_negative());
    describe(
        app.add_option("--idle", to.idle_s), group, "SECONDS",
        "of silence behind the first message (2, and\nmore at low rates)")
        ->check(positive());
    describe(app.add_option("--duration", raw.duration), group, "SECONDS", "in all")
        ->check(positive());
    describe(app.add_option("--messages", raw.messages), group, "N", "after so many")
        ->transform(whole_number())
        ->check(positive());
    describe(app.add_option("--bytes", raw.bytes), group, "N", "after so many")
        ->transform(whole_number())
        ->transform(quiet(CLI::AsSizeValue(false)))
        ->check(positive());
}

void add_output_options(CLI::App& app, options& to, raw_values& raw)
{
    const char* group = "What to show and keep";
    describe(
        app.add_option("--progress", raw.progress), group, "auto|always|never",
        "auto: on a terminal (auto)")
        ->check(quiet(CLI::IsMember({"auto", "always", "never"})));
    describe(
        app.add_option("--json", to.json), group, "FILE",
        "the result as JSON, - for standard output");
    describe(app.add_option("--csv", to.csv), group, "FILE", "the rate over time");
    describe(
        app.add_option("--report", to.report), group, "FILE", "a page for the browser");
    describe(
        app.add_option("--write", to.write), group, "FILE",
        "what arrives: TCP as a data file, UDP as a\ncapture");
    app.add_flag("--plan", to.plan, "open no socket; tell what would be sent")
        ->group(group);
}

void check_address(options& to)
{
    in_addr address{};
    if (::inet_pton(AF_INET, to.ip.c_str(), &address) != 1)
        throw usage_end(
            true,
            fmt::format(
                "--ip: \"{}\" is no IPv4 address; host names are not looked up", to.ip));
    const bool is_group = IN_MULTICAST(ntohl(address.s_addr));
    if (!to.device.empty() && (to.tcp || !is_group))
        to.remarks.emplace_back("--device: means nothing here without a multicast group");
}

// An empty name is as a rule a shell variable that is not set.
void check_names(const options& to, const CLI::App& app)
{
    const std::pair<const char*, const std::string*> names[] = {
        {"--filepath", &to.source.path}, {"--json", &to.json},   {"--csv", &to.csv},
        {"--report", &to.report},        {"--write", &to.write},
    };
    for (const auto& [option, path] : names) {
        if (app.count(option) != 0 && path->empty())
            throw usage_end(
                true, fmt::format("{}: the name of the file is empty", option));
        if (*path == "-" && path != &to.json && path != &to.source.path)
            throw usage_end(
                true, fmt::format("{}: needs a file; only --json can go to -", option));
        for (const auto& [other, other_path] : names) {
            if (path != other_path && *path == *other_path && !path->empty())
                throw usage_end(
                    true, fmt::format("{} and {} name the same file", option, other));
        }
    }
}

void check_source(const options& to)
{
    const source_options& source = to.source;
    if (to.plan && source.path.empty())
        throw usage_end(true, "--plan: needs --filepath, the recording to look at");
    if (source.path.empty() || !source.captures)
        return;
    if (source.filter.empty())
        throw usage_end(
            true, "--filter: --filetype 1 needs one, for instance --filter udp");
    std::string filter = source.filter;
    const auto transport =
        vesk::details::extract_protocol_type(vesk::details::trim_(filter));
    if (transport == vesk::details::DataType::UNKNOWN && !source.preload)
        throw usage_end(
            true,
            "--filter: one of its words has to be tcp or udp, alone between blanks");
}

// As in the sender, every protocol but TCP is UDP.
void take_protocol(options& to, const std::string& text)
{
    std::string word = text;
    vesk::details::to_lower(word);
    to.tcp = word == "tcp";
    if (!to.tcp && word != "udp")
        to.remarks.push_back(fmt::format(
            "--protocol {}: not tcp, so taken as udp, like the sender does", text));
}

// Without the option, long enough for the longest pause that the sender makes between
// two messages at this rate: behind its first one it waits for two.
double idle_for(uint64_t bits_per_second)
{
    constexpr double LONGEST_BITS = 2.0 * 8 * int{vesk::MAX_BUFFER_SIZE};
    constexpr double AT_LEAST_S = 2;
    return bits_per_second == 0
               ? AT_LEAST_S
               : AT_LEAST_S + LONGEST_BITS / static_cast<double>(bits_per_second);
}

void take_raw_values(options& to, const raw_values& raw, const CLI::App& app)
{
    to.port = static_cast<uint16_t>(raw.port);
    to.source.captures = raw.filetype == 1;
    to.source.passes = static_cast<uint32_t>(raw.passes);       // negative ones wrap
    to.source.preload = static_cast<int32_t>(raw.preload) == 1; // cut as the sender does
    if (!(raw.mbps >= 0) || raw.mbps > 1e12)
        throw usage_end(true, "--mbps: a rate in megabits per second, 0 for none");
    to.wanted_bps = bits_per_second(raw.mbps);
    if (app.count("--idle") == 0)
        to.idle_s = idle_for(to.wanted_bps);
    to.window = static_cast<size_t>(raw.window);
    if (app.count("--rcvbuf") != 0)
        to.receive_buffer = raw.receive_buffer;
    if (app.count("--duration") != 0)
        to.duration_s = raw.duration;
    if (app.count("--messages") != 0)
        to.messages = raw.messages;
    if (app.count("--bytes") != 0)
        to.bytes = raw.bytes;
    to.progress = raw.progress == "always"  ? progress_mode::always
                  : raw.progress == "never" ? progress_mode::never
                                            : progress_mode::automatic;
    if (app.count("--debug") != 0)
        to.remarks.emplace_back("--debug: means nothing here and is ignored");
    take_protocol(to, raw.protocol);
}

} // namespace

options parse_options(int argc, const char* const* argv)
{
    options to;
    raw_values raw;
    CLI::App app(DESCRIPTION, "replay_receiver");
    app.footer(FOOTER);
    // The sender knows its words in any case, and the last one counts.
    app.option_defaults()->ignore_case()->multi_option_policy(
        CLI::MultiOptionPolicy::TakeLast);
    app.set_help_flag("-h,--help", "show this text");
    app.set_version_flag("--version", "replay_receiver " REPLAY_SENDER_VERSION)
        ->description("show the version");
    app.get_formatter()->column_width(30);
    add_sender_options(app, to, raw);
    add_own_options(app, to, raw);
    add_end_options(app, to, raw);
    add_output_options(app, to, raw);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        throw usage_end(false, app.help());
    } catch (const CLI::CallForVersion&) {
        throw usage_end(false, "replay_receiver " REPLAY_SENDER_VERSION "\n");
    } catch (const CLI::ParseError& error) {
        throw usage_end(true, error.what());
    }
    to.command = quoted_command(argc, argv);
    take_raw_values(to, raw, app);
    check_address(to);
    check_names(to, app);
    check_source(to);
    return to;
}

} // namespace receiver
