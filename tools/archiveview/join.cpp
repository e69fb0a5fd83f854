#include "tools/archiveview/join.h"

#include <algorithm>
#include <set>
#include <utility>

#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

constexpr std::string_view socket_tables[] = {"tcp",  "tcp6", "udp",    "udp6",   "raw",
                                              "raw6", "unix", "packet", "netlink"};

// "2026-11-22 16:11:32" of the directory "debug-20261122-161132-c0".
std::string started_of(std::string_view directory) {
    constexpr std::string_view prefix = "debug-";
    constexpr std::string_view digits = "YYYYMMDD-hhmmss";
    constexpr std::string_view shape = "YYYY-MM-DD hh:mm:ss";
    if (!directory.starts_with(prefix) || directory.size() < prefix.size() + digits.size()) {
        return "";
    }
    const std::string_view stamp = directory.substr(prefix.size());
    std::string text;
    size_t at = 0;
    for (const char c : shape) {
        const bool is_digit = digits.find(c) != std::string_view::npos && c != '-';
        text += is_digit ? stamp[at++] : c;
        at += c == ' ' ? 1 : 0;
    }
    return text;
}

// Seconds between the two looks at processes.
double process_span(const archive_facts& facts, const manifest_facts* manifest, const look_times& times) {
    const auto [first, second] = times.process_looks;
    if (!manifest || !times.has_manifest_list || !first || !second || *second >= manifest->list.size()) {
        return facts.archive.span_seconds;
    }
    double seconds = 0;
    for (size_t i = *first + 1; i <= *second; i++) {
        seconds += manifest->list[i].seconds;
    }
    return seconds;
}

void fill(std::string* to, const std::string& text) {
    if (to->empty()) {
        *to = text;
    }
}

// A core tells of its process, and in the usual form little else does.
void join_cores(archive_facts* facts) {
    for (size_t i = 0; i < facts->cores.size(); i++) {
        const core_facts& core = facts->cores[i];
        process_facts* process = facts->processes.get(core.pid);
        if (!process) {
            continue;
        }
        process->core = static_cast<int>(i);
        fill(&process->name, core.name);
        fill(&process->program, core.program);
        fill(&process->command, core.command);
        process->state = process->state == '?' ? core.state : process->state;
        process->thread_count = std::max(process->thread_count, static_cast<unsigned>(core.threads.size()));
    }
}

// Says which facts are not all of those in the archive.
void add_left_out(archive_facts* facts) {
    std::vector<named_text> left_out;
    if (facts->processes.by_pid.size() >= process_limit) {
        left_out.push_back({"processes", "at most " + std::to_string(process_limit) + " are read"});
    }
    if (facts->sockets.sockets.size() >= socket_limit) {
        left_out.push_back({"sockets", "at most " + std::to_string(socket_limit) + " are read"});
    }
    if (facts->trace.left_out > 0) {
        left_out.push_back(
            {"strace.log", std::to_string(facts->trace.left_out) + " lines of more processes"});
    }
    std::vector<named_text>* all = &facts->archive.not_examined;
    all->insert(all->begin(), left_out.begin(), left_out.end());
}

// Both looks have the files that could not be read, often under the same name.
std::vector<named_text> without_repeats(const std::vector<named_text>& all) {
    std::vector<named_text> kept;
    std::set<std::pair<std::string_view, std::string_view>> seen;
    for (const named_text& one : all) {
        if (seen.emplace(one.name, one.text).second) {
            kept.push_back(one);
        }
    }
    return kept;
}

}  // namespace

bool is_socket_table(std::string_view file) {
    return std::ranges::find(socket_tables, file) != std::end(socket_tables);
}

void join_facts(archive_facts* facts, const manifest_facts* manifest, const look_times& times) {
    const auto& [first, second] = facts->looks;
    if (first.uptime_seconds > 0 && second.uptime_seconds > first.uptime_seconds) {
        facts->archive.span_seconds = second.uptime_seconds - first.uptime_seconds;
    }
    facts->archive.started = started_of(facts->archive.directory);
    if (manifest) {
        facts->archive.member_errors = without_repeats(manifest->errors);
        if (!manifest->started.empty()) {
            facts->archive.started = manifest->started;
        }
    }
    for (const look& one : facts->looks) {
        if (one.is_present) {
            device_add_look(&facts->device, one);
        }
    }
    facts->kernel.modules = second.modules.empty() ? first.modules : second.modules;
    if (first.is_present && second.is_present) {
        facts->changes = look_changes(first, second);
    }
    join_cores(facts);
    processes_finish(&facts->processes, process_span(*facts, manifest, times));
    sockets_join(&facts->sockets, facts->processes);
    capture_join(&facts->capture, facts->sockets, facts->processes);
    add_left_out(facts);
}

}  // namespace archiveview
