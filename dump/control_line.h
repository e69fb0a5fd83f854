// The line with which the dumper announces a core on its standard error:
//   control_line_head_size characters, the core's length in bytes, control_line_gap_size characters, the pids
//   of further processes that the same dump covers, separated by single blanks; then a newline.
// Numbers are decimal. The characters before and after the length are up to the dumper and are skipped. A
// length of 0 means that no core follows.
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <string_view>

constexpr size_t control_line_head_size = 8;
constexpr size_t control_line_gap_size = 21;

constexpr size_t control_line_buffer_size = 512;
// The longest line, with its newline.
constexpr size_t control_line_limit = control_line_buffer_size - 1;

// How long dump_read_ctl_line continues to read after end of file, and the pause between two attempts.
constexpr int control_line_eof_timeout_ms = 50;
constexpr int control_line_eof_pause_ms = 10;

struct control_line {
    int core_length = 0;    // bytes; also 0 if the number is missing, negative or above INT_MAX
    std::string_view pids;  // the unread pids; part of the parsed text
    int pids_left = 0;      // how many of them may still be read: at first the number of blanks plus 1
};

// Parses `text`, a line with or without its newline; ignores everything after the first newline.
control_line control_line_parse(std::string_view text);

// Takes the next pid off the line and skips everything but digits. Returns false if no pid is left.
bool control_line_next_pid(control_line* line, pid_t* pid);

// Text read up to the end of a line.
struct control_text {
    char bytes[control_line_buffer_size];
    size_t length = 0;       // bytes read
    size_t line_length = 0;  // how many of them are the line, with its newline

    std::string_view line() const { return {bytes, line_length}; }
    // What was read after the line: the beginning of the dumper's messages.
    std::string_view rest() const { return {bytes + line_length, length - line_length}; }
};

// Appends to `text` from the pipe `fd` (borrowed) until it holds a newline. Returns 0, or an errno:
//   ETIMEDOUT   no newline within `timeout_ms`, or within control_line_eof_timeout_ms after end of file
//   EMSGSIZE    the line is longer than control_line_limit; reported only if the full buffer has no newline
//   others      the error of the read, which is reported
// Reports go to standard error and begin with "dump_read_ctl_line: ". In all cases, `text` keeps what
// was read.
int dump_read_ctl_line(int fd, int timeout_ms, control_text* text);
