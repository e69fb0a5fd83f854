#include "monitor/rtrace_apps.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "monitor/rtrace.h"
#include "monitor/rtrace_wait.h"
#include "proc/proc_list.h"
#include "tests/unit/monitor/rtrace_records.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/few_fds.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr auto patience = 20s;  // enough for a busy machine

constexpr unsigned all_apps = rtrace_iostat | rtrace_pellora | rtrace_event | rtrace_pidstat;

std::string content(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

bool is_alive(pid_t pid) {
    return kill(pid, 0) == 0;
}

// A trace whose programs are scripts in a temporary folder, and its client.
class rtrace_programs : public testing::Test {
protected:
    void SetUp() override { signal(SIGPIPE, SIG_IGN); }

    void create(unsigned mask, int interval = 1) {
        trace_.reset(rtrace_create(client_.b.get(), interval, mask));
        trace_->root = root_.path().c_str();
    }
    rtrace_apps* start(unsigned mask, int interval = 1) {
        create(mask, interval);
        rtrace_apps* block = nullptr;
        EXPECT_EQ(rtrace_start_apps(trace_.get(), &block), 0);
        return block;
    }
    void end(rtrace_apps* block) { EXPECT_EQ(rtrace_end_apps(trace_.get(), block), 0); }

    // Installs the shell script `text` as a program.
    void put_program(std::string_view name, std::string_view text) {
        put_script(root_, "usr/bin/" + std::string(name), text);
    }
    void put_all_programs() {
        for (const char* name : {"iostat", "pellora", "eventlistener", "pidstat"}) {
            put_program(name, std::string("echo ") + name + "\nexec sleep 1000\n");
        }
    }
    // Reads programs and client until `count` records have arrived.
    std::string read_records(rtrace_apps* block, size_t count) {
        std::string stream;
        set_nonblocking(client_.a.get());
        auto deadline = clock_type::now() + 10s;
        while (records_of(stream).size() < count && clock_type::now() < deadline) {
            EXPECT_TRUE(rtrace_read_apps(*trace_, *block));
            char bytes[300000];
            ssize_t got = read(client_.a.get(), bytes, sizeof bytes);
            stream.append(bytes, got > 0 ? static_cast<size_t>(got) : 0);
        }
        return stream;
    }

    struct destroyer {
        void operator()(rtrace_context* trace) const { rtrace_destroy(trace); }
    };
    temp_dir root_;
    test_socketpair client_;
    std::unique_ptr<rtrace_context, destroyer> trace_;
};

}  // namespace

TEST(rtrace_app_rows, are_the_four_programs_in_their_order) {
    auto words = [](const char* const(&from)[rtrace_app::words_capacity]) {
        std::string all;
        for (const char* word : from) {
            all += word ? std::string(word) + " " : "";
        }
        return all;
    };
    std::string text;
    for (const rtrace_app& app : rtrace_app_table) {
        text += std::to_string(app.source) + " " + std::to_string(app.type) + " " + words(app.argv) + "| " +
                words(app.envp) + "| " + std::to_string(app.interval_position) + "\n";
    }
    EXPECT_EQ(text,
              "64 1 /usr/bin/iostat -xcdk 20 | | 2\n"
              "256 11 /usr/bin/pellora -n | GSTTL_LOG_NAME=- GSTTL_SHOW=gap "
              "LD_PRELOAD=/tmp/libgsttracelib.so | 0\n"
              "512 12 /usr/bin/eventlistener -s -r | | 0\n"
              "1024 13 /usr/bin/pidstat 20 | | 1\n");
}

TEST_F(rtrace_programs, that_are_not_selected_are_not_started) {
    rtrace_apps* untouched = reinterpret_cast<rtrace_apps*>(this);
    create(rtrace_meminfo | rtrace_smaps);
    rtrace_apps* block = untouched;
    EXPECT_EQ(rtrace_start_apps(trace_.get(), &block), 0);
    EXPECT_EQ(block, untouched);
    EXPECT_TRUE(has_no_children());
}

