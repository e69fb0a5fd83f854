#include "tools/rtraceview/options.h"

#include <getopt.h>

const std::string_view view_usage =
    "usage: rtraceview [--json | --csv | --html PAGE] FILE\n"
    "\n"
    "Shows a resource trace from the debug daemon as text.\n"
    "\n"
    "  --json       write one JSON object for each sample\n"
    "  --csv        write a table of all numbers: time, source, subject, key, value, unit\n"
    "  --html PAGE  write a page with plots over time to PAGE\n"
    "  -h, --help   print this text\n"
    "\n"
    "FILE may be - for standard input. The exit status is 0 even if the trace is cut off, 1 if it is\n"
    "damaged, and 2 if it could not be read or shown at all.\n";

namespace {

constexpr option long_options[] = {{"json", no_argument, nullptr, 'j'},
                                   {"csv", no_argument, nullptr, 'c'},
                                   {"html", required_argument, nullptr, 'p'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {}};

view_format format_of(int letter) {
    return letter == 'j' ? view_format::json : letter == 'c' ? view_format::csv : view_format::html;
}

}  // namespace

std::string view_parse_options(int argc, char** argv, view_options* options) {
    view_options parsed;
    optind = 0;  // makes the GNU library start over
    opterr = 0;
    for (int letter; (letter = getopt_long(argc, argv, ":h", long_options, nullptr)) != -1;) {
        std::string word = argv[optind - 1];
        if (letter == 'h') {
            options->wants_help = true;
            return "";
        }
        if (letter == ':') {
            return "missing value after '" + word + "'";
        }
        if (letter == '?') {
            return "unknown option '" + word + "'";
        }
        if (parsed.format != view_format::text && parsed.format != format_of(letter)) {
            return "more than one format";
        }
        parsed.format = format_of(letter);
        parsed.page = letter == 'p' ? optarg : "";
    }
    if (argc - optind != 1) {
        return argc == optind ? "missing file" : "more than one file";
    }
    parsed.input = argv[optind];
    *options = parsed;
    return "";
}
