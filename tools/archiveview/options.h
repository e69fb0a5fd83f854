// The command line of archiveview.
#pragma once

#include <string>
#include <string_view>

namespace archiveview {

enum class report_format { text, json, html };

struct report_options {
    report_format format = report_format::text;
    std::string input;  // "-": standard input
    std::string page;   // the file for --html; "-": standard output
    bool wants_help = false;
};

extern const std::string_view usage;

// Returns an empty string on success, else what is wrong with the command line.
std::string parse_options(int argc, char** argv, report_options* options);

}  // namespace archiveview
