#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

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

// The module names in `text`, each between `before` and a double quote.
std::vector<std::string> modules_named(std::string_view text, std::string_view before) {
    std::vector<std::string> names;
    for (size_t at = text.find(before); at != std::string_view::npos; at = text.find(before, at)) {
        at += before.size();
        names.emplace_back(text.substr(at, text.find('"', at) - at));
    }
    return names;
}

// The page's script, the modules it imports, the modules these import, and so on.
std::vector<std::string> all_modules() {
    std::vector<std::string> all = modules_named(bytes_of("/"), "<script type=\"module\" src=\"/webfront/");
    for (size_t i = 0; i < all.size(); i++) {
        for (const std::string& name : modules_named(bytes_of("/webfront/" + all[i]), " from \"./")) {
            if (std::ranges::find(all, name) == all.end()) {
                all.push_back(name);
            }
        }
    }
    return all;
}

}  // namespace

TEST(webfront_page, links_to_every_request_without_parameters) {
    for (std::string target :
         {"/debug.tgz", "/debug.tar", "/debugar.cgi?cmd=ps", "/debugar.cgi?cmd=strace",
          "/debugar.cgi?cmd=coredump", "/debug.tgz?listen", "/debug.tgz?pop", "/report.html"}) {
        EXPECT_TRUE(holds(bytes_of("/"), "<a href=\"" + target + "\">")) << target;
    }
}

TEST(webfront_page, has_an_input_for_every_parameter) {
    for (std::string name : {"pid", "interface", "duration", "totalsize", "interval", "trace"}) {
        EXPECT_TRUE(holds(bytes_of("/"), " name=\"" + name + "\"")) << name;
    }
    for (std::string command : {"ps", "strace", "coredump", "pcapdump", "rtrace"}) {
        EXPECT_TRUE(holds(bytes_of("/"), "<input type=\"hidden\" name=\"cmd\" value=\"" + command + "\">"))
            << command;
    }
}

TEST(webfront_page, is_complete) {
    EXPECT_TRUE(bytes_of("/").starts_with("<!DOCTYPE html>\n"));
    EXPECT_TRUE(bytes_of("/").ends_with("</html>\n"));
    EXPECT_TRUE(bytes_of("/webfront/page.css").ends_with("}\n"));
}

TEST(webfront_page, serves_every_module_that_its_script_imports) {
    ASSERT_GT(all_modules().size(), 1U);
    for (const std::string& name : all_modules()) {
        const webfront_page_file* file = webfront_find_page_file("/webfront/" + name);
        ASSERT_NE(file, nullptr) << name;
        EXPECT_EQ(file->content_type, "text/javascript; charset=utf-8") << name;
        EXPECT_TRUE(file->bytes.ends_with("\n")) << name;
    }
}

// Without preloading, a browser finds a module only after it has read the one that imports it.
TEST(webfront_page, preloads_every_module_that_its_script_imports) {
    std::vector<std::string> imported = all_modules();
    std::vector<std::string> preloaded =
        modules_named(bytes_of("/"), "<link rel=\"modulepreload\" href=\"/webfront/");
    imported.erase(imported.begin());
    std::ranges::sort(imported);
    EXPECT_EQ(preloaded, imported);
}

TEST(webfront_page, contains_nothing_that_its_policy_forbids) {
    std::string_view page = bytes_of("/");
    for (std::string_view forbidden : {"<style", " style=", " onclick=", " onload=", "javascript:",
                                       "<script>", "href=\"http", "src=\"http", "url(", "@import"}) {
        EXPECT_FALSE(holds(page, forbidden)) << forbidden;
        EXPECT_FALSE(holds(bytes_of("/webfront/page.css"), forbidden)) << forbidden;
    }
    for (const std::string& name : all_modules()) {
        for (std::string_view forbidden :
             {"eval(", "innerHTML", "outerHTML", "insertAdjacentHTML", "http:"}) {
            EXPECT_FALSE(holds(bytes_of("/webfront/" + name), forbidden)) << name << ": " << forbidden;
        }
    }
    EXPECT_TRUE(holds(webfront_page_fields, "default-src 'none'"));
    EXPECT_FALSE(holds(webfront_page_fields, "unsafe"));
}

TEST(webfront_page, keeps_browsers_from_requesting_an_icon) {
    EXPECT_TRUE(holds(bytes_of("/"), "<link rel=\"icon\" href=\"data:"));
}

TEST(webfront_page, has_no_other_files) {
    EXPECT_EQ(webfront_find_page_file("/index.html"), nullptr);
    EXPECT_EQ(webfront_find_page_file("/webfront/"), nullptr);
    EXPECT_EQ(webfront_find_page_file(""), nullptr);
}
