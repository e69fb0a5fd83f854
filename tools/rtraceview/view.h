// A whole trace from its bytes to its view.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/rtraceview/options.h"
#include "tools/rtraceview/output.h"
#include "tools/rtraceview/record_reader.h"

struct view_result {
    stream_state state = stream_state::whole;
    std::vector<std::string> remarks;  // what a reader should know, a line each: damage, what was skipped
};

// Reads all of `source` and shows it as `format` on `out`; `title` is the page's. Throws what source and sink
// throw.
view_result view_trace(const record_reader::byte_source& source, view_format format, std::string_view title,
                       text_output& out);
