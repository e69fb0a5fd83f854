// Passing connections to the daemon. A busy daemon keeps the sender waiting for up to 10 seconds.
#pragma once

#include <chrono>
#include <string>

#include "tools/webfront/pool.h"

// The number of connections that are passed on at the same time. Further ones wait in a queue.
constexpr int webfront_handover_threads = 16;
// A connection that has waited in the queue for longer is refused: the daemon is stuck, and the browser's
// user should learn of it.
constexpr std::chrono::seconds webfront_queue_time{10};

// Passes the job's connection, with the job's request as the message, to the daemon at `socket_path`. Returns
// an empty string on success; the caller then closes its copy of the connection. On failure, returns the
// answer for the client.
std::string webfront_hand_over(const std::string& socket_path, const webfront_job& job);
