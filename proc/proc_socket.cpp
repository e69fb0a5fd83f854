#include "proc/proc_socket.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <span>

#include "common/unique_fd.h"
#include "proc/socket_diag.h"

namespace {

constexpr const char* default_root = "/proc";
constexpr size_t line_room = 255;  // bytes that count as one line
constexpr size_t read_room = 16384;

using table_kind = socket_row::table;

constexpr const char* state_names[] = {
    "DESTROYED",     "TCP_ESTABLISHED", "TCP_SYN_SENT",   "TCP_SYN_RECV", "TCP_FIN_WAIT1", "TCP_FIN_WAIT2",
    "TCP_TIME_WAIT", "TCP_CLOSE",       "TCP_CLOSE_WAIT", "TCP_LAST_ACK", "TCP_LISTEN",    "TCP_CLOSING",
};
static_assert(std::size(state_names) == 12);
constexpr const char* unnamed_state = "(null)";

const char* state_name(unsigned state) {
    return state < std::size(state_names) ? state_names[state] : unnamed_state;
}

// Where a TCP table has its columns.
struct tcp_columns {
    size_t local, local_port, remote, remote_port, state, inode;
    size_t words;  // of an address
};
constexpr tcp_columns columns4 = {6, 15, 20, 29, 34, 91, 1};
constexpr tcp_columns columns6 = {6, 39, 44, 77, 82, 139, 4};
constexpr size_t word_digits = 8;
constexpr size_t port_digits = 4;
constexpr size_t state_digits = 2;
constexpr int unix_fields_before_inode = 6;

// A table by its place below the root.
constexpr struct {
    table_kind kind;
    const char* file;
} tables[] = {
    {table_kind::tcp4, "net/tcp"},
    {table_kind::tcp6, "net/tcp6"},
    {table_kind::unix_domain, "net/unix"},
};

// The hexadecimal number in at most `digits` characters from `column`; 0 when there is none.
uint32_t hex_at(std::string_view line, size_t column, size_t digits) {
    uint32_t value = 0;
    for (size_t i = column; i < line.size() && i < column + digits; i++) {
        unsigned char c = static_cast<unsigned char>(line[i]);
        if (!isxdigit(c)) {
            break;
        }
        value = value << 4 | static_cast<uint32_t>(isdigit(c) ? c - '0' : tolower(c) - 'a' + 10);
    }
    return value;
}

// Reads a decimal number, blanks before it allowed, and sets `*end` to the place behind it; 0 when there is
// none.
unsigned long decimal_at(std::string_view line, size_t column, size_t* end) {
    while (column < line.size() && isspace(static_cast<unsigned char>(line[column]))) {
        column++;
    }
    unsigned long value = 0;
    while (column < line.size() && isdigit(static_cast<unsigned char>(line[column]))) {
        value = value * 10 + static_cast<unsigned long>(line[column++] - '0');
    }
    *end = column;
    return value;
}

const tcp_columns& columns_of(table_kind table) {
    return table == table_kind::tcp4 ? columns4 : columns6;
}

// The column of the inode in a line of the Unix table; npos when the line has too few fields.
size_t unix_inode_column(std::string_view line) {
    size_t at = 0;
    for (int field = 0; field < unix_fields_before_inode; field++) {
        while (at < line.size() && !isspace(static_cast<unsigned char>(line[at]))) {
            at++;
        }
        while (at < line.size() && isspace(static_cast<unsigned char>(line[at]))) {
            at++;
        }
    }
    return at < line.size() ? at : std::string_view::npos;
}

size_t inode_column(table_kind table, std::string_view line) {
    if (table == table_kind::unix_domain) {
        return unix_inode_column(line);
    }
    size_t column = columns_of(table).inode;
    return column < line.size() ? column : std::string_view::npos;
}

void parse_tcp(std::string_view line, const tcp_columns& columns, socket_row* row) {
    for (size_t word = 0; word < columns.words; word++) {
        row->local[word] = hex_at(line, columns.local + word * word_digits, word_digits);
        row->remote[word] = hex_at(line, columns.remote + word * word_digits, word_digits);
    }
    row->local_port = static_cast<uint16_t>(hex_at(line, columns.local_port, port_digits));
    row->remote_port = static_cast<uint16_t>(hex_at(line, columns.remote_port, port_digits));
    row->state = static_cast<uint8_t>(hex_at(line, columns.state, state_digits));
}

void parse_unix_path(std::string_view rest, socket_row* row) {
    row->has_path = !rest.empty() && rest[0] != '\n';
    if (row->has_path) {
        rest.remove_prefix(1);
        rest = rest.substr(0, rest.find('\n'));
        row->path[rest.copy(row->path, sizeof row->path - 1)] = '\0';
    }
}

// A table as a sequence of lines, read in large pieces.
class line_reader {
public:
    line_reader(const char* root, const char* file) {
        char path[256];
        int length = snprintf(path, sizeof path, "%s/%s", root, file);
        if (length > 0 && static_cast<size_t>(length) < sizeof path) {
            fd_.reset(open(path, O_RDONLY | O_CLOEXEC));
        }
    }

