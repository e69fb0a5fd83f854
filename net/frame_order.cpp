#include "net/frame_order.h"

#include <algorithm>

namespace {

// A processor that is interrupted between receiving a frame and handing it over is overtaken by the others,
// by tens of microseconds as a rule. A timestamp that lies further back is due to a clock that was set back.
constexpr int64_t disorder_us = 50000;

int64_t in_us(const frame_time& time) {
    return int64_t{time.s} * 1000000 + time.us;
}

// Moves the last of `count` frames to its place among the others, which are in order.
void sort_in(captured_frame* frames, int count) {
    const captured_frame frame = frames[count - 1];
    int place = count - 1;
    for (; place > 0 && frame.time < frames[place - 1].time; place--) {
        frames[place] = frames[place - 1];
    }
    frames[place] = frame;
}

}  // namespace

void sort_frames(captured_frame* frames, int count, frame_time* last) {
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
        sort_in(frames, i + 1);
    }
    *last = largest;
}
