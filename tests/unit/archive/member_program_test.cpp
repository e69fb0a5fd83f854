#include "archive/member_program.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "archive/manifest.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/effort.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"
#include "tests/unit/support/temp_dir.h"

namespace {

struct outcome {
    int result = -1;
    std::string messages;  // on standard error
    tar_listing listing;

    // The data of the only member, or a remark if there is not exactly one.
    std::string data() const {
        return listing.entries.size() == 1 && listing.trouble.empty() ? listing.entries[0].data
                                                                      : "<not one whole member>";
    }
};

constexpr const char* temp_template = "/tmp/.zarvotestXXXXXX";

// Stores the output of a program in this process.
outcome stored_output(const std::vector<const char*>& arguments) {
    std::vector<const char*> argv = arguments;
    argv.push_back(nullptr);
    program_member member = {temp_template, argv.data(), "output.txt"};
    outcome seen;
    test_archive archive("top/");
    seen.messages =
        capture_stderr([&] { seen.result = stream_program(archive.handle(), archive.fd(), member); });
    seen.listing = archive.finish();
    return seen;
}

outcome shell_output(const char* script) {
    return stored_output({"/bin/sh", "-c", script});
}

// Runs `store` in a private world and reads its archive.
template <typename Store>
outcome stored_in_private_world(Store store) {
    outcome seen;
    test_archive archive;
    unique_fd err = memory_file();
    seen.result = run_in_private_world([&] {
        ignore_broken_pipes();
        dup2(err.get(), STDERR_FILENO);
        int result = store(archive.handle(), archive.fd());
        tar_close(archive.handle());
        return result;
    });
    seen.messages = content_of(err.get());
    seen.listing = tar_read(archive.bytes());
    return seen;
}

// The same with the output of a shell script.
template <typename Prepare>
outcome shell_output_in_private_world(Prepare prepare, const char* script) {
    return stored_in_private_world([&](tar_handle* t, int fd) {
        if (!prepare()) {
            return 3;
        }
        const char* const argv[] = {"/bin/sh", "-c", script, nullptr};
        return stream_program(t, fd, {temp_template, argv, "output.txt"});
    });
}

bool remount_tmp(unsigned long flags, const char* options) {
    return mount("tmpfs", "/tmp", "tmpfs", flags, options) == 0;
}

}  // namespace

TEST(stream_program, stores_both_outputs) {
    outcome seen = shell_output("echo out; echo err >&2; echo again");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, "");
    EXPECT_EQ(seen.listing.names(), std::vector<std::string>{"top/output.txt"});
    EXPECT_EQ(seen.data(), "out\nerr\nagain\n");
    EXPECT_EQ(seen.listing.entries[0].size, 14u);
}

TEST(stream_program, passes_the_arguments_unchanged) {
    EXPECT_EQ(stored_output({"/bin/sh", "-c", "printf '<%s>' \"$@\"", "name", "a b", "", "c"}).data(),
              "<a b><><c>");
}

TEST(stream_program, program_gets_an_empty_environment) {
    outcome seen = stored_output({"/usr/bin/env"});
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.data(), "");
}

TEST(stream_program, program_without_output_has_an_empty_member) {
    outcome seen = shell_output(":");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.listing.names(), std::vector<std::string>{"top/output.txt"});
    EXPECT_EQ(seen.listing.entries[0].size, 0u);
}

TEST(stream_program, long_output_is_stored_whole) {
    // More than a pipe holds.
    constexpr int lines = effort(20000, 8000);
    const std::string count_up =
        "i=0; while [ $i -lt " + std::to_string(lines) + " ]; do echo \"line $i\"; i=$((i+1)); done";
    outcome seen = shell_output(count_up.c_str());
    EXPECT_EQ(seen.result, 0);
    std::string expected;
    for (int i = 0; i < lines; i++) {
        expected += "line " + std::to_string(i) + "\n";
    }
    EXPECT_TRUE(seen.data() == expected);
}

TEST(stream_program, stores_the_output_of_a_failing_program) {
    outcome seen = shell_output("echo before; exit 3");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.data(), "before\n");
    outcome killed = shell_output("echo before; kill -KILL $$");
    EXPECT_EQ(killed.result, 0);
    EXPECT_EQ(killed.data(), "before\n");
}

TEST(stream_program, stores_the_execve_error_of_a_missing_program) {
    temp_dir folder;
    std::string missing = folder.path("missing");
    outcome seen = stored_output({missing.c_str()});
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, "");
    EXPECT_EQ(seen.data(), std::string("execve: ") + strerror(ENOENT) + "\n");
}

TEST(stream_program, stores_the_execve_error_of_a_file_that_is_not_a_program) {
    temp_dir folder;
    std::string text = folder.write_file("text", "not to be run");
    EXPECT_EQ(stored_output({text.c_str()}).data(), std::string("execve: ") + strerror(EACCES) + "\n");
}

TEST(stream_program, standard_input_is_inherited) {
    unique_fd input = memory_file();
    ASSERT_EQ(write(input.get(), "asked", 5), 5);
    lseek(input.get(), 0, SEEK_SET);
    test_archive archive;
    int status = run_in_child([&] {
        dup2(input.get(), STDIN_FILENO);
        const char* const argv[] = {"/bin/cat", nullptr};
        return stream_program(archive.handle(), archive.fd(), {temp_template, argv, "output.txt"});
    });
    EXPECT_TRUE(exited_with(status, 0));
    // The child's handle counted the bytes, so this process's would not pad them.
    EXPECT_EQ(archive.bytes().substr(512), "asked");
}

