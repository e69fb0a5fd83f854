// Requests an archive from the daemon, for the front itself instead of a browser.
#pragma once

#include <chrono>
#include <string>

#include "common/unique_fd.h"
#include "tools/webfront/browser_watch.h"

// How long the daemon may take to begin its answer. It may be making a core for someone else.
constexpr std::chrono::milliseconds webfront_daemon_time{30000};

struct webfront_archive {
    unique_fd body;     // a socket whose next byte is the archive's first; empty if there is none
    std::string error;  // the answer for the browser if the daemon gives no archive
    // Neither of them if the browser has gone.
};

// Requests a full archive from the daemon at `socket_path`. Returns when its first bytes have arrived: the
// daemon has then listed the processes that the archive examines, and programs that are started later do not
// become a part of it. Throws std::system_error when descriptors run out.
webfront_archive webfront_request_archive(const std::string& socket_path, webfront_browser_watch* browser,
                                          std::chrono::milliseconds daemon_time = webfront_daemon_time);
