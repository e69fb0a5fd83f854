#include "tools/archiveview/collect.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/unit/archiveview/made_archive.h"
#include "tools/archiveview/join.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;

constexpr const char* process_stat = " (httpd) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 100 4096000 500 0\n";

pairs members() {
    return {{"dbg-monitor.txt", "no process found\n"},
            {"system.txt", ""},
            {"processes.20260304-050608/4/stat", std::string("4") + process_stat},
            {"proc.20260304-050608/uptime", "1000.00 900.00\n"},
            {"proc.20260304-050608/modules", "first 1 0 - Live 0x0\n"},
            {"proc/sys/kernel/hostname", "camera7\n"},
            {"proc/sys/kernel/panic", "0\n"},
            {"strace.log", "4 read(3, \"\", 1) = 0\n"},
            {"netdump.cap", "not a capture"},
            {"oopslog", "no oops found\n"},
            {"proc.20260304-050608/uptime", "1007.50 905.00\n"},
            {"proc.20260304-050608/modules", "second 1 0 - Live 0x0\n"},
            {"proc/sys/kernel/panic", "5\n"},
            {"proc/sys/kernel/tainted", "1\n"},
            {"processes.20260304-050616/4/stat", std::string("4") + process_stat},
            {"httpd.4/core", "not a core"},
            {"httpd.4/fdmap", "total 0\n"}};
}

std::string manifest_of(const pairs& stored) {
    std::string text = "zarvo 0.1\nstarted 2026-03-04 05:06:07 +0100\n bytes seconds member\n";
    size_t bytes = 0;
    for (const auto& [name, data] : stored) {
        text += std::to_string(data.size()) + " 0.500000  " + name + "\n";
        bytes += data.size();
    }
    const std::string error = "error  kcore: Operation not permitted\n";  // of both looks
    return text + error + error +
           "ended 2026-03-04 05:06:21 +0100\nmembers: " + std::to_string(stored.size()) +
           ", bytes: " + std::to_string(bytes) + ", errors: 2\ncomplete\n";
}

std::string tar_of(const pairs& stored) {
    std::string bytes;
    for (const auto& [name, data] : stored) {
        bytes += made::member(name, data);
    }
    return bytes;
}

archive_facts collect(std::string_view bytes) {
    archive_source source(made::bytes_of(bytes));
    return collect_facts(&source);
}

archive_facts collect_full(pairs stored = members()) {
    stored.emplace_back("manifest.txt", manifest_of(stored));
    return collect(tar_of(stored));
}

}  // namespace

TEST(collect, judges_a_whole_archive) {
    const archive_facts facts = collect_full();
    EXPECT_EQ(facts.archive.state, archive_state::whole) << facts.archive.reason;
    EXPECT_TRUE(facts.archive.is_readable);
    EXPECT_TRUE(facts.archive.is_full);
    EXPECT_FALSE(facts.archive.is_compressed);
    EXPECT_EQ(facts.archive.directory, "debug-20260304-050607-c0");
    EXPECT_EQ(facts.archive.members, members().size() + 1);
    EXPECT_EQ(facts.archive.started, "2026-03-04 05:06:07");
    ASSERT_EQ(facts.archive.member_errors.size(), 1U);
    EXPECT_EQ(facts.archive.member_errors[0].name, "kcore");
}

TEST(collect, keeps_both_looks_at_a_file_of_one_name) {
    const archive_facts facts = collect_full();
    EXPECT_EQ(facts.looks[0].settings.at("sys/kernel/panic"), "0");
    EXPECT_EQ(facts.looks[1].settings.at("sys/kernel/panic"), "5");
    EXPECT_DOUBLE_EQ(facts.looks[0].uptime_seconds, 1000);
    EXPECT_DOUBLE_EQ(facts.looks[1].uptime_seconds, 1007.5);
    EXPECT_DOUBLE_EQ(facts.archive.span_seconds, 7.5);
    EXPECT_EQ(facts.looks[1].stamp, "20260304-050608");
    EXPECT_TRUE(
        std::ranges::any_of(facts.changes, [](const change& one) { return one.group == "settings"; }));
}

