// The one browser that waits for a dump, pushed by the core handler or popped from a dump directory.
//
// Listener thread only.
#pragma once

// How long whatever sends a dump may be silent.
constexpr int silent_dump_ms = 10000;

// Keeps `client_fd` (taken over) as the waiting browser; one that waited before is closed unanswered.
void set_listener(int client_fd);

// Whether the waiting browser asked for a stored dump; set_pop says so.
bool is_pop();
void set_pop(bool wanted);

// Closes the waiting browser's connection, if there is one.
void close_listener();

// Forwards the dump read from `in_fd` (taken over) to the waiting browser as a download called `name`, and
// closes both. Returns 0, or 1 when no browser waits or the transfer failed, also because nothing came from
// `in_fd` for silent_dump_ms; the browser keeps what it has got by then.
int handle_request_push(int in_fd, const char* name);
