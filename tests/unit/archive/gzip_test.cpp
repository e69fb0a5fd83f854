#include "archive/gzip.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include <string>

#include "common/safe_io.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/archive/gzip_stream.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/effort.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using namespace std::string_literals;

const std::string empty_stream = gzip_header + "\x03\0"s + std::string(8, '\0');

enum stdin_state { input_open = 10, input_closed = 11 };

// Runs the compressor between two descriptors in a child. Returns a stdin_state.
int compress_between(int in_fd, int out_fd) {
    int status = run_in_child([in_fd, out_fd] {
        ignore_broken_pipes();
        dup2(out_fd, STDOUT_FILENO);
        dup2(in_fd, STDIN_FILENO);
        stream_gzip();
        return fcntl(STDIN_FILENO, F_GETFD) < 0 ? input_closed : input_open;
    });
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string compressed(const std::string& bytes) {
    unique_fd in = memory_file_with(bytes);
    unique_fd out = memory_file();
    EXPECT_EQ(compress_between(in.get(), out.get()), input_open);
    return content_of(out.get());
}

std::string repeated(const std::string& text, size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
        bytes += text + std::to_string(bytes.size());
    }
    bytes.resize(size);
    return bytes;
}

// Compares header, deflate data and trailer, and decompresses them with zlib.
void expect_whole_stream(const std::string& bytes) {
    std::string packed = compressed(bytes);
    EXPECT_TRUE(packed == unflushed_stream(bytes)) << bytes.size();
    EXPECT_TRUE(gunzip(packed) == bytes) << bytes.size();
}

}  // namespace

TEST(stream_gzip, header_is_ten_fixed_bytes) {
    EXPECT_EQ(compressed("some text").substr(0, 10), gzip_header);
}

TEST(stream_gzip, trailer_is_checksum_and_length_in_little_endian) {
    std::string packed = compressed(std::string(300, 'q'));
    ASSERT_GT(packed.size(), 18u);
    EXPECT_EQ(packed.substr(packed.size() - 8),
              little_endian(crc_of(std::string(300, 'q'))) + "\x2c\x01\0\0"s);
}

TEST(stream_gzip, empty_input_gives_the_empty_stream) {
    EXPECT_EQ(compressed(""), empty_stream);
    EXPECT_EQ(gunzip(compressed("")), "");
}

TEST(stream_gzip, output_equals_that_of_zlib_around_the_buffer_size) {
    for (size_t size : {1, 2, 16383, 16384, 16385, 32767, 32768, 32769, 65536}) {
        expect_whole_stream(noise(size));
        expect_whole_stream(std::string(size, '\0'));
        expect_whole_stream(repeated("line of a log ", size));
    }
}

TEST(stream_gzip, output_equals_that_of_zlib_for_megabytes) {
    expect_whole_stream(noise(effort(5000001, 1000001)));
    expect_whole_stream(std::string(7340033, '\0'));
    expect_whole_stream(repeated("line of a log ", effort(3000000, 1000000)));
}

TEST(stream_gzip, input_in_small_pieces_gives_the_same_stream) {
    std::string bytes = noise(40000);
    test_pipe trickle;
    unique_fd out = memory_file();
    pid_t writer = fork_child([&trickle, &bytes] {
        trickle.out.reset();
        for (size_t at = 0; at < bytes.size(); at += 777) {
            std::string piece = bytes.substr(at, 777);
            if (safe_write(trickle.in.get(), piece.data(), static_cast<unsigned>(piece.size())) < 0) {
                return 1;
            }
        }
        return 0;
    });
    trickle.in.reset();
    EXPECT_EQ(compress_between(trickle.out.get(), out.get()), input_open);
    EXPECT_TRUE(exited_with(wait_status(writer), 0));
    EXPECT_TRUE(content_of(out.get()) == compressed(bytes));
}

