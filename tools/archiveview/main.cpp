// archiveview: reads a debug archive and says what is wrong.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "common/unique_fd.h"
#include "tools/archiveview/collect.h"
#include "tools/archiveview/findings/findings.h"
#include "tools/archiveview/options.h"
#include "tools/archiveview/views/html_view.h"
#include "tools/archiveview/views/json_view.h"
#include "tools/archiveview/views/text_view.h"

namespace {

using archiveview::archive_facts;
using archiveview::report_format;
using archiveview::report_options;

constexpr int status_not_readable = 1;
constexpr int status_usage = 2;
constexpr int status_not_whole = 3;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

archiveview::byte_source source_of(int fd, const std::string& name) {
    return [fd, name](std::span<char> to) {
        for (;;) {
            ssize_t got = read(fd, to.data(), to.size());
            if (got >= 0) {
                return static_cast<size_t>(got);
            }
            if (errno != EINTR) {
                fail(name);
            }
        }
    };
}

int run(const report_options& options) {
    unique_fd input;
    if (options.input != "-") {
        input = unique_fd(open(options.input.c_str(), O_RDONLY | O_CLOEXEC));
        if (!input) {
            fail(options.input);
        }
    }
    archiveview::archive_source source(source_of(input ? input.get() : STDIN_FILENO, options.input));
    const archive_facts facts = collect_facts(&source);
    if (!facts.archive.is_readable) {
        (void)fprintf(stderr, "archiveview: %s: %s\n", options.input.c_str(), facts.archive.reason.c_str());
        return status_not_readable;
    }
    const std::vector<archiveview::finding> findings = find_all(facts);
    const std::string report = options.format == report_format::json ? json_view(facts, findings)
                               : options.format == report_format::html
                                   ? html_view(facts, findings, options.input)
                                   : text_view(facts, findings);
    FILE* to = options.format == report_format::html && options.page != "-"
                   ? fopen(options.page.c_str(), "we")
                   : stdout;
    if (!to || fwrite(report.data(), 1, report.size(), to) != report.size() || fflush(to) != 0) {
        fail(options.page);
    }
    return facts.archive.state == archiveview::archive_state::whole ? 0 : status_not_whole;
}

int parse_and_run(int argc, char** argv) {
    report_options options;
    const std::string wrong = parse_options(argc, argv, &options);
    if (wrong.empty() && !options.wants_help) {
        return run(options);
    }
    FILE* to = wrong.empty() ? stdout : stderr;
    (void)fprintf(to, "%s%s%s%.*s", wrong.empty() ? "" : "archiveview: ", wrong.c_str(),
                  wrong.empty() ? "" : "\n", static_cast<int>(archiveview::usage.size()),
                  archiveview::usage.data());
    return wrong.empty() ? 0 : status_usage;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return parse_and_run(argc, argv);
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "archiveview: %s\n", error.what());
        return status_not_readable;
    }
}
