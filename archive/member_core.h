// Core dumps of live processes as archive members.
#pragma once

#include <sys/types.h>

#include "archive/tar.h"

// Result of dump_one when the client has gone: the value of EPIPE.
constexpr int dump_client_gone = 32;

// Stores the core and the descriptor map of pids[index]; entries behind it that the same dump covered become
// -1. Returns 0, or dump_client_gone.
int dump_one(tar_handle* t, int fd, pid_t* pids, int index, int count);
