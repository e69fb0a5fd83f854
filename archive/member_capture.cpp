#include "archive/member_capture.h"

#include <errno.h>

#include "archive/manifest.h"
#include "archive/member_copy.h"
#include "archive/output.h"
#include "archive/phase.h"
#include "common/padding.h"
#include "net/pcap_stream.h"

namespace {

void count_progress(void* has_begun) {
    *static_cast<bool*>(has_begun) = true;
    phase_progress();
}

// A capture that fails before its first byte, because memory or an interface is missing, is stored as zeros.
int store_capture(tar_handle* t, const char* interface, pcap_dump_options options, int excluded_fd) {
    const int size = member_size(options.max_total);
    tar_addfile(t, "netdump.cap", size);
    bool has_begun = false;
    options.progress = {count_progress, &has_begun};
    const int32_t written = pcap_dump_excluding(t->fd, interface, excluded_fd, options);
    if (written < 0 && has_begun) {
        output_set_error(t);
        return 1;
    }
    if (!has_begun) {
        manifest_note(t, "netdump.cap", written < 0 ? ENOMEM : ENODEV);
    }
    if (!output_pad(t, size - (written < 0 ? 0 : written))) {
        return 1;
    }
    tar_fakewrite(t, options.max_total);
    return 0;
}

}  // namespace

int stream_pcap_dump(tar_handle* t, int fd, const char* interface, int seconds, unsigned max_bytes,
                     int excluded_fd, bool exact) {
    const int connection_fd = excluded_fd < 0 ? fd : excluded_fd;
    const pcap_dump_options options = {.max_total = max_bytes,
                                       .snaplen = exact ? 0 : pcap_stream_snaplen,
                                       .duration = seconds,
                                       .is_exact = exact};
    if (t) {
        return store_capture(t, interface, options, connection_fd);
    }
    const int32_t written = pcap_dump_excluding(fd, interface, connection_fd, options);
    return written < 0 ? 1 : stream_pad(fd, member_size(max_bytes) - written);
}
