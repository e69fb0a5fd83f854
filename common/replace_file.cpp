#include "common/replace_file.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/safe_io.h"
#include "common/unique_fd.h"

namespace {

constexpr std::string_view mark = ".tmp-";
constexpr std::string_view blanks = "XXXXXX";
constexpr mode_t private_mode = 0600;
constexpr int name_attempts = 16;

using unique_text = malloc_array<char>;

// `path` followed by the mark and the blanks; null if memory runs out.
unique_text sibling_template(std::string_view path) {
    size_t length = path.size() + mark.size() + blanks.size();
    unique_text name(static_cast<char*>(malloc(length + 1)));
    if (name) {
        char* end = static_cast<char*>(mempcpy(name.get(), path.data(), path.size()));
        end = static_cast<char*>(mempcpy(end, mark.data(), mark.size()));
        memcpy(end, blanks.data(), blanks.size());
        name[length] = '\0';
    }
    return name;
}

char* blanks_of(char* name) {
    return name + strlen(name) - blanks.size();
}

bool fill_blanks(char* name) {
    constexpr char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
    unsigned char bytes[blanks.size()];
    if (getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof bytes)) {
        return false;
    }
    for (size_t i = 0; i < sizeof bytes; i++) {
        blanks_of(name)[i] = letters[bytes[i] % (sizeof letters - 1)];
    }
    return true;
}

// Opens a file without a name in the folder of `name`.
unique_fd open_unnamed(char* name) {
    char* slash = strrchr(name, '/');
    if (!slash) {
        return unique_fd(open(".", O_TMPFILE | O_WRONLY | O_CLOEXEC, private_mode));
    }
    char after = slash[1];
    slash[1] = '\0';
    unique_fd file(open(name, O_TMPFILE | O_WRONLY | O_CLOEXEC, private_mode));
    slash[1] = after;
    return file;
}

bool link_unnamed(int file, char* name) {
    char link[32];
    snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    for (int i = 0; i < name_attempts && fill_blanks(name); i++) {
        if (linkat(AT_FDCWD, link, AT_FDCWD, name, AT_SYMLINK_FOLLOW) == 0) {
            return true;
        }
        if (errno != EEXIST) {
            return false;
        }
    }
    return false;
}

bool write_whole(int file, std::string_view text, mode_t mode) {
    errno = EFBIG;  // for a text that is too long for one write; a call that fails sets its own
    return safe_write(file, text.data(), static_cast<unsigned>(text.size())) ==
               static_cast<ssize_t>(text.size()) &&
           (mode == private_mode || fchmod(file, mode) == 0);
}

// The file gets its name when the kernel has the whole text, so a program that is killed before that leaves
// no file.
bool stage_unnamed(char* name, std::string_view text, mode_t mode) {
    unique_fd file = open_unnamed(name);
    return file && write_whole(file.get(), text, mode) && link_unnamed(file.get(), name);
}

void unlink_keeping_errno(const char* name) {
    int saved = errno;
    unlinkat(AT_FDCWD, name, 0);
    errno = saved;
}

bool stage_named(char* name, std::string_view text, mode_t mode) {
    memcpy(blanks_of(name), blanks.data(), blanks.size());
    unique_fd file(mkostemp(name, O_CLOEXEC));
    if (!file) {
        return false;
    }
    if (!write_whole(file.get(), text, mode)) {
        unlink_keeping_errno(name);
        return false;
    }
    return true;
}

// Keeps signals out of this thread for the length of a block.
struct signals_held {
    signals_held() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    signals_held(const signals_held&) = delete;
    signals_held& operator=(const signals_held&) = delete;
    ~signals_held() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

    sigset_t before;
};

}  // namespace

int replace_file(const char* path, std::string_view text, mode_t mode) {
    // A signal that ends the program must not do so while the file has its temporary name.
    const signals_held held;
    unique_text name = sibling_template(path);
    if (!name || !(stage_unnamed(name.get(), text, mode) || stage_named(name.get(), text, mode))) {
        return -1;
    }
    if (rename(name.get(), path) < 0) {
        unlink_keeping_errno(name.get());
        return -1;
    }
    return 0;
}
