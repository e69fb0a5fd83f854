// The dumper's messages on standard error: first the control line, then messages for people.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

// Returns the line that precedes the first byte of the core: 8 characters, the core's length in bytes, 21
// characters, then the pids of other processes in the core. This dumper's cores have one process, so the list
// is empty.
std::string control_line(uint64_t length);

// Returns "dcore: PID: TEXT" and a newline.
std::string control_remark(int pid, std::string_view text);

// Writes all of `text` to `fd`. Gives up on an error.
void control_write(int fd, std::string_view text);
