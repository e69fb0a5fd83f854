#include "trace/print_syscall.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <set>
#include <string>
#include <vector>

#include "tests/unit/trace/fake_memory.h"
#include "trace/syscall_names.h"

namespace {

constexpr uint64_t text_at = 0x1000;   // "/etc/fstab"
constexpr uint64_t bytes_at = 0x2000;  // 0, 1, 2, ... 255
constexpr uint64_t pair_at = 0x3000;   // two words: 5, 7
constexpr uint64_t block_at = 0x4000;  // the arguments of a socket call
constexpr uint64_t nowhere = 0x9000;

std::string all_bytes() {
    std::string bytes;
    for (int c = 0; c < 256; c++) {
        bytes += static_cast<char>(c);
    }
    return bytes;
}

class print_syscall_line : public testing::Test {
protected:
    print_syscall_line() {
        memory_.pieces[text_at] = std::string("/etc/fstab\0after the end, not shown!!!!", 39);
        memory_.pieces[bytes_at] = all_bytes();
        long pair[] = {5, 7};
        memory_.pieces[pair_at] = std::string(reinterpret_cast<char*>(pair), sizeof pair);
        set_block({7, static_cast<int32_t>(text_at), 3, 4, 5, 6});
    }

    void set_block(const std::vector<int32_t>& block) {
        memory_.pieces[block_at] =
            std::string(reinterpret_cast<const char*>(block.data()), block.size() * sizeof(int32_t));
    }

    static int describe(const syscall_view& /*view*/, int fd, char* buf, size_t len) {
        return fd == 7 ? snprintf(buf, len, "/dev/seven") : fd == 8 ? 0 : -1;
    }
    static void note_exit(const syscall_view& view, int code) {
        static_cast<print_syscall_line*>(view.cookie)->exits_.push_back(code);
    }

    std::string print(syscall_record call, bool entry, int size = 4096) {
        std::string buffer(static_cast<size_t>(size) + 1, '#');
        tracee_memory memory = memory_.view();
        syscall_view view = {42, "prog", &memory, describe, note_exit, this};
        length_ = print_syscall(view, &call, entry, buffer.data(), size);
        EXPECT_EQ(buffer.back(), '#') << "wrote past the buffer";
        EXPECT_EQ(call.write_back, 0);
        return buffer.c_str();
    }

    // The call's name and arguments in the entry line.
    std::string entry(int number, std::vector<int64_t> args) {
        return after_head(print(record(number, args, number), true));
    }
    std::string exit(int number, std::vector<int64_t> args, int64_t result) {
        return after_head(print(record(number, args, result), false));
    }
    // Both lines, which differ only in the result.
    std::string both(int number, std::vector<int64_t> args) {
        std::string line = entry(number, args);
        EXPECT_EQ(exit(number, args, 3), line + " = 3\n");
        return line;
    }

    static syscall_record record(int number, const std::vector<int64_t>& args, int64_t result) {
        syscall_record call = {0x400abc, 0x400def, number, {}, result, 0};
        std::copy(args.begin(), args.end(), call.arg);
        return call;
    }
    static std::string after_head(const std::string& line) {
        static const std::string head = "[42 prog] [400abc 400def] ";
        EXPECT_EQ(line.substr(0, head.size()), head);
        return line.substr(head.size());
    }

    fake_memory memory_;
    std::vector<int> exits_;
    int length_ = 0;
};

using print_syscall_strings = print_syscall_line;
using print_syscall_socketcall = print_syscall_line;
using print_syscall_size = print_syscall_line;

}  // namespace

TEST_F(print_syscall_line, head_has_pid_name_program_counter_and_return_address) {
    EXPECT_EQ(print(record(4020, {1, 2, 3, 4, 5, 6}, 4020), true),
              "[42 prog] [400abc 400def] getpid(1, 2, 3, 4, 5, 6)");
    EXPECT_EQ(length_, 50);
    EXPECT_EQ(print(record(4020, {1, 2, 3, 4, 5, 6}, 99), false),
              "[42 prog] [400abc 400def] getpid(1, 2, 3, 4, 5, 6) = 99\n");
    EXPECT_EQ(length_, 56);
}

