#include "tools/archiveview/views/json_view.h"

#include "tools/archiveview/views/json_parts.h"

namespace archiveview {

// Without the braces and the key that the part is written with.
std::string json_value(const json_part& part, const json_input& in) {
    json_output json;
    json.begin_object();
    json_fields fields(&json);
    part.write(&fields, part.name, in);
    json.end_object();
    std::string_view text = json.text();
    text.remove_prefix(std::string_view(part.name).size() + 4);  // {"NAME":
    text.remove_suffix(1);
    return std::string(text);
}

std::vector<json_section> json_sections(const archive_facts& facts, const std::vector<finding>& findings) {
    const json_input in = {facts, findings};
    std::vector<json_section> sections;
    for (const json_part& part : json_parts) {
        sections.push_back({part.name, json_value(part, in)});
    }
    return sections;
}

std::string json_view(const archive_facts& facts, const std::vector<finding>& findings) {
    const json_input in = {facts, findings};
    std::string view;
    json_output json;
    json.begin_object();
    json_fields fields(&json);
    for (const json_part& part : json_parts) {
        part.write(&fields, part.name, in);
        view += json.text();
        json.clear();
    }
    json.end_object();
    json.end_line();
    view += json.text();
    return view;
}

}  // namespace archiveview
