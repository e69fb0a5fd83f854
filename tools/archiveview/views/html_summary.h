// The parts of the page that can be read without a script.
#pragma once

#include <string>
#include <vector>

#include "tools/archiveview/findings/findings.h"

namespace archiveview {

// The verdict, the device, the findings, and what was not looked at.
std::string html_summary(const archive_facts& facts, const std::vector<finding>& findings);

// A section of the page whose content a script adds when it is opened.
struct html_section {
    const char* id;
    const char* title;
    const char* data;  // names of the parts of JSON that it shows, separated by blanks
    const char* what;  // what the archive may lack: "capture of packets"
    // What it holds in a few words, or nothing if there is nothing to show.
    std::string (*content)(const archive_facts& facts);
};

// The sections after the summary, closed.
std::string html_sections(const archive_facts& facts);

}  // namespace archiveview
