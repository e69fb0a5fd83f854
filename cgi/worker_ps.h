// The worker thread that streams the process list.
#pragma once

// Thread entry; takes over the connection, which is the argument itself: a descriptor cast to a pointer.
void* run_ps_request(void* connection);
