// A whole trace, from its bytes to its view.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/rtraceview/options.h"
#include "tools/rtraceview/output.h"
#include "tools/rtraceview/record_reader.h"

struct view_result {
    stream_state state = stream_state::whole;
    std::vector<std::string> remarks;  // for the user, one a line: damage, and what was skipped
};

// Reads all of `source` and writes it to `out` as `format`. `title` is the page's. Lets exceptions of
// `source` and of the sink through.
view_result view_trace(text_output* out, const record_reader::byte_source& source, view_format format,
                       std::string_view title);
