// Findings on the life of processes.
#include <algorithm>
#include <array>

#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

struct family {
    unsigned living = 0;
    unsigned born = 0;  // between the looks, and still alive
    unsigned zombies = 0;
    unsigned old_zombies = 0;  // that both looks have
};

std::map<int, family> families_of(const archive_facts& facts) {
    std::map<int, family> families;
    for (const auto& [pid, process] : facts.processes.by_pid) {
        if (process.parent <= 0 || process.is_kernel_thread) {
            continue;
        }
        family& one = families[process.parent];
        const bool is_zombie = process.state == 'Z';
        const bool is_alive = !is_zombie && (process.in_second_look || !process.in_first_look);
        one.living += is_alive;
        one.born += is_alive && process.in_second_look && !process.in_first_look;
        one.zombies += is_zombie;
        one.old_zombies += is_zombie && process.in_first_look && process.in_second_look;
    }
    return families;
}

uint64_t forks_of(const archive_facts& facts, int pid) {
    constexpr std::array fork_calls = {"fork", "vfork", "clone", "clone3"};
    const auto traced = facts.trace.by_pid.find(pid);
    if (traced == facts.trace.by_pid.end()) {
        return 0;
    }
    uint64_t forks = 0;
    for (const char* call : fork_calls) {
        const auto counts = traced->second.by_call.find(call);
        forks += counts == traced->second.by_call.end() ? 0 : counts->second.calls - counts->second.errors;
    }
    return forks;
}

struct fork_signs {
    unsigned living = 0;
    unsigned born = 0;
    uint64_t forks = 0;  // in the trace
    double forks_per_second = 0;
    int score = 0;  // of the monitor, which found it before the archive began
};

bool is_runaway(const fork_signs& signs) {
    const bool grows = signs.living >= runaway_children && signs.born >= runaway_new_children;
    return grows || signs.living >= runaway_many_children ||
           signs.forks_per_second >= runaway_forks_per_second;
}

std::optional<severity> level_of(const fork_signs& signs) {
    if (is_runaway(signs)) {
        return severity::warning;
    }
    const bool has_many =
        std::max(static_cast<int>(signs.living), signs.score) >= static_cast<int>(runaway_children);
    return has_many ? std::optional(severity::note) : std::nullopt;
}

symptom runaway_symptom(const archive_facts& facts, int pid, const fork_signs& signs, severity level) {
    const std::string place = process_place(pid);
    symptom found{.pid = pid, .level = level};
    found.text = level == severity::note
                     ? said(who(facts, pid), " has ", counted(signs.living, "child", "children"), ".")
                     : said(who(facts, pid), " starts children without end: ", signs.living, " are alive.");
    found.weight = signs.living + signs.forks_per_second;
    found.proof.push_back({said(counted(signs.living, "living child", "living children"), ", ", signs.born,
                                " of them new at the second look"),
                           place});
    if (signs.forks > 0) {
        found.proof.push_back({said(counted(signs.forks, "fork"), " in the trace, ",
                                    rounded(signs.forks_per_second), " a second"),
                               said("trace/", pid)});
    }
    if (signs.score > 0) {
        found.proof.push_back({said("the monitor's score is ", signs.score), "member/dbg-monitor.txt"});
    }
    return found;
}

// A call in which the kernel sleeps without being interrupted, but only as long as the child wishes.
bool waits_for_child(const archive_facts& facts, int pid) {
    const auto traced = facts.trace.by_pid.find(pid);
    return traced != facts.trace.by_pid.end() && traced->second.waits_in == "vfork";
}

// It makes progress: a process that reads from a disk is often seen in state D.
bool makes_progress(const archive_facts& facts, const process_facts& process) {
    constexpr double little_percent = 1;
    const auto traced = facts.trace.by_pid.find(process.pid);
    const bool has_calls = traced != facts.trace.by_pid.end() && traced->second.calls > 0;
    return has_calls || process.cpu_percent >= little_percent;
}

