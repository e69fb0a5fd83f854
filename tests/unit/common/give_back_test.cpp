#include "common/give_back.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace {

long resident_kb(const std::string& kind) {
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(kind + ":")) {
            return std::stol(line.substr(kind.size() + 1));
        }
    }
    return -1;
}

}  // namespace

TEST(give_memory_back, makes_the_process_smaller_and_it_still_works) {
    long before = resident_kb("VmRSS");
    give_memory_back();
    long after = resident_kb("VmRSS");
    EXPECT_GT(before, 0);
    EXPECT_LT(after, before);
}

TEST(give_memory_back, may_be_called_again_at_once) {
    give_memory_back();
    give_memory_back();
    EXPECT_GT(resident_kb("VmRSS"), 0);
}
