// Reads an archive once and collects its facts.
#pragma once

#include "tools/archiveview/facts/archive_facts.h"
#include "tools/archiveview/source/archive_source.h"

namespace archiveview {

archive_facts collect_facts(archive_source* source);

}  // namespace archiveview
