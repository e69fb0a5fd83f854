#include "tools/archiveview/verdict.h"

#include <utility>

#include "tools/archiveview/source/printable.h"

namespace archiveview {

namespace {

std::string without_directory(const std::string& name, const std::string& directory) {
    const bool is_in = !directory.empty() && name.starts_with(directory + "/");
    return is_in ? name.substr(directory.size() + 1) : name;
}

void set_state(archive_summary* summary, archive_state state, std::string reason) {
    summary->state = state;
    summary->reason = std::move(reason);
}

// How the manifest and the archive differ; empty if they agree.
std::string manifest_difference(const archive_evidence& evidence) {
    const manifest_facts& manifest = *evidence.manifest;
    const std::vector<stored_member>& members = *evidence.members;  // the manifest is the last
    const size_t others = members.size() - 1;
    if (!manifest.is_complete) {
        return "its manifest does not end with \"complete\"";
    }
    if (manifest.members != others) {
        return "its manifest counts " + std::to_string(manifest.members) + " members, but it has " +
               std::to_string(others);
    }
    if (!manifest.is_list_whole) {
        return "";
    }
    for (size_t i = 0; i < others; i++) {
        if (i >= manifest.list.size() || printable(manifest.list[i].name) != members[i].name) {
            return members[i].name + " is not where its manifest has it";
        }
        if (manifest.list[i].bytes != members[i].bytes) {
            return members[i].name + " does not have the size that its manifest says";
        }
    }
    return "";
}

// The verdict on an archive whose file ends as its format says.
void judge_members(archive_summary* summary, const archive_evidence& evidence) {
    const member_order& order = *evidence.order;
    if (evidence.has_other_directory) {
        set_state(summary, archive_state::damaged, "its members are not all in one top directory");
    } else if (order.is_wrong()) {
        set_state(summary, archive_state::damaged, order.wrong_member() + " does not belong where it stands");
    } else if (!order.has_all()) {
        set_state(summary, archive_state::cut, "it lacks members that every archive has");
        summary->missing = order.missing(true, false);
    } else if (evidence.manifest) {
        const std::string difference = manifest_difference(evidence);
        set_state(summary, difference.empty() ? archive_state::whole : archive_state::damaged, difference);
    } else if (!summary->is_compressed) {
        set_state(
            summary, archive_state::cut,
            "nothing marks the end of an uncompressed archive of the usual form, so cores may be missing");
        summary->is_end_unknown = true;
    } else {
        set_state(summary, archive_state::whole, "");
    }
}

}  // namespace

void set_verdict(archive_summary* summary, const archive_evidence& evidence) {
    const source_state& source = *evidence.source;
    summary->is_readable = source.members > 0;
    summary->is_compressed = source.is_compressed;
    summary->is_full = evidence.order->is_full();
    summary->members = source.members;
    summary->bytes = source.bytes;
    if (source.end == source_end::whole && summary->is_readable) {
        judge_members(summary, evidence);
        return;
    }
    set_state(summary, source.end == source_end::cut ? archive_state::cut : archive_state::damaged,
              source.reason);
    summary->cut_member = without_directory(source.cut_member, summary->directory);
    summary->cut_member_bytes = source.cut_member_bytes;
    summary->missing = evidence.order->missing(true, !source.cut_member.empty());
}

}  // namespace archiveview
