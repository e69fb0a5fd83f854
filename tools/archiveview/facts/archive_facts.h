// All that is known of an archive.
#pragma once

#include <array>
#include <vector>

#include "tools/archiveview/facts/archive_summary.h"
#include "tools/archiveview/facts/capture.h"
#include "tools/archiveview/facts/core.h"
#include "tools/archiveview/facts/kernel.h"
#include "tools/archiveview/facts/look.h"
#include "tools/archiveview/facts/processes.h"
#include "tools/archiveview/facts/sockets.h"
#include "tools/archiveview/facts/system_text.h"
#include "tools/archiveview/facts/trace.h"

namespace archiveview {

struct archive_facts {
    archive_summary archive;
    device_facts device;
    std::array<look, 2> looks;
    std::vector<change> changes;
    process_list processes;
    socket_list sockets;
    trace_facts trace;
    capture_facts capture;
    std::vector<core_facts> cores;
    kernel_facts kernel;
};

}  // namespace archiveview
