// Parsing of CGI queries, as the platform's libvextor.so offers it.
//
// The parsed values are one process-wide set: one thread at a time, and values are borrowed until the set is
// cleaned up or replaced.
#pragma once

extern "C" {

// Takes over a copy of `query` (null reads as empty), split at '&'; '+' is a space, %XX is decoded and a bad
// escape is left as it stands. What an earlier query held is released.
void CGI_set_query(const char* query);

// Keeps the parsed query for CGI_get_value; until then there are no values.
void CGI_save_env(void);

// The value of the first pair whose decoded name equals `name` exactly, the empty text for a name without
// '=', null when there is none. Borrowed until CGI_cleanup or the next CGI_set_query.
const char* CGI_get_value(const char* name);

// Releases everything that is held; may be called at any time.
void CGI_cleanup(void);
}
