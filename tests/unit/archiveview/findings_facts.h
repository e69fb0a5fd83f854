// Facts made by hand, for the tests of findings.
#pragma once

// A test names only the facts that it is about.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

#include <algorithm>
#include <string>

#include "tools/archiveview/findings/findings.h"

namespace archiveview {

constexpr int suspect = 412;
constexpr double span = 10;

// A whole archive of an idle device with one process of interest, which has been seen in every part of it.
inline archive_facts healthy_archive() {
    archive_facts facts;
    facts.archive.state = archive_state::whole;
    facts.archive.is_readable = true;
    facts.archive.span_seconds = span;
    for (int i = 0; i < 2; i++) {
        look& one = facts.looks[static_cast<size_t>(i)];
        one.is_present = true;
        one.uptime_seconds = 1000 + i * span;
        one.boot_time = 1700000000;
        one.memory_kb = {{"MemTotal", 1000000}, {"MemAvailable", 600000}};
    }
    process_facts* process = facts.processes.get(suspect);
    process->name = "encoderd";
    process->parent = 1;
    process->state = 'S';
    process->in_first_look = process->in_second_look = true;
    process->thread_count = 1;
    process->threads = {{suspect, "encoderd", 'S', "", 0, 0}};
    process->cpu_percent = 0;
    process->resident_kb = 10000;
    process->descriptor_bound = 1024;
    process->counts.total = process->counts.file = 5;
    process->core = 0;
    core_facts core;
    core.pid = suspect;
    core.is_whole = true;
    core.state = 'S';
    core.threads.push_back({.tid = suspect, .state = 'S', .call = 7, .waits_in = "poll"});
    facts.cores.push_back(core);
    facts.trace.is_present = true;
    facts.trace.seconds = 5;
    traced_process& traced = facts.trace.by_pid[suspect];
    traced.pid = suspect;
    traced.name = "encoderd";
    traced.waits_in = "poll";
    facts.capture.is_present = true;
    facts.capture.seconds = 5;
    return facts;
}

inline process_facts* suspect_of(archive_facts* facts) {
    return facts->processes.get(suspect);
}

inline traced_process* trace_of(archive_facts* facts) {
    return &facts->trace.by_pid[suspect];
}

// The first finding with this id, or one without an id.
inline finding found(const archive_facts& facts, const std::string& id) {
    const std::vector<finding> all = find_all(facts);
    const auto at = std::ranges::find(all, id, &finding::id);
    return at == all.end() ? finding() : *at;
}

// "412 warning", or "nothing"
inline std::string verdict(const archive_facts& facts, const std::string& id) {
    const finding one = found(facts, id);
    return one.id.empty() ? "nothing" : std::to_string(one.pid) + ' ' + severity_name(one.level);
}

// The ids of all findings in order, with a blank after each.
inline std::string ids(const archive_facts& facts) {
    std::string text;
    for (const finding& one : find_all(facts)) {
        text += one.id + ' ';
    }
    return text;
}

inline void add_socket(archive_facts* facts, socket_facts socket) {
    socket.inode = socket.inode != 0 ? socket.inode : 5000 + facts->sockets.sockets.size();
    facts->sockets.sockets.push_back(std::move(socket));
}

}  // namespace archiveview
