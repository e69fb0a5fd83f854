// The descriptors of another process, and its memory.
//
// Everything is read from a proc file system at the time of the call; buffers are the caller's, nothing is
// printed or kept. A process or descriptor that is gone gives a short or empty result.
// Layout of the files: proc(5). The calls with a `root` read a proc file system mounted there.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "common/unique_fd.h"

struct socket_cache;

// Describes descriptor `fd` of `pid` in `buf` (`len` bytes, ends in a NUL): its link target, followed by the
// endpoint text (proc_socket.h) if it is a TCP or Unix socket that the tables list. Returns the length of the
// whole text, so `len` or more if it was cut. If there is no such descriptor, returns what readlink(2)
// returned, which is below 1.
int proc_fdinfo_lookup(pid_t pid, int fd, char* buf, size_t len);
int proc_fdinfo_lookup_at(const char* root, pid_t pid, int fd, char* buf, size_t len);

// Optional caches for callers that describe many descriptors. Both are borrowed.
struct proc_fdinfo_aids {
    socket_cache* sockets = nullptr;  // finds sockets without reading whole tables
    int fd_dir = -1;                  // proc_fd_dir of the process
};
int proc_fdinfo_lookup(pid_t pid, int fd, char* buf, size_t len, const proc_fdinfo_aids& aids);

// Opens the descriptor directory of `pid` for lookups (O_PATH). Empty on failure.
unique_fd proc_fd_dir(pid_t pid);

// Stores at most `capacity` descriptor numbers in directory order and returns how many; 0 if the
// descriptors cannot be listed.
int proc_fdlist(pid_t pid, int* fds, int capacity);
int proc_fdlist_at(const char* root, pid_t pid, int* fds, int capacity);

// Counts the descriptors of `pid`, and the sockets and pipes among them (either pointer may be null). A pipe
// is counted only if its link is exactly "pipe:[", which no kernel writes; this is deliberate. If a
// descriptor vanishes during the scan, the scan starts again and keeps the counts so far.
int proc_nr_fd2(pid_t pid, int* sockets, int* pipes);
int proc_nr_fd2_at(const char* root, pid_t pid, int* sockets, int* pipes);

// How often proc_nr_fd2 starts again. After that, a descriptor whose link cannot be read is counted only as a
// descriptor.
constexpr int proc_fd_restarts = 100;

// Reads up to `len` bytes of the memory of `pid` from `offset`. Returns the bytes read; -1 if the memory
// cannot be opened or its first byte cannot be read. The caller must be allowed to trace the process.
ssize_t proc_mem_pread(pid_t pid, void* buf, unsigned len, int64_t offset);
