// Reads what the debugger prints about stacks.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

namespace archiveview {

struct debugger_frame {
    uint64_t pc = 0;       // 0 if it is that of the frame before: a function that was inlined
    std::string function;  // empty if the debugger does not know it
};

struct debugger_stack {
    int tid = 0;
    std::vector<debugger_frame> frames;  // innermost first
};

// Ignores whatever is not a thread or a frame.
std::vector<debugger_stack> debugger_stacks_read(std::string_view text);

}  // namespace archiveview
