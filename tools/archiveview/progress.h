// How far a long read is, on a terminal.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace archiveview {

// Writes a line to standard error if that is a terminal and the read takes more than a moment. The line is
// erased at the end.
class read_progress {
public:
    // The size of `fd`, which is read, is shown if it is known.
    explicit read_progress(int fd);
    ~read_progress();
    read_progress(const read_progress&) = delete;
    read_progress& operator=(const read_progress&) = delete;

    void add(size_t bytes);

private:
    bool is_terminal_;
    bool is_shown_ = false;
    uint64_t size_ = 0;  // 0: unknown
    uint64_t read_ = 0;
    int64_t next_ms_;
};

}  // namespace archiveview
