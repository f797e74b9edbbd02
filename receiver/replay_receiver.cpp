// The program: reads the command line, receives or plans, and shows the result.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "csv.h"
#include "json.h"
#include "options.h"
#include "plan.h"
#include "progress.h"
#include "report.h"
#include "result.h"
#include "session.h"
#include "socket.h"
#include "source.h"
#include "summary.h"

namespace {

using namespace receiver;

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int /*signo*/) { stop_requested = 1; }

bool is_stopped() { return stop_requested != 0; }

// The first signal ends the run and reports; the second finds the default again,
// which ends the program. Calls are not restarted, so that waiting ends at once.
void catch_signals()
{
    struct sigaction action = {};
    action.sa_handler = request_stop;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    (void)::sigemptyset(&action.sa_mask); // none of these can fail
    (void)::sigaction(SIGINT, &action, nullptr);
    (void)::sigaction(SIGTERM, &action, nullptr);
    (void)::signal(SIGPIPE, SIG_IGN); // a closed output is a failed write
}

int number_of(exit_status status) { return static_cast<int>(status); }

void complain(const std::string& text)
{
    (void)std::fprintf(stderr, "replay_receiver: %s\n", text.c_str());
}

[[noreturn]] void cannot_write(const std::string& path)
{
    throw file_error(
        fmt::format("{}: cannot be written: {}", path, std::strerror(errno)));
}

// Finds out before a long run whether its result can be kept. A file that is there
// already stays as it is until then.
void check_writable(const std::string& path)
{
    if (path.empty() || path == "-")
        return;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd == -1)
        cannot_write(path);
    (void)::close(fd); // nothing was written
}

bool is_same_file(const std::string& one, const std::string& other)
{
    struct stat first {};
    struct stat second {};
    return ::stat(one.c_str(), &first) == 0 && ::stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

void check_outputs(const options& options)
{
    for (const std::string* path :
         {&options.json, &options.csv, &options.report, &options.write}) {
        if (!path->empty() && options.has_source() &&
            is_same_file(*path, options.source.path))
            throw usage_end(
                true, fmt::format("{} is the recording; choose another name", *path));
    }
    for (const std::string* path : {&options.json, &options.csv, &options.report})
        check_writable(*path);
}

void write_all(std::FILE* file, const std::string& text, const std::string& name)
{
    if (std::fwrite(text.data(), 1, text.size(), file) != text.size() ||
        std::fflush(file) != 0)
        cannot_write(name);
}

void write_file(const std::string& path, const std::string& text)
{
    if (path.empty())
        return;
    if (path == "-") {
        write_all(stdout, text, "standard output");
        return;
    }
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        cannot_write(path);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> closing(file, std::fclose);
    write_all(file, text, path);
}

// Each output for itself: one that fails does not keep the others from the user.
class outputs {
public:
    template <class write_t>
    void add(write_t write)
    {
        try {
            write();
        } catch (const file_error& error) {
            complain(error.what());
            failed_ = true;
        }
    }

    bool failed() const { return failed_; }

private:
    bool failed_{false};
};

unsigned columns()
{
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0)
        return size.ws_col;
    return 80;
}

bool wants_colour()
{
    return ::isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
}

void show_summary(const options& options, const std::string& text)
{
    if (options.json != "-")
        write_all(stdout, text, "standard output");
}

bool wants_progress(const options& options)
{
    if (options.progress == progress_mode::automatic)
        return ::isatty(STDERR_FILENO) == 1;
    return options.progress == progress_mode::always;
}

uint64_t now_ns()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 +
           static_cast<uint64_t>(now.tv_nsec);
}

int plan(const options& options, progress_line& progress)
{
    const uint64_t start = now_ns();
    const plan_result result = make_plan(options, [&](const plan_progress& so_far) {
        const uint64_t now = now_ns();
        if (progress.due(now))
            progress.draw(
                now, {so_far.messages, so_far.bytes, 0, 0, so_far.fraction,
                      static_cast<double>(now - start) / 1e9});
        return !is_stopped();
    });
    progress.finish();
    outputs out;
    out.add([&] { show_summary(options, plan_text(result, columns(), wants_colour())); });
    out.add([&] { write_file(options.json, json_text(to_json(result))); });
    if (out.failed() || !result.source_error.empty())
        return number_of(exit_status::file);
    return number_of(is_stopped() ? exit_status::early : exit_status::as_expected);
}

int receive(const options& options, progress_line& progress)
{
    std::unique_ptr<message_source> source;
    if (options.has_source())
        source = open_source(options.source);
    run_result result = receive_replay(options, source.get(), is_stopped, progress);

    outputs out;
    out.add([&] { write_file(options.csv, intervals_csv(result.measured)); });
    out.add([&] { write_file(options.report, report_page(result)); });
    out.add([&] { write_file(options.json, json_text(to_json(result))); });
    out.add(
        [&] { show_summary(options, summary_text(result, columns(), wants_colour())); });
    if (out.failed() && result.status != exit_status::content)
        result.status = exit_status::file;
    return number_of(result.status);
}

int run(int argc, char** argv)
{
    const options options = parse_options(argc, argv);
    for (const std::string& remark : options.remarks)
        complain(remark);
    check_outputs(options);
    catch_signals();
    progress_line progress(STDERR_FILENO, wants_progress(options));
    return options.plan ? plan(options, progress) : receive(options, progress);
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const usage_end& end) {
        if (!end.is_wrong_use()) {
            (void)std::fputs(end.what(), stdout);
            return 0;
        }
        complain(end.what());
        (void)std::fputs("Try replay_receiver --help.\n", stderr);
        return number_of(exit_status::usage);
    } catch (const connection_error& error) {
        complain(error.what());
        return number_of(exit_status::connection);
    } catch (const file_error& error) {
        complain(error.what());
        return number_of(exit_status::file);
    } catch (const std::exception& error) {
        complain(fmt::format("failed: {}", error.what()));
        return number_of(exit_status::file);
    }
}
