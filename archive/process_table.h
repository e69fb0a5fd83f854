// The table of the machine's processes, from two looks at them.
//
//         PID    PPID USER       STATE  THR       TIME      CPU   RSS KiB    GROWTH    FDS GROWTH NAME
//         COMMAND 812       1 root       S        4    0:12.31    97.3%      5120       +64     23     +7 app
//         /usr/bin/app
//
// The share of one processor is that between the two looks, and the growth that since the first one. A
// process that was not there in the first look has growth "new", and its share is that of its whole life. One
// that has gone has the state "gone".
#pragma once

#include "archive/process_looks.h"
#include "archive/tar.h"

// Stores the table of two looks as "processes.txt". If a look failed or memory runs out, there is a note in
// the manifest instead. Returns 0, or 1 if the reader is gone.
int stream_process_table(tar_handle* t, const process_looks* looks);

// Appends the table to `text`. `users` is the content of the password file (ends in a NUL), which names the
// users. Returns false if memory runs out.
bool process_table_text(const process_looks* looks, const char* users, growing_bytes* text);

// CPU time as a share of one processor, in tenths of a percent, rounded; 0 if no time has passed.
uint32_t process_share_permille(uint32_t ticks, uint32_t ms);
