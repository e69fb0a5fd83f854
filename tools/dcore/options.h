// The dumper's command line.
#pragma once

#include <sys/types.h>

extern const char dcore_usage[];

struct dcore_options {
    pid_t pid = 0;
    const char* file = nullptr;  // borrowed from the command line; null for standard output
};

// Fills `options`. Returns null, or what is wrong with the command line.
const char* options_parse(int argc, char** argv, dcore_options& options);