    // The next line with its newline, or 255 bytes of a longer one. Valid until the next call.
    bool next(std::string_view* line) {
        for (;;) {
            std::string_view have(room_ + begin_, end_ - begin_);
            size_t newline = have.substr(0, line_room).find('\n');
            size_t length = newline != have.npos ? newline + 1 : std::min(have.size(), line_room);
            if (newline != have.npos || length == line_room || (ended_ && length > 0)) {
                *line = have.substr(0, length);
                begin_ += length;
                return true;
            }
            if (ended_ || !fill()) {
                if (begin_ == end_) {
                    return false;
                }
                ended_ = true;
            }
        }
    }

private:
    bool fill() {
        memmove(room_, room_ + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        ssize_t got = fd_ ? read(fd_.get(), room_ + end_, sizeof room_ - end_) : 0;
        end_ += got > 0 ? static_cast<size_t>(got) : 0;
        return got > 0;
    }

    unique_fd fd_;
    size_t begin_ = 0;
    size_t end_ = 0;
    bool ended_ = false;
    char room_[read_room];
};

const char* file_of(table_kind table) {
    return tables[static_cast<size_t>(table)].file;
}

// Searches one table from its start and counts the lines that this takes.
bool find_in_table(const char* root, table_kind table, unsigned long inode, socket_row* row, size_t* lines) {
    line_reader reader(root, file_of(table));
    std::string_view line;
    while (reader.next(&line)) {
        ++*lines;
        unsigned long found;
        if (socket_parse_inode(table, line, &found) && found == inode) {
            return socket_parse_line(table, line, row);
        }
    }
    return false;
}

int tcp4_text(const socket_row& row, char* buf, size_t len) {
    char local[INET_ADDRSTRLEN];
    char remote[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &row.local[0], local, sizeof local);
    inet_ntop(AF_INET, &row.remote[0], remote, sizeof remote);
    return snprintf(buf, len, "[%s:%d -> %s:%d][%s]", local, row.local_port, remote, row.remote_port,
                    state_name(row.state));
}

// The eight groups of an address, each with a ':' behind it.
int groups_text(const uint32_t (&words)[4], char* buf, size_t len) {
    uint16_t groups[8];
    for (size_t word = 0; word < std::size(words); word++) {
        uint32_t value = htonl(words[word]);
        groups[2 * word] = static_cast<uint16_t>(value >> 16);
        groups[2 * word + 1] = static_cast<uint16_t>(value);
    }
    return snprintf(buf, len, "%x:%x:%x:%x:%x:%x:%x:%x:", groups[0], groups[1], groups[2], groups[3],
                    groups[4], groups[5], groups[6], groups[7]);
}

int tcp6_text(const socket_row& row, char* buf, size_t len) {
    char local[48];
    char remote[48];
    groups_text(row.local, local, sizeof local);
    groups_text(row.remote, remote, sizeof remote);
    return snprintf(buf, len, "[%s%d -> %s%d][%s]", local, row.local_port, remote, row.remote_port,
                    state_name(row.state));
}

}  // namespace

bool socket_parse_inode(socket_row::table table, std::string_view line, unsigned long* inode) {
    size_t column = inode_column(table, line);
    if (column == std::string_view::npos) {
        return false;
    }
    size_t end;
    *inode = decimal_at(line, column, &end);
    return true;
}

bool socket_parse_line(socket_row::table table, std::string_view line, socket_row* row) {
    size_t column = inode_column(table, line);
    if (column == std::string_view::npos) {
        return false;
    }
    *row = {};
    row->from = table;
    size_t end;
    row->inode = decimal_at(line, column, &end);
    if (table == table_kind::unix_domain) {
        parse_unix_path(line.substr(end), row);
    } else {
        parse_tcp(line, columns_of(table), row);
    }
    return true;
}

int socket_row_text(const socket_row& row, char* buf, size_t len) {
    switch (row.from) {
        case table_kind::tcp4:
            return tcp4_text(row, buf, len);
        case table_kind::tcp6:
            return tcp6_text(row, buf, len);
        default:
            return row.has_path ? snprintf(buf, len, "[%s]", row.path) : 0;
    }
}

int proc_skinfo_lookup(pid_t /*pid*/, unsigned long inode, char* buf, size_t len) {
    return proc_skinfo_lookup_at(default_root, inode, buf, len);
}

int proc_skinfo_lookup_at(const char* root, unsigned long inode, char* buf, size_t len) {
    for (const auto& table : tables) {
        socket_row row;
        size_t lines = 0;
        if (find_in_table(root, table.kind, inode, &row, &lines)) {
            return socket_row_text(row, buf, len);
        }
    }
    return 0;
}

namespace {

// From this many lines on, asking the kernel beats reading a table. Where no table is that long, no
// connection to its socket diagnosis is opened.
constexpr size_t lines_worth_asking = 16;

// What a socket's protocol name, an extended attribute of its inode, says about where it can be listed.
// Sockets of other protocols are searched in all tables.
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

std::string_view protocol_of(const char* fd_path, char* room, size_t size) {
    ssize_t length = getxattr(fd_path, "system.sockprotoname", room, size);
    // The name is counted with the zero byte behind it.
    return length > 0 ? std::string_view(room, strnlen(room, static_cast<size_t>(length)))
                      : std::string_view();
}

// What is kept of a TCP socket: enough to ask the kernel for this one.
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
    unique_malloc<known_socket> sockets;  // sorted by inode, all of one table
    size_t count = 0;
    size_t capacity = 0;
    bool complete = false;  // whether there was memory for all of them

