// The manifest of a full archive: its last member, "manifest.txt", a list of all others.
//
//     zarvo 0.1
//     started 2026-03-04 05:06:07 +0100
//         bytes     seconds  member
//           312    0.000041  media.conf
//        512000    5.003112  netdump.cap
//         error              oopslog: No space left on device
//     ended 2026-03-04 05:06:21 +0100
//     members: 2, bytes: 512312, errors: 1
//     complete
//
// The seconds of a member begin when the one before it was written, so they include its preparation. Its last
// line is "complete": an archive without it was cut off.
#pragma once

#include <stdint.h>

#include "archive/tar.h"
#include "common/unique_fd.h"

struct manifest : tar_watch {
    unique_fd list;      // the members' lines so far; a file in memory, since there may be thousands
    int64_t listed = 0;  // its size
    int list_error = 0;  // errno of the first write that failed; later lines are lost
    char started[40] = "";
    unsigned members = 0;
    unsigned errors = 0;
    uint64_t bytes = 0;
    // The member that is being written.
    char name[128] = "";  // empty between members
    uint32_t size = 0;
    uint32_t written = 0;
    int64_t began_ns = 0;
    // Lines that are not in the file yet.
    size_t buffered = 0;
    char buffer[4096];
};

// Begins the manifest of the archive `t`; both are borrowed until manifest_store or manifest_abandon. If the
// list cannot be kept, the manifest says so.
void manifest_begin(manifest* m, tar_handle* t);

// Notes that `name`, a member or the folder of several, is missing or not whole. `error` is an errno. Does
// nothing in an archive without a manifest.
void manifest_note(tar_handle* t, const char* name, int error);

// Stores the manifest as the last member.
void manifest_store(manifest* m, tar_handle* t);

// Ends it without a member.
void manifest_abandon(tar_handle* t);
