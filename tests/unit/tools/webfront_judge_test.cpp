#include <gtest/gtest.h>

#include "tools/webfront/judge.h"

using namespace std::string_literals;

namespace {

constexpr uint16_t port = 8080;

webfront_head good_head(const std::string& target) {
    webfront_head head;
    head.method = "GET";
    head.target = target;
    head.hosts = {"localhost:8080"};
    return head;
}

// The status of an answer that is there at once, else 0.
int status_of(const webfront_head& head) {
    webfront_verdict verdict = webfront_judge(head, port);
    return verdict.road == webfront_road::answer ? std::stoi(verdict.bytes.substr(9, 3)) : 0;
}

}  // namespace

TEST(webfront_judge, hands_a_good_request_over_as_a_message) {
    webfront_verdict verdict = webfront_judge(good_head("/debugar.cgi?cmd=ps"), port);
    EXPECT_EQ(verdict.road, webfront_road::daemon);
    EXPECT_EQ(verdict.bytes, "/debugar.cgi\0cmd=ps"s);
}

TEST(webfront_judge, answers_the_page_itself_whatever_its_query) {
    EXPECT_EQ(status_of(good_head("/")), 200);
    EXPECT_EQ(status_of(good_head("/?x")), 200);
}

TEST(webfront_judge, answers_the_files_of_the_page_under_its_policy) {
    for (const char* target : {"/", "/webfront/page.css", "/webfront/page.js?v=2"}) {
        std::string answer = webfront_judge(good_head(target), port).bytes;
        EXPECT_TRUE(answer.starts_with("HTTP/1.0 200 OK\r\n")) << target;
        EXPECT_NE(answer.find("\r\nContent-Security-Policy: default-src 'none'; script-src 'self';"),
                  std::string::npos)
            << target;
        EXPECT_NE(answer.find("\r\nReferrer-Policy: no-referrer\r\n"), std::string::npos) << target;
    }
}

TEST(webfront_judge, leaves_listings_to_be_made) {
    for (std::string path : {"/webfront/processes", "/webfront/interfaces"}) {
        webfront_verdict verdict = webfront_judge(good_head(path + "?x"), port);
        EXPECT_EQ(verdict.road, webfront_road::listing);
        EXPECT_EQ(verdict.bytes, path);
    }
}

TEST(webfront_judge, makes_no_archive_of_a_path_that_is_the_fronts_own) {
    EXPECT_EQ(status_of(good_head("/webfront/")), 404);
    EXPECT_EQ(status_of(good_head("/webfront/page.js.map")), 404);
    EXPECT_EQ(status_of(good_head("/webfront/processes/1")), 404);
    EXPECT_EQ(status_of(good_head("/webfront")), 0);
    EXPECT_EQ(status_of(good_head("/x/webfront/page.js")), 0);
}

TEST(webfront_judge, lists_nothing_for_a_foreign_host_or_another_method) {
    webfront_head head = good_head("/webfront/processes");
    head.hosts = {"rebound.example:8080"};
    EXPECT_EQ(status_of(head), 403);
    head = good_head("/webfront/processes");
    head.method = "POST";
    EXPECT_EQ(status_of(head), 405);
}

TEST(webfront_judge, keeps_the_icon_of_browsers_from_the_daemon) {
    EXPECT_EQ(status_of(good_head("/favicon.ico")), 404);
}

TEST(webfront_judge, refuses_a_foreign_host) {
    webfront_head head = good_head("/debug.tgz");
    head.hosts = {"rebound.example:8080"};
    EXPECT_EQ(status_of(head), 403);
    head.method = "POST";
    EXPECT_EQ(status_of(head), 403);
}

TEST(webfront_judge, refuses_no_host_and_several) {
    webfront_head head = good_head("/debug.tgz");
    head.hosts = {};
    EXPECT_EQ(status_of(head), 400);
    head.version = 10;
    EXPECT_EQ(status_of(head), 403);
    head.hosts = {"localhost:8080", "localhost:8080"};
    EXPECT_EQ(status_of(head), 400);
}

TEST(webfront_judge, serves_the_old_version_with_a_host) {
    webfront_head head = good_head("/debug.tgz");
    head.version = 10;
    EXPECT_EQ(status_of(head), 0);
}

TEST(webfront_judge, allows_get_alone) {
    for (const char* method : {"POST", "HEAD", "PUT", "DELETE", "OPTIONS", "get", "BREW"}) {
        webfront_head head = good_head("/debug.tgz");
        head.method = method;
        EXPECT_EQ(status_of(head), 405) << method;
    }
}

TEST(webfront_judge, gives_head_no_body) {
    webfront_head head = good_head("/");
    head.method = "HEAD";
    EXPECT_TRUE(webfront_judge(head, port).bytes.ends_with("\r\n\r\n"));
}

TEST(webfront_judge, refuses_what_pages_of_other_sites_embed) {
    webfront_head head = good_head("/debug.tgz?pop");
    head.is_embedded_elsewhere = true;
    EXPECT_EQ(status_of(head), 403);
}

TEST(webfront_judge, refuses_a_body_and_a_target_that_is_no_path) {
    webfront_head head = good_head("/debug.tgz");
    head.announces_body = true;
    EXPECT_EQ(status_of(head), 400);
    EXPECT_EQ(status_of(good_head("http://localhost:8080/debug.tgz")), 400);
    EXPECT_EQ(status_of(good_head("*")), 400);
}

TEST(webfront_judge, limits_the_message_to_4094_bytes) {
    EXPECT_EQ(status_of(good_head("/" + std::string(4092, 'x'))), 0);
    EXPECT_EQ(status_of(good_head("/" + std::string(4093, 'x'))), 414);
    EXPECT_EQ(status_of(good_head("/x?" + std::string(4091, 'y'))), 0);
    EXPECT_EQ(status_of(good_head("/x?" + std::string(4092, 'y'))), 414);
}

TEST(webfront_judge_broken, tells_a_bad_head_from_a_large_one) {
    EXPECT_TRUE(webfront_judge_broken(webfront_head_state::bad).bytes.starts_with("HTTP/1.0 400 "));
    EXPECT_TRUE(webfront_judge_broken(webfront_head_state::too_large).bytes.starts_with("HTTP/1.0 431 "));
}
