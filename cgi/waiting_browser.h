// The one browser that waits for a dump, pushed by the core handler or popped from a dump directory.
//
// Listener thread only.
#pragma once

#include "common/unique_fd.h"

// A dump is given up if nothing of it arrives for this long.
constexpr int waiting_browser_patience_ms = 10000;

// Keeps `client` as the waiting browser. A browser that was waiting already is closed without an answer.
void set_listener(unique_fd client);

// True if the waiting browser asked for a stored dump; set_pop stores that.
bool is_pop();
void set_pop(bool wanted);

// Closes the waiting browser's connection, if a browser waits.
void close_listener();

// Forwards the dump from `in_fd` (taken over) to the waiting browser as a download called `name`, and closes
// both. Returns 0, or 1 if no browser waits or the transfer failed or timed out
// (waiting_browser_patience_ms). The browser keeps what it has received.
int handle_request_push(int in_fd, const char* name);