TEST_F(rtrace_programs, are_started_in_order) {
    put_all_programs();
    rtrace_apps* block = start(all_apps);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->count, 4);
    const uint32_t types[] = {1, 11, 12, 13};
    std::vector<pid_t> pids;
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(block->apps[i].type, types[i]);
        EXPECT_GT(block->apps[i].pid, 0);
        pids.push_back(block->apps[i].pid);
        EXPECT_TRUE(is_cloexec(block->apps[i].read_end.get()) && is_cloexec(block->apps[i].write_end.get()));
    }
    end(block);
    for (pid_t pid : pids) {
        EXPECT_FALSE(is_alive(pid));
    }
    EXPECT_TRUE(has_no_children());
}

TEST_F(rtrace_programs, get_their_arguments_and_an_empty_environment) {
    std::string said = root_.path("said");
    for (const char* name : {"iostat", "eventlistener", "pidstat"}) {
        put_program(name, "echo \"$0 $*\" > " + said + "." + name +
                              "; tr '\\0' '\\n' < /proc/$$/environ >> " + said + "." + name +
                              "\nexec sleep 1000\n");
    }
    rtrace_apps* block = start(rtrace_iostat | rtrace_event | rtrace_pidstat, 77);
    auto program = [this](const char* name) { return root_.path(std::string("usr/bin/") + name); };
    EXPECT_TRUE(eventually([&] { return content(said + ".iostat") == program("iostat") + " -xcdk 77\n"; }));
    EXPECT_TRUE(eventually([&] { return content(said + ".pidstat") == program("pidstat") + " 77\n"; }));
    EXPECT_TRUE(eventually(
        [&] { return content(said + ".eventlistener") == program("eventlistener") + " -s -r\n"; }));
    end(block);
}

TEST_F(rtrace_programs, get_three_variables_if_they_are_the_media_server) {
    // The loader warns about the missing library and continues.
    std::string said = root_.path("said");
    put_program("pellora", "tr '\\0' '\\n' < /proc/$$/environ 2>/dev/null > " + said + "\nexec sleep 1000\n");
    const std::string wanted = "GSTTL_LOG_NAME=-\nGSTTL_SHOW=gap\nLD_PRELOAD=/tmp/libgsttracelib.so\n";
    capture_stderr([&] {
        rtrace_apps* block = start(rtrace_pellora);
        EXPECT_TRUE(eventually([&] { return content(said) == wanted; })) << content(said);
        end(block);
    });
}

TEST_F(rtrace_programs, get_at_most_nine_characters_of_the_interval) {
    for (auto [interval, word] : {std::pair(0, "0"), std::pair(-7, "-7"), std::pair(123456789, "123456789"),
                                  std::pair(2147483647, "214748364"), std::pair(INT32_MIN, "-21474836")}) {
        std::string said = root_.path("said") + word;
        put_program("pidstat", "echo \"$*\" > " + said + ".new; mv " + said + ".new " + said + "\n");
        rtrace_apps* block = start(rtrace_pidstat, interval);
        std::string line = std::string(word) + "\n";
        EXPECT_TRUE(eventually([&] { return content(said) == line; })) << content(said);
        end(block);
    }
}

TEST_F(rtrace_programs, give_records_of_their_type) {
    put_all_programs();
    rtrace_apps* block = start(all_apps, 0);
    std::string stream = read_records(block, 4);
    std::map<uint32_t, std::string> said;
    for (const trace_record& record : records_of(stream)) {
        EXPECT_EQ(record.more, 0);
        said[record.type] += record.data;
    }
    EXPECT_EQ(said, (std::map<uint32_t, std::string>{
                        {1, "iostat\n"}, {11, "pellora\n"}, {12, "eventlistener\n"}, {13, "pidstat\n"}}));
    end(block);
}

TEST_F(rtrace_programs, are_read_once_per_interval) {
    put_program("pidstat", "echo one\nexec sleep 1000\n");
    rtrace_apps* block = start(rtrace_pidstat, 1);
    pollfd talks = {block->apps[0].read_end.get(), POLLIN, 0};
    ASSERT_EQ(poll(&talks, 1, 10000), 1);
    std::thread second([block] {
        std::this_thread::sleep_for(200ms);
        (void)!write(block->apps[0].write_end.get(), "two\n", 4);
    });
    auto begun = clock_type::now();
    EXPECT_TRUE(rtrace_read_apps(*trace_, *block));
    EXPECT_GE(clock_type::now() - begun, 1s);
    second.join();
    EXPECT_TRUE(rtrace_read_apps(*trace_, *block));
    end(block);
    trace_.reset();
    client_.b.reset();
    expect_records(read_all(client_.a.get()), {record_of(13, "one\n", 0), record_of(13, "two\n", 0)});
}

