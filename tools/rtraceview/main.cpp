// rtraceview: shows a resource trace.
#include <stdio.h>

#include <exception>

#include "tools/files/files.h"
#include "tools/rtraceview/options.h"
#include "tools/rtraceview/view.h"

namespace {

constexpr int status_damaged = 1;
constexpr int status_failed = 2;

view_result show(const view_options& options, const files_input& input) {
    view_result result;
    const auto produce = [&](const files_sink& sink) {
        text_output out(sink);
        const auto read = [&input](char* to, size_t size) { return files_read(input, {to, size}); };
        result = view_trace(&out, read, options.format, "Resource trace " + options.input);
    };
    if (!options.page.empty() && options.page != "-") {
        files_write(options.page, input, produce);
    } else {
        files_write_standard_output(input, produce);
    }
    return result;
}

int run(const view_options& options) {
    const files_input input = files_open(options.input, "trace");
    const view_result result = show(options, input);
    for (const std::string& remark : result.remarks) {
        (void)fprintf(stderr, "rtraceview: %s: %s\n", options.input.c_str(), remark.c_str());
    }
    return result.state == stream_state::damaged ? status_damaged : 0;
}

int parse_and_run(int argc, char** argv) {
    view_options options;
    std::string wrong = view_parse_options(argc, argv, &options);
    if (wrong.empty() && !options.wants_help) {
        return run(options);
    }
    FILE* to = wrong.empty() ? stdout : stderr;
    (void)fprintf(to, "%s%s%s%.*s", wrong.empty() ? "" : "rtraceview: ", wrong.c_str(),
                  wrong.empty() ? "" : "\n", static_cast<int>(view_usage.size()), view_usage.data());
    return wrong.empty() ? 0 : status_failed;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return parse_and_run(argc, argv);
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "rtraceview: %s\n", error.what());
        return status_failed;
    }
}
