// What is wrong, with evidence.
#pragma once

#include <string>
#include <vector>

#include "tools/archiveview/facts/archive_facts.h"

namespace archiveview {

enum class severity { note, warning, critical };

struct evidence {
    std::string text;   // one fact: "412 descriptors, 380 of them sockets"
    std::string place;  // where it is: "process/412", "socket/4711", "trace/412", "conversation/3",
                        // "core/412", "change/memory", "oops/1", "log", "member/NAME"; may be empty. 3 is the
                        // index of a conversation.
};

struct finding {
    std::string id;  // "descriptor-leak"
    severity level = severity::note;
    int pid = 0;       // 0: no process is known
    std::string name;  // of the process
    std::string text;  // one sentence
    std::vector<evidence> proof;
    std::string next;   // what to look at next: one sentence
    double weight = 0;  // orders findings of one severity, the largest first
};

// All findings, the most severe first.
std::vector<finding> find_all(const archive_facts& facts);

const char* severity_name(severity level);

}  // namespace archiveview
