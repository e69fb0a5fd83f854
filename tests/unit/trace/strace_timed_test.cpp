// Timed traces, and that the others are as if there were none.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/support/signals.h"
#include "tests/unit/support/time_zone.h"
#include "tests/unit/trace/one_process_trace.h"
#include "tests/unit/trace/timed_text.h"
#include "tests/unit/trace/tracees.h"
#include "trace/strace_report.h"

namespace {

// How often this thread has asked for the time of day.
thread_local int wall_clock_calls = 0;

}  // namespace

// Replaces the C library's in the whole test program, to count.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    using getter = int (*)(clockid_t, timespec*);
    // On a 32-bit machine, times of 64 bits have a function of their own.
    constexpr const char* name = sizeof(time_t) > sizeof(long) ? "__clock_gettime64" : "clock_gettime";
    static const auto real = reinterpret_cast<getter>(dlsym(RTLD_NEXT, name));
    wall_clock_calls += clock == CLOCK_REALTIME;
    return real(clock, now);
}

namespace {

// A timed trace without a process whose event happened a second after midnight, in pieces as written.
struct timed_report {
    scoped_zone zone{"UTC0"};
    pid_t pid = -1;
    std::vector<char> buffer = std::vector<char>(strace_buffer_size);
    one_process_trace trace{&pid, "me"};
    strace_ctx& ctx = trace.ctx;
    std::vector<std::string> pieces;

    timed_report() {
        ctx.write = [](void* cookie, const char* text, int length) {
            static_cast<timed_report*>(cookie)->pieces.emplace_back(text, static_cast<size_t>(length));
            return 1;
        };
        ctx.cookie = this;
        ctx.buf = buffer.data();
        ctx.bufsize = static_cast<int32_t>(buffer.size());
        ctx.timed = 1;
        trace.state.event.wall = {1, 2000};
    }
    timed_report(const timed_report&) = delete;
    timed_report& operator=(const timed_report&) = delete;

    void add_buffer() { trace.state.pending.reset(static_cast<char*>(malloc(strace_buffer_size))); }
    void write_later(const std::string& piece) {
        strace_write_later(&ctx, piece.c_str(), static_cast<int>(piece.size()));
    }
    std::string text() {
        strace_write_pending(&ctx);
        EXPECT_EQ(std::ranges::count(pieces, ""), 0) << "a poll";
        std::string all;
        for (const std::string& piece : pieces) {
            all += piece;
        }
        return all;
    }
};

const std::string now = "00:00:01.000002 ";

int sleep_50_ms_twice() {
    usleep(50000);
    usleep(50000);
    return 0;
}

// The durations of the calls that sleep.
std::vector<double> sleeps_in(const std::string& text) {
    std::vector<double> found;
    for (const std::string& line : lines_of(text)) {
        if (line.find("nanosleep") != std::string::npos && duration_of(line) >= 0) {
            found.push_back(duration_of(line));
        }
    }
    return found;
}

int raise_and_exit() {
    signal(SIGUSR1, SIG_IGN);
    raise(SIGUSR1);
    return 6;
}

template <typename Work>
std::string timed_trace_of(Work work) {
    traced_child child(work);
    child.trace.ctx.timed = 1;
    child.run();
    child.child.end_if_left();
    return child.trace.text;
}

// The time of day as a trace has it.
std::string time_of_day_now() {
    timespec at;
    clock_gettime(CLOCK_REALTIME, &at);
    strace_minute minute;
    return strace_time_of_day(&minute, at).text;
}

// Waits until a stop of the process waits to be reaped.
bool has_stopped(pid_t pid) {
    return eventually([pid] {
        siginfo_t info = {};
        return waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == pid;
    });
}

// Writes 64 bytes again and again.
struct busy_writer {
    unique_fd null{open("/dev/null", O_WRONLY | O_CLOEXEC)};
    tracee child{[this] {
        const std::string bytes(64, 'q');
        for (;;) {
            syscall(SYS_write, null.get(), bytes.data(), bytes.size());
        }
        return 0;
    }};

