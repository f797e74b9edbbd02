// See capture_source.h.
#include "capture_source.h"

#include <utility>

#include "result.h"

namespace receiver {

namespace {

constexpr size_t PART_MESSAGES = 256;
// What a preloaded capture is filtered by, whatever the run's filter.
constexpr const char* PRELOAD_FILTER = "tcp";

} // namespace

std::unique_ptr<message_source> open_captures(
    file_list list, std::string filter, bool preload)
{
    if (preload)
        return std::make_unique<reversed_capture_source>(std::move(list));
    return std::make_unique<capture_source>(std::move(list), std::move(filter));
}

// ----------------------------------------------------------------------- forwards

capture_source::capture_source(file_list list, std::string filter)
    : list_(std::move(list)), filter_(std::move(filter))
{}

bool capture_source::next(bytes_view& message)
{
    while (reader_.error().empty()) {
        if (is_open_ && reader_.next(message)) {
            pass_was_empty_ = false;
            return true;
        }
        if (!reader_.error().empty() || !next_file())
            return false;
    }
    return false;
}

bool capture_source::next_file()
{
    if (file_ == list_.files.size() && !next_pass())
        return false;
    const auto opened = reader_.open(list_.files[file_++], filter_);
    is_open_ = opened == capture_reader::opened::filtered;
    if (opened == capture_reader::opened::refused && pass_ == 0)
        ++refused_;
    return true;
}

// An endless replay of nothing is nothing.
bool capture_source::next_pass()
{
    if (!first_pass_)
        first_pass_ = reader_.notes();
    reader_.stop_noting();
    if (pass_ + 1 == list_.passes || pass_was_empty_)
        return false;
    ++pass_;
    file_ = 0;
    pass_was_empty_ = true;
    return true;
}

std::optional<double> capture_source::fraction() const
{
    if (list_.passes == 0)
        return std::nullopt;
    const auto files = static_cast<double>(list_.files.size());
    const double in_pass =
        file_ == 0 ? 0 : (static_cast<double>(file_) - 1 + reader_.fraction()) / files;
    return (static_cast<double>(pass_) + in_pass) / static_cast<double>(list_.passes);
}

source_notes capture_source::notes() const
{
    source_notes notes = first_pass_ ? *first_pass_ : reader_.notes();
    notes.omitted.entries = list_.entries;
    notes.omitted.refused_files = refused_;
    return notes;
}

// ---------------------------------------------------------------------- backwards

reversed_capture_source::reversed_capture_source(file_list list) : list_(std::move(list))
{
    if (reader_.open(list_.files[0], PRELOAD_FILTER) == capture_reader::opened::failed)
        error_ = reader_.error();
    else
        index();
    notes_ = reader_.notes();
    notes_.omitted.entries = list_.entries;
    part_ = parts_.size();
}

// The sender reads all of it before it sends anything: an error leaves nothing.
void reversed_capture_source::index()
{
    bytes_view piece;
    part current{reader_.position(), 0};
    while (reader_.next(piece)) {
        ++current.messages;
        if (current.messages < PART_MESSAGES || !reader_.at_frame_start())
            continue;
        parts_.push_back(current);
        current = {reader_.position(), 0};
    }
    if (current.messages != 0)
        parts_.push_back(current);
    error_ = reader_.error();
    if (!error_.empty())
        parts_.clear();
}

bool reversed_capture_source::next(bytes_view& message)
{
    if (!messages_.empty())
        messages_.pop_back(); // the one that was handed out last
    if (messages_.empty()) {
        if (part_ == 0) {
            if (parts_.empty() || pass_ + 1 == list_.passes)
                return false;
            ++pass_;
            part_ = parts_.size();
        }
        --part_;
        if (!read_part(parts_[part_]))
            read_part_from_start(part_);
        if (messages_.empty())
            return false;
    }
    message = messages_.back();
    return true;
}

bool reversed_capture_source::read_part(const part& wanted)
{
    messages_.clear();
    if (!reader_.seek(wanted.position))
        return false;
    bytes_view piece;
    while (messages_.size() < wanted.messages && reader_.next(piece))
        messages_.emplace_back(piece.begin(), piece.end());
    return messages_.size() == wanted.messages;
}

// A capture of several sections cannot be entered in the middle.
void reversed_capture_source::read_part_from_start(size_t number)
{
    messages_.clear();
    if (reader_.open(list_.files[0], PRELOAD_FILTER) == capture_reader::opened::failed) {
        error_ = reader_.error(); // gone or cut since the run began
        parts_.clear();
        part_ = 0;
        return;
    }
    size_t skipped = 0;
    for (size_t i = 0; i < number; ++i)
        skipped += parts_[i].messages;
    bytes_view piece;
    while (messages_.size() < parts_[number].messages && reader_.next(piece)) {
        if (skipped != 0)
            --skipped;
        else
            messages_.emplace_back(piece.begin(), piece.end());
    }
}

std::optional<double> reversed_capture_source::fraction() const
{
    if (list_.passes == 0 || parts_.empty())
        return std::nullopt;
    const auto parts = static_cast<double>(parts_.size());
    return (static_cast<double>(pass_) + (parts - static_cast<double>(part_)) / parts) /
           static_cast<double>(list_.passes);
}

source_notes reversed_capture_source::notes() const { return notes_; }

} // namespace receiver
