#include "tools/archiveview/views/json_parts.h"

namespace archiveview {

const char* archive_state_name(archive_state state) {
    static constexpr const char* names[] = {"whole", "cut", "damaged"};
    return names[static_cast<int>(state)];
}

void json_archive(json_fields* out, const char* name, const json_input& in) {
    out->object(name, [&archive = in.facts.archive](json_fields* one) {
        one->text("state", archive_state_name(archive.state));
        one->text("reason", archive.reason);
        one->flag("readable", archive.is_readable);
        one->flag("end_unknown", archive.is_end_unknown);
        one->text("form", archive.is_full ? "full" : "usual");
        one->flag("compressed", archive.is_compressed);
        one->text("directory", archive.directory);
        one->number("members", archive.members);
        one->number("bytes", archive.bytes);
        one->text("cut_member", archive.cut_member);
        one->number("cut_member_bytes", archive.cut_member_bytes, !archive.cut_member.empty());
        one->array("missing", archive.missing);
        json_named_texts(one, "member_errors", archive.member_errors);
        json_named_texts(one, "not_examined", archive.not_examined);
        one->text("started", archive.started);
        one->id("span_seconds", archive.span_seconds);
    });
}

namespace {

void add_file_system(json_fields* out, const file_system& mounted) {
    out->text("device", mounted.device);
    out->text("folder", mounted.folder);
    out->text("type", mounted.type);
    out->text("options", mounted.options);
    out->flag("answering", mounted.is_answering);
    out->number("total_kb", mounted.total_kb, mounted.is_answering);
    out->number("used_kb", mounted.used_kb, mounted.is_answering);
    out->number("available_kb", mounted.available_kb, mounted.is_answering);
    out->number("free_inodes", mounted.free_inodes, mounted.is_answering);
}

}  // namespace

void json_device(json_fields* out, const char* name, const json_input& in) {
    out->object(name, [&device = in.facts.device, &looks = in.facts.looks](json_fields* one) {
        one->text("host", device.host);
        one->text("kernel", device.kernel);
        one->text("machine", device.machine);
        one->text("processor", device.processor);
        one->id("processors", device.processors);
        one->text("command_line", device.command_line);
        one->text("version", device.version);
        one->text("clock", device.clock);
        one->id("memory_kb", device.memory_kb);
        one->id("uptime_seconds", device.uptime_seconds);
        one->text("load", device.load);
        one->known("busy_percent", look_busy_percent(looks[0], looks[1]));
        one->array("addresses", device.addresses);
        one->array("neighbours", device.neighbours);
        one->array("routes", device.routes);
        one->objects("file_systems", device.file_systems, add_file_system);
        one->array("errors", device.errors);
    });
}

void json_findings(json_fields* out, const char* name, const json_input& in) {
    out->objects(name, in.findings, [](json_fields* one, const finding& found) {
        one->text("id", found.id);
        one->text("severity", severity_name(found.level));
        one->id("pid", found.pid);
        one->text("name", found.name);
        one->text("text", found.text);
        one->objects("evidence", found.proof, [](json_fields* proof, const evidence& fact) {
            proof->text("text", fact.text);
            proof->text("place", fact.place);
        });
        one->text("next", found.next);
    });
}

void json_texts(json_fields* out, const char* name, const json_input& in) {
    json_named_texts(out, name, in.facts.archive.texts);
}

}  // namespace archiveview
