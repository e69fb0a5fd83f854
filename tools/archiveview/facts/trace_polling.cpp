#include "tools/archiveview/facts/trace_polling.h"

#include <errno.h>

#include <algorithm>

#include "tools/archiveview/facts/trace_calls.h"

namespace archiveview {

namespace {

enum class outcome {
    neutral,  // says nothing: clocks, checks of files, calls to a driver
    futile,   // the call looked for something, or waited for it, and had no result
    progress,
};

constexpr std::string_view sleeping_calls[] = {"clock_nanosleep", "nanosleep", "sched_yield"};

// They return 0 if nothing has happened.
constexpr std::string_view looking_calls[] = {"_newselect", "epoll_pwait", "epoll_wait", "poll",   "ppoll",
                                              "pselect6",   "select",      "wait4",      "waitpid"};

constexpr std::string_view working_calls[] = {
    "accept", "clone",  "connect", "execve", "fork",     "link",   "mkdir", "rename",
    "rmdir",  "socket", "splice",  "tee",    "truncate", "unlink", "vfork",
};

outcome of_failure(std::string_view call, int error) {
    // A futex that has changed meanwhile is news.
    const bool is_futile = (error == EAGAIN && call != "futex") || error == ETIMEDOUT || error == ECHILD;
    return is_futile ? outcome::futile : outcome::neutral;
}

outcome of_transfer(const trace_line& line, transfer_direction direction) {
    if (direction == transfer_direction::write) {
        return line.result > 0 ? outcome::progress : outcome::neutral;
    }
    if (line.result <= 0) {
        return outcome::futile;
    }
    // A program that reads the kernel's files again and again looks for something there.
    const std::string_view text = trace_descriptor_argument(line.arguments).text;
    return text.starts_with("/proc/") || text.starts_with("/sys/") ? outcome::neutral : outcome::progress;
}

outcome outcome_of(const trace_line& line, int error) {
    if (error != 0) {
        return of_failure(line.call, error);
    }
    if (const transfer_direction direction = trace_direction_of(line.call);
        direction != transfer_direction::none) {
        return of_transfer(line, direction);
    }
    if (trace_is_one_of(line.call, sleeping_calls)) {
        return line.result == 0 ? outcome::futile : outcome::neutral;
    }
    if (trace_is_one_of(line.call, looking_calls)) {
        return line.result == 0 ? outcome::futile : outcome::neutral;
    }
    return trace_is_one_of(line.call, working_calls) && line.result >= 0 ? outcome::progress
                                                                         : outcome::neutral;
}

}  // namespace

void polling_counter::add(const trace_line& line, int error) {
    const outcome now = outcome_of(line, error);
    if (now == outcome::futile && !has_progress_) {
        counts_[line.call]++;
    }
    if (now != outcome::neutral) {
        has_progress_ = now == outcome::progress;
    }
}

polling_counter::verdict polling_counter::judge(double seconds) const {
    // A loop's sleep says less about it than what it looks for.
    uint64_t most = 0;
    for (const auto& [call, count] : counts_) {
        most = std::max(most, count);
    }
    verdict best;
    bool is_sleep = true;
    for (const auto& [call, count] : counts_) {
        const bool sleeps = trace_is_one_of(call, sleeping_calls);
        const double rate = static_cast<double>(count) / seconds;
        const bool is_better = is_sleep && !sleeps ? true : sleeps == is_sleep && rate > best.per_second;
        if (count >= most - most / 4 && is_better) {
            best = {call, rate};
            is_sleep = sleeps;
        }
    }
    return best.per_second >= polling_bound_per_second ? best : verdict();
}

}  // namespace archiveview
