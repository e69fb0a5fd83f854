// Reading of the device's configuration files, as the platform's libmirnel.so offers it.
//
// A file has "[section]" lines, "key = value" lines and comments that begin with '#' or ';'. Blanks round
// section, key and value do not count; a value may stand in single or double quotes.
#pragma once

extern "C" {

struct mirnel_cfg;

// Texts are borrowed until the next mirnel_getcfg or mirnel_closecfg on the same file.
struct mirnel_entry {
    const char* section;  // "" before the first section line
    const char* key;
    const char* value;
};

// Returns the opened file (the caller closes it with mirnel_closecfg), or null with errno set.
struct mirnel_cfg* mirnel_opencfg(const char* path);

// The next "key = value" in file order: 1 with `*entry` filled, or 0 at the end. Lines that make no sense
// are passed over.
int mirnel_getcfg(struct mirnel_cfg* cfg, struct mirnel_entry* entry);

// Closes the file; null is allowed.
void mirnel_closecfg(struct mirnel_cfg* cfg);
}
