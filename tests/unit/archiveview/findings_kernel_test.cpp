#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

oops_record oops_of(int pid, const char* process) {
    oops_record record;
    record.number = 1;
    record.headline = "Unable to handle kernel paging request at virtual address 00000010";
    record.place = "venc_irq+0x54/0x190";
    record.process = process;
    record.pid = pid;
    return record;
}

TEST(findings_kernel_oops, a_record_on_the_flash_is_a_warning) {
    archive_facts facts = healthy_archive();
    facts.kernel.oops = {oops_of(300, "recorder")};
    EXPECT_EQ(verdict(facts, "kernel-oops"), "300 warning");
    EXPECT_EQ(found(facts, "kernel-oops").proof[0].text, "in venc_irq+0x54/0x190");
}

TEST(findings_kernel_oops, the_pid_of_an_earlier_boot_accuses_no_other_process) {
    archive_facts facts = healthy_archive();
    facts.kernel.oops = {oops_of(suspect, "recorder")};
    EXPECT_EQ(verdict(facts, "kernel-oops"), "0 warning");
    facts.kernel.oops = {oops_of(suspect, "encoderd")};
    EXPECT_EQ(verdict(facts, "kernel-oops"), "412 warning");
}

TEST(findings_kernel_oops, a_panic_comes_first) {
    archive_facts facts = healthy_archive();
    facts.kernel.oops = {oops_of(300, "a"), oops_of(301, "b")};
    facts.kernel.oops[0].is_panic = true;
    facts.kernel.oops[1].number = 2;
    EXPECT_EQ(verdict(facts, "kernel-oops"), "300 warning");
}

TEST(findings_kernel_oops, an_old_one_in_the_log_is_a_note) {
    archive_facts facts = healthy_archive();
    facts.kernel.log = {{1, 500, "BUG: unable to handle page fault for address: 0000"}};
    EXPECT_EQ(verdict(facts, "kernel-oops"), "0 note");
    facts.kernel.log[0].seconds = 1003;  // between the looks
    EXPECT_EQ(verdict(facts, "kernel-oops"), "0 warning");
}

TEST(findings_kernel_oops, an_empty_flash_and_a_usual_log_are_none) {
    archive_facts facts = healthy_archive();
    facts.kernel.oops_remark = "no records";
    facts.kernel.log = {{6, 500, "eth0: link up"}};
    EXPECT_EQ(verdict(facts, "kernel-oops"), "nothing");
}

TEST(findings_kernel_tainted, a_tainted_kernel_is_a_note) {
    archive_facts facts = healthy_archive();
    facts.kernel.tainted = 1;
    facts.kernel.taints = {"a proprietary module was loaded"};
    EXPECT_EQ(verdict(facts, "kernel-tainted"), "0 note");
    EXPECT_EQ(found(facts, "kernel-tainted").proof[0].text, "a proprietary module was loaded");
    facts.kernel.tainted = 0;
    EXPECT_EQ(verdict(facts, "kernel-tainted"), "nothing");
}

}  // namespace
}  // namespace archiveview
