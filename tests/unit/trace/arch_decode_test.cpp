#include "trace/arch_decode.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/unit/trace/call_stops.h"
#include "tests/unit/trace/fake_memory.h"
#include "tests/unit/trace/one_process_trace.h"
#include "trace/strace.h"
#include "trace/strace_process.h"

namespace {

constexpr int64_t o32_write = 4004;

int describe_nothing(const syscall_view& /*view*/, int /*fd*/, char* /*buf*/, size_t /*len*/) {
    return -1;
}

// The line of one call that `print` prints into a buffer of `size` bytes.
template <typename Print>
std::string printed(Print print, size_t size) {
    fake_memory nothing;
    tracee_memory memory = nothing.view();
    syscall_view view = {42, "prog", &memory, describe_nothing, nullptr, nullptr};
    syscall_record call = {1, 2, o32_getpid, {1, 2, 3, 4, 5, 6}, 5, 0};
    std::string buffer(size + 1, '#');
    int length = print(view, &call, buffer.data(), static_cast<int>(size));
    EXPECT_EQ(buffer.back(), '#') << "wrote past the buffer";
    std::string line = buffer.c_str();
    EXPECT_EQ(length, static_cast<int>(line.size()));
    return line;
}

// A child that makes a few calls, and the context that decodes them.
class arch_dec : public testing::Test {
protected:
    arch_dec() {
        ctx_.cookie = this;
        ctx_.on_exit = note_exit;
    }
    strace_process& process() { return trace_.process(); }

    std::string entry(int size = 4096) {
        buffer_ = std::string(static_cast<size_t>(size), '#');
        length_ = arch_dec_syscall(&ctx_, pid_, &process(), buffer_.data(), size, &regs_);
        return buffer_.c_str();
    }
    std::string exit() {
        buffer_ = std::string(4096, '#');
        arch_regs ret = {};
        length_ = arch_dec_syscall_ret(&ctx_, pid_, &process(), buffer_.data(), 4096, &regs_, &ret);
        result_ = ret.result;
        return buffer_.c_str();
    }
    // "[pid me] [pc ra] " as the registers of the entry have it.
    std::string head() const {
        char text[100];
        snprintf(text, sizeof text, "[%d me] [%lx %lx] ", pid_, static_cast<unsigned long>(regs_.pc),
                 static_cast<unsigned long>(regs_.ra));
        return text;
    }

    static void note_exit(strace_ctx* ctx, void* cookie, pid_t pid, int kind, int code, void* /*extra*/) {
        auto* self = static_cast<arch_dec*>(cookie);
        EXPECT_EQ(ctx, &self->ctx_);
        EXPECT_EQ(pid, self->pid_);
        EXPECT_EQ(kind, strace_exit_call);
        self->exits_.push_back(code);
    }

    self_traced_child<int (*)()> child_{[] {
        (void)!write(-1, "xyz", 3);
        syscall(SYS_getppid, 1, 2, 3, 4, 5, 6);
        return static_cast<int>(syscall(SYS_exit_group, 7));
    }};
    pid_t pid_ = child_.pid();
    one_process_trace trace_{&pid_, "me"};
    strace_ctx& ctx_ = trace_.ctx;
    arch_regs regs_ = {};
    std::string buffer_;
    int length_ = 0;
    int64_t result_ = 0;
    std::vector<int> exits_;
};

using arch_dec_syscall_line = arch_dec;
using arch_dec_syscall_ret_line = arch_dec;

}  // namespace

TEST(arch_print_syscall, entry_line_has_a_newline_if_more_than_two_bytes_are_left) {
    const std::string line = "[42 prog] [1 2] getpid(1, 2, 3, 4, 5, 6)";
    for (size_t left : {1, 2}) {
        EXPECT_EQ(printed(arch_print_syscall, line.size() + left), line);
    }
    for (size_t left : {3, 4, 100}) {
        EXPECT_EQ(printed(arch_print_syscall, line.size() + left), line + "\n");
    }
}