TEST(stream_gzip, gzip_accepts_the_output) {
    if (system("command -v gzip >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "no gzip here";
    }
    temp_dir folder;
    for (const std::string& bytes : {""s, "x"s, noise(100000), std::string(1 << 20, '\0')}) {
        std::string file = folder.write_file("packed.gz", compressed(bytes));
        EXPECT_EQ(system(("gzip -t " + file).c_str()), 0) << bytes.size();
        unique_fd unpacked(open(folder.write_file("plain", "").c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(system(("gzip -dc " + file + " > " + folder.path("plain")).c_str()), 0);
        EXPECT_TRUE(read_all(unpacked.get()) == bytes);
    }
}

TEST(stream_gzip, length_counts_modulo_4_gib) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "four gigabytes take too long under a sanitizer";
#endif
    if (sizeof(long) < 8) {
        GTEST_SKIP() << "four gigabytes take too long on a small processor";
    }
    const off_t size = (off_t{1} << 32) + 5;
    unique_fd in = memory_file();
    ASSERT_EQ(ftruncate(in.get(), size), 0);
    unique_fd out = memory_file();
    ASSERT_EQ(compress_between(in.get(), out.get()), input_open);
    std::string packed = content_of(out.get());
    ASSERT_GT(packed.size(), 18u);
    std::string part(1 << 20, '\0');
    uLong crc = crc_of("");
    uLong part_crc = crc_of(part);
    for (off_t done = 0; done + static_cast<off_t>(part.size()) <= size;
         done += static_cast<off_t>(part.size())) {
        crc = crc32_combine(crc, part_crc, static_cast<z_off_t>(part.size()));
    }
    crc = crc32_combine(crc, crc_of(std::string(5, '\0')), 5);
    EXPECT_EQ(packed.substr(packed.size() - 8), little_endian(static_cast<uint32_t>(crc)) + "\x05\0\0\0"s);
}

TEST(stream_gzip, read_error_counts_as_end_of_file) {
    unique_fd directory(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    unique_fd out = memory_file();
    EXPECT_EQ(compress_between(directory.get(), out.get()), input_open);
    EXPECT_EQ(content_of(out.get()), empty_stream);
}

TEST(stream_gzip, closed_input_counts_as_end_of_file) {
    unique_fd out = memory_file();
    int status = run_in_child([&out] {
        dup2(out.get(), STDOUT_FILENO);
        close(STDIN_FILENO);
        stream_gzip();
        return 0;
    });
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(content_of(out.get()), empty_stream);
}

TEST(stream_gzip, incomplete_input_has_no_trailer) {
    std::string bytes = noise(100000);
    unique_fd in = memory_file_with(bytes);
    unique_fd out = memory_file();
    int status = run_in_child([&] {
        dup2(out.get(), STDOUT_FILENO);
        dup2(in.get(), STDIN_FILENO);
        return stream_gzip([](void* /*unused*/) { return false; }) == EIO ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_TRUE(content_of(out.get()) == gzip_header + raw_deflate(bytes));
    EXPECT_EQ(gunzip(content_of(out.get())), std::nullopt);
}

TEST(stream_gzip, trailer_is_missing_after_a_read_error_if_completeness_is_checked) {
    unique_fd directory(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    unique_fd out = memory_file();
    int status = run_in_child([&] {
        dup2(out.get(), STDOUT_FILENO);
        dup2(directory.get(), STDIN_FILENO);
        return stream_gzip([](void* /*unused*/) { return true; }) == EIO ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(content_of(out.get()), gzip_header + "\x03\0"s);
}

TEST(stream_gzip, stops_reading_endless_input_if_the_reader_has_gone) {
    unique_fd endless(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    test_pipe broken;
    broken.out.reset();
    EXPECT_EQ(compress_between(endless.get(), broken.in.get()), input_closed);
}

TEST(stream_gzip, stops_reading_endless_input_when_the_reader_closes) {
    unique_fd endless(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    test_socketpair pair;
    pid_t reader = fork_child([&pair] {
        pair.a.reset();
        char some[100000];
        return safe_read(pair.b.get(), some, sizeof some) == sizeof some ? 0 : 1;
    });
    pair.b.reset();
    EXPECT_EQ(compress_between(endless.get(), pair.a.get()), input_closed);
    EXPECT_TRUE(exited_with(wait_status(reader), 0));
}

TEST(stream_gzip, stops_at_other_write_errors) {
    unique_fd endless(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(compress_between(endless.get(), full.get()), input_closed);
}

TEST(stream_gzip, write_error_in_the_last_bytes_closes_the_input) {
    for (rlim_t room : {10, 11, 12, 15, 16, 19, 20}) {
        unique_fd in = memory_file();
        unique_fd out = memory_file();
        int status = run_in_child([&] {
            signal(SIGXFSZ, SIG_IGN);
            rlimit limit = {room, room};
            setrlimit(RLIMIT_FSIZE, &limit);
            return compress_between(in.get(), out.get());
        });
        EXPECT_TRUE(exited_with(status, room < empty_stream.size() ? input_closed : input_open)) << room;
        EXPECT_EQ(content_of(out.get()), empty_stream.substr(0, room));
    }
}

TEST(stream_gzip, prints_nothing_on_failure) {
    ignore_broken_pipes();
    unique_fd endless(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    test_pipe broken;
    broken.out.reset();
    EXPECT_EQ(capture_stderr([&] { compress_between(endless.get(), broken.in.get()); }), "");
}
