#include "tools/archiveview/views/html_summary.h"

#include <algorithm>

#include "tools/archiveview/views/html_text.h"
#include "tools/archiveview/views/text_lines.h"

namespace archiveview {
namespace {

constexpr size_t shown_findings = 7;

std::string state_heading(const archive_summary& archive) {
    static constexpr const char* headings[] = {"The archive is whole", "The archive is cut",
                                               "The archive is damaged"};
    return headings[static_cast<int>(archive.state)];
}

std::string sentence(std::string text) {
    if (!text.empty()) {
        text[0] = static_cast<char>(text[0] >= 'a' && text[0] <= 'z' ? text[0] - 'a' + 'A' : text[0]);
        text += text.ends_with('.') ? "" : ".";
    }
    return text;
}

std::string joined(const std::vector<std::string>& parts, const char* between) {
    std::string all;
    for (const std::string& part : parts) {
        all += (all.empty() ? "" : between) + part;
    }
    return all;
}

std::string paragraph(const std::string& text) {
    return text.empty() ? "" : "<p>" + html_escaped(text) + "</p>\n";
}

std::string verdict(const archive_summary& archive) {
    static constexpr const char* classes[] = {"good", "bad", "bad"};
    std::string html = "<div class=\"verdict " + std::string(classes[static_cast<int>(archive.state)]) +
                       "\">\n<h2 id=\"verdict-title\">" + state_heading(archive) + "</h2>\n" +
                       paragraph(sentence(archive.reason));
    if (!archive.cut_member.empty()) {
        html += paragraph("Place: " + archive.cut_member + ", after " + size_text(archive.cut_member_bytes) +
                          " of it.");
    }
    if (!archive.missing.empty()) {
        html += paragraph("Missing: " + joined(archive.missing, ", ") + ".");
    }
    return html + "</div>\n";
}

std::string fact(const char* name, const std::string& value) {
    return value.empty()
               ? ""
               : "<div><dt>" + std::string(name) + "</dt><dd>" + html_escaped(value) + "</dd></div>\n";
}

std::string memory_text(uint64_t kb) {
    return kb == 0 ? "" : decimal_text(static_cast<double>(kb) / 1024) + " MiB";
}

std::string machine_text(const device_facts& device) {
    std::vector<std::string> parts;
    for (const std::string& part : {device.machine, device.processor}) {
        if (!part.empty()) {
            parts.push_back(part);
        }
    }
    if (device.processors > 1) {
        parts.push_back(std::to_string(device.processors) + " processors");
    }
    return joined(parts, ", ");
}

std::string device(const archive_facts& facts) {
    const archive_summary& archive = facts.archive;
    const device_facts& known = facts.device;
    return "<dl class=\"facts\">\n" + fact("Host", known.host) + fact("Kernel", known.kernel) +
           fact("Machine", machine_text(known)) + fact("Memory", memory_text(known.memory_kb)) +
           fact("Up", known.uptime_seconds > 0 ? duration_text(known.uptime_seconds) : "") +
           fact("Load", known.load) + fact("Made", archive.started) +
           fact("Between the looks",
                archive.span_seconds > 0 ? decimal_text(archive.span_seconds) + " s" : "") +
           fact("Archive", std::to_string(archive.members) + " members, " + size_text(archive.bytes) +
                               (archive.is_full ? ", full form" : ", usual form")) +
           fact("Addresses", joined(known.addresses, ", ")) + "</dl>\n";
}

std::string evidence_item(const evidence& proof) {
    const std::string text = html_escaped(proof.text);
    return "<li>" +
           (proof.place.empty() ? text : "<a href=\"" + html_fragment(proof.place) + "\">" + text + "</a>") +
           "</li>\n";
}

std::string finding_item(const finding& found) {
    const std::string level = severity_name(found.level);
    std::string html = "<li class=\"finding " + level + "\">\n<p class=\"head\"><span class=\"level\">" +
                       level + "</span> <strong>" + html_escaped(found.text) + "</strong></p>\n";
    std::string about = "<p class=\"about\"><code>" + html_escaped(found.id) + "</code>";
    if (found.pid != 0) {
        const std::string place = "process/" + std::to_string(found.pid);
        about += " · <a href=\"" + html_fragment(place) + "\">" +
                 html_escaped(found.name.empty() ? "process" : found.name) + " " + std::to_string(found.pid) +
                 "</a>";
    }
    html += about + "</p>\n";
    if (!found.proof.empty()) {
        html += "<ul class=\"evidence\">\n";
        for (const evidence& proof : found.proof) {
            html += evidence_item(proof);
        }
        html += "</ul>\n";
    }
    return html + (found.next.empty() ? "" : "<p class=\"next\">" + html_escaped(found.next) + "</p>\n") +
           "</li>\n";
}

std::string finding_list(const std::vector<finding>& findings, size_t first, size_t count) {
    std::string html = "<ol class=\"findings\" start=\"" + std::to_string(first + 1) + "\">\n";
    for (size_t i = first; i < std::min(findings.size(), first + count); i++) {
        html += finding_item(findings[i]);
    }
    return html + "</ol>\n";
}

std::string findings_part(const std::vector<finding>& findings) {
    std::string html = "<h2 id=\"findings-title\">Findings</h2>\n";
    if (findings.empty()) {
        return html + "<p>Nothing that was read looks wrong.</p>\n";
    }
    html += finding_list(findings, 0, shown_findings);
    if (findings.size() > shown_findings) {
        const size_t more = findings.size() - shown_findings;
        html += "<details class=\"more\"><summary>" + std::to_string(more) +
                (more == 1 ? " more finding" : " more findings") + "</summary>\n" +
                finding_list(findings, shown_findings, more) + "</details>\n";
    }
    return html;
}

std::string name_list(const char* heading, const std::vector<named_text>& names) {
    if (names.empty()) {
        return "";
    }
    std::string html = "<details class=\"more\"><summary>" + std::string(heading) + ": " +
                       std::to_string(names.size()) + "</summary>\n<ul class=\"names\">\n";
    for (const named_text& name : names) {
        html += "<li><code>" + html_escaped(name.name) + "</code> " + html_escaped(name.text) + "</li>\n";
    }
    return html + "</ul></details>\n";
}

}  // namespace

std::string html_summary(const archive_facts& facts, const std::vector<finding>& findings) {
    return "<section id=\"summary\" aria-labelledby=\"verdict-title\">\n" + verdict(facts.archive) +
           device(facts) + "</section>\n<section id=\"findings\" aria-labelledby=\"findings-title\">\n" +
           findings_part(findings) + name_list("Not stored by the device", facts.archive.member_errors) +
           name_list("Not looked at", facts.archive.not_examined) + "</section>\n";
}

}  // namespace archiveview
