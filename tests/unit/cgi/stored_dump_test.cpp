#include "cgi/stored_dump.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>

#include <filesystem>

#include "cgi/waiting_browser.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/cgi/private_machine.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/temp_dir.h"

namespace {

constexpr uid_t nobody = 65534;

class stored_dump : public testing::Test {
protected:
    void SetUp() override { openlog("test", LOG_PERROR, LOG_DAEMON); }
    void TearDown() override {
        close_listener();
        closelog();
    }

    // Pops a dump for a new waiting browser and returns what it received. The log's lines are in `log`.
    std::string pop(const std::string& dir) {
        browser client;
        set_listener(unique_fd(client.hand_over()));
        log = capture_stderr([&dir] { pop_stored_dump(dir.c_str()); });
        return client.answer();
    }
    std::set<std::string> left() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dumps.path())) {
            names.insert(entry.path().filename());
        }
        return names;
    }
    std::string checked() const { return "test: Check dir: " + dumps.path() + "\n"; }

    temp_dir dumps;
    std::string log;
};

using names = std::set<std::string>;

TEST_F(stored_dump, is_sent_under_its_own_name_and_deleted) {
    std::string bytes = odd_bytes(5000);
    dumps.write_file("core.recorder.812", bytes);
    EXPECT_TRUE(pop(dumps.path()) == dump_head("core.recorder.812") + bytes);
    EXPECT_EQ(left(), names{});
    EXPECT_EQ(log, checked() + "test: Dump dir empty\n");
}

