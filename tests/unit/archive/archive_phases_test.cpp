// The time limit of an archive: when it is renewed.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "archive/debug_archive.h"
#include "archive/phase.h"
#include "common/safe_io.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"

namespace {

constexpr int no_pid = -1;

// Each call of alarm(2) writes a line to notes_fd, with the position of archive_fd. -1: it does not.
int notes_fd = -1;
int archive_fd = -1;

}  // namespace

// Replaces alarm(2) of the C library in this program: writes the line, then does the same.
extern "C" unsigned alarm(unsigned seconds) noexcept {
    if (notes_fd >= 0) {
        dprintf(notes_fd, "%ld %u\n", static_cast<long>(lseek(archive_fd, 0, SEEK_CUR)), seconds);
    }
    const itimerval next = {{0, 0}, {static_cast<time_t>(seconds), 0}};
    itimerval before = {};
    setitimer(ITIMER_REAL, &next, &before);
    const bool round_up =
        before.it_value.tv_usec >= 500000 || (before.it_value.tv_sec == 0 && before.it_value.tv_usec > 0);
    return static_cast<unsigned>(before.it_value.tv_sec) + (round_up ? 1 : 0);
}

namespace {

bool install_reports() {
    return install_script("/usr/sbin/gen_serverreport.sh", "echo report") &&
           install_script("/usr/sbin/oopslog", "echo oops") &&
           install_file("/var/run/dbg-cgi/dbg-monitor.txt", "status\n") &&
           install_file("/etc/ws/onvif/media/media.conf", "[media]\n");
}

// How often the limit was set at each position of the archive.
std::map<size_t, int> settings_in(const std::string& notes) {
    std::map<size_t, int> count;
    std::istringstream lines(notes);
    size_t position = 0;
    unsigned seconds = 0;
    while (lines >> position >> seconds) {
        count[position] += seconds == phase_seconds ? 1 : 0;
    }
    return count;
}

// How often the limit was set between a member's data and the next header, apart from progress: the last
// write of the member and its padding set it once each.
int further_settings(const std::map<size_t, int>& settings, const tar_entry& entry) {
    const size_t end = entry.header_at + 512 + entry.size;
    const size_t padded = (end + 511) / 512 * 512;
    int count = 0;
    for (auto at = settings.lower_bound(end); at != settings.end() && at->first <= padded; ++at) {
        count += at->second;
    }
    return count - (padded > end ? 2 : 1);
}

bool begins_a_phase(const std::string& name) {
    for (const char* member : {"/netdump.cap", "/serverreport.txt", "/oopslog"}) {
        if (name.ends_with(member)) {
            return true;
        }
    }
    return false;
}

}  // namespace

TEST(archive_phases, begin_with_the_archive_and_before_capture_report_and_oops_log) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    unique_fd archive = memory_file();
    unique_fd notes = memory_file();
    unique_fd messages = memory_file();
    int status = run_in_private_world([&] {
        redirect_outputs(messages.get(), messages.get());
        if (!install_reports()) {
            return 3;
        }
        notes_fd = notes.get();
        archive_fd = archive.get();
        return stream_debug_archive(archive.get(), no_pid);
    });
    ASSERT_EQ(status, 0) << content_of(messages.get());
    const std::map<size_t, int> settings = settings_in(content_of(notes.get()));
    tar_listing listing = tar_read(content_of(archive.get()));
    ASSERT_EQ(listing.trouble, "");
    ASSERT_GT(listing.entries.size(), 100u);
    EXPECT_EQ(settings.at(0), 1) << "at the beginning";
    for (size_t i = 0; i < listing.entries.size(); i++) {
        const bool is_last = i + 1 == listing.entries.size();
        const std::string next = is_last ? "the end" : listing.entries[i + 1].name;
        EXPECT_EQ(further_settings(settings, listing.entries[i]), begins_a_phase(next) ? 1 : 0)
            << "before " << next;
    }
}

namespace {

// Reads `wanted` bytes; false at the end of the stream.
bool read_more(int fd, size_t wanted) {
    std::string block(wanted, '\0');
    return safe_read(fd, block.data(), static_cast<unsigned>(wanted)) == static_cast<ssize_t>(wanted);
}

}  // namespace

// A slow client is served to the end if it reads this much within the limit.
TEST(archive_phases, every_40000_bytes_read_by_the_client_renew_the_limit) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    unique_fd messages = memory_file();
    int status = run_in_private_world([&] {
        redirect_outputs(messages.get(), messages.get());
        if (!install_script("/usr/sbin/gen_serverreport.sh", "head -c 300000 /dev/zero")) {
            return 3;
        }
        test_pipe client;
        fcntl(client.in.get(), F_SETPIPE_SZ, 4096);
        size_t not_renewed = 0;
        size_t at = 0;
        std::atomic<bool> has_ended = false;  // the last bytes in the pipe are read after the last renewal
        const auto renewed = [&] { return limit_left() > 290 || has_ended; };
        std::thread reader([&] {
            constexpr size_t step = 40000;
            for (bool goes_on = true; goes_on; at += step) {
                alarm(100);
                goes_on = read_more(client.out.get(), step);
                if (goes_on && not_renewed == 0 && !eventually(renewed)) {
                    not_renewed = at;
                    dprintf(STDERR_FILENO, "not renewed from byte %zu on\n", at);
                }
            }
        });
        const int error = stream_debug_archive(client.in.get(), no_pid);
        has_ended = true;
        client.in.reset();
        reader.join();
        alarm(0);
        return error == 0 && not_renewed == 0 && at > 1000000 ? 0 : 1;
    });
    EXPECT_EQ(status, 0) << content_of(messages.get());
}
