// The program: reads the command line, echoes it and runs one replay on the main
// thread. The replay's poller thread does the sending.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include <strings.h>

#include "common.h"
#include "tcp_engine.h"
#include "tcp_replay.h"

namespace {

using vesk::details::parse_int;

struct settings {
    std::string in_file_path;
    std::string in_ip{"127.0.0.1"};
    uint64_t in_port{9089};
    uint32_t in_type{0}; // 0: data files, 1: captures
    uint32_t loopback{1};
    uint64_t in_speed{0}; // bits per second, 0: no limit
    bool in_preload{false};
    std::string filter;
    std::string protocol{"tcp"};
    std::string device;
    bool printHelp{false};
};

// Megabits to bits per second, in single precision, cut to a whole number.
// Negative rates wrap; what is no number or does not fit 64 bits gives 0.
uint64_t parse_mbps(const char* text)
{
    // NOLINTNEXTLINE(cert-err34-c): what is no number is 0, and no mistake
    const double mbps = std::atof(text);
    if (!(std::fabs(mbps) <= double{FLT_MAX}))
        return 0;
    const float speed = static_cast<float>(mbps) * 1000000.0F;
    constexpr float TWO_TO_63 = 9223372036854775808.0F;
    if (speed < 0)
        return speed >= -TWO_TO_63 ? static_cast<uint64_t>(static_cast<int64_t>(speed))
                                   : 0;
    return speed < 2 * TWO_TO_63 ? static_cast<uint64_t>(speed) : 0;
}

struct option {
    const char* name;
    void (*apply)(settings&, const char* value);
    bool takes_value;
};

// In the order of comparison. The casts keep a negative number's bits.
constexpr option OPTIONS[] = {
    {"--help", [](settings& s, const char*) { s.printHelp = true; }, false},
    {"-h", [](settings& s, const char*) { s.printHelp = true; }, false},
    {"--ip", [](settings& s, const char* v) { s.in_ip = v; }, true},
    {"--port",
     [](settings& s, const char* v) {
         s.in_port = static_cast<uint64_t>(int64_t{parse_int(v)});
     },
     true},
    {"--filepath", [](settings& s, const char* v) { s.in_file_path = v; }, true},
    {"--filetype",
     [](settings& s, const char* v) { s.in_type = static_cast<uint32_t>(parse_int(v)); },
     true},
    {"--loopback",
     [](settings& s, const char* v) { s.loopback = static_cast<uint32_t>(parse_int(v)); },
     true},
    {"--mbps", [](settings& s, const char* v) { s.in_speed = parse_mbps(v); }, true},
    {"--preload", [](settings& s, const char* v) { s.in_preload = parse_int(v) == 1; },
     true},
    {"--filter", [](settings& s, const char* v) { s.filter = v; }, true},
    {"--protocol", [](settings& s, const char* v) { s.protocol = v; }, true},
    {"--device", [](settings& s, const char* v) { s.device = v; }, true},
    {"--debug",
     [](settings&, const char* v) {
         if (parse_int(v) != 0)
             g_debug_mode = 1; // never switched off again
     },
     true},
};

const option* find_option(const char* word)
{
    for (const option& candidate : OPTIONS) {
        if (::strcasecmp(word, candidate.name) == 0)
            return &candidate;
    }
    return nullptr;
}

// Null, or the first word that is no option or that lacks its value.
const char* parse_options(int argc, char** argv, settings& s)
{
    for (int i = 1; i < argc; ++i) {
        const char* word = argv[i];
        const option* found = find_option(word);
        if (found == nullptr || (found->takes_value && i + 1 == argc))
            return word;
        found->apply(s, found->takes_value ? argv[++i] : nullptr);
    }
    return nullptr;
}

bool is_valid(const settings& s)
{
    return !s.in_file_path.empty() && s.in_type <= 1 &&
           (s.in_type == 0 || !s.filter.empty());
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): runs once, and is stated so
void outputHelpInfo(std::string progName)
{
    std::cout << std::endl;
    std::cout << "Description for " << progName << ". Version: " REPLAY_SENDER_VERSION
              << std::endl;
    constexpr const char* LINES[] = {
        "    --help            Prints this help blurb",
        "    --ip              指定 ip 地址, 默认 127.0.0.1",
        "    --port            指定端口号码, 默认 9089",
        "    --filepath        指定回放文件路径.",
        "    --filetype        指定回放文件类型. 0: 行情数据文件; 1: pcap 文件. 默认 0",
        "    --filter          如果 filetype 为 1, 需要设置过滤器. 和 tcpdump 抓包规则一致",
        "    --loopback        是否循环回放数据. 0 表示无限循环, 非 0 表示循环次数. 默认为 1",
        "    --mbps            流控 Mbps. 0 表示关闭流控. 默认 0",
        "    --protocol        指定回放协议: tcp/upd. 默认 tcp",
        "    --device          如果是 udp 组播回放, 可以使用该参数指定发送的网卡名",
        "    --preload         是否预取. 提前将文件内容读取到内存中, 降低文件IO的性能损耗, 提升回放速度. 0: 否; 1: 是. 默认 0",
        "    --debug           是否以 debug 模式运行. 0: 否; 1: 是. 默认 0",
    };
    for (const char* line : LINES)
        std::cout << line << std::endl;
}

void echo(const settings& s, const std::string& address)
{
    std::cout << "address: " << address << std::endl;
    std::cout << "filepath: " << s.in_file_path << std::endl;
    std::cout << "filetype: " << s.in_type << std::endl;
    std::cout << "loopback: " << s.loopback << std::endl;
    std::cout << "in_speed: " << s.in_speed << std::endl;
    std::cout << "filter: " << s.filter << std::endl;
    std::cout << "protocol: " << s.protocol << std::endl;
    std::cout << "device: " << s.device << std::endl;
}

// The text behind the last slash or backslash of argument 0.
std::string program_name(int argc, char** argv)
{
    const std::string path = argc > 0 ? argv[0] : "";
    const std::string::size_type separator = path.find_last_of("/\\");
    return separator == std::string::npos ? path : path.substr(separator + 1);
}

} // namespace

// Always 0: an exception or a fatal check ends the process before.
// NOLINTNEXTLINE(bugprone-exception-escape): the runtime's report is the user's
int main(int argc, char** argv)
{
    vesk::details::hold_closed_streams();
    const std::string progName = program_name(argc, argv);
    settings s;
    if (const char* word = parse_options(argc, argv, s)) {
        std::cout << "param error: " << word << std::endl;
        s.printHelp = true;
    }
    if (s.printHelp || !is_valid(s)) {
        outputHelpInfo(progName);
        return 0;
    }

    vesk::s_catch_signals();
    const std::string address = s.in_ip + ":" + std::to_string(s.in_port);
    echo(s, address);

    const auto prototype = vesk::details::to_lower(s.protocol) == "tcp"
                               ? vesk::PROTOTYPE::TCP
                               : vesk::PROTOTYPE::UDP;
    if (s.in_type == 1) {
        const auto replay = std::make_shared<vesk::pcapreplay>(
            address, s.in_file_path, prototype, s.loopback, s.in_preload, s.in_speed,
            s.device);
        replay->start_replay(s.filter);
    } else {
        const auto replay = std::make_shared<vesk::filereplay>(
            address, s.in_file_path, prototype, s.loopback, s.in_preload, s.in_speed,
            s.device);
        replay->start_replay();
    }
    return 0;
}