    // Traces ten of its calls with a work buffer of this size. Returns the line of a return, which may be
    // missing.
    std::string return_line(int bufsize, int32_t timed) {
        traced_text trace({child.pid()}, strace_calls);
        trace.ctx.buf = static_cast<char*>(malloc(static_cast<size_t>(bufsize)));
        trace.ctx.bufsize = bufsize;
        trace.ctx.timed = timed;
        trace.goes_on = [](const traced_text& so_far) { return so_far.polls < 20; };
        return line_with(trace.run(), " = 64");
    }
};

}  // namespace

TEST(timed_report, line_begins_with_the_time_of_its_event) {
    timed_report made;
    strace_printf(&made.ctx, "one\n");
    made.trace.state.event.wall.tv_nsec += 1000;
    made.write_later("two\n");
    EXPECT_EQ(made.text(), now + "one\n" + "00:00:01.000003 two\n");
}

TEST(timed_report, empty_lines_stay_empty) {
    for (bool buffered : {false, true}) {
        timed_report made;
        if (buffered) {
            made.add_buffer();
        }
        strace_printf(&made.ctx, "\nsignal\n\n");
        made.write_later("\n\nlater\n\n");
        strace_printf(&made.ctx, "\n");
        EXPECT_EQ(made.text(), "\n" + now + "signal\n\n\n\n" + now + "later\n\n\n");
    }
}

TEST(timed_report, line_in_pieces_has_one_time) {
    timed_report made;
    strace_printf(&made.ctx, "5\t");
    strace_printf(&made.ctx, "\n");
    made.write_later("call = 0");
    made.write_later(" <0.000001>\n");
    EXPECT_EQ(made.text(), now + "5\t\n" + now + "call = 0 <0.000001>\n");
}

TEST(timed_report, text_after_an_unfinished_line_has_a_time_only_on_a_line_of_its_own) {
    timed_report made;
    made.write_later("unfinished");
    made.write_later("call\n");
    made.write_later("unfinished");
    made.write_later("\nheading\n");
    EXPECT_EQ(made.text(), now + "unfinishedcall\n" + now + "unfinished\n" + now + "heading\n");
}

TEST(timed_report, newline_in_a_name_begins_no_line) {
    timed_report made;
    made.write_later("[1 two\nlines] close(3)\n");
    EXPECT_EQ(made.text(), now + "[1 two\nlines] close(3)\n");
}

TEST(timed_report, no_text_is_lost_around_the_end_of_the_buffer) {
    for (size_t length = strace_buffer_size - 40; length <= strace_buffer_size + 1; length++) {
        timed_report made;
        made.add_buffer();
        const std::string line = std::string(length - 1, 'a') + "\n";
        made.write_later(line);
        made.write_later("b\n");
        ASSERT_EQ(made.text(), now + line + now + "b\n") << length;
    }
}

TEST(timed_trace, every_line_that_is_not_empty_has_a_time) {
    const std::string text = timed_trace_of(raise_and_exit);
    expect_timed(text);
    EXPECT_GT(count_in(text, "\n\n"), 2u) << text;
    for (const char* line : {" ---  SIGNAL ", " open fds:", "exit_group(6)", " 0\t"}) {
        EXPECT_TRUE(has_time(line_with(text, line))) << line << text;
    }
}

TEST(timed_trace, times_follow_each_other_from_the_begin_to_the_end_of_the_trace) {
    scoped_zone zone(noon_zone());
    std::vector<std::string> times = {time_of_day_now()};
    for (const std::string& line : lines_of(timed_trace_of(raise_and_exit))) {
        if (!line.empty()) {
            times.push_back(line.substr(0, time_length));
        }
    }
    times.push_back(time_of_day_now());
    EXPECT_TRUE(std::ranges::is_sorted(times)) << testing::PrintToString(times);
}

