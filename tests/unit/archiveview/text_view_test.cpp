#include "tools/archiveview/views/text_view.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/views/text_lines.h"

using namespace archiveview;

namespace {

archive_facts whole_archive() {
    archive_facts facts;
    facts.archive.state = archive_state::whole;
    facts.archive.is_readable = true;
    facts.archive.is_full = true;
    facts.archive.members = 1321;
    facts.archive.bytes = 62738502;
    facts.archive.started = "2026-11-22 16:08:41";
    facts.archive.span_seconds = 7.26;
    facts.device.host = "camera7";
    facts.device.kernel = "Linux 4.4.0 #1 SMP";
    facts.device.machine = "mips";
    facts.device.uptime_seconds = 90061;
    return facts;
}

finding leak(int number) {
    finding one;
    one.id = "descriptor-leak";
    one.level = severity::critical;
    one.pid = number;
    one.name = "httpd";
    one.text = "It has 412 descriptors.";
    one.proof = {{"380 of them are sockets", "process/412"}, {"another", ""}};
    one.next = "Look at its sockets.";
    return one;
}

std::vector<std::string> lines_of(const archive_facts& facts, const std::vector<finding>& findings) {
    const std::string text = text_view(facts, findings);
    std::string_view rest = text;
    std::vector<std::string> lines;
    while (!rest.empty()) {
        lines.emplace_back(take_line(&rest));
    }
    return lines;
}

std::string lines_added(std::string_view text, size_t limit) {
    text_lines lines;
    lines.add(text, "- ", "  ", limit);
    return lines.text();
}

}  // namespace

TEST(text_view, begins_with_the_verdict_and_the_device) {
    const std::vector<std::string> lines = lines_of(whole_archive(), {});
    EXPECT_EQ(lines.at(0), "whole: 1321 members, 62.7 MB, full form");
    EXPECT_EQ(lines.at(1),
              "camera7, Linux 4.4.0, mips, up 1 d 1 h, 2026-11-22 16:08:41, 7.3 s between the looks");
    EXPECT_EQ(lines.at(3), "no findings: nothing that was read looks wrong");
}

TEST(text_view, says_where_an_archive_is_cut_and_what_is_missing) {
    archive_facts facts = whole_archive();
    facts.archive.state = archive_state::cut;
    facts.archive.reason = "its compressed data ends early";
    facts.archive.cut_member = "oopslog";
    facts.archive.cut_member_bytes = 1;
    facts.archive.missing = {"rest of the oops records", "manifest"};
    const std::vector<std::string> lines = lines_of(facts, {});
    EXPECT_EQ(
        lines.at(0),
        "cut in oopslog after 1 byte: its compressed data ends early (1321 members, 62.7 MB were read)");
    EXPECT_EQ(lines.at(1), "missing: rest of the oops records, manifest");
}

TEST(text_view, says_why_an_archive_is_damaged) {
    archive_facts facts = whole_archive();
    facts.archive.state = archive_state::damaged;
    facts.archive.reason = "something is wrong";
    EXPECT_EQ(lines_of(facts, {}).at(0), "damaged: something is wrong (1321 members, 62.7 MB were read)");
}

TEST(text_view, shows_findings_with_evidence_and_what_to_look_at_next) {
    const std::vector<std::string> lines = lines_of(whole_archive(), {leak(412)});
    EXPECT_EQ(lines.at(3), "critical descriptor-leak, httpd (pid 412): It has 412 descriptors.");
    EXPECT_EQ(lines.at(4), "    - 380 of them are sockets");
    EXPECT_EQ(lines.at(5), "    > Look at its sockets.");
    EXPECT_EQ(lines.size(), 6U);
}

TEST(text_view, names_a_process_once) {
    finding one = leak(412);
    one.text = "httpd (412) leaks sockets.";
    const std::vector<std::string> lines = lines_of(whole_archive(), {one});
    EXPECT_EQ(std::ranges::count(lines, "critical descriptor-leak: httpd (412) leaks sockets."), 1);
}

TEST(text_view, shows_seven_findings_and_counts_the_others) {
    std::vector<finding> findings;
    for (int i = 1; i <= 9; i++) {
        findings.push_back(leak(i));
    }
    const std::vector<std::string> lines = lines_of(whole_archive(), findings);
    EXPECT_EQ(
        std::ranges::count_if(lines, [](const std::string& line) { return line.starts_with("critical"); }),
        7);
    EXPECT_EQ(lines.back(), "2 more findings; --html and --json show all");
}