TEST_F(stored_dump, is_not_a_fifo) {
    ASSERT_EQ(mkfifo(dumps.path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(pop(dumps.path()), "");
    EXPECT_EQ(left(), names{"fifo"});
    EXPECT_EQ(log, checked() + "test: Dump dir empty\n");
    for (const char* name : {"a", "b", "core"}) {
        dumps.write_file(name, "dump");
    }
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(pop(dumps.path()).ends_with("\r\n\r\ndump"));
    }
    EXPECT_EQ(left(), names{"fifo"});
}

// If a process has it open for writing, a read would wait.
TEST_F(stored_dump, is_not_a_fifo_with_a_writer) {
    ASSERT_EQ(mkfifo(dumps.path("fifo").c_str(), 0600), 0);
    unique_fd writer(open(dumps.path("fifo").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(write(writer.get(), "bytes", 5), 5);
    EXPECT_EQ(pop(dumps.path()), "");
    EXPECT_EQ(left(), names{"fifo"});
}

TEST_F(stored_dump, is_sent_one_for_each_pop) {
    dumps.write_file("one", "first dump");
    dumps.write_file("two", "second dump");
    std::string answers[2];
    answers[0] = pop(dumps.path());
    EXPECT_EQ(left().size(), 1u);
    EXPECT_EQ(log, checked()) << "there is a further dump";
    answers[1] = pop(dumps.path());
    EXPECT_EQ(left(), names{});
    EXPECT_EQ(log, checked() + "test: Dump dir empty\n");
    std::set<std::string> delivered(answers, answers + 2);
    EXPECT_EQ(delivered, (names{dump_head("one") + "first dump", dump_head("two") + "second dump"}));
}

TEST_F(stored_dump, may_be_empty) {
    dumps.write_file("nothing", "");
    EXPECT_EQ(pop(dumps.path()), dump_head("nothing"));
    EXPECT_EQ(left(), names{});
}

TEST_F(stored_dump, may_have_a_name_that_begins_with_a_dot) {
    dumps.write_file("...", "hidden");
    EXPECT_EQ(pop(dumps.path()), dump_head("...") + "hidden");
    EXPECT_EQ(left(), names{});
}

TEST_F(stored_dump, has_its_name_made_quotable_in_the_header_only) {
    dumps.write_file("a\"b\nc\x7f", "bytes");
    EXPECT_EQ(pop(dumps.path()), dump_head("a_b_c_") + "bytes");
    EXPECT_EQ(left(), names{}) << "deleted under its real name";
}

TEST_F(stored_dump, is_missing_in_an_empty_folder_and_the_browser_is_closed_unanswered) {
    EXPECT_EQ(pop(dumps.path()), "");
    EXPECT_EQ(log, checked() + "test: Dump dir empty\n");
}

TEST_F(stored_dump, is_missing_without_a_folder_and_the_browser_is_closed_unanswered) {
    EXPECT_EQ(pop(dumps.path("missing")), "");
    EXPECT_EQ(log, "test: No dump dir\n");
}

TEST_F(stored_dump, is_missing_if_the_folder_is_a_file) {
    std::string file = dumps.write_file("file", "bytes");
    EXPECT_EQ(pop(file), "");
    EXPECT_EQ(log, "test: Check dir: " + file + "\ncheck_dumps: Not a directory\n");
    EXPECT_EQ(left(), names{"file"});
}

TEST_F(stored_dump, that_is_a_folder_is_kept_and_not_sent) {
    dumps.write_file("folder/inside", "bytes");
    EXPECT_EQ(pop(dumps.path()), dump_head("folder"));
    EXPECT_EQ(log, checked() + "test: Failed to send dump: folder\n");
    EXPECT_EQ(left(), names{"folder"});
}

TEST_F(stored_dump, that_cannot_be_opened_is_kept_and_nothing_is_sent) {
    std::filesystem::create_symlink("nowhere", dumps.path("link"));
    EXPECT_EQ(pop(dumps.path()), "");
    EXPECT_EQ(log, checked() + "check_dumps: No such file or directory\n");
    EXPECT_EQ(left(), names{"link"});
}

TEST_F(stored_dump, that_cannot_be_deleted_is_sent_and_reported) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    dumps.write_file("core", "bytes");
    ASSERT_EQ(chmod(dumps.path().c_str(), 0555), 0);
    ASSERT_EQ(seteuid(nobody), 0);
    std::string answer = pop(dumps.path());
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(answer, dump_head("core") + "bytes");
    EXPECT_EQ(log, checked() + "check_dumps: Permission denied\n");
    EXPECT_EQ(left(), names{"core"});
}

TEST_F(stored_dump, that_may_not_be_read_is_kept_and_nothing_is_sent) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    ASSERT_EQ(chmod(dumps.write_file("core", "bytes").c_str(), 0), 0);
    ASSERT_EQ(chmod(dumps.path().c_str(), 0777), 0);
    ASSERT_EQ(seteuid(nobody), 0);
    std::string answer = pop(dumps.path());
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(answer, "");
    EXPECT_EQ(log, checked() + "check_dumps: Permission denied\n");
    EXPECT_EQ(left(), names{"core"});
}

TEST_F(stored_dump, is_kept_if_the_browser_has_gone) {
    dumps.write_file("core", "bytes");
    browser client;
    set_listener(unique_fd(client.hand_over()));
    client.go_away();
    log = capture_stderr([this] { pop_stored_dump(dumps.path().c_str()); });
    EXPECT_EQ(log, checked() + "test: Failed to send dump: core\n");
    EXPECT_EQ(left(), names{"core"});
}

TEST_F(stored_dump, is_kept_if_no_browser_waits) {
    dumps.write_file("core", "bytes");
    log = capture_stderr([this] { pop_stored_dump(dumps.path().c_str()); });
    EXPECT_EQ(log, checked() + "test: Failed to send dump: core\n");
    EXPECT_EQ(left(), names{"core"});
}

TEST_F(stored_dump, leaves_no_descriptor_open) {
    std::set<int> before = open_fds();
    pop(dumps.path());
    pop(dumps.path("missing"));
    pop(dumps.write_file("dump", "bytes"));
    pop(dumps.path());
    dumps.write_file("folder/inside", "bytes");
    pop(dumps.path());
    EXPECT_EQ(open_fds(), before);
}

// Runs on a machine where /var is empty. The device's folders are created one by one, from last to first.
void pop_from_default_folders() {
    ASSERT_EQ(mount("tmpfs", "/var", "tmpfs", 0, nullptr), 0);
    std::string log = capture_stderr([] {
        browser client;
        set_listener(unique_fd(client.hand_over()));
        pop_stored_dump(nullptr);
        EXPECT_EQ(client.answer(), "");
    });
    EXPECT_EQ(log, "test: No dump dir\n");
    for (const std::string dir : {"/var/volatile/tmp/dumps", "/var/spool/storage/RAID_DISK/dumps",
                                  "/var/spool/storage/HDD_DISK/dumps", "/var/spool/storage/SD_DISK/dumps"}) {
        std::filesystem::create_directories(dir);
        unique_fd file(open((dir + "/core").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        ASSERT_EQ(write(file.get(), dir.data(), dir.size()), static_cast<ssize_t>(dir.size()));
        file.reset();
        browser client;
        set_listener(unique_fd(client.hand_over()));
        log = capture_stderr([] { pop_stored_dump(nullptr); });
        EXPECT_EQ(client.answer(), dump_head("core") + dir);
        EXPECT_EQ(log, "test: Check dir: " + dir + "\ntest: Dump dir empty\n");
        file.reset(open((dir + "/core").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    }
}

TEST_F(stored_dump, is_taken_from_the_first_default_folder_that_opens) {
    int result = run_on_private_machine(pop_from_default_folders);
    if (result == private_machine_refused) {
        GTEST_SKIP() << private_machine_refusal;
    }
    EXPECT_EQ(result, 0);
}

void pop_from_a_missing_folder() {
    ASSERT_EQ(mount("tmpfs", "/var", "tmpfs", 0, nullptr), 0);
    std::filesystem::create_directories("/var/volatile/tmp/dumps");
    unique_fd file(open("/var/volatile/tmp/dumps/core", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    browser client;
    set_listener(unique_fd(client.hand_over()));
    EXPECT_EQ(capture_stderr([] { pop_stored_dump("/var/nowhere"); }), "test: No dump dir\n");
    EXPECT_EQ(client.answer(), "");
    EXPECT_EQ(access("/var/volatile/tmp/dumps/core", F_OK), 0);
}

TEST_F(stored_dump, is_never_taken_from_a_default_folder_if_another_is_named) {
    int result = run_on_private_machine(pop_from_a_missing_folder);
    if (result == private_machine_refused) {
        GTEST_SKIP() << private_machine_refusal;
    }
    EXPECT_EQ(result, 0);
}

}  // namespace
