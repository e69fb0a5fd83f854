#include "archive/member_proc.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>

#include "archive/member_copy.h"
#include "archive/member_file.h"
#include "archive/output.h"
#include "common/time_stamp.h"
#include "common/unique_fd.h"

namespace {

// Memory images, and the kernel log: reading a line from it would remove that line from the system log.
constexpr const char* proc_skip_names[] = {"kcore", "vmcore", "kmem", "kmsg", nullptr};

constexpr const char* proc_snapshot_dirs[] = {
    "/proc/sys/",
    "/proc/sys/fs/",
    "/proc/sys/kernel/",
    "/proc/sys/kernel/random/",
    "/proc/sys/net/bridge/",
    "/proc/sys/net/core/",
    "/proc/sys/net/ipv4/",
    "/proc/sys/net/ipv4/conf/",
    "/proc/sys/net/ipv4/neigh/",
    "/proc/sys/net/ipv4/route/",
    "/proc/sys/net/ipv6/",
    "/proc/sys/net/ipv6/conf/",
    "/proc/sys/net/ipv6/icmp/",
    "/proc/sys/net/ipv6/neigh/",
    "/proc/sys/net/ipv6/route/",
    "/proc/sys/net/unix/",
    "/proc/sys/vm/",
    "/proc/driver/",
    "/proc/net/",
    "/proc/net/dev_snmp6/",
    "/proc/net/ip6t_hashlimit/",
    "/proc/net/ipt_hashlimit/",
    "/proc/net/netfilter/",
    "/proc/net/rpc/",
    "/proc/net/stat/",
    "/proc/net/vlan/",
};
static_assert(std::size(proc_snapshot_dirs) == 26);

}  // namespace

int stream_proc(tar_handle* t, int fd, archive_form form) {
    const int64_t bound = form == archive_form::full ? member_whole_bound : member_read_bound;
    char name[128];
    snprintf(name, sizeof name, "proc.%s/", time_stamp_now().text);
    int result = stream_dir_unknownsize(t, fd, name, "/proc/", proc_skip_names, bound);
    for (const char* dir : proc_snapshot_dirs) {
        (void)stream_dir_unknownsize(t, fd, dir + 1, dir, nullptr, bound);  // a kernel may lack some of them
    }
    return result;
}

int stream_kcore(tar_handle* t, int fd) {
    return stream_kcore_from(t, fd, "/proc/kcore");
}

int stream_kcore_from(tar_handle* t, int /*fd*/, const char* path) {
    unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.get(), &status) < 0 || status.st_size == 0 || status.st_size > kcore_limit) {
        return 0;
    }
    char first;
    if (pread(file.get(), &first, 1, 0) < 0) {
        return 0;  // the member would consist of zero bytes
    }
    const int size = static_cast<int>(status.st_size);
    tar_addfile(t, "kcore", size);
    lseek(file.get(), 0, SEEK_SET);
    const int64_t copied = member_copy(t, file.get(), size);
    if (copied < 0) {
        return 1;
    }
    if (copied < size) {
        (void)output_pad(t, static_cast<int>(size - copied));
    }
    // Counts what was copied, not what was promised; deliberate.
    tar_fakewrite(t, static_cast<size_t>(copied));
    return 0;
}
