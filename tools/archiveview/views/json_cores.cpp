#include "tools/archiveview/views/json_parts.h"

namespace archiveview {
namespace {

void add_thread(json_fields* out, const core_thread& thread) {
    out->number("tid", thread.tid);
    out->state("state", thread.state);
    out->address("pc", thread.pc, thread.pc != 0);
    out->address("sp", thread.sp, thread.sp != 0);
    out->text("place", thread.place);
    out->known("call", thread.call);
    out->text("waits_in", thread.waits_in);
    out->address("futex", thread.futex, thread.futex != 0);
    out->id("owner", thread.owner);
    out->flag("owner_ended", thread.owner_ended);
    out->id("joins", thread.joins);
    out->id("signal", thread.signal);
    out->array("frames", thread.frames);
}

void add_file(json_fields* out, const core_file& file) {
    out->address("start", file.start);
    out->address("end", file.end);
    out->address("offset", file.offset);
    out->text("path", file.path);
    out->text("build_id", file.build_id);
}

void add_core(json_fields* out, const core_facts& core) {
    out->number("pid", core.pid);
    out->text("name", core.name);
    out->text("member", core.member);
    out->text("machine", core.machine);
    out->flag("whole", core.is_whole);
    out->text("damage", core.damage);
    out->number("bytes", core.bytes);
    out->text("program", core.program);
    out->text("command", core.command);
    out->state("state", core.state);
    out->id("signal", core.signal);
    out->text("signal_name", core.signal_name);
    out->address("fault_address", core.fault_address, core.signal != 0);
    out->text("stack_remark", core.stack_remark);
    out->text("gdb_command", core.gdb_command);
    out->objects("threads", core.threads, add_thread);
    out->objects("deadlocks", core.deadlocks, [](json_fields* one, const core_deadlock& deadlock) {
        one->array("tids", deadlock.tids);
        one->flag("cycle", deadlock.is_cycle);
    });
    out->objects("files", core.files, add_file);
}

}  // namespace

void json_cores(json_fields* out, const char* name, const json_input& in) {
    out->objects(name, in.facts.cores, add_core);
}

}  // namespace archiveview