symptom blocked_symptom(const archive_facts& facts, const process_facts& process) {
    const bool is_long = process.in_first_look && process.in_second_look && facts.trace.is_present &&
                         !makes_progress(facts, process) && !waits_for_child(facts, process.pid);
    symptom found{.pid = process.pid};
    found.level = is_long ? severity::warning : severity::note;
    found.text = is_long
                     ? said(who(facts, process.pid), " is blocked in the kernel and cannot be interrupted.")
                     : said(who(facts, process.pid), " was blocked in the kernel when it was looked at.");
    found.proof.push_back({"state D", process_place(process.pid)});
    if (!process.wait_channel.empty()) {
        found.proof.push_back({said("it sleeps in ", process.wait_channel), process_place(process.pid)});
    }
    if (is_long) {
        found.proof.push_back({"it made no call during the trace", said("trace/", process.pid)});
    }
    return found;
}

// The state that the looks tell, otherwise that of its core.
char state_of(const archive_facts& facts, const process_facts& process) {
    const bool has_core = process.core >= 0 && static_cast<size_t>(process.core) < facts.cores.size();
    return process.state == '?' && has_core ? facts.cores[static_cast<size_t>(process.core)].state
                                            : process.state;
}

}  // namespace

symptoms find_child_runaway(const archive_facts& facts) {
    const std::map<int, family> families = families_of(facts);
    symptoms all;
    for_each_suspect(facts, [&](int pid, const process_facts& process) {
        fork_signs signs;
        if (const auto at = families.find(pid); at != families.end()) {
            signs.living = at->second.living;
            signs.born = at->second.born;
        }
        signs.forks = forks_of(facts, pid);
        signs.forks_per_second = static_cast<double>(signs.forks) / trace_seconds(facts);
        signs.score = process.monitor.fork_score;
        if (const std::optional<severity> level = level_of(signs)) {
            all.push_back(runaway_symptom(facts, pid, signs, *level));
        }
    });
    return all;
}

symptoms find_process_blocked(const archive_facts& facts) {
    symptoms all;
    for_each_suspect(facts, [&](int, const process_facts& process) {
        if (state_of(facts, process) == 'D') {
            all.push_back(blocked_symptom(facts, process));
        }
    });
    return all;
}

symptoms find_process_stopped(const archive_facts& facts) {
    symptoms all;
    for_each_suspect(facts, [&](int pid, const process_facts& process) {
        // The trace of the archive may resume it, so what the first look says counts too.
        const char state = process.first_state == 'T' ? 'T' : state_of(facts, process);
        if (state != 'T' && state != 't') {
            return;
        }
        const bool is_traced = state == 't';
        symptom found{.pid = pid};
        found.text =
            said(who(facts, pid), is_traced ? " is stopped by a debugger." : " is stopped by a signal.");
        found.proof.push_back({said("state ", std::string(1, state)), process_place(pid)});
        found.weight = is_traced ? 0 : 1;
        all.push_back(std::move(found));
    });
    return all;
}

symptoms find_zombies(const archive_facts& facts) {
    symptoms all;
    for (const auto& [parent, family] : families_of(facts)) {
        if (family.zombies == 0 || is_own(facts, parent)) {
            continue;
        }
        // Of a process that starts many children, some are always about to be waited for.
        const bool is_lasting = family.old_zombies >= zombies_warning;
        symptom found{.pid = parent, .level = is_lasting ? severity::warning : severity::note};
        found.text = said(who(facts, parent),
                          " does not wait for its children: ", counted(family.zombies, "zombie"), ".");
        found.proof.push_back(
            {said(counted(family.zombies, "zombie"), ", ", family.old_zombies, " of them at both looks"),
             process_place(parent)});
        found.weight = family.zombies;
        all.push_back(std::move(found));
    }
    return all;
}

}  // namespace archiveview
