// The order of frames by their timestamps.
#pragma once

#include "net/frame.h"

// Sorts frames by their timestamps. `last` holds the largest timestamp so far and is updated. A frame gets
// the largest timestamp before it if it is older than frames that have been recorded, or if the clock was
// set back before it was received.
void frame_sort(captured_frame* frames, int count, frame_time* last);
