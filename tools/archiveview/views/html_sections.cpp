#include <algorithm>

#include "tools/archiveview/views/html_summary.h"
#include "tools/archiveview/views/html_text.h"
#include "tools/archiveview/views/text_lines.h"

namespace archiveview {
namespace {

// "1 core", "2,345 cores"; empty for none.
std::string counted(uint64_t count, const std::string& one, const std::string& many = "") {
    if (count == 0) {
        return "";
    }
    std::string digits = std::to_string(count);
    for (size_t i = digits.size(); i > 3; i -= 3) {
        digits.insert(i - 3, ",");
    }
    return digits + " " + (count == 1 ? one : many.empty() ? one + "s" : many);
}

// The texts that are not empty, with commas.
std::string listed(std::initializer_list<std::string> texts) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() || text.empty() ? "" : ", ") + text;
    }
    return all;
}

std::string changes_text(const archive_facts& facts) {
    const std::string span =
        facts.archive.span_seconds > 0 ? " in " + decimal_text(facts.archive.span_seconds) + " s" : "";
    if (facts.changes.empty()) {
        return std::ranges::any_of(facts.looks, &look::is_present) ? "one look only, or no difference" : "";
    }
    return counted(facts.changes.size(), "value") + " changed" + span;
}

std::string processes_text(const archive_facts& facts) {
    const auto& all = facts.processes.by_pid;
    const auto kernel =
        std::ranges::count_if(all, [](const auto& entry) { return entry.second.is_kernel_thread; });
    const std::string threads = counted(static_cast<uint64_t>(kernel), "kernel thread");
    return listed({counted(all.size() - static_cast<uint64_t>(kernel), "process", "processes"), threads});
}

std::string sockets_text(const archive_facts& facts) {
    const auto& all = facts.sockets.sockets;
    const auto orphans = std::ranges::count_if(all, sockets_lacks_owner);
    const std::string without = orphans == 0 ? "" : std::to_string(orphans) + " without a known owner";
    return listed({counted(all.size(), "socket"), all.empty() ? "" : without});
}

std::string trace_text(const archive_facts& facts) {
    const trace_facts& trace = facts.trace;
    if (!trace.is_present) {
        return "";
    }
    const std::string calls = trace.calls == 0 ? "no calls" : counted(trace.calls, "call");
    return listed({calls, counted(trace.errors, "error"),
                   counted(trace.by_pid.size(), "process", "processes"),
                   trace.is_full ? "full before its time" : ""});
}

std::string capture_text(const archive_facts& facts) {
    const capture_facts& capture = facts.capture;
    if (!capture.is_present) {
        return "";
    }
    const std::string packets = capture.packets == 0 ? "no packets" : counted(capture.packets, "packet");
    return listed({packets, counted(capture.conversations.size(), "conversation"),
                   capture.is_full ? "full before its time" : ""});
}

std::string cores_text(const archive_facts& facts) {
    const auto locked =
        std::ranges::count_if(facts.cores, [](const core_facts& core) { return !core.deadlocks.empty(); });
    return listed(
        {counted(facts.cores.size(), "core"),
         locked == 0 ? ""
                     : counted(static_cast<uint64_t>(locked), "process", "processes") + " with a deadlock"});
}

std::string kernel_text(const archive_facts& facts) {
    const kernel_facts& kernel = facts.kernel;
    const auto warnings = std::ranges::count_if(
        kernel.log, [](const log_line& line) { return line.level >= 0 && line.level <= 4; });
    return listed({counted(kernel.oops.size(), "oops record"),
                   counted(kernel.log.size(), "line") + (kernel.log.empty() ? "" : " of its log"),
                   counted(static_cast<uint64_t>(warnings), "warning"), kernel.tainted == 0 ? "" : "tainted",
                   counted(kernel.modules.size(), "module")});
}

std::string texts_text(const archive_facts& facts) {
    return counted(facts.archive.texts.size(), "member");
}

constexpr html_section sections[] = {
    {"changes", "What changed", "changes looks", "look at /proc", changes_text},
    {"processes", "Processes", "processes cores", "look at processes", processes_text},
    {"sockets", "Sockets", "sockets", "table of sockets", sockets_text},
    {"trace", "System calls", "trace", "trace of system calls", trace_text},
    {"capture", "Packets", "capture", "capture of packets", capture_text},
    {"cores", "Cores", "cores", "core of a process", cores_text},
    {"kernel", "Kernel", "kernel", "kernel log and no oops record", kernel_text},
    {"texts", "Members as text", "texts", "member that is text", texts_text},
};

// "The archive has no capture of packets: it ends before it."
std::string absence(const html_section& section, const archive_summary& archive) {
    const bool is_cut = archive.state == archive_state::cut && !archive.is_end_unknown;
    return "The archive has no " + std::string(section.what) + (is_cut ? ": it ends before it." : ".");
}

std::string section_html(const html_section& section, const archive_facts& facts) {
    const std::string id = section.id;
    const std::string content = section.content(facts);
    std::string html = "<details class=\"section\" id=\"section-" + id + "\" data-needs=\"" +
                       (content.empty() ? "" : section.data) + "\">\n<summary><h2 id=\"" + id + "-title\">" +
                       section.title + "</h2> <span class=\"quiet\">" +
                       (content.empty() ? "none" : html_escaped(content)) +
                       "</span> <span class=\"hits\"></span></summary>\n<div class=\"body\">";
    if (content.empty()) {
        html += "<p class=\"quiet\">" + absence(section, facts.archive) + "</p>";
    } else {
        html += "<noscript><p>This section needs JavaScript.</p></noscript>";
    }
    return html + "</div>\n</details>\n";
}

}  // namespace

std::string html_sections(const archive_facts& facts) {
    std::string html;
    for (const html_section& section : sections) {
        html += section_html(section, facts);
    }
    return html;
}

}  // namespace archiveview
