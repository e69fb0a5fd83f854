// Lists about the machine, which the page requests from the front.
#pragma once

#include <stddef.h>

#include <string>
#include <string_view>

#include "tools/webfront/pool.h"

// A process can block the reading of its command line. Two threads make all listings, so that such a process
// delays other listings at most, and a short queue keeps the requests that wait few.
constexpr int webfront_listing_threads = 2;
constexpr size_t webfront_listing_queue = 16;

bool webfront_is_listing(std::string_view path);

// Returns the whole answer, as JSON. The job's request is a path for which webfront_is_listing() is true.
std::string webfront_list(const webfront_job& job);
