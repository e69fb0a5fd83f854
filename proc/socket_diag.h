// Asks the kernel about single sockets, which is faster than reading a long table. Layouts: sock_diag(7).
#pragma once

#include "common/unique_fd.h"
#include "proc/socket_table.h"

// Opens a netlink socket for socket diagnosis; empty if the kernel has none.
unique_fd socket_diag_open();

// Asks about the socket that `row` (of a TCP table) describes, and updates the row's state. False, with
// `*row` unchanged, if there is no answer or if the socket at the row's addresses has another inode. The
// tables must then be read.
bool socket_diag_refresh_tcp(int diag_fd, socket_row* row);

// Asks about the Unix socket with the row's inode, and updates the row's path. False as above.
bool socket_diag_refresh_unix(int diag_fd, socket_row* row);

// Calls `add` with every socket of a TCP table that has an inode. False if the list is incomplete.
bool socket_diag_list_tcp(int diag_fd, socket_row::table table,
                          void (*add)(void* context, const socket_row& row), void* context);
