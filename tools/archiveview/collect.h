// Reads an archive once and collects its facts.
#pragma once

#include "tools/archiveview/facts/archive_facts.h"
#include "tools/archiveview/source/archive_source.h"

namespace archiveview {

// Throws only what the source's reader throws, or if memory runs out.
// `cores` says how their stacks are found.
archive_facts collect_facts(archive_source* source, const core_options& cores = {});

}  // namespace archiveview
