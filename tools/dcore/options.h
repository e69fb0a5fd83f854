// The dumper's command line.
#pragma once

#include <sys/types.h>

#include <string>

extern const char dcore_usage[];

struct dcore_options {
    pid_t pid = 0;
    const char* file = nullptr;  // borrowed from the command line; null for standard output
};

// Returns an empty string on success, else what is wrong with the command line.
std::string options_parse(int argc, char** argv, dcore_options* options);
