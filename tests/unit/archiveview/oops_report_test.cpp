#include "tools/archiveview/facts/oops_report.h"

#include <gtest/gtest.h>

#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

oops_record report(std::string_view text) {
    oops_record record;
    oops_report_read(&record, text);
    return record;
}

constexpr std::string_view mips_3 =
    "<1>[  311.920044] CPU 0 Unable to handle kernel paging request at virtual address 00000010, epc == "
    "8019fe30, ra "
    "== 8019fdd0\n"
    "<4>[  311.920052] Oops[#1]:\n"
    "<4>[  311.920060] CPU: 0 PID: 412 Comm: encoderd Tainted: P           O    3.18.44 #1\n"
    "<4>[  311.920064] task: 87c5a000 ti: 87c90000 task.ti: 87c90000\n"
    "<4>[  311.920070] $ 0   : 00000000 00000001 00000000 00000000\n"
    "<4>[  311.920071] epc   : 8019fe30 do_sys_open+0x10c/0x210\n"
    "<4>[  311.920075] ra    : 8019fdd0 do_sys_open+0xac/0x210\n"
    "<4>[  311.920080] Process encoderd (pid: 412, threadinfo=87c90000, task=87c5a000, tls=77e4d490)\n"
    "<4>[  311.920088] Call Trace:\n"
    "<4>[  311.920102] [<8019fe30>] do_sys_open+0x10c/0x210\n"
    "<0>[  311.930000] Kernel panic - not syncing: Fatal exception\n";

constexpr std::string_view mips_6 =
    "<1>[   42.000001] CPU 1 Unable to handle kernel paging request at virtual address 00000000, epc == "
    "c0123450, ra == "
    "c0123400\n"
    "<4>[   42.000002] Oops[#1]:\n"
    "<4>[   42.000003] CPU: 1 UID: 0 PID: 77 Comm: my worker/1:2 Not tainted 6.12.1 #0\n"
    "<4>[   42.000004] epc   : c0123450 venc_irq+0x54/0x190 [venc]\n";

constexpr std::string_view x86 =
    "<1>[  5.0] BUG: kernel NULL pointer dereference, address: 0000000000000008\n"
    "<4>[  5.0] Oops: 0002 [#1] PREEMPT SMP\n"
    "<4>[  5.0] CPU: 3 PID: 1234 Comm: recorderd Tainted: G        W  O       5.10.0 #1\n"
    "<4>[  5.0] RIP: 0010:write_frame+0x1c/0x90 [rec]\n";

}  // namespace

TEST(archiveview_oops_report, of_mips_3_names_cause_place_and_process) {
    const oops_record record = report(mips_3);
    EXPECT_EQ(record.headline, "Unable to handle kernel paging request at virtual address 00000010");
    EXPECT_EQ(record.place, "do_sys_open+0x10c/0x210");
    EXPECT_EQ(record.process, "encoderd");
    EXPECT_EQ(record.pid, 412);
    EXPECT_TRUE(record.is_panic);
    EXPECT_FALSE(record.is_cut);
    ASSERT_EQ(record.lines.size(), 11u);
    EXPECT_EQ(record.lines[0].level, 1);
    EXPECT_DOUBLE_EQ(record.lines[0].seconds, 311.920044);
}

TEST(archiveview_oops_report, of_mips_6_may_have_a_name_with_a_space_and_a_module) {
    const oops_record record = report(mips_6);
    EXPECT_EQ(record.place, "venc_irq+0x54/0x190 [venc]");
    EXPECT_EQ(record.process, "my worker/1:2");
    EXPECT_EQ(record.pid, 77);
    EXPECT_FALSE(record.is_panic);
}

TEST(archiveview_oops_report, of_x86_and_arm_is_read_as_well) {
    const oops_record record = report(x86);
    EXPECT_EQ(record.headline, "BUG: kernel NULL pointer dereference, address: 0000000000000008");
    EXPECT_EQ(record.place, "write_frame+0x1c/0x90 [rec]");
    EXPECT_EQ(record.process, "recorderd");
    EXPECT_EQ(record.pid, 1234);
    const oops_record arm = report(
        "Unable to handle kernel NULL pointer dereference at virtual address 00000000\n"
        "Internal error: Oops: 817 [#1] ARM\nPC is at probe+0x10/0x20\npc : [<c0101234>]    lr : "
        "[<c0101200>]\n"
        "Process insmod (pid: 99, stack limit = 0xc0000000)\n");
    EXPECT_EQ(arm.headline, "Unable to handle kernel NULL pointer dereference at virtual address 00000000");
    EXPECT_EQ(arm.place, "probe+0x10/0x20");
    EXPECT_EQ(arm.process, "insmod");
    EXPECT_EQ(arm.pid, 99);
    const oops_record old = report("Pid: 412, comm: encoderd Not tainted 2.6.32\nEIP is at f+0x1/0x2\n");
    EXPECT_EQ(old.process, "encoderd");
    EXPECT_EQ(old.pid, 412);
    EXPECT_EQ(old.place, "f+0x1/0x2");
}

TEST(archiveview_oops_report, earlier_warning_does_not_name_the_cause) {
    const oops_record record = report(
        "WARNING: CPU: 0 PID: 5 at a.c:1 f+0x1/0x2\nCPU: 0 PID: 5 Comm: other Not tainted 5.0\nepc : 1 "
        "f+0x1/0x2\n" +
        std::string(mips_3));
    EXPECT_EQ(record.headline, "Unable to handle kernel paging request at virtual address 00000010");
    EXPECT_EQ(record.process, "encoderd");
    EXPECT_EQ(record.place, "do_sys_open+0x10c/0x210");
}

TEST(archiveview_oops_report, that_lacks_its_beginning_keeps_place_and_process) {
    const oops_record record = report(mips_3.substr(mips_3.find("20060]")));
    EXPECT_EQ(record.headline, "Kernel panic - not syncing: Fatal exception");
    EXPECT_EQ(record.process, "encoderd");
    EXPECT_EQ(record.place, "do_sys_open+0x10c/0x210");
}

TEST(archiveview_oops_report, without_a_cause_has_its_first_line_as_headline) {
    EXPECT_EQ(report("<6>[    1.000000] usb 1-1: new device\n<6>second\n").headline, "usb 1-1: new device");
    EXPECT_EQ(report("<7>DEBUG: Oopsie\n").headline, "DEBUG: Oopsie");
    EXPECT_EQ(report("").headline, "");
}

TEST(archiveview_oops_report, cut_anywhere_gives_no_wrong_place_or_process) {
    for (std::string_view whole : {mips_3, mips_6, x86}) {
        const oops_record all = report(whole);
        for (size_t length = 0; length < whole.size(); length++) {
            const oops_record record = report(whole.substr(0, length));
            EXPECT_TRUE(record.place.empty() || record.place == all.place) << length;
            EXPECT_TRUE(record.process.empty() || record.process == all.process) << length;
            EXPECT_TRUE(record.pid == 0 || record.pid == all.pid) << length;
            EXPECT_EQ(record.is_cut, length != 0 && whole[length - 1] != '\n') << length;
        }
    }
}

TEST(archiveview_oops_report, has_a_bound_of_lines) {
    std::string text;
    for (size_t i = 0; i < oops_line_limit * 2; i++) {
        text += "x\n";
    }
    EXPECT_EQ(report(text).lines.size(), oops_line_limit);
}
