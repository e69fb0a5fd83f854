// The command line of rtraceview.
#pragma once

#include <string>
#include <string_view>

enum class view_format { text, json, csv, html };

struct view_options {
    view_format format = view_format::text;
    std::string input;  // "-": standard input
    std::string page;   // where the page goes
    bool wants_help = false;
};

extern const std::string_view view_usage;

// Fills `*options`; returns what is wrong, or an empty text.
std::string parse_view_options(int argc, char** argv, view_options* options);
