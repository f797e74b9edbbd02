// Arbitrary words as the receiver's command line, and the same ones as the sender's:
// what both take means the same to both.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>

#include "check.h"
#include "options.h"
#include "sender_program.h"

namespace {

using fuzz::require;
using receiver::options;

// None when the words end the program.
std::optional<options> parsed(const std::vector<std::string>& words)
{
    std::vector<const char*> arguments;
    for (const std::string& word : words)
        arguments.push_back(word.c_str());
    arguments.push_back(nullptr);
    try {
        return receiver::parse_options(static_cast<int>(words.size()), arguments.data());
    } catch (const receiver::usage_end& end) {
        require(*end.what() != '\0', "an end has its words");
        return std::nullopt;
    }
}

bool is_address(const std::string& text)
{
    in_addr address{};
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool is_time(double seconds, bool may_be_zero)
{
    return std::isfinite(seconds) && (seconds > 0 || (may_be_zero && seconds == 0));
}

bool is_positive(const std::optional<uint64_t>& number) { return !number || *number > 0; }

void check_values(const options& to)
{
    require(is_address(to.ip), "the address is one");
    require(to.port != 0, "the port is one");
    require(to.window >= 1 && to.window <= 1U << 20U, "the window is within its limits");
    require(is_time(to.connect_timeout_s, true), "a time is no less than nothing");
    require(is_time(to.settle_s, true), "a time is no less than nothing");
    require(is_time(to.idle_s, false), "silence takes time");
    require(!to.duration_s || is_time(*to.duration_s, false), "a run takes time");
    require(is_time(to.tolerance_percent, true), "a tolerance is no less than nothing");
    require(to.wanted_bps <= 1000000000000000000U * 2, "a rate has its limit");
    require(
        is_positive(to.receive_buffer) && is_positive(to.messages) &&
            is_positive(to.bytes),
        "a limit lets something through");
    require(!to.plan || to.has_source(), "a plan is made of a source");
    require(
        !to.has_source() || !to.source.captures || !to.source.filter.empty(),
        "captures are filtered");
}

void check_files(const options& to)
{
    const std::string* files[] = {
        &to.source.path, &to.json, &to.csv, &to.report, &to.write};
    for (const std::string* one : files) {
        for (const std::string* other : files)
            require(one == other || one->empty() || *one != *other, "files differ");
    }
    require(
        to.csv != "-" && to.report != "-" && to.write != "-",
        "one file at most goes to standard output");
}

// A command as a shell takes it, with no quotes but single ones.
std::vector<std::string> shell_words(const std::string& command)
{
    std::vector<std::string> words(1);
    bool quoted = false;
    for (size_t i = 0; i < command.size(); ++i) {
        if (command[i] == '\'')
            quoted = !quoted;
        else if (quoted)
            words.back() += command[i];
        else if (command[i] == '\\')
            words.back() += command[++i];
        else if (command[i] == ' ')
            words.emplace_back();
        else
            words.back() += command[i];
    }
    require(!quoted, "quotes come in pairs");
    return words;
}

// Its own options the sender does not know, and what it cannot read it takes for 0;
// but what both take has one meaning.
void check_against_sender(const options& to, const std::vector<std::string>& words)
{
    const fuzz::sender_run run = fuzz::run_sender(words);
    if (!run.order)
        return;
    const fuzz::replay_order& order = *run.order;
    require(
        order.address == to.ip + ":" + std::to_string(to.port), "both mean one address");
    require(order.path == to.source.path, "both mean one recording");
    require(order.captures == to.source.captures, "both mean one kind of recording");
    require(order.tcp == to.tcp, "both mean one protocol");
    require(order.passes == to.source.passes, "both mean as many passes");
    require(order.preload == to.source.preload, "both mean one order");
    require(order.speed == to.wanted_bps, "both mean one rate");
    require(order.device == to.device, "both mean one device");
    require(!order.captures || order.filter == to.source.filter, "both mean one filter");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<std::string> words =
        fuzz::words_of({reinterpret_cast<const char*>(data), size});
    if (words.empty())
        return 0; // the kernel starts no program without its name
    const std::optional<options> to = parsed(words);
    if (!to)
        return 0;
    check_values(*to);
    check_files(*to);
    require(shell_words(to->command) == words, "the command can be given again");
    check_against_sender(*to, words);
    return 0;
}
