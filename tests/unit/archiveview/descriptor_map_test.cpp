#include <gtest/gtest.h>

#include "tests/unit/archiveview/process_texts.h"

using namespace archiveview;

namespace {

constexpr int pid = 5;

process_facts process_with(std::string_view text, std::string_view folder = "camera.5") {
    process_list list;
    processes_add_descriptor_map(&list, pid, folder, text);
    processes_finish(&list, 5);
    return process_of(list, pid);
}

std::vector<std::string> targets(const process_facts& process) {
    std::vector<std::string> found;
    for (const descriptor& d : process.descriptors) {
        found.push_back(std::to_string(d.number) + " " + d.target);
    }
    return found;
}

using strings = std::vector<std::string>;

}  // namespace

TEST(archiveview_descriptor_map, reads_the_listing_of_gnu) {
    const process_facts process = process_with(
        "total 0\n"
        "lr-x------ 1 root root 64 Nov 22 16:11 0 -> /dev/null\n"
        "l-wx------ 1 root root 64 Nov 22  2025 251 -> pipe:[22679953]\n"
        "lrwx------ 1 www-data users 64 Nov 22 16:11 3 -> socket:[22680229]\n"
        "lrwx------ 1 root root 64 Nov 22 16:11 4 -> anon_inode:[eventfd]\n"
        "lrwx------ 1 root root 64 Nov 22 16:11 5 -> '/tmp/a b -> c (deleted)'\n");
    EXPECT_EQ(targets(process), (strings{"0 /dev/null", "251 pipe:[22679953]", "3 socket:[22680229]",
                                         "4 anon_inode:[eventfd]", "5 /tmp/a b -> c (deleted)"}));
    EXPECT_EQ(process.descriptors[2].inode, 22680229u);
    EXPECT_EQ(process.counts.total, 5u);
    EXPECT_EQ(process.counts.file, 2u);
    EXPECT_EQ(process.counts.socket, 1u);
    EXPECT_EQ(process.counts.pipe, 1u);
    EXPECT_EQ(process.counts.other, 1u);
    EXPECT_EQ(process.name, "camera");
}

TEST(archiveview_descriptor_map, reads_the_listing_of_busybox) {
    const process_facts process = process_with(
        "total 0\n"
        "lrwx------    1 root     root            64 Nov 22 16:11 0 -> /dev/console\n"
        "lrwx------    1 0        0               64 Jan  1  1970 19 -> socket:[812]\n");
    EXPECT_EQ(targets(process), (strings{"0 /dev/console", "19 socket:[812]"}));
}

TEST(archiveview_descriptor_map, errors_of_ls_are_no_descriptors) {
    const process_facts process = process_with(
        "/bin/ls: cannot read symbolic link '/proc/5/fd/3': No such file or directory\n"
        "ls: /proc/5/fd/9 -> x: No such file or directory\n"
        "total 0\n"
        "lr-x------ 1 root root 64 Nov 22 16:11 3\n"
        "l????????? ? ?    ?     ?            ? 4\n"
        "lr-x------ 1 root root 64 Nov 22 16:11 name -> /a\n"
        "lr-x------ 1 root root 64 Nov 22 16:11 '2' -> '/a'\n");
    EXPECT_EQ(targets(process), strings{"2 /a"});
}

TEST(archiveview_descriptor_map, a_folder_of_a_program_with_dots_has_the_whole_name) {
    EXPECT_EQ(process_with("", "python3.11.5").name, "python3.11");
    EXPECT_EQ(process_with("", "camera.6").name, "camera.6");
    EXPECT_EQ(process_with("", ".5").name, "");
}

TEST(archiveview_descriptor_map, the_second_look_is_preferred_unless_it_is_cut) {
    const std::string map =
        "lr-x------ 1 root root 64 Nov 22 16:11 0 -> /map\nlr-x------ 1 root root 64 Nov 22 16:11 1 -> "
        "/map\n";
    const auto joined = [&](int look, const std::string& links) {
        process_list list;
        processes_add_look_file(&list, look, pid, "links", links);
        processes_add_descriptor_map(&list, pid, "camera.5", map);
        processes_finish(&list, 5);
        return targets(process_of(list, pid));
    };
    EXPECT_EQ(joined(1, "fd/0 -> /look\n"), strings{"0 /look"});
    EXPECT_EQ(joined(0, "fd/0 -> /look\n"), (strings{"0 /map", "1 /map"}));
    EXPECT_EQ(joined(1, "fd/0 -> /look\n(the list is cut here)\n"), (strings{"0 /map", "1 /map"}));
}

TEST(archiveview_descriptor_map, an_empty_map_does_not_hide_the_first_look) {
    process_list list;
    processes_add_look_file(&list, 0, pid, "links", "fd/0 -> /look\n");
    processes_add_descriptor_map(&list, pid, "camera.5", "/bin/ls: cannot access '/proc/5/fd'\n");
    processes_finish(&list, 5);
    EXPECT_EQ(targets(process_of(list, pid)), strings{"0 /look"});
}
