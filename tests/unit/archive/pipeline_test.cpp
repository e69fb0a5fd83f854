#include "archive/pipeline.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "common/safe_io.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/archive/gzip_stream.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"

namespace {

using builder = std::function<void(int pipe_fd, int compressor_pid)>;

int call_builder(void* context, int pipe_fd, int compressor_pid) {
    (*static_cast<builder*>(context))(pipe_fd, compressor_pid);
    return 0;
}

int compress_onto(int fd, builder build, int flush_after_ms = 0) {
    return stream_compressed(fd, call_builder, &build, flush_after_ms);
}

bool put(int fd, const std::string& bytes) {
    return safe_write(fd, bytes.data(), static_cast<unsigned>(bytes.size())) >= 0;
}

// The compressed stream of `bytes`.
std::string compressed_in_memory(const std::string& bytes) {
    unique_fd out = memory_file();
    compress_onto(out.get(), [&bytes](int pipe_fd, int) { EXPECT_TRUE(put(pipe_fd, bytes)); });
    return content_of(out.get());
}

std::set<std::string> open_fds_of(int pid) {
    std::set<std::string> found;
    unique_dir dir(opendir(("/proc/" + std::to_string(pid) + "/fd").c_str()));
    while (const dirent* entry = dir ? readdir(dir.get()) : nullptr) {
        if (entry->d_name[0] != '.') {
            found.insert(entry->d_name);
        }
    }
    return found;
}

bool is_gone(int pid) {
    return kill(pid, 0) < 0 && errno == ESRCH;
}

// Writes until a write fails. Returns its errno.
int error_of_endless_writing(int pipe_fd) {
    std::string bytes = noise(16384);
    while (put(pipe_fd, bytes)) {
    }
    return errno;
}

std::atomic<int> interruptions{0};

void interrupt_every_10_ms() {
    struct sigaction action = {};
    action.sa_handler = [](int) { interruptions++; };
    sigaction(SIGALRM, &action, nullptr);
    itimerval often = {{0, 10000}, {0, 10000}};
    setitimer(ITIMER_REAL, &often, nullptr);
}

}  // namespace

TEST(stream_compressed, builder_that_writes_nothing_gives_an_empty_stream) {
    using namespace std::string_literals;
    EXPECT_EQ(compressed_in_memory(""), "\x1f\x8b\x08\0\0\0\0\0\0\x03\x03\0\0\0\0\0\0\0\0\0"s);
}

TEST(stream_compressed, decompressed_stream_equals_the_built_bytes) {
    for (size_t size : {1, 16384, 100000, 3000000}) {
        std::string bytes = noise(size);
        EXPECT_TRUE(gunzip(compressed_in_memory(bytes)) == bytes) << size;
    }
}

TEST(stream_compressed, builder_runs_in_the_caller_and_gets_the_pid_of_the_compressor) {
    unique_fd out = memory_file();
    int compressor = -1;
    pid_t builder_pid = -1;
    std::string parent_line;
    compress_onto(out.get(), [&](int, int pid) {
        compressor = pid;
        builder_pid = getpid();
        unique_fd status(open(("/proc/" + std::to_string(pid) + "/status").c_str(), O_RDONLY | O_CLOEXEC));
        parent_line = status ? read_all(status.get()) : "";
    });
    EXPECT_EQ(builder_pid, getpid());
    EXPECT_NE(parent_line.find("\nPPid:\t" + std::to_string(getpid()) + "\n"), std::string::npos);
    EXPECT_TRUE(is_gone(compressor));
}

TEST(stream_compressed, reaps_the_compressor_before_it_returns) {
    EXPECT_TRUE(exited_with(run_in_child([] {
                                unique_fd out = memory_file();
                                compress_onto(out.get(), [](int fd, int) { put(fd, noise(50000)); });
                                bool complete = gunzip(content_of(out.get())) == noise(50000);
                                return complete && has_no_children() ? 0 : 1;
                            }),
                            0));
}

TEST(stream_compressed, does_not_reap_other_children) {
    pid_t other = fork_child([] { return 7; });
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(other), &info, WEXITED | WNOWAIT), 0);
    EXPECT_NE(compressed_in_memory("text"), "");
    EXPECT_TRUE(exited_with(wait_status(other), 7));
}

TEST(stream_compressed, leaves_no_descriptors_and_the_output_open) {
    unique_fd out = memory_file();
    std::set<int> before = open_fds();
    compress_onto(out.get(), [](int fd, int) { put(fd, "text"); });
    EXPECT_EQ(open_fds(), before);
    EXPECT_EQ(write(out.get(), "x", 1), 1);
}

TEST(stream_compressed, pipe_is_close_on_exec) {
    unique_fd out = memory_file();
    bool cloexec = false;
    compress_onto(out.get(), [&cloexec](int fd, int) { cloexec = is_cloexec(fd); });
    EXPECT_TRUE(cloexec);
}

