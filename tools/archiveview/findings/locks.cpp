// Deadlocks, from the locks that cores show.
#include <algorithm>
#include <charconv>

#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

const core_thread* thread_of(const core_facts& core, int tid) {
    const auto at = std::ranges::find(core.threads, tid, &core_thread::tid);
    return at == core.threads.end() ? nullptr : &*at;
}

// True unless the looks show that it ran: a thread that takes and gives back locks all the time may be seen
// waiting at any moment.
bool may_wait_for_good(const archive_facts& facts, int pid, int tid) {
    const process_facts* process = facts.processes.find(pid);
    if (!process) {
        return true;
    }
    const auto at = std::ranges::find(process->threads, tid, &thread_facts::tid);
    return at == process->threads.end() || at->ticks_between <= locked_ticks;
}

// A lock in memory that processes share may be owned by a thread of another one, which lives.
bool lives_elsewhere(const archive_facts& facts, int tid) {
    return std::ranges::any_of(facts.processes.by_pid, [tid](const auto& entry) {
        const process_facts& process = entry.second;
        const bool is_alive = (process.in_second_look || !process.in_first_look) && process.state != 'Z';
        return is_alive &&
               (process.pid == tid ||
                std::ranges::find(process.threads, tid, &thread_facts::tid) != process.threads.end());
    });
}

std::string list_of(const std::vector<int>& tids) {
    std::string list;
    for (size_t i = 0; i < tids.size(); i++) {
        list += i == 0 ? "" : i + 1 == tids.size() ? " and " : ", ";
        list += std::to_string(tids[i]);
    }
    return list;
}

std::string hexadecimal(uint64_t number) {
    constexpr int base = 16;
    constexpr size_t longest = 16;
    char digits[longest];
    const std::to_chars_result result = std::to_chars(digits, digits + sizeof(digits), number, base);
    return "0x" + std::string(digits, result.ptr);
}

void add_proof(symptom* found, const core_facts& core, int tid) {
    const core_thread* thread = thread_of(core, tid);
    if (!thread) {
        return;
    }
    std::string text = said("thread ", tid, " waits for the lock at ", hexadecimal(thread->futex),
                            " of thread ", thread->owner, thread->owner_ended ? ", which has ended" : "");
    const std::string& place = thread->frames.empty() ? thread->place : thread->frames.front();
    found->proof.push_back({place.empty() ? text : text + ", in " + place, said("core/", core.pid)});
}

bool is_certain(const archive_facts& facts, const core_facts& core, const core_deadlock& deadlock) {
    const bool all_wait =
        std::ranges::all_of(deadlock.tids, [&](int tid) { return may_wait_for_good(facts, core.pid, tid); });
    if (deadlock.tids.empty() || !all_wait || deadlock.is_cycle) {
        return all_wait && !deadlock.tids.empty();
    }
    const core_thread* last = thread_of(core, deadlock.tids.back());
    return !last || last->owner == 0 || !lives_elsewhere(facts, last->owner);
}

symptom deadlock_symptom(const archive_facts& facts, const core_facts& core, const core_deadlock& deadlock) {
    symptom found{.pid = core.pid};
    const std::string name = who(facts, core.pid);
    const std::string threads =
        said(deadlock.tids.size() == 1 ? "Thread " : "Threads ", list_of(deadlock.tids));
    if (deadlock.is_cycle) {
        found.text = deadlock.tids.size() == 1
                         ? said(threads, " of ", name, " waits for a lock that it has itself.")
                         : said(threads, " of ", name, " wait for locks of one another.");
    } else {
        found.text = said(threads, " of ", name, deadlock.tids.size() == 1 ? " waits" : " wait",
                          " for a lock whose owner has ended.");
    }
    for (int tid : deadlock.tids) {
        add_proof(&found, core, tid);
    }
    found.weight = static_cast<double>(deadlock.tids.size());
    return found;
}

}  // namespace

symptoms find_deadlock(const archive_facts& facts) {
    symptoms all;
    for (const core_facts& core : facts.cores) {
        if (is_own(facts, core.pid)) {
            continue;
        }
        for (const core_deadlock& deadlock : core.deadlocks) {
            if (is_certain(facts, core, deadlock)) {
                all.push_back(deadlock_symptom(facts, core, deadlock));
            }
        }
    }
    return all;
}

}  // namespace archiveview
