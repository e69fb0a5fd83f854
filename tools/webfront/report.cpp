#include "tools/webfront/report.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "tools/webfront/answer.h"
#include "tools/webfront/archive_request.h"
#include "tools/webfront/handover.h"
#include "tools/webfront/report_reader.h"

namespace {

constexpr std::string_view kept_key = "kept=";

// The page is made of an archive, every byte of which may be hostile. It runs its own scripts, but as a site
// of its own: it cannot read from the front, and cannot connect to anything.
constexpr std::string_view page_fields =
    "Content-Security-Policy: default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
    "img-src data:; form-action 'none'; base-uri 'none'; frame-ancestors 'none'; "
    "sandbox allow-scripts allow-downloads allow-modals\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n";

std::string page_answer(const std::string& page, const std::string& name) {
    const std::string place = "Content-Location: " + std::string(webfront_report_path) + "?" +
                              std::string(kept_key) + name + "\r\n";
    return webfront_answer(200, "text/html; charset=utf-8", page, true, std::string(page_fields) + place);
}

std::string no_reader(const std::string& path) {
    return webfront_error(503, "Reports need the program archiveview, which this machine does not have (" +
                                   path + ": " + std::generic_category().message(errno) +
                                   "). Download the archive, and run archiveview on it on a PC.");
}

}  // namespace

std::string webfront_make_report(const webfront_report_tools& tools, const webfront_job& job) {
    if (std::chrono::steady_clock::now() - job.since > webfront_queue_time) {
        return webfront_error(503, "Other reports are being made; try again later.");
    }
    if (access(tools.reader_path.c_str(), X_OK) != 0) {
        return no_reader(tools.reader_path);
    }
    webfront_browser_watch browser(job.client.get());
    webfront_archive archive = webfront_request_archive(tools.socket_path, &browser);
    if (!archive.body) {
        return archive.error;
    }
    webfront_report_reader reader(tools.reader_path, std::move(archive.body));
    webfront_report_outcome outcome = reader.wait(&browser, tools.time_limit);
    if (outcome.has_browser_gone) {
        return {};
    }
    if (!outcome.error.empty()) {
        return webfront_error(502, "There is no report: " + outcome.error + ".");
    }
    const auto page = std::make_shared<const std::string>(std::move(outcome.page));
    return page_answer(*page, tools.shelf->keep(page));
}

bool webfront_is_kept_report(std::string_view query) {
    return query.starts_with(kept_key);
}

std::string webfront_kept_report(webfront_report_shelf* shelf, std::string_view query) {
    const std::string name(query.substr(kept_key.size()));
    const std::shared_ptr<const std::string> page = shelf->find(name);
    return page ? page_answer(*page, name)
                : webfront_error(404, "This report is not kept any more; make a new one.");
}
