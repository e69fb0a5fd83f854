// Reading the files of one process in /proc.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <string_view>

#include "common/unique_fd.h"

// Opens /proc/PID/NAME for reading; owns nothing when that fails (errno says why).
unique_fd proc_open(pid_t pid, const char* name);

// Up to `limit` bytes of /proc/PID/NAME; empty when it can't be read.
std::string proc_text(pid_t pid, const char* name, size_t limit = 4096);

// Reads a file line by line through a buffer of its own, whatever the file's length. Of a line longer than
// the buffer only the beginning is given out.
class line_reader {
public:
    explicit line_reader(int fd) : fd_(fd) {}  // borrows `fd`

    // The next line without its newline, valid until the next call; false at the end or when reading fails.
    bool next(std::string_view& line);

private:
    bool fill();
    bool skip_rest_of_line();

    int fd_;
    size_t begin_ = 0, end_ = 0;
    bool cut_ = false;       // the line that was given out last goes on
    char buffer_[24 << 10];  // a path of 4096 bytes, each written as 4, and what stands before it
};

// Takes the number at the front of `text` and the blanks behind it. False, with `text` as it was, when there
// is none or it is too large.
bool take_number(std::string_view& text, uint64_t& value, int base = 10);

// Takes everything up to the first blank, and the blanks behind it.
std::string_view take_word(std::string_view& text);

// Takes `prefix` and the blanks behind it from the front of `text`; false, with `text` as it was, when it
// does not begin so.
bool take_prefix(std::string_view& text, std::string_view prefix);
