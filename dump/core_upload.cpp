#include "dump/core_upload.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <iterator>
#include <utility>

namespace {

// The unreserved characters of RFC 3986.
bool is_unreserved(char letter) {
    return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
           (letter >= '0' && letter <= '9') || strchr("-._~", letter);
}

bool has_control_characters(const char* text) {
    for (; *text; text++) {
        auto code = static_cast<unsigned char>(*text);
        if (code < ' ' || code == 0x7f) {
            return true;
        }
    }
    return false;
}

// Returns `name` with its special characters escaped. Empty if memory runs out.
unique_malloc<char> escaped(const char* name) {
    constexpr char digits[] = "0123456789ABCDEF";
    unique_malloc<char> text(static_cast<char*>(malloc(3 * strlen(name) + 1)));
    char* end = text.get();
    if (!end) {
        return text;
    }
    for (; *name; name++) {
        if (is_unreserved(*name)) {
            *end++ = *name;
            continue;
        }
        auto code = static_cast<unsigned char>(*name);
        *end++ = '%';
        *end++ = digits[code >> 4];
        *end++ = digits[code & 15];
    }
    *end = '\0';
    return text;
}

// Returns "STARTPATH/NAME". Empty if memory runs out.
unique_malloc<char> joined(const char* start, const core_upload_target& target, const char* name) {
    char* text = nullptr;
    const int length = asprintf(&text, "%s%s/%s", start, target.path ? target.path.get() : "", name);
    return unique_malloc<char>(length < 0 ? nullptr : text);
}

size_t read_core(char* bytes, size_t size, size_t count, void* /*context*/) {
    ssize_t length = read(STDIN_FILENO, bytes, size * count);
    return length < 0 ? CURL_READFUNC_ABORT : static_cast<size_t>(length);
}

// Owns libcurl's state for one upload.
class upload_session {
public:
    explicit upload_session(const curl_library& curl) : curl_(curl) {}
    upload_session(const upload_session&) = delete;
    upload_session& operator=(const upload_session&) = delete;
    ~upload_session() {
        if (commands_) {
            curl_.slist_free_all(commands_);
        }
        if (handle_) {
            curl_.easy_cleanup(handle_);
        }
        if (is_initialized_) {
            curl_.global_cleanup();
        }
    }

    bool open(const core_upload_names& names) {
        is_initialized_ = curl_.global_init(CURL_GLOBAL_ALL) == CURLE_OK;
        handle_ = is_initialized_ ? curl_.easy_init() : nullptr;
        commands_ = handle_ ? curl_.slist_append(nullptr, names.command.get()) : nullptr;
        return commands_ != nullptr;
    }
    CURLcode set_options(const core_upload_names& names, long timeout_s) {
        CURLcode code = set(CURLOPT_READFUNCTION, read_core);
        code = code == CURLE_OK ? set(CURLOPT_UPLOAD, 1L) : code;
        code = code == CURLE_OK ? set(CURLOPT_URL, names.url.get()) : code;
        code = code == CURLE_OK ? set(CURLOPT_POSTQUOTE, commands_) : code;
        return code == CURLE_OK ? set(CURLOPT_TIMEOUT, timeout_s) : code;
    }
    CURLcode perform() { return curl_.easy_perform(handle_); }

private:
    template <typename Value>
    CURLcode set(CURLoption option, Value value) {
        return curl_.easy_setopt(handle_, option, value);
    }

    const curl_library& curl_;
    bool is_initialized_ = false;
    CURL* handle_ = nullptr;
    curl_slist* commands_ = nullptr;
};

}  // namespace

const char* curl_load(const char* soname, curl_library* curl) {
    // In the order of the structure, which has nothing else.
    static constexpr const char* names[] = {
        "curl_global_init",   "curl_global_cleanup", "curl_easy_init",
        "curl_easy_setopt",   "curl_easy_perform",   "curl_easy_cleanup",
        "curl_easy_strerror", "curl_slist_append",   "curl_slist_free_all",
    };
    void* functions[std::size(names)];
    static_assert(sizeof functions == sizeof *curl);
    void* library = dlopen(soname, RTLD_NOW | RTLD_LOCAL);
    for (size_t i = 0; i < std::size(names); i++) {
        functions[i] = library ? dlsym(library, names[i]) : nullptr;
        if (!functions[i]) {
            return dlerror();
        }
    }
    memcpy(curl, functions, sizeof functions);
    return nullptr;
}

const char* core_upload_names_for(const core_upload_target& target, const char* name,
                                  core_upload_names* names) {
    core_upload_names made;
    const unique_malloc<char> last = escaped(name);
    made.url = last ? joined(target.url.get(), target, last.get()) : nullptr;
    made.command = joined("RNFR ", target, name);
    if (!made.url || !made.command) {
        return "out of memory";
    }
    if (has_control_characters(made.command.get())) {
        return "its name has control characters";
    }
    *names = std::move(made);
    return nullptr;
}

core_upload_result core_upload(const curl_library& curl, const core_upload_target& target, const char* name) {
    core_upload_names names;
    if (const char* reason = core_upload_names_for(target, name, &names)) {
        return {core_upload_outcome::failed, reason};
    }
    upload_session session(curl);
    if (!session.open(names)) {
        return {core_upload_outcome::failed, "libcurl could not be initialized"};
    }
    CURLcode code = session.set_options(names, target.timeout_s);
    if (code == CURLE_OK) {
        code = session.perform();
    }
    if (code == CURLE_OK) {
        return {core_upload_outcome::stored};
    }
    const bool has_timed_out = code == CURLE_OPERATION_TIMEDOUT;
    return {has_timed_out ? core_upload_outcome::truncated : core_upload_outcome::failed,
            curl.easy_strerror(code)};
}
