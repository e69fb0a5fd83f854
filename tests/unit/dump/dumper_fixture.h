// What the tests of dumper runs share.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/unit/support/children.h"
#include "tests/unit/support/fake_dumper.h"
#include "tests/unit/support/signals.h"

constexpr int some_pid = 4711;

// Checks that each test ends without children and with the descriptors that it began with.
class dumper_fixture : public testing::Test {
protected:
    void SetUp() override {
        ignore_broken_pipes();
        fake_dumper::use("/nonexistent/dumper");
        before_ = open_fds();
    }
    void TearDown() override {
        EXPECT_EQ(open_fds(), before_);
        EXPECT_TRUE(has_no_children());
    }

private:
    std::set<int> before_;
};

inline std::string killed_line(int pid = some_pid) {
    return "dump: killed the dumper of pid " + std::to_string(pid) + ": timed out\n";
}
