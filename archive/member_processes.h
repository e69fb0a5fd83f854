// Archive members from each process of the machine.
#pragma once

#include "archive/process_looks.h"
#include "archive/tar.h"

// More processes, and more threads of a process, are left out.
constexpr int process_look_limit = 1024;
constexpr int process_thread_limit = 64;

// Stores the state of every process as "processes.YYYYMMDD-HHMMSS/PID/NAME": files of its folder in /proc,
// the targets of its links as "links", and files of its threads as "task/TID/NAME". Never its environment or
// memory. Adds what the table needs to `looks`; at most two calls for each object.
//
// Prints nothing. Files that cannot be read, and limits that are exceeded, are noted in the manifest; files
// that the kernel lacks and empty ones are skipped. A process that vanishes, or during whose visit memory or
// descriptors run out, leaves one note, and the members that were stored before.
//
// A process that holds its memory map's lock can block the look, which only the archive's phase limit ends.
// The files that need that lock come last, so that the kernel stack of such a process is stored before.
//
// Returns 0, or 1 if the reader is gone.
int stream_process_look(tar_handle* t, process_looks* looks);
