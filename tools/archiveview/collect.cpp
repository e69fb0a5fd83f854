#include "tools/archiveview/collect.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "tools/archiveview/facts/manifest.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/join.h"
#include "tools/archiveview/limits.h"
#include "tools/archiveview/order.h"
#include "tools/archiveview/shown_texts.h"
#include "tools/archiveview/source/member_place.h"
#include "tools/archiveview/verdict.h"

namespace archiveview {

namespace {

constexpr size_t piece_size = size_t{64} << 10;

// The member that is being read.
struct current_member {
    std::string_view name;  // without the archive's top directory
    member_place place;
    int look = 0;
    uint64_t size = 0;
    std::string_view text;  // at most text_limit bytes of it
};

class collector {
public:
    collector(archive_source* source, core_options cores)
        : source_(source), core_options_(std::move(cores)), piece_(piece_size) {}

    archive_facts collect();

private:
    void add(const source_member& member);
    std::string_view without_directory(std::string_view name);
    void add_text(current_member* member);
    void add_core(const current_member& member, const std::string& whole_name);
    bool parse(const current_member& member);
    bool parse_look_file(const current_member& member);
    bool parse_process_file(const current_member& member);
    bool parse_manifest(const current_member& member);
    bool was_cut() const;

    archive_source* source_;
    core_options core_options_;
    archive_facts facts_;
    member_order order_;
    shown_texts shown_;
    std::vector<stored_member> members_;
    std::optional<manifest_facts> manifest_;
    look_times times_;
    bool has_other_directory_ = false;
    std::vector<char> piece_;
    std::string text_;
};

// True if the archive ended within the member that was just read.
bool collector::was_cut() const {
    return source_->state().end != source_end::none;
}

// Takes the archive's top directory off the name.
std::string_view collector::without_directory(std::string_view name) {
    const size_t slash = name.find('/');
    const std::string_view directory =
        slash == std::string_view::npos ? std::string_view() : name.substr(0, slash);
    if (members_.empty()) {
        facts_.archive.directory = directory;
    }
    if (directory.empty() || directory != facts_.archive.directory) {
        has_other_directory_ = true;
        return name;
    }
    return name.substr(slash + 1);
}

bool collector::parse_look_file(const current_member& member) {
    look* to = &facts_.looks[static_cast<size_t>(member.look)];
    to->is_present = true;
    if (to->stamp.empty()) {
        to->stamp = member.place.stamp;
    }
    const std::string_view file = member.place.file;
    bool is_known = look_add(to, file, member.text);
    constexpr std::string_view network = "net/";
    if (file.starts_with(network) && is_socket_table(file.substr(network.size()))) {
        sockets_add_table(&facts_.sockets, file.substr(network.size()), member.look, member.text);
        is_known = true;
    }
    if (file == "sys/kernel/tainted") {
        kernel_set_tainted(&facts_.kernel, number_of(trimmed(member.text)).value_or(0));
    }
    return is_known;
}

bool collector::parse_process_file(const current_member& member) {
    std::optional<size_t>* begin = &times_.process_looks[static_cast<size_t>(member.look)];
    if (!*begin) {
        *begin = members_.size();
    }
    processes_add_look_file(&facts_.processes, member.look, member.place.pid, member.place.file, member.text);
    return true;
}

bool collector::parse_manifest(const current_member& member) {
    if (!was_cut()) {
        manifest_ = manifest_parse(member.text);
    }
    return true;
}

// Returns false if nothing is known of such a member.
bool collector::parse(const current_member& member) {
    switch (member.place.kind) {
        case member_kind::monitor:
            processes_add_monitor(&facts_.processes, member.text);
            return true;
        case member_kind::system:
            system_text_parse(&facts_.device, member.text);
            return true;
        case member_kind::log:
            kernel_parse_log(&facts_.kernel, member.text);
            return true;
        case member_kind::process_file:
            return parse_process_file(member);
        case member_kind::proc_file:
        case member_kind::folder_file:
            return parse_look_file(member);
        case member_kind::trace:
            trace_parse(&facts_.trace, member.text);
            return true;
        case member_kind::capture:
            capture_parse(&facts_.capture, member.text);
            return true;
        case member_kind::oops:
            kernel_parse_oops(&facts_.kernel, member.text);
            return true;
        case member_kind::process_table:
            processes_add_table(&facts_.processes, member.text);
            return true;
        case member_kind::descriptor_map:
            processes_add_descriptor_map(&facts_.processes, member.place.pid, member.place.folder,
                                         member.text);
            return true;
        case member_kind::manifest:
            return parse_manifest(member);
        default:
            return false;
    }
}

// Reads a member as a text, which is parsed and may be shown.
void collector::add_text(current_member* member) {
    text_.clear();
    for (size_t taken; text_.size() < text_limit && (taken = source_->read(piece_)) != 0;) {
        text_.append(piece_.data(), std::min(taken, text_limit - text_.size()));
    }
    while (source_->read(piece_) != 0) {  // so that it is known whether the archive ends within it
    }
    if (was_cut() && member->place.kind != member_kind::capture) {
        text_.resize(text_.rfind('\n') + 1);  // half a line may hold half a number
    }
    member->text = text_;
    const bool is_parsed = parse(*member);
    shown_.add(member->name, member->text, member->size, is_parsed);
}

void collector::add_core(const current_member& member, const std::string& whole_name) {
    if (facts_.cores.size() == core_limit) {
        shown_.skip(member.name, "too many cores");
        return;
    }
    core_reader reader(std::string(member.name), std::string(member.place.folder), member.place.pid,
                       member.size, core_options_);
    for (size_t taken; (taken = source_->read(piece_)) != 0;) {
        reader.add(std::span<const char>(piece_).first(taken));
    }
    facts_.cores.push_back(reader.finish());
    core_facts* core = &facts_.cores.back();
    core->gdb_command = core_gdb_command(*core, "ARCHIVE", whole_name);
}

void collector::add(const source_member& from) {
    current_member member;
    member.name = without_directory(from.name);
    member.place = place_of(member.name);
    member.look = order_.add(member.place, member.name);
    member.size = from.size;
    if (member.place.kind == member_kind::core) {
        add_core(member, from.name);
    } else {
        add_text(&member);
    }
    members_.push_back({std::string(member.name), member.size});
}

archive_facts collector::collect() {
    source_member member;
    while (source_->next(&member)) {
        add(member);
    }
    const manifest_facts* manifest = manifest_ ? &*manifest_ : nullptr;
    set_verdict(&facts_.archive, {&source_->state(), &order_, &members_, manifest, has_other_directory_});
    times_.has_manifest_list =
        facts_.archive.state == archive_state::whole && manifest && manifest->is_list_whole;
    cores_add_stacks(&facts_.cores, core_options_);
    shown_.move_to(&facts_.archive);
    join_facts(&facts_, manifest, times_);
    return std::move(facts_);
}

}  // namespace

archive_facts collect_facts(archive_source* source, const core_options& cores) {
    return collector(source, cores).collect();
}

}  // namespace archiveview
