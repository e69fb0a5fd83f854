#include "monitor/rtrace_disks.h"

#include <limits.h>
#include <mntent.h>
#include <stdarg.h>
#include <stdio.h>

#include <algorithm>
#include <memory>
#include <string_view>

namespace {

constexpr size_t mount_line_size = 4096;

bool is_remote(const mntent& entry) {
    std::string_view source = entry.mnt_fsname;
    std::string_view kind = entry.mnt_type;
    return source.find(':') != std::string_view::npos ||
           (source.starts_with("//") && (kind == "smbfs" || kind == "cifs"));
}

long kib_of(uint64_t blocks, uint64_t block_size) {
    return static_cast<long>(static_cast<uint32_t>(blocks) * static_cast<uint32_t>(block_size) / 1024);
}

// The text of the table, in the data of a record.
struct table {
    char* text;
    size_t size = 0;

    bool is_full() const { return size == rtrace_data_capacity; }

    // Like printf. Text that does not fit is cut.
    [[gnu::format(printf, 2, 3)]] void append(const char* format, ...) {
        size_t left = rtrace_data_capacity - size;
        va_list values;
        va_start(values, format);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line before makes it
        int length = vsnprintf(text + size, left + 1, format, values);
        va_end(values);
        if (length > 0) {
            size += std::min(left, static_cast<size_t>(length));
        }
    }
};

struct mounts_closer {
    void operator()(FILE* file) const { endmntent(file); }
};
using unique_mounts_file = std::unique_ptr<FILE, mounts_closer>;

unique_mounts_file open_mounts(const char* root) {
    char path[PATH_MAX];
    int length = snprintf(path, sizeof path, "%s/proc/mounts", root);
    bool fits = length > 0 && static_cast<size_t>(length) < sizeof path;
    return unique_mounts_file(fits ? setmntent(path, "r") : nullptr);
}

// False if the client closed its side.
bool append_mounts(table& table, rtrace_mounts& mounts, FILE* file, int client_fd) {
    mntent entry;
    char strings[mount_line_size];
    while (!table.is_full() && getmntent_r(file, &entry, strings, sizeof strings)) {
        struct statfs usage;
        rtrace_answer found =
            is_remote(entry) ? rtrace_answer::none
                             : rtrace_ask_mount(mounts, entry.mnt_fsname, entry.mnt_dir, client_fd, &usage);
        if (found == rtrace_answer::client_gone) {
            return false;
        }
        if (found == rtrace_answer::usage) {
            uint64_t block_size = static_cast<uint64_t>(usage.f_bsize);
            table.append("%-20s\t%ld\t%ld\t%s\n", entry.mnt_fsname,
                         kib_of(usage.f_blocks - usage.f_bfree, block_size),
                         kib_of(usage.f_bavail, block_size), entry.mnt_dir);
        }
    }
    return true;
}

}  // namespace

bool rtrace_sample_disks(const rtrace_sink& sink, rtrace_mounts& mounts, const char* root) {
    table table{rtrace_data(sink)};
    table.append("%-20s\tUsed\tAvail\tMounted on\n", "Filesystem");
    unique_mounts_file file = open_mounts(root);
    return (!file || append_mounts(table, mounts, file.get(), sink.fd)) &&
           rtrace_write_data(sink, rtrace_type_diskinfo, rtrace_no_pid, static_cast<unsigned>(table.size), 0);
}
