// The order of frames that the kernel hands over.
#pragma once

#include "net/frame_ring.h"

// Sorts frames by their timestamps. `last` is the largest timestamp so far and is kept up to date: a frame
// that comes too late to be sorted in, or that was received after the clock had been set back, gets the
// largest timestamp before it.
void sort_frames(captured_frame* frames, int count, frame_time* last);
