#include "trace/tracer_command.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/trace/tracees.h"
#include "trace/stopper.h"
#include "trace/tstrace.h"

namespace {

tracer_options parsed(std::vector<std::string> list, bool expected = true) {
    static std::vector<std::unique_ptr<command_line>> kept;  // the options point into the words
    kept.push_back(std::make_unique<command_line>(std::move(list)));
    tracer_options options;
    EXPECT_EQ(tracer_parse(kept.back()->argc(), kept.back()->argv(), &options), expected);
    return options;
}

std::string command_of(const tracer_options& options) {
    std::string all;
    for (char** word = options.command; word && *word; word++) {
        all += std::string(*word) + ";";
    }
    return all;
}

// PATH for the length of a block; null unsets it.
class scoped_path {
public:
    explicit scoped_path(const char* path) : old_(getenv("PATH") ? getenv("PATH") : "") {
        path ? setenv("PATH", path, 1) : unsetenv("PATH");
    }
    scoped_path(const scoped_path&) = delete;
    scoped_path& operator=(const scoped_path&) = delete;
    ~scoped_path() { setenv("PATH", old_.c_str(), 1); }

private:
    std::string old_;
};

std::string found(const std::string& name) {
    char path[tracer_path_size];
    return tracer_find_program(name.c_str(), path) ? path : "";
}

constexpr const char* tstrace_usage =
    "USAGE: tstrace [ -ppid ] [ command [ arg ... ] ]\n\n-p<pid>\tAdd a pid to trace, can be given multiple "
    "times.\n";
constexpr const char* stopper_usage =
    "USAGE: stopper [ -ppid ] [ command [ arg ... ] ]\n\n-p<pid>\tAdd a pid to stop at exit\n";

// What tracer_find_program finds for a path of `length` bytes.
std::string found_by_path_of(size_t length) {
    struct {
        char path[tracer_path_size];
        char guard[16];
    } space = {};
    const std::string guard(sizeof space.guard, '#');
    guard.copy(space.guard, guard.size());
    const std::string program = "bin/sh";
    // The lookup in the root puts "//" before a name.
    std::string name = std::string(length - 2 - program.size(), '/') + program;
    bool found = tracer_find_program(name.c_str(), space.path);
    EXPECT_EQ(std::string(space.guard, sizeof space.guard), guard);
    return found ? std::string(space.path, strnlen(space.path, sizeof space.path)) : "";
}

}  // namespace

TEST(tracer_parse, command_begins_at_the_first_argument_without_a_dash) {
    EXPECT_EQ(command_of(parsed({"tstrace", "ls", "-l", "-p", "5"})), "ls;-l;-p;5;");
    EXPECT_EQ(command_of(parsed({"tstrace", "/bin/true"})), "/bin/true;");
}

TEST(tracer_parse, pid_is_the_argument_after_p) {
    tracer_options options = parsed({"tstrace", "-p", "12", "-p", "0x10", "-p", "010"});
    ASSERT_EQ(options.pid_count, 3);
    EXPECT_EQ(options.pids[0], 12);
    EXPECT_EQ(options.pids[1], 16);
    EXPECT_EQ(options.pids[2], 8);
    EXPECT_EQ(options.command, nullptr);
}

TEST(tracer_parse, rest_of_the_option_is_ignored) {
    tracer_options options = parsed({"tstrace", "-p99", "12"});
    ASSERT_EQ(options.pid_count, 1);
    EXPECT_EQ(options.pids[0], 12);
}

TEST(tracer_parse, text_that_is_not_a_number_is_pid_zero) {
    EXPECT_EQ(parsed({"tstrace", "-p", "init"}).pids[0], 0);
}

TEST(tracer_parse, command_after_pids_is_ignored) {
    tracer_options options = parsed({"tstrace", "-p", "123", "ls"});
    EXPECT_EQ(options.pid_count, 1);
    EXPECT_EQ(options.command, nullptr);
}

TEST(tracer_parse, last_p_without_a_pid_ends_the_options) {
    EXPECT_EQ(parsed({"tstrace", "-p", "5", "-p"}).pid_count, 1);
    parsed({"tstrace", "-p"}, false);
}

