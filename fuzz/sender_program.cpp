// See sender_program.h. The sender's source is part of this file, with replays that
// take down what they are told in the place of those that send.
#include "sender_program.h"

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <utility>

#include <strings.h>

#include "caught_streams.h"
#include "check.h"
#include "common.h"
#include "tcp_engine.h"
#include "tcp_replay.h"

namespace {

std::optional<fuzz::replay_order> latest_order;

} // namespace

namespace vesk {

class noted_replay {
public:
    noted_replay(
        addrname_t address, filename_t filename, PROTOTYPE protocol, uint32_t loopback,
        bool preload, uint64_t speed, devname_t devname)
        : order_{
              false,
              std::move(address),
              std::move(filename),
              protocol == PROTOTYPE::TCP,
              loopback,
              preload,
              speed,
              std::move(devname),
              {}}
    {}

    void start_replay() { latest_order = order_; }

    void start_replay(std::string filter)
    {
        order_.captures = true;
        order_.filter = std::move(filter);
        latest_order = order_;
    }

private:
    fuzz::replay_order order_;
};

class noted_file_replay : public noted_replay {
    using noted_replay::noted_replay;
};

class noted_capture_replay : public noted_replay {
    using noted_replay::noted_replay;
};

// Signals stay the fuzzer's.
inline void leave_signals() {}

} // namespace vesk

#define filereplay noted_file_replay
#define pcapreplay noted_capture_replay
#define s_catch_signals leave_signals
#define main sender_main
#include "replay_sender.cpp"
#undef main
#undef s_catch_signals
#undef pcapreplay
#undef filereplay

namespace fuzz {

namespace {

// As the kernel lays it out, each word by itself: reading past one shows.
class argument_list {
public:
    explicit argument_list(const std::vector<std::string>& words)
    {
        for (const std::string& word : words)
            words_.emplace_back(word.c_str(), word.c_str() + word.size() + 1);
        for (std::vector<char>& word : words_)
            pointers_.push_back(word.data());
        pointers_.push_back(nullptr);
    }

    int count() const { return static_cast<int>(words_.size()); }
    char** data() { return pointers_.data(); }

private:
    std::vector<std::vector<char>> words_;
    std::vector<char*> pointers_;
};

} // namespace

std::vector<std::string> words_of(std::string_view text)
{
    std::vector<std::string> words;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        words.emplace_back(line.substr(0, line.find('\0')));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return words;
}

sender_run run_sender(const std::vector<std::string>& words)
{
    argument_list arguments(words);
    const caught_streams streams;
    latest_order.reset();
    g_debug_mode = 0;
    const int status = sender_main(arguments.count(), arguments.data());
    require(status == 0, "the status is 0 whatever the words");
    require(streams.err().empty(), "nothing goes to standard error");
    require(g_debug_mode <= 1, "the debug mode is on or off");
    return {streams.out(), latest_order, g_debug_mode == 1};
}

} // namespace fuzz
