#include "tools/archiveview/facts/core_frames.h"

#include <algorithm>
#include <optional>

#include "common/ascii.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {
namespace {

constexpr size_t function_limit = 200;  // bytes of a name; a longer one is cut
constexpr size_t frame_limit = 256;     // of one thread

// Takes what follows `prefix`, if the text begins with it.
bool take_start(std::string_view* text, std::string_view prefix) {
    const bool is_there = text->starts_with(prefix);
    text->remove_prefix(is_there ? prefix.size() : 0);
    return is_there;
}

// "Thread 3 (LWP 117):", also with a number of the C library before: "Thread 3 (Thread 0x7f12 (LWP 117)):".
std::optional<int> thread_of(std::string_view line) {
    if (!line.starts_with("Thread ")) {
        return {};
    }
    const size_t at = line.find("LWP ");
    if (at == std::string_view::npos) {
        return {};
    }
    line.remove_prefix(at + 4);
    const auto end = std::ranges::find_if_not(line, is_ascii_digit);
    return number_of<int>(line.substr(0, static_cast<size_t>(end - line.begin())));
}

// The name before the arguments, which are shown as "(...)" or "()". A name may have parentheses of its own.
std::string function_of(std::string_view text) {
    size_t end = text.find(" (...)");
    end = end == std::string_view::npos ? text.find(" ()") : end;
    const std::string_view name = text.substr(0, end);
    if (name == "??") {
        return {};
    }
    std::string shown(name.substr(0, function_limit));
    std::ranges::replace_if(
        shown, [](char c) { return !is_ascii_printable(c); }, '?');
    return shown;
}

// "#1  0x00007f1234567890 in name (...) at file.c:12", or without the number: "#2  name (...) at ...".
std::optional<debugger_frame> frame_of(std::string_view line) {
    if (!take_start(&line, "#") || line.empty() || !is_ascii_digit(line.front())) {
        return {};
    }
    take_word(&line);
    line = trimmed(line);
    debugger_frame frame;
    if (take_start(&line, "0x")) {
        frame.pc = number_of<uint64_t>(take_word(&line), 16).value_or(0);
        line = trimmed(line);
        take_start(&line, "in ");
    }
    frame.function = function_of(line);
    return frame;
}

}  // namespace

std::vector<debugger_stack> debugger_stacks_read(std::string_view text) {
    std::vector<debugger_stack> stacks;
    while (!text.empty()) {
        const std::string_view line = take_line(&text);
        if (const std::optional<int> tid = thread_of(line); tid && stacks.size() < thread_limit) {
            stacks.push_back({*tid, {}});
        } else if (!stacks.empty() && stacks.back().frames.size() < frame_limit) {
            if (std::optional<debugger_frame> frame = frame_of(line)) {
                stacks.back().frames.push_back(std::move(*frame));
            }
        }
    }
    return stacks;
}

}  // namespace archiveview
