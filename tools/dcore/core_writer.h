// Writes a planned core file.
#pragma once

#include "tools/dcore/elf_notes.h"
#include "tools/dcore/layout.h"
#include "tools/dcore/memory.h"
#include "tools/dcore/stream.h"

// Writes the whole file to the stream, exactly places.length bytes. Detaches the process as soon as its
// memory has been read. Returns 0, or the errno of the write that failed.
int core_write(core_stream* stream, target_memory* memory, const core_notes& notes,
               const core_places& places);
