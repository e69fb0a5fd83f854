#include "net/pcapdump.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "common/unique_fd.h"
#include "net/bpf_filter.h"
#include "net/pcap_dump.h"

namespace {

constexpr const char* usage = "USAGE: pcapdump netif dumpname [filter_portnumber]";
constexpr int no_time_limit = 0x7fffffff;

// The port to drop is patched into a copy of the program.
std::array<sock_filter, bpf_port_program_size> port_program = bpf_port_program;
sock_fprog port_filter = {bpf_port_program_size, port_program.data()};

// Returns the filter that drops the traffic of the port in `text`; null, for no filter, if that is not a
// port. Over IPv6 it always drops port 22, whatever the port given. This is deliberate.
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

constexpr int stop_signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// For the signal handler.
volatile sig_atomic_t stop_writer = -1;  // the ends of a pipe; a byte in it stops the capture
volatile sig_atomic_t stop_reader = -1;
volatile sig_atomic_t output_fd = -1;
volatile sig_atomic_t is_stop_requested = 0;

bool is_writable(int fd) {
    pollfd now = {fd, POLLOUT, 0};
    return poll(&now, 1, 0) != 0;
}

// A killed capture would leave its interfaces in promiscuous mode. So the first signal ends it after a whole
// record. If the output blocks then, the next signal replaces it with a descriptor that is not writable: the
// blocked write and all later ones fail.
void request_stop(int /*signal*/) {
    int saved = errno;
    (void)!write(stop_writer, "", 1);
    if (is_stop_requested != 0 && !is_writable(output_fd)) {
        (void)dup2(stop_reader, output_fd);
    }
    is_stop_requested = 1;
    errno = saved;
}

// Ignored signals stay ignored.
void stop_on_signals() {
    struct sigaction action = {};
    action.sa_handler = request_stop;
    action.sa_flags = SA_RESTART;
    for (int number : stop_signals) {
        sigaddset(&action.sa_mask, number);
    }
    for (int number : stop_signals) {
        struct sigaction before = {};
        if (sigaction(number, nullptr, &before) == 0 && before.sa_handler == SIG_DFL) {
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
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) < 0) {
        perror("pipe");  // without it, the capture could only be killed
        return 1;
    }
    const unique_fd reader(ends[0]);
    const unique_fd writer(ends[1]);
    const char* file_name = argv[2];
    unique_fd file(open(file_name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file) {
        perror(file_name);
        return 1;
    }
    stop_reader = reader.get();
    stop_writer = writer.get();
    output_fd = file.get();
    stop_on_signals();
    pcap_dump_options options = {.duration = no_time_limit,
                                 .promisc = 1,
                                 .filter = filter_for(argc > 3 ? argv[3] : nullptr),
                                 .stop_fd = reader.get()};
    (void)pcap_dump_with(argv[1], file.get(), options);  // its result does not change the exit status
    return 0;
}
