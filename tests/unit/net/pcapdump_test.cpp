#include "net/pcapdump.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/unit/net/pcap_reader.h"
#include "tests/unit/net/private_network.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/temp_dir.h"

namespace {

int run_applet(std::vector<std::string> words) {
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return run_pcapdump(static_cast<int>(words.size()), argv.data());
}

// The applet in a process of its own, capturing on near0 into a file.
class running_applet {
public:
    explicit running_applet(std::vector<std::string> port = {}) : file_(dir_.path("dump.cap")) {
        std::vector<std::string> words = {"pcapdump", "near0", file_};
        words.insert(words.end(), port.begin(), port.end());
        pid_ = fork_child([&words] { return run_applet(words); });
        EXPECT_TRUE(eventually([this] { return capturing_sockets() == 1 && size() >= 24; }));
    }
    off_t size() const {
        struct stat status = {};
        (void)stat(file_.c_str(), &status);
        return status.st_size;
    }
    // Waits until the file has that many bytes, interrupts the applet and returns what is in the file.
    pcap_content finish(off_t wanted, int sig = SIGINT) {
        EXPECT_TRUE(eventually([&] { return size() >= wanted; })) << size();
        kill(pid_, sig);
        EXPECT_TRUE(exited_with(wait_status(pid_), 0));
        unique_fd file(open(file_.c_str(), O_RDONLY | O_CLOEXEC));
        return pcap_read(content_of(file.get()));
    }
    const std::string& file() const { return file_; }

private:
    temp_dir dir_;
    std::string file_;
    pid_t pid_;
};

// The thread sanitizer may put a signal off for as long as the program waits for its next frame.
#if defined(__SANITIZE_THREAD__)
#define SKIP_WITHOUT_PROMPT_SIGNALS() GTEST_SKIP() << "the sanitizer puts signals off"
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

// Which of the frames from ports 22, 80 and 8080 are captured when `port` is on the command line.
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

TEST(run_pcapdump, says_how_it_is_used) {
    for (std::vector<std::string> words : {std::vector<std::string>{"pcapdump"}, {"pcapdump", "eth0"}}) {
        std::string out = capture_stdout([&] { EXPECT_EQ(run_applet(words), 1); });
        EXPECT_EQ(out, "USAGE: pcapdump netif dumpname [filter_portnumber]\n");
    }
}

TEST(run_pcapdump, file_that_cannot_be_opened_is_reported) {
    std::string said = capture_stderr([] {
        EXPECT_EQ(run_applet({"pcapdump", "lo", "/nonexistent/file"}), 1);
    });
    EXPECT_EQ(said, std::string("/nonexistent/file: ") + strerror(ENOENT) + "\n");
}

NETWORK_TEST(run_pcapdump, signals_end_it_at_a_whole_record) {
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
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

NETWORK_TEST(run_pcapdump, file_is_private_and_older_content_is_gone) {
    SKIP_WITHOUT_PROMPT_SIGNALS();
    running_applet applet;
    struct stat status = {};
    EXPECT_EQ(stat(applet.file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(applet.finish(24).records.size(), 0u);
}

NETWORK_TEST(run_pcapdump, port_is_left_out) {
    SKIP_WITHOUT_PROMPT_SIGNALS();
    EXPECT_EQ(captured_ports({"8080"}, 2), (port_list{22, 80}));
    EXPECT_EQ(captured_ports({"22"}, 2), (port_list{80, 8080}));
    EXPECT_EQ(captured_ports({"80 and text"}, 2), (port_list{22, 8080}));
}

NETWORK_TEST(run_pcapdump, without_a_usable_port_everything_is_captured) {
    SKIP_WITHOUT_PROMPT_SIGNALS();
    EXPECT_EQ(captured_ports({}, 3), (port_list{22, 80, 8080}));
    for (const char* port : {"0", "65536", "-22", "text", "", "99999999999999999999"}) {
        EXPECT_EQ(captured_ports({port}, 3), (port_list{22, 80, 8080})) << port;
    }
}

TEST(run_pcapdump, capture_that_cannot_begin_is_no_failure) {
    temp_dir dir;
    std::string file = dir.path("dump.cap");
    EXPECT_EQ(chmod(dir.path().c_str(), 0777), 0);
    int status = run_in_child([&file] {
        if (geteuid() == 0 && setuid(65534) != 0) {
            return 77;
        }
        int result = 1;
        std::string said = capture_stderr([&] { result = run_applet({"pcapdump", "lo", file}); });
        return result == 0 && said == std::string("socket: : ") + strerror(EPERM) + "\n" ? 0 : 2;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}
