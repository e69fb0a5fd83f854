// What request parameters mean: numbers, lists and the mask of resource-trace sources.
#pragma once

#include <stdint.h>

#include <string_view>

// A decimal number as strtol(3) reads it, trailing text ignored; -1 when there is none or it does not fit
// into the 32 bits of the device's long (and so on every machine).
int32_t query_number(const char* text);

// The number of a parameter that can't be negative: 0 for null, for an invalid and for a negative one.
int32_t query_limit(const char* text);

// `text` without white space at its ends.
std::string_view query_trimmed(std::string_view text);

// One item of a list separated by commas.
struct query_item {
    static constexpr int capacity = 32;
    char text[capacity];  // trimmed, ended by a NUL
};

// Takes the next item off `*rest`; items of 32 characters or more and empty ones are skipped. Returns false
// when none is left.
bool query_next_item(std::string_view* rest, query_item* item);

// The mask bit of one source of the resource trace, 0 for an unknown name.
uint32_t query_trace_bit(std::string_view name);

// The mask of a list of sources; what it names no source in, null included, gives "fast".
uint32_t query_trace_mask(const char* list);
