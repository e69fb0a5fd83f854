// The applets and how one is chosen.
#pragma once

#include <span>

struct app_entry {
    const char* name;
    int (*run)(int argc, char** argv);  // returns the exit status
};

// All applets of this program, in the order in which names are compared.
extern const std::span<const app_entry> app_table;

// Runs the applet of `table` that the last path component of argv[0] names. If that is "zarvo", argv[1] names
// the applet, which then gets its own name as argv[0]. Returns the applet's result; 1 if there is no such
// applet, with a message on standard output, or if no name is given, without a message.
int app_dispatch(int argc, char** argv, std::span<const app_entry> table);
