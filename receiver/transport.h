// What a run needs of its transport.
#pragma once

#include <cstdint>

#include "measure.h"
#include "result.h"
#include "run_end.h"

namespace receiver {

// One way to receive: its socket, its comparison and what it keeps. One thread.
class transport {
public:
    transport() = default;
    virtual ~transport() = default;

    transport(const transport&) = delete;
    transport& operator=(const transport&) = delete;

    // To wait on for reading.
    virtual int fd() const = 0;

    enum class taken {
        data,   // more may be there
        little, // what there was; it pays to let more come together
        nothing,
        limit, // the run's limit of messages or bytes
        closed // by the sender
    };

    // Takes in what is there without waiting, compares and measures it.
    virtual taken take(measure& measured, const run_end& end) = 0;

    // All that the source gives is there; false without a source.
    virtual bool complete() = 0;

    // What arrives is told apart in messages.
    virtual bool framed() const = 0;

    // Nothing that the source gives is still to come, arrived or not.
    virtual bool exhausted() const = 0;

    virtual uint64_t fault_count() const = 0;

    // Ends the comparison and the file that is kept, and fills in what the
    // transport knows. What the source still has is a fault only if it is due.
    virtual void finish(run_result& result, measure& measured, bool rest_is_due) = 0;

    // A file that is kept could not be written.
    virtual bool file_failed() const = 0;
};

} // namespace receiver
