#include <gtest/gtest.h>

#include "tests/unit/support/pipes.h"
#include "tools/webfront/answer.h"

TEST(webfront_answer, is_a_whole_answer_for_a_connection_that_closes) {
    EXPECT_EQ(webfront_answer(404, "text/plain; charset=utf-8", "gone"),
              "HTTP/1.0 404 Not Found\r\nConnection: close\r\nContent-Type: text/plain; charset=utf-8\r\n"
              "Content-Length: 4\r\nX-Content-Type-Options: nosniff\r\n\r\ngone");
}

TEST(webfront_answer, names_the_allowed_method_in_a_405) {
    EXPECT_NE(webfront_error(405, "No.").find("\r\nAllow: GET\r\n"), std::string::npos);
    EXPECT_EQ(webfront_error(400, "No.").find("Allow"), std::string::npos);
}

TEST(webfront_answer, announces_the_length_of_an_omitted_body) {
    std::string answer = webfront_answer(405, "text/plain", "gone", false);
    EXPECT_NE(answer.find("\r\nContent-Length: 4\r\n"), std::string::npos);
    EXPECT_TRUE(answer.ends_with("\r\n\r\n"));
}

TEST(webfront_answer, adds_further_fields) {
    EXPECT_NE(webfront_answer(200, "text/css", "x", true, "A: b\r\n").find("\r\nA: b\r\n\r\nx"),
              std::string::npos);
}

TEST(webfront_error, is_one_plain_sentence_and_a_newline) {
    std::string answer = webfront_error(503, "Busy.");
    EXPECT_TRUE(answer.starts_with("HTTP/1.0 503 Service Unavailable\r\n"));
    EXPECT_NE(answer.find("\r\nContent-Type: text/plain; charset=utf-8\r\n"), std::string::npos);
    EXPECT_NE(answer.find("\r\nContent-Length: 6\r\n"), std::string::npos);
    EXPECT_TRUE(answer.ends_with("\r\n\r\nBusy.\n"));
}

TEST(webfront_refuse, sends_a_503_whose_length_is_right) {
    test_socketpair pair;
    webfront_refuse(pair.a.get());
    pair.a.reset();
    std::string answer = read_all(pair.b.get());
    size_t body = answer.find("\r\n\r\n") + 4;
    EXPECT_TRUE(answer.starts_with("HTTP/1.0 503 Service Unavailable\r\n"));
    EXPECT_NE(answer.find("\r\nContent-Length: " + std::to_string(answer.size() - body) + "\r\n"),
              std::string::npos)
        << answer;
}
