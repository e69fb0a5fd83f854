// Findings on memory.
#include <algorithm>

#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

constexpr double hundred = 100;
constexpr const char* memory_place = "change/memory";

struct memory_state {
    double total_kb = 0;  // 0 if unknown
    double available_kb = 0;
    double available_percent() const { return total_kb > 0 ? available_kb / total_kb * hundred : hundred; }
};

memory_state memory_of(const look& one) {
    const auto& table = one.memory_kb;
    memory_state state;
    state.total_kb = static_cast<double>(number_in(table, "MemTotal"));
    // Kernels before 3.14 do not say what is available.
    const uint64_t known =
        table.contains("MemAvailable")
            ? number_in(table, "MemAvailable")
            : number_in(table, "MemFree") + number_in(table, "Buffers") + number_in(table, "Cached");
    state.available_kb = static_cast<double>(known);
    return state;
}

// The process with the most memory, if it explains why memory is short.
const process_facts* hog_of(const archive_facts& facts, const memory_state& memory) {
    const process_facts* largest = nullptr;
    for_each_suspect(facts, [&](int, const process_facts& process) {
        const bool is_alive = process.state != 'Z' && process.state != 'X';
        if (is_alive && (!largest || process.resident_kb > largest->resident_kb)) {
            largest = &process;
        }
    });
    const double least = memory.total_kb * memory_hog_percent / hundred;
    return largest && static_cast<double>(largest->resident_kb) >= least ? largest : nullptr;
}

evidence available_proof(const memory_state& memory) {
    return {said(size_of_kb(memory.available_kb), " of ", size_of_kb(memory.total_kb), " are available, ",
                 rounded(memory.available_percent()), " %"),
            memory_place};
}

std::optional<symptom> low_memory(const archive_facts& facts, const memory_state& memory) {
    if (memory.total_kb <= 0 || memory.available_percent() >= memory_short_percent) {
        return std::nullopt;
    }
    const bool is_low = memory.available_percent() < memory_low_percent;
    const process_facts* hog = hog_of(facts, memory);
    symptom found;
    found.level = is_low ? severity::critical : hog ? severity::warning : severity::note;
    found.text = said("Memory is ", is_low ? "nearly used up" : "short", ": ",
                      size_of_kb(memory.available_kb), " are available.");
    found.proof.push_back(available_proof(memory));
    found.weight = hundred;
    if (hog) {
        found.pid = hog->pid;
        found.text = said(who(facts, hog->pid), " has ", size_of_kb(static_cast<double>(hog->resident_kb)),
                          " of memory, and only ", size_of_kb(memory.available_kb), " are available.");
        found.proof.push_back(
            {said(size_of_kb(static_cast<double>(hog->resident_kb)), " resident"), process_place(hog->pid)});
    }
    return found;
}

bool grows_much(const process_facts& process, const memory_state& memory) {
    if (!process.in_first_look || !process.in_second_look || process.state == 'Z' || process.state == 'X') {
        return false;
    }
    const auto growth = static_cast<double>(process.resident_growth_kb);
    const double before = static_cast<double>(process.resident_kb) - growth;
    const double least = memory.total_kb > 0 ? std::min(static_cast<double>(growth_least_kb),
                                                        memory.total_kb * growth_least_percent / hundred)
                                             : static_cast<double>(growth_least_kb);
    return growth > 0 && growth >= least && growth >= before * growth_least_share;
}

std::optional<symptom> growing_process(const archive_facts& facts, const memory_state& memory,
                                       const process_facts& process) {
    const double seconds =
        facts.archive.span_seconds > 0 ? facts.archive.span_seconds : seconds_between(facts);
    if (seconds <= 0 || !grows_much(process, memory)) {
        return std::nullopt;
    }
    const auto growth = static_cast<double>(process.resident_growth_kb);
    const double lasts = memory.available_kb / growth * seconds;
    if (lasts > growth_horizon_seconds) {
        return std::nullopt;
    }
    symptom found{.pid = process.pid, .level = severity::warning};
    found.text = said(who(facts, process.pid), " grows by ", size_of_kb(growth / seconds),
                      " a second; at this rate the memory lasts ", span_of(lasts), ".");
    found.proof.push_back({said(size_of_kb(static_cast<double>(process.resident_kb)), " resident, ",
                                size_of_kb(growth), " more than at the first look"),
                           process_place(process.pid)});
    found.proof.push_back(available_proof(memory));
    found.weight = std::min(growth / (memory.total_kb + 1) * hundred, hundred - 1);
    return found;
}

