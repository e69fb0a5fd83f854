#include "cgi/download_name.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sched.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "common/time_stamp.h"
#include "tests/unit/cgi/download_name_shape.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

namespace {

std::string name_of(const std::string& subject) {
    return download_name_now("kind", subject.c_str(), "tgz").text;
}

// The subject in the name for `subject`.
std::string shown(const std::string& subject) {
    const std::string name = name_of(subject);
    EXPECT_TRUE(name.starts_with("kind-")) << name;
    return name.substr(5, name.size() - 5 - strlen("-YYYYMMDD-HHMMSS.tgz"));
}

// The name of this host as the subject of a download, while the host has the name `host`. The machine's own
// name does not change. An empty string: that is not allowed here.
std::string shown_host(const std::string& host) {
    test_pipe result;
    const int status = run_in_child([&] {
        if (unshare(CLONE_NEWUTS) != 0 || sethostname(host.c_str(), host.size()) != 0) {
            return 1;
        }
        const std::string name = download_name_of_host("kind", "tgz").text;
        return write(result.in.get(), name.data(), name.size()) > 0 ? 0 : 2;
    });
    char name[256] = "";
    return exited_with(status, 0) && read(result.out.get(), name, sizeof name - 1) > 0 ? without_stamp(name)
                                                                                       : "";
}

}  // namespace

TEST(download_name, tells_kind_subject_and_local_time) {
    const std::string before = time_stamp_now().text;
    const std::string name = name_of("camera-7.local_net");
    const std::string after = time_stamp_now().text;
    EXPECT_EQ(without_stamp(name), "kind-camera-7.local_net-.tgz");
    EXPECT_TRUE(name == "kind-camera-7.local_net-" + before + ".tgz" ||
                name == "kind-camera-7.local_net-" + after + ".tgz")
        << name;
}

TEST(download_name, odd_characters_of_the_subject_become_underscores) {
    EXPECT_EQ(shown("azAZ09.-_"), "azAZ09.-_");
    EXPECT_EQ(shown("/../a b\"c\\d;\r\ne%\x7f"), "_.._a_b_c_d___e__");
    EXPECT_EQ(shown("k\xc3\xbc"), "k__");
    EXPECT_EQ(shown(""), "");
}

TEST(download_name, long_subject_is_cut_and_the_rest_is_kept) {
    EXPECT_EQ(shown(std::string(64, 'a')), std::string(64, 'a'));
    EXPECT_EQ(shown(std::string(64, 'a') + "b"), std::string(64, 'a'));
    EXPECT_EQ(shown(std::string(5000, '/')), std::string(64, '_'));
}

TEST(download_name_of_host, has_the_name_of_the_host) {
    char host[HOST_NAME_MAX + 1] = "";
    ASSERT_EQ(gethostname(host, sizeof host), 0);
    EXPECT_EQ(without_stamp(download_name_of_host("kind", "tgz").text),
              without_stamp(download_name_now("kind", host, "tgz").text));
}

TEST(download_name_of_host, odd_and_missing_names_are_replaced) {
    if (shown_host("x").empty()) {
        GTEST_SKIP() << "needs root and a private host name";
    }
    EXPECT_EQ(shown_host("lab camera"), "kind-lab_camera-.tgz");
    EXPECT_EQ(shown_host(""), "kind-unknown-.tgz");
}
