// Samples files as records of a resource trace.
#pragma once

#include "monitor/rtrace_record.h"

// Writes the file at `path` in pieces of up to rtrace_data_capacity bytes and a closing header. Each piece
// begins with `pid`, unless that is rtrace_no_pid. Writes nothing if the file is empty or cannot be opened. A
// read error counts as the end of the file. False if a write fails.
bool rtrace_sample_file(const rtrace_sink& sink, const char* path, rtrace_type type, pid_t pid);

// The same for the file `name` of each process in "ROOT/proc", in directory order. A process that ends
// meanwhile is skipped. False if a write fails.
bool rtrace_sample_processes(const rtrace_sink& sink, const char* root, rtrace_type type, const char* name);
