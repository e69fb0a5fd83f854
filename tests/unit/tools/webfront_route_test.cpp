#include <gtest/gtest.h>

#include "tools/webfront/route.h"

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

// The status if the front answers itself, else 0.
int status_of(const webfront_head& head) {
    webfront_decision decision = webfront_decide(head, port);
    return decision.route == webfront_route::answer ? std::stoi(decision.bytes.substr(9, 3)) : 0;
}

}  // namespace

TEST(webfront_decide, passes_a_good_request_to_the_daemon_as_a_message) {
    webfront_decision decision = webfront_decide(good_head("/debugar.cgi?cmd=ps"), port);
    EXPECT_EQ(decision.route, webfront_route::daemon);
    EXPECT_EQ(decision.bytes, "/debugar.cgi\0cmd=ps"s);
}

TEST(webfront_decide, answers_the_page_with_any_query) {
    EXPECT_EQ(status_of(good_head("/")), 200);
    EXPECT_EQ(status_of(good_head("/?x")), 200);
}

TEST(webfront_decide, sends_the_policy_with_each_file_of_the_page) {
    for (const char* target : {"/", "/webfront/page.css", "/webfront/page.js?v=2"}) {
        std::string answer = webfront_decide(good_head(target), port).bytes;
        EXPECT_TRUE(answer.starts_with("HTTP/1.0 200 OK\r\n")) << target;
        EXPECT_NE(answer.find("\r\nContent-Security-Policy: default-src 'none'; script-src 'self';"),
                  std::string::npos)
            << target;
        EXPECT_NE(answer.find("\r\nReferrer-Policy: no-referrer\r\n"), std::string::npos) << target;
    }
}

TEST(webfront_decide, names_the_listing_to_make) {
    for (std::string path : {"/webfront/processes", "/webfront/interfaces"}) {
        webfront_decision decision = webfront_decide(good_head(path + "?x"), port);
        EXPECT_EQ(decision.route, webfront_route::listing);
        EXPECT_EQ(decision.bytes, path);
    }
}

TEST(webfront_decide, makes_a_report_and_passes_its_query_on) {
    webfront_decision decision = webfront_decide(good_head("/report.html?kept=7"), port);
    EXPECT_EQ(decision.route, webfront_route::report);
    EXPECT_EQ(decision.bytes, "kept=7");
    EXPECT_EQ(webfront_decide(good_head("/report.html"), port).bytes, "");
    EXPECT_EQ(webfront_decide(good_head("/x/report.html"), port).route, webfront_route::daemon);
}

TEST(webfront_decide, passes_no_path_of_its_own_to_the_daemon) {
    EXPECT_EQ(status_of(good_head("/webfront/")), 404);
    EXPECT_EQ(status_of(good_head("/webfront/page.js.map")), 404);
    EXPECT_EQ(status_of(good_head("/webfront/processes/1")), 404);
    EXPECT_EQ(status_of(good_head("/webfront")), 0);
    EXPECT_EQ(status_of(good_head("/x/webfront/page.js")), 0);
}

TEST(webfront_decide, lists_nothing_for_a_foreign_host_or_another_method) {
    webfront_head head = good_head("/webfront/processes");
    head.hosts = {"rebound.example:8080"};
    EXPECT_EQ(status_of(head), 403);
    head = good_head("/webfront/processes");
    head.method = "POST";
    EXPECT_EQ(status_of(head), 405);
}

TEST(webfront_decide, passes_no_request_for_an_icon_to_the_daemon) {
    EXPECT_EQ(status_of(good_head("/favicon.ico")), 404);
}

TEST(webfront_decide, refuses_a_foreign_host) {
    webfront_head head = good_head("/debug.tgz");
    head.hosts = {"rebound.example:8080"};
    EXPECT_EQ(status_of(head), 403);
    head.method = "POST";
    EXPECT_EQ(status_of(head), 403);
}

TEST(webfront_decide, refuses_a_missing_host_and_several_hosts) {
    webfront_head head = good_head("/debug.tgz");
    head.hosts = {};
    EXPECT_EQ(status_of(head), 400);
    head.version = 10;
    EXPECT_EQ(status_of(head), 403);
    head.hosts = {"localhost:8080", "localhost:8080"};
    EXPECT_EQ(status_of(head), 400);
}

TEST(webfront_decide, accepts_http_1_0_with_a_host) {
    webfront_head head = good_head("/debug.tgz");
    head.version = 10;
    EXPECT_EQ(status_of(head), 0);
}

TEST(webfront_decide, accepts_no_method_but_get) {
    for (const char* method : {"POST", "HEAD", "PUT", "DELETE", "OPTIONS", "get", "BREW"}) {
        webfront_head head = good_head("/debug.tgz");
        head.method = method;
        EXPECT_EQ(status_of(head), 405) << method;
    }
}

TEST(webfront_decide, answers_head_without_a_body) {
    webfront_head head = good_head("/");
    head.method = "HEAD";
    EXPECT_TRUE(webfront_decide(head, port).bytes.ends_with("\r\n\r\n"));
}

TEST(webfront_decide, refuses_requests_embedded_in_other_sites) {
    webfront_head head = good_head("/debug.tgz?pop");
    head.is_embedded_elsewhere = true;
    EXPECT_EQ(status_of(head), 403);
}

TEST(webfront_decide, refuses_a_body_and_a_target_other_than_a_path) {
    webfront_head head = good_head("/debug.tgz");
    head.announces_body = true;
    EXPECT_EQ(status_of(head), 400);
    EXPECT_EQ(status_of(good_head("http://localhost:8080/debug.tgz")), 400);
    EXPECT_EQ(status_of(good_head("*")), 400);
}

TEST(webfront_decide, limits_the_message_to_4094_bytes) {
    EXPECT_EQ(status_of(good_head("/" + std::string(4092, 'x'))), 0);
    EXPECT_EQ(status_of(good_head("/" + std::string(4093, 'x'))), 414);
    EXPECT_EQ(status_of(good_head("/x?" + std::string(4091, 'y'))), 0);
    EXPECT_EQ(status_of(good_head("/x?" + std::string(4092, 'y'))), 414);
}

TEST(webfront_decide_broken, distinguishes_a_bad_head_from_a_large_one) {
    EXPECT_TRUE(webfront_decide_broken(webfront_head_state::bad).bytes.starts_with("HTTP/1.0 400 "));
    EXPECT_TRUE(webfront_decide_broken(webfront_head_state::too_large).bytes.starts_with("HTTP/1.0 431 "));
}
