// Parses any bytes as members about processes and joins them: counts and memory are within their bounds, and
// each process is known by its pid. The first byte of a line that begins with '@' chooses the member that
// follows, the next two its look and pid.
#include <stdint.h>

#include <string_view>

#include "tests/fuzz/require.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/facts/processes.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

constexpr std::string_view look_files[] = {"stat",        "status",      "links",       "limits",
                                           "wchan",       "cmdline",     "task/5/stat", "task/5/wchan",
                                           "task/6/stat", "task/x/stat", "syscall",     "task/"};

// Adds one member. `chosen` tells its kind, the look and the pid.
void add_member(process_list* list, std::string_view chosen, std::string_view text) {
    const auto byte = [&](size_t at) {
        return at < chosen.size() ? static_cast<unsigned char>(chosen[at]) : 0;
    };
    const int pid = byte(2) % 8;
    switch (byte(0)) {
        case 't':
            processes_add_table(list, text);
            break;
        case 'd':
            processes_add_descriptor_map(list, pid, chosen, text);
            break;
        case 'm':
            processes_add_monitor(list, text);
            break;
        default:
            processes_add_look_file(list, byte(1) % 3, pid, look_files[byte(0) % std::size(look_files)],
                                    text);
    }
}

void check(const process_list& list) {
    require(list.descriptor_bytes <= descriptor_bytes_limit && list.by_pid.size() <= process_limit);
    for (const auto& [pid, process] : list.by_pid) {
        const descriptor_counts& counts = process.counts;
        require(pid > 0 && process.pid == pid);
        require(process.descriptors.size() <= counts.total && process.threads.size() <= thread_limit);
        require(counts.file + counts.socket + counts.pipe + counts.other <= counts.total);
        require(process.command.size() <= command_limit && process.children <= list.by_pid.size());
        require(process.cpu_percent >= 0 || process.cpu_percent == -1);
        require(!process.has_gone || (process.in_first_look && !process.in_second_look));
        const monitor_report& monitor = process.monitor;
        require(monitor.descriptors.size() == monitor.pipes.size() &&
                monitor.descriptors.size() == monitor.sockets.size() && monitor.descriptors.size() <= 4);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    process_list list;
    while (!rest.empty()) {
        std::string_view chosen = take_line(&rest);
        chosen.remove_prefix(chosen.starts_with('@') ? 1 : 0);
        const size_t end = rest.find("\n@");
        add_member(&list, chosen, rest.substr(0, end));
        rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
    }
    processes_finish(&list, 5);
    require(list.evidence.empty());
    check(list);
    return 0;
}
