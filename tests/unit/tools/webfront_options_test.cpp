#include <gtest/gtest.h>

#include <vector>

#include "tests/unit/support/command_line.h"
#include "tools/webfront/options.h"

namespace {

// Parses these words after the name of the program.
std::string parse(std::vector<std::string> words, webfront_options* options) {
    command_line line("webfront", std::move(words));
    return webfront_parse(line.argc(), line.argv(), options);
}

}  // namespace

TEST(webfront_parse, has_defaults) {
    webfront_options options;
    EXPECT_EQ(parse({}, &options), "");
    EXPECT_EQ(options.port, 8080);
    EXPECT_EQ(options.socket_path, "/var/run/dbg-cgi/ctrl-cgi-socket");
    EXPECT_FALSE(options.help);
}

TEST(webfront_parse, takes_port_socket_and_help) {
    webfront_options options;
    EXPECT_EQ(parse({"--port", "0", "--socket=/run/x", "--help"}, &options), "");
    EXPECT_EQ(options.port, 0);
    EXPECT_EQ(options.socket_path, "/run/x");
    EXPECT_TRUE(options.help);
    EXPECT_EQ(parse({"--port", "65535"}, &options), "");
    EXPECT_EQ(options.port, 65535);
}

TEST(webfront_parse, takes_the_forwarded_port) {
    webfront_options options;
    EXPECT_EQ(options.forwarded_port, 0);
    EXPECT_EQ(parse({"--forwarded-from", "18080"}, &options), "");
    EXPECT_EQ(options.forwarded_port, 18080);
    EXPECT_NE(parse({"--forwarded-from", "0"}, &options), "");
    EXPECT_NE(parse({"--forwarded-from", "x"}, &options), "");
}

TEST(webfront_parse, takes_the_path_of_the_reader) {
    webfront_options options;
    EXPECT_EQ(options.reader_path, "");
    EXPECT_EQ(parse({"--reader", "/opt/archiveview"}, &options), "");
    EXPECT_EQ(options.reader_path, "/opt/archiveview");
    EXPECT_EQ(parse({"--reader", ""}, &options), "the reader's path is empty");
}

TEST(webfront_parse, refuses_bad_port_numbers) {
    for (const char* port : {"", "-1", "65536", "80x", "x", " 80", "+80", "0x50"}) {
        webfront_options options;
        EXPECT_EQ(parse({"--port", port}, &options), "'" + std::string(port) + "' is not a port number");
        EXPECT_EQ(options.port, 8080) << port;
    }
}

TEST(webfront_parse, names_the_wrong_word_and_changes_nothing) {
    webfront_options options;
    EXPECT_EQ(parse({"--port", "9", "--bogus"}, &options), "unknown option '--bogus'");
    EXPECT_EQ(options.port, 8080);
    EXPECT_EQ(parse({"--socket", ""}, &options), "the socket's path is empty");
    EXPECT_EQ(parse({"--port"}, &options), "missing value after '--port'");
    EXPECT_EQ(parse({"--bogus"}, &options), "unknown option '--bogus'");
    EXPECT_EQ(parse({"-x"}, &options), "unknown option '-x'");
    EXPECT_EQ(parse({"word"}, &options), "unexpected argument 'word'");
}
