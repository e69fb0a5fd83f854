#include "tools/archiveview/source/member_place.h"

#include <gtest/gtest.h>

#include <string>

using namespace archiveview;

namespace {

// The parts of a place, in one text.
std::string place(std::string_view name) {
    const member_place found = place_of(name);
    return std::to_string(static_cast<int>(found.kind)) + " " + std::string(found.stamp) + " " +
           std::string(found.folder) + " " + std::to_string(found.pid) + " " + std::string(found.file);
}

std::string expected(member_kind kind, std::string_view stamp, std::string_view folder, int pid,
                     std::string_view file) {
    return std::to_string(static_cast<int>(kind)) + " " + std::string(stamp) + " " + std::string(folder) +
           " " + std::to_string(pid) + " " + std::string(file);
}

}  // namespace

TEST(member_place, knows_members_by_their_names) {
    EXPECT_EQ(place_of("dbg-monitor.txt").kind, member_kind::monitor);
    EXPECT_EQ(place_of("media.conf").kind, member_kind::media);
    EXPECT_EQ(place_of("system.txt").kind, member_kind::system);
    EXPECT_EQ(place_of("dmesg.txt").kind, member_kind::log);
    EXPECT_EQ(place_of("strace.log").kind, member_kind::trace);
    EXPECT_EQ(place_of("netdump.cap").kind, member_kind::capture);
    EXPECT_EQ(place_of("serverreport.txt").kind, member_kind::server_report);
    EXPECT_EQ(place_of("oopslog").kind, member_kind::oops);
    EXPECT_EQ(place_of("kcore").kind, member_kind::kernel_core);
    EXPECT_EQ(place_of("processes.txt").kind, member_kind::process_table);
    EXPECT_EQ(place_of("manifest.txt").kind, member_kind::manifest);
}

TEST(member_place, knows_files_of_looks) {
    EXPECT_EQ(place("processes.20261122-161132/4/task/5/stat"),
              expected(member_kind::process_file, "20261122-161132", "", 4, "task/5/stat"));
    EXPECT_EQ(place("proc.20261122-161132/stat"),
              expected(member_kind::proc_file, "20261122-161132", "", 0, "stat"));
    EXPECT_EQ(place("proc/net/dev"), expected(member_kind::folder_file, "", "", 0, "net/dev"));
    EXPECT_EQ(place("proc/sys/net/ipv4/ip_forward"),
              expected(member_kind::folder_file, "", "", 0, "sys/net/ipv4/ip_forward"));
}

TEST(member_place, knows_folders_of_processes) {
    EXPECT_EQ(place("httpd.412/core"), expected(member_kind::core, "", "httpd", 412, "core"));
    EXPECT_EQ(place("a.b.c.412/fdmap"), expected(member_kind::descriptor_map, "", "a.b.c", 412, "fdmap"));
    EXPECT_EQ(place(".2/core"), expected(member_kind::core, "", "", 2, "core"));
    EXPECT_EQ(place("unknown.9/core"), expected(member_kind::core, "", "unknown", 9, "core"));
}

TEST(member_place, takes_a_program_for_a_look_only_with_a_stamp) {
    EXPECT_EQ(place("proc.412/core"), expected(member_kind::core, "", "proc", 412, "core"));
    EXPECT_EQ(place("processes.412/fdmap"),
              expected(member_kind::descriptor_map, "", "processes", 412, "fdmap"));
}

TEST(member_place, does_not_know_other_names) {
    for (const char* name :
         {"", "/", "core", "httpd/core", "httpd./core", "httpd.x/core", "httpd.-4/core", "httpd.0/core",
          "httpd.99999999999/core", "httpd.412/maps", "httpd.412/core/x", "a/httpd.412/core",
          "processes.20261122-161132/stat", "processes.20261122-161132/x/stat",
          "processes.20261122-161132/4/", "processes.20261122/4/stat", "proc.20261122-161132/a/b",
          "proc.20261122x161132/stat", "kcore/x"}) {
        EXPECT_EQ(place_of(name).kind, member_kind::unknown) << name;
    }
}
