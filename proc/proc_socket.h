// The endpoints of a socket, found by its inode in the kernel's socket tables (socket_table.h).
#pragma once

#include <stddef.h>
#include <sys/types.h>

// Searches net/tcp, net/tcp6 and net/unix, in this order, for socket `inode`, and writes its endpoint text
// (socket_text.h) into `buf` (`len` bytes, ends in a NUL, cut if it is longer). Returns the length of the
// whole text. 0, with `buf` unchanged, if no table lists the socket or if it is a Unix socket without a path.
// The pid is not used.
int proc_skinfo_lookup(pid_t pid, unsigned long inode, char* buf, size_t len);
int proc_skinfo_lookup_at(const char* root, unsigned long inode, char* buf, size_t len);
