// Findings on the kernel's own reports.
#include <algorithm>
#include <array>

#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

// How the kernel begins the report of a failure.
constexpr std::array oops_beginnings = {"BUG: ",
                                        "Oops",
                                        "Unable to handle kernel",
                                        "general protection fault",
                                        "Kernel panic",
                                        "Internal error: Oops",
                                        "Kernel bug detected",
                                        "Unhandled kernel unaligned access"};

bool is_oops_line(const std::string& text) {
    return std::ranges::any_of(oops_beginnings, [&](const char* begin) { return text.starts_with(begin); });
}

symptom oops_symptom(const archive_facts& facts, const oops_record& record) {
    symptom found;
    // The pid is that of an earlier boot: another process may have it now.
    const process_facts* now = facts.processes.find(record.pid);
    found.pid = !now || now->name == record.process ? record.pid : 0;
    found.text = said("The kernel ", record.is_panic ? "panicked" : "failed", " before the last restart",
                      record.headline.empty() ? "" : ": ", record.headline, ".");
    if (!record.place.empty()) {
        found.proof.push_back({"in " + record.place, said("oops/", record.number)});
    }
    if (!record.process.empty()) {
        found.proof.push_back(
            {said("in the process ", record.process, " (", record.pid, ")"), said("oops/", record.number)});
    }
    found.proof.push_back({said("record ", record.number, " of ", facts.kernel.oops.size(), " on the flash"),
                           said("oops/", record.number)});
    constexpr double panic_weight = 100000;
    found.weight = record.number + (record.is_panic ? panic_weight : 0);
    return found;
}

// A failure since this boot. The log of a development machine has those of other programs too, so only one
// that happened while the archive was made is above a note.
std::optional<symptom> logged_oops(const archive_facts& facts) {
    const double begin = facts.looks[0].is_present ? facts.looks[0].uptime_seconds : 0;
    std::optional<symptom> found;
    for (const log_line& line : facts.kernel.log) {
        if (!is_oops_line(line.text)) {
            continue;
        }
        const bool is_now = begin > 0 && line.seconds >= begin;
        found = symptom{.level = is_now ? severity::warning : severity::note};
        found->text = said("The kernel has reported a failure since its start: ", line.text);
        found->proof.push_back({line.text, "log"});
        if (is_now) {
            break;
        }
    }
    return found;
}

}  // namespace

symptoms find_kernel_oops(const archive_facts& facts) {
    symptoms all;
    for (const oops_record& record : facts.kernel.oops) {
        all.push_back(oops_symptom(facts, record));
    }
    if (std::optional<symptom> logged = logged_oops(facts)) {
        all.push_back(std::move(*logged));
    }
    return all;
}

symptoms find_kernel_tainted(const archive_facts& facts) {
    if (facts.kernel.tainted == 0) {
        return {};
    }
    symptom found{.text = said("The kernel is tainted: ", facts.kernel.tainted, ".")};
    for (const std::string& meaning : facts.kernel.taints) {
        found.proof.push_back({meaning, ""});
    }
    return {found};
}

}  // namespace archiveview
