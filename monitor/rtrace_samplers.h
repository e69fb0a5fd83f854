// Files as records of a resource trace.
#pragma once

#include "monitor/rtrace_record.h"

// Writes the file at `path` in pieces of up to rtrace_data_capacity bytes, each with `pid` in front unless it
// is rtrace_no_pid, and a closing header. A file that can't be opened or is empty writes nothing; one that
// can't be read on ends there. False when a write failed.
bool rtrace_sample_file(const rtrace_sink& sink, const char* path, rtrace_type type, pid_t pid);

// The same for the file `name` of each process that "ROOT/proc" has a folder of, in the folder's order. False
// when a write failed; a process that goes away meanwhile is none.
bool rtrace_sample_processes(const rtrace_sink& sink, const char* root, rtrace_type type, const char* name);
