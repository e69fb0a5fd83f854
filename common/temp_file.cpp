#include "common/temp_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

unique_fd temp_file_unlinked(const char* name_template) {
    char name[64];
    size_t length = strlen(name_template);
    if (length >= sizeof name) {
        errno = ENAMETOOLONG;
        return unique_fd();
    }
    memcpy(name, name_template, length + 1);
    unique_fd file(mkostemp(name, O_CLOEXEC));
    if (file) {
        unlinkat(AT_FDCWD, name, 0);
    }
    return file;
}
