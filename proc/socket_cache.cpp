#include "proc/socket_cache.h"

#include <stdlib.h>
#include <string.h>
#include <sys/xattr.h>

#include <algorithm>
#include <new>
#include <span>
#include <string_view>

#include "common/proc_path.h"
#include "common/unique_fd.h"
#include "proc/proc_socket.h"
#include "proc/socket_diag.h"
#include "proc/socket_text.h"

namespace {

using table_kind = socket_row::table;

// Asking the kernel is faster than reading a table of this many lines or more. While all tables are shorter,
// no netlink socket is opened.
constexpr size_t lines_worth_asking = 16;

// The table that can list a socket, by its protocol name (an extended attribute of its inode). Sockets of
// other protocols are searched in all tables.
constexpr struct {
    std::string_view protocol;
    bool listed;
    table_kind table;
} listings[] = {
    {"TCP", true, table_kind::tcp4},
    {"TCPv6", true, table_kind::tcp6},
    {"UNIX", true, table_kind::unix_domain},
    {"UNIX-STREAM", true, table_kind::unix_domain},
    {"UDP", false, {}},
    {"UDPv6", false, {}},
    {"NETLINK", false, {}},
    {"PACKET", false, {}},
};

std::string_view protocol_of(const char* fd_path, char* buffer, size_t size) {
    ssize_t length = getxattr(fd_path, "system.sockprotoname", buffer, size);
    // The length includes the name's NUL.
    return length > 0 ? std::string_view(buffer, strnlen(buffer, static_cast<size_t>(length)))
                      : std::string_view();
}

// What is remembered of a TCP socket: enough to ask the kernel about it.
struct known_socket {
    unsigned long inode;
    socket_row::table from;
    uint16_t local_port;
    uint16_t remote_port;
    uint32_t local[4];
    uint32_t remote[4];
};

}  // namespace

struct socket_cache {
    bool worth_asking = false;
    bool tried = false;
    unique_fd diag;
    malloc_array<known_socket> sockets;  // sorted by inode, all of one table
    size_t count = 0;
    size_t capacity = 0;
    bool complete = false;  // false if memory ran out while listing

    std::span<known_socket> known() const { return {sockets.get(), count}; }
};

namespace {

// Remembers a socket. If memory runs out, the socket is skipped and the list is incomplete.
void remember(void* context, const socket_row& row) {
    socket_cache* cache = static_cast<socket_cache*>(context);
    if (cache->count == cache->capacity) {
        size_t larger = cache->capacity + cache->capacity / 2 + 64;
        void* grown = realloc(cache->sockets.get(), larger * sizeof(known_socket));
        if (!grown) {
            cache->complete = false;
            return;
        }
        (void)cache->sockets.release();
        cache->sockets.reset(static_cast<known_socket*>(grown));
        cache->capacity = larger;
    }
    known_socket* added = cache->sockets.get() + cache->count++;
    *added = {row.inode, row.from, row.local_port, row.remote_port, {}, {}};
    std::ranges::copy(row.local, added->local);
    std::ranges::copy(row.remote, added->remote);
}

socket_row recall(const known_socket& known) {
    socket_row row;
    row.inode = known.inode;
    row.from = known.from;
    row.local_port = known.local_port;
    row.remote_port = known.remote_port;
    std::ranges::copy(known.local, row.local);
    std::ranges::copy(known.remote, row.remote);
    return row;
}

// Whether asking the kernel is possible and worth it. Opens the netlink socket on first use.
bool can_ask(socket_cache* cache) {
    if (cache->worth_asking && !cache->tried) {
        cache->tried = true;
        cache->diag = socket_diag_open();
    }
    return static_cast<bool>(cache->diag);
}

const known_socket* find_known(const socket_cache* cache, unsigned long inode) {
    std::span<known_socket> known = cache->known();
    auto found = std::ranges::lower_bound(known, inode, {}, &known_socket::inode);
    return found == known.end() || found->inode != inode ? nullptr : &*found;
}

// Fills `row` with the current state of a remembered socket. False if it is not remembered or is gone.
bool ask_for_known(const socket_cache* cache, unsigned long inode, socket_row* row) {
    const known_socket* known = find_known(cache, inode);
    if (!known) {
        return false;
    }
    *row = recall(*known);
    return socket_diag_refresh_tcp(cache->diag.get(), row);
}

int by_inode(const void* left, const void* right) {
    const unsigned long inodes[] = {static_cast<const known_socket*>(left)->inode,
                                    static_cast<const known_socket*>(right)->inode};
    return inodes[0] < inodes[1] ? -1 : inodes[0] > inodes[1];
}

// Replaces the remembered sockets by the kernel's list of a TCP table. False if the list fails or memory runs
// out.
bool list_sockets(socket_cache* cache, table_kind table) {
    cache->count = 0;
    cache->complete = true;
    bool listed = socket_diag_list_tcp(cache->diag.get(), table, remember, cache);
    if (!listed) {
        cache->diag = socket_diag_open();  // unread parts of the list would be taken for later answers
    }
    if (cache->count > 1) {  // std::sort would be 1.5 KiB of code
        qsort(cache->sockets.get(), cache->count, sizeof(known_socket), by_inode);
    }
    return listed && cache->complete;
}

// Searches one table file.
bool read_table(socket_cache* cache, table_kind table, unsigned long inode, socket_row* row) {
    size_t lines = 0;
    bool found = socket_table_find(proc_root, table, inode, row, &lines);
    cache->worth_asking = cache->worth_asking || lines >= lines_worth_asking;
    return found;
}

// Finds a socket that is not remembered, in the one table that can list it.
bool find_now(socket_cache* cache, table_kind table, unsigned long inode, socket_row* row) {
    if (!can_ask(cache)) {
        return read_table(cache, table, inode, row);
    }
    if (table == table_kind::unix_domain) {
        row->inode = inode;
        row->from = table;
        return socket_diag_refresh_unix(cache->diag.get(), row) || read_table(cache, table, inode, row);
    }
    if (!list_sockets(cache, table)) {
        return read_table(cache, table, inode, row);
    }
    if (!find_known(cache, inode)) {
        return false;  // neither connected nor listening
    }
    // Sockets that share a port or are bound to a device cannot be told apart by their endpoints.
    return ask_for_known(cache, inode, row) || read_table(cache, table, inode, row);
}

}  // namespace

void socket_cache_closer::operator()(socket_cache* cache) const {
    cache->~socket_cache();
    free(cache);
}

unique_socket_cache socket_cache_new() {
    void* memory = malloc(sizeof(socket_cache));  // new would end the program when memory runs out
    return unique_socket_cache(memory ? new (memory) socket_cache : nullptr);
}

int socket_cache_lookup(socket_cache* cache, const char* fd_path, unsigned long inode, char* buf,
                        size_t len) {
    socket_row row;
    if (ask_for_known(cache, inode, &row)) {
        return socket_row_text(row, buf, len);
    }
    char name[32];
    std::string_view protocol = protocol_of(fd_path, name, sizeof name);
    for (const auto& listing : listings) {
        if (listing.protocol == protocol) {
            bool found = listing.listed && find_now(cache, listing.table, inode, &row);
            return found ? socket_row_text(row, buf, len) : 0;
        }
    }
    return proc_skinfo_lookup_at(proc_root, inode, buf, len);
}