TEST(stream_compressed, compressor_has_only_the_standard_descriptors) {
    test_pipe inheritable(0);
    unique_fd out = memory_file();
    bool settled = false;
    compress_onto(out.get(), [&settled](int, int pid) {
        settled = eventually([pid] { return open_fds_of(pid) == std::set<std::string>{"0", "1", "2"}; });
    });
    EXPECT_TRUE(settled);
}

TEST(stream_compressed, ends_even_if_descriptors_can_neither_be_closed_as_a_range_nor_listed) {
    constexpr int no_filters = 77;
    unique_fd out = memory_file();
    pid_t child = fork_child([&out] {
        setpgid(0, 0);  // a compressor that hangs is to end with it
        if (!take_close_range_away() || !fail_calls({{SYS_openat, ENFILE}})) {
            return no_filters;
        }
        compress_onto(out.get(), [](int fd, int) { put(fd, "built"); });
        return 0;
    });
    int status = 0;
    bool has_ended = eventually([&] { return waitpid(child, &status, WNOHANG) == child; });
    if (!has_ended) {
        kill(-child, SIGKILL);
        wait_status(child);
    }
    ASSERT_TRUE(has_ended);
    if (exited_with(status, no_filters)) {
        GTEST_SKIP() << "this kernel cannot filter system calls";
    }
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(gunzip(content_of(out.get())), "built");
}

TEST(stream_compressed, other_downloads_end_while_it_runs) {
    test_socketpair download;
    unique_fd out = memory_file();
    bool ended = false;
    compress_onto(out.get(), [&](int, int) {
        download.a.reset();
        ended =
            read_all(download.b.get()).empty();  // returns only after all copies of the other end are closed
    });
    EXPECT_TRUE(ended);
}

TEST(stream_compressed, builder_gets_EPIPE_if_the_client_has_disconnected) {
    ignore_broken_pipes();
    test_pipe client;
    client.out.reset();
    std::set<int> before = open_fds();
    int error = 0;
    int compressor = -1;
    compress_onto(client.in.get(), [&](int fd, int pid) {
        compressor = pid;
        error = error_of_endless_writing(fd);
    });
    EXPECT_EQ(error, EPIPE);
    EXPECT_TRUE(is_gone(compressor));
    EXPECT_EQ(open_fds(), before);
}

TEST(stream_compressed, builder_gets_EPIPE_when_the_client_disconnects) {
    ignore_broken_pipes();
    test_socketpair pair;
    std::thread client([end = std::move(pair.b)] {
        char some[200000];
        EXPECT_EQ(safe_read(end.get(), some, sizeof some), static_cast<ssize_t>(sizeof some));
    });
    int error = 0;
    int compressor = -1;
    compress_onto(pair.a.get(), [&](int fd, int pid) {
        compressor = pid;
        error = error_of_endless_writing(fd);
    });
    client.join();
    EXPECT_EQ(error, EPIPE);
    EXPECT_TRUE(is_gone(compressor));
}

TEST(stream_compressed, complete_stream_returns_0) {
    unique_fd out = memory_file();
    EXPECT_EQ(compress_onto(out.get(), [](int fd, int) { put(fd, "built"); }), 0);
}

TEST(stream_compressed, builder_that_fails_leaves_a_stream_without_its_trailer) {
    unique_fd out = memory_file();
    auto build = [](void* /*unused*/, int fd, int /*pid*/) {
        put(fd, noise(50000));
        return ENOMEM;
    };
    EXPECT_EQ(stream_compressed(out.get(), build, nullptr), ENOMEM);
    EXPECT_GT(content_of(out.get()).size(), 50000u) << "the built bytes are in the stream";
    EXPECT_EQ(gunzip(content_of(out.get())), std::nullopt);
}

TEST(stream_compressed, builder_that_is_killed_leaves_a_stream_without_its_trailer) {
    test_pipe client;
    pid_t builder_pid = fork_child([&client] {
        client.out.reset();
        compress_onto(client.in.get(), [](int fd, int) {
            put(fd, noise(50000));
            kill(getpid(), SIGKILL);
        });
        return 0;
    });
    EXPECT_TRUE(killed_by(wait_status(builder_pid), SIGKILL));
    std::string stream = client.finish();
    EXPECT_GT(stream.size(), 50000u);
    EXPECT_EQ(gunzip(stream), std::nullopt);
}

TEST(stream_compressed, returns_the_error_of_a_failing_output) {
    ignore_broken_pipes();
    auto error_of = [](int fd) {
        auto build = [](void* /*unused*/, int pipe_fd, int /*pid*/) {
            return error_of_endless_writing(pipe_fd);
        };
        return stream_compressed(fd, build, nullptr);
    };
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(error_of(full.get()), ENOSPC);
    test_pipe broken;
    broken.out.reset();
    EXPECT_EQ(error_of(broken.in.get()), EPIPE);
    EXPECT_EQ(compress_onto(full.get(), [](int, int) {}), ENOSPC) << "the builder has seen no error";
}

