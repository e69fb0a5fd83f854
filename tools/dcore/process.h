// Facts about a process or a thread from /proc, and the reasons why a process cannot be dumped.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <string_view>

// From the stat file. Times are in clock ticks.
struct process_stat {
    std::string name;  // without the parentheses; may contain blanks and parentheses of its own
    char state = '?';
    int parent = 0, group = 0, session = 0;
    uint64_t flags = 0;  // the kernel's PF_ bits
    uint64_t user = 0, system = 0, children_user = 0, children_system = 0;
    int nice = 0;
    uint64_t threads = 0;
};

// From the status file.
struct process_status {
    int process = 0;  // the process of the thread
    int tracer = 0;   // 0: none
    unsigned uid = 0, gid = 0;
};

// Parse the text of a file. Return false for malformed text.
bool process_parse_stat(std::string_view text, process_stat* stat);
bool process_parse_status(std::string_view text, process_status* status);

// Returns the bits of a coredump_filter file, or the kernel's default for malformed text.
uint64_t process_parse_filter(std::string_view text);

struct process_facts {
    process_stat stat;
    process_status status;
};

// Reads the facts about `pid`. Returns an empty string, or why the process cannot be dumped.
std::string process_read(pid_t pid, process_facts* facts);

// Returns why the process cannot be stopped. `error` is what threads_seize() or threads_stop() returned;
// `tracer` is the other tracer.
std::string process_stop_error(int error, pid_t tracer);

// True if `pid` has the reading end of the pipe that `fd` writes to. If such a process is stopped, the pipe
// fills up and stays full.
bool process_reads(pid_t pid, int fd);
