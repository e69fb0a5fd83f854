#include "net/frame_order.h"

#include <algorithm>

namespace {

// A processor that is interrupted between timestamping a frame and queueing it is overtaken by others,
// usually by tens of microseconds. If a timestamp is further back, the clock was set back.
constexpr int64_t disorder_us = 50000;

int64_t in_us(const frame_time& time) {
    return int64_t{time.s} * 1000000 + time.us;
}

// Moves the last of `count` frames to its position among the others, which are sorted.
void insert_last(captured_frame* frames, int count) {
    const captured_frame frame = frames[count - 1];
    int position = count - 1;
    for (; position > 0 && frame.time < frames[position - 1].time; position--) {
        frames[position] = frames[position - 1];
    }
    frames[position] = frame;
}

}  // namespace

void frame_sort(captured_frame* frames, int count, frame_time* last) {
    frame_time largest = *last;
    frame_time lowest = largest;
    for (int i = 0; i < count; i++) {
        frame_time& time = frames[i].time;
        if (!(time < largest)) {
            largest = time;
            continue;
        }
        if (in_us(largest) - in_us(time) > disorder_us) {
            lowest = largest;
        }
        time = std::max(time, lowest);
        insert_last(frames, i + 1);
    }
    *last = largest;
}
