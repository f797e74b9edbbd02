// See stream_verifier.h.
#include "stream_verifier.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "meeting_point.h"

namespace receiver {

namespace {

// Further than this, equal bytes on both sides of a block are no coincidence.
constexpr size_t MOST_ROTATION = 256;

bytes_view first_of(bytes_view bytes, size_t count)
{
    return bytes.first(std::min(count, bytes.size()));
}

std::vector<uint8_t> copy_of(bytes_view bytes) { return {bytes.begin(), bytes.end()}; }

// A block that was cut out in front of bytes like its own first ones is seen from
// the first difference on, so its content comes rotated by as many.
bool is_rotation(bytes_view block, bytes_view other)
{
    if (block.size() != other.size())
        return false;
    const auto is_rotated_by = [&](size_t shift) {
        return std::equal(
                   block.begin() + static_cast<ptrdiff_t>(shift), block.end(),
                   other.begin()) &&
               std::equal(
                   block.begin(), block.begin() + static_cast<ptrdiff_t>(shift),
                   other.end() - static_cast<ptrdiff_t>(shift));
    };
    for (size_t shift = 0; shift < std::min(MOST_ROTATION, block.size()); ++shift) {
        if (is_rotated_by(shift) || is_rotated_by(block.size() - shift))
            return true;
    }
    return false;
}

} // namespace

stream_verifier::stream_verifier(message_source& source) : source_(source)
{
    result_.attempted = true;
    next_message();
}

std::span<const uint32_t> stream_verifier::arrived(bytes_view recent, size_t fresh)
{
    sizes_.clear();
    received_ += fresh;
    if (result_.gave_up) {
        beyond_.length += fresh;
        skip_source();
        return sizes_;
    }
    const bytes_view bytes = recent.last(fresh);
    if (!astray_.empty()) {
        astray_.push(bytes);
        resolve(false);
        return sizes_;
    }
    const size_t matched = match_in_step(bytes);
    if (matched < fresh) {
        leave_step(recent, matched, fresh);
        resolve(false);
    } else {
        remember(recent, fresh);
    }
    return sizes_;
}

bool stream_verifier::complete()
{
    if (!astray_.empty())
        look_ahead(astray_.size() + 1);
    if (!source_ended_ || result_.gave_up)
        return false;
    return astray_.size() + position_ >= (ahead_.empty() ? due_.size() : ahead_bytes_);
}

verification stream_verifier::finish(bool rest_is_due)
{
    sizes_.clear();
    resolve(true);
    if (result_.gave_up)
        log_.add(std::move(beyond_));
    else if (rest_is_due)
        settle_truncated();
    for (lost_block& block : lost_blocks_)
        log_.add(std::move(block.found));
    lost_blocks_.clear();
    if (source_ended_ && due().empty()) {
        result_.expected_messages = message_ - 1;
        result_.expected_bytes = offset_;
    }
    result_.source_error = source_.error();
    log_.finish(result_);
    return std::move(result_);
}

// ------------------------------------------------------------ the source's side

bytes_view stream_verifier::due() const
{
    return (ahead_.empty() ? due_ : bytes_view(ahead_.front())).subspan(position_);
}

void stream_verifier::next_message()
{
    position_ = 0;
    ++message_;
    if (!ahead_.empty()) {
        ahead_bytes_ -= ahead_.front().size();
        ahead_.pop_front();
        if (!ahead_.empty())
            return;
    }
    (void)read_source(due_); // source_ended_ tells
}

// The next message that has bytes.
bool stream_verifier::read_source(bytes_view& message)
{
    message = {};
    while (!source_ended_ && message.empty())
        source_ended_ = !source_.next(message);
    if (source_ended_)
        message = {};
    bytes_read_ += message.size();
    return !source_ended_;
}

// Makes sure that so many bytes behind the one that is due are held, or all there
// are.
void stream_verifier::look_ahead(size_t bytes)
{
    if (ahead_.empty() && !due_.empty()) {
        ahead_bytes_ = due_.size();
        ahead_.push_back(copy_of(due_));
    }
    bytes_view message;
    while (ahead_bytes_ < position_ + bytes && read_source(message)) {
        ahead_bytes_ += message.size();
        ahead_.push_back(copy_of(message));
    }
}

std::vector<uint8_t> stream_verifier::expected_ahead(size_t bytes) const
{
    std::vector<uint8_t> expected;
    size_t skipped = position_;
    for (const std::vector<uint8_t>& message : ahead_) {
        if (expected.size() >= bytes)
            break;
        const bytes_view part = bytes_view(message).subspan(skipped);
        const bytes_view taken = first_of(part, bytes - expected.size());
        expected.insert(expected.end(), taken.begin(), taken.end());
        skipped = 0;
    }
    return expected;
}

// Passes bytes of the source that did not arrive as they are. A message counts as
// arrived when its last byte did, in whatever shape; those that are lost go to
// `lost`, with their messages.
void stream_verifier::step_over(size_t bytes, std::vector<share>* lost)
{
    offset_ += bytes;
    while (bytes != 0) {
        const size_t count = std::min(bytes, due().size());
        if (lost != nullptr)
            lost->push_back({message_, count});
        harmed_[message_] += count;
        position_ += count;
        bytes -= count;
        if (!due().empty())
            continue;
        if (lost == nullptr)
            sizes_.push_back(static_cast<uint32_t>(position_));
        complete_message();
    }
}

// The last byte of the message that is due has been passed.
void stream_verifier::complete_message()
{
    if (!harmed_.contains(message_))
        ++result_.matched_messages;
    else if (lost_blocks_.empty() || lost_blocks_.back().shares.back().message < message_)
        harmed_.erase(message_); // no late block can make it whole
    next_message();
}

// ------------------------------------------------------------ the received side

// How many bytes are as expected.
size_t stream_verifier::match_in_step(bytes_view bytes)
{
    size_t matched = 0;
    while (matched < bytes.size()) {
        const bytes_view wanted = first_of(due(), bytes.size() - matched);
        if (wanted.empty())
            break;
        const uint8_t* here = bytes.data() + matched;
        size_t count = wanted.size();
        if (std::memcmp(wanted.data(), here, count) != 0)
            count = static_cast<size_t>(
                std::mismatch(wanted.begin(), wanted.end(), here).first - wanted.begin());
        matched += count;
        position_ += count;
        if (!due().empty()) {
            if (count < wanted.size())
                break;
            continue;
        }
        sizes_.push_back(static_cast<uint32_t>(position_));
        complete_message();
    }
    offset_ += matched;
    result_.matched_bytes += matched;
    return matched;
}

// Nothing to do while the caller keeps what came before.
void stream_verifier::remember(bytes_view recent, size_t fresh)
{
    if (recent.size() >= KEPT_HISTORY + fresh || recent.size() >= received_) {
        history_.clear();
        return;
    }
    remember_consumed(recent.last(fresh));
}

void stream_verifier::remember_consumed(bytes_view bytes)
{
    history_.push(bytes.last(std::min<size_t>(bytes.size(), KEPT_HISTORY)));
    if (history_.size() > KEPT_HISTORY)
        history_.pop(history_.size() - KEPT_HISTORY);
}

void stream_verifier::leave_step(bytes_view recent, size_t matched, size_t fresh)
{
    const size_t before = recent.size() - fresh;
    const bytes_view in_step = recent.first(before + matched);
    // What the caller has kept is at least what the verifier has, or it begins where
    // the verifier's history ends.
    const bool overlaps = before >= history_.size();
    if (overlaps)
        history_.clear();
    remember_consumed(overlaps ? in_step : in_step.last(matched));
    astray_.clear();
    astray_.push(recent.last(fresh - matched));
    next_try_ = 0;
}

// Settles faults for as long as they can be told; in the end, all of them.
void stream_verifier::resolve(bool final)
{
    while (!astray_.empty() && !result_.gave_up) {
        if (!final && astray_.size() < next_try_)
            return;
        if (!settle_first(final))
            return;
        next_try_ = 0;
        const size_t matched = match_in_step(astray_.bytes());
        remember_consumed(first_of(astray_.bytes(), matched));
        astray_.pop(matched);
    }
}

// False when more has to arrive before the first fault can be told.
bool stream_verifier::settle_first(bool final)
{
    if (settle_short_fault())
        return true;
    const bool last_try = final || astray_.size() >= LOOK_AHEAD;
    // One byte more than has arrived shows whether the source has ended.
    const size_t wanted = last_try ? size_t{LOOK_AHEAD} : astray_.size() + 1;
    look_ahead(wanted);
    const std::vector<uint8_t> ahead = expected_ahead(wanted);
    const bytes_view received = astray_.bytes();
    const bytes_view expected = ahead;

    bool certain = false;
    auto best = find_meeting_point(received, expected, ANCHOR, certain);
    if (!certain && !last_try) {
        next_try_ = received.size() + std::max<size_t>(ANCHOR, received.size() / 4);
        return false;
    }
    if (final && !certain) {
        meeting_point end = common_end(received, expected);
        if (!source_ended_ ||
            expected.size() < ahead_bytes_ - std::min(ahead_bytes_, position_)) {
            // The stream stops in the middle: up to there, byte stands for byte.
            const meeting_point even =
                common_end(received, first_of(expected, received.size()));
            end = {even.received, even.expected};
        }
        if (!best || is_better(end, *best))
            best = end;
    }
    if (!best) {
        give_up();
        return true;
    }
    settle(best->received, best->expected, expected);
    return true;
}

// Looks at the beginning of both sides alone, because a search through all that has
// come would be repeated for each of many faults.
bool stream_verifier::settle_short_fault()
{
    if (astray_.size() <= SHORT)
        return false;
    look_ahead(SHORT);
    const std::vector<uint8_t> ahead = expected_ahead(SHORT);
    bool certain = false;
    const auto point = find_meeting_point<uint8_t>(
        first_of(astray_.bytes(), SHORT), ahead, ANCHOR, certain);
    if (certain)
        settle(point->received, point->expected, ahead);
    return certain;
}

void stream_verifier::give_up()
{
    const std::vector<uint8_t> ahead = expected_ahead(EXCERPT);
    beyond_ = fault_here(fault_kind::altered, astray_.size(), ahead);
    result_.gave_up = true;
    astray_.clear();
    skip_source();
}

// Keeps the source in step with what arrives, by length alone.
void stream_verifier::skip_source()
{
    bytes_view ignored;
    while (bytes_read_ < received_ && read_source(ignored)) {
    }
}

// ------------------------------------------------------------------------ faults

fault stream_verifier::fault_here(
    fault_kind kind, size_t length, bytes_view expected) const
{
    fault found;
    found.kind = kind;
    found.message = message_;
    found.offset = offset_;
    found.offset_in_message = position_;
    found.length = length;
    found.expected = copy_of(first_of(expected, EXCERPT));
    found.received = copy_of(first_of(astray_.bytes(), EXCERPT));
    return found;
}

// `received` bytes stand in the place of `expected` ones, the first of `ahead`.
void stream_verifier::settle(size_t received, size_t expected, bytes_view ahead)
{
    const size_t altered = std::min(received, expected);
    if (altered != 0) {
        log_.add(fault_here(fault_kind::altered, altered, ahead));
        step_over(altered, nullptr);
        remember_consumed(first_of(astray_.bytes(), altered));
        astray_.pop(altered);
        ahead = ahead.subspan(altered);
    }
    if (expected > altered)
        settle_lost(expected - altered, ahead);
    if (received > altered)
        settle_surplus(received - altered, ahead);
}

void stream_verifier::settle_lost(size_t length, bytes_view ahead)
{
    if (lost_blocks_.size() == LOST_BLOCKS)
        forget_lost_block();
    lost_blocks_.push_back(
        {fault_here(fault_kind::lost, length, ahead), copy_of(ahead.first(length)), {}});
    step_over(length, &lost_blocks_.back().shares);
}

// The oldest one stays lost, and so do the messages in front of the next one.
void stream_verifier::forget_lost_block()
{
    log_.add(std::move(lost_blocks_.front().found));
    lost_blocks_.pop_front();
    const uint64_t oldest =
        lost_blocks_.empty() ? message_ : lost_blocks_.front().found.message;
    harmed_.erase(harmed_.begin(), harmed_.lower_bound(std::min(oldest, message_)));
}

void stream_verifier::settle_surplus(size_t length, bytes_view ahead)
{
    const std::vector<uint8_t> surplus = copy_of(first_of(astray_.bytes(), length));
    const bytes_view before = history_.bytes();
    const bool repeats =
        before.size() >= length &&
        std::equal(surplus.begin(), surplus.end(), before.last(length).begin());
    if (repeats || !take_lost_block(surplus))
        log_.add(fault_here(
            repeats ? fault_kind::duplicated : fault_kind::unexpected, length, ahead));
    remember_consumed(surplus);
    astray_.pop(length);
}

// The surplus is what was missing before: one fault of another kind, in the place
// where it was missing.
bool stream_verifier::take_lost_block(bytes_view surplus)
{
    const auto block = std::find_if(
        lost_blocks_.begin(), lost_blocks_.end(),
        [&](const lost_block& lost) { return is_rotation(lost.content, surplus); });
    if (block == lost_blocks_.end())
        return false;
    heal(*block);
    block->found.kind = fault_kind::reordered;
    log_.add(std::move(block->found));
    lost_blocks_.erase(block);
    return true;
}

// The bytes of the block are there after all.
void stream_verifier::heal(const lost_block& block)
{
    result_.matched_bytes += block.content.size();
    for (const share& part : block.shares) {
        const auto harm = harmed_.find(part.message);
        if (harm == harmed_.end())
            continue; // forgotten with an older block
        harm->second -= part.bytes;
        if (harm->second != 0)
            continue;
        harmed_.erase(harm);
        if (part.message != message_)
            ++result_.matched_messages;
    }
}

void stream_verifier::settle_truncated()
{
    look_ahead(EXCERPT);
    std::vector<share> never; // arrived
    fault missing = fault_here(fault_kind::truncated, 0, expected_ahead(EXCERPT));
    while (!due().empty()) {
        missing.length += due().size();
        step_over(due().size(), &never);
    }
    if (missing.length != 0)
        log_.add(std::move(missing));
}

} // namespace receiver
