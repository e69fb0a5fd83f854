// The trace of system calls.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace archiveview {

struct call_counts {
    uint64_t calls = 0;
    uint64_t errors = 0;
    double seconds = 0;  // in timed traces
};

struct traced_descriptor {
    std::string text;  // "/var/log/messages", "socket:[4711][127.0.0.1:80 -> ...][TCP_ESTABLISHED]"
    uint64_t reads = 0, read_bytes = 0, writes = 0, written_bytes = 0;
};

struct traced_process {
    int pid = 0;
    std::string name;
    uint64_t calls = 0, errors = 0;
    std::map<std::string, call_counts> by_call;
    std::map<std::string, uint64_t> by_errno;  // "EAGAIN"
    std::map<int, traced_descriptor> descriptors;
    std::vector<std::string> signals;
    bool has_ended = false;         // during the trace
    int open_descriptors = -1;      // as its last list of descriptors says; -1 if there is none
    std::string waits_in;           // the call that had not returned at the end; may be empty
    std::string waits_in_line;      // its line
    double waits_seconds = -1;      // how long it had not returned; -1 if unknown
    bool waits_throughout = false;  // it had not returned since the trace began
    std::string polling_call;       // the call that it repeats without a result; empty if it does not poll
    double polling_per_second = 0;
    std::string slowest_line;  // in timed traces; calls that wait by design do not count
    double slowest_seconds = -1;
};

struct trace_facts {
    bool is_present = false;
    bool is_timed = false;
    uint64_t bytes = 0;     // without filler lines
    bool is_full = false;   // its size was reached, so later calls are missing
    uint64_t left_out = 0;  // lines of processes beyond process_limit
    double seconds = -1;    // from the first line to the last; -1 if unknown
    uint64_t calls = 0, errors = 0;
    std::map<int, traced_process> by_pid;
};

void trace_parse(trace_facts* facts, std::string_view text);

}  // namespace archiveview
