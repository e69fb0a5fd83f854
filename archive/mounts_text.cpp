#include "archive/mounts_text.h"

#include <errno.h>
#include <mntent.h>
#include <stdint.h>
#include <stdio.h>

#include <iterator>

#include "monitor/rtrace_asker.h"

namespace {

constexpr size_t mount_line_size = 4096;

void add_name(heap_text* text, const char* name) {
    for (; *name; name++) {
        const unsigned char c = static_cast<unsigned char>(*name);
        heap_text_print(text, c <= ' ' || c == '\\' ? "\\%03o" : "%c", c);
    }
    heap_text_print(text, " ");
}

constexpr char block_names[][10] = {"total", "used", "available"};

void add_usage(heap_text* text, const struct statfs& usage) {
    const auto size = static_cast<unsigned>(usage.f_frsize != 0 ? usage.f_frsize : usage.f_bsize);
    const uint64_t blocks[] = {usage.f_blocks, usage.f_blocks - usage.f_bfree, usage.f_bavail};
    for (size_t i = 0; i < std::size(blocks); i++) {
        heap_text_print(text, "%s_kib %llu ", block_names[i],
                        static_cast<unsigned long long>(blocks[i] * size >> 10));
    }
    heap_text_print(text, "inodes_free %llu\n", static_cast<unsigned long long>(usage.f_ffree));
}

}  // namespace

int mounts_text_add(heap_text* text, const char* path, int (*statfs_call)(const char*, struct statfs*),
                    int client_fd) {
    FILE* file = setmntent(path, "re");
    if (!file) {
        return errno;
    }
    rtrace_mounts mounts = {nullptr, statfs_call};
    mntent entry;
    char strings[mount_line_size];
    int error = 0;
    while (error == 0 && getmntent_r(file, &entry, strings, sizeof strings)) {
        for (const char* name : {entry.mnt_fsname, entry.mnt_dir, entry.mnt_type, entry.mnt_opts}) {
            add_name(text, name);
        }
        struct statfs usage;
        const rtrace_answer answer =
            rtrace_ask_mount(mounts, entry.mnt_fsname, entry.mnt_dir, client_fd, &usage);
        if (answer == rtrace_answer::usage) {
            add_usage(text, usage);
        } else {
            heap_text_print(text, "not answering\n");
        }
        if (answer == rtrace_answer::client_gone) {
            error = EPIPE;
        } else if (text->bytes.length > text->limit / 2) {
            error = EFBIG;
        }
    }
    endmntent(file);
    rtrace_forget_mounts(mounts);
    return error;
}
