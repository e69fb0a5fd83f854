// Parses any bytes as lines of a socket table: the row is within its limits, and its text is complete or cut,
// and stays within its buffer.
#include <stdint.h>
#include <string.h>

#include <string_view>

#include "proc/socket_table.h"
#include "proc/socket_text.h"
#include "tests/fuzz/require.h"

namespace {

void check_text(const socket_row& row, size_t size) {
    char buf[256];
    memset(buf, '#', sizeof buf);
    int length = socket_row_text(row, buf, size);
    require(length >= 0 && buf[size] == '#');
    if (length > 0 && size > 0) {
        size_t shown = strnlen(buf, size);
        require(shown < size);
        require(static_cast<size_t>(length) < size ? shown == static_cast<size_t>(length)
                                                   : shown == size - 1);
        require(buf[0] == '[' || size == 1);
    }
}

void check_line(socket_row::table table, std::string_view line) {
    socket_row row;
    unsigned long inode = 0;
    bool has_inode = socket_parse_inode(table, line, &inode);
    require(socket_parse_line(table, line, &row) == has_inode);
    if (has_inode) {
        require(row.inode == inode && row.from == table);
        require(strnlen(row.path, sizeof row.path) < sizeof row.path && !strchr(row.path, '\n'));
        for (size_t size : {0, 1, 2, 20, 60, 255}) {
            check_text(row, size);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    while (!rest.empty()) {
        std::string_view line =
            rest.substr(0, rest.find('\n') == rest.npos ? rest.size() : rest.find('\n') + 1);
        rest.remove_prefix(line.size());
        for (auto table :
             {socket_row::table::tcp4, socket_row::table::tcp6, socket_row::table::unix_domain}) {
            check_line(table, line);
        }
    }
    return 0;
}
