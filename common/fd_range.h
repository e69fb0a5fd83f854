// Closing descriptors wholesale.
#pragma once

// Closes every descriptor from `first` on, for a child that goes on without an exec. Where the kernel
// has no close_range(2), closes each descriptor that /proc/self/fd lists; where that list cannot be read,
// each number up to the limit of open files (65536 of them at most).
void fd_range_close_from(unsigned first);

// What fd_range_close_from does where the kernel has no close_range(2).
void fd_range_close_listed(unsigned first);
