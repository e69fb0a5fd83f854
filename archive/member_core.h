// Core dumps of live processes as archive members.
#pragma once

#include <sys/types.h>

#include "archive/tar.h"

// Result of dump_one when the client has gone: the value of EPIPE.
constexpr int dump_client_gone = 32;

// Stores the core of pids[index], as the dumper gives it, as "NAME.PID/core" and the process's descriptor map
// as "NAME.PID/fdmap"; `fd` is the archive's descriptor. Entries from `index` on that the same dump covered
// become -1.
//
// A process that the dumper has no core of gets no member. The map is left out when the dumper ended with an
// error. A core that is shorter than announced is filled up with zero bytes, one that is longer is cut.
// All of that is reported on standard error. Returns 0, or dump_client_gone when the client went away
// while the core was copied.
int dump_one(tar_handle* t, int fd, pid_t* pids, int index, int count);
