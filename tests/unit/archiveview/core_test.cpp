#include "tools/archiveview/facts/core.h"

#include <gtest/gtest.h>

#include "tests/unit/archiveview/core_bytes.h"

namespace archiveview {
namespace {

using namespace core_test;

test_core library_core() {
    test_core core(EM_X86_64);
    core.files = {{0x400000, 0x401000, 0, "/usr/bin/shown"},
                  {0x401000, 0x402000, 1, "/usr/bin/shown"},
                  {0x7f0000, 0x7f1000, 0, "/lib/libc.so.6"},
                  {0x7f2000, 0x7f4000, 2, "/lib/libc.so.6"}};
    core.auxiliary = {{AT_ENTRY, 0x401010}, {AT_SYSINFO_EHDR, 0x900000}};
    return core;
}

core_facts with_pc(uint64_t pc) {
    test_core core = library_core();
    core.threads = {{.tid = 7, .registers = {{core.machine.pc, pc}, {core.machine.sp, 0x1234}}}};
    return read_core(core);
}

TEST(core, names_the_process) {
    const core_facts facts = with_pc(0x7f2010);
    EXPECT_EQ(facts.machine, "x86-64");
    EXPECT_EQ(facts.name, "shown");
    EXPECT_EQ(facts.pid, 7);
    EXPECT_EQ(facts.program, "/usr/bin/shown");
    EXPECT_EQ(facts.command, "shown -x");
    EXPECT_EQ(facts.state, 'S');
    EXPECT_TRUE(facts.is_whole);
    EXPECT_EQ(facts.damage, "");
    EXPECT_EQ(facts.signal, 0);
}

TEST(core, joins_mappings_that_continue_one_another) {
    const core_facts facts = with_pc(0);
    ASSERT_EQ(facts.files.size(), 3u);
    EXPECT_EQ(facts.files[0].end, 0x402000u);
    EXPECT_EQ(facts.files[2].offset, 2 * page);
}

TEST(core, place_counts_from_the_first_mapping_of_a_file) {
    EXPECT_EQ(with_pc(0x7f2010).threads[0].place, "libc.so.6+0x2010");
    EXPECT_EQ(with_pc(0x401abc).threads[0].place, "shown+0x1abc");
    EXPECT_EQ(with_pc(0x7f1000).threads[0].place, "0x7f1000");
    EXPECT_EQ(with_pc(0x900123).threads[0].place, "[vdso]+0x123");
}

TEST(core, thread_outside_of_calls_runs) {
    const core_facts facts = with_pc(0x401abc);
    EXPECT_EQ(facts.threads[0].state, 'R');
    EXPECT_EQ(facts.threads[0].waits_in, "");
    EXPECT_EQ(facts.threads[0].sp, 0x1234u);
}

TEST(core, thread_in_an_interrupted_call_waits) {
    test_core core(EM_X86_64);
    core.threads = {in_call(7, 7), in_call(8, 23), in_call(9, 1000)};
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads[0].waits_in, "poll");
    EXPECT_EQ(facts.threads[0].call, 7);
    EXPECT_EQ(facts.threads[0].state, 'S');
    EXPECT_EQ(facts.threads[1].waits_in, "select");
    EXPECT_EQ(facts.threads[2].waits_in, "a system call");
}

TEST(core, thread_whose_call_has_returned_runs) {
    test_core core(EM_X86_64);
    core.threads = {in_call(7, 0)};
    core.threads[0].registers[x86_rax] = 12;
    EXPECT_EQ(read_core(core).threads[0].state, 'R');
}

TEST(core, restarted_calls_are_told_by_their_arguments) {
    test_core core(EM_X86_64);
    core.memory[0x5000] = std::string(page, '\0');
    core.threads = {in_call(7, 219, 0, 0, 0x7ffc0000), in_call(8, 219, 0x7ffc0000, 3, 1000),
                    in_call(9, 219, 0x7ffc0000, 0x7ffc1000, 0),
                    in_call(10, 219, 0x5000, 0x89, 0, 0x7ffc0000)};
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads[0].waits_in, "clock_nanosleep");
    EXPECT_EQ(facts.threads[1].waits_in, "poll");
    EXPECT_EQ(facts.threads[2].waits_in, "nanosleep");
    EXPECT_EQ(facts.threads[3].waits_in, "futex");
    EXPECT_EQ(facts.threads[3].futex, 0x5000u);
}

TEST(core, thread_that_did_not_stop_is_in_the_kernel) {
    test_core core(EM_X86_64);
    core.threads = {{.tid = 7, .registers = {{core.machine.pc, 0x401abc}}, .has_floats = false}};
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads[0].state, 'D');
    EXPECT_EQ(facts.threads[0].waits_in, "the kernel");
}

