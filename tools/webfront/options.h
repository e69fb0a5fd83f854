// The command line.
#pragma once

#include <stdint.h>

#include <string>

struct webfront_options {
    uint16_t port = 8080;  // 0: the kernel chooses
    std::string socket_path = "/var/run/dbg-cgi/ctrl-cgi-socket";
    uint16_t forwarded_port = 0;  // not 0: the machine outside forwards this port of its loopback to us
    bool help = false;
};

extern const char webfront_usage[];

// Fills `options`. Returns what is wrong with the command line, empty when nothing is.
std::string webfront_parse(int argc, char** argv, webfront_options& options);
