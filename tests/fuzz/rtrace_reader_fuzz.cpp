// Shows any bytes as a resource trace, in all views: the output does not depend on the sizes of the reads,
// and offsets in remarks are within the trace.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "tests/fuzz/require.h"
#include "tools/rtraceview/view.h"

namespace {

struct viewed {
    std::string text;
    view_result result;
};

viewed view(const uint8_t* data, size_t size, view_format format, size_t piece) {
    viewed all;
    size_t offset = 0;
    text_output out([&all](std::string_view text) { all.text.append(text); });
    auto source = [&](char* to, size_t limit) {
        size_t count = std::min({limit, piece, size - offset});
        memcpy(to, data + offset, count);
        offset += count;
        return count;
    };
    all.result = view_trace(&out, source, format, "fuzz");
    for (const std::string& remark : all.result.remarks) {
        if (remark.starts_with("offset ")) {
            require(strtoull(remark.c_str() + 7, nullptr, 10) <= size);
        }
    }
    return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (view_format format : {view_format::text, view_format::json, view_format::csv, view_format::html}) {
        // Even an empty page is large and would take most of the time.
        if (format == view_format::html && size % 8 != 0) {
            continue;
        }
        viewed whole = view(data, size, format, SIZE_MAX);
        viewed pieces = view(data, size, format, 7);
        require(whole.text == pieces.text && whole.result.state == pieces.result.state &&
                whole.result.remarks == pieces.result.remarks);
        require(whole.result.state != stream_state::more);
    }
    return 0;
}
