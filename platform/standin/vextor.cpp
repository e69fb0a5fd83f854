// Stand-in for the parser of CGI queries. It splits and decodes a copy of the query in place, since decoding
// never makes a text longer.
#include <stdlib.h>
#include <string.h>

#pragma GCC visibility push(default)
#include "platform/vextor.h"
#pragma GCC visibility pop

namespace {

struct pair {
    const char* name;
    const char* value;
};

struct parsed_query {
    char* text = nullptr;   // the buffer that the pairs point into
    pair* pairs = nullptr;  // in the order of the query
    size_t count = 0;
    bool saved = false;
};

parsed_query current;

int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Decodes a string in place and returns its new length. Text after a decoded NUL is kept, but C callers do
// not see it.
size_t decode(char* text) {
    char* out = text;
    for (const char* in = text; *in != '\0'; in++) {
        int high = *in == '%' ? hex_digit(in[1]) : -1;
        int low = high >= 0 ? hex_digit(in[2]) : -1;
        if (low >= 0) {
            *out++ = static_cast<char>(high * 16 + low);
            in += 2;
        } else {
            *out++ = *in == '+' ? ' ' : *in;
        }
    }
    *out = '\0';
    return static_cast<size_t>(out - text);
}

size_t count_separators(const char* text) {
    size_t count = 0;
    for (; *text != '\0'; text++) {
        count += *text == '&';
    }
    return count;
}

void add_pair(parsed_query* query, char* text) {
    char* value = strchr(text, '=');
    if (value != nullptr) {
        *value++ = '\0';
        decode(value);
    }
    size_t name_length = decode(text);
    if (strlen(text) != name_length) {
        return;  // a name with a NUL in it equals no C string
    }
    query->pairs[query->count++] = {text, value != nullptr ? value : ""};
}

void parse(parsed_query* query) {
    char* rest = query->text;
    while (rest != nullptr) {
        char* text = strsep(&rest, "&");
        if (*text != '\0') {
            add_pair(query, text);
        }
    }
}

}  // namespace

void CGI_set_query(const char* query) {
    char* text =
        strdup(query != nullptr ? query : "");  // before the release: `query` may be one of our values
    CGI_cleanup();
    pair* pairs =
        text != nullptr ? static_cast<pair*>(calloc(count_separators(text) + 1, sizeof(pair))) : nullptr;
    if (pairs == nullptr) {
        free(text);  // if memory runs out, the query has no values
        return;
    }
    current.text = text;
    current.pairs = pairs;
    parse(&current);
}

void CGI_save_env(void) {
    current.saved = true;
}

const char* CGI_get_value(const char* name) {
    if (name == nullptr || !current.saved) {
        return nullptr;
    }
    for (size_t i = 0; i < current.count; i++) {
        if (strcmp(current.pairs[i].name, name) == 0) {
            return current.pairs[i].value;
        }
    }
    return nullptr;
}

void CGI_cleanup(void) {
    free(current.pairs);
    free(current.text);
    current = {};
}
