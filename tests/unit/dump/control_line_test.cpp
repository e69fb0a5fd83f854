#include "dump/control_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <time.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/fake_dumper.h"
#include "tests/unit/support/pipes.h"

namespace {

std::vector<pid_t> pids_of(const std::string& text) {
    control_line line = control_line_parse(text);
    std::vector<pid_t> found;
    for (pid_t pid; control_line_next_pid(&line, &pid);) {
        found.push_back(pid);
    }
    return found;
}

std::vector<pid_t> covered_by(const std::string& pids) {
    return pids_of(core_announcement("1", pids));
}

int length_of(const std::string& number) {
    return control_line_parse(core_announcement(number)).core_length;
}

// The result of reading `bytes` from a pipe that stays open.
struct reading {
    int result;
    control_text text;
    std::string messages;
};

reading read_of(const std::string& bytes, int timeout_ms = 20000) {
    test_pipe pipe;
    EXPECT_EQ(write(pipe.in.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    reading got;
    got.messages =
        capture_stderr([&] { got.result = dump_read_ctl_line(pipe.out.get(), timeout_ms, &got.text); });
    return got;
}

std::string line_of(size_t length) {
    std::string line = core_announcement("77");
    line.insert(line.size() - 1, length - line.size(), '9');
    return line;
}

double cpu_seconds() {
    timespec used = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

}  // namespace

TEST(control_line_parse, length_follows_8_characters) {
    EXPECT_EQ(control_line_parse("12345678910 bytes\n").core_length, 910);
    EXPECT_EQ(length_of("4096"), 4096);
    EXPECT_EQ(length_of("0"), 0);
    EXPECT_EQ(length_of("007"), 7);
    EXPECT_EQ(length_of("2147483647"), 2147483647);
    EXPECT_EQ(length_of("  12"), 12);
}

TEST(control_line_parse, missing_or_invalid_length_is_0) {
    for (const char* number : {"", "x", "-1", "-5", "- 5", "2147483648", "4294967297", "12345678901234567890",
                               "99999999999999999999999999", "-99999999999999999999"}) {
        EXPECT_EQ(length_of(number), 0) << number;
    }
    for (const char* text : {"", "\n", "1", "1234567", "12345678", "12345678\n", "1234567\n8", "12345678\n9",
                             "execve: No such file or directory\n"}) {
        EXPECT_EQ(control_line_parse(text).core_length, 0) << text;
        EXPECT_EQ(pids_of(text), std::vector<pid_t>()) << text;
    }
}

TEST(control_line_parse, number_may_end_the_line) {
    EXPECT_EQ(control_line_parse("12345678"
                                 "55")
                  .core_length,
              55);
    EXPECT_EQ(control_line_parse("12345678"
                                 "55\n")
                  .core_length,
              55);
    EXPECT_EQ(pids_of("12345678"
                      "55\n"),
              std::vector<pid_t>());
}

TEST(control_line_next_pid, pids_follow_21_characters) {
    const std::string head =
        "12345678"
        "55";
    EXPECT_EQ(pids_of(head + std::string(21, 'x') + "42 43\n"), (std::vector<pid_t>{42, 43}));
    EXPECT_EQ(pids_of(head + std::string(20, 'x') + "42 43\n"), (std::vector<pid_t>{2, 43}));
    EXPECT_EQ(pids_of(head + " 1 2 3 4 5 6 7 8 9 0 42 43\n"), (std::vector<pid_t>{42, 43}));
    EXPECT_EQ(pids_of(head + std::string(21, 'x')), std::vector<pid_t>());
    EXPECT_EQ(pids_of(head + std::string(5, 'x') + "\n"), std::vector<pid_t>());
}

TEST(control_line_next_pid, returns_each_pid_once) {
    EXPECT_EQ(covered_by(""), std::vector<pid_t>());
    EXPECT_EQ(covered_by("7"), std::vector<pid_t>{7});
    EXPECT_EQ(covered_by("7 8 9"), (std::vector<pid_t>{7, 8, 9}));
    EXPECT_EQ(covered_by(" 7  8 "), (std::vector<pid_t>{7, 8}));
}

TEST(control_line_next_pid, skips_everything_but_digits) {
    EXPECT_EQ(covered_by("a12 b34c d"), (std::vector<pid_t>{12, 34}));
    EXPECT_EQ(covered_by("-5 6"), (std::vector<pid_t>{5, 6}));
    EXPECT_EQ(covered_by("x y z"), std::vector<pid_t>());
    EXPECT_EQ(covered_by(std::string("1\0 2", 4)), (std::vector<pid_t>{1, 2}));
}

TEST(control_line_next_pid, reads_one_number_more_than_there_are_blanks) {
    EXPECT_EQ(covered_by("12,34"), std::vector<pid_t>{12});
    EXPECT_EQ(covered_by("12,34,56 78"), (std::vector<pid_t>{12, 34}));
    EXPECT_EQ(covered_by("1a2b3"), std::vector<pid_t>{1});
}

TEST(control_line_next_pid, skips_numbers_that_cannot_be_pids) {
    EXPECT_EQ(covered_by("0 5"), std::vector<pid_t>{5});
    EXPECT_EQ(covered_by("99999999999999999999 5"), std::vector<pid_t>{5});
    EXPECT_EQ(covered_by("2147483648 2147483647"), std::vector<pid_t>{2147483647});
}

TEST(control_line_next_pid, ignores_everything_after_the_newline) {
    EXPECT_EQ(covered_by("7\n8 9"), std::vector<pid_t>{7});
    EXPECT_EQ(pids_of(core_announcement("1", "7 8") + "9 10 11\n"), (std::vector<pid_t>{7, 8}));
}

TEST(dump_read_ctl_line, ends_at_the_newline) {
    reading got = read_of("the line\nand 12 34\nmore");
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.text.line(), "the line\n");
    EXPECT_EQ(got.text.rest(), "and 12 34\nmore");
    EXPECT_EQ(got.messages, "");
}

TEST(dump_read_ctl_line, joins_the_pieces_of_a_line) {
    test_pipe pipe;
    std::thread writer([&] {
        for (const char* piece : {"th", "e", " line", "\n"}) {
            EXPECT_GT(write(pipe.in.get(), piece, strlen(piece)), 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    control_text text;
    EXPECT_EQ(dump_read_ctl_line(pipe.out.get(), 20000, &text), 0);
    writer.join();
    EXPECT_EQ(text.line(), "the line\n");
    EXPECT_EQ(text.rest(), "");
}

TEST(dump_read_ctl_line, accepts_511_bytes_with_the_newline) {
    for (size_t length : {1, 510, 511}) {
        std::string line = length == 1 ? "\n" : line_of(length);
        reading got = read_of(line + std::string(600, 'x'));
        EXPECT_EQ(got.result, 0) << length;
        EXPECT_EQ(got.text.line(), line);
        EXPECT_EQ(got.messages, "");
    }
}

TEST(dump_read_ctl_line, rejects_512_bytes_with_the_newline_silently) {
    reading got = read_of(line_of(512));
    EXPECT_EQ(got.result, EMSGSIZE);
    EXPECT_EQ(got.messages, "");
}

TEST(dump_read_ctl_line, reports_512_bytes_without_a_newline) {
    for (size_t length : {513, 5000}) {
        reading got = read_of(line_of(length));
        EXPECT_EQ(got.result, EMSGSIZE);
        EXPECT_EQ(got.messages,
                  "dump_read_ctl_line: Failed to read ctl line. Read length: 512."
                  "Buffer is too small, current buffer size: 512\n");
    }
}

TEST(dump_read_ctl_line, reports_an_input_that_cannot_be_read) {
    unique_fd folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    control_text text;
    int result = 0;
    std::string messages = capture_stderr([&] { result = dump_read_ctl_line(folder.get(), 20000, &text); });
    EXPECT_EQ(result, EISDIR);
    EXPECT_EQ(messages, "dump_read_ctl_line: read error: Is a directory\n");
}

TEST(dump_read_ctl_line, times_out_if_the_writer_writes_no_line) {
    for (const char* bytes : {"", "half a line"}) {
        reading got = read_of(bytes, 50);
        EXPECT_EQ(got.result, ETIMEDOUT) << bytes;
        EXPECT_EQ(got.messages, "");
    }
}

TEST(dump_read_ctl_line, reads_again_after_end_of_file_without_spinning) {
    for (const char* bytes : {"", "half a line"}) {
        test_pipe pipe;
        EXPECT_EQ(write(pipe.in.get(), bytes, strlen(bytes)), static_cast<ssize_t>(strlen(bytes)));
        pipe.in.reset();
        control_text text;
        double before = cpu_seconds();
        auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(dump_read_ctl_line(pipe.out.get(), 40, &text), ETIMEDOUT);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(40));
        EXPECT_LT(cpu_seconds() - before, 0.02);
        EXPECT_EQ(text.length, strlen(bytes));
    }
}

TEST(dump_read_ctl_line, gives_up_50_ms_after_end_of_file) {
    test_pipe pipe;
    pipe.in.reset();
    control_text text;
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(dump_read_ctl_line(pipe.out.get(), 60000, &text), ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - begin,
              std::chrono::milliseconds(control_line_eof_timeout_ms));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30000));
}

TEST(dump_read_ctl_line, accepts_a_line_that_is_completed_after_end_of_file) {
    temp_dir dir;
    std::string path = dir.path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    unique_fd out(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::thread writer([&] {
        for (const char* piece : {"half", " a line\n"}) {
            unique_fd in(open(path.c_str(), O_WRONLY | O_CLOEXEC));
            EXPECT_GT(write(in.get(), piece, strlen(piece)), 0);
        }
    });
    control_text text;
    EXPECT_EQ(dump_read_ctl_line(out.get(), 20000, &text), 0);
    writer.join();
    EXPECT_EQ(text.line(), "half a line\n");
}
