// The worker thread that streams the process list.
#pragma once

// Thread entry; the argument is the connection itself, cast to a pointer, and is taken over.
void* run_ps_request(void* connection);
