// From a request message to an answer, to a browser that waits, or to a worker thread.
#pragma once

// Serves the request in `message`: the request path, a zero byte and the query, `length` bytes and a zero
// byte behind them. Takes over `client_fd`: on return it has been answered and closed, or handed to a worker,
// or kept as the browser that waits for a dump. Listener thread only.
void pre_process_request(int client_fd, char* message, int length);
