// The resource trace samples the machine's processes, memory, descriptors and disks at an interval. It writes
// records (rtrace_record.h) to one descriptor until its client closes its side.
#pragma once

#include <stdint.h>

#include "monitor/rtrace_disks.h"
#include "monitor/rtrace_record.h"

// The sources of a trace. Requests select them by name (query_trace_bit).
enum rtrace_source : uint32_t {
    rtrace_smaps = 0x1,
    rtrace_status = 0x2,
    rtrace_smapstot = 0x4,
    rtrace_filenr = 0x8,
    rtrace_meminfo = 0x10,
    rtrace_diskinfo = 0x20,
    rtrace_iostat = 0x40,
    rtrace_pagetypeinfo = 0x80,
    rtrace_pellora = 0x100,
    rtrace_event = 0x200,
    rtrace_pidstat = 0x400,
};

struct rtrace_apps;

struct rtrace_context {
    int32_t interval;  // seconds between samples
    int fd;            // borrowed
    uint32_t mask;     // sources

    // Private.
    const char* root;  // borrowed; prefix of /proc and of the programs' paths: "", or a fixture tree
    rtrace_mounts mounts;
    rtrace_apps* unread;  // programs whose output is not read, because a later one could not be started
    char buffer[rtrace_sink::buffer_size];
};

// Creates a trace of the sources in `mask` that writes to `fd` (borrowed). Null if memory runs out. Any
// interval is accepted. With 0 there is no pause between samples. A negative one ends a trace with programs
// after its first sample; without programs it counts as unsigned, so the trace sleeps for more than 60 years.
rtrace_context* rtrace_create(int fd, int interval, unsigned mask);

// Frees the context, which may be null.
void rtrace_destroy(rtrace_context* context);

// Starts the selected programs and samples until a write fails or the client closes its side, which is
// noticed at once even between samples. Ends the programs (rtrace_end_apps), then returns 0.
int rtrace_run(rtrace_context* context);

// Samples only the file at `path`, as records of rtrace_type_followed, until a write fails or the client
// closes its side. Returns 0.
int rtrace_follow(rtrace_context* context, const char* path);
