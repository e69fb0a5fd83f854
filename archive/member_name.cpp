#include "archive/member_name.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace {

constexpr size_t longest_process_file = sizeof "fdmap" - 1;

// How many bytes of `text` fit in a member name that also has the archive's prefix and `other_length` other
// bytes. An int, for printf.
int fitting_length(const tar_handle* t, const char* text, size_t other_length) {
    const size_t used = t->prefix_len + other_length;
    const size_t left = longest_member_name - std::min(used, longest_member_name);
    return static_cast<int>(strnlen(text, left));
}

}  // namespace

member_name member_name_of_process(const tar_handle* t, const char* program, pid_t pid, const char* file) {
    char end[24];
    const int end_length = snprintf(end, sizeof end, ".%d/", static_cast<int>(pid));
    const size_t other_length = static_cast<size_t>(end_length) + longest_process_file;
    const int kept = fitting_length(t, program, other_length);
    member_name name;
    snprintf(name.text, sizeof name.text, "%.*s%s%s", kept, program, end, file);
    return name;
}

member_name member_name_in_folder(const tar_handle* t, const char* folder, const char* file,
                                  unsigned long long number) {
    char end[24] = "";
    const size_t folder_length = strlen(folder);
    int kept = fitting_length(t, file, folder_length);
    if (file[kept] != '\0') {
        const int end_length = snprintf(end, sizeof end, "~%llu", number);
        kept = fitting_length(t, file, folder_length + static_cast<size_t>(end_length));
    }
    member_name name;
    snprintf(name.text, sizeof name.text, "%s%.*s%s", folder, kept, file, end);
    return name;
}
