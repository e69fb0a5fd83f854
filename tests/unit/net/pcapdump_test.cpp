#include "net/pcapdump.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/unit/net/pcap_reader.h"
#include "tests/unit/net/private_network.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/command_line.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

namespace {

// Starts the applet in a child process. The test may have inherited these signals as ignored.
pid_t start_applet(const std::vector<std::string>& words) {
    return fork_child([&words] {
        for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
            signal(sig, SIG_DFL);
        }
        return call_applet(run_pcapdump, words);
    });
}

// Sends the signal repeatedly until the process has ended. Returns its status.
int signal_until_it_ends(pid_t pid, int sig) {
    int status = -1;
    bool has_ended = eventually([&] {
        kill(pid, sig);
        return waitpid(pid, &status, WNOHANG) == pid;
    });
    if (!has_ended) {
        kill(pid, SIGKILL);
        return wait_status(pid);
    }
    return status;
}

// The applet in a child process, capturing near0 into a file.
class running_applet {
public:
    explicit running_applet(std::vector<std::string> port = {}) : file_(dir_.path("dump.cap")) {
        std::vector<std::string> words = {"pcapdump", "near0", file_};
        words.insert(words.end(), port.begin(), port.end());
        pid_ = start_applet(words);
        EXPECT_TRUE(eventually([this] { return capturing_sockets() == 1 && size() >= 24; }));
    }
    off_t size() const {
        struct stat status = {};
        (void)stat(file_.c_str(), &status);
        return status.st_size;
    }
    // Waits until the file has `wanted` bytes, interrupts the applet and returns the file's content.
    pcap_content finish(off_t wanted, int sig = SIGINT) {
        EXPECT_TRUE(eventually([&] { return size() >= wanted; })) << size();
        kill(pid_, sig);
        EXPECT_TRUE(exited_with(wait_status(pid_), 0));
        return content();
    }
    pcap_content content() const {
        unique_fd file(open(file_.c_str(), O_RDONLY | O_CLOEXEC));
        return pcap_read(content_of(file.get()));
    }
    pid_t pid() const { return pid_; }
    const std::string& file() const { return file_; }

private:
    temp_dir dir_;
    std::string file_;
    pid_t pid_;
};

// The thread sanitizer may delay a signal until the program receives its next frame.
#if defined(__SANITIZE_THREAD__)
#define SKIP_WITHOUT_PROMPT_SIGNALS() GTEST_SKIP() << "the thread sanitizer delays signals"
#else
#define SKIP_WITHOUT_PROMPT_SIGNALS() static_assert(true)
#endif

std::string tcp_frame(unsigned port) {
    std::string frame(60, '\x01');
    frame.replace(12, 4, std::string("\x08\x00\x45\x00", 4));
    frame.replace(20, 4, std::string("\x00\x00\x40\x06", 4));
    frame[34] = static_cast<char>(port >> 8);
    frame[35] = static_cast<char>(port);
    return frame;
}

// Sends frames from ports 22, 80 and 8080. Returns those that are captured with `port` on the command line.
std::vector<unsigned> captured_ports(const std::vector<std::string>& port, size_t expected) {
    running_applet applet(port);
    frame_sender wire("far0");
    for (unsigned each : {22u, 80u, 8080u}) {
        wire.send(tcp_frame(each));
    }
    std::vector<unsigned> ports;
    for (const std::string& frame : applet.finish(static_cast<off_t>(24 + 76 * expected)).frame_bytes()) {
        ports.push_back(static_cast<unsigned char>(frame[34]) * 256u + static_cast<unsigned char>(frame[35]));
    }
    return ports;
}

using port_list = std::vector<unsigned>;

}  // namespace

TEST(run_pcapdump, prints_its_usage) {
    for (std::vector<std::string> words : {std::vector<std::string>{"pcapdump"}, {"pcapdump", "eth0"}}) {
        std::string out = capture_stdout([&] { EXPECT_EQ(call_applet(run_pcapdump, words), 1); });
        EXPECT_EQ(out, "USAGE: pcapdump netif dumpname [filter_portnumber]\n");
    }
}

TEST(run_pcapdump, file_that_cannot_be_opened_is_reported) {
    std::string reported = capture_stderr([] {
        EXPECT_EQ(call_applet(run_pcapdump, {"pcapdump", "lo", "/nonexistent/file"}), 1);
    });
    EXPECT_EQ(reported, std::string("/nonexistent/file: ") + strerror(ENOENT) + "\n");
}

NETWORK_TEST(run_pcapdump, signals_end_it_after_a_whole_record) {
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        running_applet applet;
        EXPECT_TRUE(is_promiscuous("near0"));
        frame_sender wire("far0");
        for (int i = 0; i < 500; i++) {
            wire.send(frame_of(1000, static_cast<char>(i)));
        }
        pcap_content content = applet.finish(24, sig);
        EXPECT_EQ(content.file_header, pcap_expected_file_header());
        EXPECT_EQ(content.rest, "");
        EXPECT_FALSE(is_promiscuous("near0"));
    }
}

