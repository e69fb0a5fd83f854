#include "trace/strace_report.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "common/unix_address.h"
#include "proc/proc_fd.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/trace/one_process_trace.h"
#include "tests/unit/trace/tracees.h"
#include "trace/strace_process.h"

namespace {

// Formatting with exactly this format fails.
const char* failing_format = nullptr;

}  // namespace

// Replaces the C library's in the whole test program: nothing else makes formatting fail.
extern "C" int vsnprintf(char* out, size_t size, const char* format, va_list args) noexcept {
    using formatter = int (*)(char*, size_t, const char*, va_list);
    static const auto real = reinterpret_cast<formatter>(dlsym(RTLD_NEXT, "vsnprintf"));
    bool fails = failing_format && strcmp(format, failing_format) == 0;
    return fails ? -1 : real(out, size, format, args);
}

namespace {

constexpr int shown_fd = 500;  // above all other descriptors of a test

// A trace whose one process is this program, named "me". Keeps the text that it writes.
struct report {
    pid_t pid = getpid();
    std::vector<char> buffer = std::vector<char>(strace_buffer_size);
    one_process_trace trace{&pid, "me"};
    strace_ctx& ctx = trace.ctx;
    std::vector<std::string> pieces;
    std::function<int32_t(const std::string&)> answer = [](const std::string&) { return 1; };

    report() {
        ctx.write = write;
        ctx.cookie = this;
        ctx.buf = buffer.data();
        ctx.bufsize = static_cast<int32_t>(buffer.size());
    }
    report(const report&) = delete;
    report& operator=(const report&) = delete;

    // Lists the descriptors of this program. Returns what was printed on standard error.
    std::string list() {
        return capture_stderr([this] { strace_show_fdinfo_all(&ctx, getpid()); });
    }
    std::string text() const {
        std::string all;
        for (const std::string& piece : pieces) {
            all += piece;
        }
        return all;
    }
    int listed() const { return atoi(pieces.at(0).c_str() + pieces.at(0).find("] ") + 2); }