TEST(core, threads_of_a_stopped_process_are_stopped) {
    test_core core(EM_X86_64);
    core.state = 'T';
    core.threads = {in_call(7, 7)};
    EXPECT_EQ(read_core(core).threads[0].state, 'T');
}

TEST(core, number_of_a_mips_call_is_read_from_its_code) {
    test_core core(EM_MIPS);
    core.memory[0x400000] = std::string("\x2e\x10\x02\x24\x0c\0\0\0", 8);  // li v0, 4142; syscall
    core.threads = {in_mips_call(7, 1, 2, 3), in_mips_call(8, 1, 2, 3)};
    core.threads[0].registers[core.machine.pc] = 0x400008;
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.machine, "MIPS");
    EXPECT_EQ(facts.threads[0].call, 4142);
    EXPECT_EQ(facts.threads[0].waits_in, "_newselect");
    EXPECT_EQ(facts.threads[1].waits_in, "a system call");
    EXPECT_EQ(facts.threads[1].call, -1);
}

TEST(core, signal_has_the_name_of_its_machine) {
    for (const auto& [machine, number] : {std::pair(EM_X86_64, 7), std::pair(EM_MIPS, 10)}) {
        test_core core(static_cast<unsigned>(machine));
        core.threads = {{.tid = 7, .registers = {}, .signal = number},
                        {.tid = 8, .registers = {}, .signal = number}};
        std::string info(128, '\0');
        put(&info, 0, number);
        put(&info, core.machine.fault_address, 0x10203040u);
        core.more_notes = test_core::note(NT_SIGINFO, info);
        const core_facts facts = read_core(core);
        EXPECT_EQ(facts.signal, number);
        EXPECT_EQ(facts.signal_name, "SIGBUS");
        EXPECT_EQ(facts.fault_address, 0x10203040u);
        EXPECT_EQ(facts.threads[0].signal, number);
        EXPECT_EQ(facts.threads[1].signal, 0);
    }
}

TEST(core, build_id_is_read_from_the_first_page) {
    test_core core = library_core();
    auto header = header_of<Elf64_Ehdr, Elf64_Phdr>(ELFCLASS64, 1);
    header.e_type = ET_DYN;
    Elf64_Phdr notes = {};
    notes.p_type = PT_NOTE;
    notes.p_offset = sizeof header + sizeof notes;
    notes.p_filesz = notes.p_memsz = 12 + 4 + 4;
    notes.p_align = 4;
    std::string first(page, '\0');
    memcpy(first.data(), &header, sizeof header);
    memcpy(first.data() + sizeof header, &notes, sizeof notes);
    const std::string note("\4\0\0\0\4\0\0\0\3\0\0\0GNU\0\xab\xcd\xef\x01", 20);
    memcpy(first.data() + notes.p_offset, note.data(), note.size());
    core.memory[0x7f0000] = first;
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.files[1].build_id, "abcdef01");
    EXPECT_EQ(facts.files[2].build_id, "abcdef01");
    EXPECT_EQ(facts.files[0].build_id, "");
}

TEST(core, pieces_of_any_size_give_the_same_facts) {
    test_core core = library_core();
    core.memory[0x5000] = std::string("\2\0\0\0\0\0\0\0\x08\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0", 24);
    core.threads = {in_call(7, 202, 0x5000, 0x80, 2), in_call(8, 0)};
    const std::string bytes = core.bytes();
    for (const size_t step : {size_t{1}, size_t{7}, size_t{64}, bytes.size()}) {
        const core_facts facts = read_pieces(bytes, step, bytes.size());
        EXPECT_TRUE(facts.is_whole);
        ASSERT_EQ(facts.threads.size(), 2u);
        EXPECT_EQ(facts.threads[0].owner, 8);
        EXPECT_EQ(facts.files.size(), 3u);
    }
}

TEST(core, cut_core_keeps_what_is_there) {
    test_core core = library_core();
    core.threads = {in_call(7, 7), in_call(8, 0)};
    core.memory[0x5000] = std::string(page, 'x');
    const std::string bytes = core.bytes();
    size_t threads = 0;
    for (size_t length = 0; length < bytes.size(); length += 13) {
        const core_facts facts = read_pieces(bytes.substr(0, length), 500, bytes.size());
        EXPECT_FALSE(facts.is_whole);
        EXPECT_NE(facts.damage, "");
        EXPECT_GE(facts.threads.size(), threads);
        threads = facts.threads.size();
    }
    EXPECT_EQ(threads, 2u);
}

