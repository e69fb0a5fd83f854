// The endpoint text of a socket.
//
//   TCP over IPv4  "[127.0.0.1:80 -> 10.0.0.7:40312][TCP_ESTABLISHED]"
//   TCP over IPv6  "[0:0:0:0:0:ffff:7f00:1:80 -> 0:0:0:0:0:ffff:7f00:1:40312][TCP_ESTABLISHED]", all groups
//                  written out, the port after one more ':'
//   Unix           "[/run/name]", the path as the table lists it; empty for a socket without a path
#pragma once

#include <stddef.h>

#include "proc/socket_table.h"

// Writes the row's endpoint text into `buf` (`len` bytes, ends in a NUL, cut if it is longer) and returns the
// length of the whole text. 0, with `buf` unchanged, for a Unix socket without a path.
int socket_row_text(const socket_row& row, char* buf, size_t len);
