// Reads the files of one process in /proc.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <string_view>

#include "common/unique_fd.h"

// Opens /proc/PID/NAME for reading. The result is empty on failure, with errno set.
unique_fd proc_open(pid_t pid, const char* name);

// Returns up to `limit` bytes of /proc/PID/NAME; an empty string when it cannot be read.
std::string proc_text(pid_t pid, const char* name, size_t limit = 65536);

// Reads a file of any length line by line. A line longer than the buffer is cut.
class line_reader {
public:
    explicit line_reader(int fd) : fd_(fd) {}  // borrows `fd`

    // Stores the next line without its newline, valid until the next call. Returns false at the end, and when
    // reading fails.
    bool next(std::string_view* line);

private:
    bool fill();
    bool skip_rest_of_line();

    int fd_;
    size_t begin_ = 0, end_ = 0;
    bool is_cut_ = false;    // the rest of the last line has to be skipped
    char buffer_[24 << 10];  // a path of 4096 bytes, each escaped as 4, and the fields before it
};

// Removes the decimal or hexadecimal number at the front of `*text`, with the blanks after it. Returns false,
// and changes nothing, if there is no number or it is too large.
bool take_number(std::string_view* text, uint64_t* value);
bool take_hex(std::string_view* text, uint64_t* value);

// Removes the text before the first blank, with the blanks after it, and returns it.
std::string_view take_word(std::string_view* text);

// Removes `prefix` from the front of `*text`, with the blanks after it. Returns false, and changes nothing,
// if the text does not begin with it.
bool take_prefix(std::string_view* text, std::string_view prefix);
