// Cores of processes, ELF of 32 or 64 bits. They are read as they stream; only notes and a few words are
// kept.
#pragma once

#include <stdint.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace archiveview {

struct core_thread {
    int tid = 0;
    char state = '?';
    uint64_t pc = 0, sp = 0;
    std::string place;                // where its pc is: "libc.so.6+0x1234"
    int64_t call = -1;                // number of the system call it is in, or -1
    std::string waits_in;             // name of that call, "futex"; empty if it runs
    uint64_t futex = 0;               // the address it waits on, or 0
    int owner = 0;                    // tid of the thread that has that lock, or 0
    bool owner_ended = false;         // that thread is not in this core
    int joins = 0;                    // tid of the thread whose end it waits for, or 0
    int signal = 0;                   // the signal that it was given
    std::vector<std::string> frames;  // functions, innermost first; empty without a debugger
};

struct core_file {
    uint64_t start = 0, end = 0, offset = 0;
    std::string path;
    std::string build_id;  // hexadecimal; may be empty
};

class core_spool;  // the bytes of a core, in a file without a name

// Threads that wait for one another, or for one that has ended.
struct core_deadlock {
    std::vector<int> tids;  // each waits for the next, the last for the first, or for the one that has ended
    bool is_cycle = false;
};

struct core_facts {
    int pid = 0;
    std::string name;     // from the folder's name, without the pid
    std::string member;   // the member's name
    std::string machine;  // "MIPS", "x86-64"
    bool is_whole = false;
    std::string damage;  // why it could not be read, or not to its end
    uint64_t bytes = 0;
    std::string program, command;  // from its notes
    char state = '?';
    int signal = 0;              // that ended the process, or 0
    std::string signal_name;     // "SIGSEGV", as that machine numbers signals
    uint64_t fault_address = 0;  // of a signal that a wrong access caused
    std::vector<core_thread> threads;
    std::vector<core_file> files;
    std::vector<core_deadlock> deadlocks;
    std::string stack_remark;  // why threads have no frames
    std::string gdb_command;   // to copy: it opens this core; the word ARCHIVE stands for the archive's name
    std::shared_ptr<const core_spool> spool;  // its bytes, for cores_add_stacks()
};

// The command that opens a core of this archive in a debugger, safe to paste into a shell. `member` is the
// name in the archive, with the top directory.
std::string core_gdb_command(const core_facts& core, std::string_view archive, std::string_view member);

// What all cores of an archive may take together. Readers that share an options object share it.
struct core_budget {
    size_t threads = 65536;
    size_t mapping_bytes = size_t{48} << 20;
    size_t spool_bytes = size_t{256} << 20;
};

struct core_options {
    bool stacks = true;  // run a debugger
    // Where programs and libraries of the device may be. A file is used only if it has the build id that the
    // core names.
    std::vector<std::string> folders = {"/"};
    std::shared_ptr<core_budget> budget = std::make_shared<core_budget>();
};

// Adds frames to the threads of cores, with gdb-multiarch if that is installed. Takes at most 30 seconds;
// at most 3 if no core has a fault. Call once, after all cores. Drops the bytes that were kept for it.
void cores_add_stacks(std::vector<core_facts>* cores, const core_options& options);

// Reads a core as it streams.
class core_reader {
public:
    core_reader(std::string member, std::string folder_name, int pid, uint64_t size,
                const core_options& options = {});
    ~core_reader();
    core_reader(const core_reader&) = delete;
    core_reader& operator=(const core_reader&) = delete;
    void add(std::span<const char> bytes);
    // The facts; call once, after the last byte.
    core_facts finish();

private:
    struct state;
    std::unique_ptr<state> state_;
};

}  // namespace archiveview
