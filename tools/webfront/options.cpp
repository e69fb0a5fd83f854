#include "tools/webfront/options.h"

#include <getopt.h>

#include <charconv>
#include <string_view>

const char webfront_usage[] =
    "usage: webfront [--port N] [--socket PATH] [--forwarded-from N]\n"
    "  --port N       listens on 127.0.0.1 at port N; 0: any that is free [8080]\n"
    "  --socket PATH  the daemon's control socket [/var/run/dbg-cgi/ctrl-cgi-socket]\n"
    "  --forwarded-from N\n"
    "                 for an emulated machine: listens on every address, for requests that come to port N "
    "of\n"
    "                 127.0.0.1 on the machine outside\n"
    "  --help         prints this text\n";

namespace {

constexpr option long_options[] = {
    {"port", required_argument, nullptr, 'p'},
    {"socket", required_argument, nullptr, 's'},
    {"forwarded-from", required_argument, nullptr, 'f'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

bool parse_port(std::string_view text, uint16_t& port) {
    uint16_t number = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        return false;
    }
    port = number;
    return true;
}

}  // namespace

std::string webfront_parse(int argc, char** argv, webfront_options& options) {
    optind = 0;  // starts over, in the GNU library
    opterr = 0;
    for (int found; (found = getopt_long(argc, argv, ":", long_options, nullptr)) != -1;) {
        switch (found) {
            case 'p':
                if (!parse_port(optarg, options.port)) {
                    return std::string("not a port number: ") + optarg;
                }
                break;
            case 's':
                if (*optarg == '\0') {
                    return "the socket's path is empty";
                }
                options.socket_path = optarg;
                break;
            case 'f':
                if (!parse_port(optarg, options.forwarded_port) || options.forwarded_port == 0) {
                    return std::string("not a port that can be forwarded: ") + optarg;
                }
                break;
            case 'h':
                options.help = true;
                break;
            case ':':
                return std::string("a value is missing after ") + argv[optind - 1];
            default:
                return std::string("unknown option: ") + argv[optind - 1];
        }
    }
    return optind < argc ? std::string("unexpected word: ") + argv[optind] : std::string();
}