TEST(tracer_parse, other_options_and_no_arguments_are_refused) {
    parsed({"tstrace"}, false);
    parsed({"tstrace", "-x"}, false);
    parsed({"tstrace", "-"}, false);
    parsed({"tstrace", "--help"}, false);
    parsed({"tstrace", "-p", "5", "-q"}, false);
}

TEST(tracer_parse, counts_the_pids_after_the_first_hundred) {
    for (int count : {99, 100, 101, 250}) {
        std::vector<std::string> list = {"tstrace"};
        for (int i = 0; i < count; i++) {
            list.insert(list.end(), {"-p", std::to_string(i + 1000)});
        }
        tracer_options options = parsed(list);
        EXPECT_EQ(options.pid_count, std::min(count, 100));
        EXPECT_EQ(options.ignored_pids, std::max(count - 100, 0));
        EXPECT_EQ(options.pids[options.pid_count - 1], std::min(count, 100) + 999);
    }
}

TEST(tracer_find_program, absolute_name_is_looked_up_from_the_root) {
    EXPECT_EQ(found("/bin/sh"), "///bin/sh");
    EXPECT_EQ(found("/bin"), "");
    EXPECT_EQ(found("/no/such/program"), "");
}

TEST(tracer_find_program, dotted_name_is_looked_up_in_the_current_directory) {
    temp_dir dir;
    dir.write_file("prog", "");
    dir.write_file("sub/prog2", "");
    char before[4096];
    ASSERT_NE(getcwd(before, sizeof before), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    char at_text[4096];
    ASSERT_NE(getcwd(at_text, sizeof at_text), nullptr);
    std::string at = at_text;
    EXPECT_EQ(found("./prog"), at + "//./prog");
    EXPECT_EQ(found("./sub/prog2"), at + "//./sub/prog2");
    EXPECT_EQ(found("./none"), "");
    ASSERT_EQ(chdir(before), 0);
}

TEST(tracer_find_program, other_names_are_looked_up_on_path_in_order) {
    temp_dir dir;
    dir.write_file("b/prog", "");
    dir.write_file("c/prog", "");
    dir.make_folder("a/prog");
    scoped_path path(
        (dir.path("a") + ":" + dir.path("none") + ":" + dir.path("b") + ":" + dir.path("c")).c_str());
    EXPECT_EQ(found("prog"), dir.path("b") + "/prog");
    EXPECT_EQ(found("other"), "");
    EXPECT_EQ(found(""), "");
}

TEST(tracer_find_program, empty_part_of_path_is_an_empty_directory_name) {
    scoped_path path(":/nowhere:");
    EXPECT_EQ(found("bin/sh"), "/bin/sh");
}

TEST(tracer_find_program, tries_the_usual_directories_without_path) {
    scoped_path path(nullptr);
    EXPECT_EQ(found("sh"), "/bin/sh");
    EXPECT_EQ(found("env"), access("/bin/env", F_OK) == 0 ? "/bin/env" : "/usr/bin/env");
}

TEST(tracer_find_program, names_that_are_too_long_are_not_found) {
    for (size_t length : {4000, 4089, 4090, 4091, 4095, 4096, 10000}) {
        EXPECT_EQ(found(std::string(length, 'x')), "");
        EXPECT_EQ(found("/" + std::string(length, 'x')), "");
        EXPECT_EQ(found("." + std::string(length, 'x')), "");
    }
}

TEST(tracer_find_program, path_may_fill_its_buffer) {
    for (size_t length : {100, tracer_path_size - 2, tracer_path_size - 1}) {
        EXPECT_EQ(found_by_path_of(length).size(), length);
    }
    for (size_t length : {tracer_path_size, tracer_path_size + 1, tracer_path_size + 2}) {
        EXPECT_EQ(found_by_path_of(length), "");
    }
}

TEST(run_tstrace, prints_its_usage_and_succeeds) {
    for (const std::vector<std::string>& list :
         {std::vector<std::string>{"tstrace"}, {"tstrace", "-v"}, {"tstrace", "-p"}}) {
        EXPECT_EQ(capture_stdout([&list] { EXPECT_EQ(call_applet(run_tstrace, list), 0); }), tstrace_usage);
        EXPECT_EQ(capture_stdout([&list] { EXPECT_EQ(call_applet(run_stopper, list), 0); }), stopper_usage);
    }
}
