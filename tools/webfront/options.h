// The command line.
#pragma once

#include <stdint.h>

#include <string>

struct webfront_options {
    uint16_t port = 8080;  // 0: the kernel chooses
    std::string socket_path = "/var/run/dbg-cgi/ctrl-cgi-socket";
    std::string reader_path;      // empty: archiveview, in the folder of this program
    uint16_t forwarded_port = 0;  // of the emulated machine's host, which forwards it; 0: none
    bool help = false;
};

extern const char webfront_usage[];

// Returns an empty string on success, else what is wrong with the command line.
std::string webfront_parse(int argc, char** argv, webfront_options* options);
