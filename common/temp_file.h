// Files that nobody else can see and that a crash can't leave behind.
#pragma once

#include "common/unique_fd.h"

// Creates a file from `name_template` (ends in "XXXXXX"), unlinks it at once and returns it open for reading
// and writing, close-on-exec; an empty owner with errno set when that fails.
unique_fd temp_file_unlinked(const char* name_template);
