#include "tools/archiveview/order.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

using namespace archiveview;

namespace {

const std::vector<std::string> full = {"dbg-monitor.txt",
                                       "media.conf",
                                       "system.txt",
                                       "dmesg.txt",
                                       "processes.20260304-050608/4/stat",
                                       "processes.20260304-050608/5/stat",
                                       "proc.20260304-050608/stat",
                                       "proc.20260304-050608/uptime",
                                       "proc/net/dev",
                                       "proc/sys/kernel/panic",
                                       "strace.log",
                                       "netdump.cap",
                                       "serverreport.txt",
                                       "oopslog",
                                       "proc.20260304-050613/stat",
                                       "proc/net/dev",
                                       "processes.20260304-050614/4/stat",
                                       "processes.txt",
                                       "httpd.4/core",
                                       "httpd.4/fdmap",
                                       "sh.5/core",
                                       "manifest.txt"};

bool is_only_full(const std::string& name) {
    return name.starts_with("processes") || name == "system.txt" || name == "dmesg.txt" ||
           name == "manifest.txt";
}

std::vector<std::string> usual() {
    std::vector<std::string> names;
    std::copy_if(full.begin(), full.end(), std::back_inserter(names),
                 [](const std::string& name) { return !is_only_full(name); });
    return names;
}

member_order order_of(const std::vector<std::string>& names, std::vector<int>* looks = nullptr) {
    member_order order;
    for (const std::string& name : names) {
        const int look = order.add(place_of(name), name);
        if (looks) {
            looks->push_back(look);
        }
    }
    return order;
}

std::vector<std::string> first(const std::vector<std::string>& names, size_t count) {
    return {names.begin(), names.begin() + static_cast<std::ptrdiff_t>(count)};
}

std::vector<std::string> without(std::vector<std::string> names, const std::string& name) {
    std::erase(names, name);
    return names;
}

}  // namespace

TEST(member_order, knows_both_forms) {
    EXPECT_TRUE(order_of(full).is_full());
    EXPECT_TRUE(order_of(full).has_all());
    EXPECT_FALSE(order_of(usual()).is_full());
    EXPECT_TRUE(order_of(usual()).has_all());
}

TEST(member_order, tells_the_looks_apart) {
    std::vector<int> looks;
    order_of(full, &looks);
    EXPECT_EQ(looks[4], 0);
    EXPECT_EQ(looks[6], 0);
    EXPECT_EQ(looks[8], 0);
    EXPECT_EQ(looks[14], 1);
    EXPECT_EQ(looks[15], 1);
    EXPECT_EQ(looks[16], 1);
}

TEST(member_order, tells_looks_of_one_second_apart) {
    std::vector<std::string> names = full;
    names[14] = "proc.20260304-050608/stat";
    names[16] = "processes.20260304-050608/4/stat";
    std::vector<int> looks;
    const member_order order = order_of(names, &looks);
    EXPECT_TRUE(order.has_all());
    EXPECT_EQ(looks[6], 0);
    EXPECT_EQ(looks[14], 1);
    EXPECT_EQ(looks[15], 1);
    EXPECT_EQ(looks[16], 1);
}

TEST(member_order, tells_adjacent_looks_apart_by_their_stamps) {
    std::vector<int> looks;
    order_of({"proc.20260304-050608/stat", "proc.20260304-050613/stat", "proc/net/dev"}, &looks);
    EXPECT_EQ(looks, (std::vector<int>{0, 1, 1}));
}

TEST(member_order, needs_all_that_every_archive_has) {
    for (const char* name : {"strace.log", "netdump.cap", "proc.20260304-050613/stat", "manifest.txt",
                             "system.txt", "processes.20260304-050614/4/stat"}) {
        EXPECT_FALSE(order_of(without(full, name)).has_all()) << name;
    }
    for (const char* name :
         {"dbg-monitor.txt", "media.conf", "dmesg.txt", "oopslog", "serverreport.txt", "processes.txt"}) {
        EXPECT_TRUE(order_of(without(full, name)).has_all()) << name;
    }
}

TEST(member_order, has_no_place_for_a_member_out_of_order) {
    for (size_t i = 1; i < full.size(); i++) {
        std::vector<std::string> names = full;
        names.push_back(names[i]);
        const member_order order = order_of(names);
        EXPECT_TRUE(order.is_wrong());
        EXPECT_FALSE(order.has_all());
        EXPECT_EQ(order.wrong_member(), names[i]);
    }
    EXPECT_TRUE(order_of({"something"}).is_wrong());
    EXPECT_TRUE(order_of({""}).is_wrong());
}

TEST(member_order, names_what_a_cut_archive_lacks) {
    using names = std::vector<std::string>;
    EXPECT_EQ(order_of(first(full, 11)).missing(true, true),
              (names{"rest of the trace of system calls", "capture of packets", "report of the server",
                     "oops records", "second look at /proc", "second look at processes", "table of processes",
                     "cores of processes", "manifest"}));
    EXPECT_EQ(order_of(first(full, 20)).missing(true, false),
              (names{"rest of the cores of processes", "manifest"}));
    EXPECT_EQ(order_of(first(usual(), 3)).missing(true, false).front(), "rest of the first look at /proc");
    EXPECT_EQ(order_of(full).missing(true, true), (names{"rest of the manifest"}));
}

TEST(member_order, names_what_an_archive_lacks_that_is_not_cut) {
    EXPECT_EQ(order_of(without(usual(), "strace.log")).missing(false, false),
              (std::vector<std::string>{"trace of system calls"}));
    EXPECT_TRUE(order_of(usual()).missing(false, false).empty());
}
