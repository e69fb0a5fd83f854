#include "net/pcapdump.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/eventfd.h>

#include "common/unique_fd.h"
#include "net/bpf_filter.h"
#include "net/pcap_dump.h"

namespace {

constexpr const char* usage = "USAGE: pcapdump netif dumpname [filter_portnumber]";
constexpr int no_time_limit = 0x7fffffff;

// The wanted port is written into it.
std::array<sock_filter, bpf_port_program_size> port_program = bpf_port_program;
sock_fprog port_filter = {bpf_port_program_size, port_program.data()};

// The filter for the port that `text` names; null, for everything, when it names none. Traffic of another
// port than 22 is dropped over IPv4 alone; deliberate.
const sock_fprog* filter_for(const char* text) {
    long port = text ? strtol(text, nullptr, 10) : 0;
    if (port < 1 || port > UINT16_MAX) {
        return nullptr;
    }
    for (size_t test : bpf_port_ipv4_tests) {
        port_program[test].k = static_cast<uint32_t>(port);
    }
    return &port_filter;
}

volatile sig_atomic_t stop_event = -1;  // an eventfd

void request_stop(int /*signal*/) {
    int saved = errno;
    uint64_t one = 1;
    (void)!write(stop_event, &one, sizeof one);
    errno = saved;
}

// The first of these signals ends the capture at a whole record, a second one at once. One that the
// caller's caller has ignored stays ignored.
void stop_on_signals() {
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
            action.sa_handler = request_stop;
            action.sa_flags = SA_RESTART | SA_RESETHAND;
            sigaction(number, &action, nullptr);
        }
    }
}

}  // namespace

int run_pcapdump(int argc, char** argv) {
    if (argc < 3) {
        puts(usage);
        return 1;
    }
    const char* file_name = argv[2];
    unique_fd file(open(file_name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file) {
        perror(file_name);
        return 1;
    }
    unique_fd stop(eventfd(0, EFD_CLOEXEC));
    if (stop) {
        stop_event = stop.get();
        stop_on_signals();
    }
    pcap_dump_options options = {.duration = no_time_limit,
                                 .promisc = 1,
                                 .filter = filter_for(argc > 3 ? argv[3] : nullptr),
                                 .stop_fd = stop.get()};
    (void)pcap_dump_with(argv[1], file.get(), options);  // the exit status does not tell
    return 0;
}
