// An orderly end by a signal: work that must not be interrupted is finished first, and state that must not
// remain is restored.
//
// All calls may be made from any thread, and have no effect in a process that never called ending_catch.
#pragma once

#include <span>

// From now on, each of `signals` ends the process in these steps: the functions given to ending_add run, all
// holds are released by their owners, and the signal takes its default action, so the parent sees a death by
// that signal. The first signal counts; later ones change nothing. After `limit_ms` the process ends in any
// case.
//
// An ignored signal stays ignored; the others are unblocked. A thread of its own does the work. Call it once,
// after the last fork whose child should end this way: in a forked child, the signals have their default
// action. Returns false with errno set if there is no thread or timer; then no signal is caught.
bool ending_catch(std::span<const int> signals, int limit_ms);

// While there is a hold, caught signals do not end the process; they do when the last hold is released. Holds
// are counted and may be nested. The first hold after the end has begun does not return.
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

// Adds a function that runs before the end, on another thread; at most four. Does not return if the functions
// have begun to run.
void ending_add(void (*work)());
void ending_remove(void (*work)());
