// The resource trace: typed records of what the machine's processes, memory, descriptors and disks are doing,
// written to one descriptor at an interval until nobody takes them any more (rtrace_record.h).
#pragma once

#include <stdint.h>

#include "monitor/rtrace_disks.h"
#include "monitor/rtrace_record.h"

// What a trace samples. Requests name the sources (query_trace_bit).
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

    // The trace's own.
    const char* root;  // borrowed; in front of /proc and of the programs: "", or a fixture tree
    rtrace_mounts mounts;
    rtrace_apps* unread;  // programs whose output nobody reads, since not all of them could be started
    char room[rtrace_sink::room_size];
};

// A trace of the sources in `mask` onto `fd` (borrowed), or null without memory. Any interval will do: with 0
// samples follow each other without a pause, and a negative one ends a trace with programs after its first
// sample and leaves another one waiting for 2^32 seconds less that many.
rtrace_context* rtrace_create(int fd, int interval, unsigned mask);

// Frees the context, which may be null.
void rtrace_destroy(rtrace_context* context);

// Starts the programs that are selected and samples until a write fails or the client closes its side, which
// is noticed at once also between samples. Ends the programs (rtrace_end_apps) before it returns 0.
int rtrace_run(rtrace_context* context);

// Samples the one file at `path` in records of rtrace_type_followed at each interval, until a write fails or
// the client closes its side. Returns 0.
int rtrace_follow(rtrace_context* context, const char* path);
