#include "tools/archiveview/facts/kernel.h"

namespace archiveview {

void kernel_parse_oops(kernel_facts* /*facts*/, std::string_view /*text*/) {}
void kernel_parse_log(kernel_facts* /*facts*/, std::string_view /*text*/) {}
void kernel_set_tainted(kernel_facts* /*facts*/, uint64_t /*bits*/) {}

}  // namespace archiveview
