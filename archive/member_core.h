// Core dumps of live processes as archive members.
#pragma once

#include <sys/types.h>

#include "archive/tar.h"

// Result of dump_one if the client is gone: the value of EPIPE.
constexpr int dump_client_gone = 32;

// Stores the dumper's core of pids[index] as "NAME.PID/core" and the process's descriptor map as
// "NAME.PID/fdmap". `fd` is the archive's descriptor. Entries from `index` on that the same dump covered
// become -1.
//
// If the dumper makes no core, the process gets no member. If it exits with an error, there is no map. A
// core that is shorter than announced is padded with zero bytes; a longer one is cut. All of this is reported
// on standard error. Returns 0, or dump_client_gone if the client went away while the core was copied.
int dump_one(tar_handle* t, int fd, pid_t* pids, int index, int count);
