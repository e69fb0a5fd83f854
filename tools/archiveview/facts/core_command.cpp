// The command that opens a core in a debugger.
#include <algorithm>

#include "common/ascii.h"
#include "tools/archiveview/facts/core.h"

namespace archiveview {
namespace {

bool is_plain(char c) {
    return is_ascii_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           std::string_view("/._-+:,@%").find(c) != std::string_view::npos;
}

std::string octal(unsigned char c) {
    std::string text = "\\";
    for (const int shift : {6, 3, 0}) {
        text += static_cast<char>('0' + ((c >> shift) & 7));
    }
    return text;
}

// A word for the shell. Bytes that a terminal does not print as themselves are written as numbers.
std::string quoted(std::string_view word) {
    if (!word.empty() && std::ranges::all_of(word, is_plain)) {
        return std::string(word);
    }
    const bool is_printable = std::ranges::all_of(word, is_ascii_printable);
    std::string text = is_printable ? "'" : "$'";
    for (const char c : word) {
        if (c == '\'') {
            text += is_printable ? "'\\''" : "\\'";
        } else if (c == '\\' && !is_printable) {
            text += "\\\\";
        } else if (is_ascii_printable(c)) {
            text += c;
        } else {
            text += octal(static_cast<unsigned char>(c));
        }
    }
    return text + "'";
}

// As a file that is no option.
std::string quoted_file(std::string_view name) {
    return quoted(name.starts_with('-') ? "./" + std::string(name) : std::string(name));
}

}  // namespace

std::string core_gdb_command(const core_facts& core, std::string_view archive, std::string_view member) {
    const std::string file = "core." + std::to_string(core.pid);
    // tar reads a backslash in a member's name as the beginning of another character, unless it is told not
    // to.
    const bool has_backslash = member.find('\\') != std::string_view::npos;
    std::string command = "tar -x" + std::string(has_backslash ? " --no-unquote" : "") + " -Of " +
                          quoted_file(archive) + " -- " + quoted(member) + " > " + file +
                          " && gdb-multiarch -core " + file;
    if (!core.program.empty()) {
        command += " " + quoted_file(core.program);
    }
    return command;
}

}  // namespace archiveview
