#include "dump/core_upload.h"

#include <dlfcn.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace {

// Looks up one function; `*function` is null if the library lacks it.
template <typename Function>
bool find_function(void* library, const char* name, Function* function) {
    void* found = dlsym(library, name);
    static_assert(sizeof found == sizeof *function);
    memcpy(function, &found, sizeof found);
    return found != nullptr;
}

// The unreserved characters of RFC 3986.
bool is_unreserved(char letter) {
    constexpr std::string_view marks = "-._~";
    return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
           (letter >= '0' && letter <= '9') || marks.find(letter) != std::string_view::npos;
}

void append_escaped(std::string* url, std::string_view text) {
    constexpr char digits[] = "0123456789ABCDEF";
    for (char letter : text) {
        if (is_unreserved(letter)) {
            *url += letter;
            continue;
        }
        auto code = static_cast<unsigned char>(letter);
        *url += '%';
        *url += digits[code >> 4];
        *url += digits[code & 15];
    }
}

bool is_control(char letter) {
    auto code = static_cast<unsigned char>(letter);
    return code < ' ' || code == 0x7f;
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
        commands_ = handle_ ? curl_.slist_append(nullptr, names.command.c_str()) : nullptr;
        return commands_ != nullptr;
    }
    CURLcode set_options(const core_upload_names& names, long timeout_s) {
        CURLcode code = set(CURLOPT_READFUNCTION, read_core);
        code = code == CURLE_OK ? set(CURLOPT_UPLOAD, 1L) : code;
        code = code == CURLE_OK ? set(CURLOPT_URL, names.url.c_str()) : code;
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

std::string curl_load(const char* soname, curl_library* curl) {
    void* library = dlopen(soname, RTLD_NOW | RTLD_LOCAL);
    const bool is_complete = library && find_function(library, "curl_global_init", &curl->global_init) &&
                             find_function(library, "curl_global_cleanup", &curl->global_cleanup) &&
                             find_function(library, "curl_easy_init", &curl->easy_init) &&
                             find_function(library, "curl_easy_setopt", &curl->easy_setopt) &&
                             find_function(library, "curl_easy_perform", &curl->easy_perform) &&
                             find_function(library, "curl_easy_cleanup", &curl->easy_cleanup) &&
                             find_function(library, "curl_easy_strerror", &curl->easy_strerror) &&
                             find_function(library, "curl_slist_append", &curl->slist_append) &&
                             find_function(library, "curl_slist_free_all", &curl->slist_free_all);
    return is_complete ? "" : dlerror();
}

bool core_upload_names_for(const core_upload_target& target, std::string_view name,
                           core_upload_names* names) {
    std::string file = target.path;
    file += '/';
    file += name;
    if (std::any_of(file.begin(), file.end(), is_control)) {
        return false;
    }
    names->url = target.url;
    names->url += target.path;
    names->url += '/';
    append_escaped(&names->url, name);
    names->command = "RNFR " + file;
    return true;
}

core_upload_result core_upload(const curl_library& curl, const core_upload_target& target,
                               std::string_view name) {
    core_upload_names names;
    if (!core_upload_names_for(target, name, &names)) {
        return {core_upload_outcome::failed, "its name has control characters"};
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
        return {core_upload_outcome::stored, ""};
    }
    const bool has_timed_out = code == CURLE_OPERATION_TIMEDOUT;
    return {has_timed_out ? core_upload_outcome::truncated : core_upload_outcome::failed,
            curl.easy_strerror(code)};
}
