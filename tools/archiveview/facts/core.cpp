#include "tools/archiveview/facts/core.h"

#include <algorithm>

#include "tools/archiveview/facts/core_elf.h"
#include "tools/archiveview/facts/core_files.h"
#include "tools/archiveview/facts/core_locks.h"
#include "tools/archiveview/facts/core_memory.h"
#include "tools/archiveview/facts/core_notes.h"
#include "tools/archiveview/facts/core_spool.h"
#include "tools/archiveview/facts/core_threads.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

// The file begins with its headers and notes, which are kept until they are whole. They tell which words of
// the memory are wanted; those are picked while the rest passes.
struct core_reader::state {
    core_facts facts;
    core_options options;
    std::shared_ptr<core_spool> spool;
    uint64_t size = 0;      // of the member, as the archive says
    uint64_t position = 0;  // in the file
    uint64_t needed = 1;    // bytes of the beginning
    bool has_headers = false, is_refused = false, is_read = false;
    std::vector<char> kept;
    core_head head;
    const core_machine* machine = nullptr;
    core_notes notes;
    core_memory memory;

    void keep(std::span<const char>* bytes);
    void advance();
    void read_headers();
    void read_notes();
    void refuse(const std::string& reason);
    void judge_length();
    void fill_facts();
};

void core_reader::state::refuse(const std::string& reason) {
    is_refused = true;
    facts.damage = "The core " + reason + ".";
    spool.reset();
    kept = {};
}

void core_reader::state::read_headers() {
    has_headers = true;
    if (std::string reason = core_head_read(kept, &head); !reason.empty()) {
        return refuse(reason);
    }
    machine = core_machine_find(head.machine);
    facts.machine = machine->name;
    needed = std::clamp<uint64_t>(head.notes_end, kept.size(), core_notes_limit);
}

void core_reader::state::read_notes() {
    is_read = true;
    notes = core_notes_read(kept, head, *machine, options.budget.get());
    core_threads_want(notes, *machine, &memory);
    core_files_want(notes, &memory);
    memory.begin(std::move(head.segments));
    memory.pass(0, kept);  // content may begin before the notes end
    kept = {};
}

// Does all that the kept bytes allow.
void core_reader::state::advance() {
    while (!is_refused && !has_headers && kept.size() >= needed) {
        needed = core_headers_size(kept);
        if (needed <= kept.size() || needed > core_notes_limit) {
            read_headers();
        }
    }
    if (!is_refused && has_headers && !is_read && kept.size() >= needed) {
        read_notes();
    }
}

void core_reader::state::keep(std::span<const char>* bytes) {
    while (!bytes->empty() && !is_refused && !is_read) {
        const auto length = static_cast<size_t>(std::min<uint64_t>(bytes->size(), needed - kept.size()));
        kept.insert(kept.end(), bytes->begin(), bytes->begin() + static_cast<ptrdiff_t>(length));
        *bytes = bytes->subspan(length);
        position += length;
        advance();
    }
}

void core_reader::state::judge_length() {
    const uint64_t length = std::max(head.length, size);
    facts.is_whole = position >= length;
    if (!facts.is_whole) {
        facts.damage =
            "The core ends after " + std::to_string(position) + " of " + std::to_string(length) + " bytes.";
    } else if (!notes.damage.empty()) {
        facts.damage = "The core " + notes.damage + ".";
    }
}

void core_reader::state::fill_facts() {
    facts.state = notes.state;
    if (!notes.threads.empty()) {
        facts.signal = notes.threads.front().signal;
    }
    if (facts.signal != 0) {
        facts.signal_name = core_signal_name(*machine, facts.signal);
        facts.fault_address = notes.signal == facts.signal ? notes.fault_address : 0;
    }
    const std::vector<futex_wait> waits = core_threads_read(notes, *machine, memory, &facts);
    core_locks_read(notes, *machine, memory, waits, &facts);
    core_deadlocks_find(waits, &facts);
    core_files_read(memory, &notes.files);
    const core_file* program = core_files_view(notes.files).find(notes.entry);
    facts.program = program ? program->path : notes.name;
    facts.command = notes.arguments;
    facts.files = std::move(notes.files);
}

core_reader::core_reader(std::string member, std::string folder_name, int pid, uint64_t size,
                         const core_options& options)
    : state_(std::make_unique<state>()) {
    state_->facts.member = std::move(member);
    state_->facts.name = std::move(folder_name);
    state_->facts.pid = pid;
    state_->size = size;
    state_->options = options;
    if (options.stacks) {
        state_->spool = std::make_shared<core_spool>(options.budget);
    }
}

core_reader::~core_reader() = default;

void core_reader::add(std::span<const char> bytes) {
    if (state_->spool) {
        state_->spool->add(bytes);
    }
    state_->keep(&bytes);
    if (state_->is_read) {
        state_->memory.pass(state_->position, bytes);
    }
    state_->position += bytes.size();
}

core_facts core_reader::finish() {
    state& all = *state_;
    all.facts.bytes = all.position;
    if (!all.is_refused && !all.has_headers) {
        all.read_headers();
    }
    if (!all.is_refused) {
        if (!all.is_read) {
            all.read_notes();
        }
        all.judge_length();
        all.fill_facts();
        all.facts.spool = std::move(all.spool);
    }
    all.facts.gdb_command = core_gdb_command(all.facts, "ARCHIVE", all.facts.member);
    return std::move(all.facts);
}

}  // namespace archiveview
