#include "dump/core_upload.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "tests/unit/dump/fake_curl.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"

namespace {

core_upload_target target_of(const char* url, const char* path, long timeout_s = 0) {
    return {unique_malloc<char>(strdup(url)), unique_malloc<char>(path ? strdup(path) : nullptr), timeout_s};
}

const core_upload_target server = target_of("ftp://host", "/dumps");

struct name_texts {
    std::string url;
    std::string command;
};

name_texts names_for(const core_upload_target& target, const std::string& name) {
    core_upload_names names;
    EXPECT_STREQ(core_upload_names_for(target, name.c_str(), &names), nullptr) << name;
    return {names.url.get(), names.command.get()};
}

// Points standard input at `fd` for the length of a block.
class standard_input {
public:
    explicit standard_input(int fd) : saved_(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)) {
        EXPECT_EQ(dup2(fd, STDIN_FILENO), STDIN_FILENO);
    }
    standard_input(const standard_input&) = delete;
    standard_input& operator=(const standard_input&) = delete;
    ~standard_input() {
        if (saved_) {
            EXPECT_EQ(dup2(saved_.get(), STDIN_FILENO), STDIN_FILENO);
        } else {
            close(STDIN_FILENO);
        }
    }

private:
    unique_fd saved_;
};

core_upload_result upload(const curl_library& curl, const std::string& core, const core_upload_target& target,
                          const char* name = "core.1") {
    test_pipe pipe;
    EXPECT_EQ(write(pipe.in.get(), core.data(), core.size()), static_cast<ssize_t>(core.size()));
    pipe.in.reset();
    standard_input input(pipe.out.get());
    return core_upload(curl, target, name);
}

std::string load_error(const char* soname, curl_library* curl) {
    const char* message = curl_load(soname, curl);
    return message ? message : "";
}

}  // namespace

TEST(core_upload_names_for, joins_url_path_and_name) {
    name_texts names = names_for(target_of("ftp://u:p@host:2121", "/a/b"), "core.app-1_2~x");
    EXPECT_EQ(names.url, "ftp://u:p@host:2121/a/b/core.app-1_2~x");
    EXPECT_EQ(names.command, "RNFR /a/b/core.app-1_2~x");
}

TEST(core_upload_names_for, path_may_be_empty) {
    name_texts names = names_for(target_of("ftp://host", nullptr), "core.core");
    EXPECT_EQ(names.url, "ftp://host/core.core");
    EXPECT_EQ(names.command, "RNFR /core.core");
}

TEST(core_upload_names_for, name_is_escaped_in_the_url_but_not_in_the_command) {
    name_texts names = names_for(server, "a b\"c'd%e%41f#g?h;i\\j\xe4");
    EXPECT_EQ(names.url, "ftp://host/dumps/a%20b%22c%27d%25e%2541f%23g%3Fh%3Bi%5Cj%E4");
    EXPECT_EQ(names.command, "RNFR /dumps/a b\"c'd%e%41f#g?h;i\\j\xe4");
}

TEST(core_upload_names_for, slash_in_the_name_does_not_select_another_folder) {
    EXPECT_EQ(names_for(server, "../x").url, "ftp://host/dumps/..%2Fx");
    EXPECT_EQ(names_for(server, "a/b").command, "RNFR /dumps/a/b");
}

TEST(core_upload_names_for, path_is_not_escaped) {
    name_texts names = names_for(target_of("ftp://host", "/my%20dumps/50%25/"), "x y");
    EXPECT_EQ(names.url, "ftp://host/my%20dumps/50%25//x%20y");
    EXPECT_EQ(names.command, "RNFR /my%20dumps/50%25//x y");
    EXPECT_EQ(names_for(target_of("ftp://host/", "%2Fvar/cores"), "x").url, "ftp://host/%2Fvar/cores/x");
}

TEST(core_upload_names_for, long_names_are_not_cut) {
    std::string name(200, 'n');
    EXPECT_EQ(names_for(server, name).url, "ftp://host/dumps/" + name);
    EXPECT_EQ(names_for(server, name).command, "RNFR /dumps/" + name);
}

TEST(core_upload_names_for, control_characters_are_rejected) {
    core_upload_names names;
    for (const char* name : {"x\r\nDELE y", "\n", "a\tb", "a\x7f"}) {
        EXPECT_STREQ(core_upload_names_for(server, name, &names), "its name has control characters") << name;
    }
    EXPECT_STREQ(core_upload_names_for(target_of("ftp://host", "/a\nb"), "x", &names),
                 "its name has control characters");
    EXPECT_FALSE(names.url);
    EXPECT_FALSE(names.command);
}

TEST(core_upload_names_for, without_memory_fails_and_makes_no_names) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    const std::string name(100000, 'n');
    core_upload_names names;
    const char* reason = nullptr;
    {
        scoped_memory_shortage shortage(1024);
        reason = core_upload_names_for(server, name.c_str(), &names);
    }
    EXPECT_STREQ(reason, "out of memory");
    EXPECT_FALSE(names.url);
    EXPECT_FALSE(names.command);
}

TEST(core_upload, sends_standard_input_to_its_end) {
    curl_library curl = fake_curl();
    std::string core =
        "\x7f"
        "ELF and all the rest of it";
    EXPECT_EQ(upload(curl, core, server).outcome, core_upload_outcome::stored);
    EXPECT_EQ(fake.stored, core);
    EXPECT_EQ(fake.last_read, 0u);
}

