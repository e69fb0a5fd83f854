// What the files "stat" and "status" of a process say. Layout of the files: proc(5).
#pragma once

#include <stdint.h>
#include <sys/types.h>

// The unit of times in /proc, on all processors that we know.
constexpr unsigned proc_ticks_per_second = 100;

struct proc_stat {
    pid_t ppid;
    char state;
    uint32_t threads;
    uint32_t resident_pages;
    uint64_t cpu_ticks;    // of all threads, in the kernel and outside
    uint64_t start_ticks;  // after boot; tells the process from others that had its pid
    char name[32];         // cut; ends in a NUL
};

// Parses the text of a stat file (ends in a NUL). The name may hold blanks, parentheses and control
// characters. Returns false if the text is not whole.
bool proc_stat_parse(const char* text, proc_stat* stat);

// The number in a line "KEY:  NUMBER ..." of the text of a status file (ends in a NUL), or `otherwise`. `key`
// begins with a newline and ends with the colon.
uint32_t proc_status_number(const char* text, const char* key, uint32_t otherwise);

// The effective user in the text of a status file (ends in a NUL); -1 if there is none.
uid_t proc_status_uid(const char* text);
