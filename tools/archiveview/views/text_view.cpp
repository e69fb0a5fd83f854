#include "tools/archiveview/views/text_view.h"

#include <algorithm>

#include "tools/archiveview/views/text_lines.h"

namespace archiveview {

namespace {

constexpr size_t shown_findings = 7;
// In all, at most 40 lines with those that are blank.
constexpr size_t verdict_lines = 2, missing_lines = 3, device_lines = 1, sentence_lines = 2, list_lines = 2,
                 errors_lines = 1;
// With more findings, what to look at next has only one line each.
constexpr size_t findings_with_long_advice = 5;

std::string counted(uint64_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string joined(const std::vector<std::string>& parts) {
    std::string all;
    for (const std::string& part : parts) {
        all += (all.empty() ? "" : ", ") + part;
    }
    return all;
}

// "cut in oopslog after 512 bytes: its compressed data ends early (38 members, 2.1 MB were read)"
std::string verdict_of(const archive_summary& archive) {
    const std::string amount =
        counted(archive.members, "member", "members") + ", " + size_text(archive.bytes);
    if (archive.state == archive_state::whole) {
        return "whole: " + amount + (archive.is_full ? ", full form" : ", usual form");
    }
    std::string text = archive.state == archive_state::cut ? "cut" : "damaged";
    if (!archive.cut_member.empty()) {
        text += " in " + archive.cut_member + " after " + counted(archive.cut_member_bytes, "byte", "bytes");
    }
    return text + ": " + archive.reason + " (" + amount + " were read)";
}

std::string first_words(std::string_view text, size_t count) {
    size_t end = 0;
    for (size_t i = 0; i < count && end != std::string_view::npos; i++) {
        end = text.find(' ', end + (i == 0 ? 0 : 1));
    }
    return std::string(text.substr(0, end));
}

std::string device_of(const archive_facts& facts) {
    const device_facts& device = facts.device;
    std::vector<std::string> parts;
    const auto add = [&parts](const std::string& before, const std::string& value, const char* after = "") {
        if (!value.empty()) {
            parts.push_back(before + value + after);
        }
    };
    add("", device.host);
    add("", first_words(device.kernel, 2));  // without the build's number and date
    add("", device.machine);
    add("up ", device.uptime_seconds > 0 ? duration_text(device.uptime_seconds) : "");
    add("", facts.archive.started);
    if (facts.archive.span_seconds > 0) {
        add("", decimal_text(facts.archive.span_seconds), " s between the looks");
    }
    return joined(parts);
}

std::string heading_of(const finding& one) {
    std::string text = std::string(severity_name(one.level)) + " " + one.id;
    const bool names_itself = one.text.starts_with(one.name + " (" + std::to_string(one.pid) + ")");
    if (one.pid != 0 && !names_itself) {
        text += ", " + (one.name.empty() ? "process" : one.name) + " (pid " + std::to_string(one.pid) + ")";
    }
    return text + ": " + one.text;
}

void add_findings(text_lines* lines, const std::vector<finding>& findings) {
    const size_t advice_lines = findings.size() <= findings_with_long_advice ? 2 : 1;
    for (size_t i = 0; i < std::min(findings.size(), shown_findings); i++) {
        const finding& one = findings[i];
        lines->add(heading_of(one), "", "    ", sentence_lines);
        if (!one.proof.empty()) {
            lines->add(one.proof.front().text, "    - ", "", 1);
        }
        if (!one.next.empty()) {
            lines->add(one.next, "    > ", "      ", advice_lines);
        }
    }
    if (findings.size() > shown_findings) {
        lines->add(counted(findings.size() - shown_findings, "more finding", "more findings") +
                       "; --html and --json show all",
                   "", "", 1);
    }
    if (findings.empty()) {
        lines->add("no findings: nothing that was read looks wrong", "", "", 1);
    }
}

// "kpagecount (not text), kallsyms (too large to show)"
void add_list(text_lines* lines, const std::string& heading, const std::vector<named_text>& members,
              size_t limit) {
    if (members.empty()) {
        return;
    }
    std::string text = heading + " (" + std::to_string(members.size()) + "): ";
    for (size_t i = 0; i < members.size(); i++) {
        text += (i == 0 ? "" : ", ") + members[i].name + " (" + members[i].text + ")";
    }
    lines->add(text, "", "    ", limit);
}

}  // namespace

std::string text_view(const archive_facts& facts, const std::vector<finding>& findings) {
    text_lines lines;
    lines.add(verdict_of(facts.archive), "", "    ", verdict_lines);
    if (!facts.archive.missing.empty()) {
        lines.add("missing: " + joined(facts.archive.missing), "", "    ", missing_lines);
    }
    lines.add(device_of(facts), "", "    ", device_lines);
    lines.add_blank();
    add_findings(&lines, findings);
    if (!facts.archive.member_errors.empty() || !facts.archive.not_examined.empty()) {
        lines.add_blank();
    }
    add_list(&lines, "not stored by the device", facts.archive.member_errors, errors_lines);
    add_list(&lines, "not looked at", facts.archive.not_examined, list_lines);
    return lines.text();
}

}  // namespace archiveview
