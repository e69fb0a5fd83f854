#include "tools/archiveview/facts/trace.h"

namespace archiveview {

void trace_parse(trace_facts* /*facts*/, std::string_view /*text*/) {}

}  // namespace archiveview
