#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/applets.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/command_line.h"

namespace {

// The last applet that ran, and its arguments.
struct call {
    std::string applet;
    int argc = -1;
    std::vector<std::string> argv;
    bool ended_by_null = false;
};
call last_call;

int record(const char* applet, int result, int argc, char** argv) {
    last_call = {applet, argc, {argv, argv + argc}, argv[argc] == nullptr};
    return result;
}

constexpr app_entry table[] = {
    {"mon", [](int argc, char** argv) { return record("mon", 11, argc, argv); }},
    {"tstrace", [](int argc, char** argv) { return record("tstrace", 300, argc, argv); }},
    {"twin", [](int argc, char** argv) { return record("first twin", -3, argc, argv); }},
    {"twin", [](int argc, char** argv) { return record("second twin", 0, argc, argv); }},
    {"debugar.cgi", [](int argc, char** argv) { return record("debugar.cgi", 0, argc, argv); }},
};

struct outcome {
    int result = 0;
    std::string out;
    std::string err;
    call seen;
};

outcome dispatch(std::vector<std::string> words) {
    command_line line(std::move(words));
    last_call = {};
    outcome result;
    result.err = capture_stderr([&] {
        result.out = capture_stdout([&] { result.result = app_dispatch(line.argc(), line.argv(), table); });
    });
    result.seen = last_call;
    return result;
}

// Expects `words` to run `applet` with `argv`, silently, and returns the result.
int expect_runs(const std::vector<std::string>& words, const std::string& applet,
                const std::vector<std::string>& argv) {
    outcome got = dispatch(words);
    EXPECT_EQ(got.seen.applet, applet);
    EXPECT_EQ(got.seen.argv, argv);
    EXPECT_EQ(got.seen.argc, static_cast<int>(argv.size()));
    EXPECT_TRUE(got.seen.ended_by_null);
    EXPECT_EQ(got.out + got.err, "");
    return got.result;
}

void expect_unknown(const std::vector<std::string>& words, const std::string& name) {
    outcome got = dispatch(words);
    EXPECT_EQ(got.seen.applet, "");
    EXPECT_EQ(got.out, name + ": unknown zarvo applet\n");
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.result, 1);
}

void expect_silence(const std::vector<std::string>& words) {
    outcome got = dispatch(words);
    EXPECT_EQ(got.seen.applet, "");
    EXPECT_EQ(got.out + got.err, "");
    EXPECT_EQ(got.result, 1);
}

}  // namespace

TEST(app_dispatch, runs_the_applet_of_its_own_name) {
    expect_runs({"mon"}, "mon", {"mon"});
    expect_runs({"debugar.cgi", "-d"}, "debugar.cgi", {"debugar.cgi", "-d"});
}

TEST(app_dispatch, name_is_the_last_component_of_the_path) {
    expect_runs({"/usr/bin/mon", "-x", "1"}, "mon", {"/usr/bin/mon", "-x", "1"});
    expect_runs({"./mon"}, "mon", {"./mon"});
    expect_runs({"mon/tstrace"}, "tstrace", {"mon/tstrace"});
}

TEST(app_dispatch, next_word_replaces_the_toolbox_name) {
    expect_runs({"zarvo", "mon"}, "mon", {"mon"});
    expect_runs({"/usr/bin/zarvo", "mon", "a", "", "b"}, "mon", {"mon", "a", "", "b"});
    expect_runs({"zarvo", "/some/dir/tstrace", "-x"}, "tstrace", {"/some/dir/tstrace", "-x"});
}

TEST(app_dispatch, toolbox_name_is_replaced_only_once) {
    expect_unknown({"zarvo", "zarvo"}, "zarvo");
    expect_unknown({"zarvo", "zarvo", "mon"}, "zarvo");
    expect_unknown({"zarvo", "/usr/bin/zarvo", "mon"}, "zarvo");
}

TEST(app_dispatch, applet_name_is_not_replaced) {
    expect_runs({"mon", "tstrace"}, "mon", {"mon", "tstrace"});
}

TEST(app_dispatch, toolbox_name_alone_prints_nothing) {
    expect_silence({"zarvo"});
    expect_silence({"/usr/bin/zarvo"});
}

TEST(app_dispatch, missing_name_prints_nothing) {
    expect_silence({});
}

TEST(app_dispatch, unknown_name_is_reported_on_standard_output) {
    expect_unknown({"nonsense"}, "nonsense");
    expect_unknown({"/usr/bin/nonsense", "mon"}, "nonsense");
    expect_unknown({"zarvo", "/some/dir/nonsense", "-x"}, "nonsense");
    expect_unknown({"100%s"}, "100%s");
}

TEST(app_dispatch, names_are_compared_in_full_and_with_their_case) {
    expect_unknown({"Mon"}, "Mon");
    expect_unknown({"mo"}, "mo");
    expect_unknown({"mon2"}, "mon2");
    expect_unknown({"ZARVO", "mon"}, "ZARVO");
    expect_unknown({"zarvo2", "mon"}, "zarvo2");
    expect_unknown({"zarv", "mon"}, "zarv");
}

TEST(app_dispatch, empty_name_is_unknown) {
    expect_unknown({""}, "");
    expect_unknown({"/usr/bin/"}, "");
    expect_unknown({"zarvo", ""}, "");
    expect_unknown({"zarvo", "mon/"}, "");
}

TEST(app_dispatch, first_match_of_the_table_runs) {
    expect_runs({"twin"}, "first twin", {"twin"});
}

TEST(app_dispatch, returns_the_applets_result) {
    EXPECT_EQ(expect_runs({"mon"}, "mon", {"mon"}), 11);
    EXPECT_EQ(expect_runs({"zarvo", "tstrace"}, "tstrace", {"tstrace"}), 300);
    EXPECT_EQ(expect_runs({"twin"}, "first twin", {"twin"}), -3);
}

TEST(app_dispatch, empty_table_has_no_applets) {
    std::string name = "mon";
    char* argv[] = {name.data(), nullptr};
    std::string out = capture_stdout([&] { EXPECT_EQ(app_dispatch(1, argv, {}), 1); });
    EXPECT_EQ(out, "mon: unknown zarvo applet\n");
}
