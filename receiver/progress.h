// The line that shows how far a run has come. Runs on the receiving thread, so it
// draws seldom and never waits: a write that the terminal refuses is left out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace receiver {

struct progress_state {
    uint64_t messages{0};
    uint64_t bytes{0};
    double rate_bps{0};
    uint64_t faults{0};
    std::optional<double> fraction; // of the expected total, where that is known
    double elapsed_s{0};
};

// One line without its end, at most columns - 1 wide, so that a terminal does not
// move on to the next line: a bar with percentage and time left, or counters only.
std::string progress_text(const progress_state& state, unsigned columns);

class progress_line {
public:
    // Draws to this descriptor, or nothing at all when disabled.
    progress_line(int fd, bool enabled);

    // Draws ten times a second at most. `now_ns` is monotonic.
    void draw(uint64_t now_ns, const progress_state& state);

    // Erases what is drawn. A later draw() shows the line again.
    void finish();

    // Whether draw() would draw: spares the caller working out the state.
    bool due(uint64_t now_ns) const;

private:
    unsigned columns() const;
    void write(const std::string& text) const;

    int fd_;
    bool enabled_;
    bool drawn_{false}; // something stands on the line
    std::optional<uint64_t> last_ns_;
};

} // namespace receiver
