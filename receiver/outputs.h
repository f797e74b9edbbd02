// The files and the stream that a result goes to.
#pragma once

#include <string>

#include "options.h"
#include "output_file.h"

namespace receiver {

// Opened before the run and written behind it. All throw file_error.
class output_files {
public:
    // Throws usage_end for a name that would change the recording.
    explicit output_files(const options& options);

    void write_json(const std::string& text);
    void write_csv(const std::string& text);
    void write_report(const std::string& text);

    // The summary goes to standard output, unless the JSON does.
    void show(const std::string& text) const;

private:
    bool json_is_printed_;
    output_file json_;
    output_file csv_;
    output_file report_;
};

} // namespace receiver