TEST_F(rtrace_programs, that_write_a_megabyte_give_one_record_per_interval) {
    put_program("pidstat", "head -c 1048576 /dev/zero; exec sleep 1000\n");
    rtrace_apps* block = start(rtrace_pidstat, 0);
    reader_thread client(unique_fd(client_.a.release()));
    ASSERT_TRUE(eventually([this, block] {
        pollfd full = {block->apps[0].write_end.get(), POLLOUT, 0};
        return poll(&full, 1, 0) == 0;
    }));
    EXPECT_TRUE(rtrace_read_apps(*trace_, *block));
    end(block);
    trace_.reset();
    client_.b.reset();
    std::vector<trace_record> records = records_of(client.text());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_GE(records[0].length, 4096u);
    EXPECT_LE(records[0].length, 204799u);
}

TEST_F(rtrace_programs, give_at_most_204799_bytes_in_one_record) {
    put_program("pidstat", "exec sleep 1000\n");
    rtrace_apps* block = start(rtrace_pidstat, 0);
    if (fcntl(block->apps[0].write_end.get(), F_SETPIPE_SZ, 1 << 20) < 0) {
        end(block);
        GTEST_SKIP() << "no pipe of 1 MiB";
    }
    reader_thread client(unique_fd(client_.a.release()));
    std::string text(300000, 'x');
    ASSERT_EQ(write(block->apps[0].write_end.get(), text.data(), text.size()), 300000);
    EXPECT_TRUE(rtrace_read_apps(*trace_, *block));
    EXPECT_TRUE(rtrace_read_apps(*trace_, *block));
    end(block);
    trace_.reset();
    client_.b.reset();
    EXPECT_EQ(outline_of(client.text()), (outline{"13:204799:0", "13:95201:0"}));
}

TEST_F(rtrace_programs, that_exit_at_once_or_print_nothing_do_not_end_the_interval) {
    put_program("iostat", "exit 3\n");
    put_program("pidstat", "exec sleep 1000\n");
    rtrace_apps* block = start(rtrace_iostat | rtrace_pidstat, 1);
    auto begun = clock_type::now();
    EXPECT_TRUE(rtrace_read_apps(*trace_, *block));
    EXPECT_GE(clock_type::now() - begun, 1s);
    end(block);
    EXPECT_TRUE(has_no_children());
    trace_.reset();
    client_.b.reset();
    EXPECT_EQ(read_all(client_.a.get()), "");
}

TEST_F(rtrace_programs, may_be_missing) {
    std::string complaint = capture_stderr([this] {
        rtrace_apps* block = start(all_apps, 0);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(block->count, 4);
        EXPECT_TRUE(rtrace_read_apps(*trace_, *block));
        end(block);
    });
    EXPECT_TRUE(has_no_children());
    EXPECT_EQ(complaint.substr(0, 7), complaint.empty() ? "" : "execve:");
}

TEST_F(rtrace_programs, are_not_read_with_a_negative_interval) {
    put_program("pidstat", "echo x\nexec sleep 1000\n");
    for (int interval : {-1, INT32_MIN}) {
        rtrace_apps* block = start(rtrace_pidstat, interval);
        auto begun = clock_type::now();
        EXPECT_FALSE(rtrace_read_apps(*trace_, *block));
        EXPECT_LT(clock_type::now() - begun, patience);
        end(block);
    }
}

TEST_F(rtrace_programs, are_not_waited_for_after_the_client_has_left) {
    put_program("pidstat", "exec sleep 1000\n");
    rtrace_apps* block = start(rtrace_pidstat, 2147483647);
    client_.a.reset();
    auto begun = clock_type::now();
    EXPECT_FALSE(rtrace_read_apps(*trace_, *block));
    EXPECT_LT(clock_type::now() - begun, patience);
    end(block);
}

