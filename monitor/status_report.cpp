#include "monitor/status_report.h"

#include <stdlib.h>

#include <cerrno>
#include <utility>

#include "common/replace_file.h"

namespace {

constexpr mode_t private_mode = 0600;

}  // namespace

status_report::~status_report() {
    if (stream) {
        fclose(stream);
    }
    free(text);
}

bool status_report_begin(status_report* report) {
    report->stream = open_memstream(&report->text, &report->length);
    return report->stream != nullptr;
}

int status_report_publish(status_report* report, const char* path) {
    bool is_whole = !ferror(report->stream);
    is_whole = fclose(std::exchange(report->stream, nullptr)) == 0 && is_whole;
    if (!is_whole) {
        return ENOMEM;
    }
    return replace_file(path, {report->text, report->length}, private_mode) == 0 ? 0 : errno;
}
