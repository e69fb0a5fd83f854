// Both ends of a pipe.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "common/unique_fd.h"

struct unique_pipe {
    unique_fd read_end;
    unique_fd write_end;

    explicit operator bool() const { return static_cast<bool>(read_end); }
};

// Opens a close-on-exec pipe. On failure it is empty and errno is set.
inline unique_pipe pipe_open(int more_flags = 0) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | more_flags) < 0) {
        return {};
    }
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}
