#include "tools/archiveview/facts/system_text.h"

namespace archiveview {

void system_text_parse(device_facts* /*facts*/, std::string_view /*text*/) {}

}  // namespace archiveview