TEST(timed_trace, return_ends_in_the_duration_of_the_call) {
    using seconds = std::chrono::duration<double>;
    const auto begun = std::chrono::steady_clock::now();
    const std::string text = timed_trace_of(sleep_50_ms_twice);
    const seconds passed = std::chrono::steady_clock::now() - begun;
    for (const std::string& line : lines_of(text)) {
        EXPECT_EQ(duration_of(line) >= 0, line.find(") = ") != std::string::npos) << line;
    }
    const std::vector<double> sleeps = sleeps_in(text);
    ASSERT_EQ(sleeps.size(), 2u) << text;
    EXPECT_GE(std::ranges::min(sleeps), 0.05) << text;
    EXPECT_LT(sleeps[0] + sleeps[1], passed.count()) << text;
}

TEST(timed_trace, time_is_that_of_the_stop_not_of_the_write) {
    scoped_zone zone(noon_zone());
    tracee busy(call_for_ever);
    tracee other(call_for_ever);  // stops too before the first stop is handled
    traced_text trace({busy.pid(), other.pid()}, strace_calls);
    trace.ctx.timed = 1;
    std::string first_poll;
    trace.goes_on = [&](const traced_text& so_far) {
        if (so_far.polls == 1 && first_poll.empty()) {
            first_poll = time_of_day_now();
            EXPECT_TRUE(
                eventually([&] { return state_of(busy.pid()) == 't' && state_of(other.pid()) == 't'; }));
            usleep(50000);
        }
        return so_far.polls < 20;
    };
    trace.run();
    EXPECT_LE(trace.text.substr(0, time_length), first_poll);
}

TEST(timed_trace, exit_of_a_process_that_is_killed_in_a_stop_has_its_own_time) {
    scoped_zone zone(noon_zone());
    traced_child child(raise_and_exit, strace_signals | strace_exits | strace_fds);
    child.trace.ctx.timed = 1;
    const pid_t pid = child.pid();
    std::string killed;
    child.trace.goes_on = [&killed, pid](const traced_text& so_far) {
        if (killed.empty() && so_far.has(" SIGUSR1 ")) {
            kill(pid, SIGKILL);
            EXPECT_TRUE(has_stopped(pid));
            killed = time_of_day_now();
            usleep(20000);
        }
        return true;
    };
    child.run();
    child.child.end_if_left();
    EXPECT_GT(line_with(child.trace.text, " open fds:").substr(0, time_length), killed) << child.trace.text;
}

TEST(timed_trace, lists_at_the_end_have_the_time_of_the_end) {
    scoped_zone zone(noon_zone());
    tracee busy(call_for_ever);
    traced_text trace({busy.pid()});
    trace.ctx.timed = 1;
    std::string ended;
    trace.goes_on = [&ended](const traced_text& so_far) {
        if (so_far.polls < 10) {
            return true;
        }
        ended = ended.empty() ? time_of_day_now() : ended;
        usleep(1000);
        return false;
    };
    trace.run();
    EXPECT_GT(line_with(trace.text, " open fds:").substr(0, time_length), ended) << trace.text;
}

