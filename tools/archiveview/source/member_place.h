// What a member of the daemon's archive is, by its name.
#pragma once

#include <stdint.h>

#include <string_view>

namespace archiveview {

enum class member_kind {
    monitor,
    media,
    system,
    log,
    process_file,  // of a look at processes
    proc_file,     // at the top of /proc
    folder_file,   // in a folder of /proc
    trace,
    capture,
    server_report,
    oops,
    kernel_core,
    process_table,
    core,
    descriptor_map,
    manifest,
    unknown,
};

struct member_place {
    member_kind kind = member_kind::unknown;
    std::string_view stamp;   // "20261122-161132", of looks
    std::string_view file;    // "task/4/stat" of a process, "stat" or "net/dev" of /proc, else the whole name
    std::string_view folder;  // "httpd" of "httpd.412/core"; may be empty
    int pid = 0;
};

// `name` is without the archive's top directory. The result refers to it.
member_place place_of(std::string_view name);

}  // namespace archiveview
