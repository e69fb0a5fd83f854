#include "tools/archiveview/facts/core.h"

namespace archiveview {

void cores_add_stacks(std::vector<core_facts>* /*cores*/, const core_options& /*options*/) {}

}  // namespace archiveview
