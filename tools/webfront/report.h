// The report about the machine: a page that archiveview makes of an archive while the daemon makes that.
#pragma once

#include <stddef.h>

#include <chrono>
#include <string>
#include <string_view>

#include "tools/webfront/pool.h"
#include "tools/webfront/report_shelf.h"

constexpr std::string_view webfront_report_path = "/report.html";

// The number of reports that are made at the same time. The daemon makes one archive at a time and refuses
// others at once, so more are of no use. The short queue limits the number of requests that wait.
constexpr int webfront_report_threads = 3;
constexpr size_t webfront_report_queue = 3;

struct webfront_report_tools {
    std::string socket_path;                 // of the daemon
    std::string reader_path;                 // of archiveview
    webfront_report_shelf* shelf = nullptr;  // borrowed
    std::chrono::milliseconds time_limit = std::chrono::minutes(30);
};

// Makes a report, which takes as long as an archive, and keeps it on the shelf. Returns the whole answer: the
// page, or an error. Returns an empty string if the browser has gone; the archive and the reader have then
// ended. Throws when resources run out.
std::string webfront_make_report(const webfront_report_tools& tools, const webfront_job& job);

// Returns the whole answer to a request for a report that is on the shelf. `query` names it.
std::string webfront_kept_report(webfront_report_shelf* shelf, std::string_view query);

// True if the query of a request for the report names one that was made before.
bool webfront_is_kept_report(std::string_view query);