TEST(stream_compressed, returns_ECANCELED_if_the_compressor_is_killed) {
    unique_fd out = memory_file();
    EXPECT_EQ(compress_onto(out.get(), [](int, int pid) { kill(pid, SIGKILL); }), ECANCELED);
}

TEST(stream_compressed, built_bytes_can_be_decompressed_after_a_silence) {
    unique_fd out = memory_file();
    auto build = [&out](int fd, int) {
        std::string all;
        for (const std::string& bytes : {std::string("first"), noise(50000), std::string("last")}) {
            all += bytes;
            put(fd, bytes);
            EXPECT_TRUE(eventually([&] { return unpack(content_of(out.get())).bytes == all; }));
        }
    };
    EXPECT_EQ(compress_onto(out.get(), build, 1), 0);
    EXPECT_TRUE(gunzip(content_of(out.get())) == "first" + noise(50000) + "last");
}

TEST(stream_compressed, stream_is_not_flushed_unless_asked_for) {
    SKIP_WITHOUT_BLOCKED_CALLS();
    unique_fd out = memory_file();
    compress_onto(out.get(), [](int fd, int pid) {
        put(fd, "built");
        EXPECT_TRUE(eventually([pid] { return is_blocked_in(SYS_read, pid); }));
    });
    EXPECT_EQ(content_of(out.get()), unflushed_stream("built"));
}

TEST(stream_compressed, reports_missing_memory_and_writes_nothing) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    unique_fd out = memory_file();
    int error = 0;
    std::string messages = capture_stderr([&] {
        scoped_memory_limit limit(0);
        error = compress_onto(out.get(), [](int, int) {});
    });
    EXPECT_EQ(error, ENOMEM);
    EXPECT_EQ(messages, std::string("mmap: ") + strerror(ENOMEM) + "\n");
    EXPECT_EQ(content_of(out.get()), "");
}

TEST(stream_compressed, standard_output_can_be_the_destination) {
    std::string bytes = noise(70000);
    std::string seen =
        capture_stdout([&bytes] { compress_onto(STDOUT_FILENO, [&bytes](int fd, int) { put(fd, bytes); }); });
    EXPECT_TRUE(gunzip(seen) == bytes);
}

TEST(stream_compressed, buffered_text_is_written_once_before_the_stream) {
    std::string seen = capture_stdout([] {
        printf("said before");
        compress_onto(STDOUT_FILENO, [](int fd, int) { put(fd, "built"); });
    });
    ASSERT_EQ(seen.substr(0, 11), "said before");
    EXPECT_EQ(gunzip(seen.substr(11)), "built");
}

TEST(stream_compressed, buffered_text_is_not_written_to_another_destination) {
    unique_fd out = memory_file();
    std::string seen = capture_stdout([&out] {
        printf("said before");
        compress_onto(out.get(), [](int fd, int) { put(fd, "built"); });
    });
    EXPECT_EQ(seen, "said before");
    EXPECT_EQ(gunzip(content_of(out.get())), "built");
}

