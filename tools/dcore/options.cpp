#include "tools/dcore/options.h"

#include <string.h>
#include <unistd.h>

#include <charconv>

const char dcore_usage[] =
    "usage: dcore [-c FILE] PID\n"
    "  write a core file of the running process PID, which then runs on\n"
    "  -c FILE  write to FILE instead of standard output\n";

namespace {

bool is_standard_output(const char* file) {
    return strcmp(file, "-") == 0 || strcmp(file, "/dev/stdout") == 0;
}

bool parse_pid(const char* text, pid_t* pid) {
    pid_t number = 0;
    const char* end = text + strlen(text);
    auto [rest, error] = std::from_chars(text, end, number);
    if (error != std::errc() || rest != end || number <= 0) {
        return false;
    }
    *pid = number;
    return true;
}

}  // namespace

std::string options_parse(int argc, char** argv, dcore_options* options) {
    dcore_options found;
    optind = 1;
    opterr = 0;
    for (int option; (option = getopt(argc, argv, "c:")) != -1;) {
        if (option != 'c') {
            std::string option_name = {'-', static_cast<char>(optopt)};
            return optopt == 'c' ? "missing file after '-c'" : "unknown option '" + option_name + "'";
        }
        found.file = is_standard_output(optarg) ? nullptr : optarg;
    }
    if (argc - optind != 1) {
        return argc == optind ? "missing process id" : "more than one process id";
    }
    if (!parse_pid(argv[optind], &found.pid)) {
        return "'" + std::string(argv[optind]) + "' is not a process id";
    }
    *options = found;
    return "";
}
