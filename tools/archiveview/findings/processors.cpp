// Findings on processors.
#include <algorithm>

#include "common/ascii.h"
#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

constexpr double hundred = 100;

double busy_percent(const archive_facts& facts) {
    return has_both_looks(facts) ? look_busy_percent(facts.looks[0], facts.looks[1]) : -1;
}

const core_facts* core_of(const archive_facts& facts, const process_facts& process) {
    const bool has_core = process.core >= 0 && static_cast<size_t>(process.core) < facts.cores.size();
    return has_core ? &facts.cores[static_cast<size_t>(process.core)] : nullptr;
}

const core_thread* core_thread_of(const core_facts* core, int tid) {
    if (!core) {
        return nullptr;
    }
    const auto at = std::ranges::find(core->threads, tid, &core_thread::tid);
    return at == core->threads.end() ? nullptr : &*at;
}

// In no system call at the moment of the core.
bool runs_in_core(const core_thread* thread) {
    return thread && thread->waits_in.empty() && thread->call < 0;
}

// True if the trace, which has first threads only, shows that it did hardly anything but compute.
bool is_without_calls(const archive_facts& facts, int pid) {
    const auto traced = facts.trace.by_pid.find(pid);
    if (traced == facts.trace.by_pid.end()) {
        return true;
    }
    const double calls = static_cast<double>(traced->second.calls) / trace_seconds(facts);
    return traced->second.waits_in.empty() && calls <= spin_calls_per_second;
}

// On a machine that is full of other work, a loop without end gets less.
bool is_spin_share(double percent, double machine_percent) {
    return percent >= spin_percent ||
           (percent >= spin_starved_percent && machine_percent >= machine_full_percent);
}

struct suspect_thread {
    int tid = 0;
    bool is_first = false;
    double cpu_percent = -1;  // -1 if unknown
    char state = '?';         // at the last look
    const core_thread* core = nullptr;
};

bool spins(const archive_facts& facts, int pid, const suspect_thread& thread, double machine_percent) {
    if (thread.is_first && (!facts.trace.is_present || !is_without_calls(facts, pid))) {
        return false;
    }
    const bool runs = runs_in_core(thread.core) || (!thread.core && thread.state == 'R');
    if (!runs) {
        return false;
    }
    // Without processes in the looks, the trace and the core of the first thread must do.
    return thread.cpu_percent >= 0 ? is_spin_share(thread.cpu_percent, machine_percent)
                                   : thread.is_first && thread.core && thread.core->state == 'R';
}

symptom spinning_symptom(const archive_facts& facts, int pid, const suspect_thread& thread) {
    symptom found{.pid = pid};
    found.text = thread.is_first
                     ? said(who(facts, pid), " computes without end: it makes no calls.")
                     : said("Thread ", thread.tid, " of ", who(facts, pid), " computes without end.");
    if (thread.cpu_percent >= 0) {
        found.proof.push_back({said("thread ", thread.tid, " used ", rounded(thread.cpu_percent),
                                    " % of a processor between the looks"),
                               process_place(pid)});
    }
    if (thread.is_first) {
        found.proof.push_back({"it made hardly any call during the trace", said("trace/", pid)});
    }
    if (runs_in_core(thread.core)) {
        const std::string& place =
            thread.core->frames.empty() ? thread.core->place : thread.core->frames.front();
        found.proof.push_back(
            {said("it was running when its core was written", place.empty() ? "" : ", in ", place),
             said("core/", pid)});
    }
    found.weight = thread.cpu_percent;
    return found;
}

// Its threads, the first one first. Without looks at processes, the first one only.
std::vector<suspect_thread> threads_of(const archive_facts& facts, const process_facts& process) {
    const core_facts* core = core_of(facts, process);
    const double ticks_per_percent =
        facts.archive.span_seconds > 0 ? facts.archive.span_seconds : seconds_between(facts);
    std::vector<suspect_thread> threads;
    for (const thread_facts& one : process.threads) {
        suspect_thread thread{.tid = one.tid, .is_first = one.tid == process.pid, .state = one.state};
        if (one.ticks_between >= 0 && ticks_per_percent > 0) {
            thread.cpu_percent = static_cast<double>(one.ticks_between) / ticks_per_percent;
        }
        threads.push_back(thread);
    }
    if (threads.empty()) {
        threads.push_back({.tid = process.pid,
                           .is_first = true,
                           .cpu_percent = process.cpu_percent,
                           .state = process.state});
    }
    for (suspect_thread& thread : threads) {
        // Looking up the core of a thread that is idle would take long with thousands of them.
        const bool is_idle = thread.cpu_percent >= 0 && thread.cpu_percent < spin_starved_percent;
        thread.core = is_idle ? nullptr : core_thread_of(core, thread.tid);
    }
    return threads;
}

