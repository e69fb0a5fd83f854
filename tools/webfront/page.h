// The files of the front's page, which are built into the program.
#pragma once

#include <string_view>

// The front answers "/" and the paths that begin with this. All others go to the daemon.
constexpr std::string_view webfront_own_paths = "/webfront/";

struct webfront_page_file {
    std::string_view path;  // in a request
    std::string_view content_type;
    std::string_view bytes;
};

// Returns null if the page has no file at `path`.
const webfront_page_file* webfront_find_page_file(std::string_view path);

// The header fields of each file's answer, each with its line end. They restrict the page to scripts, styles
// and requests of the front itself, keep other pages from showing it in a frame, and make it send no
// referrer.
extern const std::string_view webfront_page_fields;
