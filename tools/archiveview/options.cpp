#include "tools/archiveview/options.h"

#include <getopt.h>

namespace archiveview {

const std::string_view usage =
    "usage: archiveview [--html PAGE | --json] FILE\n"
    "\n"
    "Reads a debug archive, .tgz or .tar, and says what is wrong.\n"
    "\n"
    "  --html PAGE  write a page with all facts to PAGE\n"
    "  --json       write all facts as JSON\n"
    "  -h, --help   print this text\n"
    "\n"
    "FILE may be - for standard input. The exit status is 0 if the archive is whole, 3 if it is cut or\n"
    "damaged but was read, 1 if it could not be read, and 2 if the command line is wrong.\n";

namespace {

constexpr option long_options[] = {{"html", required_argument, nullptr, 'p'},
                                   {"json", no_argument, nullptr, 'j'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {}};

// Returns what is wrong with an option, or an empty string.
std::string take_option(int letter, const std::string& word, report_options* options) {
    if (letter == ':') {
        return "missing value after '" + word + "'";
    }
    if (letter == '?') {
        return "unknown option '" + word + "'";
    }
    const report_format format = letter == 'j' ? report_format::json : report_format::html;
    if (options->format != report_format::text && options->format != format) {
        return "more than one format";
    }
    options->format = format;
    options->page = letter == 'p' ? optarg : "";
    return "";
}

}  // namespace

std::string parse_options(int argc, char** argv, report_options* options) {
    report_options parsed;
    optind = 0;  // makes the GNU library start over
    opterr = 0;
    for (int letter; (letter = getopt_long(argc, argv, ":h", long_options, nullptr)) != -1;) {
        if (letter == 'h') {
            options->wants_help = true;
            return "";
        }
        if (std::string wrong = take_option(letter, argv[optind - 1], &parsed); !wrong.empty()) {
            return wrong;
        }
    }
    if (argc - optind != 1) {
        return argc == optind ? "missing file" : "more than one file";
    }
    parsed.input = argv[optind];
    *options = parsed;
    return "";
}

}  // namespace archiveview
