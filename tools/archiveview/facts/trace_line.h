// One line of a trace, taken apart. The tracer does not escape names of processes and files, nor quotes
// inside of data: what looks like a part of a line may be text of a process. The parts that the tracer itself
// writes are therefore searched from the line's two ends.
#pragma once

#include <stdint.h>

#include <optional>
#include <string_view>

namespace archiveview {

enum class trace_line_kind {
    nothing,
    call,        // the entry of a call
    result,      // its return
    unfinished,  // a call's line without its end
    signal,
    listing,  // the heading of a list of descriptors
};

struct trace_line {
    trace_line_kind kind = trace_line_kind::nothing;
    int pid = 0;
    std::string_view name;       // of the process
    std::string_view text;       // the line without its time
    std::string_view call;       // "read"
    std::string_view arguments;  // what is between the parentheses
    int64_t result = 0;
    bool is_mips = false;  // the processor passes return addresses in a register
    double seconds = -1;   // from the entry to the return; -1 in traces without times
    std::string_view signal;
    int descriptors = 0;  // that the listing holds
};

// Takes the time off `line`, "16:11:32.875049 ", and returns it as seconds since midnight.
std::optional<double> trace_take_time(std::string_view* line);

// `line` has no time.
trace_line trace_read_line(std::string_view line);

// The descriptor that a call's arguments begin with. The text is empty if the descriptor has none.
struct descriptor_argument {
    int number = -1;
    std::string_view text;
};
descriptor_argument trace_descriptor_argument(std::string_view arguments);

// The number that the argument after the last comma is.
std::optional<int64_t> trace_last_argument(std::string_view arguments);

}  // namespace archiveview
