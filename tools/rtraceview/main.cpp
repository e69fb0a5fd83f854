// rtraceview: shows a resource trace.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "common/replace_file.h"
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
        ssize_t written = write(fd, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<size_t>(written));
        } else if (errno != EINTR) {
            fail(name);
        }
    }
}

struct stat status_of(int fd, const std::string& name) {
    struct stat status = {};
    if (fstat(fd, &status) < 0) {
        fail(name);
    }
    return status;
}

// True if both are the same file, perhaps under different names.
bool is_same_file(const struct stat& one, const struct stat& other) {
    return S_ISREG(one.st_mode) && one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

void refuse_same_file(const struct stat& input, const struct stat& output) {
    if (is_same_file(input, output)) {
        throw std::runtime_error("the output would overwrite the trace");
    }
}

view_result show(const view_options& options, int from, const text_output::byte_sink& sink) {
    text_output out(sink);
    return view_trace(&out, source_of(from, options.input), options.format,
                      "Resource trace " + options.input);
}

// Returns the permissions of the existing file, or those of a new one.
mode_t mode_for(const struct stat* existing) {
    if (existing) {
        return existing->st_mode & 0777;
    }
    mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// A complete page replaces an earlier one. If the name is a symbolic link, its target is replaced.
view_result write_page(const view_options& options, int from) {
    struct stat existing = {};
    bool exists = stat(options.page.c_str(), &existing) == 0;
    if (exists && !S_ISREG(existing.st_mode)) {
        unique_fd to(open(options.page.c_str(), O_WRONLY | O_CLOEXEC));
        if (!to) {
            fail(options.page);
        }
        return show(options, from, [&](std::string_view text) { write_all(to.get(), options.page, text); });
    }
    if (exists) {
        refuse_same_file(status_of(from, options.input), existing);
    }
    std::string page;
    view_result result = show(options, from, [&page](std::string_view text) { page.append(text); });
    unique_malloc<char> real(exists ? realpath(options.page.c_str(), nullptr) : nullptr);
    if (replace_file(real ? real.get() : options.page.c_str(), page, mode_for(exists ? &existing : nullptr)) <
        0) {
        fail(options.page);
    }
    return result;
}

view_result write_output(const view_options& options, int from) {
    const std::string name = "standard output";
    refuse_same_file(status_of(from, options.input), status_of(STDOUT_FILENO, name));
    return show(options, from, [&name](std::string_view text) { write_all(STDOUT_FILENO, name, text); });
}

int run(const view_options& options) {
    unique_fd input;
    if (options.input != "-") {
        input = unique_fd(open(options.input.c_str(), O_RDONLY | O_CLOEXEC));
        if (!input) {
            fail(options.input);
        }
    }
    int from = input ? input.get() : STDIN_FILENO;
    bool has_page = !options.page.empty() && options.page != "-";
    view_result result = has_page ? write_page(options, from) : write_output(options, from);
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
