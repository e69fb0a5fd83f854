// The files of a tool that reads one and writes one.
#pragma once

#include <stddef.h>

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "common/unique_fd.h"

struct files_input {
    std::string name;  // as on the command line; "-": standard input
    std::string kind;  // what it is, for messages: "trace"
    unique_fd file;    // empty: standard input
};

// All of these throw std::runtime_error, or std::system_error, if they fail.

files_input files_open(const std::string& name, const std::string& kind);

// The descriptor to read from; borrowed.
int files_descriptor(const files_input& input);

// Reads into `to`. Returns how many bytes were read, 0 at the end.
size_t files_read(const files_input& input, std::span<char> to);

using files_sink = std::function<void(std::string_view text)>;

// Writes what `produce` passes to its sink to standard output, at once.
void files_write_standard_output(const files_input& input,
                                 const std::function<void(const files_sink&)>& produce);

// As above, to a file. A complete file replaces an earlier one, or there is none; if the name is a symbolic
// link, its target is replaced. What is not a regular file is written at once.
void files_write(const std::string& path, const files_input& input,
                 const std::function<void(const files_sink&)>& produce);
