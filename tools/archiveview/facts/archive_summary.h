// What is known of the archive as a file.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace archiveview {

enum class archive_state {
    whole,    // all that it should hold is there
    cut,      // it ends early; what came before is right
    damaged,  // bytes in it are wrong
};

struct named_text {
    std::string name;
    std::string text;
};

struct archive_summary {
    archive_state state = archive_state::damaged;
    bool is_readable = false;  // at least one member was found
    bool is_full = false;      // the form with a manifest
    bool is_compressed = false;
    bool is_end_unknown = false;    // "cut" only because nothing proves that the end is there
    std::string reason;             // why it is not whole: one sentence
    std::string directory;          // the archive's top directory
    std::string cut_member;         // the member that is not whole, without the top directory; empty: none
    uint64_t cut_member_bytes = 0;  // its bytes that are there
    uint64_t members = 0;
    uint64_t bytes = 0;                // of all members
    std::vector<std::string> missing;  // what a whole archive has and this one lacks: "kernel log", "cores"
    std::vector<named_text> member_errors;  // members that the device could not store, from the manifest
    std::vector<named_text> not_examined;   // what was not looked at, and why
    std::vector<named_text> texts;          // small members, as text, in the order of the archive
    double span_seconds = 0;                // between the two looks at /proc
    std::string started;                    // local time of the device, "2026-11-22 16:11:32"
};

}  // namespace archiveview
