// The machine's processes, for the page's list.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct webfront_process {
    pid_t pid = 0;
    std::string name;       // as the kernel has it: any bytes, at most 15
    std::string command;    // its arguments with blanks between them, any bytes; empty: it has none
    char state = '?';       // the kernel's letter
    int64_t memory_kb = 0;  // resident
    bool is_kernel_thread = false;
};

// As many bytes of a command line are read; one that is longer ends in "...".
constexpr size_t webfront_command_limit = 1024;

// What a /proc/PID/stat file's text tells, without a command; nothing when the text makes no sense.
std::optional<webfront_process> webfront_parse_stat(std::string_view text, int64_t page_size);

// The command that the bytes of a /proc/PID/cmdline file stand for, which may be cut off at the limit.
std::string webfront_parse_command(std::string_view bytes);

// The processes below `root` ("/proc", or a test's folder) by pid. One that is gone before it has been read
// is left out. Reading the command of a process may wait for as long as the kernel keeps its memory locked.
std::vector<webfront_process> webfront_read_processes(const std::string& root);

// {"processes": [{"pid", "name", "command", "state", "memory_kb", "kernel"}, ...]}
std::string webfront_processes_json(std::span<const webfront_process> processes);
