// Polling: calls that are repeated without a result.
#pragma once

#include <stdint.h>

#include <map>
#include <string_view>

#include "tools/archiveview/facts/trace_line.h"

namespace archiveview {

// A loop that wakes up more rarely is ordinary: timers, and work that is done for each picture, 25 or 30
// times a second. At this rate the processor never rests for longer than 20 ms, and a trace of five seconds
// shows hundreds of wake-ups that led to nothing.
constexpr double polling_bound_per_second = 50;

// Counts, for one process, the calls that had no result while nothing else got done since the one before.
class polling_counter {
public:
    // `error` is the errno of the return.
    void add(const trace_line& line, int error);

    struct verdict {
        std::string_view call;  // empty if it does not poll
        double per_second = 0;
    };
    verdict judge(double seconds) const;

private:
    bool has_progress_ = true;
    std::map<std::string_view, uint64_t> counts_;
};

}  // namespace archiveview
