// Arbitrary words as the sender's command line.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <strings.h>

#include "check.h"
#include "leading_number.h"
#include "sender_program.h"

namespace {

using fuzz::replay_order;
using fuzz::require;
using fuzz::sender_run;

constexpr const char* OPTIONS_WITH_VALUE[] = {
    "--ip",      "--port",   "--filepath", "--filetype", "--loopback", "--mbps",
    "--preload", "--filter", "--protocol", "--device",   "--debug"};

// What the words say, by the rules of the command line.
struct meaning {
    std::string stranger; // the word that ended the reading
    bool has_stranger{false};
    bool help{false};
    bool debug{false};
    std::map<std::string, std::string> values{
        {"--ip", "127.0.0.1"},
        {"--port", "9089"},
        {"--loopback", "1"},
        {"--protocol", "tcp"}};

    std::string text(const char* option) const
    {
        const auto found = values.find(option);
        return found == values.end() ? "" : found->second;
    }
    uint32_t number(const char* option) const
    {
        return static_cast<uint32_t>(fuzz::leading_number(text(option)));
    }
    bool replays() const
    {
        return !has_stranger && !help && !text("--filepath").empty() &&
               (number("--filetype") == 0 ||
                (number("--filetype") == 1 && !text("--filter").empty()));
    }
};

// The option's own spelling, or null.
const char* option_of(const std::string& word)
{
    for (const char* option : OPTIONS_WITH_VALUE) {
        if (::strcasecmp(word.c_str(), option) == 0)
            return option;
    }
    return nullptr;
}

meaning meaning_of(const std::vector<std::string>& words)
{
    meaning found;
    for (size_t i = 1; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (::strcasecmp(word.c_str(), "--help") == 0 ||
            ::strcasecmp(word.c_str(), "-h") == 0) {
            found.help = true;
            continue;
        }
        const char* option = option_of(word);
        if (option == nullptr || i + 1 == words.size()) {
            found.has_stranger = true;
            found.stranger = word;
            break;
        }
        found.values[option] = words[++i];
        found.debug = found.debug || found.number("--debug") != 0;
    }
    return found;
}

std::string program_name(const std::vector<std::string>& words)
{
    const std::string name = words.empty() ? "" : words[0];
    size_t start = 0;
    for (size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '/' || name[i] == '\\')
            start = i + 1;
    }
    return name.substr(start);
}

bool takes_away(std::string_view& text, std::string_view start)
{
    if (!text.starts_with(start))
        return false;
    text.remove_prefix(start.size());
    return true;
}

// The lines of the help that depend on no word are looked at by their beginnings.
void check_help(
    std::string_view text, const std::vector<std::string>& words, const meaning& said)
{
    if (said.has_stranger)
        require(
            takes_away(text, "param error: " + said.stranger + "\n"),
            "the word that cannot be understood is named");
    require(
        takes_away(text, "\nDescription for " + program_name(words) + ". Version: "),
        "the help starts with the program's name");
    constexpr const char* LINES[] = {"--help",     "--ip",     "--port",     "--filepath",
                                     "--filetype", "--filter", "--loopback", "--mbps",
                                     "--protocol", "--device", "--preload",  "--debug"};
    for (const char* line : LINES) {
        text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
        require(
            takes_away(text, std::string("    ") + line + " "), "help has each option");
    }
    require(text.find('\n') == text.size() - 1, "nothing follows the help");
}

// A plain whole number of megabits, few enough for single precision to hold them;
// -1 for any other text.
int plain_megabits(const std::string& text)
{
    if (text.empty() || text.size() > 2 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return -1;
    return std::atoi(text.c_str());
}

void check_order(const replay_order& order, const meaning& said)
{
    const int64_t port{fuzz::leading_number(said.text("--port"))};
    require(
        order.address ==
            said.text("--ip") + ":" + std::to_string(static_cast<uint64_t>(port)),
        "the address is the one of the words");
    require(order.captures == (said.number("--filetype") == 1), "so is the file type");
    require(order.path == said.text("--filepath"), "so is the path");
    require(order.passes == said.number("--loopback"), "so are the passes");
    require(order.preload == (said.number("--preload") == 1), "so is the preload");
    require(order.device == said.text("--device"), "so is the device");
    require(
        order.tcp == (::strcasecmp(said.text("--protocol").c_str(), "tcp") == 0),
        "all that is not TCP is UDP");
    require(
        order.filter == (order.captures ? said.text("--filter") : ""),
        "only captures are filtered");
    const int megabits = plain_megabits(said.text("--mbps"));
    require(
        megabits < 0 || order.speed == static_cast<uint64_t>(megabits) * 1000000,
        "a rate is in millions of bits");
}

std::string echo_of(const replay_order& order, const meaning& said)
{
    return "address: " + order.address + "\nfilepath: " + order.path +
           "\nfiletype: " + (order.captures ? "1" : "0") +
           "\nloopback: " + std::to_string(order.passes) +
           "\nin_speed: " + std::to_string(order.speed) +
           "\nfilter: " + said.text("--filter") +
           "\nprotocol: " + said.text("--protocol") + "\ndevice: " + order.device + "\n";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<std::string> words =
        fuzz::words_of({reinterpret_cast<const char*>(data), size});
    const meaning said = meaning_of(words);
    const sender_run run = fuzz::run_sender(words);
    require(run.debug == said.debug, "the debug mode is the one of the words");
    require(run.order.has_value() == said.replays(), "only a whole order is replayed");
    if (!run.order) {
        check_help(run.output, words, said);
        return 0;
    }
    check_order(*run.order, said);
    require(run.output == echo_of(*run.order, said), "the echo tells what is replayed");
    return 0;
}
