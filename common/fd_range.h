// Closing descriptors wholesale.
#pragma once

// Closes every descriptor from `first` on, for a child that goes on without an exec. Where the kernel
// has no close_range(2), each descriptor is closed that /proc/self/fd names, which takes one free descriptor.
void fd_range_close_from(unsigned first);

// What fd_range_close_from does where the kernel has no close_range(2).
void fd_range_close_listed(unsigned first);
