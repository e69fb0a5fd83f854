// Findings on the archive itself.
#include <algorithm>
#include <set>

#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

symptoms broken_archive(const archive_facts& facts, archive_state state, const char* text) {
    const archive_summary& archive = facts.archive;
    if (archive.state != state) {
        return {};
    }
    symptom found{.text = text};
    if (!archive.cut_member.empty()) {
        found.proof.push_back({said("it ends in ", archive.cut_member, " after ",
                                    counted(archive.cut_member_bytes, "byte"), " of this member"),
                               said("member/", archive.cut_member)});
    }
    if (!archive.reason.empty()) {
        found.proof.push_back({archive.reason, ""});
    }
    for (const std::string& name : archive.missing) {
        found.proof.push_back({"missing: " + name, ""});
    }
    return {found};
}

// Archives have no core of the daemon, of its parent and of process 1, which must go on.
std::set<int> without_core_by_design(const archive_facts& facts) {
    std::set<int> pids = {1};
    for (const auto& [pid, process] : facts.processes.by_pid) {
        if (process.name == "debugar.cgi") {
            pids.insert({pid, process.parent});
        }
    }
    return pids;
}

// A process that is in the second look only began after the daemon had made its list of processes: for
// example this program, when it reads an archive that is being made. The usual form has no looks.
bool should_have_core(const process_facts& process) {
    const bool was_listed = process.in_first_look == process.in_second_look;
    return was_listed && process.core < 0 && process.state != 'Z' && process.state != 'X';
}

}  // namespace

symptoms find_archive_cut(const archive_facts& facts) {
    return broken_archive(facts, archive_state::cut,
                          "The archive ends early; what should come after its end is missing.");
}

symptoms find_archive_damaged(const archive_facts& facts) {
    return broken_archive(facts, archive_state::damaged,
                          "The archive is damaged; facts from after the damage are missing or wrong.");
}

symptoms find_core_missing(const archive_facts& facts) {
    if (facts.archive.state != archive_state::whole) {
        return {};  // says that already
    }
    const std::set<int> excluded = without_core_by_design(facts);
    symptom found;
    size_t count = 0;
    for_each_suspect(facts, [&](int pid, const process_facts& process) {
        if (should_have_core(process) && !excluded.contains(pid)) {
            count++;
            found.pid = count == 1 ? pid : 0;
            found.proof.push_back(
                {said(who(facts, pid), ", state ", std::string(1, process.state)), process_place(pid)});
        }
    });
    for (const core_facts& core : facts.cores) {
        if (!core.is_whole) {
            count++;
            found.pid = count == 1 ? core.pid : 0;
            found.proof.push_back({said("the core of ", who(facts, core.pid), " is not whole: ", core.damage),
                                   said("core/", core.pid)});
        }
    }
    found.text = said("The archive has no whole core of ", counted(count, "process", "processes"), ".");
    return count > 0 ? symptoms{found} : symptoms{};
}

}  // namespace archiveview
