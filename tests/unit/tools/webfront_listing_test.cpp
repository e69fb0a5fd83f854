#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>

#include "tools/webfront/interfaces.h"
#include "tools/webfront/listing.h"

namespace {

std::string list(const char* path) {
    webfront_job job;
    job.request = path;
    return webfront_list(job);
}

}  // namespace

TEST(webfront_interfaces, are_known_to_the_kernel) {
    std::vector<std::string> names = webfront_read_interfaces();
    EXPECT_NE(std::ranges::find(names, "lo"), names.end());
    for (const std::string& name : names) {
        EXPECT_NE(if_nametoindex(name.c_str()), 0U) << name;
    }
}

TEST(webfront_interfaces, are_written_as_json) {
    EXPECT_EQ(webfront_interfaces_json({}), "{\"interfaces\":[]}\n");
    const std::string names[] = {"lo", "e\"th", "wl\xff"};
    EXPECT_EQ(webfront_interfaces_json(names), "{\"interfaces\":[\"lo\",\"e\\\"th\",\"wl\xef\xbf\xbd\"]}\n");
}

TEST(webfront_listing, has_two_paths) {
    EXPECT_TRUE(webfront_is_listing("/webfront/processes"));
    EXPECT_TRUE(webfront_is_listing("/webfront/interfaces"));
    EXPECT_FALSE(webfront_is_listing("/webfront/processes/"));
    EXPECT_FALSE(webfront_is_listing("/processes"));
    EXPECT_FALSE(webfront_is_listing(""));
}

TEST(webfront_listing, is_sent_as_json) {
    std::string answer = list("/webfront/interfaces");
    EXPECT_TRUE(answer.starts_with("HTTP/1.0 200 OK\r\n"));
    EXPECT_NE(answer.find("\r\nContent-Type: application/json\r\n"), std::string::npos);
    EXPECT_NE(answer.find("\r\n\r\n{\"interfaces\":["), std::string::npos);
    EXPECT_NE(answer.find("\"lo\""), std::string::npos);
    EXPECT_TRUE(list("/webfront/else").starts_with("HTTP/1.0 404 "));
}
