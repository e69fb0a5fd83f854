#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

TEST(findings_archive, a_cut_archive_is_reported_with_its_last_member) {
    archive_facts facts = healthy_archive();
    facts.archive.state = archive_state::cut;
    facts.archive.cut_member = "d/strace.log";
    facts.archive.cut_member_bytes = 100;
    facts.archive.missing = {"cores"};
    EXPECT_EQ(verdict(facts, "archive-cut"), "0 warning");
    const finding cut = found(facts, "archive-cut");
    EXPECT_EQ(cut.proof[0].text, "it ends in d/strace.log after 100 bytes of this member");
    EXPECT_EQ(cut.proof[0].place, "member/d/strace.log");
    EXPECT_EQ(cut.proof[1].text, "missing: cores");
    EXPECT_EQ(verdict(facts, "archive-damaged"), "nothing");
}

TEST(findings_archive, a_damaged_archive_is_reported_with_the_reason) {
    archive_facts facts = healthy_archive();
    facts.archive.state = archive_state::damaged;
    facts.archive.reason = "a header is wrong";
    EXPECT_EQ(verdict(facts, "archive-damaged"), "0 warning");
    EXPECT_EQ(found(facts, "archive-damaged").proof[0].text, "a header is wrong");
    EXPECT_EQ(verdict(facts, "archive-cut"), "nothing");
}

TEST(findings_archive, a_process_without_a_core_is_noted) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->core = -1;
    EXPECT_EQ(verdict(facts, "core-missing"), "412 note");
}

TEST(findings_archive, a_core_that_is_not_whole_is_noted) {
    archive_facts facts = healthy_archive();
    facts.cores[0].is_whole = false;
    EXPECT_EQ(verdict(facts, "core-missing"), "412 note");
}

TEST(findings_archive, processes_that_have_no_core_by_design_miss_none) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->core = -1;
    process_facts* daemon = facts.processes.get(9);
    daemon->name = "debugar.cgi";
    daemon->parent = suspect;
    facts.processes.get(1)->in_second_look = true;
    facts.processes.get(77)->state = 'Z';
    process_facts* gone = facts.processes.get(78);
    gone->in_first_look = true;
    process_facts* late = facts.processes.get(79);
    late->in_second_look = true;
    EXPECT_EQ(verdict(facts, "core-missing"), "nothing");
}

TEST(findings_archive, a_cut_archive_misses_no_single_core) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->core = -1;
    facts.archive.state = archive_state::cut;
    EXPECT_EQ(verdict(facts, "core-missing"), "nothing");
}

}  // namespace
}  // namespace archiveview
