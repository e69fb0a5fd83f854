// archiveview: reads a debug archive and says what is wrong.
#include <stdio.h>

#include <exception>
#include <filesystem>
#include <stdexcept>

#include "tools/archiveview/collect.h"
#include "tools/archiveview/findings/findings.h"
#include "tools/archiveview/options.h"
#include "tools/archiveview/progress.h"
#include "tools/archiveview/source/printable.h"
#include "tools/archiveview/views/html_view.h"
#include "tools/archiveview/views/json_view.h"
#include "tools/archiveview/views/text_view.h"
#include "tools/files/files.h"

namespace {

using archiveview::archive_facts;
using archiveview::report_format;
using archiveview::report_options;

constexpr int status_failed = 1;
constexpr int status_usage = 2;
constexpr int status_not_whole = 3;

archive_facts facts_of(const files_input& input) {
    archiveview::read_progress progress(files_descriptor(input));
    archiveview::archive_source source([&](std::span<char> to) {
        const size_t count = files_read(input, to);
        progress.add(count);
        return count;
    });
    archive_facts facts = collect_facts(&source);
    if (!facts.archive.is_readable) {
        throw std::runtime_error(input.name + ": " + facts.archive.reason);
    }
    return facts;
}

// The name of the archive without its folders.
std::string title_of(const std::string& input) {
    return input == "-" ? "Debug archive" : std::filesystem::path(input).filename().string();
}

std::string report_of(const archive_facts& facts, const report_options& options) {
    const std::vector<archiveview::finding> findings = find_all(facts);
    switch (options.format) {
        case report_format::json:
            return json_view(facts, findings);
        case report_format::html:
            return html_view(facts, findings, title_of(options.input));
        case report_format::text:
            break;
    }
    return text_view(facts, findings);
}

int run(const report_options& options) {
    const files_input input = files_open(options.input, "archive");
    bool is_whole = false;
    const auto produce = [&](const files_sink& sink) {
        const archive_facts facts = facts_of(input);
        is_whole = facts.archive.state == archiveview::archive_state::whole;
        sink(report_of(facts, options));
    };
    if (!options.page.empty() && options.page != "-") {
        files_write(options.page, input, produce);
    } else {
        files_write_standard_output(input, produce);
    }
    return is_whole ? 0 : status_not_whole;
}

int parse_and_run(int argc, char** argv) {
    report_options options;
    const std::string wrong = archiveview::parse_options(argc, argv, &options);
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
        (void)fprintf(stderr, "archiveview: %s\n", archiveview::printable(error.what()).c_str());
        return status_failed;
    }
}
