// The sections of the JSON. Each function adds a key of the top level and its value.
#pragma once

#include "tools/archiveview/findings/findings.h"
#include "tools/archiveview/views/json_fields.h"

namespace archiveview {

struct json_input {
    const archive_facts& facts;
    const std::vector<finding>& findings;
};

struct json_part {
    const char* name;
    void (*write)(json_fields* out, const char* name, const json_input& in);
};

void json_archive(json_fields* out, const char* name, const json_input& in);
void json_device(json_fields* out, const char* name, const json_input& in);
void json_findings(json_fields* out, const char* name, const json_input& in);
void json_changes(json_fields* out, const char* name, const json_input& in);
void json_looks(json_fields* out, const char* name, const json_input& in);
void json_processes(json_fields* out, const char* name, const json_input& in);
void json_sockets(json_fields* out, const char* name, const json_input& in);
void json_trace(json_fields* out, const char* name, const json_input& in);
void json_capture(json_fields* out, const char* name, const json_input& in);
void json_cores(json_fields* out, const char* name, const json_input& in);
void json_kernel(json_fields* out, const char* name, const json_input& in);
void json_texts(json_fields* out, const char* name, const json_input& in);

// The value alone.
std::string json_value(const json_part& part, const json_input& in);

// In the order of the page.
constexpr json_part json_parts[] = {
    {"archive", json_archive}, {"device", json_device}, {"findings", json_findings},
    {"changes", json_changes}, {"looks", json_looks},   {"processes", json_processes},
    {"sockets", json_sockets}, {"trace", json_trace},   {"capture", json_capture},
    {"cores", json_cores},     {"kernel", json_kernel}, {"texts", json_texts},
};

}  // namespace archiveview
