// Reads an archive once and collects its facts.
#pragma once

#include "tools/archiveview/facts/archive_facts.h"
#include "tools/archiveview/source/archive_source.h"

namespace archiveview {

// Throws only what the source's reader throws, or if memory runs out.
archive_facts collect_facts(archive_source* source);

}  // namespace archiveview
