// The command line of rtraceview.
#pragma once

#include <string>
#include <string_view>

enum class view_format { text, json, csv, html };

struct view_options {
    view_format format = view_format::text;
    std::string input;  // "-": standard input
    std::string page;   // the file for --html; "-": standard output
    bool wants_help = false;
};

extern const std::string_view view_usage;

// Returns an empty string on success, else what is wrong with the command line.
std::string view_parse_options(int argc, char** argv, view_options* options);