TEST(core, core_without_its_last_bytes_says_how_many_are_there) {
    test_core core = library_core();
    core.memory[0x5000] = std::string(page, 'x');
    const std::string bytes = core.bytes();
    const std::string total = std::to_string(bytes.size()), there = std::to_string(bytes.size() - 1);
    const core_facts facts = read_pieces(bytes.substr(0, bytes.size() - 1), 500, bytes.size() - 1);
    EXPECT_FALSE(facts.is_whole);
    EXPECT_EQ(facts.damage, "The core ends after " + there + " of " + total + " bytes.");
}

std::string changed(size_t offset, std::string_view with) {
    std::string bytes = library_core().bytes();
    return bytes.replace(offset, with.size(), with);
}

TEST(core, other_files_are_refused_in_a_sentence) {
    const auto damage = [](const std::string& bytes) { return read_pieces(bytes, 100, bytes.size()).damage; };
    EXPECT_EQ(damage(""), "The core is empty.");
    EXPECT_EQ(damage("#!/bin/sh\necho a script that is longer than a header\n"),
              "The core is not an ELF file.");
    EXPECT_EQ(damage("\x7f"
                     "ELF"),
              "The core ends in its first header.");
    EXPECT_EQ(damage(changed(EI_DATA, "\2")), "The core is of a big-endian machine.");
    EXPECT_EQ(damage(changed(16, "\3")), "The core is an ELF file, but not a core.");
    EXPECT_EQ(damage(changed(18, "\x28")), "The core is a core of another machine (ELF machine 40).");
    EXPECT_EQ(damage(changed(54, "\x20")), "The core has program headers of a wrong size.");
    EXPECT_EQ(damage(changed(56, std::string_view("\0\0", 2))), "The core has no notes.");
}

TEST(core, notes_that_lie_about_their_size_are_damage) {
    test_core core = library_core();
    core.threads = {in_call(7, 7)};
    core.more_notes = std::string("\5\0\0\0\xff\xff\xff\x7f\1\0\0\0CORE\0\0\0\0", 20);
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads.size(), 1u);
    EXPECT_EQ(facts.damage, "The core has notes that are cut or wrong.");
}

TEST(core, offsets_beyond_the_file_are_harmless) {
    std::string bytes = changed(64 + 8, "\xff\xff\xff\xff\xff\xff\xff\xff");  // of the notes
    const core_facts facts = read_pieces(bytes, 100, bytes.size());
    EXPECT_FALSE(facts.is_whole);
    EXPECT_TRUE(facts.threads.empty());
}

TEST(core, segments_are_counted_even_if_the_header_cannot) {
    test_core core = library_core();
    core.threads = {in_call(7, 202, 0x5000, 0x80, 2), in_call(8, 0)};
    core.memory[0x5000] = std::string("\2\0\0\0\0\0\0\0\x08\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0", 24);
    std::string bytes = core.bytes();
    bytes.replace(56, 2, "\xff\xff");
    const core_facts facts = read_pieces(bytes, 100, bytes.size());
    ASSERT_EQ(facts.threads.size(), 2u);
    EXPECT_EQ(facts.threads[0].owner, 8);
}

TEST(core, budget_bounds_all_cores_together) {
    test_core core = library_core();
    core.threads = {in_call(7, 7), in_call(8, 7)};
    const std::string bytes = core.bytes();
    core_options options;
    options.stacks = false;
    options.budget->threads = 3;
    for (const size_t expected : {2u, 1u, 0u}) {
        core_reader reader("core", "shown", 7, bytes.size(), options);
        reader.add({bytes.data(), bytes.size()});
        const core_facts facts = reader.finish();
        EXPECT_EQ(facts.threads.size(), expected);
        EXPECT_EQ(facts.damage.empty(), expected == 2);
    }
}

TEST(core, command_is_quoted_for_the_shell) {
    core_facts core;
    core.pid = 12;
    core.program = "/usr/bin/shown";
    EXPECT_EQ(core_gdb_command(core, "debug.tgz", "debug-c0/shown.12/core"),
              "tar -x -Of debug.tgz -- debug-c0/shown.12/core > core.12 && gdb-multiarch -core core.12 "
              "/usr/bin/shown");
    core.program = "-x\n";
    EXPECT_EQ(core_gdb_command(core, "-f", "a b'c$(d)"),
              "tar -x -Of ./-f -- 'a b'\\''c$(d)' > core.12 && gdb-multiarch -core core.12 $'./-x\\012'");
    EXPECT_EQ(core_gdb_command(core, "f", "a\\t").find("tar -x --no-unquote -Of f -- 'a\\t' >"), 0u);
}

}  // namespace
}  // namespace archiveview
