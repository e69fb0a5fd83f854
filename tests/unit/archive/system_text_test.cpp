#include "archive/system_text.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>

namespace {

template <typename Add>
std::string text_of(Add add) {
    heap_text text = {.limit = 100000};
    add(&text);
    EXPECT_EQ(text.error, 0);
    return std::string(text.view());
}

std::string fact(std::string_view value) {
    return text_of([value](heap_text* text) { system_text_add_fact(text, "name", value); });
}

std::string uptime(uint32_t seconds) {
    return text_of([seconds](heap_text* text) { system_text_add_uptime(text, seconds); });
}

std::string clock_text(int state, int status) {
    timex clock = {};
    clock.status = status;
    clock.esterror = 123;
    clock.maxerror = 16000000;
    return text_of([&](heap_text* text) { system_text_add_clock(text, state, clock); });
}

std::string time_text(const char* zone, time_t now) {
    const char* before = getenv("TZ");
    const std::string saved = before ? before : "";
    setenv("TZ", zone, 1);
    std::string text = text_of([now](heap_text* to) { system_text_add_time(to, now); });
    before ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    return text;
}

}  // namespace

TEST(system_text, fact_is_one_line) {
    EXPECT_EQ(fact("value"), "name: value\n");
    EXPECT_EQ(fact("value\n"), "name: value\n");
    EXPECT_EQ(fact(std::string_view("debugar.cgi\0-d\0", 15)), "name: debugar.cgi -d \n");
    EXPECT_EQ(fact("one\n[two]\n"), "name: one\n");
    EXPECT_EQ(fact("\033[2J"), "name:  [2J\n");
    EXPECT_EQ(fact(""), "name: \n");
}

TEST(system_text, fact_may_be_long) {
    const std::string value(4000, 'v');
    EXPECT_EQ(fact(value), "name: " + value + "\n");
}

TEST(system_text, fact_that_does_not_fit_is_dropped) {
    heap_text text = {.limit = 100};
    system_text_add_fact(&text, "name", std::string(100, 'v'));
    EXPECT_EQ(text.error, EFBIG);
}

TEST(system_text, of_a_kernel_has_all_names_whole) {
    utsname kernel = {};
    memset(kernel.nodename, 'h', sizeof kernel.nodename - 1);
    strcpy(kernel.sysname, "Linux");
    strcpy(kernel.release, "4.9.337");
    memset(kernel.version, 'v', sizeof kernel.version - 1);
    strcpy(kernel.machine, "mips");
    EXPECT_EQ(
        text_of([&](heap_text* text) { system_text_add_kernel(text, kernel); }),
        "host: " + std::string(64, 'h') + "\nkernel: Linux 4.9.337 " + std::string(64, 'v') + " mips\n");
}

TEST(system_text, host_name_cannot_begin_a_section) {
    utsname kernel = {};
    strcpy(kernel.nodename, "a\n[errors]");
    EXPECT_EQ(text_of([&](heap_text* text) { system_text_add_kernel(text, kernel); }).substr(0, 9),
              "host: a\nk");
}

TEST(system_text, of_the_uptime) {
    EXPECT_EQ(uptime(0), "uptime: 0 s (0 d 0 h 0 min)\n");
    EXPECT_EQ(uptime(59), "uptime: 59 s (0 d 0 h 0 min)\n");
    EXPECT_EQ(uptime(86400 + 2 * 3600 + 3 * 60 + 4), "uptime: 93784 s (1 d 2 h 3 min)\n");
    EXPECT_EQ(uptime(4294967295U), "uptime: 4294967295 s (49710 d 6 h 28 min)\n");
}

TEST(system_text, of_the_time) {
    EXPECT_EQ(time_text("XST-5:30", 1772597167),
              "local time: 2026-03-04 09:36:07 +0530 XST\nUTC: 2026-03-04 04:06:07\n");
    EXPECT_EQ(time_text("UTC0", 0), "local time: 1970-01-01 00:00:00 +0000 UTC\nUTC: 1970-01-01 00:00:00\n");
    EXPECT_EQ(time_text("UTC0", 4294967296).substr(0, 31), "local time: 2106-02-07 06:28:16");
}

TEST(system_text, of_the_clock) {
    EXPECT_EQ(clock_text(TIME_OK, STA_PLL),
              "clock: synchronised, estimated error 123 us, maximum error 16000000 us\n");
    const std::string not_so = "clock: not synchronised, estimated error 123 us, maximum error 16000000 us\n";
    EXPECT_EQ(clock_text(TIME_ERROR, 0), not_so);
    EXPECT_EQ(clock_text(TIME_OK, STA_UNSYNC), not_so);
}
