// Writes a planned core file.
#pragma once

#include "tools/dcore/elf_notes.h"
#include "tools/dcore/layout.h"
#include "tools/dcore/memory.h"
#include "tools/dcore/stream.h"

// Puts the whole file into the stream, exactly places.length bytes. The process is let go once its memory is
// read. Returns 0, or the errno of the write that failed.
int core_write(const core_notes& notes, const core_places& places, target_memory& memory,
               core_stream& stream);