TEST_F(print_syscall_line, exit_reports_its_code_at_the_entry_only) {
    EXPECT_EQ(entry(4001, {3}), "exit(3)");
    EXPECT_EQ(exits_, std::vector<int>{3});
    EXPECT_EQ(exit(4001, {3}, 0), "exit(3) = 0\n");
    EXPECT_EQ(exits_.size(), 1u);
    EXPECT_EQ(entry(4246, {-1}), "exit_group(-1)");
    EXPECT_EQ(exits_, (std::vector<int>{3, -1}));
}

TEST_F(print_syscall_line, no_other_call_reports_an_exit) {
    for (int number = 4000; number < 4000 + syscall_count; number++) {
        if (number != 4001 && number != 4246) {
            entry(number, {});
        }
    }
    EXPECT_TRUE(exits_.empty());
}

TEST_F(print_syscall_line, read_shows_the_address_at_the_entry_and_the_data_at_the_exit) {
    EXPECT_EQ(entry(4003, {7, bytes_at + 'a', 100}), "read(7 /dev/seven, 0x2061, 100)");
    EXPECT_EQ(exit(4003, {7, bytes_at + 'a', 100}, 4), "read(7 /dev/seven, \"abcd\", 100) = 4\n");
    EXPECT_EQ(exit(4003, {7, bytes_at, 100}, 0), "read(7 /dev/seven, \"\", 100) = 0\n");
    EXPECT_EQ(exit(4003, {7, bytes_at, 100}, -9), "read(7 /dev/seven, \"\", 100) = -9\n");
}

TEST_F(print_syscall_line, write_shows_the_data_at_entry_and_exit) {
    EXPECT_EQ(both(4004, {7, text_at, 4}), "write(7 /dev/seven, \"/etc\", 4)");
}

TEST_F(print_syscall_line, descriptors_have_a_description_if_they_are_open) {
    EXPECT_EQ(both(4006, {7}), "close(7 /dev/seven)");
    EXPECT_EQ(both(4006, {8}), "close(8)");
    EXPECT_EQ(both(4006, {9}), "close(9)");
    EXPECT_EQ(both(4006, {-1}), "close(-1)");
    EXPECT_EQ(both(4006, {0x100000007}), "close(7 /dev/seven)");
}

TEST_F(print_syscall_line, calls_with_numbers) {
    EXPECT_EQ(both(4007, {-1, 0xabc, 2}), "waitpid(0x-1, 0xabc, 2)");
    EXPECT_EQ(both(4013, {0xabc}), "time(0xabc)");
    EXPECT_EQ(both(4019, {7, -5, 1}), "lseek(7 /dev/seven, -5, 1)");
    EXPECT_EQ(both(4045, {0x1000}), "brk(0x1000)");
    EXPECT_EQ(both(4054, {7, 1234, 0xa, 0xb, 0xc, 0xd}), "ioctl(7 /dev/seven, 1234, a, b, c, d)");
    EXPECT_EQ(both(4078, {0xa, 0xb}), "gettimeofday(0xa, 0xb)");
    EXPECT_EQ(both(4079, {0xa, 0xb}), "settimeofday(0xa, 0xb)");
    EXPECT_EQ(both(4091, {0xa000, 4096}), "munmap(0xa000, 4096)");
    EXPECT_EQ(both(4108, {7, 0xabc}), "fstat(7 /dev/seven, 0xabc)");
    EXPECT_EQ(both(4188, {0xabc, 2, -1}), "poll(0xabc, 2, -1)");
}

