#include "tools/archiveview/facts/core_debugger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "common/monotonic.h"
#include "tests/unit/archiveview/core_bytes.h"
#include "tools/archiveview/limits.h"

namespace archiveview {
namespace {

constexpr int64_t patience_ms = 60'000;

// A folder with a shell script in place of the debugger.
class core_debugger : public testing::Test {
protected:
    void SetUp() override {
        std::string folder = testing::TempDir() + "debuggerXXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        folder_ = folder;
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::string script(const std::string& text) const {
        const std::string path = folder_ / "gdb-multiarch";
        std::ofstream(path) << "#!/bin/sh\n" << text;
        chmod(path.c_str(), 0755);
        return path;
    }
    std::string answer(const std::string& text, int64_t limit_ms = patience_ms) const {
        const unique_fd core(open("/dev/null", O_RDONLY | O_CLOEXEC));
        return debugger_stacks(script(text), core.get(), {}, {"/"}, limit_ms);
    }

    std::filesystem::path folder_;
};

bool has_no_child() {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

TEST_F(core_debugger, its_text_is_read) {
    EXPECT_EQ(answer("echo 'Thread 1 (LWP 7):'; exit 3"), "Thread 1 (LWP 7):\n");
    EXPECT_TRUE(has_no_child());
}

TEST_F(core_debugger, one_that_hangs_is_killed_with_its_children) {
    const int64_t began_ms = monotonic_ms();
    const std::string text = answer("sleep 1000 & echo $!; wait", 500);
    EXPECT_LT(monotonic_ms() - began_ms, patience_ms);
    EXPECT_TRUE(has_no_child());
    const int grandchild = atoi(text.c_str());
    ASSERT_GT(grandchild, 0);
    // Once killed, it is a zombie until its new parent reaps it.
    const auto is_alive = [&] {
        std::ifstream stat("/proc/" + std::to_string(grandchild) + "/stat");
        std::string all((std::istreambuf_iterator<char>(stat)), {});
        return !all.empty() && all.find(") Z") == std::string::npos;
    };
    while (is_alive() && monotonic_ms() - began_ms < patience_ms) {
        usleep(1000);
    }
    EXPECT_FALSE(is_alive());
}

TEST_F(core_debugger, flood_is_cut) {
    EXPECT_EQ(answer("yes").size(), stack_text_limit);
    EXPECT_TRUE(has_no_child());
}

TEST_F(core_debugger, one_that_cannot_be_started_says_nothing) {
    const unique_fd core(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(debugger_stacks("/nonexistent/gdb", core.get(), {}, {}, patience_ms), "");
    EXPECT_EQ(answer("kill -SEGV $$"), "");
    EXPECT_TRUE(has_no_child());
}

TEST_F(core_debugger, it_gets_only_the_core_and_the_files) {
    std::ofstream(folder_ / "core") << "the core";
    std::ofstream(folder_ / "library") << "the library";
    const unique_fd core(open((folder_ / "core").c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<local_file> files(1);
    files[0].file = unique_fd(open((folder_ / "library").c_str(), O_RDONLY | O_CLOEXEC));
    files[0].base = 0x7f1000;
    const std::string path = script(
        "cat /proc/self/fd/3 /proc/self/fd/4; echo; echo \"$@\" | grep -o 'add-symbol-file.*1000'; env | "
        "grep -c DEBUGINFOD; [ -e /proc/self/fd/5 ] || echo no more\n");
    EXPECT_EQ(debugger_stacks(path, core.get(), files, {"/"}, patience_ms),
              "the corethe library\nadd-symbol-file /proc/self/fd/4 -o 0x7f1000\n0\nno more\n");
}

TEST_F(core_debugger, it_is_found_on_the_path) {
    const std::string before = getenv("PATH");
    const std::string path = script("");
    setenv("PATH", ("relative:/nonexistent:" + folder_.string()).c_str(), 1);
    EXPECT_EQ(debugger_path(), path);
    setenv("PATH", "/nonexistent", 1);
    EXPECT_EQ(debugger_path(), "");
    setenv("PATH", before.c_str(), 1);
}

core_facts kept_core(const core_options& options) {
    core_test::test_core core(EM_X86_64);
    core.threads = {core_test::in_call(7, 7)};
    const std::string bytes = core.bytes();
    core_reader reader("core", "shown", 7, bytes.size(), options);
    reader.add({bytes.data(), bytes.size()});
    return reader.finish();
}

TEST(core_stacks, reason_for_no_frames_is_told) {
    core_options options;
    std::vector<core_facts> cores;
    cores.push_back(kept_core(options));
    ASSERT_TRUE(cores[0].spool);
    const size_t kept = options.budget->spool_bytes;
    cores_add_stacks(&cores, options);
    EXPECT_NE(cores[0].stack_remark, "");
    EXPECT_TRUE(cores[0].threads[0].frames.empty());
    EXPECT_GT(options.budget->spool_bytes, kept);
}

TEST(core_stacks, cores_beyond_the_budget_are_not_kept) {
    core_options options;
    options.budget->spool_bytes = 100;
    std::vector<core_facts> cores;
    cores.push_back(kept_core(options));
    EXPECT_EQ(options.budget->spool_bytes, 100u);
    cores_add_stacks(&cores, options);
    EXPECT_NE(cores[0].stack_remark, "");
}

TEST(core_stacks, nothing_is_kept_without_the_option) {
    core_options options;
    options.stacks = false;
    std::vector<core_facts> cores;
    cores.push_back(kept_core(options));
    EXPECT_FALSE(cores[0].spool);
    cores_add_stacks(&cores, options);
    EXPECT_EQ(cores[0].stack_remark, "The debugger was not asked.");
}

}  // namespace
}  // namespace archiveview
