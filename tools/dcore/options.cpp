#include "tools/dcore/options.h"

#include <string.h>
#include <unistd.h>

#include <charconv>

const char dcore_usage[] =
    "usage: dcore [-c FILE] PID\n"
    "  writes a core file of the running process PID, which then goes on\n"
    "  -c FILE  into FILE instead of to standard output\n";

namespace {

bool is_standard_output(const char* file) {
    return strcmp(file, "-") == 0 || strcmp(file, "/dev/stdout") == 0;
}

bool parse_pid(const char* text, pid_t& pid) {
    const char* end = text + strlen(text);
    auto [rest, error] = std::from_chars(text, end, pid);
    return error == std::errc() && rest == end && pid > 0;
}

}  // namespace

const char* options_parse(int argc, char** argv, dcore_options& options) {
    dcore_options found;
    optind = 1;
    opterr = 0;
    for (int option; (option = getopt(argc, argv, "c:")) != -1;) {
        if (option != 'c') {
            return optopt == 'c' ? "-c wants a file" : "there is no such option";
        }
        found.file = is_standard_output(optarg) ? nullptr : optarg;
    }
    if (argc - optind != 1) {
        return "one process id is wanted";
    }
    if (!parse_pid(argv[optind], found.pid)) {
        return "the process id is no positive number";
    }
    options = found;
    return nullptr;
}
