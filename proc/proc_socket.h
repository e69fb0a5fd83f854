// The endpoints of a socket, found by its inode in the kernel's socket tables.
//
// Endpoint texts:
//   TCP over IPv4  "[127.0.0.1:80 -> 10.0.0.7:40312][TCP_ESTABLISHED]"
//   TCP over IPv6  "[0:0:0:0:0:ffff:7f00:1:80 -> 0:0:0:0:0:ffff:7f00:1:40312][TCP_ESTABLISHED]", all groups
//                  written out, the port behind one more ':'
//   Unix           "[/run/name]", the path as the table lists it; nothing for a socket without one
//
// Searched are net/tcp, net/tcp6 and net/unix below the root, in this order, as the reader's own network
// sees them. Columns stand at the fixed places where the kernel has them; a line is taken in pieces of at
// most 255 bytes, each as good as a line.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <string_view>

// Writes the endpoint text of socket `inode` into `buf` (`len` bytes, ended by a NUL, cut when it is longer)
// and returns the length that the whole text has. 0, with `buf` untouched, when no table has the socket or
// when it is a Unix socket without a path. The pid is not used.
int proc_skinfo_lookup(pid_t pid, unsigned long inode, char* buf, size_t len);
int proc_skinfo_lookup_at(const char* root, unsigned long inode, char* buf, size_t len);

// One line of a table.
struct socket_row {
    enum class table : uint8_t { tcp4, tcp6, unix_domain };
    table from = table::tcp4;
    uint8_t state = 0;  // TCP's, as the kernel numbers it
    uint16_t local_port = 0;
    uint16_t remote_port = 0;
    unsigned long inode = 0;
    uint32_t local[4] = {};  // the words as the table prints them; IPv4 has one
    uint32_t remote[4] = {};
    char path[110] = "";  // of a Unix socket, ended by a NUL
    bool has_path = false;
};

// Understands one line; false when it has no inode where the table has its inodes. Column headers are lines
// like any other and parse as inode 0.
bool socket_parse_line(socket_row::table table, std::string_view line, socket_row* row);

// The inode alone, the cheap half of the above; false in the same cases.
bool socket_parse_inode(socket_row::table table, std::string_view line, unsigned long* inode);

// Writes the row's endpoint text as described for proc_skinfo_lookup.
int socket_row_text(const socket_row& row, char* buf, size_t len);

// Remembers what the tables said, for who looks up many sockets: a remembered row is used only after the
// kernel has confirmed, for this one socket, that it is still there and in which state, so that the text is
// the one that reading the tables would give. Not for two threads at once.
struct socket_cache;
struct socket_cache_closer {
    void operator()(socket_cache* cache) const;
};
using unique_socket_cache = std::unique_ptr<socket_cache, socket_cache_closer>;
unique_socket_cache socket_cache_new();

// proc_skinfo_lookup for the socket that the link `fd_path` (/proc/PID/fd/N) leads to.
int socket_cache_lookup(socket_cache* cache, const char* fd_path, unsigned long inode, char* buf, size_t len);
