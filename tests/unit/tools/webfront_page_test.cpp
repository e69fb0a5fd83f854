#include <gtest/gtest.h>

#include <string>

#include "tools/webfront/page.h"

namespace {

std::string_view bytes_of(std::string_view path) {
    const webfront_page_file* file = webfront_find_page_file(path);
    EXPECT_NE(file, nullptr) << path;
    return file ? file->bytes : "";
}

bool holds(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

}  // namespace

TEST(webfront_page, links_to_every_request_that_needs_no_parameter) {
    for (std::string target : {"/debug.tgz", "/debug.tar", "/debugar.cgi?cmd=ps", "/debugar.cgi?cmd=strace",
                               "/debugar.cgi?cmd=coredump", "/debug.tgz?listen", "/debug.tgz?pop"}) {
        EXPECT_TRUE(holds(bytes_of("/"), "<a href=\"" + target + "\">")) << target;
    }
}

TEST(webfront_page, has_a_field_for_every_parameter) {
    for (std::string name : {"pid", "interface", "duration", "totalsize", "interval", "trace"}) {
        EXPECT_TRUE(holds(bytes_of("/"), " name=\"" + name + "\"")) << name;
    }
    for (std::string command : {"ps", "strace", "coredump", "pcapdump", "rtrace"}) {
        EXPECT_TRUE(holds(bytes_of("/"), "<input type=\"hidden\" name=\"cmd\" value=\"" + command + "\">"))
            << command;
    }
}

TEST(webfront_page, is_whole) {
    EXPECT_TRUE(bytes_of("/").starts_with("<!DOCTYPE html>\n"));
    EXPECT_TRUE(bytes_of("/").ends_with("</html>\n"));
    EXPECT_TRUE(bytes_of("/webfront/page.css").ends_with("}\n"));
    EXPECT_FALSE(bytes_of("/webfront/page.js").empty());
}

TEST(webfront_page, needs_nothing_that_its_policy_forbids) {
    std::string_view page = bytes_of("/");
    for (std::string_view forbidden : {"<style", " style=", " onclick=", " onload=", "javascript:",
                                       "<script>", "href=\"http", "src=\"http", "url(", "@import"}) {
        EXPECT_FALSE(holds(page, forbidden)) << forbidden;
        EXPECT_FALSE(holds(bytes_of("/webfront/page.css"), forbidden)) << forbidden;
    }
    for (std::string_view forbidden : {"eval(", "innerHTML", "outerHTML", "insertAdjacentHTML", "http:"}) {
        EXPECT_FALSE(holds(bytes_of("/webfront/page.js"), forbidden)) << forbidden;
    }
    EXPECT_TRUE(holds(webfront_page_fields, "default-src 'none'"));
    EXPECT_FALSE(holds(webfront_page_fields, "unsafe"));
}

TEST(webfront_page, keeps_browsers_from_asking_for_an_icon) {
    EXPECT_TRUE(holds(bytes_of("/"), "<link rel=\"icon\" href=\"data:"));
}

TEST(webfront_page, has_no_other_files) {
    EXPECT_EQ(webfront_find_page_file("/index.html"), nullptr);
    EXPECT_EQ(webfront_find_page_file("/webfront/"), nullptr);
    EXPECT_EQ(webfront_find_page_file(""), nullptr);
}
