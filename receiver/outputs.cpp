// See outputs.h.
#include "outputs.h"

#include <cstdio>
#include <filesystem>
#include <initializer_list>
#include <system_error>
#include <vector>

#include <fmt/format.h>
#include <sys/stat.h>

#include "source.h"

namespace receiver {

namespace {

bool is_same_file(const std::string& one, const std::string& other)
{
    struct stat first {};
    struct stat second {};
    return ::stat(one.c_str(), &first) == 0 && ::stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// None when they cannot be found: that is told when the recording is opened.
std::vector<std::string> recorded_files(const options& options)
{
    try {
        return options.has_source() ? source_files(options.source)
                                    : std::vector<std::string>();
    } catch (const file_error&) {
        return {};
    }
}

// The recording stays what it is: no output goes over one of its files, or into its
// folder, where it would be replayed too.
void protect_recording(
    const options& options, const std::string& output,
    const std::vector<std::string>& files)
{
    namespace fs = std::filesystem;
    std::error_code ignored; // a path that is not there is none of the recording's
    const bool inside =
        fs::is_directory(options.source.path, ignored) &&
        is_same_file(
            fs::absolute(output, ignored).parent_path().string(), options.source.path);
    bool over = false;
    for (const std::string& file : files)
        over = over || is_same_file(output, file);
    if (inside || over)
        throw usage_end(
            true, fmt::format(
                      "{}: would change the recording {}; choose another name", output,
                      options.source.path));
}

const options& checked(const options& options)
{
    const std::vector<std::string> files = recorded_files(options);
    for (const std::string* path :
         {&options.json, &options.csv, &options.report, &options.write}) {
        if (!path->empty() && *path != "-" && options.has_source())
            protect_recording(options, *path, files);
    }
    return options;
}

void print(const std::string& text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0)
        cannot_write("standard output");
}

void write_file(output_file& file, const std::string& text)
{
    if (!file.is_open())
        return;
    file.begin();
    file.write(text);
    file.finish();
}

} // namespace

output_files::output_files(const options& options)
    : json_is_printed_(checked(options).json == "-"),
      json_(json_is_printed_ ? "" : options.json), csv_(options.csv),
      report_(options.report)
{}

void output_files::write_json(const std::string& text)
{
    if (json_is_printed_)
        print(text);
    else
        write_file(json_, text);
}

void output_files::write_csv(const std::string& text) { write_file(csv_, text); }

void output_files::write_report(const std::string& text) { write_file(report_, text); }

void output_files::show(const std::string& text) const
{
    if (!json_is_printed_)
        print(text);
}

} // namespace receiver
