// Ending by a signal in good order: what must not be cut short is finished first, and what must not be left
// as it is gets put right.
//
// Everything here may be used from any thread and does nothing unusual in a process that catches no signal.
#pragma once

#include <span>

// From now on each of `signals` ends the process like this: the work that ending_add named is done, holds are
// waited for, and then the signal takes its default action, so that the parent sees a death by that signal.
// The first of the signals counts; further ones change nothing. Work and holds together get `limit_ms`; then
// the process ends as it is.
//
// A signal that is ignored stays ignored; the others are unblocked. A thread of its own does the work. Call
// it once, after the last fork whose child is to go on in this way: in a forked child the signals have their
// default action. Returns false with errno set when there is no thread or timer; nothing is caught then.
bool ending_catch(std::span<const int> signals, int limit_ms);

// While any hold is outstanding, caught signals do not end the process; they do when the last hold is
// released. Holds are counted and may be nested. A first hold that comes when the end is already due does not
// return.
void ending_hold();
void ending_release();

// A hold for the length of a block.
class ending_held {
public:
    ending_held() { ending_hold(); }
    ending_held(const ending_held&) = delete;
    ending_held& operator=(const ending_held&) = delete;
    ~ending_held() { ending_release(); }
};

// Names work that is done before the end, on another thread; there is space for four. Does not return when
// the work has already begun.
void ending_add(void (*work)());
void ending_remove(void (*work)());
