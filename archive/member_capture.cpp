#include "archive/member_capture.h"

#include <linux/filter.h>
#include <string.h>

#include "archive/member_copy.h"
#include "archive/output.h"
#include "common/padding.h"
#include "common/unique_fd.h"
#include "net/bpf_filter.h"
#include "net/pcap_dump.h"

namespace {

constexpr const char* every_interface = "any";
constexpr unsigned frame_size = 1536;
constexpr int default_seconds = 5;
constexpr int default_bytes = 5120000;

// Something of the capture has been written.
void tell_progress(void* has_begun) {
    *static_cast<bool*>(has_begun) = true;
    output_progress();
}

// Captures onto `fd`, without the traffic of the connection `filter_fd`. Returns what pcap_dump does.
int32_t capture(int fd, const char* interface, int seconds, unsigned max_bytes, int filter_fd,
                pcap_progress progress) {
    int count = 0;
    unique_malloc<sock_filter> instructions(filter_me(filter_fd, &count));
    sock_fprog program = {static_cast<unsigned short>(count), instructions.get()};
    unique_malloc<char> names(strdup(interface));  // pcap_dump cuts it up
    if (!names) {
        return -1;
    }
    return pcap_dump_with(names.get(), fd,
                          {.max_total = max_bytes,
                           .snaplen = frame_size,
                           .duration = seconds,
                           .promisc = 1,
                           .filter = instructions ? &program : nullptr,
                           .progress = progress});
}

// A capture that fails, because memory or an interface is missing, is stored as zeros.
int store_capture(tar_handle* t, const char* interface, int seconds, unsigned max_bytes, int filter_fd) {
    tar_addfile(t, "netdump.cap", member_size(max_bytes));
    bool has_begun = false;
    int32_t written = capture(t->fd, interface, seconds, max_bytes, filter_fd, {tell_progress, &has_begun});
    if (written < 0 && has_begun) {
        output_failed(t);
        return 1;
    }
    if (!output_pad(t, member_size(max_bytes) - (written < 0 ? 0 : written))) {
        return 1;
    }
    tar_fakewrite(t, max_bytes);
    return 0;
}

}  // namespace

int stream_pcap_dump(tar_handle* t, int fd, const char* interface, int seconds, unsigned max_bytes,
                     int filter_fd) {
    const int own_fd = filter_fd < 0 ? fd : filter_fd;
    if (t) {
        return store_capture(t, interface, seconds, max_bytes, own_fd);
    }
    int32_t written = capture(fd, interface, seconds, max_bytes, own_fd, {});
    return written < 0 ? 1 : stream_pad(fd, member_size(max_bytes) - written);
}

int stream_pcap(int fd, int seconds, int max_bytes, const char* interface) {
    return stream_pcap_dump(nullptr, fd, interface && interface[0] ? interface : every_interface,
                            seconds < 1 ? default_seconds : seconds,
                            static_cast<unsigned>(max_bytes < 1 ? default_bytes : max_bytes));
}
