// What the leak monitor knows about one process.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "monitor/ehash.h"

// The descriptors of a process by kind.
struct fd_counts {
    int32_t all;
    int32_t sockets;
    int32_t pipes;
};

constexpr int history_length = 4;

// Comes from calloc; all zero means nothing known. The averages are over four rounds, the older three of them
// 32 rounds apart. There is no pointer to the parent's record: that is looked up when it is needed, so
// that none can outlive the record.
struct process_record {
    pid_t pid;
    pid_t ppid;       // as read in the latest round
    ehash_node node;  // the key is the bytes of `pid`
    char name[128];
    fd_counts fds[history_length];       // this round and the three before it
    fd_counts averages[history_length];  // this round's and three older ones
    int32_t previous_fd_score;           // of the last round
    int32_t reported_fd_score;           // at the last report
    int32_t children;                    // counted in the latest round
    int32_t previous_children;           // of the last round
    int32_t reported_children;           // at the last report
    uint32_t children_mark;              // one more than the round in which `children` was last touched
    uint32_t seen_round;                 // the round in which the process was last listed
};
