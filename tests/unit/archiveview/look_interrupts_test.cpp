#include <gtest/gtest.h>

#include "tests/unit/archiveview/looks.h"

using namespace archiveview;

namespace {

using shown = std::vector<std::string>;

// "NAME=COUNT DEVICE" of each interrupt.
shown interrupts_of(std::string_view text) {
    shown all;
    for (const named_counter& each : look_of({{"interrupts", text}}).interrupts) {
        all.push_back(each.name + '=' + std::to_string(each.count) + ' ' + each.device);
    }
    return all;
}

}  // namespace

TEST(archiveview_look_interrupts, of_x86_have_the_device_after_controller_and_trigger) {
    EXPECT_EQ(interrupts_of("           CPU0       CPU1       \n"
                            " 24:          1          2  IO-APIC   5-edge      ACPI:Ged\n"
                            " 31:          0       7202 PCI-MSIX-0000:00:01.0   3-edge      virtio0-stats\n"
                            " 16:         10         20   IO-APIC  16-fasteoi   ehci_hcd:usb1, some device\n"
                            "  1:          9          1    XT-PIC-XT-PIC    i8042\n"
                            "LOC:   34508588   34346722   Local timer interrupts\n"
                            "ERR:          5\n"),
              (shown{"24=3 ACPI:Ged", "31=7202 virtio0-stats", "16=30 ehci_hcd:usb1, some device",
                     "1=10 i8042", "LOC=68855310 Local timer interrupts", "ERR=5 "}));
}

TEST(archiveview_look_interrupts, of_mips_have_the_device_with_and_without_the_controllers_number) {
    EXPECT_EQ(interrupts_of("           CPU0       \n"
                            "  4:     881230      MIPS  eth0\n"
                            "  5:        112      MIPS   5  ehci_hcd:usb1\n"
                            "  7:    3151221      MIPS   7  timer\n"
                            " 11:        731      MISC  11  ttyS0\n"
                            " 23:         40  MIPS GIC  23 Level     10130000.mmc\n"
                            " 64:          0  MIPS GIC Local   1  watchdog\n"
                            " 70:          9      gpio   5 Edge      0-0041\n"
                            "ERR:          0\n"),
              (shown{"4=881230 eth0", "5=112 ehci_hcd:usb1", "7=3151221 timer", "11=731 ttyS0",
                     "23=40 10130000.mmc", "64=0 watchdog", "70=9 0-0041", "ERR=0 "}));
}

TEST(archiveview_look_interrupts, without_a_device_have_none) {
    EXPECT_EQ(interrupts_of("           CPU0       \n"
                            "  2:          1      MIPS\n"
                            "  5:          1      MIPS   5\n"
                            " 23:          1  MIPS GIC  23 Level     \n"
                            " 24:          1   IO-APIC   5-edge    \n"
                            " 25:          1    XT-PIC  -level   \n"
                            " 26:          1\n"
                            " 27:\n"),
              (shown{"2=1 ", "5=1 ", "23=1 ", "24=1 ", "25=1 ", "26=1 ", "27=0 "}));
}

TEST(archiveview_look_interrupts, of_many_processors_are_added_up) {
    std::string title = "     ";
    std::string counts = " 7:";
    for (int i = 0; i < 300; i++) {
        title += " CPU" + std::to_string(i);
        counts += " 10";
    }
    EXPECT_EQ(interrupts_of(title + "\n" + counts + "  MIPS   7  timer\n"), shown{"7=3000 timer"});
}

TEST(archiveview_look_interrupts, device_that_is_a_number_is_not_counted) {
    EXPECT_EQ(interrupts_of("  CPU0 CPU1\n 9: 1 2  8250  99\nERR: 4\n"), (shown{"9=3 ", "ERR=4 "}));
}

TEST(archiveview_look_interrupts, line_that_is_cut_is_not_used) {
    EXPECT_EQ(interrupts_of("  CPU0 CPU1\n 9: 1 2  MIPS  9  eth0\n 10: 5 123"), shown{"9=3 eth0"});
}

TEST(archiveview_look_interrupts, softirqs_have_names_and_sums) {
    const look l = look_of({{"softirqs",
                             "                    CPU0       CPU1       \n"
                             "          HI:          1          0\n"
                             "      NET_RX:   26831286   25599189\n"}});
    ASSERT_EQ(l.softirqs.size(), 2u);
    EXPECT_EQ(l.softirqs[1].name, "NET_RX");
    EXPECT_EQ(l.softirqs[1].count, 26831286u + 25599189);
    EXPECT_EQ(l.softirqs[1].device, "");
}
