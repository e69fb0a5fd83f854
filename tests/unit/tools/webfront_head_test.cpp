#include <gtest/gtest.h>

#include <string>

#include "tools/webfront/head.h"

namespace {

using state = webfront_head_state;

state feed_whole(const std::string& bytes) {
    webfront_head_reader reader;
    return reader.feed(bytes);
}

// Feeds the bytes one by one, until the head is complete or wrong.
state feed_bytewise(webfront_head_reader* reader, const std::string& bytes) {
    state now = state::incomplete;
    for (size_t i = 0; i < bytes.size() && now == state::incomplete; i++) {
        now = reader->feed({&bytes[i], 1});
    }
    return now;
}

// A head of exactly `size` bytes.
std::string head_of_size(size_t size) {
    std::string start = "GET / HTTP/1.1\r\nHost: a\r\nX: ";
    std::string end = "\r\n\r\n";
    return start + std::string(size - start.size() - end.size(), 'x') + end;
}

}  // namespace

TEST(webfront_head_reader, returns_the_parts_of_a_whole_head) {
    webfront_head_reader reader;
    ASSERT_EQ(reader.feed("GET /a%00?b=c HTTP/1.1\r\nhOST:  localhost:1 \r\nAccept: */*\r\n\r\n"),
              state::complete);
    webfront_head head = reader.head();
    EXPECT_EQ(head.version, 11);
    EXPECT_EQ(head.method, "GET");
    EXPECT_EQ(head.target, "/a%00?b=c");
    EXPECT_EQ(head.hosts, std::vector<std::string>{"localhost:1"});
    EXPECT_FALSE(head.announces_body);
}

TEST(webfront_head_reader, reads_single_bytes_as_well) {
    webfront_head_reader reader;
    ASSERT_EQ(feed_bytewise(&reader, "GET /x?y HTTP/1.0\r\nHost: a\r\nHost: b\r\nX: y\r\n\r\n"),
              state::complete);
    webfront_head head = reader.head();
    EXPECT_EQ(head.version, 10);
    EXPECT_EQ(head.target, "/x?y");
    EXPECT_EQ(head.hosts, (std::vector<std::string>{"a", "b"}));
}

TEST(webfront_head_reader, distinguishes_requests_embedded_in_other_sites_from_links) {
    constexpr struct {
        const char* fields;
        bool embedded;
    } heads[] = {
        {"", false},  // no browser, or an old one
        {"Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: no-cors\r\n", true},
        {"Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: cors\r\n", true},
        {"sec-fetch-site: cross-site\r\n", true},
        {"Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: navigate\r\n", false},
        {"Sec-Fetch-Site: same-origin\r\nSec-Fetch-Mode: cors\r\n", false},
        {"Sec-Fetch-Site: none\r\nSec-Fetch-Mode: navigate\r\n", false},
    };
    for (const auto& each : heads) {
        webfront_head_reader reader;
        ASSERT_EQ(reader.feed("GET / HTTP/1.1\r\nHost: a\r\n" + std::string(each.fields) + "\r\n"),
                  state::complete);
        EXPECT_EQ(reader.head().is_embedded_elsewhere, each.embedded) << each.fields;
    }
}

TEST(webfront_head_reader, reports_whether_a_byte_has_arrived) {
    webfront_head_reader reader;
    EXPECT_FALSE(reader.has_begun());
    EXPECT_EQ(reader.feed("G"), state::incomplete);
    EXPECT_TRUE(reader.has_begun());
}

TEST(webfront_head_reader, drops_what_follows_the_head) {
    webfront_head_reader reader;
    ASSERT_EQ(reader.feed("GET /a HTTP/1.1\r\nHost: a\r\n\r\nGET /b HTTP/1.1\r\n"), state::complete);
    EXPECT_EQ(reader.head().target, "/a");
}

TEST(webfront_head_reader, accepts_unknown_methods) {
    webfront_head_reader reader;
    ASSERT_EQ(reader.feed("BREW /pot HTTP/1.1\r\nHost: a\r\n\r\n"), state::complete);
    EXPECT_EQ(reader.head().method, "BREW");
}