TEST_F(print_syscall_line, calls_with_a_path) {
    EXPECT_EQ(both(4033, {text_at, 4}), "access(\"/etc/fstab\", 0x4)");
    EXPECT_EQ(both(4033, {text_at, -1}), "access(\"/etc/fstab\", 0xffffffff)");
    EXPECT_EQ(both(4106, {text_at, 0xabc}), "stat(\"/etc/fstab\", 0xabc)");
    EXPECT_EQ(both(4107, {nowhere, 0xabc}), "lstat(\"\", 0xabc)");
}

TEST_F(print_syscall_line, mmap_has_a_hexadecimal_result) {
    const std::vector<int64_t> args = {0, 8192, 3, 0x22, 7, 5};
    EXPECT_EQ(entry(4090, args), "mmap(0x0, 8192, 0x3, 0x22, 7 /dev/seven, 5)");
    EXPECT_EQ(exit(4090, args, 0x77000), "mmap(0x0, 8192, 0x3, 0x22, 7 /dev/seven, 5) = 0x77000\n");
    EXPECT_EQ(entry(4210, args), "mmap2(0x0, 8192, 0x3, 0x22, 7 /dev/seven, 5)");
    EXPECT_EQ(exit(4210, args, 0x77000), "mmap2(0x0, 8192, 0x3, 0x22, 7 /dev/seven, 5) = 0x77000\n");
}

TEST_F(print_syscall_line, ptrace_requests_have_names_or_numbers) {
    EXPECT_EQ(both(4026, {16, 5, 0xa, 0xb}), "ptrace(PTRACE_ATTACH, 5, 0xa, 0xb)");
    const std::vector<std::pair<int, std::string>> named = {
        {1, "PTRACE_PEEKTEXT"}, {2, "PTRACE_PEEKDATA"}, {3, "PTRACE_PEEKUSER"}, {4, "PTRACE_POKETEXT"},
        {5, "PTRACE_POKEDATA"}, {6, "PTRACE_POKEUSER"}, {24, "PTRACE_SYSCALL"},
    };
    for (const auto& [number, name] : named) {
        EXPECT_EQ(entry(4026, {number, 5, 0, 0}), "ptrace(" + name + ", 5, 0x0, 0x0)");
    }
    for (int number : {0, 7, 12, 17, -3}) {
        EXPECT_EQ(entry(4026, {number, 5, 0, 0}), "ptrace(" + std::to_string(number) + ", 5, 0x0, 0x0)");
    }
}

TEST_F(print_syscall_line, nanosleep_shows_two_pairs_of_words) {
    EXPECT_EQ(both(4166, {pair_at, pair_at}), "nanosleep({ 5, 7 }, { 5, 7 })");
    EXPECT_EQ(both(4166, {pair_at, nowhere}), "nanosleep({ 5, 7 }, { -1, -1 })");
}

TEST_F(print_syscall_line, other_calls_have_six_numbers) {
    const std::set<int> rows = {4001, 4003, 4004, 4006, 4007, 4013, 4019, 4026, 4033, 4045, 4054,
                                4078, 4079, 4090, 4091, 4102, 4106, 4107, 4108, 4166, 4169, 4170,
                                4176, 4177, 4179, 4180, 4181, 4182, 4183, 4188, 4210, 4246};
    for (int number = 4000; number < 4000 + syscall_count; number++) {
        if (!rows.contains(number)) {
            std::string name = syscall_names[static_cast<size_t>(number - 4000)];
            EXPECT_EQ(both(number, {1, 2, 3, 4, 5, -1}),
                      name + "(1, 2, 3, 4, 5, " + std::to_string(static_cast<unsigned long>(-1)) + ")");
        }
    }
}

