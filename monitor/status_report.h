// A report that is built in memory and then replaces a file in one step.
#pragma once

#include <stddef.h>
#include <stdio.h>

struct status_report {
    FILE* stream = nullptr;  // text that is printed here becomes the report; null: no report
    char* text = nullptr;
    size_t length = 0;

    status_report() = default;
    status_report(const status_report&) = delete;
    status_report& operator=(const status_report&) = delete;
    ~status_report();
};

// Opens `report->stream`. False if memory runs out.
bool status_report_begin(status_report* report);

// Closes the report and replaces the file at `path` by it (replace_file), readable by its owner only. Returns
// 0 or an errno; the earlier file is then unchanged.
int status_report_publish(status_report* report, const char* path);
