// The leak monitor's record of one process.
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

// From calloc; a new record is all zero. An average covers four rounds; the three older ones are 32 rounds
// apart. The parent's record is looked up when it is needed, since a pointer to it could outlive it.
struct process_record {
    pid_t pid;
    pid_t ppid;       // as read in the latest round
    ehash_node node;  // the key is the bytes of `pid`
    char name[128];
    fd_counts fds[history_length];       // this round and the three before it
    fd_counts averages[history_length];  // of this round and three older ones
    int32_t previous_fd_score;           // of the round before
    int32_t reported_fd_score;           // when it was last reported
    int32_t children;                    // counted in the latest round
    int32_t previous_children;           // of the round before
    int32_t reported_children;           // when they were last reported
    uint32_t children_mark;              // the round that last changed `children`, plus 1
    uint32_t seen_round;                 // the last round that listed the process
};
