// The platform library libmirnel.so: reads the device's configuration files.
//
// A file has "[section]" lines, "key = value" lines and comments that begin with '#' or ';'. Blanks around
// section, key and value are ignored; a value may be in single or double quotes.
#pragma once

extern "C" {

struct mirnel_cfg;

// The strings are valid until the next mirnel_getcfg or mirnel_closecfg on the same file.
struct mirnel_entry {
    const char* section;  // "" before the first section line
    const char* key;
    const char* value;
};

// Opens a file, which the caller closes with mirnel_closecfg. Null with errno set on failure.
struct mirnel_cfg* mirnel_opencfg(const char* path);

// Reads the next "key = value" in file order. Returns 1 with `*entry` filled, or 0 at the end. Malformed
// lines are skipped.
int mirnel_getcfg(struct mirnel_cfg* cfg, struct mirnel_entry* entry);

// Closes the file; null is allowed.
void mirnel_closecfg(struct mirnel_cfg* cfg);
}
