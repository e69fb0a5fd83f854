// The descriptors of another process, and its memory.
//
// Everything is read from a proc file system at the time of the call; buffers are the caller's, nothing is
// printed and nothing is kept. A process or a descriptor that has gone gives a short or an empty result.
// Layout of the files: proc(5). The calls with a `root` read a proc file system mounted there.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "common/unique_fd.h"

struct socket_cache;

// Describes descriptor `fd` of `pid` in `buf` (`len` bytes, ended by a NUL): its link target, and for a TCP
// or Unix socket in the reader's tables one endpoint text behind it (proc_socket.h). Returns the length that
// the whole text has, so `len` or more when it was cut; below 1 when there is no such descriptor, as
// readlink(2) returned it.
int proc_fdinfo_lookup(pid_t pid, int fd, char* buf, size_t len);
int proc_fdinfo_lookup_at(const char* root, pid_t pid, int fd, char* buf, size_t len);

// What makes the same faster for who describes many descriptors. Both are borrowed and may be missing.
struct proc_fdinfo_aids {
    socket_cache* sockets = nullptr;  // finds sockets without reading whole tables
    int fd_dir = -1;                  // proc_fd_dir of the process
};
int proc_fdinfo_lookup(pid_t pid, int fd, char* buf, size_t len, const proc_fdinfo_aids& aids);

// The descriptor directory of `pid`, open for lookups in it (O_PATH). Empty when there is none.
unique_fd proc_fd_dir(pid_t pid);

// Stores at most `capacity` descriptor numbers in directory order and returns how many; 0 when the process's
// descriptors can't be listed.
int proc_fdlist(pid_t pid, int* fds, int capacity);
int proc_fdlist_at(const char* root, pid_t pid, int* fds, int capacity);

// Counts the descriptors of `pid`, and with the pointers (either may be null) the sockets and pipes among
// them. A pipe counts only when its link is "pipe:[" and nothing else, which no kernel writes; deliberate.
// When a descriptor vanishes in the middle, the scan starts again and goes on counting from where it was.
int proc_nr_fd2(pid_t pid, int* sockets, int* pipes);
int proc_nr_fd2_at(const char* root, pid_t pid, int* sockets, int* pipes);

// How often proc_nr_fd2 starts again; after that, descriptors whose link can't be read count as nothing more
// than descriptors.
constexpr int proc_fd_restarts = 100;

// Reads up to `len` bytes of the memory of `pid` from `offset`. Returns the bytes read; -1 when the memory
// can't be opened or not even its first byte read. The caller must be allowed to trace the process.
ssize_t proc_mem_pread(pid_t pid, void* buf, unsigned len, int64_t offset);
