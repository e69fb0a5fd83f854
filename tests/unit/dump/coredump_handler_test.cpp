#include "dump/coredump_handler.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/unix_address.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/command_line.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/support/temp_dir.h"

namespace {

constexpr const char* applet = "coredump-handler";

std::string error_of(std::vector<std::string> words) {
    command_line line(applet, std::move(words));
    core_arguments arguments;
    const char* message = core_arguments_parse(line.argc(), line.argv(), &arguments);
    return message ? message : "";
}

// The limit of a command line with this size argument.
unsigned long long limit_of(const std::string& size) {
    command_line line(applet, {"core", size, "!bin!app", "app"});
    core_arguments arguments;
    EXPECT_STREQ(core_arguments_parse(line.argc(), line.argv(), &arguments), nullptr) << size;
    EXPECT_TRUE(arguments.has_program);
    return arguments.size_limit;
}

int run_in_a_child(std::vector<std::string> words, int input) {
    command_line line(applet, std::move(words));
    return run_in_child([&] {
        dup2(input, STDIN_FILENO);
        return run_coredump_handler(line.argc(), line.argv());
    });
}

core_destination destination_of(std::string_view config) {
    temp_dir folder;
    return core_destination_read(folder.write_file("config", config).c_str());
}

struct listening_socket {
    explicit listening_socket(const std::string& path) : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const unix_address address(path);
        EXPECT_EQ(bind(fd.get(), address.get(), address.size()), 0);
        EXPECT_EQ(listen(fd.get(), 2), 0);
    }
    unique_fd fd;
};

using seconds = std::chrono::duration<double>;

