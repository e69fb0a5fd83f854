// The platform library libvextor.so: parses CGI queries.
//
// There is one set of values for the whole process. Not thread-safe. Values are valid until the set is
// cleaned up or replaced.
#pragma once

extern "C" {

// Parses a copy of `query` (null means empty): pairs are split at '&', '+' is a space, %XX is decoded, and a
// bad escape is kept as it is. Releases the values of an earlier query.
void CGI_set_query(const char* query);

// Makes the parsed query available to CGI_get_value. Before this call there are no values.
void CGI_save_env(void);

// The value of the first pair whose decoded name equals `name`; "" for a name without '='; null if there is
// no such pair. Valid until CGI_cleanup or the next CGI_set_query.
const char* CGI_get_value(const char* name);

// Releases all values. May be called at any time.
void CGI_cleanup(void);
}