    static int32_t write(void* cookie, const char* text, int length) {
        auto* self = static_cast<report*>(cookie);
        self->pieces.emplace_back(text, static_cast<size_t>(length));
        return self->answer(self->pieces.back());
    }
};

unique_fd null_device() {
    return unique_fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

// A Unix socket that listens at `path`.
unique_fd listening_at(const std::string& path) {
    unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const unix_address address(path);
    EXPECT_EQ(bind(sock.get(), address.get(), address.size()), 0);
    EXPECT_EQ(listen(sock.get(), 1), 0);
    return sock;
}

// Keeps `opened` open as descriptor `number`.
class numbered_fd {
public:
    explicit numbered_fd(int number, unique_fd opened = null_device()) {
        fd_ = unique_fd(dup3(opened.get(), number, O_CLOEXEC));
        EXPECT_EQ(fd_.get(), number);
    }
    void close() { fd_.reset(); }

private:
    unique_fd fd_;
};

std::string heading(pid_t pid, const std::string& name, int count) {
    return "\n[" + std::to_string(pid) + " " + name + "] " + std::to_string(count) + " open fds:\n";
}

// Lists the descriptors while one of them vanishes and formatting with `format` fails. Returns what was
// printed on standard error.
std::string messages_when_formatting_fails(report* made, const char* format) {
    numbered_fd vanishing(shown_fd);
    numbered_fd next(shown_fd + 1);
    made->answer = [&vanishing](const std::string&) {
        vanishing.close();
        return 1;
    };
    return capture_stderr([made, format] {
        failing_format = format;
        strace_show_fdinfo_all(&made->ctx, getpid());
        failing_format = nullptr;
    });
}

std::string lookup_failed(const report& made, int index) {
    return "strace_show_fdinfo_all: fdinfo lookup failed, pid=" + std::to_string(made.pid) +
           ", fd=" + std::to_string(shown_fd) + ", i=" + std::to_string(index) + "\n";
}

}  // namespace

TEST(strace_write_later, buffers_text_until_the_pending_text_is_written) {
    report made;
    made.trace.state.pending.reset(static_cast<char*>(malloc(strace_buffer_size)));
    strace_write_later(&made.ctx, "one\n", 4);
    strace_write_later(&made.ctx, "two\n", 4);
    EXPECT_TRUE(made.pieces.empty());
    strace_write_pending(&made.ctx);
    EXPECT_EQ(made.pieces, std::vector<std::string>({"one\ntwo\n"}));
    strace_write_pending(&made.ctx);
    EXPECT_EQ(made.pieces.size(), 1u);
}

TEST(strace_write_later, buffered_text_comes_before_text_written_at_once) {
    report made;
    made.trace.state.pending.reset(static_cast<char*>(malloc(strace_buffer_size)));
    strace_write_later(&made.ctx, "one\n", 4);
    EXPECT_EQ(strace_printf(&made.ctx, "%d\n", 2), 2);
    EXPECT_EQ(made.pieces, std::vector<std::string>({"one\n", "2\n"}));
}

TEST(strace_write_later, text_that_does_not_fit_follows_the_buffered_text) {
    report made;
    made.trace.state.pending.reset(static_cast<char*>(malloc(strace_buffer_size)));
    const std::string most(strace_buffer_size - 1, 'a');
    const std::string whole(strace_buffer_size, 'b');
    const std::string more(strace_buffer_size + 1, 'c');
    for (const std::string& text : {most, whole, more}) {
        strace_write_later(&made.ctx, text.c_str(), static_cast<int>(text.size()));
    }
    EXPECT_EQ(made.pieces, std::vector<std::string>({most, whole, more}));
}

TEST(strace_write_later, writes_at_once_without_a_buffer) {
    report made;
    strace_write_later(&made.ctx, "one\n", 4);
    EXPECT_EQ(made.pieces, std::vector<std::string>({"one\n"}));
}

TEST(strace_show_fdinfo_all, lists_each_descriptor_on_its_own_line) {
    numbered_fd null(shown_fd);
    report made;
    EXPECT_EQ(made.list(), "");
    EXPECT_EQ(made.pieces.at(0), heading(getpid(), "me", made.listed()));
    EXPECT_EQ(static_cast<int>(made.pieces.size()), 1 + made.listed());
    EXPECT_EQ(made.pieces.back(), "500\t/dev/null\n");
    for (size_t i = 1; i < made.pieces.size(); i++) {
        EXPECT_EQ(made.pieces[i].find('\n'), made.pieces[i].size() - 1) << made.pieces[i];
        EXPECT_NE(made.pieces[i].find('\t'), std::string::npos) << made.pieces[i];
    }
}

TEST(strace_show_fdinfo_all, process_that_is_not_in_the_list_has_no_name) {
    report made;
    tracee sleeper(sleep_for_ever);
    EXPECT_EQ(capture_stderr([&] { strace_show_fdinfo_all(&made.ctx, sleeper.pid()); }), "");
    EXPECT_EQ(made.pieces.at(0), heading(sleeper.pid(), "", made.listed()));
}

TEST(strace_show_fdinfo_all, ended_process_has_an_empty_list) {
    report made;
    made.pid = fork_child([] { return 0; });
    wait_status(made.pid);
    EXPECT_EQ(capture_stderr([&made] { strace_show_fdinfo_all(&made.ctx, made.pid); }), "");
    EXPECT_EQ(made.text(), heading(made.pid, "me", 0));
}

TEST(strace_show_fdinfo_all, without_a_callback_is_silent) {
    report made;
    made.ctx.write = nullptr;
    EXPECT_EQ(made.list(), "");
    EXPECT_EQ(made.text(), "");
}

TEST(strace_show_fdinfo_all, at_most_1024_descriptors_are_listed) {
    std::vector<unique_fd> many;
    for (int i = 0; i < 1100; i++) {
        many.emplace_back(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
        if (!many.back()) {
            GTEST_SKIP() << "this process may not open so many descriptors";
        }
    }
    report made;
    EXPECT_EQ(made.list(), "");
    EXPECT_EQ(made.pieces.size(), 1u + 1024u);
    EXPECT_EQ(made.pieces.at(0), heading(getpid(), "me", 1024));
}

TEST(strace_show_fdinfo_all, vanished_descriptor_is_reported_and_has_no_description) {
    numbered_fd vanishing(shown_fd);
    report made;
    made.answer = [&vanishing](const std::string&) {
        vanishing.close();
        return 1;
    };
    std::string said = made.list();
    EXPECT_EQ(said, lookup_failed(made, made.listed() - 1));
    std::string text = made.text();
    EXPECT_TRUE(text.ends_with("\n500\t\n")) << text;
}

TEST(strace_show_fdinfo_all, description_that_does_not_fit_is_reported_and_omitted) {
    temp_dir folder;
    numbered_fd listener(shown_fd, listening_at(folder.path("socket")));
    char buffer[256];
    int length = proc_fdinfo_lookup(getpid(), shown_fd, buffer, sizeof buffer);
    std::string described = buffer;
    ASSERT_TRUE(described.starts_with("socket:[") && described.ends_with("/socket]")) << described;
    ASSERT_EQ(static_cast<int>(described.size()), length);
    std::string message = "strace_show_fdinfo_all: Unexpected length: " + std::to_string(length) + "\n";
    report fits;
    fits.ctx.bufsize = length + 1;
    EXPECT_EQ(fits.list().find(message), std::string::npos);
    EXPECT_TRUE(fits.text().ends_with("\n500\t" + described + "\n")) << fits.text();
    report too_small;
    too_small.ctx.bufsize = length;
    std::string said = too_small.list();
    EXPECT_TRUE(said.ends_with(message)) << said;
    EXPECT_TRUE(too_small.text().ends_with("\n500\t\n")) << too_small.text();
}

TEST(strace_show_fdinfo_all, failed_write_of_a_description_ends_the_list) {
    numbered_fd null(shown_fd);
    numbered_fd next(shown_fd + 1);
    for (int result : {0, -1}) {
        report made;
        made.answer = [result](const std::string& piece) { return piece.starts_with("500\t") ? result : 1; };
        EXPECT_EQ(made.list(), result < 0 ? "strace_show_fdinfo_all:243 strace_write failed\n" : "");
        EXPECT_EQ(made.pieces.back(), result < 0 ? "500\t/dev/null\n" : "501\t/dev/null\n");
    }
}

TEST(strace_show_fdinfo_all, failed_formatting_of_the_heading_ends_the_list) {
    report made;
    EXPECT_EQ(messages_when_formatting_fails(&made, "\n[%d %s] %d open fds:\n"),
              "strace_show_fdinfo_all:225 strace_printf failed\n");
    EXPECT_EQ(made.text(), "");
}

TEST(strace_show_fdinfo_all, failed_formatting_of_a_number_ends_the_list) {
    report made;
    std::string said = messages_when_formatting_fails(&made, "%d\t");
    EXPECT_EQ(said,
              lookup_failed(made, made.listed() - 2) + "strace_show_fdinfo_all:232 strace_printf failed\n");
    EXPECT_EQ(made.text().find("\n500"), std::string::npos);
    EXPECT_EQ(made.text().find("\n501"), std::string::npos);
}

TEST(strace_show_fdinfo_all, failed_formatting_of_a_line_end_ends_the_list) {
    report made;
    std::string said = messages_when_formatting_fails(&made, "\n");
    EXPECT_EQ(said,
              lookup_failed(made, made.listed() - 2) + "strace_show_fdinfo_all:252 strace_printf failed\n");
    EXPECT_TRUE(made.text().ends_with("\n500\t")) << made.text();
}

namespace {

struct reported_exit {
    pid_t pid = 0;
    int kind = 0;
    int code = -1;
    int printed = -1;  // what strace_printf returned in the callback
};
reported_exit last_exit;

void note_exit(strace_ctx* ctx, void*, pid_t pid, int kind, int code, void* extra) {
    EXPECT_EQ(extra, nullptr);
    last_exit = {pid, kind, code, strace_printf(ctx, "%s", "exit\n")};
}

}  // namespace

TEST(strace_exit, reports_descriptors_and_exit_without_changing_the_work_buffer) {
    for (uint32_t flags : {strace_fds, 0u}) {
        report made;
        made.ctx.flags = flags;
        made.ctx.on_exit = note_exit;
        strcpy(made.ctx.buf, "a line");
        last_exit = {};
        strace_exit(&made.ctx, made.pid, strace_exit_call, 3, nullptr);
        EXPECT_EQ(last_exit.pid, made.pid);
        EXPECT_EQ(last_exit.kind, strace_exit_call);
        EXPECT_EQ(last_exit.code, 3);
        EXPECT_EQ(last_exit.printed, 5);
        EXPECT_EQ(made.text().find(" open fds:\n") != std::string::npos, flags != 0);
        EXPECT_EQ(made.pieces.back(), "exit\n");
        EXPECT_STREQ(made.ctx.buf, "a line");
    }
}

TEST(strace_exit, is_reported_even_without_memory_for_the_list) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    report made;
    made.ctx.flags = strace_fds;
    made.ctx.on_exit = note_exit;
    made.ctx.bufsize = 1 << 30;  // a second buffer of this size cannot be allocated
    strcpy(made.ctx.buf, "a line");
    last_exit = {};
    {
        scoped_memory_limit limit(64 << 20);
        strace_exit(&made.ctx, made.pid, strace_exit_call, 3, nullptr);
    }
    EXPECT_EQ(last_exit.pid, made.pid);
    EXPECT_EQ(last_exit.kind, strace_exit_call);
    EXPECT_EQ(last_exit.code, 3);
    EXPECT_EQ(last_exit.printed, 5);
    EXPECT_EQ(made.text(), "");  // the other buffer has the size 0
    EXPECT_STREQ(made.ctx.buf, "a line");
    EXPECT_EQ(made.ctx.bufsize, 1 << 30);
}

TEST(strace_printf, writes_text_that_fits) {
    traced_text trace({-1});
    char buffer[16];
    trace.ctx.buf = buffer;
    trace.ctx.bufsize = sizeof buffer;
    EXPECT_EQ(strace_printf(&trace.ctx, "%s %d", "pid", 4711), 8);
    EXPECT_EQ(trace.text, "pid 4711");
    EXPECT_EQ(strace_printf(&trace.ctx, "%s", "exactly 16 bytes"), 16);
    EXPECT_EQ(strace_printf(&trace.ctx, "%s", ""), 0);
    EXPECT_EQ(trace.text, "pid 4711");
    EXPECT_EQ(strace_printf(&trace.ctx, "%s", ", fifteen bytes"), 15);
    EXPECT_EQ(trace.text, "pid 4711, fifteen bytes");
    trace.ctx.write = nullptr;
    EXPECT_EQ(strace_printf(&trace.ctx, "x"), 1);
}
