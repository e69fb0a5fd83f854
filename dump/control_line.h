// The line with which the dumper announces a core on its standard error:
//   8 characters, the core's length in bytes, 21 characters, the pids of further processes that the same dump
//   covers, separated by single blanks; then a newline.
// Numbers are decimal. What the skipped characters say is the dumper's. A length of 0 means that no core
// comes.
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <string_view>

constexpr size_t control_line_room = 512;
// The longest line, with its newline.
constexpr size_t control_line_limit = control_line_room - 1;

struct control_line {
    int core_length = 0;    // bytes; 0 also when there is no number or one that no archive member can have
    std::string_view pids;  // what control_line_next_pid has not read yet; part of the parsed text
    int pids_left = 0;      // numbers that it may hold at most: one more than it has blanks
};

// `text` is the line with or without its newline; nothing behind the first newline is looked at.
control_line control_line_parse(std::string_view text);

// Takes the next pid off the line, passing over whatever is no digit; false when there is none left.
bool control_line_next_pid(control_line* line, pid_t* pid);

// What has been read up to the end of a line.
struct control_text {
    char bytes[control_line_room];
    size_t length = 0;  // bytes read
    size_t line_length =
        0;  // how many of them are the line, its newline included; the rest was said after it

    std::string_view line() const { return {bytes, line_length}; }
    std::string_view rest() const { return {bytes + line_length, length - line_length}; }
};

// Reads from the pipe `fd` (borrowed) until a newline has come, for `patience_ms` in all. The end of the
// input is none: reading goes on every 10 ms, but for 50 ms at most, since nobody is there to write any more.
// Returns 0 or
//   ETIMEDOUT   no newline came in time
//   EMSGSIZE    the line is longer than control_line_limit; without a newline in all the room it is reported
//   another     the errno of a read that failed, which is reported
// Reports go to standard error and begin with "dump_read_ctl_line: ".
int dump_read_ctl_line(int fd, control_text* text, int patience_ms);
