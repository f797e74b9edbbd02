// Shared ground of the sender: the message buffer, constants, the exception and
// the fatal checks, text helpers, and the readers of data files and captures.
// The readers run on the main thread, binary_output on the poller thread.
#pragma once

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#define likely(x) __builtin_expect(!!(x), 1)
#define unlikely(x) __builtin_expect(!!(x), 0)

// The fatal checks: one line on standard error, then abort(), for broken
// invariants and for system calls that cannot fail in a correct run.
#define replay_assert(cond)                                                              \
    do {                                                                                 \
        if (unlikely(!(cond)))                                                           \
            vesk::details::fail_assertion(#cond, __FILE__, __LINE__);                    \
    } while (false)

#define replay_errno_assert(cond)                                                        \
    do {                                                                                 \
        if (unlikely(!(cond)))                                                           \
            vesk::details::fail_errno(__FILE__, __LINE__);                               \
    } while (false)

#define replay_alloc_assert(ptr)                                                         \
    do {                                                                                 \
        if (unlikely(!(ptr)))                                                            \
            vesk::details::fail_allocation(__FILE__, __LINE__);                          \
    } while (false)

namespace vesk {

using fd_t = int;
using filename_t = std::string;
using dirname_t = std::string;
using addrname_t = std::string; // "host:port"
using devname_t = std::string;
using filename_list = std::vector<filename_t>;
using timestamp_t = timeval;

// Capture limits and fixed frame positions. The offsets count from one.
enum : int {
    MAXIMUM_SNAPLEN = 262144,
    MAC_HEADER_LENGTH = 14,
    UDP_HEADER_LENGTH = 8,
    TCP_HEADER_OFFSET = 47,
    IP_HEADER_OFFSET = 15,
    ACK_OFFSET = 43,
    SEQ_OFFSET = 39,
    MAX_SNAPLEN = 262144
};

enum : int { MAX_BUFFER_SIZE = 10240 };

// The value of a descriptor that is closed or was never opened.
enum : int { retired_fd = -1 };

// One message: `length` valid bytes at the start of `buf`, zeros behind them.
struct dataBuffer {
    // Set by the constructor: defaulted, it would let make_shared clear the buffer twice.
    size_t length;             // NOLINT(modernize-use-default-member-init): as said
    char buf[MAX_BUFFER_SIZE]; // NOLINT(modernize-use-default-member-init): as said

    dataBuffer() : length(0), buf{} {}
};

// Shared by producer, queue slot and engine; the last holder frees it.
using data_t = std::shared_ptr<dataBuffer>;

namespace details {

// The transport that carries the replay.
enum class ProtocolType { TCP = 0, UDP = 1, UNKNOWN = 2 };

// The transport that a capture filter names. The order differs from
// ProtocolType's, so the two never convert into each other by value.
enum class DataType { UDP = 0, TCP = 1, UNKNOWN = 2, DATA_TYPE_END = 3 };

inline constexpr char DATATYPE_NAMES[static_cast<int>(DataType::DATA_TYPE_END)][32] = {
    "udp", "tcp", "unknown"};

// What a path is, in terms of the type bits of st_mode.
enum class FileType { REG = 0x8000, DIR = 0x4000, CHR = 0x2000, UNKNOWN = 0x2001 };

struct options {
    DataType datatype;
};

// The one exception of the system. Nothing in it catches one: what() reaches the
// user through the runtime's report of an uncaught exception.
class vesk_ex : public std::exception {
public:
    explicit vesk_ex(std::string msg) : msg_(std::move(msg)) {}
    vesk_ex(const std::string& msg, int err)
        : msg_(msg + ". errno: " + std::to_string(err))
    {}

    const char* what() const noexcept override { return msg_.c_str(); }

private:
    std::string msg_;
};

// A source path without its folders, so that a report reads the same wherever
// the program was built.
constexpr const char* base_name(const char* path)
{
    const char* name = path;
    for (; *path != '\0'; ++path) {
        if (*path == '/')
            name = path + 1;
    }
    return name;
}

[[noreturn]] inline void fail_assertion(const char* condition, const char* file, int line)
{
    // Here and below: who cannot write has nobody left to tell.
    (void)std::fprintf(
        stderr, "Assertion failed: %s (%s:%d)\n", condition, base_name(file), line);
    (void)std::fflush(stderr);
    std::abort();
}

[[noreturn]] inline void fail_errno(const char* file, int line)
{
    (void)std::fprintf(
        stderr, "%s (%s:%d)\n", std::strerror(errno), base_name(file), line);
    (void)std::fflush(stderr);
    std::abort();
}

[[noreturn]] inline void fail_allocation(const char* file, int line)
{
    (void)std::fprintf(
        stderr, "FATAL ERROR: OUT OF MEMORY (%s:%d)\n", base_name(file), line);
    (void)std::fflush(stderr);
    std::abort();
}

} // namespace details

using PROTOTYPE = details::ProtocolType;

[[noreturn]] inline void vesk_throw_ex(std::string msg)
{
    throw details::vesk_ex(std::move(msg));
}

[[noreturn]] inline void vesk_throw_ex(const std::string& msg, int err)
{
    throw details::vesk_ex(msg, err);
}

namespace details {

// Opens /dev/null in the place of each standard stream that the caller left closed, or
// the next file or socket would get its number, and then what is written to the stream.
// It is opened the wrong way round: using the stream fails as before. For the start of
// main().
inline void hold_closed_streams()
{
    pollfd streams[] = {
        {STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}};
    (void)::poll(streams, std::size(streams), 0); // if it fails, none counts as closed
    for (const pollfd& stream : streams) {
        if ((stream.revents & POLLNVAL) == 0)
            continue;
        // It gets the lowest free number, which is this stream's.
        const int mode = stream.fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (::open("/dev/null", mode) == -1)
            return; // the next one would get this stream's number
    }
}

// What the C library's atoi gives, without its undefined cases: the number at
// the start of `text`, 0 when there is none, held to 64 bits and cut to 32.
inline int32_t parse_int(const char* text)
{
    return static_cast<int32_t>(std::strtol(text, nullptr, 10));
}

inline std::string& to_lower(std::string& s)
{
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// Strips blanks, line feeds, carriage returns and tabs from both ends, in place.
inline std::string& trim_(std::string& s)
{
    static constexpr char BLANKS[] = " \n\r\t";
    s.erase(s.find_last_not_of(BLANKS) + 1); // npos + 1 is 0: nothing but blanks
    s.erase(0, s.find_first_not_of(BLANKS));
    return s;
}

// The first word "tcp" or "udp", in any case. Only blanks part words: a tab or a
// bracket belongs to the word it touches.
inline DataType extract_protocol_type(const std::string& str)
{
    std::istringstream words(str);
    words.exceptions(std::ios_base::badbit); // or a lack of memory would end the words
    std::string word;
    while (std::getline(words, word, ' ')) {
        to_lower(word);
        if (word == DATATYPE_NAMES[static_cast<int>(DataType::TCP)])
            return DataType::TCP;
        if (word == DATATYPE_NAMES[static_cast<int>(DataType::UDP)])
            return DataType::UDP;
    }
    return DataType::UNKNOWN;
}

// Prints one numbered dump block of `length` bytes to standard output, eight to
// a line. Poller thread only: the block counter has no lock.
inline void binary_output(char* buffer, size_t length)
{
    static uint64_t seq = 1;

    std::cout << "seq: " << seq << std::endl;
    std::cout << "data length: " << length << std::endl;
    for (size_t i = 0; i < length; ++i) {
        // Bytes are signed here, on every machine: 0x80 prints as ffffff80.
        std::printf("%02x ", static_cast<unsigned>(static_cast<signed char>(buffer[i])));
        if ((i + 1) % 8 == 0)
            std::cout << std::endl;
    }
    std::cout << std::endl;
    ++seq;
    std::cout << "=============================" << std::endl;
}

// False, with `type` untouched and errno set, when the path cannot be examined.
inline bool path_exists(const filename_t& filename, FileType& type)
{
    struct stat status {};
    if (::stat(filename.c_str(), &status) != 0)
        return false;

    switch (status.st_mode & S_IFMT) {
    case S_IFDIR:
        type = FileType::DIR;
        break;
    case S_IFREG:
        type = FileType::REG;
        break;
    case S_IFCHR:
        type = FileType::CHR;
        break;
    default:
        type = FileType::UNKNOWN;
    }
    return true;
}

inline std::string filename_to_str(const filename_t& filename) { return filename; }

// A directory's entries in version order (f2 before f10), released on scope exit.
class dir_listing {
public:
    explicit dir_listing(const dirname_t& dirname)
        : count_(::scandir(dirname.c_str(), &entries_, nullptr, ::versionsort))
    {}
    ~dir_listing()
    {
        for (int i = 0; i < count_; ++i)
            std::free(entries_[i]);
        std::free(entries_);
    }
    dir_listing(const dir_listing&) = delete;
    dir_listing& operator=(const dir_listing&) = delete;

    int count() const { return count_; }
    const char* name(int i) const { return entries_[i]->d_name; }

private:
    dirent** entries_{nullptr};
    int count_;
};

// The regular files of a directory as full paths, in version order, without
// descending. `dirname` gets the trailing '/' that it lacks. Throws when the
// directory cannot be listed; an empty result is the caller's to report.
inline std::vector<std::string> decode_filename(dirname_t& dirname)
{
    if (dirname.empty() || dirname.back() != '/')
        dirname += '/';

    const dir_listing entries(dirname);
    if (entries.count() < 1)
        vesk_throw_ex("Dir " + dirname + " no files");

    std::vector<std::string> filenames;
    // One variable for the whole walk: an entry that cannot be examined counts
    // as what its predecessor was.
    FileType type = FileType::UNKNOWN;
    for (int i = 0; i < entries.count(); ++i) {
        std::string filename = dirname + entries.name(i);
        (void)path_exists(filename, type); // see above: failure keeps the type
        if (type == FileType::REG)
            filenames.push_back(std::move(filename));
    }
    return filenames;
}

// Reads one data file after another as blocks. Owned by a replay; main thread.
class file_helper {
public:
    file_helper() = default;
    ~file_helper() { close(); }

    file_helper(const file_helper&) = delete;
    file_helper& operator=(const file_helper&) = delete;

    // Tries five times, 10 ms apart, then throws with the last try's errno.
    void open(const filename_t& fname, std::ios_base::openmode mode)
    {
        close();
        filename_ = fname;

        int last_errno = 0;
        for (int32_t tries = 0; tries < open_tries_; ++tries) {
            infile_.open(fname, mode);
            if (infile_.is_open()) {
                infile_.clear();
                position_ = infile_.tellg();
                return;
            }
            last_errno = errno; // the sleep may overwrite it
            std::this_thread::sleep_for(std::chrono::milliseconds(open_interval_));
        }
        vesk_throw_ex(
            "Failed opening file " + filename_to_str(filename_) + " for reading",
            last_errno);
    }

    void close()
    {
        infile_.close();
        end_of_file_ = false;
    }

    // Reads up to `length` bytes into `buffer` and sets `length` to the count.
    // False, and the end state set, when fewer came: at the end, or by an error.
    bool read(char* buffer, size_t& length)
    {
        const auto wanted = static_cast<std::streamsize>(length);
        infile_.read(buffer, wanted);
        const bool complete = !infile_.fail();
        const std::streamsize count =
            likely(!infile_.bad()) ? infile_.gcount() : salvage(wanted);
        position_ += count;
        length = static_cast<size_t>(count);
        if (!complete)
            end_of_file_ = true;
        return complete;
    }

    bool file_end() const { return end_of_file_; }

    // Back to the first byte; a file that had ended can be read again.
    void seek_head()
    {
        infile_.clear();
        infile_.seekg(0);
        end_of_file_ = false;
        position_ = 0;
    }

    // Size in bytes, modulo 2^32, and 0 when nothing is open; the read position
    // stays where it was.
    uint32_t file_size()
    {
        if (!infile_.is_open())
            return 0;
        const std::ios_base::iostate state = infile_.rdstate();
        infile_.clear();
        const auto position = infile_.tellg();
        infile_.seekg(0, std::ios_base::end);
        const auto size = infile_.tellg();
        infile_.seekg(position);
        infile_.clear(state);
        return static_cast<uint32_t>(static_cast<std::streamoff>(size));
    }

    // Replaces `content` by the rest of the file; true when that was not empty.
    bool read(std::string& content)
    {
        content.clear();
        char block[MAX_BUFFER_SIZE];
        do {
            size_t length = sizeof(block);
            (void)read(block, length); // file_end() tells
            content.append(block, length);
        } while (!end_of_file_);
        return !content.empty();
    }

    // Writes `content` at the current position of a file opened for output; false
    // unless the system took all of it.
    bool write(std::string&& content)
    {
        const std::string text = std::move(content);
        infile_.write(text.data(), static_cast<std::streamsize>(text.size())).flush();
        position_ = infile_.tellg();
        return infile_.good();
    }

protected:
    // After a read error the stream reports no bytes at all, though some may have
    // reached the buffer. The descriptor's position tells how many did.
    std::streamsize salvage(std::streamsize wanted)
    {
        infile_.clear();
        const std::streamoff reached = infile_.tellg();
        infile_.setstate(std::ios_base::badbit);
        return std::clamp<std::streamsize>(reached - position_, 0, wanted);
    }

    const int32_t open_tries_{5};
    const uint32_t open_interval_{10}; // milliseconds
    std::fstream infile_;
    filename_t filename_;
    bool end_of_file_{false};
    std::streamoff position_{0}; // where the next read starts
};

// Where the payload of an Ethernet/IPv4 frame starts, from two bytes at fixed
// positions; nothing else of the frame is looked at. False when fewer than that
// many bytes were captured.
inline bool payload_offset(
    const u_char* frame, uint32_t captured, DataType datatype, uint32_t& offset)
{
    if (captured < IP_HEADER_OFFSET)
        return false;
    const uint32_t ip_header = (frame[IP_HEADER_OFFSET - 1] & 0x0FU) * 4;

    uint32_t transport_header = UDP_HEADER_LENGTH;
    if (datatype != DataType::UDP) {
        if (captured < TCP_HEADER_OFFSET)
            return false;
        // Always here, also behind IPv4 options, where it is another byte.
        transport_header = (frame[TCP_HEADER_OFFSET - 1] >> 4U) * 4U;
    }
    offset = MAC_HEADER_LENGTH + ip_header + transport_header;
    return offset <= captured;
}

// Reads one capture after another and cuts the transport payload out of each
// frame that passes the filter. Owned by a replay; main thread.
class pcap_helper {
public:
    pcap_helper() = default;
    ~pcap_helper() { release(); }

    pcap_helper(const pcap_helper&) = delete;
    pcap_helper& operator=(const pcap_helper&) = delete;

    // The source is left closed.
    pcap_helper(pcap_helper&& other) noexcept { take(other); }
    pcap_helper& operator=(pcap_helper&& other) noexcept
    {
        if (this != &other) {
            release();
            take(other);
        }
        return *this;
    }

    // False when the filter was refused: the capture is then open, unfiltered.
    // Throws when the filter names no transport or the capture cannot be opened.
    bool open(const filename_t& filename, std::string filter)
    {
        set_filter(filter);
        return open_internal(filename);
    }

    // Takes a filter that names its transport; `filter` gets the previous one.
    void set_filter(std::string& filter)
    {
        if (filter.empty())
            vesk_throw_ex("filter condition error!");
        const DataType datatype = extract_protocol_type(trim_(filter));
        if (datatype == DataType::UNKNOWN)
            vesk_throw_ex("Please specify the protocol type: tcp or udp!");
        filter_cmd_.swap(filter);
        pcap_userdata_.datatype = datatype;
    }

    // Opens the capture, describes it on standard output and filters it.
    bool open_internal(const filename_t& filename)
    {
        set_aside();
        pd_ = ::pcap_open_offline(filename.c_str(), ebuf_);
        if (pd_ == nullptr)
            vesk_throw_ex(std::string("Open pcap file failed! Error message: ") + ebuf_);
        filename_ = filename;
        describe();

        // The previous program is not handed back to libpcap, by design.
        if (::pcap_compile(pd_, &fcode_, filter_cmd_.c_str(), Oflag_, netmask_) < 0) {
            std::cerr << "compile fileter failed! " << ::pcap_geterr(pd_) << std::endl;
            return false;
        }
        if (::pcap_setfilter(pd_, &fcode_) < 0) {
            std::cerr << "set fileter failed! " << ::pcap_geterr(pd_) << std::endl;
            return false;
        }
        return true;
    }

    // Copies the next payload to `buf`, which holds MAX_BUFFER_SIZE bytes, and
    // sets `len`, which may be 0. What a payload has beyond that follows in the
    // next calls. False, with `len` untouched, at the end of the capture.
    bool read(char* buf, size_t& len)
    {
        if (unlikely(rest_length_ != 0)) {
            len = take_rest(buf);
            return true;
        }

        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): libpcap fills it in
        pcap_pkthdr hdr;
        const u_char* frame = safe_pcap_next(pd_, &hdr);
        if (frame == nullptr)
            return false;

        uint32_t offset = 0;
        if (unlikely(
                !payload_offset(frame, hdr.caplen, pcap_userdata_.datatype, offset))) {
            ++short_frames_;
            len = 0;
            return true;
        }
        rest_ = frame + offset;
        rest_length_ = hdr.caplen - offset;
        if (unlikely(rest_length_ > MAX_BUFFER_SIZE))
            ++long_payloads_;
        len = take_rest(buf);
        return true;
    }

    // The next frame that passes the filter, null at the end or on a read error.
    // Throws on impossible lengths. The frame is valid until the next call.
    u_char* safe_pcap_next(pcap_t* pd, pcap_pkthdr* hdr)
    {
        const u_char* pkt = ::pcap_next(pd, hdr);
        if (pkt == nullptr)
            return nullptr;
        if (hdr->len > MAXIMUM_SNAPLEN)
            vesk_throw_ex("safe_pcap_next ERROR: Invalid packet length.");
        if (hdr->len == 0 || hdr->caplen == 0)
            vesk_throw_ex("safe_pcap_next ERROR: Invalid packet length.");
        if (hdr->len < hdr->caplen)
            hdr->caplen = hdr->len;
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): for its callers' sake
        return const_cast<u_char*>(pkt);
    }

    void close()
    {
        if (pd_ == nullptr)
            return;
        finish_file();
        ::pcap_close(pd_);
        pd_ = nullptr;
    }

protected:
    void describe()
    {
        const int link_type = ::pcap_datalink(pd_);
        const char* name = ::pcap_datalink_val_to_name(link_type);

        std::cout << "reading from file: " << filename_ << ", link-type ";
        if (name == nullptr) {
            std::cout << link_type;
        } else {
            const char* description = ::pcap_datalink_val_to_description(link_type);
            std::cout << name << ' ';
            if (description != nullptr)
                std::cout << description;
            else
                std::cout.setstate(std::ios_base::badbit); // as printing a null would
        }
        std::cout << ", snapshot lengthL: " << ::pcap_snapshot(pd_) << std::endl;
    }

    size_t take_rest(char* buf)
    {
        const size_t count = std::min<size_t>(rest_length_, MAX_BUFFER_SIZE);
        std::memcpy(buf, rest_, count);
        rest_ += count;
        rest_length_ -= static_cast<uint32_t>(count);
        return count;
    }

    // Drops what is left of the last frame and reports the file's odd frames.
    // Standard output is not ours to add to, so this goes to standard error.
    void finish_file()
    {
        rest_length_ = 0;
        if (short_frames_ != 0 || long_payloads_ != 0)
            std::cerr << filename_ << ": " << short_frames_
                      << " frame(s) shorter than their headers, " << long_payloads_
                      << " payload(s) longer than " << MAX_BUFFER_SIZE << " bytes"
                      << std::endl;
        short_frames_ = 0;
        long_payloads_ = 0;
    }

    // A capture that was not closed, because its filter was refused, stays open
    // beside the next one and is released with the reader.
    void set_aside()
    {
        if (pd_ == nullptr)
            return;
        finish_file();
        left_open_.push_back(pd_);
        pd_ = nullptr;
    }

    void release()
    {
        close();
        for (pcap_t* pd : left_open_)
            ::pcap_close(pd);
        left_open_.clear();
    }

    void take(pcap_helper& other) noexcept
    {
        std::memcpy(ebuf_, other.ebuf_, sizeof(ebuf_));
        localnet_ = other.localnet_;
        netmask_ = other.netmask_;
        pd_ = std::exchange(other.pd_, nullptr);
        pflag_ = other.pflag_;
        filter_cmd_ = std::move(other.filter_cmd_);
        fcode_ = std::exchange(other.fcode_, bpf_program{});
        Oflag_ = other.Oflag_;
        pcap_userdata_ = other.pcap_userdata_;
        filename_ = std::move(other.filename_);
        rest_ = std::exchange(other.rest_, nullptr);
        rest_length_ = std::exchange(other.rest_length_, 0);
        short_frames_ = std::exchange(other.short_frames_, 0);
        long_payloads_ = std::exchange(other.long_payloads_, 0);
        left_open_ = std::exchange(other.left_open_, {});
    }

    char ebuf_[PCAP_ERRBUF_SIZE]{};
    bpf_u_int32 localnet_{0};
    bpf_u_int32 netmask_{0};
    pcap_t* pd_{nullptr};
    int pflag_{0};
    std::string filter_cmd_;
    bpf_program fcode_{};
    int Oflag_{1};
    options pcap_userdata_{DataType::UNKNOWN};

    filename_t filename_;         // of the open capture
    const u_char* rest_{nullptr}; // into libpcap's frame, until the next one is read
    uint32_t rest_length_{0};     // bytes of that payload not handed out yet
    uint64_t short_frames_{0};    // in the open capture
    uint64_t long_payloads_{0};   // in the open capture
    std::vector<pcap_t*> left_open_;
};

} // namespace details
} // namespace vesk
