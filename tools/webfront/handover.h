// Handing connections over to the daemon. A daemon that is busy holds the sender for up to 10 seconds.
#pragma once

#include <chrono>
#include <string>

#include "tools/webfront/pool.h"

// Connections handed over at the same time at most; further ones queue.
constexpr int webfront_handover_threads = 16;
// Who has queued for longer is refused instead of being tried: the daemon is stuck, and the browser's user
// should hear of it.
constexpr std::chrono::seconds webfront_queue_time{10};

// Gives the connection, with the message that the job's request is, to the daemon at `socket_path`; the
// front's own copy may then be closed. Returns the answer for a client that the daemon did not take, else an
// empty one.
std::string webfront_hand_over(const std::string& socket_path, const webfront_job& job);