TEST(text_view, has_at_most_forty_lines_of_a_hundred_characters) {
    archive_facts facts = whole_archive();
    const std::string word(60, 'x');
    std::string text = word;
    for (int i = 0; i < 100; i++) {
        text += " " + word;
    }
    facts.archive.state = archive_state::cut;
    facts.archive.cut_member = facts.archive.reason = facts.device.host = text;
    facts.archive.missing = std::vector<std::string>(30, text);
    facts.archive.member_errors = facts.archive.not_examined = std::vector<named_text>(200, {text, text});
    finding large = leak(1);
    large.name = large.text = large.next = large.proof[0].text = text;
    const std::vector<std::string> lines = lines_of(facts, std::vector<finding>(50, large));
    EXPECT_EQ(lines.size(), 40U);
    for (const std::string& line : lines) {
        EXPECT_LE(line.size(), text_lines::width);
    }
}

TEST(text_view, has_room_for_long_advice_if_there_are_few_findings) {
    const archive_facts facts = whole_archive();
    finding one = leak(7);
    for (int i = 0; i < 12; i++) {
        one.next += " Look again.";
    }
    one.next += " Then ask.";
    const auto has_all_advice = [&](size_t count) {
        const std::string text = text_view(facts, std::vector<finding>(count, one));
        return text.find("Then ask.") != std::string::npos;
    };
    EXPECT_TRUE(has_all_advice(5));
    EXPECT_FALSE(has_all_advice(6));
}

TEST(text_view, names_what_was_not_looked_at) {
    archive_facts facts = whole_archive();
    facts.archive.member_errors = {{"kcore", "Permission denied"}};
    facts.archive.not_examined = {{"kallsyms", "too large to show"}, {"kpagecount", "not text"}};
    const std::vector<std::string> lines = lines_of(facts, {});
    EXPECT_EQ(lines.at(5), "not stored by the device (1): kcore (Permission denied)");
    EXPECT_EQ(lines.at(6), "not looked at (2): kallsyms (too large to show), kpagecount (not text)");
}

TEST(text_view, shows_no_control_characters) {
    archive_facts facts = whole_archive();
    const std::string hostile = "\x1b[2J\r\u009b1m\n\x07";
    facts.archive.state = archive_state::damaged;
    facts.archive.reason = facts.archive.cut_member = facts.device.host = facts.device.kernel = hostile;
    facts.archive.started = facts.device.machine = hostile;
    facts.archive.missing = {hostile};
    facts.archive.member_errors = facts.archive.not_examined = {{hostile, hostile}};
    finding one = leak(1);
    one.id = one.name = one.text = one.next = one.proof[0].text = hostile;
    const std::string text = text_view(facts, {one});
    EXPECT_TRUE(std::ranges::all_of(text, [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }))
        << text;
}

TEST(text_lines, break_between_words) {
    const std::string text = std::string(90, 'a') + " " + std::string(20, 'b');
    EXPECT_EQ(lines_added(text, 2), "- " + std::string(90, 'a') + "\n  " + std::string(20, 'b') + "\n");
    EXPECT_EQ(lines_added(std::string(98, 'a'), 1), "- " + std::string(98, 'a') + "\n");
}

TEST(text_lines, end_with_dots_if_the_text_does_not_fit) {
    EXPECT_EQ(lines_added(std::string(99, 'a'), 1), "- " + std::string(95, 'a') + "...\n");
    EXPECT_EQ(lines_added(std::string(197, 'a'), 2),
              "- " + std::string(98, 'a') + "\n  " + std::string(95, 'a') + "...\n");
}

TEST(text_lines, count_characters_and_not_bytes) {
    std::string text;
    for (int i = 0; i < 98; i++) {
        text += "\u20ac";
    }
    EXPECT_EQ(lines_added(text, 1), "- " + text + "\n");
    EXPECT_EQ(lines_added(text + "\u20ac", 1), "- " + text.substr(0, 95 * 3) + "...\n");
}

TEST(text_lines, of_nothing_are_none) {
    EXPECT_EQ(lines_added("", 3), "");
}

TEST(text_lines, show_sizes_for_people) {
    EXPECT_EQ(size_text(0), "0 bytes");
    EXPECT_EQ(size_text(1), "1 byte");
    EXPECT_EQ(size_text(999), "999 bytes");
    EXPECT_EQ(size_text(1000), "1.0 kB");
    EXPECT_EQ(size_text(999949), "999.9 kB");
    EXPECT_EQ(size_text(999951), "1.0 MB");
    EXPECT_EQ(size_text(UINT64_MAX), "18.4 EB");
}

TEST(text_lines, show_durations_for_people) {
    EXPECT_EQ(duration_text(0), "0 s");
    EXPECT_EQ(duration_text(59.6), "1 min");
    EXPECT_EQ(duration_text(125), "2 min 5 s");
    EXPECT_EQ(duration_text(86400 * 3 + 3600 * 4 + 125), "3 d 4 h");
    EXPECT_EQ(duration_text(-1), "0 s");
}
