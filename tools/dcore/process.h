// What /proc tells about a process or a thread as a whole, and whether there is anything to dump.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <string_view>

// From the stat file; times are in clock ticks.
struct process_stat {
    std::string name;  // without the parentheses; may hold blanks and parentheses of its own
    char state = '?';
    int parent = 0, group = 0, session = 0;
    uint64_t flags = 0;  // the kernel's PF_ bits
    uint64_t user = 0, system = 0, children_user = 0, children_system = 0;
    int nice = 0;
    uint64_t threads = 0;
};

// From the status file.
struct process_status {
    int process = 0;  // the process that a thread belongs to
    int tracer = 0;   // 0: none
    unsigned uid = 0, gid = 0;
};

// Understand the text of a file; false, with nothing changed, when it makes no sense.
bool process_parse_stat(std::string_view text, process_stat& stat);
bool process_parse_status(std::string_view text, process_status& status);

// The bits of a coredump_filter file; what the kernel starts with when the text makes no sense.
uint64_t process_parse_filter(std::string_view text);

struct process_facts {
    process_stat stat;
    process_status status;
};

// Looks at `pid`. Returns an empty text, or why it can't be dumped.
std::string process_look(pid_t pid, process_facts& facts);

// Why the process can't be held: what threads_seize() or threads_stop() returned, and the other tracer.
std::string process_why_not(int error, pid_t tracer);

// True when `pid` has the reading end of the pipe that `fd` writes into: as long as it is stopped, a full
// pipe stays full.
bool process_reads(pid_t pid, int fd);
