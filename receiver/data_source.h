// Data files as the sender sends them: in blocks, each file's last one shorter.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "source.h"

namespace receiver {

struct file_list {
    std::vector<std::string> files; // in replay order, at least one
    uint32_t passes{1};             // 0: endless
    uint64_t entries{0};            // of the folder that are left out
};

// A descriptor that is read from; closed at the end of its scope.
class input_file {
public:
    input_file() = default;
    ~input_file() { close(); }

    input_file(const input_file&) = delete;
    input_file& operator=(const input_file&) = delete;

    // False with errno. Tries as often as the sender does.
    bool open(const std::string& path);
    void close();
    bool is_open() const { return fd_ != -1; }

    // Reads until `size` bytes are there or the file gives no more.
    size_t read(uint8_t* buffer, size_t size, uint64_t position) const;
    uint64_t size() const;

private:
    int fd_{-1};
};

// A preloaded folder of several files: the sender sends nothing of it.
class empty_source : public message_source {
public:
    explicit empty_source(file_list list) : list_(std::move(list)) {}

    bool next(bytes_view&) override { return false; }
    source_notes notes() const override;

private:
    file_list list_;
};

// File after file, pass after pass.
class data_source : public message_source {
public:
    explicit data_source(file_list list);

    bool next(bytes_view& message) override;
    std::optional<double> fraction() const override;
    std::string error() const override { return error_; }
    source_notes notes() const override;

private:
    bool next_file();
    bool fill();

    file_list list_;
    uint64_t total_{0}; // bytes of one pass
    uint64_t done_{0};  // of all passes
    uint32_t pass_{0};
    size_t file_{0}; // the next one to open
    bool pass_was_empty_{true};
    input_file input_;
    uint64_t position_{0};
    std::vector<uint8_t> buffer_;
    bytes_view unread_; // of buffer_
    std::string error_;
};

// A single preloaded file: from its last block to its first.
class reversed_data_source : public message_source {
public:
    explicit reversed_data_source(file_list list);

    bool next(bytes_view& message) override;
    std::optional<double> fraction() const override;
    std::string error() const override { return error_; }
    source_notes notes() const override;

private:
    void fill(uint64_t last_block);

    file_list list_;
    input_file input_;
    uint64_t size_{0};
    uint64_t blocks_{0};
    uint64_t left_{0}; // blocks of this pass
    uint32_t pass_{0};
    std::vector<uint8_t> buffer_;
    uint64_t first_block_{0}; // in buffer_
    std::string error_;
};

} // namespace receiver
