#include "tools/archiveview/source/member_place.h"

#include <optional>

#include "tools/archiveview/facts/parse.h"

namespace archiveview {

namespace {

struct fixed_name {
    std::string_view name;
    member_kind kind;
};

constexpr fixed_name fixed_names[] = {
    {"dbg-monitor.txt", member_kind::monitor},
    {"media.conf", member_kind::media},
    {"system.txt", member_kind::system},
    {"dmesg.txt", member_kind::log},
    {"strace.log", member_kind::trace},
    {"netdump.cap", member_kind::capture},
    {"serverreport.txt", member_kind::server_report},
    {"oopslog", member_kind::oops},
    {"kcore", member_kind::kernel_core},
    {"processes.txt", member_kind::process_table},
    {"manifest.txt", member_kind::manifest},
};

// Takes the text up to the next slash, and the slash, off `path`. Nothing if there is no slash.
std::optional<std::string_view> take_folder(std::string_view* path) {
    const size_t slash = path->find('/');
    if (slash == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view folder = path->substr(0, slash);
    path->remove_prefix(slash + 1);
    return folder;
}

// The stamp "20261122-161132" after `prefix`, or nothing: a program may have the name "proc" as well.
std::string_view stamp_after(std::string_view prefix, std::string_view folder) {
    constexpr std::string_view shape = "00000000-000000";
    if (!folder.starts_with(prefix) || folder.size() != prefix.size() + shape.size()) {
        return {};
    }
    const std::string_view stamp = folder.substr(prefix.size());
    for (size_t i = 0; i < shape.size(); i++) {
        if (shape[i] == '0' ? !is_ascii_digit(stamp[i]) : stamp[i] != shape[i]) {
            return {};
        }
    }
    return stamp;
}

std::optional<int> pid_of(std::string_view word) {
    const std::optional<int> pid = number_of<int>(word);
    return pid && *pid > 0 && is_ascii_digit(word.front()) ? pid : std::nullopt;
}

member_place in_look_at_processes(std::string_view stamp, std::string_view rest) {
    const std::optional<std::string_view> process = take_folder(&rest);
    const std::optional<int> pid = process ? pid_of(*process) : std::nullopt;
    return pid && !rest.empty() ? member_place{member_kind::process_file, stamp, rest, {}, *pid}
                                : member_place{};
}

member_place in_process_folder(std::string_view folder, std::string_view file) {
    const size_t dot = folder.rfind('.');
    const std::optional<int> pid =
        dot == std::string_view::npos ? std::nullopt : pid_of(folder.substr(dot + 1));
    if (!pid || (file != "core" && file != "fdmap")) {
        return {};
    }
    return {file == "core" ? member_kind::core : member_kind::descriptor_map,
            {},
            file,
            folder.substr(0, dot),
            *pid};
}

}  // namespace

member_place place_of(std::string_view name) {
    for (const fixed_name& fixed : fixed_names) {
        if (name == fixed.name) {
            return {fixed.kind, {}, name, {}, 0};
        }
    }
    std::string_view rest = name;
    const std::string_view folder = take_folder(&rest).value_or("");
    if (folder == "proc") {
        return {member_kind::folder_file, {}, rest, {}, 0};
    }
    if (const std::string_view stamp = stamp_after("processes.", folder); !stamp.empty()) {
        return in_look_at_processes(stamp, rest);
    }
    const std::string_view stamp = stamp_after("proc.", folder);
    if (!stamp.empty() && rest.find('/') == std::string_view::npos) {
        return {member_kind::proc_file, stamp, rest, {}, 0};
    }
    return in_process_folder(folder, rest);
}

}  // namespace archiveview
