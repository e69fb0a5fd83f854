#include "tools/archiveview/order.h"

#include <algorithm>
#include <iterator>

namespace archiveview {

namespace {

enum class presence {
    always,
    usually,    // the daemon goes on without it if it fails
    sometimes,  // some devices lack it
};

struct order_step {
    member_kind kind;
    int look;
    bool only_full;
    bool has_many;
    presence is_there;
    const char* name;
};

// clang-format off
constexpr order_step steps[] = {
    {member_kind::monitor, 0, false, false, presence::sometimes, "report of the monitor"},
    {member_kind::media, 0, false, false, presence::sometimes, "configuration of media"},
    {member_kind::system, 0, true, false, presence::always, "report on the system"},
    {member_kind::log, 0, true, false, presence::usually, "kernel log"},
    {member_kind::process_file, 0, true, true, presence::always, "first look at processes"},
    {member_kind::proc_file, 0, false, true, presence::always, "first look at /proc"},
    {member_kind::folder_file, 0, false, true, presence::sometimes, "first look at /proc"},
    {member_kind::trace, 0, false, false, presence::always, "trace of system calls"},
    {member_kind::capture, 0, false, false, presence::always, "capture of packets"},
    {member_kind::server_report, 0, false, false, presence::usually, "report of the server"},
    {member_kind::oops, 0, false, false, presence::usually, "oops records"},
    {member_kind::kernel_core, 0, false, false, presence::sometimes, "kernel core"},
    {member_kind::proc_file, 1, false, true, presence::always, "second look at /proc"},
    {member_kind::folder_file, 1, false, true, presence::sometimes, "second look at /proc"},
    {member_kind::process_file, 1, true, true, presence::always, "second look at processes"},
    {member_kind::process_table, 1, true, false, presence::usually, "table of processes"},
    {member_kind::core, 1, false, true, presence::usually, "cores of processes"},
    {member_kind::manifest, 1, true, false, presence::always, "manifest"},
};
// clang-format on
constexpr size_t step_count = std::size(steps);

member_kind step_kind(member_kind kind) {
    return kind == member_kind::descriptor_map ? member_kind::core : kind;
}

}  // namespace

int member_order::add(const member_place& place, std::string_view name) {
    static_assert(step_count <= step_limit);
    const bool is_other_look = !place.stamp.empty() && place.stamp != stamp_;
    for (size_t step = step_; step < step_count; step++) {
        const bool is_again = has_begun_ && step == step_;
        if (steps[step].kind != step_kind(place.kind) ||
            (is_again && (!steps[step].has_many || is_other_look))) {
            continue;
        }
        step_ = step;
        has_begun_ = true;
        seen_.set(step);
        is_full_ = is_full_ || steps[step].only_full;
        if (!place.stamp.empty()) {
            stamp_ = place.stamp;
        }
        return steps[step].look;
    }
    if (wrong_member_.empty()) {
        wrong_member_ = name.empty() ? "a member without a name" : name;
    }
    return has_begun_ ? steps[step_].look : 0;
}

bool member_order::has_all() const {
    if (is_wrong()) {
        return false;
    }
    for (size_t step = 0; step < step_count; step++) {
        if (steps[step].is_there == presence::always && is_missing(step, false)) {
            return false;
        }
    }
    return true;
}

// True if the archive lacks a step that it should have.
bool member_order::is_missing(size_t step, bool is_cut) const {
    if (seen_[step] || (steps[step].only_full && !is_full_)) {
        return false;
    }
    const bool was_to_come = is_cut && (!has_begun_ || step > step_);
    switch (steps[step].is_there) {
        case presence::always:
            return true;
        case presence::usually:
            return was_to_come;
        case presence::sometimes:
            break;
    }
    return false;
}

std::vector<std::string> member_order::missing(bool is_cut, bool is_within_member) const {
    std::vector<std::string> names;
    for (size_t step = 0; step < step_count; step++) {
        const order_step& one = steps[step];
        const bool is_last = is_cut && has_begun_ && step == step_;
        if (is_last && (one.has_many || is_within_member)) {
            names.push_back("rest of the " + std::string(one.name));
        } else if (is_missing(step, is_cut)) {
            names.emplace_back(one.name);
        }
    }
    return names;
}

}  // namespace archiveview
