// The kernel's own reports: its log, and the oops records that flash memory kept over a restart.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

namespace archiveview {

struct log_line {
    int level = -1;       // 0 (emergency) to 7 (debug); -1 if unknown
    double seconds = -1;  // since boot; -1 if unknown
    std::string text;
};

struct oops_record {
    unsigned number = 0;   // 1 is the oldest
    uint32_t count = 0;    // the number that the flash gives it
    bool is_cut = false;   // it ends in the middle of a line
    std::string headline;  // "Unable to handle kernel paging request at virtual address 00000010"
    std::string place;     // "do_sys_open+0x10c/0x210"; may be empty
    std::string process;   // may be empty
    int pid = 0;
    bool is_panic = false;
    std::vector<log_line> lines;
};

struct kernel_facts {
    std::vector<oops_record> oops;  // in order, the newest last
    std::string oops_remark;        // what the reader of the flash said, if it has no records
    std::vector<log_line> log;
    uint64_t tainted = 0;              // bits of /proc/sys/kernel/tainted
    std::vector<std::string> taints;   // their meanings
    std::vector<std::string> modules;  // lines of /proc/modules
};

void kernel_parse_oops(kernel_facts* facts, std::string_view text);
void kernel_parse_log(kernel_facts* facts, std::string_view text);  // keeps the newest lines
void kernel_set_tainted(kernel_facts* facts, uint64_t bits);

}  // namespace archiveview