NETWORK_TEST(run_pcapdump, further_signals_do_not_kill_it_or_lose_frames) {
    SKIP_WITHOUT_PROMPT_SIGNALS();
    running_applet applet;
    std::vector<std::string> sent;
    frame_sender wire("far0");
    for (int i = 0; i < 300; i++) {
        sent.push_back(frame_of(1000, static_cast<char>(i)));
        wire.send(sent.back());
    }
    EXPECT_TRUE(exited_with(signal_until_it_ends(applet.pid(), SIGINT), 0));
    EXPECT_EQ(applet.content().frame_bytes(), sent);
    EXPECT_EQ(applet.content().rest, "");
    EXPECT_FALSE(is_promiscuous("near0"));
}

NETWORK_TEST(run_pcapdump, second_signal_ends_it_if_its_output_blocks) {
    SKIP_WITHOUT_PROMPT_SIGNALS();
    temp_dir dir;
    std::string fifo = dir.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    unique_fd reader(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    pid_t pid = start_applet({"pcapdump", "near0", fifo});
    EXPECT_TRUE(eventually([] { return capturing_sockets() == 1; }));
    unique_fd writer(open(fifo.c_str(), O_WRONLY | O_CLOEXEC));
    frame_sender wire("far0");
    EXPECT_TRUE(eventually([&] {
        wire.send(frame_of(1000, 'f'));
        pollfd full = {writer.get(), POLLOUT, 0};
        return poll(&full, 1, 0) == 0;
    }));
    EXPECT_TRUE(is_promiscuous("near0"));
    EXPECT_TRUE(exited_with(signal_until_it_ends(pid, SIGINT), 0));
    EXPECT_FALSE(is_promiscuous("near0"));
}

NETWORK_TEST(run_pcapdump, fails_without_a_descriptor_for_its_stop_pipe) {
    temp_dir dir;
    std::string file = dir.path("dump.cap");
    unique_fd older(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(write(older.get(), "older", 5), 5);
    int status = run_in_child([&file] {
        int result = 0;
        std::string reported = capture_stderr([&] {
            int next = dup(STDERR_FILENO);
            rlimit one_left = {static_cast<rlim_t>(next) + 1, 4096};  // a pipe needs two
            close(next);
            setrlimit(RLIMIT_NOFILE, &one_left);
            result = call_applet(run_pcapdump, {"pcapdump", "near0", file});
            rlimit enough = {4096, 4096};
            setrlimit(RLIMIT_NOFILE, &enough);
        });
        return result == 1 && reported == std::string("pipe: ") + strerror(EMFILE) + "\n" ? 0 : 2;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_EQ(content_of(older.get()), "older");
}

NETWORK_TEST(run_pcapdump, file_is_private_and_truncated) {
    SKIP_WITHOUT_PROMPT_SIGNALS();
    running_applet applet;
    struct stat status = {};
    EXPECT_EQ(stat(applet.file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(applet.finish(24).records.size(), 0u);
}

NETWORK_TEST(run_pcapdump, port_is_excluded) {
    SKIP_WITHOUT_PROMPT_SIGNALS();
    EXPECT_EQ(captured_ports({"8080"}, 2), (port_list{22, 80}));
    EXPECT_EQ(captured_ports({"22"}, 2), (port_list{80, 8080}));
    EXPECT_EQ(captured_ports({"80 and text"}, 2), (port_list{22, 8080}));
}

NETWORK_TEST(run_pcapdump, without_a_valid_port_everything_is_captured) {
    SKIP_WITHOUT_PROMPT_SIGNALS();
    EXPECT_EQ(captured_ports({}, 3), (port_list{22, 80, 8080}));
    for (const char* port : {"0", "65536", "-22", "text", "", "99999999999999999999"}) {
        EXPECT_EQ(captured_ports({port}, 3), (port_list{22, 80, 8080})) << port;
    }
}

TEST(run_pcapdump, exit_status_is_0_if_no_interface_can_be_opened) {
    temp_dir dir;
    std::string file = dir.path("dump.cap");
    EXPECT_EQ(chmod(dir.path().c_str(), 0777), 0);
    int status = run_in_child([&file] {
        if (geteuid() == 0 && setuid(65534) != 0) {
            return 77;
        }
        int result = 1;
        std::string reported = capture_stderr([&] {
            result = call_applet(run_pcapdump, {"pcapdump", "lo", file});
        });
        return result == 0 && reported == std::string("socket: : ") + strerror(EPERM) + "\n" ? 0 : 2;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}
