// Findings on system calls. The trace has the first thread of each process.
#include <algorithm>
#include <array>
#include <string_view>

#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

// These errors mean "not now", "try again" or "no such child", and programs rely on them.
constexpr std::array harmless_errors = {
    "EAGAIN", "EWOULDBLOCK", "EINPROGRESS", "EINTR",          "ETIMEDOUT",      "EALREADY",
    "ECHILD", "ERESTARTSYS", "ERESTART",    "ERESTARTNOINTR", "ERESTARTNOHAND", "ERESTART_RESTARTBLOCK"};

// Calls that end by themselves, unless a device or a file system fails.
constexpr std::array prompt_calls = {"open",   "openat", "close",  "stat",      "lstat",      "newfstatat",
                                     "statx",  "fstat",  "rename", "renameat2", "unlink",     "unlinkat",
                                     "mkdir",  "rmdir",  "umount", "umount2",   "getdents64", "getdents",
                                     "statfs", "access", "mount",  "readlink",  "readlinkat", "execve"};
// These may last long on a disk that is busy otherwise.
constexpr std::array slow_calls = {"fsync", "fdatasync", "sync", "syncfs", "ioctl", "flock", "sendfile"};

template <typename Names>
bool contains(const Names& names, std::string_view name) {
    return std::ranges::find(names, name) != names.end();
}

template <typename Visitor>
void for_each_traced(const archive_facts& facts, Visitor visit) {
    for (const auto& [pid, traced] : facts.trace.by_pid) {
        if (!is_own(facts, pid)) {
            visit(pid, traced);
        }
    }
}

std::string trace_place(int pid) {
    return said("trace/", pid);
}

uint64_t harmless_count(const traced_process& traced) {
    uint64_t count = 0;
    for (const char* name : harmless_errors) {
        count += number_in(traced.by_errno, name);
    }
    return count;
}

struct storm {
    std::string call;
    uint64_t calls = 0;
    uint64_t errors = 0;  // those that are not harmless, at least
};

// The call that fails most. The errors of calls and of numbers are counted apart, so all harmless ones may be
// of this call.
storm worst_storm(const traced_process& traced) {
    const uint64_t harmless = harmless_count(traced);
    storm worst;
    for (const auto& [call, counts] : traced.by_call) {
        const uint64_t errors = counts.errors > harmless ? counts.errors - harmless : 0;
        if (errors > worst.errors) {
            worst = {call, counts.calls, errors};
        }
    }
    return worst;
}

bool is_storm(const archive_facts& facts, const traced_process& traced, const storm& worst) {
    const auto errors = static_cast<double>(worst.errors);
    return worst.errors >= storm_errors && errors / trace_seconds(facts) >= storm_errors_per_second &&
           errors >= storm_share * static_cast<double>(worst.calls) &&
           errors >= storm_call_share * static_cast<double>(traced.calls);
}

std::string most_frequent_error(const traced_process& traced) {
    std::string name;
    uint64_t most = 0;
    for (const auto& [error, count] : traced.by_errno) {
        if (count > most && !contains(harmless_errors, error)) {
            name = error;
            most = count;
        }
    }
    return name;
}

// Nothing if a process may well wait in this call for a long time.
std::optional<severity> stuck_level(const traced_process& traced) {
    if (traced.waits_seconds < stuck_seconds) {
        return std::nullopt;
    }
    if (contains(prompt_calls, traced.waits_in)) {
        return severity::warning;
    }
    return contains(slow_calls, traced.waits_in) ? std::optional(severity::note) : std::nullopt;
}

}  // namespace

symptoms find_error_storm(const archive_facts& facts) {
    symptoms all;
    for_each_traced(facts, [&](int pid, const traced_process& traced) {
        const storm worst = worst_storm(traced);
        if (!is_storm(facts, traced, worst)) {
            return;
        }
        const std::string error = most_frequent_error(traced);
        symptom found{.pid = pid};
        found.text = said(who(facts, pid), " repeats a call that fails: ", worst.call, ", ", worst.errors,
                          " times in the trace.");
        found.proof.push_back({said(worst.errors, " of ", counted(worst.calls, "call"), " of ", worst.call,
                                    " failed", error.empty() ? "" : ", most often with ", error),
                               trace_place(pid)});
        found.weight = static_cast<double>(worst.errors);
        all.push_back(std::move(found));
    });
    return all;
}

symptoms find_polling_loop(const archive_facts& facts) {
    symptoms all;
    for_each_traced(facts, [&](int pid, const traced_process& traced) {
        const double rate = traced.polling_per_second;
        if (traced.polling_call.empty() || rate < polling_note_per_second) {
            return;
        }
        symptom found{.pid = pid};
        found.level = rate >= polling_warning_per_second ? severity::warning : severity::note;
        found.text = said(who(facts, pid), " polls: it repeats ", traced.polling_call, " without a result.");
        found.proof.push_back(
            {said(rounded(rate), " calls of ", traced.polling_call, " a second, also under the trace"),
             trace_place(pid)});
        found.weight = rate;
        all.push_back(std::move(found));
    });
    return all;
}

symptoms find_call_stuck(const archive_facts& facts) {
    symptoms all;
    for_each_traced(facts, [&](int pid, const traced_process& traced) {
        const std::optional<severity> level = stuck_level(traced);
        if (!level) {
            return;
        }
        symptom found{.pid = pid, .level = level};
        found.text = said(who(facts, pid), " does not return from ", traced.waits_in, ".");
        found.proof.push_back({said("no return for ", span_of(traced.waits_seconds)), trace_place(pid)});
        if (!traced.waits_in_line.empty()) {
            found.proof.push_back({traced.waits_in_line, trace_place(pid)});
        }
        found.weight = traced.waits_seconds;
        all.push_back(std::move(found));
    });
    return all;
}

}  // namespace archiveview
