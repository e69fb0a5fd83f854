#include "archive/member_capture.h"

#include <linux/filter.h>
#include <string.h>

#include "common/padding.h"
#include "common/unique_fd.h"
#include "net/bpf_filter.h"
#include "net/pcap_dump.h"

namespace {

constexpr const char* every_interface = "any";
constexpr unsigned frame_size = 1536;
constexpr int default_seconds = 5;
constexpr int default_bytes = 5120000;

// Captures onto `fd`, without the traffic of the connection `filter_fd`. Returns what pcap_dump does.
int32_t capture(int fd, const char* interface, int seconds, unsigned max_bytes, int filter_fd) {
    int count = 0;
    unique_malloc<sock_filter> instructions(filter_me(filter_fd, &count));
    sock_fprog program = {static_cast<unsigned short>(count), instructions.get()};
    unique_malloc<char> names(strdup(interface));  // pcap_dump cuts it up
    if (!names) {
        return -1;
    }
    return pcap_dump(names.get(), fd, max_bytes, frame_size, seconds, 1, instructions ? &program : nullptr);
}

}  // namespace

int stream_pcap_dump(tar_handle* t, int fd, const char* interface, int seconds, unsigned max_bytes,
                     int filter_fd) {
    if (t) {
        tar_addfile(t, "netdump.cap", static_cast<int>(max_bytes));
    }
    int32_t written = capture(fd, interface, seconds, max_bytes, filter_fd < 0 ? fd : filter_fd);
    if (written < 0 || stream_pad(fd, static_cast<int>(max_bytes) - written) != 0) {
        return 1;
    }
    if (t) {
        tar_fakewrite(t, max_bytes);
    }
    return 0;
}

int stream_pcap(int fd, int seconds, int max_bytes, const char* interface) {
    return stream_pcap_dump(nullptr, fd, interface && interface[0] ? interface : every_interface,
                            seconds < 1 ? default_seconds : seconds,
                            static_cast<unsigned>(max_bytes < 1 ? default_bytes : max_bytes));
}