TEST(arch_print_syscall_ret, exit_line_has_only_its_own_newline) {
    const std::string line = "[42 prog] [1 2] getpid(1, 2, 3, 4, 5, 6) = 5\n";
    for (size_t left : {1, 3, 100}) {
        EXPECT_EQ(printed(arch_print_syscall_ret, line.size() + left), line);
    }
}

TEST_F(arch_dec_syscall_line, has_six_arguments_and_a_newline) {
    ASSERT_TRUE(run_to_entry(pid_, o32_getppid, &regs_));
    regs_ = {};
    std::string line = entry();
    EXPECT_EQ(regs_.number, o32_getppid);
    EXPECT_EQ(line, head() + "getppid(1, 2, 3, 4, 5, 6)\n");
    EXPECT_EQ(length_, static_cast<int>(line.size()));
}

TEST_F(arch_dec_syscall_line, has_the_memory_of_the_process) {
    ASSERT_TRUE(run_to_entry(pid_, o32_write, &regs_));
    EXPECT_EQ(entry(), head() + "write(-1, \"xyz\", 3)\n");
}

TEST_F(arch_dec_syscall_line, that_does_not_fit_is_cut_and_counted) {
    ASSERT_TRUE(run_to_entry(pid_, o32_getppid, &regs_));
    std::string whole = entry();
    std::string line = entry(40);
    EXPECT_EQ(line, whole.substr(0, 39));
    EXPECT_EQ(length_, static_cast<int>(whole.size()) - 1);  // without the newline
}

TEST_F(arch_dec_syscall_line, of_exit_group_reports_the_exit) {
    ASSERT_TRUE(run_to_entry(pid_, o32_exit_group, &regs_));
    EXPECT_TRUE(exits_.empty());
    EXPECT_EQ(entry(), head() + "exit_group(7)\n");
    EXPECT_EQ(exits_, std::vector<int>{7});
}

TEST_F(arch_dec_syscall_line, is_missing_if_the_registers_cannot_be_read) {
    ASSERT_TRUE(run_to_entry(pid_, o32_getppid, &regs_));
    ASSERT_TRUE(trace_detach_stopped(pid_, 0));
    EXPECT_EQ(entry().substr(0, 1), "#");
    EXPECT_EQ(length_, -1);
    EXPECT_EQ(regs_.number, 0);
}

TEST_F(arch_dec_syscall_ret_line, has_the_arguments_of_the_entry_and_the_result) {
    ASSERT_TRUE(run_to_entry(pid_, o32_getppid, &regs_));
    arch_regs at_exit = {};
    ASSERT_TRUE(run_to_stop(pid_, &at_exit));
    std::string line = exit();
    EXPECT_EQ(line, head() + "getppid(1, 2, 3, 4, 5, 6) = " + std::to_string(getpid()) + "\n");
    EXPECT_EQ(length_, static_cast<int>(line.size()));
    EXPECT_EQ(result_, getpid());
    EXPECT_TRUE(exits_.empty());
}

TEST_F(arch_dec_syscall_ret_line, has_the_result_minus_one_if_the_registers_cannot_be_read) {
    ASSERT_TRUE(run_to_entry(pid_, o32_exit_group, &regs_));
    ASSERT_TRUE(trace_detach_stopped(pid_, 0));
    EXPECT_EQ(exit(), head() + "exit_group(7) = -1\n");
    EXPECT_TRUE(exits_.empty());
}

TEST_F(arch_dec_syscall_ret_line, needs_a_number_that_has_a_name) {
    ASSERT_TRUE(run_to_entry(pid_, o32_getppid, &regs_));
    for (int64_t number : {-1, 0, 3999, 4932, 5000, 6000}) {
        regs_.number = number;
        EXPECT_EQ(exit().substr(0, 1), "#") << number;
        EXPECT_EQ(length_, -1) << number;
    }
    for (int64_t number : {4000, 4931}) {
        regs_.number = number;
        exit();
        EXPECT_GT(length_, 0) << number;
    }
}

TEST_F(arch_dec_syscall_ret_line, of_an_unnumbered_call_is_empty) {
    regs_.number = -1;
    regs_.unnumbered = true;
    EXPECT_EQ(exit().substr(0, 1), "#");
    EXPECT_EQ(length_, 0);
}
