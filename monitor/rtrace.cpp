#include "monitor/rtrace.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include "common/unique_fd.h"
#include "monitor/rtrace_apps.h"
#include "monitor/rtrace_samplers.h"
#include "monitor/rtrace_wait.h"

namespace {

rtrace_sink sink_of(rtrace_context& trace) {
    return {trace.fd, trace.buffer};
}

bool sample_system_file(rtrace_context& trace, const char* name, rtrace_type type) {
    char path[PATH_MAX];
    int length = snprintf(path, sizeof path, "%s%s", trace.root, name);
    bool fits = length > 0 && static_cast<size_t>(length) < sizeof path;
    return !fits || rtrace_sample_file(sink_of(trace), path, type, rtrace_no_pid);
}

bool sample_smaps(rtrace_context& trace) {
    return rtrace_sample_processes(sink_of(trace), trace.root, rtrace_type_smaps, "smaps");
}

bool sample_status(rtrace_context& trace) {
    return rtrace_sample_processes(sink_of(trace), trace.root, rtrace_type_status, "status");
}

bool begin_group(rtrace_context& trace) {
    return rtrace_write_bare(sink_of(trace), rtrace_type_group, 1);
}

bool end_group(rtrace_context& trace) {
    return rtrace_write_bare(sink_of(trace), rtrace_type_group, 0);
}

bool sample_smapstot(rtrace_context& trace) {
    return sample_system_file(trace, "/proc/smapstot", rtrace_type_smapstot);
}

bool sample_filenr(rtrace_context& trace) {
    return sample_system_file(trace, "/proc/sys/fs/file-nr", rtrace_type_filenr);
}

bool sample_meminfo(rtrace_context& trace) {
    return sample_system_file(trace, "/proc/meminfo", rtrace_type_meminfo);
}

bool sample_diskinfo(rtrace_context& trace) {
    return rtrace_sample_disks(sink_of(trace), trace.mounts, trace.root);
}

bool sample_pagetypeinfo(rtrace_context& trace) {
    return sample_system_file(trace, "/proc/pagetypeinfo", rtrace_type_pagetypeinfo);
}

// The steps of a sample, in order. A step is taken if one of its sources is selected.
constexpr struct {
    uint32_t sources;
    bool (*take)(rtrace_context& trace);
} steps[] = {
    {rtrace_smaps | rtrace_status, begin_group},
    {rtrace_smaps, sample_smaps},
    {rtrace_status, sample_status},
    {rtrace_smaps | rtrace_status, end_group},
    {rtrace_smapstot, sample_smapstot},
    {rtrace_filenr, sample_filenr},
    {rtrace_meminfo, sample_meminfo},
    {rtrace_diskinfo, sample_diskinfo},
    {rtrace_pagetypeinfo, sample_pagetypeinfo},
};

bool take_sample(rtrace_context& trace) {
    for (const auto& step : steps) {
        if ((trace.mask & step.sources) != 0 && !step.take(trace)) {
            return false;
        }
    }
    return true;
}

// The interval is unsigned, as for sleep(3). False if the client closed its side.
bool sleep_interval(const rtrace_context& trace) {
    pollfd client = rtrace_client(trace.fd);
    return rtrace_poll(&client, 1, deadline(static_cast<uint32_t>(trace.interval) * int64_t{1000})) >= 0;
}

}  // namespace

rtrace_context* rtrace_create(int fd, int interval, unsigned mask) {
    unique_malloc<rtrace_context> trace = calloc_one<rtrace_context>();
    if (trace) {
        trace->interval = interval;
        trace->fd = fd;
        trace->mask = mask;
        trace->root = "";
    }
    return trace.release();
}

void rtrace_destroy(rtrace_context* context) {
    if (context) {
        rtrace_forget_mounts(context->mounts);
    }
    free(context);
}

int rtrace_run(rtrace_context* context) {
    rtrace_apps* apps = nullptr;
    rtrace_start_apps(context, &apps);
    while (take_sample(*context) && (apps ? rtrace_read_apps(*context, *apps) : sleep_interval(*context))) {
    }
    rtrace_end_apps(context, apps);
    rtrace_end_apps(context, context->unread);
    context->unread = nullptr;
    return 0;
}

int rtrace_follow(rtrace_context* context, const char* path) {
    while (rtrace_sample_file(sink_of(*context), path, rtrace_type_followed, rtrace_no_pid) &&
           sleep_interval(*context)) {
    }
    return 0;
}
