// The program: reads the command line, receives or plans, and shows the result.
#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "clock.h"
#include "common.h"
#include "csv.h"
#include "json.h"
#include "options.h"
#include "outputs.h"
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

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): for the handler
volatile std::sig_atomic_t stop_requested = 0;

// The first signal ends the run, which then reports; the next one, of either kind,
// finds the default again and ends the program.
void request_stop(int /*signo*/)
{
    stop_requested = 1;
    (void)::signal(SIGINT, SIG_DFL); // safe in a handler
    (void)::signal(SIGTERM, SIG_DFL);
}

bool is_stopped() { return stop_requested != 0; }

// Writing goes on behind a signal; waiting for the network ends at once all the same.
void catch_signals()
{
    struct sigaction action = {};
    action.sa_handler = request_stop;
    action.sa_flags = SA_RESTART;
    (void)::sigemptyset(&action.sa_mask); // none of these can fail
    (void)::sigaction(SIGINT, &action, nullptr);
    (void)::sigaction(SIGTERM, &action, nullptr);
    (void)::signal(SIGPIPE, SIG_IGN); // a closed output is a failed write
    (void)::signal(SIGXFSZ, SIG_IGN); // and so is a file at the limit of its size
}

int number_of(exit_status status) { return static_cast<int>(status); }

void complain(const std::string& text)
{
    (void)std::fprintf(stderr, "replay_receiver: %s\n", text.c_str());
}

// Runs it; false, with the reason told, when a file fails. Each output is written for
// itself: one that fails does not keep the others from the user.
template <class write_t>
bool succeeds(write_t write, std::vector<std::string>* problems = nullptr)
{
    try {
        write();
        return true;
    } catch (const file_error& error) {
        complain(error.what());
        if (problems != nullptr)
            problems->emplace_back(error.what());
        return false;
    }
}

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

bool wants_progress(const options& options)
{
    if (options.progress == progress_mode::automatic)
        return ::isatty(STDERR_FILENO) == 1;
    return options.progress == progress_mode::always;
}

int plan(const options& options, output_files& files, progress_line& progress)
{
    const uint64_t start = now_ns();
    plan_result result = make_plan(options, [&](const plan_progress& so_far) {
        const uint64_t now = now_ns();
        if (progress.due(now))
            progress.draw(
                now, {so_far.messages, so_far.bytes, 0, 0, so_far.fraction,
                      static_cast<double>(now - start) / 1e9});
        return !is_stopped();
    });
    progress.finish();
    if (is_stopped())
        result.status = exit_status::early;
    if (!result.source_error.empty()) {
        complain(result.source_error);
        result.status = exit_status::file;
    }
    bool written = succeeds([&] { files.write_json(json_text(to_json(result))); });
    written &=
        succeeds([&] { files.show(plan_text(result, columns(), wants_colour())); });
    return number_of(written ? result.status : exit_status::file);
}

// Finds out before anything is received whether the recording can be read at all.
std::unique_ptr<message_source> open_checked(const source_options& options)
{
    std::unique_ptr<message_source> source = open_source(options);
    std::string error = source->error();
    if (error.empty() && !options.preload) {
        const std::unique_ptr<message_source> probe = open_source(options);
        bytes_view first;
        (void)probe->next(first); // error() tells
        error = probe->error();
    }
    if (!error.empty())
        throw file_error(error);
    return source;
}

// Receives, or says why that was not possible.
run_result receive_or_fail(const options& options, progress_line& progress)
{
    run_result failed = blank_result(options);
    failed.reason = end_reason::failed;
    try {
        std::unique_ptr<message_source> source;
        if (options.has_source())
            source = open_checked(options.source);
        return receive_replay(options, source.get(), is_stopped, progress);
    } catch (const connection_error& error) {
        failed.status = exit_status::connection;
        failed.problems.emplace_back(error.what());
    } catch (const file_error& error) {
        failed.status = exit_status::file;
        failed.problems.emplace_back(error.what());
    }
    return failed;
}

int receive(const options& options, output_files& files, progress_line& progress)
{
    run_result result = receive_or_fail(options, progress);
    progress.finish();
    for (const std::string& problem : result.problems)
        complain(problem);
    const bool has_run =
        result.status != exit_status::connection &&
        !(result.reason == end_reason::failed && result.measured.messages == 0);

    bool written = true;
    if (has_run) {
        written &= succeeds(
            [&] { files.write_csv(intervals_csv(result.measured)); }, &result.problems);
        written &=
            succeeds([&] { files.write_report(report_page(result)); }, &result.problems);
    }
    // What comes next tells of files that have failed before.
    const auto blame = [&] {
        if (!written && result.status != exit_status::content)
            result.status = exit_status::file;
    };
    blame();
    written &=
        succeeds([&] { files.write_json(json_text(to_json(result))); }, &result.problems);
    blame();
    if (has_run)
        written &= succeeds(
            [&] { files.show(summary_text(result, columns(), wants_colour())); });
    blame();
    return number_of(result.status);
}

int run(int argc, char** argv)
{
    const options options = parse_options(argc, argv);
    for (const std::string& remark : options.remarks)
        complain(remark);
    output_files files(options);
    catch_signals();
    progress_line progress(STDERR_FILENO, wants_progress(options));
    return options.plan ? plan(options, files, progress)
                        : receive(options, files, progress);
}

} // namespace

int main(int argc, char** argv)
{
    vesk::details::hold_closed_streams();
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
    } catch (const file_error& error) {
        complain(error.what());
        return number_of(exit_status::file);
    } catch (const std::exception& error) {
        complain(fmt::format("failed: {}", error.what()));
        return number_of(exit_status::file);
    }
}
