#include "tools/archiveview/facts/kernel.h"

#include <algorithm>
#include <string>

#include "tools/archiveview/facts/log_text.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

// By the number of the bit.
constexpr const char* taint_meanings[] = {
    "a proprietary module was loaded",
    "a module was loaded by force",
    "the processor or the system is out of its specification",
    "a module was unloaded by force",
    "a processor reported a machine check",
    "a page of memory was in a bad state",
    "a user or a program asked for the taint",
    "the kernel had an oops or a bug",
    "an ACPI table was replaced",
    "the kernel gave a warning",
    "a driver from staging was loaded",
    "a fault in the firmware was worked around",
    "a module from outside the kernel's source was loaded",
    "a module without a valid signature was loaded",
    "a processor was locked up for a time (soft lockup)",
    "the kernel was patched while it ran",
    "a mark of the distribution",
    "structures are laid out at random",
    "a test ran in the kernel",
};
constexpr unsigned taint_bits = 64;

// The newest lines of a text, of log_line_limit at most.
std::string_view newest_lines(std::string_view text) {
    size_t lines = 0;
    for (size_t at = text.size(); at > 1; at--) {
        if (text[at - 2] == '\n' && ++lines == log_line_limit) {
            return text.substr(at - 1);
        }
    }
    return text;
}

}  // namespace

void kernel_parse_log(kernel_facts* facts, std::string_view text) {
    facts->log.clear();
    if (text.size() > text_limit) {
        text.remove_prefix(text.size() - text_limit);
        take_line(&text);  // is not whole
    }
    text = newest_lines(text);
    while (!text.empty()) {
        const std::string_view line = take_line(&text);
        if (!trimmed(line).empty()) {
            add_within(&facts->log, log_line_limit, log_line_parse(line));
        }
    }
}

void kernel_set_tainted(kernel_facts* facts, uint64_t bits) {
    facts->tainted = bits;
    facts->taints.clear();
    for (unsigned bit = 0; bit < taint_bits; bit++) {
        if ((bits >> bit & 1) != 0) {
            facts->taints.push_back(bit < std::size(taint_meanings)
                                        ? taint_meanings[bit]
                                        : "bit " + std::to_string(bit) + " is set");
        }
    }
}

}  // namespace archiveview
