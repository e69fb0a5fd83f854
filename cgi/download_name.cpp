#include "cgi/download_name.h"

#include <stdio.h>
#include <unistd.h>

#include <string_view>

#include "common/time_stamp.h"

namespace {

constexpr size_t subject_limit = 64;

constexpr std::string_view kept_characters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_";

}  // namespace

download_name download_name_now(const char* kind, const char* subject, const char* suffix) {
    char kept[subject_limit + 1];
    snprintf(kept, sizeof kept, "%s", subject);
    for (char* c = kept; *c; c++) {
        *c = kept_characters.find(*c) == std::string_view::npos ? '_' : *c;
    }
    download_name name;
    snprintf(name.text, sizeof name.text, "%s-%s-%.20s.%s", kind, kept, time_stamp_now().text, suffix);
    return name;
}

download_name download_name_of_host(const char* kind, const char* suffix) {
    char host[subject_limit + 1] = "";
    (void)gethostname(host, sizeof host - 1);
    return download_name_now(kind, host[0] ? host : "unknown", suffix);
}
