// See capture_checks.h.
#include "capture_checks.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <sstream>
#include <string_view>
#include <utility>

#include <strings.h>

#include "capture_source.h"
#include "caught_streams.h"
#include "check.h"
#include "memory_file.h"
#include "outcome.h"
#include "source.h"
#include "support/capture_builder.h"

namespace fuzz {

namespace {

using messages = std::vector<std::string>;

constexpr size_t MESSAGE = 10240;
constexpr uint32_t LONGEST_FRAME = 262144;
constexpr const char* INVALID_LENGTH = "safe_pcap_next ERROR: Invalid packet length.";

// ------------------------------------------------------------------ by libpcap alone

struct close_capture {
    void operator()(pcap_t* capture) const { ::pcap_close(capture); }
};
using open_capture = std::unique_ptr<pcap_t, close_capture>;

// What there is to remark on in a capture that has been read to its end.
struct odd_frames {
    uint64_t short_ones{0};
    uint64_t long_ones{0};
};

struct plain_reading : reading {
    std::string description; // the line that names the capture
    odd_frames odd;
};

std::string without_blanks(const std::string& text)
{
    static constexpr char BLANKS[] = " \n\r\t";
    const size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(BLANKS) + 1 - first);
}

// A link type that has a name but no words ends all output.
std::string description_of(const std::string& path, pcap_t* capture)
{
    std::ostringstream text;
    const int link_type = ::pcap_datalink(capture);
    const char* name = ::pcap_datalink_val_to_name(link_type);
    const char* words = ::pcap_datalink_val_to_description(link_type);
    text << "reading from file: " << path << ", link-type ";
    if (name == nullptr)
        text << link_type;
    else if (words == nullptr)
        return text.str() + name + " ";
    else
        text << name << ' ' << words;
    text << ", snapshot lengthL: " << ::pcap_snapshot(capture) << '\n';
    return text.str();
}

// False when the filter is refused.
bool install_filter(pcap_t* capture, const std::string& filter)
{
    bpf_program program{};
    if (::pcap_compile(capture, &program, filter.c_str(), 1, 0) < 0) {
        note_outcome(std::string_view(::pcap_geterr(capture)));
        return false;
    }
    uint64_t before = 0;
    for (u_int i = 0; i < program.bf_len; ++i) {
        const uint64_t code = program.bf_insns[i].code;
        note_outcome(before << 16U | code); // kinds of instructions in a row
        before = code;
    }
    const bool installed = ::pcap_setfilter(capture, &program) == 0;
    ::pcap_freecode(&program);
    return installed;
}

// Behind an Ethernet header, an IPv4 header as long as its first byte says, and 8
// bytes for UDP or what the byte at 46 says for TCP.
size_t payload_start(std::string_view frame, bool udp)
{
    const auto at = [&](size_t i) { return size_t{static_cast<uint8_t>(frame[i])}; };
    if (frame.size() < 15 || (!udp && frame.size() < 47))
        return std::string::npos;
    return 14 + at(14) % 16 * 4 + (udp ? 8 : at(46) / 16 * 4);
}

void cut(std::string_view frame, bool udp, plain_reading& into)
{
    const size_t start = payload_start(frame, udp);
    if (start > frame.size()) {
        ++into.odd.short_ones;
        into.pieces.emplace_back();
        return;
    }
    if (frame.size() - start > MESSAGE)
        ++into.odd.long_ones;
    size_t from = start;
    do {
        into.pieces.emplace_back(frame.substr(from, MESSAGE));
        from += MESSAGE;
    } while (from < frame.size());
}

void read_frames(pcap_t* capture, bool udp, plain_reading& into)
{
    pcap_pkthdr* header = nullptr;
    const u_char* frame = nullptr;
    int result = 0;
    while ((result = ::pcap_next_ex(capture, &header, &frame)) == 1) {
        into.broke_off =
            header->len > LONGEST_FRAME || header->len == 0 || header->caplen == 0;
        if (into.broke_off)
            return;
        const size_t held = std::min(header->len, header->caplen);
        cut({reinterpret_cast<const char*>(frame), held}, udp, into);
    }
    if (result == PCAP_ERROR)
        note_outcome(std::string_view(::pcap_geterr(capture)));
}

plain_reading read_plainly(const std::string& path, const std::string& filter)
{
    plain_reading all;
    char reason[PCAP_ERRBUF_SIZE]{};
    const open_capture capture(::pcap_open_offline(path.c_str(), reason));
    if (capture == nullptr) {
        note_outcome(std::string_view(reason));
        return all;
    }
    all.description = description_of(path, capture.get());
    const bool filtered = install_filter(capture.get(), without_blanks(filter));
    all.opened = filtered ? reading::outcome::filtered : reading::outcome::refused;
    read_frames(capture.get(), transport_named(filter) == "udp", all);
    return all;
}

// --------------------------------------------------------------------- by the sender

// A reader may go over to another one wherever it stands.
void move_around(capture_reader& reader)
{
    capture_reader other(std::move(reader));
    reader = std::move(other);
}

void read_pieces(capture_reader& reader, reading& into)
{
    constexpr size_t UNTOUCHED = MESSAGE + 1;
    // On the heap, where a byte too many shows.
    const auto buffer = std::make_unique<char[]>(MESSAGE);
    size_t length = UNTOUCHED;
    while (reader.read(buffer.get(), length)) {
        require(length <= MESSAGE, "a message fits its buffer");
        into.pieces.emplace_back(buffer.get(), length);
        if (into.pieces.size() % 16 == 1)
            move_around(reader);
        length = UNTOUCHED;
    }
    require(length == UNTOUCHED, "the end tells no length");
}

void require_same(const reading& sent, const reading& expected)
{
    require(sent.opened == expected.opened, "a capture opens as libpcap opens it");
    require(sent.broke_off == expected.broke_off, "an impossible length ends the run");
    require(sent.pieces == expected.pieces, "messages are the payloads of the frames");
}

std::string remark_on(const std::string& path, const odd_frames& odd)
{
    if (odd.short_ones == 0 && odd.long_ones == 0)
        return "";
    std::ostringstream text;
    text << path << ": " << odd.short_ones << " frame(s) shorter than their headers, "
         << odd.long_ones << " payload(s) longer than 10240 bytes\n";
    return text.str();
}

// Both streams, after one capture.
void require_words(
    const caught_streams& streams, const std::string& path, const plain_reading& expected)
{
    require(streams.out() == expected.description, "an opened capture is described");
    const std::string complaint = streams.err();
    if (expected.opened != reading::outcome::refused) {
        require(complaint == remark_on(path, expected.odd), "odd frames are counted");
        return;
    }
    require(
        complaint.starts_with("compile fileter failed! ") ||
            complaint.starts_with("set fileter failed! "),
        "a refused filter is complained about");
    require(complaint.back() == '\n', "a complaint is a line");
}

// A payload of two messages over this transport.
class other_capture {
public:
    explicit other_capture(const std::string& transport)
    {
        const support::frame_parts parts{.payload = std::string(MESSAGE + 1, 'o')};
        file_.write(support::capture_bytes(
            {transport == "udp" ? support::udp_frame(parts)
                                : support::tcp_frame(parts)}));
    }

