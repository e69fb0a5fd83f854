// Closes many descriptors at once.
#pragma once

// Closes every descriptor from `first` on, for a child that does not exec. Without close_range(2), closes
// each descriptor in /proc/self/fd. If that cannot be read, closes each number below the limit of open files,
// or below 65536 if the limit is higher.
void fd_range_close_from(unsigned first);

// What fd_range_close_from does without close_range(2).
void fd_range_close_listed(unsigned first);
