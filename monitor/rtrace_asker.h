// Asks file systems for their usage, but gives up on those that do not answer.
#pragma once

#include <sys/statfs.h>

struct rtrace_asker;

// The state of one trace. Begins empty; rtrace_forget_mounts releases it.
struct rtrace_mounts {
    rtrace_asker* asker;                                          // its thread; null: not started
    int (*statfs_call)(const char* path, struct statfs* result);  // null: statfs(2)
};

enum class rtrace_answer { usage, none, client_gone };

// A file system that takes longer than this counts as hanging and is not asked again until it answers. A
// thread waits for each hanging file system. If the whole process has this many, no mount is asked.
constexpr int rtrace_mount_patience_ms = 500;
constexpr int rtrace_hanging_limit = 256;

// Asks the file system mounted from `source` at `folder`, in the trace's thread, and fills `*usage`. Returns
// none, with `*usage` unchanged, if the file system fails or hangs or there is no thread; client_gone if the
// client at `client_fd` closes its side meanwhile.
rtrace_answer rtrace_ask_mount(rtrace_mounts& mounts, const char* source, const char* folder, int client_fd,
                               struct statfs* usage);

// Ends the trace's thread. A thread that waits for a hanging file system ends when that answers.
void rtrace_forget_mounts(rtrace_mounts& mounts);