TEST_F(print_syscall_line, direct_socket_calls) {
    const int64_t text = static_cast<int64_t>(text_at);
    EXPECT_EQ(both(4183, {2, 1, 6, 9, 9, 9}), "socket(2, 1, 6)");
    EXPECT_EQ(both(4169, {7, 0xabc, 16}), "bind(7 /dev/seven, 0xabc, 16)");
    EXPECT_EQ(both(4170, {7, 0xabc, 16}), "connect(7 /dev/seven, 0xabc, 16)");
    EXPECT_EQ(both(4180, {7, text, 4, 0x40, 0xabc, 16}),
              "sendto(7 /dev/seven, \"/etc\", 4, 0x40, 0xabc, 16)");
    EXPECT_EQ(both(4176, {7, text, 4, 0x40, 0xabc, 0xdef}),
              "recvfrom(7 /dev/seven, \"/etc\", 0x40, 0xabc, 0xdef)");
    EXPECT_EQ(both(4182, {7, 2}), "shutdown(7 /dev/seven, 2)");
    EXPECT_EQ(both(4181, {7, 1, 2, 0xabc, 4}), "setsockopt(7 /dev/seven, 1, 2, 0xabc, 0x4)");
    EXPECT_EQ(both(4179, {7, 0xabc, 0x4000}), "sendmsg(7 /dev/seven, 0xabc, 4000)");
    EXPECT_EQ(both(4177, {7, 0xabc, 64}), "recvmsg(7 /dev/seven, 0xabc, 64)");
}

TEST_F(print_syscall_socketcall, has_name_and_arguments_of_the_inner_call) {
    const int64_t at = static_cast<int64_t>(block_at);
    EXPECT_EQ(both(4102, {1, at}), "socket(7, 4096, 3)");
    EXPECT_EQ(both(4102, {2, at}), "bind(7 /dev/seven, 0x1000, 3)");
    EXPECT_EQ(both(4102, {3, at}), "connect(7 /dev/seven, 0x1000, 3)");
    EXPECT_EQ(both(4102, {4, at}), "listen(7, 4096, 3, 4, 5, 6)");
    EXPECT_EQ(both(4102, {11, at}), "sendto(7 /dev/seven, \"/et\", 3, 0x4, 0x5, 6)");
    EXPECT_EQ(both(4102, {12, at}), "recvfrom(7 /dev/seven, \"/et\", 0x4, 0x5, 0x6)");
    EXPECT_EQ(both(4102, {13, at}), "shutdown(7 /dev/seven, 4096)");
    EXPECT_EQ(both(4102, {14, at}), "setsockopt(7 /dev/seven, 4096, 3, 0x4, 0x5)");
    EXPECT_EQ(both(4102, {16, at}), "sendmsg(7 /dev/seven, 0x1000, 3)");
    EXPECT_EQ(both(4102, {17, at}), "recvmsg(7 /dev/seven, 0x1000, 3)");
    EXPECT_EQ(both(4102, {18, at}), "accept4(7, 4096, 3, 4, 5, 6)");
}

TEST_F(print_syscall_socketcall, unknown_numbers_have_no_name_and_large_ones_are_masked) {
    const int64_t at = static_cast<int64_t>(block_at);
    EXPECT_EQ(both(4102, {0, at}), "(7, 4096, 3, 4, 5, 6)");
    EXPECT_EQ(both(4102, {19, at}), "(7, 4096, 3, 4, 5, 6)");
    EXPECT_EQ(both(4102, {32 + 2, at}), "bind(7 /dev/seven, 0x1000, 3)");
    EXPECT_EQ(both(4102, {-1, at}), "(7, 4096, 3, 4, 5, 6)");
}

TEST_F(print_syscall_socketcall, unreadable_arguments_are_0) {
    EXPECT_EQ(both(4102, {4, static_cast<int64_t>(nowhere)}), "listen(0, 0, 0, 0, 0, 0)");
}

TEST_F(print_syscall_strings, unprintable_bytes_are_escaped) {
    EXPECT_EQ(both(4004, {9, bytes_at, 16}),
              "write(9, \"\\x0\\x1\\x2\\x3\\x4\\x5\\x6\\x7\\x8\\t\\n\\xb\\xc\\r\\xe\\xf\", 16)");
    EXPECT_EQ(both(4004, {9, bytes_at + 30, 6}), "write(9, \"\\x1e\\x1f !\"#\", 6)");
    EXPECT_EQ(both(4004, {9, bytes_at + 91, 3}), "write(9, \"[\\]\", 3)");
    EXPECT_EQ(both(4004, {9, bytes_at + 126, 4}), "write(9, \"~\\x7f\\x80\\x81\", 4)");
}

