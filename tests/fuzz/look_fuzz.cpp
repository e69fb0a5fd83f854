// Adds files of any name and text to two looks at /proc: what both give stays within its bounds, and no value
// of a change is infinite or no number. The bytes are files in turn, for one look and the other: a line with
// the name, then the text up to a byte 0.
#include <stdint.h>

#include <algorithm>
#include <cmath>
#include <string_view>

#include "tests/fuzz/require.h"
#include "tools/archiveview/facts/look.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/facts/system_text.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

void add_files(look* looks, std::string_view bytes) {
    for (size_t i = 0; !bytes.empty(); i++) {
        const size_t end = std::min(bytes.find('\0'), bytes.size());
        std::string_view text = bytes.substr(0, end);
        bytes.remove_prefix(std::min(end + 1, bytes.size()));
        if (!text.empty()) {
            const std::string_view name = take_line(&text);
            look_add(&looks[i % 2], name, text);
        }
    }
}

void require_percent(double value) {
    require(value >= 0 && value < 100.001);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    look looks[2];
    add_files(looks, {reinterpret_cast<const char*>(data), size});
    for (const look& each : looks) {
        require(each.processors.size() <= processor_limit + 1);
        require(std::isfinite(each.uptime_seconds) && each.uptime_seconds >= 0);
        require(look_changes(each, each).empty());
        device_facts facts;
        device_add_look(&facts, each);
    }
    for (const change& each : look_changes(looks[0], looks[1])) {
        require(std::isfinite(each.value));
        require((each.value != 0) != (each.first_text != each.second_text));
        if (each.unit == "percent") {
            require_percent(each.value);
        }
    }
    if (const double busy = look_busy_percent(looks[0], looks[1]); busy != -1) {
        require_percent(busy);
    }
    return 0;
}