TEST(webfront_head_reader, notices_an_announced_body_of_any_length) {
    for (const char* field :
         {"Content-Length: 5", "Content-Length: 99999999999", "Transfer-Encoding: chunked"}) {
        webfront_head_reader reader;
        ASSERT_EQ(reader.feed(std::string("POST / HTTP/1.1\r\n") + field + "\r\n\r\n"), state::complete)
            << field;
        EXPECT_TRUE(reader.head().announces_body) << field;
    }
    webfront_head_reader reader;
    ASSERT_EQ(reader.feed("GET / HTTP/1.1\r\nContent-Length: 0\r\n\r\n"), state::complete);
    EXPECT_FALSE(reader.head().announces_body);
}

TEST(webfront_head_reader, rejects_bad_heads) {
    using namespace std::string_literals;
    const std::string bad[] = {
        "\r\n\r\n",
        "hello\r\n\r\n",
        "GET /\r\n\r\n",
        "GET / HTTP/2.0\r\n\r\n",
        "GET / HTTP/0.9\r\n\r\n",
        "GET / FTP/1.1\r\n\r\n",
        "GET  / HTTP/1.1\r\n\r\n",
        "GET /a\tb HTTP/1.1\r\n\r\n",
        "GET /a\0b HTTP/1.1\r\n\r\n"s,
        "GET /a\x7f HTTP/1.1\r\n\r\n",
        "GET / HTTP/1.1\r\nno colon\r\n\r\n",
        "GET / HTTP/1.1\r\nHost : a\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: a\0b\r\n\r\n"s,
        "GET / HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
        "\x16\x03\x01\x02 tls client hello\r\n\r\n",
    };
    for (const std::string& head : bad) {
        EXPECT_EQ(feed_whole(head), state::bad) << head;
        webfront_head_reader reader;
        EXPECT_EQ(feed_bytewise(&reader, head), state::bad) << head;
    }
}

TEST(webfront_head_reader, rejects_bare_newlines) {
    EXPECT_EQ(feed_whole("GET / HTTP/1.1\n\n"), state::bad);
    // In pieces, it keeps waiting for a line end; the time limit for heads ends that.
    webfront_head_reader reader;
    EXPECT_EQ(feed_bytewise(&reader, "GET / HTTP/1.1\n\n"), state::incomplete);
}

TEST(webfront_head_reader, accepts_a_head_of_8192_bytes) {
    EXPECT_EQ(feed_whole(head_of_size(8192)), state::complete);
    webfront_head_reader reader;
    EXPECT_EQ(feed_bytewise(&reader, head_of_size(8192)), state::complete);
}

TEST(webfront_head_reader, refuses_a_head_of_8193_bytes) {
    EXPECT_EQ(feed_whole(head_of_size(8193)), state::too_large);
    webfront_head_reader reader;
    EXPECT_EQ(feed_bytewise(&reader, head_of_size(8193)), state::too_large);
}

TEST(webfront_head_reader, refuses_a_long_head_in_pieces_of_every_size) {
    std::string head = head_of_size(9000);
    for (size_t piece = 1; piece < 9000; piece += 97) {
        webfront_head_reader reader;
        state now = state::incomplete;
        for (size_t at = 0; at < head.size() && now == state::incomplete; at += piece) {
            now = reader.feed(std::string_view(head).substr(at, piece));
        }
        ASSERT_EQ(now, state::too_large) << piece;
    }
}

TEST(webfront_head_reader, limits_many_short_fields_too) {
    webfront_head_reader reader;
    std::string head = "GET / HTTP/1.1\r\n";
    while (head.size() <= 8192) {
        head += "A: b\r\n";
    }
    EXPECT_EQ(feed_bytewise(&reader, head), state::too_large);
}

TEST(webfront_head_reader, refuses_an_endless_target_and_an_endless_method) {
    EXPECT_EQ(feed_whole("GET /" + std::string(9000, 'x')), state::too_large);
    EXPECT_EQ(feed_whole(std::string(9000, 'x')), state::too_large);
}
