#include "tools/archiveview/views/json_parts.h"

namespace archiveview {
namespace {

void add_line(json_fields* out, const log_line& line) {
    out->known("level", line.level);
    out->known("seconds", line.seconds);
    out->text("text", line.text);
}

void add_oops(json_fields* out, const oops_record& record) {
    out->number("number", record.number);
    out->number("count", record.count);
    out->flag("cut", record.is_cut);
    out->text("headline", record.headline);
    out->text("place", record.place);
    out->text("process", record.process);
    out->id("pid", record.pid);
    out->flag("panic", record.is_panic);
    out->objects("lines", record.lines, add_line);
}

}  // namespace

void json_kernel(json_fields* out, const char* name, const json_input& in) {
    out->object(name, [&kernel = in.facts.kernel](json_fields* one) {
        one->objects("oops", kernel.oops, add_oops);
        one->text("oops_remark", kernel.oops_remark);
        one->number("tainted", kernel.tainted);
        one->array("taints", kernel.taints);
        one->objects("log", kernel.log, add_line);
        one->array("modules", kernel.modules);
    });
}

}  // namespace archiveview
