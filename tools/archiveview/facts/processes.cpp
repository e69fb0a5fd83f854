#include "tools/archiveview/facts/processes.h"

namespace archiveview {

process_facts* process_list::get(int pid) {
    process_facts* process = &by_pid[pid];
    process->pid = pid;
    return process;
}
const process_facts* process_list::find(int pid) const {
    auto at = by_pid.find(pid);
    return at == by_pid.end() ? nullptr : &at->second;
}
void processes_add_look_file(process_list* /*list*/, int /*look*/, int /*pid*/, std::string_view /*name*/,
                             std::string_view /*text*/) {}
void processes_add_table(process_list* /*list*/, std::string_view /*text*/) {}
void processes_add_descriptor_map(process_list* /*list*/, int /*pid*/, std::string_view /*folder_name*/,
                                  std::string_view /*text*/) {}
void processes_add_monitor(process_list* /*list*/, std::string_view /*text*/) {}
void processes_finish(process_list* /*list*/, double /*span_seconds*/) {}

}  // namespace archiveview