template <typename Work>
double seconds_for(Work work) {
    auto start = std::chrono::steady_clock::now();
    work();
    return seconds(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

TEST(core_arguments_parse, fewer_than_three_words_are_not_checked) {
    EXPECT_EQ(error_of({}), "");
    EXPECT_EQ(error_of({""}), "");
    EXPECT_EQ(error_of({"core.7"}), "");
}

TEST(core_arguments_parse, file_name_has_a_default) {
    command_line none(applet, {});
    core_arguments arguments;
    core_arguments_parse(none.argc(), none.argv(), &arguments);
    EXPECT_STREQ(arguments.file_name, "core.core");
    EXPECT_FALSE(arguments.has_program);
    command_line one(applet, {"core.7"});
    core_arguments_parse(one.argc(), one.argv(), &arguments);
    EXPECT_STREQ(arguments.file_name, "core.7");
    EXPECT_FALSE(arguments.has_program);
}

TEST(core_arguments_parse, three_or_four_words_are_rejected) {
    EXPECT_EQ(error_of({"core", "1"}), "wrong number of arguments");
    EXPECT_EQ(error_of({"core", "1", "!a"}), "wrong number of arguments");
    EXPECT_EQ(error_of({"", ""}), "wrong number of arguments");
}

TEST(core_arguments_parse, reports_the_last_empty_word_first) {
    EXPECT_EQ(error_of({"core", "", "", ""}), "executable name argument missing");
    EXPECT_EQ(error_of({"core", "", "", "app"}), "executable path argument missing");
    EXPECT_EQ(error_of({"core", "", "!a", "app"}), "core file size argument missing");
    EXPECT_EQ(error_of({"core", "x", "", "app"}), "executable path argument missing");
}

TEST(core_arguments_parse, ignores_words_beyond_the_fifth) {
    EXPECT_EQ(error_of({"core", "1", "!a", "app", "more", ""}), "");
}

TEST(core_arguments_parse, size_must_be_a_decimal_number) {
    for (const char* size :
         {"12k", "k", "0x10", "1.5", "1 ", " ", "-", "18446744073709551616", "99999999999999999999999"}) {
        EXPECT_EQ(error_of({"core", size, "!a", "app"}), "core file size limit parsing error") << size;
    }
}

TEST(core_arguments_parse, size_is_a_64_bit_number) {
    EXPECT_EQ(limit_of("0"), 0u);
    EXPECT_EQ(limit_of("4096"), 4096u);
    EXPECT_EQ(limit_of("010"), 10u);
    EXPECT_EQ(limit_of("4294967296"), 4294967296u);
    EXPECT_EQ(limit_of("18446744073709551615"), 18446744073709551615u);
    EXPECT_EQ(limit_of("-1"), 18446744073709551615u);  // as strtoull reads it: no limit
}

TEST(core_arguments_parse, exclamation_marks_of_the_path_become_slashes) {
    command_line line(applet, {"core", "1", "!usr!bin!app", "a!b"});
    core_arguments arguments;
    EXPECT_STREQ(core_arguments_parse(line.argc(), line.argv(), &arguments), nullptr);
    EXPECT_STREQ(arguments.path, "/usr/bin/app");
    EXPECT_STREQ(arguments.name, "a!b");
}

TEST(run_coredump_handler, wrong_arguments_return_1_and_leave_the_core_unread) {
    test_pipe pipe;
    ASSERT_EQ(write(pipe.in.get(), "core", 4), 4);
    EXPECT_TRUE(exited_with(run_in_a_child({"core", "12k", "!a", "app"}, pipe.out.get()), 1));
    EXPECT_TRUE(exited_with(run_in_a_child({"core", "1"}, pipe.out.get()), 1));
    EXPECT_EQ(pipe.finish(), "core");
}

TEST(run_coredump_handler, limit_below_a_page_returns_0_and_leaves_the_core_unread) {
    test_pipe pipe;
    ASSERT_EQ(write(pipe.in.get(), "core", 4), 4);
    EXPECT_TRUE(exited_with(run_in_a_child({"core", "0", "!a", "app"}, pipe.out.get()), 0));
    std::string below = std::to_string(sysconf(_SC_PAGESIZE) - 1);
    EXPECT_TRUE(exited_with(run_in_a_child({"core", below, "!a", "app"}, pipe.out.get()), 0));
    EXPECT_EQ(pipe.finish(), "core");
}

TEST(run_coredump_handler, unreadable_input_returns_1) {
    unique_fd folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_TRUE(exited_with(run_in_a_child({"core"}, folder.get()), 1));
    int status = run_in_child([] {
        command_line line(applet, {"core"});
        for (int fd = 0; fd < 3; fd++) {
            close(fd);
        }
        return run_coredump_handler(line.argc(), line.argv());
    });
    EXPECT_TRUE(exited_with(status, 1));
}

TEST(core_destination_read, missing_configuration_means_the_daemon) {
    EXPECT_FALSE(core_destination_read("/nonexistent/config").is_ftp);
    EXPECT_FALSE(core_destination_read("/").is_ftp);
}

TEST(core_destination_read, only_handlers_that_begin_with_FTP_upload) {
    EXPECT_TRUE(destination_of("CoreHandler = FTP\n").is_ftp);
    EXPECT_TRUE(destination_of("CoreHandler = FTPS\n").is_ftp);
    EXPECT_TRUE(destination_of("CoreHandler=\"FTP\"").is_ftp);
    for (const char* config :
         {"", "CoreHandler = ftp\n", "CoreHandler =\n", "CoreHandler = CGI\n", "CoreHandler = XFTP\n",
          "CoreHandlerFtp = FTP\n", "corehandler = FTP\n", "Core = FTP\n", "# CoreHandler = FTP\n"}) {
        EXPECT_FALSE(destination_of(config).is_ftp) << config;
    }
}

TEST(core_destination_read, first_handler_of_any_section_counts) {
    EXPECT_TRUE(destination_of("[x]\nCoreHandler = FTP\nCoreHandler = CGI\n").is_ftp);
    EXPECT_FALSE(destination_of("CoreHandler = CGI\nCoreHandler = FTP\n").is_ftp);
}

TEST(core_destination_read, reads_the_target_from_its_section) {
    core_destination found = destination_of(
        "[General]\nCoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://u:p@host:21\n"
        "TargetPath = /my dumps\nTimeout = 30\n");
    EXPECT_STREQ(found.ftp.url.get(), "ftp://u:p@host:21");
    EXPECT_STREQ(found.ftp.path.get(), "/my dumps");
    EXPECT_EQ(found.ftp.timeout_s, 30);
}

TEST(core_destination_read, missing_keys_are_empty_and_the_timeout_is_0) {
    core_destination found = destination_of("CoreHandler = FTP\n[CoreHandlerFtp]\n");
    EXPECT_TRUE(found.is_ftp);
    EXPECT_EQ(found.ftp.url, nullptr);
    EXPECT_EQ(found.ftp.path, nullptr);
    EXPECT_EQ(found.ftp.timeout_s, 0);
}

TEST(core_destination_read, ignores_a_target_before_the_handler) {
    core_destination found =
        destination_of("[CoreHandlerFtp]\nTargetURL = ftp://early\n[x]\nCoreHandler = FTP\n");
    EXPECT_TRUE(found.is_ftp);
    EXPECT_EQ(found.ftp.url, nullptr);
}

TEST(core_destination_read, ignores_other_sections) {
    core_destination found = destination_of(
        "CoreHandler = FTP\nTargetURL = ftp://none\n[Other]\nTargetURL = ftp://other\n"
        "[CoreHandlerFt]\nTargetURL = ftp://short\n[CoreHandlerFtp]\nTargetPath = /d\n");
    EXPECT_EQ(found.ftp.url, nullptr);
    EXPECT_STREQ(found.ftp.path.get(), "/d");
}

TEST(core_destination_read, compares_only_the_beginnings_of_section_and_keys) {
    core_destination found = destination_of(
        "CoreHandler = FTP\n[CoreHandlerFtpBackup]\nTargetURLs = ftp://host\nTargetPathName = /d\n"
        "TimeoutSeconds = 9\nTarget = x\n");
    EXPECT_STREQ(found.ftp.url.get(), "ftp://host");
    EXPECT_STREQ(found.ftp.path.get(), "/d");
    EXPECT_EQ(found.ftp.timeout_s, 9);
}

TEST(core_destination_read, last_of_equal_keys_counts) {
    core_destination found = destination_of(
        "CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://a\nTargetURL = ftp://b\n"
        "[x]\n[CoreHandlerFtp]\nTimeout = 1\nTimeout = 2\n");
    EXPECT_STREQ(found.ftp.url.get(), "ftp://b");
    EXPECT_EQ(found.ftp.timeout_s, 2);
}

TEST(core_destination_read, empty_value_counts_as_none) {
    core_destination found = destination_of(
        "CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://a\nTargetURL =\nTargetPath =\n");
    EXPECT_TRUE(found.is_whole);
    EXPECT_EQ(found.ftp.url, nullptr);
    EXPECT_EQ(found.ftp.path, nullptr);
}

TEST(core_destination_read, says_so_if_memory_runs_out) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    temp_dir folder;
    constexpr size_t size = 40 << 20;  // never from memory that the process has already
    const std::string path = folder.write_file(
        "config", "CoreHandler = FTP\n[CoreHandlerFtp]\nTargetPath = " + std::string(size, 'p') + "\n");
    // The reader needs memory for the line, too: between too little for it and enough for both, the copy
    // fails.
    bool has_failed = false;
    for (size_t spare = 0; !has_failed && spare < 10 * size; spare += size / 8) {
        core_destination found;
        {
            scoped_memory_limit limit(spare);
            found = core_destination_read(path.c_str());
        }
        has_failed = !found.is_whole;
        EXPECT_TRUE(!has_failed || !found.ftp.path);
    }
    EXPECT_TRUE(has_failed);
}

TEST(core_destination_read, accepts_crlf_and_a_last_line_without_a_newline) {
    core_destination found =
        destination_of("CoreHandler = FTP\r\n[CoreHandlerFtp]\r\nTargetURL = ftp://h\r\nTargetPath = /p");
    EXPECT_STREQ(found.ftp.url.get(), "ftp://h");
    EXPECT_STREQ(found.ftp.path.get(), "/p");
}

TEST(core_destination_read, long_values_are_not_cut) {
    std::string value(4096, 'v');
    core_destination found = destination_of("CoreHandler = FTP\n[CoreHandlerFtp]\nTargetPath = /" + value);
    EXPECT_EQ(found.ftp.path.get(), "/" + value);
}

TEST(core_destination_read, timeout_is_the_number_at_the_beginning_of_its_value) {
    auto timeout_of = [](const std::string& text) {
        return destination_of("CoreHandler = FTP\n[CoreHandlerFtp]\nTimeout = " + text).ftp.timeout_s;
    };
    EXPECT_EQ(timeout_of("15s"), 15);
    EXPECT_EQ(timeout_of("soon"), 0);
    EXPECT_EQ(timeout_of(""), 0);
    EXPECT_EQ(timeout_of("-3"), -3);
}

TEST(cored_mgm_connect, connects_to_the_daemon) {
    temp_dir folder;
    listening_socket daemon(folder.path("socket"));
    unique_fd sock = cored_mgm_connect(folder.path("socket").c_str());
    ASSERT_TRUE(sock);
    EXPECT_TRUE(is_cloexec(sock.get()));
    unique_fd accepted(accept(daemon.fd.get(), nullptr, nullptr));
    ASSERT_TRUE(accepted);
    ASSERT_EQ(write(sock.get(), "hello", 5), 5);
    sock.reset();
    EXPECT_EQ(read_all(accepted.get()), "hello");
}

TEST(cored_mgm_connect, reports_the_path_that_it_could_not_connect_to) {
    temp_dir folder;
    std::string missing = folder.path("socket");
    std::string too_long = folder.path(std::string(120, 'x'));
    for (const std::string& path : {missing, too_long, folder.write_file("plain", "")}) {
        int before = count_open_fds();
        unique_fd sock;
        std::string messages = capture_stderr([&] { sock = cored_mgm_connect(path.c_str()); });
        EXPECT_FALSE(sock);
        EXPECT_EQ(messages, "connect to " + path + " failed\n");
        EXPECT_EQ(count_open_fds(), before);
    }
}

TEST(cored_mgm_close, returns_at_once_if_the_daemon_has_answered_or_closed) {
    test_socketpair answered;
    ASSERT_EQ(write(answered.b.get(), "more than 8 bytes", 17), 17);
    EXPECT_LT(seconds_for([&] { cored_mgm_close(std::move(answered.a)); }), 4);
    test_socketpair closed;
    closed.b.reset();
    EXPECT_LT(seconds_for([&] { cored_mgm_close(std::move(closed.a)); }), 4);
}

TEST(cored_mgm_close, closes_its_socket) {
    test_socketpair pair;
    ASSERT_EQ(write(pair.b.get(), "ok", 2), 2);
    const int number = pair.a.get();
    cored_mgm_close(std::move(pair.a));
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
    EXPECT_EQ(read_all(pair.b.get()), "");
}

TEST(cored_mgm_close, waits_for_the_answer) {
    test_socketpair pair;
    std::atomic<bool> answered = false;
    pid_t handler = thread_id();
    std::thread daemon([&] {
        EXPECT_TRUE(eventually([handler] { return thread_state(handler) == 'S'; }));
        answered = true;
        EXPECT_EQ(write(pair.b.get(), "ok", 2), 2);
    });
    std::string messages = capture_stderr([&] { cored_mgm_close(std::move(pair.a)); });
    EXPECT_TRUE(answered);
    daemon.join();
    EXPECT_EQ(messages, "");
}

TEST(cored_mgm_close, gives_up_on_a_silent_daemon_after_5_seconds) {
    test_socketpair pair;
    double waited = seconds_for([&] { cored_mgm_close(std::move(pair.a)); });
    EXPECT_GE(waited, 4.9);
    EXPECT_LT(waited, 15);
    EXPECT_EQ(read_all(pair.b.get()), "");
}