    std::span<known_socket> known() const { return {sockets.get(), count}; }
};

namespace {

// Adds a socket; one for which there is no memory is not remembered.
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

// Whether the kernel can be asked, and is worth asking.
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

// The row of a remembered socket, as the kernel says it is now; false when it is not known or not there any
// more.
bool ask_for_known(const socket_cache* cache, unsigned long inode, socket_row* row) {
    const known_socket* known = find_known(cache, inode);
    if (!known) {
        return false;
    }
    *row = recall(*known);
    return socket_diag_refresh_tcp(cache->diag.get(), row) == socket_answer::found;
}

// Has the kernel list a TCP table, and remembers it in place of what was known. False when it can't, or when
// there is no memory for all of it.
bool list_sockets(socket_cache* cache, table_kind table) {
    cache->count = 0;
    cache->complete = true;
    bool listed = socket_diag_list_tcp(cache->diag.get(), table, remember, cache);
    if (!listed) {
        cache->diag = socket_diag_open();  // what is left of the list would be taken for the next answers
    }
    std::ranges::sort(cache->known(), {}, &known_socket::inode);
    return listed && cache->complete;
}

// Reads one table as it is now.
bool read_table(socket_cache* cache, table_kind table, unsigned long inode, socket_row* row) {
    size_t lines = 0;
    bool found = find_in_table(default_root, table, inode, row, &lines);
    cache->worth_asking = cache->worth_asking || lines >= lines_worth_asking;
    return found;
}

// Finds a socket of which nothing is known but the table that it can be in.
bool find_now(socket_cache* cache, table_kind table, unsigned long inode, socket_row* row) {
    if (!can_ask(cache)) {
        return read_table(cache, table, inode, row);
    }
    if (table == table_kind::unix_domain) {
        row->inode = inode;
        row->from = table;
        return socket_diag_refresh_unix(cache->diag.get(), row) == socket_answer::found ||
               read_table(cache, table, inode, row);
    }
    if (!list_sockets(cache, table)) {
        return read_table(cache, table, inode, row);
    }
    if (!find_known(cache, inode)) {
        return false;  // neither connected nor listening
    }
    // Sockets that share a port, or are bound to a device, are not told apart by their ends.
    return ask_for_known(cache, inode, row) || read_table(cache, table, inode, row);
}

}  // namespace

void socket_cache_closer::operator()(socket_cache* cache) const {
    cache->~socket_cache();
    free(cache);
}

unique_socket_cache socket_cache_new() {
    void* memory = malloc(sizeof(socket_cache));  // new would end the program when there is none
    return unique_socket_cache(memory ? new (memory) socket_cache : nullptr);
}

int socket_cache_lookup(socket_cache* cache, const char* fd_path, unsigned long inode, char* buf,
                        size_t len) {
    socket_row row;
    if (ask_for_known(cache, inode, &row)) {
        return socket_row_text(row, buf, len);
    }
    char room[32];
    std::string_view protocol = protocol_of(fd_path, room, sizeof room);
    for (const auto& listing : listings) {
        if (listing.protocol == protocol) {
            bool found = listing.listed && find_now(cache, listing.table, inode, &row);
            return found ? socket_row_text(row, buf, len) : 0;
        }
    }
    return proc_skinfo_lookup_at(default_root, inode, buf, len);
}
