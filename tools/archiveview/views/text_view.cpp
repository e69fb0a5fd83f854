#include "tools/archiveview/views/text_view.h"

namespace archiveview {

std::string text_view(const archive_facts& facts, const std::vector<finding>& findings) {
    static constexpr const char* states[] = {"whole", "cut", "damaged"};
    const archive_summary& archive = facts.archive;
    std::string text = states[static_cast<int>(archive.state)];
    text += ": " + archive.reason + " " + archive.cut_member + " " +
            std::to_string(archive.cut_member_bytes) + ", " + std::to_string(archive.members) + " members, " +
            std::to_string(archive.bytes) + " bytes\n";
    for (const std::string& missing : archive.missing) {
        text += "missing: " + missing + "\n";
    }
    for (const finding& one : findings) {
        text += one.id + ": " + one.text + "\n";
    }
    return text;
}

}  // namespace archiveview
