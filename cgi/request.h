// Serves request messages: with an answer, by keeping the browser that waits for a dump, or on a worker
// thread.
#pragma once

// Serves the request in `message`: the path, a zero byte and the query, `length` bytes in all, then another
// zero byte. Takes over `client_fd`, which has been answered and closed on return, or belongs to a worker, or
// is the browser that waits for a dump. Listener thread only.
void pre_process_request(int client_fd, char* message, int length);