// The line of the table of interrupts that grew most; the processors' own timers and messages have names.
struct busiest_interrupt {
    named_counter line;
    double per_second = 0;
};

busiest_interrupt busiest_of(const archive_facts& facts) {
    std::map<std::string, uint64_t> before;
    for (const named_counter& line : facts.looks[0].interrupts) {
        before[line.name] = line.count;
    }
    busiest_interrupt busiest;
    for (const named_counter& line : facts.looks[1].interrupts) {
        const bool is_device = !line.name.empty() && is_ascii_digit(line.name.front());
        const auto at = before.find(line.name);
        if (!is_device || at == before.end() || line.count < at->second) {
            continue;
        }
        const double rate = static_cast<double>(line.count - at->second) / seconds_between(facts);
        if (rate > busiest.per_second) {
            busiest = {line, rate};
        }
    }
    return busiest;
}

double interrupt_percent(const archive_facts& facts) {
    if (facts.looks[0].processors.empty() || facts.looks[1].processors.empty()) {
        return 0;
    }
    const cpu_ticks& before = facts.looks[0].processors.front();
    const cpu_ticks& after = facts.looks[1].processors.front();
    const auto sum = [](const cpu_ticks& one) {
        return static_cast<double>(one.user + one.system + one.idle + one.waiting + one.interrupts +
                                   one.stolen);
    };
    const double all = sum(after) - sum(before);
    const double part = static_cast<double>(after.interrupts) - static_cast<double>(before.interrupts);
    return all > 0 && part > 0 ? part / all * hundred : 0;
}

}  // namespace

symptoms find_cpu_busy(const archive_facts& facts) {
    const double busy = busy_percent(facts);
    if (busy < cpu_busy_percent) {
        return {};
    }
    symptom found;
    found.text = said("The processors were busy for ", rounded(busy), " % of the time between the looks.");
    found.proof.push_back({said(rounded(busy), " % busy"), "change/cpu"});
    const process_facts* top = nullptr;
    for_each_suspect(facts, [&](int, const process_facts& process) {
        top = !top || process.cpu_percent > top->cpu_percent ? &process : top;
    });
    // Work that keeps processors busy is not wrong in itself, and it may be that of another container.
    if (top && top->cpu_percent >= hundred / 2) {
        found.pid = top->pid;
        found.proof.push_back(
            {said(who(facts, top->pid), " used ", rounded(top->cpu_percent), " % of a processor"),
             process_place(top->pid)});
    }
    return {found};
}

symptoms find_spinning_thread(const archive_facts& facts) {
    const double machine_percent = busy_percent(facts);
    symptoms all;
    for_each_suspect(facts, [&](int pid, const process_facts& process) {
        if (process.state == 'T' || process.state == 't' || process.state == 'Z') {
            return;
        }
        for (const suspect_thread& thread : threads_of(facts, process)) {
            if (spins(facts, pid, thread, machine_percent)) {
                all.push_back(spinning_symptom(facts, pid, thread));
            }
        }
    });
    return all;
}

symptoms find_interrupt_storm(const archive_facts& facts) {
    if (seconds_between(facts) <= 0) {
        return {};
    }
    const busiest_interrupt busiest = busiest_of(facts);
    const double percent = interrupt_percent(facts);
    if (busiest.per_second < interrupts_per_second && percent < interrupt_time_percent) {
        return {};
    }
    symptom found{.level = percent >= interrupt_time_percent ? severity::warning : severity::note};
    found.text = said("Interrupt ", busiest.line.name, busiest.line.device.empty() ? "" : ", ",
                      busiest.line.device, ", comes ", rounded(busiest.per_second), " times a second.");
    found.proof.push_back({said(rounded(busiest.per_second), " a second"), "change/interrupts"});
    found.proof.push_back(
        {said(rounded(percent), " % of the processors' time are spent in interrupts"), "change/cpu"});
    return {found};
}

}  // namespace archiveview
