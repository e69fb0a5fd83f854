#include "tools/rtraceview/options.h"

#include <getopt.h>

const std::string_view view_usage =
    "usage: rtraceview [--json | --csv | --html PAGE] FILE\n"
    "\n"
    "Shows a resource trace, as the debug daemon sends it, as text.\n"
    "\n"
    "  --json       one JSON object for each sample\n"
    "  --csv        a table of all numbers: time, source, subject, key, value, unit\n"
    "  --html PAGE  writes a page with plots over time to PAGE\n"
    "  -h, --help   this text\n"
    "\n"
    "FILE may be - for standard input. The end status is 0 also for a trace that is cut off, 1 for one that "
    "is\n"
    "damaged, 2 when it could not be read or shown at all.\n";

namespace {

constexpr option long_options[] = {{"json", no_argument, nullptr, 'j'},
                                   {"csv", no_argument, nullptr, 'c'},
                                   {"html", required_argument, nullptr, 'p'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {}};

}  // namespace

std::string parse_view_options(int argc, char** argv, view_options* options) {
    bool has_format = false;
    auto choose = [&](view_format format) {
        bool is_second = has_format && options->format != format;
        has_format = true;
        options->format = format;
        return is_second;
    };
    optind = 0;
    for (int letter; (letter = getopt_long(argc, argv, "h", long_options, nullptr)) != -1;) {
        bool is_second = false;
        switch (letter) {
            case 'j':
                is_second = choose(view_format::json);
                break;
            case 'c':
                is_second = choose(view_format::csv);
                break;
            case 'p':
                is_second = choose(view_format::html);
                options->page = optarg;
                break;
            case 'h':
                options->wants_help = true;
                return "";
            default:
                return "an option that there is not";
        }
        if (is_second) {
            return "more than one format";
        }
    }
    if (argc - optind != 1) {
        return argc == optind ? "no file" : "more than one file";
    }
    options->input = argv[optind];
    return "";
}
