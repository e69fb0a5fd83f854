#include "proc/socket_table.h"

#include <ctype.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "common/ascii.h"
#include "common/unique_fd.h"

namespace {

constexpr size_t line_size = 255;  // longest piece that counts as one line
constexpr size_t read_size = 16384;

using table_kind = socket_row::table;

// Below the root, indexed by table.
constexpr const char* table_files[] = {"net/tcp", "net/tcp6", "net/unix"};

// Positions of the columns in a TCP table.
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

// The hexadecimal number in at most `digits` characters from `column`; 0 if there is none.
uint32_t hex_at(std::string_view line, size_t column, size_t digits) {
    uint32_t value = 0;
    for (size_t i = column; i < line.size() && i < column + digits; i++) {
        const int digit = ascii_hex_value(line[i]);
        if (digit < 0) {
            break;
        }
        value = value << 4 | static_cast<uint32_t>(digit);
    }
    return value;
}

// Reads a decimal number after any blanks and sets `*end` to the position after it. 0 if there is no number.
unsigned long decimal_at(std::string_view line, size_t column, size_t* end) {
    while (column < line.size() && is_ascii_blank(line[column])) {
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

// The column of the inode in a line of the Unix table; npos if the line has too few fields.
size_t unix_inode_column(std::string_view line) {
    size_t at = 0;
    for (int field = 0; field < unix_fields_before_inode; field++) {
        while (at < line.size() && !is_ascii_blank(line[at])) {
            at++;
        }
        while (at < line.size() && is_ascii_blank(line[at])) {
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

// Reads a table line by line, in large blocks.
class line_reader {
public:
    line_reader(const char* root, const char* file) {
        char path[256];
        int length = snprintf(path, sizeof path, "%s/%s", root, file);
        if (length > 0 && static_cast<size_t>(length) < sizeof path) {
            fd_.reset(open(path, O_RDONLY | O_CLOEXEC));
        }
    }

    // The next line with its newline, or the next 255 bytes of a longer line. Valid until the next call.
    bool next(std::string_view* line) {
        for (;;) {
            std::string_view have(buffer_ + begin_, end_ - begin_);
            size_t newline = have.substr(0, line_size).find('\n');
            size_t length = newline != have.npos ? newline + 1 : std::min(have.size(), line_size);
            if (newline != have.npos || length == line_size || (ended_ && length > 0)) {
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
        memmove(buffer_, buffer_ + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        ssize_t got = fd_ ? read(fd_.get(), buffer_ + end_, sizeof buffer_ - end_) : 0;
        end_ += got > 0 ? static_cast<size_t>(got) : 0;
        return got > 0;
    }

    unique_fd fd_;
    size_t begin_ = 0;
    size_t end_ = 0;
    bool ended_ = false;
    char buffer_[read_size];
};

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

bool socket_table_find(const char* root, socket_row::table table, unsigned long inode, socket_row* row,
                       size_t* lines) {
    line_reader reader(root, table_files[static_cast<size_t>(table)]);
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
