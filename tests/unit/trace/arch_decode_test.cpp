#include "trace/arch_decode.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/trace/fake_memory.h"

namespace {

constexpr int o32_getpid = 4020;

int describe_nothing(const syscall_view& /*view*/, int /*fd*/, char* /*buf*/, size_t /*len*/) {
    return -1;
}

// The line of one call as `print` builds it in a buffer of `size` bytes.
template <typename Print>
std::string printed(Print print, size_t size) {
    fake_memory nothing;
    tracee_memory memory = nothing.view();
    syscall_view view = {42, "prog", &memory, describe_nothing, nullptr, nullptr};
    syscall_record call = {1, 2, o32_getpid, {1, 2, 3, 4, 5, 6}, 5, 0};
    std::string room(size + 1, '#');
    int length = print(view, &call, room.data(), static_cast<int>(size));
    EXPECT_EQ(room.back(), '#') << "wrote past the buffer";
    std::string line = room.c_str();
    EXPECT_EQ(length, static_cast<int>(line.size()));
    return line;
}

}  // namespace

TEST(arch_print_syscall, entry_line_has_a_newline_where_more_than_two_bytes_are_left) {
    const std::string line = "[42 prog] [1 2] getpid(1, 2, 3, 4, 5, 6)";
    for (size_t left : {1, 2}) {
        EXPECT_EQ(printed(arch_print_syscall, line.size() + left), line);
    }
    for (size_t left : {3, 4, 100}) {
        EXPECT_EQ(printed(arch_print_syscall, line.size() + left), line + "\n");
    }
}

TEST(arch_print_syscall_ret, exit_line_has_its_own_newline_alone) {
    const std::string line = "[42 prog] [1 2] getpid(1, 2, 3, 4, 5, 6) = 5\n";
    for (size_t left : {1, 3, 100}) {
        EXPECT_EQ(printed(arch_print_syscall_ret, line.size() + left), line);
    }
}
