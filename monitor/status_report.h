// A report that is collected in memory and then put in place in one step.
#pragma once

#include <stddef.h>
#include <stdio.h>

struct status_report {
    FILE* stream = nullptr;  // what is printed here becomes the report; null: there is none
    char* text = nullptr;
    size_t length = 0;

    status_report() = default;
    status_report(const status_report&) = delete;
    status_report& operator=(const status_report&) = delete;
    ~status_report();
};

// Opens `report->stream`. Returns 0, or -1 when there is no memory for it.
int status_report_begin(status_report* report);

// Ends the report and makes it the content of the file at `path`, for its owner alone, in one step
// (replace_file). Returns 0, or -1 with errno set; the earlier file then stands.
int status_report_publish(status_report* report, const char* path);
