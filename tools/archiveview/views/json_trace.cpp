#include "tools/archiveview/views/json_parts.h"

namespace archiveview {
namespace {

void add_calls(json_fields* out, const traced_process& process, bool is_timed) {
    out->object("by_call", [&](json_fields* calls) {
        for (const auto& [name, counts] : process.by_call) {
            calls->object(name, [&counts = counts, is_timed](json_fields* one) {
                one->number("calls", counts.calls);
                one->number("errors", counts.errors);
                one->number("seconds", counts.seconds, is_timed);
            });
        }
    });
    out->map("by_errno", process.by_errno);
}

void add_descriptor(json_fields* out, const std::pair<const int, traced_descriptor>& entry) {
    const traced_descriptor& used = entry.second;
    out->number("number", entry.first);
    out->text("text", used.text);
    out->number("reads", used.reads);
    out->number("read_bytes", used.read_bytes);
    out->number("writes", used.writes);
    out->number("written_bytes", used.written_bytes);
}

void add_process(json_fields* out, const traced_process& process, bool is_timed) {
    out->number("pid", process.pid);
    out->text("name", process.name);
    out->number("calls", process.calls);
    out->number("errors", process.errors);
    out->flag("ended", process.has_ended);
    out->known("open_descriptors", process.open_descriptors);
    out->text("waits_in", process.waits_in);
    out->text("waits_in_line", process.waits_in_line);
    out->known("waits_seconds", process.waits_seconds);
    out->flag("waits_throughout", process.waits_throughout);
    out->text("polling_call", process.polling_call);
    out->number("polling_per_second", process.polling_per_second, !process.polling_call.empty());
    out->text("slowest_line", process.slowest_line);
    out->known("slowest_seconds", process.slowest_seconds);
    out->array("signals", process.signals);
    add_calls(out, process, is_timed);
    out->objects("descriptors", process.descriptors, add_descriptor);
}

}  // namespace

void json_trace(json_fields* out, const char* name, const json_input& in) {
    out->object(name, [&trace = in.facts.trace](json_fields* one) {
        one->flag("present", trace.is_present);
        one->flag("timed", trace.is_timed);
        one->flag("full", trace.is_full);
        one->number("bytes", trace.bytes);
        one->number("lines_left_out", trace.left_out);
        one->known("seconds", trace.seconds);
        one->number("calls", trace.calls);
        one->number("errors", trace.errors);
        one->objects("processes", trace.by_pid, [&trace](json_fields* row, const auto& entry) {
            add_process(row, entry.second, trace.is_timed);
        });
    });
}

}  // namespace archiveview
