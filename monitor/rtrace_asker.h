// Asking file systems how full they are, without waiting for those that never answer.
#pragma once

#include <sys/statfs.h>

struct rtrace_asker;

// What one trace asks with. Start with an empty one, end with rtrace_forget_mounts.
struct rtrace_mounts {
    rtrace_asker* asker;                                          // null: none was needed so far
    int (*statfs_call)(const char* path, struct statfs* result);  // null: statfs(2)
};

enum class rtrace_answer { usage, none, client_gone };

// A file system that takes longer than this has no answer, and until it gives one nobody asks it again. So
// many that hang are known in the whole process, each by a thread that waits for it; with more of them no
// mount has an answer.
constexpr int rtrace_mount_patience_ms = 500;
constexpr int rtrace_hanging_limit = 256;

// Asks the file system that is mounted from `source` at `folder`, on a thread of the trace's own, and fills
// `*usage`. No answer when it fails or hangs, or there is no thread; client_gone when the client at
// `client_fd` closed its side meanwhile.
rtrace_answer rtrace_ask_mount(rtrace_mounts& mounts, const char* source, const char* folder, int client_fd,
                               struct statfs* usage);

// Ends the trace's thread. Those that wait for a file system end when it answers.
void rtrace_forget_mounts(rtrace_mounts& mounts);
