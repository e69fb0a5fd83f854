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

// Ends the report and makes it the content of the file at `path`. A reader of that path finds the earlier
// file or the new one, whole: the kernel has all of the new one before it gets the name. It is not synced to
// the disk, since a round may come every millisecond. Meanwhile it is a file without a name or, where the
// file system has no such thing, a sibling `path`.tmp-XXXXXX. Returns 0, or -1 with errno set; the earlier
// file then stands and no sibling is left.
int status_report_publish(status_report* report, const char* path);