TEST(stream_program, temporary_file_has_no_name_while_the_program_runs) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = shell_output_in_private_world([] { return true; }, "ls -A /tmp; echo done");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.data(), "done\n");
}

TEST(stream_program, temporary_file_has_the_name_of_the_template) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = stored_in_private_world([](tar_handle* t, int fd) {
        const char* const argv[] = {"/bin/readlink", "/proc/self/fd/1", nullptr};
        return stream_program(t, fd, {temp_template, argv, "output.txt"});
    });
    EXPECT_EQ(seen.result, 0);
    ASSERT_GT(seen.data().size(), 21u);
    EXPECT_EQ(seen.data().substr(0, 15), "/tmp/.zarvotest");
    EXPECT_EQ(seen.data().substr(21), " (deleted)\n");
}

TEST(stream_program, leaves_no_descriptors_no_children_and_no_files) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = stored_in_private_world([](tar_handle* t, int fd) {
        std::set<int> before = open_fds();
        const char* const argv[] = {"/bin/sh", "-c", "echo text", nullptr};
        int result = stream_program(t, fd, {temp_template, argv, "output.txt"});
        bool tmp_is_empty = std::filesystem::is_empty("/tmp");
        return result == 0 && open_fds() == before && tmp_is_empty && has_no_children() ? 0 : 4;
    });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.data(), "text\n");
}

TEST(stream_program, skips_the_member_if_there_is_no_temporary_file) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = shell_output_in_private_world([] { return remount_tmp(MS_RDONLY, nullptr); }, "echo text");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, "");
    EXPECT_TRUE(seen.listing.entries.empty());
    EXPECT_EQ(seen.listing.trouble, "");
}

TEST(stream_program, stores_the_part_that_fits_in_a_full_file_system) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = shell_output_in_private_world([] { return remount_tmp(0, "size=4k"); },
                                                 "head -c 100000 /dev/zero 2>/dev/null");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, "");
    EXPECT_EQ(seen.listing.trouble, "");
    ASSERT_EQ(seen.listing.entries.size(), 1u);
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    EXPECT_EQ(seen.listing.entries[0].size, page);
    EXPECT_EQ(seen.data(), std::string(page, '\0'));
}

TEST(stream_program, returns_1_if_the_output_is_broken) {
    ignore_broken_pipes();
    test_pipe broken;
    broken.out.reset();
    tar_handle* t = tar_new(broken.in.get(), nullptr);
    const char* const argv[] = {"/bin/sh", "-c", "echo text", nullptr};
    EXPECT_EQ(stream_program(t, broken.in.get(), {temp_template, argv, "output.txt"}), 1);
    tar_abandon(t);
}

TEST(stream_oopslog, is_the_output_of_the_log_reader) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = stored_in_private_world([](tar_handle* t, int fd) {
        return install_script("/usr/sbin/oopslog", "echo \"$#:$*\"; readlink /proc/$$/fd/1; echo err >&2")
                   ? stream_oopslog(t, fd)
                   : 3;
    });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.listing.names(), std::vector<std::string>{"oopslog"});
    EXPECT_EQ(seen.data().substr(0, 33), "2:-r /dev/part/oops\n/tmp/.oopslog");
    EXPECT_EQ(seen.data().substr(39), " (deleted)\nerr\n");
}

TEST(stream_server_report, is_the_output_of_the_report_script) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = stored_in_private_world([](tar_handle* t, int fd) {
        return install_script("/usr/sbin/gen_serverreport.sh", "echo \"$#:$*\"; readlink /proc/$$/fd/1")
                   ? stream_server_report(t, fd)
                   : 3;
    });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.listing.names(), std::vector<std::string>{"serverreport.txt"});
    EXPECT_EQ(seen.data().substr(0, 16), "0:\n/tmp/.sreport");
    EXPECT_EQ(seen.data().substr(22), " (deleted)\n");
}

TEST(stream_server_report, stores_the_execve_error_of_a_missing_script) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome report = stored_in_private_world(stream_server_report);
    EXPECT_EQ(report.result, 0);
    EXPECT_EQ(report.listing.names(), std::vector<std::string>{"serverreport.txt"});
    EXPECT_EQ(report.data(), std::string("execve: ") + strerror(ENOENT) + "\n");
    outcome log = stored_in_private_world(stream_oopslog);
    EXPECT_EQ(log.result, 0);
    EXPECT_EQ(log.listing.names(), std::vector<std::string>{"oopslog"});
    EXPECT_EQ(log.data(), std::string("execve: ") + strerror(ENOENT) + "\n");
}

TEST(stream_program, without_output_is_noted_in_the_manifest) {
    const auto manifest_of = [](const char* script) {
        const char* argv[] = {"/bin/sh", "-c", script, nullptr};
        test_archive archive;
        manifest list;
        manifest_begin(&list, archive.handle());
        EXPECT_EQ(stream_program(archive.handle(), archive.fd(), {temp_template, argv, "output.txt"}), 0);
        manifest_store(&list, archive.handle());
        return archive.finish().entries.back().data;
    };
    EXPECT_NE(manifest_of("true").find("output.txt: No data available\n"), std::string::npos);
    EXPECT_NE(manifest_of("echo x").find("errors: 0\n"), std::string::npos);
}
