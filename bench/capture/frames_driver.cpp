// bench_frames INTERFACE SIZE RATE SECONDS: sends frames of SIZE bytes over INTERFACE, RATE a second (0: as
// many as possible), and prints the number of frames that the kernel accepted.
#include <linux/if_packet.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <cstdint>

#include "common/unique_fd.h"

namespace {

constexpr int burst = 64;
constexpr int largest_frame = 1514;
constexpr int64_t second_ns = 1000000000;
// Below the highest rate, frames are spread evenly, within the resolution of the timer.
constexpr int64_t turn_ns = 100000;

int64_t now_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * second_ns + now.tv_nsec;
}

void sleep_until(int64_t when_ns) {
    timespec when = {static_cast<time_t>(when_ns / second_ns), static_cast<long>(when_ns % second_ns)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr);
}

unique_fd open_interface(const char* name) {
    unique_fd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));  // receives nothing
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(name));
    if (!sock || address.sll_ifindex == 0 ||
        bind(sock.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        perror(name);
        exit(1);
    }
    return sock;
}

struct frame_source {
    int sock;
    uint8_t frame[largest_frame] = {};
    iovec content;
    mmsghdr messages[burst] = {};

    frame_source(int fd, size_t size) : sock(fd), content{frame, size} {
        for (int i = 0; i < 12; i++) {
            frame[i] = 0xff;  // broadcast addresses
        }
        frame[12] = 0x88;  // an Ethernet type for experiments, which network stacks ignore
        frame[13] = 0xb5;
        for (mmsghdr& message : messages) {
            message.msg_hdr.msg_iov = &content;
            message.msg_hdr.msg_iovlen = 1;
        }
    }

    // Returns the number of frames that the kernel accepted.
    uint64_t send(uint64_t count) {
        unsigned wanted = static_cast<unsigned>(std::min<uint64_t>(count, burst));
        int sent = sendmmsg(sock, messages, wanted, 0);
        return sent > 0 ? static_cast<uint64_t>(sent) : 0;
    }
};

}  // namespace

int main(int argc, char** argv) {
    int size = argc == 5 ? atoi(argv[2]) : 0;
    int64_t rate = argc == 5 ? atoll(argv[3]) : -1;
    int64_t seconds = argc == 5 ? atoll(argv[4]) : 0;
    if (size < 14 || size > largest_frame || rate < 0 || seconds < 1) {
        fputs("usage: bench_frames INTERFACE SIZE RATE SECONDS\n", stderr);
        return 2;
    }
    unique_fd sock = open_interface(argv[1]);
    frame_source source(sock.get(), static_cast<size_t>(size));
    int64_t begin = now_ns();
    int64_t end = begin + seconds * second_ns;
    uint64_t sent = 0;
    for (int64_t now = begin; now < end; now = now_ns()) {
        uint64_t due = rate == 0 ? sent + burst : static_cast<uint64_t>((now - begin) * rate / second_ns);
        if (due > sent) {
            sent += source.send(due - sent);
        }
        if (rate != 0 && due <= sent) {
            sleep_until(now + turn_ns);
        }
    }
    printf("%llu\n", static_cast<unsigned long long>(sent));
    return 0;
}
