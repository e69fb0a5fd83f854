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
    std::string name;       // from the kernel: up to 15 bytes of any value
    std::string command;    // its arguments, separated by blanks; any bytes; empty if it has none
    char state = '?';       // the kernel's letter
    int64_t memory_kb = 0;  // resident
    bool is_kernel_thread = false;
};

// The number of bytes that are read of a command line. A longer one ends in "...".
constexpr size_t webfront_command_limit = 1024;

// Parses the text of a /proc/PID/stat file, which has all fields except the command. Returns nothing when the
// text is malformed.
std::optional<webfront_process> webfront_parse_stat(std::string_view text, int64_t page_size);

// Returns the command for the bytes of a /proc/PID/cmdline file, which may have been cut at the limit.
std::string webfront_parse_command(std::string_view bytes);

// Returns the processes below `root` ("/proc", or a test's folder), ordered by pid. Skips a process that ends
// before it has been read. Blocks when a process's memory is locked in the kernel, until it is unlocked.
std::vector<webfront_process> webfront_read_processes(const std::string& root);

// {"processes": [{"pid", "name", "command", "state", "memory_kb", "kernel"}, ...]}
std::string webfront_processes_json(std::span<const webfront_process> processes);
