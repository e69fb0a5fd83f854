// Captures that tests take in a private world, whose only interface is its own loopback.
#pragma once

#include <stdint.h>
#include <string.h>
#include <sys/wait.h>

#include <algorithm>
#include <string>

#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/private_world.h"
#include "tests/unit/support/signals.h"

struct captured_stream {
    int exit_code = -1;  // the result of the work
    std::string bytes;   // what it wrote
};

// Runs `work` in a private world with the write end of a pipe. Not a file: a capture watches its output for a
// reader that goes away.
template <typename Work>
captured_stream capture_in_private_world(Work work) {
    test_pipe output;
    pid_t pid = start_in_private_world([&] {
        ignore_broken_pipes();
        output.out.reset();
        return work(output.in.get());
    });
    output.in.reset();
    captured_stream stream;
    stream.bytes = read_all(output.out.get());
    int status = wait_status(pid);
    stream.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return stream;
}

// Runs `work` in a private world with the write end of a pipe that nobody reads. Returns its result.
template <typename Work>
int capture_into_broken_pipe(Work work) {
    return run_in_private_world([&] {
        ignore_broken_pipes();
        test_pipe broken;
        broken.out.reset();
        return work(broken.in.get());
    });
}

// True for a pcap stream, and for zero bytes alone: what a capture writes if no interface could be opened.
inline bool is_capture(const std::string& bytes) {
    uint32_t magic = 0;
    memcpy(&magic, bytes.data(), std::min(bytes.size(), sizeof magic));
    return magic == 0xa1b2c3d4 || bytes == std::string(bytes.size(), '\0');
}
