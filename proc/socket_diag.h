// Asking the kernel about one socket, where reading a whole table would take long. Layouts: sock_diag(7).
#pragma once

#include "common/unique_fd.h"
#include "proc/proc_socket.h"

// A connection to the kernel's socket diagnosis; empty where there is none.
unique_fd socket_diag_open();

enum class socket_answer : uint8_t {
    unknown,  // no answer, or not this socket: the tables have to be read
    found,
};

// Asks for the socket that `row` (of a TCP table) describes. `found` when the very inode answers at the row's
// addresses; the row's state is then brought up to date.
socket_answer socket_diag_refresh_tcp(int diag_fd, socket_row* row);

// Asks for the Unix socket with the row's inode; `found` brings its path up to date.
socket_answer socket_diag_refresh_unix(int diag_fd, socket_row* row);

// Calls `add` with every socket of a TCP table that has an inode. False when the kernel did not list them
// all.
bool socket_diag_list_tcp(int diag_fd, socket_row::table table,
                          void (*add)(void* context, const socket_row& row), void* context);
