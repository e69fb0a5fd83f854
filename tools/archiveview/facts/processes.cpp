#include "tools/archiveview/facts/processes.h"

#include "tools/archiveview/limits.h"

namespace archiveview {

process_facts* process_list::get(int pid) {
    if (pid <= 0 || (by_pid.size() >= process_limit && !find(pid))) {
        return nullptr;
    }
    process_facts* process = &by_pid[pid];
    process->pid = pid;
    return process;
}

const process_facts* process_list::find(int pid) const {
    auto at = by_pid.find(pid);
    return at == by_pid.end() ? nullptr : &at->second;
}

}  // namespace archiveview
