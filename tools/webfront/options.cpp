#include "tools/webfront/options.h"

#include <getopt.h>

#include <charconv>
#include <string_view>

const char webfront_usage[] =
    "usage: webfront [--port N] [--socket PATH] [--reader PATH] [--forwarded-from N]\n"
    "  --port N       listen on port N of 127.0.0.1; 0: any free port [8080]\n"
    "  --socket PATH  the daemon's control socket [/var/run/dbg-cgi/ctrl-cgi-socket]\n"
    "  --reader PATH  the program that makes reports of archives [archiveview, beside this program]\n"
    "  --forwarded-from N\n"
    "                 for an emulated machine: listen on every address, for requests that the host\n"
    "                 forwards from port N of its own 127.0.0.1\n"
    "  --help         print this text\n";

namespace {

constexpr option long_options[] = {
    {"port", required_argument, nullptr, 'p'},   {"socket", required_argument, nullptr, 's'},
    {"reader", required_argument, nullptr, 'r'}, {"forwarded-from", required_argument, nullptr, 'f'},
    {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0},
};

bool parse_port(std::string_view text, uint16_t* port) {
    uint16_t number = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        return false;
    }
    *port = number;
    return true;
}

std::string quoted(std::string_view word) {
    return "'" + std::string(word) + "'";
}

// Takes one option. `word` is the argument that getopt read last.
std::string take_option(int found, const char* word, webfront_options* options) {
    switch (found) {
        case 'p':
            return parse_port(optarg, &options->port) ? "" : quoted(optarg) + " is not a port number";
        case 's':
            options->socket_path = optarg;
            return *optarg != '\0' ? "" : "the socket's path is empty";
        case 'r':
            options->reader_path = optarg;
            return *optarg != '\0' ? "" : "the reader's path is empty";
        case 'f':
            return parse_port(optarg, &options->forwarded_port) && options->forwarded_port != 0
                       ? ""
                       : quoted(optarg) + " is not a port that can be forwarded";
        case 'h':
            options->help = true;
            return "";
        case ':':
            return "missing value after " + quoted(word);
        default:
            return "unknown option " + quoted(word);
    }
}

}  // namespace

std::string webfront_parse(int argc, char** argv, webfront_options* options) {
    webfront_options parsed;
    optind = 0;  // makes the GNU library start over
    opterr = 0;
    for (int found; (found = getopt_long(argc, argv, ":", long_options, nullptr)) != -1;) {
        std::string wrong = take_option(found, argv[optind - 1], &parsed);
        if (!wrong.empty()) {
            return wrong;
        }
    }
    if (optind < argc) {
        return "unexpected argument " + quoted(argv[optind]);
    }
    *options = parsed;
    return "";
}