    const std::string& path() const { return file_.path(); }

private:
    memory_file file_;
};

// Opens a capture of the other transport, and leaves it between its two messages.
void leave_in_the_middle(capture_reader& reader, const std::string& transport)
{
    static const other_capture over_tcp("tcp");
    static const other_capture over_udp("udp");
    const bool tcp = transport == "udp";
    const auto buffer = std::make_unique<char[]>(MESSAGE);
    size_t length = 0;
    require(
        reader.open((tcp ? over_tcp : over_udp).path(), tcp ? "tcp" : "udp") &&
            reader.read(buffer.get(), length) &&
            std::string_view(buffer.get(), length) == std::string(MESSAGE, 'o'),
        "a capture is read behind any other");
}

// One capture after another with one reader, which a refusal leaves open.
void check_sender(
    const std::string& path, const std::string& filter, const plain_reading& expected)
{
    caught_streams streams;
    capture_reader reader;
    require_same(read_as_sender(reader, path, filter), expected);
    require_words(streams, path, expected);
    leave_in_the_middle(reader, transport_named(filter));
    require_same(read_as_sender(reader, path, filter), expected);
}

// ------------------------------------------------------------------- by the receiver

messages without_empty(messages pieces)
{
    std::erase_if(pieces, [](const std::string& piece) { return piece.empty(); });
    return pieces;
}

// What the receiver awaits from the sender.
struct awaited {
    messages all;
    bool breaks{false};
};

awaited read_as_receiver(const std::string& path, const std::string& filter, bool preload)
{
    receiver::file_list list;
    list.files = {path};
    const auto source = receiver::open_captures(std::move(list), filter, preload);
    awaited from;
    receiver::bytes_view message;
    while (source->next(message)) {
        require(!message.empty(), "the receiver awaits no empty message");
        from.all.emplace_back(message.begin(), message.end());
        const auto part = source->fraction();
        require(!part || (*part >= 0 && *part <= 1), "a part is none or within a whole");
    }
    from.breaks = !source->error().empty();
    return from;
}

// A capture whose filter is refused is skipped.
void check_receiver(
    const std::string& path, const std::string& filter, const reading& sent)
{
    const bool skipped = sent.opened == reading::outcome::refused;
    const awaited forwards = read_as_receiver(path, filter, false);
    require(
        forwards.all == (skipped ? messages() : without_empty(sent.pieces)),
        "the receiver awaits what the sender sends");
    const bool breaks = sent.opened == reading::outcome::unopened || sent.broke_off;
    require(
        forwards.breaks == (breaks && !skipped), "both programs end at the same place");
}

// Preloaded, all of it is read as TCP before anything is sent, even where that filter
// is refused; then a frame of impossible length leaves nothing.
void check_preload(const std::string& path)
{
    const caught_streams streams;
    capture_reader reader;
    const reading read = read_as_sender(reader, path, "tcp");
    const bool breaks = read.opened == reading::outcome::unopened || read.broke_off;
    messages sent = breaks ? messages() : without_empty(read.pieces);
    std::reverse(sent.begin(), sent.end());

    const awaited backwards = read_as_receiver(path, "tcp", true);
    require(backwards.all == sent, "the receiver awaits what the sender has preloaded");
    require(backwards.breaks == breaks, "both programs' preloads end at the same place");
}

} // namespace

