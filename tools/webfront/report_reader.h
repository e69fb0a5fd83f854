// The program archiveview, which reads an archive and writes a page about it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "common/unique_fd.h"
#include "tools/webfront/browser_watch.h"

// The longest page that is passed on.
constexpr size_t webfront_report_limit = size_t{32} << 20;

struct webfront_report_outcome {
    bool has_browser_gone = false;
    std::string page{};   // what it wrote to standard output
    std::string error{};  // why there is no page; a sentence without its full stop; empty if there is one
};

// A running reader. It ends with this object, and with the front.
class webfront_report_reader {
public:
    // Starts `path --html - -` with `archive` as its standard input. Throws std::system_error when
    // descriptors or processes run out.
    webfront_report_reader(const std::string& path, unique_fd archive);
    ~webfront_report_reader();
    webfront_report_reader(const webfront_report_reader&) = delete;
    webfront_report_reader& operator=(const webfront_report_reader&) = delete;

    // Waits for the page and the reader's exit, at most for `time`, which includes that of the archive.
    webfront_report_outcome wait(webfront_browser_watch* browser, std::chrono::milliseconds time);

private:
    using clock = std::chrono::steady_clock;

    struct outputs {
        std::string page;
        std::string remarks;
    };

    bool read_outputs(webfront_browser_watch* browser, clock::time_point until, outputs* read);
    bool await_exit(webfront_browser_watch* browser, clock::time_point until, outputs* read);
    bool has_ended() const;
    int end();

    pid_t pid_ = -1;
    unique_fd page_;
    unique_fd remarks_;
};