TEST(core_upload, empty_core_is_stored) {
    curl_library curl = fake_curl();
    EXPECT_EQ(upload(curl, "", server).outcome, core_upload_outcome::stored);
    EXPECT_EQ(fake.stored, "");
}

TEST(core_upload, sets_its_options_in_order) {
    curl_library curl = fake_curl();
    upload(curl, "x", target_of("ftp://host", "/dumps", 17), "core.9");
    EXPECT_EQ(fake.options, (std::vector<CURLoption>{CURLOPT_READFUNCTION, CURLOPT_UPLOAD, CURLOPT_URL,
                                                     CURLOPT_POSTQUOTE, CURLOPT_TIMEOUT}));
    EXPECT_EQ(fake.upload, 1);
    EXPECT_EQ(fake.url, "ftp://host/dumps/core.9");
    EXPECT_EQ(fake.command, "RNFR /dumps/core.9");
    EXPECT_EQ(fake.timeout_s, 17);
}

TEST(core_upload, stops_at_the_first_option_that_fails) {
    for (CURLoption option :
         {CURLOPT_READFUNCTION, CURLOPT_UPLOAD, CURLOPT_URL, CURLOPT_POSTQUOTE, CURLOPT_TIMEOUT}) {
        curl_library curl = fake_curl();
        fake.failing_option = option;
        EXPECT_EQ(upload(curl, "x", server).outcome, core_upload_outcome::failed);
        EXPECT_EQ(fake.options.back(), option);
        EXPECT_EQ(fake.stored, "");
        EXPECT_EQ(fake.freed, (std::vector<std::string>{"list", "handle", "global"}));
    }
}

TEST(core_upload, frees_everything_after_success) {
    curl_library curl = fake_curl();
    upload(curl, "x", server);
    EXPECT_EQ(fake.freed, (std::vector<std::string>{"list", "handle", "global"}));
}

TEST(core_upload, frees_only_what_it_has_created) {
    curl_library curl = fake_curl();
    fake.global_result = CURLE_FAILED_INIT;
    EXPECT_EQ(upload(curl, "x", server).outcome, core_upload_outcome::failed);
    EXPECT_EQ(fake.freed, std::vector<std::string>());
    curl = fake_curl();
    fake.has_handle = false;
    EXPECT_EQ(upload(curl, "x", server).outcome, core_upload_outcome::failed);
    EXPECT_EQ(fake.freed, std::vector<std::string>{"global"});
}

TEST(core_upload, timeout_gives_the_outcome_truncated) {
    curl_library curl = fake_curl();
    fake.transfer_result = CURLE_OPERATION_TIMEDOUT;
    EXPECT_EQ(upload(curl, "x", server).outcome, core_upload_outcome::truncated);
}

TEST(core_upload, other_errors_fail_with_the_reason_from_libcurl) {
    curl_library curl = fake_curl();
    fake.transfer_result = CURLE_LOGIN_DENIED;
    core_upload_result result = upload(curl, "x", server);
    EXPECT_EQ(result.outcome, core_upload_outcome::failed);
    EXPECT_STREQ(result.reason, "went wrong");
}

TEST(core_upload, unreadable_input_aborts) {
    curl_library curl = fake_curl();
    unique_fd folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    standard_input input(folder.get());
    EXPECT_EQ(core_upload(curl, server, "x").outcome, core_upload_outcome::failed);
    EXPECT_EQ(fake.last_read, static_cast<size_t>(CURL_READFUNC_ABORT));
}

TEST(core_upload, name_with_control_characters_starts_no_upload) {
    curl_library curl = fake_curl();
    EXPECT_EQ(upload(curl, "x", server, "a\nb").outcome, core_upload_outcome::failed);
    EXPECT_TRUE(fake.options.empty());
    EXPECT_TRUE(fake.freed.empty());
}

TEST(core_upload, without_memory_fails_and_starts_no_upload) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    const std::string name(100000, 'n');
    curl_library curl = fake_curl();
    core_upload_result result;
    {
        scoped_memory_shortage shortage(1024);
        result = core_upload(curl, server, name.c_str());
    }
    EXPECT_EQ(result.outcome, core_upload_outcome::failed);
    EXPECT_STREQ(result.reason, "out of memory");
    EXPECT_TRUE(fake.options.empty());
    EXPECT_TRUE(fake.freed.empty());
}

TEST(curl_load, names_the_missing_library) {
    curl_library curl;
    EXPECT_NE(load_error("libnosuch.so.4", &curl).find("libnosuch.so.4"), std::string::npos);
}

TEST(curl_load, names_the_missing_function) {
    curl_library curl;
    EXPECT_NE(load_error("libc.so.6", &curl).find("curl_global_init"), std::string::npos);
    EXPECT_EQ(curl.global_init, nullptr);
}

TEST(curl_load, finds_every_function_of_the_real_library) {
    curl_library curl;
    std::string missing = load_error(curl_soname, &curl);
    if (missing.find("cannot open shared object file") != std::string::npos) {
        GTEST_SKIP() << missing;
    }
    ASSERT_EQ(missing, "");
    EXPECT_STREQ(curl.easy_strerror(CURLE_OK), "No error");
    curl_slist* list = curl.slist_append(nullptr, "x");
    ASSERT_NE(list, nullptr);
    EXPECT_STREQ(list->data, "x");
    curl.slist_free_all(list);
}
