// Parses request parameters: numbers, lists and the mask of resource-trace sources.
#pragma once

#include <stdint.h>

#include <string_view>

// The decimal number at the start of `text`, as strtol(3) reads it; text after it is ignored. -1 if there is
// no number or it does not fit into 32 bits, the size of the device's long.
int32_t query_number(const char* text);

// The number of a parameter that is never negative: 0 for null, an invalid or a negative number.
int32_t query_limit(const char* text);

// `text` without white space at either end.
std::string_view query_trimmed(std::string_view text);

// One item of a list separated by commas.
struct query_item {
    static constexpr int capacity = 32;
    char text[capacity];  // trimmed, ends in a NUL
};

// Removes the next item from `*rest` and stores it in `*item`. Skips items of query_item::capacity characters
// or more and empty ones. Returns false at the end of the list.
bool query_next_item(std::string_view* rest, query_item* item);

// The mask bit of one source of the resource trace, 0 for an unknown name.
uint32_t query_trace_bit(std::string_view name);

// The mask of a list of sources; "fast" if the list is null or names no source.
uint32_t query_trace_mask(const char* list);