TEST(timed_trace, signal_that_comes_before_the_stop_of_the_attach_has_its_time) {
    scoped_zone zone(noon_zone());
    scoped_signal caught(SIGHUP, count_signal);
    test_pipe gate;
    tracee parent([&gate] {
        if (vfork() == 0) {
            close(gate.in.get());  // so that it ends with the test
            char byte;
            (void)!read(gate.out.get(), &byte, 1);
            _exit(0);
        }
        return sleep_for_ever();
    });
    const pid_t pid = parent.pid();
    if (!eventually([pid] { return state_of(pid) == 'D'; }, std::chrono::seconds(3))) {
        GTEST_SKIP() << "needs a vfork that stops the parent; a sanitizer may replace it by fork";
    }
    // It gets both signals when the child of its vfork ends: this one first, then the SIGSTOP of the attach,
    // since both are for the thread.
    ASSERT_EQ(syscall(SYS_tgkill, pid, pid, SIGHUP), 0);
    std::thread opener([&gate, pid] {
        EXPECT_TRUE(eventually([pid] { return is_traced(pid); }));
        EXPECT_EQ(write(gate.in.get(), "x", 1), 1);
    });
    traced_text trace({pid}, strace_signals);
    trace.ctx.timed = 1;
    trace.goes_on = [](const traced_text& so_far) { return !so_far.has(" SIGHUP "); };
    const std::string begun = time_of_day_now();
    trace.run();
    opener.join();
    const std::string time = line_with(trace.text, " SIGHUP ").substr(0, time_length);
    EXPECT_LT(begun, time);
    EXPECT_LE(time, time_of_day_now());
}

TEST(timed_trace, line_fits_whenever_the_usual_one_does) {
    busy_writer writer;
    const std::string usual = writer.return_line(strace_buffer_size, 0);
    const int length = static_cast<int>(usual.size()) + 1;  // with the newline
    ASSERT_GT(length, 64);
    EXPECT_EQ(writer.return_line(length + 1, 0), usual);
    const std::string timed = writer.return_line(length + 1, 1);
    EXPECT_TRUE(has_time(timed)) << timed;
    EXPECT_GE(duration_of(timed), 0) << timed;
    EXPECT_EQ(timed.substr(time_length, usual.size()), usual);
}

TEST(timed_trace, usual_trace_never_asks_for_the_time_of_day) {
    for (int32_t timed : {0, 1}) {
        traced_child child(sleep_50_ms_twice);
        child.trace.ctx.timed = timed;
        const int before = wall_clock_calls;
        child.run();
        child.child.end_if_left();
        EXPECT_EQ(wall_clock_calls != before, timed != 0);
        EXPECT_EQ(has_time(child.trace.text), timed != 0);
    }
}

TEST(timed_trace, several_processes_have_times_of_their_own) {
    gated_child one(sleep_50_ms_twice);
    gated_child other(raise_and_exit);
    traced_text trace({one.pid(), other.pid()});
    trace.ctx.timed = 1;
    trace.ctx.seconds = 20;
    std::thread opener([&] {
        EXPECT_TRUE(eventually([&] { return is_traced(one.pid()) && is_traced(other.pid()); }));
        one.open_gate();
        other.open_gate();
    });
    trace.run();
    opener.join();
    one.child.end_if_left();
    other.child.end_if_left();
    expect_timed(trace.text);
    const std::vector<double> sleeps = sleeps_in(trace.text);
    ASSERT_EQ(sleeps.size(), 2u) << trace.text;
    EXPECT_GE(std::ranges::min(sleeps), 0.05) << trace.text;
}

namespace {

int32_t (*write_of_trace)(void* cookie, const char* text, int length);

int32_t write_slowly(void* cookie, const char* text, int length) {
    if (length > 0) {
        usleep(20000);
    }
    return write_of_trace(cookie, text, length);
}

}  // namespace

TEST(timed_trace, slow_reader_does_not_lengthen_the_calls_of_a_process) {
    traced_child child([] {
        for (int i = 0; i < 15; i++) {
            (void)getppid();
        }
        return 0;
    });
    write_of_trace = std::exchange(child.trace.ctx.write, write_slowly);
    child.trace.ctx.timed = 1;
    child.run();
    child.child.end_if_left();
    std::vector<double> durations;
    for (const std::string& line : lines_of(child.trace.text)) {
        if (line.find("getppid(") != std::string::npos && duration_of(line) >= 0) {
            durations.push_back(duration_of(line));
        }
    }
    ASSERT_EQ(durations.size(), 15u);
    std::ranges::sort(durations);
    EXPECT_LT(durations[7], 0.02) << "the median";
}