std::string transport_named(const std::string& filter)
{
    const std::string text = without_blanks(filter);
    for (size_t from = 0; from <= text.size();) {
        const size_t end = std::min(text.find(' ', from), text.size());
        const std::string word = text.substr(from, end - from);
        for (const char* name : {"tcp", "udp"}) {
            if (word.size() == 3 && ::strncasecmp(word.data(), name, 3) == 0)
                return name;
        }
        from = end + 1;
    }
    return "";
}

reading read_as_sender(
    capture_reader& reader, const std::string& path, const std::string& filter)
{
    reading all;
    try {
        all.opened = reader.open(path, filter) ? reading::outcome::filtered
                                               : reading::outcome::refused;
        read_pieces(reader, all);
    } catch (const vesk::details::vesk_ex& error) {
        const std::string_view text = error.what();
        all.broke_off = all.opened != reading::outcome::unopened;
        require(
            all.broke_off ? text == INVALID_LENGTH
                          : text.starts_with("Open pcap file failed! Error message: "),
            "an error has its own words");
    }
    if (all.opened != reading::outcome::refused)
        reader.close();
    return all;
}

reading check_capture(const std::string& path, const std::string& filter)
{
    plain_reading expected = read_plainly(path, filter);
    check_sender(path, filter, expected);
    check_receiver(path, filter, expected);
    check_preload(path);
    return expected;
}

} // namespace fuzz
