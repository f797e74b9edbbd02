// See capture_reader.h.
#include "capture_reader.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "result.h"

namespace receiver {

namespace {

std::string link_name(int link_type)
{
    const char* name = ::pcap_datalink_val_to_name(link_type);
    return name != nullptr ? name : fmt::format("link type {}", link_type);
}

} // namespace

capture_reader::opened capture_reader::open(
    const std::string& path, const std::string& filter)
{
    close();
    path_ = path;
    std::string expression = filter;
    transport_ = vesk::details::extract_protocol_type(vesk::details::trim_(expression));

    char reason[PCAP_ERRBUF_SIZE]{};
    capture_ = ::pcap_open_offline(path.c_str(), reason);
    if (capture_ == nullptr) {
        error_ = fmt::format("{}: cannot be opened as a capture: {}", path, reason);
        return opened::failed;
    }
    ++notes_.files;
    std::error_code ignored; // the size is for the progress only
    size_ = static_cast<int64_t>(std::filesystem::file_size(path, ignored));
    if (::pcap_datalink(capture_) != DLT_EN10MB) {
        ++notes_.noted.odd_link_files;
        note(fmt::format(
            "{}: {}, not Ethernet: its payloads are cut at the wrong place", path,
            link_name(::pcap_datalink(capture_))));
    }
    if (::pcap_compile(capture_, &program_, expression.c_str(), 1, 0) < 0) {
        note(fmt::format("{}: refuses the filter: {}", path, ::pcap_geterr(capture_)));
        return opened::refused;
    }
    has_program_ = true;
    return opened::filtered;
}

void capture_reader::close()
{
    rest_ = {};
    if (has_program_)
        ::pcap_freecode(&program_);
    has_program_ = false;
    if (capture_ != nullptr)
        ::pcap_close(capture_);
    capture_ = nullptr;
}

bool capture_reader::next(bytes_view& piece)
{
    if (capture_ == nullptr)
        return false;
    while (rest_.empty()) {
        if (!next_payload())
            return false;
    }
    piece = rest_.first(std::min<size_t>(vesk::MAX_BUFFER_SIZE, rest_.size()));
    rest_ = rest_.subspan(piece.size());
    return true;
}

// Goes to the next frame that passes the filter. False at the end.
bool capture_reader::next_payload()
{
    pcap_pkthdr* header = nullptr;
    const u_char* frame = nullptr;
    for (;;) {
        const int result = ::pcap_next_ex(capture_, &header, &frame);
        if (result != 1) {
            note_end(result);
            return false;
        }
        if (!has_program_ || ::pcap_offline_filter(&program_, header, frame) != 0)
            break;
        ++notes_.omitted.filtered;
    }
    if (!is_possible(*header))
        return false;
    take_payload(*header, frame);
    return true;
}

// An endless replay would have endlessly much to tell.
void capture_reader::note(std::string sentence)
{
    if (noting_)
        notes_.sentences.push_back(std::move(sentence));
}

void capture_reader::note_end(int result)
{
    if (result == PCAP_ERROR_BREAK)
        return;
    ++notes_.noted.broken_files;
    note(fmt::format("{}: ends early: {}", path_, ::pcap_geterr(capture_)));
}

bool capture_reader::is_possible(const pcap_pkthdr& header)
{
    if (header.len <= vesk::MAXIMUM_SNAPLEN && header.len != 0 && header.caplen != 0)
        return true;
    error_ = fmt::format(
        "{}: a frame of {} bytes, {} of them captured: the sender ends at such a frame",
        path_, header.len, header.caplen);
    return false;
}

void capture_reader::take_payload(const pcap_pkthdr& header, const u_char* frame)
{
    const uint32_t captured = std::min(header.len, header.caplen);
    uint32_t offset = 0;
    if (!vesk::details::payload_offset(frame, captured, transport_, offset)) {
        ++notes_.omitted.short_frames;
        return;
    }
    rest_ = bytes_view(frame + offset, captured - offset);
    if (rest_.empty())
        ++notes_.omitted.empty;
    else if (captured < header.len)
        ++notes_.noted.cut_by_snapshot;
    if (rest_.size() > vesk::MAX_BUFFER_SIZE)
        ++notes_.noted.split_payloads;
}

int64_t capture_reader::position() const { return ::ftello(::pcap_file(capture_)); }

bool capture_reader::seek(int64_t position)
{
    rest_ = {};
    return ::fseeko(::pcap_file(capture_), position, SEEK_SET) == 0;
}

double capture_reader::fraction() const
{
    if (capture_ == nullptr || size_ <= 0)
        return 0;
    return std::min(1.0, static_cast<double>(position()) / static_cast<double>(size_));
}

} // namespace receiver
