#include "tools/archiveview/facts/system_text.h"

namespace archiveview {

void system_text_parse(device_facts* /*facts*/, std::string_view /*text*/) {}
void device_add_look(device_facts* /*facts*/, const look& /*l*/) {}

}  // namespace archiveview
