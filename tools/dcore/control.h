// What the dumper says on standard error: the control line first, then, for people, what else there is.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

// The line that comes before the first byte of the core: 8 characters, the core's length in bytes, 21
// characters, then the pids of the further processes that the core covers. A core covers one process, so that
// there are none.
std::string control_line(uint64_t length);

// A line for people: "dcore: PID: TEXT".
std::string control_remark(int pid, std::string_view text);

// Writes all of `text` to `fd`; what can't be written is lost.
void control_say(int fd, std::string_view text);
