// The assertion of the fuzz targets.
#pragma once

#include <stdlib.h>

// Ends the run with a finding if `fact` is false.
inline void require(bool fact) {
    if (!fact) {
        abort();
    }
}
