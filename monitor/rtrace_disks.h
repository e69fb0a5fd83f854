// How full the mounted file systems are, as one record of a resource trace.
#pragma once

#include <stddef.h>
#include <sys/statfs.h>

#include "monitor/rtrace_record.h"

struct rtrace_question;

// What one trace remembers about mounts that do not answer. Start with an empty one, end with
// rtrace_forget_mounts.
struct rtrace_mounts {
    static constexpr int capacity = 4;
    rtrace_question* unanswered[capacity];
    int (*statfs_call)(const char* path, struct statfs* result);  // null: statfs(2)
};

// Each mount is asked on a thread of its own, because a file system may never answer. One that takes longer
// than this is left out of the table, and until it answers nobody asks it again. When `capacity` of them
// hang, or as many as rtrace_questions_limit in the whole process, only the heading is written.
constexpr int rtrace_mount_patience_ms = 500;
constexpr int rtrace_questions_limit = 16;

// Writes the table of what "ROOT/proc/mounts" lists: a heading, and for each mount its source, the KiB used
// and available, and where it is mounted. The products of blocks and block size are 32 bits wide, so what is
// above 4 GiB wraps; deliberate. Mounts over a network (a ':' in the source, or "//..." of smbfs or cifs) and
// those that can't be asked are left out. False when the write failed or the client went while a mount was
// being asked.
bool rtrace_sample_disks(const rtrace_sink& sink, rtrace_mounts& mounts, const char* root);

// Leaves mounts that still have not answered to themselves.
void rtrace_forget_mounts(rtrace_mounts& mounts);
