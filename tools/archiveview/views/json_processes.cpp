#include "tools/archiveview/views/json_parts.h"

namespace archiveview {
namespace {

void add_thread(json_fields* out, const thread_facts& thread) {
    out->number("tid", thread.tid);
    out->text("name", thread.name);
    out->state("state", thread.state);
    out->text("wait_channel", thread.wait_channel);
    out->number("ticks", thread.ticks);
    out->known("ticks_between", thread.ticks_between);
}

void add_descriptor(json_fields* out, const descriptor& open) {
    out->known("number", open.number);
    out->text("target", open.target);
    out->id("inode", open.inode);
}

template <typename Counts>
void add_kinds(json_fields* out, const Counts& counts) {
    out->number("file", counts.file);
    out->number("socket", counts.socket);
    out->number("pipe", counts.pipe);
    out->number("other", counts.other);
}

void add_monitor(json_fields* out, const monitor_report& report) {
    out->number("descriptor_score", report.descriptor_score);
    out->number("fork_score", report.fork_score);
    out->number("children", report.children);
    out->array("descriptors", report.descriptors);
    out->array("sockets", report.sockets);
    out->array("pipes", report.pipes);
}

void add_identity(json_fields* out, const process_facts& process) {
    out->number("pid", process.pid);
    out->number("parent", process.parent);
    out->text("name", process.name);
    out->text("command", process.command);
    out->text("program", process.program);
    out->text("user", process.user);
    out->state("state", process.state);
    out->flag("kernel_thread", process.is_kernel_thread);
    out->flag("in_first_look", process.in_first_look);
    out->flag("in_second_look", process.in_second_look);
    out->flag("ended", process.has_gone);
    out->id("start_ticks", process.start_ticks);
    out->text("wait_channel", process.wait_channel);
    out->number("children", process.children);
}

void add_use(json_fields* out, const process_facts& process) {
    out->id("threads", process.thread_count);
    out->known("cpu_percent", process.cpu_percent);
    out->known("resident_kb", process.resident_kb);
    out->number("resident_growth_kb", process.resident_growth_kb, process.resident_kb >= 0);
    out->object("descriptors", [&](json_fields* one) {
        one->number("total", process.counts.total);
        add_kinds(one, process.counts);
    });
    out->object("descriptor_growth", [&](json_fields* one) {
        one->number("total", process.descriptor_growth);
        add_kinds(one, process.descriptor_growth_by_kind);
    });
    out->id("descriptor_limit", process.descriptor_bound);
    out->known("core", process.core);
}

// What the trace says about it.
void add_traced(json_fields* out, const traced_process* traced) {
    static const traced_process unknown;
    const traced_process& shown = traced == nullptr ? unknown : *traced;
    out->number("calls", shown.calls, traced != nullptr);
    out->number("errors", shown.errors, traced != nullptr);
    out->text("waits_in", shown.waits_in);
}

}  // namespace

void json_processes(json_fields* out, const char* name, const json_input& in) {
    const auto& traced = in.facts.trace.by_pid;
    out->objects(name, in.facts.processes.by_pid, [&traced](json_fields* one, const auto& entry) {
        const process_facts& process = entry.second;
        const auto found = traced.find(entry.first);
        add_identity(one, process);
        add_use(one, process);
        add_traced(one, found == traced.end() ? nullptr : &found->second);
        one->object("monitor", [&](json_fields* report) { add_monitor(report, process.monitor); });
        one->objects("thread_list", process.threads, add_thread);
        one->objects("descriptor_list", process.descriptors, add_descriptor);
    });
}

}  // namespace archiveview
