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

constexpr int stop_signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// What the handler of these signals needs: descriptors, and how many signals came before.
volatile sig_atomic_t stop_request = -1;  // of the pipe that is readable when the capture is to stop
volatile sig_atomic_t stop_seen = -1;
volatile sig_atomic_t output = -1;
volatile sig_atomic_t requests = 0;

bool is_writable(int fd) {
    pollfd now = {fd, POLLOUT, 0};
    return poll(&now, 1, 0) != 0;
}

// The capture must not be killed: its interfaces would stay in promiscuous mode. The first signal ends it at
// a whole record. When its reader takes nothing, a further one makes the write that it waits in fail, and all
// later ones: the output becomes a descriptor that can't be written to.
void request_stop(int /*signal*/) {
    int saved = errno;
    (void)!write(stop_request, "", 1);
    if (requests > 0 && !is_writable(output)) {
        (void)dup2(stop_seen, output);
    }
    requests = 1;
    errno = saved;
}

// A signal that is ignored stays ignored.
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
        perror("pipe");  // a capture that could only be killed is not begun
        return 1;
    }
    const unique_fd seen(ends[0]);
    const unique_fd request(ends[1]);
    const char* file_name = argv[2];
    unique_fd file(open(file_name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file) {
        perror(file_name);
        return 1;
    }
    stop_seen = seen.get();
    stop_request = request.get();
    output = file.get();
    stop_on_signals();
    pcap_dump_options options = {.duration = no_time_limit,
                                 .promisc = 1,
                                 .filter = filter_for(argc > 3 ? argv[3] : nullptr),
                                 .stop_fd = seen.get()};
    (void)pcap_dump_with(argv[1], file.get(), options);  // the exit status does not tell
    return 0;
}