symptom slab_symptom(const slab_cache& cache, double before_kb, double after_kb, double total_kb) {
    const double growth = after_kb - before_kb;
    const bool is_much = total_kb > 0 && growth >= total_kb * slab_alarm_percent / hundred;
    symptom found{.level = is_much ? severity::warning : severity::note};
    found.text = said("The kernel's cache ", cache.name, " has grown by ", size_of_kb(growth), ".");
    found.proof.push_back(
        {said(size_of_kb(before_kb), " at the first look, ", size_of_kb(after_kb), " at the second"),
         "change/slab"});
    found.weight = growth;
    return found;
}

// Caches of file names and inodes: they grow with every search, and the kernel takes them back when it has
// to.
bool is_reclaimed(const std::string& name) {
    return name.starts_with("dentry") || name.find("inode") != std::string::npos ||
           name.starts_with("radix_tree") || name == "buffer_head";
}

double kb_of(const slab_cache& cache) {
    constexpr double kb = 1024;
    return static_cast<double>(cache.objects) * static_cast<double>(cache.object_bytes) / kb;
}

}  // namespace

symptoms find_memory_low(const archive_facts& facts) {
    if (!facts.looks[0].is_present && !facts.looks[1].is_present) {
        return {};
    }
    const memory_state memory = memory_of(last_look(facts));
    symptoms all;
    if (std::optional<symptom> low = low_memory(facts, memory)) {
        all.push_back(std::move(*low));
    }
    for_each_suspect(facts, [&](int pid, const process_facts& process) {
        if (!all.empty() && all.front().pid == pid) {
            return;
        }
        if (std::optional<symptom> growing = growing_process(facts, memory, process)) {
            all.push_back(std::move(*growing));
        }
    });
    return all;
}

symptoms find_swap_in_use(const archive_facts& facts) {
    const look& now = last_look(facts);
    const uint64_t total = number_in(now.memory_kb, "SwapTotal");
    const uint64_t free = number_in(now.memory_kb, "SwapFree");
    if (total <= free) {
        return {};
    }
    const double seconds = seconds_between(facts);
    const uint64_t pages =
        growth_of(facts, &look::vmstat, "pswpin") + growth_of(facts, &look::vmstat, "pswpout");
    const double rate = seconds > 0 ? static_cast<double>(pages) / seconds : 0;
    const bool is_thrashing =
        rate >= swapping_pages_per_second && memory_of(now).available_percent() < memory_short_percent;
    symptom found{.level = is_thrashing ? severity::warning : severity::note};
    found.text = said(size_of_kb(static_cast<double>(total - free)), " of ",
                      size_of_kb(static_cast<double>(total)), " of swap are in use.");
    found.proof.push_back({said(rounded(rate), " pages a second went in or out"), "change/vmstat"});
    return {found};
}

symptoms find_slab_growth(const archive_facts& facts) {
    symptoms all;
    if (!has_both_looks(facts)) {
        return all;
    }
    std::map<std::string, double> before;
    for (const slab_cache& cache : facts.looks[0].slabs) {
        before[cache.name] = kb_of(cache);
    }
    const double total_kb = memory_of(facts.looks[1]).total_kb;
    for (const slab_cache& cache : facts.looks[1].slabs) {
        const auto at = before.find(cache.name);
        if (at == before.end() || is_reclaimed(cache.name)) {
            continue;
        }
        const double growth = kb_of(cache) - at->second;
        if (growth >= static_cast<double>(slab_growth_kb) && growth >= at->second * slab_growth_share) {
            all.push_back(slab_symptom(cache, at->second, kb_of(cache), total_kb));
        }
    }
    return all;
}

}  // namespace archiveview
