#include "cgi/http.h"

#include <sys/socket.h>

#include "tests/unit/cgi/browser.h"
#include "tests/unit/support/capture.h"

namespace {

std::string header_named(const std::string& name) {
    browser reader;
    EXPECT_EQ(stream_http_header(reader.daemon_end(), "text/plain", name.c_str()), 0);
    reader.drop_daemon_end();
    return reader.answer();
}

std::string page(const char* status, const char* message) {
    browser reader;
    stream_http_message(reader.daemon_end(), status, message);
    reader.drop_daemon_end();
    return reader.answer();
}

// What `work` prints on standard output and standard error.
template <typename Work>
std::string printed_by(Work work) {
    std::string errors;
    std::string output = capture_stdout([&] { errors = capture_stderr(work); });
    return output + errors;
}

TEST(http, a_download_header_is_its_template_with_type_and_name) {
    EXPECT_EQ(header_named("psdump.txt"),
              "HTTP/1.0 200 OK\r\n"
              "Cache-Control: no-cache\r\n"
              "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
              "Content-Type: text/plain\r\n"
              "Content-Disposition: attachment; filename=\"psdump.txt\"\r\n"
              "\r\n");
}

TEST(http, a_download_header_adds_146_bytes_to_type_and_name) {
    EXPECT_EQ(header_named("n").size(), 146 + sizeof "text/plain" - 1 + 1);
}

TEST(http, a_status_page_is_its_template_with_status_and_message) {
    EXPECT_EQ(page("503 Service Unavailable",
                   "Another Crash Report generation is in progress. Please try again later ..."),
              busy_answer);
}

TEST(http, texts_are_inserted_unchanged) {
    EXPECT_EQ(header_named("%s%n%d"), download_head("text/plain", "%s%n%d"));
    EXPECT_NE(page("200 100%s", "50% of <b>\"it\"</b>\r\n").find("\r\n50% of <b>\"it\"</b>\r\n\r\n</BODY>"),
              std::string::npos);
}

TEST(http, the_fixed_answers_have_their_exact_bytes) {
    EXPECT_EQ(http_server_error, broken_server_answer);
    EXPECT_EQ(http_bad_request, bad_request_answer);
    EXPECT_EQ(broken_server_answer.size(), 140u);
    EXPECT_EQ(bad_request_answer.size(), 121u);
}

TEST(http, a_fixed_answer_is_written_whole) {
    for (std::string_view answer : {http_server_error, http_bad_request}) {
        browser reader;
        http_write_fixed(reader.daemon_end(), answer);
        reader.drop_daemon_end();
        EXPECT_EQ(reader.answer(), answer);
    }
}

TEST(http, quotes_backslashes_and_control_characters_of_a_name_become_underscores) {
    EXPECT_EQ(header_named("a\"b"), download_head("text/plain", "a_b"));
    EXPECT_EQ(header_named("core\\"), download_head("text/plain", "core_"));
    EXPECT_EQ(header_named("a\r\nSet-Cookie: x\r\n\r\n"),
              download_head("text/plain", "a__Set-Cookie: x____"));
    EXPECT_EQ(header_named("\x01\t\x1b\x1f\x7f"), download_head("text/plain", "_____"));
}

TEST(http, every_single_byte_of_a_name_is_kept_or_replaced_in_place) {
    for (int byte = 1; byte < 256; byte++) {
        char c = static_cast<char>(byte);
        bool replaced = byte < 0x20 || byte == 0x7f || c == '"' || c == '\\';
        std::string wanted = {'<', replaced ? '_' : c, '>'};
        EXPECT_EQ(header_named({'<', c, '>'}), download_head("text/plain", wanted)) << byte;
    }
}

TEST(http, the_callers_name_is_not_changed) {
    char name[] = "a\"b";
    browser reader;
    EXPECT_EQ(stream_http_header(reader.daemon_end(), "text/plain", name), 0);
    EXPECT_STREQ(name, "a\"b");
}

TEST(http, a_name_may_be_empty_or_long) {
    EXPECT_EQ(header_named(""), download_head("text/plain", ""));
    std::string endless(20000, 'n');
    EXPECT_EQ(header_named(endless), download_head("text/plain", endless));
}

TEST(http, each_answer_is_one_write) {
    test_socketpair packets(SOCK_SEQPACKET);
    char packet[1024];
    ASSERT_EQ(stream_http_header(packets.b.get(), "text/plain", "psdump.txt"), 0);
    stream_http_message(packets.b.get(), "200 OK", "fine");
    http_write_fixed(packets.b.get(), http_server_error);
    packets.b.reset();
    EXPECT_EQ(read(packets.a.get(), packet, sizeof packet),
              static_cast<ssize_t>(download_head("text/plain", "psdump.txt").size()));
    EXPECT_EQ(read(packets.a.get(), packet, sizeof packet),
              static_cast<ssize_t>(page("200 OK", "fine").size()));
    EXPECT_EQ(read(packets.a.get(), packet, sizeof packet), 140);
    EXPECT_EQ(read(packets.a.get(), packet, sizeof packet), 0);
}

TEST(http, the_connection_stays_open) {
    browser reader;
    EXPECT_EQ(stream_http_header(reader.daemon_end(), "a", "b"), 0);
    stream_http_message(reader.daemon_end(), "200 OK", "fine");
    http_write_fixed(reader.daemon_end(), http_bad_request);
    EXPECT_EQ(write(reader.daemon_end(), "x", 1), 1);
}

TEST(http, a_header_for_a_browser_that_has_gone_fails_silently) {
    browser gone;
    gone.go_away();
    int result = -1;
    EXPECT_EQ(printed_by([&] { result = stream_http_header(gone.daemon_end(), "text/plain", "x"); }), "");
    EXPECT_EQ(result, 1);
}

TEST(http, a_header_without_a_connection_fails) {
    EXPECT_EQ(stream_http_header(-1, "text/plain", "x"), 1);
}

TEST(http, pages_for_a_browser_that_has_gone_are_dropped_silently) {
    browser gone;
    gone.go_away();
    EXPECT_EQ(printed_by([&] {
                  stream_http_message(gone.daemon_end(), "200 OK", "fine");
                  http_write_fixed(gone.daemon_end(), http_server_error);
                  http_write_fixed(-1, http_bad_request);
              }),
              "");
    EXPECT_GE(fcntl(gone.daemon_end(), F_GETFD), 0);
}

}  // namespace
