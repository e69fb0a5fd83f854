// What the page asks of the front itself about the machine.
#pragma once

#include <stddef.h>

#include <string>
#include <string_view>

#include "tools/webfront/pool.h"

// A process can keep its command line from being read; so few listings are made at a time, so few wait for
// their turn, and neither stops anything else.
constexpr int webfront_listing_threads = 2;
constexpr size_t webfront_listing_queue = 16;

// Whether a path names a listing.
bool webfront_is_listing(std::string_view path);

// The whole answer, as JSON, for a job whose request is such a path.
std::string webfront_list(const webfront_job& job);