TEST_F(print_syscall_strings, byte_of_255_is_no_error) {
    memory_.pieces[nowhere] = std::string(40, '\xff');
    EXPECT_EQ(both(4004, {9, nowhere, 2}), "write(9, \"\\xff\\xff\", 2)");
}

TEST_F(print_syscall_strings, data_of_more_than_64_bytes_is_cut_at_32) {
    memory_.pieces[nowhere] = std::string(200, 'x');
    EXPECT_EQ(both(4004, {9, nowhere, 64}), "write(9, \"" + std::string(64, 'x') + "\", 64)");
    EXPECT_EQ(both(4004, {9, nowhere, 65}), "write(9, \"" + std::string(32, 'x') + "\", 65)");
    EXPECT_EQ(both(4004, {9, nowhere, INT32_MAX}), "write(9, \"" + std::string(32, 'x') + "\", 2147483647)");
}

TEST_F(print_syscall_strings, length_below_1_is_empty_but_minus_1_is_a_string) {
    EXPECT_EQ(both(4004, {9, text_at, 0}), "write(9, \"\", 0)");
    EXPECT_EQ(both(4004, {9, text_at, -2}), "write(9, \"\", -2)");
    EXPECT_EQ(both(4004, {9, text_at, INT32_MIN}), "write(9, \"\", -2147483648)");
    EXPECT_EQ(both(4004, {9, text_at, -1}), "write(9, \"/etc/fstab\", -1)");
}

TEST_F(print_syscall_strings, string_without_an_end_is_cut_at_32) {
    memory_.pieces[nowhere] = std::string(200, 'y');
    EXPECT_EQ(both(4106, {nowhere, 0}), "stat(\"" + std::string(32, 'y') + "\", 0x0)");
}

TEST_F(print_syscall_strings, unreadable_memory_ends_the_text) {
    memory_.pieces[nowhere] = "0123456789";
    std::string seen = std::string("0123456789").substr(0, 10 - sizeof(long) + 1);
    EXPECT_EQ(both(4004, {9, nowhere, 20}), "write(9, \"" + seen + "\", 20)");
    EXPECT_EQ(both(4106, {nowhere, 0}), "stat(\"" + seen + "\", 0x0)");
    EXPECT_EQ(both(4106, {-1, 0}), "stat(\"\", 0x0)");
}

TEST_F(print_syscall_size, line_that_does_not_fit_is_cut_but_counted) {
    std::string whole = print(record(4004, {7, text_at, 10}, 10), false);
    int length = length_;
    EXPECT_EQ(static_cast<size_t>(length), whole.size());
    for (int size = 1; size <= length + 1; size++) {
        std::string cut = print(record(4004, {7, text_at, 10}, 10), false, size);
        EXPECT_LT(cut.size(), static_cast<size_t>(size));
        if (size > length) {
            EXPECT_EQ(cut, whole);
            EXPECT_EQ(length_, length);
        } else {
            EXPECT_GE(length_, size);
        }
    }
}

TEST_F(print_syscall_size, text_stops_when_fewer_than_four_bytes_are_left) {
    memory_.pieces[nowhere] = std::string(100, 'z');
    std::string head = print(record(4004, {9, nowhere, 0}, 0), true);
    int quote = static_cast<int>(head.find('"')) + 1;
    print(record(4004, {9, nowhere, 64}, 0), true, quote + 3);
    int without = length_;
    print(record(4004, {9, nowhere, 64}, 0), true, quote + 4);
    EXPECT_EQ(length_, without + 1);
    print(record(4004, {9, nowhere, 64}, 0), true, quote + 14);
    EXPECT_EQ(length_, without + 11);
}