TEST(collect, gives_members_to_their_parsers) {
    const archive_facts facts = collect_full();
    EXPECT_EQ(facts.device.host, "camera7");
    EXPECT_EQ(facts.kernel.tainted, 1U);
    EXPECT_EQ(facts.kernel.modules, std::vector<std::string>{"second 1 0 - Live 0x0"});
    EXPECT_TRUE(facts.trace.is_present);
    ASSERT_EQ(facts.cores.size(), 1U);
    EXPECT_EQ(facts.cores[0].pid, 4);
    EXPECT_EQ(facts.cores[0].name, "httpd");
    EXPECT_EQ(facts.cores[0].member, "httpd.4/core");
    const process_facts* process = facts.processes.find(4);
    ASSERT_TRUE(process);
    EXPECT_EQ(process->name, "httpd");
    EXPECT_TRUE(process->in_first_look && process->in_second_look);
    EXPECT_EQ(process->core, 0);
}

TEST(collect, keeps_small_members_as_text) {
    const archive_facts facts = collect_full();
    ASSERT_FALSE(facts.archive.texts.empty());
    EXPECT_EQ(facts.archive.texts[0].name, "dbg-monitor.txt");
    EXPECT_EQ(facts.archive.texts[0].text, "no process found\n");
    EXPECT_EQ(std::ranges::count(facts.archive.texts, "proc/sys/kernel/panic", &named_text::name), 2);
}

TEST(collect, has_the_facts_of_what_is_there_at_every_cut) {
    pairs stored = members();
    stored.emplace_back("manifest.txt", manifest_of(stored));
    const std::string bytes = tar_of(stored);
    for (size_t cut = made::block_size; cut < bytes.size(); cut += 100) {
        const archive_facts facts = collect(std::string_view(bytes).substr(0, cut));
        EXPECT_EQ(facts.archive.state, archive_state::cut) << cut;
        EXPECT_TRUE(facts.archive.is_readable);
        EXPECT_FALSE(facts.archive.missing.empty());
        EXPECT_EQ(facts.looks[0].uptime_seconds > 0, cut >= 6 * made::block_size + 15) << cut;
    }
}

TEST(collect, is_not_whole_if_the_manifest_disagrees) {
    pairs stored = members();
    stored.emplace_back("manifest.txt", manifest_of(members()));
    stored[0].second += "x";
    archive_facts facts = collect(tar_of(stored));
    EXPECT_EQ(facts.archive.state, archive_state::damaged);
    EXPECT_EQ(facts.archive.reason, "dbg-monitor.txt does not have the size that its manifest says");
    stored.erase(stored.begin());
    facts = collect(tar_of(stored));
    EXPECT_EQ(facts.archive.state, archive_state::damaged);
    EXPECT_EQ(facts.archive.reason, "its manifest counts 17 members, but it has 16");
}

TEST(collect, is_not_whole_in_two_directories) {
    pairs stored = members();
    const std::string bytes = tar_of(stored) + made::header("other/manifest.txt", 0);
    EXPECT_EQ(collect(bytes).archive.state, archive_state::damaged);
}

TEST(collect, needs_the_trailer_of_the_compression_in_the_usual_form) {
    pairs usual;
    for (const auto& one : members()) {
        if (one.first != "system.txt" && !one.first.starts_with("processes")) {
            usual.push_back(one);
        }
    }
    EXPECT_EQ(collect(made::packed(tar_of(usual))).archive.state, archive_state::whole);
    const archive_facts facts = collect(tar_of(usual));
    EXPECT_EQ(facts.archive.state, archive_state::cut);
    EXPECT_TRUE(facts.archive.is_end_unknown);
}

TEST(collect, says_that_processes_or_lines_of_the_trace_were_left_out) {
    archive_facts facts;
    facts.trace.left_out = 3;
    for (int pid = 1; pid < static_cast<int>(process_limit); pid++) {
        facts.processes.get(pid);
    }
    join_facts(&facts, nullptr, {});
    ASSERT_EQ(facts.archive.not_examined.size(), 1u);
    EXPECT_EQ(facts.archive.not_examined[0].text, "3 lines of more processes");
    facts.archive.not_examined.clear();
    facts.processes.get(static_cast<int>(process_limit));
    join_facts(&facts, nullptr, {});
    ASSERT_EQ(facts.archive.not_examined.size(), 2u);
    EXPECT_EQ(facts.archive.not_examined[0].name, "processes");
}
