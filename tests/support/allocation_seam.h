// Makes allocations of the current thread fail for one scope: those that report it by
// a null pointer, or one of all that go through the C library's heap or operator new.
// Libraries come through it as well as the code under test.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace support {

class failing_nothrow_new {
public:
    failing_nothrow_new();
    ~failing_nothrow_new();
    failing_nothrow_new(const failing_nothrow_new&) = delete;
    failing_nothrow_new& operator=(const failing_nothrow_new&) = delete;
};

// The n-th allocation of the current thread fails, counting from one, and those behind
// it too if `lasting`. Guards do not nest.
class failing_allocation {
public:
    explicit failing_allocation(uint64_t nth, bool lasting = false);
    ~failing_allocation();
    failing_allocation(const failing_allocation&) = delete;
    failing_allocation& operator=(const failing_allocation&) = delete;

    // Whether so many were made.
    bool failed() const;
};

// What one run of an action came to: "" when it ran through, and otherwise the text
// of what was thrown.
template <class Action>
std::string outcome_with_failing_allocation(uint64_t nth, Action action, bool& failed)
{
    const failing_allocation guard(nth);
    // Taken before the text is copied, which allocates too.
    const auto note = [&] { failed = guard.failed(); };
    try {
        action();
        note();
        return "";
    } catch (const std::exception& error) {
        note();
        return error.what();
    }
}

// Runs the action with its first allocation failing, then with its second, and so on
// until a run gets all that it asks for. The outcomes, one for each run but the last,
// which must have run through.
template <class Action>
std::vector<std::string> outcomes_of_each_failing_allocation(Action action)
{
    std::vector<std::string> outcomes;
    for (uint64_t nth = 1;; ++nth) {
        bool failed = false;
        std::string outcome = outcome_with_failing_allocation(nth, action, failed);
        if (!failed) {
            if (!outcome.empty())
                outcomes.push_back("with all it asked for: " + outcome);
            return outcomes;
        }
        outcomes.push_back(std::move(outcome));
    }
}

// How a child process ended that did something of which an allocation failed.
struct process_end {
    int signal{0};     // that ended it, or 0
    int status{0};     // that it exited with
    bool failed{true}; // whether so many allocations were made
    bool leaked{false};
    std::string thrown{}; // text of what the action threw
    std::string errors{}; // its standard error

    // All of it in one line, for comparing and for reports.
    std::string text() const;
};

// Does the action in a child process, because it may abort. What the action throws is
// caught there, so that everything it built is taken apart; a sanitizer then looks for
// leaks. Standard output goes nowhere. No other thread may run.
process_end run_apart(const std::function<void()>& action);

// run_apart() with the first allocation failing, then the second, and so on until a run
// gets all that it asks for, which is the last end. The action makes its own guard.
std::vector<process_end> ends_of_each_failing_allocation(
    const std::function<void(uint64_t nth)>& action);

} // namespace support
