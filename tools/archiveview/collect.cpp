#include "tools/archiveview/collect.h"

namespace archiveview {

archive_facts collect_facts(archive_source* /*source*/) {
    return {};
}

}  // namespace archiveview
