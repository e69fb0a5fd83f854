// Temporary files without a name, which vanish even if the program crashes.
#pragma once

#include "common/unique_fd.h"

// Creates a file from `name_template` (ends in "XXXXXX"), unlinks it at once and returns it open for reading
// and writing, close-on-exec. An empty owner with errno set on failure.
unique_fd temp_file_unlinked(const char* name_template);
