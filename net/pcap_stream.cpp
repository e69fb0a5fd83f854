#include "net/pcap_stream.h"

#include <linux/filter.h>
#include <string.h>

#include "common/padding.h"
#include "common/unique_fd.h"
#include "net/bpf_filter.h"
#include "net/pcap_dump.h"

int32_t pcap_dump_excluding(int fd, const char* interfaces, int seconds, unsigned max_bytes, int excluded_fd,
                            pcap_progress progress) {
    int count = 0;
    unique_malloc<sock_filter> instructions(filter_me(excluded_fd, &count));
    sock_fprog program = {static_cast<unsigned short>(count), instructions.get()};
    unique_malloc<char> names(strdup(interfaces));  // pcap_dump_with cuts it up
    if (!names) {
        return -1;
    }
    return pcap_dump_with(names.get(), fd,
                          {.max_total = max_bytes,
                           .snaplen = pcap_stream_snaplen,
                           .duration = seconds,
                           .promisc = 1,
                           .filter = instructions ? &program : nullptr,
                           .progress = progress});
}

int stream_pcap(int fd, int seconds, int max_bytes, const char* interface) {
    const char* interfaces = interface && interface[0] ? interface : "any";
    const int duration = seconds < 1 ? pcap_default_seconds : seconds;
    const int size = max_bytes < 1 ? pcap_default_bytes : max_bytes;
    const int32_t written = pcap_dump_excluding(fd, interfaces, duration, static_cast<unsigned>(size), fd);
    return written < 0 ? 1 : stream_pad(fd, size - written);
}
