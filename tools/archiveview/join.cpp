#include "tools/archiveview/join.h"

#include <algorithm>

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
    if (!times.has_manifest_list || !first || !second || *second >= manifest->list.size()) {
        return facts.archive.span_seconds;
    }
    double seconds = 0;
    for (size_t i = *first + 1; i <= *second; i++) {
        seconds += manifest->list[i].seconds;
    }
    return seconds;
}

void set_if_empty(std::string* to, const std::string& text) {
    if (to->empty()) {
        *to = text;
    }
}

std::string setting_of(const look& from, const char* name) {
    const auto found = from.settings.find(name);
    return found == from.settings.end() ? "" : found->second;
}

// Fills in what system.txt did not say.
void complete_device(device_facts* device, const look& from) {
    set_if_empty(&device->host, setting_of(from, "sys/kernel/hostname"));
    set_if_empty(&device->kernel, setting_of(from, "sys/kernel/osrelease"));
    set_if_empty(&device->version, from.version);
    set_if_empty(&device->command_line, from.command_line);
    set_if_empty(&device->processor, from.processor);
    set_if_empty(&device->load, from.load);
    if (device->processors == 0 && from.processors.size() > 1) {
        device->processors = static_cast<unsigned>(from.processors.size() - 1);
    }
    if (const auto total = from.memory_kb.find("MemTotal");
        device->memory_kb == 0 && total != from.memory_kb.end()) {
        device->memory_kb = total->second;
    }
    if (device->uptime_seconds <= 0) {
        device->uptime_seconds = from.uptime_seconds;
    }
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
        facts->archive.member_errors = manifest->errors;
        if (!manifest->started.empty()) {
            facts->archive.started = manifest->started;
        }
    }
    complete_device(&facts->device, first);
    complete_device(&facts->device, second);
    facts->kernel.modules = second.modules.empty() ? first.modules : second.modules;
    if (first.is_present && second.is_present) {
        facts->changes = look_changes(first, second);
    }
    processes_finish(&facts->processes, process_span(*facts, manifest, times));
    sockets_join(&facts->sockets, facts->processes);
    capture_join(&facts->capture, facts->sockets, facts->processes);
}

}  // namespace archiveview
