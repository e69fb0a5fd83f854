// Asks the kernel about single sockets, which is faster than reading a long table. Layouts: sock_diag(7).
#pragma once

#include "common/unique_fd.h"
#include "proc/socket_table.h"

// Opens a netlink socket for socket diagnosis; empty if the kernel has none.
unique_fd socket_diag_open();

enum class socket_answer : uint8_t {
    unknown,  // no answer, or another socket: the tables must be read
    found,
};

// Asks about the socket that `row` (of a TCP table) describes. `found` if the socket at the row's addresses
// has the row's inode; the row's state is then updated.
socket_answer socket_diag_refresh_tcp(int diag_fd, socket_row* row);

// Asks about the Unix socket with the row's inode. If found, updates the row's path.
socket_answer socket_diag_refresh_unix(int diag_fd, socket_row* row);

// Calls `add` with every socket of a TCP table that has an inode. False if the list is incomplete.
bool socket_diag_list_tcp(int diag_fd, socket_row::table table,
                          void (*add)(void* context, const socket_row& row), void* context);
