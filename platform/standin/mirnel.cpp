// Stand-in for the reader of configuration files: one pass, a line at a time, in place in the line's buffer.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#pragma GCC visibility push(default)
#include "platform/mirnel.h"
#pragma GCC visibility pop

struct mirnel_cfg {
    FILE* file;
    char* line;  // getline's buffer; keys and values point into it
    size_t line_size;
    char* section;  // null before the first section line
};

namespace {

// Trims blanks at both ends in place. CR and LF count as blanks.
char* trim(char* text) {
    constexpr const char* blanks = " \t\r\n\v\f";
    text += strspn(text, blanks);
    size_t length = strlen(text);
    while (length > 0 && strchr(blanks, text[length - 1]) != nullptr) {
        length--;
    }
    text[length] = '\0';
    return text;
}

char* unquote(char* text) {
    size_t length = strlen(text);
    bool quoted = length >= 2 && (*text == '"' || *text == '\'') && text[length - 1] == *text;
    if (!quoted) {
        return text;
    }
    text[length - 1] = '\0';
    return text + 1;
}

// Copies the name out of "[name]" and ignores the rest of the line. False if memory runs out.
bool enter_section(mirnel_cfg* cfg, char* text) {
    char* end = strchr(text, ']');
    if (end == nullptr) {
        return true;
    }
    *end = '\0';
    char* section = strdup(trim(text + 1));
    if (section == nullptr) {
        return false;
    }
    free(cfg->section);
    cfg->section = section;
    return true;
}

bool take_pair(const mirnel_cfg* cfg, char* text, mirnel_entry* entry) {
    char* value = strchr(text, '=');
    if (value == nullptr) {
        return false;
    }
    *value++ = '\0';
    const char* key = trim(text);
    if (*key == '\0') {
        return false;
    }
    *entry = {cfg->section != nullptr ? cfg->section : "", key, unquote(trim(value))};
    return true;
}

// A path that can be opened but not read (a directory) fails here, where the caller still gets the errno.
bool is_readable_as_text(FILE* file) {
    struct stat info;
    bool known = fstat(fileno(file), &info) == 0;
    bool folder = known && S_ISDIR(info.st_mode);
    if (folder) {
        errno = EISDIR;
    }
    return known && !folder;
}

}  // namespace

mirnel_cfg* mirnel_opencfg(const char* path) {
    FILE* file = fopen(path, "re");
    if (file == nullptr) {
        return nullptr;
    }
    auto* cfg = is_readable_as_text(file) ? static_cast<mirnel_cfg*>(calloc(1, sizeof(mirnel_cfg))) : nullptr;
    if (cfg == nullptr) {
        int saved = errno;
        fclose(file);
        errno = saved;
        return nullptr;
    }
    cfg->file = file;
    return cfg;
}

int mirnel_getcfg(mirnel_cfg* cfg, mirnel_entry* entry) {
    // A NUL ends its line: a C caller could not see the text after it.
    while (getline(&cfg->line, &cfg->line_size, cfg->file) >= 0) {
        char* text = trim(cfg->line);
        if (*text == '#' || *text == ';') {
            continue;
        }
        if (*text == '[') {
            if (!enter_section(cfg, text)) {
                return 0;  // the following keys would be reported in the wrong section
            }
            continue;
        }
        if (take_pair(cfg, text, entry)) {
            return 1;
        }
    }
    return 0;
}

void mirnel_closecfg(mirnel_cfg* cfg) {
    if (cfg == nullptr) {
        return;
    }
    fclose(cfg->file);
    free(cfg->line);
    free(cfg->section);
    free(cfg);
}
