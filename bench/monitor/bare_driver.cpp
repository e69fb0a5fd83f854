// bench_bare ROUNDS [folders]: only the system calls that a round of the leak monitor needs, without records
// and scores.
//
// For each process, it reads the command line (its name), the descriptor folder with the link of each
// descriptor, and the stat line (its parent). With "folders", it only opens and lists the descriptor folders.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct linux_dirent64 {
    unsigned long long d_ino;
    long long d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[];
};

// Calls `work` with the name of each entry that begins with a digit.
template <typename Work>
void list(int folder, Work work) {
    alignas(linux_dirent64) char block[32768];
    for (long got; (got = syscall(SYS_getdents64, folder, block, sizeof block)) > 0;) {
        for (long at = 0; at < got;) {
            const linux_dirent64* entry = reinterpret_cast<const linux_dirent64*>(block + at);
            if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') {
                work(entry->d_name);
            }
            at += entry->d_reclen;
        }
    }
}

const char* path_of(const char* pid, const char* file) {
    static char path[128];
    char* end = static_cast<char*>(mempcpy(path, "/proc/", 6));
    end = stpcpy(stpcpy(stpcpy(end, pid), "/"), file);
    return path;
}

void read_once(const char* path) {
    char block[256];
    int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file >= 0) {
        (void)!read(file, block, sizeof block);
        close(file);
    }
}

void list_descriptors(const char* pid, bool with_links) {
    int folder = open(path_of(pid, "fd"), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        list(folder, [=](const char* name) {
            char link[128];
            if (with_links) {
                (void)!readlinkat(folder, name, link, sizeof link);
            }
        });
        close(folder);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool all = argc < 3;
    for (int i = argc > 1 ? atoi(argv[1]) : 1; i > 0; i--) {
        int proc = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        list(proc, [=](const char* pid) {
            if (all) {
                read_once(path_of(pid, "cmdline"));
            }
            list_descriptors(pid, all);
            if (all) {
                read_once(path_of(pid, "stat"));
            }
        });
        close(proc);
    }
    return 0;
}