TEST_F(rtrace_programs, that_ignore_sigterm_are_killed_after_the_timeout) {
    put_program("pidstat", "trap '' TERM\necho ready\nwhile :; do sleep 0.01; done\n");
    rtrace_apps* block = start(rtrace_pidstat, 1);
    pollfd talks = {block->apps[0].read_end.get(), POLLIN, 0};
    ASSERT_EQ(poll(&talks, 1, 10000), 1);
    pid_t pid = block->apps[0].pid;
    auto begun = clock_type::now();
    end(block);
    auto took = clock_type::now() - begun;
    EXPECT_GE(took, std::chrono::milliseconds(rtrace_app_patience_ms));
    EXPECT_LT(took, std::chrono::milliseconds(rtrace_app_patience_ms) + patience);
    EXPECT_FALSE(is_alive(pid));
    EXPECT_TRUE(has_no_children());
}

TEST_F(rtrace_programs, that_are_stopped_are_killed_after_the_timeout) {
    put_program("pidstat", "exec sleep 1000\n");
    rtrace_apps* block = start(rtrace_pidstat, 1);
    ASSERT_EQ(kill(block->apps[0].pid, SIGSTOP), 0);
    end(block);
    EXPECT_TRUE(has_no_children());
}

TEST_F(rtrace_programs, that_are_traced_are_ended_too) {
    put_program("pidstat", "exec sleep 1000\n");
    rtrace_apps* block = start(rtrace_pidstat, 1);
    const pid_t pid = block->apps[0].pid;
    std::atomic<bool> over{false};
    std::thread tracer([&] {
        EXPECT_EQ(ptrace(PTRACE_ATTACH, pid, nullptr, nullptr), 0);
        EXPECT_TRUE(eventually([&over] { return over.load(); }));
    });
    EXPECT_TRUE(eventually([pid] { return proc_state(pid) == 't'; }));
    end(block);
    EXPECT_FALSE(is_alive(pid));
    over = true;
    tracer.join();
    EXPECT_TRUE(has_no_children());
}

TEST_F(rtrace_programs, started_before_a_failed_pipe_run_until_the_trace_ends) {
    put_all_programs();
    create(all_apps);
    rtrace_apps* block = nullptr;
    {
        few_fds_left less_than_two_pipes(3);
        EXPECT_EQ(rtrace_start_apps(trace_.get(), &block), 0);
    }
    EXPECT_EQ(block, nullptr);
    ASSERT_NE(trace_->unread, nullptr);
    EXPECT_EQ(trace_->unread->count, 1);
    pollfd talks = {trace_->unread->apps[0].read_end.get(), POLLIN, 0};
    EXPECT_EQ(poll(&talks, 1, 10000), 1);
    EXPECT_TRUE(is_alive(trace_->unread->apps[0].pid));
    end(std::exchange(trace_->unread, nullptr));
    EXPECT_TRUE(has_no_children());
}

TEST_F(rtrace_programs, that_were_not_started_get_no_signal) {
    create(all_apps);
    int status = run_in_child([this] {
        // In a process group of its own: a kill of pid 0 would reach only this process, whose handler fails
        // the test.
        setpgid(0, 0);
        signal(SIGTERM, [](int) { _exit(9); });
        rtrace_apps* block = rtrace_new_apps();
        block->count = 1;
        block->apps[0].pid = 0;
        return rtrace_end_apps(trace_.get(), block) == 0 ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
}

TEST_F(rtrace_programs, cannot_be_ended_without_a_context_and_a_block) {
    create(all_apps);
    EXPECT_EQ(rtrace_end_apps(trace_.get(), nullptr), -1);
    EXPECT_EQ(rtrace_end_apps(nullptr, nullptr), -1);
    put_all_programs();
    rtrace_apps* block = start(rtrace_iostat);
    EXPECT_EQ(rtrace_end_apps(nullptr, block), -1);
    EXPECT_TRUE(is_alive(block->apps[0].pid));
    end(block);
}

TEST_F(rtrace_programs, leave_no_descriptor_open) {
    put_all_programs();
    std::set<int> before = open_fds();
    end(start(all_apps));
    EXPECT_EQ(open_fds(), before);
}
