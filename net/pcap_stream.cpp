#include "net/pcap_stream.h"

#include <linux/filter.h>
#include <string.h>

#include <algorithm>

#include "common/padding.h"
#include "common/unique_fd.h"
#include "net/bpf_filter.h"

int32_t pcap_dump_excluding(int fd, const char* interfaces, int excluded_fd,
                            const pcap_dump_options& options) {
    int count = 0;
    unique_malloc<sock_filter> instructions(filter_me(excluded_fd, &count));
    sock_fprog program = {static_cast<unsigned short>(count), instructions.get()};
    unique_malloc<char> names(strdup(interfaces));  // pcap_dump_with cuts it up
    if (!names) {
        return -1;
    }
    pcap_dump_options excluding = options;
    excluding.promisc = 1;
    excluding.filter = instructions ? &program : nullptr;
    return pcap_dump_with(names.get(), fd, excluding);
}

int stream_pcap(int fd, int seconds, int max_bytes, const char* interface, bool exact) {
    const char* interfaces = interface && interface[0] ? interface : "any";
    const int no_limit = 0;
    const int duration = seconds >= 1 ? seconds : exact ? no_limit : pcap_default_seconds;
    const int size = max_bytes >= 1 ? max_bytes : exact ? no_limit : pcap_default_bytes;
    const int32_t written = pcap_dump_excluding(fd, interfaces, fd,
                                                {.max_total = static_cast<unsigned>(size),
                                                 .snaplen = exact ? 0 : pcap_stream_snaplen,
                                                 .duration = duration,
                                                 .is_exact = exact,
                                                 .is_padded = !exact});
    if (written < 0) {
        return 1;
    }
    return exact ? 0 : stream_pad(fd, size - written);
}
