// The lists of processes and interfaces, which the page requests from the front.
#pragma once

#include <stddef.h>

#include <string>
#include <string_view>

#include "tools/webfront/pool.h"

// Reading the command line of a process can block. Listings have threads of their own, so this delays only
// other listings. The short queue limits the number of requests that wait.
constexpr int webfront_listing_threads = 2;
constexpr size_t webfront_listing_queue = 16;

bool webfront_is_listing(std::string_view path);

// Returns the whole answer, as JSON. The job's request is a path for which webfront_is_listing() is true.
std::string webfront_list(const webfront_job& job);
