// A libcurl that records its calls and reads the upload to its end.
#pragma once

#include <stdarg.h>

#include <string>
#include <utility>
#include <vector>

#include "dump/core_upload.h"

struct fake_curl_state {
    // How it behaves.
    CURLcode global_result = CURLE_OK;
    bool has_handle = true;
    CURLoption failing_option = CURLOPT_LASTENTRY;
    CURLcode transfer_result = CURLE_OK;
    size_t block = 7;
    // The calls and bytes that it has recorded.
    std::vector<CURLoption> options;
    std::string url;
    std::string command;
    long timeout_s = -1;
    long upload = -1;
    std::string stored;
    size_t last_read = 0;
    std::vector<std::string> freed;  // in order
};

inline fake_curl_state fake;
inline size_t (*fake_reader)(char*, size_t, size_t, void*) = nullptr;

inline CURLcode fake_setopt(CURL*, CURLoption option, ...) {
    va_list values;
    va_start(values, option);
    fake.options.push_back(option);
    if (option == CURLOPT_READFUNCTION) {
        fake_reader = va_arg(values, size_t(*)(char*, size_t, size_t, void*));
    } else if (option == CURLOPT_UPLOAD) {
        fake.upload = va_arg(values, long);
    } else if (option == CURLOPT_URL) {
        fake.url = va_arg(values, const char*);
    } else if (option == CURLOPT_POSTQUOTE) {
        const auto* commands = va_arg(values, const curl_slist*);
        fake.command = commands->next == nullptr ? commands->data : "several";
    } else if (option == CURLOPT_TIMEOUT) {
        fake.timeout_s = va_arg(values, long);
    }
    va_end(values);
    return option == fake.failing_option ? CURLE_BAD_FUNCTION_ARGUMENT : CURLE_OK;
}

inline CURLcode fake_perform(CURL*) {
    std::vector<char> block(fake.block);
    do {
        fake.last_read = fake_reader(block.data(), 1, block.size(), nullptr);
        if (fake.last_read <= block.size()) {
            fake.stored.append(block.data(), fake.last_read);
        }
    } while (fake.last_read > 0 && fake.last_read <= block.size());
    return fake.last_read == CURL_READFUNC_ABORT ? CURLE_ABORTED_BY_CALLBACK : fake.transfer_result;
}

inline curl_slist* fake_append(curl_slist* list, const char* text) {
    return new curl_slist{const_cast<char*>(text), list};
}

inline void fake_free_list(curl_slist* list) {
    fake.freed.push_back("list");
    delete list;
}

// Resets the fake.
inline curl_library fake_curl() {
    fake = fake_curl_state();
    fake_reader = nullptr;
    curl_library curl;
    curl.global_init = [](long) { return fake.global_result; };
    curl.global_cleanup = [] { fake.freed.push_back("global"); };
    curl.easy_init = []() -> CURL* { return fake.has_handle ? &fake : nullptr; };
    curl.easy_setopt = fake_setopt;
    curl.easy_perform = fake_perform;
    curl.easy_cleanup = [](CURL*) { fake.freed.push_back("handle"); };
    curl.easy_strerror = [](CURLcode) { return "went wrong"; };
    curl.slist_append = fake_append;
    curl.slist_free_all = fake_free_list;
    return curl;
}
