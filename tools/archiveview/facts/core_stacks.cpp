// Adds the stacks that a debugger finds.
#include <algorithm>
#include <map>

#include "common/monotonic.h"
#include "tools/archiveview/facts/core.h"
#include "tools/archiveview/facts/core_debugger.h"
#include "tools/archiveview/facts/core_files.h"
#include "tools/archiveview/facts/core_frames.h"
#include "tools/archiveview/facts/core_spool.h"

namespace archiveview {
namespace {

constexpr int64_t one_core_ms = 10'000, all_cores_ms = 30'000;
constexpr int64_t healthy_cores_ms = 3'000;  // the same without a fault

constexpr char not_asked[] = "The debugger was not asked.";
constexpr char no_debugger[] = "gdb-multiarch is not installed.";
constexpr char no_files[] = "This machine has none of the program's files with the same build id.";
constexpr char no_time[] = "There was no time left for the debugger.";
constexpr char no_answer[] = "The debugger found no stacks.";

bool has_fault(const core_facts& core) {
    return core.signal != 0 || !core.deadlocks.empty() ||
           std::ranges::any_of(core.threads, [](const core_thread& thread) {
               return thread.owner_ended || thread.state == 'R' || thread.state == 'D';
           });
}

// Adds the frames that are known for sure. The debugger guesses the caller of code whose file it does not
// have, so a stack ends with the first such frame.
void add_frames(const debugger_stack& stack, const core_files_view& files,
                const std::vector<local_file>& known, core_thread* thread) {
    uint64_t pc = 0;
    for (const debugger_frame& frame : stack.frames) {
        pc = frame.pc != 0 ? frame.pc : pc;
        const core_file* file = files.find(pc);
        if (frame.function.empty() && !file && pc != thread->pc) {
            return;
        }
        thread->frames.push_back(frame.function.empty() ? files.place(pc) : frame.function);
        const bool is_known = file && std::ranges::any_of(known, [&](const local_file& each) {
                                  return each.path == file->path;
                              });
        if (!is_known && frame.function.empty()) {
            return;
        }
    }
}

// Returns why there are no frames, or nothing.
std::string add_stacks(const std::string& debugger, const core_options& options, int64_t left_ms,
                       core_facts* core) {
    const std::vector<local_file> files = core_local_files(*core, options.folders);
    if (files.empty()) {
        return no_files;
    }
    const std::string text =
        debugger_stacks(debugger, core->spool->fd(), files, options.folders, std::min(one_core_ms, left_ms));
    std::map<int, core_thread*> threads;
    for (core_thread& thread : core->threads) {
        threads.emplace(thread.tid, &thread);
    }
    const core_files_view view(core->files);
    bool has_frames = false;
    for (const debugger_stack& stack : debugger_stacks_read(text)) {
        auto found = threads.find(stack.tid);
        if (found != threads.end() && found->second->frames.empty()) {
            add_frames(stack, view, files, found->second);
            has_frames = has_frames || !found->second->frames.empty();
        }
    }
    return has_frames ? "" : no_answer;
}

}  // namespace

void cores_add_stacks(std::vector<core_facts>* cores, const core_options& options) {
    const std::string debugger = options.stacks ? debugger_path() : "";
    const int64_t began_ms = monotonic_ms();
    std::vector<core_facts*> order;
    for (core_facts& core : *cores) {
        order.push_back(&core);
    }
    std::stable_partition(order.begin(), order.end(),
                          [](const core_facts* core) { return has_fault(*core); });
    for (core_facts* core : order) {
        const int64_t end_ms = began_ms + (has_fault(*core) ? all_cores_ms : healthy_cores_ms);
        const int64_t left_ms = end_ms - monotonic_ms();
        if (!options.stacks) {
            core->stack_remark = not_asked;
        } else if (debugger.empty()) {
            core->stack_remark = no_debugger;
        } else if (!core->spool || core->spool->fd() < 0) {
            core->stack_remark = core->spool ? core->spool->remark() : "";
        } else {
            core->stack_remark = left_ms <= 0 ? no_time : add_stacks(debugger, options, left_ms, core);
        }
        core->spool.reset();
    }
}

}  // namespace archiveview
