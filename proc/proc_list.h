// The machine's processes: their pids, names, parents and states.
//
// Everything is read from a proc file system at the time of the call; arrays and buffers are the caller's,
// and nothing is allocated or kept. A process that vanishes between two reads yields no name and no parent.
// Layout of the files: proc(5).
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <atomic>

// A process that proc_list leaves out besides the caller's own; -1 for none.
extern std::atomic<pid_t> proc_extra_ignore_pid;

// Fills `pids` with at most `capacity` processes in directory order, without pid 1, `skip_pid`,
// proc_extra_ignore_pid, the caller and the caller's parent. Returns how many were stored; 0 if /proc
// cannot be opened.
int proc_list(pid_t* pids, int capacity, pid_t skip_pid);

// The same for a proc file system mounted at `root`.
int proc_list_at(const char* root, pid_t* pids, int capacity, pid_t skip_pid);

// Overwrites the first entry in [first, end) that equals `pid` with -1.
void proc_plist_remove_pid(pid_t* pids, int first, int end, pid_t pid);

// Writes the short name of `pid` into `buf` (`len` bytes, ends in a NUL): the text after the last '/' of the
// first command-line argument or, if there is none, the command field of the stat line. Returns 1, or 0 if
// there is no name; the buffer's content is then undefined.
//
// Both reads use this buffer. If the stat file is gone when it is to be read, the result of the first read is
// parsed instead; this is deliberate.
int proc_get_pidname(pid_t pid, char* buf, size_t len);
int proc_get_pidname_at(const char* root, pid_t pid, char* buf, size_t len);

// The parent of `pid`, or -1 if there is no such process. The stat line is split at white space, so a
// command name with blanks gives a wrong answer; this is accepted.
pid_t proc_ppid(pid_t pid);
pid_t proc_ppid_at(const char* root, pid_t pid);

// The letter of the state of `pid` (proc(5), "stat"); 0 if there is no such process.
char proc_state(pid_t pid);

// 1 if the process has no executable link: a kernel thread, or a process that is gone or may not be examined.
// Else 0.
int proc_is_kernel_thread(pid_t pid);
int proc_is_kernel_thread_at(const char* root, pid_t pid);

// Stores at most `capacity` processes whose short name equals `name` exactly and sets `*count` to their
// number.
void proc_find_pid_by_name(const char* root, const char* name, pid_t* pids, int* count, int capacity);

// Reads at most `len` bytes from `path` with one read. Returns its result, or -1 if the file cannot be
// opened. Does not terminate the buffer.
ssize_t read_file_once(const char* path, void* buf, size_t len);
