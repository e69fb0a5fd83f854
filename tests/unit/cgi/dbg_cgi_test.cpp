#include "cgi/dbg_cgi.h"

#include <getopt.h>
#include <limits.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <filesystem>
#include <vector>

#include "common/unix_address.h"
#include "platform/qorlink.h"
#include "proc/proc_list.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/cgi/private_machine.h"
#include "tests/unit/cgi/threads.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/command_line.h"
#include "tests/unit/support/temp_dir.h"

namespace {

constexpr std::string_view help_text =
    "dbg-cgi 0.1\n"
    "dbg-cgi [options] [pids...]\n"
    "\n"
    "-d\tdump tar archive with core-files for pids to stdout.\n"
    "-t\tonly tar the archive.\n"
    "-i\tignore pid\n"
    "-p\tprogram to create coredumps [/usr/bin/dcore]\n"
    "-c\tcgi control socket name [/var/run/dbg-cgi/ctrl-cgi-socket]\n"
    "-s\tsegfault control socket name [/var/run/dbg-cgi/ctrl-segf-socket]\n"
    "-h\thelp\n";

constexpr uid_t nobody = 65534;

// listen(2) fails if it is called with this backlog. Set only in children.
int refused_backlog = -1;

using words = std::vector<std::string>;

// Runs the applet in this process.
int run_applet(words arguments) {
    arguments.insert(arguments.begin(), "debugar.cgi");
    optind = 0;
    return call_applet(run_dbg_cgi, std::move(arguments));
}

// The result of a run, and what it printed.
struct applet_run {
    int status = -1;
    std::string output;
};

applet_run run_in_process(const words& arguments) {
    applet_run run;
    run.output =
        capture_stdout([&] { run.status = run_in_child([&arguments] { return run_applet(arguments); }); });
    return run;
}

TEST(dbg_cgi, prints_help_and_fails) {
    applet_run run = run_in_process({"-h"});
    EXPECT_TRUE(exited_with(run.status, 1));
    EXPECT_EQ(run.output, help_text);
}

TEST(dbg_cgi, prints_help_for_a_wrong_option) {
    for (const words& arguments : {words{"-x"}, words{"--help"}, words{"-t", "-z"}, words{"-c"}, words{"-s"},
                                   words{"-p"}, words{"-k"}, words{"-i"}, words{"-n", "-h"}, words{"-?"}}) {
        applet_run run = run_in_process(arguments);
        EXPECT_TRUE(exited_with(run.status, 1)) << arguments[0];
        EXPECT_EQ(run.output, help_text) << arguments[0];
    }
}

TEST(dbg_cgi, fails_quietly_if_its_control_socket_cannot_be_created) {
    temp_dir folder;
    applet_run run = run_in_process({"-n", "-c", folder.path("missing/cgi"), "-s", folder.path("segfault")});
    EXPECT_TRUE(exited_with(run.status, 1));
    EXPECT_EQ(run.output, "");
    EXPECT_NE(access(folder.path("segfault").c_str(), F_OK), 0) << "the control socket comes first";
}

TEST(dbg_cgi, fails_quietly_if_its_segfault_socket_cannot_be_created) {
    temp_dir folder;
    applet_run run = run_in_process({"-n", "-c", folder.path("cgi"), "-s", folder.path("missing/segfault")});
    EXPECT_TRUE(exited_with(run.status, 1));
    EXPECT_EQ(run.output, "");
}

TEST(dbg_cgi, removes_nothing_but_socket_files) {
    temp_dir folder;
    std::string in_the_way = folder.make_folder("folder");
    applet_run run = run_in_process({"-n", "-c", in_the_way, "-s", folder.path("segfault")});
    EXPECT_TRUE(exited_with(run.status, 1));
    EXPECT_EQ(access(in_the_way.c_str(), F_OK), 0);
}

TEST(dbg_cgi, accepts_all_options_and_ignores_further_words) {
    temp_dir folder;
    applet_run run = run_in_process({"-t", "-n", "-p", "/bin/false", "-k", folder.path(), "-c",
                                     folder.path("missing/cgi"), "-s", folder.path("segfault"), "12", "x"});
    EXPECT_TRUE(exited_with(run.status, 1));
    EXPECT_EQ(run.output, "") << "no help";
}

TEST(dbg_cgi, reads_the_ignored_pid_in_any_base) {
    struct {
        const char* text;
        pid_t pid;
    } rows[] = {{"42", 42}, {"0x20", 32}, {"010", 8}, {"12x", 12}, {"x", 0}};
    temp_dir folder;
    for (const auto& row : rows) {
        int status = run_in_child([&] {
            run_applet({"-n", "-i", row.text, "-c", folder.path("missing/cgi")});
            return proc_extra_ignore_pid == row.pid ? 0 : 1;
        });
        EXPECT_TRUE(exited_with(status, 0)) << row.text;
    }
}

TEST(dbg_cgi, ignores_no_other_pid_without_the_option) {
    temp_dir folder;
    int status = run_in_child([&] {
        run_applet({"-n", "-c", folder.path("missing/cgi")});
        return proc_extra_ignore_pid == -1 ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
}

TEST(dbg_cgi, fails_if_its_monitor_cannot_start) {
    temp_dir folder;
    std::string errors = capture_stderr([&folder] {
        int status = run_in_child([&folder] {
            if (!forbid_new_threads()) {
                return 2;
            }
            std::set<int> before = open_fds();
            int result = run_applet({"-n", "-c", folder.path("cgi"), "-s", folder.path("segfault")});
            EXPECT_LE(open_fds().size(), before.size() + 1) << "only the dumper's null device may stay open";
            return testing::Test::HasFailure() ? 3 : result;
        });
        EXPECT_TRUE(exited_with(status, 1));
    });
    EXPECT_EQ(errors, "pthread_create: Resource temporarily unavailable\n");
}

TEST(dbg_cgi, fails_if_listen_on_its_segfault_socket_fails) {
    temp_dir folder;
    std::string errors = capture_stderr([&folder] {
        int status = run_in_child([&folder] {
            refused_backlog = 2;  // no other socket has it
            return forbid_new_threads()
                       ? run_applet({"-n", "-c", folder.path("cgi"), "-s", folder.path("segfault")})
                       : 2;
        });
        EXPECT_TRUE(exited_with(status, 1)) << status;
    });
    EXPECT_EQ(errors, "") << "it does not go on to its monitor";
}

TEST(dbg_cgi, fails_if_it_cannot_fork) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become a user that may not fork";
    }
    temp_dir folder;
    std::string errors = capture_stderr([&folder] {
        int status = run_in_child([&folder] {
            rlimit none = {0, 0};
            if (setrlimit(RLIMIT_NPROC, &none) != 0 || setresuid(nobody, nobody, nobody) != 0) {
                return 2;
            }
            return run_applet({"-c", folder.path("cgi"), "-s", folder.path("segfault")});
        });
        EXPECT_TRUE(exited_with(status, 1)) << status;
    });
    EXPECT_EQ(errors, "daemon\n: Resource temporarily unavailable\n");
}

// A running daemon watches all processes, so the tests below run on a private machine. Processes that are
// left there end with the test.
template <typename Work>
void expect_on_private_machine(Work work) {
    int result = run_on_private_machine(work);
    if (result == private_machine_refused) {
        GTEST_SKIP() << private_machine_refusal;
    }
    EXPECT_EQ(result, 0);
}

bool is_socket(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

ino_t inode_of(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

std::string posted(const std::string& path, const std::string& message) {
    browser client;
    int length = static_cast<int>(message.size());
    EXPECT_EQ(qorlink_send(path.c_str(), message.data(), length, client.daemon_end()), 0) << path;
    client.drop_daemon_end();
    return client.answer();
}

const std::string nonsense = request_message("/x", "cmd=nonsense");

pid_t start_daemon(const words& arguments) {
    return fork_child([&arguments] { return run_applet(arguments); });
}

bool is_running(pid_t pid) {
    return waitpid(pid, nullptr, WNOHANG) == 0;
}

void end_daemon(pid_t pid) {
    EXPECT_EQ(kill(pid, SIGKILL), 0);
    EXPECT_TRUE(killed_by(wait_status(pid), SIGKILL));
}

unique_fd connect_to(const std::string& path) {
    unique_fd peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const unix_address address(path);
    if (connect(peer.get(), address.get(), address.size()) != 0) {
        peer.reset();
    }
    return peer;
}

TEST(dbg_cgi, serves_requests_and_cores_on_its_sockets) {
    temp_dir folder;
    expect_on_private_machine([&folder] {
        std::string cgi = folder.path("cgi");
        std::string segfault = folder.path("segfault");
        std::string dump = folder.write_file("dumps/core.1", "bytes");
        umask(077);
        pid_t daemon = start_daemon({"-n", "-c", cgi, "-s", segfault, "-k", folder.path("dumps")});
        ASSERT_TRUE(eventually([&] { return !!connect_to(segfault); }));
        EXPECT_EQ(posted(cgi, nonsense), bad_request_answer);
        EXPECT_EQ(posted(cgi, request_message("/x/debug.tgz", "pop")), dump_head("core.1") + "bytes");
        // The connection is closed before the file is deleted.
        EXPECT_TRUE(eventually([&] { return access(dump.c_str(), F_OK) != 0; }));
        struct stat status = {};
        EXPECT_EQ(stat(cgi.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0666u);
        EXPECT_TRUE(is_running(daemon));
        end_daemon(daemon);
        EXPECT_TRUE(is_socket(cgi) && is_socket(segfault)) << "nobody removes them";
    });
}

TEST(dbg_cgi, survives_a_browser_that_has_gone) {
    temp_dir folder;
    expect_on_private_machine([&folder] {
        std::string cgi = folder.path("cgi");
        signal(SIGPIPE, SIG_DFL);
        pid_t daemon = start_daemon({"-n", "-c", cgi, "-s", folder.path("segfault")});
        ASSERT_TRUE(eventually([&] { return !!connect_to(folder.path("segfault")); }));
        browser gone;
        gone.go_away();
        EXPECT_EQ(
            qorlink_send(cgi.c_str(), nonsense.data(), static_cast<int>(nonsense.size()), gone.daemon_end()),
            0);
        gone.drop_daemon_end();
        EXPECT_EQ(posted(cgi, nonsense), bad_request_answer);
        EXPECT_TRUE(is_running(daemon));
    });
}

TEST(dbg_cgi, second_daemon_takes_over_the_paths) {
    temp_dir folder;
    expect_on_private_machine([&folder] {
        std::string cgi = folder.path("cgi");
        std::string segfault = folder.path("segfault");
        words arguments = {"-n", "-c", cgi, "-s", segfault};
        pid_t first = start_daemon(arguments);
        ASSERT_TRUE(eventually([&] { return !!connect_to(segfault); }));
        ino_t old_cgi = inode_of(cgi);
        ino_t old_segfault = inode_of(segfault);
        pid_t second = start_daemon(arguments);
        ASSERT_TRUE(eventually([&] {
            return is_socket(cgi) && inode_of(cgi) != old_cgi && is_socket(segfault) &&
                   inode_of(segfault) != old_segfault && !!connect_to(segfault);
        }));
        EXPECT_TRUE(is_running(first));
        end_daemon(first);
        EXPECT_EQ(posted(cgi, nonsense), bad_request_answer);
        EXPECT_TRUE(is_running(second));
    });
}

TEST(dbg_cgi, cuts_a_segfault_path_at_108_bytes) {
    for (size_t length : {107, 108, 109, 200}) {
        temp_dir folder;
        std::string path = folder.path("s");
        path.append(length - path.size(), 's');
        expect_on_private_machine([&] {
            std::string cgi = folder.path("cgi");
            pid_t daemon = start_daemon({"-n", "-c", cgi, "-s", path});
            ASSERT_TRUE(eventually([&] { return is_socket(path.substr(0, 108)); })) << length;
            EXPECT_EQ(posted(cgi, nonsense), bad_request_answer);
            EXPECT_TRUE(is_running(daemon));
        });
    }
}

TEST(dbg_cgi, fails_with_a_control_path_that_is_too_long) {
    temp_dir folder;
    std::string path = folder.path("c").append(150, 'c');
    applet_run run = run_in_process({"-n", "-c", path, "-s", folder.path("segfault")});
    EXPECT_TRUE(exited_with(run.status, 1));
}

std::string link_of(pid_t pid, const char* name) {
    char target[PATH_MAX];
    std::string path = "/proc/" + std::to_string(pid) + "/" + name;
    ssize_t length = readlink(path.c_str(), target, sizeof target);
    return std::string(target, length > 0 ? static_cast<size_t>(length) : 0);
}

// The process that listens on the socket at `path`.
pid_t listener_of(const std::string& path) {
    unique_fd peer = connect_to(path);
    ucred credentials = {};
    socklen_t length = sizeof credentials;
    EXPECT_EQ(getsockopt(peer.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length), 0);
    return credentials.pid;
}

TEST(dbg_cgi, becomes_a_daemon) {
    temp_dir folder;
    expect_on_private_machine([&folder] {
        std::string cgi = folder.path("cgi");
        std::string segfault = folder.path("segfault");
        pid_t starter = start_daemon({"-c", cgi, "-s", segfault});
        EXPECT_TRUE(exited_with(wait_status(starter), 0));
        ASSERT_TRUE(eventually([&] { return !!connect_to(segfault); }));
        EXPECT_EQ(posted(cgi, nonsense), bad_request_answer);
        pid_t daemon = listener_of(segfault);
        EXPECT_NE(daemon, starter);
        EXPECT_EQ(getsid(daemon), daemon);
        EXPECT_EQ(link_of(daemon, "cwd"), "/");
        for (const char* standard : {"fd/0", "fd/1", "fd/2"}) {
            EXPECT_EQ(link_of(daemon, standard), "/dev/null") << standard;
        }
    });
}

TEST(dbg_cgi, keeps_its_sockets_off_the_standard_descriptors) {
    temp_dir folder;
    expect_on_private_machine([&folder] {
        std::string cgi = folder.path("cgi");
        pid_t daemon = fork_child([&] {
            close(STDIN_FILENO);
            close(STDOUT_FILENO);
            return run_applet({"-n", "-c", cgi, "-s", folder.path("segfault")});
        });
        ASSERT_TRUE(eventually([&] { return !!connect_to(folder.path("segfault")); }));
        EXPECT_EQ(posted(cgi, nonsense), bad_request_answer);
        EXPECT_EQ(link_of(daemon, "fd/0"), "/dev/null");
        EXPECT_EQ(link_of(daemon, "fd/1"), "/dev/null");
    });
}

}  // namespace

extern "C" int listen(int fd, int backlog) noexcept {
    if (backlog == refused_backlog) {
        errno = ENOBUFS;
        return -1;
    }
    return static_cast<int>(syscall(SYS_listen, fd, backlog));
}
