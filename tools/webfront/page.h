// The front's page.
#pragma once

#include <string_view>

// Paths below this one are the front's own, and so is "/"; no other reaches anything but the daemon.
constexpr std::string_view webfront_own_paths = "/webfront/";

// One of the files that the page consists of.
struct webfront_page_file {
    std::string_view path;  // in a request
    std::string_view content_type;
    std::string_view bytes;
};

// The file at `path`; null when there is none.
const webfront_page_file* webfront_find_page_file(std::string_view path);

// The header fields that the page's files are sent with, each with its line end. What the policy says: the
// page uses its own style sheet, script and front alone, nobody shows it in a frame, and it tells no one
// where it is.
extern const std::string_view webfront_page_fields;
