// rtraceview: shows a resource trace.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "common/unique_fd.h"
#include "tools/rtraceview/options.h"
#include "tools/rtraceview/view.h"

namespace {

constexpr int status_damaged = 1;
constexpr int status_failed = 2;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

record_reader::byte_source source_of(int fd, const std::string& name) {
    return [fd, name](char* to, size_t size) {
        for (;;) {
            ssize_t got = read(fd, to, size);
            if (got >= 0) {
                return static_cast<size_t>(got);
            }
            if (errno != EINTR) {
                fail(name);
            }
        }
    };
}

void write_all(int fd, const std::string& name, std::string_view text) {
    while (!text.empty()) {
        ssize_t put = write(fd, text.data(), text.size());
        if (put >= 0) {
            text.remove_prefix(static_cast<size_t>(put));
        } else if (errno != EINTR) {
            fail(name);
        }
    }
}

// The file, or the standard descriptor where none is named.
int open_or(int standard_fd, const std::string& name, int flags, unique_fd* file) {
    if (name.empty() || name == "-") {
        return standard_fd;
    }
    *file = unique_fd(open(name.c_str(), flags | O_CLOEXEC, 0666));
    if (!*file) {
        fail(name);
    }
    return file->get();
}

int run(const view_options& options) {
    unique_fd input;
    unique_fd page;
    int from = open_or(STDIN_FILENO, options.input, O_RDONLY, &input);
    int to = open_or(STDOUT_FILENO, options.page, O_WRONLY | O_CREAT | O_TRUNC, &page);
    const std::string to_name = page ? options.page : "standard output";
    text_output out([to, &to_name](std::string_view text) { write_all(to, to_name, text); });
    view_result result =
        view_trace(source_of(from, options.input), options.format, "Resource trace " + options.input, out);
    for (const std::string& remark : result.remarks) {
        (void)fprintf(stderr, "rtraceview: %s: %s\n", options.input.c_str(), remark.c_str());
    }
    return result.state == stream_state::damaged ? status_damaged : 0;
}

}  // namespace

int main(int argc, char** argv) {
    view_options options;
    std::string wrong = parse_view_options(argc, argv, &options);
    if (!wrong.empty() || options.wants_help) {
        FILE* to = wrong.empty() ? stdout : stderr;
        (void)fprintf(to, "%s%s%s%.*s", wrong.empty() ? "" : "rtraceview: ", wrong.c_str(),
                      wrong.empty() ? "" : "\n", static_cast<int>(view_usage.size()), view_usage.data());
        return wrong.empty() ? 0 : status_failed;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "rtraceview: %s\n", error.what());
        return status_failed;
    }
}
