// The kernel's socket tables: net/tcp, net/tcp6 and net/unix below a proc root, as the reader's own network
// namespace sees them. Layout: proc(5); the columns of the TCP tables have fixed positions. A line longer
// than 255 bytes is taken as several lines.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

// One line of a table.
struct socket_row {
    enum class table : uint8_t { tcp4, tcp6, unix_domain };
    table from = table::tcp4;
    uint8_t state = 0;  // of TCP, in the kernel's numbers
    uint16_t local_port = 0;
    uint16_t remote_port = 0;
    unsigned long inode = 0;
    uint32_t local[4] = {};  // the words as the table prints them; IPv4 has one
    uint32_t remote[4] = {};
    char path[110] = "";  // of a Unix socket, ends in a NUL
    bool has_path = false;
};

// Parses one line. False if the line has nothing in the inode's column. Column headers are lines like any
// other and parse as inode 0.
bool socket_parse_line(socket_row::table table, std::string_view line, socket_row* row);

// Parses the inode alone, which is cheaper. False in the same cases.
bool socket_parse_inode(socket_row::table table, std::string_view line, unsigned long* inode);

// Searches one table below `root` for `inode` and fills `row`. False if the table does not list it or cannot
// be read. Adds the number of lines read to `*lines`.
bool socket_table_find(const char* root, socket_row::table table, unsigned long inode, socket_row* row,
                       size_t* lines);