TEST(stream_compressed, signals_do_not_make_it_return_early) {
    int status = run_in_child([] {
        test_pipe slow;
        std::string arrived;
        sigset_t alarm_only;
        sigemptyset(&alarm_only);
        sigaddset(&alarm_only, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm_only, nullptr);
        std::atomic<bool> built{false};
        // More than the client's pipe holds: the compressor runs until the client reads.
        std::thread client([&] {
            eventually([&built] { return built.load(); });
            int seen = interruptions;
            eventually([seen] { return interruptions > seen + 3; });
            arrived = read_all(slow.out.get());
        });
        pthread_sigmask(SIG_UNBLOCK, &alarm_only, nullptr);
        interrupt_every_10_ms();
        int compressor = -1;
        compress_onto(slow.in.get(), [&](int fd, int pid) {
            compressor = pid;
            put(fd, noise(100000));
            built = true;
        });
        bool reaped = is_gone(compressor) && has_no_children();
        slow.in.reset();
        client.join();
        return reaped && interruptions > 3 && gunzip(arrived) == noise(100000) ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
}

TEST(stream_compressed, reports_a_missing_pipe_and_writes_nothing) {
    unique_fd out = memory_file();
    unique_fd err = memory_file();
    int status = run_in_child([&] {
        dup2(err.get(), STDERR_FILENO);
        rlimit none = {0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        bool built = false;
        int error = compress_onto(out.get(), [&built](int, int) { built = true; });
        return built || error != EMFILE ? 1 : 0;
    });
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(content_of(err.get()), std::string("pipes: ") + strerror(EMFILE) + "\n");
    EXPECT_EQ(content_of(out.get()), "");
}

TEST(stream_compressed, reports_a_failed_fork_and_writes_nothing) {
    SKIP_WITHOUT_ROOT();
    unique_fd out = memory_file();
    unique_fd err = memory_file();
    int status = run_in_child([&] {
        dup2(err.get(), STDERR_FILENO);
        rlimit none = {0, 0};
        constexpr uid_t nobody_in_particular = 54321;  // the limit does not apply to root
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setuid(nobody_in_particular) != 0) {
            return 2;
        }
        std::set<int> before = open_fds();
        bool built = false;
        int error = compress_onto(out.get(), [&built](int, int) { built = true; });
        return built || error != EAGAIN || open_fds() != before ? 1 : 0;
    });
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(content_of(err.get()), std::string("fork: ") + strerror(EAGAIN) + "\n");
    EXPECT_EQ(content_of(out.get()), "");
}

TEST(stream_tgz, is_a_tar_stream_inside_one_gzip_member) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    unique_fd out = memory_file();
    unique_fd messages = memory_file();
    int status = run_in_private_world([&] {
        ignore_broken_pipes();
        redirect_outputs(messages.get(), messages.get());
        std::set<int> before = open_fds();
        int error = stream_tgz(out.get());
        return error == 0 && has_no_children() && open_fds() == before ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    std::optional<std::string> stream = gunzip(content_of(out.get()));
    ASSERT_TRUE(stream);
    EXPECT_TRUE(content_of(out.get()) == unflushed_stream(*stream));
    tar_listing listing = tar_read(*stream);
    EXPECT_EQ(listing.trouble, "");
    ASSERT_GT(listing.entries.size(), 100u);
    std::string top = listing.entries[0].name.substr(0, listing.entries[0].name.find('/') + 1);
    EXPECT_NE(listing.find(top + "strace.log"), nullptr);
    EXPECT_NE(listing.find(top + "netdump.cap"), nullptr);
}

TEST(stream_tgz, full_archive_is_flushed_while_packets_are_captured) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    test_pipe client;
    pid_t pid = start_in_private_world([&client] {
        ignore_broken_pipes();
        redirect_outputs(memory_file().release(), memory_file().release());
        client.out.reset();
        return stream_tgz(client.in.get(), archive_form::full);
    });
    client.in.reset();
    std::string packed;
    // The capture's member ends with its first bytes so far.
    auto is_capturing = [&packed] {
        std::string bytes = unpack(packed).bytes;
        size_t at = bytes.find("/netdump.cap");
        return at != std::string::npos && bytes.size() - at < 2000;
    };
    for (std::string block(65536, '\0'); !is_capturing();) {
        ssize_t got = read(client.out.get(), block.data(), block.size());
        ASSERT_GT(got, 0);
        packed.append(block, 0, static_cast<size_t>(got));
    }
    packed += read_all(client.out.get());
    EXPECT_TRUE(exited_with(wait_status(pid), 0));
    std::optional<std::string> stream = gunzip(packed);
    ASSERT_TRUE(stream);
    EXPECT_FALSE(packed == unflushed_stream(*stream));
}

TEST(stream_tgz, compressor_is_not_among_the_dumped_processes) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    unique_fd out = memory_file();
    unique_fd messages = memory_file();
    int status = run_in_private_world([&] {
        ignore_broken_pipes();
        redirect_outputs(messages.get(), messages.get());
        stream_tgz(out.get());
        return 0;
    });
    EXPECT_EQ(status, 0);
    std::optional<std::string> stream = gunzip(content_of(out.get()));
    ASSERT_TRUE(stream);
    tar_listing listing = tar_read(*stream);
    ASSERT_FALSE(listing.entries.empty());
    // Dumps would come after the second snapshot; this world has no other process to dump.
    EXPECT_NE(listing.entries.back().name.find("/proc/"), std::string::npos) << listing.entries.back().name;
}

TEST(stream_tgz, ends_if_the_client_has_disconnected) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    unique_fd messages = memory_file();
    int status = run_in_private_world([&] {
        ignore_broken_pipes();
        redirect_outputs(messages.get(), messages.get());
        test_pipe client;
        client.out.reset();
        int error = stream_tgz(client.in.get());
        return error == EPIPE && has_no_children() ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
}

TEST(stream_tar, is_a_plain_tar_stream) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    unique_fd out = memory_file();
    unique_fd messages = memory_file();
    int status = run_in_private_world([&] {
        redirect_outputs(messages.get(), messages.get());
        int error = stream_tar(out.get());
        return error == 0 && has_no_children() ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    tar_listing listing = tar_read(content_of(out.get()));
    EXPECT_EQ(listing.trouble, "");
    EXPECT_GT(listing.entries.size(), 100u);
}
