#include <algorithm>
#include <iterator>

#include "tools/archiveview/views/json_parts.h"

namespace archiveview {
namespace {

void add_ticks(json_fields* out, const cpu_ticks& ticks) {
    out->number("user_ticks", ticks.user);
    out->number("system_ticks", ticks.system);
    out->number("idle_ticks", ticks.idle);
    out->number("waiting_ticks", ticks.waiting);
    out->number("interrupts_ticks", ticks.interrupts);
    out->number("stolen_ticks", ticks.stolen);
}

void add_counter(json_fields* out, const named_counter& counter) {
    out->text("name", counter.name);
    out->text("device", counter.device);
    out->number("count", counter.count);
}

void add_slab(json_fields* out, const slab_cache& slab) {
    out->text("name", slab.name);
    out->number("objects", slab.objects);
    out->number("object_bytes", slab.object_bytes);
}

void add_disk(json_fields* out, const disk_counters& disk) {
    out->text("name", disk.name);
    out->number("reads", disk.reads);
    out->number("read_sectors", disk.read_sectors);
    out->number("writes", disk.writes);
    out->number("written_sectors", disk.written_sectors);
    out->number("busy_ms", disk.busy_ms);
}

void add_interface(json_fields* out, const interface_counters& counters) {
    out->text("name", counters.name);
    out->number("rx_bytes", counters.rx_bytes);
    out->number("rx_packets", counters.rx_packets);
    out->number("rx_errors", counters.rx_errors);
    out->number("rx_dropped", counters.rx_dropped);
    out->number("tx_bytes", counters.tx_bytes);
    out->number("tx_packets", counters.tx_packets);
    out->number("tx_errors", counters.tx_errors);
    out->number("tx_dropped", counters.tx_dropped);
}

void add_mount(json_fields* out, const mount& mounted) {
    out->text("device", mounted.device);
    out->text("folder", mounted.folder);
    out->text("type", mounted.type);
    out->text("options", mounted.options);
}

void add_tables(json_fields* out, const look& seen) {
    out->objects("processors", seen.processors, add_ticks);
    out->map("memory_kb", seen.memory_kb);
    out->map("vmstat", seen.vmstat);
    out->objects("interrupts", seen.interrupts, add_counter);
    out->objects("softirqs", seen.softirqs, add_counter);
    out->objects("slabs", seen.slabs, add_slab);
    out->objects("disks", seen.disks, add_disk);
    out->objects("interfaces", seen.interfaces, add_interface);
    out->map("protocols", seen.protocols);
    out->map("settings", seen.settings);
    out->objects("mounts", seen.mounts, add_mount);
    out->array("modules", seen.modules);
}

void add_look(json_fields* out, const look& seen) {
    out->flag("present", seen.is_present);
    out->text("stamp", seen.stamp);
    out->number("uptime_seconds", seen.uptime_seconds, seen.is_present);
    out->number("idle_seconds", seen.idle_seconds, seen.is_present);
    out->text("load", seen.load);
    out->number("context_switches", seen.context_switches, seen.is_present);
    out->number("forks", seen.forks, seen.is_present);
    out->id("boot_unix_seconds", seen.boot_time);
    out->number("running", seen.running, seen.is_present);
    out->number("blocked", seen.blocked, seen.is_present);
    out->text("version", seen.version);
    out->text("command_line", seen.command_line);
    out->text("processor", seen.processor);
    out->text("machine", seen.machine);
    add_tables(out, seen);
}

// The key of a change's value, which is its unit.
const char* unit_key(const std::string& unit) {
    static constexpr const char* units[] = {"percent", "per_second", "bytes_per_second", "kb", "bytes"};
    const auto* found = std::ranges::find(units, unit);
    return found == std::end(units) ? "value" : *found;
}

}  // namespace

void json_changes(json_fields* out, const char* name, const json_input& in) {
    out->objects(name, in.facts.changes, [](json_fields* one, const change& changed) {
        one->text("group", changed.group);
        one->text("name", changed.name);
        if (changed.group == "settings") {
            one->text("first_text", changed.first_text);
            one->text("second_text", changed.second_text);
        } else {
            one->number("first", changed.first);
            one->number("second", changed.second);
            one->number(unit_key(changed.unit), changed.value);
        }
    });
}

void json_looks(json_fields* out, const char* name, const json_input& in) {
    out->objects(name, in.facts.looks, add_look);
}

}  // namespace archiveview
