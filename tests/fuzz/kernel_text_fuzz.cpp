// Reads any bytes as oops records, as the kernel's log and as system.txt: lists stay within their bounds,
// records have their numbers in order, and times are numbers.
#include <stdint.h>

#include <cmath>
#include <string_view>

#include "tests/fuzz/require.h"
#include "tools/archiveview/facts/kernel.h"
#include "tools/archiveview/facts/system_text.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

void require_log(const std::vector<log_line>& lines, size_t limit) {
    require(lines.size() <= limit);
    for (const log_line& each : lines) {
        require(each.level >= -1 && each.level <= 7);
        require(each.seconds == -1 || (std::isfinite(each.seconds) && each.seconds >= 0));
        require(each.text.size() <= line_limit);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    kernel_facts facts;
    kernel_parse_log(&facts, text);
    require_log(facts.log, log_line_limit);
    kernel_parse_oops(&facts, text);
    require(facts.oops.size() <= oops_limit);
    for (size_t i = 0; i < facts.oops.size(); i++) {
        require(facts.oops[i].number == i + 1);
        require(facts.oops[i].pid >= 0);
        require_log(facts.oops[i].lines, oops_line_limit);
    }
    require(facts.oops.empty() || facts.oops_remark.empty());
    device_facts device;
    system_text_parse(&device, text);
    require(std::isfinite(device.uptime_seconds));
    return 0;
}
