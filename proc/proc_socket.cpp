#include "proc/proc_socket.h"

#include "proc/socket_table.h"
#include "proc/socket_text.h"

int proc_skinfo_lookup(pid_t /*pid*/, unsigned long inode, char* buf, size_t len) {
    return proc_skinfo_lookup_at("/proc", inode, buf, len);
}

int proc_skinfo_lookup_at(const char* root, unsigned long inode, char* buf, size_t len) {
    using enum socket_row::table;
    for (socket_row::table table : {tcp4, tcp6, unix_domain}) {
        socket_row row;
        size_t lines = 0;
        if (socket_table_find(root, table, inode, &row, &lines)) {
            return socket_row_text(row, buf, len);
        }
    }
    return 0;
}
